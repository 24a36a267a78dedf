/*
 * RSMPL resampler: per-channel contexts, fixed-ratio polyphase FIR stages and
 * an arbitrary-ratio sinc interpolator for mono signed 16-bit (Q15) audio.
 *
 * Usable from C and C++. All functions have C linkage. The RSMPL_* functions
 * check their arguments and return a status code; the stage wrappers, kernels
 * and RSMPL* sinc functions behind them check nothing.
 *
 * Context layout (caller-allocated, RSMPL_CONTEXT_SIZE bytes, opaque):
 *
 *   byte 0                                   3296                      3336
 *   +----------------------------------------+--------------------------+
 *   | history region: 1648 x int16           | sinc parameters: 10 x 32 |
 *   | fixed-ratio stage history (<= 90) or   | targetHalfLength,        |
 *   | the sinc delay line, from sample 0     | halfLength, ..., ratio   |
 *   +----------------------------------------+--------------------------+
 *
 * One context serves one fixed-ratio stage, or the sinc interpolator, at a
 * time; call RSMPL_Reset before switching. Contexts are independent: different
 * contexts may be used from different threads at once.
 */
#ifndef RSMPL_H
#define RSMPL_H

#include <stdint.h>

#ifndef RSMPL_API
#define RSMPL_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define RSMPL_CONTEXT_SIZE 3336
#define RSMPL_HISTORY_SAMPLES 1648
#define RSMPL_MAX_BLOCK 1440

/* Status codes. A call that returns anything but RSMPL_OK changed nothing. */
#define RSMPL_OK 0u
#define RSMPL_ERR_NULL_CONTEXT 1u
#define RSMPL_ERR_NULL_POINTER 2u
#define RSMPL_ERR_BAD_INDEX 3u /* stage index above 4, or ratio outside 0.125..8 */
#define RSMPL_ERR_BAD_LENGTH 4u
#define RSMPL_ERR_BAD_DELAY 6u

/* Stage indices. RSMPL_Up: 0 = 3:2, 1 = x2, 2 = x3, 3 = x4, 4 = x6.
 * RSMPL_Down: 0 = 2:3, 1 = /2, 2 = /3, 3 = /4, 4 = /6. */
#define RSMPL_STAGE_3_2 0u
#define RSMPL_STAGE_2 1u
#define RSMPL_STAGE_3 2u
#define RSMPL_STAGE_4 3u
#define RSMPL_STAGE_6 4u

typedef struct RSMPL_Ctx RSMPL_Ctx;

/* ---- Interface ----------------------------------------------------------- */

/* Always RSMPL_CONTEXT_SIZE. */
RSMPL_API uint32_t RSMPL_GetContextSize(void);
/* Clears the context: zero history, ratio 1.0, half-length 13, position 0. */
RSMPL_API uint32_t RSMPL_InitContext(RSMPL_Ctx *ctx);
/* Returns a used context to the state after RSMPL_InitContext. */
RSMPL_API uint32_t RSMPL_Reset(RSMPL_Ctx *ctx);

/*
 * Fixed-ratio up-conversion of n input samples (in and out may be the same
 * buffer; otherwise they must not overlap). Accepted n per index:
 *   0 (3:2): 6..960, output 3*floor(n/2); scratch floor(n/2) + n
 *   1 (x2) : 4..720      2 (x3): 6..480      3 (x4): 4..360     4 (x6): 6..240
 * At most 1440 output samples per call.
 */
RSMPL_API uint32_t RSMPL_Up(RSMPL_Ctx *ctx, const int16_t *in, int16_t *out, int32_t n, uint32_t index);
/*
 * Fixed-ratio down-conversion (in place allowed). Accepted n, no upper bound:
 *   0 (2:3): >= 18, multiple of 6, output 2n/3
 *   1 (/2) : >= 8, multiple of 4    2 (/3): >= 18, multiple of 6
 *   3 (/4) : >= 16, multiple of 4   4 (/6): >= 36, multiple of 6
 */
RSMPL_API uint32_t RSMPL_Down(RSMPL_Ctx *ctx, const int16_t *in, int16_t *out, int32_t n, uint32_t index);

/* Sinc interpolation of n (1..1440) samples; *out_count receives the outputs written. */
RSMPL_API uint32_t RSMPL_Resample(RSMPL_Ctx *ctx, const int16_t *in, int16_t *out, int32_t n, uint32_t *out_count);
/* ratio = output rate / input rate, 0.125..8.0 inclusive. Pointers optional. */
RSMPL_API uint32_t RSMPL_SetResampleRatio(RSMPL_Ctx *ctx, uint32_t *minInput, uint32_t *maxInput,
                                          uint32_t *extraOutput, float ratio);
/* Restarts the interpolator with a delay of 0..1 input samples. */
RSMPL_API uint32_t RSMPL_SetFracDelay(RSMPL_Ctx *ctx, uint32_t *minInput, uint32_t *maxInput, float delay);
/* Input samples needed for the next block to yield n_out outputs. */
RSMPL_API uint32_t RSMPL_GetNumInSamples(RSMPL_Ctx *ctx, int32_t n_out, int32_t *n_in);
/* Filter half-length, in input samples, of the next block. */
RSMPL_API uint32_t RSMPL_GetResampleDelay(RSMPL_Ctx *ctx, uint32_t *delay);

/* Coefficient hooks: the tables are constant data, so these do nothing. */
RSMPL_API void InitRsmplCoeff_2_1(void);
RSMPL_API void InitRsmplCoeff_3_2(void);
RSMPL_API void InitRsmplCoeff_3_1(void);
RSMPL_API void InitRsmplCoeff_4_1(void);
RSMPL_API void InitRsmplCoeff_6_1(void);

/* ---- Up-stages: wrappers keep history in the context, kernels are stateless.
 * Wrapper: n inputs -> L*n outputs (3*floor(n/2) for 3:2); out is also scratch.
 * Kernel: x = H history samples then count new ones; rounding
 * clamp((S + 2^14) >> 15) with the exact sum S. */
RSMPL_API void Upsample3_2(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n);
RSMPL_API void Upsample2_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n);
RSMPL_API void Upsample3_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n);
RSMPL_API void Upsample4_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n);
RSMPL_API void Upsample6_1(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n);
RSMPL_API void UpsampleFIR2To3(const int16_t *x, int16_t *out, int32_t count);
RSMPL_API void UpsampleFIR1To2(const int16_t *x, int16_t *out, int32_t count);
RSMPL_API void UpsampleFIR1To3(const int16_t *x, int16_t *out, int32_t count);
RSMPL_API void UpsampleFIR1To4(const int16_t *x, int16_t *out, int32_t count);
RSMPL_API void UpsampleFIR1To6(const int16_t *x, int16_t *out, int32_t count);

/* ---- Down-stages: n inputs -> floor(n/M) outputs (2*floor(n/3) for 2:3).
 * Wrapper: keeps the last H inputs at the start of the context's history
 * (H = 14 for 2:3, 70 for /2, 45 for /3, 60 for /4, 90 for /6); in and out
 * may be the same buffer. Kernel: x = H history samples then count new ones;
 * output clamp((S + 2^(s-1)) >> s) with the exact sum S, s = 15 for 2:3,
 * 16 for /2 and /3, 17 for /4 and /6; out may equal x or lie below it. */
RSMPL_API void Downsample2_3(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n);
RSMPL_API void Downsample1_2(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n);
RSMPL_API void Downsample1_3(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n);
RSMPL_API void Downsample1_4(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n);
RSMPL_API void Downsample1_6(const int16_t *in, int16_t *out, RSMPL_Ctx *ctx, int32_t n);
RSMPL_API void DownsampleFIR3To2(const int16_t *x, int16_t *out, int32_t count);
RSMPL_API void DownsampleFIR2To1(const int16_t *x, int16_t *out, int32_t count);
RSMPL_API void DownsampleFIR3To1(const int16_t *x, int16_t *out, int32_t count);
RSMPL_API void DownsampleFIR4To1(const int16_t *x, int16_t *out, int32_t count);
RSMPL_API void DownsampleFIR6To1(const int16_t *x, int16_t *out, int32_t count);

/* ---- Sinc interpolator (no argument checks; see RSMPL_* above).
 *
 * Kaiser-windowed sinc (beta 10, cut-off 0.88 of the lower Nyquist frequency),
 * 2H+1 taps per output: H = 13 for ratios >= 1, trunc(13 / ratio) below.
 * Steps and gains are Q24, positions Q16. At ratio 1 and position 0 output n
 * is centred on input n - 14.
 *
 * RSMPLSetResampleRatio only sets targets: the next block still runs at the
 * ratio, step and half-length in use, and the new values take effect after
 * it. RSMPLSetFracDelay restarts with ratio 1 and a start position of delay
 * input samples (Q16). RSMPLGetNumInSamples gives the count that makes the
 * next block yield exactly `outputs` samples at ratios <= 1 (at most that
 * many above 1).
 *
 * RSMPLSincInterpolate(ctx, in, out, count): 1 <= count <= 1440 and
 * count > targetHalfLength - halfLength. Output room: the block consumes
 * L = count - (targetHalfLength - halfLength) input positions at the ratio r
 * IN USE (not one set since the last block), so out must hold
 * floor(L * r) + 2 samples; 1440 * 8 + 2 always suffices. Example: after
 * ratio 8 then 0.125, a 200-sample block yields 872 outputs. At least one
 * output is always written.
 *
 * History safety (the delay line is the context's 1648-sample region):
 *  - a block is filtered in two pieces when 2H + 1 + count exceeds 1648 (at
 *    H = 104 with count = 1440), the first at the half-length in use; at
 *    ratio 1/8 (the only admissible ratio with H = 104) the step is a whole
 *    number of position units, so the result equals one piece exactly;
 *  - samples the block has not received read as zero: the right wing of the
 *    last outputs when the half-length shrinks, and an output whose position
 *    lies beyond a block shorter than one step;
 *  - when the half-length grows by more than the block fills, the oldest
 *    samples of the new history are zero;
 *  - the carried position is capped at 1648 input samples, so a run of
 *    blocks shorter than one step cannot make it wrap.
 * Nothing outside the history region and the ten parameters is touched. */
RSMPL_API void RSMPLSincLPFInit(void);
RSMPL_API void RSMPLSincReset(RSMPL_Ctx *ctx);
RSMPL_API void RSMPLSetResampleRatio(RSMPL_Ctx *ctx, uint32_t *minInput, uint32_t *maxInput,
                                     uint32_t *extraOutput, float ratio);
RSMPL_API void RSMPLSetFracDelay(RSMPL_Ctx *ctx, uint32_t *minInput, uint32_t *maxInput, float delay);
RSMPL_API int32_t RSMPLGetNumInSamples(RSMPL_Ctx *ctx, uint16_t outputs);
RSMPL_API uint32_t RSMPLSincInterpolate(RSMPL_Ctx *ctx, const int16_t *in, int16_t *out, uint32_t count);

#ifdef __cplusplus
}
#endif

#endif /* RSMPL_H */
