#!/usr/bin/env bash
# What a user of an installed Kestrel does, against a temporary prefix:
# installs the build there, builds examples/cmake-consumer (C++, through
# find_package(Kestrel)) and examples/detect.c (C, through pkg-config), and
# runs both on the sample, which must give the hotword.
#
# Usage: tests/install-test.sh BUILD_DIR
set -euo pipefail
source_dir="$(cd "$(dirname "$0")/.." && pwd)"
build_dir="$(cd "$1" && pwd)"
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
model="$source_dir/models/hey-kestrel.kmodel"
sample="$source_dir/samples/hey-kestrel.wav"

cmake --install "$build_dir" --prefix "$tmp/prefix" >/dev/null
for f in include/kestrel/kestrel.h include/kestrel/facade/hotword-detector.h; do
  test -f "$tmp/prefix/$f" || { echo "install-test: $f not installed" >&2; exit 1; }
done

cmake -S "$source_dir/examples/cmake-consumer" -B "$tmp/cxx" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/cxx" >/dev/null
cxx_out="$("$tmp/cxx/detect-cxx" "$model" "$sample")"
echo "C++ consumer: $cxx_out"
grep -q "hey kestrel at " <<<"$cxx_out"

export PKG_CONFIG_PATH="$(dirname "$(find "$tmp/prefix" -name kestrel.pc)")"
cc -std=c99 -Wall -Wextra -Werror "$source_dir/examples/detect.c" -o "$tmp/detect-c" \
  $(pkg-config --cflags --libs kestrel) -Wl,-rpath,"$(pkg-config --variable=libdir kestrel)"
c_out="$("$tmp/detect-c" "$model" "$sample")"
echo "C consumer: $c_out"
grep -q "hotword 1 at " <<<"$c_out"
