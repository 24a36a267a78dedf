// Internal view of the up-stages: the kernel engines behind the exported
// UpsampleFIR* functions and the stage wrappers.
#pragma once

#include <cstdint>
#include <span>

namespace rsmpl::up {

// A stateless up-stage kernel. x holds the stage's H history samples followed
// by `count` new ones, oldest first; the kernel writes the outputs for the new
// samples to out in ascending order, each output group only after reading its
// whole window (the in-place layout of the wrappers relies on that order).
using Kernel = void (*)(const int16_t *x, int16_t *out, int32_t count);

// The five kernels of one implementation.
struct Kernels {
    const char *name;
    Kernel fir2to3, fir1to2, fir1to3, fir1to4, fir1to6;
};

// Every engine this machine can run (rsmpl/engine/engine.hpp), the scalar
// reference first. The scalar engine is the definition of the arithmetic; a
// vector engine lives in its own source file and must match it bit for bit.
// The tests run every engine listed here.
std::span<const Kernels> engines();

// The engine behind the exported kernels and the wrappers.
const Kernels &active_engine();

// The scalar reference kernels.
void fir2to3_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir1to2_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir1to3_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir1to4_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir1to6_scalar(const int16_t *x, int16_t *out, int32_t count);

}  // namespace rsmpl::up
