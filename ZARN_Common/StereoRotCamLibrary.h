#pragma once

// The C interface of the stereo rotating-camera library,
// "libStereoRotCam.so" ("StereoRotCam.dll" on Windows): the stitching of the
// stereo rotating camera (raw development, HDR merging, stitching, video)
// and the image filter, as the stereo stitch process and the image filter
// process call them and as the reference library in backends/ implements
// them. docs/BACKENDS.md describes every entry, argument, result code and
// file format in full; keep the two in step.
//
// The camera: two fisheye lenses on one centre (the upper looking up, the
// lower down, as the stitching library's rig) on a head that turns about
// the vertical axis to three positions, 0, 120 and 240 degrees. One capture
// is six views, view k taken by lens k % 2 (0 upper, 1 lower) at position
// k / 2; an HDR capture repeats the six views at up to three exposures
// ("groups", darkest first).
//
// The entries have C linkage; their prototypes are not declared here (the
// stitching library exports the same names over other types): each side
// spells them with the function types below.

#include "ZARN_Common/StitchLibrary.h"

namespace KIVO_StereoRotStitch {
struct KIVO_OptFlowStitchParams; // an image stitcher, opaque to the caller
}
namespace KIVO_StereoRotVideoStitch {
struct KIVO_VideoStitchParams; // a video stitcher, opaque to the caller
}
namespace KIVO_Filter {
struct KIVO_FilterParams; // an image filter, opaque to the caller
}

namespace ZARN::StereoRotCamLibrary {

using IMAGE_HANDLE = KIVO_StereoRotStitch::KIVO_OptFlowStitchParams *;
using VIDEO_HANDLE = KIVO_StereoRotVideoStitch::KIVO_VideoStitchParams *;
using FILTER_HANDLE = KIVO_Filter::KIVO_FilterParams *;

// The result codes are the stitching library's (StitchLibrary::RESULT);
// KIVO_BAD_TABLE also stands for an unreadable distortion table, and
// KIVO_BAD_INPUT for a raw frame that is not in the raw format below.
using StitchLibrary::RESULT;

inline constexpr int VIEWS = 6;      // views of one capture
inline constexpr int MAX_GROUPS = 3; // exposure groups of an HDR capture

// ---------------------------------------------------------------------------
// Stitching.

using CREATE_OPT_FLOW_STITCH = IMAGE_HANDLE();
using DESTROY_OPT_FLOW_STITCH = void(IMAGE_HANDLE handle);
// Reads the camera's distortion table (text, "asset/distortion.txt" of the
// current directory; format in docs/BACKENDS.md) and prepares panoramas of
// width x height pixels, exposure matched on estimate_width x
// estimate_height; bits must be 8.
using INIT_OPT_FLOW_STITCH = int(IMAGE_HANDLE handle, const char *distortion_table, int width, int height,
                                 int estimate_width, int estimate_height, int bits);
// Stitches the six views of one exposure (`views` points to six paths of
// developed images, in view order) into `output`; `size`, `statistics` and
// `name` as in the stitching library.
using EXECUTE_OPT_FLOW_STITCH = int(IMAGE_HANDLE handle, const char *const *views, const char *output,
                                    const int *size, double *statistics, const char *name);
// Merges the `groups` exposures (1..3) of each view, then stitches:
// `frames` points to groups x 6 paths, group by group (group 0 darkest),
// each group in view order. `mode` is the record's "hdr": 2 merges radiance
// and tone-maps it, any other value fuses the exposures (exposure fusion).
using EXECUTE_OPT_FLOW_STITCH_HDR = int(IMAGE_HANDLE handle, const char *const *frames, int groups,
                                        const char *output, const int *size, unsigned char mode);
// Develops one raw frame into an 8-bit colour image `output` (PNG or JPEG by
// its extension): demosaicing, white balance with `gain` (three multipliers,
// red, green, blue) and the display curve. Needs no init.
using EXECUTE_ISP = int(IMAGE_HANDLE handle, const char *raw, const char *output, const double *gain);
using GET_OPT_FLOW_STITCH_CODE = int(IMAGE_HANDLE handle);

// ---------------------------------------------------------------------------
// Video: as the stitching library's, the lenses at position 0.

using CREATE_VIDEO_STITCH = VIDEO_HANDLE();
using DESTROY_VIDEO_STITCH = void(VIDEO_HANDLE handle);
using INIT_VIDEO_STITCH = int(VIDEO_HANDLE handle, const char *distortion_table, int width, int height, int bits);
using EXECUTE_VIDEO_STITCH = int(VIDEO_HANDLE handle, const char *upper, const char *lower, const char *upper_short,
                                 const char *lower_short, const char *output, double *hdr_value, double *fov);
using GET_VIDEO_STITCH_CODE = int(VIDEO_HANDLE handle);

// ---------------------------------------------------------------------------
// The image filter: blurs regions (faces, number plates) of panoramas.

enum FILTER_TYPE : int {
    FILTER_BLUR = 0,     // a strong Gaussian blur
    FILTER_PIXELATE = 1, // blocks of one colour
    FILTER_FILL = 2,     // the region's mean colour
};

using CREATE_FILTER = FILTER_HANDLE();
using DESTROY_FILTER = void(FILTER_HANDLE handle);
// Prepares the filter: outputs are JPEG of `quality` (1..100) (a name that
// ends in ".png" is written as PNG, losslessly), written in pieces of
// `write_buffer_size` bytes (at least 4096); previews are `preview_width`
// pixels wide (16..4096).
using INIT_FILTER = int(FILTER_HANDLE handle, long long write_buffer_size, int quality, int preview_width);
// Filters the regions of one image: `input` is read, the filtered image is
// written to `output` (and, when `preview` is not null, a small copy to
// `preview`). `rects` points to `count` x 4 ints, x, y, width, height of
// each region in a frame of `width` x `height` pixels (the frame the regions
// were found in; they are scaled to the image). Region edges are feathered.
// Pixels outside every (feathered) region are left exactly as decoded.
// Thread-safe on one initialised object.
using EXECUTE_FILTER = int(FILTER_HANDLE handle, const char *input, const char *output, const char *preview,
                           const int *rects, int count, int width, int height, int type);
using GET_FILTER_CODE = int(FILTER_HANDLE handle);

// Raw frames: a binary PGM ("P5"), 16-bit big-endian samples with maxval
// 4095, holding the sensor's RGGB Bayer mosaic (row 0: R G R G ..., row 1:
// G B G B ...), linear light, black level 0.

} // namespace ZARN::StereoRotCamLibrary
