#!/bin/sh
# Installs Festival's recorded English voices that live in Debian's contrib
# and non-free sections (make-corpus.py --english-voices), enabling those
# sections first. Safe to re-run: does nothing when they are installed.
set -eu
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
list=/etc/apt/sources.list.d/debian-contrib-non-free.sources
if ! dpkg-query -W -f='${Status}\n' festvox-us1 2>/dev/null | grep -q '^install ok installed$' &&
   [ ! -f "$list" ]; then
    codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
    printf '%s\n' "Types: deb" "URIs: http://deb.debian.org/debian" \
        "Suites: $codename $codename-updates" "Components: contrib non-free" \
        "Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg" | $SUDO tee "$list" >/dev/null
fi
exec "$(dirname "$0")/../scripts/install-packages.sh" "install-english-voices" \
    festvox-rablpc16k festvox-us1 festvox-us2 festvox-us3 festvox-en1 \
    mbrola mbrola-us1 mbrola-us2 mbrola-us3 mbrola-en1
