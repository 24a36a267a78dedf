// The AArch64 Advanced SIMD kernel set. NEON is part of every AArch64
// processor, so an AArch64 build always has it and needs no extra flags.
#include <cstring>

#include "rsmpl/engine.hpp"
#include "rsmpl/fir_neon.hpp"
#include "rsmpl/linear_frames.hpp"
#include "rsmpl/sinc_neon.hpp"

namespace rsmpl {
namespace {

using fir::Neon;

void up2to3(const int16_t *x, int16_t *out, int32_t count) { fir::run<Neon, fir::kUp2To3>(x, out, count); }
void up1to2(const int16_t *x, int16_t *out, int32_t count) { fir::run<Neon, fir::kUp1To2>(x, out, count); }
void up1to3(const int16_t *x, int16_t *out, int32_t count) { fir::run<Neon, fir::kUp1To3>(x, out, count); }
void up1to4(const int16_t *x, int16_t *out, int32_t count) { fir::run<Neon, fir::kUp1To4>(x, out, count); }
void up1to6(const int16_t *x, int16_t *out, int32_t count) { fir::run<Neon, fir::kUp1To6>(x, out, count); }
void down2to1(const int16_t *x, int16_t *out, int32_t count) { fir::run<Neon, fir::kDown2To1>(x, out, count); }
void down3to1(const int16_t *x, int16_t *out, int32_t count) { fir::run<Neon, fir::kDown3To1>(x, out, count); }
void down4to1(const int16_t *x, int16_t *out, int32_t count) { fir::run<Neon, fir::kDown4To1>(x, out, count); }
void down6to1(const int16_t *x, int16_t *out, int32_t count) { fir::run<Neon, fir::kDown6To1>(x, out, count); }
void down3to2(const int16_t *x, int16_t *out, int32_t count) { fir::run<Neon, fir::kDown3To2>(x, out, count); }

// ---- Linear converter: the channels of a frame in 32-bit lanes --------------

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

void linear_expand(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames, uint32_t channels,
                   uint32_t pitch, uint32_t shift, int16_t *last) {
    linear_expand_frames<FrameOps>(src, src_frames, dst, dst_frames, channels, pitch, shift, last);
}
bool linear_shrink(const int16_t *src, uint32_t src_frames, int16_t *dst, uint32_t dst_frames, uint32_t channels,
                   uint32_t pitch) {
    return linear_shrink_frames<FrameOps>(src, src_frames, dst, dst_frames, channels, pitch);
}

}  // namespace

extern const KernelSet kNeonKernels;
const KernelSet kNeonKernels{
    EngineId::neon,
    "neon",
    {"neon", up2to3, up1to2, up1to3, up1to4, up1to6},
    {down2to1, down3to1, down4to1, down6to1, down3to2},
    sinc::run<sinc::Neon>,
    linear_expand,
    linear_shrink,
};

}  // namespace rsmpl
