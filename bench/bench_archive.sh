#!/usr/bin/env bash
# mini_zip against Info-ZIP's `zip -r -6` on the same generated input (200 MB
# of kernel-log and logcat text, a 100 MB ramdump-like binary) in one run:
# prints wall and CPU time, archive sizes and the ratios mini_zip / zip.
#
#   bench/bench_archive.sh [BUILD_DIR]     (VORN_BENCH_RUNS=N runs, default 3)
#
# The input is generated once into BUILD_DIR/bench-archive-data and reused.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
command -v zip >/dev/null || { echo "bench_archive: zip is missing (scripts/setup.sh)" >&2; exit 1; }
[ -f "$build/build.ninja" ] || cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" --target bench_archive >/dev/null
# The upload notice goes to the recording am, whose log is dropped.
PATH="$PWD/tools/demo/bin:$PATH" VORN_AM_LOG=/dev/null \
  "$build/bench_archive" --data "$build/bench-archive-data" --runs "${VORN_BENCH_RUNS:-3}"
