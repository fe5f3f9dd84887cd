#!/usr/bin/env bash
# Fuzzes the model reader and then the WAV reader, each for a fixed time:
# builds the library and the fuzz targets with clang (libFuzzer,
# AddressSanitizer, UndefinedBehaviorSanitizer) in build-fuzz, replays
# fuzz/regressions (inputs that once failed or sit on an edge: *.kmodel,
# *.wav), seeds each corpus from fuzz/seeds (the text models and their binary
# forms; the WAV files), and runs. Exits non-zero on any finding; the input
# that caused it is left in build-fuzz/findings. Then fuzzes the C API
# (detectors from arbitrary bytes in memory, audio streamed through them)
# from fuzz/detector-seeds for a third of that time.
#
# Usage: fuzz/run-fuzz.sh [SECONDS]   (default 60, per reader target)
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
clang++ -std=c++17 -O1 -g $sanitize -fsanitize=fuzzer -Isrc \
  fuzz/wave-reader-fuzzer.cc "$out/libkestrel.a" -o "$out/wave-reader-fuzzer"
# Compiled as C, linked as C++ (the library's sanitizer checks need the C++ runtime).
clang -std=c99 -O1 -g $sanitize -fsanitize=fuzzer-no-link -Isrc \
  -c fuzz/detector-fuzzer.c -o "$out/detector-fuzzer.o"
clang++ $sanitize -fsanitize=fuzzer "$out/detector-fuzzer.o" "$out/libkestrel.a" \
  -o "$out/detector-fuzzer"
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

mkdir -p "$out/corpus" "$out/wave-corpus" "$out/detector-corpus" "$out/findings"
cp fuzz/seeds/*.kmodel "$out/corpus/"
"$out/write-binary-seeds" "$out/corpus" fuzz/seeds/*.kmodel
cp fuzz/seeds/*.wav "$out/wave-corpus/"

"$out/model-reader-fuzzer" "$out/corpus" -dict=fuzz/model.dict \
  -max_total_time="$seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
  -artifact_prefix="$out/findings/" -print_final_stats=1
"$out/wave-reader-fuzzer" "$out/wave-corpus" -dict=fuzz/wave.dict \
  -max_total_time="$seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
  -artifact_prefix="$out/findings/" -print_final_stats=1

cp fuzz/detector-seeds/* "$out/detector-corpus/"
"$out/detector-fuzzer" "$out/detector-corpus" -max_total_time="$((seconds / 3 + 1))" \
  -dict=fuzz/model.dict -max_len=16384 -timeout=10 -rss_limit_mb=2048 \
  -artifact_prefix="$out/findings/" -print_final_stats=1
