#!/usr/bin/env bash
# Installs what is missing, builds and runs the tests of one kind of build:
# release (default: every test), asan (every test under ASan+UBSan) or tsan (the threaded
# tests under ThreadSanitizer).
set -euo pipefail

kind=${1:-release}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$kind"

filter=()
case "$kind" in
    tsan) filter=(-L threads) ;;
esac
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/tests/lsan.supp}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
# ThreadSanitizer sleeps a second at every process exit by default; a worker process that
# ends on purpose would then look hung to a test that allows one second of silence.
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:atexit_sleep_ms=0:suppressions=$root/tests/tsan.supp}
cd "$root/build/$kind"
ctest --output-on-failure -j "$(nproc)" "${filter[@]}"
