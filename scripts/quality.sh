#!/usr/bin/env bash
# Measures every conversion path and the installed peers, and regenerates
# docs/quality.md and docs/quality/*.png from scratch.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh --quality
cmake --preset main
cmake --build build -j "$(nproc)" --target rsmpl-quality
rm -rf build/quality-data
./build/tools/rsmpl-quality --out build/quality-data "$@" || echo "quality: some paths could not be measured (see docs/quality.md)"
/usr/bin/python3 scripts/quality_report.py build/quality-data docs
echo "quality: wrote docs/quality.md and docs/quality/"
