#!/bin/bash
# DataConverter.sh IMAGE JOBDIR
#
# Inpaints the tripod area (the nadir, at the bottom of an equirectangular
# panorama) of every stitched panorama of the job, "JOBDIR/caches/images/
# *.jpg", in place. The work is done by zarn_inpaint, which lives beside
# this script and reaches the job without following links: it reads only
# regular files of caches/images/ reached without links, writes each new
# panorama to a temporary file created exclusively in caches/images/ and
# renames it over the panorama only when that succeeded, so a failure leaves
# the original panorama as it was and nothing outside the job is written.
#
# Exit status: 0 done (also when there is no panorama), 1 a panorama could
# not be inpainted, 2 wrong arguments.
set -u

if [ "$#" -ne 2 ] || [ "$1" != "IMAGE" ] || [ -z "$2" ]; then
    echo "usage: DataConverter.sh IMAGE JOBDIR" >&2
    exit 2
fi
here=$(cd "$(dirname "$0")" && pwd)
tool="$here/zarn_inpaint"
if [ ! -x "$tool" ]; then
    echo "DataConverter.sh: $tool is missing" >&2
    exit 1
fi
exec "$tool" "$2"
