#!/bin/sh
# The hosts that README and docs show are those that are built, to the letter, and small.
set -eu
cd "$(dirname "$0")/.."
# shown DOCUMENT HOST: the block of code behind the line "<!-- HOST -->".
shown() { sed -n "\\|^<!-- $2 -->\$|,/^\`\`\`\$/p" "$1" | sed '1,2d;$d'; }
while read -r document host; do
    shown "$document" "$host" | diff - "$host" || { echo "$document does not show $host as it is" >&2; exit 1; }
    [ "$(wc -l <"$host")" -lt 60 ] || { echo "$host has grown to 60 lines" >&2; exit 1; }
done <<HOSTS
README.md examples/first_host.cpp
docs/hosting.md examples/mqtt_host.cpp
docs/hosting.md examples/web_host.cpp
docs/hosting.md examples/periodic_host.cpp
HOSTS
