#!/usr/bin/env bash
# Whole conversions on generated files, timed against `cp` and `cat` of the
# same input in the same run, with their peak memory; then the runs that
# read their input twice (a model beyond the memory budget): a 2 GB input
# under a forced 256 MB budget, checked byte for byte against the run that
# keeps the model, and a 20 GB input under the default budget; then the
# number formatting and scanning timings. Prints Markdown tables.
#   bench/run.sh [megabytes]      (input size, default 1024; 50 runs quickly)
# RUNS sets the runs per measurement (the best counts, default 3); the files
# go to a fresh directory under TMPDIR (default /tmp), removed on exit.
# LAYTRAN names another build's program to measure (e.g. an older one);
# BOUNDED=0 leaves the 2 GB and 20 GB runs out.
set -euo pipefail
export LC_ALL=C
# The in-memory rows keep their models: no budget from the caller's
# environment.
unset LAYTRAN_MEMORY
cd "$(dirname "$0")/.."
mb=${1:-1024}
runs=${RUNS:-3}

cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DLAYTRAN_BENCH=ON \
    -DLAYTRAN_TESTS=OFF >/dev/null
cmake --build build-bench >/dev/null
bin=$PWD/build-bench
laytran=${LAYTRAN:-$bin/laytran}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' INT TERM HUP

free_kib() { df -Pk "$work" | awk 'NR == 2 { print $4 }'; }

# Two generated inputs, three converted from them (the ASCII and .ssl ones
# two to three times as large) and one output at a time.
need_kib=$((mb * 1024 * 12))
if [ "$(free_kib)" -lt "$need_kib" ]; then
    echo "run.sh: about $((need_kib / 1024)) MB free needed in $work" >&2
    exit 1
fi

fail() {
    echo "run.sh: $*" >&2
    exit 1
}

# Runs "$@" $runs times (output file $1 removed before each, "" for none)
# and prints the best wall time in seconds and the largest peak RSS in KiB.
measure() {
    local out=$1 best= peak=0 t0 t1 t kib
    shift
    for ((i = 0; i < runs; i++)); do
        if [ -n "$out" ]; then rm -f "$out"; fi
        sync
        t0=$EPOCHREALTIME
        /usr/bin/time -f %M -o "$work/rss" "$@" >/dev/null 2>"$work/err" ||
            fail "failed: $* ($(head -c 300 "$work/err"))"
        t1=$EPOCHREALTIME
        t=$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.3f", b - a }')
        kib=$(tail -1 "$work/rss")
        if [ -z "$best" ] || awk -v t="$t" -v b="$best" 'BEGIN { exit !(t < b) }'; then best=$t; fi
        if [ "$kib" -gt "$peak" ]; then peak=$kib; fi
    done
    echo "$best $peak"
}

convert() { # input, output, -O letters
    "$laytran" -V 0 -f "$1" -o "$2" -O "$3" >/dev/null 2>&1 && [ -s "$2" ] ||
        fail "cannot make $2"
}

# The output file of each form (with its extension, which -o keeps).
out_file() {
    case $1 in
    S) echo "$work/out.slc" ;;
    F) echo "$work/out.ssl" ;;
    *) echo "$work/out.cli" ;;
    esac
}

echo "Generating ${mb} MB inputs ..." >&2
# gen_slices prints "<layers> layers, <points> points".
generated=$("$bin/bench/gen_slices" "$work/in.cli" "$mb")
points_all=$(echo "$generated" | awk '{ print $3 }')
# SLC holds part contours only: its runs take a file without hatches.
generated=$("$bin/bench/gen_slices" "$work/parts.cli" "$mb" parts)
points_parts=$(echo "$generated" | awk '{ print $3 }')
convert "$work/in.cli" "$work/in-ascii.cli" A
convert "$work/parts.cli" "$work/in.slc" S
convert "$work/in.cli" "$work/in.ssl" F

# The model of each input: the converted files hold the points of their source.
declare -A points=([in.cli]=$points_all [in-ascii.cli]=$points_all [in.ssl]=$points_all
    [parts.cli]=$points_parts [in.slc]=$points_parts)
declare -A cp_s cat_s
echo "Measuring cp and cat ..." >&2
for f in in.cli parts.cli in-ascii.cli in.slc in.ssl; do
    result=$(measure "$work/copy" cp "$work/$f" "$work/copy")
    cp_s[$f]=${result% *}
    rm -f "$work/copy"
    result=$(measure "" cat "$work/$f")
    cat_s[$f]=${result% *}
done

echo
echo "Machine: $(sed -n 's/^model name[[:space:]]*: *//p' /proc/cpuinfo | head -1)," \
    "$(nproc) cores, $(awk '/^MemTotal:/ { printf "%.0f", $2 / 1048576 }' /proc/meminfo) GB RAM;" \
    "$(date +%F); best of $runs runs"
echo
echo "| input | MB | points | cp s | cat s |"
echo "|---|---:|---:|---:|---:|"
for f in in.cli parts.cli in-ascii.cli in.slc in.ssl; do
    printf '| %s | %.0f | %d | %.3f | %.3f |\n' "$f" \
        "$(awk -v s="$(stat -c %s "$work/$f")" 'BEGIN { print s / 1048576 }')" \
        "${points[$f]}" "${cp_s[$f]}" "${cat_s[$f]}"
done
echo
echo "Peak RSS target of in-memory runs: <= 1.1x the point data (points x 8 bytes)."
echo
echo "Every output file is flushed to the disk before it replaces its target;"
echo "\"synced\" is the time to write the same bytes and flush them with nothing"
echo "to compute (dd conv=fsync of the output just written), the disk's floor."
echo
echo "| conversion | s | x cp | x cat | synced s | x synced | peak RSS KiB | x point data | target |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|---|"
row() { # label, input, -O letters, target, more options
    local result s kib out synced
    out=$(out_file "$3")
    result=$(measure "$out" "$laytran" -V 0 -f "$work/$2" -o "$out" -O "$3" ${5:-})
    s=${result% *}
    kib=${result#* }
    # The last run's output, copied from the cache and flushed to the disk.
    synced=$(measure "$work/copy" dd if="$out" of="$work/copy" bs=8M conv=fsync status=none)
    synced=${synced% *}
    rm -f "$out" "$work/copy"
    awk -v l="$1" -v s="$s" -v cp="${cp_s[$2]}" -v cat="${cat_s[$2]}" -v k="$kib" \
        -v p="${points[$2]}" -v t="$4" -v sy="$synced" 'BEGIN {
            printf "| %s | %.3f | %.1f | %.1f | %.3f | %.2f | %d | %.2f | %s |\n",
                l, s, s / cp, s / cat, sy, s / sy, k, k * 1024 / (p * 8), t }'
}
row "binary long CLI -> binary long CLI" in.cli b "<= 2x cp"
row "binary long CLI -> aligned long CLI" in.cli a ""
# The 16-bit forms hold the stack's heights only in a larger unit.
row "binary long CLI -> short CLI (-U 0.05)" in.cli s "" "-U 0.05"
row "binary long CLI -> short aligned CLI (-U 0.05)" in.cli as "" "-U 0.05"
row "binary long CLI -> SLC" parts.cli S "<= 2.5x cp"
row "SLC -> binary long CLI" in.slc b "<= 2.5x cp"
row "ASCII CLI -> binary long CLI" in-ascii.cli b "<= 4x cp"
row "binary long CLI -> ASCII CLI" in.cli A "<= 6x cp"
row ".ssl -> binary long CLI" in.ssl b "<= 6x cp"
row "binary long CLI -> .ssl" in.cli F "<= 6x cp"
rm -f "$work"/in-ascii.cli "$work"/in.ssl "$work"/in.slc "$work"/parts.cli

if [ "${BOUNDED:-1}" != 0 ]; then
    echo
    echo "Bounded memory: a model beyond the budget is read twice, one layer held at a time."
    echo
    echo "| run | input MB | s | MB/s | peak RSS KiB | output |"
    echo "|---|---:|---:|---:|---:|---|"
    bounded() { # label, input, output, -O letters, budget (empty: the default; "pipe": the input
        # through a pipe, which keeps the model), what the output is (or "cmp FILE")
        local result s kib size runs=1 removed=$3
        size=$(stat -c %s "$2")
        # A device is written, never removed.
        [ -f "$3" ] || [ ! -e "$3" ] || removed=
        if [ "$5" = pipe ]; then
            result=$(measure "$removed" sh -c 'cat "$1" | "$0" -V 0 -O "$3" >"$2"' \
                "$laytran" "$2" "$3" "$4")
        else
            result=$(LAYTRAN_MEMORY=$5 measure "$removed" "$laytran" -V 0 -f "$2" -o "$3" -O "$4")
        fi
        s=${result% *}
        kib=${result#* }
        # "cmp FILE": the output compared with FILE, once it is written.
        local what=$6
        if [ "${what#cmp }" != "$what" ]; then
            what=DIFFERS
            cmp -s "${6#cmp }" "$3" && what="identical (cmp)"
        fi
        awk -v l="$1" -v m="$size" -v s="$s" -v k="$kib" -v o="$what" 'BEGIN {
            printf "| %s | %.0f | %.2f | %.0f | %d | %s |\n", l, m / 1048576, s,
                m / 1048576 / s, k, o }'
    }
    # 2 GB under a forced 256 MB budget: the bytes of the run that keeps
    # the model (read from a pipe: a large binary file is read twice
    # whatever the budget), in two output forms.
    rm -f "$work/in.cli"
    if [ "$(free_kib)" -lt $((2048 * 1024 * 5)) ]; then
        echo "| 2 GB runs skipped: about 10 GB free needed in $work | | | | | |"
    else
        "$bin/bench/gen_slices" "$work/in2.cli" 2048 >/dev/null
        for form in b S; do
            ext=cli
            [ "$form" = S ] && ext=slc
            bounded "2 GB binary CLI -> -O $form, model kept (pipe)" "$work/in2.cli" \
                "$work/kept.$ext" "$form" pipe "reference"
            bounded "2 GB binary CLI -> -O $form, LAYTRAN_MEMORY=256M" "$work/in2.cli" \
                "$work/twice.$ext" "$form" 256M "cmp $work/kept.$ext"
            cmp "$work/kept.$ext" "$work/twice.$ext" >/dev/null ||
                fail "2 GB -O $form: the two-pass output differs from the in-memory one"
            rm -f "$work/kept.$ext" "$work/twice.$ext"
        done
        rm -f "$work/in2.cli"
    fi
    # 20 GB under the default budget (half the memory): its output on disk
    # when there is room for it, else on /dev/null.
    free=$(free_kib)
    if [ "$free" -lt $((21 * 1024 * 1024)) ]; then
        echo "| 20 GB run skipped: about 21 GB free needed in $work, $((free / 1048576)) GB free | | | | | |"
    else
        out=/dev/null
        [ "$free" -ge $((42 * 1024 * 1024)) ] && out=$work/out20.cli
        echo "Generating a 20 GB input ..." >&2
        "$bin/bench/gen_slices" "$work/in20.cli" 20480 >/dev/null
        bounded "20 GB binary CLI -> -O b, default budget" "$work/in20.cli" "$out" b "" \
            "$([ "$out" = /dev/null ] && echo /dev/null || echo file)"
        rm -f "$work/in20.cli" "$work/out20.cli"
    fi
fi

echo
echo "Number texts, ns per value:"
echo
echo '```text'
"$bin/bench/number_bench"
echo '```'
