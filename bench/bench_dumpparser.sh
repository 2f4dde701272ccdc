#!/usr/bin/env bash
# The dump parser against dd on a dump set of 4 GiB of sparse images with a
# 1 MiB kernel log: bytes read and time of a whole parse against dd reading
# just the log buffer at its offset. Goal: bytes read <= log length + 64 KiB.
# Prints one BENCH_ROW line per row (time and bytes read).
#   bench/bench_dumpparser.sh [BUILD_DIR] [RUNS]   (RUNS default VORN_BENCH_RUNS, else 5)
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
build=${1:-build}
runs=${2:-$(bench_runs)}
work=$(mktemp -d "${TMPDIR:-/tmp}/vorn-bench-dump-XXXXXX")
trap 'rm -rf "$work"' EXIT

# The broadcast goes to a silent am.
mkdir -p "$work/bin"
printf '#!/bin/sh\nexit 0\n' >"$work/bin/am"
chmod +x "$work/bin/am"
out=$(PATH="$work/bin:$PATH" "$build/bench_dumpparser" "$work/dump" "$runs")
echo "$out"
get() { bench_get "$1" <<<"$out"; }
log_len=$(get log_len)
log_offset=$(get log_offset)
image=$(get log_image)
read_bytes=$(get parse_read_bytes)
kmsg_bytes=$(get kmsg_bytes)
# The crash-reason scan reads back the kmsg.txt just written; the goal is
# about what is read from the dump itself.
dump_bytes=$((read_bytes - kmsg_bytes))
parse_ms=$(get parse_ms_median)
extract_ms=$(get extract_ms_median)

times=()
for _ in $(seq "$runs"); do
  t0=$(date +%s%N)
  dd if="$image" of=/dev/null bs=4096 iflag=skip_bytes,count_bytes skip="$log_offset" \
    count="$log_len" status=none
  t1=$(date +%s%N)
  times+=($(((t1 - t0) / 1000)))
done
dd_us=$(printf '%s\n' "${times[@]}" | sort -n | sed -n "$(((runs + 1) / 2))p")
dd_ms=$(awk -v u="$dd_us" 'BEGIN { printf "%.3f", u / 1000 }')

cmd="bench/bench_dumpparser.sh $build"
dd_runs=$(printf '%s\n' "${times[@]}" | awk '{ printf "%s%.3f", (NR > 1 ? "," : ""), $1 / 1000 }')
bench_row "dump parser, 4 GiB of images: time" "ms" lower "-" "dd of just the log buffer" \
  "$(get parse_ms_runs)" "$dd_runs" "$cmd" "a whole parse, broadcast included; dd reads only the 1 MiB log"
same() { for _ in $(seq "$runs"); do echo "$1"; done | paste -sd,; }
bench_row "dump parser, 4 GiB of images: bytes read" "bytes" lower "ratio<=1.0625" \
  "dd of just the log buffer" "$(same "$dump_bytes")" "$(same "$log_len")" "$cmd" \
  "goal: the log length + 64 KiB at most"
limit=$((log_len + 65536))
echo "dd_ms_median=$dd_ms"
awk -v b="$dump_bytes" -v t="$read_bytes" -v l="$log_len" -v p="$parse_ms" -v e="$extract_ms" \
  -v d="$dd_ms" 'BEGIN {
  printf "bytes read from the dump / log length: %.4f (%d over the log)\n", b / l, b - l
  printf "all bytes read, with the kmsg.txt scan / log length: %.4f\n", t / l
  printf "parse time / dd time: %.2f (extraction alone %.2f)\n", p / d, e / d
}'
if [ "$dump_bytes" -le "$limit" ]; then
  echo "goal met: $dump_bytes bytes from the dump <= log length + 64 KiB ($limit)"
else
  echo "goal MISSED: $dump_bytes bytes from the dump > log length + 64 KiB ($limit)"
  exit 1
fi
