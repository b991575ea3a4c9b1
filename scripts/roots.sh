# Sourced, after setup.sh: Debian roots below build/roots, made by debootstrap, for what must not touch the machine.
# shellcheck shell=bash

[ "$(id -u)" = 0 ] || fail "skipped: a root of its own needs root"
need_packages debootstrap

# make_root SUITE DIRECTORY: from the mirror of the machine's apt, or the one that KRO_MIRROR names.
make_root() {
    local suite=$1 root=$2 mirror=${KRO_MIRROR:-}
    [ -n "$mirror" ] || mirror=$(find /etc/apt/sources.list /etc/apt/sources.list.d -type f -exec cat {} + 2>/dev/null |
        sed -nE 's#^(URIs:|deb( \[[^]]*\])?) +(https?://[^ ]+/debian/?)( .*)?$#\3#p' | sed -n 1p) || true
    [ -n "$mirror" ] || fail "no Debian mirror in the machine's apt configuration: set KRO_MIRROR"
    debootstrap --variant=minbase --include=ca-certificates "$suite" "$root" "$mirror" >"$root.log" 2>&1 ||
        { tail -n 20 "$root.log" >&2; fail "debootstrap of $suite failed"; }
    printf '127.0.0.1 localhost\n::1 localhost\n' >"$root/etc/hosts"
}

# inside ROOT COMMAND...: runs the command with ROOT as its root; its mounts and processes end with it.
inside() {
    local root=$1
    shift
    # shellcheck disable=SC2016
    unshare --mount --pid --fork bash -c '
        set -eu
        root=$1; shift
        mount --make-rprivate /
        mount --bind "$root" "$root"  # a mount point, as the root of a mount namespace must be
        mount -t proc proc "$root/proc"
        mount --rbind /dev "$root/dev"
        mount --rbind /sys "$root/sys"
        mount -t tmpfs tmpfs "$root/tmp"
        cp /etc/resolv.conf "$root/etc/resolv.conf"
        exec chroot "$root" env -i HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
            PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"' - "$root" "$@"
}

# copy_tree DIRECTORY: the committed tree, as a repository of its own.
copy_tree() {
    mkdir "$1"
    git archive HEAD | tar -x -C "$1"
    (cd "$1" && git init -q && git add -A && git -c user.name=copy -c user.email=copy commit -qm copy)
}

mkdir -p build/roots
work=$(mktemp -d "$PWD/build/roots/XXXXXX")
trap 'rm -rf "$work"' EXIT
