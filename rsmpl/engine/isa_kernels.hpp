// Each component's kernels for one instruction set, defined beside the
// component's scalar reference (fir/fir_neon.cpp, sinc/sinc_avx2.cpp, ...)
// and assembled into that set's KernelSet by engine.cpp. Each exists only in
// a build for its architecture.
#pragma once

#include <cstdint>

#include "rsmpl/channels/channel_moves.hpp"
#include "rsmpl/fir/fir_stages.hpp"

namespace rsmpl {

struct SincRun;

namespace fir {
extern const Kernels kKernelsScalar, kKernelsSse41, kKernelsAvx2, kKernelsAvx512, kKernelsNeon;
}

void sinc_run_sse41(const SincRun &run, int16_t *out);
void sinc_run_avx2(const SincRun &run, int16_t *out);
void sinc_run_neon(const SincRun &run, int16_t *out);

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

void gather_channel_sse41(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c);
void gather_channel_avx2(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c);
void gather_channel_avx512(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c);
void gather_channel_neon(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c);
void scatter_channel_sse41(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c);
void scatter_channel_avx2(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c);
void scatter_channel_avx512(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c);
void scatter_channel_neon(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c);
void split_channels_sse41(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels);
void split_channels_avx2(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels);
void split_channels_avx512(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels);
void split_channels_neon(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels);
void merge_channels_sse41(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels);
void merge_channels_avx2(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels);
void merge_channels_avx512(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels);
void merge_channels_neon(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels);

}  // namespace rsmpl
