#!/bin/bash
# Installs a build into an empty prefix and uses it as a newcomer would, through pkg-config and through the
# CMake package: install.sh <build directory> <C compiler> <C++ compiler> <flags>...
set -euo pipefail

build=$1 cc=$2 cxx=$3
flags=("${@:4}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/log" || { cat "$work/log"; exit 1; }

fail() {
    echo "FAILED: $1"
    exit 1
}

libdir=$(dirname "$(dirname "$(find "$prefix" -name k42mc_r.pc)")")
export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir
for file in share/man/man3/SLInit.3.gz share/man/man7/k42mc_r.7.gz share/doc/k42mc_r/examples/first.c; do
    [[ -s $prefix/$file ]] || fail "no $file"
done

cat >"$work/leak.c" <<'END'
#include <stdlib.h>
#include <k42mc/k42mc.h>

int main(void) {
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));
    void *volatile lost = malloc(12);
    (void)lost;
    return 0;
}
END
cat >"$work/leak.cpp" <<'END'
#include <k42mc/k42mc.h>
#include <k42mc/new.hpp>

int main() {
    MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_LKBF));
    int *volatile lost = new int[3];
    (void)lost;
}
END

# program, what the report has to say
leaks() {
    "$1" 2>"$work/said" || fail "$1: exit status $?"
    grep -qE "$2" "$work/said" || { cat "$work/said"; fail "$1: not said: $2"; }
}

cd "$work"
for language in c cpp; do
    compiler=$([[ $language == c ]] && echo "$cc" || echo "$cxx")
    read -ra words <<<"$(pkg-config --cflags --libs k42mc_r-redirect)"
    "$compiler" "${flags[@]}" "leak.$language" -o "by_pkgconfig_$language" "${words[@]}"
done
leaks ./by_pkgconfig_c '^leak.c:6:LK:STD:0x[0-9A-F]+:12:1$'
leaks ./by_pkgconfig_cpp '^operator new\[\]:0:LK:VAR:0x[0-9A-F]+:12:1$'

cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.18)
project(leaks C CXX)
find_package(k42mc_r 1 REQUIRED)
add_executable(by_cmake_c leak.c)
target_link_libraries(by_cmake_c k42mc::redirect k42mc::redirect_fd)
add_executable(by_cmake_cpp leak.cpp)
target_link_libraries(by_cmake_cpp k42mc::k42mc_r)
END
{
    cmake -S . -B built -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_FLAGS="${flags[*]}" \
        -DCMAKE_CXX_FLAGS="${flags[*]}" -Dk42mc_r_DIR="$libdir/cmake/k42mc_r" && cmake --build built
} >log 2>&1 || { cat log; exit 1; }
leaks built/by_cmake_c 'leak.c:6:LK:STD:0x[0-9A-F]+:12:1$'
leaks built/by_cmake_cpp '^operator new\[\]:0:LK:VAR:0x[0-9A-F]+:12:1$'

# The command is of 64 bits. The program's own checker and the one that comes from outside are one.
if [[ -e $prefix/bin/k42mc ]]; then
    "$prefix/bin/k42mc" run --output reports -- built/by_cmake_c 2>said || { cat said; fail 'k42mc run'; }
    grep -q '^k42mc: 1 block, 12 bytes at 1 site in 1 process$' said || { cat said; fail 'k42mc run'; }
fi

# Wherever the prefix is, gdb learns the commands from there.
if [[ -d $prefix/share/gdb ]] && command -v gdb >/dev/null; then
    gdb -nx -batch -ex "source $prefix/share/k42mc_r/k42mc.py" -ex 'help k42mc' >said 2>&1
    grep -q '^k42mc report' said || { cat said; fail 'gdb'; }
fi
