// Kernel engines: one set of inner loops per instruction set, all equal to
// the scalar reference bit for bit. The library picks one set once per
// process and every stage, the sinc interpolator and the plug-in's linear
// converter take their inner loops from it, and both plug-ins their
// channel moves.
//
//   scalar  plain C++, the definition of the arithmetic; always present
//   sse41   x86-64 with SSE4.1 (128-bit), chosen at run time from the CPU
//   avx2    x86-64 with AVX2 (256-bit), chosen at run time from the CPU
//   avx512  x86-64 with AVX-512 F, BW, VL and VNNI: 512-bit FIR stages, the
//           avx2 set's other loops; chosen at run time from the CPU
//   neon    AArch64 Advanced SIMD, always present there, chosen at build time
//
// RSMPL_ENGINE=scalar|sse41|avx2|avx512|neon in the environment, read once at the
// first use, forces a set for tests and benchmarks; a set this machine
// cannot run falls back to the best one it can. Results do not depend on the
// choice, only speed does. A build with RSMPL_ENGINE_ENV=OFF ignores the
// variable.
#pragma once

#include <cstdint>
#include <span>

#include "rsmpl/channels/channel_moves.hpp"
#include "rsmpl/fir/fir_stages.hpp"
#include "rsmpl/linear/linear_kernels.hpp"

namespace rsmpl {

enum class EngineId : uint8_t { scalar, sse41, avx2, neon, avx512 };

struct SincRun;
// The sinc interpolator's outputs over one block; see sinc_run_scalar.
using SincKernel = void (*)(const SincRun &run, int16_t *out);

struct KernelSet {
    EngineId id;
    const char *name;
    const fir::Kernels &fir;
    SincKernel sinc;
    LinearExpand linear_expand;
    LinearShrink linear_shrink;
    GatherChannel gather_channel;
    ScatterChannel scatter_channel;
    SplitChannels split_channels;
    MergeChannels merge_channels;
};

// The set in use, chosen once (thread-safe) at the first call.
const KernelSet &kernels();

// Name of the set in use: "scalar", "sse41", "avx2", "avx512" or "neon".
const char *engine_name();

// Every set this build has and this machine can run, scalar first, best last.
std::span<const KernelSet *const> available_kernels();

// The set of a given engine, or null when this build or machine lacks it.
const KernelSet *find_kernels(EngineId id);

// Parses an engine name; false for anything else.
bool parse_engine(const char *name, EngineId *id);

// The choice made from a requested name (null or unknown: the best set),
// without consulting the environment; kernels() applies it once.
const KernelSet &choose_kernels(const char *requested);

// The sets engine.cpp assembles from the components' kernels
// (rsmpl/engine/isa_kernels.hpp); each vector set exists only in a build for
// its architecture.
extern const KernelSet kScalarKernels;
extern const KernelSet kSse41Kernels;
extern const KernelSet kAvx2Kernels;
extern const KernelSet kAvx512Kernels;
extern const KernelSet kNeonKernels;

}  // namespace rsmpl
