#!/bin/sh
# Installs the Debian packages the build, the tests and the benchmarks need.
# Idempotent: only packages that are not installed yet are fetched.
# ffmpeg is only the stitching benchmark's peer (its v360 filter).
# Open3D (surface reconstruction; also the normal-estimation benchmark's
# peer) and meshoptimizer (mesh simplification) serve the mesh process.
# calib3d serves the reference calibration library (chessboard detection,
# fisheye calibration, pose); video (DIS optical flow) its stitching library's
# parallax-aligned seams; libjpeg (the turbo build) its block-wise repair of
# JPEG panoramas.
# FFmpeg's libraries (libavcodec with x264, libavformat, libswscale) serve the
# reference video delivery; the command-line ffmpeg is also the overlay tool
# of the framed video views, with the DejaVu font for their time text.
# OpenSSL's libcrypto gives the SHA-256 of the upload manifests.
# Slurm and munge run the farm (the tests start a private cluster).
# MinGW-w64 (the POSIX thread model) builds the Windows form, and Wine runs
# its tests; dpkg-dev unpacks the source packages that scripts/cross-deps.sh
# cross-builds for it.
set -eu

PACKAGES="cmake g++ make pkg-config \
libopencv-core-dev libopencv-imgproc-dev libopencv-imgcodecs-dev \
libopencv-photo-dev libopencv-videoio-dev libopencv-calib3d-dev libopencv-video-dev \
libavcodec-dev libavformat-dev libavutil-dev libswscale-dev libssl-dev fonts-dejavu-core libjpeg62-turbo-dev \
libflann-dev liblz4-dev libpugixml-dev \
libopen3d-dev libmeshoptimizer-dev \
libgtest-dev libgmock-dev libbenchmark-dev \
rapidjson-dev nlohmann-json3-dev libnanoflann-dev \
ffmpeg slurm-wlm munge \
g++-mingw-w64-x86-64-posix wine wine64 dpkg-dev"

missing=""
for p in $PACKAGES; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done

[ -z "$missing" ] && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi

echo "installing:$missing"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
# shellcheck disable=SC2086
$SUDO apt-get install -y --no-install-recommends $missing
