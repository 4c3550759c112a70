#!/bin/bash
# usage: clean_root.sh [<command of ./dev>...]
# The demo and then the tests, or the commands given, on a machine that has nothing at first: a minimal Debian 12
# with a clone of what is committed. Needs root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
. tests/soak/root.sh

(($#)) || set -- demo test
make_root fresh
clone_into "$root"
for command; do
    echo "== ./dev $command on a fresh Debian"
    in_root "$root" /k42mc/dev "$command"
done
