#!/usr/bin/env bash
# Instructions per offline log line, the library against the tight floor, under
# callgrind (repeatable whatever else the machine does). The benchmark program is run
# directly in a throw-away device root, since valgrind cannot follow its re-exec. The
# queues are kept in process memory: valgrind 3.19 stops on an assertion of its own
# with the mapped queue file, and the append path runs the same instructions on both.
#   bench/count-instructions.sh build/plain/bench/logging_bench [lines]
set -euo pipefail
bin=$1
lines=${2:-200000}
root=$(mktemp -d /tmp/zudebug-count-XXXXXX)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/data/vendor/camera/offlinelog" "$root/peers"
touch "$root/poolblocker"
printf 'persist.vendor.camera.offlinedebug.mask=1\npersist.vendor.camera.offlinelog.pooldir=/poolblocker/pool\n' \
  >"$root/props.txt"
export ZUDEBUG_ROOT=$root ZUDEBUG_PROPS=$root/props.txt ZUDEBUG_LOGCAT=/dev/null ZUDEBUG_FREE_MB=100000
export ZUDEBUG_BENCH_ROOT=$root
count() {  # total instructions of one run
  valgrind --tool=callgrind --callgrind-out-file="$root/callgrind.out" "$bin" --loop "$1" "$2" 2>&1 |
    sed -n 's/.*Collected : \([0-9]*\).*/\1/p'
}
for which in lib floor; do
  small=$(count "$which" 10000)
  big=$(count "$which" "$lines")
  echo "$which: $(( (big - small) / (lines - 10000) )) instructions per line"
done
