#!/usr/bin/env bash
# Compiles the package the way the engine splits it into assemblies, against the stand-in of the
# engine's scripting API: the runtime (unity/Runtime, its own assembly), then the sample (the
# project's scripts, which see the runtime). A member the engine lacks, a wrong signature or a type
# error fails here. The package must not reach into the stand-in's control side (EngineStubs), which
# the engine does not have. And every file and folder of the package (but the samples, which the
# engine does not import in place) has its import settings (.meta) with a GUID of its own: the engine
# ignores files without them in a package installed from git.
#
#   compile-package.sh <mcs> <unity package folder> <engine stand-in folder> <output folder>
set -euo pipefail
[ $# -eq 4 ] || { echo "usage: $0 <mcs> <package> <engine stand-in> <output folder>" >&2; exit 2; }
mcs=$1 package=$2 stubs=$3 out=$4
mkdir -p "$out"

if grep -rn "EngineStubs" "$package" --include='*.cs'; then
  echo "the package uses the stand-in's control side (above), which the engine does not have" >&2
  exit 1
fi

problems=0
while IFS= read -r -d '' entry; do
  rel=${entry#"$package"/}
  case "$rel" in
    Samples~ | Samples~/*) continue ;;
    *.meta) [ -e "${entry%.meta}" ] || { echo "$rel belongs to nothing" >&2; problems=$((problems + 1)); } ;;
    *) [ -f "$entry.meta" ] || { echo "$rel has no .meta" >&2; problems=$((problems + 1)); } ;;
  esac
done < <(find "$package" -mindepth 1 -print0)
guids=$(find "$package" -name '*.meta' -not -path '*/Samples~/*' -exec sed -n 's/^guid: //p' {} + | sort)
if [ -n "$(printf '%s\n' "$guids" | grep -cvE '^[0-9a-f]{32}$' | grep -v '^0$')" ] || [ -n "$(printf '%s\n' "$guids" | uniq -d)" ]; then
  echo "import settings with a malformed or repeated GUID" >&2
  problems=$((problems + 1))
fi
[ "$problems" -eq 0 ] || exit 1

mapfile -t engine < <(find "$stubs" -name '*.cs' | sort)
mapfile -t runtime < <(find "$package/Runtime" -name '*.cs' | sort)
mapfile -t sample < <(find "$package/Samples~" -name '*.cs' | sort)
[ ${#runtime[@]} -gt 0 ] && [ ${#sample[@]} -gt 0 ] || { echo "no runtime or sample scripts in $package" >&2; exit 1; }

"$mcs" -nologo -warnaserror+ -target:library -out:"$out/UnityEngine.dll" "${engine[@]}"
"$mcs" -nologo -warnaserror+ -target:library -r:"$out/UnityEngine.dll" -out:"$out/Ozm.VolumetricPlayer.dll" "${runtime[@]}"
"$mcs" -nologo -warnaserror+ -target:library -r:"$out/UnityEngine.dll" -r:"$out/Ozm.VolumetricPlayer.dll" \
  -out:"$out/Assembly-CSharp.dll" "${sample[@]}"
echo "compiled ${#runtime[@]} runtime and ${#sample[@]} sample scripts against ${#engine[@]} files of the engine's API"
