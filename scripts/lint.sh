#!/usr/bin/env bash
# scripts/lint.sh: what must be clean besides the tests: the format of all sources, GCC's and Clang's warnings, and
# clang-tidy over the library.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/setup.sh

need_packages "${BUILD_PACKAGES[@]}" clang clang-format clang-tidy
git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror || fail "the files above want clang-format -i"
for flavour in release clang; do
    # Warnings stand in the log of the build that compiled the file: this one compiles all of the library.
    cmake --preset $flavour >/dev/null
    cmake --build --preset $flavour --target clean >/dev/null
    build $flavour $([ $flavour = release ] && echo KroCommon)
    ! grep -A6 'warning:' build/$flavour/build.log || fail "$flavour has the warnings above"
done
log=build/clang/tidy.log
find src/common -name '*.cpp' -print0 | xargs -0 -n 1 -P 2 clang-tidy --quiet -p build/clang >"$log" 2>/dev/null ||
    { cat "$log"; fail "clang-tidy has a word to say"; }
! grep 'warning:' "$log" || fail "clang-tidy has a word to say"
echo "format, warnings and clang-tidy: clean"
