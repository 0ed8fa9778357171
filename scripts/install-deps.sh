#!/usr/bin/env bash
# Installs the Debian packages jxcache needs, and only those that are missing.
# Usage: scripts/install-deps.sh [--bench]   (--bench adds the peer libraries for `make bench`)
set -euo pipefail
pkgs=(cmake ninja-build g++ clang clang-14 libclang-rt-14-dev clang-format pkg-config
      libboost-dev libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev nlohmann-json3-dev libxxhash-dev
      libhiredis-dev redis-server)
if [[ "${1:-}" == "--bench" ]]; then
  pkgs+=(libtbb-dev libopenimageio-dev)
fi
missing=()
for p in "${pkgs[@]}"; do
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
