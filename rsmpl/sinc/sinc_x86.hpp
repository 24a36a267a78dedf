// The sinc interpolator's sums on x86-64, SSE4.1 (4 lanes) or AVX2 (8 lanes)
// after the flags of the including file (sinc_sse41.cpp, sinc_avx2.cpp);
// lanes are taps. The block driver
// and the arithmetic are described in sinc_block.hpp.
#pragma once

#include <immintrin.h>

#include "rsmpl/sinc/sinc_block.hpp"

namespace rsmpl::sinc {
namespace {

// With 16-bit multipliers. A Q31 x 16-bit product taken >> 16 with floor
// splits exactly: (c * x) >> 16 = ((c + 2^15) >> 16) * x + mulhi(low half
// of c as signed, x); one pmaddwd of the word [mulhi | (c + 2^15) >> 16]
// with the sample word [1 | x] adds both. The coefficient step likewise:
// (d * g') >> 16 = (d >> 16) * g' + mulhi of d's unsigned low half, the
// first part one pmaddwd of [d >> 16 | d >> 16] with g' split into two
// halves below 2^15 (g' < 65536 at 128 entries per tap).
struct X86 {
    static constexpr int kFractionShift = 0;
    static constexpr bool kSlots = true;
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
    static V xor_(V a, V b) { return _mm256_xor_si256(a, b); }
    static V mullo(V a, V b) { return _mm256_mullo_epi32(a, b); }
    static V srl(V a, int n) { return _mm256_srli_epi32(a, n); }
    static V less(V a, V b) { return _mm256_cmpgt_epi32(b, a); }
    static V select(V mask, V a, V b) { return _mm256_blendv_epi8(b, a, mask); }
    static V min(V a, V b) { return _mm256_min_epu32(a, b); }
    static V madd16(V a, V b) { return _mm256_madd_epi16(a, b); }
    static V srai(V a, int n) { return _mm256_srai_epi32(a, n); }
    static V mul64(V a, V b) { return _mm256_mul_epi32(a, b); }
    static V srl64(V a, int n) { return _mm256_srli_epi64(a, n); }
    static V sll64(V a, int n) { return _mm256_slli_epi64(a, n); }
    static V add64(V a, V b) { return _mm256_add_epi64(a, b); }
    static V bias() { return _mm256_set1_epi64x(1 << 22); }
    static V blend_odd(V even, V odd) { return _mm256_blend_epi32(even, odd, 0xAA); }
    static V sll(V a, __m128i n) { return _mm256_sll_epi32(a, n); }
    static void store_packed(int16_t *p, V y) {
        _mm_storeu_si128(reinterpret_cast<__m128i *>(p),
                         _mm_packs_epi32(_mm256_castsi256_si128(y), _mm256_extracti128_si256(y, 1)));
    }
    static V mulhi16(V a, V b) { return _mm256_mulhi_epi16(a, b); }
    static V mulhiu16(V a, V b) { return _mm256_mulhi_epu16(a, b); }
    static V low16_high16(V low, V high) { return _mm256_blend_epi16(low, high, 0xAA); }
    static V loadu(const uint32_t *p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p)); }
    static V reverse(V a) { return _mm256_permutevar8x32_epi32(a, _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0)); }
    static void transpose(V *v) {
        V t[8], u[8];
        for (int i = 0; i < 8; i += 2) {
            t[i] = _mm256_unpacklo_epi32(v[i], v[i + 1]);
            t[i + 1] = _mm256_unpackhi_epi32(v[i], v[i + 1]);
        }
        for (int i = 0; i < 8; i += 4) {
            u[i] = _mm256_unpacklo_epi64(t[i], t[i + 2]);
            u[i + 1] = _mm256_unpackhi_epi64(t[i], t[i + 2]);
            u[i + 2] = _mm256_unpacklo_epi64(t[i + 1], t[i + 3]);
            u[i + 3] = _mm256_unpackhi_epi64(t[i + 1], t[i + 3]);
        }
        for (int i = 0; i < 4; ++i) {
            v[i] = _mm256_permute2x128_si256(u[i], u[i + 4], 0x20);
            v[i + 4] = _mm256_permute2x128_si256(u[i], u[i + 4], 0x31);
        }
    }
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
    static V mulu64(V a, V b) { return _mm256_mul_epu32(a, b); }
    static V odd_down(V a) { return _mm256_shuffle_epi32(a, 0xF5); }
    static V slli(V a, int n) { return _mm256_slli_epi32(a, n); }
    // The lane sums of eight registers, register i's in lane i.
    static V sums(const V *a) {
        V t[4];
        for (int i = 0; i < 4; ++i)
            t[i] = _mm256_add_epi32(_mm256_unpacklo_epi32(a[2 * i], a[2 * i + 1]),
                                    _mm256_unpackhi_epi32(a[2 * i], a[2 * i + 1]));
        const V lo = _mm256_add_epi32(_mm256_unpacklo_epi64(t[0], t[1]), _mm256_unpackhi_epi64(t[0], t[1]));
        const V hi = _mm256_add_epi32(_mm256_unpacklo_epi64(t[2], t[3]), _mm256_unpackhi_epi64(t[2], t[3]));
        return _mm256_add_epi32(_mm256_permute2x128_si256(lo, hi, 0x20), _mm256_permute2x128_si256(lo, hi, 0x31));
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
    static V xor_(V a, V b) { return _mm_xor_si128(a, b); }
    static V mullo(V a, V b) { return _mm_mullo_epi32(a, b); }
    static V srl(V a, int n) { return _mm_srli_epi32(a, n); }
    static V less(V a, V b) { return _mm_cmplt_epi32(a, b); }
    static V select(V mask, V a, V b) { return _mm_blendv_epi8(b, a, mask); }
    static V min(V a, V b) { return _mm_min_epu32(a, b); }
    static V madd16(V a, V b) { return _mm_madd_epi16(a, b); }
    static V srai(V a, int n) { return _mm_srai_epi32(a, n); }
    static V mul64(V a, V b) { return _mm_mul_epi32(a, b); }
    static V srl64(V a, int n) { return _mm_srli_epi64(a, n); }
    static V sll64(V a, int n) { return _mm_slli_epi64(a, n); }
    static V add64(V a, V b) { return _mm_add_epi64(a, b); }
    static V bias() { return _mm_set1_epi64x(1 << 22); }
    static V blend_odd(V even, V odd) { return _mm_blend_epi16(even, odd, 0xCC); }
    static V sll(V a, __m128i n) { return _mm_sll_epi32(a, n); }
    static void store_packed(int16_t *p, V y) { _mm_storel_epi64(reinterpret_cast<__m128i *>(p), _mm_packs_epi32(y, y)); }
    static V mulhi16(V a, V b) { return _mm_mulhi_epi16(a, b); }
    static V mulhiu16(V a, V b) { return _mm_mulhi_epu16(a, b); }
    static V low16_high16(V low, V high) { return _mm_blend_epi16(low, high, 0xAA); }
    static V loadu(const uint32_t *p) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p)); }
    static V reverse(V a) { return _mm_shuffle_epi32(a, 0x1B); }
    static void transpose(V *v) {
        const V t0 = _mm_unpacklo_epi32(v[0], v[1]), t1 = _mm_unpackhi_epi32(v[0], v[1]);
        const V t2 = _mm_unpacklo_epi32(v[2], v[3]), t3 = _mm_unpackhi_epi32(v[2], v[3]);
        v[0] = _mm_unpacklo_epi64(t0, t2);
        v[1] = _mm_unpackhi_epi64(t0, t2);
        v[2] = _mm_unpacklo_epi64(t1, t3);
        v[3] = _mm_unpackhi_epi64(t1, t3);
    }
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
    static V mulu64(V a, V b) { return _mm_mul_epu32(a, b); }
    static V odd_down(V a) { return _mm_shuffle_epi32(a, 0xF5); }
    static V slli(V a, int n) { return _mm_slli_epi32(a, n); }
    // The lane sums of four registers, register i's in lane i.
    static V sums(const V *a) {
        const V t0 = _mm_add_epi32(_mm_unpacklo_epi32(a[0], a[1]), _mm_unpackhi_epi32(a[0], a[1]));
        const V t1 = _mm_add_epi32(_mm_unpacklo_epi32(a[2], a[3]), _mm_unpackhi_epi32(a[2], a[3]));
        return _mm_add_epi32(_mm_unpacklo_epi64(t0, t1), _mm_unpackhi_epi64(t0, t1));
    }
    static uint32_t sum(V a) {
        V v = _mm_add_epi32(a, _mm_shuffle_epi32(a, 0x4E));
        v = _mm_add_epi32(v, _mm_shuffle_epi32(v, 0xB1));
        return static_cast<uint32_t>(_mm_cvtsi128_si32(v));
    }
#endif

    // Samples as [1 | x] (multiplies the high half of a coefficient) and
    // [x | x] (its low half).
    struct Window {
        alignas(64) int32_t one[kSamples];
        alignas(64) int32_t two[kSamples];
    };
    static void prepare(const SincRun &r, int32_t filled, Window &w) {
        fill_window(r, filled, w.one, [](int32_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v) << 16 | 1u); });
        fill_window(r, filled, w.two, [](int32_t v) {
            return static_cast<int32_t>(static_cast<uint32_t>(v) << 16 | (static_cast<uint32_t>(v) & 0xFFFFu));
        });
    }

    // Taps of coefficients c against samples at i of the window: the sum of
    // (c * x) >> 16 per lane, taps summed in pairs modulo 2^32.
    [[gnu::always_inline]] static V taps(V c, const Window &w, int32_t i) {
        const V low = mulhi16(c, load(w.two + i));
        return madd16(low16_high16(low, add(c, set1(0x8000u))), load(w.one + i));
    }

    // Each output at 128 entries per tap: x[c - 15 .. c] against the
    // reversed row of t0, x[c + 1 .. c + 16] against the row of 128 entries
    // - t0.
    // One output's taps at 128 entries per tap, lane by lane: x[c - 15 .. c]
    // against the reversed row of t0, x[c + 1 .. c + 16] against the row of
    // 128 entries - t0.
    [[gnu::always_inline]] static V output(const Window &w, const SincRows &r, const UnityOutputs &o, uint32_t i) {
        const int32_t at = kPad + o.at[i];
        const int32_t *wl = r.wingRev + o.left[i], *wr = r.wing + o.right[i];
        const uint32_t *hl = r.deltaHighRev + o.left[i], *hr = r.deltaHigh + o.right[i];
        const uint32_t *ll = r.deltaLowRev + o.left[i], *lr = r.deltaLow + o.right[i];
        const V gl1 = set1(static_cast<uint32_t>(o.gl[i])), gr1 = set1(static_cast<uint32_t>(o.gr[i]));
        const V gl2 = set1(static_cast<uint32_t>(o.gl2[i])), gr2 = set1(static_cast<uint32_t>(o.gr2[i]));
        V sum0 = set1(0), sum1 = set1(0);
#pragma GCC unroll 4
        for (int m = 0; m < 16; m += kLanes) {
            const V cl = add(add(load(wl + m), madd16(loadu(hl + m), gl2)), mulhiu16(loadu(ll + m), gl1));
            sum0 = add(sum0, taps(cl, w, at - 15 + m));
            const V cr = add(add(load(wr + m), madd16(loadu(hr + m), gr2)), mulhiu16(loadu(lr + m), gr1));
            sum1 = add(sum1, taps(cr, w, at + 1 + m));
        }
        return add(sum0, sum1);
    }

    static void rows(const Window &w, const SincRows &r, const UnityOutputs &o, uint32_t n, uint32_t *acc) {
        for (uint32_t i = 0; i < n; ++i) acc[i] = sum(output(w, r, o, i));
    }

    static void where(const SincRun &r, uint32_t base, uint32_t n, int32_t far, UnityOutputs &o) {
        where_plain<kFractionShift>(r, base, 0, n, far, o);
        for (uint32_t j = 0; j < n; ++j) {
            const auto gl = static_cast<uint32_t>(o.gl[j]), gr = static_cast<uint32_t>(o.gr[j]);
            o.gl2[j] = static_cast<int32_t>((gl >> 1) | (gl - (gl >> 1)) << 16);
            o.gr2[j] = static_cast<int32_t>((gr >> 1) | (gr - (gr >> 1)) << 16);
        }
    }

    // sinc_finish on a register of outputs: with |a| < 2^15 and G < 2^31,
    // y = (a * G + 2^22) >> 23 (the rounding of (((a * G) >> 15) + 128) >> 8)
    // lies below 2^23 and y << s (s <= 8) below 2^31, so only the 16-bit
    // saturation can bite (packssdw). Bits 23..54 of each 64-bit product
    // are y.
    static void finish(const uint32_t *acc, uint32_t n, uint32_t gain, int shift, int16_t *out) {
        const V g = set1(gain);
        const __m128i count = _mm_cvtsi32_si128(shift);
        uint32_t i = 0;
        for (; i + kLanes <= n; i += kLanes) {
            const V a = srai(load(reinterpret_cast<const int32_t *>(acc + i)), 16);
            const V even = mul64(a, g), odd = mul64(srl64(a, 32), g);
            const V y = sll(blend_odd(srl64(add64(even, bias()), 23), sll64(add64(odd, bias()), 9)), count);
            store_packed(out + i, y);
        }
        for (; i < n; ++i) out[i] = sinc_finish(acc[i], gain, shift);
    }

    // Coefficients at table positions t (below the table's end).
    [[gnu::always_inline]] static V coefficient(V t) {
        V wing, delta;
        gather(min(srl(t, 16), set1(kSincWingLength - 1)), &wing, &delta);
        const V g = and_(t, set1(0xFFFF));
        return add(wing, mul_shift16(delta, add(g, srl(g, 15))));
    }

    // Coefficients of window taps w = 0 .. taps-1 (x[c - h + w]): the left
    // wing at a - w*T for w <= h, then the right at w*T - a over what the
    // left wing's last group wrote past h; zero from `taps` to the end of the
    // last group.
    static void coefs(int32_t *coef, int32_t taps, uint32_t a, uint32_t tableStep, int32_t h) {
        const V step = set1(tableStep * kLanes), av = set1(a);
        V wt = mullo(lanes(), set1(tableStep));
        for (int32_t w = 0; w <= h; w += kLanes, wt = add(wt, step)) store(coef + w, coefficient(sub(av, wt)));
        wt = mullo(add(lanes(), set1(static_cast<uint32_t>(h) + 1)), set1(tableStep));
        for (int32_t w = h + 1; w < taps; w += kLanes, wt = add(wt, step)) store(coef + w, coefficient(sub(wt, av)));
        for (int32_t w = taps; w < taps + kLanes; ++w) coef[w] = 0;
    }

    // kLanes taps of one output below 128 entries per tap from a row of
    // the slot table (sinc_slots.hpp), at fractions v; samples from `at`.
    [[gnu::always_inline]] static V slot_taps(V v, const int32_t *cell, const Window &win, int32_t at) {
        const int32_t *wing = cell, *step = cell + kLanes, *delta = cell + 2 * kLanes, *slope = cell + 3 * kLanes;
        const V carry = less(set1(0xFFFE), v);
        const V g = and_(v, set1(0xFFFF));
        const V gw = add(g, srl(g, 15));
        const V d = add(load(delta), and_(carry, load(slope)));
        const V products = add(madd16(d, xor_(slli(gw, 16), set1(0x80000000u))), mulhiu16(d, gw));
        const V c = add(add(load(wing), and_(carry, load(step))), products);
        return taps(c, win, at);
    }

    // One output's taps as lanes to be summed: the left wing's groups at
    // fractions r + q, the right wing's at r + 2^16 - q. kLeft and kRight
    // groups per wing, or as the table says when 0.
    template <int kLeft, int kRight>
    [[gnu::always_inline]] static V slot_lanes(const Window &win, const Slots &s, const SlotOutputs &o, uint32_t j) {
        const int32_t left = kLeft ? kLeft * kLanes : s.left, len = kLeft ? left + kRight * kLanes : s.len;
        const int32_t *row = s.cells + o.row[j];
        const V q = set1(o.q[j]);
        const int32_t at = o.at[j];
        V acc = set1(0);
#pragma GCC unroll 4
        for (int32_t i = 0; i < left; i += kLanes)
            acc = add(acc, slot_taps(add(load(s.frac + i), q), row + 4 * i, win, at + i));
#pragma GCC unroll 4
        for (int32_t i = left; i < len; i += kLanes)
            acc = add(acc, slot_taps(sub(load(s.frac + i), q), row + 4 * i, win, at + i));
        return acc;
    }

    // Where outputs base .. base + n - 1 (n < 2^16 in all) read in the slot
    // table, kLanes at a time: sinc_advance and t0 = (f' * T) >> 16 in
    // lanes, the latter below 2^40 before the shift, so taken in 64 bits.
    static void slot_where(const SincRun &r, uint32_t base, uint32_t n, int32_t far, const SlotShape &s,
                           SlotOutputs &o) {
        const V whole = set1((r.step >> 16) << 8), part = set1(r.step & 0xFFFFu), table = set1(r.tableStep);
        const V p0 = set1(r.p0), h = set1(static_cast<uint32_t>(r.h)), farv = set1(static_cast<uint32_t>(far));
        const V from = set1(static_cast<uint32_t>(kPad + s.from - r.h));
        const V rowCells = set1(4 * static_cast<uint32_t>(s.len));
        uint32_t j = 0;
        for (; j + kLanes <= n; j += kLanes) {
            const V m = add(lanes(), set1(base + j));
            const V p = add(add(p0, mullo(whole, m)), srl(add(mullo(part, m), set1(128)), 8));
            store(o.at + j, add(min(add(srl(p, 16), h), farv), from));
            const V f = and_(p, set1(0xFFFF));
            const V fw = add(f, srl(f, 15));
            const V even = srl64(mulu64(fw, table), 16), odd = sll64(mulu64(odd_down(fw), table), 16);
            const V t0 = blend_odd(even, odd);
            store(reinterpret_cast<int32_t *>(o.row + j), mullo(srl(t0, 16), rowCells));
            store(reinterpret_cast<int32_t *>(o.q + j), and_(t0, set1(0xFFFF)));
        }
        for (; j < n; ++j) {
            const uint32_t p = r.p0 + sinc_advance(r.step, base + j);
            o.at[j] = std::min(static_cast<int32_t>(p >> 16) + r.h, far) + kPad + s.from - r.h;
            const uint32_t f = p & 0xFFFFu;
            const auto t0 = static_cast<uint32_t>((uint64_t{f + (f >> 15)} * r.tableStep) >> 16);
            o.row[j] = 4 * (t0 >> 16) * static_cast<uint32_t>(s.len);
            o.q[j] = t0 & 0xFFFFu;
        }
    }

    // The sums of n outputs from the slot table, kLanes reduced together.
    template <int kLeft, int kRight>
    static void slot_outputs_as(const Window &win, const Slots &s, const SlotOutputs &o, uint32_t n, uint32_t *acc) {
        uint32_t i = 0;
        for (; i + kLanes <= n; i += kLanes) {
            V each[kLanes];
            for (int l = 0; l < kLanes; ++l) each[l] = slot_lanes<kLeft, kRight>(win, s, o, i + l);
            store(reinterpret_cast<int32_t *>(acc + i), sums(each));
        }
        for (; i < n; ++i) acc[i] = sum(slot_lanes<kLeft, kRight>(win, s, o, i));
    }

    // Ratios from 0.8125 to 1 (half-lengths 13 to 15) fill two groups of
    // eight or four of four per wing: those unrolled in full.
    static void slot_outputs(const Window &win, const Slots &s, const SlotOutputs &o, uint32_t n, uint32_t *acc) {
        constexpr int kGroups = 16 / kLanes;
        if (s.left == kGroups * kLanes && s.len == 2 * kGroups * kLanes)
            slot_outputs_as<kGroups, kGroups>(win, s, o, n, acc);
        else
            slot_outputs_as<0, 0>(win, s, o, n, acc);
    }

    static uint32_t dot(const Window &win, int32_t first, const int32_t *coef, int32_t n) {
        V acc = set1(0);
        for (int32_t w = 0; w < n; w += kLanes) acc = add(acc, taps(load(coef + w), win, kPad + first + w));
        return sum(acc);
    }
};

}  // namespace
}  // namespace rsmpl::sinc
