#!/usr/bin/env bash
# Sets everything up and runs the whole test suite:
#   host      the unit and integration tests (gcc, optimised with debug info)
#   host-asan the same under AddressSanitizer and UndefinedBehaviorSanitizer, but for three long
#             encoder and command-line runs that the host run keeps (CMakePresets.json)
#   host-tsan the tests of the player's threads, its ports and end-to-end playback under ThreadSanitizer
#   fuzz      every fuzz target for a short fixed number of libFuzzer iterations (clang)
#   linux-arm32, linux-arm64
#             the mesh layer's codec and sequence tests cross-built for 32- and 64-bit ARM Linux and
#             run under qemu-user: decoded output bit for bit that of the x86-64 build
# Test data (build/test-data) is generated first by scripts/test-data.sh.
# Choose other presets with OZM_TEST_PRESETS="host fuzz".
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
# The meshes the data-driven tests need (the Stanford bunny from the npm registry, and meshes made
# from it); quick when they are already there.
cmake --preset host >/dev/null
scripts/test-data.sh build/host

presets=${OZM_TEST_PRESETS:-host linux-arm32 linux-arm64 host-asan host-tsan fuzz}
jobs=$(nproc 2>/dev/null || echo 2)
total=0
failed=0
# What the failing tests printed, shown at the very end where it is easy to find.
failures=$(mktemp)
trap 'rm -f "$failures"' EXIT
for preset in $presets; do
  started=$SECONDS
  echo "== $preset: configure and build"
  cmake --preset "$preset" >/dev/null
  targets=()
  select=()
  if [ "$preset" = host-tsan ]; then
    # Only what runs threads is worth the slow instrumented build.
    targets=(--target ozm_player_tests ozm_platform_tests ozm_playback_tests)
    select=(-L threads)
  elif [ "$preset" = linux-arm32 ] || [ "$preset" = linux-arm64 ]; then
    # Core-only cross builds: the one test program (it reads the meshes that test-data.sh made above).
    targets=(--target ozm_core_tests)
  fi
  cmake --build --preset "$preset" -j "$jobs" "${targets[@]}"
  echo "== $preset: tests"
  log=$(mktemp)
  if ctest --preset "$preset" -j "$jobs" --output-on-failure "${select[@]}" 2>&1 | tee "$log" |
    grep -E '^ *[0-9]+/[0-9]+ Test|tests passed|tests failed|\*\*\*'; then :; fi
  summary=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$log" || true)
  if grep -qE '\*\*\*(Failed|Timeout|Exception)' "$log"; then
    { echo "== $preset: output of the failed tests"; grep -vE '^ *([0-9]+/[0-9]+ Test|Start +[0-9]+:)' "$log"; } >>"$failures"
  fi
  rm -f "$log"
  if [ -z "$summary" ]; then
    echo "== $preset: ctest did not report a result"
    exit 1
  fi
  count=$(sed -E 's/.*out of ([0-9]+).*/\1/' <<<"$summary")
  bad=$(sed -E 's/.* ([0-9]+) tests failed.*/\1/' <<<"$summary")
  total=$((total + count))
  failed=$((failed + bad))
  echo "== $preset: $summary ($((SECONDS - started)) s)"
done
if [ -s "$failures" ]; then tail -n 400 "$failures"; fi
echo "tests: $((total - failed)) passed, $failed failed"
[ "$failed" -eq 0 ]
