#!/bin/bash
# usage: clean_root.sh [<command of ./dev>...]
# The demo and the tests, or the commands given, each on a machine that has nothing yet: a minimal Debian 12
# with a clone of what is committed. Needs root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
. tests/soak/root.sh

(($#)) || set -- demo test
make_root fresh
clone_into "$root"
fresh=$root
for command; do
    echo "== ./dev $command on a fresh Debian"
    root=$roots/$command
    cp -a "$fresh" "$root"
    in_root "$root" /k42mc/dev "$command"
    rm -rf --one-file-system "$root"
done
