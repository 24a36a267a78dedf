// Up-stages: polyphase FIR interpolation of one mono Q15 channel by 3:2, 2, 3,
// 4 and 6. The kernels come from the engine in use (fir_stages.hpp lists the
// stages); the wrappers here keep the filter history in the context and make
// in-place operation safe.
#include <cstring>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/fir/fir_stages.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include <rsmpl/rsmpl_util.h>

namespace rsmpl::fir {
namespace {

const Kernels &active() { return kernels().fir; }

// ---- Stage wrappers ----------------------------------------------------------

// Outputs for n inputs: P per whole group of D (D = 2 for 3:2, else 1).
constexpr int32_t outputs(const StageShape &s, int32_t n) { return s.outputs * (n / s.group); }
// The wrapper uses out up to here: the outputs, and for an odd n on 3:2 one
// sample more (the input that ends no pair).
constexpr int32_t scratch(const StageShape &s, int32_t n) { return outputs(s, n) + n % s.group; }

constexpr uint32_t bytes(int32_t samples) { return static_cast<uint32_t>(samples) * sizeof(int16_t); }

// Converts n >= 0 inputs; `out` is the same buffer as `in` or disjoint from it.
// With m = min(n, T) the tail and k = n - m the bulk:
//  1. Copy the tail in[k..n-1] to frame[H..H+m-1], before out is written.
//  2. If k > 0:
//     a. move the bulk in[0..k-1] to the end of the scratch area of out
//        (UTIL_Memmove: in place, source and destination overlap);
//     b. copy the history just before it: the staging area, history then bulk;
//     c. copy the last H staged samples to frame[0..H-1];
//     d. run the kernel over the staging area with count k: out[0 ..].
//  3. If k = 0, copy the history to frame[0..H-1] instead.
//  4. Run the kernel over the frame with count m: out[outputs(k) ..].
//  5. Move frame[m..m+H-1], the newest H samples, into the history region.
// 2d is safe in place: the kernel fills out from the front, each group after
// reading its window, while the staged samples still unread lie further back
// (T > H/L - 1 for L:1, T > 8 for 3:2). The last m inputs are read from the
// frame, whose copy of them predates any write to out.
template <StageId I>
void run_stage(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) {
    constexpr StageShape S = kShapes[I];
    static_assert(S.tail > 0, "an up-stage");
    constexpr int32_t H = S.history;
    const Kernel kernel = active().stage[I];
    const int32_t m = n < S.tail ? n : S.tail;
    const int32_t k = n - m;
    int16_t frame[H + S.tail];

    std::memcpy(frame + H, in + k, bytes(m));  // 1
    if (k > 0) {
        int16_t *bulk = out + scratch(S, n) - k;
        int16_t *staged = bulk - H;
        UTIL_Memmove(bulk, in, bytes(k));                 // 2a
        std::memcpy(staged, ctx->samples, bytes(H));      // 2b
        std::memcpy(frame, staged + k, bytes(H));         // 2c
        kernel(staged, out, k);                           // 2d
    } else {
        std::memcpy(frame, ctx->samples, bytes(H));       // 3
    }
    kernel(frame, out + outputs(S, k), m);                 // 4
    UTIL_Memmove(ctx->samples, frame + m, bytes(H));      // 5
}

}  // namespace
}  // namespace rsmpl::fir

using namespace rsmpl::fir;

extern "C" {

void UpsampleFIR2To3(const int16_t *x, int16_t *out, int32_t count) { active().stage[kUp2To3](x, out, count); }
void UpsampleFIR1To2(const int16_t *x, int16_t *out, int32_t count) { active().stage[kUp1To2](x, out, count); }
void UpsampleFIR1To3(const int16_t *x, int16_t *out, int32_t count) { active().stage[kUp1To3](x, out, count); }
void UpsampleFIR1To4(const int16_t *x, int16_t *out, int32_t count) { active().stage[kUp1To4](x, out, count); }
void UpsampleFIR1To6(const int16_t *x, int16_t *out, int32_t count) { active().stage[kUp1To6](x, out, count); }

void Upsample3_2(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kUp2To3>(in, out, ctx, n); }
void Upsample2_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kUp1To2>(in, out, ctx, n); }
void Upsample3_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kUp1To3>(in, out, ctx, n); }
void Upsample4_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kUp1To4>(in, out, ctx, n); }
void Upsample6_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kUp1To6>(in, out, ctx, n); }

}  // extern "C"
