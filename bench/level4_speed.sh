#!/usr/bin/env bash
# Speed of check level 4 and of the decoder threads, against reference commands measured in
# the same run on the same warm files. The two commands of a figure run in turn (A B A B
# ...), so that other work on a shared machine weighs on both alike; the ratio printed is
# the median of the per-turn ratios.
#
#   bench/level4_speed.sh [RUNS]     (default 5 turns per figure)
#
# - Level 4 against ffmpeg running the same detectors on the whole clip (its default
#   threads, so both use the machine), on the H.264, MPEG-2 4:2:2 and ProRes clips of
#   bench/benchmedia.sh. Target: at most 0.95 on the H.264 clip, 1.0 on the others. For the
#   H.264 clip also against a bare full decode by ffmpeg, the floor neither can go below.
# - The 60 s 1080p H.264 clip at level 3 with its decoder threads from the spare cores
#   against the same with one decoder thread. Target: at most 0.6 on 2 cores. The same
#   figure for ffmpeg's own decoder shows whether the machine had the cores to spare.
set -euo pipefail

runs=${1:-5}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" release >/dev/null
check="$root/build/release/app/tarvoqc-check"
media="$root/build/bench-media"
mkdir -p "$media"

source "$root/bench/benchmedia.sh"
make_check_clips

# turns LABEL_A ARRAY_A LABEL_B ARRAY_B: runs the commands held in the two arrays in turn
# $runs times; prints the median wall seconds and peak KiB of each and sets $turn_ratio to
# the median of the per-turn ratios A / B.
turns() {
    local -n a=$2 b=$4
    local ta=() tb=() ma=() mb=() r=() i s k
    for ((i = 0; i < runs; i++)); do
        /usr/bin/time -f "%e %M" -o "$media/.time" "${a[@]}" >/dev/null 2>&1 || true
        read -r s k < <(tail -n1 "$media/.time")
        ta+=("$s") ma+=("$k")
        /usr/bin/time -f "%e %M" -o "$media/.time" "${b[@]}" >/dev/null 2>&1 || true
        read -r s k < <(tail -n1 "$media/.time")
        tb+=("$s") mb+=("$k")
        r+=("$(ratio "${ta[i]}" "${tb[i]}")")
    done
    median() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
    printf '  %-44s %8.2f s %9d KiB\n' "$1" "$(median "${ta[@]}")" "$(median "${ma[@]}")"
    printf '  %-44s %8.2f s %9d KiB\n' "$3" "$(median "${tb[@]}")" "$(median "${mb[@]}")"
    turn_ratio=$(median "${r[@]}")
}

echo "TarvoQC level 4 speed, $runs turns each, medians; $(nproc) cores; $(date -u +%Y-%m-%dT%H:%MZ)"
echo "tarvoqc-check $("$check" --version | cut -d" " -f5-), $(ffmpeg -version | head -1 | cut -d' ' -f1-3)"
cat "$media"/h264_8M_60s.mp4 "$media"/mpeg2_422_50M_60s.mxf "$media"/prores422_30s.mov >/dev/null

for clip in h264_8M_60s.mp4 mpeg2_422_50M_60s.mxf prores422_30s.mov; do
    f="$media/$clip"
    level4=("$check" -q --level 4 "$f")
    # Every audio stream, as the check measures each one.
    detectors=(ffmpeg -nostdin -i "$f" -map 0:v -map 0:a -vf blackdetect,freezedetect
               -af ebur128=peak=true,silencedetect -f null -)
    echo "$clip ($(($(stat -c %s "$f") / 1048576)) MiB)"
    turns "tarvoqc-check --level 4" level4 "reference: ffmpeg detectors" detectors
    target=1.0
    [[ $clip == h264_8M_60s.mp4 ]] && target=0.95
    echo "  ratio level 4/detectors time $turn_ratio   (target <= $target)"
done

f="$media/h264_8M_60s.mp4"
level4=("$check" -q --level 4 "$f")
decode=(ffmpeg -nostdin -i "$f" -f null -)
echo "$(basename "$f") at level 4 against a bare full decode"
turns "tarvoqc-check --level 4" level4 "floor: ffmpeg full decode" decode
echo "  ratio level 4/full decode    $turn_ratio"

f="$media/h264_8M_60s.mp4"
level3=("$check" -q --level 3 "$f")
level3one=("$check" -q --level 3 --threads 1 "$f")
ffmpeg2=(ffmpeg -nostdin -threads 2 -skip_loop_filter all -skip_idct all -i "$f" -f null -)
ffmpeg1=(ffmpeg -nostdin -threads 1 -skip_loop_filter all -skip_idct all -i "$f" -f null -)
echo "$(basename "$f") at level 3: decoder threads"
turns "tarvoqc-check --level 3 (spare cores)" level3 "tarvoqc-check --level 3 --threads 1" level3one
echo "  ratio threads/one thread     $turn_ratio   (target <= 0.6)"
turns "control: ffmpeg -threads 2 skip-decode" ffmpeg2 "control: ffmpeg -threads 1 skip-decode" ffmpeg1
echo "  control ratio ffmpeg 2/1     $turn_ratio   (what the machine allowed)"
