// Helpers shared by the tests of the alsa-lib module and its tools: the FIR
// path computed through the resampler interface, shell commands, WAV files.
#pragma once

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <rsmpl/rsmpl.h>

namespace rsmpl_test {

// What the module's FIR path must produce: the resampler interface, one
// context per channel, fed the given chunks of interleaved frames in order.
// A chunk the stage refuses comes out as silence and is counted.
class FirReference {
public:
    FirReference(unsigned channels, bool up, unsigned factor)
        : ctx_(channels, std::vector<uint8_t>(RSMPL_GetContextSize())), up_(up), factor_(factor) {
        for (auto &c : ctx_) RSMPL_InitContext(reinterpret_cast<RSMPL_Ctx *>(c.data()));
    }
    std::vector<int16_t> run(const std::vector<int16_t> &src, const std::vector<unsigned> &chunks) {
        const size_t channels = ctx_.size();
        const uint32_t index = factor_ == 2 ? RSMPL_STAGE_2 : factor_ == 3 ? RSMPL_STAGE_3 : RSMPL_STAGE_6;
        std::vector<int16_t> out;
        size_t frame = 0;
        for (unsigned chunk : chunks) {
            const size_t produced = up_ ? size_t{chunk} * factor_ : chunk / factor_;
            std::vector<int16_t> block(produced * channels);
            for (size_t c = 0; c < channels; ++c) {
                std::vector<int16_t> in(chunk), res(std::max<size_t>(produced, chunk) + 16);
                for (size_t k = 0; k < chunk; ++k) in[k] = src[(frame + k) * channels + c];
                auto *cx = reinterpret_cast<RSMPL_Ctx *>(ctx_[c].data());
                const auto n = static_cast<int32_t>(chunk);
                if ((up_ ? RSMPL_Up(cx, in.data(), res.data(), n, index)
                         : RSMPL_Down(cx, in.data(), res.data(), n, index)) != RSMPL_OK) {
                    std::fill(res.begin(), res.end(), int16_t{0});
                    ++refused;
                }
                for (size_t k = 0; k < produced; ++k) block[k * channels + c] = res[k];
            }
            out.insert(out.end(), block.begin(), block.end());
            frame += chunk;
        }
        return out;
    }
    // Whole periods of `period` frames; a partial last period is left out.
    std::vector<int16_t> periods(const std::vector<int16_t> &src, unsigned period) {
        return run(src, std::vector<unsigned>(src.size() / ctx_.size() / period, period));
    }
    int refused = 0;

private:
    std::vector<std::vector<uint8_t>> ctx_;
    bool up_;
    unsigned factor_;
};

// One stream: each channel's whole input through its stage in blocks the
// stage accepts (960 input frames down, a multiple of every block rule; 960
// output frames up), then the admissible rest, as if the host's periods had
// never cut it. A rest too short for an up stage joins the block before it.
inline std::vector<int16_t> one_stream_reference(unsigned channels, bool up, unsigned factor,
                                                 const std::vector<int16_t> &in, int *refused = nullptr) {
    const unsigned multiple = up ? 1 : (factor == 2 ? 4 : 6);
    const unsigned block = up ? 960 / factor : 960;
    const size_t frames = in.size() / channels;
    std::vector<unsigned> chunks(frames / block, block);
    if (const unsigned rest = static_cast<unsigned>(frames % block) / multiple * multiple; rest > 0) {
        if (up && rest < 6 && !chunks.empty())
            chunks.back() += rest;
        else
            chunks.push_back(rest);
    }
    FirReference ref(channels, up, factor);
    auto out = ref.run(in, chunks);
    if (refused != nullptr) *refused = ref.refused;
    return out;
}

// Least-squares fit of a * cos(w j) + b * sin(w j) + d to one channel from
// frame `from` on; returns the largest residual and the fitted amplitude.
struct SineFit {
    double amplitude = 0, worst = 0;
};

inline SineFit fit_sine(const std::vector<int16_t> &s, unsigned channels, unsigned c, size_t from, double w) {
    const size_t frames = s.size() / channels;
    double m[3][4] = {};
    for (size_t j = from; j < frames; ++j) {
        const double v[3] = {std::cos(w * j), std::sin(w * j), 1.0}, y = s[j * channels + c];
        for (int r = 0; r < 3; ++r) {
            for (int k = 0; k < 3; ++k) m[r][k] += v[r] * v[k];
            m[r][3] += v[r] * y;
        }
    }
    for (int p = 0; p < 3; ++p)  // Gauss-Jordan on the 3 x 3 normal equations
        for (int r = 0; r < 3; ++r)
            if (r != p) {
                const double f = m[r][p] / m[p][p];
                for (int k = 0; k < 4; ++k) m[r][k] -= f * m[p][k];
            }
    const double a = m[0][3] / m[0][0], b = m[1][3] / m[1][1], d = m[2][3] / m[2][2];
    SineFit f;
    f.amplitude = std::hypot(a, b);
    for (size_t j = from; j < frames; ++j)
        f.worst = std::max(f.worst, std::abs(s[j * channels + c] - (a * std::cos(w * j) + b * std::sin(w * j) + d)));
    return f;
}

struct Cmd {
    int status = -1;
    std::string output;  // stdout and stderr together
};

inline Cmd sh(const std::string &cmd) {
    Cmd r;
    FILE *p = popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) r.output.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

// A canonical PCM WAV; with 24 bits every sample is the 16-bit value shifted up.
inline void write_wav(const std::string &path, unsigned rate, unsigned channels, unsigned bits,
                      const std::vector<int16_t> &s) {
    std::ofstream f(path, std::ios::binary);
    auto put = [&](uint32_t v, int bytes) {
        for (int i = 0; i < bytes; ++i) f.put(static_cast<char>(v >> (8 * i)));
    };
    const uint32_t bytes = static_cast<uint32_t>(s.size() * bits / 8);
    f.write("RIFF", 4);
    put(36 + bytes, 4);
    f.write("WAVEfmt ", 8);
    put(16, 4), put(1, 2), put(channels, 2), put(rate, 4), put(rate * channels * bits / 8, 4);
    put(channels * bits / 8, 2), put(bits, 2);
    f.write("data", 4);
    put(bytes, 4);
    for (int16_t v : s) put(static_cast<uint32_t>(static_cast<uint16_t>(v)) << (bits - 16), bits / 8);
}

}  // namespace rsmpl_test
