#!/usr/bin/env bash
# The QDSS pipeline against dd bs=4096 on the trace device of a simulated
# phone (vornsim up, trace at 4 GiB/s: the device is never the one waiting),
# both in one bench_qdss process per run: throughput and CPU seconds per GiB,
# and the largest queue depth while running and while the writer is held up.
# Prints the figures and BENCH_ROW lines. Goal: throughput >= 0.9 of dd.
#
#   bench/bench_qdss.sh [BUILD_DIR] [RUNS] [MIB]    (defaults build, VORN_BENCH_RUNS, 256)
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
build=${1:-build}
runs=${2:-$(bench_runs)}
mib=${3:-256}
work=$(mktemp -d "$(realpath "$build")/vorn-bench-qdss-XXXXXX")
root=$work/phone
trap '"$build/vornsim" down "$root" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT

"$build/vornsim" create "$root" >/dev/null
"$build/vornsim" up "$root" >/dev/null
"$build/vornsim" trace "$root" --rate 4096 >/dev/null
export PATH=$root/system/bin:$PATH  # the phone's stop and start, for the mask's ETM line
echo "bench_qdss: $mib MiB a run from $root/dev/byte-cntr"

qdss=() dd=() qcpu=() dcpu=() running=() held=()
for _ in $(seq "$runs"); do
  out=$("$build/bench_qdss" "$root" "$mib")
  echo "$out" | tr '\n' ' '
  echo
  qdss+=("$(bench_get qdss_mbps <<<"$out")")
  dd+=("$(bench_get dd_mbps <<<"$out")")
  qcpu+=("$(bench_get qdss_cpu_s_per_gib <<<"$out")")
  dcpu+=("$(bench_get dd_cpu_s_per_gib <<<"$out")")
  running+=("$(bench_get depth_running <<<"$out")")
  held+=("$(bench_get depth_held <<<"$out")")
  max_pages=$(bench_get max_pages <<<"$out")
done

median() { printf '%s\n' "$@" | sort -n | sed -n "$((($# + 1) / 2))p"; }
q=$(median "${qdss[@]}")
d=$(median "${dd[@]}")
awk -v q="$q" -v d="$d" 'BEGIN {
  r = q / d
  printf "qdss %.1f MB/s, dd %.1f MB/s: ratio %.3f (goal >= 0.9): %s\n", q, d, r, (r >= 0.9 ? "met" : "MISSED")
}'
depth="largest queue depth: $(median "${running[@]}") blocks while streaming (largest ${running[*]}),"
depth+=" $(median "${held[@]}") with the writer held up 3 s by a failed write (bound: $max_pages blocks, 10 MiB)"
echo "$depth"
cmd="bench/bench_qdss.sh build-rel $runs $mib"
bench_row "QDSS trace, simulated device to rotated files (10 MiB budget)" "MB/s" higher "ratio>=0.9" \
  "dd bs=4096 from the same device, one file" "$(bench_join "${qdss[@]}")" "$(bench_join "${dd[@]}")" \
  "$cmd" "$depth"
bench_row "QDSS trace CPU" "CPU s/GiB" lower "-" "dd bs=4096 from the same device" \
  "$(bench_join "${qcpu[@]}")" "$(bench_join "${dcpu[@]}")" "$cmd"
