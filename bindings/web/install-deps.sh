#!/bin/sh
# Installs the Debian packages of the web module: with no arguments, all of
# them (the build's and the tests'); otherwise the named ones. Does nothing
# when they are all present. Exits non-zero if apt-get cannot install them.
set -eu
if [ $# -eq 0 ]; then
    set -- emscripten nodejs chromium chromium-driver
fi
exec "$(dirname "$0")/../../scripts/install-packages.sh" "web install-deps" "$@"
