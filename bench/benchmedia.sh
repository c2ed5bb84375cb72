# Sourced by the benchmark scripts (bash): the benchmark clips and the timing helpers.
# Expects $media (the clip folder) and $runs (runs per figure) to be set.
#
# The clips are made once and kept: H.264 High about 8 Mbit/s 60 s in MP4 with AAC; MPEG-2
# 4:2:2 about 50 Mbit/s 60 s in MXF with 4-channel PCM; ProRes 422 30 s in MOV with PCM;
# and eight 10 s H.264 clips for --jobs.

ff=(ffmpeg -nostdin -hide_banner -loglevel error -y)
# Moving noise keeps the encoders honest: a plain test pattern would compress to nothing.
src() { echo "testsrc2=size=1920x1080:rate=25:duration=$1,noise=alls=12:allf=t+u"; }
tone() { echo "sine=frequency=440:sample_rate=48000:duration=$1"; }
make_clip() { # NAME ffmpeg-arguments...
    local name=$1
    shift
    [[ -s "$media/$name" ]] && return 0
    echo "making $name ..." >&2
    "${ff[@]}" "$@" "$media/.tmp.$name" && mv "$media/.tmp.$name" "$media/$name"
}
make_check_clips() {
    make_clip h264_8M_60s.mp4 -f lavfi -i "$(src 60)" -f lavfi -i "$(tone 60)" \
        -c:v libx264 -profile:v high -preset faster -b:v 8M -maxrate 8M -bufsize 16M -pix_fmt yuv420p \
        -g 50 -c:a aac -b:a 192k -ac 2 -f mp4
    make_clip mpeg2_422_50M_60s.mxf -f lavfi -i "$(src 60)" -f lavfi -i "$(tone 60)" \
        -c:v mpeg2video -pix_fmt yuv422p -b:v 50M -minrate 50M -maxrate 50M -bufsize 17825792 \
        -g 12 -bf 2 -c:a pcm_s24le -ac 4 -f mxf
    make_clip prores422_30s.mov -f lavfi -i "$(src 30)" -f lavfi -i "$(tone 30)" \
        -c:v prores_ks -profile:v 2 -pix_fmt yuv422p10le -c:a pcm_s24le -ac 2 -f mov
}
make_jobs_clips() {
    for i in 1 2 3 4 5 6 7 8; do
        make_clip "jobs_$i.mp4" -f lavfi -i "testsrc2=size=1920x1080:rate=25:duration=10,noise=alls=12:allf=t+u,hue=h=$((i * 40))" \
            -f lavfi -i "$(tone 10)" -c:v libx264 -preset faster -b:v 8M -pix_fmt yuv420p -g 50 \
            -c:a aac -b:a 128k -f mp4
    done
}

# measure LABEL command...: runs it $runs times, sets $secs (median wall seconds) and
# $kib (median peak resident KiB).
measure() {
    local label=$1
    shift
    local t=() m=()
    for ((i = 0; i < runs; i++)); do
        /usr/bin/time -f "%e %M" -o "$media/.time" "$@" >/dev/null 2>&1 || true
        read -r s k < <(tail -n 1 "$media/.time") # after "Command exited with ..."
        t+=("$s")
        m+=("$k")
    done
    secs=$(printf '%s\n' "${t[@]}" | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
    kib=$(printf '%s\n' "${m[@]}" | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
    printf '  %-44s %8.2f s %9d KiB\n' "$label" "$secs" "$kib"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", (b > 0 ? a / b : 0) }'; }
