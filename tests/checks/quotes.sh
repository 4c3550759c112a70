#!/bin/bash
# usage: quotes.sh <source directory>
# What README and the pages under docs/ show as C or C++ must stand, line for line, in one of the examples, which are
# compiled; what they show of "k42mc run", in docs/stories.md, whose commands a test runs. The README stays a front
# page: 8 KB at most.
set -euo pipefail
cd "$1"

examples=()
for file in examples/*.c examples/*.cpp; do
    examples+=("$(cat "$file")")
done

faults=0 count=0
stands_in() { # block, texts
    local block=$1 text
    for text in "${@:2}"; do
        [[ $'\n'$text$'\n' != *$'\n'"$block"* ]] || return 0
    done
    return 1
}

fault() { # what, block
    printf '%s\n' "$page: $1" "${@:2}"
    faults=1
}

check() { # kind of block, block
    case $1 in
    c | cpp) stands_in "$2" "${examples[@]}" || fault 'in no example:' "$2" ;;
    *)
        [[ $2 == '$ k42mc run '* ]] || return 0
        stands_in "$2" "$(<docs/stories.md)" || fault 'not in docs/stories.md:' "$2"
        ;;
    esac
    count=$((count + 1))
}

for page in README.md docs/*.md; do
    inside='' kind='' block=''
    while IFS= read -r line; do
        if [[ $line != '```'* ]]; then
            block+=$line$'\n'
        elif [[ $inside ]]; then
            check "$kind" "$block"
            inside=''
        else
            inside=yes kind=${line#'```'} block=''
        fi
    done <"$page"
    [[ ! $inside ]] || fault 'a block without an end'
done
((count >= 20)) || { echo "only $count quotes"; exit 1; }
(($(wc -c <README.md) <= 8192)) || { echo 'README.md is more than 8192 bytes'; exit 1; }
exit $faults
