// Shared by the fuzz targets: a reader that turns the fuzzer's bytes into
// arguments (the same bytes give the same calls under libFuzzer and in the
// replay programs), guarded buffers, and a check that aborts so that
// libFuzzer keeps the input.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tests/guarded.hpp"

namespace rsmpl_fuzz {

[[noreturn]] inline void fail(const char *file, int line, const char *what) {
    std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n", file, line, what);
    std::fflush(stderr);
    std::abort();
}

}  // namespace rsmpl_fuzz

#define FUZZ_CHECK(cond)                                                      \
    do {                                                                      \
        if (!(cond)) ::rsmpl_fuzz::fail(__FILE__, __LINE__, #cond);           \
    } while (0)

namespace rsmpl_fuzz {

// Reads little-endian values from the input; past its end every value is 0.
class Reader {
public:
    Reader(const uint8_t *data, size_t size) : p_(data), n_(size) {}

    bool empty() const { return n_ == 0; }
    uint8_t u8() {
        if (n_ == 0) return 0;
        --n_;
        return *p_++;
    }
    uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
    uint32_t u32() { return u16() | (static_cast<uint32_t>(u16()) << 16); }
    uint64_t u64() { return u32() | (static_cast<uint64_t>(u32()) << 32); }
    int16_t i16() { return static_cast<int16_t>(u16()); }
    int32_t i32() { return static_cast<int32_t>(u32()); }
    bool flag() { return (u8() & 1) != 0; }
    float f32() {
        const uint32_t bits = u32();
        float f;
        std::memcpy(&f, &bits, sizeof f);
        return f;
    }
    // lo..hi inclusive, from as few bytes as the span needs.
    uint32_t range(uint32_t lo, uint32_t hi) {
        const uint64_t span = uint64_t{hi} - lo + 1;
        const uint32_t v = span <= 0x100 ? u8() : span <= 0x10000 ? u16() : u32();
        return lo + static_cast<uint32_t>(v % span);
    }
    // Samples taken from the input while it lasts, then a cheap generator
    // seeded by what was read, so short inputs still drive long blocks.
    void samples(int16_t *out, size_t n) {
        uint32_t state = 0x9e3779b9u ^ static_cast<uint32_t>(n);
        for (size_t i = 0; i < n; ++i) {
            if (n_ >= 2) {
                out[i] = i16();
                state = state * 1664525u + static_cast<uint16_t>(out[i]);
            } else {
                state = state * 1664525u + 1013904223u;
                // Mostly full-scale extremes and large values: saturation paths.
                const uint32_t kind = state >> 30;
                out[i] = kind == 0 ? INT16_MAX : kind == 1 ? INT16_MIN : static_cast<int16_t>(state >> 8);
            }
        }
    }

private:
    const uint8_t *p_;
    size_t n_;
};

using rsmpl_test::Guarded;

}  // namespace rsmpl_fuzz
