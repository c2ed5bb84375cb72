#!/usr/bin/env bash
# Own SHA-256 against openssl on a 1 GiB file held in the page cache: the file is read once
# before timing, then each command runs RUNS times (default 5) and the median counts.
# MB/s are 10^6 bytes per second. Usage: bench/sha256.sh [build folder, default build/release]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-$root/build/release}
runs=${RUNS:-5}
file=${SHA256_BENCH_FILE:-/tmp/tarvoqc-sha256-bench.bin}
size=$((1024 * 1024 * 1024))
tool="$build/bench/tarvoqc-sha256"

cmake --build "$build" --target tarvoqc-sha256 -j 2 >/dev/null
command -v openssl >/dev/null || { echo "openssl is needed" >&2; exit 2; }

if [[ ! -f $file || $(stat -c %s "$file") -ne $size ]]; then
    echo "making $file (1 GiB of random bytes)"
    head -c "$size" /dev/urandom >"$file.part"
    mv "$file.part" "$file"
fi
cat "$file" >/dev/null

# The three must agree before their speed means anything.
want=$(sha256sum "$file" | cut -c1-64)
for cmd in "openssl dgst -sha256 -r $file" "$tool $file" "$tool --portable $file"; do
    got=$($cmd | cut -c1-64)
    [[ $got == "$want" ]] || { echo "wrong digest from: $cmd" >&2; exit 1; }
done

# Medians of RUNS runs of the command: wall seconds and CPU seconds (user + system). The
# machine may be shared, so the CPU time is the steadier figure; both are shown.
measure() {
    local walls=() cpus=() line
    for ((i = 0; i < runs; i++)); do
        line=$({ TIMEFORMAT='%R %U %S'; time "$@" >/dev/null; } 2>&1)
        walls+=("$(awk '{print $1}' <<<"$line")")
        cpus+=("$(awk '{print $2 + $3}' <<<"$line")")
    done
    echo "$(printf '%s\n' "${walls[@]}" | sort -g | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}')" \
         "$(printf '%s\n' "${cpus[@]}" | sort -g | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}')"
}

mbps() { awk -v s="$1" -v n="$size" 'BEGIN {printf "%.0f", n / s / 1e6}'; }

read -r w_ssl c_ssl < <(measure openssl dgst -sha256 "$file")
read -r w_own c_own < <(measure "$tool" "$file")
read -r w_port c_port < <(measure "$tool" --portable "$file")

echo "SHA-256 of 1 GiB in the page cache, median of $runs runs (load: $(cut -d' ' -f1-3 /proc/loadavg))"
printf '  %-28s %8s %8s %10s %8s\n' "" "wall s" "MB/s" "cpu s" "MB/s"
row() { printf '  %-28s %8s %8s %10s %8s\n' "$1" "$2" "$(mbps "$2")" "$3" "$(mbps "$3")"; }
row "openssl dgst -sha256" "$w_ssl" "$c_ssl"
row "tarvoqc-sha256" "$w_own" "$c_own"
row "tarvoqc-sha256 --portable" "$w_port" "$c_port"
awk -v ws="$w_ssl" -v wo="$w_own" -v wp="$w_port" -v cs="$c_ssl" -v co="$c_own" -v cp="$c_port" 'BEGIN {
    printf "  throughput ratio own/openssl: wall %.2f, cpu %.2f (portable: wall %.2f, cpu %.2f)\n",
        ws / wo, cs / co, ws / wp, cs / cp }'
