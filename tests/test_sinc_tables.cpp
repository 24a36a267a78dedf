// The sinc interpolator's tables: regenerated from their definition and
// compared with the checked-in source and the compiled data; reference rows;
// the prototype's DC gain per phase and its frequency response, measured in
// double from the compiled table. Compiled with -ffp-contract=off like the
// generator.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "rsmpl/sinc/sinc_kernel.hpp"
#include "tools/sinc_table_gen.hpp"

namespace {

using rsmpl::headroomShift;
using rsmpl::sincWing;
using rsmpl::sincWingDelta;

TEST(SincTables, CheckedInSourceMatchesGenerator) {
    std::ifstream f(RSMPL_SOURCE_DIR "/rsmpl/sinc/sinc_tables.inc");
    ASSERT_TRUE(f.good());
    std::stringstream ss;
    ss << f.rdbuf();
    EXPECT_EQ(ss.str(), sinc_gen::render_tables()) << "regenerate with tools/gen_sinc_tables";
}

TEST(SincTables, CompiledTablesMatchGenerator) {
    const auto w = sinc_gen::wing();
    const auto d = sinc_gen::wing_delta();
    const auto h = sinc_gen::headroom_shift();
    for (int i = 0; i < rsmpl::kSincWingLength; ++i) {
        ASSERT_EQ(sincWing[i], w[i]) << i;
        ASSERT_EQ(sincWingDelta[i], d[i]) << i;
    }
    for (int k = 0; k < rsmpl::kSincHeadroomLength; ++k) ASSERT_EQ(headroomShift[k], h[k]) << k;
}

TEST(SincTables, ReferenceRows) {
    struct Row { int i; int32_t v; };
    for (Row r : {Row{0, 1889785600}, {1, 1889635328}, {64, 1333511040}, {128, 244655296}, {256, -208960624},
                  {640, 62724748}, {1000, 5037380}, {1663, -18275}, {1664, 0}})
        EXPECT_EQ(sincWing[r.i], r.v) << "wing " << r.i;
    EXPECT_EQ(sincWing[0], 0x70A3D700);
    const int16_t shifts[] = {0, 0, 1, 2, 2, 3, 3, 3, 3};
    for (int k = 0; k < 9; ++k) EXPECT_EQ(headroomShift[k], shifts[k]) << k;
}

TEST(SincTables, DefinitionHoldsEntryByEntry) {
    for (int i = 1664; i < rsmpl::kSincWingLength; ++i) ASSERT_EQ(sincWing[i], 0) << i;
    for (int i = 0; i + 1 < rsmpl::kSincWingLength; ++i)
        ASSERT_EQ(int64_t{sincWing[i]} + sincWingDelta[i], sincWing[i + 1]) << i;
    EXPECT_EQ(sincWingDelta[rsmpl::kSincWingLength - 1], 0);
    for (int k = 1; k < rsmpl::kSincHeadroomLength; ++k) {
        const int s = headroomShift[k];
        ASSERT_GE(1 << s, k) << k;
        if (s > 0) {
            ASSERT_LT(1 << (s - 1), k) << k;
        }
    }
    // Large entries are float values scaled by 2^31: at most 24 significant bits.
    for (int i = 0; i < 1664; ++i) {
        uint32_t m = static_cast<uint32_t>(std::abs(sincWing[i]));
        while (m != 0 && (m & 1u) == 0) m >>= 1;
        ASSERT_LT(m, 1u << 24) << i;
    }
}

// Taps of one phase at whole-sample spacing, both wings: the DC gain an
// interpolated output sees at that fraction.
TEST(SincPrototype, EveryPhaseSumsToUnity) {
    double lo = 2.0, hi = 0.0;
    for (int i = 0; i < 128; ++i) {
        double sum = 0.0;
        for (int k = 0; k < 14; ++k) {
            sum += sincWing[i + 128 * k];
            if (k > 0) sum += sincWing[128 * k - i];
        }
        sum /= 2147483648.0;
        lo = std::min(lo, sum);
        hi = std::max(hi, sum);
    }
    EXPECT_GE(lo, 1.0000012);
    EXPECT_LE(hi, 1.0000217);
}

// Magnitude in dB of the symmetric prototype at frequency f (in units of the
// input rate), gain normalised so that a phase sum of 1 is 0 dB.
class Response {
public:
    Response() : h_(sincWing, sincWing + rsmpl::kSincWingLength) {}
    double db(double f) const {
        const double theta = 2.0 * M_PI * f / 128.0;
        const double c1 = std::cos(theta);
        double prev = 1.0, cur = c1, sum = h_[0];
        for (size_t n = 1; n < h_.size(); ++n) {
            sum += 2.0 * h_[n] * cur;
            const double next = 2.0 * c1 * cur - prev;
            prev = cur;
            cur = next;
        }
        return 20.0 * std::log10(std::fabs(sum) / (128.0 * 2147483648.0));
    }
    double peak(double from, double to, double step) const {
        double m = -1e9;
        for (double f = from; f <= to; f += step) m = std::max(m, db(f));
        return m;
    }

private:
    std::vector<double> h_;
};

TEST(SincPrototype, PassbandTransitionAndStopband) {
    const Response r;
    double worst = 0.0;
    for (double f = 0.0; f <= 0.3; f += 0.001) worst = std::max(worst, std::fabs(r.db(f)));
    EXPECT_LE(worst, 0.0001);
    EXPECT_NEAR(r.db(0.419), -3.0, 0.1);
    EXPECT_NEAR(r.db(0.44), -6.0, 0.05);
    EXPECT_NEAR(r.db(0.5), -24.9, 0.05);
    EXPECT_LT(r.peak(0.55, 0.6, 0.0005), -66.0);
    // Sidelobes are about 0.08 wide; a 0.002 grid finds their peaks within 0.01 dB.
    EXPECT_LT(r.db(0.6), -107.0);
    EXPECT_GT(r.db(0.6), -111.0);
    EXPECT_LT(r.peak(0.6, 64.0, 0.002), -103.0);
    EXPECT_LT(r.peak(0.84, 64.0, 0.002), -107.0);
}

}  // namespace
