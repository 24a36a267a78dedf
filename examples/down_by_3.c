/* Downsampling by 3 in blocks, in place: one second of 48 kHz audio with a
 * 1 kHz tone and an impulse becomes 16000 samples at 16 kHz. The stage
 * delays by 21.5 input samples (about 7.17 output samples). */
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <rsmpl/rsmpl.h>

#define IN_RATE 48000
#define BLOCK 480  /* RSMPL_Down with stage /3: a multiple of 6, at least 18 */
#define CLICK 9000 /* input sample of the impulse: output 3000 + the delay */

int main(void) {
    RSMPL_Ctx *tone_ctx = malloc(RSMPL_GetContextSize());
    RSMPL_Ctx *click_ctx = malloc(RSMPL_GetContextSize());
    if (tone_ctx == NULL || click_ctx == NULL || RSMPL_InitContext(tone_ctx) != RSMPL_OK ||
        RSMPL_InitContext(click_ctx) != RSMPL_OK)
        return 1;
    int16_t tone[BLOCK], click[BLOCK];
    double moment = 0, weight = 0;
    long total = 0;
    int peak = 0;
    for (int start = 0; start < IN_RATE; start += BLOCK) {
        for (int i = 0; i < BLOCK; ++i) {
            tone[i] = (int16_t)lrint(16384 * sin(2 * M_PI * 1000 * (start + i) / IN_RATE));
            click[i] = start + i == CLICK ? 30000 : 0;
        }
        /* The same buffer in and out: a down-stage may work in place. */
        if (RSMPL_Down(tone_ctx, tone, tone, BLOCK, RSMPL_STAGE_3) != RSMPL_OK ||
            RSMPL_Down(click_ctx, click, click, BLOCK, RSMPL_STAGE_3) != RSMPL_OK)
            return 1;
        for (int i = 0; i < BLOCK / 3; ++i) {
            if (total + i >= 100 && abs(tone[i]) > peak) peak = abs(tone[i]);
            moment += (double)click[i] * (double)(total + i);
            weight += click[i];
        }
        total += BLOCK / 3;
    }
    printf("%d samples in, %ld samples out\n", IN_RATE, total);
    printf("tone peak %.1f dBFS\n", 20 * log10(peak / 32768.0));
    printf("impulse at input %d, centre at output %.2f\n", CLICK, moment / weight);
    free(tone_ctx);
    free(click_ctx);
    return 0;
}
