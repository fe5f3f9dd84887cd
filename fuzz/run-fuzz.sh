#!/usr/bin/env bash
# Fuzzes each input the library takes from outside, one target after the
# other, each for a fixed time: the model reader, the WAV reader, the C API
# (detectors from bytes in memory, audio streamed through them) and the
# server's event reader. Builds the library and the targets with clang
# (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer) in build-fuzz,
# replays fuzz/regressions (inputs that once failed or sit on an edge:
# *.kmodel, *.wav), seeds each corpus (fuzz/seeds: the text models and their
# binary forms, the WAV files; fuzz/detector-seeds; fuzz/event-seeds), and
# runs. Exits non-zero on any finding; the input that caused it is left in
# build-fuzz/findings.
#
# Usage: fuzz/run-fuzz.sh [SECONDS]   (default 60, per target)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
out=build-fuzz
sanitize="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"

cmake -S . -B "$out" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTREL_BUILD_TESTS=OFF \
  -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link $sanitize" >/dev/null
cmake --build "$out" -j2 --target kestrel

clang++ -std=c++17 -O1 -g $sanitize -fsanitize=fuzzer -Isrc \
  fuzz/model-reader-fuzzer.cc "$out/libkestrel.a" -o "$out/model-reader-fuzzer"
clang++ -std=c++17 -O1 -g $sanitize -fsanitize=fuzzer -Isrc \
  fuzz/wave-reader-fuzzer.cc "$out/libkestrel.a" -o "$out/wave-reader-fuzzer"
# Compiled as C, linked as C++ (the library's sanitizer checks need the C++ runtime).
clang -std=c99 -O1 -g $sanitize -fsanitize=fuzzer-no-link -Isrc \
  -c fuzz/detector-fuzzer.c -o "$out/detector-fuzzer.o"
clang++ $sanitize -fsanitize=fuzzer "$out/detector-fuzzer.o" "$out/libkestrel.a" \
  -o "$out/detector-fuzzer"
clang++ -std=c++17 -O1 -g $sanitize -fsanitize=fuzzer -Isrc -Iserver \
  fuzz/event-reader-fuzzer.cc server/event-reader.cc server/wyoming-event.cc \
  server/wake-service.cc server/wake-session.cc "$out/libkestrel.a" -o "$out/event-reader-fuzzer"
clang++ -std=c++17 -O1 -g $sanitize -fsanitize=fuzzer-no-link -Isrc \
  fuzz/write-binary-seeds.cc "$out/libkestrel.a" -o "$out/write-binary-seeds"

# replay FUZZER EXTENSION: runs the regression inputs of one kind.
replay() {
  if ! "$out/$1" fuzz/regressions/*."$2" >"$out/regressions.log" 2>&1; then
    grep -v '^INFO\|^Running\|^Executed' "$out/regressions.log" >&2
    echo "run-fuzz.sh: an input of fuzz/regressions/*.$2 fails (above)" >&2
    exit 1
  fi
}
replay model-reader-fuzzer kmodel
replay wave-reader-fuzzer wav

mkdir -p "$out/findings" "$out/model-corpus" "$out/wave-corpus" "$out/detector-corpus" \
  "$out/event-corpus"
cp fuzz/seeds/*.kmodel "$out/model-corpus/"
"$out/write-binary-seeds" "$out/model-corpus" fuzz/seeds/*.kmodel
cp fuzz/seeds/*.wav "$out/wave-corpus/"
cp fuzz/detector-seeds/* "$out/detector-corpus/"
cp fuzz/event-seeds/* "$out/event-corpus/"

# fuzz FUZZER CORPUS DICT MAX_LEN
fuzz() {
  "$out/$1" "$out/$2" -dict="$3" -max_total_time="$seconds" -max_len="$4" -timeout=10 \
    -rss_limit_mb=2048 -artifact_prefix="$out/findings/" -print_final_stats=1
}
fuzz model-reader-fuzzer model-corpus fuzz/model.dict 4096
fuzz wave-reader-fuzzer wave-corpus fuzz/wave.dict 4096
fuzz detector-fuzzer detector-corpus fuzz/model.dict 16384
fuzz event-reader-fuzzer event-corpus fuzz/event.dict 4096
