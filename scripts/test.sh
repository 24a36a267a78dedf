#!/usr/bin/env bash
# Installs, builds and runs the whole test suite: a normal build, a build
# with AddressSanitizer and UndefinedBehaviorSanitizer, the threaded tests
# under ThreadSanitizer, the alsa-lib tests under valgrind, the suite again for
# every other kernel engine, the AArch64 cross build under qemu-user, and a
# bounded run of every fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh --test
jobs=$(nproc)

# Each build is a preset of CMakePresets.json.
cmake --preset default -DRSMPL_PYTHON=ON
cmake --build --preset default -j "$jobs"
ctest --preset default -j "$jobs"

cmake --preset asan
cmake --build --preset asan -j "$jobs"
ctest --preset asan -j "$jobs"

# Contexts used from many threads at once, under ThreadSanitizer.
cmake --preset tsan
cmake --build --preset tsan -j "$jobs"
./build-tsan/tests/test_rsmpl_threads
# Module instances in many threads at once, inside alsa-lib.
./build-tsan/tests/test_plugin_threads

# The alsa-lib tests under valgrind's memcheck: no memory error, no block
# definitely lost (alsa-lib's global configuration is released by the tests).
# With the scalar kernels: the vector kernels pad rows with zero taps whose
# lanes read the next, still unwritten, samples of alsa-lib's drain period,
# and memcheck cannot see that a product with zero is defined.
for t in test_plugin_ops test_plugin_hostile test_plugin_leaks test_plugin_alsa; do
  RSMPL_ENGINE=scalar valgrind -q --leak-check=full --errors-for-leak-kinds=definite --error-exitcode=1 \
    "./build/tests/$t" --gtest_brief=1
done

# Kernel engines: the normal build's suite once more for every other engine
# this machine runs (the run above used the best), each forced through
# RSMPL_ENGINE. Then the AArch64 cross build, its whole suite under qemu-user,
# with the NEON kernels and with the scalar ones. The normal build has soaked
# every path for hours already; these reruns push two minutes per path.
export RSMPL_SOAK_SECONDS=120
for engine in $(./build/tools/rsmpl-engines); do
  [ "$engine" = "$(./build/tools/rsmpl-engines --active)" ] && continue
  echo "test: engine $engine"
  RSMPL_ENGINE=$engine ctest --preset default -j "$jobs"
done

cmake --preset aarch64
cmake --build --preset aarch64 -j "$jobs"
for engine in neon scalar; do
  echo "test: aarch64 under qemu-user, engine $engine"
  RSMPL_ENGINE=$engine ctest --preset aarch64 -j "$jobs"
done

unset RSMPL_SOAK_SECONDS

# The AArch64 cost estimate still finds and measures a marked kernel.
bash scripts/arm-cost.sh --kernel sinc_up --cpu cortex-a55 --no-doc

# Fuzzing: every libFuzzer target for a bounded time (RSMPL_FUZZ_SECONDS
# each, 40 by default), from its kept corpus and regressions.
bash scripts/fuzz.sh
