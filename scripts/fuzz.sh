#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, ASan + UBSan) and runs each for SECONDS seconds,
# starting from the corpus in tests/fuzz/corpus/<target>/. New inputs are kept in a scratch
# folder, not in the tree. Exits non-zero when a target finds a fault; the input that caused it
# is printed and left in build-fuzz/findings/<target>/: add it to
# tests/fuzz/regressions/<target>/ once the fault is fixed, and the replay test keeps it.
set -uo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
targets=(container safeDecode quadTree planeStream)

cmake --preset fuzz >/dev/null || exit 2
cmake --build build-fuzz --target "${targets[@]/%/_fuzzer}" -j2 || exit 2

status=0
for target in "${targets[@]}"; do
  work="build-fuzz/corpus/$target"
  findings="build-fuzz/findings/$target"
  mkdir -p "$work" "$findings"
  echo "== $target: $seconds s"
  if ! "build-fuzz/tests/fuzz/${target}_fuzzer" "$work" "tests/fuzz/corpus/$target" \
      -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=20 -max_len=65536 \
      -print_final_stats=1 -artifact_prefix="$findings/"; then
    echo "!! $target found a fault; inputs in $findings:"
    ls -1 "$findings"
    status=1
  fi
done
exit $status
