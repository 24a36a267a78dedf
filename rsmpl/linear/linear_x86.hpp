// The linear converter's x86-64 frame operations: the channels of a frame
// in the 32-bit lanes of one SSE register. Included by linear_sse41.cpp and
// linear_avx2.cpp, each compiled for its instruction set; internal linkage.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "rsmpl/linear/linear_frames.hpp"

namespace rsmpl {
namespace {

template <int C>
struct FrameOps {
    static __m128i load(const int16_t *p) {
        int64_t t = 0;
        std::memcpy(&t, p, C * sizeof(int16_t));
        return _mm_cvtepi16_epi32(_mm_cvtsi64_si128(t));
    }
    static __m128i zero() { return _mm_setzero_si128(); }
    static __m128i lerp(__m128i a, uint32_t wa, __m128i b, uint32_t wb) {
        return _mm_add_epi32(_mm_mullo_epi32(a, _mm_set1_epi32(static_cast<int32_t>(wa))),
                             _mm_mullo_epi32(b, _mm_set1_epi32(static_cast<int32_t>(wb))));
    }
    // Bits 16..31 of each lane: the arithmetic shift leaves them in int16 range.
    static void store(int16_t *p, __m128i sum) { store_samples(p, _mm_srai_epi32(sum, 16)); }
    static void store_samples(int16_t *p, __m128i v) {
        const int64_t t = _mm_cvtsi128_si64(_mm_packs_epi32(v, v));
        std::memcpy(p, &t, C * sizeof(int16_t));
    }
};

}  // namespace
}  // namespace rsmpl
