/* Measures the delay of every fixed-ratio stage and of the sinc
 * interpolator: an impulse goes in at input sample k, and the centre of
 * gravity of what comes out, less k times the ratio, is the delay in output
 * samples. The filters are symmetric, so this is their group delay. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <rsmpl/rsmpl.h>

#define IN_LEN 1200 /* a multiple of every block rule below */
#define K 600       /* the impulse: a multiple of 2, 3, 4 and 6 */

static double centre(const int16_t *y, size_t n) {
    double sum = 0, moment = 0;
    for (size_t i = 0; i < n; ++i) sum += y[i], moment += (double)y[i] * (double)i;
    return moment / sum;
}

static void *new_context(void) {
    void *ctx = malloc(RSMPL_GetContextSize());
    if (ctx == NULL || RSMPL_InitContext(ctx) != RSMPL_OK) exit(1);
    return ctx;
}

int main(void) {
    static const char *up_names[] = {"3:2", "2", "3", "4", "6"}, *down_names[] = {"2:3", "2", "3", "4", "6"};
    static const int up_num[] = {3, 2, 3, 4, 6}, up_den[] = {2, 1, 1, 1, 1};
    static const int up_block[] = {240, 240, 240, 240, 240};
    static const int down_block[] = {240, 240, 240, 240, 240};
    int16_t in[IN_LEN], out[6 * IN_LEN];

    memset(in, 0, sizeof(in));
    in[K] = 16384;
    printf("stage      delay (output samples)  delay (input samples)\n");
    /* Up: every input sample meets every phase of the filter. */
    for (unsigned s = 0; s < 5; ++s) {
        RSMPL_Ctx *ctx = new_context();
        size_t n_out = 0;
        for (int at = 0; at < IN_LEN; at += up_block[s]) {
            if (RSMPL_Up(ctx, in + at, out + n_out, up_block[s], s) != RSMPL_OK) return 1;
            n_out += (size_t)up_block[s] * up_num[s] / up_den[s];
        }
        const double d = centre(out, n_out) - (double)K * up_num[s] / up_den[s];
        printf("up   x%-4s %10.2f %22.2f\n", up_names[s], d, d * up_den[s] / up_num[s]);
        free(ctx);
    }
    /* Down: one impulse meets one phase only, so the responses to impulses
     * at K, K + 1, ... (one per input phase) are added up. */
    for (unsigned s = 0; s < 5; ++s) {
        static int32_t total[IN_LEN];
        static int16_t sum16[IN_LEN];
        memset(total, 0, sizeof(total));
        for (int phase = 0; phase < up_num[s]; ++phase) {
            RSMPL_Ctx *ctx = new_context();
            size_t n_out = 0;
            memset(in, 0, sizeof(in));
            in[K + phase] = 16384;
            for (int at = 0; at < IN_LEN; at += down_block[s]) {
                if (RSMPL_Down(ctx, in + at, out + n_out, down_block[s], s) != RSMPL_OK) return 1;
                n_out += (size_t)down_block[s] * up_den[s] / up_num[s];
            }
            for (size_t i = 0; i < n_out; ++i) total[i] += out[i];
            free(ctx);
        }
        const size_t n_out = (size_t)IN_LEN * up_den[s] / up_num[s];
        for (size_t i = 0; i < n_out; ++i) sum16[i] = (int16_t)(total[i] / up_num[s]);
        const double mean_k = K + (up_num[s] - 1) / 2.0;
        const double d = centre(sum16, n_out) - mean_k * up_den[s] / up_num[s];
        printf("down /%-4s %10.2f %22.2f\n", down_names[s], d, d * up_num[s] / up_den[s]);
    }

    memset(in, 0, sizeof(in));
    in[K] = 16384;
    /* The sinc interpolator: the ratio is set, a block of minInput zeros
     * (consuming one input position) makes it take effect, then the stream
     * starts; the primer's one output is dropped. */
    static const float ratios[] = {8.0f, 2.0f, 48000.0f / 44100.0f, 1.0f, 44100.0f / 48000.0f, 0.5f, 0.125f};
    printf("\nsinc ratio  delay (output samples)  delay (input samples)  RSMPL_GetResampleDelay\n");
    for (unsigned r = 0; r < sizeof(ratios) / sizeof(ratios[0]); ++r) {
        RSMPL_Ctx *ctx = new_context();
        static int16_t y[8 * IN_LEN + 2 * 8 + 64];
        static const int16_t zeros[RSMPL_MAX_BLOCK];
        uint32_t got = 0, reported = 0, min_input = 0;
        size_t n_out = 0;
        if (RSMPL_SetResampleRatio(ctx, &min_input, NULL, NULL, ratios[r]) != RSMPL_OK ||
            RSMPL_Resample(ctx, zeros, y, (int32_t)min_input, &got) != RSMPL_OK || got != 1)
            return 1;
        for (int at = 0; at < IN_LEN; at += 240) {
            if (RSMPL_Resample(ctx, in + at, y + n_out, 240, &got) != RSMPL_OK) return 1;
            n_out += got;
        }
        RSMPL_GetResampleDelay(ctx, &reported);
        const double d = centre(y, n_out) - K * (double)ratios[r];
        printf("%10.4f %12.2f %22.2f %18u\n", ratios[r], d, d / ratios[r], reported);
        free(ctx);
    }
    return 0;
}
