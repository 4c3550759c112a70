#!/bin/bash
# Something else bears the names of reports already: taken_names.sh <k42mc>.
set -uo pipefail

k42mc=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
umask 022

mkdir reports
echo precious >victim
"$k42mc" run --output reports --text -- bash -c '
    mkfifo "reports/true.$$.txt"
    ln -s ../victim "reports/true.$$-1.json"
    mkdir "reports/true.$$-2.txt"
    echo mine >"reports/true.$$-3.json"
    exec true' >err 2>&1 || { cat err; exit 1; }
[[ $(<victim) == precious && $(cat reports/true.*-3.json) == mine ]] || { echo 'FAILED: overwritten'; exit 1; }
grep -q '"kind":"end"' reports/true.*-4.json || { echo 'FAILED: no report'; ls -l reports; exit 1; }
grep -q 'cycle' reports/true.*-4.txt || { echo 'FAILED: no text'; ls -l reports; exit 1; }
