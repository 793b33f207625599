#!/usr/bin/env bash
# Builds and runs every test. With an argument, uses that CMake preset (dev, asan).
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-dev}"
case "$preset" in
  dev) dir=build ;;
  asan) dir=build-asan ;;
  release) dir=build-release ;;
  *) echo "unknown preset $preset" >&2; exit 2 ;;
esac
cmake --preset "$preset" >/dev/null
cmake --build "$dir" -j"$(nproc)"
cd "$dir"
ctest --output-on-failure -j"$(nproc)" --timeout 900
