#!/usr/bin/env bash
# Scale of a command-line run with many clips: a job file of N clips that do not exist (each
# still a full open attempt, a result and a document entry) checked with --jobs 1.
#
#   bench/scale.sh [RUNS]      (default 3 runs per size; medians are printed)
#
# Targets: 50000 clips in under 20 s; 100000 clips cost at most 2.2 times 50000 (the run
# grows with the clip count, not with its square).
set -euo pipefail

runs=${1:-3}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/build.sh" release >/dev/null
check="$root/build/release/app/tarvoqc-check"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

make_job() { # N
    python3 - "$1" "$work/missing$1.qcin" <<'PY'
import sys
n, path = int(sys.argv[1]), sys.argv[2]
with open(path, 'w') as f:
    f.write('<Tarvo_QC>\n')
    f.writelines('<Clip File="/nonexistent/tarvoqc-bench/clip%07d.mxf"/>\n' % i for i in range(n))
    f.write('</Tarvo_QC>\n')
PY
}

# Wall seconds and peak memory (KB) of one run; every clip scores 0, so the status is 1.
run_once() { # N
    local status=0
    /usr/bin/time -f '%e %M %U %S' -o "$work/time" "$check" -q -j1 "$work/missing$1.qcin" >/dev/null || status=$?
    [[ $status == 1 ]] || { echo "unexpected exit status $status" >&2; exit 1; }
    tail -n 1 "$work/time"
}

median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

declare -A wall mem cpu
for n in 50000 100000; do
    make_job "$n"
    results=$(for ((r = 0; r < runs; r++)); do run_once "$n"; done)
    wall[$n]=$(awk '{ print $1 }' <<<"$results" | median)
    mem[$n]=$(awk '{ print $2 }' <<<"$results" | median)
    cpu[$n]=$(awk '{ print $3 + $4 }' <<<"$results" | median)
    printf '%7d clips, --jobs 1: %6.2f s wall, %6.2f s CPU, peak %6.1f MB (median of %d)\n' \
        "$n" "${wall[$n]}" "${cpu[$n]}" "$(echo "${mem[$n]} / 1024" | bc -l)" "$runs"
done
ratio=$(echo "${wall[100000]} / ${wall[50000]}" | bc -l)
printf '100000 / 50000 clips: %.2f wall (target <= 2.2), %.2f CPU\n' "$ratio" \
    "$(echo "${cpu[100000]} / ${cpu[50000]}" | bc -l)"
printf '50000 clips: %.2f s (target < 20 s)\n' "${wall[50000]}"
awk -v t="${wall[50000]}" -v r="$ratio" 'BEGIN { exit !(t < 20 && r <= 2.2) }' &&
    echo "targets met" || { echo "TARGET MISSED"; exit 1; }
