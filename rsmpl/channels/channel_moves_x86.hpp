// x86-64 channel moves (channel_moves.hpp) for the SSE4.1, AVX2 and AVX-512
// sets: stereo and four channels in 128-bit registers, eight frames a step
// (the AVX2 and AVX-512 sets split and merge stereo 16 and 32 frames a step);
// other counts with the stride a compile-time constant, which the compiler
// unrolls. Included by channel_moves_{sse41,avx2,avx512}.cpp; internal linkage.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace rsmpl {
namespace {
namespace moves {

template <uint32_t C>
void gather_fixed(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t c) {
    frames += c;
    for (uint32_t k = 0; k < count; ++k) mono[k] = frames[static_cast<size_t>(k) * C];
}

template <uint32_t C>
void scatter_fixed(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t c) {
    frames += c;
    for (uint32_t k = 0; k < count; ++k) frames[static_cast<size_t>(k) * C] = mono[k];
}

inline __m128i load(const int16_t *p) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p)); }
inline void store(int16_t *p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i *>(p), v); }

// Keeps the bits of `old` where keep is set, the rest from `fresh`.
inline __m128i merge(__m128i keep, __m128i old, __m128i fresh) {
    return _mm_or_si128(_mm_and_si128(keep, old), _mm_andnot_si128(keep, fresh));
}

void gather_stereo(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t c) {
    uint32_t k = 0;
    for (; k + 8 <= count; k += 8) {
        __m128i a = load(frames + 2 * size_t{k});
        __m128i b = load(frames + 2 * size_t{k} + 8);
        // Sign-extend the wanted half of each frame so the pack cannot saturate.
        if (c == 0) {
            a = _mm_slli_epi32(a, 16);
            b = _mm_slli_epi32(b, 16);
        }
        store(mono + k, _mm_packs_epi32(_mm_srai_epi32(a, 16), _mm_srai_epi32(b, 16)));
    }
    gather_fixed<2>(mono + k, frames + 2 * size_t{k}, count - k, c);
}

void scatter_stereo(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t c) {
    const __m128i keep = _mm_set1_epi32(c == 0 ? static_cast<int32_t>(0xffff0000u) : 0x0000ffff);
    uint32_t k = 0;
    for (; k + 8 <= count; k += 8) {
        const __m128i v = load(mono + k);
        int16_t *d = frames + 2 * size_t{k};
        // Each sample in both halves of its frame; the mask keeps the other channel.
        store(d, merge(keep, load(d), _mm_unpacklo_epi16(v, v)));
        store(d + 8, merge(keep, load(d + 8), _mm_unpackhi_epi16(v, v)));
    }
    scatter_fixed<2>(frames + 2 * size_t{k}, mono + k, count - k, c);
}

void gather_quad(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t c) {
    // Bytes of channel c of both frames in a register to its lowest 32 bits.
    const int8_t lo = static_cast<int8_t>(2 * c);
    const __m128i pick = _mm_setr_epi8(lo, static_cast<int8_t>(lo + 1), static_cast<int8_t>(lo + 8),
                                       static_cast<int8_t>(lo + 9), -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    uint32_t k = 0;
    for (; k + 8 <= count; k += 8) {
        const int16_t *s = frames + 4 * size_t{k};
        const __m128i a = _mm_shuffle_epi8(load(s), pick), b = _mm_shuffle_epi8(load(s + 8), pick);
        const __m128i e = _mm_shuffle_epi8(load(s + 16), pick), f = _mm_shuffle_epi8(load(s + 24), pick);
        store(mono + k, _mm_unpacklo_epi64(_mm_unpacklo_epi32(a, b), _mm_unpacklo_epi32(e, f)));
    }
    gather_fixed<4>(mono + k, frames + 4 * size_t{k}, count - k, c);
}

void scatter_quad(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t c) {
    alignas(16) int16_t mask[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
    mask[c] = 0;
    mask[c + 4] = 0;
    const __m128i keep = _mm_load_si128(reinterpret_cast<const __m128i *>(mask));
    uint32_t k = 0;
    for (; k + 8 <= count; k += 8) {
        const __m128i v = load(mono + k);
        const __m128i lo = _mm_unpacklo_epi16(v, v), hi = _mm_unpackhi_epi16(v, v);
        int16_t *d = frames + 4 * size_t{k};
        // Each sample in all four places of its frame; the mask keeps the other channels.
        store(d, merge(keep, load(d), _mm_unpacklo_epi32(lo, lo)));
        store(d + 8, merge(keep, load(d + 8), _mm_unpackhi_epi32(lo, lo)));
        store(d + 16, merge(keep, load(d + 16), _mm_unpacklo_epi32(hi, hi)));
        store(d + 24, merge(keep, load(d + 24), _mm_unpackhi_epi32(hi, hi)));
    }
    scatter_fixed<4>(frames + 4 * size_t{k}, mono + k, count - k, c);
}

void gather_channel(int16_t *mono, const int16_t *frames, uint32_t count, uint32_t channels, uint32_t c) {
    switch (channels) {
    case 1: std::memcpy(mono, frames, size_t{count} * sizeof(int16_t)); return;
    case 2: gather_stereo(mono, frames, count, c); return;
    case 3: gather_fixed<3>(mono, frames, count, c); return;
    case 4: gather_quad(mono, frames, count, c); return;
    case 5: gather_fixed<5>(mono, frames, count, c); return;
    case 6: gather_fixed<6>(mono, frames, count, c); return;
    case 7: gather_fixed<7>(mono, frames, count, c); return;
    case 8: gather_fixed<8>(mono, frames, count, c); return;
    default: break;
    }
    for (uint32_t k = 0; k < count; ++k) mono[k] = frames[static_cast<size_t>(k) * channels + c];
}

void scatter_channel(int16_t *frames, const int16_t *mono, uint32_t count, uint32_t channels, uint32_t c) {
    switch (channels) {
    case 1: std::memcpy(frames, mono, size_t{count} * sizeof(int16_t)); return;
    case 2: scatter_stereo(frames, mono, count, c); return;
    case 3: scatter_fixed<3>(frames, mono, count, c); return;
    case 4: scatter_quad(frames, mono, count, c); return;
    case 5: scatter_fixed<5>(frames, mono, count, c); return;
    case 6: scatter_fixed<6>(frames, mono, count, c); return;
    case 7: scatter_fixed<7>(frames, mono, count, c); return;
    case 8: scatter_fixed<8>(frames, mono, count, c); return;
    default: break;
    }
    for (uint32_t k = 0; k < count; ++k) frames[static_cast<size_t>(k) * channels + c] = mono[k];
}

void split_channels(int16_t *const *mono, const int16_t *frames, uint32_t count, uint32_t channels) {
    uint32_t k = 0;
    if (channels == 2) {
#if defined(__AVX2__)
        // Per 128-bit lane, four frames' left samples, then their right ones.
        const __m128i halves = _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15);
#endif
#if defined(__AVX512BW__)
        const __m512i by_lane = _mm512_broadcast_i32x4(halves);
        const __m512i left = _mm512_setr_epi64(0, 2, 4, 6, 8, 10, 12, 14);
        const __m512i right = _mm512_setr_epi64(1, 3, 5, 7, 9, 11, 13, 15);
        for (; k + 32 <= count; k += 32) {
            const __m512i a = _mm512_shuffle_epi8(_mm512_loadu_si512(frames + 2 * size_t{k}), by_lane);
            const __m512i b = _mm512_shuffle_epi8(_mm512_loadu_si512(frames + 2 * size_t{k} + 32), by_lane);
            _mm512_storeu_si512(mono[0] + k, _mm512_permutex2var_epi64(a, left, b));
            _mm512_storeu_si512(mono[1] + k, _mm512_permutex2var_epi64(a, right, b));
        }
#endif
#if defined(__AVX2__)
        const __m256i by_half = _mm256_broadcastsi128_si256(halves);
        for (; k + 16 <= count; k += 16) {
            const __m256i a = _mm256_shuffle_epi8(
                _mm256_loadu_si256(reinterpret_cast<const __m256i *>(frames + 2 * size_t{k})), by_half);
            const __m256i b = _mm256_shuffle_epi8(
                _mm256_loadu_si256(reinterpret_cast<const __m256i *>(frames + 2 * size_t{k} + 16)), by_half);
            // Lane 0 holds frames 0-3 and 8-11, lane 1 frames 4-7 and 12-15 until reordered.
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(mono[0] + k),
                                _mm256_permute4x64_epi64(_mm256_unpacklo_epi64(a, b), 0xD8));
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(mono[1] + k),
                                _mm256_permute4x64_epi64(_mm256_unpackhi_epi64(a, b), 0xD8));
        }
#endif
        for (; k + 8 <= count; k += 8) {
            const __m128i a = load(frames + 2 * size_t{k}), b = load(frames + 2 * size_t{k} + 8);
            // Sign-extended halves, so the packs cannot saturate.
            store(mono[0] + k, _mm_packs_epi32(_mm_srai_epi32(_mm_slli_epi32(a, 16), 16),
                                               _mm_srai_epi32(_mm_slli_epi32(b, 16), 16)));
            store(mono[1] + k, _mm_packs_epi32(_mm_srai_epi32(a, 16), _mm_srai_epi32(b, 16)));
        }
    } else if (channels == 4) {
        // Per register of two frames, each channel's pair of samples to one 32-bit word.
        const __m128i pairs = _mm_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15);
        for (; k + 8 <= count; k += 8) {
            const int16_t *s = frames + 4 * size_t{k};
            const __m128i a = _mm_shuffle_epi8(load(s), pairs), b = _mm_shuffle_epi8(load(s + 8), pairs);
            const __m128i e = _mm_shuffle_epi8(load(s + 16), pairs), f = _mm_shuffle_epi8(load(s + 24), pairs);
            const __m128i ab0 = _mm_unpacklo_epi32(a, b), ab1 = _mm_unpackhi_epi32(a, b);
            const __m128i ef0 = _mm_unpacklo_epi32(e, f), ef1 = _mm_unpackhi_epi32(e, f);
            store(mono[0] + k, _mm_unpacklo_epi64(ab0, ef0));
            store(mono[1] + k, _mm_unpackhi_epi64(ab0, ef0));
            store(mono[2] + k, _mm_unpacklo_epi64(ab1, ef1));
            store(mono[3] + k, _mm_unpackhi_epi64(ab1, ef1));
        }
    }
    for (uint32_t c = 0; c < channels; ++c)
        gather_channel(mono[c] + k, frames + size_t{k} * channels, count - k, channels, c);
}

void merge_channels(int16_t *frames, const int16_t *const *mono, uint32_t count, uint32_t channels) {
    uint32_t k = 0;
    if (channels == 2) {
#if defined(__AVX512BW__)
        // Per 128-bit lane k, frames 8k .. 8k+3 (lo) and 8k+4 .. 8k+7 (hi).
        const __m512i first = _mm512_setr_epi64(0, 1, 8, 9, 2, 3, 10, 11);
        const __m512i second = _mm512_setr_epi64(4, 5, 12, 13, 6, 7, 14, 15);
        for (; k + 32 <= count; k += 32) {
            const __m512i a = _mm512_loadu_si512(mono[0] + k), b = _mm512_loadu_si512(mono[1] + k);
            const __m512i lo = _mm512_unpacklo_epi16(a, b), hi = _mm512_unpackhi_epi16(a, b);
            _mm512_storeu_si512(frames + 2 * size_t{k}, _mm512_permutex2var_epi64(lo, first, hi));
            _mm512_storeu_si512(frames + 2 * size_t{k} + 32, _mm512_permutex2var_epi64(lo, second, hi));
        }
#endif
#if defined(__AVX2__)
        for (; k + 16 <= count; k += 16) {
            const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(mono[0] + k));
            const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(mono[1] + k));
            // Per 128-bit lane: frames 0-3 and 8-11 (lo), 4-7 and 12-15 (hi).
            const __m256i lo = _mm256_unpacklo_epi16(a, b), hi = _mm256_unpackhi_epi16(a, b);
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(frames + 2 * size_t{k}),
                                _mm256_permute2x128_si256(lo, hi, 0x20));
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(frames + 2 * size_t{k} + 16),
                                _mm256_permute2x128_si256(lo, hi, 0x31));
        }
#endif
        for (; k + 8 <= count; k += 8) {
            const __m128i a = load(mono[0] + k), b = load(mono[1] + k);
            store(frames + 2 * size_t{k}, _mm_unpacklo_epi16(a, b));
            store(frames + 2 * size_t{k} + 8, _mm_unpackhi_epi16(a, b));
        }
    } else if (channels == 4) {
        for (; k + 8 <= count; k += 8) {
            const __m128i a = load(mono[0] + k), b = load(mono[1] + k);
            const __m128i e = load(mono[2] + k), f = load(mono[3] + k);
            const __m128i ab0 = _mm_unpacklo_epi16(a, b), ab1 = _mm_unpackhi_epi16(a, b);
            const __m128i ef0 = _mm_unpacklo_epi16(e, f), ef1 = _mm_unpackhi_epi16(e, f);
            int16_t *d = frames + 4 * size_t{k};
            store(d, _mm_unpacklo_epi32(ab0, ef0));
            store(d + 8, _mm_unpackhi_epi32(ab0, ef0));
            store(d + 16, _mm_unpacklo_epi32(ab1, ef1));
            store(d + 24, _mm_unpackhi_epi32(ab1, ef1));
        }
    }
    for (uint32_t c = 0; c < channels; ++c)
        scatter_channel(frames + size_t{k} * channels, mono[c] + k, count - k, channels, c);
}

}  // namespace moves
}  // namespace
}  // namespace rsmpl
