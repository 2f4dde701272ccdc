#!/usr/bin/env bash
# The collector's per-device dump against dd bs=32k, both reading a 1 GiB
# ramdump from the same device in the same run and ending with an fsync of
# their file. The device is the simulated phone's /dev/ramdump_modem (vornsim
# up; each side reads the dump of a crash injected just before it, to end of
# file); "sparse" and "fifo" read a sparse file or a FIFO fed from /dev/zero
# instead. The two sides take turns going first. Prints the medians, the
# throughput ratio dump / dd, and one BENCH_ROW line. Goal: >= 0.9.
#
#   bench/bench_ramdump.sh [BUILD_DIR] [RUNS] [sim|sparse|fifo]
#   VORN_BENCH_DIR=DIR    the file system to write to (default BUILD_DIR)
set -euo pipefail
. "$(dirname "$0")/lib.sh"
build=${1:-build}
runs=${2:-$(bench_runs)}
source_kind=${3:-sim}
size=$((1 << 30))
dir=$(realpath "${VORN_BENCH_DIR:-$build}")
work=$(mktemp -d "$dir/vorn-bench-ramdump-XXXXXX")
root=$work/root
feeder=
sim_up=
cleanup() {
  [ -n "$feeder" ] && kill "$feeder" 2>/dev/null
  [ -n "$sim_up" ] && "$build/vornsim" down "$root" >/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
cmd="bench/bench_ramdump.sh $build"
[ "$source_kind" = sim ] || cmd="$cmd $runs $source_kind"
row="ramdump, 1 GiB $source_kind device to its file"
[ "$source_kind" = sim ] && row="ramdump, 1 GiB from the simulated phone's device to its file"
peer_name="dd bs=32k conv=fsync from the same device"

case $source_kind in
  sim)
    device=ramdump_modem
    "$build/vornsim" create "$root" >/dev/null
    if ! up=$("$build/vornsim" up "$root" 2>&1); then
      echo "bench_ramdump: the simulated phone does not come up here: $up" >&2
      bench_row_unavailable "$row" "MB/s" "$peer_name" "$cmd" "no FUSE"
      exit 0
    fi
    sim_up=1
    ;;
  sparse | fifo)
    device=ramdump_bench
    mkdir -p "$root/dev"
    if [ "$source_kind" = sparse ]; then truncate -s "$size" "$root/dev/$device"; else mkfifo "$root/dev/$device"; fi
    ;;
  *) echo "unknown source kind $source_kind" >&2; exit 2 ;;
esac
src=$root/dev/$device

# Makes the next reader of the device find a whole dump.
feed() {
  case $source_kind in
    sim) "$build/vornsim" crash "$root" modem --size "$size" --elf ;;
    fifo)
      head -c "$size" /dev/zero >"$src" &
      feeder=$!
      ;;
  esac
}
settle() {
  if [ -n "$feeder" ]; then wait "$feeder" || true; feeder=; fi
  sync
}
run_dump() {
  settle
  feed
  local out bytes
  out=$("$build/bench_ramdump" "$root" "$device")
  bytes=$(bench_get bytes <<<"$out")
  [ "$bytes" = "$size" ] || { echo "dump copied $bytes bytes, not $size" >&2; exit 1; }
  dump_times+=("$(bench_get dump_ms <<<"$out")")
}
run_dd() {
  settle
  feed
  local start end
  start=${EPOCHREALTIME//[.,]/}
  dd if="$src" of="$work/dd.bin" bs=32k conv=fsync status=none
  end=${EPOCHREALTIME//[.,]/}
  [ "$(stat -c %s "$work/dd.bin")" = "$size" ] || { echo "dd copied $(stat -c %s "$work/dd.bin") bytes" >&2; exit 1; }
  dd_times+=("$(awk -v u=$((end - start)) 'BEGIN { printf "%.1f", u / 1000 }')")
  rm -f "$work/dd.bin"
}

echo "bench_ramdump: 1 GiB $source_kind source, writing to $dir ($(df -T "$dir" | awk 'NR==2 {print $2}'))"
dump_times=()
dd_times=()
for run in $(seq "$runs"); do
  if [ $((run % 2)) = 1 ]; then run_dump; run_dd; else run_dd; run_dump; fi
  echo "run $run: dump ${dump_times[-1]} ms, dd ${dd_times[-1]} ms"
done
settle

median() { printf '%s\n' "$@" | sort -n | sed -n "$((($# + 1) / 2))p"; }
dump_ms=$(median "${dump_times[@]}")
dd_ms=$(median "${dd_times[@]}")
awk -v d="$dump_ms" -v p="$dd_ms" -v s="$size" 'BEGIN {
  printf "dump_ms_median=%s dd_ms_median=%s\n", d, p
  printf "dump %.0f MB/s, dd %.0f MB/s\n", s / d / 1000, s / p / 1000
  r = p / d
  printf "throughput ratio dump / dd: %.3f (goal >= 0.9): %s\n", r, (r >= 0.9 ? "met" : "MISSED")
}'
mbps() { for ms in "$@"; do awk -v s="$size" -v m="$ms" 'BEGIN { printf "%.1f\n", s / m / 1000 }'; done; }
note=
[ "$source_kind" = sim ] &&
  note="a modem crash before each side; the collector's ssr_dump_device on the polled device"
bench_row "$row" "MB/s" higher "ratio>=0.9" "$peer_name" "$(bench_join $(mbps "${dump_times[@]}"))" \
  "$(bench_join $(mbps "${dd_times[@]}"))" "$cmd" "$note"
