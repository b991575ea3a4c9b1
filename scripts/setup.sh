# Sourced by ./run, ./test and .ci/run, from the top of the tree: installs what is missing and builds.
# shellcheck shell=bash

fail() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# need_packages PACKAGE...: installs those of the Debian packages that are missing, quietly.
need_packages() {
    local package missing=() as_root=()
    command -v dpkg-query >/dev/null && command -v apt-get >/dev/null ||
        fail "this needs Debian 12 or newer (no apt-get here); it wants the packages: $*"
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    if [ "$(id -u)" != 0 ]; then
        as_root=(sudo -n)
        sudo -n true 2>/dev/null ||
            fail "these packages are missing, and neither root nor sudo without a password is at hand to install them:" \
                "${missing[*]}"
    fi
    echo "installing: ${missing[*]}"
    local log no_start=/usr/sbin/policy-rc.d installed=yes
    log=$(mktemp)
    # Packages with a service must not start it: the tests bring their own. Only where nobody has said so already.
    [ ! -e $no_start ] || no_start=
    tidy_up() {
        rm -f "$log"
        [ -z "$no_start" ] || "${as_root[@]}" rm -f "$no_start"
    }
    trap 'tidy_up; exit 130' INT TERM
    if [ -n "$no_start" ]; then
        printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$no_start" >/dev/null
        "${as_root[@]}" chmod +x "$no_start"
    fi
    install_missing() {
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y --no-install-recommends "${missing[@]}" >>"$log" 2>&1
    }
    if ! install_missing; then
        "${as_root[@]}" apt-get update >>"$log" 2>&1 || true
        install_missing || installed=no
    fi
    [ $installed = yes ] || tail -n 15 "$log" >&2
    tidy_up
    trap - INT TERM
    [ $installed = yes ] || fail "could not install: ${missing[*]}"
}

# The host and the tests get /media and the configuration directory to themselves.
need_private_dirs() {
    unshare --mount true 2>/dev/null || unshare --user --map-root-user --mount true 2>/dev/null ||
        fail "this needs a mount namespace of its own: run it as root, or allow unprivileged user namespaces"
}

BUILD_PACKAGES=(g++ cmake ninja-build ccache libpoco-dev libpaho-mqtt-dev libgtest-dev libbenchmark-dev zlib1g-dev)
TEST_PACKAGES=(curl iputils-ping doxygen pkg-config)
BROKER_PACKAGES=(mosquitto mosquitto-clients)

# build FLAVOUR [TARGET...]: configures when needed and builds, telling only what goes wrong.
build() {
    local flavour=$1
    shift
    mkdir -p "build/$flavour"
    local log=build/$flavour/build.log
    command -v "${CXX:-g++}" >/dev/null || fail "no C++ compiler: ${CXX:-g++}"
    if [ ! -e "build/$flavour/build.ninja" ]; then
        cmake --preset "$flavour" >"$log" 2>&1 || { tail -n 40 "$log" >&2; fail "cmake failed, see $log"; }
    fi
    cmake --build --preset "$flavour" ${1:+--target "$@"} >"$log" 2>&1 ||
        { grep -v '^\[' "$log" | tail -n 60 >&2; fail "the build failed, see $log"; }
}

# Nothing is left outside build/, the compiler's cache included.
export CCACHE_DIR=$PWD/build/ccache
# Mosquitto lies where only root's path leads.
export PATH=$PATH:/usr/sbin:/sbin
