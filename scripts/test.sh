#!/usr/bin/env bash
# Builds everything and runs every test: the unit and end-to-end tests under
# CTest (warnings are errors), the unit tests again built for AArch64 and run
# under qemu-user, the whole suite under ASan + UBSan, the threaded tests under
# TSan, then each libFuzzer target under ASan + UBSan. On a 2-core machine:
# build ~1 min and CTest ~2 min, AArch64 ~5 min, ASan ~6 min, TSan ~5 min,
# fuzzing 7 targets two at a time ~5 min with 60 s each.
#
#   VORN_FUZZ_SECONDS=N   seconds per fuzz target (default 60; 0 skips fuzzing)
#   VORN_SANITIZERS=0     skips the ASan/UBSan and TSan runs
#   VORN_CROSS=0          skips the AArch64 build and its qemu run
#   VORN_TEST_JOBS=N      parallel CTest jobs (default 4: most tests sleep)
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh

cmake -S . -B build -G Ninja -DVORN_WERROR=ON >/dev/null
cmake --build build -j2
ctest --test-dir build --output-on-failure -j"${VORN_TEST_JOBS:-4}"

if [ "${VORN_CROSS:-1}" != 0 ]; then
  ./scripts/cross_test.sh
fi

if [ "${VORN_SANITIZERS:-1}" != 0 ]; then
  ./scripts/sanitize.sh address
  ./scripts/sanitize.sh thread
fi

if [ "${VORN_FUZZ_SECONDS:-60}" != 0 ]; then
  ./scripts/fuzz.sh "${VORN_FUZZ_SECONDS:-60}"
fi
echo "test.sh: all tests passed"
