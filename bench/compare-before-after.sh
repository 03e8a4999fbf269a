#!/bin/sh
# Runs two builds of a Google Benchmark program alternately, so that both see the same
# machine state, and prints per build and benchmark the median and the min-max of every
# repetition of every round (wall and CPU time per iteration).
#
#   bench/compare-before-after.sh BEFORE_BIN AFTER_BIN [ROUNDS] [-- BENCHMARK_ARGS...]
#
# Defaults: 5 rounds; each run is
#   --benchmark_filter='^BM_LogSystem/' --benchmark_min_time=0.5 --benchmark_repetitions=3
# and anything after "--" is appended (a later --benchmark_filter wins). Set KEEP=DIR to
# keep the per-run CSV files there.
set -eu

if [ $# -lt 2 ]; then
  echo "usage: $0 BEFORE_BIN AFTER_BIN [ROUNDS] [-- BENCHMARK_ARGS...]" >&2
  exit 2
fi
before=$(realpath "$1")
after=$(realpath "$2")
shift 2
rounds=5
if [ $# -gt 0 ] && [ "$1" != "--" ]; then
  rounds=$1
  shift
fi
[ $# -gt 0 ] && [ "$1" = "--" ] && shift

out=${KEEP:-$(mktemp -d)}
mkdir -p "$out"
out=$(realpath "$out")

i=1
while [ "$i" -le "$rounds" ]; do
  # Alternate which build goes first, so neither always runs on a warmer machine.
  if [ $((i % 2)) -eq 1 ]; then order="before after"; else order="after before"; fi
  for label in $order; do
    if [ "$label" = before ]; then bin=$before; else bin=$after; fi
    echo "round $i/$rounds: $label" >&2
    # The programs re-run themselves in another working directory: absolute output path.
    "$bin" --benchmark_filter='^BM_LogSystem/' --benchmark_min_time=0.5 --benchmark_repetitions=3 \
      "$@" --benchmark_out="$out/$label-$i.csv" --benchmark_out_format=csv >/dev/null
  done
  i=$((i + 1))
done

echo "load average after the runs: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "per-run CSV files: $out"
printf '%-8s %-44s %5s %4s %24s %24s\n' build benchmark runs unit "wall median [min-max]" \
  "CPU median [min-max]"
for label in before after; do
  # Repetition rows only (the aggregates end in _mean, _median, _stddev, _cv).
  cat "$out/$label"-*.csv | awk -F, -v label="$label" '
    $1 ~ /^"BM_/ && $1 !~ /_(mean|median|stddev|cv)"$/ && $9 != "true" {
      name = $1; gsub(/"/, "", name)
      n[name]++; wall[name, n[name]] = $3; cpu[name, n[name]] = $4; unit[name] = $5
    }
    function stats(arr, name, k,   i, j, v, t) {
      for (i = 1; i <= k; i++) v[i] = arr[name, i]
      for (i = 2; i <= k; i++) { t = v[i]; for (j = i - 1; j >= 1 && v[j] > t; j--) v[j + 1] = v[j]; v[j + 1] = t }
      med = (k % 2) ? v[(k + 1) / 2] : (v[k / 2] + v[k / 2 + 1]) / 2
      return sprintf("%.0f [%.0f-%.0f]", med, v[1], v[k])
    }
    END {
      for (name in n) printf "%-8s %-44s %5d %4s %24s %24s\n", label, name, n[name], unit[name], stats(wall, name, n[name]), stats(cpu, name, n[name])
    }' | sort -k2,2
done
