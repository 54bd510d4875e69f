#!/usr/bin/env bash
# Fails when the library exports a dynamic symbol that is not on the allow-list, or exports nothing.
set -euo pipefail
lib=$1
allowed=$2
exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort -u)
if [ -z "$exported" ]; then
  echo "no exported symbols in $lib"
  exit 1
fi
unexpected=$(comm -23 <(echo "$exported") <(grep -v '^#' "$allowed" | sed '/^$/d' | sort -u))
if [ -n "$unexpected" ]; then
  echo "symbols exported by $lib but not allowed:"
  echo "$unexpected"
  exit 1
fi
echo "exported: $(echo "$exported" | tr '\n' ' ')"
