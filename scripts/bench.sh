#!/usr/bin/env bash
# Builds the host preset and runs the benchmarks: our key-frame and inter-frame decoders against
# Draco and meshoptimizer, on the generated test meshes, in one run (docs/benchmarks.md).
#   scripts/bench.sh [ozm_bench arguments, e.g. --benchmark_filter=KeyFrame]
# Writes build/bench-raw.json (every benchmark run, as Google Benchmark reports it) and
# build/bench-results.json (the comparisons and the goals), and prints both as tables. Without
# arguments it then compares inter-frame sizes at equal accuracy (build/bench-sizes.md).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

echo "bench: configure and build (host)"
cmake --preset host >/dev/null
cmake --build --preset host -j 2 --target ozm_bench ozm_bench_sizes
scripts/test-data.sh build/host

echo "bench: running"
build/host/bench/ozm_bench --benchmark_out=build/bench-raw.json --benchmark_out_format=json \
  --results=build/bench-results.json "$@"

if [ $# -eq 0 ]; then
  echo "bench: inter-frame sizes at equal accuracy"
  build/host/bench/ozm_bench_sizes >build/bench-sizes.md
  cat build/bench-sizes.md
fi
