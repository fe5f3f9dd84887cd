#!/bin/sh
# Builds the benchmarks in build-bench (Release, tests off) and runs every
# *-bench program. Extra arguments go to each program (Google Benchmark
# flags, e.g. --benchmark_filter=Nnet).
#
# The network benchmark compares against OpenBLAS, a benchmark-only
# dependency: Debian's libopenblas-dev is installed here if missing.
set -e
cd "$(dirname "$0")/.."

if ! dpkg -s libopenblas-dev >/dev/null 2>&1; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  echo "Installing libopenblas-dev for the reference benchmarks..."
  $SUDO apt-get install -y -qq libopenblas-dev >/dev/null 2>&1 ||
    { $SUDO apt-get update -qq >/dev/null && $SUDO apt-get install -y -qq libopenblas-dev >/dev/null; }
fi

cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release \
  -DKESTREL_BUILD_BENCHMARKS=ON -DKESTREL_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench -j2

# Benchmarks measure one core; keep OpenBLAS to one thread as well.
export OPENBLAS_NUM_THREADS=1
for bench in build-bench/bench/*-bench; do
  [ -x "$bench" ] || continue
  echo "== $bench"
  "$bench" "$@"
done
