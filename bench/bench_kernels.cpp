// Throughput of every FIR kernel and stage wrapper, the sinc interpolator and
// the plug-in's conversion, per block length: 1 (or the smallest block the
// function accepts), an odd length, 480 and 1440 (or the function's largest).
//
// Counters, all per output sample (mono):
//   items_per_second  mono output samples per second of CPU time
//   ns/out            nanoseconds of CPU time per output sample
//   ticks/out         time-stamp counter ticks per output sample, the median
//                     of short batches of calls (see CycleSourceName and
//                     TickBatches: reference ticks, not core cycles)
//   MAC/out           (kernels) 16x16-bit multiply-accumulates per output
//
// The Calib/* runs measure, in the same tick unit, what this machine's vector
// unit retires at its best (independent pmaddwd / vpdpwssd chains) and how
// fast the core clock runs against the tick, so the report can put each FIR
// kernel beside its arithmetic ceiling.
//
// --markdown=PATH writes the results as the tables of docs/performance.md.
// --strict makes a benchmark that could not run fail the program (for the
// smoke test); figures never do.
#include <benchmark/benchmark.h>

#include <alsa/asoundlib.h>
#include <alsa/pcm_rate.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#include <x86intrin.h>
#endif

#include "engine.hpp"
#include "harness/alsa_harness.hpp"
#include <rsmpl/rsmpl.h>

#ifndef RSMPL_MODULE_PATH
#define RSMPL_MODULE_PATH ""
#endif

namespace {

// ---- Cycle source -----------------------------------------------------------

inline uint64_t ReadTicks() {
#if defined(__x86_64__) || defined(__i386__)
    return __rdtsc();
#elif defined(__aarch64__)
    uint64_t v;
    asm volatile("isb; mrs %0, cntvct_el0" : "=r"(v));
    return v;
#else
    return 0;
#endif
}

const char *CycleSourceName() {
#if defined(__x86_64__) || defined(__i386__)
    return "rdtsc (time-stamp counter: constant-rate reference ticks, not core clock cycles)";
#elif defined(__aarch64__)
    return "cntvct_el0 (generic timer: constant-rate ticks, far slower than the core clock)";
#else
    return "none (cyc/out reads 0)";
#endif
}

// Tick rate against the steady clock, over about 100 ms.
double TicksPerSecond() {
    static const double rate = [] {
        const auto t0 = std::chrono::steady_clock::now();
        const uint64_t c0 = ReadTicks();
        while (std::chrono::steady_clock::now() - t0 < std::chrono::milliseconds(100)) {
        }
        const uint64_t c1 = ReadTicks();
        const std::chrono::duration<double> dt = std::chrono::steady_clock::now() - t0;
        return static_cast<double>(c1 - c0) / dt.count();
    }();
    return rate;
}

// ---- Shared plumbing --------------------------------------------------------

std::vector<int16_t> RandomSamples(size_t n, uint32_t seed) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> dist(-20000, 20000);
    std::vector<int16_t> v(n);
    for (int16_t &s : v) s = static_cast<int16_t>(dist(gen));
    return v;
}

struct alignas(16) Context {
    unsigned char bytes[RSMPL_CONTEXT_SIZE];
    RSMPL_Ctx *get() { return reinterpret_cast<RSMPL_Ctx *>(bytes); }
};

// Tick counts of short batches of iterations. On a shared machine the wall
// time of a long run includes whatever else ran on the core; a batch of a
// microsecond or two rarely does, so the median batch shows the undisturbed
// cost in ticks.
class TickBatches {
public:
    explicit TickBatches(int64_t every) : every_(std::max<int64_t>(1, every)) { deltas_.reserve(1 << 16); }
    void Start() { last_ = ReadTicks(); }
    void Step() {
        if (++n_ < every_) return;
        n_ = 0;
        const uint64_t now = ReadTicks();
        deltas_.push_back(now - last_);
        last_ = now;
    }
    // Median ticks per iteration; 0 when no batch completed.
    double PerIteration() {
        if (deltas_.empty()) return 0;
        auto mid = deltas_.begin() + static_cast<std::ptrdiff_t>(deltas_.size() / 2);
        std::nth_element(deltas_.begin(), mid, deltas_.end());
        return static_cast<double>(*mid) / static_cast<double>(every_);
    }

private:
    int64_t every_;
    int64_t n_ = 0;
    uint64_t last_ = 0;
    std::vector<uint64_t> deltas_;
};

// Iterations per batch so that a batch lasts about 4000 ticks.
template <typename Call>
int64_t BatchSize(Call &call) {
    call();
    const uint64_t t0 = ReadTicks();
    for (int i = 0; i < 8; ++i) call();
    const uint64_t per_call = std::max<uint64_t>(1, (ReadTicks() - t0) / 8);
    return static_cast<int64_t>(std::max<uint64_t>(1, 4000 / per_call));
}

// Runs `call` (which returns the outputs it produced) in the timed loop and
// sets the per-output counters.
template <typename Call>
void Measure(benchmark::State &state, Call call, double macs_per_output = 0) {
    uint64_t outputs = 0;
    TickBatches ticks(BatchSize(call));
    ticks.Start();
    for (auto _ : state) {
        outputs += call();
        benchmark::ClobberMemory();
        ticks.Step();
    }
    if (outputs == 0) {
        state.SkipWithError("no output produced");
        return;
    }
    const double out = static_cast<double>(outputs);
    const double per_call = out / static_cast<double>(state.iterations());
    state.SetItemsProcessed(static_cast<int64_t>(outputs));
    state.counters["ns/out"] = benchmark::Counter(out / 1e9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["ticks/out"] = ticks.PerIteration() / per_call;
    state.counters["out/call"] = per_call;
    if (macs_per_output > 0) state.counters["MAC/out"] = macs_per_output;
}

// The four block lengths, as input samples per call, for a function that
// accepts lengths lo..hi in steps of `step` (hi 0: unbounded).
struct Lengths {
    int32_t v[4];
    const char *kind[4];
};

Lengths BlockLengths(int32_t lo, int32_t hi, int32_t step) {
    auto fit = [&](int32_t n) {
        n = (n / step) * step;
        n = std::max(n, lo);
        if (hi > 0) n = std::min(n, hi);
        return n;
    };
    // The odd length is 37 steps: an odd number of input groups, prime, so
    // that no unrolled loop divides it evenly.
    return Lengths{{fit(1), fit(37 * step), fit(480), fit(1440)}, {"min", "odd", "480", "1440"}};
}

std::string LengthName(const char *kind, int32_t n) {
    return std::string(kind) + ":" + std::to_string(n);
}

// ---- FIR kernels and stage wrappers ----------------------------------------

using KernelFn = void (*)(const int16_t *, int16_t *, int32_t);
using WrapperFn = void (*)(const int16_t *, int16_t *, RSMPL_Ctx *, int32_t);

struct Stage {
    const char *wrapper_name;
    WrapperFn wrapper;
    const char *kernel_name;
    KernelFn kernel;
    bool up;
    int32_t history;       // H: staged samples before the block
    int32_t out_num;       // outputs per input group
    int32_t group;         // inputs per group
    int32_t macs;          // non-zero taps per output
    int32_t wrap_lo, wrap_hi, wrap_step;  // block lengths RSMPL_Up/RSMPL_Down accept
};

const Stage kStages[] = {
    {"Upsample3_2", Upsample3_2, "UpsampleFIR2To3", UpsampleFIR2To3, true, 15, 3, 2, 15, 6, 960, 1},
    {"Upsample2_1", Upsample2_1, "UpsampleFIR1To2", UpsampleFIR1To2, true, 35, 2, 1, 36, 4, 720, 1},
    {"Upsample3_1", Upsample3_1, "UpsampleFIR1To3", UpsampleFIR1To3, true, 15, 3, 1, 16, 6, 480, 1},
    {"Upsample4_1", Upsample4_1, "UpsampleFIR1To4", UpsampleFIR1To4, true, 15, 4, 1, 16, 4, 360, 1},
    {"Upsample6_1", Upsample6_1, "UpsampleFIR1To6", UpsampleFIR1To6, true, 15, 6, 1, 16, 6, 240, 1},
    {"Downsample2_3", Downsample2_3, "DownsampleFIR3To2", DownsampleFIR3To2, false, 14, 2, 3, 15, 18, 0, 6},
    {"Downsample1_2", Downsample1_2, "DownsampleFIR2To1", DownsampleFIR2To1, false, 70, 1, 2, 72, 8, 0, 4},
    {"Downsample1_3", Downsample1_3, "DownsampleFIR3To1", DownsampleFIR3To1, false, 45, 1, 3, 48, 18, 0, 6},
    {"Downsample1_4", Downsample1_4, "DownsampleFIR4To1", DownsampleFIR4To1, false, 60, 1, 4, 64, 16, 0, 4},
    {"Downsample1_6", Downsample1_6, "DownsampleFIR6To1", DownsampleFIR6To1, false, 90, 1, 6, 96, 36, 0, 6},
};

int32_t Outputs(const Stage &s, int32_t n) { return (n / s.group) * s.out_num; }

void RegisterStages() {
    for (const Stage &s : kStages) {
        // Kernels accept any count; the smallest that yields output is one
        // input group. The largest keeps the output within 1440 samples for
        // up-kernels (as the wrappers do) and is 1440 inputs for down-kernels.
        const int32_t kmax = s.up ? 1440 / s.out_num * s.group : 0;
        const Lengths kl = BlockLengths(s.group, kmax, 1);
        for (int i = 0; i < 4; ++i) {
            const int32_t n = kl.v[i];
            const std::string name = std::string("Kernel/") + s.kernel_name + "/" + LengthName(kl.kind[i], n);
            benchmark::RegisterBenchmark(name.c_str(), [&s, n](benchmark::State &state) {
                const std::vector<int16_t> x = RandomSamples(static_cast<size_t>(s.history + n), 1);
                std::vector<int16_t> out(static_cast<size_t>(Outputs(s, n)) + 16);
                const int32_t produced = Outputs(s, n);
                Measure(state, [&] {
                    s.kernel(x.data(), out.data(), n);
                    return produced;
                }, s.macs);
            });
        }
        // Wrappers in place, the way the plug-in drives them: the buffer
        // holds the block on entry and the output on return.
        const Lengths wl = BlockLengths(s.wrap_lo, s.wrap_hi, s.wrap_step);
        for (int i = 0; i < 4; ++i) {
            const int32_t n = wl.v[i];
            const std::string name = std::string("Stage/") + s.wrapper_name + "/" + LengthName(wl.kind[i], n);
            benchmark::RegisterBenchmark(name.c_str(), [&s, n](benchmark::State &state) {
                Context ctx;
                RSMPL_InitContext(ctx.get());
                const std::vector<int16_t> block = RandomSamples(static_cast<size_t>(n), 2);
                // Room for the output and the 3:2 stage's scratch.
                std::vector<int16_t> buf(static_cast<size_t>(std::max(Outputs(s, n), n / 2 + n)) + 16);
                const int32_t produced = Outputs(s, n);
                Measure(state, [&] {
                    std::memcpy(buf.data(), block.data(), sizeof(int16_t) * static_cast<size_t>(n));
                    s.wrapper(buf.data(), buf.data(), ctx.get(), n);
                    return produced;
                });
            });
        }
    }
}

// ---- Sinc interpolator ------------------------------------------------------

struct SincRatio {
    const char *label;
    float ratio;
};

const SincRatio kSincRatios[] = {
    {"0.125", 0.125f}, {"0.3333", 1.0f / 3.0f}, {"0.91875", 44100.0f / 48000.0f}, {"1", 1.0f},
    {"1.08844", 48000.0f / 44100.0f}, {"3", 3.0f}, {"8", 8.0f},
};

void RegisterSinc() {
    for (const SincRatio &r : kSincRatios) {
        // Below ratio 1 a block of fewer than 1/ratio inputs is not due an
        // output, but the interpolator always yields one: start at 1/ratio.
        const int32_t lo = std::max<int32_t>(1, static_cast<int32_t>(std::ceil(1.0 / r.ratio)));
        const Lengths l = BlockLengths(lo, 1440, 1);
        for (int i = 0; i < 4; ++i) {
            const int32_t want = l.v[i];
            const std::string name = std::string("Sinc/RSMPL_Resample/ratio:") + r.label + "/" +
                                     LengthName(l.kind[i], want);
            benchmark::RegisterBenchmark(name.c_str(), [r, want](benchmark::State &state) {
                Context ctx;
                RSMPL_InitContext(ctx.get());
                uint32_t min_in = 0, max_in = 0, extra = 0;
                RSMPL_SetResampleRatio(ctx.get(), &min_in, &max_in, &extra, r.ratio);
                const std::vector<int16_t> in = RandomSamples(1440, 3);
                std::vector<int16_t> out(1440 * 8 + 256);
                uint32_t produced = 0;
                // The first block at a new ratio brings at least min_in.
                RSMPL_Resample(ctx.get(), in.data(), out.data(), static_cast<int32_t>(std::max<uint32_t>(min_in, 480)),
                               &produced);
                // The longest block the interface takes at this ratio may be
                // shorter than asked for (the delay line must fit the context).
                int32_t n = want;
                while (n > 1 && RSMPL_Resample(ctx.get(), in.data(), out.data(), n, &produced) != RSMPL_OK) --n;
                if (n != want) state.SetLabel("block clamped to " + std::to_string(n));
                Measure(state, [&] {
                    RSMPL_Resample(ctx.get(), in.data(), out.data(), n, &produced);
                    return produced;
                });
            });
        }
    }
}

// ---- The plug-in's conversion, through the built module ----------------------

struct Module {
    snd_pcm_rate_open_func_t open = nullptr;
    std::string error;
};

const Module &LoadModule() {
    static const Module m = [] {
        static rsmpl_harness::Module module(RSMPL_MODULE_PATH);
        Module mod;
        mod.open = module.entry("rsmplrate");
        if (mod.open == nullptr) mod.error = module.error();
        return mod;
    }();
    return m;
}

struct PluginPair {
    const char *label;
    unsigned in, out;
    int32_t lo, step;  // input frames per period the path accepts
};

// The end-to-end rate pairs; the minimum and step follow the path init picks.
const PluginPair kPluginPairs[] = {
    {"16k-48k", 16000, 48000, 6, 1},  {"48k-16k", 48000, 16000, 18, 6}, {"8k-48k", 8000, 48000, 6, 1},
    {"48k-8k", 48000, 8000, 36, 6},   {"24k-48k", 24000, 48000, 4, 1},  {"44.1k-48k", 44100, 48000, 1, 1},
    {"8k-32k", 8000, 32000, 1, 1},
};
constexpr unsigned kPluginChannels = 2;

void RunPlugin(benchmark::State &state, const PluginPair &p, int32_t frames) {
    const Module &mod = LoadModule();
    if (mod.open == nullptr) {
        state.SkipWithError(("cannot load " RSMPL_MODULE_PATH ": " + mod.error).c_str());
        return;
    }
    snd_pcm_rate_ops_t ops{};
    void *obj = nullptr;
    if (mod.open(SND_PCM_RATE_PLUGIN_VERSION, &obj, &ops) < 0 || ops.init == nullptr || ops.convert_s16 == nullptr) {
        state.SkipWithError("open failed");
        return;
    }
    snd_pcm_rate_info_t info{};
    info.in.format = info.out.format = SND_PCM_FORMAT_S16_LE;
    info.in.rate = p.in;
    info.out.rate = p.out;
    info.channels = kPluginChannels;
    int err = ops.init(obj, &info);
    // The host negotiates period sizes in the converter's own ratio.
    const auto dst_frames = static_cast<unsigned>(ops.output_frames ? ops.output_frames(obj, frames) : 0);
    info.in.period_size = static_cast<snd_pcm_uframes_t>(frames);
    info.out.period_size = dst_frames;
    info.in.buffer_size = info.in.period_size * 4;
    info.out.buffer_size = info.out.period_size * 4;
    if (err >= 0 && ops.adjust_pitch) err = ops.adjust_pitch(obj, &info);
    if (err < 0 || dst_frames == 0) {
        state.SkipWithError(("init/adjust_pitch failed: " + std::to_string(err)).c_str());
    } else {
        if (ops.reset) ops.reset(obj);
        const std::vector<int16_t> src = RandomSamples(static_cast<size_t>(frames) * kPluginChannels, 4);
        std::vector<int16_t> dst(static_cast<size_t>(dst_frames) * kPluginChannels + 64);
        const uint64_t produced = static_cast<uint64_t>(dst_frames) * kPluginChannels;
        Measure(state, [&] {
            ops.convert_s16(obj, dst.data(), dst_frames, src.data(), static_cast<unsigned>(frames));
            return produced;
        });
    }
    if (ops.free) ops.free(obj);
    if (ops.close) ops.close(obj);
}

void RegisterPlugin() {
    for (const PluginPair &p : kPluginPairs) {
        const Lengths l = BlockLengths(p.lo, 0, p.step);
        for (int i = 0; i < 4; ++i) {
            const int32_t n = l.v[i];
            const std::string name = std::string("Plugin/convert_s16/") + p.label + "/" + LengthName(l.kind[i], n);
            benchmark::RegisterBenchmark(name.c_str(), [&p, n](benchmark::State &state) { RunPlugin(state, p, n); });
        }
    }
}

// ---- Calibration: core clock and vector multiply-accumulate peak ------------

// A chain of dependent one-cycle adds advances one add per core cycle, so
// adds per tick is the core clock over the tick rate.
void CalibDependentAdd(benchmark::State &state) {
    uint64_t x = 0;
    constexpr uint64_t kAdds = 4000;
    TickBatches ticks(1);
    ticks.Start();
    for (auto _ : state) {
#if defined(__x86_64__)
        asm volatile(".rept 4000\n\taddq $1, %0\n\t.endr" : "+r"(x));
#elif defined(__aarch64__)
        asm volatile(".rept 4000\n\tadd %0, %0, #1\n\t.endr" : "+r"(x));
#else
        for (uint64_t i = 0; i < kAdds; ++i) benchmark::DoNotOptimize(x += 1);
#endif
        ticks.Step();
    }
    const double cycles_per_tick = kAdds / ticks.PerIteration();
    state.counters["cycles/tick"] = cycles_per_tick;
    state.counters["core_GHz"] = cycles_per_tick * TicksPerSecond() / 1e9;
}

#if defined(__x86_64__)
// Independent multiply-accumulate chains: each step multiplies 16-bit pairs,
// adds adjacent products (pmaddwd) and accumulates into 32 bits. The empty asm
// makes the compiler treat the multiplicands as new every step, so nothing is
// hoisted or shared. MACs per tick = 16-bit products per tick. A macro, not a
// template, because each body must be compiled for its own instruction set.
// The chains live in a function of their own, compiled for its instruction
// set, so that nothing in the loop calls out and every accumulator stays in a
// register. Accumulators cross the call through memory, so the callers need
// no vector instruction set of their own.
#define RSMPL_CHAINS(NAME, ATTR, V, SEED, STEP)                                                      \
    ATTR __attribute__((noinline)) void Chains##NAME(void *acc_bytes, int n) {                      \
        V *acc = static_cast<V *>(acc_bytes);                                                       \
        V a0 = SEED, a1 = SEED, a2 = SEED, a3 = SEED, a4 = SEED, a5 = SEED, b = SEED;              \
        V c0 = acc[0], c1 = acc[1], c2 = acc[2], c3 = acc[3], c4 = acc[4], c5 = acc[5];            \
        for (int i = 0; i < n; ++i) {                                                               \
            asm volatile("" : "+x"(a0), "+x"(a1), "+x"(a2), "+x"(a3), "+x"(a4), "+x"(a5), "+x"(b)); \
            c0 = STEP(c0, a0, b);                                                                   \
            c1 = STEP(c1, a1, b);                                                                   \
            c2 = STEP(c2, a2, b);                                                                   \
            c3 = STEP(c3, a3, b);                                                                   \
            c4 = STEP(c4, a4, b);                                                                   \
            c5 = STEP(c5, a5, b);                                                                   \
        }                                                                                           \
        acc[0] = c0, acc[1] = c1, acc[2] = c2, acc[3] = c3, acc[4] = c4, acc[5] = c5;              \
    }

#define RSMPL_MADD128(c, a, b) _mm_add_epi32(c, _mm_madd_epi16(a, b))
#define RSMPL_MADD256(c, a, b) _mm256_add_epi32(c, _mm256_madd_epi16(a, b))
#define RSMPL_MADD512(c, a, b) _mm512_add_epi32(c, _mm512_madd_epi16(a, b))
#define RSMPL_DPWSSD512(c, a, b) _mm512_dpwssd_epi32(c, a, b)

// 128-bit twice: the three-operand VEX form where the processor has it (as
// the target's Advanced SIMD has), the destructive SSE2 form otherwise.
RSMPL_CHAINS(128, __attribute__((target("avx"))), __m128i, _mm_set1_epi16(3), RSMPL_MADD128)
RSMPL_CHAINS(128Sse2, __attribute__((target("sse2"))), __m128i, _mm_set1_epi16(3), RSMPL_MADD128)
RSMPL_CHAINS(256, __attribute__((target("avx2"))), __m256i, _mm256_set1_epi16(3), RSMPL_MADD256)
RSMPL_CHAINS(512, __attribute__((target("avx512f,avx512bw"))), __m512i, _mm512_set1_epi16(3), RSMPL_MADD512)
RSMPL_CHAINS(Vnni, __attribute__((target("avx512f,avx512bw,avx512vnni"))), __m512i, _mm512_set1_epi16(3),
             RSMPL_DPWSSD512)

// MACs per tick of one chain function: six chains of `lanes16` products.
void PeakLoop(benchmark::State &state, void (*chains)(void *, int), int lanes16) {
    alignas(64) unsigned char acc[6 * 64] = {};
    constexpr int kInner = 1024;
    TickBatches ticks(1);
    ticks.Start();
    for (auto _ : state) {
        chains(acc, kInner);
        ticks.Step();
    }
    benchmark::DoNotOptimize(acc);
    state.counters["MAC/tick"] = kInner * 6.0 * lanes16 / ticks.PerIteration();
}

void CalibPmaddwd128(benchmark::State &state) {
    PeakLoop(state, __builtin_cpu_supports("avx") ? Chains128 : Chains128Sse2, 8);
}
void CalibPmaddwd256(benchmark::State &state) { PeakLoop(state, Chains256, 16); }
void CalibPmaddwd512(benchmark::State &state) { PeakLoop(state, Chains512, 32); }
void CalibDpwssd512(benchmark::State &state) { PeakLoop(state, ChainsVnni, 32); }

// Runs a calibration only where the processor has its instructions.
template <void (*Fn)(benchmark::State &)>
void IfSupported(benchmark::State &state, bool supported, const char *missing) {
    if (!supported) {
        state.SkipWithError(missing);
        for (auto _ : state) {
        }
        return;
    }
    Fn(state);
}
#endif

void RegisterCalibration() {
    benchmark::RegisterBenchmark("Calib/dependent_add", CalibDependentAdd);
#if defined(__x86_64__)
    benchmark::RegisterBenchmark("Calib/pmaddwd_128", CalibPmaddwd128);
    benchmark::RegisterBenchmark("Calib/pmaddwd_256", [](benchmark::State &state) {
        IfSupported<CalibPmaddwd256>(state, __builtin_cpu_supports("avx2"), "no AVX2");
    });
    benchmark::RegisterBenchmark("Calib/pmaddwd_512", [](benchmark::State &state) {
        IfSupported<CalibPmaddwd512>(state, __builtin_cpu_supports("avx512bw"), "no AVX-512BW");
    });
    benchmark::RegisterBenchmark("Calib/vpdpwssd_512", [](benchmark::State &state) {
        IfSupported<CalibDpwssd512>(state, __builtin_cpu_supports("avx512vnni"), "no AVX-512 VNNI");
    });
#endif
}

// ---- Markdown report --------------------------------------------------------

struct Result {
    std::map<std::string, double> counters;
    double items_per_second = 0;
    std::string label;
    std::string error;
};

// Shows the usual console output and keeps one result per benchmark: the
// median when repetitions are aggregated, otherwise the single run.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.error_occurred) failures_ = true;
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
            const std::string name = run.run_name.str();
            if (run.run_type == Run::RT_Iteration && medians_.count(name)) continue;
            Result r;
            for (const auto &[key, counter] : run.counters) r.counters[key] = counter.value;
            r.items_per_second = r.counters.count("items_per_second") ? r.counters["items_per_second"] : 0;
            r.label = run.report_label;
            if (run.error_occurred) r.error = run.error_message;
            if (run.run_type == Run::RT_Aggregate) medians_[name] = true;
            if (!results_.count(name)) order_.push_back(name);
            results_[name] = r;
        }
    }
    const std::vector<std::string> &order() const { return order_; }
    bool failures() const { return failures_; }
    const Result *Find(const std::string &name) const {
        auto it = results_.find(name);
        return it == results_.end() ? nullptr : &it->second;
    }

private:
    std::map<std::string, Result> results_;
    std::map<std::string, bool> medians_;
    std::vector<std::string> order_;
    bool failures_ = false;
};

std::string F(const char *fmt, double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, fmt, v);
    return buf;
}

// Splits "Group/function/rest..." at the first two slashes.
void SplitName(const std::string &name, std::string *group, std::string *function, std::string *rest) {
    const size_t a = name.find('/');
    const size_t b = name.find('/', a + 1);
    *group = name.substr(0, a);
    *function = name.substr(a + 1, b - a - 1);
    *rest = b == std::string::npos ? "" : name.substr(b + 1);
}

// "ratio:3/odd:37" -> "ratio 3, odd, n = 37"; a clamped length says so:
// "1440:480" -> "1440, n = 480 (largest accepted)".
std::string CaseText(const std::string &rest) {
    std::string text;
    for (size_t pos = 0; pos < rest.size();) {
        const size_t slash = std::min(rest.find('/', pos), rest.size());
        const std::string part = rest.substr(pos, slash - pos);
        pos = slash + 1;
        const size_t colon = part.find(':');
        if (!text.empty()) text += ", ";
        if (colon == std::string::npos) {
            text += part;
            continue;
        }
        const std::string key = part.substr(0, colon), value = part.substr(colon + 1);
        if (key == "ratio") {
            text += "ratio " + value;
        } else {
            text += key + ", n = " + value;
            if ((key == "480" || key == "1440") && key != value)
                text += std::stoi(value) < std::stoi(key) ? " (largest accepted)" : "";
        }
    }
    return text;
}

void WriteMarkdown(const CollectingReporter &rep, FILE *f) {
    auto counter = [](const Result *r, const char *key) {
        if (r == nullptr) return 0.0;
        auto it = r->counters.find(key);
        return it == r->counters.end() ? 0.0 : it->second;
    };
    const double tick_ghz = TicksPerSecond() / 1e9;
    const Result *clock = rep.Find("Calib/dependent_add");
    const double cycles_per_tick = counter(clock, "cycles/tick");
    std::fprintf(f, "Engine: **%s**. Cycle source: %s, ticking at %.3f GHz.\n\n", BenchEngineName(), CycleSourceName(),
                 tick_ghz);
    if (cycles_per_tick > 0)
        std::fprintf(f,
                     "A chain of dependent one-cycle adds ran %.2f adds per tick, so the core clocked at about "
                     "%.2f GHz while the benchmarks ran: multiply a tick count by %.2f for core cycles.\n\n",
                     cycles_per_tick, cycles_per_tick * tick_ghz, cycles_per_tick);

    // Vector multiply-accumulate peak, measured in ticks.
    struct Peak {
        const char *name;
        const char *what;
        double mac_per_tick;
    };
    std::vector<Peak> peaks;
    const char *calib_names[][2] = {
        {"Calib/pmaddwd_128", "128-bit pmaddwd + paddd (8 lanes of 16 bits, the width of the target's Advanced SIMD; VEX form where available)"},
        {"Calib/pmaddwd_256", "256-bit AVX2 vpmaddwd + vpaddd (16 lanes)"},
        {"Calib/pmaddwd_512", "512-bit AVX-512BW vpmaddwd + vpaddd (32 lanes)"},
        {"Calib/vpdpwssd_512", "512-bit AVX-512 VNNI vpdpwssd (32 lanes, multiply and accumulate in one)"},
    };
    for (auto &c : calib_names) {
        const Result *r = rep.Find(c[0]);
        if (r && r->error.empty() && counter(r, "MAC/tick") > 0) peaks.push_back({c[0] + 6, c[1], counter(r, "MAC/tick")});
    }
    const Peak *narrow = nullptr, *best = nullptr;
    for (const Peak &p : peaks) {
        if (std::strcmp(p.name, "pmaddwd_128") == 0) narrow = &p;
        if (best == nullptr || p.mac_per_tick > best->mac_per_tick) best = &p;
    }
    // The kernels' own ceiling: the vector width of the engine that ran them.
    const Peak *own = best;
    const std::string engine = BenchEngineName();
    for (const Peak &p : peaks)
        if ((engine == "avx2" && std::strcmp(p.name, "pmaddwd_256") == 0) ||
            ((engine == "sse41" || engine == "neon") && std::strcmp(p.name, "pmaddwd_128") == 0))
            own = &p;
    if (!peaks.empty()) {
        std::fprintf(f,
                     "#### Vector multiply-accumulate peak (measured)\n\n"
                     "Six independent chains of 16x16-bit multiply-accumulates into 32-bit lanes, operands in "
                     "registers, no loads or stores: the most this core retires of the arithmetic a FIR kernel "
                     "needs.\n\n| Instruction sequence | MACs per tick |%s\n|---|---:|%s\n",
                     cycles_per_tick > 0 ? " MACs per core cycle |" : "", cycles_per_tick > 0 ? "---:|" : "");
        for (const Peak &p : peaks) {
            std::fprintf(f, "| %s | %.1f |", p.what, p.mac_per_tick);
            if (cycles_per_tick > 0) std::fprintf(f, " %.1f |", p.mac_per_tick / cycles_per_tick);
            std::fprintf(f, "\n");
        }
        std::fprintf(f, "\n");
    }

    // Tables per group.
    const char *groups[][2] = {
        {"Kernel", "FIR kernels (stateless; block = new input samples after the staged history)"},
        {"Stage", "Stage wrappers (in place, history in the context, as the plug-in calls them)"},
        {"Sinc", "Sinc interpolator through RSMPL_Resample"},
        {"Plugin", "Plug-in conversion through the module's operations table (stereo; block = input frames)"},
    };
    for (auto &g : groups) {
        bool header = false;
        for (const std::string &name : rep.order()) {
            std::string group, function, rest;
            SplitName(name, &group, &function, &rest);
            if (group != g[0]) continue;
            const Result *r = rep.Find(name);
            const bool kernel = group == "Kernel";
            if (!header) {
                std::fprintf(f, "#### %s\n\n", g[1]);
                std::fprintf(f, "| Function | Case | Outputs per call | M samples/s | ns/out | ticks/out |");
                if (kernel)
                    std::fprintf(f, " MACs/out | ceiling at 128-bit, ticks/out (%%) | ceiling at %s (engine %s), ticks/out (%%) |",
                                 own ? own->name : "best width", engine.c_str());
                std::fprintf(f, "\n|---|---|---:|---:|---:|---:|%s\n", kernel ? "---:|---:|---:|" : "");
                header = true;
            }
            std::string rest_text = CaseText(rest);
            if (!r->label.empty()) rest_text += " (" + r->label + ")";
            std::fprintf(f, "| %s | %s |", function.c_str(), rest_text.c_str());
            if (!r->error.empty()) {
                std::fprintf(f, " not measured: %s |||%s\n", r->error.c_str(), kernel ? "|||" : "");
                continue;
            }
            const double ticks = counter(r, "ticks/out");
            std::fprintf(f, " %s | %s | %s | %s |", F("%.1f", counter(r, "out/call")).c_str(),
                         F("%.1f", r->items_per_second / 1e6).c_str(), F("%.2f", counter(r, "ns/out")).c_str(),
                         F("%.1f", ticks).c_str());
            if (kernel) {
                const double macs = counter(r, "MAC/out");
                std::fprintf(f, " %.0f |", macs);
                for (const Peak *p : {narrow, own}) {
                    if (p == nullptr || ticks <= 0) {
                        std::fprintf(f, " n/a |");
                        continue;
                    }
                    const double ceiling = macs / p->mac_per_tick;
                    std::fprintf(f, " %s (%s%%) |", F("%.2f", ceiling).c_str(), F("%.1f", 100.0 * ceiling / ticks).c_str());
                }
            }
            std::fprintf(f, "\n");
        }
        if (header) std::fprintf(f, "\n");
    }
}

}  // namespace

int main(int argc, char **argv) {
    std::string markdown;
    bool strict = false;
    std::vector<char *> args;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--markdown=", 11) == 0)
            markdown = argv[i] + 11;
        else if (std::strcmp(argv[i], "--strict") == 0)
            strict = true;
        else
            args.push_back(argv[i]);
    }
    int n = static_cast<int>(args.size());
    benchmark::Initialize(&n, args.data());
    if (benchmark::ReportUnrecognizedArguments(n, args.data())) return 1;

    benchmark::AddCustomContext("engine", BenchEngineName());
    benchmark::AddCustomContext("cycle source", CycleSourceName());
    benchmark::AddCustomContext("ticks per second", F("%.0f", TicksPerSecond()));
    RegisterCalibration();
    RegisterStages();
    RegisterSinc();
    RegisterPlugin();

    CollectingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    if (!markdown.empty()) {
        FILE *f = std::fopen(markdown.c_str(), "w");
        if (f == nullptr) {
            std::perror(markdown.c_str());
            return 1;
        }
        WriteMarkdown(reporter, f);
        std::fclose(f);
    }
    if (strict && reporter.failures()) {
        std::fprintf(stderr, "bench_kernels: a benchmark could not run\n");
        return 1;
    }
    return 0;
}
