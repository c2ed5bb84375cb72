#!/usr/bin/env bash
# Times the watch job on clips dropped into its folder, against the same work done by hand
# in the same run.
#   bench/watch.sh [FOLDER] [RUNS]
# FOLDER (default /var/tmp/tarvoqc-watch-bench) is emptied and used for the folders; RUNS
# (default 3) repeats each measurement. The tools come from build/release (scripts/build.sh
# release), or from $TARVOQC_BUILD when set; the clips are made once into build/bench-media.
#
#   20 clips   twenty 2 s MPEG-2 4:2:2 MXF clips copied into the watched folder at once
#              ("cp" of all 20): seconds from the start of the copy until the job has moved
#              the last of them into the GOOD folder (checked, copied with verify, source
#              deleted). Reference, same run: tarvoqc-check on the 20 clips plus cp of them.
#              The job may cost the settle time (5 s: a clip modified less than 5 s ago
#              waits) plus at most one pass wait (5 s) more than the reference.
#   10 s clip  one 10 s clip of the same kind copied into an idle job: seconds from the
#              start of the copy until it has been moved.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${TARVOQC_BUILD:-$root/build/release}
folder=${1:-/var/tmp/tarvoqc-watch-bench}
runs=${2:-3}
media=$root/build/bench-media

for tool in app/tarvoqc-check bench/tarvoqc-watchbench; do
    [[ -x $build/$tool ]] || { echo "missing $build/$tool: build first" >&2; exit 2; }
done

mkdir -p "$media"
make_clip() { # NAME SECONDS
    [[ -f $media/$1 ]] && return 0
    ffmpeg -nostdin -hide_banner -loglevel error -y \
        -f lavfi -i "testsrc2=size=720x576:rate=25:duration=$2" \
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$2" \
        -c:v mpeg2video -pix_fmt yuv422p -b:v 30M -g 12 -bf 0 -c:a pcm_s16le -ac 2 \
        -f mxf "$media/.tmp.$1"
    mv "$media/.tmp.$1" "$media/$1"
}
make_clip watch_2s.mxf 2
make_clip watch_10s.mxf 10

ns() { date +%s%N; }
seconds() { echo "scale=2; ($2 - $1) / 1000000000" | bc; }

rm -rf "$folder"
mkdir -p "$folder/stage"
for i in $(seq -w 1 20); do cp "$media/watch_2s.mxf" "$folder/stage/clip$i.mxf"; done
cat "$folder"/stage/*.mxf "$media/watch_10s.mxf" >/dev/null # every variant starts cached

# One job run: starts the job on empty folders, waits until its first pass has ended and
# then DELAY seconds, copies the clips in, and prints the seconds until COUNT clips have
# been moved.
job_run() { # DELAY COUNT CLIPS...
    local delay=$1 count=$2
    shift 2
    rm -rf "$folder/job"
    mkdir -p "$folder/job/src" "$folder/job/good" "$folder/job/bad" "$folder/job/logs"
    local out=$folder/job/out
    "$build/bench/tarvoqc-watchbench" "$count" "$folder/job/src" "$folder/job/good" \
        "$folder/job/bad" "$folder/job/logs" >"$out" &
    local pid=$!
    until grep -q ready "$out" 2>/dev/null; do sleep 0.05; done
    sleep "$delay" # where in the job's 5 s wait the drop lands
    local t0
    t0=$(ns)
    cp "$@" "$folder/job/src/"
    wait "$pid"
    local t1
    t1=$(ns)
    [[ $(ls "$folder/job/good" | grep -c '\.mxf$') -eq $count ]] || { echo "not all moved" >&2; exit 1; }
    seconds "$t0" "$t1"
}

echo "20 clips of 2 s ($(du -sh "$folder/stage" | cut -f1) in all), $runs runs"
for ((r = 1; r <= runs; ++r)); do
    rm -rf "$folder/ref" && mkdir -p "$folder/ref"
    t0=$(ns)
    "$build/app/tarvoqc-check" -q "$folder"/stage/*.mxf >/dev/null || true
    t1=$(ns)
    cp "$folder"/stage/*.mxf "$folder/ref/"
    t2=$(ns)
    job=$(job_run "$(echo "scale=2; ($r - 1) * 5 / $runs" | bc)" 20 "$folder"/stage/*.mxf)
    reference=$(seconds "$t0" "$t2")
    echo "  run $r (drop $(echo "scale=2; ($r - 1) * 5 / $runs" | bc) s into the wait): job $job s; tarvoqc-check $(seconds "$t0" "$t1") s + cp $(seconds "$t1" "$t2") s = $reference s; job - reference $(echo "$job - $reference" | bc) s (allowed: 10 s)"
done

echo "one 10 s clip into an idle job, $runs runs"
for ((r = 1; r <= runs; ++r)); do
    # The drop lands at a different point of the job's 5 s wait in each run.
    delay=$(echo "scale=2; ($r - 1) * 5 / $runs" | bc)
    echo "  run $r (drop ${delay} s into the wait): drop to move $(job_run "$delay" 1 "$media/watch_10s.mxf") s"
done
rm -rf "$folder"
