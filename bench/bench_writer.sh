#!/usr/bin/env bash
# write_log_data against dd, and the pipe capture worker against cat, on the
# same file system in the same run; prints MB/s, files/s and the ratios.
#
#   bench/bench_writer.sh [BUILD_DIR]     (default build)
#   VORN_BENCH_DIR=DIR                     the file system to write to (default BUILD_DIR)
set -euo pipefail
build=${1:-build}
dir=$(realpath "${VORN_BENCH_DIR:-$build}")
json=$(mktemp)
peer=$(mktemp -d "$dir/vorn-peer-XXXXXX")
trap 'rm -rf "$json" "$peer"' EXIT

echo "bench_writer: writing to $dir ($(df -T "$dir" | awk 'NR==2 {print $2}'))"
VORN_BENCH_DIR=$dir "$build/bench_writer" --benchmark_out="$json" --benchmark_out_format=json

# Microseconds taken by a command line, from bash's own clock.
micros() {
  local start=${EPOCHREALTIME//[.,]/}
  bash -c "$1"
  echo $((${EPOCHREALTIME//[.,]/} - start))
}

total=$((64 << 20))
pipe_bytes=$((32 << 20))
dd_4096=$(micros "dd if=/dev/zero of=$peer/dd bs=4096 count=$((total / 4096)) status=none")
dd_50=$(micros "dd if=/dev/zero of=$peer/dd bs=50 count=$((total / 50)) status=none")
cat_us=$(micros "head -c $pipe_bytes /dev/zero | cat > $peer/cat")

python3 - "$json" "$total" "$pipe_bytes" "$dd_4096" "$dd_50" "$cat_us" <<'PY'
import json, sys
path, total, pipe_bytes = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
dd = {4096: total / (int(sys.argv[4]) / 1e6), 50: total / (int(sys.argv[5]) / 1e6)}
cat = pipe_bytes / (int(sys.argv[6]) / 1e6)
mb = lambda r: r / 1e6
print()
print(f"{'case':34} {'MB/s':>9} {'files/s':>9} {'peer MB/s':>10} {'ratio':>7}")
for b in json.load(open(path))["benchmarks"]:
    rate = b.get("bytes_per_second", 0)
    name = b["name"].replace("/real_time", "").replace("/iterations:1/manual_time", "")
    if name.startswith("BM_write_log_data/"):
        chunk = int(name.split("/")[1])
        peer = dd[chunk]
        print(f"{name:34} {mb(rate):9.1f} {b.get('files/s', 0):9.1f} "
              f"{mb(peer):10.1f} {rate / peer:7.2f}   (dd bs={chunk})")
    elif name.startswith("BM_pipe_capture/"):
        print(f"{name:34} {mb(rate):9.1f} {'':>9} {mb(cat):10.1f} {rate / cat:7.3f}   (cat > file)")
PY
