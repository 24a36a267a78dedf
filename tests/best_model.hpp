// A plain model of what converter "rsmplrate_best" must deliver, built from
// the RSMPL interface called directly: per channel one context, whole
// streams, and the stream rule the README states (output FIFO with a
// prefill, FIR carry, sinc blocks of at most 1440 frames with the ratio trim
// after every call). Fed one call at a time, it returns the frames the call
// must write.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <rsmpl/rsmpl.h>

namespace rsmpl_test::best {

enum class Path { Copy, Up, Down, Sinc };

struct Stage {
    uint32_t num, den, index, quantum, min_block;
};

// The stages for an exact ratio out:in, from the RSMPL block rules.
inline bool fir_stage(unsigned in, unsigned out, Stage &s) {
    const Stage up[] = {{2, 1, 1, 1, 4}, {3, 1, 2, 1, 6}, {4, 1, 3, 1, 4}, {6, 1, 4, 1, 6}, {3, 2, 0, 2, 6}};
    const Stage down[] = {{1, 2, 1, 4, 8}, {1, 3, 2, 6, 18}, {1, 4, 3, 4, 16}, {1, 6, 4, 6, 36}, {2, 3, 0, 6, 18}};
    for (const Stage &c : in < out ? up : down)
        if (uint64_t(in) * c.num == uint64_t(out) * c.den) return s = c, true;
    return false;
}

class Model {
public:
    Model(unsigned in_rate, unsigned out_rate, unsigned channels, uint64_t in_period, uint64_t out_period)
        : channels_(channels), pin_(in_period), pout_(out_period), ctx_(channels) {
        for (auto &c : ctx_) {
            c.resize(RSMPL_GetContextSize());
            RSMPL_InitContext(ctx());
        }
        const bool exact = out_period * in_rate == in_period * out_rate;
        if (in_rate == out_rate && exact) {
            path_ = Path::Copy;
        } else if (exact && fir_stage(in_rate, out_rate, stage_)) {
            path_ = in_rate < out_rate ? Path::Up : Path::Down;
        } else {
            path_ = Path::Sinc;
        }
        const char *dir = in_rate < out_rate ? "UP" : "DOWN";
        const std::string rates = std::to_string(in_rate) + " -> " + std::to_string(out_rate);
        dump_ = path_ == Path::Copy ? "Copy, " + rates
                : path_ == Path::Sinc ? std::string("Sinc, ") + dir + " " + rates
                                      : std::string("FIR filter, ") + dir + " " + rates;
        if (path_ == Path::Sinc) setup_sinc();
        size_t prefill = 0;
        if (path_ == Path::Up || path_ == Path::Down) prefill = fir_prefill();
        if (path_ == Path::Sinc) prefill = 2;
        prefill_ = prefill;
        fifo_.assign(prefill * channels, 0);
    }

    Path path() const { return path_; }
    const std::string &dump() const { return dump_; }
    size_t prefill() const { return prefill_; }

    // One call of n input frames and m output frames.
    std::vector<int16_t> call(const int16_t *in, size_t n, size_t m) {
        switch (path_) {
        case Path::Copy: fifo_.insert(fifo_.end(), in, in + n * channels_); break;
        case Path::Up:
        case Path::Down: fir(in, n); break;
        case Path::Sinc: sinc(in, n); break;
        }
        std::vector<int16_t> out(m * channels_, 0);
        const size_t have = std::min(fifo_.size(), out.size());
        std::copy(fifo_.begin(), fifo_.begin() + long(have), out.begin());
        fifo_.erase(fifo_.begin(), fifo_.begin() + long(have));
        return out;
    }

private:
    RSMPL_Ctx *ctx(size_t c = 0) { return reinterpret_cast<RSMPL_Ctx *>(ctx_[c].data()); }

    std::vector<int16_t> channel(const int16_t *in, size_t n, size_t c) const {
        std::vector<int16_t> v(n);
        for (size_t k = 0; k < n; ++k) v[k] = in[k * channels_ + c];
        return v;
    }
    void append(const std::vector<std::vector<int16_t>> &outs) {
        for (size_t k = 0; k < outs[0].size(); ++k)
            for (size_t c = 0; c < channels_; ++c) fifo_.push_back(outs[c][k]);
    }

    // The FIR stages are block-split invariant: one call per runnable stretch.
    void fir(const int16_t *in, size_t n) {
        carry_.insert(carry_.end(), in, in + n * channels_);
        const size_t avail = carry_.size() / channels_;
        size_t run = avail - avail % stage_.quantum;
        if (run < stage_.min_block) run = 0;
        if (run == 0) return;
        std::vector<std::vector<int16_t>> outs(channels_);
        for (size_t c = 0; c < channels_; ++c) {
            std::vector<int16_t> x = channel(carry_.data(), run, c);
            // Blocks the stage accepts whatever the length of the stretch.
            for (size_t done = 0; done < run;) {
                size_t b = run - done;
                const size_t most = path_ == Path::Up ? 1440 / stage_.num * stage_.den / 12 * 12 : 1440;
                if (b > most) b = (b - most >= stage_.min_block) ? most : most - stage_.min_block;
                std::vector<int16_t> y(b * stage_.num / stage_.den);
                const uint32_t st = path_ == Path::Up
                                        ? RSMPL_Up(ctx(c), x.data() + done, y.data(), int32_t(b), stage_.index)
                                        : RSMPL_Down(ctx(c), x.data() + done, y.data(), int32_t(b), stage_.index);
                if (st != RSMPL_OK) std::abort();
                outs[c].insert(outs[c].end(), y.begin(), y.end());
                done += b;
            }
        }
        carry_.erase(carry_.begin(), carry_.begin() + long(run * channels_));
        append(outs);
    }
    size_t fir_prefill() const {
        size_t carry = 0, most = 0;
        for (int i = 0; i < 128; ++i) {
            const size_t avail = carry + pin_;
            size_t run = avail - avail % stage_.quantum;
            if (run < stage_.min_block) run = 0;
            carry = avail - run;
            most = std::max(most, carry);
        }
        return (most * stage_.num + stage_.den - 1) / stage_.den;
    }

    static uint32_t half(RSMPL_Ctx *c, float r) {
        uint32_t h = 0;
        RSMPL_Reset(c);
        RSMPL_SetResampleRatio(c, nullptr, nullptr, nullptr, r);
        RSMPL_GetResampleDelay(c, &h);
        return h;
    }
    void setup_sinc() {
        const double r = double(pout_) / double(pin_);
        float cand[5];
        uint32_t h[5];
        for (int k = 0; k < 5; ++k) {
            cand[k] = float(r * (1.0 + (k - 2) / 524288.0));
            h[k] = half(ctx(), cand[k]);
        }
        int first = 1;
        if (h[1] != h[2] || h[3] != h[2]) first = (h[0] == h[1] && h[1] == h[2]) ? 0 : 2;
        for (int k = 0; k < 3; ++k) ratios_[k] = cand[first + k];
        for (size_t c = 0; c < channels_; ++c) {
            RSMPL_Reset(ctx(c));
            uint32_t min_input = 0, out = 0;
            RSMPL_SetResampleRatio(ctx(c), &min_input, nullptr, nullptr, ratios_[1]);
            std::vector<int16_t> zeros(min_input), junk(1440 * 8 + 2);
            RSMPL_Resample(ctx(c), zeros.data(), junk.data(), int32_t(min_input), &out);
        }
    }
    void sinc(const int16_t *in, size_t n) {
        uint64_t produced = 0;
        for (size_t done = 0; done < n;) {
            const size_t b = std::min<size_t>(1440, n - done);
            std::vector<std::vector<int16_t>> outs(channels_);
            for (size_t c = 0; c < channels_; ++c) {
                std::vector<int16_t> x = channel(in + done * channels_, b, c);
                std::vector<int16_t> y(1440 * 8 + 2);
                uint32_t k = 0;
                if (RSMPL_Resample(ctx(c), x.data(), y.data(), int32_t(b), &k) != RSMPL_OK) std::abort();
                y.resize(k);
                outs[c] = y;
            }
            produced += outs[0].size();
            append(outs);
            done += b;
        }
        error_ += int64_t(produced * pin_) - int64_t(n * pout_);
        const int mode = error_ < 0 ? 2 : error_ >= int64_t(pin_) ? 0 : 1;
        if (mode != mode_) {
            mode_ = mode;
            for (size_t c = 0; c < channels_; ++c)
                RSMPL_SetResampleRatio(ctx(c), nullptr, nullptr, nullptr, ratios_[mode]);
        }
    }

    size_t channels_;
    uint64_t pin_, pout_;
    std::vector<std::vector<uint8_t>> ctx_;
    Path path_ = Path::Copy;
    Stage stage_{};
    std::string dump_;
    size_t prefill_ = 0;
    std::deque<int16_t> fifo_;
    std::vector<int16_t> carry_;
    float ratios_[3] = {};
    int mode_ = 1;
    int64_t error_ = 0;
};

}  // namespace rsmpl_test::best
