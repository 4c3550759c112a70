#!/bin/bash
# usage: hostile_gdb.sh <build>...
# The gdb commands on containers and guards that anything may have been written over: each ends, with a list or a
# message of gdb's.
set -euo pipefail
here=$(dirname "$(realpath "$0")")
for build; do
    gdb -nx -batch -iex 'set python print-stack full' -iex "add-auto-load-safe-path $build/lib" -ex 'break look' -ex run -ex up \
        -ex "source $here/hostile_gdb.py" "$build/tests/gdb_subject" 2>&1 | tail -n 20 | tee "$build/hostile_gdb.log"
    grep -q '^survived' "$build/hostile_gdb.log"
done
