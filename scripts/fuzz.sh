#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) in build-fuzz and
# runs each for the given number of seconds (default 15), two at a time,
# from its seed corpus tests/fuzz/corpus/<name>. Inputs that once crashed a
# target are kept in tests/fuzz/regressions/<name>/ and replayed first on
# every run. A new crash fails the script; its reproducer is copied into
# tests/fuzz/regressions/<name>/ to be committed with the fix.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-15}
parallel=${VORN_FUZZ_PARALLEL:-2}

CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DVORN_FUZZ=ON -DVORN_TESTS=OFF \
  -DVORN_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j2

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# Runs one target; 0 when it found nothing.
run_target() {
  local bin=$1 name=${1#build-fuzz/fuzz_}
  local work=build-fuzz/corpus/$name crashes=build-fuzz/crashes/$name
  local seeds=tests/fuzz/corpus/$name regress=tests/fuzz/regressions/$name
  mkdir -p "$work" "$crashes"
  local dirs=("$work")
  [ -d "$seeds" ] && dirs+=("$seeds")
  # Known crashers first: each must pass before the search starts.
  if [ -d "$regress" ] && [ -n "$(ls -A "$regress")" ]; then
    if ! "$bin" -runs=0 "$regress" >"build-fuzz/$name.regress.log" 2>&1; then
      echo "fuzz: $name FAILED on a kept regression input; see build-fuzz/$name.regress.log"
      tail -n 40 "build-fuzz/$name.regress.log"
      return 1
    fi
  fi
  if ! "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="$crashes/" -print_final_stats=0 "${dirs[@]}" >"build-fuzz/$name.log" 2>&1; then
    mkdir -p "$regress"
    cp "$crashes"/* "$regress"/ 2>/dev/null || true
    echo "fuzz: $name FAILED; see build-fuzz/$name.log; reproducer kept in $regress/"
    tail -n 40 "build-fuzz/$name.log"
    return 1
  fi
  echo "fuzz: $name clean after ${seconds}s"
}

status=0
pids=()
for bin in build-fuzz/fuzz_*; do
  [ -x "$bin" ] || continue
  run_target "$bin" &
  pids+=($!)
  if [ "${#pids[@]}" -ge "$parallel" ]; then
    wait "${pids[0]}" || status=1
    pids=("${pids[@]:1}")
  fi
done
for pid in "${pids[@]}"; do
  wait "$pid" || status=1
done
exit $status
