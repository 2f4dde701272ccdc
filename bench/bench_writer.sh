#!/usr/bin/env bash
# write_log_data against dd, roll-over against the shell commands it once
# took, and the pipe capture worker against cat, on the same file system in
# the same run, alternating run by run. Prints one BENCH_ROW line per row.
#
#   bench/bench_writer.sh [BUILD_DIR]     (default build; VORN_BENCH_RUNS runs, default 5)
#   VORN_BENCH_DIR=DIR                     the file system to write to (default BUILD_DIR)
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
build=${1:-build}
runs=$(bench_runs)
dir=$(realpath "${VORN_BENCH_DIR:-$build}")
peer=$(mktemp -d "$dir/vorn-peer-XXXXXX")
trap 'rm -rf "$peer"' EXIT
bin=$build/bench_writer
mib=64
echo "bench_writer: writing to $dir ($(df -T "$dir" | awk 'NR==2 {print $2}'))"

# dd's own rate in MB/s, from its closing line ("..., 0.0438 s, 1.5 GB/s").
dd_rate() {
  rm -f "$peer/dd"
  LC_ALL=C dd if=/dev/zero of="$peer/dd" bs=4096 count=$((mib * 256)) 2>&1 |
    awk -v b=$((mib << 20)) '/copied/ { for (i = 1; i <= NF; i++) if ($i == "s,") printf "%.1f", b / $(i - 1) / 1e6 }'
}

# Microseconds of the roll-over as a shell did it: a mkdir -p and a mv, the
# mean of 20.
shell_rollover_us() {
  local d=$peer/roll/W start
  mkdir -p "$d"
  : >"$d/w"
  start=${EPOCHREALTIME//[.,]/}
  for i in $(seq 20); do
    sh -c "mkdir -p $d && mv $d/w $d/w.$i && : > $d/w"
  done
  echo $(((${EPOCHREALTIME//[.,]/} - start) / 20))
}

plain=() dd=() rolled=() roll_us=() shell_us=() pipe=() cat=()
for run in $(seq "$runs"); do
  plain+=("$("$bin" write --dir "$dir" --mib $mib | bench_get mb_per_s)")
  dd+=("$(dd_rate)")
  out=$("$bin" write --dir "$dir" --mib $mib --budget $((10 << 20)))
  rolled+=("$(bench_get mb_per_s <<<"$out")")
  out=$("$bin" write --dir "$dir" --mib $mib --budget $((1 << 20)))
  roll_us+=("$(bench_get rollover_us <<<"$out")")
  shell_us+=("$(shell_rollover_us)")
  pipe+=("$("$bin" pipe --dir "$dir" --mib $mib | bench_get mb_per_s)")
  cat+=("$("$bin" cat --dir "$dir" --mib $mib | bench_get mb_per_s)")
  echo "run $run: writer ${plain[-1]} MB/s, dd ${dd[-1]} MB/s; with roll-over ${rolled[-1]} MB/s;" \
    "roll-over ${roll_us[-1]} us, shell ${shell_us[-1]} us; pipe ${pipe[-1]} MB/s, cat ${cat[-1]} MB/s"
done

cmd="bench/bench_writer.sh $build"
bench_row "writer, 4 KiB writes, each flushed" "MB/s" higher "ratio>=0.8" "dd bs=4096" \
  "$(bench_join "${plain[@]}")" "$(bench_join "${dd[@]}")" "$cmd"
bench_row "writer, 4 KiB writes, roll-over every 1 MiB" "MB/s" higher "ratio>=0.8" "dd bs=4096" \
  "$(bench_join "${rolled[@]}")" "$(bench_join "${dd[@]}")" "$cmd"
bench_row "roll-over (100 KiB files)" "us" lower "daemon<1000" "sh -c 'mkdir -p D && mv F F.n'" \
  "$(bench_join "${roll_us[@]}")" "$(bench_join "${shell_us[@]}")" "$cmd" \
  "time a roll-over adds to its write: new file, rename, prune to ten"
bench_row "pipe capture" "MB/s" higher "ratio>=0.5" "head -c | cat > file" \
  "$(bench_join "${pipe[@]}")" "$(bench_join "${cat[@]}")" "$cmd"
