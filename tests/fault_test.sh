#!/usr/bin/env bash
# Faults a run meets from outside: a full device, a file size limit, a
# closed standard output, a SIGTERM in the middle of writing a large file,
# and the input named as output. Each must fail the run with its exit
# status, leave the previous output byte for byte and leave no temporary
# file behind.
#   fault_test.sh LAYTRAN GEN_SLICES [MEGABYTES]   (large input, default 200)
set -u
laytran=$1
gen=$2
megabytes=${3:-200}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0

fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
sum() { cksum <"$1"; }
# expect NAME STATUS TEXT: the last run's status and a line of its errors.
expect() {
    [ "$status" -eq "$2" ] || fail "$1: exit status $status, expected $2"
    grep -qF -- "$3" err || fail "$1: no \"$3\" in: $(cat err)"
    if ls -A | grep -q '^\.laytran-'; then fail "$1: temporary file left: $(ls -A)"; fi
}

cat >small.cli <<'EOF'
$$HEADERSTART
$$ASCII
$$UNITS/1
$$HEADEREND
$$GEOMETRYSTART
$$LAYER/0.127
$$POLYLINE/1,1,3,0,0,1,0,1,1
$$LAYER/0.254
$$POLYLINE/1,1,3,0,0,1,0,1,1
$$GEOMETRYEND
EOF
echo "previous output" >out.cli
echo "previous output" >out.slc
before=$(sum out.cli)

# A full device (under a name without extension, which a device keeps): the
# few bytes of a small output reach it only at the end.
ln -s /dev/full full
for form in A b ab as S F; do
    "$laytran" -f small.cli -o full -O "$form" 2>err
    status=$?
    expect "/dev/full -O $form" 255 "error writing output file (write error: No space left on device)"
done
"$laytran" -f small.cli -O A >/dev/full 2>err
status=$?
expect "standard output on /dev/full" 255 "(write error: No space left on device)"

# A closed standard output.
"$laytran" -f small.cli -O A 2>err >&-
status=$?
expect "closed standard output" 255 "(write error: Bad file descriptor)"

# A file size limit (in 1024-byte blocks) below the output's size.
"$gen" medium.cli 1 >/dev/null || exit 1
(ulimit -f 64 && exec "$laytran" -f medium.cli -o out.cli -O A) 2>err
status=$?
expect "ulimit -f" 255 "(write error: File too large)"
[ "$(sum out.cli)" = "$before" ] || fail "ulimit -f: out.cli changed"
(ulimit -f 64 && exec "$laytran" -f medium.cli -o out.slc) 2>err
status=$?
expect "ulimit -f, SLC" 255 "(write error: File too large)"
(ulimit -f 64 && exec "$laytran" -f medium.cli -O A >stdout.cli) 2>err
status=$?
expect "ulimit -f, standard output" 255 "(write error: File too large)"

# The input named as output, directly, through the default extension and
# through links.
ln -s out.cli link.cli
ln out.cli hard.cli
for args in "-f out.cli -o out.cli" "-f out -o out" "-f link.cli -o out.cli" \
    "-f out.cli -o link" "-f hard.cli -o out.cli"; do
    # shellcheck disable=SC2086
    "$laytran" $args 2>err
    status=$?
    expect "$args" 255 "laytran: the output file is the input file ("
done
"$laytran" -o out.cli <out.cli 2>err
status=$?
expect "standard input named as output" 255 "the output file is the input file (out.cli)"
[ "$(sum out.cli)" = "$before" ] || fail "input named as output: out.cli changed"

# SIGTERM while a large output is being written.
"$gen" large.cli "$megabytes" >/dev/null || exit 1
"$laytran" -f large.cli -o out.cli -O b 2>err &
pid=$!
written=0
for _ in $(seq 1 3000); do
    temp=$(ls -A | grep '^\.laytran-' | head -1)
    if [ -n "$temp" ] && [ "$(stat -c %s "$temp" 2>/dev/null || echo 0)" -gt 1000000 ]; then
        written=1
        break
    fi
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.01
done
[ "$written" = 1 ] || fail "SIGTERM: the output was never seen being written"
kill -TERM "$pid"
wait "$pid"
status=$?
[ "$status" -eq 143 ] || fail "SIGTERM: exit status $status, expected 143"
if ls -A | grep -q '^\.laytran-'; then fail "SIGTERM: temporary file left: $(ls -A)"; fi
[ "$(sum out.cli)" = "$before" ] || fail "SIGTERM: out.cli changed"

if [ "$failures" -ne 0 ]; then
    echo "$failures fault case(s) failed"
    exit 1
fi
echo "all fault cases passed"
