#!/bin/bash
# usage: links.sh <source directory>
# Every relative link of the documents must lead to a file and, where it names a heading, to one of that file's.
set -euo pipefail
cd "$1"

# A page without its code.
text() { sed "/^\`\`\`/,/^\`\`\`/d" "$1"; }

# As the sites that show the pages make them of headings.
anchors() { text "$1" | sed -nE 's/^#+ //p' | tr '[:upper:] ' '[:lower:]-' | sed 's/[^a-z0-9_-]//g'; }

faults=0 count=0
for page in ./*.md docs/*.md bench/*.md lib/README.md tests/README.md; do
    while IFS= read -r link; do
        [[ $link != *://* ]] || continue
        count=$((count + 1))
        target=$page
        [[ $link == '#'* ]] || target=$(dirname "$page")/${link%%#*}
        if [[ ! -e $target ]]; then
            echo "$page: nothing at $link"
            faults=1
        elif [[ $link == *'#'* ]] && ! anchors "$target" | grep -qxF -- "${link#*#}"; then
            echo "$page: no heading for $link"
            faults=1
        fi
    done < <(text "$page" | grep -oE '\]\([^) ]+\)' | sed -E 's/^..|.$//g')
done
((count >= 50)) || { echo "only $count links"; exit 1; }
exit $faults
