#!/usr/bin/env bash
# Installs the Debian 12 packages the build, tests and benchmarks need.
#
# The arm64 build is cross-compiled with Debian's aarch64 toolchain and its tests run
# under qemu-aarch64 called by name (qemu-user without qemu-user-binfmt: no binfmt
# handler is registered). GoogleTest is built from Debian's sources with the cross
# compiler, RapidJSON is header-only; elfutils' libdw, which the log tool links, comes
# as Debian's arm64 multiarch package, so this script adds arm64 as a foreign
# architecture of dpkg.
set -euo pipefail
pkgs=(build-essential cmake ninja-build git clang clang-format clang-tidy
      libclang-rt-14-dev rapidjson-dev libgtest-dev libgmock-dev libbenchmark-dev
      libspdlog-dev libgoogle-glog-dev libunwind-14-dev
      pkgconf libdw-dev lnav chromium jq
      android-liblog-dev android-libcutils-dev android-libutils-dev android-libbacktrace-dev
      g++-aarch64-linux-gnu libc6-dev-arm64-cross qemu-user googletest libdw-dev:arm64)
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
dpkg --print-foreign-architectures | grep -qx arm64 || $SUDO dpkg --add-architecture arm64
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  $SUDO apt-get update
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
