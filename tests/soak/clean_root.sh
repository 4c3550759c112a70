#!/bin/bash
# usage: clean_root.sh [<Debian mirror>]
# The demo and the tests, each on a machine that has nothing yet: a minimal Debian 12 under build/, with
# a clone of what is committed. Needs root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
mirror=${1-http://deb.debian.org/debian}
folder=$PWD/build/clean-root

unmount() {
    local root
    for root in "$folder"/*/; do
        ! mountpoint -q "$root/proc" || umount "$root/proc"
    done
}
trap unmount EXIT

unmount
rm -rf --one-file-system "$folder"
mkdir -p "$folder/fresh"
debootstrap --variant=minbase bookworm "$folder/fresh" "$mirror" >"$folder/debootstrap.log"
git clone --quiet --no-hardlinks . "$folder/fresh/k42mc"

for command in demo test; do
    echo "== ./dev $command on a fresh Debian"
    cp -a "$folder/fresh" "$folder/$command"
    mount -t proc proc "$folder/$command/proc"
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root chroot "$folder/$command" /k42mc/dev "$command"
done
