// Hours of audio through converter "rsmplrate_best" inside real alsa-lib,
// written in random amounts, at exact and at inexact period ratios. The
// output must equal the stream model of best_model.hpp sample for sample,
// every input period must give exactly one output period, and the latency
// must not move: clicks placed in short silences all along the stream come
// out at the same delay (within one output frame) at the end as at the start.
// The amount of audio is set in soak_support.hpp (RSMPL_SOAK_SECONDS).
#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "alsa_pcm.hpp"
#include "best_model.hpp"
#include "soak_support.hpp"

namespace {

using rsmpl_test::RatePcm;
using rsmpl_test::best::Model;
using rsmpl_test::soak::audio_seconds;
using rsmpl_test::soak::Lockstep;
using rsmpl_test::soak::Signal;

const bool g_plugin_dir_set = rsmpl_test::use_built_module();
const bool g_config_released = rsmpl_test::release_alsa_config_after_tests();

struct Case {
    const char *name;
    unsigned in_rate, out_rate, channels, period_us;
    double share;  // of audio_seconds()
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

// About three and a half hours of audio in all at the default two hours per path.
const Case kCases[] = {
    {"sinc_44k1_48k", 44100, 48000, 2, 20000, 0.25},
    {"sinc_inexact_44k1_48k", 44100, 48000, 2, 23220, 1.0},
    {"sinc_inexact_48k_44k1", 48000, 44100, 1, 21333, 0.2},
    {"sinc_inexact_fir_pair_48k_8k", 48000, 8000, 1, 21333, 0.1},
    {"fir_up6_8k_48k", 8000, 48000, 2, 20000, 0.1},
    {"fir_down2_3_odd_period", 48000, 32000, 1, 10063, 0.1},
};

constexpr size_t kGap = 4000;        // silence on each side of a click, in input frames

class BestSoak : public ::testing::TestWithParam<Case> {};

TEST_P(BestSoak, ExactFramesUnchangedLatencyBitExact) {
    const Case &c = GetParam();
    const unsigned ch = c.channels;
    RatePcm pcm(c.in_rate, c.out_rate, ch, c.period_us, 4 * c.period_us, "rsmplrate_best");
    ASSERT_TRUE(pcm.ok()) << pcm.error();
    const size_t n = pcm.in_period(), m = pcm.out_period();
    Model model(c.in_rate, c.out_rate, ch, n, m);
    const uint64_t periods = std::max<uint64_t>(8, uint64_t(audio_seconds() * c.share * c.in_rate) / n);
    const uint64_t frames = periods * n;

    // The signal with a click, in silence, at the middle of every click_every frames.
    const uint64_t click_every = std::max<uint64_t>(4 * kGap, frames / 24);
    Signal signal(c.in_rate);
    std::vector<uint64_t> clicks;
    auto make = [&](uint64_t start, size_t count) {
        std::vector<int16_t> v = signal.take(count * ch);
        for (size_t k = 0; k < count; ++k) {
            const uint64_t t = start + k, pos = t % click_every, mid = click_every / 2;
            if (pos + kGap >= mid && pos <= mid + kGap)
                for (unsigned i = 0; i < ch; ++i) v[k * ch + i] = pos == mid ? 20000 : 0;
            if (pos == mid && t + kGap < frames) clicks.push_back(t);
        }
        return v;
    };

    Lockstep lock;
    std::vector<int16_t> got, mono_out;  // mono_out: channel 0 of the output, near the clicks only
    std::vector<int16_t> pending;        // input written but not yet a whole period for the model
    std::mt19937 rng(c.in_rate + c.out_rate);
    std::vector<double> delays;
    uint64_t written = 0, model_out = 0, taken = 0;
    const double ratio = double(m) / double(n);
    size_t next_click = 0;

    auto locate = [&](const std::vector<int16_t> &out_frames, uint64_t first_frame) {
        // Energy centroid of the click's response, in output frames.
        while (next_click < clicks.size()) {
            const double expect = double(clicks[next_click]) * ratio;
            const uint64_t lo = uint64_t(std::max(0.0, expect - 200.0)), hi = uint64_t(expect + 400.0 * std::max(1.0, ratio));
            if (first_frame + out_frames.size() / ch < hi) return;
            double e = 0, te = 0;
            for (uint64_t j = std::max(lo, first_frame); j < hi; ++j) {
                const double y = out_frames[(j - first_frame) * ch];
                e += y * y;
                te += y * y * double(j);
            }
            delays.push_back(te / e - expect);
            ++next_click;
        }
    };

    std::vector<int16_t> window;  // output frames kept for locating clicks
    uint64_t window_first = 0;
    while (written < frames) {
        const size_t want = std::min<uint64_t>(frames - written, 1 + rng() % (3 * n));
        std::vector<int16_t> chunk = make(written, want);
        ASSERT_TRUE(pcm.write(chunk.data(), want)) << pcm.error();
        written += want;
        pending.insert(pending.end(), chunk.begin(), chunk.end());
        size_t used = 0;
        while (pending.size() - used >= n * ch) {
            const auto y = model.call(pending.data() + used, n, m);
            lock.add_b(y.data(), y.size());
            model_out += m;
            used += n * ch;
        }
        pending.erase(pending.begin(), pending.begin() + long(used));
        got.clear();
        pcm.take(got);
        taken += got.size() / ch;
        lock.add_a(got.data(), got.size());
        ASSERT_TRUE(lock.compare(c.name));
        window.insert(window.end(), got.begin(), got.end());
        locate(window, window_first);
        // Keep only what a click not yet located may need.
        const uint64_t keep_from = next_click < clicks.size()
                                       ? uint64_t(std::max(0.0, double(clicks[next_click]) * ratio - 400.0))
                                       : window_first + window.size() / ch;
        if (keep_from > window_first) {
            const uint64_t drop = std::min<uint64_t>(keep_from - window_first, window.size() / ch);
            window.erase(window.begin(), window.begin() + long(drop * ch));
            window_first += drop;
        }
    }
    ASSERT_TRUE(pcm.drain());
    got.clear();
    pcm.take(got);
    taken += got.size() / ch;
    lock.add_a(got.data(), got.size());
    ASSERT_TRUE(lock.compare(c.name));
    window.insert(window.end(), got.begin(), got.end());
    locate(window, window_first);

    EXPECT_EQ(taken, periods * m) << "one output period per input period, nothing lost or invented";
    EXPECT_EQ(lock.matched(), model_out * ch);
    ASSERT_GE(delays.size(), 1u);
    const auto [lo, hi] = std::minmax_element(delays.begin(), delays.end());
    // One frame, plus what locating a click by its energy centroid can be off by (about 0.01).
    EXPECT_LE(*hi - *lo, 1.02) << delays.size() << " clicks, delay " << *lo << " .. " << *hi << " frames";
    RecordProperty("audio_seconds", std::to_string(double(frames) / c.in_rate));
    RecordProperty("delay_spread_frames", std::to_string(*hi - *lo));
    std::printf("%s: %.0f s of audio, %zu clicks, delay %.3f .. %.3f frames\n", c.name, double(frames) / c.in_rate,
                delays.size(), *lo, *hi);
}

INSTANTIATE_TEST_SUITE_P(Streams, BestSoak, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
