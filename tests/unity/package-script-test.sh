#!/usr/bin/env bash
# scripts/unity-package.sh on made-up builds: the libraries of both Android ABIs, the NDK's C++
# runtime where the build's NDK has one, the Java sources and the host library land in the folders
# the engine expects, each with import settings for its platform and CPU, and the package sources
# stay free of binaries.
#
#   package-script-test.sh <repository root> <work folder>
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: $0 <repository root> <work folder>" >&2; exit 2; }
root=$1 work=$2
rm -rf "$work"
mkdir -p "$work"

failures=0
fail() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}

# Builds: armeabi-v7a made with an NDK that has its runtime, arm64-v8a with one whose runtime is an
# empty placeholder; a host build.
ndk=$work/ndk
mkdir -p "$ndk/sources/cxx-stl/llvm-libc++/libs/armeabi-v7a" "$ndk/sources/cxx-stl/llvm-libc++/libs/arm64-v8a"
head -c 8192 /dev/urandom >"$ndk/sources/cxx-stl/llvm-libc++/libs/armeabi-v7a/libc++_shared.so"
: >"$ndk/sources/cxx-stl/llvm-libc++/libs/arm64-v8a/libc++_shared.so"
for abi in armeabi-v7a arm64-v8a; do
  mkdir -p "$work/builds/android-$abi/plugin"
  echo "plug-in for $abi" >"$work/builds/android-$abi/plugin/libOzmUnityPlugin.so"
  echo "ANDROID_NDK:PATH=$ndk" >"$work/builds/android-$abi/CMakeCache.txt"
done
mkdir -p "$work/host/plugin"
echo "host plug-in" >"$work/host/plugin/libOzmUnityPlugin.so"

output=$(env -u ANDROID_NDK "$root/scripts/unity-package.sh" --builds "$work/builds" --host "$work/host" --out "$work/out" 2>&1) ||
  fail "the script failed: $output"
echo "$output"
package=$work/out/com.ozm.volumetric-player

# <file in the package> <its content> <the platform's enabled line> <the CPU>
expect_plugin() {
  local rel=$1 content=$2 platform=$3 cpu=$4
  [ -f "$package/$rel" ] || { fail "$rel is missing"; return; }
  [ "$(cat "$package/$rel")" = "$content" ] || fail "$rel is not the built file"
  local meta=$package/$rel.meta
  [ -f "$meta" ] || { fail "$rel has no import settings"; return; }
  grep -A3 "^      $platform\$" "$meta" | grep -q "enabled: 1" || fail "$rel is not enabled for $platform"
  grep -A5 "^      $platform\$" "$meta" | grep -q "CPU: $cpu" || fail "$rel is not set to CPU $cpu"
  [ "$(grep -c 'enabled: 1' "$meta")" -eq "$([ "$platform" = "Android: Android" ] && echo 1 || echo 2)" ] ||
    fail "$rel is enabled for more than its platform"
}

expect_plugin Runtime/Plugins/Android/libs/armeabi-v7a/libOzmUnityPlugin.so "plug-in for armeabi-v7a" "Android: Android" ARMv7
expect_plugin Runtime/Plugins/Android/libs/arm64-v8a/libOzmUnityPlugin.so "plug-in for arm64-v8a" "Android: Android" ARM64
expect_plugin Runtime/Plugins/x86_64/libOzmUnityPlugin.so "host plug-in" "Editor: Editor" x86_64
cmp -s "$ndk/sources/cxx-stl/llvm-libc++/libs/armeabi-v7a/libc++_shared.so" \
  "$package/Runtime/Plugins/Android/libs/armeabi-v7a/libc++_shared.so" || fail "the C++ runtime of armeabi-v7a is not packed"
[ ! -e "$package/Runtime/Plugins/Android/libs/arm64-v8a/libc++_shared.so" ] || fail "an empty placeholder was packed as the C++ runtime"
echo "$output" | grep -q "arm64-v8a: .*no libc++_shared.so" || fail "the missing arm64-v8a runtime is not reported"

# The Java class, when its sources exist.
if compgen -G "$root/java/com/OzmUnityPlugin/*.java" >/dev/null; then
  for source in "$root"/java/com/OzmUnityPlugin/*.java; do
    rel=Runtime/Plugins/Android/com/OzmUnityPlugin/$(basename "$source")
    cmp -s "$source" "$package/$rel" || fail "$rel is not the Java source"
    grep -A3 "^      Android: Android\$" "$package/$rel.meta" | grep -q "enabled: 1" || fail "$rel is not enabled for Android"
  done
fi

# Every folder and file of the copy has import settings, and no two share a GUID.
while IFS= read -r -d '' entry; do
  rel=${entry#"$package"/}
  case "$rel" in Samples~ | Samples~/* | *.meta) continue ;; esac
  [ -f "$entry.meta" ] || fail "$rel has no .meta"
done < <(find "$package" -mindepth 1 -print0)
repeated=$(find "$package" -name '*.meta' -exec sed -n 's/^guid: //p' {} + | sort | uniq -d)
[ -z "$repeated" ] || fail "GUIDs used twice: $repeated"

# A second run replaces the copy; the sources never receive a binary.
"$root/scripts/unity-package.sh" --builds "$work/no-builds" --out "$work/out" >/dev/null 2>&1 || fail "a run without builds failed"
[ ! -e "$package/Runtime/Plugins/Android/libs" ] || fail "libraries of the previous copy are left over"
[ -z "$(find "$root/unity" -name '*.so' -o -name '*.jar' | head -n 1)" ] || fail "binaries in the package sources"

if [ "$failures" -gt 0 ]; then
  echo "$failures checks failed"
  exit 1
fi
echo "package script: all checks passed"
