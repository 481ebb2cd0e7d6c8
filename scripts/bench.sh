#!/bin/sh
# Runs every benchmark program; figures go to docs/PERFORMANCE.md by hand.
set -eu
BUILD=${1:-build}
for b in "$BUILD"/bench/*_bench; do
    [ -x "$b" ] || continue
    echo "== $b"
    "$b" --benchmark_counters_tabular=true
done
