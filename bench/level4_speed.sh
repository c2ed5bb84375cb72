#!/usr/bin/env bash
# Speed of check level 4 and of the decoder threads, against reference commands measured in
# the same run on the same warm files (a shared, noisy machine).
#
#   bench/level4_speed.sh [RUNS]     (default 5 runs per figure; medians are printed)
#
# - Level 4 against ffmpeg running the same detectors on the whole clip (its default
#   threads, so both use the machine), on the H.264, MPEG-2 4:2:2 and ProRes clips of
#   bench/benchmedia.sh. Target: at most 1.0.
# - The 60 s 1080p H.264 clip at level 3 with its decoder threads from the spare cores
#   against the same with one decoder thread. Target: at most 0.6 on 2 cores.
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

echo "TarvoQC level 4 speed, $runs runs each, medians; $(nproc) cores; $(date -u +%Y-%m-%dT%H:%MZ)"
echo "tarvoqc-check $("$check" --version | cut -d" " -f5-), $(ffmpeg -version | head -1 | cut -d' ' -f1-3)"
cat "$media"/h264_8M_60s.mp4 "$media"/mpeg2_422_50M_60s.mxf "$media"/prores422_30s.mov >/dev/null

for clip in h264_8M_60s.mp4 mpeg2_422_50M_60s.mxf prores422_30s.mov; do
    f="$media/$clip"
    echo "$clip ($(($(stat -c %s "$f") / 1048576)) MiB)"
    measure "tarvoqc-check --level 4" "$check" -q --level 4 "$f"
    ours=$secs
    # Every audio stream, as the check measures each one.
    measure "reference: ffmpeg detectors" ffmpeg -nostdin -i "$f" -map 0:v -map 0:a \
        -vf blackdetect,freezedetect -af ebur128=peak=true,silencedetect -f null -
    echo "  ratio level 4/detectors time $(ratio "$ours" "$secs")   (target <= 1.0)"
done

f="$media/h264_8M_60s.mp4"
echo "$(basename "$f") at level 3: decoder threads"
measure "tarvoqc-check --level 3 (spare cores)" "$check" -q --level 3 "$f"
threads=$secs
measure "tarvoqc-check --level 3 --threads 1" "$check" -q --level 3 --threads 1 "$f"
echo "  ratio threads/one thread     $(ratio "$threads" "$secs")   (target <= 0.6)"
