#!/usr/bin/env bash
# Sets everything up, builds the host tools and makes a real volumetric clip: the built-in animated
# sample (the Loop-subdivided bunny twisting and breathing for 300 frames, with a texture that
# shows each frame's number and a beep every second on its audio track) is encoded to an MP4 whose
# every access unit carries its mesh, checked with FFmpeg, inspected the way the player reads it,
# and three frames are exported as glTF with their decoded pictures. The same sample is also encoded
# as an HLS stream (a playlist and MPEG-TS segments), which FFmpeg plays as well.
#
# Then the plug-in plays it, and you can watch: `ozm play` drives the built plug-in through its C
# functions in a headless engine, checks that every frame the engine draws has picture and mesh of
# the same frame, and renders what the engine received (the mesh in its buffers, textured with its
# texture) from a camera turning around the bunny into build/demo/playback.mp4 (with the clip's own
# sound) and a contact sheet. Last, the HLS version is served by a loopback HTTP server started here
# (on 127.0.0.1, stopped when the script ends) and played the same way into playback-hls.mp4.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset host >/dev/null
scripts/test-data.sh build/host
cmake --build --preset host --target ozm OzmUnityPlugin -j "$(nproc 2>/dev/null || echo 2)"

out=build/demo
mkdir -p "$out"
rm -rf "$out/frames" "$out/hls" "$out/downloads"
rm -f "$out/playback.mp4" "$out/playback-hls.mp4" "$out/contact-sheet.png"
mkdir -p "$out/hls"
ozm=build/host/tools/ozm
clip=$out/bunny.mp4

server=
cleanup() { if [ -n "$server" ]; then kill "$server" 2>/dev/null || true; wait "$server" 2>/dev/null || true; fi; }
trap cleanup EXIT

echo
echo "== Encoding the built-in sample: 300 frames at 30 fps, H.264 texture, EdgeBreaker key frames, inter frames in the smallest coding for each, a beep every second as AAC audio"
"$ozm" encode --sample --sample-audio --out "$clip"

echo
echo "== FFmpeg decodes it as ordinary video (its error log follows between the lines)"
echo "----"
ffmpeg -nostdin -v error -i "$clip" -f null -
echo "----"

echo
echo "== Inspecting it as the player reads it (first frames of the table)"
"$ozm" inspect "$clip" --frames 0:2

echo
echo "== Exporting frames 148 to 150 as glTF with their pictures"
"$ozm" export "$clip" --frames 148:150 --format gltf --out "$out/frames" | grep -v "^    "

echo
echo "== Encoding the same sample as HLS: a playlist and 2-second MPEG-TS segments, each starting with a key frame"
"$ozm" encode --sample --sample-audio --out "$out/hls/bunny.m3u8" >/dev/null
echo "FFmpeg plays the playlist (its error log follows between the lines)"
echo "----"
ffmpeg -nostdin -v error -i "$out/hls/bunny.m3u8" -f null -
echo "----"

play() {  # log file, then the arguments of ozm play
  local log=$1
  shift
  if ! "$ozm" play "$@" 2>"$log"; then
    echo "ozm play failed; the end of its log ($log):"
    tail -n 20 "$log"
    exit 1
  fi
}

echo
echo "== Playing the MP4 through the plug-in in a headless engine: every drawn frame read back and checked,"
echo "   and rendered from a camera turning around the bunny into a video with the clip's sound"
play "$out/play.log" "$clip" --out "$out/playback.mp4" --contact-sheet "$out/contact-sheet.png"

echo
echo "== Serving the HLS stream from a loopback HTTP server and playing it from there"
python3 tests/loopback_http_server.py --root "$out/hls" --max-seconds 300 >"$out/server.log" 2>&1 &
server=$!
port=
for _ in $(seq 100); do
  port=$(awk '/^PORT /{print $2}' "$out/server.log")
  [ -n "$port" ] && break
  sleep 0.1
done
[ -n "$port" ] || { echo "the loopback server did not start: $(cat "$out/server.log")"; exit 1; }
url=http://127.0.0.1:$port/bunny.m3u8
echo "serving $out/hls at http://127.0.0.1:$port/"
OZM_DOWNLOAD_DIR=$out/downloads play "$out/play-hls.log" "$url" --out "$out/playback-hls.mp4"
cleanup
server=

echo
echo "Made:"
echo "  $out/playback.mp4           the bunny as the engine drew it, turning, with the beeps (watch it)"
echo "  $out/contact-sheet.png      eight frames of it side by side"
echo "  $out/playback-hls.mp4       the same, played from the HLS stream over http"
echo "  $clip                      the volumetric clip ($(stat -c %s "$clip") bytes)"
echo "  $out/frames/frame_000148.gltf ... frame_000150.gltf  meshes (open in any glTF viewer)"
echo "  $out/frames/frame_000148.png  ... frame_000150.png   their decoded pictures"
echo "  $out/hls/bunny.m3u8          the HLS playlist, with its segments:"
ls -l "$out/hls" | awk 'NR > 1 && $NF ~ /\.ts$/ { printf "    %-28s %s bytes\n", $NF, $5 }'
echo "  $out/play.log, $out/play-hls.log   the plug-in's log of both playbacks"
echo "  build/host/plugin/libOzmUnityPlugin.so   the host build of the plug-in"
echo "  build/host/tools/ozm          the authoring and inspection tool (ozm --help, ozm play --help)"
