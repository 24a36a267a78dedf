// The FIR stages with AVX2 (256-bit vectors): fir_x86.hpp compiled with
// -mavx2 alone; the library runs them only on a CPU (and an OS) that reports
// AVX2.
#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/fir/fir_x86.hpp"

namespace rsmpl {

constinit const fir::Kernels fir::kKernelsAvx2 = fir::make_kernels<fir::X86Stage>();

}  // namespace rsmpl
