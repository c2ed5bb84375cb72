#!/usr/bin/env bash
# Configures and builds one kind of build: release (default), asan (ASan+UBSan), tsan or
# fuzz, in build/<kind>. The test clips live in build/testmedia, shared by all kinds.
set -euo pipefail

kind=${1:-release}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build/$kind"
common=(-DTARVOQC_TEST_MEDIA_DIR="$root/build/testmedia" -DTARVOQC_BUILD_UI="${TARVOQC_BUILD_UI:-ON}"
        -DCMAKE_EXPORT_COMPILE_COMMANDS=ON)

case "$kind" in
    release) args=(-DCMAKE_BUILD_TYPE=Release) ;;
    asan) args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVOQC_SANITIZE=address) ;;
    tsan) args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVOQC_SANITIZE=thread) ;;
    fuzz) args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVOQC_SANITIZE=address
                -DTARVOQC_BUILD_FUZZERS=ON -DTARVOQC_BUILD_TESTS=OFF -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++) ;;
    *) echo "usage: $0 [release|asan|tsan|fuzz]" >&2; exit 2 ;;
esac

cmake -S "$root" -B "$build" "${common[@]}" "${args[@]}" >/dev/null
cmake --build "$build" -j "$(nproc)"
