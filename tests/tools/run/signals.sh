#!/bin/bash
# Signals to k42mc run: signals.sh <k42mc> <subject>.
# shellcheck source=tests/tools/run/common.sh
. "$(dirname "$0")/common.sh"
running=()
trap 'rm -rf "$work"; ((failed == 0)) || kill -KILL "${running[@]}"' EXIT
set -m # background jobs do not ignore the keyboard's signals

# In a job of its own: sets launcher and program.
start() {
    rm -f out
    "$@" "$k42mc" run --output reports "$subject" await >out 2>err &
    launcher=$!
    running=("$launcher")
    await grep -qs ready out || exit 1
    program=$(sed -n 's/^ready //p' out)
    running+=("$program")
}
ends() {
    local status=0
    wait "$launcher" || status=$?
    ((status == $1)) || fail "$2: exit status $status, not $1"
    ! kill -0 "$program" 2>/dev/null || fail "$2: the program goes on"
}
times() { [[ $(grep -c "^$1\$" out) == "$2" ]] || fail "$1: not $2 times"; }

# What the program handles does not end the launcher. It has a summary, whatever ends the program.
start
for name in USR1 INT; do
    kill -$name "$launcher"
    await grep -q "^$name\$" out || exit 1
done
kill -TERM "$launcher"
ends 5 'handled signals'
times USR1 1
times INT 1
said '^k42mc: 0 blocks, .* in 1 process$'
start
kill -HUP "$launcher"
ends 129 HUP
said '^k42mc: .*: ended by SIGHUP$'

# An ignored signal stays ignored, for both, and all others are as they were.
trap '' HUP CHLD
start
kill -HUP "$launcher" "$program"
kill -USR1 "$launcher"
await grep -q '^USR1$' out
kill -TERM "$launcher"
ends 5 nohup
grep '^Sig[BI]' /proc/self/status >expected
"$k42mc" run --output reports grep '^Sig[BI]' /proc/self/status >out 2>err || fail grep
diff expected out >/dev/null || fail 'other signals'
trap - HUP CHLD

# Where no shell could continue the launcher, it does not stop with the program.
set +m
start setsid # ahead of all else in its session
kill -STOP "$program"
await grep -q '^State:.*stopped' "/proc/$program/status"
kill -TTOU "$launcher" # is passed on behind the news of the stop, and goes by
await grep -q '^ShdPnd:.*[1-9a-f]' "/proc/$program/status" || exit 1
kill -CONT "$program"
await grep -q '^CONT$' out
kill -TERM "$launcher"
ends 5 'a stopped program'

exit "$failed"
