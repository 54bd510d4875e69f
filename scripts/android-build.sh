#!/usr/bin/env bash
# Builds libOzmUnityPlugin.so with the android-* presets and checks what the linker produced.
#
#   ANDROID_NDK=/path/to/ndk scripts/android-build.sh [abi...]     (default: armeabi-v7a arm64-v8a)
#
# For each ABI it configures and builds build/android-<abi>, then checks that
#   1. the library needs no shared library beyond the system ones the plug-in is allowed to use and
#      the shared C++ runtime;
#   2. every symbol it imports is defined by one of the libraries it needs (the NDK's stubs for the
#      API level, and its libc++_shared.so), or is a compiler builtin; the NEEDED list and every
#      import with its library go to build/android-<abi>/imports.txt, with counts on screen;
#   3. it exports exactly the symbols plugin/exported-symbols.txt lists;
#   4. on arm64-v8a, its LOAD segments are aligned for 16 KB pages.
# JOBS sets the build parallelism (default 2); LLVM_READELF and LLVM_NM override the tools used.
set -euo pipefail

usage() {
  echo "usage: ANDROID_NDK=/path/to/ndk $0 [armeabi-v7a|arm64-v8a ...]" >&2
}

case "${1:-}" in
  -h | --help) usage; exit 0 ;;
esac

if [ -z "${ANDROID_NDK:-}" ]; then
  echo "ANDROID_NDK is not set: point it at the root of an Android NDK." >&2
  usage
  exit 2
fi
if [ ! -d "$ANDROID_NDK" ]; then
  echo "ANDROID_NDK=$ANDROID_NDK is not a directory." >&2
  exit 2
fi
ANDROID_NDK=$(cd "$ANDROID_NDK" && pwd)
export ANDROID_NDK

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=${JOBS:-2}
readelf=${LLVM_READELF:-llvm-readelf}
nm=${LLVM_NM:-llvm-nm}
for tool in cmake "$readelf" "$nm"; do
  if ! command -v "$tool" >/dev/null; then
    echo "$tool is not on PATH." >&2
    exit 2
  fi
done

abis=("$@")
if [ ${#abis[@]} -eq 0 ]; then
  abis=(armeabi-v7a arm64-v8a)
fi
for abi in "${abis[@]}"; do
  case "$abi" in
    armeabi-v7a | arm64-v8a) ;;
    *) echo "unknown ABI '$abi'" >&2; usage; exit 2 ;;
  esac
done

# The only shared libraries the plug-in may need. Everything else must be linked in statically.
allowed_needed=(libmediandk.so libandroid.so libEGL.so libGLESv3.so liblog.so libc++_shared.so
                libc.so libm.so libdl.so)
# Compiler support routines (libgcc / compiler-rt: arithmetic helpers, the ARM EABI helpers,
# emulated TLS, atomics). NDK copies without them leave these unresolved; they are counted and
# listed apart from the rest.
builtin_re='^(__aeabi_[A-Za-z0-9_]+|__gnu_[A-Za-z0-9_]+'
builtin_re+='|__(u?(div|mod|divmod)|mul|mulo|neg|ashl|ashr|lshr|u?cmp|abs|absv|addv|subv|mulv|negv)[sdt]i[2-4]'
builtin_re+='|__(popcount|parity|clz|ctz|ffs|bswap)[sdt]i2'
builtin_re+='|__(add|sub|mul|div|neg)[hsdtx]f[23]|__powi[sdtx]f2|__(eq|ne|ge|gt|le|lt|unord|cmp)[hsdtx]f2'
builtin_re+='|__(extend|trunc)[hsdtx]f[hsdtx]f2|__fix(uns)?[hsdtx]f[sdt]i|__float(un)?[sdt]i[hsdtx]f'
builtin_re+='|__(mul|div)[sdtx]c3|__clear_cache|__emutls_[a-z_]+|__(sync|atomic)_[A-Za-z0-9_]+)$'
# Section markers the linker adds to the output (lld does so when a linked library defines them, as
# libc++_shared.so does); they are not entry points of the plug-in.
linker_markers_re='^(__bss_start|__bss_start__|__bss_end__|_bss_end__|__end__|_end|_edata|_etext|end|edata|etext)$'

failures=0
summaries=()

fail() {
  echo "FAIL [$abi]: $*" >&2
  abi_failed=1
}

# Names of the dynamic symbols of a shared library (arguments after the file go to nm), without
# their version suffix.
dynamic_names() {
  local file=$1
  shift
  "$nm" -D "$@" "$file" | awk '{print $NF}' | sed 's/@.*//' | sort -u
}

# Global, default-visibility symbols that an archive defines: what a shared library built from it
# exports.
archive_exports() {
  "$readelf" -sW "$1" 2>/dev/null |
    awk '($5 == "GLOBAL" || $5 == "WEAK") && $6 == "DEFAULT" && $7 != "UND" && NF >= 8 {print $8}' |
    sed 's/@.*//' | sort -u
}

cache_value() {
  sed -n "s/^$1:[A-Z]*=//p" "$2" | head -n 1
}

check_abi() {
  local preset="android-$abi"
  local build="$root/build/$preset"
  local lib="$build/plugin/libOzmUnityPlugin.so"

  # A build tree configured for another NDK keeps that NDK's compilers; start it afresh.
  if [ -f "$build/CMakeCache.txt" ]; then
    local cached_ndk
    cached_ndk=$(cache_value ANDROID_NDK "$build/CMakeCache.txt")
    if [ -n "$cached_ndk" ] && [ "$cached_ndk" != "$ANDROID_NDK" ]; then
      echo "== $abi: build tree was configured for $cached_ndk; reconfiguring from scratch"
      rm -rf "$build/CMakeCache.txt" "$build/CMakeFiles"
    fi
  fi

  echo "== $abi: configure ($preset)"
  if ! (cd "$root" && cmake --preset "$preset" -DANDROID_NDK="$ANDROID_NDK"); then
    fail "configure failed"
    return
  fi
  echo "== $abi: build"
  if ! cmake --build "$build" -j "$jobs"; then
    fail "build failed"
    return
  fi
  if [ ! -f "$lib" ]; then
    fail "$lib was not produced"
    return
  fi

  local api triple
  api=$(cache_value ANDROID_PLATFORM "$build/CMakeCache.txt")
  api=${api#android-}
  api=${api:-21}
  case "$abi" in
    armeabi-v7a) triple=arm-linux-androideabi ;;
    arm64-v8a) triple=aarch64-linux-android ;;
  esac
  local sysroot=""
  local candidate
  for candidate in "$ANDROID_NDK"/toolchains/llvm/prebuilt/*/sysroot; do
    if [ -d "$candidate/usr/lib/$triple/$api" ]; then
      sysroot=$candidate
      break
    fi
  done
  if [ -z "$sysroot" ]; then
    fail "no sysroot with $triple libraries for API $api under $ANDROID_NDK"
    return
  fi
  local stubs="$sysroot/usr/lib/$triple/$api"
  local stl="$ANDROID_NDK/sources/cxx-stl/llvm-libc++/libs/$abi"

  # 1. Needed libraries.
  local needed
  needed=$("$readelf" -dW "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p')
  local lib_name
  for lib_name in $needed; do
    if [[ " ${allowed_needed[*]} " != *" $lib_name "* ]]; then
      fail "needs $lib_name, which is not among: ${allowed_needed[*]}"
    fi
  done

  # 2. Imported symbols, each with the library that defines it. The references are the API-level
  # stubs of the allowed system libraries and the C++ runtime. A symbol is credited to the first
  # library of the NEEDED list that defines it (the order the loader searches them in); one that
  # only a library outside that list defines would not be found at run time, so it fails too.
  local defs
  defs=$(mktemp)
  local missing=()
  for lib_name in "${allowed_needed[@]}"; do
    if [ "$lib_name" = libc++_shared.so ]; then
      continue
    fi
    if [ -f "$stubs/$lib_name" ]; then
      dynamic_names "$stubs/$lib_name" --defined-only | sed "s|^|$lib_name |" >>"$defs"
    else
      missing+=("$lib_name")
    fi
  done
  local cxx_runtime="" cxx_note=""
  for candidate in "$stl/libc++_shared.so" "$sysroot/usr/lib/$triple/libc++_shared.so"; do
    if [ -f "$candidate" ]; then
      cxx_runtime=$candidate
      break
    fi
  done
  if [ -n "$cxx_runtime" ]; then
    dynamic_names "$cxx_runtime" --defined-only | sed 's|^|libc++_shared.so |' >>"$defs"
  else
    # The shared runtime bundles libc++abi, so its exports can at least be checked against that.
    cxx_note="this NDK has no libc++_shared.so for $abi; C++ runtime imports were checked against libc++abi.a only"
    for candidate in "$stl/libc++abi.a" "$sysroot/usr/lib/$triple/libc++abi.a"; do
      if [ -f "$candidate" ]; then
        archive_exports "$candidate" | sed 's|^|libc++_shared.so |' >>"$defs"
        break
      fi
    done
    echo "note [$abi]: $cxx_note" >&2
  fi
  if [ ${#missing[@]} -gt 0 ]; then
    fail "the NDK lacks the API $api stubs of: ${missing[*]}"
  fi

  # Without the shared C++ runtime only its ABI part could be read: the rest of the standard
  # library (namespace std::__ndk1, the exception classes, the unwinder) is then taken on trust.
  local runtime_re='^(_ZN?K?St6__ndk1|_ZT[ISV]NSt6__ndk1|_ZNSt[0-9]|_ZNKSt[0-9]|_ZSt|_ZT[ISV]St|_Unwind_)'
  # One line per import: "<library> <symbol>", where the library is a NEEDED one, "builtin" (a
  # compiler support routine no library provides), "libc++_shared.so(unchecked)" (runtime taken
  # on trust), "not-needed:<library>" (defined only by an allowed library the plug-in does not
  # need) or "unresolved".
  local resolved
  resolved=$(dynamic_names "$lib" --undefined-only |
    awk -v needed="$(tr '\n' ' ' <<<"$needed")" -v builtin_re="$builtin_re" -v runtime_re="$runtime_re" -v trust="${cxx_note:+1}" '
      BEGIN { n = split(needed, order, / +/); for (i = 1; i <= n; i++) if (order[i] != "") rank[order[i]] = i }
      FILENAME == ARGV[1] {
        lib = $1; sym = $2
        if (lib in rank) {
          if (!(sym in owner) || rank[lib] < rank[owner[sym]]) owner[sym] = lib
        } else if (!(sym in other)) {
          other[sym] = lib
        }
        next
      }
      {
        sym = $1
        if (sym in owner) print owner[sym], sym
        else if (trust && sym ~ runtime_re) print "libc++_shared.so(unchecked)", sym
        else if (sym ~ builtin_re) print "builtin", sym
        else if (sym in other) print "not-needed:" other[sym], sym
        else print "unresolved", sym
      }' "$defs" - | sort -k1,1 -k2,2)
  rm -f "$defs"

  local imports_file="$build/imports.txt"
  {
    echo "# Imports of plugin/libOzmUnityPlugin.so, $abi, API $api ($(basename "$ANDROID_NDK"))."
    echo "# NEEDED <library>, in the order the loader searches them; then <library> <symbol> for"
    echo "# every imported symbol: the NEEDED library whose API-$api stub (or C++ runtime) defines it,"
    echo "# 'builtin' for a compiler support routine that no library provides,"
    echo "# 'libc++_shared.so(unchecked)' for a C++ runtime symbol that could not be checked, and"
    echo "# 'not-needed:<library>' or 'unresolved' for symbols no NEEDED library defines."
    if [ -n "$cxx_note" ]; then
      echo "# Note: $cxx_note."
    fi
    for lib_name in $needed; do
      echo "NEEDED $lib_name"
    done
    if [ -n "$resolved" ]; then
      echo "$resolved"
    fi
  } >"$imports_file"

  # On screen: the count for every NEEDED library (in NEEDED order, none left out), then the
  # other kinds of imports where there are any.
  local counts
  counts=$(awk 'NF == 2 {n[$1]++} END {for (l in n) printf "%s %d\n", l, n[l]}' <<<"$resolved")
  echo "== $abi: imports by library (listing in ${imports_file#"$root"/})"
  local count_lib count_n
  for count_lib in $needed; do
    count_n=$(awk -v l="$count_lib" '$1 == l {print $2}' <<<"$counts")
    printf '    %-26s %5d\n' "$count_lib" "${count_n:-0}"
  done
  while read -r count_lib count_n; do
    if [ -n "$count_lib" ] && [[ " $(tr '\n' ' ' <<<"$needed") " != *" $count_lib "* ]]; then
      printf '    %-26s %5d\n' "$count_lib" "$count_n"
    fi
  done <<<"$(sort <<<"$counts")"

  local builtins=() runtime=() unresolved=() label symbol
  while read -r label symbol; do
    case "$label" in
      builtin) builtins+=("$symbol") ;;
      'libc++_shared.so(unchecked)') runtime+=("$symbol") ;;
      not-needed:*) unresolved+=("$symbol (only in ${label#not-needed:}, which is not NEEDED)") ;;
      unresolved) unresolved+=("$symbol") ;;
    esac
  done <<<"$resolved"
  if [ ${#builtins[@]} -gt 0 ]; then
    echo "note [$abi]: compiler builtins left to the loader: ${builtins[*]}"
  fi
  if [ ${#runtime[@]} -gt 0 ]; then
    echo "note [$abi]: ${#runtime[@]} C++ standard library import(s) not checked (no libc++_shared.so here)"
  fi
  if [ ${#unresolved[@]} -gt 0 ]; then
    fail "${#unresolved[@]} imported symbol(s) defined by none of the needed libraries at API $api:"
    printf '    %s\n' "${unresolved[@]}" >&2
    if [ -n "$cxx_note" ]; then
      echo "    ($cxx_note)" >&2
    fi
  fi

  # 3. Exported symbols: exactly the list, no more (nothing internal leaks out) and no less (the
  # engine and the Java class look every one of them up by name).
  local allowed_exports
  allowed_exports=$(sed -e 's/#.*//' -e 's/[[:space:]]//g' -e '/^$/d' "$root/plugin/exported-symbols.txt" | sort -u)
  local exported=() unexpected=() absent=()
  for symbol in $(dynamic_names "$lib" --defined-only); do
    if [[ $symbol =~ $linker_markers_re ]]; then
      continue
    fi
    exported+=("$symbol")
    if ! grep -qxF -- "$symbol" <<<"$allowed_exports"; then
      unexpected+=("$symbol")
    fi
  done
  for symbol in $allowed_exports; do
    if [[ " ${exported[*]} " != *" $symbol "* ]]; then
      absent+=("$symbol")
    fi
  done
  if [ -z "$allowed_exports" ]; then
    fail "plugin/exported-symbols.txt lists no symbol"
  fi
  if [ ${#unexpected[@]} -gt 0 ]; then
    fail "exports symbol(s) not listed in plugin/exported-symbols.txt: ${unexpected[*]}"
  fi
  if [ ${#absent[@]} -gt 0 ]; then
    fail "does not export ${#absent[@]} symbol(s) of plugin/exported-symbols.txt: ${absent[*]}"
  fi

  # 4. Page alignment: every LOAD segment of an arm64 library must suit 16 KB pages.
  local aligns min_align=""
  aligns=$("$readelf" -lW "$lib" | awk '$1 == "LOAD" {print $NF}')
  local align
  for align in $aligns; do
    if [ -z "$min_align" ] || ((align < min_align)); then
      min_align=$align
    fi
  done
  if [ -z "$min_align" ]; then
    fail "no LOAD segment found"
    min_align=0
  elif [ "$abi" = arm64-v8a ] && ((min_align < 0x4000)); then
    fail "LOAD segments aligned to $(printf '0x%x' "$min_align"), 16 KB pages need 0x4000"
  fi

  local size status=OK
  size=$(wc -c <"$lib")
  if [ "$abi_failed" -ne 0 ]; then
    status=FAILED
  fi
  local summary
  summary="$abi: $status, $size bytes, NEEDED $(paste -sd, <<<"$needed"),"
  summary+=" ${#builtins[@]} builtin(s) left unresolved,"
  summary+=" LOAD align $(printf '0x%x' "$min_align"),"
  summary+=" ${#exported[@]} export(s): ${exported[*]:-none}"
  summaries+=("$summary")
  echo "$summary"
}

for abi in "${abis[@]}"; do
  abi_failed=0
  check_abi
  if [ "$abi_failed" -ne 0 ]; then
    failures=$((failures + 1))
    if [ ${#summaries[@]} -eq 0 ] || [[ ${summaries[-1]} != "$abi:"* ]]; then
      summaries+=("$abi: FAILED before the checks")
    fi
  fi
done

echo
echo "Summary"
printf '  %s\n' "${summaries[@]}"
if [ "$failures" -ne 0 ]; then
  echo "$failures of ${#abis[@]} ABI(s) failed" >&2
  exit 1
fi
