// Decimation stages 1:2, 1:3, 1:4, 1:6 and 2:3 of one channel: stateless
// kernels, and stage wrappers that carry the filter history in the context.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/fir/downsample_kernels.hpp"
#include "rsmpl/fir/downsample_tables.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include <rsmpl/rsmpl_util.h>
#include "util/fixed.hpp"

namespace rsmpl::down {
namespace {

// 1:M: out[j] = sat16((sum c[k] * x[M*j + k] + 2^(s-1)) >> s), k over all L taps.
// The exact sum reaches sum|c| * 32768, up to 7.7e9 for 4To1, so it is kept
// in 64 bits. Output j is written after its span x[M*j .. M*j + L - 1] has
// been read, and at index j <= M*j, so out may equal x or lie below it.
template <const CoefTable &T, int M>
void decimate(const int16_t *x, int16_t *out, int32_t count) {
    const int32_t outputs = count >= M ? count / M : 0;
    for (int32_t j = 0; j < outputs; ++j) {
        const int16_t *w = x + static_cast<std::ptrdiff_t>(M) * j;
        int64_t acc = 0;
        for (int k = 0; k < T.taps; ++k) acc += mul16x16(T.at(0, k), w[k]);
        out[j] = round_sat16(acc, T.shift);
    }
}

// 2:3: per group l of 3 inputs, phase 0 over x[3l .. 3l+15] gives out[2l] and
// phase 1 over x[3l+1 .. 3l+16] gives out[2l+1], each Q15 with the same
// rounding. sum|a| = 56048 keeps either sum within 32 bits. The pair is
// written after both windows are read and lies below the next group's first
// input, so out may equal x.
void decimate3to2(const int16_t *x, int16_t *out, int32_t count) {
    constexpr const CoefTable &T = kTable3To2;
    const int32_t groups = count >= 3 ? count / 3 : 0;
    for (int32_t l = 0; l < groups; ++l) {
        const int16_t *w = x + std::ptrdiff_t{3} * l;
        int32_t s0 = 0, s1 = 0;
        for (int k = 0; k < T.taps; ++k) {
            s0 += mul16x16(T.at(0, k), w[k]);
            s1 += mul16x16(T.at(1, k), w[k + 1]);
        }
        out[2 * l] = round_sat16(s0, T.shift);
        out[2 * l + 1] = round_sat16(s1, T.shift);
    }
}

// The one dispatch point: exported kernels and stage wrappers take their
// implementation from the engine in use.
const Kernels &active() { return kernels().down; }

// The stage wrapper, the same five steps for every stage:
//  1. frame[0 .. H-1] = history
//  2. frame[H .. H+f-1] = in[0 .. f-1], f = min(n, B)
//  3. frame pass: kernel over the frame with count f, writing out[0 ..]
//  4. direct pass when n > B: kernel over in[B-H ..] with count n - B, writing
//     out[B/M*outputs ..]; in[B-H .. B-1] are the last H samples the frame
//     pass consumed, so both passes filter one unbroken stream
//  5. the stream's last H samples (frame[f ..] or in[n-H ..]) become the
//     history, moved with UTIL_Memmove over 2H bytes
// Only the first B samples are copied, into a frame of H + B samples on the
// stack; the rest is filtered where the caller left it. With in == out the
// copy in step 2 is taken before anything is written, and the geometry keeps
// every write below the inputs still to be read (see in_place_safe).
// A count that is not a multiple of the input group yields the whole groups
// and still moves all n samples into the history. Callers never pass a
// negative count; it is treated as 0.
template <const StageGeometry &G>
void run_stage(Kernel kernel, const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) {
    constexpr int32_t H = G.history;
    constexpr int32_t B = G.first_block;
    std::array<int16_t, G.frame()> frame;
    const int32_t f = std::clamp(n, int32_t{0}, B);
    std::copy_n(ctx->samples, H, frame.data());
    std::copy_n(in, f, frame.data() + H);
    kernel(frame.data(), out, f);
    if (n > B) kernel(in + G.direct_in(), out + G.direct_out(), n - B);
    const int16_t *last = n > B ? in + (n - H) : frame.data() + f;
    UTIL_Memmove(ctx->samples, last, 2u * H);
}

}  // namespace

void fir2to1_scalar(const int16_t *x, int16_t *out, int32_t count) { decimate<kTable2To1, 2>(x, out, count); }
void fir3to1_scalar(const int16_t *x, int16_t *out, int32_t count) { decimate<kTable3To1, 3>(x, out, count); }
void fir4to1_scalar(const int16_t *x, int16_t *out, int32_t count) { decimate<kTable4To1, 4>(x, out, count); }
void fir6to1_scalar(const int16_t *x, int16_t *out, int32_t count) { decimate<kTable6To1, 6>(x, out, count); }
void fir3to2_scalar(const int16_t *x, int16_t *out, int32_t count) { decimate3to2(x, out, count); }

}  // namespace rsmpl::down

using namespace rsmpl::down;

extern "C" {

void DownsampleFIR2To1(const int16_t *x, int16_t *out, int32_t count) { active().fir2to1(x, out, count); }
void DownsampleFIR3To1(const int16_t *x, int16_t *out, int32_t count) { active().fir3to1(x, out, count); }
void DownsampleFIR4To1(const int16_t *x, int16_t *out, int32_t count) { active().fir4to1(x, out, count); }
void DownsampleFIR6To1(const int16_t *x, int16_t *out, int32_t count) { active().fir6to1(x, out, count); }
void DownsampleFIR3To2(const int16_t *x, int16_t *out, int32_t count) { active().fir3to2(x, out, count); }

void Downsample1_2(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) {
    run_stage<kGeom2To1>(active().fir2to1, in, out, ctx, n);
}
void Downsample1_3(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) {
    run_stage<kGeom3To1>(active().fir3to1, in, out, ctx, n);
}
void Downsample1_4(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) {
    run_stage<kGeom4To1>(active().fir4to1, in, out, ctx, n);
}
void Downsample1_6(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) {
    run_stage<kGeom6To1>(active().fir6to1, in, out, ctx, n);
}
void Downsample2_3(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) {
    run_stage<kGeom3To2>(active().fir3to2, in, out, ctx, n);
}

}  // extern "C"
