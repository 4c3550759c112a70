#!/bin/bash
# k42mc run on a program that was built without it: run.sh <k42mc> <subject> <program with
# operators of its own>.
# shellcheck source=tests/tools/run/common.sh
. "$(dirname "$0")/common.sh"
own_operators=$3

# Runs the subject and compares the exit status: run <status> <what> [options].
run() {
    local expected=$1 what=$2
    shift 2
    k42mc_run "$expected" --output reports "$@" -- "$subject" "$what"
}

for what in nothing interface threads dlopen; do
    run 0 "$what" --verify --error-exitcode 99
    said '^k42mc: 0 blocks, 0 bytes at 0 sites in 1 process$'
    [[ ! -s out ]] || fail "$what: output of its own"
done

run 0 printing
said '^k42mc: 0 blocks'
run 7 status
run 143 signal

run 0 leak
said '^k42mc: 1 block, 12 bytes at 1 site in 1 process$'
said '^    .*leaky_function'
said '^    [_A-Z]*strdup \(/.*/libc\.so\.6\+0x' # without a line
run 99 leak --error-exitcode 99
run 0 leak --no-backtrace
said '^k42mc: 1 block, 12 bytes at 1 site '
for depth in 16 24 64; do
    if ((depth == 16)); then run 0 deep; else run 0 deep --depth "$depth"; fi
    cut=
    ((depth == 64)) || cut=',"cut":true'
    frames=$(grep -oE '"chain":\[[^]]*\]'"$cut"',"blocks":1,"bytes":12,' reports/*.json | grep -o '+0x' | wc -l)
    ((frames == depth || (depth == 64 && frames > 30 && frames < 64))) || fail "depth $depth: $frames frames"
done
run 0 fork
said '^k42mc: 1 block, 12 bytes at 1 site in 2 processes$'
run 0 exec
said '^k42mc: 1 block, 12 bytes at 1 site in 1 process$'
run 0 closes --leak-check=held
said '^k42mc: 2 blocks, .* in 1 process$'
[[ ! -s own ]] || fail 'a report in a file of the program'
run 0 server
said '^k42mc: 1 block, 12 bytes at 1 site in 2 processes$'
run 0 exec --no-follow
silent 'leaky_function'

run 3 haste --leak-check held # without the last destructors; the child that ends so has nothing to say
silent 'not checked'
said '^k42mc: 2 blocks, 112 bytes at 2 sites in 1 process$'
run 0 modules
for name in a b; do
    grep -q "\"file\":\"run_subject_module_$name.so+0x" reports/*.json || fail "nothing of module $name"
done

# Reports while it runs: the exit report is the last of them.
run 0 reports --signal USR2 --limit 2
said '^k42mc: 2 blocks, 24 bytes'
(($(grep -c '"kind":"cycle"' reports/*.json) == 3)) || fail 'not three cycles'
run 0 reports --signal USR2 --limit 3
said '^k42mc: 1 block, 12 bytes'
run 0 wait --every 1
(($(grep -c '"kind":"cycle"' reports/*.json) >= 3)) || fail 'no reports by the clock'

# A stack trace for the one site that is asked for.
run 0 leak --text
site=$(grep ':LK:STD:.*:12:1$' reports/*.txt)
run 0 leak --no-backtrace --filter "$site"
said '^    .*leaky_function'

run 99 descriptors --fds --error-exitcode 99
grep -A1 '^  open: 2 descriptors$' err | grep -q opening_function || fail 'no open descriptors'
grep -A1 '^  closed twice: 1 descriptor$' err | grep -q misuse_descriptors || fail 'no second close'
[[ $(grep -cE '^  [a-z].*: . descriptors?$' err) == 2 ]] || fail 'other descriptors'
run 0 descriptors --error-exitcode 99

printf '# known\nleak:leaky_*tion\nleak:^nowhere$\n' >known
run 0 leak --error-exitcode 99 --suppress "$PWD/known"
said '^k42mc: suppressed: leak:leaky_\*tion: 1 block, 12 bytes$'
said '^k42mc: unused suppression: leak:\^nowhere\$$'
printf 'leak:^eaky_function\n' >known
run 99 leak --error-exitcode 99 --suppress "$PWD/known"
run 125 leak --suppress "$PWD/missing"

run 99 overrun --verify --error-exitcode 99
said '^  written past the end \(WO\): 1 block, 10 bytes$'
run 134 double-free
grep -q '^k42mc detected DF: alloc(STD) free(STD)' out || fail 'no DF'
said '^k42mc: process [0-9]+ was stopped: k42mc detected DF: alloc\(STD\) free\(STD\)'
[[ $(grep -A1 ' released ' err | grep -c '^    main') == 2 ]] || fail 'no stack traces'
run 99 double-free --error-exitcode 99
run 134 mixed
grep -q '^k42mc detected BF: alloc(FIX) free(STD)' out || fail 'no BF'

# What the system's programs hold to their end is no loss; what one of several loses is found.
for command in 'ls -l /etc' 'bash -c "ls | wc -l"' 'git --version' 'sed -n p /etc/passwd'; do
    type -P "${command%% *}" >/dev/null || continue
    eval "k42mc_run 0 --output reports --error-exitcode 99 -- $command"
    said '^k42mc: 0 blocks, 0 bytes at 0 sites in [1-9]'
    said '^k42mc: held to the end: [1-9][0-9]* blocks?, '
    k42mc_run 99 --output reports --error-exitcode 99 --leak-check=held -- bash -c "$command"
done
k42mc_run 99 --output reports --error-exitcode 99 -- bash -c "ls | '$subject' leak | wc -l"
said '^k42mc: 1 block, 12 bytes at 1 site in 4 processes$'

# Each process apart, the one that was named first; and what came of each.
k42mc_run 0 --output reports --skip sleep -- bash -c "'$subject' leak; '$subject' leak; bash -c 'sleep 0; :'; exec '$subject' exec"
said '^k42mc: .* in 4 processes$'
silent 'not checked'
[[ $(grep -n -m1 '^k42mc: run_subject' err) == 2:* ]] || fail 'another process first'
[[ $(grep -c '^k42mc: run_subject\.[0-9]*: 1 block, 12 bytes at 1 site$' err) == 3 ]] || fail 'not three parts'
grep -q '^checked sleep\.' reports/processes-*.list || fail 'no verdict on one left out'
k42mc_run 125 --output reports --error-exitcode 99 -- /sbin/ldconfig -V
said '^k42mc: /sbin/ldconfig: not checked: it is linked statically$'

# shellcheck disable=SC2016 # for the shell below
k42mc_run 0 --output reports -- bash -c '/sbin/ldconfig -V; (kill -KILL $BASHPID); /no/such; (env -i env); exit 0'
said '^k42mc: bash\.[0-9]+: not checked: it went on as /sbin/ldconfig: it is linked statically$'
said '^k42mc: bash\.[0-9]+: not checked: it was killed ahead of its report, or ended past libc$'
said '^k42mc: env\.[0-9]+: not checked: it went on as env, which left no report$'
[[ $(grep -c 'not checked' err) == 3 ]] || fail 'not three that nobody looked after'

# Where a shim is not installed.
installed=$(dirname "$k42mc")/..
missing="no (32|64)-bit k42mc/libk42mc_preload\\.so is installed below $work/bare; it is in the package (lib32)?k42mc-r-tools\$"
mkdir -p bare/bin bare/lib/x86_64-linux-gnu
cp "$k42mc" bare/bin
k42mc=$work/bare/bin/k42mc k42mc_run 125 "$subject" nothing
said "^k42mc run: $missing"
cp -r "$installed/lib/x86_64-linux-gnu/k42mc" bare/lib/x86_64-linux-gnu
if [[ $(od -An -td1 -j4 -N1 "$subject") -eq 1 ]]; then # of 32 bits
    k42mc=$work/bare/bin/k42mc k42mc_run 0 --output reports -- bash -c "'$subject' nothing; exit 0"
    said "^k42mc: bash\.[0-9]+: not checked: it went on as $subject: $missing"
fi

subject=$own_operators
run 0 '' --verify --error-exitcode 99

exit "$failed"
