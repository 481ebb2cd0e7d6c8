#pragma once

// The C interface of the stitching library, "libStitch.so" ("Stitch.dll" on
// Windows), as the stitch process calls it and as the reference library in
// backends/ implements it. docs/BACKENDS.md describes every entry, argument,
// result code and file format in full; keep the two in step.
//
// The entries have C linkage and the platform's C calling convention. Their
// prototypes are not declared here: the stereo library exports the same
// names over other handle types, so each side spells its entries with the
// function types below (the reference library checks its definitions
// against them at compile time).

#include <cstdint>

namespace KIVO_Stitch {
struct KIVO_OptFlowStitchParams; // an image-stitch object, opaque to the caller
}
namespace KIVO_VideoStitch {
struct KIVO_VideoStitchParams; // a video-stitch object, opaque to the caller
}

namespace ZARN::StitchLibrary {

using IMAGE_HANDLE = KIVO_Stitch::KIVO_OptFlowStitchParams *;
using VIDEO_HANDLE = KIVO_VideoStitch::KIVO_VideoStitchParams *;

// Result codes of every entry that returns int, and of the get-code entries
// (the last result of an object).
enum RESULT : int {
    KIVO_OK = 0,
    KIVO_BAD_ARGUMENT = 1,     // a null handle or path, a size out of range, an unknown mode
    KIVO_BAD_TABLE = 2,        // a lens table is missing, unreadable or malformed
    KIVO_NOT_INITIALISED = 3,  // execute before a successful init
    KIVO_BAD_INPUT = 4,        // an input image or video is missing or does not decode
    KIVO_INPUT_MISMATCH = 5,   // an input's size differs from its lens table's capture size
    KIVO_WRITE_FAILED = 6,     // the output cannot be written
    KIVO_INJECTED_FAILURE = 7, // reserved for fault injection (any code may be injected)
};

// What a result code means, for the line that reports a failed call.
constexpr const char *meaning(long long code) noexcept {
    switch (code) {
    case KIVO_OK: return "success";
    case KIVO_BAD_ARGUMENT: return "bad argument (a null handle or path, a size out of range, an unknown mode)";
    case KIVO_BAD_TABLE: return "a lens table is missing, unreadable or malformed";
    case KIVO_NOT_INITIALISED: return "the object was not initialised";
    case KIVO_BAD_INPUT: return "an input image or video is missing or does not decode";
    case KIVO_INPUT_MISMATCH: return "an input's size differs from its lens table's capture size";
    case KIVO_WRITE_FAILED: return "an output cannot be written";
    default: return "not a documented code";
    }
}

// The third int of the image executes' `size`: the overlap band blended as
// the lenses' views fall, or aligned by optical flow first.
enum SEAM : int { SEAM_PLAIN = 0, SEAM_FLOW = 1 };

// The constant of the init entries: bits per channel of the outputs.
inline constexpr int OUTPUT_BITS = 8;
// Largest number of exposure brackets per lens of the HDR execute entry.
inline constexpr int MAX_BRACKETS = 4;

// ---------------------------------------------------------------------------
// Image stitching.

// Makes an image-stitch object; null when it cannot be made.
using CREATE_OPT_FLOW_STITCH = IMAGE_HANDLE();
// Releases the object; the handle is not used again.
using DESTROY_OPT_FLOW_STITCH = void(IMAGE_HANDLE handle);
// Reads the two lens tables (upper lens, lower lens) and prepares the
// panorama of width x height pixels; exposure between the lenses is matched
// on an estimate of estimate_width x estimate_height pixels. bits must be
// OUTPUT_BITS. Returns a RESULT.
using INIT_OPT_FLOW_STITCH = int(IMAGE_HANDLE handle, const char *upper_table, const char *lower_table, int width,
                                 int height, int estimate_width, int estimate_height, int bits);
// Stitches one capture: the upper and lower lens images into the panorama
// `output` (the format follows its extension: .jpg, .png, .tif). `size`
// points to three ints: the panorama's width and height (the init size or
// another one) and a SEAM, how the band where both lenses see is blended. `statistics`, when not null, receives two doubles: the gain
// applied to the lower lens and the mean absolute difference of the two
// lenses over their overlap, in grey levels after the gain. `name` is the
// capture point's name (any text, for the library's own messages; may be
// null). Returns a RESULT. Safe to call from several threads at once on one
// initialised object.
using EXECUTE_OPT_FLOW_STITCH = int(IMAGE_HANDLE handle, const char *upper, const char *lower, const char *output,
                                    const int *size, double *statistics, const char *name);
// Stitches one bracketed capture: for each lens, up to four exposures
// (upper_0..3 and lower_0..3, darkest first) are fused, then the two fused
// images are stitched into `output` as above. `brackets` (1 to 4) is how
// many of each lens's four paths are used; the unused ones may be null.
// Returns a RESULT. Thread-safe as the plain entry.
using EXECUTE_OPT_FLOW_STITCH_HDR = int(IMAGE_HANDLE handle, const char *upper_0, const char *upper_1,
                                        const char *upper_2, const char *upper_3, const char *lower_0,
                                        const char *lower_1, const char *lower_2, const char *lower_3,
                                        const char *output, const int *size, unsigned char brackets);
// The last result of the object's init or execute calls (of any thread).
using GET_OPT_FLOW_STITCH_CODE = int(IMAGE_HANDLE handle);

// Region repair methods (the fifth int of each region).
enum REPAIR_METHOD : int { REPAIR_AUTO = 0, REPAIR_UPPER = 1, REPAIR_LOWER = 2, REPAIR_FLOW = 3 };
// Largest number of regions of one repair call.
inline constexpr int MAX_REPAIR_REGIONS = 256;
// Repairs regions of a stitched panorama from its raw captures: `upper` and
// `lower` each point to `brackets` (1 to 4) paths, the lens's exposures
// darkest first (1: the plain capture); `panorama` is the stitcher's own
// output, `output` the repaired file written (never the same path); `size`
// points to two ints, the panorama's width and height (must match the
// panorama file); `regions` points to `count` (1 to 256) records of five
// ints: x, y, width, height (panorama pixels, inside it) and a
// REPAIR_METHOD. Pixels outside the regions (grown to the codec's block
// grid, docs/BACKENDS.md) are left exactly as in `panorama`. Returns a
// RESULT. Thread-safe as the execute entries.
using EXECUTE_PANO_REPAIR = int(IMAGE_HANDLE handle, const char *const *upper, const char *const *lower, int brackets,
                                const char *panorama, const char *output, const int *size, const int *regions,
                                int count);

// ---------------------------------------------------------------------------
// Video stitching.

using CREATE_VIDEO_STITCH = VIDEO_HANDLE();
using DESTROY_VIDEO_STITCH = void(VIDEO_HANDLE handle);
// Reads the two lens tables and prepares panorama frames of width x height
// pixels; bits must be OUTPUT_BITS. Returns a RESULT.
using INIT_VIDEO_STITCH = int(VIDEO_HANDLE handle, const char *upper_table, const char *lower_table, int width,
                              int height, int bits);
// Stitches one video record frame by frame: `upper` and `lower` are the two
// lenses' streams at the normal exposure, `upper_short` and `lower_short`
// the same scene at a shorter exposure (either may be null or "" when the
// record has none). The frames of each pair are fused, stitched and written
// as `output` (Motion-JPEG in an AVI container, the frame rate of `upper`),
// as many frames as the shortest stream has. `hdr_value` receives the
// exposure ratio of normal to short (1 without short streams), `fov` the
// vertical field of view in degrees that the two lenses cover together.
// Returns a RESULT. Thread-safe as the image entries.
using EXECUTE_VIDEO_STITCH = int(VIDEO_HANDLE handle, const char *upper, const char *lower, const char *upper_short,
                                 const char *lower_short, const char *output, double *hdr_value, double *fov);
using GET_VIDEO_STITCH_CODE = int(VIDEO_HANDLE handle);

// ---------------------------------------------------------------------------
// The lens table: one binary file per lens, all numbers little-endian,
// 168 bytes.
//
//   offset  size  field
//        0     8  magic "KIVOLENS"
//        8     4  int32 version, 1
//       12     4  int32 capture width in pixels
//       16     4  int32 capture height in pixels
//       20     4  zero
//       24   8x4  double fx, fy, cx, cy: focal lengths and principal point, pixels
//       56   8x4  double k1..k4: fisheye distortion, theta_d = theta (1 + k1 theta^2
//                 + k2 theta^4 + k3 theta^6 + k4 theta^8)
//       88   8x9  double R, row-major: turns a direction in the lens's frame
//                 (z along the optical axis, x right, y down in the image) into
//                 the panorama's frame (x east, y down, z north)
//      160     8  double the largest angle from the optical axis that the lens
//                 images, degrees
struct LENS_TABLE {
    char mMagic[8];
    std::int32_t mVersion;
    std::int32_t mWidth;
    std::int32_t mHeight;
    std::int32_t mZero;
    double mFx, mFy, mCx, mCy;
    double mK[4];
    double mRotation[9];
    double mMaxAngle;
};
static_assert(sizeof(LENS_TABLE) == 168, "the lens table is 168 bytes");
inline constexpr char LENS_TABLE_MAGIC[8] = {'K', 'I', 'V', 'O', 'L', 'E', 'N', 'S'};
inline constexpr std::int32_t LENS_TABLE_VERSION = 1;

} // namespace ZARN::StitchLibrary
