#!/bin/bash
# Where reports go, and which stay there: folder.sh <k42mc> <subject>.
# shellcheck source=tests/tools/run/common.sh
. "$(dirname "$0")/common.sh"

count() { # pattern, number
    local files=0 file
    for file in $1; do
        [[ ! -e $file ]] || files=$((files + 1))
    done
    ((files == $2)) || fail "$files files $1, not $2"
}

# By itself, the command makes a new folder; nothing is left of a run that found nothing.
mkdir home tmp state
unset XDG_STATE_HOME
export HOME=$work/home TMPDIR=$work/tmp
k42mc_run 0 "$subject" leak
folder=$(sed -n 's/^k42mc: read more with: k42mc report //p' err)
[[ $folder == "$HOME"/.local/state/k42mc/* ]] || fail "a folder elsewhere: $folder"
[[ $(stat -c %a "$HOME/.local") == 700 ]] || fail 'a folder for all to read'
"$k42mc" report "$folder" >out || fail 'k42mc report'
grep -q leaky_function out || fail 'not in the report'
"$k42mc" report --json "$folder" >/dev/full 2>err && fail 'a report that was not written'
grep 'not all could be written' err >out || fail 'nothing said of what was not written'
XDG_STATE_HOME=$work/state k42mc_run 0 "$subject" nothing
silent 'read more'
XDG_STATE_HOME=$work/state k42mc_run 127 /nonexistent
count 'state/k42mc/*' 0
chmod 777 state # and whoever renames what is below it
XDG_STATE_HOME=$work/state k42mc_run 0 "$subject" leak
said "k42mc report $TMPDIR/"

# What no report has finds its file; all lines are in one only if asked for.
XDG_STATE_HOME=$work k42mc_run 0 "$subject" too-much
text=$(sed -n 's/^k42mc: the checker said more in //p' err)
grep -qE '^run_subject\+0x[0-9a-f]+:0:NA:0x0:[0-9]+$' "$text" || fail 'no NA'
! grep -qvE ':NA:|k42mc run' "$text" || fail 'more than it should say'
k42mc_run 0 --output reports --text "$subject" leak
grep -qE ':LK:STD:.*:12:1$' reports/*.txt || fail 'no text'
silent 'said more'
grep -qx 'checked run_subject\.[0-9]*' reports/processes-*.list || fail 'no verdict'

# The next run replaces what an earlier one has left in a folder, and nothing else.
echo '{"kind":"run","id":"mine"}' >reports/mine.json
k42mc_run 0 --output reports "$subject" leak
count 'reports/*' 3 # and the list of processes
k42mc_run 0 --output reports --append "$subject" leak
count 'reports/*' 5

# Not while it goes on, nor where a process of it does.
# shellcheck disable=SC2016 # for the shell that is run
k42mc_run 0 --output reports -- bash -c '"$1" await >awaiting 2>&1 &' - "$subject"
await grep -qs ready awaiting
program=$(sed -n 's/^ready //p' awaiting)
k42mc_run 0 --output reports bash -c "/bin/true; $k42mc run --output reports true; exec $subject leak"
said ' in 3 processes$'
count 'reports/run_subject.*.json' 2
kill -TERM "$program"
await grep -q '"kind":"end"' "reports/run_subject.$program.json"

exit "$failed"
