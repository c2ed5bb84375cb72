#!/usr/bin/env bash
# Times SafeTransfer against cp + cmp on one 1 GiB file, all in the same folder and the same
# run, and prints the median of each.
#   bench/transfer.sh [FOLDER] [RUNS] [SIZE_MIB]
# FOLDER (default /var/tmp/tarvoqc-bench) should be on the disk that is to be measured; it
# needs twice SIZE_MIB (default 1024) free. RUNS defaults to 5. The tools come from
# build/release (scripts/build.sh release), or from $TARVOQC_BUILD when set.
#
# Every run of every variant starts with the source in the page cache and no copy on disk
# (the old copy is removed and everything flushed first); the variants take turns, so a
# drift of the disk hits them all alike.
#   safe+verify        SafeTransfer with TransferVerify: the copy is flushed, dropped from
#                      the page cache and read back from the disk
#   safe+verify-cache  the same, reading the copy back from the page cache
#   safe               SafeTransfer without verify (copy, flush, rename, flush folder)
#   cp+cmp             cp, then cmp (the copy need not be on disk; cmp reads the cache)
#   cp+sync+cmp        cp, sync of the copy, cmp from the cache
#   cp+sync+drop+cmp   cp, sync, the copy dropped from the cache, cmp from the disk
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${TARVOQC_BUILD:-$root/build/release}
folder=${1:-/var/tmp/tarvoqc-bench}
runs=${2:-5}
size_mib=${3:-1024}

for tool in tarvoqc-transfer tarvoqc-transfer-cached; do
    [[ -x $build/bench/$tool ]] || { echo "missing $build/bench/$tool: build first" >&2; exit 2; }
done

mkdir -p "$folder"
src=$folder/source.bin
dst=$folder/copy.bin
trap 'rm -f "$dst"' EXIT
if [[ ! -f $src || $(stat -c %s "$src") -ne $((size_mib << 20)) ]]; then
    echo "Making $src ($size_mib MiB)..."
    head -c $((size_mib << 20)) /dev/urandom >"$src.part"
    mv "$src.part" "$src"
fi
cat "$src" >/dev/null # the source starts every run in the page cache

now() { date +%s%N; }

variants=(safe+verify safe+verify-cache safe cp+cmp cp+sync+cmp cp+sync+drop+cmp)
run_variant() {
    case $1 in
        safe+verify) "$build/bench/tarvoqc-transfer" --verify "$src" "$dst" >/dev/null ;;
        safe+verify-cache) "$build/bench/tarvoqc-transfer-cached" --verify "$src" "$dst" >/dev/null ;;
        safe) "$build/bench/tarvoqc-transfer" "$src" "$dst" >/dev/null ;;
        cp+cmp) cp "$src" "$dst" && cmp "$src" "$dst" ;;
        cp+sync+cmp) cp "$src" "$dst" && sync "$dst" && cmp "$src" "$dst" ;;
        cp+sync+drop+cmp)
            cp "$src" "$dst" && sync "$dst" &&
                dd if="$dst" iflag=nocache count=0 status=none && cmp "$src" "$dst" ;;
    esac
}

declare -A times
for ((r = 1; r <= runs; ++r)); do
    for v in "${variants[@]}"; do
        rm -f "$dst"
        sync
        t0=$(now)
        run_variant "$v"
        t1=$(now)
        times[$v]+="$(((t1 - t0) / 1000000)) "
    done
    echo "run $r done"
done

median() { tr ' ' '\n' | grep -v '^$' | sort -n | awk '{a[NR]=$1} END {print (NR%2 ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2)}'; }
echo
echo "$size_mib MiB in $folder ($(df -PT "$folder" | awk 'NR==2 {print $1, $2}')), $runs runs, milliseconds"
printf '%-18s %8s %8s  %s\n' variant median MiB/s "all runs"
for v in "${variants[@]}"; do
    m=$(median <<<"${times[$v]}")
    printf '%-18s %8s %8s  %s\n' "$v" "$m" "$(awk -v s="$size_mib" -v m="$m" 'BEGIN {printf "%.0f", s * 1000 / m}')" "${times[$v]}"
done
