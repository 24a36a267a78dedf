// The sinc interpolator against speexdsp's resampler (quality 3, its int16
// API), on the same mono noise, in the same process and the same rounds:
// each round converts the noise once with each, back to back, so a busy
// moment on a shared machine hits both alike. Ours takes 480-sample input
// blocks through RSMPL_Resample, speexdsp 10 ms blocks. Thread CPU time per
// output sample; the ratio (speexdsp's time over ours) is taken per round,
// then the median over rounds.
//
//   sinc_vs_speex [--rounds N] [--seconds S] [--pair IN:OUT]
//   (default 9 rounds of 10 s, the four pairs below)
#include <speex/speex_resampler.h>

#include <algorithm>
#include <iterator>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <vector>

#include "bench/engine.hpp"
#include <rsmpl/rsmpl.h>

namespace {

struct Pair {
    uint32_t in, out;
};
const Pair kPairs[] = {{44100, 48000}, {48000, 44100}, {16000, 48000}, {48000, 16000}};

double thread_seconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

struct Result {
    double ns_per_out;
    uint64_t outputs;
};

Result run_ours(const Pair &p, const std::vector<int16_t> &noise) {
    struct alignas(16) Ctx {
        unsigned char bytes[RSMPL_CONTEXT_SIZE];
    } ctx;
    auto *c = reinterpret_cast<RSMPL_Ctx *>(ctx.bytes);
    RSMPL_InitContext(c);
    RSMPL_SetResampleRatio(c, nullptr, nullptr, nullptr, static_cast<float>(p.out) / static_cast<float>(p.in));
    std::vector<int16_t> out(480 * 8 + 64);
    uint64_t total = 0;
    const double t0 = thread_seconds();
    for (size_t at = 0; at + 480 <= noise.size(); at += 480) {
        uint32_t produced = 0;
        if (RSMPL_Resample(c, noise.data() + at, out.data(), 480, &produced) != RSMPL_OK) {
            std::fprintf(stderr, "sinc_vs_speex: RSMPL_Resample refused a block\n");
            std::exit(1);
        }
        total += produced;
    }
    return {1e9 * (thread_seconds() - t0) / static_cast<double>(total), total};
}

Result run_speex(const Pair &p, const std::vector<int16_t> &noise) {
    int err = 0;
    SpeexResamplerState *s = speex_resampler_init(1, p.in, p.out, 3, &err);
    if (s == nullptr || err != RESAMPLER_ERR_SUCCESS) {
        std::fprintf(stderr, "sinc_vs_speex: speex_resampler_init failed\n");
        std::exit(1);
    }
    speex_resampler_skip_zeros(s);
    const uint32_t block = p.in / 100;
    std::vector<int16_t> out(block * 8 + 64);
    uint64_t total = 0;
    const double t0 = thread_seconds();
    for (size_t at = 0; at + block <= noise.size(); at += block) {
        spx_uint32_t in_len = block, out_len = static_cast<spx_uint32_t>(out.size());
        speex_resampler_process_int(s, 0, noise.data() + at, &in_len, out.data(), &out_len);
        total += out_len;
    }
    const double t = thread_seconds() - t0;
    speex_resampler_destroy(s);
    return {1e9 * t / static_cast<double>(total), total};
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

}  // namespace

int main(int argc, char **argv) {
    int rounds = 9;
    double seconds = 10.0;
    std::vector<Pair> pairs(std::begin(kPairs), std::end(kPairs));
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) {
            rounds = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
            seconds = std::atof(argv[++i]);
        } else if (Pair p{}; std::strcmp(argv[i], "--pair") == 0 && i + 1 < argc &&
                   std::sscanf(argv[++i], "%u:%u", &p.in, &p.out) == 2 && p.in >= 100 && p.out >= 100 &&
                   p.out <= 8 * p.in && 8 * p.out >= p.in) {
            pairs = {p};
        } else {
            std::fprintf(stderr, "usage: sinc_vs_speex [--rounds N] [--seconds S] [--pair IN:OUT]\n");
            return 2;
        }
    }
    if (rounds < 1 || !(seconds > 0.0)) {
        std::fprintf(stderr, "sinc_vs_speex: rounds and seconds must be positive\n");
        return 2;
    }
    std::printf("Engine: %s. %d rounds of %.3g s of mono noise per pair; median ns per output sample.\n\n",
                BenchEngineName(), rounds, seconds);
    std::printf("| pair | ours (ns/out) | speexdsp q3 (ns/out) | speexdsp / ours |\n|---|---|---|---|\n");
    for (const Pair &p : pairs) {
        std::mt19937 rng(p.in + p.out);
        std::uniform_int_distribution<int> d(-32768, 32767);
        std::vector<int16_t> noise(static_cast<size_t>(seconds * p.in));
        for (int16_t &v : noise) v = static_cast<int16_t>(d(rng));
        std::vector<double> ours, speex, ratio;
        for (int r = 0; r < rounds; ++r) {
            const Result a = run_ours(p, noise);
            const Result b = run_speex(p, noise);
            if (a.outputs == 0 || b.outputs == 0) {
                std::fprintf(stderr, "sinc_vs_speex: no output at %u -> %u\n", p.in, p.out);
                return 1;
            }
            ours.push_back(a.ns_per_out);
            speex.push_back(b.ns_per_out);
            ratio.push_back(b.ns_per_out / a.ns_per_out);
        }
        std::printf("| %u -> %u | %.2f | %.2f | %.2fx |\n", p.in, p.out, median(ours), median(speex), median(ratio));
        std::fflush(stdout);
    }
    return 0;
}
