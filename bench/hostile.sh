#!/usr/bin/env bash
# What one hostile clip may cost: huge_picture.ts from the test clips (61 KB of H.264 whose
# header claims 16000 x 16000 pictures) checked at levels 1 to 3, and two copies with
# --jobs 2, each run's wall time and peak memory (/usr/bin/time). Beside it, a clean clip
# of the same kind as the reference for what a check costs anyway.
#
#   bench/hostile.sh
#
# Target: under 200 MB and a few seconds per clip at every level (the picture-size limit
# refuses the picture before anything of its size is allocated; what stays is the decoder's
# per-macroblock tables, which the library makes while probing, before any picture).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/build.sh" release >/dev/null
check="$root/build/release/app/tarvoqc-check"
media="$root/build/testmedia"
"$root/tests/media/make_test_clips.sh" "$media" >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$media/huge_picture.ts" "$work/a.ts"
cp "$media/huge_picture.ts" "$work/b.ts"

met=1
measure() { # LABEL CLIPS checker-arguments...
    local label=$1 clips=$2
    shift 2
    /usr/bin/time -f '%e %M' -o "$work/time" "$check" -q "$@" >/dev/null || true
    read -r seconds kb < <(tail -n 1 "$work/time")
    printf '%-34s %6.2f s  %7.1f MB\n' "$label" "$seconds" "$(echo "$kb / 1024" | bc -l)"
    awk -v s="$seconds" -v k="$kb" -v n="$clips" 'BEGIN { exit !(s < 5 && k < n * 200 * 1024) }' ||
        met=0
}

printf '%-34s %8s  %10s\n' "run" "wall" "peak"
for level in 1 2 3; do
    measure "clean h264_aac.mp4, level $level" 1 -l"$level" "$media/h264_aac.mp4"
    measure "huge_picture.ts, level $level" 1 -l"$level" "$work/a.ts"
done
measure "two huge_picture.ts, --jobs 2" 2 -l3 -j2 "$work/a.ts" "$work/b.ts"
((met)) && echo "targets met (< 5 s, < 200 MB per clip)" || { echo "TARGET MISSED"; exit 1; }
