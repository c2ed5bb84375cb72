#!/usr/bin/env bash
# Time and peak memory of tarvoqc-report over a large delivery, and how long headless
# Chromium takes to show its HTML page sorted by score.
#
#   bench/report.sh [LINES]      (default 100000 JSON lines)
#
# The lines are real tarvoqc-check --json lines of the test clips, repeated under
# distinct paths, so that the mix of scores and issues is that of real checks.
set -euo pipefail

lines=${1:-100000}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build/release"
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTARVOQC_TEST_MEDIA_DIR="$root/build/testmedia" >/dev/null
cmake --build "$build" -j2 --target tarvoqc-check tarvoqc-report tarvoqc_test_media >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$build/app/tarvoqc-check" --json -j2 "$root"/build/testmedia/*.* >"$work/real.jsonl" 2>/dev/null || true
python3 - "$work/real.jsonl" "$lines" >"$work/big.jsonl" <<'PY'
import json, os, sys
real = [json.loads(l) for l in open(sys.argv[1])]
for i in range(int(sys.argv[2])):
    clip = dict(real[i % len(real)])
    ext = os.path.splitext(clip["path"])[1]
    clip["path"] = "/library/show %03d/clip %06d%s" % (i // 1000, i, ext)
    print(json.dumps(clip, ensure_ascii=False))
PY
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
echo "input: $(wc -l <"$work/big.jsonl") lines, $(du -m "$work/big.jsonl" | cut -f1) MB" \
     "(from $(wc -l <"$work/real.jsonl") real lines)"

measure() { # LABEL tarvoqc-report-arguments...
    local label=$1
    shift
    /usr/bin/time -v "$build/app/tarvoqc-report" -q "$@" 2>"$work/time.txt" || true
    # CPU time beside the wall time: on a shared machine the wall time grows with the load.
    awk -v label="$label" -F': ' '
        /Elapsed \(wall clock\)/ { wall = $2 }
        /User time/ { cpu += $2 }
        /System time/ { cpu += $2 }
        /Maximum resident set size/ { rss = $2 }
        END { printf "%-26s wall %s  CPU %.2f s  peak memory %.1f MB\n", label, wall, cpu, rss / 1024 }' \
        "$work/time.txt"
}
measure "summary only" "$work/big.jsonl"
measure "CSV" "$work/big.jsonl" --csv "$work/big.csv"
measure "HTML" "$work/big.jsonl" --html "$work/big.html"
measure "summary, CSV and HTML" "$work/big.jsonl" --csv "$work/big.csv" --html "$work/big.html"
measure "with a baseline (itself)" "$work/big.jsonl" -b "$work/big.jsonl" --csv "$work/big.csv" \
    --html "$work/big.html"
echo "outputs: CSV $(du -m "$work/big.csv" | cut -f1) MB, HTML $(du -m "$work/big.html" | cut -f1) MB"

if command -v chromium >/dev/null; then
    start=$(date +%s.%N)
    chromium --headless --no-sandbox --disable-gpu --disable-background-networking \
        --no-first-run --user-data-dir="$work/profile" --dump-dom \
        "file://$work/big.html#sort=score" >"$work/dom.html" 2>/dev/null
    end=$(date +%s.%N)
    # The page notes when its first page was shown; the rest of the wall time is Chromium
    # starting and writing out the whole DOM, the embedded data included.
    printf "Chromium: first page (%s rows, sorted by score) shown %s ms after the load began;" \
        "$(grep -o '<tr class="clip' "$work/dom.html" | wc -l)" \
        "$(grep -o 'data-shown-ms="[0-9]*"' "$work/dom.html" | grep -o '[0-9]\+')"
    printf " headless start to DOM written out: %.1f s\n" "$(echo "$end - $start" | bc)"
fi
