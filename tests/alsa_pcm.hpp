// A rate PCM inside real alsa-lib for long and parallel runs: converter
// "rsmplrate" (or another, for comparison) in front of a file PCM (into a memory file) in front of the
// null PCM, so no sound card is needed. What reaches the slave can be taken
// as it comes, which keeps hours of output from piling up in memory.
// ALSA_PLUGIN_DIR must point at the build tree before alsa-lib first looks
// for a converter (see use_built_module).
#pragma once

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "harness/alsa_harness.hpp"

namespace rsmpl_test {

// Makes alsa-lib load the module from the build tree.
inline bool use_built_module() { return rsmpl_harness::use_staged_plugin_dir(); }

// Releases alsa-lib's global configuration after the last test, so that leak
// checkers see only what the module and the tests allocate.
inline bool release_alsa_config_after_tests() {
    struct Release : ::testing::Environment {
        void TearDown() override { rsmpl_harness::release_global_config(); }
    };
    ::testing::AddGlobalTestEnvironment(new Release);
    return true;
}

class RatePcm {
public:
    RatePcm(unsigned in_rate, unsigned out_rate, unsigned channels, unsigned period_us = 20000,
            unsigned buffer_us = 80000, const char *converter = "rsmplrate")
        : channels_(channels) {
        fd_ = memfd_create("rsmpl-rate-pcm", 0);
        if (fd_ < 0) {
            fail("memfd_create", -errno);
            return;
        }
        if (int e = pcm_.open(rsmpl_harness::rate_config("soak", converter, out_rate, fd_), "soak"); e < 0) {
            fail("open", e);
            return;
        }
        setup(in_rate, channels, period_us, buffer_us);
    }

    // Releases the hardware parameters (the module's free) and sets new ones
    // (its init again), as an application that changes format does.
    bool reconfigure(unsigned in_rate, unsigned channels, unsigned period_us = 20000, unsigned buffer_us = 80000) {
        ok_ = false;
        if (int e = pcm_.hw_free(); e < 0) {
            fail("hw_free", e);
            return false;
        }
        channels_ = channels;
        setup(in_rate, channels, period_us, buffer_us);
        return ok_;
    }
    ~RatePcm() {
        pcm_.close();
        if (fd_ >= 0) close(fd_);
    }
    RatePcm(const RatePcm &) = delete;
    RatePcm &operator=(const RatePcm &) = delete;

    bool ok() const { return ok_; }
    const std::string &error() const { return error_; }
    snd_pcm_t *pcm() { return pcm_.get(); }
    // Period sizes alsa-lib negotiated: client (input) side and slave (output) side.
    snd_pcm_uframes_t in_period() const { return in_period_; }
    snd_pcm_uframes_t out_period() const { return out_period_; }

    // Writes all `frames` interleaved frames; false if alsa-lib refused some.
    bool write(const int16_t *samples, size_t frames) {
        size_t done = 0;
        while (done < frames) {
            const snd_pcm_sframes_t w = snd_pcm_writei(pcm_.get(), samples + done * channels_, frames - done);
            if (w <= 0) {
                error_ = std::string("writei: ") + snd_strerror(static_cast<int>(w));
                return false;
            }
            done += static_cast<size_t>(w);
        }
        return true;
    }
    bool drain() { return snd_pcm_drain(pcm_.get()) == 0; }

    // Moves what the slave has received so far to `out` and empties the file.
    void take(std::vector<int16_t> &out) {
        const off_t size = lseek(fd_, 0, SEEK_END);
        if (size <= 0) return;
        const size_t old = out.size();
        out.resize(old + static_cast<size_t>(size) / sizeof(int16_t));
        if (pread(fd_, out.data() + old, static_cast<size_t>(size), 0) != size) std::abort();
        // The file PCM writes at the descriptor's offset: rewind it with the file.
        if (ftruncate(fd_, 0) != 0 || lseek(fd_, 0, SEEK_SET) != 0) std::abort();
    }

private:
    void setup(unsigned in_rate, unsigned channels, unsigned period_us, unsigned buffer_us) {
        rsmpl_harness::HwSetup hw;
        hw.channels = channels;
        hw.rate = in_rate;
        hw.period = rsmpl_harness::Length::in_us(period_us);
        hw.buffer = rsmpl_harness::Length::in_us(buffer_us);
        if (int e = pcm_.configure(hw); e < 0) {
            fail("hw_params", e);
            return;
        }
        // The dump lists the rate PCM's own setup first, then its slave's.
        const auto sizes = rsmpl_harness::period_sizes(rsmpl_harness::dump(pcm_.get()));
        if (sizes.size() >= 2) in_period_ = sizes[0], out_period_ = sizes[1];
        ok_ = in_period_ > 0 && out_period_ > 0;
        if (!ok_) error_ = "period sizes not found in the dump";
    }
    void fail(const char *step, int err) {
        error_ = std::string(step) + ": " + snd_strerror(err);
    }

    unsigned channels_;
    int fd_ = -1;
    rsmpl_harness::Pcm pcm_;
    bool ok_ = false;
    std::string error_;
    snd_pcm_uframes_t in_period_ = 0, out_period_ = 0;
};

}  // namespace rsmpl_test
