// Each component's kernels for one instruction set, defined beside the
// component's scalar reference (fir/fir_neon.cpp, sinc/sinc_avx2.cpp, ...)
// and assembled into that set's KernelSet by engine.cpp. Each exists only in
// a build for its architecture.
#pragma once

#include <cstdint>

#include "rsmpl/fir/downsample_kernels.hpp"
#include "rsmpl/fir/upsample.hpp"

namespace rsmpl {

namespace up {
extern const Engine kEngineSse41, kEngineAvx2, kEngineNeon;
}
namespace down {
extern const Kernels kKernelsSse41, kKernelsAvx2, kKernelsNeon;
}

uint32_t sinc_sum_sse41(const int16_t *x, int32_t c, int32_t kLeftFirst, int32_t kLeftLast, int32_t kRightLast,
                        uint32_t t0, uint32_t tableStep, int shift);
uint32_t sinc_sum_avx2(const int16_t *x, int32_t c, int32_t kLeftFirst, int32_t kLeftLast, int32_t kRightLast,
                       uint32_t t0, uint32_t tableStep, int shift);
uint32_t sinc_sum_neon(const int16_t *x, int32_t c, int32_t kLeftFirst, int32_t kLeftLast, int32_t kRightLast,
                       uint32_t t0, uint32_t tableStep, int shift);

void linear_expand_sse41(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                         uint32_t channels, uint32_t pitch, uint32_t shift, int16_t *last);
bool linear_shrink_sse41(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                         uint32_t channels, uint32_t pitch);
void linear_expand_avx2(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                        uint32_t channels, uint32_t pitch, uint32_t shift, int16_t *last);
bool linear_shrink_avx2(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                        uint32_t channels, uint32_t pitch);
void linear_expand_neon(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                        uint32_t channels, uint32_t pitch, uint32_t shift, int16_t *last);
bool linear_shrink_neon(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                        uint32_t channels, uint32_t pitch);

}  // namespace rsmpl
