#!/usr/bin/env bash
# Builds the project, encodes the example clip to out/example.zyl and shows what it holds.
# Run scripts/setup.sh once before, on a fresh machine.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset dev >/dev/null
cmake --build build --target zyl_cli -j"$(nproc)"

mkdir -p out
echo
echo "== zyl encode media/coin_pen_284x160_3s.mp4 out/example.zyl -y"
build/host/zyl encode media/coin_pen_284x160_3s.mp4 out/example.zyl -y
echo
echo "== zyl info out/example.zyl"
build/host/zyl info out/example.zyl
echo
echo "Next: build/host/zyl decode out/example.zyl out/example.y4m --audio out/example.wav"
echo "      (any Y4M player shows the pictures), or build/host/zyl --help."
