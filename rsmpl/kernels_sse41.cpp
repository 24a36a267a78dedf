// The SSE4.1 kernel set (128-bit vectors), compiled with -msse4.1 alone; the
// library runs it only on a CPU that reports SSE4.1.
#define RSMPL_X86_SET kSse41Kernels
#define RSMPL_X86_ID EngineId::sse41
#define RSMPL_X86_NAME "sse41"
#include "rsmpl/kernels_x86.inc"
