// The RSMPL interface: argument and block-length checks in front of the
// fixed-ratio stages and the sinc interpolator. Every check happens before
// anything is written, so a rejected call leaves context and buffers as they were.
#include <pthread.h>

#include <cstdint>

#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include <rsmpl/rsmpl_util.h>

namespace {

using Stage = void (*)(const int16_t *, int16_t *, RSMPL_Ctx *, int32_t);

// Accepted input lengths of one stage: lo <= n, n * mul <= max_out, n a multiple of `multiple`.
struct LengthRule {
    int32_t lo;
    int64_t max_out;  // bound on n * mul; INT64_MAX for none
    int32_t mul;
    int32_t multiple;

    bool accepts(int32_t n) const {
        return n >= lo && int64_t{n} * mul <= max_out && n % multiple == 0;
    }
};

struct StageEntry {
    Stage run;
    LengthRule rule;
};

constexpr int64_t kNoBound = INT64_MAX;

// Indexed by stage index: 3:2, x2, x3, x4, x6.
constexpr StageEntry kUp[] = {
    {Upsample3_2, {6, 2880, 3, 1}},
    {Upsample2_1, {4, 720, 1, 1}},
    {Upsample3_1, {6, 1440, 3, 1}},
    {Upsample4_1, {4, 360, 1, 1}},
    {Upsample6_1, {6, 1440, 6, 1}},
};

// Indexed by stage index: 2:3, /2, /3, /4, /6. No upper bound on n.
constexpr StageEntry kDown[] = {
    {Downsample2_3, {18, kNoBound, 1, 6}},
    {Downsample1_2, {8, kNoBound, 1, 4}},
    {Downsample1_3, {18, kNoBound, 1, 6}},
    {Downsample1_4, {16, kNoBound, 1, 4}},
    {Downsample1_6, {36, kNoBound, 1, 6}},
};

uint32_t run_stage(const StageEntry (&table)[5], RSMPL_Ctx *ctx, const int16_t *in, int16_t *out, int32_t n,
                   uint32_t index) {
    if (ctx == nullptr) return RSMPL_ERR_NULL_CONTEXT;
    if (in == nullptr || out == nullptr) return RSMPL_ERR_NULL_POINTER;
    if (index > 4) return RSMPL_ERR_BAD_INDEX;
    const StageEntry &stage = table[index];
    if (!stage.rule.accepts(n)) return RSMPL_ERR_BAD_LENGTH;
    stage.run(in, out, ctx, n);
    return RSMPL_OK;
}

// The hooks have no work today. pthread_once runs them once, and concurrent
// first callers wait for it, should they ever get some (a guarded static
// would make librsmpl's C users load libstdc++).
pthread_once_t g_coefficients_once = PTHREAD_ONCE_INIT;

void init_coefficients() {
    InitRsmplCoeff_2_1();
    InitRsmplCoeff_3_2();
    InitRsmplCoeff_3_1();
    InitRsmplCoeff_4_1();
    InitRsmplCoeff_6_1();
    RSMPLSincLPFInit();
}

void init_coefficients_once() { pthread_once(&g_coefficients_once, init_coefficients); }

}  // namespace

extern "C" {

void InitRsmplCoeff_2_1(void) {}
void InitRsmplCoeff_3_2(void) {}
void InitRsmplCoeff_3_1(void) {}
void InitRsmplCoeff_4_1(void) {}
void InitRsmplCoeff_6_1(void) {}

uint32_t RSMPL_GetContextSize(void) { return sizeof(RSMPL_Ctx); }

uint32_t RSMPL_InitContext(RSMPL_Ctx *ctx) {
    if (ctx == nullptr) return RSMPL_ERR_NULL_CONTEXT;
    UTIL_Memset(ctx, 0, sizeof(RSMPL_Ctx));
    init_coefficients_once();
    RSMPLSincReset(ctx);
    return RSMPL_OK;
}

uint32_t RSMPL_Reset(RSMPL_Ctx *ctx) {
    if (ctx == nullptr) return RSMPL_ERR_NULL_CONTEXT;
    RSMPLSincReset(ctx);
    return RSMPL_OK;
}

uint32_t RSMPL_Up(RSMPL_Ctx *ctx, const int16_t *in, int16_t *out, int32_t n, uint32_t index) {
    return run_stage(kUp, ctx, in, out, n, index);
}

uint32_t RSMPL_Down(RSMPL_Ctx *ctx, const int16_t *in, int16_t *out, int32_t n, uint32_t index) {
    return run_stage(kDown, ctx, in, out, n, index);
}

uint32_t RSMPL_Resample(RSMPL_Ctx *ctx, const int16_t *in, int16_t *out, int32_t n, uint32_t *out_count) {
    if (ctx == nullptr) return RSMPL_ERR_NULL_CONTEXT;
    if (in == nullptr || out == nullptr || out_count == nullptr) return RSMPL_ERR_NULL_POINTER;
    if (n < 1 || n > RSMPL_MAX_BLOCK) return RSMPL_ERR_BAD_LENGTH;
    // A growing half-length needs more new samples than the growth.
    if (int64_t{ctx->targetHalfLength} - ctx->halfLength >= n) return RSMPL_ERR_BAD_LENGTH;
    *out_count = RSMPLSincInterpolate(ctx, in, out, static_cast<uint32_t>(n));
    return RSMPL_OK;
}

uint32_t RSMPL_SetResampleRatio(RSMPL_Ctx *ctx, uint32_t *minInput, uint32_t *maxInput, uint32_t *extraOutput,
                                float ratio) {
    if (ctx == nullptr) return RSMPL_ERR_NULL_CONTEXT;
    if (!(ratio >= 0.125f && ratio <= 8.0f)) return RSMPL_ERR_BAD_INDEX;  // NaN too
    RSMPLSetResampleRatio(ctx, minInput, maxInput, extraOutput, ratio);
    return RSMPL_OK;
}

uint32_t RSMPL_SetFracDelay(RSMPL_Ctx *ctx, uint32_t *minInput, uint32_t *maxInput, float delay) {
    if (ctx == nullptr) return RSMPL_ERR_NULL_CONTEXT;
    if (!(delay >= 0.0f && delay <= 1.0f)) return RSMPL_ERR_BAD_DELAY;  // NaN too
    if (minInput == nullptr || maxInput == nullptr) return RSMPL_ERR_NULL_POINTER;
    RSMPLSetFracDelay(ctx, minInput, maxInput, delay);
    return RSMPL_OK;
}

uint32_t RSMPL_GetNumInSamples(RSMPL_Ctx *ctx, int32_t n_out, int32_t *n_in) {
    if (ctx == nullptr) return RSMPL_ERR_NULL_CONTEXT;
    if (n_out < 1) return RSMPL_ERR_BAD_LENGTH;
    // The ratio only ever holds 0.125..8 here, so the bound is 180..11520.
    const float bound = ctx->ratio * 1440.0f;
    if (!(bound >= 1.0f) || n_out > static_cast<int32_t>(bound < 11520.0f ? bound : 11520.0f))
        return RSMPL_ERR_BAD_LENGTH;
    if (n_in == nullptr) return RSMPL_ERR_NULL_POINTER;
    *n_in = RSMPLGetNumInSamples(ctx, static_cast<uint16_t>(n_out));
    return RSMPL_OK;
}

uint32_t RSMPL_GetResampleDelay(RSMPL_Ctx *ctx, uint32_t *delay) {
    if (ctx == nullptr) return RSMPL_ERR_NULL_CONTEXT;
    if (delay == nullptr) return RSMPL_ERR_NULL_POINTER;
    *delay = static_cast<uint32_t>(ctx->targetHalfLength);
    return RSMPL_OK;
}

}  // extern "C"
