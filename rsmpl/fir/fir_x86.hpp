// The x86-64 FIR kernels, written once for 128-bit (SSE4.1) and 256-bit
// (AVX2) vectors: fir_sse41.cpp and fir_avx2.cpp include this file, each
// compiled for its instruction set. Internal linkage only.
//
// Lanes are groups (fir_layout.hpp): a 32-bit lane holds one group's
// partial sum, so there is no horizontal addition. For pair m, the sample
// pairs of W consecutive groups are one unaligned load (R = 1) or one load
// from a de-interleaved copy (R = 2, 3: every R-th pair), multiplied by the
// pair's coefficients broadcast to every lane (pmaddwd).
//
// Arithmetic of every output, per group lane:
//   accumulate  pmaddwd adds two 16x16 products exactly (at most
//               2 * 32767 * 32768 < 2^31) into the 32-bit partial sum of the
//               pair's bin; each bin's taps have absolute values adding up to
//               less than 65536 (checked at compile time and by the tests), so
//               no partial sum can wrap
//   combine     one bin (a row whose absolute coefficients add up to less
//               than 65536): S itself, and S + 2^(s-1) still fits (s = 15).
//               Several: S = their sum, exactly: every bin but the last
//               splits into its part above bit s (arithmetic shift) and its
//               low s bits; the low parts and 2^(s-1) are added to the last
//               bin (it stays below 2^31: checked at compile time), which is
//               shifted and added to the high parts: floor((S + 2^(s-1)) / 2^s)
//               without ever forming S in 32 bits
//   round       that floor is the rounding of R_s: halves go towards +inf
//   saturate    packssdw clamps to -32768..32767
#pragma once

#include <immintrin.h>

#include "rsmpl/fir/fir_driver.hpp"
#include "rsmpl/fir/fir_layout.hpp"

namespace rsmpl::fir {
namespace {

#if defined(__AVX512BW__)
using Vec = __m512i;
constexpr int kLanes = 16;
[[gnu::always_inline]] inline Vec load(const void *p) { return _mm512_loadu_si512(p); }
[[gnu::always_inline]] inline void store(void *p, Vec v) { _mm512_storeu_si512(p, v); }
[[gnu::always_inline]] inline Vec zero() { return _mm512_setzero_si512(); }
[[gnu::always_inline]] inline Vec set1(int32_t v) { return _mm512_set1_epi32(v); }
[[gnu::always_inline]] inline Vec madd(Vec a, Vec b) { return _mm512_madd_epi16(a, b); }
[[gnu::always_inline]] inline Vec add(Vec a, Vec b) { return _mm512_add_epi32(a, b); }
[[gnu::always_inline]] inline Vec and_(Vec a, Vec b) { return _mm512_and_si512(a, b); }
[[gnu::always_inline]] inline Vec or_(Vec a, Vec b) { return _mm512_or_si512(a, b); }
template <int S>
[[gnu::always_inline]] inline Vec srai(Vec a) { return _mm512_srai_epi32(a, S); }
[[gnu::always_inline]] inline Vec high16(Vec a) { return _mm512_srli_epi32(a, 16); }
// Two vectors of W groups each to 16-bit words, eight consecutive groups per
// 128-bit lane: packssdw leaves four of a and four of b in each lane.
[[gnu::always_inline]] inline Vec pack(Vec a, Vec b) {
    return _mm512_permutexvar_epi64(_mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7), _mm512_packs_epi32(a, b));
}
[[gnu::always_inline]] inline Vec unpacklo16(Vec a, Vec b) { return _mm512_unpacklo_epi16(a, b); }
[[gnu::always_inline]] inline Vec unpackhi16(Vec a, Vec b) { return _mm512_unpackhi_epi16(a, b); }
[[gnu::always_inline]] inline Vec unpacklo32(Vec a, Vec b) { return _mm512_unpacklo_epi32(a, b); }
[[gnu::always_inline]] inline Vec unpackhi32(Vec a, Vec b) { return _mm512_unpackhi_epi32(a, b); }
[[gnu::always_inline]] inline Vec unpacklo64(Vec a, Vec b) { return _mm512_unpacklo_epi64(a, b); }
[[gnu::always_inline]] inline Vec unpackhi64(Vec a, Vec b) { return _mm512_unpackhi_epi64(a, b); }
[[gnu::always_inline]] inline Vec shuffle8(Vec a, Vec m) { return _mm512_shuffle_epi8(a, m); }
template <int M>
[[gnu::always_inline]] inline Vec blend32(Vec a, Vec b) {
    return _mm512_mask_blend_epi32(static_cast<__mmask16>(M * 0x1111), a, b);
}
template <int I>
[[gnu::always_inline]] inline Vec shuffle32(Vec a) { return _mm512_shuffle_epi32(a, static_cast<_MM_PERM_ENUM>(I)); }
[[gnu::always_inline]] inline Vec bytes16(const int8_t (&m)[16]) {
    return _mm512_broadcast_i32x4(_mm_loadu_si128(reinterpret_cast<const __m128i *>(m)));
}
// Lane L of each vector holds the outputs of groups 8L .. 8L+7.
template <int P>
[[gnu::always_inline]] inline void store_lanes(int16_t *out, const Vec (&z)[P]) {
    if constexpr (P == 1) {
        store(out, z[0]);
    } else {
        for (int k = 0; k < P; ++k) {
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 8 * k), _mm512_castsi512_si128(z[k]));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 8 * P + 8 * k), _mm512_extracti32x4_epi32(z[k], 1));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 16 * P + 8 * k), _mm512_extracti32x4_epi32(z[k], 2));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 24 * P + 8 * k), _mm512_extracti32x4_epi32(z[k], 3));
        }
    }
}
// Element k of stream r is pair R*k + r of a[0 .. R-1]: one two-source
// permute per pair of sources.
template <int R>
struct SplitIndex {
    alignas(64) int32_t first[R][16];   // from a[0] and a[1]
    alignas(64) int32_t second[R][16];  // from that and a[2]
    constexpr SplitIndex() : first{}, second{} {
        for (int r = 0; r < R; ++r)
            for (int k = 0; k < 16; ++k) {
                const int pair = R * k + r;
                first[r][k] = pair < 32 ? pair : 0;
                second[r][k] = pair < 32 ? k : 16 + pair - 32;
            }
    }
};
template <int R>
inline constexpr SplitIndex<R> kSplitIndex{};
template <int R>
[[gnu::always_inline]] inline void split(const Vec (&a)[R], Vec (&v)[R]) {
    static_assert(R == 2 || R == 3);
    for (int r = 0; r < R; ++r) {
        v[r] = _mm512_permutex2var_epi32(a[0], load(kSplitIndex<R>.first[r]), a[1]);
        if constexpr (R == 3) v[r] = _mm512_permutex2var_epi32(v[r], load(kSplitIndex<R>.second[r]), a[2]);
    }
}
// The same from x[0 .. have-1] only (0 < have < 2 * R * W), zero past it.
template <int R>
[[gnu::always_inline]] inline void split_part(const int16_t *x, int64_t have, Vec (&v)[R]) {
    const auto *pairs = reinterpret_cast<const int *>(x);
    const int64_t whole = have / 2;
    uint16_t odd = 0;  // the first sample of a last, half-read pair
    if (have % 2) std::memcpy(&odd, x + have - 1, sizeof odd);
    Vec a[R];
    for (int q = 0; q < R; ++q) {
        const int64_t n = whole - kLanes * q;
        const auto mask = static_cast<__mmask16>(n >= kLanes ? 0xFFFF : n > 0 ? (1u << n) - 1 : 0);
        a[q] = _mm512_maskz_loadu_epi32(mask, pairs + kLanes * q);
        if (n >= 0 && n < kLanes) a[q] = _mm512_mask_set1_epi32(a[q], static_cast<__mmask16>(1u << n), odd);
    }
    split<R>(a, v);
}
#elif defined(__AVX2__)
using Vec = __m256i;
constexpr int kLanes = 8;
[[gnu::always_inline]] inline Vec load(const void *p) { return _mm256_loadu_si256(static_cast<const Vec *>(p)); }
[[gnu::always_inline]] inline void store(void *p, Vec v) { _mm256_storeu_si256(static_cast<Vec *>(p), v); }
[[gnu::always_inline]] inline Vec zero() { return _mm256_setzero_si256(); }
[[gnu::always_inline]] inline Vec set1(int32_t v) { return _mm256_set1_epi32(v); }
[[gnu::always_inline]] inline Vec madd(Vec a, Vec b) { return _mm256_madd_epi16(a, b); }
[[gnu::always_inline]] inline Vec add(Vec a, Vec b) { return _mm256_add_epi32(a, b); }
[[gnu::always_inline]] inline Vec and_(Vec a, Vec b) { return _mm256_and_si256(a, b); }
[[gnu::always_inline]] inline Vec or_(Vec a, Vec b) { return _mm256_or_si256(a, b); }
template <int S>
[[gnu::always_inline]] inline Vec srai(Vec a) { return _mm256_srai_epi32(a, S); }
[[gnu::always_inline]] inline Vec high16(Vec a) { return _mm256_srli_epi32(a, 16); }
// Two vectors of W groups each to 16-bit words, eight consecutive groups per
// 128-bit lane.
[[gnu::always_inline]] inline Vec pack(Vec a, Vec b) { return _mm256_permute4x64_epi64(_mm256_packs_epi32(a, b), 0xD8); }
[[gnu::always_inline]] inline Vec unpacklo16(Vec a, Vec b) { return _mm256_unpacklo_epi16(a, b); }
[[gnu::always_inline]] inline Vec unpackhi16(Vec a, Vec b) { return _mm256_unpackhi_epi16(a, b); }
[[gnu::always_inline]] inline Vec unpacklo32(Vec a, Vec b) { return _mm256_unpacklo_epi32(a, b); }
[[gnu::always_inline]] inline Vec unpackhi32(Vec a, Vec b) { return _mm256_unpackhi_epi32(a, b); }
[[gnu::always_inline]] inline Vec unpacklo64(Vec a, Vec b) { return _mm256_unpacklo_epi64(a, b); }
[[gnu::always_inline]] inline Vec unpackhi64(Vec a, Vec b) { return _mm256_unpackhi_epi64(a, b); }
[[gnu::always_inline]] inline Vec shuffle8(Vec a, Vec m) { return _mm256_shuffle_epi8(a, m); }
// Per 128-bit lane: 32-bit element k from b where bit k of M is set; the
// elements of a in the order of I (as pshufd).
template <int M>
[[gnu::always_inline]] inline Vec blend32(Vec a, Vec b) { return _mm256_blend_epi32(a, b, M | M << 4); }
template <int I>
[[gnu::always_inline]] inline Vec shuffle32(Vec a) { return _mm256_shuffle_epi32(a, I); }
[[gnu::always_inline]] inline Vec bytes16(const int8_t (&m)[16]) {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(m)));
}
// Chunk k of each 128-bit lane: lane 0 holds outputs of the first eight
// groups, lane 1 of the next eight.
template <int P>
[[gnu::always_inline]] inline void store_lanes(int16_t *out, const Vec (&z)[P]) {
    for (int k = 0; k < P; ++k) {
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 8 * k), _mm256_castsi256_si128(z[k]));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 8 * P + 8 * k), _mm256_extracti128_si256(z[k], 1));
    }
}
// Every R-th sample pair of a[0 .. R-1] (W pairs each), W groups: stream r
// gets pair R*k + r.
template <int R>
[[gnu::always_inline]] inline void split(const Vec (&a)[R], Vec (&v)[R]) {
    if constexpr (R == 2) {
        const __m256 lo = _mm256_castsi256_ps(a[0]), hi = _mm256_castsi256_ps(a[1]);
        v[0] = _mm256_permute4x64_epi64(_mm256_castps_si256(_mm256_shuffle_ps(lo, hi, 0x88)), 0xD8);
        v[1] = _mm256_permute4x64_epi64(_mm256_castps_si256(_mm256_shuffle_ps(lo, hi, 0xDD)), 0xD8);
    } else {
        static_assert(R == 3);
        const Vec s0 = _mm256_blend_epi32(_mm256_blend_epi32(a[0], a[1], 0x92), a[2], 0x24);  // a0 b1 c2 a3 b4 c5 a6 b7
        const Vec s1 = _mm256_blend_epi32(_mm256_blend_epi32(a[0], a[1], 0x24), a[2], 0x49);  // c0 a1 b2 c3 a4 b5 c6 a7
        const Vec s2 = _mm256_blend_epi32(_mm256_blend_epi32(a[0], a[1], 0x49), a[2], 0x92);  // b0 c1 a2 b3 c4 a5 b6 c7
        v[0] = _mm256_permutevar8x32_epi32(s0, _mm256_setr_epi32(0, 3, 6, 1, 4, 7, 2, 5));
        v[1] = _mm256_permutevar8x32_epi32(s1, _mm256_setr_epi32(1, 4, 7, 2, 5, 0, 3, 6));
        v[2] = _mm256_permutevar8x32_epi32(s2, _mm256_setr_epi32(2, 5, 0, 3, 6, 1, 4, 7));
    }
}
// The same from x[0 .. have-1] only (0 < have < 2 * R * W), zero past it:
// masked loads, so the pairs go straight to registers. Through a zeroed
// copy, the loads would straddle the copy's fresh stores and wait for them.
template <int R>
[[gnu::always_inline]] inline void split_part(const int16_t *x, int64_t have, Vec (&v)[R]) {
    const auto *pairs = reinterpret_cast<const int *>(x);
    const Vec whole = set1(static_cast<int32_t>(have / 2)), iota = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    uint16_t odd = 0;  // the first sample of a last, half-read pair
    if (have % 2) std::memcpy(&odd, x + have - 1, sizeof odd);
    Vec a[R];
    for (int q = 0; q < R; ++q) {
        const Vec at = add(iota, set1(8 * q));
        a[q] = _mm256_maskload_epi32(pairs + 8 * q, _mm256_cmpgt_epi32(whole, at));
        a[q] = _mm256_blendv_epi8(a[q], set1(odd), _mm256_cmpeq_epi32(whole, at));
    }
    split<R>(a, v);
}
#else
using Vec = __m128i;
constexpr int kLanes = 4;
[[gnu::always_inline]] inline Vec load(const void *p) { return _mm_loadu_si128(static_cast<const Vec *>(p)); }
[[gnu::always_inline]] inline void store(void *p, Vec v) { _mm_storeu_si128(static_cast<Vec *>(p), v); }
[[gnu::always_inline]] inline Vec zero() { return _mm_setzero_si128(); }
[[gnu::always_inline]] inline Vec set1(int32_t v) { return _mm_set1_epi32(v); }
[[gnu::always_inline]] inline Vec madd(Vec a, Vec b) { return _mm_madd_epi16(a, b); }
[[gnu::always_inline]] inline Vec add(Vec a, Vec b) { return _mm_add_epi32(a, b); }
[[gnu::always_inline]] inline Vec and_(Vec a, Vec b) { return _mm_and_si128(a, b); }
[[gnu::always_inline]] inline Vec or_(Vec a, Vec b) { return _mm_or_si128(a, b); }
template <int S>
[[gnu::always_inline]] inline Vec srai(Vec a) { return _mm_srai_epi32(a, S); }
[[gnu::always_inline]] inline Vec high16(Vec a) { return _mm_srli_epi32(a, 16); }
[[gnu::always_inline]] inline Vec pack(Vec a, Vec b) { return _mm_packs_epi32(a, b); }
[[gnu::always_inline]] inline Vec unpacklo16(Vec a, Vec b) { return _mm_unpacklo_epi16(a, b); }
[[gnu::always_inline]] inline Vec unpackhi16(Vec a, Vec b) { return _mm_unpackhi_epi16(a, b); }
[[gnu::always_inline]] inline Vec unpacklo32(Vec a, Vec b) { return _mm_unpacklo_epi32(a, b); }
[[gnu::always_inline]] inline Vec unpackhi32(Vec a, Vec b) { return _mm_unpackhi_epi32(a, b); }
[[gnu::always_inline]] inline Vec unpacklo64(Vec a, Vec b) { return _mm_unpacklo_epi64(a, b); }
[[gnu::always_inline]] inline Vec unpackhi64(Vec a, Vec b) { return _mm_unpackhi_epi64(a, b); }
[[gnu::always_inline]] inline Vec shuffle8(Vec a, Vec m) { return _mm_shuffle_epi8(a, m); }
template <int M>
[[gnu::always_inline]] inline Vec blend32(Vec a, Vec b) {
    return _mm_blend_epi16(a, b, (M & 1 ? 0x03 : 0) | (M & 2 ? 0x0C : 0) | (M & 4 ? 0x30 : 0) | (M & 8 ? 0xC0 : 0));
}
template <int I>
[[gnu::always_inline]] inline Vec shuffle32(Vec a) { return _mm_shuffle_epi32(a, I); }
[[gnu::always_inline]] inline Vec bytes16(const int8_t (&m)[16]) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(m));
}
template <int P>
[[gnu::always_inline]] inline void store_lanes(int16_t *out, const Vec (&z)[P]) {
    for (int k = 0; k < P; ++k) store(out + 8 * k, z[k]);
}
template <int R>
[[gnu::always_inline]] inline void split(const Vec (&a)[R], Vec (&v)[R]) {
    if constexpr (R == 2) {
        const __m128 lo = _mm_castsi128_ps(a[0]), hi = _mm_castsi128_ps(a[1]);
        v[0] = _mm_castps_si128(_mm_shuffle_ps(lo, hi, 0x88));
        v[1] = _mm_castps_si128(_mm_shuffle_ps(lo, hi, 0xDD));
    } else {
        static_assert(R == 3);
        const Vec s0 = _mm_blend_epi16(_mm_blend_epi16(a[0], a[1], 0x30), a[2], 0x0C);  // a0 c1 b2 a3
        const Vec s1 = _mm_blend_epi16(_mm_blend_epi16(a[0], a[1], 0xC3), a[2], 0x30);  // b0 a1 c2 b3
        const Vec s2 = _mm_blend_epi16(_mm_blend_epi16(a[0], a[1], 0x0C), a[2], 0xC3);  // c0 b1 a2 c3
        v[0] = _mm_shuffle_epi32(s0, 0x6C);  // 0 3 2 1
        v[1] = _mm_shuffle_epi32(s1, 0xB1);  // 1 0 3 2
        v[2] = _mm_shuffle_epi32(s2, 0xC6);  // 2 1 0 3
    }
}
// No masked loads before AVX: through a zeroed copy.
template <int R>
[[gnu::always_inline]] inline void split_part(const int16_t *x, int64_t have, Vec (&v)[R]) {
    alignas(16) int16_t part[2 * R * kLanes] = {};
    std::memcpy(part, x, static_cast<size_t>(have) * sizeof(int16_t));
    Vec a[R];
    for (int q = 0; q < R; ++q) a[q] = load(part + 2 * kLanes * q);
    split<R>(a, v);
}
#endif

// With AVX-512 the asm may use all 32 vector registers, and VNNI's vpdpwssd
// multiplies and accumulates in one instruction.
#if defined(__AVX512BW__)
#define RSMPL_VREG(v) "v"(v)
#define RSMPL_VMOVDQU "vmovdqu64"
constexpr int kVecRegs = 32;
#else
#define RSMPL_VREG(v) "x"(v)
#define RSMPL_VMOVDQU "vmovdqu"
constexpr int kVecRegs = 16;
#endif
#if defined(__AVX512VNNI__)
constexpr bool kVnni = true;
#else
constexpr bool kVnni = false;
#endif

// ---- Interleaving P phases of eight groups (per 128-bit lane) ---------------

// pshufb masks for a 3-way interleave of elements of E bytes: output vector k
// takes from source s the bytes of concatenated position 16k + q.
template <int E>
struct Ilv3Masks {
    int8_t m[3][3][16];
    constexpr Ilv3Masks() : m{} {
        for (int k = 0; k < 3; ++k)
            for (int s = 0; s < 3; ++s)
                for (int q = 0; q < 16; ++q) {
                    const int n = 16 * k + q, e = n / E;
                    m[k][s][q] = static_cast<int8_t>(e % 3 == s ? (e / 3) * E + n % E : -128);
                }
    }
};
template <int E>
inline constexpr Ilv3Masks<E> kIlv3{};

template <int E>
[[gnu::always_inline]] inline void ilv3(Vec a, Vec b, Vec c, Vec *z) {
    if constexpr (E == 8) {
        // a0 b0 | c0 a1 | b1 c1: whole halves, no byte shuffles.
        z[0] = unpacklo64(a, b);
        z[1] = blend32<0xC>(c, a);
        z[2] = unpackhi64(b, c);
    } else if constexpr (E == 4) {
        // Each source turned once so that every element sits where one
        // output wants it, then blends: a0 b0 c0 a1 | b1 c1 a2 b2 | c2 a3 b3 c3.
        const Vec at = shuffle32<0x6C>(a), bt = shuffle32<0xB1>(b), ct = shuffle32<0xC6>(c);
        z[0] = blend32<0x4>(blend32<0x2>(at, bt), ct);
        z[1] = blend32<0x2>(blend32<0x4>(bt, at), ct);
        z[2] = blend32<0x4>(blend32<0x2>(ct, at), bt);
    } else {
        for (int k = 0; k < 3; ++k)
            z[k] = or_(or_(shuffle8(a, bytes16(kIlv3<E>.m[k][0])), shuffle8(b, bytes16(kIlv3<E>.m[k][1]))),
                       shuffle8(c, bytes16(kIlv3<E>.m[k][2])));
    }
}
// Two phases to 32-bit elements: z[0] groups 0-3, z[1] groups 4-7.
[[gnu::always_inline]] inline void ilv2(Vec a, Vec b, Vec *z) {
    z[0] = unpacklo16(a, b);
    z[1] = unpackhi16(a, b);
}
// Four phases to 64-bit elements, two groups per vector.
[[gnu::always_inline]] inline void ilv4(const Vec *y, Vec *z) {
    Vec a[2], b[2];
    ilv2(y[0], y[1], a);
    ilv2(y[2], y[3], b);
    z[0] = unpacklo32(a[0], b[0]);
    z[1] = unpackhi32(a[0], b[0]);
    z[2] = unpacklo32(a[1], b[1]);
    z[3] = unpackhi32(a[1], b[1]);
}

// y[p]: the outputs of phase p for eight consecutive groups per lane; z: the
// same outputs in output order, P vectors per lane.
template <int P>
[[gnu::always_inline]] inline void interleave(const Vec (&y)[P], Vec (&z)[P]) {
    if constexpr (P == 1) {
        z[0] = y[0];
    } else if constexpr (P == 2) {
        ilv2(y[0], y[1], z);
    } else if constexpr (P == 3) {
        ilv3<2>(y[0], y[1], y[2], z);
    } else if constexpr (P == 4) {
        ilv4(y, z);
    } else if constexpr (P == 6) {
        Vec a[2], b[2], c[2];
        ilv2(y[0], y[1], a);
        ilv2(y[2], y[3], b);
        ilv2(y[4], y[5], c);
        ilv3<4>(a[0], b[0], c[0], z);
        ilv3<4>(a[1], b[1], c[1], z + 3);
    } else if constexpr (P == 8) {
        Vec a[4], b[4];
        ilv4(y, a);
        ilv4(y + 4, b);
        for (int k = 0; k < 4; ++k) {
            z[2 * k] = unpacklo64(a[k], b[k]);
            z[2 * k + 1] = unpackhi64(a[k], b[k]);
        }
    } else {
        static_assert(P == 12);
        Vec a[4], b[4], c[4];
        ilv4(y, a);
        ilv4(y + 4, b);
        ilv4(y + 8, c);
        for (int k = 0; k < 4; ++k) ilv3<8>(a[k], b[k], c[k], z + 3 * k);
    }
}

// ---- One block: 2W groups ----------------------------------------------------

// The last bin of each row with several can take the others' low parts and
// the half: w * 32768 + (A - 1) * (2^s - 1) + 2^(s-1) < 2^31 for its weight w.
template <class Layout>
constexpr bool carry_fits(const Layout &l) {
    for (int p = 0; p < Layout::P; ++p) {
        const int a = l.row_bins[p];
        if (a > 1 && int64_t{l.bin_weight(p, a - 1)} * 32768 + int64_t{a - 1} * ((int64_t{1} << l.shift) - 1) +
                             (int64_t{1} << (l.shift - 1)) >=
                         (int64_t{1} << 31))
            return false;
    }
    return true;
}

// R_s of the exact sum of the bins, per lane (see the top of the file).
template <const auto &L, int A, int N>
[[gnu::always_inline]] inline Vec combine(const Vec (&acc)[N]) {
    constexpr int s = L.shift;
    if constexpr (A == 1) {
        // One bin below 65536 * 32768 - 2^(s-1): adding the half cannot wrap.
        return srai<s>(add(acc[0], set1(1 << (s - 1))));
    } else {
        static_assert(carry_fits(L));
        const Vec low_mask = set1((1 << s) - 1);
        Vec high = srai<s>(acc[0]);
        Vec last = add(acc[A - 1], and_(acc[0], low_mask));
        for (int b = 1; b < A - 1; ++b) {
            high = add(high, srai<s>(acc[b]));
            last = add(last, and_(acc[b], low_mask));
        }
        return add(high, srai<s>(add(last, set1(1 << (s - 1)))));
    }
}

// The pair words of a layout, [p][m], for loads at run time.
template <const auto &L>
struct Words {
    using Layout = std::remove_cvref_t<decltype(L)>;
    int32_t w[Layout::P][Layout::Mp];
    constexpr Words() : w{} {
        for (int p = 0; p < Layout::P; ++p)
            for (int m = 0; m < Layout::Mp; ++m) w[p][m] = L.pair(p, m);
    }
};
template <const auto &L>
inline constexpr Words<L> kWords{};

// Cost-estimate marks (rsmpl/engine/mca.hpp) around one block of each kernel.
template <class Layout>
constexpr int real_taps(const Layout &l) {
    int n = 0;
    for (int p = 0; p < Layout::P; ++p)
        for (int i = 0; i < 2 * Layout::Mp; ++i) n += l.c[p][i] != 0;
    return n / Layout::P;
}
template <const auto &L, bool kBegin>
[[gnu::always_inline]] inline void mark() {
    using Mark = StageMark<L.id, 2 * kLanes * std::remove_cvref_t<decltype(L)>::P, real_taps(L)>;
    if constexpr (kBegin)
        Mark::begin();
    else
        Mark::end();
}

// Pre-broadcast pair words, one vector per (row, pair): one plain load each
// (SSE4.1 has no broadcast from memory).
template <const auto &L>
struct Broadcast {
    using Layout = std::remove_cvref_t<decltype(L)>;
    alignas(32) int32_t v[Layout::P][Layout::Mp][kLanes];
    constexpr Broadcast() : v{} {
        for (int p = 0; p < Layout::P; ++p)
            for (int m = 0; m < Layout::Mp; ++m)
                for (int k = 0; k < kLanes; ++k) v[p][m][k] = L.pair(p, m);
    }
};
template <const auto &L>
alignas(32) inline constexpr Broadcast<L> kBroadcast{};

// The pair's coefficients in a register, loaded once for both halves of a
// block: a multiply with its coefficients from memory costs a load each time,
// and the load ports, not the multipliers, then set the pace. With AVX2 the
// load broadcasts the pair's word: the table is then eight times smaller
// and its loads come from a line or two rather than from a new half-line each.
template <const auto &L>
[[gnu::always_inline]] inline Vec coef(int p, int m) {
#if defined(__AVX2__)
    Vec v;
    asm volatile("vpbroadcastd %1, %0" : "=" RSMPL_VREG(v) : "m"(kWords<L>.w[p][m]));
    return v;
#else
    return load(kBroadcast<L>.v[p][m]);
#endif
}

// A stream load, kept where it is written among the multiplies: GCC
// otherwise loads a whole block's samples up front and spills them.
[[gnu::always_inline]] inline Vec samples(const int32_t *p) {
#if defined(__AVX2__)
    struct Bytes {
        unsigned char b[sizeof(Vec)];
    };
    Vec v;
    asm volatile(RSMPL_VMOVDQU " %1, %0" : "=" RSMPL_VREG(v) : "m"(*reinterpret_cast<const Bytes *>(p)));
    return v;
#else
    return load(p);
#endif
}

// acc (+)= madd(x, c). With AVX2 written as volatile asm: the compiler
// otherwise hoists every multiply of a pass and spills the products, and the
// front end, not the multipliers, sets the pace.
template <bool kFirst>
[[gnu::always_inline]] inline void madd_reg(Vec &acc, Vec x, Vec c) {
#if defined(__AVX2__)
    if constexpr (kFirst) {
        asm volatile("vpmaddwd %1, %2, %0" : "=" RSMPL_VREG(acc) : RSMPL_VREG(c), RSMPL_VREG(x));
    } else if constexpr (kVnni) {
        asm volatile("vpdpwssd %1, %2, %0" : "+" RSMPL_VREG(acc) : RSMPL_VREG(c), RSMPL_VREG(x));
    } else {
        Vec t;
        asm volatile("vpmaddwd %2, %3, %1\n\tvpaddd %1, %0, %0" : "+x"(acc), "=&x"(t) : "x"(c), "x"(x));
    }
#else
    const Vec p = madd(x, c);
    acc = kFirst ? p : add(acc, p);
#endif
}

// The same with x straight from memory: a load folded into the multiply is
// one instruction for the front end, not two.
template <bool kFirst>
[[gnu::always_inline]] inline void madd_mem(Vec &acc, const int32_t *x, Vec c) {
#if defined(__AVX2__)
    struct Bytes {
        unsigned char b[sizeof(Vec)];
    };
    const auto &m = *reinterpret_cast<const Bytes *>(x);
    if constexpr (kFirst) {
        asm volatile("vpmaddwd %2, %1, %0" : "=" RSMPL_VREG(acc) : RSMPL_VREG(c), "m"(m));
    } else if constexpr (kVnni) {
        asm volatile("vpdpwssd %1, %2, %0" : "+" RSMPL_VREG(acc) : "m"(m), RSMPL_VREG(c));
    } else {
        Vec t;
        asm volatile("vpmaddwd %3, %2, %1\n\tvpaddd %1, %0, %0" : "+x"(acc), "=&x"(t) : "x"(c), "m"(m));
    }
#else
    madd_reg<kFirst>(acc, load(x), c);
#endif
}

// Is the last tap of every row zero padding (the L:1 up layouts)?
template <class Layout>
constexpr bool pad_last(const Layout &l) {
    for (int p = 0; p < Layout::P; ++p)
        if (l.c[p][2 * Layout::Mp - 1] != 0) return false;
    return true;
}

// The L:1 up layouts: is each row of the second half the row P/2 before it
// one tap later? Its outputs are then that row's pairs against the samples
// one later, an unaligned load: one pair fewer than its own padded row, and
// the same pair words. The last tap being padding, the shifted load reads no
// further than the row does.
template <class Layout>
constexpr bool odd_twins(const Layout &l) {
    constexpr int P = Layout::P, T = 2 * Layout::Mp;
    if (l.R != 1 || P % 2 != 0 || !pad_last(l)) return false;
    for (int p = 0; p < P / 2; ++p) {
        if (l.c[p + P / 2][0] != 0) return false;
        for (int i = 0; i + 1 < T; ++i)
            if (l.c[p + P / 2][i + 1] != l.c[p][i]) return false;
    }
    return true;
}
// The row whose pairs and bins phase p uses, and whether against the
// samples one later.
template <const auto &L>
constexpr int src_row(int p) {
    constexpr int P = std::remove_cvref_t<decltype(L)>::P;
    return odd_twins(L) && p >= P / 2 ? p - P / 2 : p;
}
template <const auto &L>
constexpr bool odd_row(int p) {
    return src_row<L>(p) != p;
}

// Does any phase p0 .. p1-1 use pair m (odd: those against the later
// samples, else the others); is pair m the first of its bin in row p?
template <const auto &L>
constexpr bool pair_used(int p0, int p1, int m, bool odd) {
    for (int p = p0; p < p1 && p < std::remove_cvref_t<decltype(L)>::P; ++p)
        if (odd_row<L>(p) == odd && !L.zero_pair(src_row<L>(p), m)) return true;
    return false;
}
template <class Layout>
constexpr bool first_of_bin(const Layout &l, int p, int m) {
    for (int k = 0; k < m; ++k)
        if (!l.zero_pair(p, k) && l.bin[p][k] == l.bin[p][m]) return false;
    return true;
}

// With 256-bit vectors a stream may be kept twice, the second copy 32 bytes
// off a cache line, each load taking the copy in which it stays inside one
// line: blocks start 64 bytes apart in a stream (16 groups), so which copy a
// pair reads is known at compile time. A load split over two lines costs
// about two; the second copy costs R more stores per kLanes groups. In
// bench_kernels it pays where the first half's loads reach past offset 8 as
// well (1:4 and 1:6 down, 16 offsets), not where only the second half's do
// (1:3 and 2:3 down).
template <const auto &L>
constexpr int stream_copies() {
    return kLanes == 8 && std::remove_cvref_t<decltype(L)>::Mp / L.R > 9 ? 2 : 1;
}
template <const auto &L, int J>
inline constexpr int kCopy = stream_copies<L>() == 2 && 4 * (J % 16) + 4 * kLanes > 64 ? 1 : 0;

// One output a group from streams, two vectors of offsets per row: the
// halves of a block can share sample loads (block() below).
template <const auto &L, int H>
inline constexpr bool kShareHalves = [] {
    using Layout = std::remove_cvref_t<decltype(L)>;
    return H == 2 && L.R > 1 && Layout::P == 1 && Layout::Mp == 2 * kLanes * L.R && L.row_bins[0] == L.bins;
}();
// In that order, pair j * R + r comes at 2 * ((j % kLanes) * R + r) + j / kLanes:
// is pair m the first of its bin to come?
template <const auto &L>
constexpr bool first_shared(int m) {
    constexpr int R = L.R;
    const auto at = [](int k) { return 2 * ((k / R % kLanes) * R + k % R) + k / R / kLanes; };
    for (int k = 0; k < std::remove_cvref_t<decltype(L)>::Mp; ++k)
        if (k != m && !L.zero_pair(0, k) && L.bin[0][k] == L.bin[0][m] && at(k) < at(m)) return false;
    return true;
}

// 2W groups from group i of the chunk on, every pair at compile time: its
// bin, its stream (R > 1: s[c * R + r], copy c of stream r) and whether it
// is the first of its bin; zero pairs are skipped. H = 1: the first W groups
// only (the outputs of the others are left undefined).
template <const auto &L, int H = 2>
[[gnu::always_inline]] inline void block(const int16_t *x, const int32_t *const *s, int i, int16_t *out) {
    using Layout = std::remove_cvref_t<decltype(L)>;
    constexpr int P = Layout::P;
    constexpr int Mp = Layout::Mp;
    constexpr int A = L.bins;
    constexpr int R = L.R;
    // Phases per pass: their partial sums (two vectors per bin) and the
    // samples stay in the registers.
    constexpr int PC = [] {
        for (int pc = P; pc > 1; --pc) {
            bool fits = true;
            for (int p0 = 0; p0 < P; p0 += pc) {
                int regs = 0;
                for (int p = p0; p < p0 + pc && p < P; ++p) {
                    regs += 2 * L.row_bins[src_row<L>(p)];
                    // A pass of both kinds of row loads both sample sets.
                    fits = fits && odd_row<L>(p) == odd_row<L>(p0);
                }
                fits = fits && regs <= kVecRegs - 4;
            }
            if (fits) return pc;
        }
        return 1;
    }();
    constexpr int kPasses = (P + PC - 1) / PC;
    constexpr int C = R > 1 ? stream_copies<L>() : 1;
    const int32_t *sb[C * R];
    if constexpr (R > 1)
        for (int k = 0; k < C * R; ++k) {
            sb[k] = s[k] + i;
            // Each load as this base plus a constant, not a pointer of its own.
            asm("" : "+r"(sb[k]));
        }
    if constexpr (H == 2) mark<L, true>();  // the cost estimate counts whole blocks
    Vec y[P];
    if constexpr (kShareHalves<L, H>) {
        // Pairs j and j + kLanes of a stream together: the second half's
        // samples for the one are the first half's for the other, three
        // loads for four multiplies.
        Vec acc[2][A];
        unroll<kLanes>([&](auto jc) __attribute__((always_inline)) {
            constexpr int j = decltype(jc)::value;
            unroll<R>([&](auto rc) __attribute__((always_inline)) {
                constexpr int r = decltype(rc)::value;
                const int32_t *lo = sb[kCopy<L, j> * R + r] + j;
                const Vec mid = samples(sb[kCopy<L, j + kLanes> * R + r] + j + kLanes);
                const int32_t *hi = sb[kCopy<L, j + 2 * kLanes> * R + r] + j + 2 * kLanes;
                unroll<2>([&](auto hc) __attribute__((always_inline)) {
                    constexpr int h = decltype(hc)::value;
                    constexpr int m = (j + h * kLanes) * R + r;
                    if constexpr (!L.zero_pair(0, m)) {
                        constexpr int b = L.bin[0][m];
                        constexpr bool first = first_shared<L>(m);
                        const Vec c = coef<L>(0, m);
                        if constexpr (h == 0) {
                            madd_mem<first>(acc[0][b], lo, c);
                            madd_reg<first>(acc[1][b], mid, c);
                        } else {
                            madd_reg<first>(acc[0][b], mid, c);
                            madd_mem<first>(acc[1][b], hi, c);
                        }
                    }
                });
            });
        });
        y[0] = pack(combine<L, A>(acc[0]), combine<L, A>(acc[1]));
    } else
    unroll<kPasses>([&](auto pass_c) __attribute__((always_inline)) {
        constexpr int pass = decltype(pass_c)::value;
        Vec acc[PC][H][A];
        unroll<Mp>([&](auto mc) __attribute__((always_inline)) {
            constexpr int m = decltype(mc)::value;
            constexpr bool kEven = pair_used<L>(pass * PC, pass * PC + PC, m, false);
            constexpr bool kOdd = pair_used<L>(pass * PC, pass * PC + PC, m, true);
            if constexpr (kEven || kOdd) {
                Vec x0 = zero(), x1 = zero(), o0 = zero(), o1 = zero();
                if constexpr (kEven) {
                    if constexpr (R == 1 && m == Mp - 1 && pad_last(L)) {
                        // Loaded one sample early and shifted down: the pair's
                        // second sample is the rows' zero padding, and for the
                        // last group it may lie past what the kernel may read.
                        x0 = high16(load(x + L.b0 + 2 * (i + m) - 1));
                        if constexpr (H == 2) x1 = high16(load(x + L.b0 + 2 * (i + kLanes + m) - 1));
                    } else if constexpr (R == 1) {
                        x0 = load(x + L.b0 + 2 * (i + m));
                        if constexpr (H == 2) x1 = load(x + L.b0 + 2 * (i + kLanes + m));
                    } else {
                        constexpr int j = m / R;
                        x0 = samples(sb[kCopy<L, j> * R + m % R] + j);
                        if constexpr (H == 2) x1 = samples(sb[kCopy<L, j + kLanes> * R + m % R] + j + kLanes);
                    }
                    // One load per pair, not one per phase.
                    asm("" : "+x"(x0), "+x"(x1));
                }
                if constexpr (kOdd) {
                    static_assert(m < Mp - 1);  // the padding pair is never loaded
                    o0 = load(x + L.b0 + 2 * (i + m) + 1);
                    if constexpr (H == 2) o1 = load(x + L.b0 + 2 * (i + kLanes + m) + 1);
                    asm("" : "+x"(o0), "+x"(o1));
                }
                unroll<PC>([&](auto qc) __attribute__((always_inline)) {
                    constexpr int q = decltype(qc)::value;
                    constexpr int p = pass * PC + q;
                    constexpr int sp = src_row<L>(p < P ? p : 0);
                    if constexpr (p < P && !L.zero_pair(sp, m)) {
                        constexpr int b = L.bin[sp][m];
                        constexpr bool first = first_of_bin(L, sp, m);
                        constexpr bool odd = odd_row<L>(p);
                        const Vec c = coef<L>(sp, m);
                        madd_reg<first>(acc[q][0][b], odd ? o0 : x0, c);
                        if constexpr (H == 2) madd_reg<first>(acc[q][1][b], odd ? o1 : x1, c);
                    }
                });
            }
        });
        unroll<PC>([&](auto qc) __attribute__((always_inline)) {
            constexpr int q = decltype(qc)::value;
            constexpr int p = pass * PC + q;
            if constexpr (p < P) {
                constexpr int Ap = L.row_bins[src_row<L>(p)];
                const Vec lo = combine<L, Ap>(acc[q][0]);
                y[p] = pack(lo, H == 2 ? combine<L, Ap>(acc[q][H - 1]) : lo);
            }
        });
    });
    Vec z[P];
    interleave<P>(y, z);
    store_lanes<P>(out, z);
    if constexpr (H == 2) mark<L, false>();
}

struct X86 {
    static constexpr int kGroups = 2 * kLanes;
    // Samples a group reads: the last, zero-padding tap is never loaded.
    template <const auto &L>
    static constexpr int reach() {
        using Layout = std::remove_cvref_t<decltype(L)>;
        return L.b0 + 2 * Layout::Mp - (L.R == 1 && pad_last(L) ? 1 : 0);
    }
    // Groups per call of streams(): bounds its copies on the stack.
    static constexpr int kStreamGroups = 8 * kGroups;

    // Not inlined: the body and the zero-padded tail share one copy. H = 1:
    // one block of kLanes groups, for a tail that short.
    template <const auto &L, int H = 2>
    RSMPL_FIR_NOINLINE static void chunk(const int16_t *x, int blocks, int16_t *out) {
        static_assert(L.R == 1);
        constexpr int P = std::remove_cvref_t<decltype(L)>::P;
        for (int b = 0; b < blocks; ++b) block<L, H>(x, nullptr, b * kGroups, out + P * kGroups * b);
    }

    // R > 1: `groups` groups (at most kStreamGroups) from x on, whose samples
    // x[0 .. avail-1] may be read (the rest count as zero), writing the first
    // `outputs` of their outputs. The kernel loads every R-th pair, so the
    // pairs of all the groups are first copied into R streams; the last
    // block, partial or reaching past avail, is no different from the others
    // but for its zeros and the copy of its outputs.
    template <const auto &L>
    RSMPL_FIR_NOINLINE static void streams(const int16_t *x, int groups, int64_t avail, int16_t *out,
                                           int64_t outputs) {
        using Layout = std::remove_cvref_t<decltype(L)>;
        constexpr int P = Layout::P;
        constexpr int R = L.R;
        static_assert(R > 1 && L.b0 == 0);
        // Past its last group's first pairs, a block reads this many more per stream.
        constexpr int kExtra = (Layout::Mp - 1) / R + 1;
        constexpr int kLen = (kStreamGroups + kExtra + 15) / 16 * 16;  // whole vectors, whole lines
        alignas(64) int32_t copy0[R][kLen];
        constexpr int C = stream_copies<L>();
        alignas(64) int32_t copy1[C == 2 ? R : 1][C == 2 ? kLen + 16 : 1];
        int32_t *s[2 * R];
        for (int r = 0; r < R; ++r) {
            s[r] = copy0[r];
            if constexpr (C == 2) s[R + r] = copy1[r] + 8;
        }
        const int blocks = (groups + kGroups - 1) / kGroups;
        // A last block of kLanes groups or fewer computes those only (below),
        // and needs the samples of those only.
        const bool half = outputs - int64_t{P} * kGroups * (blocks - 1) <= P * kLanes;
        for (int i = 0; i < blocks * kGroups - (half ? kLanes : 0) + kExtra; i += kLanes) {
            Vec v[R];
            const int64_t first = int64_t{2} * R * i;
            if (first + 2 * R * kLanes <= avail) {
                Vec a[R];
                for (int q = 0; q < R; ++q) a[q] = load(x + first + 2 * kLanes * q);
                split<R>(a, v);
            } else if (first < avail) {
                split_part<R>(x + first, avail - first, v);
            } else {
                for (int r = 0; r < R; ++r) v[r] = zero();
            }
            // Into the arrays by name: through s[], every store might move s[].
            for (int r = 0; r < R; ++r) {
                store(copy0[r] + i, v[r]);
                if constexpr (C == 2) store(copy1[r] + 8 + i, v[r]);
            }
        }
        // Each block's samples were read before any output is written; the
        // copy reads the whole chunk first, so in place is safe.
        alignas(32) int16_t result[P * kGroups];
        for (int b = 0; b < blocks; ++b) {
            const int64_t done = int64_t{P} * kGroups * b;
            if (done + P * kGroups <= outputs) {
                block<L>(x, s, b * kGroups, out + done);
                continue;
            }
            if (half)
                block<L, 1>(x, s, b * kGroups, result);
            else
                block<L>(x, s, b * kGroups, result);
            std::memcpy(out + done, result, static_cast<size_t>(outputs - done) * sizeof(int16_t));
        }
    }
};

// An x86 engine's stage kernels, one per entry of the stage list.
template <int I>
struct X86Stage {
    static constexpr Kernel kernel = run<X86, kPairs<I>>;
};

}  // namespace
}  // namespace rsmpl::fir
