#!/bin/bash
# DataConverter.sh IMAGE JOBDIR
#
# Inpaints the tripod area (the nadir, at the bottom of an equirectangular
# panorama) of every stitched panorama of the job, "JOBDIR/caches/images/
# *.jpg", in place. Each panorama is filled into a new file beside it and
# renamed over it only when that succeeded, so a failure leaves the original
# panorama as it was. The filling is done by zarn_inpaint, which lives
# beside this script.
#
# Exit status: 0 done (also when there is no panorama), 1 a panorama could
# not be inpainted, 2 wrong arguments.
set -u

if [ "$#" -ne 2 ] || [ "$1" != "IMAGE" ]; then
    echo "usage: DataConverter.sh IMAGE JOBDIR" >&2
    exit 2
fi
job=$2
here=$(cd "$(dirname "$0")" && pwd)
tool="$here/zarn_inpaint"
if [ ! -x "$tool" ]; then
    echo "DataConverter.sh: $tool is missing" >&2
    exit 1
fi

status=0
shopt -s nullglob
for panorama in "$job"/caches/images/*.jpg; do
    [ -f "$panorama" ] && [ ! -L "$panorama" ] || continue
    temporary="$panorama.inpaint-$$.jpg"
    if "$tool" "$panorama" "$temporary" && mv -f "$temporary" "$panorama"; then
        echo "inpainted ${panorama#"$job"/}"
    else
        rm -f "$temporary"
        echo "DataConverter.sh: cannot inpaint $panorama" >&2
        status=1
    fi
done
exit "$status"
