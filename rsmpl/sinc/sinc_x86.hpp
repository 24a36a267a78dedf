// The sinc interpolator's x86-64 sum, written once for 128-bit (SSE4.1) and
// 256-bit (AVX2) vectors with the FIR kernels' lane helpers: sinc_sse41.cpp
// and sinc_avx2.cpp include this file, each compiled for its instruction
// set. Internal linkage only.
#pragma once

#include "rsmpl/fir/fir_x86.hpp"
#include "rsmpl/sinc/sinc_kernel.hpp"

namespace rsmpl {
namespace {

// Lanes are taps. Per lane, as the scalar form: the table position t (32-bit,
// wrapping), the coefficient wing[j] + ((delta[j] * g') >> 16) from a 64-bit
// product, zero for j >= 1792, and the tap (c * (x >> s)) >> 16, also from a
// 64-bit product. Only bits 16..47 of each product are kept: the coefficient
// step fits 32 bits (|delta * g' / 2^16| <= |delta|), and the taps are summed
// modulo 2^32 like the scalar 32-bit accumulator, so the order of the sum does
// not matter. A wing's last taps take their samples from a zero-padded copy.

// Bits 16..47 of the 64-bit products a * b of signed 32-bit lanes.
[[gnu::always_inline]] inline fir::Vec mul_shift16(fir::Vec a, fir::Vec b) {
#if defined(__AVX2__)
    const __m256i even = _mm256_srli_epi64(_mm256_mul_epi32(a, b), 16);
    const __m256i odd = _mm256_slli_epi64(_mm256_mul_epi32(_mm256_srli_epi64(a, 32), _mm256_srli_epi64(b, 32)), 16);
    return _mm256_blend_epi32(even, odd, 0xAA);
#else
    const __m128i even = _mm_srli_epi64(_mm_mul_epi32(a, b), 16);
    const __m128i odd = _mm_slli_epi64(_mm_mul_epi32(_mm_srli_epi64(a, 32), _mm_srli_epi64(b, 32)), 16);
    return _mm_blend_epi16(even, odd, 0xCC);
#endif
}

// wing[j] and delta[j] for the lanes' indices (below kSincWingLength).
[[gnu::always_inline]] inline void wing_entries(fir::Vec j, fir::Vec *wing, fir::Vec *delta) {
#if defined(__AVX2__)
    *wing = _mm256_i32gather_epi32(reinterpret_cast<const int *>(sincWing), j, 4);
    *delta = _mm256_i32gather_epi32(reinterpret_cast<const int *>(sincWingDelta), j, 4);
#else
    const int j0 = _mm_cvtsi128_si32(j), j1 = _mm_extract_epi32(j, 1), j2 = _mm_extract_epi32(j, 2),
              j3 = _mm_extract_epi32(j, 3);
    *wing = _mm_setr_epi32(sincWing[j0], sincWing[j1], sincWing[j2], sincWing[j3]);
    *delta = _mm_setr_epi32(sincWingDelta[j0], sincWingDelta[j1], sincWingDelta[j2], sincWingDelta[j3]);
#endif
}

#if defined(__AVX2__)
[[gnu::always_inline]] inline fir::Vec lane_index() { return _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7); }
[[gnu::always_inline]] inline fir::Vec mullo(fir::Vec a, fir::Vec b) { return _mm256_mullo_epi32(a, b); }
[[gnu::always_inline]] inline fir::Vec sub(fir::Vec a, fir::Vec b) { return _mm256_sub_epi32(a, b); }
[[gnu::always_inline]] inline fir::Vec srli16(fir::Vec a) { return _mm256_srli_epi32(a, 16); }
[[gnu::always_inline]] inline fir::Vec srli15(fir::Vec a) { return _mm256_srli_epi32(a, 15); }
[[gnu::always_inline]] inline fir::Vec less(fir::Vec a, fir::Vec b) { return _mm256_cmpgt_epi32(b, a); }
[[gnu::always_inline]] inline fir::Vec min32(fir::Vec a, fir::Vec b) { return _mm256_min_epi32(a, b); }
[[gnu::always_inline]] inline fir::Vec widen(const int16_t *p) {
    return _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)));
}
[[gnu::always_inline]] inline fir::Vec reverse(fir::Vec a) {
    return _mm256_permutevar8x32_epi32(a, _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0));
}
[[gnu::always_inline]] inline fir::Vec sra(fir::Vec a, int s) { return _mm256_sra_epi32(a, _mm_cvtsi32_si128(s)); }
[[gnu::always_inline]] inline uint32_t lane_sum(fir::Vec a) {
    __m128i v = _mm_add_epi32(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, 0x4E));
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, 0xB1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(v));
}
#else
[[gnu::always_inline]] inline fir::Vec lane_index() { return _mm_setr_epi32(0, 1, 2, 3); }
[[gnu::always_inline]] inline fir::Vec mullo(fir::Vec a, fir::Vec b) { return _mm_mullo_epi32(a, b); }
[[gnu::always_inline]] inline fir::Vec sub(fir::Vec a, fir::Vec b) { return _mm_sub_epi32(a, b); }
[[gnu::always_inline]] inline fir::Vec srli16(fir::Vec a) { return _mm_srli_epi32(a, 16); }
[[gnu::always_inline]] inline fir::Vec srli15(fir::Vec a) { return _mm_srli_epi32(a, 15); }
[[gnu::always_inline]] inline fir::Vec less(fir::Vec a, fir::Vec b) { return _mm_cmplt_epi32(a, b); }
[[gnu::always_inline]] inline fir::Vec min32(fir::Vec a, fir::Vec b) { return _mm_min_epi32(a, b); }
[[gnu::always_inline]] inline fir::Vec widen(const int16_t *p) {
    return _mm_cvtepi16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(p)));
}
[[gnu::always_inline]] inline fir::Vec reverse(fir::Vec a) { return _mm_shuffle_epi32(a, 0x1B); }
[[gnu::always_inline]] inline fir::Vec sra(fir::Vec a, int s) { return _mm_sra_epi32(a, _mm_cvtsi32_si128(s)); }
[[gnu::always_inline]] inline uint32_t lane_sum(fir::Vec a) {
    __m128i v = _mm_add_epi32(a, _mm_shuffle_epi32(a, 0x4E));
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, 0xB1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(v));
}
#endif

constexpr int kW = fir::kLanes;

// Taps of W table positions t against W samples (already as 32-bit lanes).
[[gnu::always_inline]] inline fir::Vec taps(fir::Vec t, fir::Vec samples, int shift) {
    const fir::Vec j = srli16(t);
    const fir::Vec inside = less(j, fir::set1(kSincWingLength));
    fir::Vec wing, delta;
    wing_entries(min32(j, fir::set1(kSincWingLength - 1)), &wing, &delta);
    const fir::Vec g = fir::and_(t, fir::set1(0xFFFF));
    const fir::Vec g1 = fir::add(g, srli15(g));  // 0xFFFF counts as one whole entry
    const fir::Vec coef = fir::and_(inside, fir::add(wing, mul_shift16(delta, g1)));
    return mul_shift16(coef, sra(samples, shift));
}

uint32_t sinc_sum(const int16_t *x, int32_t c, int32_t kLeftFirst, int32_t kLeftLast, int32_t kRightLast,
                  uint32_t t0, uint32_t tableStep, int shift) {
    fir::Vec acc = fir::zero();
    const fir::Vec lanes = lane_index();
    const fir::Vec step = fir::set1(static_cast<int32_t>(tableStep));
    const fir::Vec lane_steps = mullo(lanes, step);  // lane * T, wrapping like the scalar positions
    // Left wing: x[c - k] at t0 + k*T, k = kLeftFirst .. kLeftLast.
    int32_t k = kLeftFirst;
    for (; k + kW - 1 <= kLeftLast; k += kW) {
        const fir::Vec t = fir::add(fir::set1(static_cast<int32_t>(t0 + static_cast<uint32_t>(k) * tableStep)), lane_steps);
        acc = fir::add(acc, taps(t, reverse(widen(x + c - k - (kW - 1))), shift));
    }
    if (k <= kLeftLast) {
        alignas(32) int16_t part[kW] = {};
        for (int32_t i = 0; k + i <= kLeftLast; ++i) part[i] = x[c - k - i];
        const fir::Vec t = fir::add(fir::set1(static_cast<int32_t>(t0 + static_cast<uint32_t>(k) * tableStep)), lane_steps);
        acc = fir::add(acc, taps(t, widen(part), shift));
    }
    // Right wing: x[c + k] at k*T - t0, k = 1 .. kRightLast.
    k = 1;
    for (; k + kW - 1 <= kRightLast; k += kW) {
        const fir::Vec t = fir::add(fir::set1(static_cast<int32_t>(static_cast<uint32_t>(k) * tableStep - t0)), lane_steps);
        acc = fir::add(acc, taps(t, widen(x + c + k), shift));
    }
    if (k <= kRightLast) {
        alignas(32) int16_t part[kW] = {};
        for (int32_t i = 0; k + i <= kRightLast; ++i) part[i] = x[c + k + i];
        const fir::Vec t = fir::add(fir::set1(static_cast<int32_t>(static_cast<uint32_t>(k) * tableStep - t0)), lane_steps);
        acc = fir::add(acc, taps(t, widen(part), shift));
    }
    return lane_sum(acc);
}

}  // namespace
}  // namespace rsmpl
