#!/usr/bin/env bash
# The window program's figures, each against its reference in the same run:
#  - 50000 clips added to the grid, shown, scrolled to and the last one selected;
#  - "Clear finished" on 50000 clips whose finished rows lie in 1, 100, 101 and 25000 runs;
#  - the longest gap between two 10 ms ticks on the window thread while a 60 s 1080p H.264
#    clip is checked;
#  - start-up and a job of 3 short clips through tarvoqc against tarvoqc-check.
#
#   bench/window.sh [RUNS]      (default 5 runs per timing; medians are printed)
set -euo pipefail

runs=${1:-5}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" release >/dev/null
bin="$root/build/release"
media="$root/build/bench-media"
clips="$root/build/testmedia"
mkdir -p "$media"
"$root/tests/media/make_test_clips.sh" "$clips" >/dev/null
export QT_QPA_PLATFORM=offscreen TARVOQC_HOME
TARVOQC_HOME=$(mktemp -d)
work=$(mktemp -d)
trap 'rm -rf "$TARVOQC_HOME" "$work"' EXIT

clip60="$media/h264_8M_60s.mp4"
if [[ ! -s "$clip60" ]]; then
    echo "making $(basename "$clip60") ..." >&2
    ffmpeg -nostdin -hide_banner -loglevel error -y \
        -f lavfi -i "testsrc2=size=1920x1080:rate=25:duration=60,noise=alls=12:allf=t+u" \
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=60" \
        -c:v libx264 -profile:v high -preset faster -b:v 8M -maxrate 8M -bufsize 16M \
        -pix_fmt yuv420p -g 50 -c:a aac -b:a 192k -ac 2 -f mp4 "$media/.tmp.mp4"
    mv "$media/.tmp.mp4" "$clip60"
fi

"$bin/bench/tarvoqc-window-bench" grid 50000 2>/dev/null
"$bin/bench/tarvoqc-window-bench" clear 50000 2>/dev/null
"$bin/bench/tarvoqc-window-bench" gaps "$clip60" 2>/dev/null

job() { # FILE CLIP...
    local file=$1
    shift
    { echo "<Tarvo_QC>"; for c in "$@"; do echo "<Clip File=\"$c\"/>"; done; echo "</Tarvo_QC>"; } >"$file"
}
job "$work/three.qcin" "$clips/h264_aac.mp4" "$clips/mpeg2_pcm.mxf" "$clips/prores_pcm.mov"
job "$work/none.qcin" "$work/missing.mxf"

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
seconds() { # COMMAND...: wall time of one run
    local t0 t1
    t0=$(date +%s.%N)
    "$@" >/dev/null 2>&1 || true
    t1=$(date +%s.%N)
    echo "$t1 - $t0" | bc -l
}
measure() { # COMMAND...: median over the runs
    for _ in $(seq "$runs"); do seconds "$@"; done | median
}
for name in none three; do
    w=$(measure "$bin/app/tarvoqc" "$work/$name.qcin")
    c=$(measure "$bin/app/tarvoqc-check" "$work/$name.qcin")
    printf '%s: tarvoqc %.3f s, tarvoqc-check %.3f s, window overhead %.3f s\n' \
        "$([[ $name == none ]] && echo "start-up (a job of one missing clip)" || echo "job of 3 short clips")" \
        "$w" "$c" "$(echo "$w - $c" | bc -l)"
done
