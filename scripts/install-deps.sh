#!/usr/bin/env bash
# Installs the Debian packages jxcache needs, and only those that are missing.
# Usage: scripts/install-deps.sh [MODE...]
#   --demo        the library and the jxcache tool: what `make demo` needs
#   (no mode)     --demo, and the test framework: what `make test` needs
#   --sanitizers  the above, and clang with its sanitizer and fuzzer runtimes
#   --bench       the above without clang, and the peer libraries the benchmarks compare with
#   --ci          everything CI runs: tests, sanitizers, formatting, the farm tier's server,
#                 ccache (CI compiles the same sources with the same flags in several builds) and
#                 lld (CI links some hundred test programs)
set -euo pipefail
demo=(cmake ninja-build g++ pkg-config libboost-dev libcli11-dev nlohmann-json3-dev libxxhash-dev
      libzstd-dev libhiredis-dev)
test=(libgtest-dev libgmock-dev libexpat1-dev redis-server)
sanitizers=(clang clang-14 libclang-rt-14-dev)
bench=(libbenchmark-dev libtbb-dev libopenimageio-dev)
ci=(clang-format ccache lld)
modes=("$@")
[[ ${#modes[@]} -eq 0 ]] && modes=(--test)
pkgs=("${demo[@]}")
for mode in "${modes[@]}"; do
  case "$mode" in
    --demo) ;;
    --test) pkgs+=("${test[@]}") ;;
    --sanitizers) pkgs+=("${test[@]}" "${sanitizers[@]}") ;;
    --bench) pkgs+=("${test[@]}" "${bench[@]}") ;;
    --ci) pkgs+=("${test[@]}" "${sanitizers[@]}" "${ci[@]}") ;;
    *) echo "install-deps: unknown mode $mode (--demo, --sanitizers, --bench, --ci)" >&2; exit 2 ;;
  esac
done
missing=()
for p in $(printf '%s\n' "${pkgs[@]}" | sort -u); do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [[ ${#missing[@]} -eq 0 ]]; then
  exit 0
fi
echo "install-deps: installing ${missing[*]}" >&2
sudo=""
if [[ $(id -u) -ne 0 ]]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
