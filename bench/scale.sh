#!/usr/bin/env bash
# Scale of a command-line run with many clips: a job file of N clips that do not exist (each
# still a full check in a worker process, a result and a document entry), checked by
# tarvoqc-check --jobs 1 and by the window program (a hidden job, so it runs offscreen).
#
#   bench/scale.sh [RUNS] [SIZES...]      (default 3 runs; sizes 50000 100000 200000)
#
# Targets: 50000 clips in under 20 s with tarvoqc-check; 100000 clips cost at most 2.2 times
# 50000 (the run grows with the clip count, not with its square); 200000 clips in under 30 s
# and under 300 MB in both programs, that is a finished clip's record costs about its path
# and its one issue. The window checks at idle priority, so its wall time counts only on a
# machine with idle cores: the load average is printed beside each figure.
set -euo pipefail

runs=${1:-3}
shift || true
sizes=("$@")
[[ ${#sizes[@]} -gt 0 ]] || sizes=(50000 100000 200000)
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/build.sh" release >/dev/null
check="$root/build/release/app/tarvoqc-check"
window="$root/build/release/app/tarvoqc"
work=$(mktemp -d)
export TARVOQC_HOME="$work/home"
mkdir -p "$TARVOQC_HOME"
trap 'rm -rf "$work"' EXIT

make_job() { # N
    python3 - "$1" "$work/missing$1.qcin" <<'PY'
import sys
n, path = int(sys.argv[1]), sys.argv[2]
with open(path, 'w') as f:
    f.write('<Tarvo_QC Hide="1">\n')
    f.writelines('<Clip File="/nonexistent/tarvoqc-bench/clip%07d.mxf"/>\n' % i for i in range(n))
    f.write('</Tarvo_QC>\n')
PY
}

# Wall seconds, peak memory (KB), CPU seconds and the load average of one run. Every clip
# scores 0: tarvoqc-check exits 1, the window program 0; both write the job's document.
run_once() { # PROGRAM N
    local status=0 expected=1 program=$1
    local -a cmd=("$check" -q -j1)
    if [[ $program == window ]]; then
        cmd=("$window")
        expected=0
    fi
    /usr/bin/time -f '%e %M %U %S' -o "$work/time" "${cmd[@]}" "$work/missing$2.qcin" \
        >/dev/null 2>&1 || status=$?
    [[ $status == "$expected" ]] || { echo "$program: unexpected exit status $status" >&2; exit 1; }
    [[ -s "$work/missing$2.qcout" ]] || { echo "$program: no result document" >&2; exit 1; }
    rm -f "$work/missing$2.qcout"
    echo "$(tail -n 1 "$work/time") $(cut -d ' ' -f 1 /proc/loadavg)"
}

median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

declare -A wall mem
met=1
for n in "${sizes[@]}"; do
    make_job "$n"
    for program in check window; do
        results=$(for ((r = 0; r < runs; r++)); do run_once "$program" "$n"; done)
        w=$(awk '{ print $1 }' <<<"$results" | median)
        m=$(awk '{ print $2 }' <<<"$results" | median)
        c=$(awk '{ print $3 + $4 }' <<<"$results" | median)
        load=$(awk '{ print $5 }' <<<"$results" | median)
        wall[$program$n]=$w
        mem[$program$n]=$m
        printf '%-6s %7d clips: %6.2f s wall, %6.2f s CPU, peak %6.1f MB, %4.0f bytes a clip, load %s (median of %d)\n' \
            "$program" "$n" "$w" "$c" "$(echo "$m / 1024" | bc -l)" \
            "$(echo "$m * 1024 / $n" | bc -l)" "$load" "$runs"
        if [[ $n == 200000 ]]; then
            awk -v t="$w" -v m="$m" 'BEGIN { exit !(t < 30 && m < 300 * 1024) }' || met=0
        fi
    done
done
if [[ -n ${wall[check50000]:-} && -n ${wall[check100000]:-} ]]; then
    ratio=$(echo "${wall[check100000]} / ${wall[check50000]}" | bc -l)
    printf 'tarvoqc-check 100000 / 50000 clips: %.2f wall (target <= 2.2)\n' "$ratio"
    awk -v t="${wall[check50000]}" -v r="$ratio" 'BEGIN { exit !(t < 20 && r <= 2.2) }' || met=0
fi
[[ $met == 1 ]] && echo "targets met" || { echo "TARGET MISSED"; exit 1; }
