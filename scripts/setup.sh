#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test, fuzz and run.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  zlib1g-dev
  lzma-dev liblzma-dev
  libsquish-dev
  libavformat-dev libavcodec-dev libavfilter-dev libavutil-dev libswscale-dev libswresample-dev
  libpng-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  python3
)

if [ "$(id -u)" -ne 0 ]; then
  SUDO=sudo
else
  SUDO=
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update
$SUDO apt-get install -y --no-install-recommends "${missing[@]}"
