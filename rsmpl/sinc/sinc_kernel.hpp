// Internals of the sinc interpolator, shared with tests and tools.
#pragma once

#include <cstdint>

#include "util/fixed.hpp"

namespace rsmpl {

constexpr int kSincWingLength = 1792;   // 14 input samples of 128 entries; 1664.. are zero
constexpr int kSincHeadroomLength = 256;
constexpr int32_t kSincBaseHalfLength = 13;
constexpr uint32_t kSincMaxBlock = 1440;
// Debt a run of too-short blocks may pile up in `position` (Q16): enough for
// any admissible stream, small enough that positions never wrap.
constexpr uint32_t kSincMaxPosition = uint32_t{1648} << 16;

extern const int32_t sincWing[kSincWingLength];       // Q31 prototype wing
extern const int32_t sincWingDelta[kSincWingLength];  // Q31, entry i+1 minus entry i
extern const int16_t headroomShift[kSincHeadroomLength];

// Q31 coefficient at table position t (Q16 entries), interpolated linearly
// between two entries; past the table it is the zero tail.
inline int32_t sinc_coefficient(uint32_t t) {
    const uint32_t j = t >> 16;
    if (j >= static_cast<uint32_t>(kSincWingLength)) return 0;
    uint32_t g = t & 0xFFFFu;
    g += g >> 15;  // 0xFFFF counts as one whole entry
    return sincWing[j] + static_cast<int32_t>((int64_t{sincWingDelta[j]} * g) >> 16);
}

// Input positions (Q16) advanced by n outputs at step S (Q24): S * n / 256
// rounded, with n taken to 16 bits; 32-bit wrap-around as in the kernel.
inline uint32_t sinc_advance(uint32_t step, uint32_t n) {
    const uint32_t m = n & 0xFFFFu;
    return ((step >> 16) << 8) * m + (((step & 0xFFFFu) * m + 128u) >> 8);
}

// One output's filter sum, the reference scalar form. x[c] is the centre
// sample; the left wing covers x[c - k] for k = leftFirst..leftLast (k = 0 is
// the centre) at table positions t0 + k*T, the right wing x[c + k] for
// k = 1..rightLast at k*T - t0. Samples are pre-shifted right by `shift` and
// each Q31 x Q15 product is taken to Q30 (>> 16, floor). The sum is 32-bit
// with wrap-around, returned as its bit pattern. A vector kernel replaces
// exactly this function (rsmpl/engine/engine.hpp).
uint32_t sinc_accumulate_scalar(const int16_t *x, int32_t c, int32_t leftFirst, int32_t leftLast,
                                int32_t rightLast, uint32_t t0, uint32_t tableStep, int shift);

// Q14 sum to Q15 output: a * G (Q24) rounded, the headroom shift undone.
// y is below 2^17, so the 32-bit saturation of y << s never bites; sat16 does.
inline int16_t sinc_finish(uint32_t acc, uint32_t gain, int shift) {
    const int32_t a = static_cast<int32_t>(acc) >> 16;
    const int64_t y = (((int64_t{gain} * a) >> 15) + 128) >> 8;
    return sat16(sat32(y * (int64_t{1} << shift)));
}

// A run of outputs over one block: x[0 .. valid-1] hold the history of h
// samples each side plus the block; output i sits at input position
// p0 + sinc_advance(step, i) (Q16), its centre sample at x[(position >> 16) + h].
// Samples the block has not received count as zero.
struct SincRun {
    const int16_t *x;
    int32_t valid;
    int32_t h;
    uint32_t p0;
    uint32_t step;       // Q24 input samples per output
    uint32_t tableStep;  // Q16 table entries per tap
    uint32_t gain;       // Q24
    int shift;           // headroom shift of the samples
    uint32_t count;      // outputs to write
};

// The reference: sinc_accumulate_scalar and sinc_finish for every output.
// A kernel engine replaces exactly this function (rsmpl/engine/engine.hpp).
void sinc_run_scalar(const SincRun &r, int16_t *out);

// Table entry p + 128m of the wing and of its deltas at [16p + m], zero past
// the table; rows p = 0..128 of 16 (m = 0..15), one flat array so a row
// offset reads in bounds. At 128 entries per tap (ratios 1
// and above) all taps of one output share the entry's fraction, so the
// coefficients of a wing are one row. The reversed copies hold m = 15 - lane
// for the left wing, whose samples run the other way. The deltas also come
// split for 16-bit multipliers: the high half (delta >> 16) in both halves
// of a word, and the low half (delta & 0xFFFF) zero-extended. Built at
// first use.
struct SincRows {
    alignas(64) int32_t wing[129 * 16];
    alignas(64) int32_t delta[129 * 16];
    alignas(64) int32_t wingRev[129 * 16];
    alignas(64) int32_t deltaRev[129 * 16];
    alignas(64) uint32_t deltaHigh[129 * 16];
    alignas(64) uint32_t deltaLow[129 * 16];
    alignas(64) uint32_t deltaHighRev[129 * 16];
    alignas(64) uint32_t deltaLowRev[129 * 16];
    // The wing with zeros around, entry j at kPaddedZero + j: runs of
    // entries read straight past either end.
    static constexpr int kPaddedZero = 160;
    alignas(64) int32_t wingPadded[kPaddedZero + kSincWingLength + 64];
};
const SincRows &sinc_rows();

}  // namespace rsmpl
