# Minimal Debian 12 systems of their own, to be sourced; needs root. They are gone when the script ends.
# shellcheck shell=bash

roots=

remove_roots() {
    [[ ! $roots ]] || rm -rf --one-file-system "$roots"
}
trap remove_roots EXIT

# Where this machine has its packages from, if that is a Debian 12, else where everybody has.
mirror() {
    local found
    found=$(sed -nE 's,^(URIs: *|deb +(\[[^]]*\] +)?)(https?://[^ ]+/debian)/?( .*)?$,\3,p' \
        /etc/apt/sources.list /etc/apt/sources.list.d/* 2>/dev/null | head -n 1)
    echo "${found:-http://deb.debian.org/debian}"
}

# make_root <name>: sets root to its folder.
make_root() {
    mkdir -p build
    [[ $roots ]] || roots=$(mktemp -d "$PWD/build/roots.XXXXXX")
    root=$roots/$1
    debootstrap --variant=minbase bookworm "$root" "$(mirror)" >"$roots/log" 2>&1 || {
        cat "$roots/log"
        exit 1
    }
}

# in_root <root> <command>...: with a /proc and processes of its own, of which none outlives the command.
in_root() {
    unshare --mount --pid --fork --kill-child --mount-proc="$1/proc" \
        chroot "$1" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive ${http_proxy+http_proxy="$http_proxy"} "${@:2}"
}

# clone_into <root>: what is committed here, whoever owns it.
clone_into() {
    printf '[safe]\n\tdirectory = *\n' >"$roots/gitconfig"
    GIT_CONFIG_GLOBAL=$roots/gitconfig git clone --quiet --no-hardlinks . "$1/k42mc"
}
