#!/bin/bash
# usage: packages.sh <folder of the packages>
# The Debian packages on a machine that has nothing else of this project: a minimal Debian 12. Needs root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
. tests/soak/root.sh

make_root packages
cp -r "$1" "$root/packages"
cp tests/soak/packages_inside.sh tests/tools/gdb/probe.c "$root/packages"
in_root "$root" sh -c 'apt-get -qq update &&
    apt-get -qq install --no-install-recommends g++-multilib cmake gdb make man-db pkg-config /packages/*.deb >/dev/null &&
    useradd --create-home somebody && useradd --create-home other'
for user in somebody other; do
    in_root "$root" su "$user" -c 'cd && bash /packages/packages_inside.sh /var/log/k42mc/'
done
rm -r "$root/var/log/k42mc"
in_root "$root" su somebody -c 'cd && bash /packages/packages_inside.sh /tmp/'
# As at the next start of the machine.
# shellcheck disable=SC2016 # The inner shell expands.
in_root "$root" sh -c 'apt-get -qq install --no-install-recommends systemd >/dev/null &&
    systemd-tmpfiles --create && test "$(stat -c "%a %U" /var/log/k42mc)" = "1777 root"'
in_root "$root" sh -c 'apt-get -qq purge "lib*k42mc-r*" >/dev/null && ! test -e /var/log/k42mc'
echo 'The packages work.'
