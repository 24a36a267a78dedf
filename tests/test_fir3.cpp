#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <random>
#include <vector>

#include "support.hpp"
#include <rsmpl/rsmpl_util.h>

namespace {

using rsmpl_test::Guarded;

// The output rule written out in 128 bits: v = (2 * acc) << shift, plus
// 0x8000; a v outside 32 bits becomes 0x7FFF0000 or 0x8000FFFF; sample v >> 16.
int16_t model_output(int64_t acc, int shift) {
    // Beyond a shift of 80, |2 * acc| >= 2 makes v at least 2^82 in magnitude.
    const __int128 big = __int128{1} << 82;
    const __int128 v = 0x8000 + (acc == 0 ? 0 : shift > 80 ? (acc > 0 ? big : -big) : __int128{2} * acc << shift);
    const int32_t w = v > INT32_MAX ? 0x7FFF0000 : v < INT32_MIN ? static_cast<int32_t>(0x8000FFFFu) : static_cast<int32_t>(v);
    return static_cast<int16_t>(w >> 16);
}

struct Filtered { std::vector<int16_t> out, history; };

// Straightforward FIR over history followed by the input.
Filtered model_fir(const std::vector<int16_t> &in, const std::vector<int16_t> &history,
                   const std::vector<int16_t> &coefs, int shift) {
    const size_t taps = coefs.size();
    std::vector<int16_t> all = history;
    all.insert(all.end(), in.begin(), in.end());
    Filtered r;
    for (size_t i = 0; i < in.size(); ++i) {
        int64_t acc = 0;
        for (size_t k = 0; k < taps; ++k) acc += int64_t{coefs[k]} * all[taps + i - k];
        r.out.push_back(model_output(acc, shift));
    }
    r.history.assign(all.end() - static_cast<ptrdiff_t>(taps), all.end());
    return r;
}

// One call with guard elements after samples, history and a scratch buffer
// of exactly taps + count samples.
struct Call { std::vector<int16_t> samples, history; int32_t status; };

Call run(const std::vector<int16_t> &in, const std::vector<int16_t> &history, const std::vector<int16_t> &coefs,
         int shift) {
    const size_t n = in.size(), taps = coefs.size();
    Guarded<int16_t> s(n), h(taps), scratch(taps + n);
    std::copy(in.begin(), in.end(), s.data());
    std::copy(history.begin(), history.end(), h.data());
    Call c;
    c.status = UTIL_Fir3(s.data(), static_cast<int16_t>(n), h.data(), coefs.data(), static_cast<int16_t>(taps),
                         static_cast<int16_t>(shift), scratch.data());
    EXPECT_TRUE(s.guards_intact());
    EXPECT_TRUE(h.guards_intact());
    EXPECT_TRUE(scratch.guards_intact());
    c.samples.assign(s.data(), s.data() + n);
    c.history.assign(h.data(), h.data() + taps);
    return c;
}

TEST(Fir3, StatusCodesInCheckOrderAndRejectedCallsChangeNothing) {
    struct Case { const char *what; bool null_samples, null_history, null_coefs, null_scratch; int count, taps, shift, status; };
    const Case cases[] = {
        {"null samples", true, false, false, false, 8, 4, 0, 1},
        {"null history", false, true, false, false, 8, 4, 0, 1},
        {"null coefs", false, false, true, false, 8, 4, 0, 1},
        {"null scratch", false, false, false, true, 8, 4, 0, 1},
        {"null before count", true, false, false, false, 6, 4, -1, 1},
        {"count 6", false, false, false, false, 6, 4, 0, 2},
        {"taps 2", false, false, false, false, 8, 2, 0, 2},
        {"count 0", false, false, false, false, 0, 4, 0, 2},
        {"taps 0", false, false, false, false, 8, 0, 0, 2},
        {"count negative", false, false, false, false, -4, 4, 0, 2},
        {"taps negative", false, false, false, false, 8, -4, 0, 2},
        {"count before shift", false, false, false, false, 6, 4, -1, 2},
        {"shift -1", false, false, false, false, 8, 4, -1, 3},
        {"shift min", false, false, false, false, 8, 4, INT16_MIN, 3},
        {"accepted", false, false, false, false, 8, 4, 0, 0},
    };
    const std::vector<int16_t> in = rsmpl_test::random_samples(8, 1);
    const std::vector<int16_t> hist = rsmpl_test::random_samples(4, 2);
    const std::vector<int16_t> coefs = {0x4000, 0x2000, -0x1000, 0x0800};
    for (const Case &c : cases) {
        std::vector<int16_t> s = in, h = hist, scratch(32, 0x1234);
        const int32_t status =
            UTIL_Fir3(c.null_samples ? nullptr : s.data(), static_cast<int16_t>(c.count),
                      c.null_history ? nullptr : h.data(), c.null_coefs ? nullptr : coefs.data(),
                      static_cast<int16_t>(c.taps), static_cast<int16_t>(c.shift),
                      c.null_scratch ? nullptr : scratch.data());
        EXPECT_EQ(status, c.status) << c.what;
        if (c.status != 0) {
            EXPECT_EQ(s, in) << c.what;
            EXPECT_EQ(h, hist) << c.what;
            EXPECT_EQ(scratch, std::vector<int16_t>(32, 0x1234)) << c.what;
        } else {
            EXPECT_NE(s, in) << c.what;
        }
    }
}

TEST(Fir3, PassThroughAndSaturationExamples) {
    const std::vector<int16_t> in = rsmpl_test::hostile_samples(256, 3);
    const Call c = run(in, rsmpl_test::random_samples(4, 4), {0x7FFF, 0, 0, 0}, 0);
    ASSERT_EQ(c.status, 0);
    for (size_t i = 0; i < in.size(); ++i) EXPECT_LE(std::abs(c.samples[i] - in[i]), 1) << i;
    // Full scale with gain saturates by sign, whatever the shift.
    for (int shift : {1, 16, 31, 32, 63, 64, 1000, INT16_MAX})
        EXPECT_EQ(run({INT16_MAX, INT16_MIN, INT16_MAX, INT16_MIN}, {0, 0, 0, 0}, {0x7FFF, 0, 0, 0}, shift).samples,
                  (std::vector<int16_t>{INT16_MAX, INT16_MIN, INT16_MAX, INT16_MIN})) << shift;
    // The smallest values with the largest gain still saturate; zero stays zero.
    EXPECT_EQ(run({1, -1, 0, 0}, {0, 0, 0, 0}, {1, 0, 0, 0}, INT16_MAX).samples,
              (std::vector<int16_t>{32767, -32768, 0, 0}));
}

// Random coefficients, signals and shifts (including shifts that push the
// shifted accumulator past 64 bits) against the 128-bit model.
TEST(Fir3, MatchesWideModel) {
    std::mt19937 rng(9);
    const int shifts[] = {0, 1, 2, 3, 5, 8, 12, 15, 16, 17, 20, 24, 31, 32, 33, 40, 47, 48, 63, 64, 65, 80, 81, 200, INT16_MAX};
    for (int round = 0; round < 200; ++round) {
        const size_t taps = 4 * (1 + rng() % 16), n = 4 * (1 + rng() % 64);
        std::vector<int16_t> coefs = (round % 3 == 0) ? rsmpl_test::hostile_samples(taps, rng())
                                                       : rsmpl_test::random_samples(taps, rng());
        if (round % 5 == 0) for (auto &k : coefs) k = static_cast<int16_t>(k >> 8);  // small coefficients: less saturation
        const std::vector<int16_t> in = (round % 2) ? rsmpl_test::hostile_samples(n, rng()) : rsmpl_test::random_samples(n, rng());
        const std::vector<int16_t> hist = rsmpl_test::random_samples(taps, rng());
        const int shift = shifts[round % std::size(shifts)];
        const Filtered want = model_fir(in, hist, coefs, shift);
        const Call got = run(in, hist, coefs, shift);
        ASSERT_EQ(got.status, 0);
        ASSERT_EQ(got.samples, want.out) << "taps " << taps << " n " << n << " shift " << shift;
        ASSERT_EQ(got.history, want.history) << "taps " << taps << " n " << n;
    }
    // Accumulators near the largest magnitude: every tap at full scale.
    for (int16_t c : {INT16_MIN, INT16_MAX})
        for (int16_t x : {INT16_MIN, INT16_MAX})
            for (int shift : {0, 1, 20, 40}) {
                const std::vector<int16_t> coefs(128, c), in(64, x), hist(128, x);
                EXPECT_EQ(run(in, hist, coefs, shift).samples, model_fir(in, hist, coefs, shift).out) << c << " " << x;
            }
}

// Consecutive blocks through the history give the output of one joined block.
TEST(Fir3, BlockSplitInvariance) {
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        std::mt19937 rng(seed);
        const size_t taps = 4 * (1 + rng() % 12);
        const std::vector<int16_t> coefs = rsmpl_test::random_samples(taps, seed * 7);
        const std::vector<int16_t> in = rsmpl_test::hostile_samples(2000, seed * 13);
        const std::vector<int16_t> hist0 = rsmpl_test::random_samples(taps, seed * 17);
        const int shift = static_cast<int>(rng() % 4);

        const Call whole = run(in, hist0, coefs, shift);
        std::vector<int16_t> history = hist0, joined;
        size_t pos = 0;
        for (int32_t len : rsmpl_test::random_blocks(static_cast<int64_t>(in.size()), 4, 160, 4, seed)) {
            const std::vector<int16_t> block(in.begin() + static_cast<ptrdiff_t>(pos), in.begin() + static_cast<ptrdiff_t>(pos + len));
            const Call part = run(block, history, coefs, shift);
            ASSERT_EQ(part.status, 0);
            joined.insert(joined.end(), part.samples.begin(), part.samples.end());
            history = part.history;
            pos += static_cast<size_t>(len);
        }
        ASSERT_EQ(pos, in.size());
        EXPECT_EQ(joined, whole.samples) << "seed " << seed;
        EXPECT_EQ(history, whole.history) << "seed " << seed;
    }
}

// The body checks nothing: without taps it clears the samples, and a
// negative shift is taken as no shift.
TEST(Fir3, BodyEdges) {
    Guarded<int16_t> s(12);
    for (size_t i = 0; i < 12; ++i) s[i] = static_cast<int16_t>(1000 + i);
    int16_t hist[4] = {1, 2, 3, 4}, scratch[12] = {};
    const int16_t coefs[4] = {0x3000, -0x2000, 0x1000, 0x0100};
    UTILFir3(s.data(), 12, hist, coefs, 0, 0, scratch);
    for (size_t i = 0; i < 12; ++i) EXPECT_EQ(s[i], 0);
    EXPECT_TRUE(s.guards_intact());
    EXPECT_EQ(hist[0], 1);

    const std::vector<int16_t> in = rsmpl_test::random_samples(8, 21);
    std::vector<int16_t> a = in, ha(4, 7);
    UTILFir3(a.data(), 8, ha.data(), coefs, 4, -5, scratch);
    const Filtered want = model_fir(in, std::vector<int16_t>(4, 7), {coefs, coefs + 4}, 0);
    EXPECT_EQ(a, want.out);
    EXPECT_EQ(ha, want.history);
}

}  // namespace
