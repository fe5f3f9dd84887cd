#!/usr/bin/env bash
# The Python package's tests, run by CTest.
#
#   run-tests.sh package LIBRARY   pytest on the package in the tree, loading
#                                  LIBRARY (the libkestrel.so just built), and
#                                  examples/detect.py
#   run-tests.sh install           the README's way: a venv with the system's
#                                  packages, pip install of bindings/python
#                                  (which builds its own libkestrel.so), then
#                                  `python -m kestrel` and examples/detect.py
#
# Needs Debian's python3 with NumPy, pytest and venv (.ci/run installs them);
# exits 77 (skipped) with the reason when they are missing.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../.." && pwd)"
model="$root/models/hey-kestrel.kmodel"
sample="$root/samples/hey-kestrel.wav"

python=""
for candidate in /usr/bin/python3 python3; do
  if "$candidate" -c "import numpy, pytest, venv" 2>/dev/null; then
    python="$candidate"
    break
  fi
done
if [ -z "$python" ]; then
  echo "skipped: no python3 with numpy, pytest and venv" \
       "(apt-get install python3-numpy python3-pytest python3-venv python3-pip)"
  exit 77
fi

case "$1" in
  package)
    export KESTREL_LIBRARY="$2" PYTHONPATH="$here"
    "$python" -m pytest -q -p no:cacheprovider "$here/tests"
    "$python" "$root/examples/detect.py" "$model" "$sample"
    ;;
  install)
    tmp="$(mktemp -d)"
    trap 'rm -rf "$tmp"' EXIT
    "$python" -m venv --system-site-packages "$tmp/venv"
    "$tmp/venv/bin/python" -m pip install -q --no-build-isolation --no-index "$here"
    cd "$tmp"  # so that the installed package is imported, not the tree's
    out="$("$tmp/venv/bin/python" -m kestrel "$sample" --model "$model" --name "hey kestrel")"
    echo "$out"
    grep -q "hey kestrel" <<<"$out"
    "$tmp/venv/bin/python" "$root/examples/detect.py" "$model" "$sample"
    ;;
  *)
    echo "usage: $0 package LIBRARY | install" >&2
    exit 2
    ;;
esac
