#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) in build-fuzz and
# runs each for the given number of seconds (default 15) from its seed corpus
# in tests/fuzz/corpus/<name>. A crash fails the script and leaves the
# reproducer in build-fuzz/crashes/<name>/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-15}

CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DVORN_FUZZ=ON -DVORN_TESTS=OFF \
  -DVORN_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j2

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
status=0
for bin in build-fuzz/fuzz_*; do
  [ -x "$bin" ] || continue
  name=${bin#build-fuzz/fuzz_}
  work=build-fuzz/corpus/$name
  crashes=build-fuzz/crashes/$name
  mkdir -p "$work" "$crashes"
  seeds=tests/fuzz/corpus/$name
  [ -d "$seeds" ] || seeds=
  echo "fuzz: $name for ${seconds}s"
  if ! "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 \
      -artifact_prefix="$crashes/" -print_final_stats=0 "$work" $seeds >"build-fuzz/$name.log" 2>&1; then
    echo "fuzz: $name FAILED; see build-fuzz/$name.log and $crashes/"
    tail -n 40 "build-fuzz/$name.log"
    status=1
  fi
done
exit $status
