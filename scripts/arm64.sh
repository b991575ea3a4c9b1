#!/usr/bin/env bash
# scripts/arm64.sh: cross-builds the committed tree for 64-bit ARM in a Debian root of its own, and runs tests and
# benchmarks (for an instant) there under qemu's user emulation. Needs root; leaves nothing.
#
# Not run: a host that is built against the installed library, by the compiler of the machine, which is another one.
EXCLUDED=(Package.ServesAHostThroughCMakeAndPkgConfig)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/setup.sh
. scripts/roots.sh
need_packages qemu-user-static

# The kernel hands programs for arm64 to the emulator. The entry is global: it goes again if it was not there before.
binfmt=/proc/sys/fs/binfmt_misc
mounted=no
mountpoint -q $binfmt || { mount -t binfmt_misc binfmt_misc $binfmt && mounted=yes; }
if ! grep -qs aarch64 $binfmt/*; then
    echo ':kro-aarch64:M::\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00:\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:/usr/bin/qemu-aarch64-static:F' >$binfmt/register
    trap 'echo -1 >$binfmt/kro-aarch64; [ $mounted = no ] || umount $binfmt; rm -rf "$work"' EXIT
fi

echo "== arm64: making the root"
make_root bookworm "$work/root"
inside "$work/root" bash -c 'dpkg --add-architecture arm64 && apt-get update -qq &&
    apt-get install -qq -y --no-install-recommends g++-aarch64-linux-gnu cmake ninja-build git qemu-user-static \
        libpoco-dev:arm64 libpaho-mqtt-dev:arm64 libgtest-dev:arm64 libbenchmark-dev:arm64 zlib1g-dev:arm64 \
        libstdc++6:arm64 mosquitto mosquitto-clients curl iputils-ping procps file >/tmp/log 2>&1 ||
    { tail -n 20 /tmp/log; exit 1; }'
copy_tree "$work/root/tree"

echo "== arm64: building"
inside "$work/root" bash -c 'cd /tree && cmake --preset arm64 >log && cmake --build --preset arm64 >>log ||
    { grep -v "^\[" log | tail -n 60; exit 1; }; ! grep -A6 "warning:" log'
echo "== arm64: sizes"
inside "$work/root" bash -c 'cd /tree/build/arm64 && aarch64-linux-gnu-strip -o /tmp/stripped src/common/libKroCommon.so &&
    stat -c "stripped library: %s bytes" /tmp/stripped
    KRO_DIRS_ARE_PRIVATE=1 examples/first_host tcp://127.0.0.1:1 >/dev/null 2>&1 & sleep 5
    echo "idle first_host, emulator included: $(grep VmRSS /proc/$!/status)"; kill $!'

echo "== arm64: testing"
pattern=$(IFS='|'; echo "${EXCLUDED[*]:-none}")
inside "$work/root" env KRO_PATTERN="$pattern" bash -c 'cd /tree && ctest --preset arm64 -j 4 -E "$KRO_PATTERN" >log 2>&1 ||
    { grep -E "Failed|Timeout|Not Run|SEGV|Subprocess|tests passed" log; cp log /tree/test.log; exit 1; }
    sed -n "/tests passed/,\$p" log' || { cp "$work/root/tree/test.log" build/arm64-test.log; fail "see build/arm64-test.log"; }
