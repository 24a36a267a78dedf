#!/usr/bin/env bash
# Installs every build and test dependency from Debian's packages.
# Idempotent: asks apt only for what is missing. Works as root or through sudo.
set -euo pipefail

pkgs=(
  cmake make g++ pkg-config binutils
  libgtest-dev libgmock-dev libbenchmark-dev
  libasound2-dev libasound2-plugins libsndfile1-dev
  alsa-utils sox
  libasound2-plugins python3-numpy python3-matplotlib
  clang libclang-rt-14-dev valgrind  # fuzzing (libFuzzer) and leak checks
  llvm-19           # llvm-mca for the AArch64 cost estimate (scripts/arm-cost.sh)
  libspeexdsp-dev   # speexdsp's resampler, a comparison in bench/
)

# AArch64 cross build and its emulator (scripts/test.sh): Debian's cross
# compiler, qemu-user, and the arm64 libraries from the multiarch archive.
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  as_root=()
  [ "$(id -u)" -ne 0 ] && as_root=(sudo)
  "${as_root[@]}" dpkg --add-architecture arm64
fi
pkgs+=(g++-aarch64-linux-gnu qemu-user libstdc++6:arm64 libasound2-dev:arm64 libsndfile1-dev:arm64
      libgtest-dev:arm64 libgmock-dev:arm64)

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
[ "$(id -u)" -ne 0 ] && sudo=(sudo)
echo "setup: installing ${missing[*]}"
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
