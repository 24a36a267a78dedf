// The AArch64 Advanced SIMD kernel set. NEON is part of every AArch64
// processor, so an AArch64 build always has it and needs no extra flags.
#include <cstring>

#include "rsmpl/channel_moves_neon.hpp"
#include "rsmpl/engine.hpp"
#include "rsmpl/fir_neon.hpp"
#include "rsmpl/linear_frames.hpp"
#include "rsmpl/sinc_kernel.hpp"

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

// ---- Sinc interpolator: one output's sum ------------------------------------
//
// Four taps per register, as the scalar form per lane: 32-bit wrapping table
// positions, the coefficient wing[j] + ((delta[j] * g') >> 16) and the tap
// (c * (x >> s)) >> 16 from 64-bit products (smull) of which shrn keeps bits
// 16..47 (the coefficient step fits 32 bits; the taps are summed modulo 2^32
// like the scalar accumulator, in any order). Positions past the table give
// zero; a wing's last taps take their samples from a zero-padded copy.

inline int32x4_t mul_shift16(int32x4_t a, int32x4_t b) {
    return vcombine_s32(vshrn_n_s64(vmull_s32(vget_low_s32(a), vget_low_s32(b)), 16),
                        vshrn_n_s64(vmull_high_s32(a, b), 16));
}

inline int32x4_t taps(uint32x4_t t, int32x4_t samples, int shift) {
    const uint32x4_t j = vshrq_n_u32(t, 16);
    const uint32x4_t inside = vcltq_u32(j, vdupq_n_u32(kSincWingLength));
    const uint32x4_t jc = vminq_u32(j, vdupq_n_u32(kSincWingLength - 1));
    int32x4_t wing = vdupq_n_s32(0), delta = vdupq_n_s32(0);
    wing = vld1q_lane_s32(&sincWing[vgetq_lane_u32(jc, 0)], wing, 0);
    wing = vld1q_lane_s32(&sincWing[vgetq_lane_u32(jc, 1)], wing, 1);
    wing = vld1q_lane_s32(&sincWing[vgetq_lane_u32(jc, 2)], wing, 2);
    wing = vld1q_lane_s32(&sincWing[vgetq_lane_u32(jc, 3)], wing, 3);
    delta = vld1q_lane_s32(&sincWingDelta[vgetq_lane_u32(jc, 0)], delta, 0);
    delta = vld1q_lane_s32(&sincWingDelta[vgetq_lane_u32(jc, 1)], delta, 1);
    delta = vld1q_lane_s32(&sincWingDelta[vgetq_lane_u32(jc, 2)], delta, 2);
    delta = vld1q_lane_s32(&sincWingDelta[vgetq_lane_u32(jc, 3)], delta, 3);
    const uint32x4_t g = vandq_u32(t, vdupq_n_u32(0xFFFF));
    const int32x4_t g1 = vreinterpretq_s32_u32(vaddq_u32(g, vshrq_n_u32(g, 15)));  // 0xFFFF counts as one entry
    const int32x4_t coef = vandq_s32(vreinterpretq_s32_u32(inside), vaddq_s32(wing, mul_shift16(delta, g1)));
    return mul_shift16(coef, vshlq_s32(samples, vdupq_n_s32(-shift)));
}

uint32_t sinc_sum(const int16_t *x, int32_t c, int32_t kLeftFirst, int32_t kLeftLast, int32_t kRightLast,
                  uint32_t t0, uint32_t tableStep, int shift) {
    int32x4_t acc = vdupq_n_s32(0);
    const uint32x4_t lane_steps = vmulq_u32(vcombine_u32(vcreate_u32(0x0000000100000000ull), vcreate_u32(0x0000000300000002ull)),
                                            vdupq_n_u32(tableStep));
    // Left wing: x[c - k] at t0 + k*T, k = kLeftFirst .. kLeftLast.
    int32_t k = kLeftFirst;
    for (; k + 3 <= kLeftLast; k += 4) {
        const uint32x4_t t = vaddq_u32(vdupq_n_u32(t0 + static_cast<uint32_t>(k) * tableStep), lane_steps);
        acc = vaddq_s32(acc, taps(t, vmovl_s16(vrev64_s16(vld1_s16(x + c - k - 3))), shift));
    }
    if (k <= kLeftLast) {
        int16_t part[4] = {};
        for (int32_t i = 0; k + i <= kLeftLast; ++i) part[i] = x[c - k - i];
        const uint32x4_t t = vaddq_u32(vdupq_n_u32(t0 + static_cast<uint32_t>(k) * tableStep), lane_steps);
        acc = vaddq_s32(acc, taps(t, vmovl_s16(vld1_s16(part)), shift));
    }
    // Right wing: x[c + k] at k*T - t0, k = 1 .. kRightLast.
    k = 1;
    for (; k + 3 <= kRightLast; k += 4) {
        const uint32x4_t t = vaddq_u32(vdupq_n_u32(static_cast<uint32_t>(k) * tableStep - t0), lane_steps);
        acc = vaddq_s32(acc, taps(t, vmovl_s16(vld1_s16(x + c + k)), shift));
    }
    if (k <= kRightLast) {
        int16_t part[4] = {};
        for (int32_t i = 0; k + i <= kRightLast; ++i) part[i] = x[c + k + i];
        const uint32x4_t t = vaddq_u32(vdupq_n_u32(static_cast<uint32_t>(k) * tableStep - t0), lane_steps);
        acc = vaddq_s32(acc, taps(t, vmovl_s16(vld1_s16(part)), shift));
    }
    return vaddvq_u32(vreinterpretq_u32_s32(acc));
}

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
    sinc_sum,
    linear_expand,
    linear_shrink,
    moves::gather_channel,
    moves::scatter_channel,
    moves::split_channels,
    moves::merge_channels,
};

}  // namespace rsmpl
