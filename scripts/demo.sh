#!/usr/bin/env bash
# Sets everything up, builds the host tools and makes a real volumetric clip: the built-in animated
# sample (the Loop-subdivided bunny twisting and breathing for 300 frames, with a texture that
# shows each frame's number) is encoded to an MP4 whose every access unit carries its mesh, checked
# with FFmpeg, inspected the way the player reads it, and three frames are exported as glTF with
# their decoded pictures. The same sample is also encoded as an HLS stream (a playlist and MPEG-TS
# segments), which FFmpeg plays as well. Last, the plug-in plays the MP4 in a headless engine and
# every frame it draws is checked: picture and mesh of the same frame.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset host >/dev/null
scripts/test-data.sh build/host
cmake --build --preset host --target ozm OzmUnityPlugin -j "$(nproc 2>/dev/null || echo 2)"

out=build/demo
mkdir -p "$out"
rm -rf "$out/frames" "$out/hls"
mkdir -p "$out/hls"
ozm=build/host/tools/ozm
clip=$out/bunny.mp4

echo
echo "== Encoding the built-in sample: 300 frames at 30 fps, H.264 texture, EdgeBreaker key frames, Huffman inter frames, a beep every second as AAC audio"
"$ozm" encode --sample --sample-audio --out "$clip"

echo
echo "== FFmpeg decodes it as ordinary video (its error log follows between the lines)"
echo "----"
ffmpeg -nostdin -v error -i "$clip" -f null -
echo "----"

echo
echo "== Inspecting it as the player reads it (first frames of the table)"
"$ozm" inspect "$clip" --frames 0:4

echo
echo "== Exporting frames 148 to 150 as glTF with their pictures"
"$ozm" export "$clip" --frames 148:150 --format gltf --out "$out/frames"

echo
echo "== Encoding the same sample as HLS: a playlist and 2-second MPEG-TS segments, each starting with a key frame"
"$ozm" encode --sample --sample-audio --out "$out/hls/bunny.m3u8"
echo "FFmpeg plays the playlist (its error log follows between the lines)"
echo "----"
ffmpeg -nostdin -v error -i "$out/hls/bunny.m3u8" -f null -
echo "----"

echo
echo "== Playing the MP4 through the plug-in in a headless engine, every drawn frame read back and checked"
if ! "$ozm" play "$clip" 2>"$out/play.log"; then
  tail -n 20 "$out/play.log"
  exit 1
fi

echo
echo "Made:"
echo "  $clip                      the volumetric clip ($(stat -c %s "$clip") bytes)"
echo "  $out/frames/frame_000148.gltf ... frame_000150.gltf  meshes (open in any glTF viewer)"
echo "  $out/frames/frame_000148.png  ... frame_000150.png   their decoded pictures"
echo "  build/host/plugin/libOzmUnityPlugin.so   the host build of the plug-in"
echo "  build/host/tools/ozm          the authoring and inspection tool (ozm --help)"
echo "  $out/play.log               the plug-in's log of that playback"
echo "  $out/hls/bunny.m3u8          the HLS playlist, with its segments:"
ls -l "$out/hls" | awk 'NR > 1 && $NF ~ /\.ts$/ { printf "    %-28s %s bytes\n", $NF, $5 }'
