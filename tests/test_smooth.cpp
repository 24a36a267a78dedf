#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include <rsmpl/rsmpl_util.h>

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
    EXPECT_EQ(UTIL_SmoothAsym(100, 16384, 16384, 101), 102);  // one past the target
    EXPECT_EQ(UTIL_SmoothAsym(102, 16384, 16384, 101), 101);  // ... and back with the other coefficient
    EXPECT_EQ(UTIL_SmoothAsym(100, 16384, 16384, 100), 100);
    EXPECT_EQ(UTIL_Smooth32(1000, 16384, 2000), 1500);
    EXPECT_EQ(UTIL_SmoothAsym32(100, 0, 0, 200), 101);  // rising product 0: the extra unit still moves
}

const std::vector<int16_t> kCorners16 = {INT16_MIN, INT16_MIN + 1, -30000, -1, 0, 1, 2, 30000, INT16_MAX - 1, INT16_MAX};
const std::vector<int32_t> kCorners32 = {INT32_MIN, INT32_MIN + 1, -1000000000, -1, 0, 1, 2, 1000000000, INT32_MAX - 1, INT32_MAX};
const std::vector<int16_t> kCoefs = {INT16_MIN, -16384, -1, 0, 1, 16384, 0x7FFE, INT16_MAX};

// Full-scale corners (opposite signs, differences beyond 16 and 32 bits, steps
// past full scale, negative coefficients), then random arguments, against the
// models: the difference is exact and the result saturates instead of wrapping.
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

}  // namespace
