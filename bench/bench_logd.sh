#!/usr/bin/env bash
# Logd capture end to end (fake logd -> logd worker -> rotated files) against
# a logcat-like peer reading the same stream from the same socket (liblog's
# threadtime formatting into a file), and against liblog's own in-memory
# process-and-format loop (the ceiling), in one run. Prints one BENCH_ROW line
# per row.
#
#   bench/bench_logd.sh [BUILD_DIR] [ENTRIES]   (VORN_BENCH_RUNS runs, default 5)
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
build=${1:-build}
[ -f "$build/build.ninja" ] || cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" --target bench_logd logcat_peer >/dev/null
out=$("$build/bench_logd" --entries "${2:-200000}" --runs "$(bench_runs)")
grep -v '^run=' <<<"$out"
col() { grep '^run=' <<<"$out" | tr ' ' '\n' | sed -n "s/^$1=//p" | paste -sd,; }
cmd="bench/bench_logd.sh $build"
bench_row "logd capture" "entries/s" higher "ratio>=0.9" "logcat-like peer (logcat_peer)" \
  "$(col capture_eps)" "$(col peer_eps)" "$cmd" "200,000 entries of the main and system buffers"
bench_row "logd capture, against the ceiling" "entries/s" higher "-" \
  "liblog's in-memory format loop" "$(col capture_eps)" "$(col liblog_eps)" "$cmd" \
  "the ceiling: no socket, no file; the bare socket reader alone reaches $(col bare_reader_eps | tr , ' ') entries/s"
