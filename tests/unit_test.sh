#!/bin/sh
# The example of a systemd unit says nothing that systemd does not know, but for the executable, which is the reader's.
set -eu
command -v systemd-analyze >/dev/null || exit 77
unit=kro-edge-service.service
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed 's|^ExecStart=[^ ]*|ExecStart=/bin/true|' "$(dirname "$0")/../docs/$unit" >"$work/$unit"
words=$(systemd-analyze verify "$work/$unit" 2>&1) && [ -z "$words" ] || { echo "$words" >&2; exit 1; }
