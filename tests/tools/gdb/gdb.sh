#!/bin/bash
# The gdb commands on a process that stands still: gdb.sh <subject> <folder of the library> <probe>.
# The probe is a program without the library, to see whether gdb can call functions at all: on some processors
# Debian's cannot.
set -euo pipefail
subject=$1 library=$2 probe=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ulimit -c 0

gdb -nx -batch -ex 'break main' -ex run -ex 'print twice(21)' "$probe" >"$work/probed" 2>&1 || true
if ! grep -q '= 42$' "$work/probed"; then
    echo 'SKIPPED: gdb can call no function in any process here; it says:'
    cat "$work/probed"
    exit 77
fi

commands=(
    'break look' 'run' 'up'
    'print *single' 'print *table'
    'k42mc list single uint32_t' 'k42mc list pair' 'k42mc list *tree uint32_t' 'k42mc list patricia uint32_t'
    'k42mc list prefixes uint32_t' 'k42mc list heap uint32_t' 'k42mc list items' 'k42mc list'
    'k42mc block live' 'k42mc block live + 3' 'k42mc block released' 'k42mc block damaged' 'k42mc block &items'
    'k42mc check live' 'k42mc verify' 'k42mc report' 'k42mc report 2' 'k42mc lost' 'k42mc why live' 'k42mc why &items'
    'k42mc filter in "subject.c:1:LK:STD:0x0:2:1"' 'k42mc filter in "nonsense"' 'k42mc filter on x'
    'k42mc descriptor 4' 'k42mc descriptors' 'k42mc descriptors closed' 'k42mc descriptors shut'
    'break busy' 'continue' 'k42mc report' 'k42mc descriptors' 'k42mc block live'
    'set var single->head->next = single->head' 'k42mc list single uint32_t'
    'set var tree->root->left = tree->root' 'k42mc list tree' 'kill' 'k42mc verify'
)
arguments=()
for command in "${commands[@]}"; do
    arguments+=(-ex "echo > $command\n" -ex "$command")
done
gdb -nx -batch -iex "add-auto-load-safe-path $library" -iex 'set print address off' "${arguments[@]}" "$subject" \
    >"$work/said" 2>&1 || true
# Addresses differ, what lies below main and what the library allocates itself belongs to others.
sed -E 's/0x[0-9A-Fa-f]+/ADDR/g; s/<[a-z_0-9+]+>/ADDR/g; s/ at \[[0-9/: ]+\]//; s/^.*\/([a-z_]*subject[0-9]*\()/\1/; s/[^ ]*\/subject\.c/subject.c/' \
    "$work/said" | grep -vE '^$|^\[(Thread|Inferior)|^Using host|^/|__libc_start|_start| in /lib|^common/|^[A-Z]{3}: |^Breakpoint|^[0-9]+	|^MC: |^====|^####|^Enabling|^Monitoring|^---' >"$work/found"
diff -u --label wanted --label found "$(dirname "$0")/expected.txt" "$work/found"
