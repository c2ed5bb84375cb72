#!/usr/bin/env bash
# Checks a list of clips on several machines at once with GNU parallel and merges what
# every host found into one report with tarvoqc-report.
#
# Each host needs tarvoqc-check installed and the clips at the same paths (shared
# storage); the hosts are reached over ssh as GNU parallel does it. Each host runs one
# tarvoqc-check at a time on a batch of clips; that checker spreads the batch over the
# host's own cores (its --jobs) and gives the cores left over to the decoders, so no host
# runs more threads than it has cores. A tool error of tarvoqc-check (exit 2, or ssh
# failing) is retried, on another host where there is one; a verdict (exit 1: a clip below
# the threshold) is a result and is never retried.
set -euo pipefail

usage() {
    cat <<'EOF'
Usage: parallel-check.sh [OPTIONS] LIST OUTDIR
  LIST                   clip paths, one per line ('-': standard input)
  OUTDIR                 gets results.jsonl, joblog, report.csv and report.html
  -S, --sshlogin S       hosts as GNU parallel's -S takes them, e.g. ':' (this
                         machine) or "qc@render1,qc@render2" (default: this machine only);
                         each host runs one checker at a time, which uses all its cores
      --sshloginfile F   hosts from a file, one a line in the same form
  -n, --batch N          clips per tarvoqc-check call (default 8)
  -j, --jobs N           clips each checker checks at the same time (its --jobs;
                         default 0: one per core the host lets it use)
      --threads N        decoder threads per clip (its --threads; default: the host's
                         cores divided among the clips it checks at once)
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

hosts=() jobs=0 threads=0 batch=8 level=3 threshold=3 retries=3 resume=0
number() { [[ $2 =~ ^[0-9]+$ ]] || { echo "parallel-check.sh: $1 needs a whole number, not '$2'" >&2; exit 2; }; }
while [[ $# -gt 0 ]]; do
    case "$1" in
        -S|--sshlogin) hosts+=(-S "$2"); shift 2 ;;
        --sshloginfile) hosts+=(--sshloginfile "$2"); shift 2 ;;
        -j|--jobs) number "$1" "$2"; jobs=$2; shift 2 ;;
        --threads) number "$1" "$2"; threads=$2; shift 2 ;;
        -n|--batch) number "$1" "$2"; batch=$2; shift 2 ;;
        -l|--level) number "$1" "$2"; level=$2; shift 2 ;;
        -t|--threshold) number "$1" "$2"; threshold=$2; shift 2 ;;
        -r|--retries) number "$1" "$2"; retries=$2; shift 2 ;;
        --resume) resume=1; shift ;;
        -h|--help) usage; exit 0 ;;
        --) shift; break ;;
        -?*) echo "parallel-check.sh: unknown option '$1'" >&2; usage >&2; exit 2 ;;
        *) break ;;
    esac
done
[[ $batch -ge 1 ]] || { echo "parallel-check.sh: --batch needs at least 1" >&2; exit 2; }
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

# The command each host runs, one at a time per host (-j 1, whatever a login's "N/" says): exit 1 of the checker becomes 0, so that only tool errors
# count as failures for --retries. parallel quotes the checker and the paths for the
# remote shell; the rest is plain sh.
wrapped="$(printf '%q' "$check") --json --quiet --level $level --jobs $jobs --threads $threads -- {} ; s=\$? ; [ \$s -eq 1 ] && exit 0 ; exit \$s"

status=0
parallel --keep-order --retries "$retries" --joblog "$out/joblog" "${redo[@]}" \
    "${hosts[@]}" -j 1 -N "$batch" "${input[@]}" "$wrapped" >>"$out/results.jsonl" ||
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
