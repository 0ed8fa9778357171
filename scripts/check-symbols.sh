#!/usr/bin/env bash
# Compares what a shared libjxcache exports with the committed list, cmake/jxcache.symbols, so
# that no symbol joins or leaves the library's interface unnoticed.
# Usage: scripts/check-symbols.sh LIBJXCACHE.so [--update]
set -euo pipefail
lib=$1
list=$(dirname "$0")/../cmake/jxcache.symbols
exported() { nm -D --defined-only "$lib" | awk '{ print $3 }' | grep -v '^JXCACHE_' | c++filt | sort -u; }
if [[ "${2:-}" == "--update" ]]; then
  exported > "$list"
  echo "check-symbols: $(wc -l < "$list") symbols written to $list"
  exit 0
fi
if ! diff -u "$list" <(exported); then
  echo "check-symbols: the exported symbols differ from $list (- committed, + built)."
  echo "If the change is meant, run: scripts/check-symbols.sh $lib --update"
  exit 1
fi
echo "check-symbols: $(wc -l < "$list") exported symbols, as committed"
