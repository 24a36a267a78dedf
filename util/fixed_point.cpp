// Fixed-point primitives with mantissa-exponent forms, a Q15 base-10
// logarithm and the decibel-to-scale conversion.
//
// Every shift here is either of a non-negative value, or an arithmetic right
// shift, or replaced by a multiplication in 64 bits; shift counts are clamped
// below the operand width first. Nothing can overflow: products are formed in
// 64 bits and saturated with sat32.
#include <cstdint>
#include <initializer_list>

#include <rsmpl/rsmpl_util.h>
#include "util/db_table.hpp"
#include "util/fixed.hpp"

namespace rsmpl {

const DbScaleEntry kDbScaleTable[kDbScaleEntries] = {
#include "util/db_table.inc"
};

namespace {

constexpr int16_t kZeroExponent = INT16_MIN;  // exponent of a zero mantissa

// x * 2^s for 0 <= s <= 62 where the product fits: a left shift without
// shifting a negative value.
constexpr int64_t mul_pow2(int64_t x, int s) { return x * (int64_t{1} << s); }

constexpr UTIL_EXP32 pack_exp32(int32_t mantissa, int16_t exponent) {
    return (uint64_t{static_cast<uint32_t>(mantissa)} << 32) | static_cast<uint16_t>(exponent);
}
constexpr int32_t exp32_mantissa(UTIL_EXP32 x) { return static_cast<int32_t>(static_cast<uint32_t>(x >> 32)); }
constexpr int16_t exp32_exponent(UTIL_EXP32 x) { return static_cast<int16_t>(static_cast<uint16_t>(x)); }

// Headroom as _EXPONENT32 counts it: positive values up to 2^30, negative
// magnitudes up to 2^31 (so -3 has 30, one more than its redundant sign bits).
constexpr int16_t headroom32(int32_t x) {
    if (x == 0) return 0;
    const int c = clz32(mag32(x));
    return static_cast<int16_t>(x > 0 ? c - 1 : c);
}

}  // namespace
}  // namespace rsmpl

using namespace rsmpl;

extern "C" {

int64_t _SAT(int64_t x, int16_t bits) {
    // Widths beyond 1..32 follow the same rule up to the full 64 bits (bits of
    // 64 or more return x); widths below 1 act as 1 (range -1..0).
    if (bits >= 64) return x;
    const int b = bits < 1 ? 1 : bits;
    const int64_t hi = (int64_t{1} << (b - 1)) - 1;
    const int64_t lo = -hi - 1;
    return x > hi ? hi : (x < lo ? lo : x);
}

int16_t _EXPONENT32(const int32_t *x) { return x == nullptr ? 0 : headroom32(*x); }

void _NORMALIZE_S32(int32_t x, int32_t *mantissa, int16_t *exponent) {
    int32_t m = 0;
    int16_t e = kZeroExponent;
    if (x != 0) {
        const int c = clz32(mag32(x));
        if (c == 0) {  // only INT32_MIN
            m = x >> 1;
            e = 1;
        } else {
            m = static_cast<int32_t>(mul_pow2(x, c - 1));  // |x| < 2^(32-c): fits
            e = static_cast<int16_t>(1 - c);
        }
    }
    if (mantissa != nullptr) *mantissa = m;
    if (exponent != nullptr) *exponent = e;
}

void _MANTNEXP(int64_t x, int64_t *mantissa, int16_t *exponent) {
    const uint64_t a = mag64(x);
    int64_t m;
    int16_t e;
    if (a < (uint64_t{1} << 31)) {
        const int c = clz32(static_cast<uint32_t>(a));
        m = c == 32 ? 0 : mul_pow2(x, c - 1);
        e = c == 32 ? kZeroExponent : static_cast<int16_t>(1 - c);
    } else {
        const int c = clz32(static_cast<uint32_t>(a >> 32));
        const int s = 33 - c < 8 ? 33 - c : 8;
        m = x >> s;
        e = static_cast<int16_t>(s);
    }
    if (mantissa != nullptr) *mantissa = m;
    if (exponent != nullptr) *exponent = e;
}

UTIL_EXP32 _MANTEXPO32(int64_t x) {
    // Within 40 bits the split leaves a 32-bit mantissa.
    int64_t m;
    int16_t e;
    _MANTNEXP(_SAT(x, 40), &m, &e);
    return pack_exp32(static_cast<int32_t>(m), e);
}

int32_t _EXP32TOINT32(UTIL_EXP32 x) {
    const int32_t m = exp32_mantissa(x);
    if (m == 0) return 0;
    int e = exp32_exponent(x);
    e = e < -31 ? -31 : (e > 31 ? 31 : e);
    if (e > headroom32(m)) return m > 0 ? INT32_MAX : INT32_MIN;
    if (e < 0) return m >> -e;
    return sat32(mul_pow2(m, e));  // e <= 31: |m| * 2^e < 2^62
}

UTIL_EXP16 _EXP32TOEXP16(UTIL_EXP32 x) {
    // Mantissas of 0x7FFF8000 and above would round to 0x8000, which reads as
    // -1.0: they saturate to 0x7FFF instead.
    const int64_t rounded = (int64_t{exp32_mantissa(x)} + 0x8000) >> 16;
    const int64_t m16 = rounded > INT16_MAX ? INT16_MAX : rounded;
    return (static_cast<uint32_t>(static_cast<uint16_t>(m16)) << 16) | static_cast<uint16_t>(x);
}

int32_t _LOG10(int16_t x) {
    constexpr int32_t kLn2Q15 = 22713;
    constexpr int32_t kLog10eQ16 = 28462;
    // One Horner stage: p * z + (c << 16) + 0x8000 in 64 bits, saturated to
    // 32 bits, upper half kept.
    const auto stage = [](int32_t p, int32_t z, int32_t c) {
        return sat32(int64_t{p} * z + mul_pow2(c, 16) + 0x8000) >> 16;
    };

    const int32_t v = x > 1 ? x : 1;
    // v << 16 lies in 2^16 .. 2^31; n more left shifts bring it to 2^30 .. 2^31.
    const int n = clz32(static_cast<uint32_t>(v) << 16) - 1;
    const uint32_t normalised = static_cast<uint32_t>(v) << (16 + n);  // 2^30 * (1 + u)
    const int32_t z = static_cast<int32_t>((normalised >> 15) & 0x7FFF);  // u in Q15

    // q ~ ln(1 + u) / u in Q15: the last stage keeps 17 bits.
    int32_t p = -9130;
    for (int32_t c : {21677, -24950, 20693, -16298}) p = stage(p, z, c);
    const int64_t last = int64_t{p} * z + mul_pow2(16381, 16) + 0x8000;
    const int32_t q = 2 * (static_cast<int32_t>(last > 0x7FFF8000 ? 0x7FFF8000 : sat32(last)) >> 16);

    const int32_t ln1pu = static_cast<int32_t>((int64_t{z} * q + 1581) >> 15);
    const int32_t ln = (-n - 1) * kLn2Q15 + ln1pu;  // ln(x / 32768), Q15
    // Times log10(e) in Q16, split so that no product exceeds 32 bits.
    const int64_t whole = (int64_t{ln >> 15} * kLog10eQ16) / 2;  // exact: kLog10eQ16 is even
    const int64_t frac = (int64_t{ln & 0x7FFF} * kLog10eQ16) >> 16;
    return sat32(whole + frac);
}

UTIL_EXP32 UTILdBToScaleExp32(int32_t dB) {
    constexpr int32_t kSlopeDown = 0x70F7253E;  // Q31: 0.1103 per dB with the shift below
    constexpr int32_t kSlopeUp = 0x7B24812A;    // Q31: 0.1203 per dB
    constexpr int32_t kOne = 0x40000000;        // 1.0 in Q30

    // The level rounded to whole decibels, as a signed 16-bit number: levels
    // beyond +-32767 dB wrap before the clamps below (the sum is formed in 64
    // bits, which wraps to the same 16 bits as 32-bit arithmetic would).
    const int64_t r = static_cast<int16_t>(static_cast<uint16_t>((int64_t{dB} + 16384) >> 15));
    if (r > kDbScaleTopLevel) return pack_exp32(kOne, 15);
    if (dB == 0) return pack_exp32(kOne, 0);
    if (r < -kDbScaleTopLevel) return pack_exp32(kOne, -15);

    // Linear correction within +-0.5 dB; the product is exact and the shift
    // rounds towards -inf.
    // -16384 .. 16383 (Q15 dB) unless r wrapped; the product below stays within 64 bits either way.
    const int64_t f = int64_t{dB} - r * 32768;
    const int64_t slope = f <= 0 ? kSlopeDown : kSlopeUp;
    const int64_t k = sat32(kOne + ((f * slope) >> 19));  // Q30

    const DbScaleEntry &entry = kDbScaleTable[kDbScaleTopLevel - r];
    const int64_t t = (int64_t{entry.mantissa} + 0x8000) >> 16;  // Q14
    return pack_exp32(sat32((t * k + 0x2000) >> 14), entry.exponent);
}

int32_t UTILdBToScale(int32_t dB) {
    // Q30 mantissa to Q22: exponent lowered by 8 within its 16 bits.
    const UTIL_EXP32 x = UTILdBToScaleExp32(dB);
    const uint16_t e = static_cast<uint16_t>(static_cast<uint16_t>(x) - 8u);
    return _EXP32TOINT32((x & ~uint64_t{0xFFFF}) | e);
}

UTIL_EXP32 UTIL_dBToScaleExp32(int32_t dB) { return UTILdBToScaleExp32(dB); }

int32_t UTIL_dBToScale(int32_t dB) { return UTILdBToScale(dB); }

}  // extern "C"
