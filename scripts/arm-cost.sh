#!/usr/bin/env bash
# Static cost estimate of the AArch64 kernels: no ARM hardware here, so
# llvm-mca (LLVM 19) simulates each kernel's hot loop on LLVM's models of the
# target cores. The NEON sources are cross-compiled with the project's own
# flags (taken from CMake's compile commands) plus RSMPL_MCA, which turns the
# marks of rsmpl/engine/mca.hpp into llvm-mca regions; every marked region
# found is measured, so a kernel needs no entry here. Cycles per output are the
# region's steady-state cycles per iteration over its outputs per pass.
#
# The multiply-accumulate ceiling of each core is measured the same way: a
# loop of independent smlal/smlal2 chains (vector and by-element forms, the
# faster counts), no loads, no reductions.
#
#   bash scripts/arm-cost.sh                      # every kernel, three cores, writes docs/performance-arm.md
#   bash scripts/arm-cost.sh --kernel sinc_up --cpu cortex-a55 --no-doc   # smoke run
#
# --kernel NAME (repeatable) restricts the run to those kernels and fails if
# one of them has no marked region. A path made of several marked loops
# declares its total beside the code, in a comment the doc picks up:
#   // arm-cost total: sinc_up_total = sinc_up + sinc_up_where + sinc_finish Prints one tab-separated line per kernel
# and core: kernel cpu cycles_per_output macs_per_output ceiling_cycles
# percent_of_ceiling (the last three empty where the kernel has no MAC count).
set -euo pipefail
cd "$(dirname "$0")/.."

cpus=()
kernels=()
doc=docs/performance-arm.md
build_type=${ARM_COST_BUILD_TYPE:-Release}
build=${ARM_COST_BUILD_DIR:-build-armcost}
while [ $# -gt 0 ]; do
  case "$1" in
    --kernel) kernels+=("$2"); shift 2 ;;
    --cpu) cpus+=("$2"); shift 2 ;;
    --no-doc) doc=""; shift ;;
    --build-dir) build="$2"; shift 2 ;;
    *) echo "arm-cost: unknown argument $1" >&2; exit 2 ;;
  esac
done
[ ${#cpus[@]} -eq 0 ] && cpus=(cortex-a55 cortex-a53 neoverse-n1)

mca=${LLVM_MCA:-llvm-mca-19}
command -v "$mca" >/dev/null || { echo "arm-cost: $mca not found (bash scripts/setup.sh installs llvm-19)" >&2; exit 1; }
command -v aarch64-linux-gnu-g++ >/dev/null || { echo "arm-cost: aarch64-linux-gnu-g++ not found" >&2; exit 1; }
iterations=500

# The cross build's compile commands: the flags every NEON source really gets.
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DCMAKE_BUILD_TYPE="$build_type" \
  -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DBUILD_TESTING=OFF -DRSMPL_BUILD_BENCH=OFF -DRSMPL_BUILD_TOOLS=OFF >/dev/null

work=$(mktemp -d)
[ -n "${ARM_COST_KEEP:-}" ] || trap 'rm -rf "$work"' EXIT

# One shell command per library source, compiling to assembly with the marks on.
/usr/bin/python3 - "$build/compile_commands.json" "$PWD" "$work" >"$work/commands" <<'EOF'
import json, shlex, sys, os
db, root, work = sys.argv[1], sys.argv[2], sys.argv[3]
for i, e in enumerate(json.load(open(db))):
    f = os.path.realpath(e["file"])
    if not f.startswith(os.path.join(root, "rsmpl") + os.sep):
        continue
    args = e.get("arguments") or shlex.split(e["command"])
    out, skip = [], False
    for a in args:
        if skip:
            skip = False
            continue
        if a == "-o":
            skip = True
            continue
        if a in ("-c", "-g") or a.startswith("-g"):
            continue
        out.append(a)
    base = os.path.join(work, "%02d_%s" % (i, os.path.basename(f)))
    out += ["-DRSMPL_MCA"]
    print("cd %s && %s\t%s\t%s" % (shlex.quote(e["directory"]), shlex.join(out + ["-MM", "-MF", base + ".d"]),
                                   shlex.join(out + ["-S", "-o", base + ".s"]), base + ".d"))
EOF
# Only sources that include the marks at all are worth compiling.
while IFS=$'\t' read -r deps asm depfile; do
  bash -c "$deps"
  grep -q 'rsmpl/engine/mca\.hpp' "$depfile" || continue
  bash -c "${deps%% && *} && $asm"
done <"$work/commands"

# Split the assembly into one file per region, named by the mark
# (name:outputs:macs); directives and comments go, labels and instructions stay.
mkdir -p "$work/regions"
for s in "$work"/*.s; do
  [ -e "$s" ] || continue
  awk -v dir="$work/regions" -v src="$(basename "$s")" '
    /LLVM-MCA-BEGIN / {
      if (cur != "") { print "arm-cost: region " cur " not closed in " src > "/dev/stderr"; exit 3 }
      cur = $NF; n[cur]++; file = dir "/" cur "@" n[cur] ".s"; printf "" > file; next
    }
    /LLVM-MCA-END / { if (cur != "") close(file); cur = ""; next }
    cur != "" {
      line = $0
      sub(/\/\/.*/, "", line)
      if (line ~ /^[ \t]*$/ || line ~ /^[ \t]*#/ || line ~ /^[ \t]*\.[a-z_0-9]+([ \t]|$)/) next
      print line >> file
    }' "$s"
done

cycles_per_iter() {  # file cpu
  "$mca" -mtriple=aarch64-linux-gnu -mcpu="$2" -iterations=$iterations "$1" 2>"$work/mca.err" |
    awk '/^Iterations:/ {i = $2} /^Total Cycles:/ {c = $3} END { if (i > 0) printf "%.4f\n", c / i }'
}

# Ceiling: eight independent accumulators, 32 MACs per pass.
{
  for r in 0 2 4 6; do
    echo "  smlal v$r.4s, v16.4h, v17.4h"
    echo "  smlal2 v$((r + 1)).4s, v16.8h, v17.8h"
  done
} >"$work/ceiling_vec.s"
{
  for r in 0 2 4 6; do
    echo "  smlal v$r.4s, v16.4h, v15.h[$r]"
    echo "  smlal2 v$((r + 1)).4s, v16.8h, v15.h[$((r + 1))]"
  done
} >"$work/ceiling_elem.s"

declare -A ceiling
for cpu in "${cpus[@]}"; do
  v=$(cycles_per_iter "$work/ceiling_vec.s" "$cpu")
  e=$(cycles_per_iter "$work/ceiling_elem.s" "$cpu")
  [ -n "$v" ] && [ -n "$e" ] || { echo "arm-cost: llvm-mca failed on the ceiling for $cpu" >&2; cat "$work/mca.err" >&2; exit 1; }
  ceiling[$cpu]=$(awk -v v="$v" -v e="$e" 'BEGIN { c = v < e ? v : e; printf "%.2f", 32 / c }')  # MACs per cycle
done

# Kernels found, each name once (a region the compiler duplicated counts at its worst copy).
mapfile -t found < <(ls "$work/regions" 2>/dev/null | sed 's/@[0-9]*\.s$//' | sort -u)
if [ ${#kernels[@]} -gt 0 ]; then
  selected=()
  for k in "${kernels[@]}"; do
    hit=""
    for f in "${found[@]}"; do [ "${f%%:*}" = "$k" ] && hit=$f; done
    [ -n "$hit" ] || { echo "arm-cost: kernel $k has no marked region in the NEON build" >&2; exit 1; }
    selected+=("$hit")
  done
  found=("${selected[@]}")
fi
[ ${#found[@]} -gt 0 ] || { echo "arm-cost: no marked region found (RSMPL_MCA_BEGIN/END)" >&2; exit 1; }

: >"$work/table"
for region in "${found[@]}"; do
  IFS=: read -r name outs macs <<<"$region"
  for f in "$work/regions/$region"@*.s; do
    [ -s "$f" ] || { echo "arm-cost: region $name is empty in the compiled code" >&2; exit 1; }
  done
  for cpu in "${cpus[@]}"; do
    worst=""
    for f in "$work/regions/$region"@*.s; do
      c=$(cycles_per_iter "$f" "$cpu")
      [ -n "$c" ] || { echo "arm-cost: llvm-mca failed on $name for $cpu" >&2; cat "$work/mca.err" >&2; exit 1; }
      worst=$(awk -v a="$worst" -v b="$c" 'BEGIN { print (a == "" || b > a) ? b : a }')
    done
    awk -v k="$name" -v cpu="$cpu" -v it="$worst" -v outs="$outs" -v macs="$macs" -v peak="${ceiling[$cpu]}" 'BEGIN {
      cpo = it / outs
      if (macs > 0) { ceil = macs / peak; printf "%s\t%s\t%.2f\t%d\t%.2f\t%.0f\n", k, cpu, cpo, macs, ceil, 100 * ceil / cpo }
      else printf "%s\t%s\t%.2f\t\t\t\n", k, cpu, cpo
    }' | tee -a "$work/table"
  done
done

[ -n "$doc" ] || exit 0
mkdir -p "$(dirname "$doc")"
{
cat <<EOF
# AArch64 cost estimate

Generated by \`bash scripts/arm-cost.sh\` from commit $(git rev-parse --short HEAD 2>/dev/null || echo unknown)
with $("$mca" --version | sed -n 's/^ *\(.*LLVM version.*\)/\1/p' | head -n1) and $(aarch64-linux-gnu-g++ --version | head -n1),
CMake build type $build_type.

**These are estimates, not measurements.** There is no ARM hardware here:
llvm-mca simulates each kernel's marked hot loop (\`rsmpl/engine/mca.hpp\`) on
LLVM's scheduling model of the core, iterated $iterations times, and the
cycles per iteration are divided by the loop's outputs per pass. The model has
no caches (every load hits L1), no branch mispredictions, no loop overhead
outside the marked region, and none of the wrapper's work around the loop
(copies into the history, saturation of the last outputs, the plug-in's
channel moves). Real cores will be slower by those amounts. Loops without
marks are not estimated at all.
\`neoverse-n1\` is LLVM's model of the Cortex-A76 class (its \`cortex-a76\`
name maps to an older model).

- *cycles/out*: estimated core cycles per mono output sample; for the
  linear loops (\`linear_*_stereo\`) per sample of a stereo output frame, the
  loads of the inputs between outputs not included.
- *MACs/out*: 16x16-bit multiply-accumulates one output needs (none for the
  sinc and linear loops, whose products are 32-bit).
- *ceiling*: MACs/out over the core's MAC rate, measured by llvm-mca on
  independent \`smlal\`/\`smlal2\` chains (the faster of the vector and
  by-element forms); *% of ceiling* is ceiling over cycles/out.

| core | MACs per cycle (ceiling loop) |
|---|---|
EOF
for cpu in "${cpus[@]}"; do echo "| $cpu | ${ceiling[$cpu]} |"; done
cat <<EOF

| kernel | core | cycles/out | MACs/out | ceiling cycles | % of ceiling |
|---|---|---|---|---|---|
EOF
awk -F'\t' '{ printf "| %s | %s | %s | %s | %s | %s |\n", $1, $2, $3, $4, $5, $6 }' "$work/table"
# Totals declared in the sources (see the header of this script).
totals=$(grep -rhoE 'arm-cost total: *[A-Za-z0-9_]+ *= *[A-Za-z0-9_ +]+' rsmpl 2>/dev/null | sed 's/.*arm-cost total: *//' | sort -u || true)
if [ -n "$totals" ]; then
  cat <<EOF

Paths made of several marked loops, per output (the sum of their loops'
figures above, as declared beside the code):

| path | loops | core | cycles/out |
|---|---|---|---|
EOF
  while IFS= read -r decl; do
    tname=$(echo "${decl%%=*}" | tr -d ' ')
    parts=$(echo "${decl#*=}" | tr -d ' ')
    for cpu in "${cpus[@]}"; do
      awk -F'\t' -v parts="$parts" -v cpu="$cpu" -v tname="$tname" 'BEGIN { n = split(parts, want, "+") }
        $2 == cpu { have[$1] = $3 }
        END {
          total = 0
          for (i = 1; i <= n; ++i) { if (!(want[i] in have)) exit; total += have[want[i]] }
          gsub(/\+/, " + ", parts); printf "| %s | %s | %s | %.2f |\n", tname, parts, cpu, total
        }' "$work/table"
    done
  done <<<"$totals"
fi
cat <<EOF

At 48000 outputs per second and channel, a kernel at N cycles/out costs
N x 0.048 MHz per channel: 100 cycles/out is 4.8 MHz of one core per channel.
EOF
} >"$doc"
echo "arm-cost: wrote $doc" >&2
