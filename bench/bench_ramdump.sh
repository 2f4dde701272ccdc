#!/usr/bin/env bash
# The per-device ramdump copy against dd bs=32k on the same 1 GiB source in
# the same run, both ending with an fsync of their file. The source is a
# sparse file (default) or a FIFO fed from /dev/zero. Prints the medians and
# the throughput ratio dump / dd, and one BENCH_ROW line. Goal: >= 0.9.
#
#   bench/bench_ramdump.sh [BUILD_DIR] [RUNS] [sparse|fifo]
#   VORN_BENCH_DIR=DIR    the file system to write to (default BUILD_DIR)
set -euo pipefail
. "$(dirname "$0")/lib.sh"
build=${1:-build}
runs=${2:-$(bench_runs)}
source_kind=${3:-sparse}
size=$((1 << 30))
dir=$(realpath "${VORN_BENCH_DIR:-$build}")
work=$(mktemp -d "$dir/vorn-bench-ramdump-XXXXXX")
feeder=
trap '[ -n "$feeder" ] && kill "$feeder" 2>/dev/null; rm -rf "$work"' EXIT
mkdir -p "$work/root/dev"
src=$work/root/dev/ramdump_bench

case $source_kind in
  sparse) truncate -s "$size" "$src" ;;
  fifo) mkfifo "$src" ;;
  *) echo "unknown source kind $source_kind" >&2; exit 2 ;;
esac

# Starts a writer of the whole size into the FIFO for the next reader.
feed() {
  if [ "$source_kind" = fifo ]; then
    head -c "$size" /dev/zero >"$src" &
    feeder=$!
  fi
}
settle() {
  if [ -n "$feeder" ]; then wait "$feeder" || true; feeder=; fi
  sync
}

echo "bench_ramdump: 1 GiB $source_kind source, writing to $dir ($(df -T "$dir" | awk 'NR==2 {print $2}'))"
dump_times=()
dd_times=()
for _ in $(seq "$runs"); do
  settle
  feed
  out=$("$build/bench_ramdump" "$work/root" ramdump_bench)
  bytes=$(sed -n 's/^bytes=//p' <<<"$out")
  [ "$bytes" = "$size" ] || { echo "dump copied $bytes bytes, not $size" >&2; exit 1; }
  dump_times+=("$(sed -n 's/^dump_ms=//p' <<<"$out")")

  settle
  feed
  start=${EPOCHREALTIME//[.,]/}
  dd if="$src" of="$work/dd.bin" bs=32k conv=fsync status=none
  end=${EPOCHREALTIME//[.,]/}
  dd_times+=("$(awk -v u=$((end - start)) 'BEGIN { printf "%.1f", u / 1000 }')")
  rm -f "$work/dd.bin"
done
settle

median() { printf '%s\n' "$@" | sort -n | sed -n "$((($# + 1) / 2))p"; }
dump_ms=$(median "${dump_times[@]}")
dd_ms=$(median "${dd_times[@]}")
echo "dump runs (ms): ${dump_times[*]}"
echo "dd runs (ms):   ${dd_times[*]}"
awk -v d="$dump_ms" -v p="$dd_ms" -v s="$size" 'BEGIN {
  printf "dump_ms_median=%s dd_ms_median=%s\n", d, p
  printf "dump %.0f MB/s, dd %.0f MB/s\n", s / d / 1000, s / p / 1000
  r = p / d
  printf "throughput ratio dump / dd: %.3f (goal >= 0.9): %s\n", r, (r >= 0.9 ? "met" : "MISSED")
}'
mbps() { for ms in "$@"; do awk -v s="$size" -v m="$ms" 'BEGIN { printf "%.1f\n", s / m / 1000 }'; done; }
bench_row "ramdump, 1 GiB $source_kind device to its file" "MB/s" higher "ratio>=0.9" \
  "dd bs=32k conv=fsync from the same device" "$(bench_join $(mbps "${dump_times[@]}"))" \
  "$(bench_join $(mbps "${dd_times[@]}"))" "bench/bench_ramdump.sh build-rel 5 $source_kind"
