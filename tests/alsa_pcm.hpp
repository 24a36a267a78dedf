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
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace rsmpl_test {

// Makes alsa-lib load the module from the build tree.
inline bool use_built_module() {
    const std::string dir = std::filesystem::path(RSMPL_MODULE_PATH).parent_path().string();
    return setenv("ALSA_PLUGIN_DIR", dir.c_str(), 1) == 0;
}

// Releases alsa-lib's global configuration after the last test, so that leak
// checkers see only what the module and the tests allocate.
inline bool release_alsa_config_after_tests() {
    struct Release : ::testing::Environment {
        void TearDown() override { snd_config_update_free_global(); }
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
        char text[512];
        std::snprintf(text, sizeof(text),
                      "pcm.soak { type rate converter \"%s\" slave {"
                      " pcm { type file slave.pcm { type null } file %d format raw }"
                      " rate %u format S16_LE } }",
                      converter, fd_, out_rate);
        snd_input_t *input = nullptr;
        if (int e = snd_config_top(&conf_); e < 0) {
            fail("config", e);
            return;
        }
        if (int e = snd_input_buffer_open(&input, text, -1); e < 0) {
            fail("input", e);
            return;
        }
        const int loaded = snd_config_load(conf_, input);
        snd_input_close(input);
        if (loaded < 0) {
            fail("load", loaded);
            return;
        }
        if (int e = snd_pcm_open_lconf(&pcm_, "soak", SND_PCM_STREAM_PLAYBACK, 0, conf_); e < 0) {
            pcm_ = nullptr;
            fail("open", e);
            return;
        }
        setup(in_rate, channels, period_us, buffer_us);
    }

    // Releases the hardware parameters (the module's free) and sets new ones
    // (its init again), as an application that changes format does.
    bool reconfigure(unsigned in_rate, unsigned channels, unsigned period_us = 20000, unsigned buffer_us = 80000) {
        ok_ = false;
        if (int e = snd_pcm_hw_free(pcm_); e < 0) {
            fail("hw_free", e);
            return false;
        }
        channels_ = channels;
        setup(in_rate, channels, period_us, buffer_us);
        return ok_;
    }
    ~RatePcm() {
        if (pcm_ != nullptr) snd_pcm_close(pcm_);
        if (conf_ != nullptr) snd_config_delete(conf_);
        if (fd_ >= 0) close(fd_);
    }
    RatePcm(const RatePcm &) = delete;
    RatePcm &operator=(const RatePcm &) = delete;

    bool ok() const { return ok_; }
    const std::string &error() const { return error_; }
    snd_pcm_t *pcm() { return pcm_; }
    // Period sizes alsa-lib negotiated: client (input) side and slave (output) side.
    snd_pcm_uframes_t in_period() const { return in_period_; }
    snd_pcm_uframes_t out_period() const { return out_period_; }

    // Writes all `frames` interleaved frames; false if alsa-lib refused some.
    bool write(const int16_t *samples, size_t frames) {
        size_t done = 0;
        while (done < frames) {
            const snd_pcm_sframes_t w = snd_pcm_writei(pcm_, samples + done * channels_, frames - done);
            if (w <= 0) {
                error_ = std::string("writei: ") + snd_strerror(static_cast<int>(w));
                return false;
            }
            done += static_cast<size_t>(w);
        }
        return true;
    }
    bool drain() { return snd_pcm_drain(pcm_) == 0; }

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
        snd_pcm_hw_params_t *hw = nullptr;
        snd_pcm_hw_params_alloca(&hw);
        snd_pcm_hw_params_any(pcm_, hw);
        int e = snd_pcm_hw_params_set_access(pcm_, hw, SND_PCM_ACCESS_RW_INTERLEAVED);
        if (e >= 0) e = snd_pcm_hw_params_set_format(pcm_, hw, SND_PCM_FORMAT_S16_LE);
        if (e >= 0) e = snd_pcm_hw_params_set_channels(pcm_, hw, channels);
        if (e >= 0) e = snd_pcm_hw_params_set_rate(pcm_, hw, in_rate, 0);
        if (e >= 0) e = snd_pcm_hw_params_set_period_time_near(pcm_, hw, &period_us, nullptr);
        if (e >= 0) e = snd_pcm_hw_params_set_buffer_time_near(pcm_, hw, &buffer_us, nullptr);
        if (e >= 0) e = snd_pcm_hw_params(pcm_, hw);
        if (e < 0) {
            fail("hw_params", e);
            return;
        }
        read_periods();
        ok_ = in_period_ > 0 && out_period_ > 0;
        if (!ok_) error_ = "period sizes not found in the dump";
    }
    void fail(const char *step, int err) {
        error_ = std::string(step) + ": " + snd_strerror(err);
    }
    // The dump lists the rate PCM's own setup first, then its slave's.
    void read_periods() {
        snd_output_t *out = nullptr;
        snd_output_buffer_open(&out);
        snd_pcm_dump(pcm_, out);
        char *text = nullptr;
        const size_t n = snd_output_buffer_string(out, &text);
        const std::string dump(text, n);
        snd_output_close(out);
        std::vector<snd_pcm_uframes_t> sizes;
        for (size_t pos = 0; (pos = dump.find("period_size", pos)) != std::string::npos; ++pos)
            sizes.push_back(std::strtoul(dump.c_str() + dump.find(':', pos) + 1, nullptr, 10));
        if (sizes.size() >= 2) in_period_ = sizes[0], out_period_ = sizes[1];
    }

    unsigned channels_;
    int fd_ = -1;
    snd_config_t *conf_ = nullptr;
    snd_pcm_t *pcm_ = nullptr;
    bool ok_ = false;
    std::string error_;
    snd_pcm_uframes_t in_period_ = 0, out_period_ = 0;
};

}  // namespace rsmpl_test
