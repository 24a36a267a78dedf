// Fixed-point primitives and decibel conversion: worked examples, edge values,
// and exhaustive or randomised comparison with straightforward 64-bit,
// 128-bit or long double models written here.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tools/db_table_gen.hpp"
#include "util/db_table.hpp"
#include "util/rsmpl_util.h"

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

int32_t mant_of(UTIL_EXP32 x) { return static_cast<int32_t>(static_cast<uint32_t>(x >> 32)); }
int16_t exp_of(UTIL_EXP32 x) { return static_cast<int16_t>(static_cast<uint16_t>(x)); }
UTIL_EXP32 exp32(int32_t m, int16_t e) {
    return (uint64_t{static_cast<uint32_t>(m)} << 32) | static_cast<uint16_t>(e);
}

// Random 64-bit values with a uniformly drawn bit length, so that every
// magnitude range gets the same attention.
int64_t random_wide(std::mt19937_64 &rng) {
    const int bits = static_cast<int>(rng() % 64);
    const uint64_t mag = bits == 0 ? 0 : ((rng() >> (64 - bits)) | (uint64_t{1} << (bits - 1)));
    return (rng() & 1) ? static_cast<int64_t>(0 - mag) : static_cast<int64_t>(mag);
}
int32_t random_int32(std::mt19937_64 &rng) {
    const int bits = static_cast<int>(rng() % 33);
    const uint64_t mag = bits == 0 ? 0 : ((rng() >> (64 - bits)) | (uint64_t{1} << (bits - 1)));
    const int64_t v = (rng() & 1) ? -static_cast<int64_t>(mag) : static_cast<int64_t>(mag);
    return static_cast<int32_t>(v < INT32_MIN ? INT32_MIN : (v > INT32_MAX ? INT32_MAX : v));
}

// Bit length of |x|, by counting.
int bit_length(int64_t x) {
    unsigned __int128 a = x < 0 ? -static_cast<__int128>(x) : x;
    int n = 0;
    while (a != 0) a >>= 1, ++n;
    return n;
}

int64_t floor_div_pow2(int64_t x, int s) {
    const int64_t d = int64_t{1} << s;
    int64_t q = x / d;
    if (x % d != 0 && x < 0) --q;
    return q;
}

// ---- Float to fixed ----------------------------------------------------------

// Models in long double, where x * 2^n and the half added to it are exact.
uint32_t ufix_model(int n, float x) {
    if (std::isnan(x)) return 0;
    const long double v = std::floor(std::ldexp(static_cast<long double>(x), n) + 0.5L);
    if (v <= 0) return 0;
    if (v >= 4294967295.0L) return UINT32_MAX;
    return static_cast<uint32_t>(v);
}
int32_t sfix_model(int n, float x) {
    if (std::isnan(x)) return 0;
    const long double s = std::ldexp(static_cast<long double>(x), n);
    const long double v = s >= 0 ? std::floor(s + 0.5L) : std::ceil(s - 0.5L);
    if (v >= 2147483647.0L) return INT32_MAX;
    if (v <= -2147483648.0L) return INT32_MIN;
    return static_cast<int32_t>(v);
}

TEST(ToUFix, Examples) {
    struct Case { int n; float x; uint32_t want; };
    const Case cases[] = {
        {16, 128.0f, 0x800000},     {24, 1.0f, 0x01000000},   {0, 0.5f, 1},
        {0, 2.5f, 3},               {0, 0.49999997f, 0},      {-1, 3.0f, 2},
        {0, -0.4f, 0},              {15, -1.0f, 0},           {0, -1e30f, 0},
        {0, 4294967040.0f, 4294967040u},  // largest float below 2^32
        {0, 4294967296.0f, UINT32_MAX},   {32, 1.0f, UINT32_MAX},
        {31, 2.0f, UINT32_MAX},     {0, kInf, UINT32_MAX},    {0, -kInf, 0},
        {0, kNaN, 0},               {INT32_MAX, 1.0f, UINT32_MAX}, {INT32_MIN, 1.0f, 0},
    };
    for (const Case &c : cases) EXPECT_EQ(ToUFix(c.n, c.x), c.want) << c.n << " " << c.x;
}

TEST(ToSFix, Examples) {
    struct Case { int n; float x; int32_t want; };
    const Case cases[] = {
        {15, -0.5f, -16384},        {15, 1.0f, 32768},        {0, 2.5f, 3},
        {0, -2.5f, -3},             {0, 0.49999997f, 0},      {0, -0.49999997f, 0},
        {0, -0.5f, -1},             {-2, -6.0f, -2},          {31, 1.0f, INT32_MAX},
        {31, -1.0f, INT32_MIN},     {0, 3e9f, INT32_MAX},     {0, -3e9f, INT32_MIN},
        {0, 2147483520.0f, 2147483520},  // largest float below 2^31
        {0, kInf, INT32_MAX},       {0, -kInf, INT32_MIN},    {0, kNaN, 0},
    };
    for (const Case &c : cases) EXPECT_EQ(ToSFix(c.n, c.x), c.want) << c.n << " " << c.x;
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

// ---- _SAT ----------------------------------------------------------------------

int64_t sat_model(int64_t x, int bits) {
    const int b = bits < 1 ? 1 : (bits > 64 ? 64 : bits);
    const __int128 hi = (static_cast<__int128>(1) << (b - 1)) - 1, lo = -hi - 1;
    return static_cast<int64_t>(x > hi ? hi : (x < lo ? lo : static_cast<__int128>(x)));
}

TEST(Sat, Examples) {
    struct Case { int64_t x; int16_t bits; int64_t want; };
    const Case cases[] = {
        {40000, 16, 32767},      {-40000, 16, -32768},  {32767, 16, 32767}, {-32768, 16, -32768},
        {INT64_MAX, 32, INT32_MAX}, {INT64_MIN, 32, INT32_MIN}, {INT32_MIN, 32, INT32_MIN},
        {5, 1, 0},               {-5, 1, -1},           {127, 8, 127},      {128, 8, 127},
        // Widths outside 1..32: up to 64 the same rule, beyond 64 unchanged, below 1 as 1.
        {INT64_MAX, 40, (int64_t{1} << 39) - 1},  {INT64_MIN, 63, -(int64_t{1} << 62)},
        {INT64_MAX, 64, INT64_MAX}, {INT64_MIN, 200, INT64_MIN}, {INT64_MIN, INT16_MAX, INT64_MIN},
        {7, 0, 0},               {-7, 0, -1},           {7, -3, 0},         {-7, INT16_MIN, -1},
    };
    for (const Case &c : cases) EXPECT_EQ(_SAT(c.x, c.bits), c.want) << c.x << " " << c.bits;
}

TEST(Sat, MatchesWideModelForEveryWidth) {
    std::mt19937_64 rng(2);
    for (int bits = -2; bits <= 66; ++bits)
        for (int i = 0; i < 4000; ++i) {
            const int64_t x = random_wide(rng);
            ASSERT_EQ(_SAT(x, static_cast<int16_t>(bits)), sat_model(x, bits)) << x << " " << bits;
        }
}

// ---- _EXPONENT32 and _NORMALIZE_S32 ------------------------------------------------

int exponent_model(int32_t x) {
    if (x == 0) return 0;
    const int64_t a = x < 0 ? -int64_t{x} : x, limit = x < 0 ? int64_t{1} << 31 : int64_t{1} << 30;
    int n = 0;
    while ((a << n) < limit) ++n;
    return n;
}

TEST(Exponent32, Examples) {
    struct Case { int32_t x; int16_t want; };
    const Case cases[] = {
        {1, 30}, {0x40000000, 0}, {-1, 31}, {INT32_MIN, 0}, {-3, 30}, {0, 0},
        {INT32_MAX, 0}, {0x3FFFFFFF, 1}, {-0x40000000, 1}, {-0x40000001, 1}, {2, 29}, {-2, 30},
    };
    for (const Case &c : cases) EXPECT_EQ(_EXPONENT32(&c.x), c.want) << c.x;
    EXPECT_EQ(_EXPONENT32(nullptr), 0);
}

TEST(Exponent32, MatchesShiftCountingModel) {
    std::mt19937_64 rng(3);
    for (int i = 0; i < 300000; ++i) {
        const int32_t x = random_int32(rng);
        ASSERT_EQ(_EXPONENT32(&x), exponent_model(x)) << x;
    }
}

TEST(Normalize, Examples) {
    struct Case { int32_t x, mant; int16_t exp; };
    const Case cases[] = {
        {1, 1 << 30, -30}, {INT32_MIN, -(1 << 30), 1}, {0, 0, -32768}, {-1, -(1 << 30), -30},
        {INT32_MAX, INT32_MAX, 0}, {-3, -0x60000000, -29}, {0x40000000, 0x40000000, 0},
        {-0x40000000, -0x40000000, 0}, {-0x40000001, -0x40000001, 0}, {3, 0x60000000, -29},
    };
    for (const Case &c : cases) {
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

TEST(Normalize, ReconstructsExactlyWithOneRedundantSignBit) {
    std::mt19937_64 rng(4);
    for (int i = 0; i < 300000; ++i) {
        const int32_t x = random_int32(rng);
        if (x == 0) continue;
        int32_t m;
        int16_t e;
        _NORMALIZE_S32(x, &m, &e);
        const int64_t a = m < 0 ? -int64_t{m} : m;
        ASSERT_GE(a, int64_t{1} << 30) << x;
        ASSERT_LT(a, int64_t{1} << 31) << x;
        ASSERT_TRUE(e >= -30 && e <= 1) << x;
        const int64_t back = e >= 0 ? int64_t{m} * (int64_t{1} << e) : int64_t{m} / (int64_t{1} << -e);
        ASSERT_EQ(back, x) << x;
        if (e < 0) {
            ASSERT_EQ(int64_t{m} % (int64_t{1} << -e), 0) << x;  // no bits lost
        }
    }
}

// ---- _MANTNEXP and _MANTEXPO32 ----------------------------------------------------

struct Split { int64_t mant; int16_t exp; };

Split split_model(int64_t x) {
    if (x == 0) return {0, -32768};
    const int len = bit_length(x);
    if (len <= 31) return {x * (int64_t{1} << (31 - len)), static_cast<int16_t>(len - 31)};
    const int e = std::min(len - 31, 8);
    return {floor_div_pow2(x, e), static_cast<int16_t>(e)};
}

TEST(MantNExp, Examples) {
    struct Case { int64_t x, mant; int16_t exp; };
    const Case cases[] = {
        {0, 0, -32768},
        {1, 1 << 30, -30},
        {-1, -(1 << 30), -30},
        {INT32_MAX, INT32_MAX, 0},
        {INT32_MIN, -(1 << 30), 1},
        {int64_t{1} << 31, 1 << 30, 1},
        {int64_t{1} << 32, 1 << 30, 2},
        {-(int64_t{1} << 33) + 1, INT32_MIN, 2},          // floor reaches -2^31
        {(int64_t{1} << 39) - 1, INT32_MAX, 8},
        {-(int64_t{1} << 39), INT32_MIN, 8},
        {int64_t{1} << 40, int64_t{1} << 32, 8},           // wider mantissa: shift capped
        {INT64_MAX, INT64_MAX >> 8, 8},
        {INT64_MIN, INT64_MIN / 256, 8},
        {-5, -5 * (int64_t{1} << 28), -28},
    };
    for (const Case &c : cases) {
        int64_t m = 99;
        int16_t e = 99;
        _MANTNEXP(c.x, &m, &e);
        EXPECT_EQ(m, c.mant) << c.x;
        EXPECT_EQ(e, c.exp) << c.x;
    }
}

TEST(MantNExp, MatchesBitLengthModelAndBounds) {
    std::mt19937_64 rng(5);
    for (int i = 0; i < 300000; ++i) {
        const int64_t x = random_wide(rng);
        int64_t m;
        int16_t e;
        _MANTNEXP(x, &m, &e);
        const Split want = split_model(x);
        ASSERT_EQ(m, want.mant) << x;
        ASSERT_EQ(e, want.exp) << x;
        if (x == 0) continue;
        // Below 2^39 one redundant sign bit; the value is kept or floored.
        if (bit_length(x) <= 39) {
            const int64_t a = m < 0 ? -m : m;
            ASSERT_TRUE(a >= (int64_t{1} << 30) && a <= (int64_t{1} << 31)) << x;
        }
        const __int128 back = e >= 0 ? static_cast<__int128>(m) << e : static_cast<__int128>(m) >> -e;
        ASSERT_LE(back, x);
        ASSERT_LT(x - back, static_cast<__int128>(1) << std::max<int>(e, 0));
    }
}

UTIL_EXP32 mantexpo_model(int64_t x) {
    const int64_t lim = int64_t{1} << 39;
    const int64_t s = x >= lim ? lim - 1 : (x < -lim ? -lim : x);
    const Split sp = split_model(s);
    return exp32(static_cast<int32_t>(sp.mant), sp.exp);
}

TEST(MantExpo32, Examples) {
    struct Case { int64_t x; UTIL_EXP32 want; };
    const Case cases[] = {
        {0, 0x0000000000008000u},
        {1, exp32(1 << 30, -30)},
        {-1, exp32(-(1 << 30), -30)},
        {INT64_MAX, 0x7FFFFFFF00000008u},
        {INT64_MIN, 0x8000000000000008u},
        {int64_t{1} << 39, 0x7FFFFFFF00000008u},    // saturates to 2^39 - 1
        {-(int64_t{1} << 39) - 1, 0x8000000000000008u},
        {(int64_t{1} << 38), exp32(1 << 30, 8)},
        {-(int64_t{1} << 30) * 3, exp32(-0x60000000, 1)},
    };
    for (const Case &c : cases) EXPECT_EQ(_MANTEXPO32(c.x), c.want) << c.x;
}

TEST(MantExpo32, MatchesSaturatingModelAndKeepsMiddleBitsZero) {
    std::mt19937_64 rng(6);
    for (int i = 0; i < 300000; ++i) {
        const int64_t x = random_wide(rng);
        const UTIL_EXP32 got = _MANTEXPO32(x);
        ASSERT_EQ(got, mantexpo_model(x)) << x;
        ASSERT_EQ(got & 0xFFFF0000u, 0u) << x;
    }
}

// ---- _EXP32TOINT32 and _EXP32TOEXP16 ----------------------------------------------

int32_t toint_model(int32_t m, int e) {
    const int ec = e < -31 ? -31 : (e > 31 ? 31 : e);
    const long double v = std::floor(std::ldexp(static_cast<long double>(m), ec));
    return v > INT32_MAX ? INT32_MAX : (v < INT32_MIN ? INT32_MIN : static_cast<int32_t>(v));
}

TEST(Exp32ToInt32, Examples) {
    struct Case { int32_t m; int16_t e; int32_t want; };
    const Case cases[] = {
        {0x40000000, 1, INT32_MAX},  {0x40000000, -30, 1},     {0x40000000, -31, 0},
        {0x40000000, -32, 0},        {0x40000000, -32768, 0},  {-0x40000000, -31, -1},
        {-0x40000000, -32768, -1},   {-0x40000000, 1, INT32_MIN}, {0x40000000, 0, 0x40000000},
        {INT32_MIN, 0, INT32_MIN},   {INT32_MIN, 1, INT32_MIN}, {INT32_MIN, -31, -1},
        {-1, 31, INT32_MIN},         {1, 30, 0x40000000},      {1, 31, INT32_MAX},
        {-3, 30, INT32_MIN},         {-3, 29, -3 * (1 << 29)}, {-1, 32767, INT32_MIN},
        {1, 32767, INT32_MAX},       {0, 31, 0},               {0, -32768, 0},
        {-5, -1, -3},                {5, -1, 2},
    };
    for (const Case &c : cases) EXPECT_EQ(_EXP32TOINT32(exp32(c.m, c.e)), c.want) << c.m << " " << c.e;
}

TEST(Exp32ToInt32, MatchesFloorAndSaturateModel) {
    std::mt19937_64 rng(7);
    std::vector<int> exps;
    for (int e = -40; e <= 40; ++e) exps.push_back(e);
    for (int e : {-32768, -32767, -1000, 1000, 32767}) exps.push_back(e);
    for (int e : exps)
        for (int i = 0; i < 3000; ++i) {
            const int32_t m = random_int32(rng);
            ASSERT_EQ(_EXP32TOINT32(exp32(m, static_cast<int16_t>(e))), toint_model(m, e)) << m << " " << e;
        }
}

TEST(Exp32ToExp16, RoundsMantissaAndKeepsExponentBits) {
    struct Case { int32_t m; int16_t e; uint32_t want; };
    const Case cases[] = {
        {0x40000000, 0, 0x40000000u},     {0x40007FFF, -3, 0x4000FFFDu}, {0x40008000, 5, 0x40010005u},
        {0, -32768, 0x00008000u},         {-0x8000, 1, 0x00000001u},     {-0x8001, 1, 0xFFFF0001u},
        {INT32_MIN, 7, 0x80000007u},      {0x7FFF7FFF, 0, 0x7FFF0000u},
        // Rounding past the largest 16-bit value saturates instead of turning negative.
        {0x7FFF8000, 2, 0x7FFF0002u},     {INT32_MAX, -1, 0x7FFFFFFFu},
    };
    for (const Case &c : cases) EXPECT_EQ(_EXP32TOEXP16(exp32(c.m, c.e)), c.want) << c.m << " " << c.e;

    std::mt19937_64 rng(8);
    for (int i = 0; i < 200000; ++i) {
        const int32_t m = random_int32(rng);
        const int16_t e = static_cast<int16_t>(rng());
        const int64_t r = std::min<int64_t>(floor_div_pow2(int64_t{m} + 0x8000, 16), 0x7FFF);
        const uint32_t want = (static_cast<uint32_t>(r) << 16) | static_cast<uint16_t>(e);
        ASSERT_EQ(_EXP32TOEXP16(exp32(m, e)), want) << m << " " << e;
    }
}

// ---- _LOG10 --------------------------------------------------------------------------

TEST(Log10, Examples) {
    struct Case { int16_t x; int32_t want; };
    const Case cases[] = {
        {32767, -2}, {16384, -9865}, {3277, -32768}, {10, -115195},
        {1, -147963}, {0, -147963}, {-1, -147963}, {INT16_MIN, -147963},
        // Worked out from the steps by an independent model.
        {2, -138099}, {3, -132329}, {100, -82428}, {1000, -49659}, {10000, -16891},
        {20000, -7027}, {23170, -4933}, {25000, -3851}, {30000, -1257}, {32766, -1},
    };
    for (const Case &c : cases) EXPECT_EQ(_LOG10(c.x), c.want) << c.x;
}

// Folds results in input order: h = h * 1000003 + value (mod 2^64).
struct Checksum {
    uint64_t h = 0;
    void add(uint64_t v) { h = h * 1000003u + v; }
};

// Every one of the 65536 results, bit for bit, against the checksum of the
// same independent model.
TEST(Log10, AllInputsMatchReferenceChecksum) {
    Checksum c;
    for (int x = INT16_MIN; x <= INT16_MAX; ++x) c.add(static_cast<uint32_t>(_LOG10(static_cast<int16_t>(x))));
    EXPECT_EQ(c.h, 0x2a7483502d0d9966u);
}

// The polynomial stays within 2.33 LSB of log10 in Q15 over all inputs.
TEST(Log10, EveryInputWithinThreeLsbOfDoubleModel) {
    for (int x = INT16_MIN; x <= INT16_MAX; ++x) {
        const double want = std::log10(std::max(x, 1) / 32768.0) * 32768.0;
        ASSERT_NEAR(_LOG10(static_cast<int16_t>(x)), want, 3.0) << x;
    }
}

// ---- Decibel table -----------------------------------------------------------------

TEST(DbTable, CheckedInSourceMatchesGenerator) {
    std::ifstream in(RSMPL_SOURCE_DIR "/util/db_table.inc");
    ASSERT_TRUE(in) << "cannot read util/db_table.inc";
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(), rsmpl::gen::db_table_source()) << "regenerate with: gen_db_table > util/db_table.inc";

    const auto gen = rsmpl::gen::db_table_entries();
    ASSERT_EQ(rsmpl::kDbScaleEntries, static_cast<int>(gen.size()));
    for (int k = 0; k < rsmpl::kDbScaleEntries; ++k) {
        EXPECT_EQ(rsmpl::kDbScaleTable[k].exponent, gen[k].exponent) << k;
        EXPECT_EQ(rsmpl::kDbScaleTable[k].mantissa, gen[k].mantissa) << k;
        EXPECT_EQ(rsmpl::kDbScaleTable[k].zero, 0) << k;
    }
}

TEST(DbTable, TellingEntries) {
    struct Case { int k; int16_t exp; int32_t mant; };
    for (Case c : {Case{0, 15, 1036215144}, Case{90, 0, 0x40000000}, Case{180, -14, 556313769}}) {
        EXPECT_EQ(rsmpl::kDbScaleTable[c.k].exponent, c.exp) << c.k;
        EXPECT_EQ(rsmpl::kDbScaleTable[c.k].mantissa, c.mant) << c.k;
    }
}

TEST(DbTable, EntriesAreMinimalExponentAndRoundedMantissa) {
    for (int k = 0; k < rsmpl::kDbScaleEntries; ++k) {
        const auto &t = rsmpl::kDbScaleTable[k];
        const long double want = std::pow(10.0L, (90 - k) / 20.0L);
        const long double q = want / std::ldexp(1.0L, t.exponent);
        EXPECT_LE(q, 1.0L) << k;
        EXPECT_GT(2 * q, 1.0L) << k;  // smallest such exponent
        const long double exact = std::ldexp(q, 30);
        EXPECT_LE(std::fabs(exact - t.mantissa), 0.5L) << k;
        // Far from a tie, so the rounding does not depend on the precision used.
        EXPECT_GT(std::fabs(std::fabs(exact - t.mantissa) - 0.5L), 1e-4L) << k;
        EXPECT_LT(std::fabs(std::ldexp(static_cast<long double>(t.mantissa), t.exponent - 30) / want - 1), 1e-9L) << k;
    }
}

// ---- Decibel conversion ------------------------------------------------------------

double exp32_value(UTIL_EXP32 x) { return std::ldexp(static_cast<double>(mant_of(x)), exp_of(x) - 30); }

// Reference results worked out by hand from the steps (whole-decibel table
// entry rounded to Q14, linear correction, Q22 conversion).
struct DbCase { int32_t dB, mant; int16_t exp; int32_t q22; };
const DbCase kDbCases[] = {
    {0, 0x40000000, 0, 0x400000},
    {1, 1073745764, 0, 4194319},
    {-1, 1073738209, 0, 4194289},
    {196608, 1071185920, 1, 8368640},     // +6 dB: about 1.995
    {-196608, 538116096, 0, 2102016},     // -6 dB
    {16383, 1138300068, 0, 4446484},      // just below +0.5 dB: factor 1.0601
    {16384, 569178814, 1, 4446709},       // +0.5 dB rounds to +1 dB
    {-16384, 1014515414, 0, 3962950},     // -0.5 dB: factor 0.9448
    {-16385, 1014493261, 0, 3962864},
    {123456, 829037767, 1, 6476857},
    {-1000000, 1024538696, -5, 125065},
    {-1473783, 775069906, -7, 23653},
    {1769472, 1051066368, 9, 2102132736}, // +54 dB, still below the Q22 ceiling
    {1776000, 1076247119, 9, INT32_MAX},
    {-2949120, 556335104, -14, 132},      // -90 dB
    {-2965504, 525648276, -14, 125},      // -90.5 dB rounds to -90
    {-2965505, 0x40000000, -15, 128},     // below: the -90.3 dB floor
    {2949120, 1036189696, 15, INT32_MAX}, // +90 dB
    {2965503, 1098490135, 15, INT32_MAX},
    {2965504, 0x40000000, 15, INT32_MAX}, // above: the +90.3 dB ceiling
    {INT32_MAX, 0x40000000, 15, INT32_MAX},
    {INT32_MIN, 0x40000000, -15, 128},
    {INT32_MAX - 16383, 0x40000000, 15, INT32_MAX},
    {-0x40000000, 0x40000000, -15, 128},
};

TEST(DbToScale, ReferenceValues) {
    for (const DbCase &c : kDbCases) {
        const UTIL_EXP32 x = UTILdBToScaleExp32(c.dB);
        EXPECT_EQ(mant_of(x), c.mant) << c.dB;
        EXPECT_EQ(exp_of(x), c.exp) << c.dB;
        EXPECT_EQ(x & 0xFFFF0000u, 0u) << c.dB;
        EXPECT_EQ(UTILdBToScale(c.dB), c.q22) << c.dB;
        EXPECT_EQ(UTIL_dBToScaleExp32(c.dB), x) << c.dB;
        EXPECT_EQ(UTIL_dBToScale(c.dB), c.q22) << c.dB;
    }
}

// Every level from -91.55 to +91.55 dB, bit for bit, against the checksums
// of an independent model of the steps (EXP32 words and Q22 results).
TEST(DbToScale, AllLevelsMatchReferenceChecksums) {
    Checksum words, q22;
    for (int32_t dB = -3000000; dB <= 3000000; ++dB) {
        words.add(UTILdBToScaleExp32(dB));
        q22.add(static_cast<uint32_t>(UTILdBToScale(dB)));
    }
    EXPECT_EQ(words.h, 0x490d940b48f800fu);
    EXPECT_EQ(q22.h, 0xbffa9de4d50fbfebu);
}

// The linear correction within +-0.5 dB stays within 0.1 % (0.009 dB).
TEST(DbToScale, Exp32WithinTenthOfAPercentOverTheTableRange) {
    for (int64_t dB = -2965504; dB <= 2965503; dB += 3) {
        const double want = std::pow(10.0, static_cast<double>(dB) / (32768.0 * 20.0));
        ASSERT_NEAR(exp32_value(UTILdBToScaleExp32(static_cast<int32_t>(dB))) / want, 1.0, 1.0e-3) << dB;
    }
}

TEST(DbToScale, ClampsBeyondNinetyDecibels) {
    std::mt19937_64 rng(9);
    for (int i = 0; i < 100000; ++i) {
        const int32_t dB = static_cast<int32_t>(rng());
        const UTIL_EXP32 x = UTILdBToScaleExp32(dB);
        if (dB >= 2965504) {
            EXPECT_EQ(x, exp32(0x40000000, 15)) << dB;
        } else if (dB < -2965504) {
            EXPECT_EQ(x, exp32(0x40000000, -15)) << dB;
        }
    }
}

TEST(DbToScale, Q22WithinTenthOfAPercentPlusOneLsbUpTo54Db) {
    for (int64_t dB = -90 * 32768; dB <= 54 * 32768; dB += 3) {
        const double want = std::pow(10.0, static_cast<double>(dB) / (32768.0 * 20.0)) * 4194304.0;
        ASSERT_NEAR(UTILdBToScale(static_cast<int32_t>(dB)), want, 1.0 + want * 1.0e-3) << dB;
    }
}

TEST(DbToScale, Q22SaturatesAboveAbout54Db) {
    EXPECT_LT(UTILdBToScale(static_cast<int32_t>(54.17 * 32768)), INT32_MAX);
    for (int64_t dB = static_cast<int64_t>(54.19 * 32768); dB <= INT32_MAX; dB += 9973)
        ASSERT_EQ(UTILdBToScale(static_cast<int32_t>(dB)), INT32_MAX) << dB;
}

}  // namespace
