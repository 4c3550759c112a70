#!/bin/bash
# k42mc run on a program that was built without it: run.sh <k42mc> <subject> <program with
# operators of its own>.
set -uo pipefail

k42mc=$1 subject=$2 own_operators=$3
[[ -x $k42mc ]] || exit 77 # the 64-bit build is missing
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
ulimit -c 0
failed=0

fail() {
    echo "FAILED: $1"
    sed 's/^/    /' out err
    failed=1
}

# Runs the subject and compares the exit status: run <status> <what> [options].
run() {
    local status=0 expected=$1 what=$2
    shift 2
    rm -rf reports
    { timeout 60 "$k42mc" run --output reports "$@" -- "$subject" "$what" >out 2>err; } 2>/dev/null ||
        status=$?
    ((status == expected)) || fail "$what: exit status $status, not $expected"
}

said() { grep -qE -- "$1" err || fail "not said: $1"; }
silent() { ! grep -qE -- "$1" err || fail "said: $1"; }

for what in nothing interface threads dlopen; do
    run 0 "$what" --verify --error-exitcode 99
    said '^k42mc: 0 blocks, 0 bytes at 0 sites in 1 processes$'
    [[ ! -s out ]] || fail "$what: output of its own"
done

run 7 status
run 143 signal

run 0 leak
said '^k42mc: 1 blocks, 12 bytes at 1 sites in 1 processes$'
said '^    .*leaky_function'
run 99 leak --error-exitcode 99
run 0 leak --no-backtrace
said '^k42mc: 1 blocks, 12 bytes at 1 sites'
run 0 fork
said '^k42mc: 1 blocks, 12 bytes at 1 sites in 2 processes$'
run 0 exec
said '^k42mc: 1 blocks, 12 bytes at 1 sites in 1 processes$'
run 0 exec --no-follow
silent 'leaky_function'

printf '# known\nleak:leaky_*tion\nleak:^nowhere$\n' >known
run 0 leak --error-exitcode 99 --suppress "$PWD/known"
said '^k42mc: suppressed: leak:leaky_\*tion: 1 blocks, 12 bytes$'
said '^k42mc: unused suppression: leak:\^nowhere\$$'
printf 'leak:^eaky_function\n' >known
run 99 leak --error-exitcode 99 --suppress "$PWD/known"
run 125 leak --suppress "$PWD/missing"

run 99 overrun --verify --error-exitcode 99
said '^  WO: 1 blocks, 10 bytes$'
run 134 double-free
grep -q '^k42mc detected DF: alloc(STD) free(STD)' out || fail 'no DF'
run 134 mixed
grep -q '^k42mc detected BF: alloc(FIX) free(STD)' out || fail 'no BF'

subject=$own_operators
run 0 '' --verify --error-exitcode 99

exit $failed
