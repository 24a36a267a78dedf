// The channel moves with AVX-512 BW, for the avx512 set.
#if defined(__GNUC__) && !defined(__clang__)
// GCC 12's AVX-512 intrinsics start from a deliberately undefined vector.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include "rsmpl/channels/channel_moves_x86.hpp"
#include "rsmpl/engine/isa_kernels.hpp"

namespace rsmpl {

void gather_channel_avx512(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c) {
    moves::gather_channel(mono, frames, count, channels, c);
}
void scatter_channel_avx512(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c) {
    moves::scatter_channel(frames, mono, count, channels, c);
}
void split_channels_avx512(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels) {
    moves::split_channels(mono, frames, count, channels);
}
void merge_channels_avx512(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels) {
    moves::merge_channels(frames, mono, count, channels);
}

}  // namespace rsmpl
