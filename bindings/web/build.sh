#!/usr/bin/env bash
# Builds the WebAssembly module into bindings/web/dist/: kestrel.mjs (the
# JavaScript API, an ES module for browsers and Node) and kestrel.wasm.
# Installs Debian's emscripten first if it is missing; exits 77 (a skip for
# CTest) only when it cannot be installed.
#
#   bindings/web/build.sh [-jN]      # incremental; make -C bindings/web clean to start over
set -euo pipefail
cd "$(dirname "$0")"

# Size budget of the built module, in bytes: the code should cost a page less
# than the bundled model it runs (600 KB). About half of it is the C and C++
# standard libraries (streams, locales, number parsing, malloc).
readonly WASM_BUDGET=$((512 * 1024))
readonly MJS_BUDGET=$((64 * 1024))

if ! command -v em++ >/dev/null || ! command -v node >/dev/null; then
  if ! ./install-deps.sh emscripten nodejs; then
    echo "build.sh: SKIPPED: emscripten could not be installed with apt-get;" \
         "the WebAssembly module is not built" >&2
    exit 77
  fi
fi

# Debian's emscripten runs its JavaScript optimizer with the system Node,
# which finds Debian's acorn only through NODE_PATH.
export NODE_PATH=/usr/share/nodejs${NODE_PATH:+:$NODE_PATH}
make -j"${JOBS:-2}" "$@"

wasm_size=$(stat -c %s dist/kestrel.wasm)
mjs_size=$(stat -c %s dist/kestrel.mjs)
echo "build.sh: dist/kestrel.wasm $wasm_size bytes, dist/kestrel.mjs $mjs_size bytes"
if [ "$wasm_size" -gt "$WASM_BUDGET" ] || [ "$mjs_size" -gt "$MJS_BUDGET" ]; then
  echo "build.sh: over the size budget ($WASM_BUDGET bytes of wasm, $MJS_BUDGET of JavaScript)" >&2
  exit 1
fi
