#!/usr/bin/env bash
# Idle cost: vornd with every row of its register table enabled and every
# provider silent, against an idle `sleep`, over a window of 60 s after the
# workers have settled: resident memory, CPU and wake-ups per second. The runs
# are instances side by side, each in its own root. Prints one BENCH_ROW line
# per row, and the wake-ups of every thread of the first daemon.
#   bench/bench_idle.sh [BUILD_DIR]   (VORN_BENCH_RUNS instances, default 5;
#                                      VORN_BENCH_IDLE_SECONDS, default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
build=${1:-build}
secs=${VORN_BENCH_IDLE_SECONDS:-60}
out=$("$build/bench_idle" --vornd "$build/vornd" --seconds "$secs" --runs "$(bench_runs)")
grep -v '^run=' <<<"$out"
col() { grep '^run=' <<<"$out" | tr ' ' '\n' | sed -n "s/^$1=//p" | paste -sd,; }
# Wake-ups per second by kind of thread, from the first daemon's table.
polls=$(awk '/^thread / { name = $2; sub(/_.*/, "", name); if ($2 ~ /^vornd_/) name = $2;
                          rate[name] += $(NF - 1) }
             END { for (n in rate) if (rate[n] > 0) printf "%s %.1f/s; ", n, rate[n] }' <<<"$out")
cmd="bench/bench_idle.sh $build"
bench_row "idle: resident memory" "MiB" lower "daemon<8" "sleep" "$(col vornd_rss_mib)" \
  "$(col sleep_rss_mib)" "$cmd" "15 nodes, every row of the register table, enabled and silent"
bench_row "idle: CPU" "% of a core" lower "daemon<0.5" "sleep" "$(col vornd_cpu_pct)" \
  "$(col sleep_cpu_pct)" "$cmd" "over ${secs} s"
bench_row "idle: wake-ups" "per s" lower "-" "sleep" "$(col vornd_wakeups_per_s)" \
  "$(col sleep_wakeups_per_s)" "$cmd" "by thread: ${polls%; }"
