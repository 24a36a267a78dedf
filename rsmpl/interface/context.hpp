// Private layout of the caller-allocated RSMPL context.
#pragma once

#include <cstddef>
#include <cstdint>

#include <rsmpl/rsmpl.h>

struct RSMPL_Ctx {
    int16_t samples[RSMPL_HISTORY_SAMPLES];  // stage history or sinc delay line, from sample 0
    // Sinc parameters: each target takes effect at the end of the next block.
    int32_t targetHalfLength;
    int32_t halfLength;
    uint32_t targetGain;       // Q24
    uint32_t gain;             // Q24
    uint32_t targetStep;       // Q24, input samples per output
    uint32_t step;             // Q24
    uint32_t targetTableStep;  // Q16, table entries per input sample
    uint32_t tableStep;        // Q16
    uint32_t position;         // Q16, read position of the next output
    float ratio;               // output rate / input rate
};

static_assert(sizeof(RSMPL_Ctx) == RSMPL_CONTEXT_SIZE);
static_assert(offsetof(RSMPL_Ctx, targetHalfLength) == 2 * RSMPL_HISTORY_SAMPLES);
static_assert(offsetof(RSMPL_Ctx, halfLength) == 3300);
static_assert(offsetof(RSMPL_Ctx, position) == 3328);
static_assert(offsetof(RSMPL_Ctx, ratio) == 3332);
