// The sinc interpolator's sum with AVX2, compiled with -mavx2 alone.
#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/sinc/sinc_x86.hpp"

namespace rsmpl {

uint32_t sinc_sum_avx2(const int16_t *x, int32_t c, int32_t kLeftFirst, int32_t kLeftLast, int32_t kRightLast,
                       uint32_t t0, uint32_t tableStep, int shift) {
    return sinc_sum(x, c, kLeftFirst, kLeftLast, kRightLast, t0, tableStep, shift);
}

}  // namespace rsmpl
