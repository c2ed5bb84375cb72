#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, ASan+UBSan) and runs each for the given
# number of seconds: scripts/fuzz.sh [SECONDS] [TARGET...] (default 60 s, every target).
# Seeds come from tests/fuzz/corpus/<target>/ and are copied into build/fuzz-corpus/, so
# the repository keeps only its seeds. Crashes land in build/fuzz-artifacts/<target>/;
# keep each one as a regression file under tests/fuzz/regressions/<target>/.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
seconds=${1:-60}
shift || true
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" fuzz >/dev/null

bin="$root/build/fuzz/tests/fuzz"
if [[ $# -gt 0 ]]; then
    targets=("$@")
else
    mapfile -t targets < <(cd "$root/tests/fuzz" && ls fuzz_*.cpp | sed 's/\.cpp$//')
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
status=0
for t in "${targets[@]}"; do
    corpus="$root/build/fuzz-corpus/$t"
    artifacts="$root/build/fuzz-artifacts/$t"
    mkdir -p "$corpus" "$artifacts"
    [[ -d "$root/tests/fuzz/corpus/$t" ]] && cp -n "$root/tests/fuzz/corpus/$t"/* "$corpus"/ 2>/dev/null || true
    dict=()
    [[ -f "$root/tests/fuzz/$t.dict" ]] && dict=(-dict="$root/tests/fuzz/$t.dict")
    echo "== $t for ${seconds}s"
    if ! "$bin/$t" "${dict[@]}" -max_total_time="$seconds" -print_final_stats=1 \
            -artifact_prefix="$artifacts/" -rss_limit_mb=2048 -timeout=10 "$corpus" \
            2>"$root/build/fuzz-$t.log"; then
        status=1
        echo "!! $t found a problem: see $root/build/fuzz-$t.log and $artifacts" >&2
    fi
    grep -E '^(#[0-9]+.*DONE|stat::number_of_executed_units|stat::peak_rss_mb|stat::new_units_added)' \
        "$root/build/fuzz-$t.log" || tail -3 "$root/build/fuzz-$t.log"
done
exit $status
