// The sinc interpolator's outputs over one block, shared by the vector
// engines; each instruction set supplies the three sums (see sinc_x86.hpp,
// sinc_neon.hpp). Equal to sinc_run_scalar bit for bit:
//
//   - the samples are shifted once per block into 32-bit lanes with zero
//     padding on both sides, so taps on samples the block has not received
//     read zero instead of being cut off one by one;
//   - at 128 entries per tap (ratios 1 and above) each wing's coefficients
//     are one row of sinc_rows() at one fraction: Isa::rows;
//   - below, the coefficients of an output are built into a buffer
//     (Isa::coefs) and kept while the fraction repeats, as it does at every
//     whole step (1/2, 1/3, ...); Isa::dot then sums against the samples.
//
// Per tap, as the scalar form: coefficient wing[j] + ((delta[j] * g') >> 16)
// and tap (coef * (x >> s)) >> 16, each from a 64-bit product of which bits
// 16..47 are kept; taps summed modulo 2^32 in any order.
#pragma once

#include <algorithm>

#include "rsmpl/mca.hpp"
#include "rsmpl/rsmpl.h"
#include "rsmpl/sinc_kernel.hpp"

namespace rsmpl::sinc {
namespace {

constexpr int32_t kMaxHalf = 104;  // ratio 1/8
constexpr int32_t kPad = 32;       // zero samples before the history
// Right padding: a centre up to h + 16 past the last sample, h taps beyond
// it and a group of lanes.
constexpr int32_t kSamples = kPad + RSMPL_HISTORY_SAMPLES + 2 * kMaxHalf + 16 + kPad;
constexpr int32_t kCoefs = (2 * kMaxHalf + 1 + 15) / 16 * 16;
constexpr uint32_t kUnityTableStep = 0x800000u;

template <class Isa>
void run(const SincRun &r, int16_t *out) {
    if (r.h < 0 || r.h > kMaxHalf || r.valid < 0 || r.valid > RSMPL_HISTORY_SAMPLES) {
        sinc_run_scalar(r, out);
        return;
    }
    alignas(64) int32_t xs[kSamples];
    const int32_t filled = kPad + r.valid + 2 * r.h + 16 + kPad;
    for (int32_t i = 0; i < kPad; ++i) xs[i] = 0;
    for (int32_t i = 0; i < r.valid; ++i) xs[kPad + i] = r.x[i] >> r.shift;
    for (int32_t i = kPad + r.valid; i < filled; ++i) xs[i] = 0;
    const int32_t *x0 = xs + kPad;
    const int64_t last = r.valid - 1;

    // A centre more than h past the last sample has only zero taps: it is
    // moved to where the whole window reads padding, so no output branches.
    const int64_t far = last + r.h + 16;
    if (r.tableStep == kUnityTableStep) {
        const SincRows &rows = sinc_rows();
        for (uint32_t i = 0; i < r.count; ++i) {
            RSMPL_MCA_BEGIN("sinc_up", 1, 0);
            const uint32_t p = r.p0 + sinc_advance(r.step, i);
            const int64_t centre = std::min(int64_t{p >> 16} + r.h, far);
            const uint32_t f = p & 0xFFFFu;
            const uint32_t acc = Isa::rows(x0 + centre, rows, (f + (f >> 15)) << 7);  // (f' * 128 entries) >> 16
            out[i] = sinc_finish(acc, r.gain, r.shift);
            RSMPL_MCA_END("sinc_up", 1, 0);
        }
        return;
    }

    alignas(64) int32_t coef[kCoefs];
    const int32_t taps = 2 * r.h + 1;
    uint32_t made = ~0u;  // no t0 reaches it: t0 <= tableStep
    for (uint32_t i = 0; i < r.count; ++i) {
        const uint32_t p = r.p0 + sinc_advance(r.step, i);
        const int64_t centre = std::min(int64_t{p >> 16} + r.h, far);
        const uint32_t f = p & 0xFFFFu;
        const uint32_t t0 = static_cast<uint32_t>((uint64_t{f + (f >> 15)} * r.tableStep) >> 16);
        if (t0 != made) {
            Isa::coefs(coef, taps, t0 + static_cast<uint32_t>(r.h) * r.tableStep, r.tableStep, r.h);
            made = t0;
        }
        out[i] = sinc_finish(Isa::dot(x0 + centre - r.h, coef, taps), r.gain, r.shift);
    }
}

}  // namespace
}  // namespace rsmpl::sinc
