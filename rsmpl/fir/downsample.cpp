// Decimation stages 1:2, 1:3, 1:4, 1:6 and 2:3 of one channel. The kernels
// come from the engine in use (fir_stages.hpp lists the stages); the wrappers
// here carry the filter history in the context.
#include <algorithm>
#include <array>
#include <cstdint>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/fir/fir_stages.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include <rsmpl/rsmpl_util.h>

namespace rsmpl::fir {
namespace {

// The one dispatch point: exported kernels and stage wrappers take their
// implementation from the engine in use.
const Kernels &active() { return kernels().fir; }

// The direct pass reads from in[B - H] and writes from out[direct_out].
constexpr int32_t direct_in(const StageShape &s) { return s.first_block - s.history; }
constexpr int32_t direct_out(const StageShape &s) { return s.first_block / s.group * s.outputs; }

// Why one buffer may serve as in and out: the frame pass's outputs end below
// the direct pass's first input, the direct pass writes each output no higher
// than the first input it reads (output j at direct_out + j*P, inputs from
// direct_in + j*D), and the frame is whole groups.
constexpr bool in_place_safe(const StageShape &s) {
    return s.first_block == 0 ||
           (direct_out(s) <= direct_in(s) && s.outputs <= s.group && s.first_block % s.group == 0 &&
            s.history <= s.first_block);
}
static_assert(std::all_of(kShapes.begin(), kShapes.end(), in_place_safe));

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
template <StageId I>
void run_stage(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) {
    constexpr StageShape G = kShapes[I];
    static_assert(G.first_block > 0, "a down-stage");
    constexpr int32_t H = G.history;
    constexpr int32_t B = G.first_block;
    const Kernel kernel = active().stage[I];
    std::array<int16_t, H + B> frame;
    const int32_t f = std::clamp(n, int32_t{0}, B);
    std::copy_n(ctx->samples, H, frame.data());
    std::copy_n(in, f, frame.data() + H);
    kernel(frame.data(), out, f);
    if (n > B) kernel(in + direct_in(G), out + direct_out(G), n - B);
    const int16_t *last = n > B ? in + (n - H) : frame.data() + f;
    UTIL_Memmove(ctx->samples, last, 2u * H);
}

}  // namespace
}  // namespace rsmpl::fir

using namespace rsmpl::fir;

extern "C" {

void DownsampleFIR2To1(const int16_t *x, int16_t *out, int32_t count) { active().stage[kDown2To1](x, out, count); }
void DownsampleFIR3To1(const int16_t *x, int16_t *out, int32_t count) { active().stage[kDown3To1](x, out, count); }
void DownsampleFIR4To1(const int16_t *x, int16_t *out, int32_t count) { active().stage[kDown4To1](x, out, count); }
void DownsampleFIR6To1(const int16_t *x, int16_t *out, int32_t count) { active().stage[kDown6To1](x, out, count); }
void DownsampleFIR3To2(const int16_t *x, int16_t *out, int32_t count) { active().stage[kDown3To2](x, out, count); }

void Downsample1_2(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kDown2To1>(in, out, ctx, n); }
void Downsample1_3(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kDown3To1>(in, out, ctx, n); }
void Downsample1_4(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kDown4To1>(in, out, ctx, n); }
void Downsample1_6(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kDown6To1>(in, out, ctx, n); }
void Downsample2_3(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kDown3To2>(in, out, ctx, n); }

}  // extern "C"
