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

# Time-stamp faults. Two MPEG-TS segments, the second written with its own time offset and
# appended byte for byte: the demuxer then meets the exact jump between them (90 kHz ticks,
# so 0.0099 s and 0.01 s are both exact). Video: 2 s of 25 fps from 10 s on; audio: 1.92 s of
# 48 kHz MP2 (80 frames of 24 ms) from 10 s on.
video_segment() {
    make "$1" -f lavfi -i "$(video 2 160x120)" -c:v mpeg2video -g 25 -bf 0 \
        -muxdelay 0 -muxpreload 0 -output_ts_offset "$2" -f mpegts
}
audio_segment() {
    make "$1" -f lavfi -i "$(tone 1.92 "${3:-48000}")" -c:a mp2 -b:a 128k -ac 1 \
        -muxdelay 0 -muxpreload 0 -output_ts_offset "$2" -f mpegts
}
join_segments() { # NAME FIRST SECOND
    [[ -e "$out/$1" ]] || { cat "$out/$2" "$out/$3" >"$out/.tmp.$1" && mv "$out/.tmp.$1" "$out/$1"; }
}
video_segment .seg_v_first.ts 10
audio_segment .seg_a_first.ts 10
for jump in under:0.0099 warning:0.01 low:0.25 high:2 highest:10 \
            back_under:-0.0099 back_exact:-0.01 back_warning:-0.0101 back_low:-0.5; do
    label=${jump%%:*}
    seconds=${jump#*:}
    video_segment ".seg_v_$label.ts" "$(echo "12 + $seconds" | bc)"
    audio_segment ".seg_a_$label.ts" "$(echo "11.92 + $seconds" | bc)"
    join_segments "jump_video_$label.ts" .seg_v_first.ts ".seg_v_$label.ts"
    join_segments "jump_audio_$label.ts" .seg_a_first.ts ".seg_a_$label.ts"
done
# The audio goes on at 44.1 kHz after the first segment.
audio_segment .seg_a_44k.ts 11.92 44100
join_segments rate_change.ts .seg_a_first.ts .seg_a_44k.ts

# A 4 s MXF cut in the middle: the header still states the whole duration.
make .full4s.mxf -f lavfi -i "$(video 4 720x576)" -f lavfi -i "$(tone 4)" \
    -c:v mpeg2video -pix_fmt yuv422p -b:v 8M -g 12 -bf 0 -c:a pcm_s16le -ar 48000 -ac 1 -f mxf
[[ -e "$out/truncated.mxf" ]] || head -c "$(($(stat -c %s "$out/.full4s.mxf") / 2))" "$out/.full4s.mxf" >"$out/truncated.mxf"
# A 4 s TS with 32 KiB of noise written over its middle.
make .full4s.ts -f lavfi -i "$(video 4)" -f lavfi -i "$(tone 4)" \
    -c:v mpeg2video -b:v 2M -g 12 -bf 0 -c:a mp2 -b:a 128k -f mpegts
if [[ ! -e "$out/overwritten.ts" ]]; then
    cp "$out/.full4s.ts" "$out/.tmp.overwritten.ts"
    perl -e 'srand(11); print map { chr(int(rand(256))) } 1..32768' |
        dd of="$out/.tmp.overwritten.ts" bs=1 seek="$(($(stat -c %s "$out/.full4s.ts") * 2 / 5))" conv=notrunc status=none
    mv "$out/.tmp.overwritten.ts" "$out/overwritten.ts"
fi
# Audio that runs 2 s past the end of the video.
make audio_longer.mp4 -f lavfi -i "$(video 2)" -f lavfi -i "$(tone 4)" \
    -c:v libx264 -preset veryfast -x264-params threads=1 -pix_fmt yuv420p -g 25 -c:a aac -b:a 96k -f mp4
# Audio that starts 1 s after the video.
make late_audio.ts -f lavfi -i "$(video 3)" -itsoffset 1 -f lavfi -i "$(tone 2)" \
    -c:v mpeg2video -b:v 2M -g 12 -bf 0 -c:a mp2 -b:a 128k -f mpegts
# H.264 without its parameter sets: the decoder can make nothing of it.
make nothing_decodes.ts -f lavfi -i "$(video 2 160x120)" -c:v libx264 -x264-params threads=1 \
    -bsf:v "filter_units=remove_types=7|8" -f mpegts
# H.264 whose sequence header claims 16000 x 16000 pictures over 176 x 144 of data: a
# small file that costs gigabytes when decoders take its size at its word. The size fields
# of each sequence header are rewritten (a baseline header has no fields between them
# that depend on the profile); the remux caps the probe's decoder to stay small itself.
if [[ ! -e "$out/huge_picture.ts" ]]; then
    "${ff[@]}" -f lavfi -i "$(video 2 176x144)" -c:v libx264 -preset veryfast -profile:v baseline \
        -x264-params threads=1 "${exact[@]}" -f h264 "$out/.tmp.small.h264"
    python3 - "$out/.tmp.small.h264" "$out/.tmp.huge.h264" 16000 16000 <<'PY'
import re, sys
src, dst, width, height = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
class Bits:
    def __init__(self, data): self.data, self.pos = data, 0
    def u(self, n):
        v = 0
        for _ in range(n):
            v = (v << 1) | ((self.data[self.pos >> 3] >> (7 - (self.pos & 7))) & 1)
            self.pos += 1
        return v
    def ue(self):
        zeros = 0
        while self.u(1) == 0: zeros += 1
        return (1 << zeros) - 1 + self.u(zeros)
def ue(v):
    s = bin(v + 1)[2:]
    return '0' * (len(s) - 1) + s
def patch(payload):
    rbsp = re.sub(b'\x00\x00\x03', b'\x00\x00', payload)
    assert rbsp[0] == 66, 'baseline profile expected'
    r = Bits(rbsp)
    out = format(r.u(24), '024b') + ue(r.ue()) + ue(r.ue())  # profile..level, id, frame num
    poc = r.ue()
    out += ue(poc) + (ue(r.ue()) if poc == 0 else '')
    assert poc in (0, 2)
    out += ue(r.ue()) + str(r.u(1))  # reference frames, gaps allowed
    r.ue(); r.ue()
    out += ue(width // 16 - 1) + ue(height // 16 - 1)
    out += ''.join(str(r.u(1)) for _ in range(len(rbsp) * 8 - r.pos)).rstrip('0')
    out += '0' * (-len(out) % 8)
    body = bytes(int(out[i:i + 8], 2) for i in range(0, len(out), 8))
    return re.sub(b'\x00\x00(?=[\x00-\x03])', b'\x00\x00\x03', body)
parts = re.split(b'(\x00\x00\x01)', open(src, 'rb').read())
for i in range(1, len(parts)):
    part = parts[i]
    if parts[i - 1] == b'\x00\x00\x01' and part and part[0] & 0x1f == 7:
        body = part.rstrip(b'\x00')
        parts[i] = body[:1] + patch(body[1:]) + part[len(body):]
open(dst, 'wb').write(b''.join(parts))
PY
    "${ff[@]}" -loglevel fatal -max_pixels 65536 -f h264 -framerate 25 -i "$out/.tmp.huge.h264" \
        -c copy "${exact[@]}" -f mpegts "$out/.tmp.huge_picture.ts"
    mv "$out/.tmp.huge_picture.ts" "$out/huge_picture.ts"
    rm -f "$out/.tmp.small.h264" "$out/.tmp.huge.h264"
fi
# Matroska written to a pipe has no duration in its header.
if [[ ! -e "$out/no_duration.mkv" ]]; then
    "${ff[@]}" -f lavfi -i "$(video 2 160x120)" -f lavfi -i "$(tone 2)" -c:v mpeg2video -c:a mp2 \
        "${exact[@]}" -f matroska pipe:1 >"$out/.tmp.no_duration.mkv" && mv "$out/.tmp.no_duration.mkv" "$out/no_duration.mkv"
fi
# WAV headers with impossible formats, patched into the clean WAV: 0 channels (byte 22),
# 33 bits per sample (byte 34).
patch_wav() { # NAME OFFSET VALUE
    [[ -e "$out/$1" ]] && return 0
    perl -e 'local $/; my ($in, $off, $val) = @ARGV; open my $f, "<:raw", $in or die;
             my $d = <$f>; substr($d, $off, 2) = pack("v", $val); print $d' \
        "$out/pcm.wav" "$2" "$3" >"$out/.tmp.$1" && mv "$out/.tmp.$1" "$out/$1"
}
patch_wav zero_channels.wav 22 0
patch_wav bits33.wav 34 33
# The same WAV claiming 134225728 samples a second (bytes 24..27), cut to 16 KiB.
[[ -e "$out/absurd_rate.wav" ]] || { perl -e 'local $/; open my $f, "<:raw", $ARGV[0] or die;
    my $d = <$f>; substr($d, 24, 4) = pack("V", 134225728); print substr($d, 0, 16384)' \
    "$out/pcm.wav" >"$out/.tmp.absurd_rate.wav" && mv "$out/.tmp.absurd_rate.wav" "$out/absurd_rate.wav"; }

# A longer clip, so that a check can be stopped while it is still reading.
make long.ts -f lavfi -i "$(video 30 720x576)" -f lavfi -i "$(tone 30)" \
    -c:v mpeg2video -b:v 6M -g 12 -bf 2 -c:a mp2 -b:a 192k -f mpegts

# Picture and sound faults for the checks of level 4: 320x180 MPEG-2 pictures at 25 fps
# (black, frozen and damaged runs placed by frame number) and 48 kHz 16-bit PCM sound made by
# formula, in MOV. A 1 kHz mono sine of amplitude A measures 20 log10(A) - 3.01 LUFS, so 0.1 is -23.
picture() { # NAME FILTERS [SECONDS]: a picture clip with the filters applied to the pattern
    make "$1" -f lavfi -i "testsrc2=size=320x180:rate=25:duration=${3:-4},$2" \
        -c:v mpeg2video -q:v 4 -g 100 -bf 0 -f mov
}
sound() { # NAME EXPRESSION [SECONDS] [CODEC]: a mono PCM clip of the expression over t
    make "$1" -f lavfi -i "aevalsrc=exprs='$2':sample_rate=48000:duration=${3:-6}" \
        -c:a "${4:-pcm_s16le}" -f mov
}
black() { echo "drawbox=t=fill:c=black:enable='between(n,$1,$2)'"; }
picture l4_black_middle.mov "$(black 25 74)"  # 2.00 s from 1.00
picture l4_black_lead.mov "$(black 0 49)"     # 2.00 s from the first frame
picture l4_black_0.96.mov "$(black 25 48)"    # 24 frames
picture l4_black_1.00.mov "$(black 25 49)"    # 25 frames
# Frames 26 to 99 left out and filled in with frame 25: frozen for 3.00 s from 1.00.
picture l4_frozen.mov "select='not(between(n,26,99))',fps=25" 6
sound l4_silent_gap.mov "0.1*sin(2*PI*1000*t)*not(between(t,2,5))"
sound l4_loud.mov "0.5623*sin(2*PI*1000*t)"             # -8 LUFS
sound l4_quiet.mov "0.03162*sin(2*PI*1000*t)"           # -33 LUFS
sound l4_within.mov "0.1110*sin(2*PI*1000*t)"           # -22.1 LUFS: just within target + tolerance
sound l4_over.mov "0.1136*sin(2*PI*1000*t)"             # -21.9 LUFS: just over it
sound l4_short_loud.mov "0.5623*sin(2*PI*1000*t)" 2.9   # -8 LUFS, too short to judge
# A click of -40 dBFS each second: not silent, yet no 400 ms block reaches -70 LUFS.
sound l4_clicks.mov "0.01*lt(mod(t,1),1/48000)"
# A hundredth of a second of a sine at 1.5 times full scale, cut flat by the 16-bit samples.
# The same in 24-bit and in float samples.
clipped="if(between(t,1,1.01),max(-1,min(1,1.5*sin(2*PI*440*t))),0.1*sin(2*PI*1000*t))"
sound l4_clipped.mov "$clipped"
sound l4_clipped_s24.mov "$clipped" 6 pcm_s24le
sound l4_clipped_f32.mov "$clipped" 6 pcm_f32le
# A tone with a second, silent track.
make l4_silent_track.mov -f lavfi -i "aevalsrc=exprs='0.1*sin(2*PI*1000*t)':sample_rate=48000:duration=4" \
    -f lavfi -i "anullsrc=r=48000:cl=mono:d=4" -map 0 -map 1 -c:a pcm_s16le -f mov
# A clean delivery with fades at both ends, in H.264 and AAC.
make l4_clean_fades.mp4 -f lavfi -i "$(video 4 320x180),fade=in:0:25,fade=out:75:25" \
    -f lavfi -i "aevalsrc=exprs='0.1*sin(2*PI*1000*t)':sample_rate=48000:duration=4,afade=in:d=0.5,afade=out:st=3.5:d=0.5" \
    -c:v libx264 -preset veryfast -x264-params threads=1 -pix_fmt yuv420p -g 25 \
    -c:a aac -b:a 128k -ac 1 -f mp4
# Picture data overwritten in the middle of an MPEG-2 TS: for every TS packet of the video
# PID (0x100) from 40 % of the file, 24 packets long, bytes 40..187 are set to 0xFF; the
# packet headers and tables stay intact, so only the pictures suffer.
make .l4_clean.ts -f lavfi -i "$(video 4 320x180)" -c:v mpeg2video -q:v 2 -g 25 -bf 0 -f mpegts
if [[ ! -e "$out/l4_damaged.ts" ]]; then
    perl -e 'local $/; open my $f, "<:raw", $ARGV[0] or die; my $d = <$f>;
             my $n = int(length($d) / 188); my $hit = 0;
             for (my $i = int($n * 2 / 5); $i < $n && $hit < 24; ++$i) {
                 my $p = $i * 188;
                 next unless ((ord(substr($d, $p + 1, 1)) & 0x1f) << 8 | ord(substr($d, $p + 2, 1))) == 0x100;
                 substr($d, $p + 40, 148) = "\xff" x 148; ++$hit;
             }
             print $d' "$out/.l4_clean.ts" >"$out/.tmp.l4_damaged.ts" && mv "$out/.tmp.l4_damaged.ts" "$out/l4_damaged.ts"
fi

# Defects the media libraries only log. change NAME SOURCE AT COUNT: COUNT bytes from byte AT
# of SOURCE changed (each XOR 0x5A).
change() {
    [[ -e "$out/$1" ]] && return 0
    perl -e 'local $/; open my $f, "<:raw", $ARGV[0] or die; my $d = <$f>;
        substr($d, $ARGV[1] + $_, 1) ^= "\x5a" for 0 .. $ARGV[2] - 1; print $d' \
        "$out/$2" "$3" "$4" >"$out/.tmp.$1" && mv "$out/.tmp.$1" "$out/$1"
}
# FFV1 with slice CRCs, 64 bytes changed in the middle of the file: one slice of one picture.
make .l4_ffv1.mkv -f lavfi -i "$(video 2)" -c:v ffv1 -level 3 -slicecrc 1 -slices 4 -g 1 -f matroska
change l4_ffv1_crc.mkv .l4_ffv1.mkv "$(($(stat -c %s "$out/.l4_ffv1.mkv") / 2))" 64
# FLAC, whose frame CRCs its decoder checks only when asked, with 8 bytes changed.
make .l4_flac.mkv -f lavfi -i "$(tone 4)" -c:a flac -f matroska
change l4_flac_crc.mkv .l4_flac.mkv "$(($(stat -c %s "$out/.l4_flac.mkv") / 2))" 8
# Matroska whose MuxingApp element claims 64 bytes, running past the end of its parent (Info).
make .l4_mkv.mkv -f lavfi -i "$(video 2 160x120)" -f lavfi -i "$(tone 2)" -c:v mpeg2video -c:a mp2 \
    -f matroska
[[ -e "$out/l4_overrun.mkv" ]] || { perl -e 'local $/; open my $f, "<:raw", $ARGV[0] or die;
    my $d = <$f>; my $at = index($d, "\x4d\x80\x84"); die if $at < 0;
    substr($d, $at + 2, 1) = "\xc0"; print $d' "$out/.l4_mkv.mkv" >"$out/.tmp.l4_overrun.mkv" &&
    mv "$out/.tmp.l4_overrun.mkv" "$out/l4_overrun.mkv"; }
# Ten JPEG 2000 pictures in Matroska, the second to the ninth scrambled after their first two
# bytes: most packets do not decode.
if [[ ! -e "$out/l4_j2k_most_bad.mkv" ]]; then
    mkdir -p "$out/.j2k"
    "${ff[@]}" -f lavfi -i "testsrc2=size=64x48:rate=25:duration=0.4" -c:v jpeg2000 "${exact[@]}" \
        -f image2 "$out/.j2k/%02d.j2k"
    for i in 02 03 04 05 06 07 08 09; do
        perl -i -e 'local $/; my $d = <>; substr($d, $_, 1) = chr((ord(substr($d, $_, 1)) * 7 + 13) % 256)
            for 2 .. length($d) - 1; print $d' "$out/.j2k/$i.j2k"
    done
    "${ff[@]}" -framerate 25 -i "$out/.j2k/%02d.j2k" -c copy "${exact[@]}" -f matroska \
        "$out/.tmp.l4_j2k_most_bad.mkv" && mv "$out/.tmp.l4_j2k_most_bad.mkv" "$out/l4_j2k_most_bad.mkv"
    rm -rf "$out/.j2k"
fi

# Durations a hair off: a 2 s MPEG-2 MP4 at a 1/10000 track time base, without an edit list,
# whose track duration (mdhd) or clip duration (mvhd, set to the same time base) is patched
# 0.0099 s or 0.01 s short.
make .durations.mp4 -f lavfi -i "$(video 2 160x120)" -c:v mpeg2video -g 25 -bf 0 \
    -use_editlist 0 -video_track_timescale 10000 -f mp4
for cut in track:mdhd:0.0099:19901 track:mdhd:0.01:19900 clip:mvhd:0.0099:19901 clip:mvhd:0.01:19900; do
    IFS=: read -r what box label duration <<<"$cut"
    name="${what}_short_$label.mp4"
    [[ -e "$out/$name" ]] || python3 - "$out/.durations.mp4" "$out/.tmp.$name" "$box" "$duration" <<'PY'
import struct, sys
src, dst, box, duration = sys.argv[1], sys.argv[2], sys.argv[3].encode(), int(sys.argv[4])
data = bytearray(open(src, 'rb').read())
at = data.find(box)
assert at > 0 and data[at + 4] == 0, 'version 0 box expected'
struct.pack_into('>II', data, at + 16, 10000, duration)  # time scale, duration
open(dst, 'wb').write(data)
PY
    [[ -e "$out/$name" ]] || mv "$out/.tmp.$name" "$out/$name"
done
# Raw H.264 has no time stamps at all: 25 frames without, then with B-frames, which hold one
# frame in the decoder until the end.
make no_timecode.h264 -f lavfi -i "$(video 1 160x120)" -c:v libx264 -bf 0 -x264-params threads=1 -f h264
make no_timecode_bframes.h264 -f lavfi -i "$(video 1 160x120)" -c:v libx264 -bf 2 \
    -x264-params threads=1:b-pyramid=0 -f h264
# A 2 s YUV4MPEG clip whose 26th frame header is broken: its demuxer fails there.
make .frames.y4m -f lavfi -i "$(video 2 64x48)" -pix_fmt yuv420p -f yuv4mpegpipe
[[ -e "$out/demux_error.y4m" ]] || python3 - "$out/.frames.y4m" "$out/.tmp.demux_error.y4m" <<'PY'
import sys
data = open(sys.argv[1], 'rb').read()
at = -1
for _ in range(26):
    at = data.find(b'FRAME\n', at + 1)
open(sys.argv[2], 'wb').write(data[:at] + b'X' + data[at + 1:])
PY
[[ -e "$out/demux_error.y4m" ]] || mv "$out/.tmp.demux_error.y4m" "$out/demux_error.y4m"
# Matroska with a 2 s subtitle stream and nothing else.
printf '1\n00:00:00,000 --> 00:00:01,500\nOne\n\n2\n00:00:01,500 --> 00:00:02,000\nTwo\n' >"$out/.subtitles.srt"
make subtitles_only.mkv -i "$out/.subtitles.srt" -c:s srt -f matroska

# Files that only look like clips.
[[ -e "$out/text.mov" ]] || printf 'This is a text file, not a clip.\nSecond line.\n' >"$out/text.mov"
[[ -e "$out/random.mxf" ]] || perl -e 'srand(7); print map { chr(int(rand(256))) } 1..65536' >"$out/random.mxf"
[[ -e "$out/empty.mp4" ]] || : >"$out/empty.mp4"

echo "$self_hash" >"$out/.generator"
