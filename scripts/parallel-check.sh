#!/usr/bin/env bash
# Checks a list of clips on several machines at once with GNU parallel and merges what
# every host found into one report with tarvoqc-report.
#
# Each host needs tarvoqc-check installed and the clips at the same paths (shared
# storage); the hosts are reached over ssh as GNU parallel does it. A tool error of
# tarvoqc-check (exit 2, or ssh failing) is retried, on another host where there is one;
# a verdict (exit 1: a clip below the threshold) is a result and is never retried.
set -euo pipefail

usage() {
    cat <<'EOF'
Usage: parallel-check.sh [OPTIONS] LIST OUTDIR
  LIST                   clip paths, one per line ('-': standard input)
  OUTDIR                 gets results.jsonl, joblog, report.csv and report.html
  -S, --sshloginfile F   hosts, in GNU parallel's --sshloginfile format
                         (default: this machine only)
      --sshlogin S       hosts as GNU parallel's -S takes them, e.g. "2/:" or "8/qc1,8/qc2"
  -j, --jobs N           checks at the same time per host (default: one per core)
  -n, --batch N          clips per tarvoqc-check call (default 1)
  -l, --level N          check level 1..4 (default 3)
  -t, --threshold N      lowest passing score 0..5 (default 3)
  -r, --retries N        tries per batch when the checker fails (default 3)
      --resume           check again only the batches that failed in OUTDIR's joblog
  -h, --help
environment: TARVOQC_CHECK   the checker on each host (default: tarvoqc-check)
             TARVOQC_REPORT  the report tool on this machine (default: tarvoqc-report)
exit status: that of tarvoqc-report over all results (0 pass, 1 below the threshold),
             2 when a batch still failed after its retries or on a usage error
EOF
}

hosts=() jobs=() batch=1 level=3 threshold=3 retries=3 resume=0
while [[ $# -gt 0 ]]; do
    case "$1" in
        -S|--sshloginfile) hosts+=(--sshloginfile "$2"); shift 2 ;;
        --sshlogin) hosts+=(-S "$2"); shift 2 ;;
        -j|--jobs) jobs=(-j "$2"); shift 2 ;;
        -n|--batch) batch=$2; shift 2 ;;
        -l|--level) level=$2; shift 2 ;;
        -t|--threshold) threshold=$2; shift 2 ;;
        -r|--retries) retries=$2; shift 2 ;;
        --resume) resume=1; shift ;;
        -h|--help) usage; exit 0 ;;
        --) shift; break ;;
        -?*) echo "parallel-check.sh: unknown option '$1'" >&2; usage >&2; exit 2 ;;
        *) break ;;
    esac
done
[[ $# -eq 2 ]] || { usage >&2; exit 2; }
list=$1 out=$2
command -v parallel >/dev/null || { echo "parallel-check.sh: GNU parallel is not installed" >&2; exit 2; }
check=${TARVOQC_CHECK:-tarvoqc-check}
report=${TARVOQC_REPORT:-tarvoqc-report}
mkdir -p "$out"

input=()
[[ $list == - ]] || input=(-a "$list")
redo=()
if [[ $resume -eq 1 ]]; then
    redo=(--resume-failed)
else
    rm -f "$out/joblog" "$out/results.jsonl"
fi

# The command each host runs: exit 1 of the checker becomes 0, so that only tool errors
# count as failures for --retries. parallel quotes the checker and the paths for the
# remote shell; the rest is plain sh.
wrapped="$(printf '%q' "$check") --json --quiet --level $level -- {} ; s=\$? ; [ \$s -eq 1 ] && exit 0 ; exit \$s"

status=0
parallel --keep-order --retries "$retries" --joblog "$out/joblog" "${redo[@]}" \
    "${hosts[@]}" "${jobs[@]}" -N "$batch" "${input[@]}" "$wrapped" >>"$out/results.jsonl" ||
    status=$?
if [[ $status -ne 0 ]]; then
    # Column 7 of the joblog is the exit value; a failed batch's clips are not in the results.
    echo "parallel-check.sh: $status batch(es) failed after $retries tries; their clips are" \
         "missing from the report (run again with --resume):" >&2
    awk -F '\t' 'NR > 1 && $7 != 0 { print "  " $9 }' "$out/joblog" >&2
fi

report_status=0
"$report" --threshold "$threshold" --csv "$out/report.csv" --html "$out/report.html" \
    "$out/results.jsonl" || report_status=$?
[[ $status -eq 0 ]] || exit 2
exit "$report_status"
