#!/usr/bin/env bash
# Installs, builds and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$(nproc)"
./build/tools/rsmpl-tone
