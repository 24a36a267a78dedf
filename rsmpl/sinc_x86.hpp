// The sinc interpolator's sums on x86-64, SSE4.1 (4 lanes) or AVX2 (8 lanes)
// after the flags of the including file; lanes are taps. The block driver
// and the arithmetic are described in sinc_block.hpp.
#pragma once

#include <immintrin.h>

#include "rsmpl/sinc_block.hpp"

namespace rsmpl::sinc {
namespace {

struct X86 {
    static constexpr int32_t kSampleScale = 1;
    static constexpr int kFractionShift = 0;
#if defined(__AVX2__)
    using V = __m256i;
    static constexpr int kLanes = 8;
    static V load(const int32_t *p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p)); }
    static void store(int32_t *p, V v) { _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), v); }
    static V set1(uint32_t a) { return _mm256_set1_epi32(static_cast<int32_t>(a)); }
    static V lanes() { return _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7); }
    static V add(V a, V b) { return _mm256_add_epi32(a, b); }
    static V sub(V a, V b) { return _mm256_sub_epi32(a, b); }
    static V and_(V a, V b) { return _mm256_and_si256(a, b); }
    static V mullo(V a, V b) { return _mm256_mullo_epi32(a, b); }
    static V srl(V a, int n) { return _mm256_srli_epi32(a, n); }
    static V less(V a, V b) { return _mm256_cmpgt_epi32(b, a); }
    static V select(V mask, V a, V b) { return _mm256_blendv_epi8(b, a, mask); }
    static V min(V a, V b) { return _mm256_min_epu32(a, b); }
    // Bits 16..47 of the 64-bit products of signed 32-bit lanes.
    static V mul_shift16(V a, V b) {
        const V even = _mm256_srli_epi64(_mm256_mul_epi32(a, b), 16);
        const V odd = _mm256_slli_epi64(_mm256_mul_epi32(_mm256_srli_epi64(a, 32), _mm256_srli_epi64(b, 32)), 16);
        return _mm256_blend_epi32(even, odd, 0xAA);
    }
    static void gather(V j, V *wing, V *delta) {
        *wing = _mm256_i32gather_epi32(reinterpret_cast<const int *>(sincWing), j, 4);
        *delta = _mm256_i32gather_epi32(reinterpret_cast<const int *>(sincWingDelta), j, 4);
    }
    static uint32_t sum(V a) {
        __m128i v = _mm_add_epi32(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
        v = _mm_add_epi32(v, _mm_shuffle_epi32(v, 0x4E));
        v = _mm_add_epi32(v, _mm_shuffle_epi32(v, 0xB1));
        return static_cast<uint32_t>(_mm_cvtsi128_si32(v));
    }
#else
    using V = __m128i;
    static constexpr int kLanes = 4;
    static V load(const int32_t *p) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p)); }
    static void store(int32_t *p, V v) { _mm_storeu_si128(reinterpret_cast<__m128i *>(p), v); }
    static V set1(uint32_t a) { return _mm_set1_epi32(static_cast<int32_t>(a)); }
    static V lanes() { return _mm_setr_epi32(0, 1, 2, 3); }
    static V add(V a, V b) { return _mm_add_epi32(a, b); }
    static V sub(V a, V b) { return _mm_sub_epi32(a, b); }
    static V and_(V a, V b) { return _mm_and_si128(a, b); }
    static V mullo(V a, V b) { return _mm_mullo_epi32(a, b); }
    static V srl(V a, int n) { return _mm_srli_epi32(a, n); }
    static V less(V a, V b) { return _mm_cmplt_epi32(a, b); }
    static V select(V mask, V a, V b) { return _mm_blendv_epi8(b, a, mask); }
    static V min(V a, V b) { return _mm_min_epu32(a, b); }
    static V mul_shift16(V a, V b) {
        const V even = _mm_srli_epi64(_mm_mul_epi32(a, b), 16);
        const V odd = _mm_slli_epi64(_mm_mul_epi32(_mm_srli_epi64(a, 32), _mm_srli_epi64(b, 32)), 16);
        return _mm_blend_epi16(even, odd, 0xCC);
    }
    static void gather(V j, V *wing, V *delta) {
        alignas(16) uint32_t i[4];
        _mm_store_si128(reinterpret_cast<__m128i *>(i), j);
        *wing = _mm_setr_epi32(sincWing[i[0]], sincWing[i[1]], sincWing[i[2]], sincWing[i[3]]);
        *delta = _mm_setr_epi32(sincWingDelta[i[0]], sincWingDelta[i[1]], sincWingDelta[i[2]], sincWingDelta[i[3]]);
    }
    static uint32_t sum(V a) {
        V v = _mm_add_epi32(a, _mm_shuffle_epi32(a, 0x4E));
        v = _mm_add_epi32(v, _mm_shuffle_epi32(v, 0xB1));
        return static_cast<uint32_t>(_mm_cvtsi128_si32(v));
    }
#endif

    // Each output at 128 entries per tap: x[c - 15 .. c] against the
    // reversed row of t0, x[c + 1 .. c + 16] against the row of 128 entries
    // - t0.
    static void rows(const int32_t *x0, const SincRows &r, const UnityOutputs &o, uint32_t n, uint32_t *acc) {
        for (uint32_t i = 0; i < n; ++i) {
            const int32_t *xc = x0 + o.at[i];
            const int32_t *wl = r.wingRev[0] + o.left[i], *dl = r.deltaRev[0] + o.left[i];
            const int32_t *wr = r.wing[0] + o.right[i], *dr = r.delta[0] + o.right[i];
            const V gl = set1(static_cast<uint32_t>(o.gl[i])), gr = set1(static_cast<uint32_t>(o.gr[i]));
            V sum0 = set1(0), sum1 = set1(0);
#pragma GCC unroll 4
            for (int m = 0; m < 16; m += kLanes) {
                const V cl = add(load(wl + m), mul_shift16(load(dl + m), gl));
                sum0 = add(sum0, mul_shift16(cl, load(xc - 15 + m)));
                const V cr = add(load(wr + m), mul_shift16(load(dr + m), gr));
                sum1 = add(sum1, mul_shift16(cr, load(xc + 1 + m)));
            }
            acc[i] = sum(add(sum0, sum1));
        }
    }

    static void where(const SincRun &r, uint32_t base, uint32_t n, int32_t far, UnityOutputs &o) {
        where_plain<kFractionShift>(r, base, 0, n, far, o);
    }

    static void finish(const uint32_t *acc, uint32_t n, uint32_t gain, int shift, int16_t *out) {
        for (uint32_t i = 0; i < n; ++i) out[i] = sinc_finish(acc[i], gain, shift);
    }

    // Coefficients of window taps w = 0 .. taps-1 (x[c - h + w]): the left
    // wing at a - w*T for w <= h, the right at w*T - a; zero from `taps` to
    // the end of the last group.
    static void coefs(int32_t *coef, int32_t taps, uint32_t a, uint32_t tableStep, int32_t h) {
        const V step = set1(tableStep * kLanes);
        const V av = set1(a), hv = set1(static_cast<uint32_t>(h) + 1), nv = set1(static_cast<uint32_t>(taps));
        V w = lanes();
        V wt = mullo(w, set1(tableStep));
        for (int32_t w0 = 0; w0 < taps; w0 += kLanes) {
            const V t = select(less(w, hv), sub(av, wt), sub(wt, av));
            const V j = srl(t, 16);
            const V inside = and_(less(j, set1(kSincWingLength)), less(w, nv));
            V wing, delta;
            gather(min(j, set1(kSincWingLength - 1)), &wing, &delta);
            const V g = and_(t, set1(0xFFFF));
            const V g1 = add(g, srl(g, 15));
            store(coef + w0, and_(inside, add(wing, mul_shift16(delta, g1))));
            w = add(w, set1(kLanes));
            wt = add(wt, step);
        }
    }

    static uint32_t dot(const int32_t *x, const int32_t *coef, int32_t taps) {
        V acc = set1(0);
        for (int32_t w = 0; w < taps; w += kLanes) acc = add(acc, mul_shift16(load(coef + w), load(x + w)));
        return sum(acc);
    }
};

}  // namespace
}  // namespace rsmpl::sinc
