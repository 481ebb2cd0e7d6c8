#!/bin/sh
# Builds the Windows form (MinGW-w64) and runs its tests under Wine.
#
#   scripts/windows-test.sh [BUILDDIR]    (default build/windows)
#
# The libraries it needs are cross-built first (scripts/cross-deps.sh,
# skipped when done); the build is incremental. Run by `make test` as the
# CTest test "windows_form" when the cross compiler and Wine are installed.
set -eu

ROOT=$(cd "$(dirname "$0")/.." && pwd)
OUT=${1:-$ROOT/build/windows}
DEPS=$(dirname "$OUT")/windows-deps

nice -n 19 "$ROOT/scripts/cross-deps.sh" "$DEPS"
nice -n 19 cmake -S "$ROOT" -B "$OUT" --log-level=WARNING -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/mingw-w64.cmake" \
    -DZARN_WINDOWS_DEPS="$DEPS/prefix" >/dev/null
nice -n 19 cmake --build "$OUT" -j "$(nproc)" > "$OUT/build.log" 2>&1 || { cat "$OUT/build.log"; exit 1; }
cd "$OUT" && ctest --output-on-failure
