// One-pole smoothers: move a value a Q15 fraction of the way to its target.
//
// Differences are taken exactly (17 or 33 bits in a 64-bit integer), never
// wrapped: a value of -30000 heading for +30000 climbs through zero instead of
// jumping across full scale. Results are saturated to the value's width. With
// a coefficient in 0..0x7FFF the product never exceeds the difference, so the
// clamp only acts where the one-unit step of the asymmetric smoothers goes past
// a full-scale target, or for negative coefficients.
#include <cstdint>

#include <rsmpl/rsmpl_util.h>
#include "util/fixed.hpp"

namespace {

// coef * d rounded half up back to the value's scale: (2*coef*d + 0x8000) >> 16.
// |2*coef*d| < 2^34 for 17-bit d.
int64_t step16(int16_t coef, int64_t d) { return rsmpl::round_shift_right(2 * int64_t{coef} * d, 16); }

// coef * d taken back to the value's scale by flooring: (coef*d) >> 15.
// |coef*d| < 2^48 for 33-bit d.
int64_t step32(int16_t coef, int64_t d) { return (int64_t{coef} * d) >> 15; }

}  // namespace

extern "C" {

int16_t UTILSmooth(int16_t value, int16_t coef, int16_t target) {
    const int64_t d = int64_t{target} - value;
    return rsmpl::sat16(value + step16(coef, d));
}

int32_t UTILSmooth32(int32_t value, int16_t coef, int32_t target) {
    const int64_t d = int64_t{target} - value;
    return rsmpl::sat32(value + step32(coef, d));
}

int16_t UTILSmoothAsym(int16_t value, int16_t rise, int16_t fall, int16_t target) {
    if (target == value) return value;
    const int64_t d = int64_t{target} - value;
    // The extra unit keeps the value moving when the product rounds to zero.
    if (d > 0) return rsmpl::sat16(value + step16(rise, d) + 1);
    return rsmpl::sat16(value + step16(fall, d) - 1);
}

int32_t UTILSmoothAsym32(int32_t value, int16_t rise, int16_t fall, int32_t target) {
    if (target == value) return value;
    const int64_t d = int64_t{target} - value;
    if (d > 0) return rsmpl::sat32(value + step32(rise, d) + 1);
    return rsmpl::sat32(value + step32(fall, d) - 1);
}

int16_t UTIL_Smooth(int16_t value, int16_t coef, int16_t target) { return UTILSmooth(value, coef, target); }
int32_t UTIL_Smooth32(int32_t value, int16_t coef, int32_t target) { return UTILSmooth32(value, coef, target); }
int16_t UTIL_SmoothAsym(int16_t value, int16_t rise, int16_t fall, int16_t target) {
    return UTILSmoothAsym(value, rise, fall, target);
}
int32_t UTIL_SmoothAsym32(int32_t value, int16_t rise, int16_t fall, int32_t target) {
    return UTILSmoothAsym32(value, rise, fall, target);
}

}  // extern "C"
