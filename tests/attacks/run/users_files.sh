#!/bin/bash
# Files of the user's in the folder for reports, empty ones and links included: users_files.sh <k42mc>.
set -uo pipefail

k42mc=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
umask 022

mkdir elsewhere project
touch project/__init__.py project/.gitkeep project/own.1.json project/own.1.txt
ln -s ../elsewhere project/lib
ln -s ../elsewhere project/lib32
find project | sort >before
# shellcheck disable=SC2016 # for the shell below
# A child of fork ends without a report, another becomes a program of its own.
(cd project && "$k42mc" run --output . -- bash -c '(ulimit -c 0; kill -KILL $BASHPID); /bin/true; exit 0') >err 2>&1 || {
    cat err
    exit 1
}
find project | sort >after
if comm -23 before after | grep . || find elsewhere -mindepth 1 | grep .; then
    echo 'FAILED: files of the user are gone, or were written through'
    exit 1
fi
# What is left beside them is reports.
comm -13 before after | grep '\.json$' | while read -r file; do
    grep -q '"kind":"end"' "$file" || echo "FAILED: $file is left"
done | grep . && exit 1

# One that outlives the run still leaves its report.
"$k42mc" run --output reports -- bash -c '(exec >/dev/null 2>&1; exec sleep 1) &' >err 2>&1
until grep -q '"kind":"end"' reports/sleep.*.json 2>/dev/null; do
    ls reports/sleep.*.json >/dev/null 2>&1 || { echo 'FAILED: the file of a process that still runs is gone'; exit 1; }
    sleep 0.1
done
