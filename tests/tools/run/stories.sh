#!/bin/bash
# Runs the commands that docs/stories.md shows and compares what they say with what stands there:
# stories.sh <source directory> <k42mc> <folder of the planted programs>.
# "..." stands for the rest of a line, or for any lines. Addresses, numbers of processes and the place of
# the sources differ.
set -uo pipefail

stories=$1/docs/stories.md k42mc=$2 planted=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ulimit -c 0
faults=0 count=0

plain() {
    sed -E 's/0x[0-9a-f]+/0x/g; s/process [0-9]+/process N/; s/^(k42mc: [a-z_]+)\.[0-9]+:/\1.N:/; s/ in ([a-z_]+)\.[0-9]+ / in \1.N /; s,/[^ ]*/examples/planted/,planted/,g' | tr -d '\r'
}

# Whether the lines said are those shown.
agree() { # shown, said
    local -a shown said
    mapfile -t shown <"$1"
    mapfile -t said <"$2"
    local at=0 line skips=0
    for line in "${shown[@]}"; do
        if [[ $line == ... ]]; then
            skips=1
            continue
        fi
        # shellcheck disable=SC2053 # The rest of a line is any text.
        while ((skips && at < ${#said[@]})) && [[ ${said[at]} != "${line%...}"* ]]; do
            ((++at))
        done
        if [[ $line == *... ]]; then
            [[ ${said[at]-} == "${line%...}"* ]] || break
        else
            [[ ${said[at]-} == "$line" ]] || break
        fi
        ((++at))
        skips=0
        line=''
    done
    [[ ! $line || $line == ... ]] && ((skips || at == ${#said[@]})) && return
    echo "shown, but not said at line $((at + 1)): $line"
    return 1
}

# Runs a command. Where "^C" is shown, as behind a terminal on which somebody types that, once there is output.
as_shown() { # file of the lines shown, command
    local lines=$1
    shift
    if ! grep -qxF '^C' "$lines"; then
        timeout 60 "$@"
        return
    fi
    sed -i '/^^C$/d' "$lines"
    setsid env --default-signal=INT "$@" &
    until [[ -s $work/output ]] || ! kill -0 $!; do
        sleep 0.05
    done
    kill -INT -- -$!
    wait $!
}

check() { # command line, file of the lines shown
    local -a words
    read -ra words <<<"${1//build\/m64\/examples\/planted/$planted}"
    count=$((count + 1))
    # The braces keep the shell's own notice of an abort quiet.
    { (cd "$work" && as_shown "$2" "$k42mc" "${words[2]}" --output "$work/reports$count" "${words[@]:3}") \
        >"$work/output" 2>&1; } 2>/dev/null
    plain <"$work/output" >"$work/said"
    agree "$2" "$work/said" && return
    echo "of: $1"
    cat "$work/output"
    faults=1
}

command=''
while IFS= read -r line; do
    case $line in
    '$ k42mc run '*) command=$line; : >"$work/shown" ;;
    '```')
        if [[ $command ]]; then
            check "$command" "$work/shown"
        fi
        command=''
        ;;
    *) [[ ! $command ]] || plain <<<"$line" >>"$work/shown" ;;
    esac
done <"$stories"
((count >= 9)) || { echo "only $count stories"; exit 1; }
exit $faults
