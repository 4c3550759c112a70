#!/bin/bash
# usage: page.sh <k42mc>
# Opens pages in a browser, where page_test.js clicks, types and reads what they show.
set -euo pipefail
k42mc=$1
tests=$(realpath "$(dirname "${BASH_SOURCE[0]}")")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TZ=UTC HOME=$work
cd "$work"

fail() {
    echo "page.sh: $*" >&2
    exit 1
}

# One process's report: name, number, seconds since 1970, cycle, its sites.
cycle() {
    local name=$1 pid=$2 time=$3 number=$4 sites=("${@:5}")
    local site line type bytes lost chain all=0
    for site in "${sites[@]}"; do
        read -r _ _ bytes _ <<<"$site"
        all=$((all + bytes))
    done
    echo '{"format":1,"kind":"cycle","program":"'"$name"'","pid":'"$pid"',"time":'"$time"',"width":64,"cycle":'"$number"',"blocks":'${#sites[@]}',"bytes":'$all',"searched":true}'
    for site in "${sites[@]}"; do
        read -r line type bytes lost chain <<<"$site"
        echo '{"kind":"site","file":"'"$work/app.c"'","line":'"$line"',"type":"'"$type"'","chain":['"$chain"'],"blocks":1,"bytes":'"$bytes"',"oldest":1,"largest":'"$bytes"',"lost":{"blocks":'$((lost > 0))',"bytes":'"$lost"'}}'
    done
    echo '{"kind":"end","sites":'${#sites[@]}',"damaged":0}'
}

printf 'int %s;\n' one two three four five six seven eight nine >app.c
deep='"/no/p+0x1","/no/p+0x2","/no/p+0x2","/no/p+0x2","/no/p+0x3"'
flat='"/no/q+0x4","/no/p+0x3"'
{
    cycle server 1 36000 1 "4 STD 100 0 $deep" "0 VAR 50 0 $flat"
    cycle server 1 36060 2 "4 STD 200 0 $deep" "0 VAR 50 0 $flat"
    cycle server 1 36120 3 "4 STD 300 300 $deep"
    echo '{"kind":"note","pid":1,"program":"server","text":"<b>a note</b>"}'
} >server.1.json
{
    cycle child 2 36030 1 "4 STD 1000 0 $deep" "9 FIX 8 0 $flat"
    cycle child 2 36090 2 "4 STD 400 0 $deep" "9 FIX 8 8 $flat"
} >child.2.json
echo '{"kind":"defect","pid":2,"text":"k42mc detected DF: alloc(STD)","words":"a second release","chain":["/no/p+0x7"],"block":[]}' >>child.2.json

{
    echo '{"format":1,"kind":"cycle","program":"busy","pid":4,"time":1,"width":64,"cycle":1,"blocks":1,"bytes":10}'
    echo '{"kind":"site","file":"a","line":0,"type":"STD","chain":["/no/p+0x1","/no/p+0x2"],"cut":true,"blocks":1,"bytes":10,"oldest":1,"largest":10,"allocations":{"blocks":5,"bytes":50},"temporary":{"blocks":2,"bytes":20}}'
    echo '{"kind":"site","file":"a","line":0,"type":"STD","chain":["/no/p+0x3"],"blocks":0,"bytes":0,"oldest":0,"largest":0,"allocations":{"blocks":7000,"bytes":70000},"temporary":{"blocks":6999,"bytes":69990}}'
    echo '{"kind":"end","sites":2,"damaged":0}'
} >busy.json

# More sites than a page can hold.
{
    echo '{"format":1,"kind":"cycle","program":"many","pid":3,"time":1,"width":64,"cycle":1,"blocks":40000,"bytes":800020000}'
    name=$(printf '%0900d' 0)
    seq 40000 | sed 's@.*@{"kind":"site","file":"'"$name"'&","line":1,"type":"STD","chain":["/no/p+0x&"],"blocks":1,"bytes":&,"oldest":1,"largest":&}@'
    echo '{"kind":"end","sites":40000,"damaged":0}'
} >many.json

open_page() { # name, reports
    "$k42mc" report --html "$1.html" "${@:2}" >report.log || fail "no page of $1: $(cat report.log)"
    (($(stat -c %s "$1.html") < 10000000)) || fail "the page of $1 is too big"
    { cat "$1.html"; echo "<script>const test = '$1', folder = '$work';"; cat "$tests/page_test.js"; echo '</script>'; } >test.html
    timeout 100 chromium --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --user-data-dir="$work/profile" --window-size=1400,1000 \
        --dump-dom "file://$work/test.html" >"$1.dom" 2>chromium.log || fail "no browser: $(tail -n 5 chromium.log)"
    grep -o 'id="outcome">[^<]*' "$1.dom" >outcome || fail "the test of $1 has not come to an end"
    grep 'all [1-9][0-9]* hold' outcome || fail "$1: $(cat outcome)"
}

open_page few server.1.json child.2.json
open_page busy busy.json
open_page many many.json
