#!/bin/sh
# Installs the Debian packages named after LABEL that are not installed yet,
# with apt-get (through sudo when not root). Prints nothing and does nothing
# when all are present; when apt-get cannot install them, says which are
# missing and the command that installs them, and exits non-zero.
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
# shellcheck disable=SC2086
if ! { $SUDO apt-get update -qq >/dev/null &&
       $SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null; }; then
    echo "$label: could not install:$missing" >&2
    echo "$label: install them with: sudo apt-get install$missing" >&2
    exit 1
fi
