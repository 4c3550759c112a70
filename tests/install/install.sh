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
# These know nothing of the checker.
cat >"$work/plain.c" <<'END'
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char **argv) {
    (void)argv;
    void *volatile lost = malloc(12);
    for (int i = 1; i < argc; ++i)
        free(lost);
    int descriptor = open("/dev/null", O_RDONLY);
    close(descriptor);
    return close(descriptor) == 0;
}
END
cat >"$work/plain.cpp" <<'END'
#include <fcntl.h>
#include <unistd.h>

namespace {
int *volatile lost = new int[3];
}

int main() {
    int descriptor = open("/dev/null", O_RDONLY);
    close(descriptor);
    return lost == nullptr || close(descriptor) == 0;
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

# Reports of a program that has all linked in. The checker is on behind the constructors of its libraries.
# type of the block, program [argument]
leaves_both() {
    rm -rf reports
    mkdir reports
    K42MC_RUN_OUTPUT=reports K42MC_RUN_FDS=1 "${@:2}" 2>said || fail "${*:2}: exit status $?"
    [[ $(find reports -type f | wc -l) == 2 ]] || fail "${*:2}: no report, or more than one"
    grep -qE '^\{"kind":"site",.*"type":"'"$1"'",.*"blocks":1,"bytes":12,' reports/*.json ||
        { cat reports/*.json; fail "${*:2}: no block"; }
    grep -qE '^\{"format":1,"kind":"descriptor",.*"open":false,"alarms":1,"opens":1,"closes":2,' reports/*.json ||
        { cat reports/*.json; fail "${*:2}: no descriptor that is closed twice"; }
}

read -ra all <<<"$(pkg-config --cflags --libs k42mc_r-all)"
read -ra redirect <<<"$(pkg-config --cflags --libs k42mc_r-redirect)"
"$cc" "${flags[@]}" plain.c -o all_c "${all[@]}"
"$cxx" "${flags[@]}" plain.cpp -o all_cpp "${all[@]}"
"$cxx" "${flags[@]}" plain.cpp -o all_static_cpp -static-libstdc++ -static-libgcc "${all[@]}"
read -ra words <<<"$(pkg-config --cflags --libs k42mc_r-redirect k42mc_r-all)"
"$cc" "${flags[@]}" plain.c -o all_routed_c "${words[@]}"
leaves_both STD ./all_c
leaves_both VAR ./all_cpp
! readelf -dW "$libdir/k42mc/libk42mc_preload.so" | grep -q 'NEEDED.*stdc++' || fail 'C loads the C++ library'
leaves_both VAR ./all_static_cpp
leaves_both STD ./all_routed_c
grep -q '"file":"plain.c","line":7,' reports/*.json || fail 'not routed'

# Without a folder, blocks are guarded.
./all_c >said 2>&1 || fail 'without a folder'
[[ ! -s said ]] || fail 'without a folder: output of its own'
status=0
{ (ulimit -c 0 && exec ./all_c twice twice) >said 2>&1 || status=$?; } 2>/dev/null
((status == 134)) || fail "a double free: exit status $status"
grep -q '^k42mc detected DF: alloc(STD) free(STD)' said || fail 'a double free'

# A shim from elsewhere, as k42mc run may bring it, is the one shim of the process.
cp "$libdir/k42mc/libk42mc_preload.so" .
leaves_both STD env LD_PRELOAD="$PWD/libk42mc_preload.so" ./all_c

# Whoever starts a program with special rights has no files made by it. Not everybody can make such programs, nor
# is every folder for them. Such a program looks for libraries where it says itself.
"$cc" "${flags[@]}" plain.c -o special "${all[@]}" -Wl,-rpath,"$libdir"
cp "$(command -v id)" .
if chown nobody special id 2>/dev/null && chmod u+s special id && [[ $(./id -un) == nobody ]]; then
    rm -rf reports
    mkdir reports
    chmod 755 .
    chmod 777 reports
    K42MC_RUN_OUTPUT=$PWD/reports ./special >said 2>&1 || { cat said; fail 'a program with special rights'; }
    [[ $(ls reports) == '' ]] || fail 'files of a program with special rights'
fi

# Linked behind the library, the shim leaves the program to that.
"$cc" "${flags[@]}" leak.c -o behind "${redirect[@]}" "${all[0]}" "${all[1]}"
rm -rf reports
mkdir reports
K42MC_RUN_OUTPUT=reports leaks ./behind '^leak.c:6:LK:STD:0x[0-9A-F]+:12:1$'
grep -q '"kind":"unchecked"' reports/*.json || fail 'a shim behind the library'

# The start object needs no call in the sources, and is ahead of their constructors.
start=$(pkg-config --variable=start_object k42mc_r)
"$cc" "${flags[@]}" plain.c "$start" -o start_c "${redirect[@]}"
leaks ./start_c '^plain.c:7:LK:STD:0x[0-9A-F]+:12:1$'
[[ $(head -n 2 said) == $'MC: Reporting to stderr\n==========MC init==========' ]] || fail 'no init lines'
"$cxx" "${flags[@]}" -include k42mc/new.hpp plain.cpp "$start" -o start_cpp "${redirect[@]}"
leaks ./start_cpp '^operator new\[\]:0:LK:VAR:0x[0-9A-F]+:12:1$'

cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.18)
project(leaks C CXX)
find_package(k42mc_r 1 REQUIRED)
add_executable(by_cmake_c leak.c)
target_link_libraries(by_cmake_c k42mc::redirect k42mc::redirect_fd)
add_executable(by_cmake_cpp leak.cpp)
target_link_libraries(by_cmake_cpp k42mc::k42mc_r)
add_executable(all_by_cmake_c plain.c)
target_link_libraries(all_by_cmake_c k42mc::redirect k42mc::all)
add_executable(all_by_cmake_cpp plain.cpp)
target_link_libraries(all_by_cmake_cpp k42mc::all)
add_executable(start_by_cmake plain.c)
target_link_libraries(start_by_cmake k42mc::redirect k42mc::start)
END
{
    cmake -S . -B built -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_FLAGS="${flags[*]}" \
        -DCMAKE_CXX_FLAGS="${flags[*]}" -Dk42mc_r_DIR="$libdir/cmake/k42mc_r" && cmake --build built
} >log 2>&1 || { cat log; exit 1; }
leaks built/by_cmake_c 'leak.c:6:LK:STD:0x[0-9A-F]+:12:1$'
leaks built/by_cmake_cpp '^operator new\[\]:0:LK:VAR:0x[0-9A-F]+:12:1$'
leaves_both STD built/all_by_cmake_c
leaves_both VAR built/all_by_cmake_cpp
leaks built/start_by_cmake 'plain.c:7:LK:STD:0x[0-9A-F]+:12:1$'

# The listener for GoogleTest, in each standard that it is for.
cat >leak_test.cpp <<'END'
#include <k42mc/gtest.hpp>
#include <k42mc/new.hpp>

K42MC_WATCH_TESTS;

TEST(Leak, OfOneBlock) {
    int *volatile lost = new int[3];
    (void)lost;
}
END
googletest=/usr/src/googletest/googletest/include
read -ra words <<<"$(pkg-config --cflags --libs k42mc_r-redirect)"
for standard in 14 17 20; do
    "$cxx" "${flags[@]}" -std=c++$standard -Wall -Wextra -Werror -isystem "$googletest" leak_test.cpp -o leak_test \
        "${words[@]}" "$build"/lib/libgtest{_main,}.a
    status=0
    ./leak_test >said 2>&1 || status=$?
    if ((status != 1)) || ! grep -qx 'left behind: 1 block, 12 bytes' said; then
        cat said
        fail "GoogleTest, C++$standard"
    fi
done

# The command is of 64 bits. The program's own checker and the one that comes from outside are one.
if [[ -e $prefix/bin/k42mc ]]; then
    "$prefix/bin/k42mc" run --output reports -- built/by_cmake_c 2>said || { cat said; fail 'k42mc run'; }
    grep -q '^k42mc: 1 block, 12 bytes at 1 site in 1 process$' said || { cat said; fail 'k42mc run'; }
    rm -rf reports
    "$prefix/bin/k42mc" run --fds --output reports -- built/all_by_cmake_c 2>said || { cat said; fail 'k42mc run'; }
    for line in 'k42mc: 1 block, 12 bytes at 1 site in 1 process' '  closed twice: 1 descriptor'; do
        grep -qx "$line" said || { cat said; fail 'k42mc run of a program that has all linked in'; }
    done
    rm -rf reports
    "$prefix/bin/k42mc" run --no-follow --output reports -- sh -c './all_c; :' 2>said || { cat said; fail 'k42mc run'; }
    if ! compgen -G 'reports/sh.*.json' >/dev/null || compgen -G 'reports/all_c.*' >/dev/null; then
        fail 'followed into a program that has all linked in'
    fi
fi

# Wherever the prefix is, gdb learns the commands from there.
if [[ -d $prefix/share/gdb ]] && command -v gdb >/dev/null; then
    gdb -nx -batch -ex "source $prefix/share/k42mc_r/k42mc.py" -ex 'help k42mc' >said 2>&1
    grep -q '^k42mc report' said || { cat said; fail 'gdb'; }
fi
