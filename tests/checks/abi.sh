#!/bin/bash
# Compares the library's exported symbols, with their types, sizes and layouts, with those that were recorded:
# abi.sh [--record] <library> <record>
set -euo pipefail

record=
[[ $1 != --record ]] || { record=yes; shift; }
library=$1 recorded=$2
if [[ -n $record ]]; then
    abidw --exported-interfaces-only --no-show-locs --no-corpus-path --no-comp-dir-path --no-parameter-names \
        --no-elf-needed --no-write-default-sizes --out-file "$recorded" "$library"
elif ! abidiff --harmless --suppressions "$(dirname "$recorded")/compilers.abignore" "$recorded" "$library"; then
    echo "The interface is not the recorded one. A change that is meant: ./dev abi records it."
    exit 1
fi
