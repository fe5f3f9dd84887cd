#!/usr/bin/env bash
# Fuzzes the model reader for a fixed time: builds the library and the fuzz
# target with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer)
# in build-fuzz, replays fuzz/regressions (inputs that once failed), seeds the
# corpus with the text models of fuzz/seeds and their binary forms, and runs.
# Then fuzzes the server's event reader (seeds: fuzz/event-seeds) for a
# quarter of that time, at least 10 s. Exits non-zero on any finding; the
# input that caused it is left in build-fuzz/findings.
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
clang++ -std=c++17 -O1 -g $sanitize -fsanitize=fuzzer-no-link -Isrc \
  fuzz/write-binary-seeds.cc "$out/libkestrel.a" -o "$out/write-binary-seeds"

mkdir -p "$out/corpus" "$out/findings"
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

event_seconds=$(( seconds / 4 > 10 ? seconds / 4 : 10 ))
clang++ -std=c++17 -O1 -g $sanitize -fsanitize=fuzzer -Isrc -Iserver \
  fuzz/event-reader-fuzzer.cc server/event-reader.cc server/wyoming-event.cc \
  server/wake-service.cc server/wake-session.cc "$out/libkestrel.a" -o "$out/event-reader-fuzzer"
mkdir -p "$out/event-corpus"
cp fuzz/event-seeds/* "$out/event-corpus/"
"$out/event-reader-fuzzer" "$out/event-corpus" -dict=fuzz/event.dict \
  -max_total_time="$event_seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
  -artifact_prefix="$out/findings/" -print_final_stats=1
