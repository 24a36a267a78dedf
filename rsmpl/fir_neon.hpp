// The AArch64 Advanced SIMD FIR kernels. Included by rsmpl/kernels_neon.cpp
// only; internal linkage.
//
// Lanes are groups (rsmpl/fir_layout.hpp), eight per block. The interleaving
// loads do the de-interleaving: ld2 (R = 1), ld4 (R = 2) and two ld3 with
// uzp (R = 3) give, for each tap i, the eight groups' samples x[b0 + 2Rt + i]
// in one register. Each tap is a widening multiply-accumulate (smlal) of
// those samples by the tap's coefficient.
//
// Arithmetic of every output, per group lane:
//   accumulate  16x16 products summed exactly into the 32-bit partial sum of
//               the tap's bin (both taps of a pair share a bin); each bin's
//               taps have absolute values adding up to less than 65536, so no
//               partial sum can wrap (compile-time check, and the tests)
//   combine     the bins are added in 64 bits (saddw), exact
//   round       sqrshrn by s adds 2^(s-1) and shifts: halves towards +inf,
//               saturating to 32 bits (never reached: |S| < 2^34)
//   saturate    sqxtn clamps to -32768..32767
#pragma once

#include <arm_neon.h>

#include "rsmpl/fir_driver.hpp"

namespace rsmpl::fir {
namespace {

// The 2R taps 2Rq .. 2Rq + 2R-1 of eight groups from p = x + b0 + 2R*t0.
template <int R>
[[gnu::always_inline]] inline void load_taps(const int16_t *p, int q, int16x8_t *v) {
    if constexpr (R == 1) {
        const int16x8x2_t a = vld2q_s16(p + 2 * q);
        v[0] = a.val[0];
        v[1] = a.val[1];
    } else if constexpr (R == 2) {
        const int16x8x4_t a = vld4q_s16(p + 4 * q);
        for (int r = 0; r < 4; ++r) v[r] = a.val[r];
    } else {
        static_assert(R == 3);
        // Stride 3 gives two samples per group: groups 0-3 from a, 4-7 from b;
        // even elements are taps r, odd ones taps r + 3.
        const int16x8x3_t a = vld3q_s16(p + 6 * q), b = vld3q_s16(p + 6 * q + 24);
        for (int r = 0; r < 3; ++r) {
            v[r] = vuzp1q_s16(a.val[r], b.val[r]);
            v[r + 3] = vuzp2q_s16(a.val[r], b.val[r]);
        }
    }
}

// R_s of the sum of the bins, eight groups.
template <int s, int A>
[[gnu::always_inline]] inline int16x8_t finish(const int32x4_t (&lo)[A], const int32x4_t (&hi)[A]) {
    int64x2_t a = vmovl_s32(vget_low_s32(lo[0])), b = vmovl_high_s32(lo[0]);
    int64x2_t c = vmovl_s32(vget_low_s32(hi[0])), d = vmovl_high_s32(hi[0]);
    for (int k = 1; k < A; ++k) {
        a = vaddw_s32(a, vget_low_s32(lo[k]));
        b = vaddw_high_s32(b, lo[k]);
        c = vaddw_s32(c, vget_low_s32(hi[k]));
        d = vaddw_high_s32(d, hi[k]);
    }
    const int32x4_t l = vcombine_s32(vqrshrn_n_s64(a, s), vqrshrn_n_s64(b, s));
    const int32x4_t h = vcombine_s32(vqrshrn_n_s64(c, s), vqrshrn_n_s64(d, s));
    return vcombine_s16(vqmovn_s32(l), vqmovn_s32(h));
}

// Phase outputs of eight groups to output order.
template <int P>
[[gnu::always_inline]] inline void store_groups(int16_t *out, const int16x8_t (&y)[P]) {
    if constexpr (P == 1) {
        vst1q_s16(out, y[0]);
    } else if constexpr (P == 2) {
        vst2q_s16(out, (int16x8x2_t){{y[0], y[1]}});
    } else if constexpr (P == 3) {
        vst3q_s16(out, (int16x8x3_t){{y[0], y[1], y[2]}});
    } else if constexpr (P == 4) {
        vst4q_s16(out, (int16x8x4_t){{y[0], y[1], y[2], y[3]}});
    } else {
        // Pairs of phases as 32-bit elements: e[k][0] groups 0-3, e[k][1] 4-7.
        int32x4_t e[P / 2][2];
        for (int k = 0; k < P / 2; ++k) {
            e[k][0] = vreinterpretq_s32_s16(vzip1q_s16(y[2 * k], y[2 * k + 1]));
            e[k][1] = vreinterpretq_s32_s16(vzip2q_s16(y[2 * k], y[2 * k + 1]));
        }
        auto *o = reinterpret_cast<int32_t *>(out);
        if constexpr (P == 6) {
            for (int h = 0; h < 2; ++h) vst3q_s32(o + 12 * h, (int32x4x3_t){{e[0][h], e[1][h], e[2][h]}});
        } else if constexpr (P == 8) {
            for (int h = 0; h < 2; ++h) vst4q_s32(o + 16 * h, (int32x4x4_t){{e[0][h], e[1][h], e[2][h], e[3][h]}});
        } else {
            static_assert(P == 12);
            // Quads of phases as 64-bit elements, two groups per register.
            auto *o64 = reinterpret_cast<int64_t *>(out);
            for (int h = 0; h < 2; ++h)
                for (int z = 0; z < 2; ++z) {
                    int64x2_t f[3];
                    for (int k = 0; k < 3; ++k)
                        f[k] = vreinterpretq_s64_s32(z == 0 ? vzip1q_s32(e[2 * k][h], e[2 * k + 1][h])
                                                            : vzip2q_s32(e[2 * k][h], e[2 * k + 1][h]));
                    vst3q_s64(o64 + 12 * h + 6 * z, (int64x2x3_t){{f[0], f[1], f[2]}});
                }
        }
    }
}

// Eight groups whose samples start at x (group 0 at x[b0]).
template <const auto &L>
[[gnu::always_inline]] inline void block(const int16_t *x, int16_t *out) {
    using Layout = std::remove_cvref_t<decltype(L)>;
    constexpr int P = Layout::P;
    constexpr int Mp = Layout::Mp;
    constexpr int A = L.bins;
    constexpr int R = L.R;
    constexpr int U = L.period;
    // Phases per pass: their accumulators (2A registers each) take at most 16.
    constexpr int PC = 16 / (2 * A) < P ? 16 / (2 * A) : P;
    constexpr int kPasses = (P + PC - 1) / PC;
    const int16_t *p = x + L.b0;
    int16x8_t y[P];
    unroll<kPasses>([&](auto pass_c) __attribute__((always_inline)) {
        constexpr int pass = decltype(pass_c)::value;
        int32x4_t lo[PC][A], hi[PC][A];
        for (int q = 0; q < PC; ++q)
            for (int b = 0; b < A; ++b) lo[q][b] = hi[q][b] = vdupq_n_s32(0);
        // Pairs m0 + k*R .. m0 + k*R + R-1, k known at compile time.
        auto taps = [&](int m0, auto kc) __attribute__((always_inline)) {
            constexpr int k = decltype(kc)::value;
            int16x8_t v[2 * R];
            load_taps<R>(p, m0 / R + k, v);
            unroll<2 * R>([&](auto rc) __attribute__((always_inline)) {
                constexpr int r = decltype(rc)::value;
                constexpr int b = L.bin[0][k * R + r / 2];
                const int i = 2 * (m0 + k * R) + r;
                unroll<PC>([&](auto qc) __attribute__((always_inline)) {
                    constexpr int q = decltype(qc)::value;
                    constexpr int ph = pass * PC + q;
                    if constexpr (ph < P) {
                        const int16_t c = L.c[ph][i];
                        lo[q][b] = vmlal_n_s16(lo[q][b], vget_low_s16(v[r]), c);
                        hi[q][b] = vmlal_high_n_s16(hi[q][b], v[r], c);
                    }
                });
            });
        };
        int m0 = 0;
        for (; m0 + U <= Mp; m0 += U)
            unroll<U / R>([&](auto kc) __attribute__((always_inline)) { taps(m0, kc); });
        unroll<U / R>([&](auto kc) __attribute__((always_inline)) {
            if constexpr (Mp / U * U + decltype(kc)::value * R < Mp) taps(Mp / U * U, kc);
        });
        unroll<PC>([&](auto qc) __attribute__((always_inline)) {
            constexpr int q = decltype(qc)::value;
            constexpr int ph = pass * PC + q;
            if constexpr (ph < P) y[ph] = finish<L.shift, A>(lo[q], hi[q]);
        });
    });
    store_groups<P>(out, y);
}

struct Neon {
    static constexpr int kGroups = 8;

    template <const auto &L>
    static void chunk(const int16_t *x, int blocks, int16_t *out) {
        constexpr int P = std::remove_cvref_t<decltype(L)>::P;
        for (int b = 0; b < blocks; ++b) block<L>(x + 2 * L.R * kGroups * b, out + P * kGroups * b);
    }
};

}  // namespace
}  // namespace rsmpl::fir
