#!/usr/bin/env bash
# Builds the libFuzzer programs of fuzz/ with clang (ASan and UBSan on
# everything) and runs each for a bounded time, starting from its kept corpus
# and every input that ever failed. New inputs go to a scratch directory, not
# into the repository; a failing input is left in build-fuzz/artifacts/<name>/
# and belongs in fuzz/regressions/<name>/ once understood.
#   RSMPL_FUZZ_SECONDS  time per target (default 40)
#   RSMPL_FUZZ_TARGETS  names to run (default: all)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${RSMPL_FUZZ_SECONDS:-40}

cmake --preset fuzz >/dev/null
names=${RSMPL_FUZZ_TARGETS:-$(cd fuzz && ls fuzz_*.cpp | sed 's/^fuzz_//; s/\.cpp$//')}
targets=()
for n in $names; do targets+=("fuzz_$n"); done
cmake --build build-fuzz -j "$(nproc)" --target "${targets[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
for n in $names; do
  scratch=build-fuzz/scratch/$n artifacts=build-fuzz/artifacts/$n
  rm -rf "$scratch" && mkdir -p "$scratch" "$artifacts"
  echo "fuzz: $n for ${seconds}s"
  ./build-fuzz/fuzz/fuzz_"$n" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" \
    "$scratch" fuzz/corpus/"$n" fuzz/regressions/"$n" 2>build-fuzz/fuzz_"$n".log \
    || { tail -n 60 build-fuzz/fuzz_"$n".log; echo "fuzz: $n FAILED, input in $artifacts/"; exit 1; }
  grep -E '^(#[0-9]+.*DONE|stat::number_of_executed_units)' build-fuzz/fuzz_"$n".log | tail -n 2
done
