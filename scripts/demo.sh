#!/usr/bin/env bash
# Sets everything up, builds the host tools and shows the mesh container at work on real bytes:
# a generated mesh payload is wrapped into a mesh NAL unit inside a video access unit, found again
# by the same code the plug-in runs on every sample, and its header is parsed and printed.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset host >/dev/null
cmake --build --preset host --target ozm OzmUnityPlugin -j "$(nproc 2>/dev/null || echo 2)"

out=build/demo
mkdir -p "$out"
ozm=build/host/tools/ozm
echo
echo "== Wrapping a key-frame mesh payload (frame 42, sub-mesh 3) into an access unit"
"$ozm" unit make --out "$out/access-unit.bin" --vertices 2500 --faces 4800 --frame-id 42 --submesh-id 3 \
  --payload-bytes 65536
echo
echo "== Finding the mesh unit again and reading its header"
"$ozm" unit read "$out/access-unit.bin"
echo
echo "Made:"
echo "  $out/access-unit.bin          an H.264 access unit (delimiter + mesh NAL unit)"
echo "  build/host/plugin/libOzmUnityPlugin.so   the host build of the plug-in"
echo "  build/host/tools/ozm          the authoring and inspection tool"
