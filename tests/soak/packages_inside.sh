#!/bin/bash
# usage: packages_inside.sh <folder where reports have to go>
# What an ordinary user does with the installed packages, in the home folder.
set -euo pipefail
folder=$1
rm -rf work
mkdir work
cd work
ulimit -c 0

fail() {
    echo "FAILED: $1"
    sed 's/^/    /' said 2>/dev/null || true
    exit 1
}

# said <extended regular expression> [<file>]
said() { grep -qE -- "$1" "${2-said}" || fail "not said: $1"; }

echo "== pages"
for page in k42mc k42mc_r MCInit; do
    man "$page" >said 2>&1 || fail "man $page"
    said '^NAME'
done

echo "== pkg-config"
examples=/usr/share/doc/k42mc_r/examples
flags() { pkg-config --cflags --libs "$@"; }
cat >both.c <<'END'
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

int main(void) {
    void *volatile lost = malloc(12);
    int descriptor = open("/dev/null", O_RDONLY);
    close(descriptor);
    return close(descriptor) == 0 && lost != NULL;
}
END
for width in 64 32; do
    ((width == 64)) || export PKG_CONFIG_PATH=/usr/lib32/pkgconfig
    # shellcheck disable=SC2046
    gcc -m$width -g "$examples/first.c" -o first $(flags k42mc_r)
    ./first 2>said || fail "first, $width bits"
    said '/first\.c:[0-9]+:LK:STD:0x[0-9A-F]+:12:1$'

    # shellcheck disable=SC2046
    gcc -m$width -g -c "$examples/pages.c" $(pkg-config --cflags k42mc_r)
    # shellcheck disable=SC2046
    gcc -m$width -g "$examples/concordance.c" pages.o -o concordance $(flags k42mc_r-redirect k42mc_r-redirect-fd)
    ./concordance --to-file --leak "$examples/first.c" <<<main >/dev/null 2>said || fail "concordance, $width bits"
    said "^MC: Reporting to \"$folder"
    report=$(sed -n 's/^MC: Reporting to "\(.*\)"$/\1/p' said)
    said 'concordance\.c:[0-9]+:LK:STD:' "$report"

    # shellcheck disable=SC2046
    gcc -m$width both.c -o all $(flags k42mc_r-all)
    rm -rf reports
    mkdir reports
    K42MC_RUN_OUTPUT=reports K42MC_RUN_FDS=1 ./all 2>said || fail "all linked in, $width bits"
    cat reports/*.json >said
    said '^\{"kind":"site",.*"blocks":1,"bytes":12,'
    said '^\{"format":1,"kind":"descriptor",.*"closes":2,'

    # shellcheck disable=SC2046
    gcc -m$width both.c "$(pkg-config --variable=start_object k42mc_r)" -o started $(flags k42mc_r-redirect)
    ./started 2>said || fail "the start object, $width bits"
    said '^==========MC init==========$'
    said '^both\.c:6:LK:STD:0x[0-9A-F]+:12:1$'
done
unset PKG_CONFIG_PATH

echo "== more blocks than a terminal is to show"
cat >many.c <<'END'
#include <k42mc/k42mc.h>
#include <stdlib.h>

int main(void) {
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));
    for (int i = 0; i < 250; ++i) {
        void *volatile lost = malloc(10);
        (void)lost;
    }
    return 0;
}
END
# shellcheck disable=SC2046
gcc many.c -o many $(flags k42mc_r-redirect)
./many 2>said || fail many
report=$(sed -n 's/^MC: Reporting to "\(.*\)"$/\1/p' said)
[[ $report == "$folder"* && $(grep -c ':LK:' "$report") == 250 ]] || fail "no 250 blocks in a file in $folder"

echo "== CMake"
cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.18)
project(many C)
find_package(k42mc_r 1 REQUIRED)
add_executable(by_cmake many.c)
target_link_libraries(by_cmake k42mc::redirect)
END
{ cmake -S . -B built && cmake --build built; } >said 2>&1 || fail cmake
built/by_cmake 2>said || fail by_cmake
said '^MC: Reporting to'

echo "== the command"
k42mc run -- ls / >listed 2>said || fail 'k42mc run -- ls'
said '^k42mc: [0-9]+ blocks?, [0-9]+ bytes? at [0-9]+ sites? in 1 process$'
grep -qx usr listed || fail 'ls said nothing'
k42mc run --output reports -- ./first >listed 2>&1 || fail 'k42mc run -- ./first'
k42mc report reports >said 2>&1 || fail 'k42mc report'
said 'first\.c'

echo "== gdb"
gcc -g -O0 /packages/probe.c -o probe
gdb -nx -batch -ex 'break main' -ex run -ex 'print twice(21)' probe >said 2>&1 || true
if grep -q '= 42$' said; then
    # shellcheck disable=SC2046
    gcc -g -O0 many.c -o many $(flags k42mc_r-redirect)
    gdb -nx -batch -ex 'break main' -ex run -ex 'tbreak MCInit' -ex continue -ex finish \
        -ex 'next 4' -ex 'k42mc report' ./many >said 2>&1 || fail gdb
    said '^many\.c:7:LK:STD:'
else
    echo 'SKIPPED: gdb can call no function in any process here'
    gdb -nx -batch -ex 'break main' -ex run -ex 'help k42mc' ./first >said 2>&1 || true
    said '^k42mc report'
fi
