// The sinc interpolator's sums on AArch64 Advanced SIMD: four taps per
// register. The block driver and the arithmetic are described in
// sinc_block.hpp.
#pragma once

#include <arm_neon.h>

#include "rsmpl/sinc_block.hpp"

namespace rsmpl::sinc {
namespace {

struct Neon {
    static constexpr int kLanes = 4;

    // Bits 16..47 of the 64-bit products of signed 32-bit lanes.
    [[gnu::always_inline]] static int32x4_t mul_shift16(int32x4_t a, int32x4_t b) {
        return vcombine_s32(vshrn_n_s64(vmull_s32(vget_low_s32(a), vget_low_s32(b)), 16),
                            vshrn_n_s64(vmull_high_s32(a, b), 16));
    }

    static uint32_t fraction(uint32_t t) {
        const uint32_t g = t & 0xFFFFu;
        return g + (g >> 15);  // 0xFFFF counts as a whole entry
    }

    // One output at 128 entries per tap: x[c - 15 .. c] against the reversed
    // row of t0, x[c + 1 .. c + 16] against the row of 128 entries - t0.
    [[gnu::always_inline]] static uint32_t rows(const int32_t *xc, const SincRows &r, uint32_t t0) {
        const uint32_t u = kUnityTableStep - t0;
        const int32_t *wl = r.wingRev[t0 >> 16], *dl = r.deltaRev[t0 >> 16];
        const int32_t *wr = r.wing[u >> 16], *dr = r.delta[u >> 16];
        const int32x4_t gl = vdupq_n_s32(static_cast<int32_t>(fraction(t0)));
        const int32x4_t gr = vdupq_n_s32(static_cast<int32_t>(fraction(u)));
        int32x4_t acc0 = vdupq_n_s32(0), acc1 = vdupq_n_s32(0);
#pragma GCC unroll 4
        for (int m = 0; m < 16; m += 4) {
            const int32x4_t cl = vaddq_s32(vld1q_s32(wl + m), mul_shift16(vld1q_s32(dl + m), gl));
            acc0 = vaddq_s32(acc0, mul_shift16(cl, vld1q_s32(xc - 15 + m)));
            const int32x4_t cr = vaddq_s32(vld1q_s32(wr + m), mul_shift16(vld1q_s32(dr + m), gr));
            acc1 = vaddq_s32(acc1, mul_shift16(cr, vld1q_s32(xc + 1 + m)));
        }
        return vaddvq_u32(vreinterpretq_u32_s32(vaddq_s32(acc0, acc1)));
    }

    // Coefficients of window taps w = 0 .. taps-1 (x[c - h + w]): the left
    // wing at a - w*T for w <= h, the right at w*T - a; zero from `taps` to
    // the end of the last group.
    static void coefs(int32_t *coef, int32_t taps, uint32_t a, uint32_t tableStep, int32_t h) {
        const uint32x4_t step = vdupq_n_u32(tableStep * 4);
        const uint32x4_t av = vdupq_n_u32(a), hv = vdupq_n_u32(static_cast<uint32_t>(h));
        const uint32x4_t nv = vdupq_n_u32(static_cast<uint32_t>(taps));
        uint32x4_t w = vcombine_u32(vcreate_u32(0x0000000100000000ull), vcreate_u32(0x0000000300000002ull));
        uint32x4_t wt = vmulq_n_u32(w, tableStep);
        for (int32_t w0 = 0; w0 < taps; w0 += 4) {
            const uint32x4_t t = vbslq_u32(vcleq_u32(w, hv), vsubq_u32(av, wt), vsubq_u32(wt, av));
            const uint32x4_t j = vshrq_n_u32(t, 16);
            const uint32x4_t inside = vandq_u32(vcltq_u32(j, vdupq_n_u32(kSincWingLength)), vcltq_u32(w, nv));
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
            const int32x4_t g1 = vreinterpretq_s32_u32(vsraq_n_u32(g, g, 15));
            const int32x4_t c = vaddq_s32(wing, mul_shift16(delta, g1));
            vst1q_s32(coef + w0, vandq_s32(vreinterpretq_s32_u32(inside), c));
            w = vaddq_u32(w, vdupq_n_u32(4));
            wt = vaddq_u32(wt, step);
        }
    }

    static uint32_t dot(const int32_t *x, const int32_t *coef, int32_t taps) {
        int32x4_t acc = vdupq_n_s32(0);
        for (int32_t w = 0; w < taps; w += 4) acc = vaddq_s32(acc, mul_shift16(vld1q_s32(coef + w), vld1q_s32(x + w)));
        return vaddvq_u32(vreinterpretq_u32_s32(acc));
    }
};

}  // namespace
}  // namespace rsmpl::sinc
