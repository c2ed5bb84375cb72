#!/usr/bin/env bash
# Installs what is missing, builds, and checks clips with tarvoqc-check. Without paths it
# checks a few demo clips that it makes first (clean ones and ones with faults).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" release >/dev/null

check="$root/build/release/app/tarvoqc-check"
if [[ $# -gt 0 ]]; then
    exec "$check" "$@"
fi

media="$root/build/testmedia"
"$root/tests/media/make_test_clips.sh" "$media"
echo "No paths given: checking demo clips from $media"
status=0
"$check" "$media"/h264_aac.mp4 "$media"/mpeg2_pcm.mxf "$media"/prores_pcm.mov \
    "$media"/mpeg2_mp2.ts "$media"/pcm.wav "$media"/cover.mp3 "$media"/truncated.mxf \
    "$media"/jump_video_high.ts "$media"/text.mov || status=$?
echo "tarvoqc-check exit status: $status (1: a clip scored below the threshold, as the broken demo clips do)"
