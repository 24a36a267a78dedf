/* Upsampling a stream by 3 in blocks: one second of a 1 kHz tone at 16 kHz,
 * 6 dB below full scale, becomes 48000 samples at 48 kHz. */
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <rsmpl/rsmpl.h>
#include <rsmpl/rsmpl_util.h>

#define IN_RATE 16000
#define BLOCK 160 /* 10 ms; RSMPL_Up with stage x3 takes 6..480 samples */

int main(void) {
    /* The context needs 4-byte alignment; 16 costs nothing. */
    void *raw = NULL;
    RSMPL_Ctx *ctx = UTIL_MemAllocNByteAligned(RSMPL_GetContextSize(), 16, &raw);
    if (ctx == NULL || RSMPL_InitContext(ctx) != RSMPL_OK) return 1;

    /* -6 dB as a Q22 scale factor (0x400000 = 1.0). */
    const int32_t scale = UTIL_dBToScale(-6 * 32768);
    int16_t in[BLOCK], out[3 * BLOCK];
    long total = 0;
    int peak = 0;
    for (int start = 0; start < IN_RATE; start += BLOCK) {
        for (int i = 0; i < BLOCK; ++i) {
            const int32_t x = (int32_t)lrint(32767 * sin(2 * M_PI * 1000 * (start + i) / IN_RATE));
            in[i] = (int16_t)(((int64_t)x * scale + (1 << 21)) >> 22);
        }
        const uint32_t status = RSMPL_Up(ctx, in, out, BLOCK, RSMPL_STAGE_3);
        if (status != RSMPL_OK) {
            fprintf(stderr, "RSMPL_Up: status %u\n", status);
            return 1;
        }
        /* Past the filter's start-up (24 output samples), the tone's peak. */
        for (int i = 0; i < 3 * BLOCK; ++i)
            if (total + i >= 100 && abs(out[i]) > peak) peak = abs(out[i]);
        total += 3 * BLOCK;
    }
    printf("%d samples in, %ld samples out\n", IN_RATE, total);
    printf("tone peak %.1f dBFS\n", 20 * log10(peak / 32768.0));
    free(raw);
    return 0;
}
