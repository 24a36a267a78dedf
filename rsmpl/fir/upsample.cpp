// Up-stages: polyphase FIR interpolation of one mono Q15 channel by 3:2, 2, 3,
// 4 and 6. Each stage is a stateless kernel plus a wrapper that keeps the
// filter history in the context and makes in-place operation safe.
#include "rsmpl/fir/upsample.hpp"

#include <pthread.h>

#include <cstring>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/fir/upsample_tables.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include <rsmpl/rsmpl_util.h>
#include "util/fixed.hpp"

namespace rsmpl::up {
namespace {

// ---- Scalar reference kernels ----------------------------------------------
//
// Group j consumes `Group` new samples (2 for 3:2, else 1) and yields `Phases`
// outputs. Its window is the N samples ending with the group's last new
// sample, x[H + Group*j + Group-1], where N = H + 1:
//   L:1: window x[j .. j+N-1]        3:2: window x[2j+1 .. 2j+16]
// out[Phases*j + p] = R(S_p), S_p = sum_i c[p][i] * window[i].
//
// Accumulator: the exact sum in 64 bits. |S_p| <= 32768 * (largest absolute
// row sum, 70720) < 2^32, far inside int64; in 32 bits the phases whose
// absolute sum exceeds 65535 could wrap. R adds 2^14, shifts right
// arithmetically by 15 (ties towards +inf) and saturates to -32768..32767.
// A count below one group writes nothing.
template <int Group, int Phases, int N>
void fir_ref(const int16_t (&c)[Phases][N], const int16_t *x, int16_t *out, int32_t count) {
    for (int32_t j = 0; j < count / Group; ++j) {
        const int16_t *window = x + Group * j + (Group - 1);
        int64_t sum[Phases];
        for (int p = 0; p < Phases; ++p) {
            sum[p] = 0;
            for (int i = 0; i < N; ++i) sum[p] += mul16x16(c[p][i], window[i]);
        }
        for (int p = 0; p < Phases; ++p) out[Phases * j + p] = round_sat16(sum[p], 15);
    }
}

}  // namespace

void fir2to3_scalar(const int16_t *x, int16_t *out, int32_t count) { fir_ref<2>(kFir2To3, x, out, count); }
void fir1to2_scalar(const int16_t *x, int16_t *out, int32_t count) { fir_ref<1>(kFir1To2, x, out, count); }
void fir1to3_scalar(const int16_t *x, int16_t *out, int32_t count) { fir_ref<1>(kFir1To3, x, out, count); }
void fir1to4_scalar(const int16_t *x, int16_t *out, int32_t count) { fir_ref<1>(kFir1To4, x, out, count); }
void fir1to6_scalar(const int16_t *x, int16_t *out, int32_t count) { fir_ref<1>(kFir1To6, x, out, count); }

const Kernels &active_engine() { return kernels().up; }

namespace {

// ---- Stage wrappers ----------------------------------------------------------

struct Stage {
    int32_t group;    // new samples per output group: 2 for 3:2, else 1
    int32_t phases;   // outputs per group
    int32_t history;  // H: newest input samples kept at the start of the context
    int32_t tail;     // T: inputs filtered from the working frame
    Kernel Kernels::*kernel;

    constexpr int32_t outputs(int32_t n) const { return phases * (n / group); }
    // The wrapper uses out up to here: the outputs, and for an odd n on 3:2
    // one sample more (the input that ends no pair).
    constexpr int32_t scratch(int32_t n) const { return outputs(n) + n % group; }
};

constexpr Stage kUp2To3{2, 3, 15, 12, &Kernels::fir2to3};
constexpr Stage kUp1To2{1, 2, 35, 18, &Kernels::fir1to2};
constexpr Stage kUp1To3{1, 3, 15, 6, &Kernels::fir1to3};
constexpr Stage kUp1To4{1, 4, 15, 4, &Kernels::fir1to4};
constexpr Stage kUp1To6{1, 6, 15, 3, &Kernels::fir1to6};

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
template <Stage S>
void run_stage(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) {
    constexpr int32_t H = S.history;
    const Kernel kernel = active_engine().*S.kernel;
    const int32_t m = n < S.tail ? n : S.tail;
    const int32_t k = n - m;
    int16_t frame[H + S.tail];

    std::memcpy(frame + H, in + k, bytes(m));  // 1
    if (k > 0) {
        int16_t *bulk = out + S.scratch(n) - k;
        int16_t *staged = bulk - H;
        UTIL_Memmove(bulk, in, bytes(k));                 // 2a
        std::memcpy(staged, ctx->samples, bytes(H));      // 2b
        std::memcpy(frame, staged + k, bytes(H));         // 2c
        kernel(staged, out, k);                           // 2d
    } else {
        std::memcpy(frame, ctx->samples, bytes(H));       // 3
    }
    kernel(frame, out + S.outputs(k), m);                 // 4
    UTIL_Memmove(ctx->samples, frame + m, bytes(H));      // 5
}

}  // namespace

namespace {

// pthread_once, not a guarded static: librsmpl must not need libstdc++.
Kernels g_engines[4];
size_t g_engine_count;
pthread_once_t g_engines_once = PTHREAD_ONCE_INIT;

void fill_engines() {
    for (const KernelSet *k : available_kernels()) g_engines[g_engine_count++] = k->up;
}

}  // namespace

std::span<const Kernels> engines() {
    pthread_once(&g_engines_once, fill_engines);
    return {g_engines, g_engine_count};
}

}  // namespace rsmpl::up

using namespace rsmpl::up;

extern "C" {

void UpsampleFIR2To3(const int16_t *x, int16_t *out, int32_t count) { active_engine().fir2to3(x, out, count); }
void UpsampleFIR1To2(const int16_t *x, int16_t *out, int32_t count) { active_engine().fir1to2(x, out, count); }
void UpsampleFIR1To3(const int16_t *x, int16_t *out, int32_t count) { active_engine().fir1to3(x, out, count); }
void UpsampleFIR1To4(const int16_t *x, int16_t *out, int32_t count) { active_engine().fir1to4(x, out, count); }
void UpsampleFIR1To6(const int16_t *x, int16_t *out, int32_t count) { active_engine().fir1to6(x, out, count); }

void Upsample3_2(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kUp2To3>(in, out, ctx, n); }
void Upsample2_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kUp1To2>(in, out, ctx, n); }
void Upsample3_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kUp1To3>(in, out, ctx, n); }
void Upsample4_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kUp1To4>(in, out, ctx, n); }
void Upsample6_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n) { run_stage<kUp1To6>(in, out, ctx, n); }

}  // extern "C"
