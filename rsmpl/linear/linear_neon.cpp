// The linear converter's loops with AArch64 Advanced SIMD: the channels of
// a frame in the 32-bit lanes of one register.
#include <arm_neon.h>

#include <cstdint>
#include <cstring>

#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/linear/linear_frames.hpp"

namespace rsmpl {
namespace {

template <int C>
struct FrameOps {
    static uint32x4_t load(const int16_t *p) {
        int16_t t[4] = {};
        std::memcpy(t, p, C * sizeof(int16_t));
        return vreinterpretq_u32_s32(vmovl_s16(vld1_s16(t)));
    }
    static uint32x4_t zero() { return vdupq_n_u32(0); }
    static uint32x4_t lerp(uint32x4_t a, uint32_t wa, uint32x4_t b, uint32_t wb) {
        return vaddq_u32(vmulq_n_u32(a, wa), vmulq_n_u32(b, wb));
    }
    static void store(int16_t *p, uint32x4_t sum) {
        int16_t t[4];
        vst1_s16(t, vreinterpret_s16_u16(vshrn_n_u32(sum, 16)));
        std::memcpy(p, t, C * sizeof(int16_t));
    }
    static void store_samples(int16_t *p, uint32x4_t v) {
        int16_t t[4];
        vst1_s16(t, vmovn_s32(vreinterpretq_s32_u32(v)));
        std::memcpy(p, t, C * sizeof(int16_t));
    }
};

}  // namespace

void linear_expand_neon(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                        uint32_t channels, uint32_t pitch, uint32_t shift, int16_t *last) {
    linear_expand_frames<FrameOps>(src, src_frames, dst, dst_frames, channels, pitch, shift, last);
}
bool linear_shrink_neon(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames,
                        uint32_t channels, uint32_t pitch) {
    return linear_shrink_frames<FrameOps>(src, src_frames, dst, dst_frames, channels, pitch);
}

}  // namespace rsmpl
