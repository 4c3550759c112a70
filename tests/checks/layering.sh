#!/bin/bash
# usage: layering.sh <source directory> [<object files of the library>]
# Fails on a dependency that points up; lib/README.md says which way is down. The includes are read
# from the sources, the calls from the objects' symbols.
set -euo pipefail
cd "$1"
objects=("${@:2}")
folders=(include platform common lib)
[[ ! -d tools ]] || folders+=(tools)

# "path: include" of every repository header that their files name.
includes() {
    grep -rHoE --include='*.[ch]' --include='*.[ch]pp' \
        '^[[:space:]]*#[[:space:]]*include[[:space:]]*("[^"]+"|<k42mc/[^>]+>)' \
        "${folders[@]}" |
        sed -E 's/:[^"<]*["<]/ /; s/[">]$//'
}

# Where an include of a file leads: beside it, or along the library's include path.
resolve() {
    local folder
    for folder in "$(dirname "$1")" include common/lib/libk42mc lib/libk42mc .; do
        if [[ -e $folder/$2 ]]; then
            realpath --relative-to=. "$folder/$2"
            return
        fi
    done
    echo unknown
}

layer() { # sets REPLY
    case $1 in
    include/*) REPLY=include ;;
    platform/*) REPLY=platform ;;
    common/*) REPLY=common ;;
    lib/libk42mc/base/*) REPLY=base ;;
    lib/libk42mc/pages/*) REPLY=pages ;;
    lib/libk42mc/memcheck/*) REPLY=memcheck ;;
    lib/libk42mc/fdcheck/*) REPLY=fdcheck ;;
    lib/libk42mc/wrappers/*) REPLY=wrappers ;;
    lib/libk42mc/fork.cpp) REPLY=fork ;;
    tools/preload/*) REPLY=preload ;;
    tools/shared/*) REPLY=shared ;;
    tools/*) REPLY=tools ;;
    *) REPLY=unknown ;;
    esac
}

# What each layer may depend on beside itself.
declare -A allowed=(
    [include]=''
    [platform]=''
    [common]='include platform'
    [base]='include platform common'
    [pages]='include platform common base'
    [memcheck]='include platform common base pages'
    [fdcheck]='include platform common base'
    [wrappers]='include platform common base pages memcheck'
    [fork]='platform common base pages memcheck fdcheck'
    [shared]='base'
    [preload]='include platform common base pages memcheck fdcheck wrappers shared'
    [tools]='include shared'
)

faults=0
depend() { # file, what it depends on, that thing's file
    local from to
    layer "$1" && from=$REPLY
    layer "$3" && to=$REPLY
    [[ $from == "$to" || " ${allowed[$from]-} " == *" $to "* ]] && return
    echo "$1 ($from) must not depend on $2 ($to)"
    faults=1
}

count=0
while read -r file include; do
    depend "$file" "$include" "$(resolve "$file" "$include")"
    count=$((count + 1))
done < <(includes)
((count)) || { echo "no includes found"; exit 1; }

# "user symbol definer" of every symbol that one object takes from another. Objects are named after the
# sources that they are made from; what the compiler may emit anywhere (weak symbols) is nobody's.
uses() {
    nm -AP "${objects[@]}" |
        sed -E 's,^.*/k42mc_r\.dir/__/__/,,; s,^.*/k42mc_r\.dir/__/,lib/,; s,\.o: , ,' |
        awk '$3 ~ /[TDBR]/ { definer[$2] = $1 }
             $3 == "U" { user[++n] = $1; symbol[n] = $2 }
             END { for (i = 1; i <= n; i++)
                       if (symbol[i] in definer) print user[i], symbol[i], definer[symbol[i]] }'
}

if ((${#objects[@]})); then
    count=0
    while read -r file symbol definer; do
        # The two arrows up: the containers' default hooks, and the handlers around a fork.
        layer "$file"
        [[ $REPLY == common && $symbol =~ ^(k42mc_own_)?k42MC_(malloc|realloc|free)$ ||
            $symbol == _ZN5k42mc8internal9hook_forkEv ]] ||
            depend "$file" "$symbol" "$definer"
        count=$((count + 1))
    done < <(uses)
    ((count)) || { echo "no symbols found"; exit 1; }
fi

exit $faults
