#!/usr/bin/env bash
# Throughput and memory of whole conversions on a generated file.
# Times are reported as ratios against `cat input > /dev/null` measured in
# the same run, so figures from noisy machines stay comparable.
#   bench/run.sh [megabytes]      (default 200)
set -euo pipefail
cd "$(dirname "$0")/.."
mb=${1:-200}
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DLAYTRAN_BENCH=ON -DLAYTRAN_TESTS=OFF >/dev/null
cmake --build build-bench >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
./build-bench/bench/gen_slices "$work/in.cli" "$mb"
# SLC holds part contours only: its runs take a file without hatches.
./build-bench/bench/gen_slices "$work/parts.cli" "$mb" parts
exe=./build-bench/laytran
size=$(stat -c %s "$work/in.cli")

best() { # best wall time of three runs of "$@", in seconds
    local best= t0 t1 t
    for _ in 1 2 3; do
        t0=$(date +%s.%N); "$@" >/dev/null 2>&1; t1=$(date +%s.%N)
        t=$(echo "$t1 - $t0" | bc -l)
        if [ -z "$best" ] || [ "$(echo "$t < $best" | bc -l)" = 1 ]; then best=$t; fi
    done
    echo "$best"
}
rss() { # peak resident set of "$@", in KiB
    /usr/bin/time -f %M "$@" 2>&1 >/dev/null | tail -1
}

base=$(best sh -c "cat '$work/in.cli' > /dev/null")
printf 'input: %d bytes (binary long-form CLI); cat baseline %.3f s\n' "$size" "$base"
printf '%-28s %10s %10s %16s\n' conversion seconds 'x cat' 'peak RSS/input'
run() { # label, then the laytran arguments
    local label=$1; shift
    local t kib
    t=$(best "$exe" -V 0 "$@")
    kib=$(rss "$exe" -V 0 "$@")
    printf '%-28s %10.3f %10.1f %16.2f\n' "$label" "$t" "$(echo "$t / $base" | bc -l)" \
        "$(echo "$kib * 1024 / $size" | bc -l)"
}
run "binary CLI -> ASCII CLI" -f "$work/in.cli" -o "$work/out-A.cli" -O A
run "binary CLI -> binary CLI" -f "$work/in.cli" -o "$work/out-b.cli" -O b
run "binary CLI -> short aligned" -f "$work/in.cli" -o "$work/out-as.cli" -O as
run "binary CLI (parts) -> SLC" -f "$work/parts.cli" -o "$work/out.slc" -O S
run "binary CLI -> FDM" -f "$work/in.cli" -o "$work/out.ssl" -O F
run "ASCII CLI -> binary CLI" -f "$work/out-A.cli" -o "$work/back-A.cli" -O b
run "SLC -> binary CLI" -f "$work/out.slc" -o "$work/back-S.cli" -O b
run "FDM -> binary CLI" -f "$work/out.ssl" -o "$work/back-F.cli" -O b
