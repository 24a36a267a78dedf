// The sinc interpolator's sums with AVX2, compiled with -mavx2 alone.
#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/sinc/sinc_x86.hpp"

namespace rsmpl {

void sinc_run_avx2(const SincRun &run, int16_t *out) { sinc::run<sinc::X86>(run, out); }

}  // namespace rsmpl
