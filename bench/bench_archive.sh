#!/usr/bin/env bash
# mini_zip against Info-ZIP's `zip -r -6` on the same generated input (200 MB
# of kernel-log and logcat text, a 100 MB ramdump-like binary) in one run:
# wall time and archive size of each, run by run. Prints one BENCH_ROW line
# per row.
#
#   bench/bench_archive.sh [BUILD_DIR]     (VORN_BENCH_RUNS runs, default 5)
#
# The input is generated once into BUILD_DIR/bench-archive-data and reused.
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
build=${1:-build}
command -v zip >/dev/null || { echo "bench_archive: zip is missing (scripts/setup.sh)" >&2; exit 1; }
[ -f "$build/build.ninja" ] || cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" --target bench_archive >/dev/null
# The upload notice goes to the recording am, whose log is dropped.
out=$(PATH="$PWD/tools/demo/bin:$PATH" VORN_AM_LOG=/dev/null \
  "$build/bench_archive" --data "$build/bench-archive-data" --runs "$(bench_runs)")
grep -v '^run=' <<<"$out"
col() { grep '^run=' <<<"$out" | tr ' ' '\n' | sed -n "s/^$1=//p" | paste -sd,; }
cmd="bench/bench_archive.sh $build"
bench_row "archive, 300 MB of logs and a ramdump" "s" lower "ratio<=1" "zip -r -6" \
  "$(col mini_zip_s)" "$(col zip_s)" "$cmd"
bench_row "archive size" "bytes" lower "ratio<=1.01" "zip -r -6" \
  "$(col mini_zip_bytes)" "$(col zip_bytes)" "$cmd"
