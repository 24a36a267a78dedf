// Moving channels between interleaved frames and blocks of their own: the
// channel split before a FIR stage and the merge after it, for the FIR path
// (rsmpl/fir/fir_channels.cpp) and both plug-ins. One pair per engine
// (rsmpl/engine/engine.hpp); the scalar pair in channel_moves.cpp is the
// definition, and a vector pair must match it sample for sample.
//
// Sample k of channel c is frames[k * channels + c]; channels >= 1, c <
// channels. The blocks and the frames never overlap.
#pragma once

#include <cstdint>

namespace rsmpl {

// mono[k] = frames[k * channels + c] for k < count.
using GatherChannel = void (*)(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c);

// frames[k * channels + c] = mono[k] for k < count; every other sample of the
// frames stays as it was.
using ScatterChannel = void (*)(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c);

// mono[c][k] = frames[k * channels + c] for every c < channels, k < count:
// every channel in one pass over the frames.
using SplitChannels = void (*)(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels);

// frames[k * channels + c] = mono[c][k] for every c < channels, k < count:
// each frame written once, none read.
using MergeChannels = void (*)(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels);

void gather_channel_scalar(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c);
void scatter_channel_scalar(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c);

void split_channels_scalar(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels);
void merge_channels_scalar(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels);

}  // namespace rsmpl
