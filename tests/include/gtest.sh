#!/bin/bash
# What the listener for GoogleTest makes of tests that leave things behind: gtest.sh <program that is linked to the library>
# <the same without the library> <the command k42mc, if it is there>
set -euo pipefail
export LC_ALL=C
here=$(dirname "$(realpath "${BASH_SOURCE[0]}")")
linked=$(realpath "$1") unlinked=$(realpath "$2") k42mc=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

fail() {
    echo "FAILED: $*"
    failed=1
}

# Runs a program. What it says of its tests goes to "said", without times, offsets and the lines of tests.
run() { # expected status, program...
    local status=0
    "${@:2}" >"$work/out" 2>"$work/err" || status=$?
    ((status == $1)) || { cat "$work/out" "$work/err"; fail "exit status $status: ${*:2}"; }
    sed -E 's/ \([0-9]+ ms( total)?\)$//; s/\+0x[0-9a-f]+ in gtest_(un)?linked$//; s/\(anonymous namespace\):://g
            s/^[^ ]*gtest_subject\.cpp(:[0-9]+)?: (Failure|Skipped)$/\2/; s/ [^ ]*gtest_subject\.cpp:/ gtest_subject.cpp:/
            s/^[^ ]*gtest_subject\.cpp:[0-9]+: a message/a message/; s/^  [0-9]+, open on (.*) by open(64)?$/  N, open on \1 by open/' "$work/out" |
        grep -vE '^(Running main|\[(==|--|       OK| RUN )|$|Failed$)' >"$work/said" || true
}

same() { # what is compared, expected, found
    diff -u --label "$1: expected" --label "$1: found" "$2" "$3" || fail "$1"
}

# The tests and suites that have failed, but for tests that count on others ahead of them.
failures() { sed -nE 's/^\[  FAILED  \] ([^ ]+\.[^ ]+|[^ ]+: .*)$/\1/p' "$1" | grep -vE '^Damages|Made' | sort; }

in_any_order() { # program...
    run 1 "$@" --gtest_repeat=2 --gtest_shuffle --gtest_filter='-Damages.*:*Made*'
    same "repeated: $*" <(failures "$here/gtest_said.txt" | sed p) <(failures "$work/said")
}

# ---- Linked: the listener switches the checker on and off ----

run 1 "$linked"
same linked "$here/gtest_said.txt" "$work/said"
same 'standard error' - "$work/err" <<'END'
MC: Reporting to stderr
==========MC init==========
Monitoring LK/BF
Enabling backtrace collection, subject to MCBTFilterOut
========== MCDeinit: Done ==========
END
in_any_order "$linked"
run 0 "$linked" --gtest_filter='Leaves.*Nothing:SuiteReleases.First:Allowed.Blocks:AllowedInSuite.*:Outcome.*Death'

# ---- Without anybody who records blocks: descriptors ----

run 1 "$unlinked" --gtest_filter='-Damages.*' # which are no tests of libc's blocks
same 'by itself' - <(grep -E '^Note: n|^left|^written|^\[  FAILED  \] [^:]*$' "$work/said" | sort -u) <<'END'
Note: nothing records blocks: link libk42mc_r, or start the program by k42mc run
[  FAILED  ] Allowed.OtherPatterns
[  FAILED  ] Leaves.Descriptor
[  FAILED  ] Outcome.Exception
[  FAILED  ] Outcome.Failure
[  FAILED  ] Outcome.FailureThatLeavesABlock
left open: 1 descriptor
END

# ---- Under the command ----

if [[ -x $k42mc ]]; then
    under=("$k42mc" run --fds --output "$work/reports" --)
    run 1 "${under[@]}" "$linked"
    same 'linked, under k42mc run' "$here/gtest_said.txt" "$work/said"
    run 1 "${under[@]}" "$unlinked"
    sed 's/ from gtest_subject.cpp:[0-9]*$/ from make(int)/; s/ in gtest_subject.cpp:[0-9]*:$/:/' \
        "$here/gtest_said.txt" >"$work/expected"
    same 'under k42mc run' "$work/expected" "$work/said"
    in_any_order "${under[@]}" "$unlinked"

    # Without names, nobody can tell GoogleTest's blocks from those of tests.
    strip -o "$work/stripped" "$unlinked"
    run 1 "${under[@]}" "$work/stripped"
    grep -q "^Note: GoogleTest's functions have no names here" "$work/said" || fail 'stripped: no note'
    same stripped - <(grep -E '^left|^written' "$work/said" | sort -u) <<'END'
left open: 1 descriptor
written to after its release:
written to ahead of its start:
written to past its end:
END
fi
exit $failed
