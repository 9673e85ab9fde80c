#!/usr/bin/env bash
# Builds and runs every test: the native Linux build (warnings as errors,
# OpenSSL backend), then the Win64 cross-build (libgcrypt backend), whose
# tests and demo run under Wine.
#   scripts/test.sh            both
#   scripts/test.sh --native   the Linux run only
set -euo pipefail
cd "$(dirname "$0")/.."

mode=all
[ "${1:-}" = --native ] && mode=native

bash scripts/setup.sh "$([ $mode = native ] && echo native || echo all)"

jobs=$(nproc 2>/dev/null || echo 2)

echo "== Linux build"
cmake --preset default -DTEMBRA_WERROR=ON >/dev/null
cmake --build --preset default -j"$jobs"
echo "== Linux tests"
ctest --preset default -j"$jobs"

if [ $mode = all ]; then
  echo "== Win64 cross-build"
  cmake --preset mingw64 -DTEMBRA_WERROR=ON >/dev/null
  cmake --build --preset mingw64 -j"$jobs"
  echo "== Win64 tests under Wine"
  bash scripts/test-wine.sh build/mingw64
fi
