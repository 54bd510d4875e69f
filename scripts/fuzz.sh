#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer) and fuzzes each
# one for a given time, starting from its committed seeds. Findings land in build/fuzz-findings/.
#   scripts/fuzz.sh [seconds per target] [target ...]
# Targets: the fuzz_* programs of fuzz/CMakeLists.txt (default: all of them).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(find_compressed_mesh streaming_mesh_header xtra_attributes edgebreaker golomb huffman
                                     key_frame mesh_sequence)

cmake --preset fuzz >/dev/null
cmake --build build/fuzz
mkdir -p build/fuzz-findings
for t in "${targets[@]}"; do
  work=build/fuzz-work/$t
  mkdir -p "$work"
  echo "== $t: ${seconds}s"
  ./build/fuzz/fuzz/fuzz_$t -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix=build/fuzz-findings/"$t"- "$work" fuzz/corpus/"$t" 2>&1 |
    grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb|==.*ERROR|SUMMARY|#[0-9]+ +DONE)' || true
  if ls build/fuzz-findings/"$t"-* >/dev/null 2>&1; then
    echo "findings for $t in build/fuzz-findings/"
    exit 1
  fi
done
