#!/bin/sh
# Runs the corpus generator's tests when its Debian packages are installed
# (training/install-deps.sh); otherwise exits 77, which CTest reports as
# skipped.
set -eu
cd "$(dirname "$0")"
for tool in espeak-ng flite festival; do
    command -v "$tool" >/dev/null 2>&1 || { echo "corpus tests skipped: $tool is not installed"; exit 77; }
done
/usr/bin/python3 -c "import numpy, scipy" 2>/dev/null || { echo "corpus tests skipped: python3-numpy/scipy missing"; exit 77; }
exec /usr/bin/python3 -m unittest test_corpus
