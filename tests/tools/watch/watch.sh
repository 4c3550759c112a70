#!/bin/bash
# k42mc watch in a terminal of 80 by 24: watch.sh <k42mc>
set -euo pipefail

k42mc=$1
/usr/bin/python3 -c 'import os; os.openpty()' 2>/dev/null || exit 77 # there are no terminals here
work=$(mktemp -d)
terminals=0
terminal() { tmux -L "k42mc-watch-$$-$terminals" -f /dev/null "$@"; }
cleanup() {
    terminal kill-server 2>/dev/null || true
    kill "$pid" 2>/dev/null || true
    rm -rf "$work"
}
pid=
trap cleanup EXIT

# Waits until a line of the screen matches.
wait_for() {
    local i
    for ((i = 0; i < 300; ++i)); do
        terminal capture-pane -p >"$work/screen" 2>/dev/null || true
        if grep -E -- "$1" "$work/screen" >"$work/found"; then
            return
        fi
        sleep 0.05
    done
    echo "FAILED: not shown: $1"
    cat "$work/screen"
    exit 1
}

start() {
    terminal kill-server 2>/dev/null || true
    ((++terminals)) # one that ends takes its socket with it when it likes
    terminal new-session -d -x 80 -y 24 "LC_ALL=C.UTF-8 '$k42mc' watch $*; echo status \$?; sleep 60"
}


"$k42mc" run --signal USR2 --output "$work/reports" -- sleep 100 >"$work/said" 2>&1 &
program=$!
for ((i = 0; i < 200; ++i)); do
    pid=$(pgrep -P "$program" || true)
    [[ -z $pid ]] || ! grep -a K42MC_RUN_SIGNAL "/proc/$pid/environ" >"$work/found" || break
    sleep 0.05
done

# A process is asked again and again.
start --every 1 "$pid"
wait_for '^ +BYTES +BLOCKS +AGE +LOST .*SITE$'
wait_for ' 3 cycles, 1 process$'
wait_for '^q quit, / filter, enter b\*bytes'
terminal send-keys n
wait_for 'n\*blocks'

# A file that grows, a filter, a stack, and back.
cat >"$work/few.json" <<'END'
{"format":1,"kind":"cycle","program":"p","pid":7,"time":1,"width":64,"cycle":1,"limit":1,"blocks":3,"bytes":30,"allocated":{"blocks":3,"bytes":30},"freed":{"blocks":0,"bytes":0}}
{"kind":"site","cycle":1,"file":"p","line":0,"type":"STD","chain":["/no/one+0x1","/no/caller+0x1"],"blocks":2,"bytes":10,"oldest":1,"largest":10}
{"kind":"site","cycle":1,"file":"p","line":0,"type":"STD","chain":["/no/two+0x2","/no/caller+0x2"],"blocks":1,"bytes":20,"oldest":1,"largest":20}
{"kind":"end","sites":2,"damaged":0}
END
start "$work/few.json"
wait_for '^30 bytes in 3 blocks; 2 sites, 1 cycle, 1 process'
[[ $(grep -n '/no/two' "$work/screen" | cut -d: -f1) == 4 ]] || { cat "$work/screen" && exit 1; }
terminal send-keys Down n Enter # what was chosen stays so, wherever it goes
wait_for '^  /no/one\+0x1$'
terminal send-keys Enter
wait_for 'n\*blocks'
[[ $(grep -n '/no/one' "$work/screen" | cut -d: -f1) == 4 ]] || { cat "$work/screen" && exit 1; }
terminal send-keys / ONE
wait_for '1 site with ONE'
sed 's/"cycle":1/"cycle":2/; s/"bytes":10/"bytes":17/' "$work/few.json" >"$work/more"
cat "$work/more" >>"$work/few.json"
wait_for '^ +17 +2 +1 +\+7 .*/no/one'
terminal send-keys Enter Enter
wait_for '^17 bytes in 2 blocks from$'
wait_for '^  /no/caller\+0x1$'
rm "$work/few.json"
wait_for 'No such file'
wait_for '^17 bytes in 2 blocks from$' # what was read stays
terminal send-keys q
wait_for '^status 0$'

# A process that a signal would end gets none.
kill "$pid"
"$k42mc" run --signal USR2 --output "$work/reports" -- /usr/bin/python3 -c '
import signal, time
signal.signal(signal.SIGUSR2, signal.SIG_DFL)
print("ready", flush=True)
time.sleep(100)' >"$work/said" 2>&1 &
program=$!
for ((i = 0; i < 200; ++i)); do
    ! grep ready "$work/said" >"$work/found" || break
    sleep 0.05
done
pid=$(pgrep -P "$program")
start --every 1 "$pid"
wait_for "^process $pid"
sleep 0.5
kill -0 "$pid"
terminal send-keys r
sleep 0.5
kill -0 "$pid"

start "$work/nothing"
wait_for 'nothing: no such file, folder or process'
wait_for '^status 1$'
start $$
wait_for 'process [0-9]+: it can be asked for reports where it was started by'
if "$k42mc" watch "$work" </dev/null >"$work/said" 2>&1; then
    echo 'FAILED: watched without a terminal'
    exit 1
fi
