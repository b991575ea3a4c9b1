#!/usr/bin/env bash
# scripts/abi.sh: compares the binary interface of the library in build/release with that of the last release, and tells
# what a host that is not built again would stumble over. scripts/abi.sh --renew writes the dump of a release.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/setup.sh

need_packages "${BUILD_PACKAGES[@]}" abigail-tools xz-utils
build release KroCommon
library=build/release/src/common/libKroCommon.so
dump=cmake/KroCommon.abi.xz
if [ "${1:-}" = --renew ]; then
    # Without places in the sources, which change with every line.
    abidw --headers-dir src/common --drop-private-types --no-show-locs --no-comp-dir-path --no-corpus-path \
        --no-elf-needed --type-id-style hash "$library" | xz -9 >"$dump"
    exit
fi
old=$(mktemp --suffix=.abi)
trap 'rm -f "$old"' EXIT
xz -dc "$dump" >"$old"
status=0
abidiff --headers-dir2 src/common --drop-private-types --no-show-locs "$old" "$library" || status=$?
# 4: something has changed; 8: and a host would notice. Additions alone are no break.
[ $((status & ~4)) -eq 0 ] || fail "the binary interface is broken (abidiff $status): raise SOVERSION, or mend it"
echo "binary interface: as of the last release, or more"
