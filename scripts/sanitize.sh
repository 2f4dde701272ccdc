#!/usr/bin/env bash
# Builds the tests with sanitizers and runs them under CTest.
#
#   ./scripts/sanitize.sh address   every test under ASan + UBSan (build-asan)
#   ./scripts/sanitize.sh thread    the tests that exercise the daemon's threads
#                                   under TSan (build-tsan)
#
# The end-to-end tests start the instrumented vornd of the same build, so the
# daemon's own threads run under the sanitizer too. Suppressions live in
# tests/sanitizers/, each with the reason beside it.
set -euo pipefail
cd "$(dirname "$0")/.."
kind=${1:?usage: sanitize.sh address|thread}
jobs=${VORN_TEST_JOBS:-4}
supp=$PWD/tests/sanitizers

case "$kind" in
  address)
    dir=build-asan
    flags=address,undefined
    # Leak checks on: every test process (and every vornctl or vornsim the
    # tests run) is checked as it exits. Objects that deliberately live as
    # long as the process are in lsan.supp, each with its reason.
    export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=0}
    export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$supp/lsan.supp:print_suppressions=0}
    export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1:suppressions=$supp/ubsan.supp}
    # Everything; the long worker suites run side by side as usual.
    filter=()
    ;;
  thread)
    dir=build-tsan
    flags=thread
    export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$supp/tsan.supp}
    # The tests whose code runs threads against each other: the dispatcher
    # and registry, concurrent archives, the socket, dispatch and hostile
    # end-to-end runs (the daemon is instrumented), the pipe worker and the
    # QMI client, the QDSS pipeline, and the simulated phone's devices (their readers block on
    # the file system's threads). The other worker suites repeat the same
    # thread pattern.
    filter=(-R '^(daemon_test|archive_test|qmi_test|crashdump_test|sim_test|capture_test_PipeWorker|qdss_test|qdss_test_QdssPipeline|e2e_sim_qdss_test|e2e_client_test|e2e_dispatch_test|e2e_hostile_test)$')
    ;;
  *)
    echo "sanitize.sh: unknown kind $kind (address or thread)" >&2
    exit 2
    ;;
esac

cmake -S . -B "$dir" -G Ninja -DVORN_WERROR=ON -DVORN_BENCH=OFF -DVORN_SANITIZE="$flags" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" -j2
ctest --test-dir "$dir" --output-on-failure -j"$jobs" "${filter[@]}"
echo "sanitize.sh: $kind clean"
