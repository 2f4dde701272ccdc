#!/usr/bin/env bash
# Sourced by the bench_*.sh drivers: the run count and the result line that
# bench/run turns into a row of BENCHMARKS.md (the format is described at the
# top of bench/run).

# Runs per row: VORN_BENCH_RUNS, default 5.
bench_runs() { echo "${VORN_BENCH_RUNS:-5}"; }

# The value of KEY in "KEY=value" lines on standard input.
bench_get() { sed -n "s/^$1=//p" | head -n 1; }

# bench_row ROW UNIT BETTER GOAL PEER_NAME DAEMON PEER CMD [NOTE]
#   DAEMON and PEER: the figures of every run, comma-separated.
bench_row() {
  printf 'BENCH_ROW\trow=%s\tunit=%s\tbetter=%s\tgoal=%s\tpeer_name=%s\tdaemon=%s\tpeer=%s\tcmd=%s\tnote=%s\n' \
    "$1" "$2" "$3" "$4" "$5" "$6" "$7" "$8" "${9:-}"
}

# bench_row_unavailable ROW UNIT PEER_NAME CMD STATUS
#   A row that could not be measured here; STATUS ("no FUSE") says why.
bench_row_unavailable() {
  printf 'BENCH_ROW\trow=%s\tunit=%s\tbetter=-\tgoal=-\tpeer_name=%s\tdaemon=\tpeer=\tcmd=%s\tstatus=%s\n' \
    "$1" "$2" "$3" "$4" "$5"
}

# Joins its arguments with commas.
bench_join() {
  local IFS=,
  echo "$*"
}
