#!/usr/bin/env bash
# symbols_test.sh LIBRARY: compares what the library exports with cmake/KroCommon.symbols.
# symbols_test.sh --renew LIBRARY writes that list again; read the difference before you commit it.
set -euo pipefail
list=$(dirname "$0")/../cmake/KroCommon.symbols
exported() { "${NM:-nm}" -DC --defined-only "$1" | cut -d' ' -f3- | sed 's/@@.*//' | LC_ALL=C sort -u; }
if [ "$1" = --renew ]; then
    exported "$2" >"$list"
    exit
fi
diff -u "$list" <(exported "$1") || { echo "the library exports other symbols than $list lists" >&2; exit 1; }
