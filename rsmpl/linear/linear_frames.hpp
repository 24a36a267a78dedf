// The linear converter's loops a frame at a time, for the vector engines:
// the position, the fetch and the one division per output are done once per
// frame, and the channels of the frame (1..4) are interpolated together in
// the lanes of one register. Every lane computes exactly what the scalar
// loop computes for its channel: the same fraction f, the same 32-bit
// wrap-around sum old * (65536 - f) + new * f, the same bits 16..31.
// Included by each vector source with its Ops; internal linkage.
#pragma once

#include <cstddef>
#include <cstdint>

#include "rsmpl/engine/mca.hpp"
#include "rsmpl/linear/linear_kernels.hpp"

namespace rsmpl {
namespace {

// Ops<C>: V load(const int16_t *) (C samples to 32-bit lanes), V zero(),
// V lerp(V a, uint32_t wa, V b, uint32_t wb) (a * wa + b * wb, 32-bit wrap),
// void store(int16_t *, V) (bits 16..31 of C lanes).
template <template <int> class Ops, int C>
void expand_frames(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames, uint32_t pitch,
                   uint32_t shift, int16_t *last) {
    using O = Ops<C>;
    const uint32_t step = pitch >> shift;
    auto new_v = O::load(last);
    auto old_v = O::zero();
    uint32_t pos = pitch;
    uint32_t fetched = 0;
    for (uint32_t k = 0; k < dst_frames; k++) {
        if (pos >= pitch) {
            pos -= pitch;
            old_v = new_v;
            if (fetched < src_frames) new_v = O::load(src + static_cast<size_t>(fetched) * C);
        }
        // Marked for the cost estimate: one stereo frame out, the fetch above not included.
        if constexpr (C == 2) RSMPL_MCA_BEGIN("linear_expand_stereo", 2, 0);
        const uint32_t f = step ? (pos << (16 - shift)) / step : 0;
        O::store(dst + static_cast<size_t>(k) * C, O::lerp(old_v, 65536u - f, new_v, f));
        if constexpr (C == 2) RSMPL_MCA_END("linear_expand_stereo", 2, 0);
        pos += kLinearOne;
        if (pos >= pitch) fetched++;
    }
    O::store_samples(last, new_v);
}

template <template <int> class Ops, int C>
bool shrink_frames(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames, uint32_t pitch) {
    using O = Ops<C>;
    const uint32_t step = pitch >> 3;
    auto old_v = O::zero();
    uint32_t pos = kLinearOne - pitch;
    uint32_t written = 0;
    for (uint32_t i = 0; i < src_frames; i++) {
        const auto new_v = O::load(src + static_cast<size_t>(i) * C);
        pos += pitch;
        if (pos >= kLinearOne) {
            if (written == dst_frames) return true;
            // Marked like the expansion: one stereo frame out, the skipped inputs not included.
            if constexpr (C == 2) RSMPL_MCA_BEGIN("linear_shrink_stereo", 2, 0);
            const uint32_t over = pos - kLinearOne;
            const uint32_t f = step ? (over << 13) / step : 0;
            O::store(dst + static_cast<size_t>(written) * C, O::lerp(new_v, 65536u - f, old_v, f));
            if constexpr (C == 2) RSMPL_MCA_END("linear_shrink_stereo", 2, 0);
            written++;
            pos = over;
        }
        old_v = new_v;
    }
    return false;
}

template <template <int> class Ops>
void linear_expand_frames(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                          uint32_t channels, uint32_t pitch, uint32_t shift, int16_t *last) {
    switch (channels) {
    case 1: return expand_frames<Ops, 1>(src, src_frames, dst, dst_frames, pitch, shift, last);
    case 2: return expand_frames<Ops, 2>(src, src_frames, dst, dst_frames, pitch, shift, last);
    case 3: return expand_frames<Ops, 3>(src, src_frames, dst, dst_frames, pitch, shift, last);
    case 4: return expand_frames<Ops, 4>(src, src_frames, dst, dst_frames, pitch, shift, last);
    default: return linear_expand_scalar(src, src_frames, dst, dst_frames, channels, pitch, shift, last);
    }
}

template <template <int> class Ops>
bool linear_shrink_frames(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                          uint32_t channels, uint32_t pitch) {
    switch (channels) {
    case 1: return shrink_frames<Ops, 1>(src, src_frames, dst, dst_frames, pitch);
    case 2: return shrink_frames<Ops, 2>(src, src_frames, dst, dst_frames, pitch);
    case 3: return shrink_frames<Ops, 3>(src, src_frames, dst, dst_frames, pitch);
    case 4: return shrink_frames<Ops, 4>(src, src_frames, dst, dst_frames, pitch);
    default: return linear_shrink_scalar(src, src_frames, dst, dst_frames, channels, pitch);
    }
}

}  // namespace
}  // namespace rsmpl
