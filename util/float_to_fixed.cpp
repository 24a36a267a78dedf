// Float to fixed-point conversion: the only floating point the resampler uses,
// and only in control functions, never per sample.
#include <cmath>
#include <cstdint>

#include <rsmpl/rsmpl_util.h>

extern "C" {

uint32_t ToUFix(int32_t n, float x) {
    const double v = std::ldexp(static_cast<double>(x), n) + 0.5;
    if (!(v > 0.0)) return 0;  // negative or NaN
    if (v >= 4294967295.0) return UINT32_MAX;
    return static_cast<uint32_t>(v);
}

int32_t ToSFix(int32_t n, float x) {
    double v = std::ldexp(static_cast<double>(x), n);
    if (std::isnan(v)) return 0;
    v += v >= 0.0 ? 0.5 : -0.5;
    if (v >= 2147483647.0) return INT32_MAX;
    if (v <= -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(v);
}

}  // extern "C"
