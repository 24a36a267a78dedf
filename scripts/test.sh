#!/usr/bin/env bash
# Installs, builds and runs the whole test suite: a normal build, a build
# with AddressSanitizer and UndefinedBehaviorSanitizer, and the threaded tests
# under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DRSMPL_SANITIZE=address,undefined -DRSMPL_BUILD_BENCH=OFF
cmake --build build-asan -j "$jobs"
ctest --test-dir build-asan --output-on-failure -j "$jobs"

# Contexts used from many threads at once, under ThreadSanitizer.
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DRSMPL_SANITIZE=thread -DRSMPL_BUILD_BENCH=OFF
cmake --build build-tsan -j "$jobs" --target test_rsmpl_threads
./build-tsan/tests/test_rsmpl_threads
