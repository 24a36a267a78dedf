// The FIR stages with SSE4.1 (128-bit vectors): fir_x86.hpp compiled with
// -msse4.1 alone; the library runs them only on a CPU that reports SSE4.1.
#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/fir/fir_x86.hpp"

namespace rsmpl {

constinit const fir::Kernels fir::kKernelsSse41 = fir::make_kernels<fir::X86Stage>();

}  // namespace rsmpl
