// The one place that names the arithmetic engine the benchmarks measure.
// Only the scalar kernels exist so far; when vector kernels arrive, answer
// here with whatever the library selected (e.g. "neon", "avx2").
#pragma once

inline const char *BenchEngineName() { return "scalar"; }
