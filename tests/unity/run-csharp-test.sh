#!/usr/bin/env bash
# Compiles a C# test program with Mono's compiler and runs it with Mono.
#
#   run-csharp-test.sh <mcs> <mono> <program.exe> <source or -r:reference>... -- <program argument>...
#
# Compiling at test time keeps a C# error a failing test rather than a broken build. Warnings are
# errors, as they are for the package's own code.
set -euo pipefail
[ $# -ge 4 ] || { echo "usage: $0 <mcs> <mono> <program.exe> <sources>... -- <arguments>..." >&2; exit 2; }
mcs=$1 mono=$2 exe=$3
shift 3
sources=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do
  sources+=("$1")
  shift
done
[ $# -gt 0 ] && shift
mkdir -p "$(dirname "$exe")"
"$mcs" -nologo -warnaserror+ -debug -out:"$exe" "${sources[@]}"
exec "$mono" --debug "$exe" "$@"
