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
new=$(mktemp --suffix=.abi)
old=$(mktemp --suffix=.abi)
trap 'rm -f "$new" "$old"' EXIT
# Without places in the sources, which change with every line.
abidw --headers-dir src/common --drop-private-types --no-show-locs --no-comp-dir-path --no-corpus-path \
    --no-elf-needed --type-id-style hash "$library" >"$new"
if [ "${1:-}" = --renew ]; then
    xz -9 <"$new" >"$dump"
    exit
fi
xz -dc "$dump" >"$old"
status=0
abidiff --headers-dir2 src/common --drop-private-types --no-show-locs "$old" "$library" || status=$?
# 4: something has changed; 8: and a host would notice. Additions alone are no break.
[ $((status & ~4)) -eq 0 ] || fail "the binary interface is broken (abidiff $status): raise SOVERSION, or mend it"
# abidiff passes over private members, but a host that makes an object has its size compiled in.
sizes() {
    grep -hoP '(class|struct) KRO_API \K\w+' src/common/*.h | sort -u | while read -r class; do
        grep -o "class-decl name='$class' size-in-bits='[0-9]*'" "$1" || true
    done | sort  # the order of types of one name (POCO has a ThreadPool too) differs from run to run
}
diff <(sizes "$old") <(sizes "$new") || fail "the size of a class has changed: raise SOVERSION, or mend it"
echo "binary interface: as of the last release, or more"
