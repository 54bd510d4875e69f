#!/usr/bin/env bash
# Encodes the clips of the Java bridge test with our encoder: a small MP4 and the same as an HLS
# stream of two segments. Usage: make-clips.sh OZM OUT_FOLDER SAMPLE_MESH
set -euo pipefail
ozm=$1
out=$2
mesh=$3
if [ ! -s "$mesh" ]; then
  echo "make-clips: the sample mesh $mesh is missing (scripts/test-data.sh makes it)" >&2
  exit 1
fi
mkdir -p "$out/hls"
common=(--sample --sample-mesh "$mesh" --frames 12 --fps 30 --key-interval 6 --size 64x64 --preset ultrafast)
# Made again when the encoder is newer than what it made.
fresh() { [ -s "$1" ] && [ "$1" -nt "$ozm" ]; }
fresh "$out/clip.mp4" || "$ozm" encode "${common[@]}" --out "$out/clip.mp4" >/dev/null
fresh "$out/hls/clip.m3u8" || "$ozm" encode "${common[@]}" --segment-seconds 0.2 --out "$out/hls/clip.m3u8" >/dev/null
