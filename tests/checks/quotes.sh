#!/bin/bash
# usage: quotes.sh <source directory>
# What the README shows as C++ or as a C program must stand, line for line, in one of the examples, which
# are compiled and run.
set -euo pipefail
cd "$1"

examples=()
for file in examples/*.c examples/*.cpp; do
    examples+=("$(cat "$file")")
done

faults=0 count=0
check() { # block
    local example
    count=$((count + 1))
    for example in "${examples[@]}"; do
        [[ $'\n'$example$'\n' != *$'\n'"$1"* ]] || return 0
    done
    echo "in no example:"
    echo "$1"
    faults=1
}

block='' language=''
while IFS= read -r line; do
    case $line in
    '```c' | '```cpp') language=${line#'```'} block='' ;;
    '```')
        # Other C stands for what the reader has.
        if [[ $language == cpp || ($language == c && $block == *'int main('*) ]]; then
            check "$block"
        fi
        language=''
        ;;
    *) [[ ! $language ]] || block+=$line$'\n' ;;
    esac
done <README.md
((count >= 3)) || { echo "only $count programs quoted"; exit 1; }
exit $faults
