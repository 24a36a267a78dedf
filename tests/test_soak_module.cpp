// Hours of audio through the module inside real alsa-lib, written in random
// amounts as an application would. On the FIR path the output must equal the
// resampler interface run over each channel as one continuous stream (no
// click at any period boundary, history carried across every period); on the
// linear path, the module's own operations called once per period with the
// negotiated period sizes (that path restarts its phase every period by
// design). Either way the frame count must be exact: every input period
// gives one output period, with no drift and no lost frames over the run.
// The amount of audio is set in soak_support.hpp.
#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "alsa_pcm.hpp"
#include <rsmpl/rsmpl.h>
#include "soak_support.hpp"

namespace {

using rsmpl_test::RatePcm;
using rsmpl_test::soak::audio_seconds;
using rsmpl_test::soak::Lockstep;
using rsmpl_test::soak::Signal;

const bool g_plugin_dir_set = rsmpl_test::use_built_module();
const bool g_config_released = rsmpl_test::release_alsa_config_after_tests();

struct Case {
    const char *name;
    unsigned in_rate, out_rate, channels;
    double share;  // of audio_seconds()
    unsigned period_us = 20000;
    // Output frames of silence in front: periods that break the stage's block
    // rule (882 = 2 mod 4, 999 = 3 mod 6) leave up to half a block waiting,
    // one output frame.
    unsigned delay = 0;
    snd_pcm_uframes_t expect_in_period = 0;  // checked when not 0
};

// Over four hours of audio in all at the default two hours per path.
const Case kCases[] = {
    {"fir_up6_8k_48k", 8000, 48000, 2, 0.5},
    {"fir_up2_16k_32k", 16000, 32000, 1, 0.5},
    {"fir_down3_48k_16k", 48000, 16000, 2, 0.25},
    {"fir_down2_48k_24k", 48000, 24000, 4, 0.125},
    {"linear_44k1_48k", 44100, 48000, 2, 0.25},
    {"linear_48k_44k1", 48000, 44100, 2, 0.25},
    {"linear_8k_32k", 8000, 32000, 1, 0.5},
    {"fir_down2_882_44k1_22k05", 44100, 22050, 2, 0.125, 20000, 1, 882},
    {"fir_down3_999_48k_16k", 48000, 16000, 3, 0.125, 20813, 1, 999},
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

// The reference for the FIR path: one RSMPL context per channel, fed the
// channel as one stream in the largest blocks the stage takes.
class FirReference {
public:
    FirReference(const Case &c) : channels_(c.channels) {
        up_ = c.out_rate > c.in_rate;
        factor_ = up_ ? c.out_rate / c.in_rate : c.in_rate / c.out_rate;
        index_ = factor_ == 2 ? RSMPL_STAGE_2 : factor_ == 3 ? RSMPL_STAGE_3 : RSMPL_STAGE_6;
        block_ = up_ ? static_cast<size_t>(1440 / factor_) : 960;  // 960: a multiple of 4 and 6
        for (unsigned ch = 0; ch < channels_; ++ch) {
            ctx_.emplace_back(RSMPL_GetContextSize());
            RSMPL_InitContext(reinterpret_cast<RSMPL_Ctx *>(ctx_.back().data()));
        }
        pending_.resize(channels_);
    }
    // Interleaved input in, interleaved output out, as far as whole blocks go.
    void feed(const int16_t *in, size_t frames, std::vector<int16_t> &out) {
        for (unsigned ch = 0; ch < channels_; ++ch)
            for (size_t k = 0; k < frames; ++k) pending_[ch].push_back(in[k * channels_ + ch]);
        std::vector<int16_t> block(1440);
        while (pending_[0].size() - at_ >= block_) {
            const size_t produced = up_ ? block_ * factor_ : block_ / factor_;
            const size_t base = out.size();
            out.resize(base + produced * channels_);
            for (unsigned ch = 0; ch < channels_; ++ch) {
                auto *ctx = reinterpret_cast<RSMPL_Ctx *>(ctx_[ch].data());
                const int16_t *src = pending_[ch].data() + at_;
                const int32_t n = static_cast<int32_t>(block_);
                const uint32_t st = up_ ? RSMPL_Up(ctx, src, block.data(), n, index_)
                                        : RSMPL_Down(ctx, src, block.data(), n, index_);
                EXPECT_EQ(st, RSMPL_OK);
                for (size_t k = 0; k < produced; ++k) out[base + k * channels_ + ch] = block[k];
            }
            at_ += block_;
        }
        if (at_ > 1 << 20) {
            for (auto &p : pending_) p.erase(p.begin(), p.begin() + static_cast<std::ptrdiff_t>(at_));
            at_ = 0;
        }
    }

private:
    unsigned channels_;
    bool up_;
    unsigned factor_;
    uint32_t index_;
    size_t block_;
    std::vector<std::vector<uint8_t>> ctx_;
    std::vector<std::vector<int16_t>> pending_;
    size_t at_ = 0;
};

// The reference for the linear path: the module's operations, called once per
// period as the rate PCM calls them.
class OpsReference {
public:
    OpsReference(const Case &c, snd_pcm_uframes_t in_period, snd_pcm_uframes_t out_period)
        : channels_(c.channels), in_period_(in_period), out_period_(out_period) {
        EXPECT_EQ(conv_.status(), 0);
        snd_pcm_rate_info_t info{};
        info.in.format = info.out.format = SND_PCM_FORMAT_S16_LE;
        info.in.rate = c.in_rate;
        info.out.rate = c.out_rate;
        info.in.period_size = in_period;
        info.out.period_size = out_period;
        info.channels = c.channels;
        EXPECT_EQ(ops_.init(obj_, &info), 0);
        EXPECT_EQ(ops_.adjust_pitch(obj_, &info), 0);
        ops_.reset(obj_);
    }
    void feed(const int16_t *in, size_t frames, std::vector<int16_t> &out) {
        pending_.insert(pending_.end(), in, in + frames * channels_);
        const size_t period = in_period_ * channels_;
        size_t at = 0;
        for (; pending_.size() - at >= period; at += period) {
            const size_t base = out.size();
            out.resize(base + out_period_ * channels_);
            ops_.convert_s16(obj_, out.data() + base, static_cast<unsigned>(out_period_), pending_.data() + at,
                             static_cast<unsigned>(in_period_));
        }
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(at));
    }

private:
    unsigned channels_;
    snd_pcm_uframes_t in_period_, out_period_;
    rsmpl_harness::Module module_;
    rsmpl_harness::Converter conv_{module_.entry("rsmplrate"), 0x010002};
    void *obj_ = conv_.obj();
    snd_pcm_rate_ops_t &ops_ = conv_.ops();
    std::vector<int16_t> pending_;
};

class SoakModule : public ::testing::TestWithParam<Case> {};

TEST_P(SoakModule, AlsaLibOutputIsContinuousAndFrameExact) {
    ASSERT_TRUE(g_plugin_dir_set);
    const Case &c = GetParam();
    RatePcm pcm(c.in_rate, c.out_rate, c.channels, c.period_us, 4 * c.period_us);
    ASSERT_TRUE(pcm.ok()) << pcm.error();
    const size_t in_period = pcm.in_period(), out_period = pcm.out_period();
    if (c.expect_in_period != 0) {
        ASSERT_EQ(in_period, c.expect_in_period);
    }
    const bool fir = (c.out_rate > c.in_rate ? c.out_rate % c.in_rate == 0 && c.out_rate / c.in_rate != 4
                                             : c.in_rate % c.out_rate == 0 && c.in_rate / c.out_rate != 4) &&
                     c.in_rate != c.out_rate;
    std::unique_ptr<FirReference> fir_ref;
    std::unique_ptr<OpsReference> ops_ref;
    if (fir)
        fir_ref = std::make_unique<FirReference>(c);
    else
        ops_ref = std::make_unique<OpsReference>(c, in_period, out_period);

    // A whole number of input periods, so that every frame falls due.
    const uint64_t periods = static_cast<uint64_t>(audio_seconds() * c.share * c.in_rate) / in_period;
    const uint64_t total = periods * in_period;
    Signal signal(c.in_rate + c.out_rate);
    std::mt19937 rng(c.in_rate ^ c.out_rate);
    std::vector<int16_t> chunk, got, want(size_t{c.delay} * c.channels, 0);
    Lockstep lock;
    uint64_t written = 0, received = 0;
    while (written < total) {
        // Anything from one frame to three periods per write.
        const uint64_t frames = std::min<uint64_t>(total - written, 1 + rng() % (3 * in_period));
        chunk.resize(frames * c.channels);
        signal.fill(chunk.data(), chunk.size());
        ASSERT_TRUE(pcm.write(chunk.data(), frames)) << pcm.error();
        written += frames;
        if (fir)
            fir_ref->feed(chunk.data(), frames, want);
        else
            ops_ref->feed(chunk.data(), frames, want);
        got.clear();
        pcm.take(got);
        received += got.size();
        lock.add_a(got.data(), got.size());
        lock.add_b(want.data(), want.size());
        want.clear();
        ASSERT_TRUE(lock.compare(c.name)) << "after " << written << " input frames";
    }
    ASSERT_TRUE(pcm.drain());
    got.clear();
    pcm.take(got);
    received += got.size();
    lock.add_a(got.data(), got.size());
    ASSERT_TRUE(lock.compare(c.name));
    // No drift, no lost frames: exactly one output period per input period.
    EXPECT_EQ(received, periods * out_period * c.channels) << c.name;
    // Everything that reached the slave matched the reference, up to the
    // reference's last block (the FIR reference works in blocks of up to 960).
    EXPECT_GE(lock.matched() + 960 * 6 * c.channels, received);
    RecordProperty("audio_seconds", std::to_string(total / c.in_rate));
}

INSTANTIATE_TEST_SUITE_P(Paths, SoakModule, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
