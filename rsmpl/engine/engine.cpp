// Chooses the kernel set once per process: the best this machine runs, or
// the one RSMPL_ENGINE names when it can run it.
#include "rsmpl/engine/engine.hpp"

#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/sinc/sinc_kernel.hpp"

namespace rsmpl {

// Each set: every component's kernels for one instruction set. A new set is
// one file per component and a row here. All are constant-initialised, so no
// use before main can see a half-built set.
constinit const KernelSet kScalarKernels{
    EngineId::scalar, "scalar", fir::kKernelsScalar,
    sinc_run_scalar, linear_expand_scalar, linear_shrink_scalar,
    gather_channel_scalar, scatter_channel_scalar, split_channels_scalar, merge_channels_scalar,
};
#if defined(__x86_64__)
constinit const KernelSet kSse41Kernels{
    EngineId::sse41, "sse41", fir::kKernelsSse41,
    sinc_run_sse41, linear_expand_sse41, linear_shrink_sse41,
    gather_channel_sse41, scatter_channel_sse41, split_channels_sse41, merge_channels_sse41,
};
constinit const KernelSet kAvx2Kernels{
    EngineId::avx2, "avx2", fir::kKernelsAvx2,
    sinc_run_avx2, linear_expand_avx2, linear_shrink_avx2,
    gather_channel_avx2, scatter_channel_avx2, split_channels_avx2, merge_channels_avx2,
};
// The sinc interpolator and the linear loops are the avx2 ones so far.
constinit const KernelSet kAvx512Kernels{
    EngineId::avx512, "avx512", fir::kKernelsAvx512,
    sinc_run_avx2, linear_expand_avx2, linear_shrink_avx2,
    gather_channel_avx512, scatter_channel_avx512, split_channels_avx512, merge_channels_avx512,
};
#endif
#if defined(__aarch64__)
constinit const KernelSet kNeonKernels{
    EngineId::neon, "neon", fir::kKernelsNeon,
    sinc_run_neon, linear_expand_neon, linear_shrink_neon,
    gather_channel_neon, scatter_channel_neon, split_channels_neon, merge_channels_neon,
};
#endif

namespace {

constexpr const char *kNames[] = {"scalar", "sse41", "avx2", "neon", "avx512"};

bool cpu_runs(EngineId id) {
    switch (id) {
    case EngineId::scalar:
        return true;
#if defined(__x86_64__)
    // The checks include the operating system's support for the wider registers.
    case EngineId::sse41:
        return __builtin_cpu_supports("sse4.1");
    case EngineId::avx2:
        return __builtin_cpu_supports("avx2");
    case EngineId::avx512:
        return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("avx512f") &&
               __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") &&
               __builtin_cpu_supports("avx512vnni");
#endif
#if defined(__aarch64__)
    case EngineId::neon:
        return true;
#endif
    default:
        return false;
    }
}

// Every set compiled into this build, in order of preference, worst first.
const KernelSet *const kBuilt[] = {
    &kScalarKernels,
#if defined(__x86_64__)
    &kSse41Kernels,
    &kAvx2Kernels,
    &kAvx512Kernels,
#endif
#if defined(__aarch64__)
    &kNeonKernels,
#endif
};
constexpr size_t kBuiltCount = sizeof kBuilt / sizeof kBuilt[0];

// Filled once under pthread_once rather than as function-local statics: the
// C++ runtime's guards would make every C user of librsmpl load libstdc++.
struct Available {
    const KernelSet *sets[kBuiltCount];
    size_t n;
};
Available g_available;
pthread_once_t g_available_once = PTHREAD_ONCE_INIT;

void fill_available() {
    for (const KernelSet *k : kBuilt)
        if (cpu_runs(k->id)) g_available.sets[g_available.n++] = k;
}

const Available &available() {
    pthread_once(&g_available_once, fill_available);
    return g_available;
}

const KernelSet *g_chosen;
pthread_once_t g_chosen_once = PTHREAD_ONCE_INIT;

void choose_once() {
#if RSMPL_ENGINE_ENV
    g_chosen = &choose_kernels(std::getenv("RSMPL_ENGINE"));
#else
    g_chosen = &choose_kernels(nullptr);
#endif
}

}  // namespace

bool parse_engine(const char *name, EngineId *id) {
    if (name == nullptr) return false;
    for (size_t i = 0; i < sizeof kNames / sizeof kNames[0]; ++i)
        if (std::strcmp(name, kNames[i]) == 0) {
            *id = static_cast<EngineId>(i);
            return true;
        }
    return false;
}

std::span<const KernelSet *const> available_kernels() {
    const Available &a = available();
    return {a.sets, a.n};
}

const KernelSet *find_kernels(EngineId id) {
    for (const KernelSet *k : available_kernels())
        if (k->id == id) return k;
    return nullptr;
}

const KernelSet &choose_kernels(const char *requested) {
    EngineId id;
    if (parse_engine(requested, &id))
        if (const KernelSet *k = find_kernels(id)) return *k;
    return *available_kernels().back();
}

const KernelSet &kernels() {
    pthread_once(&g_chosen_once, choose_once);
    return *g_chosen;
}

const char *engine_name() { return kernels().name; }

}  // namespace rsmpl
