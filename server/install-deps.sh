#!/bin/sh
# Installs the Debian packages `kestrel serve` and its tests need. Safe to
# re-run: does nothing when everything is already present.
set -eu

PKGS="nlohmann-json3-dev python3"

missing=""
for p in $PKGS; do
    if ! dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
        missing="$missing $p"
    fi
done
[ -z "$missing" ] && exit 0

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
echo "server install-deps: installing:$missing" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
# shellcheck disable=SC2086
$SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null
