#!/usr/bin/env bash
# Installs, builds and runs the whole test suite: a normal build, then a build
# with AddressSanitizer and UndefinedBehaviorSanitizer.
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
