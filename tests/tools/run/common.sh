# What the scripts here share: they are given the command and the subject first.
# shellcheck shell=bash disable=SC2034 # what is used in the scripts
set -uo pipefail

k42mc=$1 subject=$2
[[ -x $k42mc ]] || exit 77 # the 64-bit build is missing
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
umask 022
ulimit -c 0
failed=0

fail() {
    echo "FAILED: $1"
    sed 's/^/    /' out err
    failed=1
}

said() { grep -qE -- "$1" err || fail "not said: $1"; }
silent() { ! grep -qE -- "$1" err || fail "said: $1"; }

# Runs the command and compares the exit status: k42mc_run <status> <words>...
k42mc_run() {
    local status=0 expected=$1
    shift
    { timeout 60 "$k42mc" run "$@" >out 2>err; } 2>/dev/null || status=$?
    ((status == expected)) || fail "$*: exit status $status, not $expected"
}

# Waits until it is true.
await() {
    local tries
    for ((tries = 0; tries < 1000; ++tries)); do
        "$@" && return
        sleep 0.02
    done
    fail "never: $*"
    return 1
}
