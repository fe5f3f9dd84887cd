#!/usr/bin/env bash
# Fuzzes the model reader for a fixed time: builds the library and the fuzz
# target with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer)
# in build-fuzz, replays fuzz/regressions (inputs that once failed), seeds the
# corpus with the text models of fuzz/seeds and their binary forms, and runs.
# Then fuzzes the C API (detectors from bytes in memory, audio streamed
# through them) for a third of that time, from fuzz/detector-seeds.
# Exits non-zero on any finding; the input that caused it is left in
# build-fuzz/findings.
#
# Usage: fuzz/run-fuzz.sh [SECONDS]   (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
out=build-fuzz
sanitize="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"

cmake -S . -B "$out" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKESTREL_BUILD_TESTS=OFF -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link $sanitize" >/dev/null
cmake --build "$out" -j2 --target kestrel

clang++ -std=c++17 -O1 -g $sanitize -fsanitize=fuzzer -Isrc \
  fuzz/model-reader-fuzzer.cc "$out/libkestrel.a" -o "$out/model-reader-fuzzer"
# Compiled as C, linked as C++ (the library's sanitizer checks need the C++ runtime).
clang -std=c99 -O1 -g $sanitize -fsanitize=fuzzer-no-link -Isrc \
  -c fuzz/detector-fuzzer.c -o "$out/detector-fuzzer.o"
clang++ $sanitize -fsanitize=fuzzer "$out/detector-fuzzer.o" "$out/libkestrel.a" \
  -o "$out/detector-fuzzer"
clang++ -std=c++17 -O1 -g $sanitize -fsanitize=fuzzer-no-link -Isrc \
  fuzz/write-binary-seeds.cc "$out/libkestrel.a" -o "$out/write-binary-seeds"

mkdir -p "$out/corpus" "$out/detector-corpus" "$out/findings"
if ! "$out/model-reader-fuzzer" fuzz/regressions/* >"$out/regressions.log" 2>&1; then
  grep -v '^INFO\|^Running\|^Executed' "$out/regressions.log" >&2
  echo "run-fuzz.sh: an input of fuzz/regressions fails (above)" >&2
  exit 1
fi
cp fuzz/seeds/*.kmodel "$out/corpus/"
"$out/write-binary-seeds" "$out/corpus" fuzz/seeds/*.kmodel

"$out/model-reader-fuzzer" "$out/corpus" -dict=fuzz/model.dict \
  -max_total_time="$seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
  -artifact_prefix="$out/findings/" -print_final_stats=1

cp fuzz/detector-seeds/* "$out/detector-corpus/"
"$out/detector-fuzzer" "$out/detector-corpus" -max_total_time="$((seconds / 3 + 1))" \
  -dict=fuzz/model.dict -max_len=16384 -timeout=10 -rss_limit_mb=2048 \
  -artifact_prefix="$out/findings/" -print_final_stats=1
