#!/usr/bin/env bash
# Speed and memory of a full check against the reference commands, measured in the same
# run on the same warm files, so that the ratios hold on a shared, noisy machine.
#
#   bench/check_speed.sh [RUNS]      (default 5 runs per figure; medians are printed)
#
# Makes (once, cached in build/bench-media) the clips of bench/benchmedia.sh. The check
# runs with one decoder thread (--threads 1) like its single-threaded reference, and the
# --jobs figure measures the spreading of clips alone.
set -euo pipefail

runs=${1:-5}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" release >/dev/null
check="$root/build/release/app/tarvoqc-check"
sha="$root/build/release/bench/tarvoqc-sha256"
media="$root/build/bench-media"
mkdir -p "$media"

source "$root/bench/benchmedia.sh"
make_check_clips
make_jobs_clips

echo "TarvoQC check speed, $runs runs each, medians; $(nproc) cores; $(date -u +%Y-%m-%dT%H:%MZ)"
echo "tarvoqc-check $("$check" --version | cut -d" " -f5-), $(ffmpeg -version | head -1 | cut -d' ' -f1-3)"
cat "$media"/*.mp4 "$media"/*.mxf "$media"/*.mov >/dev/null # warm cache

for clip in h264_8M_60s.mp4 mpeg2_422_50M_60s.mxf prores422_30s.mov; do
    f="$media/$clip"
    echo "$clip ($(($(stat -c %s "$f") / 1048576)) MiB)"
    measure "tarvoqc-check --level 3 --threads 1" "$check" -q --level 3 --threads 1 "$f"
    ours=$secs ours_kib=$kib
    measure "reference: ffmpeg -threads 1 skip-decode" ffmpeg -nostdin -threads 1 -skip_loop_filter all \
        -skip_idct all -i "$f" -f null -
    ref=$secs ref_kib=$kib
    measure "naive: ffmpeg -threads 1 -i CLIP -f null -" ffmpeg -nostdin -threads 1 -i "$f" -f null -
    naive_decode=$secs
    measure "naive: sha256sum CLIP" sha256sum "$f"
    naive=$(awk -v a="$naive_decode" -v b="$secs" 'BEGIN { print a + b }')
    echo "  ratio check/reference time   $(ratio "$ours" "$ref")   (target <= 1.05)"
    echo "  ratio check/naive pair time  $(ratio "$ours" "$naive")   (target <= 0.75 on the MPEG-2 clip)"
    echo "  ratio check/reference memory $(ratio "$ours_kib" "$ref_kib")   (target <= 1.2)"
done

f="$media/mpeg2_422_50M_60s.mxf"
echo "SHA-256 of $(basename "$f")"
measure "openssl dgst -sha256" openssl dgst -sha256 "$f"
ssl=$secs
measure "tarvoqc-sha256 (own SHA-256)" "$sha" "$f"
echo "  ratio own/openssl throughput $(ratio "$ssl" "$secs")   (target >= 0.9)"

echo "Eight 10 s 1080p H.264 clips"
measure "tarvoqc-check --jobs 1" "$check" -q --threads 1 --jobs 1 "$media"/jobs_*.mp4
one=$secs
measure "tarvoqc-check --jobs 2" "$check" -q --threads 1 --jobs 2 "$media"/jobs_*.mp4
echo "  ratio jobs2/jobs1 time       $(ratio "$secs" "$one")   (target <= 0.6)"
