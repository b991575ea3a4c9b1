#!/bin/sh
# The first host in the README is the one that is built, to the letter.
set -eu
cd "$(dirname "$0")/.."
sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d' | diff - examples/first_host.cpp
