// Converter "rsmplrate_best" through its operations table, as alsa-lib holds
// it: refused set-ups (channels, formats, rates without a path, periods)
// leave a working converter exactly as it was, with the reports alsa-lib's
// error handler receives; frame arithmetic maps the periods onto each other;
// calls that break the period ratio still write exactly dst_frames.
#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <random>
#include <string>
#include <vector>

#include "best_model.hpp"
#include "harness/alsa_harness.hpp"

namespace {

using rsmpl_test::best::Model;

std::vector<std::string> g_reports;

void collect(const char *file, int, const char *function, int err, const char *fmt, ...) {
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    g_reports.push_back(std::string(file) + ":" + function + ":" + std::to_string(err) + ":" + text);
}

class Converter {
public:
    bool ok() const { return conv_.status() == 0; }
    snd_pcm_rate_ops_t &ops() { return conv_.ops(); }
    void *obj() { return conv_.obj(); }
    std::vector<int16_t> convert(const std::vector<int16_t> &in, unsigned ch, unsigned src, unsigned dst) {
        std::vector<int16_t> out(size_t(dst) * ch + 64, 0x5A5A);
        ops().convert_s16(obj(), out.data(), dst, in.data(), src);
        for (size_t i = size_t(dst) * ch; i < out.size(); ++i)
            if (out[i] != 0x5A5A) ADD_FAILURE() << "written past dst_frames";
        out.resize(size_t(dst) * ch);
        return out;
    }

private:
    rsmpl_harness::Module module_;
    rsmpl_harness::Converter conv_{module_.entry("rsmplrate_best")};
};

snd_pcm_rate_info_t info(unsigned in_rate, unsigned out_rate, unsigned ch, snd_pcm_uframes_t pin,
                         snd_pcm_uframes_t pout, snd_pcm_format_t format = SND_PCM_FORMAT_S16_LE) {
    snd_pcm_rate_info_t i{};
    i.in.rate = in_rate;
    i.out.rate = out_rate;
    i.in.format = i.out.format = format;
    i.in.period_size = pin;
    i.out.period_size = pout;
    i.channels = ch;
    return i;
}

std::vector<int16_t> noise(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<int16_t> v(n);
    for (auto &x : v) x = int16_t(rng());
    return v;
}

TEST(BestOps, RefusedSetupsLeaveTheStreamAsItWas) {
    snd_lib_error_set_handler(collect);
    Converter conv;
    ASSERT_TRUE(conv.ok());
    const unsigned ch = 2, n = 882, m = 960;
    auto good = info(44100, 48000, ch, n, m);
    ASSERT_EQ(conv.ops().init(conv.obj(), &good), 0);
    ASSERT_EQ(conv.ops().adjust_pitch(conv.obj(), &good), 0);
    conv.ops().reset(conv.obj());
    Model model(44100, 48000, ch, n, m);

    for (int p = 0; p < 30; ++p) {
        const auto in = noise(size_t(n) * ch, unsigned(p));
        EXPECT_EQ(conv.convert(in, ch, n, m), model.call(in.data(), n, m)) << "period " << p;
        if (p == 10) {
            auto nine = info(44100, 48000, 9, n, m);
            auto s32 = info(44100, 48000, ch, n, m, SND_PCM_FORMAT_S32_LE);
            auto none = info(0, 48000, ch, n, m);
            auto far = info(8000, 96000, ch, 160, 1920);  // 12:1, beyond the interpolator's 8
            EXPECT_EQ(conv.ops().init(conv.obj(), &nine), -EINVAL);
            EXPECT_EQ(conv.ops().init(conv.obj(), &s32), -EINVAL);
            EXPECT_EQ(conv.ops().init(conv.obj(), &none), -EINVAL);
            EXPECT_EQ(conv.ops().init(conv.obj(), &far), -EINVAL);
            g_reports.clear();
            auto zero = info(44100, 48000, ch, 0, m);
            EXPECT_EQ(conv.ops().adjust_pitch(conv.obj(), &zero), -EIO);
            ASSERT_EQ(g_reports.size(), 1u);
            EXPECT_EQ(g_reports[0],
                      "src/rate_rsmpl_best.cpp:pcm_best_adjust_pitch:0:invalid pcm period_size 0 -> 960");
            // The frame arithmetic still follows the working set-up.
            EXPECT_EQ(conv.ops().input_frames(conv.obj(), m), n);
            EXPECT_EQ(conv.ops().output_frames(conv.obj(), n), m);
        }
    }
    snd_lib_error_set_handler(nullptr);
}

// Period sizes the host negotiated map onto each other exactly, also off the rate ratio.
TEST(BestOps, FrameArithmeticFollowsThePeriods) {
    const struct {
        unsigned in_rate, out_rate;
        snd_pcm_uframes_t pin, pout;
    } cases[] = {{44100, 48000, 882, 960}, {44100, 48000, 1024, 1114}, {48000, 8000, 1023, 170},
                 {16000, 48000, 320, 960}, {48000, 48000, 1024, 1024}, {22050, 32000, 441, 640}};
    for (const auto &c : cases) {
        Converter conv;
        ASSERT_TRUE(conv.ok());
        auto i = info(c.in_rate, c.out_rate, 2, c.pin, c.pout);
        ASSERT_EQ(conv.ops().init(conv.obj(), &i), 0);
        ASSERT_EQ(conv.ops().adjust_pitch(conv.obj(), &i), 0);
        EXPECT_EQ(conv.ops().output_frames(conv.obj(), c.pin), c.pout);
        EXPECT_EQ(conv.ops().input_frames(conv.obj(), c.pout), c.pin);
        EXPECT_EQ(conv.ops().output_frames(conv.obj(), 0), 0u);
    }
}

// A host that sends more or less than its periods: exactly dst_frames are
// written every time (silence where nothing is due), nothing beyond them,
// and one report when output had to be dropped.
TEST(BestOps, CallsOffThePeriodRatioWriteExactlyDstFrames) {
    snd_lib_error_set_handler(collect);
    for (const auto &[in_rate, out_rate] : {std::pair{44100u, 48000u}, {16000u, 48000u}, {48000u, 48000u}}) {
        Converter conv;
        ASSERT_TRUE(conv.ok());
        const unsigned ch = 8;
        auto i = info(in_rate, out_rate, ch, in_rate / 50, out_rate / 50);
        ASSERT_EQ(conv.ops().init(conv.obj(), &i), 0);
        conv.ops().reset(conv.obj());
        // Nothing in: the prefill, then silence.
        auto out = conv.convert({}, ch, 0, 500);
        for (int16_t v : out) EXPECT_EQ(v, 0);
        // A flood into a short period: the start of the converted stream, then one report.
        g_reports.clear();
        const auto in = noise(size_t(20000) * ch, 3);
        out = conv.convert(in, ch, 20000, 7);
        EXPECT_EQ(g_reports.size(), 1u);
        if (!g_reports.empty()) {
            EXPECT_NE(g_reports[0].find("dst_frames overflow"), std::string::npos);
        }
    }
    snd_lib_error_set_handler(nullptr);
}

}  // namespace
