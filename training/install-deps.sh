#!/bin/sh
# Installs the Debian packages the corpus generator needs. Safe to re-run:
# does nothing (and prints nothing) when everything is already present.
set -eu

PKGS="python3 python3-numpy python3-scipy espeak-ng libespeak-ng1 flite
      festival festvox-kallpc16k festvox-kdlpc16k festvox-us-slt-hts
      festlex-cmu fortune-mod fortunes wamerican sox"

missing=""
for p in $PKGS; do
    if ! dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
        missing="$missing $p"
    fi
done
[ -z "$missing" ] && exit 0

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
echo "install-deps: installing:$missing" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
# shellcheck disable=SC2086
$SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null
