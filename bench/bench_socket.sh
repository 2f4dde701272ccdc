#!/usr/bin/env bash
# Type-1 queries per second and p99 latency of vornd against a minimal
# Unix-socket server answering 256 bytes, in the same run; prints the ratio.
#   bench/bench_socket.sh [BUILD_DIR]   (VORN_BENCH_QUERIES: queries per side, default 5000)
set -euo pipefail
build=${1:-build}
"$build/bench_socket" "$build/vornd" "${VORN_BENCH_QUERIES:-5000}"
