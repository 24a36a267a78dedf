// Long runs: a streaming test signal that never has to be held whole, the
// amount of audio to push, and a comparator that checks two runs of one
// stream against each other as their outputs come in.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace rsmpl_test::soak {

// Seconds of audio per path: hours in a plain build; a couple of minutes
// under a sanitizer, which is 20-50 times slower (the long run is the plain
// build's job). RSMPL_SOAK_SECONDS overrides both.
inline double audio_seconds() {
    if (const char *env = std::getenv("RSMPL_SOAK_SECONDS")) return std::strtod(env, nullptr);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return 120.0;
#else
    return 2.0 * 3600.0;
#endif
}

// A stream of test audio, the same for the same seed however it is cut: a
// swept tone, noise whose level wanders, and now and then full-scale bursts
// and square waves that drive the filters into saturation.
class Signal {
public:
    explicit Signal(uint32_t seed) : state_(seed * 2654435761u + 1) {}

    void fill(int16_t *out, size_t n) {
        for (size_t i = 0; i < n; ++i) out[i] = next();
    }
    std::vector<int16_t> take(size_t n) {
        std::vector<int16_t> v(n);
        fill(v.data(), n);
        return v;
    }

private:
    uint32_t rand() {
        state_ = state_ * 1664525u + 1013904223u;
        return state_;
    }
    int16_t next() {
        if (event_left_ == 0) {
            // A new stretch of 1 ms to 1 s at 48 kHz: tone, noise, burst or square.
            const uint32_t r = rand();
            kind_ = (r >> 28) % 8;
            event_left_ = 48 + (rand() >> 8) % 48000;
            freq_ = 0x10000u + (rand() >> 6);  // phase step: up to about half the sample rate
            level_ = static_cast<int32_t>((rand() >> 17) & 0x7FFF);
        }
        --event_left_;
        phase_ += freq_;
        const double tone = std::sin(static_cast<double>(phase_) * (2.0 * M_PI / 4294967296.0));
        const int32_t noise = static_cast<int16_t>(rand() >> 16);
        int32_t v;
        switch (kind_) {
            case 0: v = (phase_ & 0x80000000u) ? INT16_MAX : INT16_MIN; break;      // full-scale square
            case 1: v = (noise & 1) ? INT16_MAX : INT16_MIN; break;                 // full-scale noise
            case 2: v = noise; break;
            case 3: v = static_cast<int32_t>(tone * level_) + noise / 64; break;
            default: v = static_cast<int32_t>(tone * 32767.0 * (level_ / 32768.0)); break;
        }
        return static_cast<int16_t>(v < INT16_MIN ? INT16_MIN : v > INT16_MAX ? INT16_MAX : v);
    }

    uint32_t state_;
    uint32_t phase_ = 0, freq_ = 0;
    uint32_t kind_ = 0, event_left_ = 0;
    int32_t level_ = 0;
};

// Two runs of the same stream, compared sample by sample as far as both
// have come; only what is still unmatched is kept.
class Lockstep {
public:
    void add_a(const int16_t *p, size_t n) { a_.insert(a_.end(), p, p + n); }
    void add_b(const int16_t *p, size_t n) { b_.insert(b_.end(), p, p + n); }

    // Returns false at the first difference (and says where).
    bool compare(const std::string &what) {
        const size_t n = std::min(a_.size(), b_.size());
        for (size_t i = 0; i < n; ++i)
            if (a_[i] != b_[i]) {
                ADD_FAILURE() << what << ": outputs differ at sample " << (matched_ + i) << ": " << a_[i]
                              << " vs " << b_[i];
                return false;
            }
        a_.erase(a_.begin(), a_.begin() + static_cast<std::ptrdiff_t>(n));
        b_.erase(b_.begin(), b_.begin() + static_cast<std::ptrdiff_t>(n));
        matched_ += n;
        return true;
    }
    uint64_t matched() const { return matched_; }

private:
    std::vector<int16_t> a_, b_;
    uint64_t matched_ = 0;
};

}  // namespace rsmpl_test::soak
