#!/bin/sh
# Installs the Debian packages of the web module: with no arguments, all of
# them (the build's and the tests'); otherwise the named ones. Does nothing
# when they are all present. Exits non-zero if apt-get cannot install them.
set -eu

PKGS="${*:-emscripten nodejs chromium chromium-driver}"

missing=""
for p in $PKGS; do
    if ! dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
        missing="$missing $p"
    fi
done
[ -z "$missing" ] && exit 0

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
echo "web install-deps: installing:$missing" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
# shellcheck disable=SC2086
$SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null
