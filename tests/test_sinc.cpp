// Sinc interpolator: control fields, the block kernel against a
// double-precision model of the same algorithm, exact counts, delay, DC gain,
// ratio changes, and history safety at the extremes.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include "rsmpl/sinc/sinc_kernel.hpp"
#include "support.hpp"

namespace {

using rsmpl::sincWing;
using rsmpl::sincWingDelta;
using rsmpl_test::Guarded;

constexpr uint32_t kQ24 = 0x01000000u;

RSMPL_Ctx fresh() {
    RSMPL_Ctx ctx{};
    RSMPLSincReset(&ctx);
    return ctx;
}

// The algorithm in double, fed block by block. It keeps every input sample
// and reads zero for samples the context no longer holds or has not received
// yet. Products, coefficient interpolation and the sum are exact; kept are
// the steps that define the formats: x >> s, the Q14 sum (floor), rounding to
// Q15 and the shift back.
class Model {
public:
    // Parameters in use; targets are read from the context after a ratio change.
    int32_t H = 13;
    uint32_t S = kQ24, T = 0x800000, G = kQ24, pos = 0;
    int32_t Ht = 13;
    uint32_t St = kQ24, Tt = 0x800000, Gt = kQ24;

    void take_targets(const RSMPL_Ctx &c) {
        Ht = c.targetHalfLength;
        St = c.targetStep;
        Tt = c.targetTableStep;
        Gt = c.targetGain;
    }

    std::vector<int16_t> block(const int16_t *in, uint32_t count) {
        const int64_t n0 = static_cast<int64_t>(y_.size());
        y_.insert(y_.end(), in, in + count);
        const int64_t end = n0 + count;
        const int s = shift(S);
        const int64_t L = int64_t{count} - (Ht - H);
        std::vector<int16_t> out;
        const uint64_t p0 = pos;
        uint64_t p = p0;
        for (uint64_t m = 1;; ++m) {
            const int64_t i = static_cast<int64_t>(p >> 16);
            const double f = static_cast<double>((p & 0xFFFF) + ((p & 0xFFFF) >> 15));
            const double t0 = f * T / 65536.0;
            const int64_t centre = n0 - H - 1 + i;
            double acc = 0.0;  // Q30
            for (int k = 0; k <= H; ++k) acc += coef(t0 + double(k) * T) * floor_shift(at(centre - k, end), s);
            for (int k = 1; k <= H; ++k) acc += coef(double(k) * T - t0) * floor_shift(at(centre + k, end), s);
            acc /= 65536.0;
            const double a = std::floor(acc / 65536.0);                           // Q14
            const double yq = std::floor(a * G / 8388608.0 + 0.5);                 // Q15
            const double v = std::ldexp(yq, s);
            out.push_back(static_cast<int16_t>(std::max(-32768.0, std::min(32767.0, v))));
            p = p0 + (uint64_t{S} * m + 128) / 256;
            if (static_cast<int64_t>(p >> 16) >= L) break;
        }
        const uint64_t rest = p - static_cast<uint64_t>(L << 16);
        pos = static_cast<uint32_t>(std::min<uint64_t>(rest, rsmpl::kSincMaxPosition));
        forgotten_ = std::max(forgotten_, end - 2 * Ht - 1);
        H = Ht;
        S = St;
        T = Tt;
        G = Gt;
        return out;
    }

    static int shift(uint32_t step) {
        int s = 0;
        while ((1u << s) < (step >> 24)) ++s;
        return s;
    }

private:
    std::vector<int16_t> y_;
    int64_t forgotten_ = 0;

    double at(int64_t j, int64_t end) const {
        return (j < 0 || j < forgotten_ || j >= end) ? 0.0 : y_[static_cast<size_t>(j)];
    }
    static double floor_shift(double x, int s) { return std::floor(x / (1 << s)); }
    static double coef(double t) {
        const double j = std::floor(t / 65536.0);
        if (j >= rsmpl::kSincWingLength) return 0.0;
        double g = t - j * 65536.0;
        if (g >= 32768.0) g += 1.0;  // 0xFFFF reaches the next entry
        const int ji = static_cast<int>(j);
        return sincWing[ji] + sincWingDelta[ji] * g / 65536.0;
    }
};

// Moderate signals: a sum of tones and noise within +-16000, far from the
// 32-bit accumulator's limit at any ratio.
std::vector<int16_t> test_signal(size_t n, uint32_t seed) {
    auto noise = rsmpl_test::random_samples(n, seed);
    std::vector<int16_t> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<int16_t>(7000.0 * std::sin(0.031 * i) + 5000.0 * std::sin(1.7 * i + 0.3) + noise[i] / 12);
    return v;
}

struct Checker {
    RSMPL_Ctx ctx = fresh();
    Model model;
    float ratio_in_use = 1.0f;
    float ratio_set = 1.0f;
    size_t outputs = 0, differing = 0;

    void set_ratio(float r) {
        RSMPLSetResampleRatio(&ctx, nullptr, nullptr, nullptr, r);
        model.take_targets(ctx);
        ratio_set = r;
    }
    // Room the header promises to be enough: floor(L * r) + 2.
    size_t room(uint32_t count) const {
        const int64_t L = int64_t{count} - (ctx.targetHalfLength - ctx.halfLength);
        return static_cast<size_t>(std::floor(static_cast<double>(L) * ratio_in_use)) + 2;
    }
    void run(const int16_t *in, uint32_t count) {
        const int s = Model::shift(ctx.step);
        const int tol = std::max(2, 1 << s);
        Guarded<int16_t> out(room(count));
        const uint32_t k = RSMPLSincInterpolate(&ctx, in, out.data(), count);
        const auto want = model.block(in, count);
        ASSERT_TRUE(out.guards_intact()) << "count " << count;
        ASSERT_LE(k, out.size());
        ASSERT_EQ(k, want.size()) << "count " << count;
        for (uint32_t n = 0; n < k; ++n) {
            ASSERT_NEAR(out[n], want[n], tol) << "output " << outputs + n;
            differing += out[n] != want[n];
        }
        outputs += k;
        ASSERT_EQ(ctx.position, model.pos);
        ASSERT_EQ(ctx.halfLength, model.H);
        ASSERT_EQ(ctx.step, model.S);
        ratio_in_use = ratio_set;
    }
};

TEST(SincCoefficient, InterpolatesBetweenEntriesAndReachesTheNextAtTheLastFraction) {
    for (uint32_t j = 0; j < 1792; ++j) {
        ASSERT_EQ(rsmpl::sinc_coefficient(j << 16), sincWing[j]);
        const int32_t next = j + 1 < 1792 ? sincWing[j + 1] : 0;
        ASSERT_EQ(rsmpl::sinc_coefficient((j << 16) | 0xFFFF), next) << j;  // 0xFFFF counts as one
        const int64_t half = sincWing[j] + ((int64_t{sincWingDelta[j]} * 0x8001) >> 16);
        ASSERT_EQ(rsmpl::sinc_coefficient((j << 16) | 0x8000), half) << j;
    }
    EXPECT_EQ(rsmpl::sinc_coefficient(1792u << 16), 0);  // the zero tail goes on
    EXPECT_EQ(rsmpl::sinc_coefficient(0xFFFFFFFFu), 0);
}

// ---- Control functions ------------------------------------------------------

// Every byte written: the same as a reset of a zeroed context. The defaults
// themselves are the model's starting state, held against each block's
// position, half-length and step and against every output.
TEST(SincControl, ResetWritesEveryField) {
    RSMPL_Ctx ctx;
    std::memset(&ctx, 0x5A, sizeof ctx);
    RSMPLSincReset(&ctx);
    const RSMPL_Ctx clean = fresh();
    EXPECT_EQ(std::memcmp(&ctx, &clean, sizeof ctx), 0);
    EXPECT_EQ(ctx.ratio, 1.0f);
    RSMPLSincLPFInit();  // nothing to compute: the tables are data
}

TEST(SincControl, SetResampleRatioFields) {
    struct Case { float ratio; uint32_t step, table, gain; int32_t half; int shift; uint32_t minIn; };
    const Case cases[] = {
        {2.0f, 0x800000, 0x800000, 0x01000000, 13, 0, 1},
        {0.5f, 0x02000000, 0x400000, 0x800000, 26, 1, 14},
        {0.125f, 0x08000000, 0x100000, 0x200000, 104, 3, 92},
        {8.0f, 0x200000, 0x800000, 0x01000000, 13, 0, 1},
        {1.0f, 0x01000000, 0x800000, 0x01000000, 13, 0, 1},
        {44100.0f / 48000.0f, 0x0116A3B4, 0x75999A, 0xEB3333, 14, 0, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.ratio);
        RSMPL_Ctx ctx = fresh();
        uint32_t minIn = 0, maxIn = 0, extra = 0;
        RSMPLSetResampleRatio(&ctx, &minIn, &maxIn, &extra, c.ratio);
        EXPECT_EQ(ctx.targetStep, c.step);
        EXPECT_EQ(ctx.targetTableStep, c.table);
        EXPECT_EQ(ctx.targetGain, c.gain);
        EXPECT_EQ(ctx.targetHalfLength, c.half);
        EXPECT_EQ(rsmpl::headroomShift[ctx.targetStep >> 24], c.shift);
        EXPECT_EQ(ctx.ratio, c.ratio);
        EXPECT_EQ(minIn, c.minIn);
        EXPECT_EQ(maxIn, 1440u);
        EXPECT_EQ(extra, 1u);
    }
}

TEST(SincControl, RatioChangeExamples) {
    RSMPL_Ctx ctx = fresh();
    const auto in = test_signal(200, 1);
    std::vector<int16_t> out(1000);
    uint32_t minIn = 0, maxIn = 0, extra = 0;

    RSMPLSetResampleRatio(&ctx, &minIn, &maxIn, &extra, 0.5f);  // half-length 13 -> 26
    EXPECT_EQ(minIn, 14u);
    EXPECT_EQ(extra, 1u);
    EXPECT_EQ(RSMPLSincInterpolate(&ctx, in.data(), out.data(), 100), 87u);  // 100 - 13 positions at step 1
    EXPECT_EQ(ctx.position, 0u);
    EXPECT_EQ(ctx.halfLength, 26);
    EXPECT_EQ(ctx.step, 0x02000000u);

    RSMPLSetResampleRatio(&ctx, &minIn, &maxIn, &extra, 1.0f);  // back: D = -13
    EXPECT_EQ(minIn, 1u);
    EXPECT_EQ(extra, 14u);
    // 113 positions at step 2: outputs at 0, 2, ..., 112; the next starts 1 past the end.
    EXPECT_EQ(RSMPLSincInterpolate(&ctx, in.data(), out.data(), 100), 57u);
    EXPECT_EQ(ctx.position, 0x10000u);
    EXPECT_EQ(ctx.halfLength, 13);

    // 8 -> 0.125: the next block still runs at step 1/8 over 200 - 91 positions.
    ctx = fresh();
    RSMPLSetResampleRatio(&ctx, nullptr, nullptr, nullptr, 8.0f);
    RSMPLSincInterpolate(&ctx, in.data(), out.data(), 100);
    RSMPLSetResampleRatio(&ctx, &minIn, nullptr, &extra, 0.125f);
    EXPECT_EQ(minIn, 92u);
    std::vector<int16_t> big(900);
    EXPECT_EQ(RSMPLSincInterpolate(&ctx, in.data(), big.data(), 200), 872u);
}

// ---- Timing ------------------------------------------------------------------

TEST(SincTiming, ImpulseAtRatioOneComesOutFourteenLaterThroughPhaseZero) {
    RSMPL_Ctx ctx = fresh();
    std::vector<int16_t> in(60, 0), out(60);
    in[0] = 16384;
    ASSERT_EQ(RSMPLSincInterpolate(&ctx, in.data(), out.data(), 60), 60u);
    for (int n = 0; n < 60; ++n) {
        const int k = n - 14;  // tap offset of the impulse from the centre
        int expect = 0;
        if (std::abs(k) <= 13) {
            const int64_t tap = (int64_t{sincWing[128 * std::abs(k)]} * 16384) >> 16;  // Q30
            expect = static_cast<int>((tap >> 16) * 2);  // Q14 -> Q15 at unity gain
        }
        EXPECT_EQ(out[n], expect) << n;
    }
    EXPECT_NEAR(out[14], 0.88 * 16384, 2);
}

// A fractional delay restarts at ratio 1 from silence, whatever came before.
TEST(SincTiming, FractionalDelayRestartsAndShiftsASlowTone) {
    struct Case { float delay; uint32_t position; };
    for (Case c : {Case{0.0f, 0}, Case{0.25f, 0x4000}, Case{0.5f, 0x8000}, Case{1.0f, 0x10000}}) {
        SCOPED_TRACE(c.delay);
        RSMPL_Ctx ctx = fresh();
        RSMPLSetResampleRatio(&ctx, nullptr, nullptr, nullptr, 0.25f);
        ctx.samples[5] = 1234;
        uint32_t minIn = 7, maxIn = 7;
        RSMPLSetFracDelay(&ctx, &minIn, &maxIn, c.delay);
        EXPECT_EQ(ctx.position, c.position);
        EXPECT_EQ(minIn, 1u);
        EXPECT_EQ(maxIn, 1440u);
        EXPECT_EQ(ctx.ratio, 1.0f);
        EXPECT_EQ(ctx.targetHalfLength, 13);
        EXPECT_EQ(ctx.targetStep, kQ24);
        EXPECT_EQ(ctx.samples[5], 0);
        const double w = 0.05;
        std::vector<int16_t> in(400), out(400);
        for (int i = 0; i < 400; ++i) in[i] = static_cast<int16_t>(std::lround(12000.0 * std::sin(w * i)));
        // A whole sample of delay starts one position in: one output fewer.
        ASSERT_EQ(RSMPLSincInterpolate(&ctx, in.data(), out.data(), 400), c.delay == 1.0f ? 399u : 400u);
        // Output n sits at input time n - 14 + delay.
        for (int n = 60; n < 380; ++n) EXPECT_NEAR(out[n], 12000.0 * std::sin(w * (n - 14 + c.delay)), 3.0) << n;
    }
}

// ---- Streams against the model ---------------------------------------------

TEST(SincStream, MatchesModelAtFixedRatios) {
    for (float r : {1.0f, 2.0f, 0.5f, 1.5f, 44100.0f / 48000.0f, 0.125f, 8.0f}) {
        SCOPED_TRACE(r);
        Checker ch;
        ch.set_ratio(r);
        const auto in = test_signal(40000, 7);
        const auto blocks = rsmpl_test::random_blocks(static_cast<int64_t>(in.size()), 1, 1440, 1, 11);
        size_t at = 0;
        for (int32_t b : blocks) {
            ASSERT_NO_FATAL_FAILURE(ch.run(in.data() + at, static_cast<uint32_t>(b)));
            at += static_cast<size_t>(b);
        }
        EXPECT_LT(ch.differing * 100, ch.outputs) << "more than 1% of outputs off the model";
    }
}

TEST(SincStream, MatchesModelAcrossRandomRatioChanges) {
    std::mt19937 rng(5);
    Checker ch;
    const auto in = test_signal(120000, 3);
    size_t at = 0;
    while (at + 1440 < in.size()) {
        if (rng() % 3 == 0) ch.set_ratio(0.125f * std::pow(64.0f, static_cast<float>(rng() % 10000) / 9999.0f));
        const int32_t d = ch.ctx.targetHalfLength - ch.ctx.halfLength;
        const uint32_t lo = static_cast<uint32_t>(std::max(1, d + 1));
        const uint32_t n = rng() % 2 ? lo + rng() % (1441 - lo) : (rng() % 2 ? lo : 1440u);
        ASSERT_NO_FATAL_FAILURE(ch.run(in.data() + at, n));
        at += n;
    }
    EXPECT_LT(ch.differing * 100, ch.outputs);
}

// Whatever the ratio sequence and the block lengths (minimal or maximal), the
// kernel stays inside the history region, writes no more than the promised
// room and reads nothing unwritten: the model, which reads zero there, agrees.
TEST(SincStream, ExtremeRatioChangesWithMinimalAndMaximalBlocks) {
    const float ratios[] = {0.125f, 8.0f, 0.125f, 1.0f, 0.125f, 0.5f, 8.0f, 0.25f, 0.125f, 2.0f, 0.125f, 0.125f};
    for (int mode = 0; mode < 4; ++mode) {
        SCOPED_TRACE(mode);
        Checker ch;
        Guarded<RSMPL_Ctx> guarded(1);
        const auto in = rsmpl_test::hostile_samples(160000, 17 + mode);
        size_t at = 0;
        for (int round = 0; round < 3; ++round) {
            for (float r : ratios) {
                ch.set_ratio(r);
                for (int b = 0; b < 3; ++b) {
                    const int32_t d = ch.ctx.targetHalfLength - ch.ctx.halfLength;
                    const uint32_t lo = static_cast<uint32_t>(std::max(1, d + 1));
                    const bool small = mode == 0 || (mode == 2 && b % 2 == 0) || (mode == 3 && b % 2 == 1);
                    const uint32_t n = small ? lo : 1440u;
                    ASSERT_LE(at + n, in.size());
                    // Run on a context placed before guard bytes as well.
                    std::memcpy(guarded.data(), &ch.ctx, sizeof ch.ctx);
                    Guarded<int16_t> out(ch.room(n));
                    const uint32_t k = RSMPLSincInterpolate(guarded.data(), in.data() + at, out.data(), n);
                    ASSERT_TRUE(guarded.guards_intact());
                    ASSERT_TRUE(out.guards_intact());
                    ASSERT_NO_FATAL_FAILURE(ch.run(in.data() + at, n));
                    ASSERT_EQ(std::memcmp(guarded.data(), &ch.ctx, sizeof ch.ctx), 0);
                    ASSERT_GE(k, 1u);
                    at += n;
                }
            }
        }
    }
}

TEST(SincStream, BlockSplitInvariantWhereStepsAreExact) {
    // Steps that are whole multiples of 1/256 sample: positions never round.
    for (float r : {1.0f, 2.0f, 0.5f, 0.25f, 0.125f, 8.0f}) {
        SCOPED_TRACE(r);
        const auto in = rsmpl_test::hostile_samples(20000, 23);
        std::vector<int16_t> streams[2];
        for (int split = 0; split < 2; ++split) {
            RSMPL_Ctx ctx = fresh();
            RSMPLSetResampleRatio(&ctx, nullptr, nullptr, nullptr, r);
            std::vector<int16_t> prime(200, 0), out(11600);
            RSMPLSincInterpolate(&ctx, prime.data(), out.data(), 200);  // settle the new ratio
            // Blocks of at least one step, so no output is forced early.
            const auto blocks = rsmpl_test::random_blocks(20000, 8, 1440, 1, 100 + split);
            size_t at = 0;
            for (int32_t b : blocks) {
                const uint32_t k = RSMPLSincInterpolate(&ctx, in.data() + at, out.data(), static_cast<uint32_t>(b));
                streams[split].insert(streams[split].end(), out.begin(), out.begin() + k);
                at += static_cast<size_t>(b);
            }
        }
        const size_t n = std::min(streams[0].size(), streams[1].size());
        ASSERT_GT(n, 2000u);
        for (size_t i = 0; i < n; ++i) ASSERT_EQ(streams[0][i], streams[1][i]) << i;
    }
}

// ---- Counts and gain ---------------------------------------------------------

// The formula at every ratio; up to ratio 1 exactly n outputs, above it at most n.
TEST(SincCounts, GetNumInSamples) {
    std::mt19937 rng(4);
    const auto in = test_signal(1440, 2);
    for (float r : {1.0f, 0.5f, 44100.0f / 48000.0f, 0.3f, 0.125f, 0.77f, 2.0f, 1.5f, 8.0f, 3.3f}) {
        SCOPED_TRACE(r);
        RSMPL_Ctx ctx = fresh();
        RSMPLSetResampleRatio(&ctx, nullptr, nullptr, nullptr, r);
        std::vector<int16_t> out(11600);
        RSMPLSincInterpolate(&ctx, in.data(), out.data(), 1000);
        for (int t = 0; t < 200; ++t) {
            const uint16_t n = static_cast<uint16_t>(1 + rng() % static_cast<uint32_t>(std::min(1440 * r, 11520.0f)));
            const int32_t count = RSMPLGetNumInSamples(&ctx, n);
            const uint64_t end = ctx.position + (uint64_t{ctx.step} * n + 128) / 256;  // S n / 256, rounded
            ASSERT_EQ(count, static_cast<int32_t>(end >> 16) + ctx.targetHalfLength - ctx.halfLength);
            if (count < 1 || count > 1440) continue;
            const uint32_t k = RSMPLSincInterpolate(&ctx, in.data(), out.data(), static_cast<uint32_t>(count));
            if (r <= 1.0f) {
                ASSERT_EQ(k, n);
            } else {
                ASSERT_LE(k, n);
            }
        }
    }
    // Ratio 2, position 0: three outputs need one input sample, which yields two.
    RSMPL_Ctx ctx = fresh();
    RSMPLSetResampleRatio(&ctx, nullptr, nullptr, nullptr, 2.0f);
    int16_t one[1] = {100}, out[4];
    RSMPLSincInterpolate(&ctx, one, out, 1);
    ASSERT_EQ(ctx.position, 0u);
    ASSERT_EQ(RSMPLGetNumInSamples(&ctx, 3), 1);
    EXPECT_EQ(RSMPLSincInterpolate(&ctx, one, out, 1), 2u);
}

// Full scale saturates instead of wrapping; there the headroom shift of
// ratios below 1/4 drops the low three bits (32767 gives 32760).
TEST(SincGain, ConstantInputComesBackAtEveryRatio) {
    for (float r : {0.125f, 0.2f, 0.3f, 0.5f, 0.51f, 0.7f, 44100.0f / 48000.0f, 1.0f, 1.5f, 2.0f, 8.0f}) {
        for (int16_t c : {int16_t{-20000}, int16_t{20000}, int16_t{-32768}, int16_t{32760}, int16_t{32767}, int16_t{8}}) {
            SCOPED_TRACE(testing::Message() << r << " " << c);
            RSMPL_Ctx ctx = fresh();
            RSMPLSetResampleRatio(&ctx, nullptr, nullptr, nullptr, r);
            std::vector<int16_t> in(1440, c), out(11600);
            RSMPLSincInterpolate(&ctx, in.data(), out.data(), 300);  // fills the history
            const uint32_t k = RSMPLSincInterpolate(&ctx, in.data(), out.data(), 1000);
            for (uint32_t n = 0; n < k; ++n) ASSERT_NEAR(out[n], c, c == INT16_MAX ? 7 : 2) << n;
        }
    }
}

// ---- Ratios below 1 in every engine ------------------------------------------

// Below ratio 1 with a fraction that moves from output to output, the vector
// engines read coefficients from tables kept per ratio for the whole process,
// a few of them; further ratios, and tables still being built by another
// thread, take another way. Whichever way a run goes, it must give what the
// scalar run gives.

// The parameters the interpolator uses at `ratio` (output over input rate).
rsmpl::SincRun run_at(double ratio, const std::vector<int16_t> &x, uint32_t p0, uint32_t count, int shift,
                      uint32_t gain) {
    const double inv = 1.0 / ratio;
    const int32_t h = static_cast<int32_t>(inv * 13.0);
    const auto step = static_cast<uint32_t>(std::lround(inv * 16777216.0));
    const auto tableStep = static_cast<uint32_t>(std::lround(ratio * 128.0 * 65536.0));
    return {x.data(), static_cast<int32_t>(x.size()), h, p0, step, tableStep, gain, shift, count};
}

// Runs at one ratio through every vector engine against the scalar run: a
// full block, then short runs (down to one output) at random positions and
// shifts. Empty when all agree, else what differed.
std::string engines_against_scalar(double ratio, uint32_t seed, int shortRuns) {
    std::mt19937 rng(seed);
    const int32_t h = static_cast<int32_t>(13.0 / ratio);
    const int32_t block = RSMPL_HISTORY_SAMPLES - (2 * h + 1);
    const std::vector<int16_t> x = rsmpl_test::hostile_samples(static_cast<size_t>(2 * h + 1 + block), seed);
    for (const rsmpl::KernelSet *e : rsmpl::available_kernels()) {
        if (e->id == rsmpl::EngineId::scalar) continue;
        for (int i = 0; i <= shortRuns; ++i) {
            const uint32_t p0 = i == 0 ? 0 : rng() % (static_cast<uint32_t>(block) << 16);
            uint32_t count = 1 + rng() % 40;
            if (i == 0)  // every output whose centre lies in the block
                while ((rsmpl::sinc_advance(run_at(ratio, x, 0, 0, 0, 0).step, count) >> 16) < static_cast<uint32_t>(block))
                    ++count;
            const rsmpl::SincRun run = run_at(ratio, x, p0, count, static_cast<int>(rng() % 3), 1 + rng() % (1u << 24));
            std::vector<int16_t> want(count + 4, 0x5A5A), got(count + 4, 0x5A5A);
            rsmpl::sinc_run_scalar(run, want.data());
            e->sinc(run, got.data());
            if (got != want)
                return std::string(e->name) + " at ratio " + std::to_string(ratio) + ", p0 " + std::to_string(p0) +
                       ", count " + std::to_string(count);
        }
    }
    return {};
}

// Ratios from 1 down to about 1/2 whose steps are no whole number of samples.
const double kMovingRatios[] = {0.99995, 44100.0 / 48000, 0.9, 0.85,       0.8,  0.77,
                                0.7,     0.65,            0.6, 32000.0 / 48000, 0.55, 0.51};

TEST(SincBelowOne, RatiosInTurnAndAgainMatchTheScalarRun) {
    // More ratios than tables kept, each visited twice: the first visits fill
    // the tables, later ones find theirs or none.
    for (int pass = 0; pass < 2; ++pass)
        for (double r : kMovingRatios) {
            const std::string diff = engines_against_scalar(r, static_cast<uint32_t>(r * 1e6) + pass, 30);
            ASSERT_TRUE(diff.empty()) << diff << ", pass " << pass;
        }
}

TEST(SincBelowOne, ThreadsAtDifferentRatiosAtOnceMatchTheScalarRun) {
    constexpr size_t kThreads = std::size(kMovingRatios);
    std::vector<std::string> diffs(kThreads);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            while (!go.load()) std::this_thread::yield();
            // Two ratios per thread, shared with a neighbour: tables are
            // claimed, built and read by several threads at once.
            for (int round = 0; round < 4 && diffs[t].empty(); ++round)
                diffs[t] = engines_against_scalar(kMovingRatios[(t + round % 2) % kThreads],
                                                  static_cast<uint32_t>(100 * t + round), 10);
        });
    go = true;
    for (auto &th : threads) th.join();
    for (size_t t = 0; t < kThreads; ++t) EXPECT_TRUE(diffs[t].empty()) << diffs[t];
}

// A tap whose fraction lands on the last one of an entry (0xFFFF, which
// reaches the next entry) or whose slot starts one short of a whole entry:
// positions picked so that the first output of each run has such a tap.
TEST(SincBelowOne, FractionsAtTheEndOfAnEntryMatchTheScalarRun) {
    std::mt19937 rng(9);
    // 44.1/48; k*T one short of a whole entry at k = 1; near ratio 1; two
    // between.
    for (uint32_t tableStep : {0x759999u, 0x75FFFFu, 0x7FFFFFu, 0x6B851Fu, 0x5555FFu}) {
        const double ratio = tableStep / 8388608.0;
        const int32_t h = static_cast<int32_t>(13.0 / ratio);
        std::vector<uint32_t> fractions{0};
        for (uint32_t f = 0; f < 0x10000 && fractions.size() < 60; ++f) {
            const uint32_t q = static_cast<uint32_t>((uint64_t{f + (f >> 15)} * tableStep) >> 16) & 0xFFFFu;
            for (int32_t k = 0; k <= h; ++k) {
                const uint32_t r = (static_cast<uint32_t>(k) * tableStep) & 0xFFFFu;
                if (((r + q) & 0xFFFFu) == 0xFFFFu || (k > 0 && ((r - q) & 0xFFFFu) == 0xFFFFu)) {
                    fractions.push_back(f);
                    break;
                }
            }
        }
        ASSERT_GT(fractions.size(), 10u) << tableStep;
        const std::vector<int16_t> x = rsmpl_test::hostile_samples(static_cast<size_t>(2 * h + 1 + 600), tableStep);
        for (uint32_t f : fractions)
            for (const rsmpl::KernelSet *e : rsmpl::available_kernels()) {
                rsmpl::SincRun run = run_at(ratio, x, (rng() % 400) << 16 | f, 100, 0, 1u << 24);
                run.tableStep = tableStep;
                std::vector<int16_t> want(run.count), got(run.count);
                rsmpl::sinc_run_scalar(run, want.data());
                e->sinc(run, got.data());
                ASSERT_EQ(got, want) << e->name << ", table step " << tableStep << ", p0 " << run.p0;
            }
    }
}

// Whole streams through the interpolator, several contexts at different
// ratios on several threads at once, give what each gives alone: which
// tables a run finds never shows in its output.
std::vector<int16_t> stream_at(float ratio, uint32_t seed) {
    RSMPL_Ctx ctx = fresh();
    RSMPLSetResampleRatio(&ctx, nullptr, nullptr, nullptr, ratio);
    const auto in = rsmpl_test::hostile_samples(30000, seed);
    const auto blocks = rsmpl_test::random_blocks(static_cast<int64_t>(in.size()), 30, 1440, 1, seed);
    std::vector<int16_t> result, out(1500);
    size_t at = 0;
    for (int32_t b : blocks) {
        const uint32_t k = RSMPLSincInterpolate(&ctx, in.data() + at, out.data(), static_cast<uint32_t>(b));
        result.insert(result.end(), out.begin(), out.begin() + k);
        at += static_cast<size_t>(b);
    }
    return result;
}

TEST(SincBelowOne, StreamsAtOnceEqualStreamsAlone) {
    constexpr size_t kStreams = std::size(kMovingRatios);
    std::vector<std::vector<int16_t>> together(kStreams);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kStreams; ++t)
        threads.emplace_back([&, t] { together[t] = stream_at(static_cast<float>(kMovingRatios[t]), 40 + t); });
    for (auto &th : threads) th.join();
    for (size_t t = 0; t < kStreams; ++t) {
        const auto alone = stream_at(static_cast<float>(kMovingRatios[t]), 40 + static_cast<uint32_t>(t));
        ASSERT_GT(alone.size(), 10000u);
        EXPECT_EQ(together[t], alone) << "ratio " << kMovingRatios[t];
    }
}

}  // namespace
