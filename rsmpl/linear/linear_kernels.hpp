// Inner loops of the plug-in's linear converter (src/rate_rsmpl.cpp), one
// set per engine (rsmpl/engine/engine.hpp). The scalar pair in linear.cpp is
// the definition; a vector pair must match it bit for bit.
//
// Frames are interleaved, `channels` (1..4) samples each. The position and
// fraction of every output depend on the frame counts and the pitch only,
// never on the samples, so all channels of a frame share them: a vector
// kernel puts the channels of one frame in the lanes of one register.
#pragma once

#include <cstdint>

namespace rsmpl {

inline constexpr uint32_t kLinearOne = 0x80000u;  // 1.0 in Q19

// Output rate above input rate: writes exactly dst_frames frames, reads at
// most src_frames; last[c] is channel c's last input sample, read and updated.
// shift <= 16 with pitch >> shift the fraction's divisor.
using LinearExpand = void (*)(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                              uint32_t channels, uint32_t pitch, uint32_t shift, int16_t *last);

// Output rate at or below input rate: reads all src_frames, writes the frames
// that fall due up to dst_frames. Returns true when more fell due than fit:
// every channel then stopped at dst_frames frames.
using LinearShrink = bool (*)(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                              uint32_t channels, uint32_t pitch);

void linear_expand_scalar(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                          uint32_t channels, uint32_t pitch, uint32_t shift, int16_t *last);
bool linear_shrink_scalar(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                          uint32_t channels, uint32_t pitch);

}  // namespace rsmpl
