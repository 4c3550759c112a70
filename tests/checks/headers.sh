#!/bin/bash
# usage: headers.sh <source directory> <C compiler> <C++ compiler> [<flags of both, such as -m32>]
# Compiles every public header alone, twice over, in each language that it is for.
set -euo pipefail
include=$1/include cc=$2 cxx=$3 flags=("${@:4}")
googletest=/usr/src/googletest/googletest/include

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
faults=0 count=0

compile() { # compiler, language and standard, header
    printf '#include <%s>\n#include <%s>\n' "$3" "$3" >"$work/unit"
    count=$((count + 1))
    # shellcheck disable=SC2086
    "$1" $2 "${flags[@]}" -I"$include" -isystem "$googletest" -Wall -Wextra -Wpedantic -Werror -fsyntax-only "$work/unit" || {
        echo "$3 does not compile: $1 $2 ${flags[*]}"
        faults=1
    }
}

# What the redirect folders hold stands in for system headers and is not included by its own name.
for header in $(cd "$include" && find k42mc k42mc/algorithms -maxdepth 1 -name '*.h' -o -name '*.hpp'); do
    compile "$cxx" "-x c++ -std=c++20" "$header"
    [[ $header != k42mc/gtest.hpp ]] || compile "$cxx" "-x c++ -std=c++14" "$header"
    [[ $header == *.hpp ]] && continue
    compile "$cxx" "-x c++ -std=c++11" "$header"
    compile "$cc" "-x c -std=c99" "$header"
done
((count)) || { echo "no headers found"; exit 1; }
exit $faults
