#!/bin/bash
# The command line of k42mc: command_line.sh <k42mc> <subject>.
# shellcheck source=tests/tools/run/common.sh
. "$(dirname "$0")/common.sh"

# Options end at the program's name, and its arguments are nobody else's.
k42mc_run 0 --output reports printf '<%s>' --verify -x '[a,b]' '' -- report
[[ $(<out) == '<--verify><-x><[a,b]><><--><report>' ]] || fail 'arguments'
k42mc_run 0 --output reports -- [ 1 -eq 1 ]
said ' in 1 process$'

# Errors of usage, ahead of the program.
wrong() {
    local status=0
    "$k42mc" "$@" >out 2>err || status=$?
    ((status == 2)) || fail "$*: exit status $status, not 2"
    [[ -s err || -s out ]] || fail "$*: no reason"
    ! grep -q ran out || fail "$*: the program ran"
}
wrong
wrong run
wrong run --fds --
wrong run --nonsense echo ran
for option in --error-exitcode={0,256,x} --signal={FOO,0,99} --every=-1 --depth={16,65,x} --filter={nonsense,a.c:1:LK:XYZ:0x1:2:1}; do
    wrong run "$option" echo ran
done
wrong run --filter nonsense echo ran
said 'file:line:LK:type:address:size'
wrong report
wrong report --sort nonsense reports
wrong diff reports
wrong symbolize --nonsense

# The manual page and the shell's completion know each option.
sources=$(dirname "$0")/../../..
# shellcheck source=/dev/null
. "$sources/tools/completion/k42mc"
completed() { # words, of which the last is begun
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    _k42mc
    printf '%s\n' "${COMPREPLY[@]}"
}
for command in run report diff; do
    options=$("$k42mc" "$command" --help | grep -oE '^ +--[a-z-]+(,--[a-z-]+)?' | grep -oE -- '--[a-z-]+')
    [[ $options ]] || fail "$command: no options"
    for option in $options; do
        completed k42mc "$command" "$option" | grep -xe "$option" >matched || fail "completion: $command $option"
        grep -qE -- "^\.It .*(Fl|,) ?${option#-}( |$)" "$sources/docs/man/k42mc.1" || [[ $command == diff ]] ||
            fail "manual page: $command $option"
    done
done
completed k42mc run --quarantine 64M --suppress file print | grep -x printf >matched || fail 'completion: values'

"$k42mc" --version >out 2>err || fail version
grep -qE '^k42mc [0-9]+\.[0-9]+\.[0-9]+$' out || fail version

k42mc_run 0 --signal SIGUSR2 --output reports "$subject" nothing
k42mc_run 0 --signal 12 --output reports "$subject" nothing
k42mc_run 127 --output reports /nonexistent
said '^k42mc run: /nonexistent: No such file'
k42mc_run 126 --output reports /etc/passwd
said '^k42mc run: /etc/passwd: Permission denied$'
k42mc_run 125 --suppress missing echo ran
[[ ! -s out ]] || fail 'ran without its suppressions'

# Without the shim of the program's width.
mkdir bin
cp "$k42mc" bin
status=0
bin/k42mc run "$subject" nothing >out 2>err || status=$?
((status == 125)) || fail "no shim: exit status $status"
said '^k42mc run: no (32|64)-bit .*; it is in the package (lib32)?k42mc-r-tools$'

exit "$failed"
