#!/bin/bash
# usage: routes.sh <source directory>
# A name that is routed stands in several places: the head of its header, the macro, the headers that set
# macros aside and put them back, the link names of other references, and the list of exports. Compares
# them all with the macros.
set -euo pipefail
cd "$1/include/k42mc"
exports=$1/lib/libk42mc_r/exports.map
export LC_ALL=C

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
faults=0
same() { # what is compared, with what, both one name a line, in any order; macros are what is wanted
    sort "$2" >"$work/wanted"
    sort "$3" >"$work/found"
    diff -u --label "$1: wanted" --label "$1: found" "$work/wanted" "$work/found" || faults=1
}
captured() { # the groups of what matches, one a line
    sed -nE "s/^$1\$/\\1/p" "$2"
}
exported() { # which functions of ours a header names, and which of them are exported
    grep -oE "\\bk42(MC|mcx)_$2\\w+" "$1" | sort -u >"$work/named"
    grep -owFf "$work/named" "$exports" | sort -u >"$work/exported"
    same "$1: exported functions" "$work/named" "$work/exported"
}
headers() { # the system headers that a header includes by hand and those that it has wrappers for
    sed -nE '/Without the wrappers/,$s/^#include <(.*\.h)>/\1/p' "$1" >"$work/included"
    (cd "$2" && find . -name '*.h' ! -name 'k42mc_*' ! -name features.h | sed 's/^..//') >"$work/wrapped"
    same "$2: wrappers of system headers" "$work/included" "$work/wrapped"
    local header up
    while read -r header; do
        up=
        [[ $header != */* ]] || up=../
        printf '%s\n' '#pragma GCC system_header' "#include \"$up$3_suspend.h\"" '' \
            "#include_next <$header>" '' "#include \"$up$3_resume.h\"" |
            diff -u --label "$2/$header: wanted" - "$2/$header" || faults=1
    done <"$work/wrapped"
}
compare() { # header, folder of wrappers, front of what suspends and resumes, front of the switches
    captured "#define ([a-z]\\w*)\\(.*" "$1" >"$work/macros"
    captured "#ifndef $4_(\\w+)" "$1" >"$work/switches"
    same "$1: switches" "$work/macros" "$work/switches"
    captured "#pragma push_macro\\(\"(\\w+)\"\\)" "$2/$3_suspend.h" >"$work/pushed"
    captured "#undef (\\w+)" "$2/$3_suspend.h" >"$work/undefined"
    captured "#pragma pop_macro\\(\"(\\w+)\"\\)" "$2/$3_resume.h" >"$work/popped"
    same "$2: set aside" "$work/macros" "$work/pushed"
    same "$2: undefined" "$work/macros" "$work/undefined"
    same "$2: put back" "$work/macros" "$work/popped"
    headers "$1" "$2" "$3"
}

# ---- Memory ----

compare redirect.h redirect k42mc K42MC_NO_REDIRECT
exported redirect.h ''
sort "$work/macros" <(echo malloc_usable_size) >"$work/routed" # a name that has no use for a site
sed -n '2,/^ \* Plain calls/s/^ \*   //p' redirect.h | tr ' ' '\n' >"$work/said"
same "redirect.h: names in its head" "$work/routed" "$work/said"

# References without a site: by a pragma, and by declarations where GCC looks at nothing else.
sed 's/.*/& k42mcx_plain_&/' "$work/macros" >"$work/links"
echo "malloc_usable_size k42mcx_malloc_usable_size" >>"$work/links"
captured "#pragma redefine_extname ([a-z]\\w+ \\w+)" redirect.h >"$work/linked"
same "redirect.h: link names" "$work/links" "$work/linked"
sed -nE 's/.*\b(\w+)\(.*\) K42MC_LINKED_TO\("(\w+)"\);/\1 \2/p' redirect.h >"$work/declared"
grep -E '^(malloc|calloc|realloc|free) ' "$work/links" >"$work/builtins"
same "redirect.h: declarations with link names" "$work/builtins" "$work/declared"

# ---- Descriptors ----

compare redirect_fd.h redirect_fd k42mc_fd K42MC_FD_NO_REDIRECT
exported redirect_fd.h fd_
sed -n '2,/^ \* and what libc/s/^ \*     //p' redirect_fd.h | tr ' ' '\n' | sort -u >"$work/said"
sed 's/64$//' "$work/macros" | sort -u >"$work/plain"
same "redirect_fd.h: names in its head" "$work/plain" "$work/said"

exit $faults
