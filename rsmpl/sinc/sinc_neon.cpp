// The sinc interpolator's sums on AArch64 Advanced SIMD: four taps per
// register. The block driver and the arithmetic are described in
// sinc_block.hpp.

#include <arm_neon.h>

#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/sinc/sinc_block.hpp"

namespace rsmpl::sinc {
namespace {

// sqdmulh keeps bits 31..62 of twice a product: with one factor scaled by
// 2^15 that is the floor of the product >> 16, and it saturates only for
// two factors of -2^31, which never meet here (|x << 15| <= 2^30, g' << 15
// < 2^31). So a coefficient is wing + sqdmulh(delta, g' << 15) and a tap
// sqdmulh(coef, x << 15): one instruction each for four lanes.
struct Neon {
    static constexpr int kLanes = 4;

    struct Window {
        alignas(64) int32_t x[kSamples];  // x << 15
    };
    static void prepare(const SincRun &r, int32_t filled, Window &w) {
        fill_window(r, filled, w.x, [](int32_t v) { return v * (1 << 15); });
    }
    static constexpr int kFractionShift = 15;
    static constexpr bool kSlots = false;

    // Bits 16..47 of the 64-bit products of signed 32-bit lanes.
    [[gnu::always_inline]] static int32x4_t mul_shift16(int32x4_t a, int32x4_t b) {
        return vcombine_s32(vshrn_n_s64(vmull_s32(vget_low_s32(a), vget_low_s32(b)), 16),
                            vshrn_n_s64(vmull_high_s32(a, b), 16));
    }

    // where_plain four outputs at a time, the advance kept as running sums
    // (n stays below 65536, so sinc_advance never wraps its count).
    static void where(const SincRun &r, uint32_t base, uint32_t n, int32_t far, UnityOutputs &o) {
        const uint32_t whole = (r.step >> 16) << 8, part = r.step & 0xFFFFu;
        const uint32x4_t lane = vcombine_u32(vcreate_u32(0x0000000100000000ull), vcreate_u32(0x0000000300000002ull));
        const uint32x4_t m = vaddq_u32(vdupq_n_u32(base), lane);
        uint32x4_t a = vmulq_n_u32(m, whole);
        uint32x4_t b = vaddq_u32(vmulq_n_u32(m, part), vdupq_n_u32(128));
        const uint32x4_t a4 = vdupq_n_u32(whole * 4), b4 = vdupq_n_u32(part * 4);
        const uint32x4_t p0 = vdupq_n_u32(r.p0), unity = vdupq_n_u32(kUnityTableStep);
        const int32x4_t h = vdupq_n_s32(r.h), farv = vdupq_n_s32(far);
        uint32_t j = 0;
        for (; j + 4 <= n; j += 4) {
            RSMPL_MCA_BEGIN("sinc_up_where", 4, 0);
            const uint32x4_t p = vaddq_u32(p0, vsraq_n_u32(a, b, 8));
            vst1q_s32(o.at + j, vminq_s32(vaddq_s32(vreinterpretq_s32_u32(vshrq_n_u32(p, 16)), h), farv));
            const uint32x4_t f = vandq_u32(p, vdupq_n_u32(0xFFFF));
            const uint32x4_t t0 = vshlq_n_u32(vsraq_n_u32(f, f, 15), 7);
            const uint32x4_t u = vsubq_u32(unity, t0);
            vst1q_s32(o.left + j, vreinterpretq_s32_u32(vshlq_n_u32(vshrq_n_u32(t0, 16), 4)));
            vst1q_s32(o.right + j, vreinterpretq_s32_u32(vshlq_n_u32(vshrq_n_u32(u, 16), 4)));
            const uint32x4_t gl = vandq_u32(t0, vdupq_n_u32(0xFFFF)), gr = vandq_u32(u, vdupq_n_u32(0xFFFF));
            vst1q_s32(o.gl + j, vreinterpretq_s32_u32(vshlq_n_u32(vsraq_n_u32(gl, gl, 15), kFractionShift)));
            vst1q_s32(o.gr + j, vreinterpretq_s32_u32(vshlq_n_u32(vsraq_n_u32(gr, gr, 15), kFractionShift)));
            a = vaddq_u32(a, a4);
            b = vaddq_u32(b, b4);
            RSMPL_MCA_END("sinc_up_where", 4, 0);
        }
        where_plain<kFractionShift>(r, base, j, n, far, o);
    }

    // Each output at 128 entries per tap: x[c - 15 .. c] against the
    // reversed row of t0, x[c + 1 .. c + 16] against the row of 128 entries
    // - t0. The fractions are below 65536 here (t0 is a multiple of 128).
    static void rows(const Window &w, const SincRows &r, const UnityOutputs &o, uint32_t n, uint32_t *acc) {
        const int32_t *x0 = w.x + kPad;
        for (uint32_t i = 0; i < n; ++i) {
            RSMPL_MCA_BEGIN("sinc_up", 1, 0);
            const int32_t *xc = x0 + o.at[i];
            const int32_t *wl = r.wingRev + o.left[i], *dl = r.deltaRev + o.left[i];
            const int32_t *wr = r.wing + o.right[i], *dr = r.delta + o.right[i];
            const int32x4_t gl = vld1q_dup_s32(o.gl + i), gr = vld1q_dup_s32(o.gr + i);
            int32x4_t t[8];
#pragma GCC unroll 4
            for (int m = 0; m < 4; ++m) {
                const int32x4_t cl = vaddq_s32(vld1q_s32(wl + 4 * m), vqdmulhq_s32(vld1q_s32(dl + 4 * m), gl));
                t[m] = vqdmulhq_s32(cl, vld1q_s32(xc - 15 + 4 * m));
                const int32x4_t cr = vaddq_s32(vld1q_s32(wr + 4 * m), vqdmulhq_s32(vld1q_s32(dr + 4 * m), gr));
                t[4 + m] = vqdmulhq_s32(cr, vld1q_s32(xc + 1 + 4 * m));
            }
            const int32x4_t s = vaddq_s32(vaddq_s32(vaddq_s32(t[0], t[1]), vaddq_s32(t[2], t[3])),
                                          vaddq_s32(vaddq_s32(t[4], t[5]), vaddq_s32(t[6], t[7])));
            acc[i] = vaddvq_u32(vreinterpretq_u32_s32(s));
            RSMPL_MCA_END("sinc_up", 1, 0);
        }
    }

    // sinc_finish on four outputs at once: (a * G + 2^22) >> 23 is the
    // rounding of ((a * G) >> 15) + 128) >> 8, saturated to 32 bits, shifted
    // back with saturation, then saturated to 16 bits, as sat16(sat32(...)).
    static void finish(const uint32_t *acc, uint32_t n, uint32_t gain, int shift, int16_t *out) {
        const int32x2_t g = vdup_n_s32(static_cast<int32_t>(gain));
        const int32x4_t s = vdupq_n_s32(shift);
        uint32_t i = 0;
        for (; i + 4 <= n; i += 4) {
            RSMPL_MCA_BEGIN("sinc_finish", 4, 0);
            const int32x4_t a = vshrq_n_s32(vreinterpretq_s32_u32(vld1q_u32(acc + i)), 16);
            const int32x4_t y = vcombine_s32(vqrshrn_n_s64(vmull_s32(vget_low_s32(a), g), 23),
                                             vqrshrn_n_s64(vmull_s32(vget_high_s32(a), g), 23));
            vst1_s16(out + i, vqmovn_s32(vqshlq_s32(y, s)));
            RSMPL_MCA_END("sinc_finish", 4, 0);
        }
        for (; i < n; ++i) out[i] = sinc_finish(acc[i], gain, shift);
    }

    // Coefficients at table positions t (below the table's end).
    [[gnu::always_inline]] static int32x4_t coefficient(uint32x4_t t) {
        const uint32x4_t j = vminq_u32(vshrq_n_u32(t, 16), vdupq_n_u32(kSincWingLength - 1));
        int32x4_t wing = vdupq_n_s32(0), delta = vdupq_n_s32(0);
        wing = vld1q_lane_s32(&sincWing[vgetq_lane_u32(j, 0)], wing, 0);
        wing = vld1q_lane_s32(&sincWing[vgetq_lane_u32(j, 1)], wing, 1);
        wing = vld1q_lane_s32(&sincWing[vgetq_lane_u32(j, 2)], wing, 2);
        wing = vld1q_lane_s32(&sincWing[vgetq_lane_u32(j, 3)], wing, 3);
        delta = vld1q_lane_s32(&sincWingDelta[vgetq_lane_u32(j, 0)], delta, 0);
        delta = vld1q_lane_s32(&sincWingDelta[vgetq_lane_u32(j, 1)], delta, 1);
        delta = vld1q_lane_s32(&sincWingDelta[vgetq_lane_u32(j, 2)], delta, 2);
        delta = vld1q_lane_s32(&sincWingDelta[vgetq_lane_u32(j, 3)], delta, 3);
        const uint32x4_t g = vandq_u32(t, vdupq_n_u32(0xFFFF));
        // g' may be 65536 here, so the 64-bit product.
        return vaddq_s32(wing, mul_shift16(delta, vreinterpretq_s32_u32(vsraq_n_u32(g, g, 15))));
    }

    // Coefficients of window taps w = 0 .. taps-1 (x[c - h + w]): the left
    // wing at a - w*T for w <= h, then the right at w*T - a over what the
    // left wing's last group wrote past h; zero from `taps` to the end of the
    // last group.
    static void coefs(int32_t *coef, int32_t taps, uint32_t a, uint32_t tableStep, int32_t h) {
        const uint32x4_t lane = vcombine_u32(vcreate_u32(0x0000000100000000ull), vcreate_u32(0x0000000300000002ull));
        const uint32x4_t step = vdupq_n_u32(tableStep * 4), av = vdupq_n_u32(a);
        uint32x4_t wt = vmulq_n_u32(lane, tableStep);
        for (int32_t w = 0; w <= h; w += 4, wt = vaddq_u32(wt, step)) vst1q_s32(coef + w, coefficient(vsubq_u32(av, wt)));
        wt = vmulq_n_u32(vaddq_u32(lane, vdupq_n_u32(static_cast<uint32_t>(h) + 1)), tableStep);
        for (int32_t w = h + 1; w < taps; w += 4, wt = vaddq_u32(wt, step))
            vst1q_s32(coef + w, coefficient(vsubq_u32(wt, av)));
        for (int32_t w = taps; w < taps + 4; ++w) coef[w] = 0;
    }

    static uint32_t dot(const Window &win, int32_t first, const int32_t *coef, int32_t taps) {
        const int32_t *x = win.x + kPad + first;
        int32x4_t acc = vdupq_n_s32(0);
        for (int32_t w = 0; w < taps; w += 4) acc = vaddq_s32(acc, vqdmulhq_s32(vld1q_s32(coef + w), vld1q_s32(x + w)));
        return vaddvq_u32(vreinterpretq_u32_s32(acc));
    }
};

}  // namespace
}  // namespace rsmpl::sinc

namespace rsmpl {

void sinc_run_neon(const SincRun &run, int16_t *out) { sinc::run<sinc::Neon>(run, out); }

}  // namespace rsmpl
