#!/bin/bash
# Reports that cannot be written, or not to their end: full_disk.sh <k42mc>.
set -uo pipefail

k42mc=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failed=0

run() { # a limit on the size of files, in KiB, stands for what is left of the disk
    said=$( (ulimit -f "$1"; "$k42mc" run --output reports --error-exitcode 99 -- "${@:2}") 2>&1)
    status=$?
    rm -rf reports
}
expect() {
    grep -qE -- "$1" <<<"$said" && [[ $status =~ ^($2)$ ]] && return
    echo "FAILED: exit status $status, not said: $1"
    echo "$said"
    failed=1
}

# The limit's signal is none that the program has earned.
run 0 /bin/true
expect '^k42mc: nothing can be written to .*/reports: File too large$' 125
run 1 /bin/bash -c :
expect '^k42mc: incomplete: 1 report$|^k42mc: no process got as far as its report$' '125|99'

# A program that cannot be checked does not pass for clean; one that is killed ends as it does.
run unlimited /sbin/ldconfig -V
expect '^k42mc: /sbin/ldconfig: not checked: it is linked statically$' 125
# shellcheck disable=SC2016 # for the shell that is killed
run unlimited /bin/bash -c 'kill -KILL $$'
expect '^k42mc: bash\.[0-9]+: not checked: it was killed ahead of its report' 137

exit $failed
