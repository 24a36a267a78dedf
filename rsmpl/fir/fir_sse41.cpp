// The FIR stages with SSE4.1 (128-bit vectors): fir_x86.hpp compiled with
// -msse4.1 alone; the library runs them only on a CPU that reports SSE4.1.
#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/fir/fir_x86.hpp"

namespace rsmpl {

constinit const up::Kernels up::kKernelsSse41 = fir::up_kernels("sse41");
constinit const down::Kernels down::kKernelsSse41 = fir::down_kernels();

}  // namespace rsmpl
