#!/bin/bash
# Folders that others can write to, now or later: others_folders.sh <k42mc>.
set -uo pipefail

k42mc=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
umask 022
failed=0

fail() {
    echo "FAILED: $1"
    sed 's/^/    /' err
    failed=1
}

refused() { # folder, reason
    "$k42mc" run --output "$1" -- /bin/true >err 2>&1
    (($? == 125)) || fail "$1: not refused"
    grep -q "^k42mc run: the folder for reports $1: $2\$" err || fail "$1: no reason"
    [[ ! $(find -H "$1" -mindepth 1) ]] || fail "$1: something was written"
}

mkdir writable group sticky own
chmod 777 writable
chmod 775 group
chmod 1777 sticky
refused writable 'can be written by others'
refused group 'can be written by others'
ln -s own link
refused link 'Not a directory'
if ((EUID == 0)); then
    mkdir theirs
    chown 65534 theirs
    refused theirs 'belongs to another user'
fi
"$k42mc" run --output sticky -- /bin/true >err 2>&1 || fail 'a folder like /tmp is refused'

# Nothing is loaded from the folder, and nothing leads there.
"$k42mc" run --output own/ -- /usr/bin/env >out 2>err || fail 'own folder'
grep '^LD_PRELOAD=' out | grep -qF "$work" && fail 'the shim is loaded from below the folder for reports'
[[ ! $(find own ! -type f ! -type d) ]] || fail 'links in the folder'

# Another folder takes the place of the first one.
"$k42mc" run --output own -- bash -c 'mv own mine; mkdir own; /bin/true; ls -d mine' >out 2>err || fail 'swapped'
[[ ! $(find own -mindepth 1) ]] || fail 'reports in a folder that somebody put there'

# By itself, the command takes no folder that others can put files into.
mkdir -m 777 sticky/k42mc
(XDG_STATE_HOME=$work/sticky TMPDIR=$work/own "$k42mc" run -- /usr/bin/env >out 2>err) || fail 'no folder of its own'
grep -q "^K42MC_RUN_OUTPUT=$work/own/" out || fail 'not where it is safe'

# Without a working directory it does as well.
mkdir gone
(cd gone && rmdir ../gone && XDG_STATE_HOME=$work/own "$k42mc" run -- /bin/true >../err 2>&1) || fail 'no working directory'

exit $failed
