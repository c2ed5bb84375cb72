#!/usr/bin/env bash
# Time and page size of tarvoqc-report --html with pictures, and how long headless Chromium
# takes to show the page's first page of clips.
#
#   bench/report_pictures.sh [CLIPS...]      (default: 1000 100000)
#
# The clips are the test clips with video that scored above 0, each line of a real
# tarvoqc-check --json -l4 run repeated under a distinct name: a symbolic link to its clip,
# so that every line's clip can be read and has its pictures taken (up to the page's bound,
# the worst clips first).
set -euo pipefail

sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(1000 100000)
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build/release"
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTARVOQC_TEST_MEDIA_DIR="$root/build/testmedia" >/dev/null
cmake --build "$build" -j2 --target tarvoqc-check tarvoqc-report tarvoqc_test_media >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$build/app/tarvoqc-check" --json -l4 -j2 "$root"/build/testmedia/*.* >"$work/real.jsonl" 2>/dev/null || true
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores;" \
     "$(wc -l <"$work/real.jsonl") real lines"

for clips in "${sizes[@]}"; do
    mkdir -p "$work/links$clips"
    python3 - "$work/real.jsonl" "$clips" "$work/links$clips" >"$work/big.jsonl" <<'PY'
import json, os, sys
# Clips with a picture to take: a video stream and a score above 0 (the worst clips of the
# test set, a clip claiming 16000 x 16000 pictures above all, would otherwise take every
# place of the bound and the page would show notes, not pictures).
real = [c for c in map(json.loads, open(sys.argv[1]))
        if c["score"] > 0 and any(s["type"] == "Video" for s in c["streams"])]
folder = sys.argv[3]
for i in range(int(sys.argv[2])):
    clip = dict(real[i % len(real)])
    link = os.path.join(folder, "clip %06d%s" % (i, os.path.splitext(clip["path"])[1]))
    os.symlink(clip["path"], link)
    clip["path"] = link
    print(json.dumps(clip, ensure_ascii=False))
PY
    /usr/bin/time -v "$build/app/tarvoqc-report" -q "$work/big.jsonl" --html "$work/big.html" \
        2>"$work/time.txt" || true
    awk -v clips="$clips" -F': ' '
        /Elapsed \(wall clock\)/ { wall = $2 }
        /User time/ { cpu += $2 }
        /System time/ { cpu += $2 }
        /Maximum resident set size/ { rss = $2 }
        END { printf "%d clips: wall %s  CPU (report process) %.2f s  peak memory %.1f MB\n",
              clips, wall, cpu, rss / 1024 }' "$work/time.txt"
    echo "  page $(du -m "$work/big.html" | cut -f1) MB," \
         "$(grep -o 'data:image/jpeg;base64,' "$work/big.html" | wc -l) pictures"
    if command -v chromium >/dev/null; then
        chromium --headless --no-sandbox --disable-gpu --disable-background-networking \
            --no-first-run --user-data-dir="$work/profile" --dump-dom \
            "file://$work/big.html" >"$work/dom.html" 2>/dev/null
        printf "  Chromium: first page (%s rows, worst first, %s pictures decoded) shown %s ms after the load began\n" \
            "$(grep -o '<tr class="clip' "$work/dom.html" | wc -l)" \
            "$(grep -o 'data-w="[0-9]*"' "$work/dom.html" | wc -l)" \
            "$(grep -o 'data-shown-ms="[0-9]*"' "$work/dom.html" | grep -o '[0-9]\+')"
    fi
    rm -rf "$work/links$clips"
done
