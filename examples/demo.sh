#!/bin/bash
# Runs the examples of a build and shows what the checker says of them: demo.sh <build-dir>.
# Each thing shown is also verified; the script fails if the checker misses one.
set -euo pipefail

(($# == 1)) || { echo "usage: demo.sh <build-dir>" >&2; exit 2; }
build=$(cd "$1" && pwd)
cd "$(dirname "${BASH_SOURCE[0]}")/.."
examples=${build#"$PWD/"}/examples
build_reports=$build/reports
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ulimit -c 0

# The files that the concordance reads: this repository's own. A short path first, for --underrun; short
# files first, so that the tables of the index keep growing.
few=(README.md include/k42mc/guard.h)
texts=(include/k42mc/{sl,guard,alloc,memcheck}.h examples/concordance.c README.md)
stopped=134 # the exit status of a process that abort ended
missing=0

title() { printf '\n== %s\n' "$1"; }

look() { printf '   -> %s\n' "$1"; }

# A defect line ends in a carriage return as well.
indent() { tr -d '\r' | sed 's/^/      /'; }

miss() {
    echo "   MISSING: $1"
    missing=1
}

# Runs a program of the examples, with its standard input, and keeps what it says.
#   run <exit status to expect> <lines of input> <program> [arguments]
run() {
    local expected=$1 input=$2 program=$3 status=0
    shift 3
    printf '%b' "$input" >"$work/in"
    # shellcheck disable=SC2016 # The quotes belong to the command shown.
    printf '$ %s%s\n' "${input:+printf '$input' | }" "$examples/$program${*:+ $*}"
    # The braces keep the shell's own notice of an abort quiet.
    { "$examples/$program" "$@" <"$work/in" >"$work/out" 2>"$work/err"; } 2>/dev/null || status=$?
    ((status == expected)) || miss "exit status $expected (it was $status)"
}

# Shows, indented, the lines that match; fails if there are none.
#   show <out|err|file> <extended regular expression>
show() {
    local lines
    if lines=$(grep -aE -- "$2" "$(stream "$1")"); then
        indent <<<"$lines"
    else
        miss "$2"
    fi
}

# The same for a block of lines, from a match to a match.
show_block() {
    local lines
    # Not by -v, which takes backslashes away.
    lines=$(from=$2 to=$3 awk '$0 ~ ENVIRON["from"] {on = 1} on {print} on && $0 ~ ENVIRON["to"] {exit}' \
        "$(stream "$1")")
    if [[ $lines ]]; then
        indent <<<"$lines"
    else
        miss "$2"
    fi
}

# Verifies without showing.
#   expect <out|err|file> <extended regular expression>
expect() {
    grep -aqE -- "$2" "$(stream "$1")" || miss "$2"
}

stream() {
    case $1 in
    out | err) echo "$work/$1" ;;
    *) echo "$1" ;;
    esac
}

# The number of the first line of a source that contains a text.
line_of() { grep -nF -m 1 -- "$2" "$1" | cut -d: -f1; }

title "The shortest program with a leak"
run 0 '' first
show_block err 'MC exit' '^}'
expect err "^examples/first\.c:$(line_of examples/first.c 'strdup("never')"':LK:STD:0x[0-9A-F]+:12:1$'
look "The LK line names the file and the line that allocated what is left, its address, its size (12
      bytes) and the number of reports that have seen it."

title "A clean run"
run 0 'guard\nunheard\n' concordance "${texts[@]}"
show_block err '^MC: Reporting' 'backtrace'
indent <"$work/out"
show_block err 'MC exit' '^}'
expect err '^#### Since reset: 0 bytes held by 0 allocations ####$'
look "The last report finds 0 bytes held: all that was allocated (+) was freed (-), in both families of
      allocators, STD and SHM."

title "A slow leak"
run 0 'guard\n' concordance --leak --check "${texts[@]}"
source=examples/concordance.c:$(line_of examples/concordance.c 'strdup(slash')
show err '<cycle|:LK:'
for ((cycle = 2; cycle <= ${#texts[@]} + 1; ++cycle)); do
    expect err "^$source:LK:STD:0x[0-9A-F]+:[0-9]+:$cycle\$"
done
look "$source shows up again and again, with one more block in each report, and its
      oldest block climbs: that line loses a block with every file. The other lines are tables of the
      index, which live on too, but stay few, are replaced as they grow, and are gone in the last report."
sed -n '/MC exit/,$p' "$work/err" | grep -a ':LK:' | grep -avF "$source" && miss 'nothing else at exit'
show_block err "^$source:STD:" '^------$'
expect err '^Backtrace of the allocation:$'
expect err 'concordance\(announce\+0x[0-9a-f]+\) '
look "MCCheck knows of that address: its record, then who called whom when it was allocated. announce is
      the place where it should have been freed."

title "A write past the end"
run $stopped 'guard\n' concordance --overrun "${few[@]}"
show out '^k42mc detected WO: alloc\(UNKNOWN\) free\(STD\) usrPtr\(0x[0-9a-f]+\) usrSize\(5\) trace buffer: 0x'
look "WO, write overflow: the guard behind a block of 5 bytes was damaged. The word asked for has 5
      letters, so there was no room for its terminator. The trace is of the allocation."

title "A write in front of the block"
run $stopped 'guard\n' concordance --underrun "${few[@]}"
show out '^k42mc detected WU: alloc\(UNKNOWN\) free\(STD\) usrPtr\(0x[0-9a-f]+\) usrSize\([0-9]+\)'
look "WU, write underflow: the header in front of the block was damaged, so little of it can be trusted.
      The path was longer than the column that it was right-aligned in."

title "A block freed twice"
run $stopped 'unheard\n' concordance --double-free "${few[@]}"
show out '^k42mc detected DF: alloc\(STD\) free\(STD\) usrPtr\(0x[0-9a-f]+\) usrSize\(8\) trace buffer: 0x'
look "DF, double free: the block carries the mark of an earlier release. The trace is of that release,
      not of the allocation."

title "A block freed through the other allocator"
run $stopped 'guard\n' concordance --wrong-family "${few[@]}"
show_block err ':BF: WRONG deallocator type' '^------$'
expect err '^examples/concordance\.c:[0-9]+:BF: .*; allocType: STD, freeType: SHM$'
expect err '^Backtrace of the bad free:$'
expect err 'concordance\(index_close\+0x[0-9a-f]+\) '
show out '^k42mc detected BF: alloc\(STD\) free\(SHM\) usrPtr\(0x[0-9a-f]+\) usrSize\([0-9]+\) trace buffer: 0x'
look "BF, bad free: malloc's family allocated the block and the memory manager's was to free it. The
      checker names the line and the stack trace of the free; then the guards stop the process."

title "A test program that asks what each part leaves behind"
run 1 '' parts
show out '^release: fine, length: blocks left$'
expect err '^examples/parts\.c:14:LK:STD:0x[0-9A-F]+:5:0$'
expect err 'parts\(test_length\+0x[0-9a-f]+\) '
look "The second part looks a name up and forgets it: five bytes, with the trace of who asked for them."

title "A block used after its release"
late='^k42mc detected WF: alloc\(STD\) usrPtr\(0x[0-9a-f]+\) usrSize\(28\) access\(0x[0-9a-f]+\+24\) trace buffer: 0x'
run 0 '' hunt
indent <"$work/out"
run $stopped '' hunt test
show out "$late"
look "Guards alone see nothing of it. WF, write to what was freed: released blocks were kept back, and byte
      24 of one was no longer as it was left."
run $stopped '' hunt hunt
show out "$late"
show_block err '^Backtrace of the access by' '^------$'
expect err 'hunt\(serve\+0x[0-9a-f]+\) '
look "With pages of its own for each block, the process stops in the act, and the trace is of who wrote."
run 0 '' hunt production
expect out "$late"
expect out '^served'
look "With pages for one block in 5,000, it is told of now and then, and the process goes on:
      $(grep -ac 'detected WF' "$work/out") times in 100,000 sessions here."

title "A descriptor closed twice"
run 0 'guard\n' concordance --close-twice --descriptors "${few[@]}"
show_block err '^Showing the last operator' '^-----------'
expect err '^\*[0-9]+\(index_file\) $'
show_block err '^Alarm\(s\) present!' '^======================'
expect err '^CLOSE by index_file at \['
expect err 'concordance\(index_file\+0x[0-9a-f]+\) '
expect err '^Alarms\(1\), Opens\([0-9]+\), Closes\([0-9]+\)$'
look "The star marks a descriptor with an alarm. Its history ends with the second CLOSE, and each event
      has its stack trace: fclose closed the descriptor of its stream, and close was one too many. By
      then the number can be another file's."

title "Descriptors that stay open"
run 0 'guard\n' concordance --keep-open --descriptors "${texts[@]}"
show_block err '^Showing the last operator' '^-----------'
expect err '^([0-9]+\(index_file\) ){6}$'
look "Without a minus, a descriptor is open: one for each of the ${#texts[@]} files, all by index_file."
expect err '^common/lib/libk42mc/k42mc_ds:180:LK:STD:'

title "An echo server with four clients"
run 0 '' echo
expect err '^Number of fds reported: 0$'
run 0 '' echo --close-twice
show_block err '^Showing the last operator' '^-----------'
expect err '^[0-9]+\(serve\) '
look "Under load the number is soon another connection's, and the second close is at its expense. The
      server without the mistake has no alarms."

title "The report in a file"
folder=$(sed -n 's/^K42MC_REPORT_DIR:[A-Z]*=//p' "$build/CMakeCache.txt")
if [[ -w $folder ]]; then
    run 0 'guard\n' concordance --to-file --leak "${texts[@]}"
    show err '^MC: Reporting to "'
    report=$(sed -n 's/^MC: Reporting to "\(.*\)"$/\1/p' "$work/err")
    show_block "$report" 'MC exit' '^#### This cycle'
    expect "$report" "^$source:LK:STD:0x[0-9A-F]+:[0-9]+:$((${#texts[@]} + 1))\$"
    look "The file is named by the program and the time; standard error keeps one line that says where."
else
    look "Left out: $folder, where this build puts its reports, cannot be written."
fi

k42mc=${build#"$PWD/"}/tools/k42mc
if [[ -x $k42mc ]]; then
    # Runs a program under k42mc run: check <exit status to expect> [options] -- <program> [arguments]
    check() {
        local expected=$1 status=0
        shift
        rm -rf "$reports"
        printf '$ %s\n' "$k42mc run $*"
        { "$k42mc" run --output "$reports" "$@" >"$work/out" 2>"$work/err"; } 2>/dev/null || status=$?
        ((status == expected)) || miss "exit status $expected (it was $status)"
    }

    title "A program of the system, which nobody rebuilt"
    reports=$build_reports/sort
    check 0 --verify -- sort -r README.md
    expect out '^# libk42mc_r$'
    show err '^k42mc: [0-9]+ blocks?, [0-9]+ bytes? at [0-9]+ sites? in 1 process$'
    expect err 'k42mc report '
    grep -aE '^  written' "$work/err" && miss 'whole guards'
    look "Every block of the program and of its libraries was guarded. What is left at exit is counted here,
      and listed below that line: by function and source line, as far as there are symbols and debug
      information. No guard is damaged."

    title "A program with a bug, which nobody rebuilt"
    reports=$build_reports/overrun
    check 0 --verify -- "$examples/planted/overrun"
    show_block err 'written past the end' 'overrun\.c:17'
    expect err '^    enlist at .*/overrun\.c:[0-9]+$'
    look "The block is never released, so its guards are compared at exit. docs/stories.md has eight more."

    title "The report as a page"
    page=$build_reports/report.html
    printf '$ %s\n' "$k42mc report --html $page $reports"
    "$k42mc" report --html "$page" "$reports" >"$work/out" 2>"$work/err"
    show out "^wrote $page\$"
    look "Open it in a browser: growth, a flame graph of what is held, and a table to sort."
fi

if ((missing)); then
    printf '\nSomething that the checker should have said is MISSING above.\n'
    exit 1
fi
printf '\nAll of it was found.\n'
