#!/bin/sh
# Runs the launcher over a fresh copy of the sample job and shows what it
# published.
set -eu
BUILD=${1:-build}
if [ ! -x "$BUILD/bin/zarn" ]; then
    echo "The demo runs the launcher build/bin/zarn, which is not built yet."
    exit 0
fi
mkdir -p "$BUILD/backends"
for library in libopenMVG_velda.so libCalib.so libStitch.so libStereoRotCam.so; do
    [ -f "$BUILD/backends/$library" ] ||
        echo "note: $BUILD/backends/$library is not built; a process that needs it will report it missing."
done
JOB="$BUILD/demo/sample-job"
rm -rf "$BUILD/demo"
mkdir -p "$BUILD/demo"
cp -r examples/sample-job "$JOB"
# The stitching part of the job: synthetic two-lens captures of a known
# room, their lens tables and the stitch plan, made afresh for each demo.
if [ -x "$BUILD/bin/zarn_capture" ]; then
    "$BUILD/bin/zarn_capture" "$JOB" --width 4096 --points 3 --videos 1 > /dev/null
else
    echo "note: $BUILD/bin/zarn_capture is not built; the stitching part of the job is left out."
fi
status=0
"$BUILD/bin/zarn" run --libs "$BUILD/backends" --log "$BUILD/demo" "$(pwd)/$JOB" || status=$?

echo
echo "== published results (hard links: inode, link count, size, name)"
if [ -d "$JOB/results" ]; then
    (cd "$JOB/results" && find . -type f | sort | xargs -r ls -i -l | awk '{ print $1, $3, $6, $NF }')
else
    echo "(none)"
fi
echo
echo "== stitched panoramas (4096 x 2048 equirectangular) and videos"
if [ -d "$JOB/caches/images" ]; then
    (cd "$JOB" && find caches/images caches/videos -type f | sort | sed "s|^|$JOB/|")
    echo "(the scene they were rendered from is in $JOB/truth/; the first point is a plain"
    echo " capture, the others are fused from four exposures per lens)"
else
    echo "(none)"
fi
echo
echo "== project.json"
cat "$JOB/project.json"
echo
echo
echo "results are in $JOB/results (log: $BUILD/demo/console.log)"
exit "$status"
