// The FIR stages with AVX2 (256-bit vectors): fir_x86.hpp compiled with
// -mavx2 alone; the library runs them only on a CPU (and an OS) that reports
// AVX2.
#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/fir/fir_x86.hpp"

namespace rsmpl {

constinit const up::Kernels up::kKernelsAvx2 = fir::up_kernels("avx2");
constinit const down::Kernels down::kKernelsAvx2 = fir::down_kernels();

}  // namespace rsmpl
