#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "util/rsmpl_util.h"

namespace {

// Floor division by a positive divisor built on truncating division, so the
// models share no shift with the code under test.
int64_t floor_div(int64_t a, int64_t b) {
    int64_t q = a / b;
    if (a % b != 0 && a < 0) --q;
    return q;
}

int64_t clamp(int64_t v, int64_t lo, int64_t hi) { return v < lo ? lo : (v > hi ? hi : v); }

// value + coef * d / 32768 rounded half up, d exact; result clamped to 16 bits.
int16_t model_smooth16(int16_t value, int16_t coef, int16_t target, int extra) {
    const int64_t d = int64_t{target} - value;
    const int64_t step = floor_div(int64_t{coef} * d * 2 + 32768, 65536);
    return static_cast<int16_t>(clamp(value + step + extra, INT16_MIN, INT16_MAX));
}

// value + floor(coef * d / 32768), d exact; result clamped to 32 bits.
int32_t model_smooth32(int32_t value, int16_t coef, int32_t target, int extra) {
    const int64_t d = int64_t{target} - value;
    return static_cast<int32_t>(clamp(value + floor_div(int64_t{coef} * d, 32768) + extra, INT32_MIN, INT32_MAX));
}

int16_t model_asym16(int16_t value, int16_t rise, int16_t fall, int16_t target) {
    if (target == value) return value;
    return target > value ? model_smooth16(value, rise, target, 1) : model_smooth16(value, fall, target, -1);
}

int32_t model_asym32(int32_t value, int16_t rise, int16_t fall, int32_t target) {
    if (target == value) return value;
    return target > value ? model_smooth32(value, rise, target, 1) : model_smooth32(value, fall, target, -1);
}

TEST(Smooth, Examples) {
    EXPECT_EQ(UTIL_Smooth(1000, 16384, 2000), 1500);
    EXPECT_EQ(UTIL_Smooth(1000, 16384, 0), 500);
    EXPECT_EQ(UTIL_Smooth(1000, 0, 2000), 1000);        // coefficient 0 holds
    EXPECT_EQ(UTIL_SmoothAsym(100, 16384, 16384, 101), 102);  // one past the target
    EXPECT_EQ(UTIL_SmoothAsym(102, 16384, 16384, 101), 101);  // ... and back with the other coefficient
    EXPECT_EQ(UTIL_SmoothAsym(103, 16384, 0x7FFF, 101), 100);  // falling can overshoot too
    for (int16_t v : {int16_t{-32768}, int16_t{0}, int16_t{100}, int16_t{32767}}) {
        EXPECT_EQ(UTIL_SmoothAsym(v, 0x7FFF, 0x7FFF, v), v);
        EXPECT_EQ(UTIL_SmoothAsym32(v, 0x7FFF, 0x7FFF, v), v);
    }
    EXPECT_EQ(UTIL_Smooth32(1000, 16384, 2000), 1500);
    EXPECT_EQ(UTIL_Smooth32(1000, 16384, 0), 500);
    EXPECT_EQ(UTIL_SmoothAsym32(100, 0, 0, 200), 101);  // rising product 0: the extra unit still moves
    EXPECT_EQ(UTIL_SmoothAsym32(100, 0, 0, 0), 99);
}

const std::vector<int16_t> kCorners16 = {INT16_MIN, INT16_MIN + 1, -30000, -1, 0, 1, 2, 30000, INT16_MAX - 1, INT16_MAX};
const std::vector<int32_t> kCorners32 = {INT32_MIN, INT32_MIN + 1, -1000000000, -1, 0, 1, 2, 1000000000, INT32_MAX - 1, INT32_MAX};
const std::vector<int16_t> kCoefs = {INT16_MIN, -16384, -1, 0, 1, 16384, 0x7FFE, INT16_MAX};

// Full-scale corners (opposite signs, differences beyond 16 and 32 bits,
// negative coefficients), then random arguments, against the models.
TEST(Smooth, CornersAndRandomMatchModels) {
    for (int16_t v : kCorners16)
        for (int16_t t : kCorners16)
            for (int16_t c : kCoefs) {
                EXPECT_EQ(UTIL_Smooth(v, c, t), model_smooth16(v, c, t, 0)) << v << " " << c << " " << t;
                for (int16_t c2 : kCoefs)
                    EXPECT_EQ(UTIL_SmoothAsym(v, c, c2, t), model_asym16(v, c, c2, t)) << v << " " << c << " " << c2 << " " << t;
            }
    for (int32_t v : kCorners32)
        for (int32_t t : kCorners32)
            for (int16_t c : kCoefs) {
                EXPECT_EQ(UTIL_Smooth32(v, c, t), model_smooth32(v, c, t, 0)) << v << " " << c << " " << t;
                for (int16_t c2 : kCoefs)
                    EXPECT_EQ(UTIL_SmoothAsym32(v, c, c2, t), model_asym32(v, c, c2, t)) << v << " " << c << " " << c2 << " " << t;
            }

    std::mt19937 rng(7);
    auto r16 = [&] { return static_cast<int16_t>(rng()); };
    auto r32 = [&] { return static_cast<int32_t>(rng()); };
    for (int i = 0; i < 100000; ++i) {
        const int16_t v = r16(), t = r16(), c = r16(), c2 = r16();
        ASSERT_EQ(UTIL_Smooth(v, c, t), model_smooth16(v, c, t, 0)) << v << " " << c << " " << t;
        ASSERT_EQ(UTIL_SmoothAsym(v, c, c2, t), model_asym16(v, c, c2, t)) << v << " " << c << " " << c2 << " " << t;
        const int32_t w = r32(), u = r32();
        ASSERT_EQ(UTIL_Smooth32(w, c, u), model_smooth32(w, c, u, 0)) << w << " " << c << " " << u;
        ASSERT_EQ(UTIL_SmoothAsym32(w, c, c2, u), model_asym32(w, c, c2, u)) << w << " " << c << " " << c2 << " " << u;
    }
}

// Where the difference fits in 16 bits and the result does too, the result is
// exactly value + ((2 * coef * d + 0x8000) >> 16) with d a 16-bit difference.
TEST(Smooth, InRangeDifferencesFollowTheSixteenBitFormula) {
    std::mt19937 rng(11);
    for (int i = 0; i < 100000; ++i) {
        const auto v = static_cast<int16_t>(rng()), c = static_cast<int16_t>(rng() & 0x7FFF);
        const auto d = static_cast<int16_t>(rng());
        const int32_t t = v + d;
        if (t < INT16_MIN || t > INT16_MAX) continue;
        const int32_t want = v + ((2 * c * d + 0x8000) >> 16);
        ASSERT_EQ(UTIL_Smooth(v, c, static_cast<int16_t>(t)), want) << v << " " << c << " " << t;
    }
}

// Opposite full-scale values: the value moves through zero toward the target
// and never wraps to the other end of the range.
TEST(Smooth, NonNegativeCoefficientsStayBetweenValueAndTarget) {
    EXPECT_EQ(UTIL_Smooth(-30000, 16384, 30000), 0);
    EXPECT_EQ(UTIL_Smooth(30000, 16384, -30000), 0);
    EXPECT_EQ(UTIL_Smooth(INT16_MIN, 0x7FFF, INT16_MAX), INT16_MAX - 2);  // 0x7FFF is 1 - 2^-15
    EXPECT_EQ(UTIL_Smooth32(INT32_MIN, 16384, INT32_MAX), -1);
    for (int16_t v : kCorners16)
        for (int16_t t : kCorners16)
            for (int16_t c : {int16_t{0}, int16_t{1}, int16_t{100}, int16_t{16384}, int16_t{0x7FFF}}) {
                const int16_t r = UTIL_Smooth(v, c, t);
                EXPECT_GE(r, std::min(v, t)) << v << " " << c << " " << t;
                EXPECT_LE(r, std::max(v, t)) << v << " " << c << " " << t;
                // 0x7FFF falls short of the target by d / 32768, rounded.
                const int32_t d = std::abs(int32_t{t} - v);
                if (c == 0x7FFF) {
                    EXPECT_LE(std::abs(int32_t{r} - t), d <= 32768 ? 1 : 2) << v << " " << t;
                }
            }
    for (int32_t v : kCorners32)
        for (int32_t t : kCorners32)
            for (int16_t c : {int16_t{0}, int16_t{1}, int16_t{16384}, int16_t{0x7FFF}}) {
                const int32_t r = UTIL_Smooth32(v, c, t);
                EXPECT_GE(r, std::min(v, t)) << v << " " << c << " " << t;
                EXPECT_LE(r, std::max(v, t)) << v << " " << c << " " << t;
            }
}

// The extra unit of the asymmetric smoothers at a full-scale target clamps
// instead of wrapping to the opposite end.
TEST(Smooth, AsymmetricStepPastFullScaleSaturates) {
    EXPECT_EQ(UTIL_SmoothAsym(INT16_MAX - 1, 0x7FFF, 0, INT16_MAX), INT16_MAX);
    EXPECT_EQ(UTIL_SmoothAsym(INT16_MIN + 1, 0, 0x7FFF, INT16_MIN), INT16_MIN);
    EXPECT_EQ(UTIL_SmoothAsym(INT16_MIN + 1, 0, 16384, INT16_MIN), INT16_MIN);
    EXPECT_EQ(UTIL_SmoothAsym32(INT32_MIN + 1, 0, 0x7FFF, INT32_MIN), INT32_MIN);
    EXPECT_EQ(UTIL_SmoothAsym32(INT32_MAX - 1, 0x7FFF, 0, INT32_MAX), INT32_MAX);
    // Negative coefficients push away from the target; the result clamps.
    EXPECT_EQ(UTIL_Smooth(-20000, INT16_MIN, 20000), INT16_MIN);
    EXPECT_EQ(UTIL_Smooth32(-2000000000, INT16_MIN, 2000000000), INT32_MIN);
}

// The asymmetric smoothers always move toward the target, by at least one
// unit, and at most one unit past it.
TEST(Smooth, AsymmetricAlwaysMovesTowardTarget) {
    std::mt19937 rng(3);
    for (int i = 0; i < 100000; ++i) {
        const auto v = static_cast<int16_t>(rng()), t = static_cast<int16_t>(rng());
        const auto rise = static_cast<int16_t>(rng() & 0x7FFF), fall = static_cast<int16_t>(rng() & 0x7FFF);
        const int32_t r = UTIL_SmoothAsym(v, rise, fall, t);
        if (t > v) {
            ASSERT_GT(r, v);
            ASSERT_LE(r, t + 1);
        } else if (t < v) {
            ASSERT_LT(r, v);
            ASSERT_GE(r, t - 1);
        }
        const auto w = static_cast<int32_t>(rng()), u = static_cast<int32_t>(rng());
        const int64_t q = UTIL_SmoothAsym32(w, rise, fall, u);
        if (u > w) {
            ASSERT_GT(q, w);
            ASSERT_LE(q, int64_t{u} + 1);
        } else if (u < w) {
            ASSERT_LT(q, w);
            ASSERT_GE(q, int64_t{u} - 1);
        }
    }
}

}  // namespace
