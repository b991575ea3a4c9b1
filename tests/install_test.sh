#!/usr/bin/env bash
# install_test.sh BUILD: installs what stands in BUILD below a temporary prefix, and builds a host against that alone,
# once through CMake and once through pkg-config. The host is the README's first; it runs until it logs that nobody
# answers where it looks for a broker.
set -euo pipefail
source=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "$*" >&2; exit 1; }

cmake --install "$1" --prefix "$work/prefix" >"$work/log" || fail "cannot install: $(cat "$work/log")"
libdir=$(dirname "$(find "$work/prefix" -name 'libKroCommon.*' | head -n 1)")

mkdir "$work/host"
cp "$source/examples/first_host.cpp" "$work/host/main.cpp"
# Each public header stands on its own.
for header in "$work"/prefix/include/kro/*.h; do echo "#include <${header##*/}>"; done >"$work/host/headers.cpp"
cat >"$work/host/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES CXX)
find_package(KroCommon 0.9 REQUIRED)
add_executable(host main.cpp headers.cpp)
target_link_libraries(host PRIVATE KroCommon::KroCommon)
END
cmake -G Ninja -S "$work/host" -B "$work/cmake" -D "CMAKE_PREFIX_PATH=$work/prefix" -D CMAKE_EXPORT_COMPILE_COMMANDS=ON \
    >"$work/log" 2>&1 && cmake --build "$work/cmake" >>"$work/log" 2>&1 || fail "no host through CMake: $(cat "$work/log")"
! grep -E -e '-Wconversion|-fsanitize|-fvisibility|KRO_BUILDING' "$work/cmake/compile_commands.json" ||
    fail "flags of the library's own reach a host"

# The .pc file tells the prefix that it was configured for; this installation's stands elsewhere.
export PKG_CONFIG_PATH=$libdir/pkgconfig
configured=$(pkg-config --variable=prefix krocommon)
flags=$(pkg-config --cflags --libs ${STATIC:+--static} krocommon | sed "s|$configured/|$work/prefix/|g")
# shellcheck disable=SC2086
${CXX:-g++} -std=c++17 "$work/host/main.cpp" -o "$work/pkgconfig" $flags -Wl,-rpath,"$libdir" 2>"$work/log" ||
    fail "no host through pkg-config: $(cat "$work/log")"

for host in "$work/cmake/host" "$work/pkgconfig"; do
    mkfifo "$work/fifo"
    "$source/tests/support/private_dirs" "$host" tcp://127.0.0.1:1 >/dev/null 2>"$work/fifo" &
    timeout 60 grep -q -m 1 'MQTT connection failed' "$work/fifo" || fail "${host##*/} did not log that it cannot connect"
    kill -KILL $! && wait $! 2>/dev/null || true
    rm "$work/fifo"
done
