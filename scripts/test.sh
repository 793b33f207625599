#!/usr/bin/env bash
# Builds and runs every test. With an argument, uses that CMake preset (dev, asan, tsan, scalar);
# tsan builds and runs only the encoder's tests, whose jobs share each frame among two threads;
# scalar builds the plain kernels only (no SSE2 or AVX2 code), and a second argument there is a
# ctest regular expression of tests to leave out.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-dev}"
case "$preset" in
  dev) dir=build ;;
  asan) dir=build-asan ;;
  tsan) dir=build-tsan ;;
  release) dir=build-release ;;
  scalar) dir=build-scalar ;;
  *) echo "unknown preset $preset" >&2; exit 2 ;;
esac
cmake --preset "$preset" >/dev/null
if [ "$preset" = tsan ]; then
  cmake --build "$dir" -j"$(nproc)" --target zyl_tests_encoder
  cd "$dir"
  # Two tests take minutes under the sanitizer and run in the plain build only: the search
  # kernels' comparison (one thread) and the sweep over thread counts (the other tests already
  # share every frame between two threads).
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ./tests/encoder/zyl_tests_encoder \
    --gtest_filter=-MotionSearch.Sse2AndPlainKernelsGiveIdenticalTreesOnRealVideo:Encoder.EveryThreadCountWritesTheSameMovie
  exit 0
fi
cmake --build "$dir" -j"$(nproc)"
cd "$dir"
exclude=()
if [ "$preset" = scalar ] && [ -n "${2:-}" ]; then exclude=(-E "$2"); fi
ctest --output-on-failure -j"$(nproc)" --timeout 900 "${exclude[@]}"
