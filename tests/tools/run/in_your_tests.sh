#!/bin/bash
# Runs what docs/in-your-tests.md shows, with its files, and looks for each line that it shows in what is said. Times and
# offsets differ: in_your_tests.sh <source directory> <k42mc> <folder of GoogleTest's libraries>
set -uo pipefail
source=$(realpath "$1") k42mc=$(realpath "$2") libraries=$(realpath "$3")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
PATH=$(dirname "$k42mc"):$PATH
export PATH XDG_STATE_HOME=$work/state CTEST_OUTPUT_ON_FAILURE=1
export CPATH=$source/include:/usr/src/googletest/googletest/include LIBRARY_PATH=$libraries
# Where CMake does not find GoogleTest by itself.
export GTEST_ROOT=$work/googletest
mkdir -p "$GTEST_ROOT"
ln -s /usr/src/googletest/googletest/include "$GTEST_ROOT/include"
ln -s "$libraries" "$GTEST_ROOT/lib"
failed=0 count=0

fail() {
    echo "FAILED: $1"
    failed=1
}

section() { sed -n "/^## $1\$/,/^## /p" "$source/docs/in-your-tests.md"; }
blocks() { awk -v wanted="$1" '/^```/ { inside = !inside; if (inside) kind = substr($0, 4); next } inside && kind == wanted'; }
plain() { sed -E 's/\+0x[0-9a-f]+/+0x/; s/[0-9.]+ ?(ms|s|sec)\b/N s/; s/ +/ /g; s,^[^ ]*/(lookup_test.cpp:),\1,'; }

folder=0
# Runs a section's commands in a folder of its own. They succeed, but for the last one.
try() { # heading, status, its language and file
    folder=$((folder + 1))
    mkdir "$work/$folder"
    cd "$work/$folder" || exit
    cp "$source"/examples/{planted/lookup.c,lookup_test.cpp} .
    [[ $# == 2 ]] || section "$1" | blocks "$3" >"$4"
    section "$1" | blocks '' | sed -n 's/^\$ //p' >commands
    bash -e commands >output 2>&1
    local status=$? line missing=0
    ((status == $2)) || fail "$1: exit status $status"
    plain <output >said
    while IFS= read -r line; do
        grep -qxF -- "$line" said || { fail "$1: not said: $line"; missing=1; }
    done < <(section "$1" | blocks '' | grep -vE '^(\$ |\.\.\.$|$)' | plain)
    ((!missing)) || cat output
    count=$((count + $(wc -l <commands)))
}

try 'With GoogleTest' 1
try 'With ctest' 8 cmake CMakeLists.txt
try 'With make' 2 make Makefile
try 'With meson' 1 meson meson.build

# Without the launcher, these tests succeed.
./build/lookup || fail lookup
[[ $count == 8 ]] || fail "$count commands"
exit $failed
