// Hours of audio (computed, not waited for) through each fixed-ratio stage
// and the sinc interpolator, in random blocks and in fixed large ones: the
// two runs must agree sample for sample (no clicks, history carried) and the
// totals be exact. soak_support.hpp sets the amount of audio.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include "soak_support.hpp"

namespace {

using rsmpl_test::soak::audio_seconds;
using rsmpl_test::soak::Lockstep;
using rsmpl_test::soak::Signal;

struct Context {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(RSMPL_GetContextSize());
    RSMPL_Ctx *get() { return reinterpret_cast<RSMPL_Ctx *>(bytes.data()); }
};

// One stream through one context, fed segment by segment; blocks are cut
// from what is pending by `next_length`, outputs go to one side of `lock`.
class Stream {
public:
    using Length = std::function<int32_t()>;
    using Process = std::function<size_t(const int16_t *, int16_t *, int32_t)>;
    using Sink = void (Lockstep::*)(const int16_t *, size_t);

    Stream(Length next_length, Process process, Sink sink)
        : next_length_(next_length), process_(process), sink_(sink), n_(next_length_()) {}

    void feed(const std::vector<int16_t> &segment, std::vector<int16_t> &scratch, Lockstep &lock) {
        pending_.insert(pending_.end(), segment.begin(), segment.end());
        size_t at = 0;
        for (; pending_.size() - at >= static_cast<size_t>(n_); at += static_cast<size_t>(n_), n_ = next_length_()) {
            const size_t produced = process_(pending_.data() + at, scratch.data(), n_);
            (lock.*sink_)(scratch.data(), produced);
            consumed_ += static_cast<uint64_t>(n_);
            produced_ += produced;
        }
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(at));
    }
    uint64_t consumed() const { return consumed_; }
    uint64_t produced() const { return produced_; }

private:
    Length next_length_;
    Process process_;
    Sink sink_;
    int32_t n_;
    std::vector<int16_t> pending_;
    uint64_t consumed_ = 0, produced_ = 0;
};

// Feeds one signal, a second at a time, to both runs and compares them as
// their outputs come in; returns the samples matched.
uint64_t soak(Stream &a, Stream &b, uint32_t seed, uint64_t total, uint32_t rate, size_t scratch_size,
              const char *name) {
    Signal signal(seed);
    std::vector<int16_t> segment(rate), scratch(scratch_size);
    Lockstep lock;
    for (uint64_t done = 0; done < total; done += segment.size()) {
        signal.fill(segment.data(), segment.size());
        a.feed(segment, scratch, lock);
        b.feed(segment, scratch, lock);
        EXPECT_TRUE(lock.compare(name)) << "after " << done / rate << " s of audio";
        if (::testing::Test::HasFailure()) break;
    }
    ::testing::Test::RecordProperty("audio_seconds", std::to_string(total / rate));
    return lock.matched();
}

// ---- Fixed-ratio stages --------------------------------------------------------

struct StageCase {
    const char *name;
    bool up;
    uint32_t index;
    uint32_t in_rate;
    int32_t lo, hi, multiple;  // admissible lengths used: lo..hi in steps of multiple
    int32_t num, den;          // outputs = inputs * num / den
};

// 3:2 runs in even blocks: an odd block leaves its last input unpaired
// (rsmpl.h), which a different split would pair differently.
const StageCase kStages[] = {
    {"up3_2", true, RSMPL_STAGE_3_2, 32000, 6, 960, 2, 3, 2},
    {"up2", true, RSMPL_STAGE_2, 8000, 4, 720, 1, 2, 1},
    {"up3", true, RSMPL_STAGE_3, 16000, 6, 480, 1, 3, 1},
    {"up4", true, RSMPL_STAGE_4, 8000, 4, 360, 1, 4, 1},
    {"up6", true, RSMPL_STAGE_6, 8000, 6, 240, 1, 6, 1},
    {"down2_3", false, RSMPL_STAGE_3_2, 48000, 18, 4800, 6, 2, 3},
    {"down2", false, RSMPL_STAGE_2, 16000, 8, 4800, 4, 1, 2},
    {"down3", false, RSMPL_STAGE_3, 48000, 18, 4800, 6, 1, 3},
    {"down4", false, RSMPL_STAGE_4, 32000, 16, 4800, 4, 1, 4},
    {"down6", false, RSMPL_STAGE_6, 48000, 36, 4800, 6, 1, 6},
};

void PrintTo(const StageCase &s, std::ostream *os) { *os << s.name; }

class SoakStage : public ::testing::TestWithParam<StageCase> {};

TEST_P(SoakStage, RandomBlocksEqualLargestBlocksForHours) {
    const StageCase &s = GetParam();
    // The reference takes the largest admissible block; down-stages have no
    // bound, so one second of audio at a time.
    const int32_t big = s.up ? s.hi - s.hi % s.multiple : static_cast<int32_t>(s.in_rate);
    const int32_t choices = (s.hi - s.lo) / s.multiple + 1;
    std::mt19937 rng(s.index * 7 + (s.up ? 1 : 2));

    Context ca, cb;
    RSMPL_InitContext(ca.get());
    RSMPL_InitContext(cb.get());
    auto process = [&s](RSMPL_Ctx *ctx) {
        return [&s, ctx](const int16_t *in, int16_t *out, int32_t n) -> size_t {
            const uint32_t st = s.up ? RSMPL_Up(ctx, in, out, n, s.index) : RSMPL_Down(ctx, in, out, n, s.index);
            EXPECT_EQ(st, RSMPL_OK) << s.name << " n=" << n;
            return static_cast<size_t>(int64_t{n} * s.num / s.den);
        };
    };
    auto random_length = [&] { return s.lo + s.multiple * static_cast<int32_t>(rng() % static_cast<uint32_t>(choices)); };
    auto fixed_length = [big] { return big; };
    Stream a(random_length, process(ca.get()), &Lockstep::add_a);
    Stream b(fixed_length, process(cb.get()), &Lockstep::add_b);
    const uint64_t total = static_cast<uint64_t>(audio_seconds() * s.in_rate);
    const uint64_t matched = soak(a, b, s.index + (s.up ? 100 : 200), total, s.in_rate,
                                  static_cast<size_t>(std::max(big, s.hi)) * 6 + 8, s.name);
    // Every consumed input gave its outputs, in both runs.
    EXPECT_EQ(a.produced(), a.consumed() * s.num / s.den);
    EXPECT_EQ(b.produced(), b.consumed() * s.num / s.den);
    EXPECT_GE(matched, (total - static_cast<uint64_t>(std::max(big, s.hi))) * s.num / s.den - 1);
}

INSTANTIATE_TEST_SUITE_P(Stages, SoakStage, ::testing::ValuesIn(kStages),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- Sinc interpolator -----------------------------------------------------------

struct SincCase {
    const char *name;
    float ratio;
    float delay;  // fractional start, applied before the ratio
    uint32_t in_rate;
    double share;  // of audio_seconds(): the longest filters get less
};

// Ratios whose step, 1/ratio in Q24, is a whole number of Q16 position units:
// every output position is then exact however the stream is cut, so two
// splits must agree to the last bit. 0.125 also drives blocks of 1440 at
// half-length 104, which are filtered in two pieces.
const SincCase kSinc[] = {
    {"ratio1_delay_half", 1.0f, 0.5f, 16000, 0.5},
    {"ratio2", 2.0f, 0.0f, 8000, 0.5},
    {"ratio8", 8.0f, 0.0f, 8000, 0.125},
    {"ratio1_6", 1.6f, 0.25f, 8000, 0.25},
    {"ratio0_8", 0.8f, 0.0f, 16000, 0.5},
    {"ratio0_5", 0.5f, 0.0f, 16000, 0.25},
    {"ratio0_125", 0.125f, 0.0f, 48000, 0.05},
};

void PrintTo(const SincCase &s, std::ostream *os) { *os << s.name; }

class SoakSinc : public ::testing::TestWithParam<SincCase> {};

TEST_P(SoakSinc, RandomBlocksEqualFixedBlocks) {
    const SincCase &s = GetParam();
    Context ca, cb;
    for (Context *c : {&ca, &cb}) {
        RSMPL_InitContext(c->get());
        uint32_t lo = 0, hi = 0;
        ASSERT_EQ(RSMPL_SetFracDelay(c->get(), &lo, &hi, s.delay), RSMPL_OK);
        ASSERT_EQ(RSMPL_SetResampleRatio(c->get(), nullptr, nullptr, nullptr, s.ratio), RSMPL_OK);
        ASSERT_EQ(c->get()->targetStep & 0xFFu, 0u) << "not a ratio with exact positions";
    }
    const uint32_t start = ca.get()->position;
    const uint32_t step = ca.get()->targetStep;
    const int32_t growth = ca.get()->targetHalfLength - ca.get()->halfLength;

    std::mt19937 rng(static_cast<uint32_t>(s.ratio * 1000));
    // The first block still runs at ratio 1 (the new ratio takes effect after
    // it), so both runs start with the same one. After that at least 16 inputs
    // per block: a block shorter than one step (8 inputs at 1/8) would still
    // be given one output, as rsmpl.h says, and so depend on the split.
    const int32_t first = growth + 100;
    bool first_a = true, first_b = true;
    auto random_length = [&] {
        if (first_a) return first_a = false, first;
        const uint32_t kind = rng() % 8;
        return kind == 0 ? RSMPL_MAX_BLOCK : 16 + static_cast<int32_t>(rng() % (RSMPL_MAX_BLOCK - 15));
    };
    auto fixed_length = [&] { return first_b ? (first_b = false, first) : 1024; };
    auto process = [](RSMPL_Ctx *ctx) {
        return [ctx](const int16_t *in, int16_t *out, int32_t n) -> size_t {
            uint32_t count = 0;
            EXPECT_EQ(RSMPL_Resample(ctx, in, out, n, &count), RSMPL_OK) << n;
            return count;
        };
    };
    Stream a(random_length, process(ca.get()), &Lockstep::add_a);
    Stream b(fixed_length, process(cb.get()), &Lockstep::add_b);
    const uint64_t total = static_cast<uint64_t>(audio_seconds() * s.share * s.in_rate);
    const uint64_t matched =
        soak(a, b, static_cast<uint32_t>(s.ratio * 64), total, s.in_rate, RSMPL_MAX_BLOCK * 8 + 2, s.name);
    // Outputs sit at exact positions and run while their position lies below
    // the positions consumed: nothing lost, nothing extra. The first block
    // steps by one input, the rest by `step`.
    const uint64_t first_positions = static_cast<uint64_t>(first - growth) << 16;
    const uint64_t first_outputs = (first_positions - start + 0xFFFF) / 0x10000;
    const uint64_t carried = start + first_outputs * 0x10000 - first_positions;
    for (const auto *run : {&a, &b}) {
        const uint64_t positions = (run->consumed() - static_cast<uint64_t>(first)) << 16;
        const uint64_t unit = step >> 8;  // Q16 position units per output
        const uint64_t want = first_outputs + (positions - carried + unit - 1) / unit;
        EXPECT_EQ(run->produced(), want) << s.name;
    }
    // All but the outputs still in flight at the end (at most a block's worth).
    const double floor = static_cast<double>(total) * s.ratio * 0.99 - 12000.0;
    EXPECT_GT(static_cast<double>(matched), floor);
}

INSTANTIATE_TEST_SUITE_P(Ratios, SoakSinc, ::testing::ValuesIn(kSinc),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
