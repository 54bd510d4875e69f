#!/usr/bin/env bash
# ozm encode, inspect and export from the command line: the clip (MP4 or HLS) is ordinary video to
# FFmpeg, the JSON reports say what the text says, and bad command lines and unreadable or damaged
# inputs end with a message and exit status 1, never with a crash.
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

# The text summary of encode.
out=$("$ozm" encode "${small[@]}" --out "$dir/text.mp4") || fail "encode (text)"
grep -q "bits per triangle" <<<"$out" || fail "encode summary: $out"

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
expect_error "inter-coding" "$ozm" encode "${small[@]}" --inter-coding 6 --out "$dir/x.mp4"
expect_error "texture-codec" "$ozm" encode "${small[@]}" --texture-codec vp9 --out "$dir/x.mp4"
expect_error "no mesh files" "$ozm" encode "$dir/empty" --out "$dir/x.mp4"
expect_error "broken/f1.obj" "$ozm" encode "$dir/broken" --out "$dir/x.mp4"
expect_error "fewer than the 5 frames" "$ozm" encode "$dir/few" --frames 5 --out "$dir/x.mp4"
expect_error "1 pictures for 2 frames" "$ozm" encode "$dir/few" --texture "$dir/few" --out "$dir/x.mp4"
expect_error "does not exist" "$ozm" encode "$dir/few" --texture "$dir/none.png" --out "$dir/x.mp4"
expect_error "cannot open $dir/text.mp4" "$ozm" encode "$dir/few" --texture "$dir/text.mp4" --out "$dir/x.mp4"
expect_error "cannot write" "$ozm" encode "${small[@]}" --out "$dir/no/such/folder/x.mp4"
[ ! -e "$dir/x.mp4" ] && [ ! -e "$dir/x.m3u8" ] && [ -z "$(ls "$dir"/x_*.ts 2>/dev/null)" ] ||
  fail "a failed encode left $dir/x.* behind"

expect_error "HLS input is not supported yet" "$ozm" inspect "$dir/list.m3u8"
expect_error "cannot open $dir/missing.mp4" "$ozm" inspect "$dir/missing.mp4"
expect_error "cannot open $dir/text.mp4" "$ozm" inspect "$dir/text.mp4"
expect_error "5 of 5 frames have no readable mesh" "$ozm" inspect "$dir/plain.mp4"
expect_error "frames" "$ozm" inspect "$clip" --frames x
expect_error "HLS input is not supported yet" "$ozm" export "$dir/list.m3u8" --out "$dir/e"
expect_error "has 12 frames" "$ozm" export "$clip" --frames 10:12 --out "$dir/e"
expect_error "comes before the first" "$ozm" export "$clip" --frames 5:2 --out "$dir/e"
expect_error "format" "$ozm" export "$clip" --format fbx --out "$dir/e"
expect_error "no mesh key frame" "$ozm" export "$dir/plain.mp4" --out "$dir/e"
expect_error "has 2 frames" "$ozm" export "$dir/cut.mp4" --frames 0:5 --out "$dir/e"
expect_error "frame 1: the sample is not a sequence of NAL units" "$ozm" export "$dir/cut.mp4" --frames 1 --out "$dir/e"
expect_error "1 of 2 frames have no readable mesh" "$ozm" inspect "$dir/cut.mp4"

# Damaged clips: bytes overwritten inside the mesh data. Whatever the tools make of them, they end
# with a status, not a signal.
size=$(stat -c %s "$clip")
for offset in 4000 20000 60000 $((size / 2)); do
  cp "$clip" "$dir/damaged.mp4"
  printf '\x00\x00\x01\xff\x00\x00\x00\x00\x13\x37\xff\xff\x00\x00' |
    dd of="$dir/damaged.mp4" bs=1 seek="$offset" conv=notrunc status=none
  for command in "inspect $dir/damaged.mp4" "export $dir/damaged.mp4 --frames 0:11 --out $dir/d"; do
    # shellcheck disable=SC2086
    err=$("$ozm" $command 2>&1 >/dev/null)
    rc=$?
    [ "$rc" -lt 128 ] || fail "crashed with status $rc: ozm $command (damage at $offset)"
    ! sanitizer_report <<<"$err" || fail "memory error: ozm $command (damage at $offset): $err"
  done
done
echo "ok"
