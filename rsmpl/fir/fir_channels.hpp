// All channels of an interleaved period through one FIR stage: the FIR path
// of both plug-ins. Internal, not exported.
//
// Channel c of `in` (frames frames of `channels` interleaved samples) goes
// through stage `index` with context ctx[c], exactly as
// RSMPL_Up(ctx[c], channel c, ..., frames, index) (or RSMPL_Down) would take
// it: the same outputs, written interleaved to `out`, and the same history
// left in each context. The channel split is the stage's own staging copy
// (history, then the channel's samples; up to four channels split in one
// pass), and a piece's outputs are copied once to their interleaved places:
// each sample is moved once on the way in and once on the way out, where separate channel buffers and the stage
// wrapper's in-place staging move it two or three times.
//
// The caller passes only lengths the per-channel call accepts (the plug-in's
// chunking already guarantees that); in and out must not overlap.
#pragma once

#include <cstdint>

#include <rsmpl/rsmpl.h>

namespace rsmpl::fir {

enum class Direction : uint8_t { up, down };

// Frames written to out: the stage's outputs per channel. With last_channel
// set, the last channel's outputs are also copied there, one after another.
int32_t stage_channels(Direction direction, uint32_t index, RSMPL_Ctx *const *ctx, uint32_t channels,
                       const int16_t *in, int16_t *out, int32_t frames, int16_t *last_channel = nullptr);

}  // namespace rsmpl::fir
