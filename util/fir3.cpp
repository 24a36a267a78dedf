// Block FIR over 16-bit samples, in place, with the filter state kept in the
// caller's history buffer.
//
// Accumulator: exact sum of at most 32764 products of 16 x 16 bits, below 2^45
// in magnitude, in 64 bits. Output: (2*acc) * 2^shift + 0x8000, taken to 16 bits
// by an arithmetic shift of 16; a value that does not fit in 32 bits becomes
// 0x7FFF0000 or 0x8000FFFF, i.e. +32767 or -32768. Clamping the shifted value
// to +-2^32 first changes nothing in that rule and keeps any shift in range.
#include <cstdint>

#include <rsmpl/rsmpl_util.h>
#include "util/fixed.hpp"

namespace {

int16_t fir_output(int64_t acc, int shift) {
    return rsmpl::round_sat16(rsmpl::shift_left_clamped(2 * acc, shift, 32), 16);
}

}  // namespace

extern "C" {

void UTILFir3(int16_t *samples, int16_t count, int16_t *history, const int16_t *coefs, int16_t taps,
              int16_t shift, int16_t *scratch) {
    if (count <= 0) return;
    if (taps <= 0) {
        UTILMemset(samples, 0, static_cast<uint32_t>(count) * sizeof(int16_t));
        return;
    }
    const int gain_shift = shift < 0 ? 0 : shift;  // only the forwarder rejects negative shifts
    const int32_t n = count, t = taps;

    // scratch = [history (t) | input (n)]: sample i of this block sits at scratch[t + i].
    UTILMemcpy(scratch, history, static_cast<uint32_t>(t) * sizeof(int16_t));
    UTILMemcpy(scratch + t, samples, static_cast<uint32_t>(n) * sizeof(int16_t));

    for (int32_t i = 0; i < n; ++i) {
        const int16_t *x = scratch + t + i;
        int64_t acc = 0;
        for (int32_t k = 0; k < t; ++k) acc += rsmpl::mul16x16(coefs[k], x[-k]);
        samples[i] = fir_output(acc, gain_shift);
    }

    UTILMemcpy(history, scratch + n, static_cast<uint32_t>(t) * sizeof(int16_t));
}

int32_t UTIL_Fir3(int16_t *samples, int16_t count, int16_t *history, const int16_t *coefs, int16_t taps,
                  int16_t shift, int16_t *scratch) {
    if (samples == nullptr || history == nullptr || coefs == nullptr || scratch == nullptr) return 1;
    if (count < 1 || taps < 1 || count % 4 != 0 || taps % 4 != 0) return 2;
    if (shift < 0) return 3;
    UTILFir3(samples, count, history, coefs, taps, shift, scratch);
    return 0;
}

}  // extern "C"
