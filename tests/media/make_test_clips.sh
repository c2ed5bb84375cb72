#!/usr/bin/env bash
# Makes the clips the tests need, deterministically, into the folder given (default:
# ./testmedia). A clip that exists is kept; a change of this script makes them all anew.
set -euo pipefail

out=${1:-testmedia}
mkdir -p "$out"
out=$(cd "$out" && pwd)
self_hash=$(sha256sum "${BASH_SOURCE[0]}" | cut -c1-64)
if [[ "$(cat "$out/.generator" 2>/dev/null)" != "$self_hash" ]]; then
    find "$out" -mindepth 1 -delete
fi

# Bit-exact, single-threaded encoding so that the same script gives the same bytes.
ff=(ffmpeg -nostdin -hide_banner -loglevel error -y -threads 1)
exact=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1)
video() { echo "testsrc2=size=${2:-320x240}:rate=${3:-25}:duration=$1"; }
tone() { echo "sine=frequency=${3:-440}:sample_rate=${2:-48000}:duration=$1"; }

# make NAME ffmpeg-arguments...: runs ffmpeg into a temp name and renames on success, so a
# failed or interrupted run never leaves half a clip behind.
make() {
    local name=$1
    shift
    [[ -e "$out/$name" ]] && return 0
    local tmp="$out/.tmp.$name"
    if "${ff[@]}" "$@" "${exact[@]}" "$tmp"; then
        mv "$tmp" "$out/$name"
    else
        rm -f "$tmp"
        echo "make_test_clips: could not make $name" >&2
        return 1
    fi
}

# Clean clips, one per common delivery kind.
make h264_aac.mp4 -f lavfi -i "$(video 2)" -f lavfi -i "$(tone 2)" \
    -c:v libx264 -preset veryfast -x264-params threads=1 -pix_fmt yuv420p -g 25 \
    -c:a aac -b:a 128k -ar 48000 -ac 2 -shortest -f mp4
make mpeg2_pcm.mxf -f lavfi -i "$(video 2 720x576)" -f lavfi -i "$(tone 2)" \
    -c:v mpeg2video -pix_fmt yuv422p -b:v 8M -g 12 -bf 0 -c:a pcm_s16le -ar 48000 -ac 1 -f mxf
make prores_pcm.mov -f lavfi -i "$(video 2)" -f lavfi -i "$(tone 2)" \
    -c:v prores_ks -profile:v 2 -c:a pcm_s24le -ar 48000 -ac 2 -f mov
make mpeg2_mp2.ts -f lavfi -i "$(video 2)" -f lavfi -i "$(tone 2)" \
    -c:v mpeg2video -b:v 2M -g 12 -bf 2 -c:a mp2 -b:a 192k -ar 48000 -f mpegts
make pcm.wav -f lavfi -i "$(tone 2)" -c:a pcm_s16le -ac 2 -f wav
# An MP3 with a cover picture: the picture is a video stream inside an audio container.
make cover.png -f lavfi -i "color=c=red:size=64x64:duration=0.04" -frames:v 1 -f image2
make cover.mp3 -f lavfi -i "$(tone 2 44100)" -i "$out/cover.png" -map 0:a -map 1:v \
    -c:a libmp3lame -b:a 128k -c:v copy -disposition:v attached_pic -id3v2_version 3 -f mp3

# Files that only look like clips.
[[ -e "$out/text.mov" ]] || printf 'This is a text file, not a clip.\nSecond line.\n' >"$out/text.mov"
[[ -e "$out/random.mxf" ]] || perl -e 'srand(7); print map { chr(int(rand(256))) } 1..65536' >"$out/random.mxf"
[[ -e "$out/empty.mp4" ]] || : >"$out/empty.mp4"

echo "$self_hash" >"$out/.generator"
