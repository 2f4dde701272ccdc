#!/usr/bin/env bash
# Type-1 queries per second and p99 latency of vornd against a minimal
# Unix-socket server answering 256 bytes, in the same run, and what a query's
# debug log lines cost against the query, all on one core. Prints one
# BENCH_ROW line per row.
#   bench/bench_socket.sh [BUILD_DIR]   (VORN_BENCH_RUNS runs, default 5;
#                                        VORN_BENCH_QUERIES per side and run, default 4000)
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
build=${1:-build}
# Client and both servers share one core: on two, whether the scheduler puts
# a server beside its client or across from it doubles its latency from run
# to run, for either server, and the ratio measured that instead of the
# servers (0.5 to 0.93 in one afternoon).
pin=()
command -v taskset >/dev/null && pin=(taskset -c 0)
out=$("${pin[@]}" "$build/bench_socket" "$build/vornd" "${VORN_BENCH_QUERIES:-4000}" "$(bench_runs)")
grep -v '^run=' <<<"$out"
# The figure of one key in every run, comma-separated.
col() { grep '^run=' <<<"$out" | tr ' ' '\n' | sed -n "s/^$1=//p" | paste -sd,; }
cmd="bench/bench_socket.sh $build"
bench_row "socket, type-1 queries" "queries/s" higher "ratio>=0.8" "minimal Unix-socket server" \
  "$(col vornd_qps)" "$(col peer_qps)" "$cmd"
bench_row "socket, type-1 query p99" "us" lower "ratio<=1.5" "minimal Unix-socket server" \
  "$(col vornd_p99_us)" "$(col peer_p99_us)" "$cmd"
bench_row "socket, debug log lines of one query" "us" lower "ratio<=1" "the query itself (vornd p50)" \
  "$(col log_us)" "$(col vornd_p50_us)" "$cmd" "eleven lines (the receipt, the node found, the eight-field dump, the send), formatted and written in one go"
