// The sinc interpolator's sums with SSE4.1, compiled with -msse4.1 alone.
#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/sinc/sinc_x86.hpp"

namespace rsmpl {

void sinc_run_sse41(const SincRun &run, int16_t *out) { sinc::run<sinc::X86>(run, out); }

}  // namespace rsmpl
