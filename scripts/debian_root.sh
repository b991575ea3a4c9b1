#!/usr/bin/env bash
# scripts/debian_root.sh SUITE: builds, tests and packages the committed tree in a Debian root of its own, then installs
# the packages in a second, clean one and builds and runs a host there. SUITE is bookworm (12), trixie (13) or another
# that debootstrap knows. The mirror is that of the machine, or what KRO_MIRROR says. Needs root; leaves nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/setup.sh

suite=${1:?which suite?}
[ "$(id -u)" = 0 ] || fail "skipped: a root of its own needs root"
need_packages debootstrap
mirror=${KRO_MIRROR:-$(cat /etc/apt/sources.list /etc/apt/sources.list.d/* 2>/dev/null |
    sed -nE 's#^(URIs:|deb( \[[^]]*\])?) +(https?://[^ ]+/debian/?)( .*)?$#\3#p' | head -n 1)}
[ -n "$mirror" ] || fail "no Debian mirror in the machine's apt configuration: set KRO_MIRROR"

roots=$PWD/build/roots
mkdir -p "$roots"
work=$(mktemp -d "$roots/$suite.XXXXXX")
trap 'rm -rf "$work"' EXIT
echo "== $suite: making the roots"
debootstrap --variant=minbase --include=ca-certificates "$suite" "$work/clean" "$mirror" >"$work/log" 2>&1 ||
    { tail -n 20 "$work/log" >&2; fail "debootstrap failed"; }
cp -a "$work/clean" "$work/build"

# inside ROOT COMMAND...: with mounts and processes that end with it.
inside() {
    local root=$1
    shift
    unshare --mount --pid --fork bash -c '
        set -eu
        root=$1; shift
        mount --make-rprivate /
        mount -t proc proc "$root/proc"
        mount --rbind /dev "$root/dev"
        mount --rbind /sys "$root/sys"
        mount -t tmpfs tmpfs "$root/tmp"
        cp /etc/resolv.conf "$root/etc/resolv.conf"
        exec chroot "$root" env -i HOME=/root LANG=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"' - "$root" "$@"
}

mkdir "$work/build/tree"
git archive HEAD | tar -x -C "$work/build/tree"
echo "== $suite: building and testing"
inside "$work/build" bash -c 'cd /tree && apt-get update -qq && ./test'
! grep -B2 -A6 'warning:' "$work/build/tree/build/release/build.log" || fail "the build has the warnings above"
echo "== $suite: packaging"
inside "$work/build" bash -c 'cd /tree && apt-get install -qq -y --no-install-recommends git >/dev/null 2>&1 &&
    git init -q . && git add -A && git -c user.name=x -c user.email=x commit -qm x && scripts/package.sh'

echo "== $suite: a host in a clean root"
mkdir "$work/clean/host"
cp "$work"/build/tree/build/packages/*.deb examples/first_host.cpp "$work/clean/host"
inside "$work/clean" bash -c '
    set -eu
    cd /host
    apt-get update -qq
    apt-get install -qq -y --no-install-recommends ./*.deb g++ pkg-config cmake make >log 2>&1 || { tail -n 20 log; exit 1; }
    g++ -std=c++17 first_host.cpp -o through_pkgconfig $(pkg-config --cflags --libs krocommon)
    printf "%s\n" "cmake_minimum_required(VERSION 3.25)" "project(host LANGUAGES CXX)" \
        "find_package(KroCommon REQUIRED)" "add_executable(through_cmake first_host.cpp)" \
        "target_link_libraries(through_cmake PRIVATE KroCommon::KroCommon)" >CMakeLists.txt
    cmake -S . -B b >log && cmake --build b >>log
    for host in ./through_pkgconfig b/through_cmake; do
        timeout 10 $host tcp://127.0.0.1:1 >out 2>&1 || true
        grep -m 1 "MQTT connection failed" out
    done'
echo "== $suite: built, tested, packaged, and served a host"
