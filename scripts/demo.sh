#!/bin/sh
# Runs the launcher over a fresh copy of the sample job, over a stereo
# rotating-camera job and over a job with parallax, and shows what they
# produced.
#
# The sample job gets synthetic captures of a known room, made afresh for
# each demo by zarn_capture: chessboard views, a colour chart and a flat
# field for the calibration, two-lens captures (plain and bracketed) and a
# video for the stitching, and a region file for the image filter. The
# calibration runs first; the stitcher then uses the lens tables it
# published. The reconstruction library's synthetic two-storey interior
# (1.5 million points in overlapping chunks, with noise and flying pixels)
# becomes a final point cloud and a mesh per floor in three sizes.
# A third job has captures with parallax: its panoramas are shown as
# stitched and as repaired around the near objects.
set -eu
BUILD=${1:-build}
if [ ! -x "$BUILD/bin/zarn" ]; then
    echo "The demo runs the launcher build/bin/zarn, which is not built yet."
    exit 0
fi
for library in libopenMVG_velda.so libCalib.so libStitch.so libStereoRotCam.so; do
    [ -f "$BUILD/backends/$library" ] ||
        echo "note: $BUILD/backends/$library is not built; a process that needs it will report it missing."
done
DEMO="$BUILD/demo"
JOB="$DEMO/sample-job"
STEREO="$DEMO/stereo-job"
rm -rf "$DEMO"
mkdir -p "$DEMO"
cp -r examples/sample-job "$JOB"
"$BUILD/bin/zarn_capture" "$JOB" --width 4096 --points 3 --videos 1 --calibration --regions > /dev/null
status=0
"$BUILD/bin/zarn" run --libs "$BUILD/backends" --log "$DEMO" "$(pwd)/$JOB" || status=$?

# The stereo rotating camera: raw frames of three exposures per view.
"$BUILD/bin/zarn_capture" "$STEREO" --stereo --points 2 --videos 0 > /dev/null
cp examples/sample-job/project.json "$STEREO/project.json"
printf '{"StereoRotStitchMainProcess":{}}\n' > "$STEREO/caches/split_data.json"
printf '<_Lumora><StereoRotStitchMainProcess><mThreadConcurrency value="2"/></StereoRotStitchMainProcess></_Lumora>\n' \
    > "$STEREO/setting.xml"
echo
"$BUILD/bin/zarn" run --process StereoRotStitchMainProcess --libs "$BUILD/backends" "$(pwd)/$STEREO" || status=$?

# Captures with parallax (the lenses 3 cm apart, near furniture around the
# rig): stitched with the plain blend, which doubles the near objects where
# they cross the seam, then repaired in the regions zarn_capture marks
# around them (the split data's "ImageROIProcess" member).
PARALLAX="$DEMO/parallax-job"
mkdir -p "$PARALLAX/caches"
printf '{"StitchMainProcess":{"seam":"plain"}}\n' > "$PARALLAX/caches/split_data.json"
"$BUILD/bin/zarn_capture" "$PARALLAX" --width 4096 --points 2 --videos 0 --repairs > /dev/null
echo
"$BUILD/bin/zarn" run --process StitchMainProcess --process ImageROIProcess --libs "$BUILD/backends" \
    "$(pwd)/$PARALLAX" || status=$?

list() {
    if [ -d "$1" ]; then find "$1" -type f | sort; else echo "(none)"; fi
}
echo
echo "== published results of the sample job (hard links: inode, link count, size, name)"
if [ -d "$JOB/results" ]; then
    (cd "$JOB/results" && find . -type f | sort | xargs -r ls -i -l | awk '{ print $1, $3, $6, $NF }')
else
    echo "(none)"
fi
echo
echo "== panoramas (4096 x 2048 equirectangular), stitched with the calibrated lenses"
list "$JOB/caches/images"
echo "   the scene they were rendered from: $JOB/truth/"
echo "== the same with the regions of extras/image-ROI.json blurred or pixelated"
list "$JOB/extras/images"
echo "== the stitched video"
list "$JOB/caches/videos"
echo "== the same delivered for a web 360 viewer (H.264 MP4, fast start, spherical metadata) with its poster"
list "$JOB/results/videos/web"
echo "   sizes and SHA-256 per upload part: $JOB/caches/upload.part10.json"
echo "== two framed views cut from it (flat perspective, logo and time stamped by ffmpeg)"
list "$JOB/results/video_roi"
echo "== floor meshes (binary PLY: level 0 and two simplified sizes), the room mesh by floor,"
echo "   the final point cloud, and a top view of each floor (PNG)"
list "$JOB/results/mesh"
echo "   counts per floor (points in, duplicates, outliers, triangles per level): $JOB/caches/mesh_report.json"
echo "== a panorama before and after its repair (parallax captures, plain blend; the regions are in"
echo "   $PARALLAX/caches/split_data.json, the rendered truth in $PARALLAX/truth/)"
echo "   stitched: $PARALLAX/caches/image_roi/stitched/point_000.jpg"
echo "   repaired: $PARALLAX/caches/images/point_000.jpg (published in $PARALLAX/results/image_roi/)"
echo "== stereo rotating camera: developed, merged from three exposures, stitched, tripod inpainted"
list "$STEREO/caches/images"
echo
echo "== project.json"
cat "$JOB/project.json"
echo
echo
echo "results are in $JOB/results, $STEREO and $PARALLAX/results (log: $DEMO/console.log)"
exit "$status"
