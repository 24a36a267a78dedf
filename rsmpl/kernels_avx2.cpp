// The AVX2 kernel set (256-bit vectors), compiled with -mavx2 alone; the
// library runs it only on a CPU (and an OS) that reports AVX2.
#define RSMPL_X86_SET kAvx2Kernels
#define RSMPL_X86_ID EngineId::avx2
#define RSMPL_X86_NAME "avx2"
#include "rsmpl/kernels_x86.inc"
