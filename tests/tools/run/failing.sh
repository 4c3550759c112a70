#!/bin/bash
# Allocations that fail one by one: failing.sh <k42mc> <program with an answer to each>.
# shellcheck source=tests/tools/run/common.sh
. "$(dirname "$0")/common.sh"
fragile=$subject

# Only allocations of the program itself fail: each <status> [options] -- <words>...
each() {
    local expected=$1 options=()
    shift
    while [[ $1 != -- ]]; do
        options+=("$1")
        shift
    done
    shift
    k42mc_run "$expected" --fail-each '--fail-only=fragile(' "${options[@]}" -- "$fragile" "$@"
}

counts() { said "^k42mc: $1 of allocations, each without memory in a run: $2\$"; }

# Every kind, worst first, with where it was and how to do it again.
each 99 --error-exitcode 99 --time-limit 2 --output all -- crash hang lose damage wrong ignore handle
counts '10 stacks' '1 damaged, 1 crash, 1 hang, 1 lost, 1 wrong, 1 handled, 4 ignored'
[[ $(grep -oE '^  [a-z]+: ' err | tr -d ' \n') == damaged:crash:hang:lost:wrong: ]] || fail 'not worst first'
said '^  damaged: k42mc detected WO.*'
grep -A1 '^  crash: ended by SIGSEGV$' err | grep -q '    crash at .*/fragile.c:16$' || fail 'no place of the crash'
grep -A4 '^  hang: no end in time$' err | grep -q '    hang at .*/fragile.c' || fail 'no place of the hang'
grep -A1 '^  lost: 1 block, 12 bytes$' err | grep -q '    lose_here at .*/fragile.c' || fail 'no place of the loss'
grep -A1 '^   where in fragile.* allocation [0-9]* failed on purpose: 14 bytes$' err | grep -q '    damage at' ||
    fail 'no place of the allocation'
(($(wc -l <all/fail-each.jsonl) == 11)) || fail 'not a line for each'
reports=(all/*/*.json)
((${#reports[@]} == 4)) || fail 'not the reports of four'
repeat=$(sed -nE 's/^   repeat it with: k42mc //p' err | sed -n 2p)
eval "$k42mc $repeat" >out 2>err
(($? == 139)) || fail "not a crash again: $repeat"
said '^k42mc: fragile\.[0-9]+: allocation [0-9]+ failed on purpose: 10 bytes$'

# The same for a browser, for other tools, and from the file.
(cd "$(dirname "$0")" && timeout 60 "$k42mc" run --fail-each --jobs 1 '--fail-only=fragile(' --html "$work/page.html" --sarif "$work/new.sarif" \
    -- "$fragile" crash lose) >out 2>err || fail 'other forms'
grep -q '"crash: ended by SIGSEGV, where allocation 1 failed on purpose: 10 bytes; repeat it with: k42mc run' page.html ||
    fail 'no crash on the page'
python3 - <<'END' || fail 'SARIF'
import json
run = json.load(open("new.sarif"))["runs"][0]
crash, lost = run["results"]
assert [result["ruleId"] for result in run["results"]] == ["k42mc/failed-allocation"] * 2
place = crash["locations"][0]["physicalLocation"]
assert place["artifactLocation"] == {"uri": "tests/tools/run/fragile.c", "uriBaseId": "SRCROOT"}, place
assert place["region"] == {"startLine": 16}
steps = crash["codeFlows"][1]["threadFlows"][0]["locations"]
assert [step["location"]["logicalLocations"][0]["fullyQualifiedName"] for step in steps[-2:]] == ["main", "crash"], steps
assert crash["partialFingerprints"] != lost["partialFingerprints"]
END
"$k42mc" report all >out 2>err || fail 'report of all'
(($(grep -c '^[a-z]*: .*, where allocation' out) == 5)) || fail 'not five in the report'

# What was done is not done again, but for another program or without a beginning.
sed -i -e '$d' -e '3s/"happened":.[^]]*]/"happened":[]/' -e '4s/^.\{40\}//' all/fail-each.jsonl
each 0 --time-limit 2 --output all --resume -- crash hang lose damage wrong ignore handle
counts '10 stacks' '1 damaged, 1 crash, 1 hang, 1 lost, 1 wrong, 1 handled, 4 ignored'
(($(wc -l <all/fail-each.jsonl) == 11)) || fail 'not a line for each, resumed'
cp all/fail-each.jsonl before
each 125 --output all --resume --each-setup false -- crash hang lose damage wrong ignore handle
cmp -s before all/fail-each.jsonl || fail 'outcomes are gone'
each 125 --output all --resume -- crash
each 125 --output none --resume -- crash

# Another command leaves nothing of the earlier one's but what is somebody else's.
touch all/somebody
each 0 --output all -- crash
reports=(all/*/*.json)
((${#reports[@]} == 1)) || fail 'not the reports of one'
[[ -e all/somebody ]] || fail "somebody's file is gone"

# No kind that is bad: nothing is left.
mkdir state
XDG_STATE_HOME=$work/state each 0 --error-exitcode 99 -- ignore handle date
counts '3 stacks' '1 handled, 2 ignored'
said '^k42mc: what the program prints differs from run to run, and is not compared$'
[[ ! $(ls state/k42mc 2>&1) ]] || fail 'something is left'

# The first with its stack alone fails; where it does not come, that is told; and what a run leaves behind is ended.
each 0 --output twice -- ignore ignore
repeat=$(sed -nE 's/.*"repeat":"k42mc ([^"]*)".*/\1/p' twice/fail-each.jsonl)
eval "$k42mc $repeat" >out 2>err
(($(grep -c 'failed on purpose' err) == 1)) || fail "not one alone: $repeat"
touch file
each 0 --jobs 1 -- once leave
counts '1 stack' '1 unreached'
[[ ! $(pgrep -f "^$fragile once leave") ]] || fail 'something runs on'

# Threads and children; each of those named.
each 0 -- child thread
said '^k42mc: 2 stacks .*: .*handled'

# What the program needs for each run.
touch file
each 0 --each-setup 'touch file' -- file ignore
counts '1 stack' '1 ignored'
mkdir folder
touch folder/file
cd folder || exit 1
each 0 --each-in-copy --jobs 2 -- file ignore ignore crash
counts '2 stacks' '1 crash, 1 ignored'
[[ -e file ]] || fail 'not in a copy'
each 125 --each-in-copy --output within -- ignore
said 'lies in the folder that is copied$'
each 125 --jobs 1 --each-setup 'mkdir ../good && exit; mkdir ../again && exit; false' -- ignore
said '^k42mc run: --each-setup: .*: exit status 1$'
cd ..
printf 'twice\n' >given
each 0 -- input ignore <given
counts '3 stacks' '3 ignored'
each 0 --sample 2 -- ignore lose damage
said '^k42mc: 2 stacks of allocations'
each 125 --each-setup false -- ignore
said '^k42mc run: --each-setup: false: exit status 1$'
k42mc_run 125 --fail-each -- /sbin/ldconfig -V
k42mc_run 125 --fail-each -- /nonexistent
k42mc_run 2 --fail-stack=12 -- "$fragile"
k42mc_run 2 --jobs 2 -- "$fragile"
k42mc_run 2 --fail-fds -- "$fragile"

# Descriptors, and which calls fail in a child of the program.
each 0 --fail-fds --fail-not='(malloc+' -- open pipe opendir
counts '4 stacks' '4 wrong'
said '^   where in .* allocation [0-9]+ failed on purpose: a descriptor by opendir$'
k42mc_run 0 --fail-fds --fail-at='(try_pipe+' -- "$fragile" pipe
said '^k42mc: fragile\.[0-9]+: allocation [0-9]+ failed on purpose: a descriptor by pipe$'
[[ $(<out) == 'Too many open files' ]] || fail 'another error'

# By source files, whose code has no name in a stripped program.
k42mc_run 3 --fail-at=run/fragile.c -- "$fragile" handle
k42mc_run 0 --fail-at=run/other.c -- "$fragile" handle
k42mc_run 0 --fail-above=1 --fail-only='^tests/tools/run/*other.c' -- "$fragile" handle
k42mc_run 0 --fail-above=1 --fail-not='fragile.c$' -- "$fragile" handle

# In gdb, at the allocation that fails.
if type -P gdb >/dev/null; then
    echo kill | timeout 60 "$k42mc" run --gdb '--fail-at=(crash+' -- "$fragile" crash >out 2>err
    grep -q '^#0 .* k42mc_allocation_fails ' out || fail 'gdb did not stop'
    grep -qE '^#[0-9]+ .* in (crash|main) \(' out || fail 'no trace in gdb'
fi

# Stopped by a signal: what was found is told, nothing runs on.
(
    exec setsid env --default-signal=INT "$k42mc" run --fail-each --fail-only='fragile(' --jobs 1 --output stopped -- "$fragile" crash hang lose
) >out 2>err &
await grep -qs '"outcome":"crash"' stopped/fail-each.jsonl
kill -INT $!
wait $!
(($? == 130)) || fail 'not ended by the signal'
said '^k42mc: [12] stacks? of allocations.*: 1 crash'
[[ ! $(pgrep -f "^$fragile crash hang lose") ]] || fail 'something runs on'

exit "$failed"
