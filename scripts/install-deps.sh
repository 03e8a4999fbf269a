#!/usr/bin/env bash
# Installs the Debian 12 packages the build, tests and benchmarks need.
set -euo pipefail
pkgs=(build-essential cmake ninja-build git clang clang-format clang-tidy
      libclang-rt-14-dev rapidjson-dev libgtest-dev libgmock-dev libbenchmark-dev
      libspdlog-dev libgoogle-glog-dev libunwind-14-dev
      pkgconf libdw-dev lnav chromium jq
      android-liblog-dev android-libcutils-dev android-libutils-dev android-libbacktrace-dev)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
