#!/usr/bin/env bash
# Installs what is missing, builds, and checks clips with tarvoqc-check. Without paths it
# checks a few demo clips that it makes first (clean ones and ones with faults); where a
# display is available it first shows the window program checking them.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" release >/dev/null

check="$root/build/release/app/tarvoqc-check"
window="$root/build/release/app/tarvoqc"
if [[ $# -gt 0 ]]; then
    exec "$check" "$@"
fi

media="$root/build/testmedia"
"$root/tests/media/make_test_clips.sh" "$media"
demo=("$media"/h264_aac.mp4 "$media"/mpeg2_pcm.mxf "$media"/prores_pcm.mov
      "$media"/mpeg2_mp2.ts "$media"/pcm.wav "$media"/cover.mp3 "$media"/truncated.mxf
      "$media"/jump_video_high.ts "$media"/text.mov)
if [[ -x "$window" && ( -n "${DISPLAY:-}" || -n "${WAYLAND_DISPLAY:-}" ) ]]; then
    echo "Showing the window program checking the demo clips (it closes when done) ..."
    "$window" "${demo[@]}" || echo "the window program ended with status $?" >&2
fi
echo "No paths given: checking demo clips from $media"
status=0
"$check" "${demo[@]}" || status=$?
echo "tarvoqc-check exit status: $status (1: a clip scored below the threshold, as the broken demo clips do)"
