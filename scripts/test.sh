#!/usr/bin/env bash
# Builds everything and runs every test: the unit and end-to-end tests under
# CTest (warnings are errors), then each libFuzzer target for a short while
# under ASan and UBSan.
#
#   VORN_FUZZ_SECONDS=N   seconds per fuzz target (default 15; 0 skips fuzzing)
#   VORN_TEST_JOBS=N      parallel CTest jobs (default 4: most tests sleep)
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh

cmake -S . -B build -G Ninja -DVORN_WERROR=ON >/dev/null
cmake --build build -j2
ctest --test-dir build --output-on-failure -j"${VORN_TEST_JOBS:-4}"

if [ "${VORN_FUZZ_SECONDS:-15}" != 0 ]; then
  ./scripts/fuzz.sh "${VORN_FUZZ_SECONDS:-15}"
fi
echo "test.sh: all tests passed"
