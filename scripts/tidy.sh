#!/usr/bin/env bash
# Runs clang-tidy (the checks of the root .clang-tidy) on the C++ sources changed since a
# base commit, with the compile commands of the release build, and fails on any finding.
# A changed header brings in the source of the same name beside it.
#
#   scripts/tidy.sh [BASE]     (default: where this branch left main; without main, HEAD~1)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
base=${1:-}
if [[ -z $base ]]; then
    base=$(git merge-base main HEAD 2>/dev/null || git rev-parse HEAD~1)
fi
"$root/scripts/build.sh" release >/dev/null

mapfile -t changed < <(git diff --name-only --diff-filter=ACMR "$base" -- '*.cpp' '*.h')
sources=()
for file in "${changed[@]}"; do
    source=$file
    [[ $file == *.h ]] && source=${file%.h}.cpp
    [[ -f $source ]] || continue
    # Only sources the build compiles (the fuzz targets need a clang build of their own).
    grep -q "\"file\": \"$root/$source\"" build/release/compile_commands.json || continue
    [[ " ${sources[*]} " == *" $source "* ]] || sources+=("$source")
done
if [[ ${#sources[@]} -eq 0 ]]; then
    echo "tidy: no changed sources since $base"
    exit 0
fi
echo "tidy: ${#sources[@]} sources changed since $base"
printf '%s\n' "${sources[@]}" |
    xargs -P "$(nproc)" -n 1 clang-tidy -p build/release --quiet --warnings-as-errors='*'
