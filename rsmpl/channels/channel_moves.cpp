// The reference channel moves: one sample at a time.
#include "rsmpl/channels/channel_moves.hpp"

#include <cstddef>

namespace rsmpl {

void gather_channel_scalar(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c) {
    for (uint32_t k = 0; k < count; ++k) mono[k] = frames[static_cast<size_t>(k) * channels + c];
}

void scatter_channel_scalar(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c) {
    for (uint32_t k = 0; k < count; ++k) frames[static_cast<size_t>(k) * channels + c] = mono[k];
}

void split_channels_scalar(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels) {
    for (uint32_t c = 0; c < channels; ++c) gather_channel_scalar(mono[c], frames, count, channels, c);
}

void merge_channels_scalar(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels) {
    for (uint32_t c = 0; c < channels; ++c) scatter_channel_scalar(frames, mono[c], count, channels, c);
}

}  // namespace rsmpl
