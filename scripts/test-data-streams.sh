#!/usr/bin/env bash
# Generates transport streams and elementary streams made by FFmpeg (not by us) into
# build/test-data/streams/, each with what ffprobe lists for it, for the tests of the transport-stream
# demultiplexer and the parameter-set parser. Safe to run again: existing files are kept.
#   <name>.ts          MPEG-TS, video (+ AAC audio for the names with "aac")
#   <name>.es          the video elementary stream alone, Annex B (.h264 or .hevc content)
#   <name>.packets.json  ffprobe -show_packets of the .ts (stream index, pts, dts, size, flags)
#   <name>.streams.json  ffprobe -show_streams of the .ts (width, height, r_frame_rate, ...)
set -euo pipefail
cd "$(dirname "$0")/.."
out=build/test-data/streams
mkdir -p "$out"

# name codec size rate frames audio
cases=(
  "h264_aac_1920x1080_30 libx264 1920x1080 30 12 aac"
  "h264_854x480_25 libx264 854x480 25 20 none"
  "h264_aac_1000x562_30000-1001 libx264 1000x562 30000/1001 15 aac"
  "h264_640x360_24000-1001_bframes libx264 640x360 24000/1001 18 none"
  "hevc_aac_1920x1080_30 libx265 1920x1080 30 12 aac"
  "hevc_854x480_25 libx265 854x480 25 20 none"
  "hevc_aac_1000x562_30000-1001 libx265 1000x562 30000/1001 15 aac"
)

made=0
for c in "${cases[@]}"; do
  read -r name codec size rate frames audio <<<"$c"
  [ -s "$out/$name.streams.json" ] && continue
  inputs=(-f lavfi -i "testsrc2=size=$size:rate=$rate")
  maps=(-map 0:v)
  audioArgs=()
  if [ "$audio" = aac ]; then
    inputs+=(-f lavfi -i "sine=frequency=440:sample_rate=48000")
    maps+=(-map 1:a)
    audioArgs=(-c:a aac -b:a 96k -ac 2 -shortest)
  fi
  videoArgs=(-c:v "$codec" -pix_fmt yuv420p -frames:v "$frames")
  if [ "$codec" = libx264 ]; then
    # Access-unit delimiters as HLS packagers write them; B-frames only where the name says so.
    bframes=0
    [[ "$name" == *bframes* ]] && bframes=2
    videoArgs+=(-x264-params "aud=1:bframes=$bframes:keyint=10" -bsf:v h264_metadata=aud=insert)
  else
    videoArgs+=(-x265-params "aud=1:bframes=0:keyint=10:log-level=error")
  fi
  ffmpeg -nostdin -loglevel error -y "${inputs[@]}" "${maps[@]}" "${videoArgs[@]}" "${audioArgs[@]}" \
    -f mpegts "$out/$name.ts.part"
  mv "$out/$name.ts.part" "$out/$name.ts"
  format=h264
  [ "$codec" = libx265 ] && format=hevc
  ffmpeg -nostdin -loglevel error -y -i "$out/$name.ts" -map 0:v -c copy -f "$format" "$out/$name.es"
  ffprobe -v error -of json -show_packets -show_entries packet=stream_index,codec_type,pts,dts,size,flags \
    "$out/$name.ts" >"$out/$name.packets.json"
  ffprobe -v error -of json -show_streams "$out/$name.ts" >"$out/$name.streams.json.part"
  mv "$out/$name.streams.json.part" "$out/$name.streams.json"
  made=$((made + 1))
done
echo "test-data: $made transport streams made in $out"
