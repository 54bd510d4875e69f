#!/usr/bin/env bash
# Generates the test meshes into build/test-data/ (not committed): fetches the npm package "bunny"
# (the Stanford bunny, public domain) and builds the files of tests/data/TestMeshFiles.h from it with
# tests/data/MakeTestMeshes.cpp. Safe to run again: it does nothing when the files are up to date.
#   scripts/test-data.sh [build folder with the generator, default build/host]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/host}
out=build/test-data
version=1.0.1
generator=$build/tests/make_test_meshes
outputs=(bunny.mesh bunny.obj bunny-loop2.mesh bunny-loop3.mesh bunny-anim.anim)

mkdir -p "$out"
if [ ! -s "$out/bunny.json" ]; then
  echo "test-data: fetching bunny@$version"
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"' EXIT
  (cd "$tmp" && npm pack --silent "bunny@$version" >/dev/null && tar xzf "bunny-$version.tgz")
  node -e 'const b = require(process.argv[1]); process.stdout.write(JSON.stringify({positions: b.positions, cells: b.cells}));' \
    "$tmp/package/index.js" >"$out/bunny.json.part"
  mv "$out/bunny.json.part" "$out/bunny.json"
fi

# Transport and elementary streams made by FFmpeg, for the demultiplexer and parameter-set tests.
scripts/test-data-streams.sh

# The generator is part of the host build; building the one target is a no-op when it is current.
[ -f "$build/CMakeCache.txt" ] || cmake --preset host >/dev/null
cmake --build "$build" --target make_test_meshes >/dev/null

fresh=1
for f in "${outputs[@]}"; do
  if [ ! -s "$out/$f" ] || [ "$out/$f" -ot "$generator" ] || [ "$out/$f" -ot "$out/bunny.json" ]; then fresh=0; fi
done
if [ "$fresh" -eq 1 ]; then
  echo "test-data: up to date in $out"
  exit 0
fi
"$generator" "$out/bunny.json" "$out"
echo "test-data: written to $out"
