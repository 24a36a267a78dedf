// The AArch64 Advanced SIMD kernel set. NEON is part of every AArch64
// processor, so an AArch64 build always has it and needs no extra flags.
#include <cstring>

#include "rsmpl/channel_moves_neon.hpp"
#include "rsmpl/engine.hpp"
#include "rsmpl/fir_neon.hpp"
#include "rsmpl/linear_frames.hpp"
#include "rsmpl/sinc_neon.hpp"

namespace rsmpl {
namespace {

// One FIR kernel per stage row: its name for the cost estimate's marks, with
// the outputs of one block and the multiplies each output really needs.
#define RSMPL_NEON_FIR(fn, rows, mark)                                                                    \
    struct fn##_mark {                                                                                    \
        static constexpr int kOuts = 8 * fir::rows.P * fir::Rows<fir::rows>::kPass, kMacs = fir::rows.taps_total() / fir::rows.P;      \
        [[gnu::always_inline]] static void begin() { RSMPL_MCA_BEGIN(mark, kOuts, kMacs); }               \
        [[gnu::always_inline]] static void end() { RSMPL_MCA_END(mark, kOuts, kMacs); }                   \
    };                                                                                                    \
    void fn(const int16_t *x, int16_t *out, int32_t count) {                                              \
        fir::run_rows<fir::Rows<fir::rows>, fn##_mark>(x, out, count);                                    \
    }
RSMPL_NEON_FIR(up2to3, kRowsUp2To3, "up2to3")
RSMPL_NEON_FIR(up1to2, kRowsUp1To2, "up1to2")
RSMPL_NEON_FIR(up1to3, kRowsUp1To3, "up1to3")
RSMPL_NEON_FIR(up1to4, kRowsUp1To4, "up1to4")
RSMPL_NEON_FIR(up1to6, kRowsUp1To6, "up1to6")
RSMPL_NEON_FIR(down2to1, kRowsDown2To1, "down2to1")
RSMPL_NEON_FIR(down3to1, kRowsDown3To1, "down3to1")
RSMPL_NEON_FIR(down4to1, kRowsDown4To1, "down4to1")
RSMPL_NEON_FIR(down6to1, kRowsDown6To1, "down6to1")
RSMPL_NEON_FIR(down3to2, kRowsDown3To2, "down3to2")
#undef RSMPL_NEON_FIR

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
    moves::gather_channel,
    moves::scatter_channel,
    moves::split_channels,
    moves::merge_channels,
};

}  // namespace rsmpl
