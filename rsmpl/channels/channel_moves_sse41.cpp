// The channel moves with SSE4.1, compiled with -msse4.1 alone.
#include "rsmpl/channels/channel_moves_x86.hpp"
#include "rsmpl/engine/isa_kernels.hpp"

namespace rsmpl {

void gather_channel_sse41(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c) {
    moves::gather_channel(mono, frames, count, channels, c);
}
void scatter_channel_sse41(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c) {
    moves::scatter_channel(frames, mono, count, channels, c);
}
void split_channels_sse41(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels) {
    moves::split_channels(mono, frames, count, channels);
}
void merge_channels_sse41(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels) {
    moves::merge_channels(frames, mono, count, channels);
}

}  // namespace rsmpl
