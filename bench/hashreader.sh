#!/usr/bin/env bash
# The hash reader beside a stand-in decode pass (tarvoqc-hashreader-bench): no hashing,
# Inline and Background, on a 256 MiB file in the page cache, for a few amounts of decode
# work. Background pays off only where a second core is free: compare wall and CPU time.
# Usage: bench/hashreader.sh [build folder, default build/release]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-$root/build/release}
runs=${RUNS:-3}
file=${HASHREADER_BENCH_FILE:-/tmp/tarvoqc-hashreader-bench.bin}
size=$((256 * 1024 * 1024))

cmake --build "$build" --target tarvoqc-hashreader-bench -j 2 >/dev/null
if [[ ! -f $file || $(stat -c %s "$file") -ne $size ]]; then
    head -c "$size" /dev/urandom >"$file.part"
    mv "$file.part" "$file"
fi
cat "$file" >/dev/null

echo "256 MiB in the page cache (load: $(cut -d' ' -f1-3 /proc/loadavg))"
# 0: reading only; 500 and 2000 ns/KiB: decoding at about 2 GB/s and 500 MB/s.
for work in 0 500 2000; do
    "$build/bench/tarvoqc-hashreader-bench" "$file" "$work" "$runs"
done
