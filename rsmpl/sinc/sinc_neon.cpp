// The sinc interpolator's sum with AArch64 Advanced SIMD.
#include <arm_neon.h>

#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/sinc/sinc_kernel.hpp"

namespace rsmpl {
namespace {

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

}  // namespace

uint32_t sinc_sum_neon(const int16_t *x, int32_t c, int32_t kLeftFirst, int32_t kLeftLast, int32_t kRightLast,
                       uint32_t t0, uint32_t tableStep, int shift) {
    return sinc_sum(x, c, kLeftFirst, kLeftLast, kRightLast, t0, tableStep, shift);
}

}  // namespace rsmpl
