#!/usr/bin/env bash
# ozm encode, inspect, export and play from the command line: the clip (MP4 or HLS) is ordinary video
# to FFmpeg, the JSON reports say what the text says, inspect and export read an HLS stream (from a
# folder or a loopback http server) as they read the MP4 of the same content, the built plug-in
# plays it with every drawn frame paired, and bad command lines and unreadable or damaged inputs end with a message and exit
# status 1 (2 for play), never with a crash.
#   ozm-tool-cli.sh OZM WORK_FOLDER TEST_DATA_FOLDER
set -uo pipefail
ozm=$1
dir=$2
data=$3
fail() { echo "FAIL: $*"; exit 1; }
mesh=$data/bunny.mesh
if [ ! -s "$mesh" ]; then
  [ "${OZM_ALLOW_MISSING_TEST_DATA:-}" = 1 ] && { echo "skipped: no test data in $data"; exit 0; }
  fail "no test data in $data: run scripts/test-data.sh"
fi
rm -rf "$dir"
mkdir -p "$dir"
base=(--sample --sample-mesh "$mesh" --frames 12 --key-interval 6 --preset veryfast)
small=("${base[@]}" --size 128x128)

# Both picture codecs: FFmpeg decodes the whole clip without a single message, and sees the key
# frames where the meshes have theirs.
for codec in h264 hevc; do
  clip=$dir/$codec.mp4
  "$ozm" encode "${small[@]}" --texture-codec "$codec" --out "$clip" --json >"$dir/$codec.json" || fail "encode $codec"
  jq -e '.frames == 12 and .mesh.key_frames == 2 and .bytes.meshes > 0 and .mesh.bits_per_triangle > 0' \
    "$dir/$codec.json" >/dev/null || fail "encode summary: $(cat "$dir/$codec.json")"
  log=$(ffmpeg -nostdin -v error -i "$clip" -f null - 2>&1) || fail "ffmpeg cannot decode $clip"
  [ -z "$log" ] || fail "ffmpeg complains about $clip: $log"
  flags=$(ffprobe -v error -select_streams v -show_entries packet=flags -of csv=p=0 "$clip" | tr -d '_\n')
  [ "$flags" = "KK" ] || fail "$codec key frames: $flags"
  [ "$(ffprobe -v error -count_packets -select_streams v -show_entries stream=nb_read_packets -of csv=p=0 "$clip")" = 12 ] ||
    fail "$codec packet count"
done
clip=$dir/h264.mp4

# HLS: a playlist of transport-stream segments that FFmpeg plays without a single message, every
# packet with pts == dts (the PES headers carry the PTS only) and every segment starting with a key
# frame; no attribute block.
for codec in h264 hevc; do
  hls=$dir/hls-$codec
  mkdir -p "$hls"
  "$ozm" encode "${small[@]}" --texture-codec "$codec" --segment-seconds 0.2 --out "$hls/clip.m3u8" --json \
    >"$hls.json" || fail "encode HLS $codec"
  jq -e '.frames == 12 and .segments.frames_each == 6 and (.segments.files | length) == 2 and
         (.bytes | has("attributes") | not)' "$hls.json" >/dev/null || fail "HLS summary: $(cat "$hls.json")"
  [ "$(grep -c '^clip_[0-9]*\.ts$' "$hls/clip.m3u8")" = 2 ] && grep -q '^#EXT-X-ENDLIST' "$hls/clip.m3u8" ||
    fail "HLS playlist: $(cat "$hls/clip.m3u8")"
  [ "$(ls "$hls")" = "$(printf 'clip.m3u8\nclip_00000.ts\nclip_00001.ts')" ] || fail "HLS files: $(ls "$hls")"
  log=$(ffmpeg -nostdin -v error -i "$hls/clip.m3u8" -f null - 2>&1) || fail "ffmpeg cannot play $hls/clip.m3u8"
  [ -z "$log" ] || fail "ffmpeg complains about $hls/clip.m3u8: $log"
  packets=$(ffprobe -v error -select_streams v -show_entries packet=pts,dts -of csv=p=0 "$hls/clip.m3u8" | grep .)
  [ "$(wc -l <<<"$packets")" = 12 ] || fail "$codec HLS packet count: $packets"
  [ -z "$(awk -F, '$1 != $2' <<<"$packets")" ] || fail "$codec HLS packets with a DTS of their own: $packets"
  for segment in "$hls"/clip_*.ts; do
    first=$(ffprobe -v error -select_streams v -show_entries packet=flags -of csv=p=0 "$segment" | head -n 1)
    [ "${first:0:1}" = K ] || fail "$segment starts without a key frame ($first)"
  done
done

# An AAC audio track as stream 1 of the MP4 (the sample's beeps) and of the HLS segments (3 s of a
# stereo tone at 44.1 kHz), cut to the pictures' length; FFmpeg plays both without a message, and
# the pictures keep their meshes.
between() { awk -v v="$1" -v lo="$2" -v hi="$3" 'BEGIN { exit !(v >= lo && v <= hi) }'; }
audio=$dir/audio
mkdir -p "$audio"
ffmpeg -nostdin -v error -f lavfi -i "sine=frequency=440:sample_rate=44100" -ac 2 -t 3 -y "$audio/tone.wav" ||
  fail "making a tone"
for out in "$audio/clip.mp4" "$audio/clip.m3u8"; do
  if [ "${out##*.}" = mp4 ]; then
    sound=(--sample-audio) rate=48000 channels=1 slack=0.001
  else
    # The transport stream keeps the encoder's priming frame, and its demuxer gives the last
    # frame a whole frame's length: two AAC frames at most.
    sound=(--audio "$audio/tone.wav") rate=44100 channels=2 slack=0.047
  fi
  "$ozm" encode "${small[@]}" "${sound[@]}" --segment-seconds 0.2 --out "$out" --json >"$out.json" ||
    fail "encode with audio: $out"
  jq -e --argjson rate "$rate" --argjson channels "$channels" '.audio.codec == "aac" and
         .audio.sample_rate == $rate and .audio.channels == $channels and .audio.duration_seconds == 0.4 and
         .bytes.audio > 0' "$out.json" >/dev/null || fail "audio summary: $(cat "$out.json")"
  log=$(ffmpeg -nostdin -v error -i "$out" -f null - 2>&1) || fail "ffmpeg cannot play $out"
  [ -z "$log" ] || fail "ffmpeg complains about $out: $log"
  streams=$(ffprobe -v error -show_entries stream=index,codec_type,codec_name -of csv=p=0 "$out" | grep . | sort -u)
  [ "$streams" = "$(printf '0,h264,video\n1,aac,audio')" ] || fail "streams of $out: $streams"
  if [ "${out##*.}" = mp4 ]; then
    length=$(ffprobe -v error -select_streams a -show_entries stream=duration -of csv=p=0 "$out")
  else
    # From the first packet's start to the last one's end.
    length=$(ffprobe -v error -select_streams a -show_entries packet=pts_time,duration_time -of csv=p=0 "$out" |
      awk -F, '$1 != "" { if (!n++) first = $1; end = $1 + $2 } END { print end - first }')
  fi
  between "$length" 0.399 "$(awk -v s="$slack" 'BEGIN { print 0.4 + s }')" ||
    fail "audio of $out lasts $length s, the pictures 0.4 s"
  [ "$(ffprobe -v error -count_packets -select_streams v -show_entries stream=nb_read_packets -of csv=p=0 "$out" |
    grep . | sort -u)" = 12 ] || fail "picture count of $out"
done
out=$("$ozm" inspect "$audio/clip.mp4") || fail "inspect with audio"
grep -q "12 of 12 access units carry one, 2 key frames" <<<"$out" && grep -q "attribute block: .* at the end of the file" <<<"$out" ||
  fail "inspect with audio: $out"

# The text summary of encode.
out=$("$ozm" encode "${small[@]}" --out "$dir/text.mp4") || fail "encode (text)"
grep -q "bits per triangle" <<<"$out" || fail "encode summary: $out"
grep -Eq "mesh frames 12 \(key 2, huffman [0-9]+, golomb [0-9]+, transform [0-9]+, bytes [0-9]+\)" <<<"$out" ||
  fail "encode summary of the mesh frames: $out"

# The inter coding by name or header value (--inter-coding is the older name): the counts per coding
# add up to the frames, a single coding makes all inter frames, none makes key frames only.
for inter in "--inter:auto:" "--inter:golomb:golomb" "--inter:5:transform" "--inter-coding:bytes:bytes" \
  "--inter-coding:0:"; do
  IFS=: read -r option name only <<<"$inter"
  "$ozm" encode "${small[@]}" "$option" "$name" --out "$dir/inter.mp4" --json >"$dir/inter.json" ||
    fail "encode $option $name"
  jq -e --arg only "$only" --arg name "$name" '.mesh.frames as $f |
         ($f.key + $f.huffman + $f.golomb + $f.transform + $f.bytes) == 12 and
         (if $only != "" then $f[$only] == 10 and $f.key == 2
          elif $name == "0" then $f.key == 12
          else $f.key >= 2 end)' "$dir/inter.json" >/dev/null ||
    fail "encode $option $name: $(jq -c .mesh "$dir/inter.json")"
done

# inspect: text and JSON agree with the clip.
out=$("$ozm" inspect "$clip") || fail "inspect"
grep -q "12 of 12 access units carry one, 2 key frames" <<<"$out" || fail "inspect summary: $out"
grep -Eq "attribute block: [0-9,]+ bytes at the end of the file" <<<"$out" || fail "inspect attributes: $out"
grep -q "texture 128x128 (H.264)" <<<"$out" || fail "inspect texture: $out"
"$ozm" inspect "$clip" --json --frames 5:6 >"$dir/inspect.json" || fail "inspect --json"
jq -e '.summary.problems == 0 and .attributes.frame_count == 12 and .attributes.at_end and
       (.frames | length) == 2 and .frames[1].index == 6 and .frames[1].decoded.key_frame and
       .frames[1].picture_key and (.frames[0].decoded.key_frame | not) and .frames[0].header.frame_id == 6' \
  "$dir/inspect.json" >/dev/null || fail "inspect json: $(cat "$dir/inspect.json")"

# export: three frames in each format, each with its picture.
for format in ply obj gltf; do
  "$ozm" export "$clip" --frames 7:9 --format "$format" --out "$dir/$format" >/dev/null || fail "export $format"
  for i in 7 8 9; do
    [ -s "$dir/$format/frame_00000$i.$format" ] && [ -s "$dir/$format/frame_00000$i.png" ] || fail "export $format frame $i"
  done
done
[ -s "$dir/obj/frame_000008.mtl" ] && [ -s "$dir/gltf/frame_000008.bin" ] || fail "export side files"

# inspect and export read HLS through the player's own input: the same frames and meshes as the MP4
# of the same content, the stream's tracks, no attribute block, and nothing on standard error.
# One line a frame, for diff.
frames_of() { jq -c '.frames[] | {index, picture_key, mesh, mesh_bytes, header, decoded, problem}' "$1"; }
seconds_apart() {
  jq -n --slurpfile a "$1" --slurpfile b "$2" \
    '[range($a[0].frames | length) as $i | $a[0].frames[$i].seconds - $b[0].frames[$i].seconds |
      if . < 0 then -. else . end] | max < 1e-5' >/dev/null
}
# stream, MP4 of the same pictures and meshes, tracks, audio sample rate and channels
for row in "hls-h264/clip.m3u8 h264.mp4 1 0 0" "hls-hevc/clip.m3u8 hevc.mp4 1 0 0" \
           "audio/clip.m3u8 h264.mp4 2 44100 2"; do
  read -r stream mp4 tracks rate channels <<<"$row"
  name=${stream//\//-}
  "$ozm" inspect "$dir/$mp4" --json >"$dir/$name.mp4.json" || fail "inspect $mp4"
  "$ozm" inspect "$dir/$stream" --json >"$dir/$name.json" 2>"$dir/$name.err" || fail "inspect $stream: $(cat "$dir/$name.err")"
  [ ! -s "$dir/$name.err" ] || fail "inspect $stream wrote to standard error: $(cat "$dir/$name.err")"
  differences=$(diff <(frames_of "$dir/$name.json") <(frames_of "$dir/$name.mp4.json") | head -n 4)
  [ -z "$differences" ] || fail "frames of $stream and $mp4 differ: $differences"
  seconds_apart "$dir/$name.json" "$dir/$name.mp4.json" || fail "frame times of $stream and $mp4 differ"
  jq -e --slurpfile mp4 "$dir/$name.mp4.json" --argjson tracks "$tracks" --argjson rate "$rate" \
    --argjson channels "$channels" '.format == "HLS (MPEG-TS segments)" and .attributes == null and
     .texture == $mp4[0].texture and .summary == $mp4[0].summary and (.tracks | length) == $tracks and
     (.tracks[0] | {codec, profile, width, height, fps, frames}) == ($mp4[0].tracks[0] | {codec, profile, width, height, fps, frames}) and
     ($tracks == 1 or (.tracks[1] | .codec == "aac" and .sample_rate == $rate and .channels == $channels))' \
    "$dir/$name.json" >/dev/null || fail "inspect $stream: $(cat "$dir/$name.json")"
done
out=$("$ozm" inspect "$dir/hls-hevc/clip.m3u8" --summary 2>&1) || fail "inspect HLS (text): $out"
grep -q "HLS (MPEG-TS segments)" <<<"$out" && grep -q "attribute block: none" <<<"$out" &&
  grep -q "12 of 12 access units carry one, 2 key frames" <<<"$out" || fail "inspect HLS (text): $out"
for format in ply obj; do
  "$ozm" export "$dir/hls-h264/clip.m3u8" --frames 7:9 --format "$format" --out "$dir/hls-$format" >/dev/null ||
    fail "export HLS $format"
  for i in 7 8 9; do
    cmp -s "$dir/$format/frame_00000$i.$format" "$dir/hls-$format/frame_00000$i.$format" ||
      fail "export $format frame $i: the HLS stream and the MP4 give different files"
    [ -s "$dir/hls-$format/frame_00000$i.png" ] || fail "export HLS $format frame $i: no picture"
  done
done

# play: the clip through the built plug-in in the headless engine, every drawn frame paired; with
# auto-looping, two passes. The summary says so in text and JSON.
out=$("$ozm" play "$clip" --no-audio 2>"$dir/play.log") || fail "play: $out $(tail -n 20 "$dir/play.log")"
grep -Eq "^$clip: 12 frames, [0-9]+ drawn, [0-9]+ paired, 0 mismatched" <<<"$out" || fail "play summary: $out"
"$ozm" play "$clip" --loops 2 --json >"$dir/play.json" 2>"$dir/play-loops.log" ||
  fail "play --loops 2: $(cat "$dir/play.json") $(tail -n 20 "$dir/play-loops.log")"
jq -e '.completed and .passes == 2 and .clip_frames == 12 and .mismatched == 0 and .gl_errors == 0 and
       .paired == .drawn and .drawn >= 12 and .render_events > 0' "$dir/play.json" >/dev/null ||
  fail "play --loops 2 summary: $(cat "$dir/play.json")"

# Bad command lines and bad input: a message naming the problem and exit status 1 (or CLI11's own
# status for command-line errors), never a signal.
# Under the sanitizers a memory error exits with an ordinary status: its report gives it away.
sanitizer_report() { grep -Eq "ERROR: AddressSanitizer|runtime error:"; }
expect_error() {
  local want=$1
  shift
  local err rc
  err=$("$@" 2>&1 >/dev/null)
  rc=$?
  [ "$rc" -ne 0 ] || fail "accepted: $*"
  [ "$rc" -lt 128 ] || fail "crashed with status $rc: $*"
  ! sanitizer_report <<<"$err" || fail "memory error: $*: $err"
  grep -qi -- "$want" <<<"$err" || fail "message of '$*' lacks '$want': $err"
}
mkdir -p "$dir/empty" "$dir/broken" "$dir/few"
printf 'v 0 0 0\nv 1 0 0\nf 1 2 7\n' >"$dir/broken/f1.obj"
cp "$dir/ply/frame_000007.ply" "$dir/few/a.ply"
cp "$dir/ply/frame_000008.ply" "$dir/few/b.ply"
cp "$dir/ply/frame_000007.png" "$dir/few/a.png"
echo "not a video" >"$dir/text.mp4"
head -c 30000 "$clip" >"$dir/cut.mp4"
printf '#EXTM3U\n' >"$dir/list.m3u8"
ffmpeg -nostdin -v error -f lavfi -i testsrc=size=64x64:rate=10 -frames:v 5 -c:v libx264 -y "$dir/plain.mp4" ||
  fail "making a plain video"

expect_error "--out is required" "$ozm" encode --sample
expect_error "either --sample or an input folder" "$ozm" encode --out "$dir/x.mp4"
expect_error "cannot read the sample mesh" "$ozm" encode --sample --sample-mesh "$dir/none.mesh" --out "$dir/x.mp4"
expect_error "segment-seconds" "$ozm" encode "${small[@]}" --segment-seconds 0 --out "$dir/x.m3u8"
expect_error "cannot write $dir/no/such/folder/x.m3u8" "$ozm" encode "${small[@]}" --out "$dir/no/such/folder/x.m3u8"
expect_error "WIDTHxHEIGHT" "$ozm" encode "${base[@]}" --size 100 --out "$dir/x.mp4"
expect_error "even" "$ozm" encode "${base[@]}" --size 101x100 --out "$dir/x.mp4"
expect_error "inter takes auto, huffman" "$ozm" encode "${small[@]}" --inter-coding 6 --out "$dir/x.mp4"
expect_error "not 'deltas'" "$ozm" encode "${small[@]}" --inter deltas --out "$dir/x.mp4"
expect_error "key-share" "$ozm" encode "${small[@]}" --key-share 2 --out "$dir/x.mp4"
expect_error "texture-codec" "$ozm" encode "${small[@]}" --texture-codec vp9 --out "$dir/x.mp4"
expect_error "no mesh files" "$ozm" encode "$dir/empty" --out "$dir/x.mp4"
expect_error "broken/f1.obj" "$ozm" encode "$dir/broken" --out "$dir/x.mp4"
expect_error "fewer than the 5 frames" "$ozm" encode "$dir/few" --frames 5 --out "$dir/x.mp4"
expect_error "1 pictures for 2 frames" "$ozm" encode "$dir/few" --texture "$dir/few" --out "$dir/x.mp4"
expect_error "does not exist" "$ozm" encode "$dir/few" --texture "$dir/none.png" --out "$dir/x.mp4"
expect_error "cannot open $dir/text.mp4" "$ozm" encode "$dir/few" --texture "$dir/text.mp4" --out "$dir/x.mp4"
expect_error "cannot write" "$ozm" encode "${small[@]}" --out "$dir/no/such/folder/x.mp4"
expect_error "audio input $dir/none.wav does not exist" "$ozm" encode "${small[@]}" --audio "$dir/none.wav" --out "$dir/x.mp4"
expect_error "cannot open $dir/text.mp4" "$ozm" encode "${small[@]}" --audio "$dir/text.mp4" --out "$dir/x.m3u8"
expect_error "$dir/plain.mp4: no audio" "$ozm" encode "${small[@]}" --audio "$dir/plain.mp4" --out "$dir/x.mp4"
expect_error "sample-audio goes with --sample" "$ozm" encode "$dir/few" --sample-audio --out "$dir/x.mp4"
[ ! -e "$dir/x.mp4" ] && [ ! -e "$dir/x.m3u8" ] && [ -z "$(ls "$dir"/x_*.ts 2>/dev/null)" ] ||
  fail "a failed encode left $dir/x.* behind"

# play: a clip it cannot play or a bad command line exits with 2.
expect_play_error() {
  local want=$1
  shift
  local err rc
  err=$("$ozm" play "$@" 2>&1 >/dev/null)
  rc=$?
  [ "$rc" = 2 ] || fail "play $*: status $rc, not 2: $err"
  grep -qi -- "$want" <<<"$err" || fail "message of 'play $*' lacks '$want': $err"
}
expect_play_error "cannot open $dir/missing.mp4: no such file" "$dir/missing.mp4"
expect_play_error "cannot open $dir/text.mp4" "$dir/text.mp4"
expect_play_error "$dir/plain.mp4 frame 0: no mesh unit" "$dir/plain.mp4"
expect_play_error "cannot load $dir/none.so" "$clip" --plugin "$dir/none.so"
expect_play_error "loops" "$clip" --loops 0
expect_play_error "clock-scale" "$clip" --clock-scale 0
expect_play_error "clip is required"

expect_error "cannot open $dir/list.m3u8: the HLS playlist lists no segments" "$ozm" inspect "$dir/list.m3u8"
expect_error "cannot open $dir/none.m3u8: failed to open HLS playlist" "$ozm" inspect "$dir/none.m3u8"
expect_error "cannot open $dir/missing.mp4" "$ozm" inspect "$dir/missing.mp4"
expect_error "cannot open $dir/text.mp4" "$ozm" inspect "$dir/text.mp4"
expect_error "5 of 5 frames have no readable mesh" "$ozm" inspect "$dir/plain.mp4"
expect_error "frames" "$ozm" inspect "$clip" --frames x
expect_error "cannot open $dir/list.m3u8: the HLS playlist lists no segments" "$ozm" export "$dir/list.m3u8" --out "$dir/e"
expect_error "has 12 frames" "$ozm" export "$dir/hls-h264/clip.m3u8" --frames 10:12 --out "$dir/e"
expect_error "has 12 frames" "$ozm" export "$clip" --frames 10:12 --out "$dir/e"
expect_error "comes before the first" "$ozm" export "$clip" --frames 5:2 --out "$dir/e"
expect_error "format" "$ozm" export "$clip" --format fbx --out "$dir/e"
expect_error "no mesh key frame" "$ozm" export "$dir/plain.mp4" --out "$dir/e"
expect_error "has 2 frames" "$ozm" export "$dir/cut.mp4" --frames 0:5 --out "$dir/e"
expect_error "frame 1: the sample is not a sequence of NAL units" "$ozm" export "$dir/cut.mp4" --frames 1 --out "$dir/e"
expect_error "1 of 2 frames have no readable mesh" "$ozm" inspect "$dir/cut.mp4"

# HLS over http from loopback servers started here (and stopped at the end): the same report and
# files as from the folder; a closed port, or a server that never sends a segment, ends the run with
# a message within the time-out. Downloads go to a folder of this test, and are cleaned up.
export OZM_DOWNLOAD_DIR=$dir/downloads
servers=()
trap 'for pid in "${servers[@]}"; do kill "$pid" 2>/dev/null; done' EXIT
start_server() {  # folder, extra arguments; sets $port
  local log=$dir/server-${#servers[@]}.out
  python3 "$(dirname "$0")/loopback_http_server.py" --root "$1" --max-seconds 120 "${@:2}" >"$log" 2>&1 &
  servers+=($!)
  port=
  for _ in $(seq 100); do
    port=$(awk '/^PORT /{print $2}' "$log")
    [ -n "$port" ] && return 0
    sleep 0.1
  done
  fail "the loopback server did not start: $(cat "$log")"
}
elapsed_ms() { echo $((($(date +%s%N) - $1) / 1000000)); }
start_server "$dir"
url=http://127.0.0.1:$port
"$ozm" inspect "$url/hls-hevc/clip.m3u8" --json >"$dir/http.json" 2>"$dir/http.err" ||
  fail "inspect over http: $(cat "$dir/http.err")"
[ ! -s "$dir/http.err" ] || fail "inspect over http wrote to standard error: $(cat "$dir/http.err")"
diff -q <(frames_of "$dir/http.json") <(frames_of "$dir/hls-hevc-clip.m3u8.json") >/dev/null &&
  [ "$(jq -c .tracks "$dir/http.json")" = "$(jq -c .tracks "$dir/hls-hevc-clip.m3u8.json")" ] ||
  fail "inspect over http differs from the folder: $(cat "$dir/http.json")"
"$ozm" export "$url/hls-h264/clip.m3u8" --frames 7:9 --out "$dir/http-ply" >/dev/null || fail "export over http"
for i in 7 8 9; do
  cmp -s "$dir/ply/frame_00000$i.ply" "$dir/http-ply/frame_00000$i.ply" || fail "export over http: frame $i differs"
done
[ -z "$(ls -A "$OZM_DOWNLOAD_DIR" 2>/dev/null)" ] || fail "downloads left behind: $(find "$OZM_DOWNLOAD_DIR")"
expect_error "cannot open $url/none.m3u8: .*404" "$ozm" inspect "$url/none.m3u8"
closed=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
start=$(date +%s%N)
expect_error "cannot open http://127.0.0.1:$closed/clip.m3u8: .*connect" "$ozm" inspect "http://127.0.0.1:$closed/clip.m3u8"
[ "$(elapsed_ms "$start")" -lt 10000 ] || fail "a closed port took $(elapsed_ms "$start") ms"
start_server "$dir" --first-byte-delay 60
start=$(date +%s%N)
expect_error "nothing came from the stream for 1 s" "$ozm" inspect "http://127.0.0.1:$port/hls-h264/clip.m3u8" --timeout 1
expect_error "nothing came from the stream for 1 s" "$ozm" export "http://127.0.0.1:$port/hls-h264/clip.m3u8" --timeout 1 --out "$dir/e"
[ "$(elapsed_ms "$start")" -lt 10000 ] || fail "two time-outs of 1 s took $(elapsed_ms "$start") ms"
for pid in "${servers[@]}"; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
servers=()

# Damaged clips: bytes overwritten inside the mesh data (of the MP4, and of the first HLS segment,
# packet headers included). Whatever the tools make of them, they end with a status, not a signal.
size=$(stat -c %s "$clip")
mkdir -p "$dir/damaged"
cp "$dir/hls-h264/clip.m3u8" "$dir/hls-h264/clip_00001.ts" "$dir/damaged/"
for offset in 4000 20000 60000 $((size / 2)); do
  cp "$clip" "$dir/damaged.mp4"
  cp "$dir/hls-h264/clip_00000.ts" "$dir/damaged/"
  for file in "$dir/damaged.mp4" "$dir/damaged/clip_00000.ts"; do
    printf '\x00\x00\x01\xff\x00\x00\x00\x00\x13\x37\xff\xff\x00\x00' |
      dd of="$file" bs=1 seek="$offset" conv=notrunc status=none
  done
  for command in "inspect $dir/damaged.mp4" "export $dir/damaged.mp4 --frames 0:11 --out $dir/d" \
                 "inspect $dir/damaged/clip.m3u8" "export $dir/damaged/clip.m3u8 --frames 0:11 --out $dir/d"; do
    # shellcheck disable=SC2086
    err=$("$ozm" $command 2>&1 >/dev/null)
    rc=$?
    [ "$rc" -lt 128 ] || fail "crashed with status $rc: ozm $command (damage at $offset)"
    ! sanitizer_report <<<"$err" || fail "memory error: ozm $command (damage at $offset): $err"
  done
done
echo "ok"
