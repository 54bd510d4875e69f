#!/usr/bin/env bash
# Makes an installable copy of the engine package (unity/) with the built native libraries and the
# plug-in's Java class in it, by default build/unity-package/com.ozm.volumetric-player/.
#
#   scripts/unity-package.sh [--builds DIR] [--host DIR] [--out DIR]
#
#   --builds DIR  where the Android builds of scripts/android-build.sh are (default: build):
#                 DIR/android-<abi>/plugin/libOzmUnityPlugin.so for armeabi-v7a and arm64-v8a
#   --host DIR    also take a host build's library, DIR/plugin/libOzmUnityPlugin.so, for the Linux
#                 editor and player (they must run on OpenGL ES, see unity/README.md)
#   --out DIR     where the copy goes (default: build/unity-package); its package folder is replaced
#
# Where the files go in the copy:
#   Runtime/Plugins/Android/libs/<abi>/libOzmUnityPlugin.so       (and libc++_shared.so, see below)
#   Runtime/Plugins/Android/com/OzmUnityPlugin/*.java              the plug-in's Java class
#   Runtime/Plugins/x86_64/libOzmUnityPlugin.so                    with --host
# Each gets an import setting (.meta) that enables it for its platform and CPU only.
#
# The Android library needs the NDK's shared C++ runtime beside it. It is taken from the NDK the
# library was built with (ANDROID_NDK in the build's CMake cache, else the environment) when that NDK
# has a real one; otherwise the script says so and the application has to bring its own.
# The repository never holds these binaries; only the copy does.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
builds=$root/build
out=$root/build/unity-package
host=""

usage() {
  echo "usage: $0 [--builds DIR] [--host DIR] [--out DIR]" >&2
}

while [ $# -gt 0 ]; do
  case "$1" in
    --builds) builds=${2:?}; shift 2 ;;
    --host) host=${2:?}; shift 2 ;;
    --out) out=${2:?}; shift 2 ;;
    -h | --help) usage; exit 0 ;;
    *) usage; exit 2 ;;
  esac
done

name=$(sed -n 's/^ *"name": *"\([^"]*\)".*/\1/p' "$root/unity/package.json" | head -n 1)
[ -n "$name" ] || { echo "no package name in $root/unity/package.json" >&2; exit 1; }
package=$out/$name

# Import settings: a stable GUID per file of the package, from its path inside the package.
guid() {
  printf '%s/%s' "$name" "$1" | md5sum | cut -c1-32
}

folder_meta() {  # <folder inside the package>
  local rel=$1
  [ -e "$package/$rel.meta" ] && return 0
  cat >"$package/$rel.meta" <<EOF
fileFormatVersion: 2
guid: $(guid "$rel")
folderAsset: yes
DefaultImporter:
  externalObjects: {}
  userData: 
  assetBundleName: 
  assetBundleVariant: 
EOF
}

folders_meta() {  # the metas of every folder on the way to <file inside the package>
  local rel
  rel=$(dirname "$1")
  while [ "$rel" != "." ]; do
    folder_meta "$rel"
    rel=$(dirname "$rel")
  done
}

# <file inside the package> <platform: Android|Editor> <CPU: ARMv7|ARM64|x86_64|AnyCPU>
plugin_meta() {
  local rel=$1 platform=$2 cpu=$3 android=0 editor=0 linux=0
  case "$platform" in
    Android) android=1 ;;
    Editor) editor=1; linux=1 ;;
  esac
  folders_meta "$rel"
  cat >"$package/$rel.meta" <<EOF
fileFormatVersion: 2
guid: $(guid "$rel")
PluginImporter:
  externalObjects: {}
  serializedVersion: 2
  iconMap: {}
  executionOrder: {}
  defineConstraints: []
  isPreloaded: 0
  isOverridable: 0
  isExplicitlyReferenced: 0
  validateReferences: 1
  platformData:
  - first:
      : Any
    second:
      enabled: 0
      settings:
        Exclude Android: $((1 - android))
        Exclude Editor: $((1 - editor))
        Exclude Linux64: $((1 - linux))
        Exclude OSXUniversal: 1
        Exclude Win: 1
        Exclude Win64: 1
  - first:
      Android: Android
    second:
      enabled: $android
      settings:
        CPU: $([ "$android" = 1 ] && echo "$cpu" || echo ARMv7)
  - first:
      Any: 
    second:
      enabled: 0
      settings: {}
  - first:
      Editor: Editor
    second:
      enabled: $editor
      settings:
        CPU: $([ "$editor" = 1 ] && echo "$cpu" || echo AnyCPU)
        DefaultValueInitialized: true
        OS: $([ "$editor" = 1 ] && echo Linux || echo AnyOS)
  - first:
      Standalone: Linux64
    second:
      enabled: $linux
      settings:
        CPU: $([ "$linux" = 1 ] && echo "$cpu" || echo None)
  userData: 
  assetBundleName: 
  assetBundleVariant: 
EOF
}

# The NDK's libc++_shared.so for an ABI, or nothing.
cxx_runtime() {  # <abi> <build folder>
  local abi=$1 dir=$2 ndk="" triple candidate
  if [ -f "$dir/CMakeCache.txt" ]; then
    ndk=$(sed -n 's/^ANDROID_NDK:[A-Z]*=//p' "$dir/CMakeCache.txt" | head -n 1)
  fi
  ndk=${ndk:-${ANDROID_NDK:-}}
  [ -n "$ndk" ] || return 0
  case "$abi" in
    armeabi-v7a) triple=arm-linux-androideabi ;;
    arm64-v8a) triple=aarch64-linux-android ;;
  esac
  for candidate in "$ndk/sources/cxx-stl/llvm-libc++/libs/$abi/libc++_shared.so" \
                   "$ndk/toolchains/llvm/prebuilt/linux-x86_64/sysroot/usr/lib/$triple/libc++_shared.so"; do
    # An empty placeholder (an NDK copy without the runtime) is no runtime.
    if [ -f "$candidate" ] && [ "$(stat -c %s "$candidate")" -gt 4096 ]; then
      echo "$candidate"
      return 0
    fi
  done
}

rm -rf "$package"
mkdir -p "$out"
cp -R "$root/unity" "$package"

summary=()
missing=0
for abi in armeabi-v7a arm64-v8a; do
  library=$builds/android-$abi/plugin/libOzmUnityPlugin.so
  if [ ! -f "$library" ]; then
    summary+=("$abi: no library at $library (build it with scripts/android-build.sh $abi)")
    missing=$((missing + 1))
    continue
  fi
  case "$abi" in
    armeabi-v7a) cpu=ARMv7 ;;
    arm64-v8a) cpu=ARM64 ;;
  esac
  rel=Runtime/Plugins/Android/libs/$abi
  mkdir -p "$package/$rel"
  cp "$library" "$package/$rel/"
  plugin_meta "$rel/libOzmUnityPlugin.so" Android "$cpu"
  runtime=$(cxx_runtime "$abi" "$builds/android-$abi")
  if [ -n "$runtime" ]; then
    cp "$runtime" "$package/$rel/"
    plugin_meta "$rel/libc++_shared.so" Android "$cpu"
    summary+=("$abi: $library with $runtime")
  else
    summary+=("$abi: $library; no libc++_shared.so found in its NDK: put the NDK's beside it")
  fi
done

java_dir=$root/java/com/OzmUnityPlugin
if compgen -G "$java_dir/*.java" >/dev/null; then
  rel=Runtime/Plugins/Android/com/OzmUnityPlugin
  mkdir -p "$package/$rel"
  for source in "$java_dir"/*.java; do
    cp "$source" "$package/$rel/"
    plugin_meta "$rel/$(basename "$source")" Android ARMv7
  done
  summary+=("Java: $(ls "$java_dir"/*.java | wc -l) source files of com.OzmUnityPlugin")
else
  summary+=("Java: no sources in $java_dir")
  missing=$((missing + 1))
fi

if [ -n "$host" ]; then
  library=$host/plugin/libOzmUnityPlugin.so
  [ -f "$library" ] || { echo "no host library at $library" >&2; exit 1; }
  rel=Runtime/Plugins/x86_64
  mkdir -p "$package/$rel"
  cp "$library" "$package/$rel/"
  plugin_meta "$rel/libOzmUnityPlugin.so" Editor x86_64
  summary+=("host: $library for the Linux editor and player")
fi

echo "package: $package"
for line in "${summary[@]}"; do echo "  $line"; done
if [ "$missing" -gt 0 ]; then
  echo "the copy lacks $missing of its Android parts; it installs, but plays on Android only with all of them" >&2
fi
