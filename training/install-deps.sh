#!/bin/sh
# Installs the Debian packages the corpus generator needs. Safe to re-run:
# does nothing (and prints nothing) when everything is already present.
set -eu
exec "$(dirname "$0")/../scripts/install-packages.sh" "install-deps" \
    python3 python3-numpy python3-scipy espeak-ng libespeak-ng1 flite \
    festival festvox-kallpc16k festvox-kdlpc16k festvox-us-slt-hts \
    festvox-czech-dita festvox-czech-krb festvox-czech-machac festvox-czech-ph \
    festvox-ca-ona-hts festvox-italp16k festvox-itapc16k festvox-suopuhe-lj \
    festvox-suopuhe-mv festlex-cmu fortune-mod fortunes wamerican sox
