#!/bin/sh
# Installs the Debian packages `kestrel serve` and its tests need. Safe to
# re-run: does nothing when everything is already present.
set -eu
exec "$(dirname "$0")/../scripts/install-packages.sh" "server install-deps" \
    nlohmann-json3-dev python3
