#!/usr/bin/env bash
# Fails when a library file includes a header of a higher layer. The layers, bottom to top:
#   0 host/ (the host seam) and the plug-in C headers
# A public header lives in include/jxcache/ under its layer's folder name and is included as
# "jxcache/<layer>/<name>.h"; it belongs to the same layer as the folder's private headers.
#   1 common/      failures and messages, settings, types and flags, version
#   2 items/ bag/  payloads, items and check-out, the bag, directory and purge (each other too)
#   3 disk/        cache files, write policy and writer, folder
#   4 compute/ mediamap/ farm/   (never each other)
#   5 lifecycle/   start-up and shut-down
# Everything else (tools, tests, stress, fuzz, bench, examples, the stand-in host) sits on top. A
# lower layer reaches a higher one only through that layer's hook header, listed in HOOKS.
# It also fails when a library file above the seam starts a thread or sleeps on its own.
# Usage: scripts/check-layers.sh [root]   (prints each violation, exits 1 if there is any)
set -euo pipefail
root=${1:-$(dirname "$0")/..}
cd "$root"

layer_of() {
  local path=${1#include/}
  path=${path#jxcache/}
  case "$path" in
    host/*|kqgp_compute_cache.h|y_vx_suite.h) echo 0 ;;
    common/*) echo 1 ;;
    items/*|bag/*) echo 2 ;;
    disk/*) echo 3 ;;
    compute/*|mediamap/*|farm/*) echo 4 ;;
    lifecycle/*) echo 5 ;;
    *) echo 9 ;;
  esac
}
folder_of() {
  local path=${1#include/}
  path=${path#jxcache/}
  echo "${path%%/*}"
}
# Headers a lower layer may include from a higher one.
HOOKS=" jxcache/disk/disk_hooks.h mediamap/media_map_hooks.h "

violations=0
checked=0
while IFS= read -r file; do
  case "$file" in *_test.cpp|*_test_support.h) continue ;; esac
  from=$(layer_of "$file")
  [[ "$from" == 9 ]] && continue
  checked=$((checked + 1))
  while IFS= read -r inc; do
    to=$(layer_of "$inc")
    bad=""
    if [[ " $HOOKS " == *" $inc "* ]]; then
      :
    elif awk -v a="$to" -v b="$from" 'BEGIN { exit !(a > b) }'; then
      bad="includes a higher layer"
    elif [[ "$from" == 4 && "$to" == 4 && "$(folder_of "$file")" != "$(folder_of "$inc")" ]]; then
      bad="compute/, mediamap/ and farm/ never include each other"
    fi
    if [[ -n "$bad" ]]; then
      echo "$file: #include \"$inc\": $bad"
      violations=$((violations + 1))
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(git ls-files --cached --others --exclude-standard '*.h' '*.cpp' '*.c')

# Above the seam, threads and sleeps come from the host's services (jx::host::GetThreads(),
# GetClock().SleepFor()): a host decides how its threads start and what they carry.
while IFS= read -r file; do
  case "$file" in *_test.cpp|*_test_support.h) continue ;; esac
  from=$(layer_of "$file")
  [[ "$from" == 0 || "$from" == 9 ]] && continue
  while IFS= read -r hit; do
    echo "$file:$hit: starts a thread or sleeps without the host's services"
    violations=$((violations + 1))
  done < <(grep -n -E 'std::thread[^:]|std::jthread|pthread_create|sleep_for|usleep\(|nanosleep\(|std::async\(' \
             "$file" | grep -v 'std::thread::id' | cut -d: -f1)
done < <(git ls-files --cached --others --exclude-standard '*.h' '*.cpp' '*.c')
echo "check-layers: $checked library files, $violations violations"
[[ $violations -eq 0 ]]
