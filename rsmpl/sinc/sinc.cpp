// Arbitrary-ratio sinc interpolator: band-limited interpolation with a
// tabulated Kaiser-windowed sinc, ratio changes between blocks and a
// fractional start delay. State lives in the caller's RSMPL context.
//
// Fixed-point budget of one output:
//   coefficient  Q31, interpolated from the wing in 64 bits
//   tap          (c * (x >> s)) >> 16: Q30, |tap| < 2^30
//   accumulator  32 bits with wrap-around (A). With the headroom shift s
//                the sum of |taps| of a phase stays below 2^31 at ratios 1
//                and above and at 1/2, 1/4, 1/8, but not at every ratio
//                between 0.2 and 0.883 (worst just above 1/2: 1.73 x 2^31):
//                there a full-scale input aligned with the taps' signs
//                wraps, as the 32-bit accumulator dictates.
//   output       a = A >> 16 (Q14), y = round(a * G) in Q15, y << s, sat16
//
// Safety of the history region (1648 samples), whatever the ratios and block
// lengths:
//   - a block never holds more than 1648 samples: when 2H + 1 + count would
//     exceed it (only at H = 104 with count = 1440), the block is filtered in
//     two pieces, the first at the half-length in use;
//   - taps on samples the block has not received (the right wing of the last
//     outputs when the half-length shrinks, or a start position beyond the
//     block) read zero; they are never fetched;
//   - when the half-length grows by more than the block can fill, the oldest
//     history samples are zero;
//   - `position` is capped at kSincMaxPosition, so repeated blocks shorter
//     than one step cannot make positions wrap.
#include <cstring>

#include <pthread.h>

#include "rsmpl/engine/engine.hpp"
#include "rsmpl/interface/context.hpp"
#include <rsmpl/rsmpl.h>
#include <rsmpl/rsmpl_util.h>
#include "rsmpl/sinc/sinc_kernel.hpp"
#include "rsmpl/sinc/sinc_slots.hpp"
#include "util/fixed.hpp"

namespace rsmpl {

#include "rsmpl/sinc/sinc_tables.inc"

uint32_t sinc_accumulate_scalar(const int16_t *x, int32_t c, int32_t leftFirst, int32_t leftLast,
                                int32_t rightLast, uint32_t t0, uint32_t tableStep, int shift) {
    uint32_t acc = 0;
    for (int32_t k = leftFirst; k <= leftLast; ++k) {
        const int32_t coef = sinc_coefficient(t0 + static_cast<uint32_t>(k) * tableStep);
        acc += static_cast<uint32_t>((int64_t{coef} * (x[c - k] >> shift)) >> 16);
    }
    for (int32_t k = 1; k <= rightLast; ++k) {
        const int32_t coef = sinc_coefficient(static_cast<uint32_t>(k) * tableStep - t0);
        acc += static_cast<uint32_t>((int64_t{coef} * (x[c + k] >> shift)) >> 16);
    }
    return acc;
}

void sinc_run_scalar(const SincRun &r, int16_t *out) {
    const int64_t last = r.valid - 1;
    for (uint32_t i = 0; i < r.count; ++i) {
        const uint32_t p = r.p0 + sinc_advance(r.step, i);
        const uint32_t f = p & 0xFFFFu;
        const uint32_t t0 = static_cast<uint32_t>((uint64_t{f + (f >> 15)} * r.tableStep) >> 16);
        // Centre index; positions are capped well below 2^31 / 65536.
        const int64_t centre = int64_t{p >> 16} + r.h;
        const int64_t leftFirst = centre > last ? centre - last : 0;
        const int64_t rightLast = last - centre < r.h ? last - centre : r.h;
        uint32_t acc = 0;
        if (leftFirst <= r.h)
            acc = sinc_accumulate_scalar(r.x, static_cast<int32_t>(centre), static_cast<int32_t>(leftFirst), r.h,
                                         static_cast<int32_t>(rightLast), t0, r.tableStep, r.shift);
        out[i] = sinc_finish(acc, r.gain, r.shift);
    }
}

namespace {

// Filled in place, once, under pthread_once rather than as a guarded static:
// librsmpl must not need libstdc++, and 81 KB never sit on a stack.
SincRows g_rows;
pthread_once_t g_rows_once = PTHREAD_ONCE_INIT;

void fill_rows() {
    SincRows &t = g_rows;
    for (int32_t &v : t.wingPadded) v = 0;
    for (int j = 0; j < kSincWingLength; ++j) t.wingPadded[SincRows::kPaddedZero + j] = sincWing[j];
    for (int p = 0; p <= 128; ++p)
        for (int m = 0; m < 16; ++m) {
            const int j = p + 128 * m;
            const int32_t w = j < kSincWingLength ? sincWing[j] : 0;
            const int32_t d = j < kSincWingLength ? sincWingDelta[j] : 0;
            const int at = 16 * p + m, rev = 16 * p + 15 - m;
            t.wing[at] = t.wingRev[rev] = w;
            t.delta[at] = t.deltaRev[rev] = d;
            const uint32_t high = static_cast<uint32_t>(d) >> 16;
            t.deltaHigh[at] = t.deltaHighRev[rev] = high | high << 16;
            t.deltaLow[at] = t.deltaLowRev[rev] = static_cast<uint32_t>(d) & 0xFFFFu;
        }
}

}  // namespace

const SincRows &sinc_rows() {
    pthread_once(&g_rows_once, fill_rows);
    return g_rows;
}

// Zero until claimed: in .bss, so only the entries in use take memory.
constinit sinc::SlotEntry sinc::slotCache[sinc::kSlotEntries]{};

}  // namespace rsmpl

namespace {

using rsmpl::kSincBaseHalfLength;

constexpr uint32_t kUnityQ24 = 0x01000000u;
constexpr uint32_t kTableStepUnity = 0x800000u;  // 128 entries per sample, Q16
constexpr int32_t kHistory = RSMPL_HISTORY_SAMPLES;

void reset_params(RSMPL_Ctx &c) {
    c.targetHalfLength = kSincBaseHalfLength;
    c.halfLength = kSincBaseHalfLength;
    c.targetGain = kUnityQ24;
    c.gain = kUnityQ24;
    c.targetStep = kUnityQ24;
    c.step = kUnityQ24;
    c.targetTableStep = kTableStepUnity;
    c.tableStep = kTableStepUnity;
    c.position = 0;
    c.ratio = 1.0f;
}

// Filters `count` samples appended to the history of H = halfLength samples
// each side, at the parameters in use, and re-cuts the history to
// `nextHalfLength`. The caller ensures 2H + 1 + count <= 1648 and
// count > nextHalfLength - H. With `forceFirst` the first output is produced
// even when the position lies beyond the block. Returns the outputs written.
uint32_t filter_block(RSMPL_Ctx &c, const int16_t *in, int16_t *out, uint32_t count, int32_t nextHalfLength,
                      bool forceFirst) {
    const int32_t h = c.halfLength;
    const uint32_t step = c.step;
    const uint32_t tableStep = c.tableStep;
    const uint32_t gain = c.gain;
    const uint32_t p0 = c.position;
    const int shift = rsmpl::headroomShift[step >> 24];
    int16_t *x = c.samples;

    UTIL_Memcpy(x + 2 * h + 1, in, count * sizeof(int16_t));
    const int32_t valid = 2 * h + 1 + static_cast<int32_t>(count);  // x[0 .. valid-1] hold data
    // Positions consumed, shifted by the change of half-length so the centre
    // sample of a given position stays the same input sample.
    const int32_t consumed = static_cast<int32_t>(count) - (nextHalfLength - h);
    const uint32_t limit = static_cast<uint32_t>(consumed);

    // Outputs while the centre stays inside the block: the smallest k >= 1
    // whose position p0 + advance(k) reaches the limit (positions rise with
    // k), found from an estimate and walked to exactly; the kernels then
    // write them all in one run. Every position counts from the block
    // start, so rounding never accumulates.
    const auto reached = [&](uint32_t n) { return ((p0 + rsmpl::sinc_advance(step, n)) >> 16) >= limit; };
    uint32_t k = 0;
    if (forceFirst || (p0 >> 16) < limit) {
        const uint64_t need = (p0 >> 16) < limit ? (uint64_t{limit} << 16) - p0 : 0;
        const uint64_t guess = need * 256 / step;
        k = guess < 1 ? 1 : (guess > 0xFFFF ? 0xFFFF : static_cast<uint32_t>(guess));
        while (k > 1 && reached(k - 1)) --k;
        while (!reached(k)) ++k;
    }
    const uint32_t p = p0 + rsmpl::sinc_advance(step, k);
    const rsmpl::SincRun run{x, valid, h, p0, step, tableStep, gain, shift, k};
    rsmpl::kernels().sinc(run, out);
    const uint32_t rest = p - (limit << 16);
    c.position = rest < rsmpl::kSincMaxPosition ? rest : rsmpl::kSincMaxPosition;

    // Keep the newest 2H'+1 samples; when the block is too short to fill a
    // grown history, the samples older than anything held are zero.
    const int32_t keep = 2 * nextHalfLength + 1;
    const int32_t from = valid - keep;
    if (from >= 0) {
        UTIL_Memmove(x, x + from, static_cast<uint32_t>(keep) * sizeof(int16_t));
    } else {
        UTIL_Memmove(x - from, x, static_cast<uint32_t>(valid) * sizeof(int16_t));
        UTIL_Memset(x, 0, static_cast<uint32_t>(-from) * sizeof(int16_t));
    }
    c.halfLength = nextHalfLength;
    return k;
}

}  // namespace

extern "C" {

void RSMPLSincLPFInit(void) {}

void RSMPLSincReset(RSMPL_Ctx *ctx) {
    UTIL_Memset(ctx->samples, 0, sizeof ctx->samples);
    reset_params(*ctx);
}

void RSMPLSetResampleRatio(RSMPL_Ctx *ctx, uint32_t *minInput, uint32_t *maxInput, uint32_t *extraOutput,
                           float ratio) {
    ctx->ratio = ratio;
    const float inv = 1.0f / ratio;
    ctx->targetStep = ToUFix(24, inv);
    const float entries = ratio * 128.0f;
    ctx->targetTableStep = ToUFix(16, entries < 128.0f ? entries : 128.0f);
    ctx->targetGain = ToUFix(24, ratio < 1.0f ? ratio : 1.0f);
    ctx->targetHalfLength = ratio < 1.0f ? static_cast<int32_t>(inv * 13.0f) : kSincBaseHalfLength;
    const int32_t d = ctx->targetHalfLength - ctx->halfLength;
    if (maxInput != nullptr) *maxInput = rsmpl::kSincMaxBlock;
    if (minInput != nullptr) *minInput = d + 1 > 1 ? static_cast<uint32_t>(d + 1) : 1u;
    if (extraOutput != nullptr) {
        uint32_t extra = 1;
        if (d < 0) {
            // Product rounded to float on its own, then + 0.5 in float: no fused form.
            const float scaled = static_cast<float>(static_cast<double>(-d) * static_cast<double>(ratio));
            extra = static_cast<uint32_t>(static_cast<int32_t>(scaled + 0.5f)) + 1;
        }
        *extraOutput = extra;
    }
}

void RSMPLSetFracDelay(RSMPL_Ctx *ctx, uint32_t *minInput, uint32_t *maxInput, float delay) {
    RSMPLSincReset(ctx);
    ctx->position = ToUFix(16, delay);
    *maxInput = rsmpl::kSincMaxBlock;
    *minInput = 1;
}

int32_t RSMPLGetNumInSamples(RSMPL_Ctx *ctx, uint16_t outputs) {
    // The kernel's advance, in 64 bits: right after a ratio change the count
    // accepted follows the new ratio while the step is still the old one, and
    // up to 65535 outputs at 8 inputs each would wrap a 32-bit position. Where
    // nothing wraps this is the kernel's value exactly.
    const uint64_t m = outputs;
    const uint64_t advance = ((uint64_t{ctx->step} >> 16) << 8) * m + (((ctx->step & 0xFFFFu) * m + 128u) >> 8);
    const uint64_t end = ctx->position + advance;
    return (ctx->targetHalfLength - ctx->halfLength) + static_cast<int32_t>(end >> 16);
}

uint32_t RSMPLSincInterpolate(RSMPL_Ctx *ctx, const int16_t *in, int16_t *out, uint32_t count) {
    RSMPL_Ctx &c = *ctx;
    uint32_t produced = 0;
    bool first = true;
    // A block that does not fit next to the history is filtered in pieces at
    // the half-length in use; only the last piece changes it.
    for (;;) {
        const uint32_t room = static_cast<uint32_t>(kHistory - (2 * c.halfLength + 1));
        if (count <= room) break;
        produced += filter_block(c, in, out + produced, room, c.halfLength, first);
        in += room;
        count -= room;
        first = false;
    }
    produced += filter_block(c, in, out + produced, count, c.targetHalfLength, first);
    c.gain = c.targetGain;
    c.step = c.targetStep;
    c.tableStep = c.targetTableStep;
    return produced;
}

}  // extern "C"
