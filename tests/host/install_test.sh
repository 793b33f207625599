#!/usr/bin/env bash
# Installs the build into a scratch prefix, builds the example host against the installed
# package alone (find_package and pkg-config), runs it and checks the movie it writes.
set -euo pipefail
build="$1"
source_dir="$2"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
test -f "$scratch/prefix/include/zyl/zylCodec.h"
PKG_CONFIG_PATH="$scratch/prefix/lib/pkgconfig:$scratch/prefix/lib/x86_64-linux-gnu/pkgconfig" \
  pkg-config --cflags --libs zyl | grep -q -- "-lzyl"

cmake -S "$source_dir/examples" -B "$scratch/example" -DCMAKE_PREFIX_PATH="$scratch/prefix" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$scratch/example" >/dev/null
LD_LIBRARY_PATH="$scratch/prefix/lib:$scratch/prefix/lib/x86_64-linux-gnu" \
  "$scratch/example/minimalHost" "$scratch/gradient.zyl" 2>"$scratch/log.txt"
grep -q "status 0" "$scratch/log.txt"
# A ZYL0 movie: its magic, and a frame count in the header.
test "$(head -c 4 "$scratch/gradient.zyl")" = "ZYL0"
frames=$(od -An -tu4 -j16 -N4 "$scratch/gradient.zyl" | tr -d ' ')
test "$frames" -eq 12  # every picture of the generated stream
echo "installed package works: $frames frames"
