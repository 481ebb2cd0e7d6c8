#!/bin/sh
# Runs the launcher over a fresh copy of the sample job.
set -eu
BUILD=${1:-build}
if [ ! -x "$BUILD/bin/zarn" ]; then
    echo "The demo runs the launcher build/bin/zarn, which is not built yet."
    exit 0
fi
JOB="$BUILD/demo/sample-job"
rm -rf "$BUILD/demo"
mkdir -p "$BUILD/demo"
cp -r examples/sample-job "$JOB"
"$BUILD/bin/zarn" run --libs "$BUILD/backends" --log "$BUILD/demo" "$(pwd)/$JOB"
echo "results are in $JOB/results (log: $BUILD/demo/console.log)"
