#!/usr/bin/env bash
# Cost per offline log line: the library, the tight floor, spdlog sync and async (1 and
# 2 threads), and the library with its queues in process memory instead of the mapped
# queue file, run in turns so that every variant sees the same machine. Each round runs
# every variant once (a fresh process each, in a new order every round); ratios are
# taken within a round, then summarised over the rounds. Each run starts after a sync.
#   bench/interleave-lines.sh build/plain/bench/logging_bench [rounds] [seconds per run]
set -euo pipefail
bin=$1
rounds=${2:-7}
min_time=${3:-0.3}
export ZUDEBUG_LOGCAT=/dev/null
variants=(lib:1 lib:2 floor:1 floor:2 sync:1 sync:2 async:1 async:2 anon:1 anon:2)
out=$(mktemp)
trap 'rm -f "$out"' EXIT

filter() {
  case $1 in
  lib | anon) echo "^BM_LogSystem/real_time/threads:$2\$" ;;
  floor) echo "^BM_Floor/real_time/threads:$2\$" ;;
  sync) echo "^BM_SpdlogSyncRotating/real_time/threads:$2\$" ;;
  async) echo "^BM_SpdlogAsyncRotating/real_time/threads:$2\$" ;;
  esac
}

for ((r = 0; r < rounds; r++)); do
  n=${#variants[@]}
  for ((i = 0; i < n; i++)); do
    v=${variants[$(((i + r * 3) % n))]}
    name=${v%:*}
    threads=${v#*:}
    extra=()
    [ "$name" = anon ] && extra=(--pool=anon)
    # Each run starts with no dirty pages of the runs before it: their writeback would
    # otherwise take CPU from whichever variant runs next.
    sync
    # CSV: name,iterations,real_time,cpu_time,time_unit,...,flush_cpu_ns/line (if any)
    "$bin" "${extra[@]}" --benchmark_filter="$(filter "$name" "$threads")" --benchmark_min_time="$min_time" \
      --benchmark_format=csv 2>/dev/null | awk -F, -v r="$r" -v v="$v" '
        NR == 1 { for (c = 1; c <= NF; c++) if ($c ~ /flush_cpu/) fc = c; next }
        /^"BM_/ { print r, v, $3, $4, (fc ? $fc : "") }' >>"$out"
  done
done

awk -v rounds="$rounds" '
function sortv(a, n,   i, j, t) { for (i = 2; i <= n; i++) { t = a[i]; for (j = i - 1; j >= 1 && a[j] > t; j--) a[j + 1] = a[j]; a[j + 1] = t } }
function summary(a, n,   m) { sortv(a, n); m = (n % 2) ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
  return sprintf("%.0f [%.0f-%.0f]", m, a[1], a[n]) }
function rsummary(a, n,   m) { sortv(a, n); m = (n % 2) ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
  return sprintf("%.2f [%.2f-%.2f]", m, a[1], a[n]) }
{ wall[$1, $2] = $3; cpu[$1, $2] = $4; flush[$1, $2] = $5; seen[$2] = 1 }
END {
  split("lib:1 lib:2 floor:1 floor:2 sync:1 sync:2 async:1 async:2 anon:1 anon:2", order, " ")
  printf "%-9s %-22s %-22s %-22s\n", "variant", "wall ns/line", "CPU ns/line/thread", "flush CPU ns/line"
  for (k = 1; k <= 10; k++) {
    v = order[k]; if (!(v in seen)) continue
    n = 0; delete w; delete c; delete f
    for (r = 0; r < rounds; r++) if ((r, v) in wall) { n++; w[n] = wall[r, v]; c[n] = cpu[r, v]; f[n] = flush[r, v] }
    printf "%-9s %-22s %-22s %-22s\n", v, summary(w, n), summary(c, n), (f[1] != "" ? summary(f, n) : "-")
  }
  print ""
  print "ratios within a round, median [min-max] over the rounds:"
  split("lib:1/floor:1 lib:2/floor:2 lib:1/sync:1 lib:2/sync:2 lib:1/async:1 lib:2/async:2 anon:1/lib:1 anon:2/lib:2", pairs, " ")
  for (k = 1; k <= 8; k++) {
    split(pairs[k], p, "/"); n = 0; delete q
    for (r = 0; r < rounds; r++) if ((r, p[1]) in wall && (r, p[2]) in wall) { n++; q[n] = wall[r, p[1]] / wall[r, p[2]] }
    if (n) printf "  %-16s %s (wall per line)\n", pairs[k], rsummary(q, n)
  }
  split("lib floor sync async anon", names, " ")
  for (k = 1; k <= 5; k++) {
    n = 0; delete q
    for (r = 0; r < rounds; r++) if ((r, names[k] ":1") in wall && (r, names[k] ":2") in wall) { n++; q[n] = wall[r, names[k] ":1"] / wall[r, names[k] ":2"] }
    if (n) printf "  %-16s %s (2-thread throughput / 1-thread)\n", names[k] " 2t/1t", rsummary(q, n)
  }
}' "$out"
