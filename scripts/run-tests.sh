#!/usr/bin/env bash
# The whole test suite: format check, then build and test in the plain,
# AddressSanitizer+UBSan and ThreadSanitizer builds, then the plain build cross-compiled
# for arm64 with every test run under qemu-aarch64, then a bounded fuzzing run.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh

echo "== format check =="
files=$(git ls-files '*.cpp' '*.h' 2>/dev/null || find common platform tests bench tools -name '*.cpp' -o -name '*.h')
clang-format --dry-run --Werror $files

jobs=$(nproc)
for preset in plain asan tsan; do
  echo "== $preset build =="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "== $preset tests =="
  ctest --preset "$preset" -j "$jobs"
done

echo "== arm64 build =="
cmake --preset arm64 >/dev/null
cmake --build --preset arm64 -j "$jobs"
echo "== arm64 tests =="
ctest --preset arm64 -j "$jobs"

echo "== platform headers =="
cmake --preset platform-headers >/dev/null
cmake --build --preset platform-headers -j "$jobs"
ctest --preset platform-headers

echo "== fuzzing (bounded) =="
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$jobs"
for fuzzer in build/fuzz/tests/fuzz/*_fuzz; do
  [ -x "$fuzzer" ] || continue
  name=$(basename "$fuzzer")
  corpus="build/fuzz/corpus/$name"
  mkdir -p "$corpus"
  seeds="tests/fuzz/seeds/$name"
  [ -d "$seeds" ] || seeds=""
  echo "-- $name"
  ZUDEBUG_LOGCAT=/dev/null UBSAN_OPTIONS="suppressions=$PWD/tests/fuzz/ubsan.supp:print_stacktrace=1" \
    "$fuzzer" -max_total_time="${ZUDEBUG_FUZZ_SECONDS:-60}" -max_len=65536 \
    -timeout=10 -rss_limit_mb=4096 "$corpus" $seeds
done
echo "== all tests passed =="
