#!/bin/bash
# usage: manpages.sh <source directory> <folder of the made pages>
# The manual pages are well formed, and each function of the headers has one that gives its prototype.
set -euo pipefail
cd "$1"
made=$2
faults=0

for page in docs/man/k42mc.1 docs/man/k42mc_r.7 "$made"/*.3; do
    [[ $(head -c 3 "$page") == .so ]] || mandoc -T lint -W warning "$page" || faults=1
done

# The text of a declaration without blanks and names of types that headers may not use.
plain() { sed -E 's/[[:space:]]//g; s/__UINT32_TYPE__/uint32_t/g; s/__PTRDIFF_TYPE__/ptrdiff_t/g; s/__builtin_va_list/va_list/g'; }

shown() { # page
    awk '/^\.Ft/ { type = $0; sub(/^\.Ft /, "", type) }
         /^\.Fo/ { text = type " " $2 "("; separator = "" }
         /^\.Fa/ { argument = $0; sub(/^\.Fa /, "", argument); text = text separator argument; separator = "," }
         /^\.Fc/ { gsub(/"/, "", text); print text ");" }' "$1" | plain
}

for page in "$made"/*.3; do
    shown "$page"
done | sort >"$made.shown"

# Headers cut into declarations: comments, preprocessor lines and attributes out.
without_comments_and_directives() {
    python3 -c 'import re, sys
text = re.sub(r"/\*.*?\*/|//[^\n]*", " ", sys.stdin.read(), flags=re.S)
print(re.sub(r"^[ \t]*#(?:.*\\\n)*.*", "", text, flags=re.M))'
}
for header in include/k42mc/*.h; do
    case $header in */redirect*.h | */k42mc.h) continue ;; esac
    without_comments_and_directives <"$header"
done | grep -vE 'K42MC_(BEGIN|END)_DECLS' | tr '\n' ' ' |
    sed -E 's/__attribute__\(\([a-z_]+\)\)//g; s/K42MC_[A-Z_]+\([^()]*\)//g; s/K42MC_MUST_CHECK//g; s/;/;\n/g' |
    grep -E '^[^{}=]*[A-Za-z0-9_]+\([^;]*\) *;' | grep -v typedef | plain | sort >"$made.declared"

diff "$made.declared" "$made.shown" || faults=1

while read -r function; do
    [[ -e $made/$function.3 ]] || { echo "no page: $function"; faults=1; }
done < <(sed -n 's/^\.Fo //p' "$made"/*.3)
(($(wc -l <"$made.shown") > 100)) || { echo 'hardly any prototypes'; exit 1; }
exit $faults
