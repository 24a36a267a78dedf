// The RSMPL interface: status codes and their order, rejected calls changing
// nothing, length rules at their bounds, and whole streams through the interface.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include <rsmpl/rsmpl.h>
#include "down_model.hpp"
#include "support.hpp"
#include "up_model.hpp"

namespace {

using rsmpl_test::random_blocks;
using rsmpl_test::random_samples;

constexpr uint32_t kSentinel = 0xDEADBEEF;

struct Ctx {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(RSMPL_GetContextSize());
    RSMPL_Ctx *get() { return reinterpret_cast<RSMPL_Ctx *>(bytes.data()); }
};

// Context, buffers and result locations, snapshotted around a call that must be rejected.
struct World {
    Ctx ctx;
    std::vector<int16_t> in = random_samples(1500, 1), out = random_samples(3000, 2);
    uint32_t u1 = kSentinel, u2 = kSentinel, u3 = kSentinel;
    int32_t i1 = static_cast<int32_t>(kSentinel);

    World() {
        RSMPL_InitContext(ctx.get());
        // Some non-zero history, so that a stray reset would show.
        std::vector<int16_t> warm = random_samples(480, 3), scratch(1440);
        RSMPL_Up(ctx.get(), warm.data(), scratch.data(), 240, RSMPL_STAGE_3);
    }
    std::vector<uint8_t> snapshot() const {
        std::vector<uint8_t> s(ctx.bytes);
        auto add = [&s](const void *p, size_t n) {
            s.insert(s.end(), static_cast<const uint8_t *>(p), static_cast<const uint8_t *>(p) + n);
        };
        add(in.data(), in.size() * 2);
        add(out.data(), out.size() * 2);
        add(&u1, 4), add(&u2, 4), add(&u3, 4), add(&i1, 4);
        return s;
    }
};

template <typename Call>
void expect_rejected(uint32_t want, Call call, const char *what) {
    World w;
    const auto before = w.snapshot();
    EXPECT_EQ(call(w), want) << what;
    EXPECT_TRUE(w.snapshot() == before) << what << ": a rejected call changed something";
}

#define REJECT(code, expr) expect_rejected(code, [](World &w) { return (expr); }, #expr)

TEST(RsmplStatus, NullContextComesFirstWhateverElseIsWrong) {
    int16_t b[8] = {};
    uint32_t u = 0;
    int32_t i = 0;
    EXPECT_EQ(RSMPL_InitContext(nullptr), RSMPL_ERR_NULL_CONTEXT);
    EXPECT_EQ(RSMPL_Reset(nullptr), RSMPL_ERR_NULL_CONTEXT);
    EXPECT_EQ(RSMPL_Up(nullptr, nullptr, nullptr, -1, 9), RSMPL_ERR_NULL_CONTEXT);
    EXPECT_EQ(RSMPL_Down(nullptr, b, b, 3, 1), RSMPL_ERR_NULL_CONTEXT);
    EXPECT_EQ(RSMPL_Resample(nullptr, nullptr, b, 0, &u), RSMPL_ERR_NULL_CONTEXT);
    EXPECT_EQ(RSMPL_SetResampleRatio(nullptr, nullptr, nullptr, nullptr, 100.0f), RSMPL_ERR_NULL_CONTEXT);
    EXPECT_EQ(RSMPL_SetFracDelay(nullptr, nullptr, nullptr, 3.0f), RSMPL_ERR_NULL_CONTEXT);
    EXPECT_EQ(RSMPL_GetNumInSamples(nullptr, 0, &i), RSMPL_ERR_NULL_CONTEXT);
    EXPECT_EQ(RSMPL_GetResampleDelay(nullptr, nullptr), RSMPL_ERR_NULL_CONTEXT);
}

TEST(RsmplStatus, FixedRatioChecksRunInOrderAndChangeNothing) {
    REJECT(2u, RSMPL_Up(w.ctx.get(), nullptr, w.out.data(), 100, 1));
    REJECT(2u, RSMPL_Up(w.ctx.get(), w.in.data(), nullptr, 100, 1));
    REJECT(2u, RSMPL_Down(w.ctx.get(), w.in.data(), nullptr, 3, 7));  // pointers before the index
    REJECT(3u, RSMPL_Up(w.ctx.get(), w.in.data(), w.out.data(), 100, 5));
    REJECT(3u, RSMPL_Up(w.ctx.get(), w.in.data(), w.out.data(), 100, UINT32_MAX));  // -1 is above 4
    REJECT(3u, RSMPL_Down(w.ctx.get(), w.in.data(), w.out.data(), 3, 5));          // index before length
    REJECT(4u, RSMPL_Up(w.ctx.get(), w.in.data(), w.out.data(), 3, 1));
    REJECT(4u, RSMPL_Down(w.ctx.get(), w.in.data(), w.out.data(), 12, 0));
}

struct LengthCase {
    bool up;
    uint32_t index;
    int32_t n;
    uint32_t want;
};

// Every bound of every stage, at and just beyond it, plus the extremes of n.
const LengthCase kLengthCases[] = {
    {true, 0, 5, 4},   {true, 0, 6, 0},   {true, 0, 7, 0},     {true, 0, 960, 0},  {true, 0, 961, 4},
    {true, 1, 3, 4},   {true, 1, 4, 0},   {true, 1, 720, 0},   {true, 1, 721, 4},  {true, 2, 5, 4},
    {true, 2, 6, 0},   {true, 2, 480, 0}, {true, 2, 481, 4},   {true, 3, 3, 4},    {true, 3, 4, 0},
    {true, 3, 360, 0}, {true, 3, 361, 4}, {true, 4, 5, 4},     {true, 4, 6, 0},    {true, 4, 240, 0},
    {true, 4, 241, 4}, {true, 1, 0, 4},   {true, 1, -4, 4},    {true, 0, INT32_MAX, 4},
    {true, 4, INT32_MIN, 4},
    {false, 0, 12, 4}, {false, 0, 18, 0}, {false, 0, 20, 4},   {false, 0, 24, 0},  {false, 1, 4, 4},
    {false, 1, 8, 0},  {false, 1, 1026, 4}, {false, 1, 1024, 0}, {false, 2, 12, 4}, {false, 2, 18, 0},
    {false, 2, 21, 4}, {false, 3, 12, 4}, {false, 3, 16, 0},   {false, 3, 18, 4},  {false, 4, 30, 4},
    {false, 4, 36, 0}, {false, 4, 40, 4}, {false, 4, 0, 4},    {false, 1, -8, 4},  {false, 4, -36, 4},
    {false, 1, 9600, 0},
};

TEST(RsmplStatus, LengthRulesAtEveryBound) {
    std::vector<int16_t> buf(9600);
    for (const auto &c : kLengthCases) {
        Ctx ctx;
        RSMPL_InitContext(ctx.get());
        const auto before = ctx.bytes;
        const uint32_t got = c.up ? RSMPL_Up(ctx.get(), buf.data(), buf.data(), c.n, c.index)
                                  : RSMPL_Down(ctx.get(), buf.data(), buf.data(), c.n, c.index);
        EXPECT_EQ(got, c.want) << (c.up ? "up" : "down") << " index " << c.index << " n " << c.n;
        if (got != 0) {
            EXPECT_TRUE(ctx.bytes == before);
        }
    }
}

TEST(RsmplStatus, SincControlChecksRunInOrderAndChangeNothing) {
    REJECT(2u, RSMPL_Resample(w.ctx.get(), nullptr, w.out.data(), 10, &w.u1));
    REJECT(2u, RSMPL_Resample(w.ctx.get(), w.in.data(), nullptr, 10, &w.u1));
    REJECT(2u, RSMPL_Resample(w.ctx.get(), w.in.data(), w.out.data(), 0, nullptr));
    REJECT(4u, RSMPL_Resample(w.ctx.get(), w.in.data(), w.out.data(), 0, &w.u1));
    REJECT(4u, RSMPL_Resample(w.ctx.get(), w.in.data(), w.out.data(), 1441, &w.u1));
    REJECT(4u, RSMPL_Resample(w.ctx.get(), w.in.data(), w.out.data(), -1, &w.u1));

    REJECT(3u, RSMPL_SetResampleRatio(w.ctx.get(), &w.u1, &w.u2, &w.u3, 0.1f));
    REJECT(3u, RSMPL_SetResampleRatio(w.ctx.get(), &w.u1, &w.u2, &w.u3, 8.5f));
    REJECT(3u, RSMPL_SetResampleRatio(w.ctx.get(), &w.u1, &w.u2, &w.u3, std::nextafter(0.125f, 0.0f)));
    REJECT(3u, RSMPL_SetResampleRatio(w.ctx.get(), &w.u1, &w.u2, &w.u3, std::numeric_limits<float>::quiet_NaN()));

    REJECT(6u, RSMPL_SetFracDelay(w.ctx.get(), nullptr, nullptr, 1.5f));  // range before pointers
    REJECT(6u, RSMPL_SetFracDelay(w.ctx.get(), &w.u1, &w.u2, -0.01f));
    REJECT(6u, RSMPL_SetFracDelay(w.ctx.get(), &w.u1, &w.u2, std::numeric_limits<float>::quiet_NaN()));
    REJECT(2u, RSMPL_SetFracDelay(w.ctx.get(), &w.u1, nullptr, 0.5f));
    REJECT(2u, RSMPL_SetFracDelay(w.ctx.get(), nullptr, &w.u2, 0.5f));

    REJECT(4u, RSMPL_GetNumInSamples(w.ctx.get(), 0, &w.i1));
    REJECT(4u, RSMPL_GetNumInSamples(w.ctx.get(), 1441, nullptr));  // length before pointer
    REJECT(2u, RSMPL_GetNumInSamples(w.ctx.get(), 1440, nullptr));
    REJECT(2u, RSMPL_GetResampleDelay(w.ctx.get(), nullptr));
}

TEST(RsmplStatus, AcceptedBoundsOfTheSincControls) {
    Ctx c;
    RSMPL_InitContext(c.get());
    uint32_t lo = 0, hi = 0, extra = 0, delay = 0;
    int32_t n_in = 0;
    EXPECT_EQ(RSMPL_GetResampleDelay(c.get(), &delay), 0u);
    EXPECT_EQ(delay, 13u);
    EXPECT_EQ(RSMPL_GetNumInSamples(c.get(), 1, &n_in), 0u);
    EXPECT_EQ(RSMPL_GetNumInSamples(c.get(), 1440, &n_in), 0u);
    EXPECT_EQ(RSMPL_GetNumInSamples(c.get(), 1441, &n_in), 4u);
    EXPECT_EQ(RSMPL_SetResampleRatio(c.get(), nullptr, nullptr, nullptr, 8.0f), 0u);
    EXPECT_EQ(RSMPL_GetNumInSamples(c.get(), 11520, &n_in), 0u);
    EXPECT_EQ(RSMPL_GetNumInSamples(c.get(), 11521, &n_in), 4u);
    EXPECT_EQ(RSMPL_SetResampleRatio(c.get(), &lo, &hi, &extra, 0.125f), 0u);
    EXPECT_EQ(hi, 1440u);
    EXPECT_EQ(RSMPL_GetResampleDelay(c.get(), &delay), 0u);
    EXPECT_EQ(delay, 104u);
    EXPECT_EQ(RSMPL_GetNumInSamples(c.get(), 180, &n_in), 0u);
    EXPECT_EQ(RSMPL_GetNumInSamples(c.get(), 181, &n_in), 4u);
    EXPECT_EQ(RSMPL_SetFracDelay(c.get(), &lo, &hi, 1.0f), 0u);
    EXPECT_EQ(RSMPL_SetFracDelay(c.get(), &lo, &hi, 0.0f), 0u);
}

TEST(RsmplContext, InitClearsAnyPreviousContent) {
    Ctx c;
    std::memset(c.bytes.data(), 0x5A, c.bytes.size());
    ASSERT_EQ(RSMPL_GetContextSize(), 3336u);
    ASSERT_EQ(RSMPL_InitContext(c.get()), 0u);
    const auto *history = reinterpret_cast<const int16_t *>(c.bytes.data());
    for (int i = 0; i < RSMPL_HISTORY_SAMPLES; ++i) ASSERT_EQ(history[i], 0) << i;
    uint32_t delay = 0;
    EXPECT_EQ(RSMPL_GetResampleDelay(c.get(), &delay), 0u);
    EXPECT_EQ(delay, 13u);
}

// What the stage tests' models give for a whole stream from silence.
std::vector<int16_t> reference_stage_output(bool up, uint32_t index, const std::vector<int16_t> &stream) {
    if (up) {
        const auto &st = rsmpl_test::up_model::stages()[index];
        return rsmpl_test::up_model::model(st, stream, 0, st.outputs(static_cast<int32_t>(stream.size())));
    }
    const auto &st = rsmpl_test::down_model::stages()[index];
    std::vector<int16_t> x(static_cast<size_t>(st.history), 0);
    x.insert(x.end(), stream.begin(), stream.end());
    return rsmpl_test::down_model::model(st, x).out;
}

// Runs one stream through RSMPL_Up/RSMPL_Down in the given blocks, in place.
std::vector<int16_t> run_blocks(RSMPL_Ctx *ctx, bool up, uint32_t index, const std::vector<int16_t> &in,
                                const std::vector<int32_t> &blocks) {
    std::vector<int16_t> out, buf(std::max<size_t>(in.size(), 1440));
    size_t pos = 0;
    for (int32_t n : blocks) {
        std::copy(in.begin() + pos, in.begin() + pos + n, buf.begin());
        const uint32_t got = up ? RSMPL_Up(ctx, buf.data(), buf.data(), n, index)
                                : RSMPL_Down(ctx, buf.data(), buf.data(), n, index);
        EXPECT_EQ(got, 0u);
        constexpr int32_t kFactor[] = {0, 2, 3, 4, 6};
        const int32_t produced = up ? (index == 0 ? 3 * (n / 2) : n * kFactor[index])
                                    : (index == 0 ? 2 * n / 3 : n / kFactor[index]);
        out.insert(out.end(), buf.begin(), buf.begin() + produced);
        pos += static_cast<size_t>(n);
    }
    return out;
}

struct StreamCase {
    bool up;
    uint32_t index;
    int32_t lo, hi, step;
};

const StreamCase kStreams[] = {
    {true, 0, 6, 960, 2},  {true, 1, 4, 720, 1},  {true, 2, 6, 480, 1},  {true, 3, 4, 360, 1},
    {true, 4, 6, 240, 1},  {false, 0, 18, 1500, 6}, {false, 1, 8, 1500, 4}, {false, 2, 18, 1500, 6},
    {false, 3, 16, 1500, 4}, {false, 4, 36, 1500, 6},
};

// A used context after RSMPL_Reset, and a stream in random admissible blocks,
// both give what one fresh context gives for the whole stream.
TEST(RsmplStream, RandomBlocksAndResetMatchAFreshContext) {
    for (const auto &s : kStreams) {
        const std::vector<int16_t> in = rsmpl_test::hostile_samples(20000, 10 + s.index);
        const auto blocks = random_blocks(static_cast<int64_t>(in.size()), s.lo, s.hi, s.step, 20 + s.index);
        int64_t total = 0;
        for (int32_t b : blocks) total += b;
        const std::vector<int16_t> used(in.begin(), in.begin() + total);

        const auto reference = reference_stage_output(s.up, s.index, used);

        Ctx ctx;
        RSMPL_InitContext(ctx.get());
        run_blocks(ctx.get(), s.up, s.index, random_samples(2000, 99), {s.up ? s.lo : s.lo * 10});
        RSMPL_Reset(ctx.get());
        EXPECT_EQ(run_blocks(ctx.get(), s.up, s.index, used, blocks), reference)
            << (s.up ? "up" : "down") << " index " << s.index;
    }
}

TEST(RsmplStream, SincBlocksYieldThePromisedCounts) {
    // Ratio sequence in both directions, with the half-length growing and shrinking.
    const float ratios[] = {1.0f, 0.5f, 2.0f, 44100.0f / 48000.0f, 0.125f, 8.0f, 48000.0f / 44100.0f, 1.0f};
    Ctx c;
    RSMPL_InitContext(c.get());
    const std::vector<int16_t> in = random_samples(1440, 7);
    std::vector<int16_t> out(16 * 1440);
    uint32_t count = 0;
    for (float ratio : ratios) {
        uint32_t lo = 0, hi = 0, extra = 0;
        ASSERT_EQ(RSMPL_SetResampleRatio(c.get(), &lo, &hi, &extra, ratio), 0u);
        // The transition block: the smallest accepted length is accepted, one
        // less is rejected and changes nothing.
        if (lo > 1) {
            const auto before = c.bytes;
            EXPECT_EQ(RSMPL_Resample(c.get(), in.data(), out.data(), static_cast<int32_t>(lo) - 1, &count), 4u);
            EXPECT_TRUE(c.bytes == before);
        }
        ASSERT_EQ(RSMPL_Resample(c.get(), in.data(), out.data(), static_cast<int32_t>(std::max(lo, 200u)), &count), 0u);
        for (int32_t want : {1, 37, 160, 441}) {
            if (want > static_cast<int32_t>(ratio * 1440.0f)) continue;  // beyond what one block may ask
            int32_t n_in = 0;
            ASSERT_EQ(RSMPL_GetNumInSamples(c.get(), want, &n_in), 0u) << ratio << " " << want;
            if (n_in < 1) continue;  // the position already covers these outputs
            ASSERT_EQ(RSMPL_Resample(c.get(), in.data(), out.data(), n_in, &count), 0u);
            if (ratio <= 1.0f) {
                EXPECT_EQ(count, static_cast<uint32_t>(want)) << "ratio " << ratio;
            } else {
                EXPECT_LE(count, static_cast<uint32_t>(want)) << "ratio " << ratio;
                EXPECT_GE(count + static_cast<uint32_t>(ratio) + 1, static_cast<uint32_t>(want)) << "ratio " << ratio;
            }
        }
    }
}

}  // namespace
