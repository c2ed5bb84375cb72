#!/usr/bin/env bash
# What running every check in a worker process costs: tarvoqc-check against the same
# checks run in one process (bench/tarvoqc-inprocess.cpp, a thread per clip as before the
# worker processes), on 2000 tiny clips and on a job of 50000 clips that do not exist, at
# --jobs 1 and --jobs 2; and the 60 s 1080p H.264 clip at level 3 with the decoder threads
# of the spare cores against --threads 1 (the one-thread floor).
#
#   bench/isolation.sh [RUNS]      (default 3 runs per figure; medians are printed)
#
# Targets: worker / in process <= 1.1 for every list; 50000 missing clips < 20 s;
# level 3 threads / one thread <= 0.6 (on 2 cores).
set -euo pipefail

runs=${1:-3}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/build.sh" release >/dev/null
check="$root/build/release/app/tarvoqc-check"
inproc="$root/build/release/bench/tarvoqc-inprocess"
media="$root/build/bench-media"
mkdir -p "$media"
source "$root/bench/benchmedia.sh"
make_check_clips
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# 2000 tiny clips: 0.2 s of 160x120 H.264 and AAC each (about 10 KB).
"${ff[@]}" -f lavfi -i "testsrc2=size=160x120:rate=25:duration=0.2" -f lavfi -i "$(tone 0.2)" \
    -c:v libx264 -preset ultrafast -c:a aac -f mp4 "$work/tiny.mp4"
mkdir "$work/tiny"
for i in $(seq -w 1 2000); do cp "$work/tiny.mp4" "$work/tiny/clip$i.mp4"; done
find "$work/tiny" -name '*.mp4' | sort >"$work/tiny.list"
python3 - "$work" <<'PY'
import sys
work = sys.argv[1]
paths = ['/nonexistent/tarvoqc-bench/clip%07d.mxf' % i for i in range(50000)]
with open(work + '/missing.qcin', 'w') as f:
    f.write('<Tarvo_QC>\n' + ''.join('<Clip File="%s"/>\n' % p for p in paths) + '</Tarvo_QC>\n')
with open(work + '/missing.list', 'w') as f:
    f.write(''.join(p + '\n' for p in paths))
PY

echo "TarvoQC worker processes, $runs runs each, medians; $(nproc) cores; $(date -u +%Y-%m-%dT%H:%MZ)"
status=0
for jobs in 1 2; do
    echo "2000 tiny clips, --jobs $jobs"
    measure "tarvoqc-check (worker processes)" "$check" -q -j$jobs "$work/tiny"
    ours=$secs
    measure "in process (thread per clip)" "$inproc" -j$jobs "@$work/tiny.list"
    echo "  ratio worker / in process      $(ratio "$ours" "$secs")   (target <= 1.1)"
    awk -v a="$ours" -v b="$secs" 'BEGIN { exit !(a <= 1.1 * b) }' || status=1

    echo "50000 missing clips, --jobs $jobs"
    measure "tarvoqc-check (worker processes)" "$check" -q -j$jobs "$work/missing.qcin"
    ours=$secs
    measure "in process (thread per clip)" "$inproc" -j$jobs "@$work/missing.list"
    echo "  ratio worker / in process      $(ratio "$ours" "$secs")   (target <= 1.1, < 20 s)"
    awk -v a="$ours" -v b="$secs" 'BEGIN { exit !(a <= 1.1 * b && a < 20) }' || status=1
done

f="$media/h264_8M_60s.mp4"
echo "$(basename "$f") at level 3"
measure "tarvoqc-check (decoder threads: spare cores)" "$check" -q -l3 "$f"
ours=$secs
measure "tarvoqc-check --threads 1" "$check" -q -l3 --threads 1 "$f"
echo "  ratio threads / one thread     $(ratio "$ours" "$secs")   (target <= 0.6)"
[[ $status == 0 ]] && echo "targets met" || { echo "TARGET MISSED"; exit 1; }
