#!/bin/sh
# Builds the fuzz targets with Clang's libFuzzer and runs each for a while.
#   scripts/fuzz.sh [SECONDS]
set -eu
SECONDS_EACH=${1:-60}
BUILD=build-fuzz
CXX=clang++ cmake -S . -B "$BUILD" -DZARN_FUZZ=ON -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined" -DZARN_BUILD_TESTS=OFF -DZARN_BUILD_BENCH=OFF >/dev/null
cmake --build "$BUILD" -j "$(nproc)" --target $(cd fuzz && ls *_fuzz.cpp | sed 's/\.cpp$//')
for target in "$BUILD"/fuzz/*_fuzz; do
    name=$(basename "$target")
    work="$BUILD/corpus/$name"
    mkdir -p "$work"
    "$target" -max_total_time="$SECONDS_EACH" "$work" "fuzz/corpus/$name"
done
