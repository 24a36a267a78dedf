/* An arbitrary ratio with RSMPL_Resample: exactly 48000 samples out of
 * 44100 in (one second at 44.1 kHz to 48 kHz), with the interpolator's delay
 * removed, so that input sample k lands at output k * 48000 / 44100. */
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <rsmpl/rsmpl.h>

#define IN_RATE 44100
#define OUT_RATE 48000
#define BLOCK 441   /* any length 1..1440 will do */
#define CLICK 22050 /* lands at output 24000 */

static int16_t input(long k) { return k == CLICK ? 30000 : 0; }

int main(void) {
    RSMPL_Ctx *ctx = malloc(RSMPL_GetContextSize());
    if (ctx == NULL || RSMPL_InitContext(ctx) != RSMPL_OK) return 1;
    const float ratio = (float)OUT_RATE / IN_RATE;

    /* 1. A new ratio takes effect after the next block, so the stream starts
     *    with a primer: minInput zeros, which consume one input position and
     *    yield one output, dropped. From here on every block runs at `ratio`. */
    uint32_t min_input = 0, got = 0;
    static const int16_t zeros[RSMPL_MAX_BLOCK];
    int16_t primer_out[RSMPL_MAX_BLOCK * 8 + 2];
    if (RSMPL_SetResampleRatio(ctx, &min_input, NULL, NULL, ratio) != RSMPL_OK ||
        RSMPL_Resample(ctx, zeros, primer_out, (int32_t)min_input, &got) != RSMPL_OK)
        return 1;

    /* 2. The delay: output n is centred on input (n / ratio) - (H + 1), H the
     *    half-length RSMPL_GetResampleDelay reports. Drop that many outputs. */
    uint32_t half_length = 0;
    RSMPL_GetResampleDelay(ctx, &half_length);
    const long drop = lrint((half_length + 1) * ratio);

    /* 3. Feed the input, then zeros until the wanted length is reached.
     *    A block of n inputs yields at most floor(n * ratio) + 2 outputs. */
    const long wanted = lrint((double)IN_RATE * OUT_RATE / IN_RATE);
    int16_t *out = malloc(sizeof(int16_t) * (size_t)(wanted + drop + BLOCK * 8 + 2));
    int16_t in[BLOCK];
    long produced = 0, fed = 0;
    while (produced < drop + wanted) {
        for (int i = 0; i < BLOCK; ++i) in[i] = fed + i < IN_RATE ? input(fed + i) : 0;
        if (RSMPL_Resample(ctx, in, out + produced, BLOCK, &got) != RSMPL_OK) return 1;
        produced += got;
        fed += BLOCK;
    }
    const int16_t *result = out + drop; /* `wanted` samples */

    double moment = 0, weight = 0;
    for (long i = 0; i < wanted; ++i) moment += (double)result[i] * (double)i, weight += result[i];
    printf("%d samples in, %ld samples out\n", IN_RATE, wanted);
    printf("delay %u + 1 input samples, %ld outputs dropped\n", half_length, drop);
    printf("impulse at input %d, centre at output %.2f (exact: %.2f)\n", CLICK, moment / weight,
           (double)CLICK * OUT_RATE / IN_RATE);
    free(out);
    free(ctx);
    return 0;
}
