// Named fixed-point primitives shared by every kernel. Widths and rounding are
// in the names; nothing here can overflow or shift out of range.
#pragma once

#include <bit>
#include <cstdint>

namespace rsmpl {

constexpr int16_t sat16(int64_t v) {
    return static_cast<int16_t>(v > INT16_MAX ? INT16_MAX : (v < INT16_MIN ? INT16_MIN : v));
}

constexpr int32_t sat32(int64_t v) {
    return static_cast<int32_t>(v > INT32_MAX ? INT32_MAX : (v < INT32_MIN ? INT32_MIN : v));
}

// Leading zero bits of a 32-bit word; 32 for 0.
constexpr int clz32(uint32_t v) { return std::countl_zero(v); }

// |v| as an unsigned number, exact also for the most negative value.
constexpr uint32_t mag32(int32_t v) { return v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v); }
constexpr uint64_t mag64(int64_t v) { return v < 0 ? 0u - static_cast<uint64_t>(v) : static_cast<uint64_t>(v); }

// Exact 16x16 -> 32-bit product.
constexpr int32_t mul16x16(int16_t a, int16_t b) { return int32_t{a} * int32_t{b}; }

// Round half towards +inf, then arithmetic shift right by s (1..62).
constexpr int64_t round_shift_right(int64_t acc, int s) { return (acc + (int64_t{1} << (s - 1))) >> s; }

// v * 2^s clamped to -2^b .. 2^b (b in 0..62), for any s >= 0: a gain stage
// whose caller saturates at or below 2^b anyway, so no shift count overflows.
constexpr int64_t shift_left_clamped(int64_t v, int s, int b) {
    const int64_t bound = int64_t{1} << b;
    if (v == 0) return 0;
    if (s > b) return v > 0 ? bound : -bound;  // |v| >= 1 already reaches 2^b
    const int64_t limit = int64_t{1} << (b - s);
    if (v > limit) return bound;
    if (v < -limit) return -bound;
    return v * (int64_t{1} << s);
}

// (acc + 2^(s-1)) >> s, saturated to 16 bits: the output rule of every FIR kernel.
constexpr int16_t round_sat16(int64_t acc, int s) { return sat16(round_shift_right(acc, s)); }

}  // namespace rsmpl
