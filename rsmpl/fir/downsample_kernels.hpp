// Scalar reference kernels of the decimation stages. The exported
// DownsampleFIR* functions and the stage wrappers take their kernels from the
// engine in use (rsmpl/engine/engine.hpp); every vector kernel is tested against
// these.
#pragma once

#include <cstdint>

namespace rsmpl::down {

using Kernel = void (*)(const int16_t *x, int16_t *out, int32_t count);

void fir2to1_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir3to1_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir4to1_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir6to1_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir3to2_scalar(const int16_t *x, int16_t *out, int32_t count);

// The five kernels of one engine.
struct Kernels {
    Kernel fir2to1, fir3to1, fir4to1, fir6to1, fir3to2;
};

}  // namespace rsmpl::down
