// AArch64 channel moves (channel_moves.hpp): the structure loads and
// stores (ld2/ld3/ld4, st2/st3/st4) split and merge eight frames a step.
// NEON is in every AArch64 processor: no extra flags.
#include <arm_neon.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rsmpl/engine/isa_kernels.hpp"

namespace rsmpl {
namespace {
namespace moves {

template <uint32_t C, class Lanes, Lanes (*Load)(const int16_t *), void (*Store)(int16_t *, Lanes)>
void gather_lanes(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t c) {
    uint32_t k = 0;
    for (; k + 8 <= count; k += 8) vst1q_s16(mono + k, Load(frames + C * size_t{k}).val[c]);
    for (; k < count; ++k) mono[k] = frames[C * size_t{k} + c];
}

template <uint32_t C, class Lanes, Lanes (*Load)(const int16_t *), void (*Store)(int16_t *, Lanes)>
void scatter_lanes(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t c) {
    uint32_t k = 0;
    for (; k + 8 <= count; k += 8) {
        Lanes v = Load(frames + C * size_t{k});
        v.val[c] = vld1q_s16(mono + k);
        Store(frames + C * size_t{k}, v);
    }
    for (; k < count; ++k) frames[C * size_t{k} + c] = mono[k];
}

inline int16x8x2_t load2(const int16_t *p) { return vld2q_s16(p); }
inline int16x8x3_t load3(const int16_t *p) { return vld3q_s16(p); }
inline int16x8x4_t load4(const int16_t *p) { return vld4q_s16(p); }
inline void store2(int16_t *p, int16x8x2_t v) { vst2q_s16(p, v); }
inline void store3(int16_t *p, int16x8x3_t v) { vst3q_s16(p, v); }
inline void store4(int16_t *p, int16x8x4_t v) { vst4q_s16(p, v); }

void gather_channel(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c) {
    switch (channels) {
    case 1: std::memcpy(mono, frames, size_t{count} * sizeof(int16_t)); return;
    case 2: gather_lanes<2, int16x8x2_t, load2, store2>(mono, frames, count, c); return;
    case 3: gather_lanes<3, int16x8x3_t, load3, store3>(mono, frames, count, c); return;
    case 4: gather_lanes<4, int16x8x4_t, load4, store4>(mono, frames, count, c); return;
    default: break;
    }
    for (uint32_t k = 0; k < count; ++k) mono[k] = frames[static_cast<size_t>(k) * channels + c];
}

void scatter_channel(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c) {
    switch (channels) {
    case 1: std::memcpy(frames, mono, size_t{count} * sizeof(int16_t)); return;
    case 2: scatter_lanes<2, int16x8x2_t, load2, store2>(frames, mono, count, c); return;
    case 3: scatter_lanes<3, int16x8x3_t, load3, store3>(frames, mono, count, c); return;
    case 4: scatter_lanes<4, int16x8x4_t, load4, store4>(frames, mono, count, c); return;
    default: break;
    }
    for (uint32_t k = 0; k < count; ++k) frames[static_cast<size_t>(k) * channels + c] = mono[k];
}

template <uint32_t C, class Lanes, Lanes (*Load)(const int16_t *), void (*Store)(int16_t *, Lanes)>
uint32_t split_lanes(int16_t *const *mono, const int16_t *frames, uint32_t count) {
    uint32_t k = 0;
    for (; k + 8 <= count; k += 8) {
        const Lanes v = Load(frames + C * size_t{k});
        for (uint32_t c = 0; c < C; ++c) vst1q_s16(mono[c] + k, v.val[c]);
    }
    return k;
}

template <uint32_t C, class Lanes, Lanes (*Load)(const int16_t *), void (*Store)(int16_t *, Lanes)>
uint32_t merge_lanes(int16_t *frames, const int16_t *const *mono, uint32_t count) {
    uint32_t k = 0;
    for (; k + 8 <= count; k += 8) {
        Lanes v;
        for (uint32_t c = 0; c < C; ++c) v.val[c] = vld1q_s16(mono[c] + k);
        Store(frames + C * size_t{k}, v);
    }
    return k;
}

void split_channels(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels) {
    uint32_t k = 0;
    switch (channels) {
    case 2: k = split_lanes<2, int16x8x2_t, load2, store2>(mono, frames, count); break;
    case 3: k = split_lanes<3, int16x8x3_t, load3, store3>(mono, frames, count); break;
    case 4: k = split_lanes<4, int16x8x4_t, load4, store4>(mono, frames, count); break;
    default: break;
    }
    for (uint32_t c = 0; c < channels; ++c)
        gather_channel(mono[c] + k, frames + size_t{k} * channels, count - k, channels, c);
}

void merge_channels(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels) {
    uint32_t k = 0;
    switch (channels) {
    case 2: k = merge_lanes<2, int16x8x2_t, load2, store2>(frames, mono, count); break;
    case 3: k = merge_lanes<3, int16x8x3_t, load3, store3>(frames, mono, count); break;
    case 4: k = merge_lanes<4, int16x8x4_t, load4, store4>(frames, mono, count); break;
    default: break;
    }
    for (uint32_t c = 0; c < channels; ++c)
        scatter_channel(frames + size_t{k} * channels, mono[c] + k, count - k, channels, c);
}

}  // namespace moves
}  // namespace
}  // namespace rsmpl

namespace rsmpl {

void gather_channel_neon(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c) {
    moves::gather_channel(mono, frames, count, channels, c);
}
void scatter_channel_neon(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c) {
    moves::scatter_channel(frames, mono, count, channels, c);
}
void split_channels_neon(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels) {
    moves::split_channels(mono, frames, count, channels);
}
void merge_channels_neon(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels) {
    moves::merge_channels(frames, mono, count, channels);
}

}  // namespace rsmpl
