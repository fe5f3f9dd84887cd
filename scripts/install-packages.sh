#!/bin/sh
# Installs the Debian packages named after LABEL that are not installed yet,
# with apt-get (through sudo when not root). Prints nothing and does nothing
# when all are present; exits non-zero when apt-get cannot install them.
# The project's install-deps.sh scripts share it.
#
# Usage: scripts/install-packages.sh LABEL PACKAGE...
set -eu
label=$1
shift

missing=""
for p in "$@"; do
    if ! dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
        missing="$missing $p"
    fi
done
[ -z "$missing" ] && exit 0

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
echo "$label: installing:$missing" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
# shellcheck disable=SC2086
$SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null
