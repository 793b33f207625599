#!/usr/bin/env bash
# Builds and runs every test. With an argument, uses that CMake preset (dev, asan, tsan); tsan
# builds and runs only the encoder's tests, whose jobs share each frame among two threads.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-dev}"
case "$preset" in
  dev) dir=build ;;
  asan) dir=build-asan ;;
  tsan) dir=build-tsan ;;
  release) dir=build-release ;;
  *) echo "unknown preset $preset" >&2; exit 2 ;;
esac
cmake --preset "$preset" >/dev/null
if [ "$preset" = tsan ]; then
  cmake --build "$dir" -j"$(nproc)" --target zyl_tests_encoder
  cd "$dir"
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ./tests/encoder/zyl_tests_encoder
  exit 0
fi
cmake --build "$dir" -j"$(nproc)"
cd "$dir"
ctest --output-on-failure -j"$(nproc)" --timeout 900
