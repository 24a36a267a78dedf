// Inputs the fuzzer found to hurt the module, kept as plain tests (the
// failing fuzz inputs themselves are replayed from fuzz/regressions/module/).
#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "harness/alsa_harness.hpp"

namespace {

std::vector<std::string> g_reports;

void capture(const char *, int, const char *, int, const char *fmt, ...) {
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    g_reports.emplace_back(text);
}

class Hostile : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(module_.ok()) << module_.error();
        conv_ = std::make_unique<rsmpl_harness::Converter>(module_.entry("rsmplrate"), 0x010002);
        ASSERT_EQ(conv_->status(), 0);
        obj_ = conv_->obj();
        ops_ = conv_->ops();
        snd_lib_error_set_handler(capture);
        g_reports.clear();
    }
    void TearDown() override {
        snd_lib_error_set_handler(nullptr);
        conv_.reset();
    }
    int adjust(snd_pcm_uframes_t in, snd_pcm_uframes_t out) {
        snd_pcm_rate_info_t info{};
        info.in.period_size = in;
        info.out.period_size = out;
        return ops_.adjust_pitch(obj_, &info);
    }

    rsmpl_harness::Module module_;
    std::unique_ptr<rsmpl_harness::Converter> conv_;
    void *obj_ = nullptr;
    snd_pcm_rate_ops_t ops_{};
};

// Periods 1 -> 10000 (a ratio the Q19 pitch cannot hold) used to start the
// search from a wrapped pitch, step about 2.5e9 times, and then report
// success with a pitch of ratio 6667: output_frames(1) said 6667, not 10000.
TEST_F(Hostile, PeriodRatioBeyondThePitchRangeIsRefusedAtOnce) {
    EXPECT_EQ(adjust(1, 10000), -EIO);
    ASSERT_EQ(g_reports.size(), 1u);
    EXPECT_EQ(g_reports[0], "invalid pcm period_size 1 -> 10000");
    EXPECT_EQ(adjust(3, 100000), -EIO);
    // An output period whose count would overflow 64 bits.
    EXPECT_EQ(adjust(441, snd_pcm_uframes_t{1} << 50), -EIO);
    EXPECT_EQ(adjust(snd_pcm_uframes_t{1} << 62, ~snd_pcm_uframes_t{0}), -EIO);
    EXPECT_EQ(g_reports.size(), 4u);
}

// The largest ratio that fits is still met exactly.
TEST_F(Hostile, LargestRatioThatFitsIsStillMet) {
    EXPECT_EQ(adjust(1, 8191), 0);
    EXPECT_EQ(ops_.input_frames(obj_, 8191), 1u);
    EXPECT_EQ(ops_.output_frames(obj_, 1), 8191u);
    EXPECT_TRUE(g_reports.empty());
}

}  // namespace
