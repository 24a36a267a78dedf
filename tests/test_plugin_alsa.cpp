// The module inside real alsa-lib: a `type rate` PCM with converter
// "rsmplrate" plays into a file PCM in front of the null PCM (no sound card),
// the file PCM writes the converted stream into a memory file, and that
// stream is compared sample for sample with the resampler interface called
// directly (FIR path) or with a model of the linear converter (linear path),
// for the period sizes alsa-lib negotiated. ALSA_PLUGIN_DIR points alsa-lib
// at the build tree, so nothing needs installing.
#include <alsa/asoundlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "alsa_pcm.hpp"
#include "rate_support.hpp"
#include "support.hpp"

namespace {

using rsmpl_test::fit_sine;
using rsmpl_test::hostile_samples;
using rsmpl_test::SineFit;
using rsmpl_test::random_samples;

constexpr uint32_t DIV = 0x80000;

const bool g_plugin_dir_set = rsmpl_test::use_built_module();
const bool g_config_released = rsmpl_test::release_alsa_config_after_tests();

struct Stream {
    int setup_err = 0;            // first failing hw_params step, 0 if none
    std::string failed_step;
    std::string dump;
    snd_pcm_uframes_t in_period = 0;
    snd_pcm_uframes_t out_period = 0;
    std::vector<int16_t> out;     // interleaved S16 as the slave received it
};

// Plays `in` (interleaved signed 16-bit, sent in `format`) through the rate
// PCM and returns what reached the slave.
// A non-zero `period` asks for that client period size instead of 20 ms.
Stream play(unsigned in_rate, unsigned out_rate, unsigned channels, const std::vector<int16_t> &in,
            snd_pcm_format_t format = SND_PCM_FORMAT_S16_LE, snd_pcm_uframes_t period = 0) {
    Stream s;
    const int fd = memfd_create("rsmpl-alsa-test", 0);
    EXPECT_GE(fd, 0);
    rsmpl_harness::Pcm pcm;
    int err = pcm.open(rsmpl_harness::rate_config("test", "rsmplrate", out_rate, fd), "test");
    EXPECT_EQ(err, 0) << snd_strerror(err);
    if (err < 0) {
        close(fd);
        s.setup_err = err;
        s.failed_step = "open";
        return s;
    }
    rsmpl_harness::HwSetup hw;
    hw.format = format;
    hw.channels = channels;
    hw.rate = in_rate;
    if (period != 0) {
        hw.period = rsmpl_harness::Length::in_frames(period);
        hw.buffer = rsmpl_harness::Length::in_frames(4 * period);
    }
    if (int e = pcm.configure(hw); e < 0) {
        s.setup_err = e;
        s.failed_step = pcm.step();
    }

    if (s.setup_err == 0) {
        s.dump = rsmpl_harness::dump(pcm.get());
        const auto sizes = rsmpl_harness::period_sizes(s.dump);
        if (sizes.size() >= 2) {
            s.in_period = sizes[0];
            s.out_period = sizes[1];
        }

        // Samples in the client format: wider formats carry the 16 bits on top.
        const size_t width = static_cast<size_t>(snd_pcm_format_physical_width(format)) / 8;
        std::vector<uint8_t> bytes(in.size() * width);
        for (size_t i = 0; i < in.size(); ++i) {
            const uint32_t v = static_cast<uint32_t>(static_cast<uint16_t>(in[i])) << (8 * (width - 2));
            for (size_t b = 0; b < width; ++b) bytes[i * width + b] = static_cast<uint8_t>(v >> (8 * b));
        }
        const snd_pcm_uframes_t frames = in.size() / channels;
        snd_pcm_uframes_t done = 0;
        while (done < frames) {
            const snd_pcm_sframes_t w = snd_pcm_writei(pcm.get(), bytes.data() + done * channels * width, frames - done);
            EXPECT_GT(w, 0) << snd_strerror(static_cast<int>(w));
            if (w <= 0) break;
            done += static_cast<snd_pcm_uframes_t>(w);
        }
        EXPECT_EQ(snd_pcm_drain(pcm.get()), 0);
    }
    pcm.close();

    const off_t size = lseek(fd, 0, SEEK_END);
    s.out.resize(static_cast<size_t>(size) / sizeof(int16_t));
    if (size > 0) {
        EXPECT_EQ(pread(fd, s.out.data(), static_cast<size_t>(size), 0), size);
    }
    close(fd);
    return s;
}

// ---- References ---------------------------------------------------------------

// FIR path: the resampler interface, one context per channel, fed the
// client periods in order.
std::vector<int16_t> fir_reference(unsigned in_rate, unsigned out_rate, unsigned channels,
                                   const std::vector<int16_t> &in, size_t period) {
    const bool up = out_rate > in_rate;
    rsmpl_test::FirReference ref(channels, up, up ? out_rate / in_rate : in_rate / out_rate);
    const auto out = ref.periods(in, static_cast<unsigned>(period));
    EXPECT_EQ(ref.refused, 0);
    return out;
}

// Linear path, modelled from positions rather than stepped: output j of a
// call sits at j / ratio input frames; output frame w of the shrinker falls
// due at the first input frame i with i * ratio >= w.
uint64_t input_frames(uint32_t pitch, uint64_t n) { return pitch == 0 ? 0 : (pitch / 2 + n * DIV) / pitch; }

uint32_t refined_pitch(uint64_t p_in, uint64_t p_out) {
    uint32_t pitch = static_cast<uint32_t>((p_in / 2 + p_out * DIV) / p_in);
    while (input_frames(pitch, p_out) > p_in) ++pitch;
    while (input_frames(pitch, p_out) < p_in) --pitch;
    EXPECT_EQ(input_frames(pitch, p_out), p_in);
    return pitch;
}

int16_t blend(int32_t a, int32_t b, uint32_t f) {
    // a * (1 - f) + b * f in Q16, in 32-bit wrap-around, top half kept.
    const int64_t exact = int64_t{a} * (65536 - int64_t{f}) + int64_t{b} * int64_t{f};
    return static_cast<int16_t>(static_cast<int32_t>(static_cast<uint32_t>(exact)) >> 16);
}

std::vector<int16_t> linear_reference(unsigned channels, const std::vector<int16_t> &in, size_t p_in, size_t p_out) {
    const uint32_t pitch = refined_pitch(p_in, p_out);
    const size_t periods = in.size() / channels / p_in;
    std::vector<int16_t> out(periods * p_out * channels);
    if (pitch > DIV) {
        uint32_t shift = 0;
        while ((pitch >> shift) >= 65536) ++shift;
        for (size_t c = 0; c < channels; ++c) {
            int32_t memory = 0;
            for (size_t p = 0; p < periods; ++p) {
                auto sample = [&](int64_t k) -> int32_t {
                    if (k < 0) return memory;
                    return in[(p * p_in + std::min<size_t>(static_cast<size_t>(k), p_in - 1)) * channels + c];
                };
                int64_t last = 0;
                for (size_t j = 0; j < p_out; ++j) {
                    const uint64_t k = uint64_t{j} * DIV / pitch;
                    const uint64_t pos = uint64_t{j} * DIV - k * pitch;
                    const uint32_t f = static_cast<uint32_t>((pos << (16 - shift)) / (pitch >> shift));
                    out[(p * p_out + j) * channels + c] = blend(sample(static_cast<int64_t>(k) - 1), sample(static_cast<int64_t>(k)), f);
                    last = static_cast<int64_t>(k);
                }
                memory = sample(last);
            }
        }
    } else {
        for (size_t c = 0; c < channels; ++c)
            for (size_t p = 0; p < periods; ++p) {
                auto sample = [&](uint64_t i) -> int32_t { return in[(p * p_in + i) * channels + c]; };
                for (size_t w = 0; w < p_out; ++w) {
                    const uint64_t i = (uint64_t{w} * DIV + pitch - 1) / pitch;
                    if (i >= p_in) break;
                    const uint32_t over = static_cast<uint32_t>(i * pitch - uint64_t{w} * DIV);
                    const uint32_t f = (over << 13) / (pitch >> 3);
                    out[(p * p_out + w) * channels + c] = blend(sample(i), i == 0 ? 0 : sample(i - 1), f);
                }
            }
    }
    return out;
}

bool is_fir(unsigned in_rate, unsigned out_rate) {
    const unsigned hi = std::max(in_rate, out_rate), lo = std::min(in_rate, out_rate);
    const unsigned q = hi / lo;
    return q * lo == hi && (q == 2 || q == 3 || q == 6);
}

std::string expected_line(unsigned in_rate, unsigned out_rate) {
    return std::string("RSMPL Converter: ") + (is_fir(in_rate, out_rate) ? "FIR filter, " : "Linear, ") +
           (out_rate > in_rate ? "UP " : "DOWN ") + std::to_string(in_rate) + " -> " + std::to_string(out_rate) + "\n";
}

// ---- Streams through alsa-lib ----------------------------------------------------

struct RatePair {
    unsigned in_rate, out_rate;
};

class ThroughAlsa : public ::testing::TestWithParam<std::tuple<RatePair, unsigned>> {};

TEST_P(ThroughAlsa, OutputEqualsTheReferenceSampleForSample) {
    const auto [rates, channels] = GetParam();
    const size_t in_period = rates.in_rate / 50;  // 20 ms
    const size_t periods = 25;
    const auto in = hostile_samples(in_period * periods * channels, rates.in_rate + channels);

    const Stream s = play(rates.in_rate, rates.out_rate, channels, in);
    ASSERT_EQ(s.setup_err, 0) << s.failed_step;
    // alsa-lib falls back silently between converters: make sure this one ran.
    ASSERT_NE(s.dump.find(expected_line(rates.in_rate, rates.out_rate)), std::string::npos) << s.dump;
    ASSERT_EQ(s.in_period, in_period);
    ASSERT_EQ(s.out_period, size_t{rates.out_rate} / 50);

    const auto want = is_fir(rates.in_rate, rates.out_rate)
                          ? fir_reference(rates.in_rate, rates.out_rate, channels, in, s.in_period)
                          : linear_reference(channels, in, s.in_period, s.out_period);
    ASSERT_EQ(s.out.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i)
        ASSERT_EQ(s.out[i], want[i]) << "frame " << i / channels << " channel " << i % channels;
}

INSTANTIATE_TEST_SUITE_P(
    RatesAndChannels, ThroughAlsa,
    ::testing::Combine(::testing::Values(RatePair{16000, 48000}, RatePair{48000, 16000}, RatePair{8000, 48000},
                                         RatePair{48000, 8000}, RatePair{24000, 48000}, RatePair{44100, 48000},
                                         RatePair{8000, 32000}, RatePair{48000, 48000}, RatePair{48000, 44100}),
                       ::testing::Values(1u, 2u, 3u, 4u)),
    [](const auto &info) {
        const RatePair r = std::get<0>(info.param);
        return std::to_string(r.in_rate) + "to" + std::to_string(r.out_rate) + "_" +
               std::to_string(std::get<1>(info.param)) + "ch";
    });

// At drain alsa-lib converts a partial last period as a full one padded with
// silence, and passes on only the frames that belong to the real input.
TEST(ThroughAlsaTail, PartialLastPeriodIsPaddedWithSilence) {
    const unsigned channels = 2;
    const size_t frames = 320 * 7 + 41;
    const auto in = random_samples(frames * channels, 77);
    const Stream s = play(16000, 48000, channels, in);
    ASSERT_EQ(s.setup_err, 0) << s.failed_step;
    ASSERT_NE(s.dump.find("RSMPL Converter: FIR filter, UP 16000 -> 48000"), std::string::npos);
    ASSERT_EQ(s.out.size(), frames * 3 * channels);
    auto padded = in;
    padded.resize(320 * 8 * channels, 0);
    auto want = fir_reference(16000, 48000, channels, padded, 320);
    want.resize(frames * 3 * channels);
    EXPECT_EQ(s.out, want);
}

// Minutes of audio lose no frame: the output count is what the ratio
// promises for the input, within one period.
TEST(ThroughAlsaLong, MinutesOfAudioLoseNoFrame) {
    struct Case {
        unsigned in_rate, out_rate, seconds;
    };
    for (const Case c : {Case{44100, 48000, 180}, Case{8000, 48000, 120}, Case{48000, 16000, 60}}) {
        SCOPED_TRACE(c.in_rate);
        const size_t frames = size_t{c.in_rate} * c.seconds + 123;  // not a whole number of periods
        std::vector<int16_t> in(frames);
        for (size_t i = 0; i < frames; ++i) in[i] = static_cast<int16_t>((i * 2654435761u) >> 16);
        const Stream s = play(c.in_rate, c.out_rate, 1, in);
        ASSERT_EQ(s.setup_err, 0) << s.failed_step;
        ASSERT_NE(s.dump.find(expected_line(c.in_rate, c.out_rate)), std::string::npos);
        const double promised = static_cast<double>(frames) * c.out_rate / c.in_rate;
        EXPECT_NEAR(static_cast<double>(s.out.size()), promised, static_cast<double>(s.out_period));
        // Every whole period came through unchanged in order: compare the head
        // and the last whole period with the reference.
        const size_t whole = frames / s.in_period * s.in_period;
        std::vector<int16_t> head(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(whole));
        const auto want = is_fir(c.in_rate, c.out_rate) ? fir_reference(c.in_rate, c.out_rate, 1, head, s.in_period)
                                                        : linear_reference(1, head, s.in_period, s.out_period);
        ASSERT_GE(s.out.size(), want.size());
        EXPECT_TRUE(std::equal(want.begin(), want.end(), s.out.begin()));
    }
}

// ---- Periods that do not meet the stages' block rules ---------------------------

struct PeriodCase {
    unsigned in_rate, out_rate;
    snd_pcm_uframes_t in_period, out_period;  // as alsa-lib negotiates them
};

std::string period_name(const PeriodCase &c) {
    return std::to_string(c.in_rate) + "to" + std::to_string(c.out_rate) + "_" + std::to_string(c.in_period) +
           "to" + std::to_string(c.out_period);
}

std::vector<int16_t> one_stream(unsigned in_rate, unsigned out_rate, unsigned channels, const std::vector<int16_t> &in) {
    const bool up = out_rate > in_rate;
    int refused = 0;
    auto out = rsmpl_test::one_stream_reference(channels, up, up ? out_rate / in_rate : in_rate / out_rate, in, &refused);
    EXPECT_EQ(refused, 0);
    return out;
}

// Exact-ratio periods that break the block rules: every period converted,
// each channel the one-stream conversion delayed by fewer frames than one
// output group of the stage (2 frames down by 2 and 3, 1 down by 6).
class ExactPeriods : public ::testing::TestWithParam<std::tuple<PeriodCase, unsigned>> {};

TEST_P(ExactPeriods, OutputIsTheOneStreamConversionDelayed) {
    const auto [c, channels] = GetParam();
    const unsigned n = c.in_rate / c.out_rate;
    const size_t periods = 40;
    const auto in = hostile_samples(c.in_period * periods * channels, c.in_period + channels);
    const Stream s = play(c.in_rate, c.out_rate, channels, in, SND_PCM_FORMAT_S16_LE, c.in_period);
    ASSERT_EQ(s.setup_err, 0) << s.failed_step;
    ASSERT_NE(s.dump.find(expected_line(c.in_rate, c.out_rate)), std::string::npos) << s.dump;
    ASSERT_EQ(s.in_period, c.in_period);
    ASSERT_EQ(s.out_period, c.out_period);
    ASSERT_EQ(s.out.size(), periods * c.out_period * channels);

    const auto want = one_stream(c.in_rate, c.out_rate, channels, in);
    const size_t group = (n == 6 ? 6 : n == 3 ? 6 : 4) / n;
    size_t delay = 0;
    while (delay < group && !std::equal(s.out.begin() + static_cast<std::ptrdiff_t>(delay * channels), s.out.end(),
                                        want.begin()))
        ++delay;
    ASSERT_LT(delay, group) << "no constant delay below one output group matches";
    for (size_t i = 0; i < delay * channels; ++i) ASSERT_EQ(s.out[i], 0);
    // Periods that meet the rules must keep their output undelayed.
    if (c.in_period % (n == 2 ? 4 : 6) == 0) {
        EXPECT_EQ(delay, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    PeriodsAndChannels, ExactPeriods,
    ::testing::Combine(::testing::Values(PeriodCase{44100, 22050, 882, 441}, PeriodCase{48000, 16000, 999, 333},
                                         PeriodCase{16000, 8000, 330, 165}, PeriodCase{48000, 24000, 1026, 513},
                                         PeriodCase{48000, 16000, 1002, 334}, PeriodCase{48000, 16000, 960, 320},
                                         PeriodCase{48000, 8000, 960, 160}, PeriodCase{44100, 22050, 884, 442}),
                       ::testing::Values(1u, 2u, 3u, 4u)),
    [](const auto &info) {
        return period_name(std::get<0>(info.param)) + "_" + std::to_string(std::get<1>(info.param)) + "ch";
    });

// Periods off the ratio N: alsa-lib takes out_period frames for every
// in_period, so a tone must come out at in_period / out_period times its
// input frequency per output frame, clean (no dropped or repeated frame) for
// minutes, with exactly periods * out_period frames.
class InexactPeriods : public ::testing::TestWithParam<std::tuple<PeriodCase, unsigned>> {};

TEST_P(InexactPeriods, ToneComesOutCleanAtThePeriodRatio) {
    const auto [c, channels] = GetParam();
    const size_t seconds = channels == 1 ? 120 : 5;
    const size_t periods = seconds * c.in_rate / c.in_period;
    const size_t frames = periods * c.in_period;
    std::vector<int16_t> in(frames * channels);
    std::vector<double> hz(channels);
    for (unsigned ch = 0; ch < channels; ++ch) {
        hz[ch] = 300.0 + 170.0 * ch;  // each channel its own tone: a swap shows
        for (size_t i = 0; i < frames; ++i)
            in[i * channels + ch] = static_cast<int16_t>(std::lround(12000.0 * std::sin(2 * M_PI * hz[ch] * i / c.in_rate)));
    }
    const Stream s = play(c.in_rate, c.out_rate, channels, in, SND_PCM_FORMAT_S16_LE, c.in_period);
    ASSERT_EQ(s.setup_err, 0) << s.failed_step;
    ASSERT_NE(s.dump.find(expected_line(c.in_rate, c.out_rate)), std::string::npos) << s.dump;
    ASSERT_EQ(s.in_period, c.in_period);
    ASSERT_EQ(s.out_period, c.out_period);
    ASSERT_EQ(s.out.size(), periods * c.out_period * channels);
    // The stage's own gain at each tone, from one stream of the first second at the exact ratio N.
    std::vector<int16_t> head(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(c.in_rate * channels));
    const auto stage = one_stream(c.in_rate, c.out_rate, channels, head);
    const unsigned n = c.in_rate / c.out_rate;
    for (unsigned ch = 0; ch < channels; ++ch) {
        SCOPED_TRACE(ch);
        const double gain = fit_sine(stage, channels, ch, 200, 2 * M_PI * hz[ch] * n / c.in_rate).amplitude;
        const double w = 2 * M_PI * hz[ch] / c.in_rate * static_cast<double>(c.in_period) / c.out_period;
        const SineFit f = fit_sine(s.out, channels, ch, 200, w);  // past the filter's start-up
        EXPECT_NEAR(f.amplitude, gain, 0.005 * gain);
        // The correction's own error on these tones is far below 0.1 %; one
        // dropped or repeated frame would leave 5 % or more.
        EXPECT_LT(f.worst, 0.001 * 12000.0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    PeriodsAndChannels, InexactPeriods,
    ::testing::Combine(::testing::Values(PeriodCase{22050, 11025, 441, 220}, PeriodCase{48000, 16000, 1024, 341},
                                         PeriodCase{48000, 8000, 1000, 166}),
                       ::testing::Values(1u, 2u, 3u, 4u)),
    [](const auto &info) {
        return period_name(std::get<0>(info.param)) + "_" + std::to_string(std::get<1>(info.param)) + "ch";
    });

// ---- Set-ups the module or alsa-lib refuse ------------------------------------

// Five channels fail at hw_params (the module's init refuses them), client
// rates outside 8000..48000 when the rate is set, and a float client when the
// format is set: cleanly, with nothing written.
TEST(ThroughAlsaRefused, FailAtTheirStepWithoutOutput) {
    struct Case { unsigned rate, channels; snd_pcm_format_t format; const char *step; };
    for (const Case &c : {Case{16000, 5, SND_PCM_FORMAT_S16_LE, "hw_params"}, Case{7999, 1, SND_PCM_FORMAT_S16_LE, "rate"},
                          Case{96000, 1, SND_PCM_FORMAT_S16_LE, "rate"},
                          Case{16000, 1, SND_PCM_FORMAT_FLOAT_LE, "format"}}) {
        SCOPED_TRACE(c.step);
        const Stream s = play(c.rate, 48000, c.channels, random_samples(960 * c.channels, 5), c.format);
        EXPECT_EQ(s.failed_step, c.step);
        EXPECT_EQ(s.setup_err, -EINVAL);
        EXPECT_TRUE(s.out.empty());
    }
}

// alsa-lib's rate PCM converts other linear client formats to signed 16 bits
// itself before the module sees them: a 32-bit client gets the same stream as
// a 16-bit one.
TEST(ThroughAlsaFormats, WiderLinearFormatsAreConvertedByAlsaLib) {
    const auto in = hostile_samples(320 * 10 * 2, 8);
    const Stream s16 = play(16000, 48000, 2, in);
    ASSERT_EQ(s16.setup_err, 0) << s16.failed_step;
    for (snd_pcm_format_t format : {SND_PCM_FORMAT_S32_LE, SND_PCM_FORMAT_S24_3LE}) {
        SCOPED_TRACE(snd_pcm_format_name(format));
        const Stream s = play(16000, 48000, 2, in, format);
        ASSERT_EQ(s.setup_err, 0) << s.failed_step;
        ASSERT_NE(s.dump.find("RSMPL Converter: FIR filter, UP 16000 -> 48000"), std::string::npos);
        EXPECT_EQ(s.out, s16.out);
    }
}

}  // namespace
