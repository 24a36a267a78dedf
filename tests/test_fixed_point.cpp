// Fixed-point primitives and decibel conversion: worked examples, edge values,
// and exhaustive or randomised comparison with straightforward 64-bit,
// 128-bit or long double models written here.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <rsmpl/rsmpl_util.h>
#include "tools/db_table_gen.hpp"
#include "util/db_table.hpp"

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

int32_t mant_of(UTIL_EXP32 x) { return static_cast<int32_t>(static_cast<uint32_t>(x >> 32)); }
int16_t exp_of(UTIL_EXP32 x) { return static_cast<int16_t>(static_cast<uint16_t>(x)); }
UTIL_EXP32 exp32(int32_t m, int16_t e) {
    return (uint64_t{static_cast<uint32_t>(m)} << 32) | static_cast<uint16_t>(e);
}

// Random values with a uniformly drawn bit length, so that every magnitude
// range gets the same attention; 32-bit values clamp, so INT32_MIN is common.
int64_t random_wide(std::mt19937_64 &rng, int max_bits = 64) {
    const int bits = static_cast<int>(rng() % (max_bits + 1));
    const uint64_t mag = bits == 0 ? 0 : ((rng() >> (64 - bits)) | (uint64_t{1} << (bits - 1)));
    return (rng() & 1) ? static_cast<int64_t>(0 - mag) : static_cast<int64_t>(mag);
}
int32_t random_int32(std::mt19937_64 &rng) {
    return static_cast<int32_t>(std::clamp<int64_t>(random_wide(rng, 32), INT32_MIN, INT32_MAX));
}

int bit_length(int64_t x) {
    unsigned __int128 a = x < 0 ? -static_cast<__int128>(x) : x;
    int n = 0;
    while (a != 0) a >>= 1, ++n;
    return n;
}

int64_t floor_div_pow2(int64_t x, int s) {
    const int64_t d = int64_t{1} << s;
    return x / d - (x % d != 0 && x < 0);
}

// ---- Float to fixed: long double, where x * 2^n and the added half are exact.

uint32_t ufix_model(int n, float x) {
    if (std::isnan(x)) return 0;
    const long double v = std::floor(std::ldexp(static_cast<long double>(x), n) + 0.5L);
    return v <= 0 ? 0 : (v >= 4294967295.0L ? UINT32_MAX : static_cast<uint32_t>(v));
}
int32_t sfix_model(int n, float x) {
    if (std::isnan(x)) return 0;
    const long double s = std::ldexp(static_cast<long double>(x), n);
    const long double v = s >= 0 ? std::floor(s + 0.5L) : std::ceil(s - 0.5L);
    return v >= 2147483647.0L ? INT32_MAX : (v <= -2147483648.0L ? INT32_MIN : static_cast<int32_t>(v));
}

TEST(FloatToFixed, ExamplesAndLimits) {
    struct U { int n; float x; uint32_t want; };
    for (const U &c : {U{16, 128.0f, 0x800000}, U{24, 1.0f, 0x01000000}, U{15, -1.0f, 0}, U{0, -1e30f, 0},
                       U{0, 4294967040.0f, 4294967040u}, U{0, 4294967296.0f, UINT32_MAX}, U{32, 1.0f, UINT32_MAX},
                       U{0, kInf, UINT32_MAX}, U{0, -kInf, 0}, U{0, kNaN, 0}, U{INT32_MAX, 1.0f, UINT32_MAX},
                       U{INT32_MIN, 1.0f, 0}})
        EXPECT_EQ(ToUFix(c.n, c.x), c.want) << c.n << " " << c.x;
    struct S { int n; float x; int32_t want; };
    for (const S &c : {S{15, -0.5f, -16384}, S{15, 1.0f, 32768}, S{0, -2.5f, -3}, S{31, 1.0f, INT32_MAX},
                       S{31, -1.0f, INT32_MIN}, S{0, 3e9f, INT32_MAX}, S{0, -3e9f, INT32_MIN},
                       S{0, 2147483520.0f, 2147483520}, S{0, kInf, INT32_MAX}, S{0, -kInf, INT32_MIN}, S{0, kNaN, 0}})
        EXPECT_EQ(ToSFix(c.n, c.x), c.want) << c.n << " " << c.x;
}

TEST(FloatToFixed, MatchLongDoubleModelOnRandomFloats) {
    std::mt19937_64 rng(1);
    for (int i = 0; i < 400000; ++i) {
        const float x = std::bit_cast<float>(static_cast<uint32_t>(rng()));
        if (!std::isfinite(x)) continue;
        // Half of the time aim n at the interesting range around 2^0 .. 2^33.
        const int n = (i & 1) ? static_cast<int>(rng() % 81) - 40
                              : (x == 0 ? 0 : -std::ilogb(x) + static_cast<int>(rng() % 38) - 3);
        ASSERT_EQ(ToUFix(n, x), ufix_model(n, x)) << n << " " << x;
        ASSERT_EQ(ToSFix(n, x), sfix_model(n, x)) << n << " " << x;
    }
}

// ---- _SAT, _EXPONENT32, _NORMALIZE_S32 ----------------------------------------

int64_t sat_model(int64_t x, int bits) {
    const int b = std::clamp(bits, 1, 64);
    const __int128 hi = (static_cast<__int128>(1) << (b - 1)) - 1, lo = -hi - 1;
    return static_cast<int64_t>(std::clamp(static_cast<__int128>(x), lo, hi));
}

int exponent_model(int32_t x) {
    if (x == 0) return 0;
    const int64_t a = x < 0 ? -int64_t{x} : x, limit = x < 0 ? int64_t{1} << 31 : int64_t{1} << 30;
    int n = 0;
    while ((a << n) < limit) ++n;
    return n;
}

TEST(SatAndNormalize, Examples) {
    EXPECT_EQ(_SAT(40000, 16), 32767);
    EXPECT_EQ(_SAT(-40000, 16), -32768);
    EXPECT_EQ(_SAT(INT64_MAX, 32), INT32_MAX);
    EXPECT_EQ(_SAT(INT64_MIN, 32), INT32_MIN);
    struct E { int32_t x; int16_t want; };
    for (const E &c : {E{1, 30}, E{0x40000000, 0}, E{-1, 31}, E{INT32_MIN, 0}, E{-3, 30}, E{0, 0}})
        EXPECT_EQ(_EXPONENT32(&c.x), c.want) << c.x;
    EXPECT_EQ(_EXPONENT32(nullptr), 0);
    struct N { int32_t x, mant; int16_t exp; };
    for (const N &c : {N{1, 1 << 30, -30}, N{INT32_MIN, -(1 << 30), 1}, N{0, 0, -32768}}) {
        int32_t m = 12345;
        int16_t e = 123;
        _NORMALIZE_S32(c.x, &m, &e);
        EXPECT_EQ(m, c.mant) << c.x;
        EXPECT_EQ(e, c.exp) << c.x;
    }
    int16_t e = 0;
    int32_t m = 0;
    _NORMALIZE_S32(5, nullptr, &e);  // missing outputs are skipped
    _NORMALIZE_S32(5, &m, nullptr);
    EXPECT_EQ(e, -28);
    EXPECT_EQ(m, 5 << 28);
}

TEST(SatAndNormalize, MatchModels) {
    std::mt19937_64 rng(2);
    for (int bits = -2; bits <= 66; ++bits)  // outside 1..64 as the nearest width
        for (int i = 0; i < 4000; ++i) {
            const int64_t x = random_wide(rng);
            ASSERT_EQ(_SAT(x, static_cast<int16_t>(bits)), sat_model(x, bits)) << x << " " << bits;
        }
    EXPECT_EQ(_SAT(INT64_MIN, INT16_MAX), INT64_MIN);
    EXPECT_EQ(_SAT(-7, INT16_MIN), -1);
    for (int i = 0; i < 300000; ++i) {
        const int32_t x = random_int32(rng);
        ASSERT_EQ(_EXPONENT32(&x), exponent_model(x)) << x;
        if (x == 0) continue;
        // Exactly one redundant sign bit and an exact reconstruction pin m and e down.
        int32_t m;
        int16_t e;
        _NORMALIZE_S32(x, &m, &e);
        const int64_t a = m < 0 ? -int64_t{m} : m;
        ASSERT_TRUE(a >= (int64_t{1} << 30) && a < (int64_t{1} << 31) && e >= -30 && e <= 1) << x;
        ASSERT_EQ(static_cast<__int128>(m) * (__int128{1} << (e + 30)), static_cast<__int128>(x) << 30) << x;
    }
}

// ---- _MANTNEXP and _MANTEXPO32 -------------------------------------------------

struct Split { int64_t mant; int16_t exp; };

Split split_model(int64_t x) {
    if (x == 0) return {0, -32768};
    const int len = bit_length(x);
    if (len <= 31) return {x * (int64_t{1} << (31 - len)), static_cast<int16_t>(len - 31)};
    const int e = std::min(len - 31, 8);
    return {floor_div_pow2(x, e), static_cast<int16_t>(e)};
}

UTIL_EXP32 mantexpo_model(int64_t x) {
    const int64_t lim = int64_t{1} << 39;
    const Split sp = split_model(std::clamp(x, -lim, lim - 1));
    return exp32(static_cast<int32_t>(sp.mant), sp.exp);
}

TEST(MantNExp, ExtremesAndModel) {
    struct Case { int64_t x, mant; int16_t exp; };
    for (const Case &c : {Case{0, 0, -32768}, Case{INT32_MIN, -(1 << 30), 1},
                          Case{-(int64_t{1} << 33) + 1, INT32_MIN, 2},  // floor reaches -2^31
                          Case{int64_t{1} << 40, int64_t{1} << 32, 8},  // wider mantissa: shift capped
                          Case{INT64_MIN, INT64_MIN / 256, 8}}) {
        int64_t m = 99;
        int16_t e = 99;
        _MANTNEXP(c.x, &m, &e);
        EXPECT_EQ(m, c.mant) << c.x;
        EXPECT_EQ(e, c.exp) << c.x;
    }
    EXPECT_EQ(_MANTEXPO32(0), 0x0000000000008000u);
    EXPECT_EQ(_MANTEXPO32(INT64_MAX), 0x7FFFFFFF00000008u);
    EXPECT_EQ(_MANTEXPO32(int64_t{1} << 39), 0x7FFFFFFF00000008u);  // saturates to 2^39 - 1
    EXPECT_EQ(_MANTEXPO32(-(int64_t{1} << 39) - 1), 0x8000000000000008u);

    std::mt19937_64 rng(5);
    for (int i = 0; i < 300000; ++i) {
        const int64_t x = random_wide(rng);
        int64_t m;
        int16_t e;
        _MANTNEXP(x, &m, &e);
        const Split want = split_model(x);
        ASSERT_EQ(m, want.mant) << x;
        ASSERT_EQ(e, want.exp) << x;
        ASSERT_EQ(_MANTEXPO32(x), mantexpo_model(x)) << x;
    }
}

// ---- _EXP32TOINT32 and _EXP32TOEXP16 -------------------------------------------

int32_t toint_model(int32_t m, int e) {
    const long double v = std::floor(std::ldexp(static_cast<long double>(m), std::clamp(e, -31, 31)));
    return v > INT32_MAX ? INT32_MAX : (v < INT32_MIN ? INT32_MIN : static_cast<int32_t>(v));
}

TEST(Exp32Conversions, ExamplesAndModels) {
    struct Case { int32_t m; int16_t e; int32_t want; };
    for (const Case &c : {Case{0x40000000, 1, INT32_MAX}, Case{0x40000000, -30, 1}, Case{0x40000000, -32, 0},
                          Case{-0x40000000, -32768, -1}, Case{INT32_MIN, -31, -1}, Case{-1, 32767, INT32_MIN},
                          Case{1, 32767, INT32_MAX}, Case{0, 31, 0}, Case{-5, -1, -3}})
        EXPECT_EQ(_EXP32TOINT32(exp32(c.m, c.e)), c.want) << c.m << " " << c.e;
    // Rounding past the largest 16-bit mantissa saturates instead of turning negative.
    EXPECT_EQ(_EXP32TOEXP16(exp32(0x7FFF8000, 2)), 0x7FFF0002u);
    EXPECT_EQ(_EXP32TOEXP16(exp32(INT32_MAX, -1)), 0x7FFFFFFFu);
    EXPECT_EQ(_EXP32TOEXP16(exp32(-0x8001, 1)), 0xFFFF0001u);

    std::mt19937_64 rng(7);
    std::vector<int> exps = {-32768, -32767, -1000, 1000, 32767};
    for (int e = -40; e <= 40; ++e) exps.push_back(e);
    for (int e : exps)
        for (int i = 0; i < 3000; ++i) {
            const int32_t m = random_int32(rng);
            ASSERT_EQ(_EXP32TOINT32(exp32(m, static_cast<int16_t>(e))), toint_model(m, e)) << m << " " << e;
        }
    for (int i = 0; i < 200000; ++i) {
        const int32_t m = random_int32(rng);
        const int16_t e = static_cast<int16_t>(rng());
        const int64_t r = std::min<int64_t>(floor_div_pow2(int64_t{m} + 0x8000, 16), 0x7FFF);
        ASSERT_EQ(_EXP32TOEXP16(exp32(m, e)), (static_cast<uint32_t>(r) << 16) | static_cast<uint16_t>(e)) << m;
    }
}

// ---- _LOG10 ----------------------------------------------------------------------

// Folds results in input order: h = h * 1000003 + value (mod 2^64).
struct Checksum {
    uint64_t h = 0;
    void add(uint64_t v) { h = h * 1000003u + v; }
};

TEST(Log10, ExamplesAndEveryInput) {
    struct Case { int16_t x; int32_t want; };
    for (const Case &c : {Case{32767, -2}, Case{16384, -9865}, Case{3277, -32768}, Case{10, -115195},
                          Case{1, -147963}, Case{INT16_MIN, -147963}})
        EXPECT_EQ(_LOG10(c.x), c.want) << c.x;
    // All 65536 results bit for bit against the checksum of an independent
    // model of the steps, and each within 3 LSB of log10 in double.
    Checksum c;
    for (int x = INT16_MIN; x <= INT16_MAX; ++x) {
        const int32_t got = _LOG10(static_cast<int16_t>(x));
        c.add(static_cast<uint32_t>(got));
        ASSERT_NEAR(got, std::log10(std::max(x, 1) / 32768.0) * 32768.0, 3.0) << x;
    }
    EXPECT_EQ(c.h, 0x2a7483502d0d9966u);
}

// ---- Decibel table and conversion ------------------------------------------------

TEST(DbTable, CheckedInSourceMatchesGenerator) {
    std::ifstream in(RSMPL_SOURCE_DIR "/util/db_table.inc");
    ASSERT_TRUE(in) << "cannot read util/db_table.inc";
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(), rsmpl::gen::db_table_source()) << "regenerate with: gen_db_table > util/db_table.inc";
}

// From the definition, independently of the generator.
TEST(DbTable, EntriesAreMinimalExponentAndRoundedMantissa) {
    ASSERT_EQ(rsmpl::kDbScaleEntries, 181);
    struct Case { int k; int16_t exp; int32_t mant; };
    for (Case c : {Case{0, 15, 1036215144}, Case{90, 0, 0x40000000}, Case{180, -14, 556313769}}) {
        EXPECT_EQ(rsmpl::kDbScaleTable[c.k].exponent, c.exp) << c.k;
        EXPECT_EQ(rsmpl::kDbScaleTable[c.k].mantissa, c.mant) << c.k;
    }
    for (int k = 0; k < rsmpl::kDbScaleEntries; ++k) {
        const auto &t = rsmpl::kDbScaleTable[k];
        const long double want = std::pow(10.0L, (90 - k) / 20.0L);
        const long double q = want / std::ldexp(1.0L, t.exponent);
        EXPECT_TRUE(q <= 1.0L && 2 * q > 1.0L) << k;  // smallest such exponent
        const long double miss = std::fabs(std::ldexp(q, 30) - t.mantissa);
        // Rounded, and far from a tie, so the rounding does not depend on the precision used.
        EXPECT_TRUE(miss <= 0.5L && std::fabs(miss - 0.5L) > 1e-4L) << k;
    }
}

TEST(DbToScale, ReferenceValues) {
    // Worked out by hand from the steps (whole-decibel entry rounded to Q14,
    // linear correction, Q22 conversion).
    struct Case { int32_t dB, mant; int16_t exp; int32_t q22; };
    for (const Case &c : {Case{0, 0x40000000, 0, 0x400000}, Case{196608, 1071185920, 1, 8368640},
                          Case{16383, 1138300068, 0, 4446484},  // just below +0.5 dB: factor 1.0601
                          Case{16384, 569178814, 1, 4446709},   // +0.5 dB rounds to +1 dB
                          Case{-16384, 1014515414, 0, 3962950}, Case{1776000, 1076247119, 9, INT32_MAX},
                          Case{-2965504, 525648276, -14, 125},  // -90.5 dB rounds to -90
                          Case{-2965505, 0x40000000, -15, 128}, Case{2965504, 0x40000000, 15, INT32_MAX}}) {
        const UTIL_EXP32 x = UTIL_dBToScaleExp32(c.dB);
        EXPECT_EQ(mant_of(x), c.mant) << c.dB;
        EXPECT_EQ(exp_of(x), c.exp) << c.dB;
        EXPECT_EQ(x & 0xFFFF0000u, 0u) << c.dB;
        EXPECT_EQ(UTIL_dBToScale(c.dB), c.q22) << c.dB;
    }
}

// Every level from -91.55 to +91.55 dB, bit for bit, against the checksums
// of an independent model of the steps, and near the exact value: within
// 0.1 % in EXP32, and in Q22 within 0.1 % plus one LSB up to +54 dB.
TEST(DbToScale, AllLevelsMatchReferenceChecksumsAndStayClose) {
    Checksum words, q22;
    for (int32_t dB = -3000000; dB <= 3000000; ++dB) {
        const UTIL_EXP32 x = UTILdBToScaleExp32(dB);
        const int32_t y = UTILdBToScale(dB);
        words.add(x);
        q22.add(static_cast<uint32_t>(y));
        if (dB % 3 != 0 || dB < -2965504 || dB > 2965503) continue;
        const double want = std::pow(10.0, dB / (32768.0 * 20.0));
        ASSERT_NEAR(std::ldexp(static_cast<double>(mant_of(x)), exp_of(x) - 30) / want, 1.0, 1.0e-3) << dB;
        if (dB <= 54 * 32768) {
            ASSERT_NEAR(y, want * 4194304.0, 1.0 + want * 4194304.0e-3) << dB;
        }
    }
    EXPECT_EQ(words.h, 0x490d940b48f800fu);
    EXPECT_EQ(q22.h, 0xbffa9de4d50fbfebu);
}

// The steps written out plainly over the table (checked against its
// definition above): the rounded level wraps as a 16-bit number.
UTIL_EXP32 db_model(int32_t dB) {
    const int64_t r64 = (int64_t{dB} + 16384) / 32768 - ((int64_t{dB} + 16384) % 32768 < 0 ? 1 : 0);  // floor
    int64_t r = ((r64 % 65536) + 65536) % 65536;
    if (r >= 32768) r -= 65536;
    if (r > 90) return exp32(0x40000000, 15);
    if (dB == 0) return exp32(0x40000000, 0);
    if (r < -90) return exp32(0x40000000, -15);
    const int64_t f = int64_t{dB} - r * 32768;
    const __int128 product = static_cast<__int128>(f) * (f <= 0 ? 0x70F7253E : 0x7B24812A);
    const int64_t k = std::clamp<int64_t>(0x40000000 + static_cast<int64_t>(product >> 19), INT32_MIN, INT32_MAX);
    const auto &e = rsmpl::kDbScaleTable[90 - r];
    const int64_t tq = (int64_t{e.mantissa} + 0x8000) >> 16;
    return exp32(static_cast<int32_t>(std::clamp<int64_t>((tq * k + 0x2000) >> 14, INT32_MIN, INT32_MAX)), e.exponent);
}

// m * 2^(e - 8) truncated toward minus infinity, saturated to 32 bits.
int32_t q22_model(UTIL_EXP32 x) {
    const long double v = std::floor(std::ldexp(static_cast<long double>(mant_of(x)), exp_of(x) - 8));
    return static_cast<int32_t>(std::clamp<long double>(v, INT32_MIN, INT32_MAX));
}

// Beyond +-90.5 dB the level clamps, until it passes +-32767 dB: there the
// rounded level wraps as a 16-bit number, back through the clamps and the
// table, whose correction then saturates.
TEST(DbToScale, ClampsBeyondNinetyAndWrapsBeyond32767Db) {
    const auto level = [](int64_t r, int64_t frac) { return static_cast<int32_t>(r * 32768 + frac); };
    struct Case { int32_t dB; UTIL_EXP32 want; };
    const Case cases[] = {
        {level(91, -16384), exp32(0x40000000, 15)},      // rounds to +91: ceiling
        {level(32767, 16383), exp32(0x40000000, 15)},    // the last level before the wrap
        {level(32767, 16384), exp32(0x40000000, -15)},   // rounds to +32768, read as -32768: floor
        {level(-32768, -16384), exp32(0x40000000, -15)}, // -32768 itself: floor
        {level(-32768, -16385), exp32(0x40000000, 15)},  // -32769 reads as +32767: ceiling
        {level(-91, 16383), exp32(0x40000000, -15)},
        {INT32_MAX, exp32(INT32_MAX, 0)},                // rounds to 65536, read as 0 dB; the correction saturates
        {INT32_MIN, exp32(INT32_MIN, 0)},                // rounds to -65536, read as 0 dB
        {level(65445, 0), exp32(0x40000000, -15)},       // reads as -91: floor
    };
    for (const Case &c : cases) {
        EXPECT_EQ(UTILdBToScaleExp32(c.dB), c.want) << c.dB;
        EXPECT_EQ(db_model(c.dB), c.want) << c.dB;
    }
    // Levels that wrap into the table (65446 reads as -90, 65535 as -1) take
    // a correction far beyond 0.5 dB, which saturates.
    for (int64_t r : {65446, 65447, 65535, -65446, -65535, 32766, -32767})
        for (int64_t frac : {-16384, -1, 0, 1, 16383}) {
            const int64_t dB = r * 32768 + frac;
            if (dB < INT32_MIN || dB > INT32_MAX) continue;
            const int32_t d = static_cast<int32_t>(dB);
            ASSERT_EQ(UTILdBToScaleExp32(d), db_model(d)) << d;
            ASSERT_EQ(UTILdBToScale(d), q22_model(db_model(d))) << d;
        }
    std::mt19937_64 rng(9);
    for (int i = 0; i < 200000; ++i) {
        const int32_t dB = static_cast<int32_t>(rng());
        ASSERT_EQ(UTILdBToScaleExp32(dB), db_model(dB)) << dB;
        ASSERT_EQ(UTILdBToScale(dB), q22_model(db_model(dB))) << dB;
        ASSERT_EQ(UTIL_dBToScale(dB), UTILdBToScale(dB)) << dB;
    }
}

TEST(DbToScale, SaturatesQ22AboveAbout54Db) {
    EXPECT_LT(UTILdBToScale(static_cast<int32_t>(54.17 * 32768)), INT32_MAX);
    for (int64_t dB = static_cast<int64_t>(54.19 * 32768); dB <= int64_t{32767} * 32768 + 16383; dB += 9973)
        ASSERT_EQ(UTILdBToScale(static_cast<int32_t>(dB)), INT32_MAX) << dB;
}

}  // namespace
