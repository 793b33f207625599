#!/usr/bin/env bash
# The shared library exports zylInitCodec and no other symbol of ours.
set -euo pipefail
lib="$1"
symbols=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v '^$' | sort -u)
if [ "$symbols" != "zylInitCodec" ]; then
  echo "exported symbols of $lib:"
  echo "$symbols"
  exit 1
fi
echo "only zylInitCodec is exported"
