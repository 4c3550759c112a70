#!/usr/bin/env bash
# Programs with an allocator of a sanitizer run as ever, started by the command or by others, and are told to be unchecked:
# sanitized_programs.sh <k42mc>.
set -euo pipefail

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAILED: $1"
    exit 1
}

cat >"$work/subject.c" <<'END'
#include <stdio.h>
#include <stdlib.h>
int main(void) {
    const char *others = getenv("LD_PRELOAD");
    free(malloc(10));
    return puts(others != NULL ? others : "well") < 0;
}
END
for sanitizer in address thread leak; do
    subject=$work/$sanitizer
    cc -fsanitize=$sanitizer -o "$subject" "$work/subject.c"
    ASAN_OPTIONS=detect_leaks=0 timeout 60 "$1" run "$subject" >"$work/out" 2>"$work/err" || fail "$sanitizer alone"
    grep -qx well "$work/out" || fail "$sanitizer alone: output"
    grep -q "$sanitizer: not checked: it brings a sanitizer's allocator" "$work/err" || fail "$sanitizer alone: not told"
    for start in "$subject; true" "exec $subject" "cd $work && PATH=.:\$PATH && exec $sanitizer"; do
        timeout 60 "$1" run bash -c "$start" >"$work/out" 2>"$work/err" || fail "$start"
        grep -qx well "$work/out" || fail "$start: output"
        grep -q "not checked: it went on as .*$sanitizer: it brings a sanitizer's allocator" "$work/err" ||
            fail "$start: not told"
    done
done
