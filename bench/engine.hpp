// The one place that names the arithmetic engine the benchmarks measure:
// the kernel set the library chose (rsmpl/engine/engine.hpp), which RSMPL_ENGINE
// can force. The module loaded for the plug-in benchmarks chooses alike.
#pragma once

#include "rsmpl/engine/engine.hpp"

inline const char *BenchEngineName() { return rsmpl::engine_name(); }
