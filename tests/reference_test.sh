#!/bin/sh
# reference_test.sh OUTPUT: the reference is made of all public headers, and without a warning.
set -eu
cd "$(dirname "$0")/.."
command -v doxygen >/dev/null || exit 77
listed() { sed -n "/$1/,/$2/p" "$3" | grep -o '[A-Za-z0-9+]*\.h' | sort; }
[ "$(listed '^INPUT ' '[^\\]$' docs/Doxyfile)" = "$(listed 'set(kro_public_headers' ')$' src/common/CMakeLists.txt)" ] ||
    { echo "docs/Doxyfile does not list the public headers" >&2; exit 1; }
mkdir -p "$1"
{ cat docs/Doxyfile; echo "OUTPUT_DIRECTORY = \"$1\""; } | doxygen -
