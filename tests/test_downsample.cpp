// Decimation stages against a straightforward model: the whole stream is
// filtered at once in 64-bit integers and every M-th output kept (the 2:3
// stage: zero-stuffed to twice the rate, filtered with its 30-tap prototype,
// every third output kept).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "rsmpl/fir/downsample_tables.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include "down_model.hpp"
#include "support.hpp"

namespace {

using namespace rsmpl_test::down_model;

Samples concat(const Samples &a, const Samples &b) {
    Samples c = a;
    c.insert(c.end(), b.begin(), b.end());
    return c;
}

Samples history_of(const RSMPL_Ctx &ctx, const Stage &s) { return Samples(ctx.samples, ctx.samples + s.history); }

Samples tail(const Samples &v, size_t n) { return Samples(v.end() - static_cast<std::ptrdiff_t>(n), v.end()); }

// A context whose every byte is random: the stage must read only its
// history from it and change nothing after it.
std::unique_ptr<RSMPL_Ctx> random_ctx(uint32_t seed) {
    auto ctx = std::make_unique<RSMPL_Ctx>();
    const Samples r = rsmpl_test::random_samples(sizeof(RSMPL_Ctx) / 2, seed);
    std::memcpy(ctx.get(), r.data(), sizeof(RSMPL_Ctx));
    return ctx;
}

bool same_after_history(const RSMPL_Ctx &a, const RSMPL_Ctx &b, const Stage &s) {
    const size_t skip = 2 * static_cast<size_t>(s.history);
    return std::memcmp(reinterpret_cast<const char *>(&a) + skip, reinterpret_cast<const char *>(&b) + skip,
                       sizeof(RSMPL_Ctx) - skip) == 0;
}

// Full-scale bursts with the signs of the stage's window coefficients, so
// that some outputs must exceed 16 bits even where the DC gain is below 1.
Samples matched_bursts(const Stage &s, size_t n, uint32_t seed) {
    Samples v = rsmpl_test::hostile_samples(n, seed);
    const std::vector<int64_t> w = s.zero_stuffed ? kA : s.h;
    for (size_t pos = 50; pos + w.size() < n; pos += 997)
        for (size_t k = 0; k < w.size(); ++k) v[pos + k] = w[k] >= 0 ? INT16_MAX : INT16_MIN;
    return v;
}

class DownStage : public ::testing::TestWithParam<Stage> {};

std::string stage_name(const ::testing::TestParamInfo<Stage> &info) { return info.param.name; }

// ---- Tables -----------------------------------------------------------------

TEST_P(DownStage, TableHoldsTheTypedValues) {
    const Stage &s = GetParam();
    const auto &t = *s.table;
    if (s.zero_stuffed) {
        // Phase 0 holds the even prototype taps, phase 1 the odd ones.
        ASSERT_EQ(t.phases, 2);
        ASSERT_EQ(t.taps, 16);
        ASSERT_EQ(t.values.size(), 32u);
        for (int k = 0; k < 15; ++k) EXPECT_EQ(t.at(0, k), s.h[2 * k]) << k;
        EXPECT_EQ(t.at(0, 15), 0);
        EXPECT_EQ(t.at(1, 0), 0);
        for (int k = 1; k < 16; ++k) EXPECT_EQ(t.at(1, k), s.h[2 * k - 1]) << k;
    } else {
        ASSERT_EQ(t.phases, 1);
        ASSERT_EQ(static_cast<size_t>(t.taps), s.h.size());
        ASSERT_EQ(t.values.size(), s.h.size());
        for (int k = 0; k < t.taps; ++k) EXPECT_EQ(t.at(0, k), s.h[k]) << k;
        EXPECT_EQ(t.taps, s.history + s.group_in);
    }
    EXPECT_EQ(t.shift, s.shift);
}

TEST(DownTables, SumsAndAccumulatorBounds) {
    struct Row {
        const rsmpl::down::CoefTable &t;
        int64_t sum, bound;
    };
    namespace d = rsmpl::down;
    for (const Row &r : {Row{d::kTable2To1, 67420, 4607574016}, Row{d::kTable3To1, 66026, 3856596992},
                         Row{d::kTable4To1, 132134, 7665811456}, Row{d::kTable6To1, 132174, 7642218496},
                         Row{d::kTable3To2, 31684, 1836580864}}) {
        for (int ph = 0; ph < r.t.phases; ++ph) {
            int64_t sum = 0, abs_sum = 0;
            for (int k = 0; k < r.t.taps; ++k) {
                sum += r.t.at(ph, k);
                abs_sum += std::abs(int64_t{r.t.at(ph, k)});
            }
            EXPECT_EQ(sum, r.sum);
            EXPECT_EQ(abs_sum * 32768, r.bound);
            EXPECT_EQ(rsmpl::down::phase_bound(r.t, ph), r.bound);
        }
    }
    // The 1:M sums need more than 32 bits (that the 2:3 ones fit is checked at compile time).
    EXPECT_GT(d::phase_bound(d::kTable3To1, 0), INT32_MAX);
}

// ---- Kernels ----------------------------------------------------------------

TEST_P(DownStage, KernelsMatchModelAndReadOnlyTheirSpan) {
    const Stage &s = GetParam();
    for (Kernel k : {s.kernel, s.scalar}) {
        // Below one group: nothing read (a null input), nothing written.
        for (int32_t count : {INT32_MIN, -1, 0, s.group_in - 1}) {
            Guarded<int16_t> out(0);
            k(nullptr, out.data(), count);
            EXPECT_TRUE(out.guards_intact()) << count;
        }
        for (int groups : {1, 2, 3, 7, 50}) {
            for (int extra = 0; extra < s.group_in; ++extra) {
                // Exactly the samples the kernel may read, on the heap so that
                // ASan reports a read past them.
                const int32_t count = groups * s.group_in + extra;
                const size_t span = static_cast<size_t>(groups * s.group_in + s.history);
                const Samples x = rsmpl_test::hostile_samples(span, 7 + groups * 13 + extra);
                auto exact = std::make_unique<int16_t[]>(span);
                std::copy(x.begin(), x.end(), exact.get());
                const Samples want = model(s, x).out;
                ASSERT_EQ(want.size(), static_cast<size_t>(s.outputs(count)));

                Guarded<int16_t> out(want.size());
                k(exact.get(), out.data(), count);
                EXPECT_TRUE(std::equal(want.begin(), want.end(), out.data())) << count;
                EXPECT_TRUE(out.guards_intact()) << count;
                k(exact.get(), exact.get(), count);  // over its own input
                EXPECT_TRUE(std::equal(want.begin(), want.end(), exact.get())) << count;
            }
        }
    }
}

// ---- Stage wrappers ---------------------------------------------------------

// Long streams cut into random admissible blocks, up to several times B.
TEST_P(DownStage, StreamsInRandomBlocksMatchModel) {
    const Stage &s = GetParam();
    const int32_t hi = (6 * s.first_block + 2 * s.block_step) / s.block_step * s.block_step;
    for (int signal = 0; signal < 2; ++signal) {
        const Samples stream =
            signal == 0 ? rsmpl_test::random_samples(24000, 11) : matched_bursts(s, 24000, 12);
        const auto blocks = rsmpl_test::random_blocks(static_cast<int64_t>(stream.size()), s.min_block, hi,
                                                      s.block_step, 100 + signal);
        int64_t total = 0;
        for (int32_t b : blocks) total += b;
        const Samples used(stream.begin(), stream.begin() + total);
        const ModelResult want = model(s, concat(Samples(s.history, 0), used));
        if (signal == 1) {
            EXPECT_GT(want.clipped, 0u) << "the hostile stream must drive saturation";
        }

        for (bool in_place : {false, true}) {
            SCOPED_TRACE(std::string(in_place ? "in place" : "separate") + (signal ? ", hostile" : ", random"));
            RSMPL_Ctx ctx{};
            Samples got;
            size_t pos = 0;
            for (int32_t n : blocks) {
                const Samples block(used.begin() + static_cast<std::ptrdiff_t>(pos),
                                    used.begin() + static_cast<std::ptrdiff_t>(pos + n));
                pos += static_cast<size_t>(n);
                Guarded<int16_t> in(static_cast<size_t>(n));
                std::copy(block.begin(), block.end(), in.data());
                const size_t n_out = static_cast<size_t>(s.outputs(n));
                if (in_place) {
                    s.wrapper(in.data(), in.data(), &ctx, n);
                    got.insert(got.end(), in.data(), in.data() + n_out);
                } else {
                    Guarded<int16_t> out(n_out);
                    s.wrapper(in.data(), out.data(), &ctx, n);
                    ASSERT_TRUE(std::equal(block.begin(), block.end(), in.data())) << "input changed, n = " << n;
                    ASSERT_TRUE(out.guards_intact()) << n;
                    got.insert(got.end(), out.data(), out.data() + n_out);
                }
                ASSERT_TRUE(in.guards_intact()) << n;
            }
            ASSERT_EQ(got.size(), want.out.size());
            EXPECT_EQ(got, want.out);
            EXPECT_EQ(history_of(ctx, s), tail(used, static_cast<size_t>(s.history)));
        }
    }
}

// Every length up to past 2B (whole groups or not; negative ones change
// nothing), from a context full of foreign data: in place and separate
// buffers agree with the model and with each other, the history becomes the
// last H samples of history + block (so a block shorter than H shifts it),
// and nothing after the history changes.
TEST_P(DownStage, EveryLengthInPlaceEqualsSeparate) {
    const Stage &s = GetParam();
    std::vector<int32_t> lengths = {-s.first_block - 1, -1};
    for (int32_t n = 0; n <= 2 * s.first_block + 3 * s.group_in + 1; ++n) lengths.push_back(n);
    for (int32_t n : lengths) {
        SCOPED_TRACE("n = " + std::to_string(n));
        const auto start = random_ctx(static_cast<uint32_t>(n) + 1000);
        const Samples block = rsmpl_test::hostile_samples(static_cast<size_t>(std::max(n, 0)), static_cast<uint32_t>(n) + 2000);
        const Samples x = concat(history_of(*start, s), block);
        const Samples want = model(s, x).out;
        ASSERT_EQ(want.size(), static_cast<size_t>(s.outputs(std::max(n, 0))));
        const Samples want_history = tail(x, static_cast<size_t>(s.history));

        RSMPL_Ctx sep = *start;
        Guarded<int16_t> in(block.size()), out(want.size());
        std::copy(block.begin(), block.end(), in.data());
        s.wrapper(in.data(), out.data(), &sep, n);
        EXPECT_TRUE(std::equal(want.begin(), want.end(), out.data()));
        EXPECT_TRUE(std::equal(block.begin(), block.end(), in.data()));
        EXPECT_TRUE(out.guards_intact() && in.guards_intact());
        EXPECT_EQ(history_of(sep, s), want_history);
        EXPECT_TRUE(same_after_history(sep, *start, s));

        RSMPL_Ctx same = *start;
        Guarded<int16_t> io(block.size());
        std::copy(block.begin(), block.end(), io.data());
        s.wrapper(io.data(), io.data(), &same, n);
        EXPECT_TRUE(std::equal(want.begin(), want.end(), io.data()));
        EXPECT_TRUE(io.guards_intact());
        EXPECT_EQ(std::memcmp(&same, &sep, sizeof(RSMPL_Ctx)), 0);
    }
}

TEST_P(DownStage, BlockSplitsGiveIdenticalOutputAndHistory) {
    const Stage &s = GetParam();
    const Samples stream = matched_bursts(s, static_cast<size_t>(40 * s.first_block), 31);
    const int32_t total = static_cast<int32_t>(stream.size());
    struct Run {
        Samples out, history;
    };
    // Repeats one length while it fits; the rest, still whole groups, follows.
    auto run = [&](int32_t len) {
        RSMPL_Ctx ctx{};
        Samples out;
        for (int32_t pos = 0; pos < total;) {
            const int32_t n = std::min(len, total - pos);
            Samples buf(stream.begin() + pos, stream.begin() + pos + n);
            s.wrapper(buf.data(), buf.data(), &ctx, n);
            out.insert(out.end(), buf.begin(), buf.begin() + s.outputs(n));
            pos += n;
        }
        return Run{out, history_of(ctx, s)};
    };
    const Run whole = run(total);
    EXPECT_EQ(whole.out, model(s, concat(Samples(s.history, 0), stream)).out);
    EXPECT_EQ(whole.history, tail(stream, static_cast<size_t>(s.history)));
    for (int32_t len : {s.first_block, s.first_block + s.group_in, s.min_block}) {
        const Run r = run(len);
        EXPECT_EQ(r.out, whole.out) << "blocks of " << len;
        EXPECT_EQ(r.history, whole.history) << "blocks of " << len;
    }
}

// ---- Figures ----------------------------------------------------------------

Samples run_fresh(const Stage &s, const Samples &in) {
    RSMPL_Ctx ctx{};
    Samples out(static_cast<size_t>(s.outputs(static_cast<int64_t>(in.size()))));
    s.wrapper(in.data(), out.data(), &ctx, static_cast<int32_t>(in.size()));
    return out;
}

TEST(DownFigures, ImpulseAfterReset) {
    const std::vector<Samples> want = {
        {79, -1235, 2303, -4360, 13816, 13816, -4360, 2303},
        {-180, 105, 96, -8, 158, -147, 278, -308},
        {83, -53, 12, 61, -196, 465, -1179, 10158},
        {74, -63, 46, -10, -63, 217, -646, 7763},
        {56, -56, 55, -44, 16, 51, -253, 5246},
    };
    for (size_t i = 0; i < stages().size(); ++i) {
        const Stage &s = stages()[i];
        Samples in(static_cast<size_t>(s.first_block), 0);
        in[0] = 32767;
        const Samples out = run_fresh(s, in);
        EXPECT_EQ(Samples(out.begin(), out.begin() + 8), want[i]) << s.name;
    }
    // 1:2 output j is (32767 * c[70 - 2j] + 32768) >> 16; the peak is output 17.
    Samples in(144, 0);
    in[0] = 32767;
    const Samples out = run_fresh(stages()[1], in);
    EXPECT_EQ(out[17], 13831);
    EXPECT_EQ(*std::max_element(out.begin(), out.end()), 13831);
}

TEST(DownFigures, ConstantInputsSettle) {
    struct Row {
        int16_t value;
        std::vector<int16_t> settle;  // per stage, in the order of stages()
    };
    const Row rows[] = {
        {10000, {9669, 10287, 10075, 10081, 10084}},
        {32767, {31683, 32767, 32767, 32767, 32767}},
        {-32768, {-31684, -32768, -32768, -32768, -32768}},
    };
    for (const Row &r : rows) {
        for (size_t i = 0; i < stages().size(); ++i) {
            const Stage &s = stages()[i];
            const Samples out = run_fresh(s, Samples(static_cast<size_t>(3 * s.first_block), r.value));
            // Once the filter span lies wholly in the input, every output is the settled value.
            const size_t settled = static_cast<size_t>(s.h.size()) / (s.zero_stuffed ? 1 : s.group_in) + 1;
            for (size_t j = settled; j < out.size(); ++j)
                ASSERT_EQ(out[j], r.settle[i]) << s.name << " value " << r.value << " output " << j;
        }
    }
    const Samples start = run_fresh(stages()[1], Samples(144, 10000));
    EXPECT_EQ(Samples(start.begin(), start.begin() + 6), (Samples{-83, -87, 13, -15, 95, 15}));
}

INSTANTIATE_TEST_SUITE_P(All, DownStage, ::testing::ValuesIn(stages()), stage_name);

}  // namespace
