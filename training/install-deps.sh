#!/bin/sh
# Installs the Debian packages the corpus generator needs. Safe to re-run:
# does nothing (and prints nothing) when everything is already present.
set -eu
exec "$(dirname "$0")/../scripts/install-packages.sh" "install-deps" \
    python3 python3-numpy python3-scipy espeak-ng libespeak-ng1 flite \
    festival festvox-kallpc16k festvox-kdlpc16k festvox-us-slt-hts \
    festlex-cmu fortune-mod fortunes wamerican sox
