#!/usr/bin/env bash
# Several watch services on one folder: 1000 small clips copied into the watched folder at
# once, watched by one and by two tarvoqc-watchd processes; seconds from the start of the
# copy until the last clip has been moved (checked, claimed, copied with verify, documented,
# source deleted). Reference, same run: tarvoqc-check on the 1000 clips plus cp of them.
#
#   bench/watch_services.sh [FOLDER] [RUNS]      (default /var/tmp/tarvoqc-services-bench, 3)
#
# The services run with Settle.Time=1, so the settle wait is one second of the figure.
# Target: two services take no longer than one (the work is shared, never done twice).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/build.sh" release >/dev/null
build=$root/build/release
folder=${1:-/var/tmp/tarvoqc-services-bench}
runs=${2:-3}
count=1000

rm -rf "$folder"
mkdir -p "$folder/clips" "$folder/ref"
ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i "sine=frequency=440:duration=1" \
    -c:a libmp3lame -b:a 64k "$folder/one.mp3"
for i in $(seq -w 1 $count); do
    cp "$folder/one.mp3" "$folder/clips/clip$i.mp3"
    printf 'TAG%s' "$i" >>"$folder/clips/clip$i.mp3" # each clip its own bytes
done

median() { sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
now() { date +%s.%N; }

# One run with N services: seconds until the GOOD folder holds every clip.
services_run() { # N
    local n=$1 work="$folder/run" pids=()
    rm -rf "$work"
    mkdir -p "$work/in" "$work/good" "$work/bad"
    for ((s = 0; s < n; s++)); do
        mkdir -p "$work/home$s"
        printf '[Job00]\nEnabled=1\nSource.Folder=%s/in/\nGood.QCTsh=0\nGood.Move.Enable=1\nGood.Move.Folder=%s/good/\nBad.Move.Enable=1\nBad.Move.Folder=%s/bad/\nSettle.Time=1\n' \
            "$work" "$work" "$work" >"$work/home$s/TarvoQC.ini"
        TARVOQC_HOME="$work/home$s" "$build/app/tarvoqc-watchd" 2>/dev/null &
        pids+=($!)
    done
    sleep 1 # the services are up and idle
    local start
    start=$(now)
    cp "$folder"/clips/*.mp3 "$work/in/"
    while (($(find "$work/good" -name '*.mp3' | wc -l) < count)); do sleep 0.05; done
    local end
    end=$(now)
    kill -TERM "${pids[@]}"
    wait "${pids[@]}" || true
    local moved
    moved=$(find "$work/good" "$work/bad" -name '*.mp3' | wc -l)
    [[ $moved == "$count" ]] || { echo "clips in GOOD and BAD: $moved, not $count" >&2; exit 1; }
    awk -v a="$start" -v b="$end" 'BEGIN { printf "%.2f\n", b - a }'
}

reference_run() {
    rm -rf "$folder/ref"/*
    local start
    start=$(now)
    "$build/app/tarvoqc-check" -q "$folder/clips" >/dev/null || true
    cp "$folder"/clips/*.mp3 "$folder/ref/"
    awk -v a="$start" -v b="$(now)" 'BEGIN { printf "%.2f\n", b - a }'
}

echo "TarvoQC watch services, $count clips, $runs runs each, medians; $(nproc) cores; $(date -u +%Y-%m-%dT%H:%MZ)"
ref=$(for ((r = 0; r < runs; r++)); do reference_run; done | median)
one=$(for ((r = 0; r < runs; r++)); do services_run 1; done | median)
two=$(for ((r = 0; r < runs; r++)); do services_run 2; done | median)
printf '  reference: tarvoqc-check + cp     %7.2f s\n' "$ref"
printf '  one service                        %7.2f s   (%.2f x the reference)\n' "$one" "$(echo "$one / $ref" | bc -l)"
printf '  two services                       %7.2f s   (%.2f x one service)\n' "$two" "$(echo "$two / $one" | bc -l)"
awk -v a="$two" -v b="$one" 'BEGIN { exit !(a <= b * 1.05) }' && echo "target met" || { echo "TARGET MISSED"; exit 1; }
