#!/usr/bin/env bash
# scripts/debian_root.sh SUITE: builds, tests and packages the committed tree in a Debian root of its own, then installs
# the packages in a second, clean one and builds and runs a host there. SUITE is bookworm (12), trixie (13) or another
# that debootstrap knows. Needs root; leaves nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
suite=${1:?which suite?}
. scripts/setup.sh
. scripts/roots.sh

echo "== $suite: making the roots"
make_root "$suite" "$work/clean"
cp -a "$work/clean" "$work/build"
copy_tree "$work/build/tree"

echo "== $suite: building and testing"
inside "$work/build" bash -c 'cd /tree && apt-get update -qq && ./test'
! grep -B2 -A6 'warning:' "$work/build/tree/build/release/build.log" || fail "the build has the warnings above"

echo "== $suite: packaging"
inside "$work/build" bash -c 'cd /tree && apt-get install -qq -y --no-install-recommends git >/dev/null 2>&1 &&
    git config --global --add safe.directory /tree && scripts/package.sh'

echo "== $suite: a host in a clean root"
mkdir "$work/clean/host"
cp "$work"/build/tree/build/packages/*.deb examples/first_host.cpp "$work/clean/host"
# shellcheck disable=SC2016
inside "$work/clean" bash -c '
    set -eu
    cd /host
    apt-get update -qq
    apt-get install -qq -y --no-install-recommends ./*.deb g++ pkg-config cmake make >log 2>&1 ||
        { tail -n 20 log; exit 1; }
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
