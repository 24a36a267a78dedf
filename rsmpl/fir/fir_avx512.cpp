// The FIR stages with AVX-512 (512-bit vectors, 32 registers) and VNNI's
// vpdpwssd: fir_x86.hpp compiled for those; the library runs them only on a
// CPU (and an OS) that reports AVX-512 F, BW, VL and VNNI.
// GCC 12's AVX-512 intrinsics start from a deliberately undefined vector,
// which its own uninitialised-use warnings then report.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include "rsmpl/engine/isa_kernels.hpp"
#include "rsmpl/fir/fir_x86.hpp"

namespace rsmpl {

constinit const fir::Kernels fir::kKernelsAvx512 = fir::make_kernels<fir::X86Stage>();

}  // namespace rsmpl
