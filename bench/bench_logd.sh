#!/usr/bin/env bash
# Logd capture end to end (fake logd -> logd worker -> rotated files) against
# liblog's own process-and-format loop over the same entries, in one run:
# prints both rates in entries per second and the ratio capture / liblog
# (goal >= 0.5).
#
#   bench/bench_logd.sh [BUILD_DIR] [ENTRIES] [RUNS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
[ -f "$build/build.ninja" ] || cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" --target bench_logd >/dev/null
"$build/bench_logd" --entries "${2:-200000}" --runs "${3:-3}"
