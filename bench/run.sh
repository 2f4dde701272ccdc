#!/usr/bin/env bash
# Builds the benchmarks and runs every bench/bench_*.sh driver; each prints
# its figures and the ratio against its peer tool.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j2
for driver in bench/bench_*.sh; do
  [ -f "$driver" ] || continue
  echo "== $driver"
  bash "$driver" build
done
