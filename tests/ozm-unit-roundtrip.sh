#!/usr/bin/env bash
# ozm unit make/read on real files, and clear failures on bad input.
set -uo pipefail
ozm=$1
dir=$2
mkdir -p "$dir"
fail() { echo "FAIL: $*"; exit 1; }

"$ozm" unit make --out "$dir/u.bin" --vertices 123 --faces 200 --frame-id 7 --submesh-id 2 --payload-bytes 5000 >/dev/null \
  || fail "make"
out=$("$ozm" unit read "$dir/u.bin") || fail "read"
grep -q "123 vertices, 200 faces, 600 indices" <<<"$out" || fail "counts: $out"
grep -q "frame id       7" <<<"$out" || fail "frame id: $out"
grep -q "coded data     5000 bytes" <<<"$out" || fail "payload size: $out"

# A file without a mesh unit, a missing file and a bad command line fail with a message.
printf '\x00\x00\x00\x01\x09\xf0' >"$dir/aud.bin"
err=$("$ozm" unit read "$dir/aud.bin" 2>&1) && fail "no unit accepted"
grep -q "no mesh unit found" <<<"$err" || fail "message: $err"
err=$("$ozm" unit read "$dir/missing.bin" 2>&1) && fail "missing file accepted"
grep -q "cannot open" <<<"$err" || fail "message: $err"
"$ozm" unit make >/dev/null 2>&1 && fail "make without --out accepted"
"$ozm" frobnicate >/dev/null 2>&1 && fail "unknown command accepted"
echo "ok"
