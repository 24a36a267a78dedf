#!/usr/bin/env bash
# Installs Debian packages: with no argument what scripts/run.sh needs (the
# library, the module and rsmpl-convert); each option adds a group:
#   --test     the test suite: GoogleTest, Google Benchmark (its smoke tests),
#              aplay, clang's libFuzzer, valgrind, and the AArch64 cross
#              toolchain with qemu-user and the arm64 libraries, pybind11,
#              numpy and pytest for the Python module, llvm-mca and speexdsp
#   --bench    Google Benchmark, llvm-mca and speexdsp
#   --quality  numpy and matplotlib for the quality report
# Idempotent: asks apt only for what is missing. Works as root or through sudo.
set -euo pipefail

pkgs=(cmake make g++ pkg-config libasound2-dev libsndfile1-dev sox libasound2-plugins)
cross=0
for arg in "$@"; do
  case "$arg" in
    --test)
      pkgs+=(binutils libgtest-dev libgmock-dev libbenchmark-dev alsa-utils
             clang libclang-rt-14-dev valgrind
             g++-aarch64-linux-gnu qemu-user libstdc++6:arm64 libasound2-dev:arm64 libsndfile1-dev:arm64
             libgtest-dev:arm64 libgmock-dev:arm64
             python3-dev python3-pybind11 pybind11-dev python3-numpy python3-pytest
             llvm-19 libspeexdsp-dev)  # the cost estimate's llvm-mca; speexdsp, a comparison in bench/
      cross=1 ;;
    --bench) pkgs+=(libbenchmark-dev llvm-19 libspeexdsp-dev) ;;
    --quality) pkgs+=(python3-numpy python3-matplotlib) ;;
    *) echo "setup: unknown option $arg" >&2; exit 2 ;;
  esac
done

sudo=()
[ "$(id -u)" -ne 0 ] && sudo=(sudo)

# The arm64 libraries come from Debian's multiarch archive.
if [ "$cross" -eq 1 ] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
  "${sudo[@]}" dpkg --add-architecture arm64
fi

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}"
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
