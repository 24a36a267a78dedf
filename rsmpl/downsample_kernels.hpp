// Scalar reference kernels of the decimation stages. The exported
// DownsampleFIR* functions reach an implementation through one dispatch
// point in downsample.cpp; a vector kernel goes there and is tested
// against these.
#pragma once

#include <cstdint>

namespace rsmpl::down {

using Kernel = void (*)(const int16_t *x, int16_t *out, int32_t count);

void fir2to1_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir3to1_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir4to1_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir6to1_scalar(const int16_t *x, int16_t *out, int32_t count);
void fir3to2_scalar(const int16_t *x, int16_t *out, int32_t count);

}  // namespace rsmpl::down
