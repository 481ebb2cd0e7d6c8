#pragma once

// The C interface of the calibration library, "libCalib.so" ("Calib.dll" on
// Windows), as the calibration process calls it and as the reference library
// in backends/ implements it. docs/BACKENDS.md describes every entry,
// argument, result code and file in full; keep the two in step.
//
// Three stages, one entry each, all with C linkage. Every path is a
// zero-terminated narrow string; every entry returns a RESULT.

#include <cstdint>

namespace ZARN::CalibLibrary {

enum RESULT : int {
    CALIB_OK = 0,
    CALIB_BAD_ARGUMENT = 1,   // a null or empty required string, a count or grid out of range
    CALIB_BAD_TARGET = 2,     // the calibration target's description is missing or malformed
    CALIB_NO_VIEWS = 3,       // too few chessboard views of a lens (fewer than 3 where the board is found)
    CALIB_NOT_CONVERGED = 4,  // a lens's calibration failed or its reprojection error is above 1 px
    CALIB_BAD_INPUT = 5,      // an input image is missing or does not decode
    CALIB_NO_CHART = 6,       // the colour chart is not found in any capture
    CALIB_SATURATED = 7,      // the flat field is saturated or too dark to measure shading
    CALIB_WRITE_FAILED = 8,   // an output cannot be written
};

// What a result code means, for the line that reports a failed stage.
constexpr const char *meaning(long long code) noexcept {
    switch (code) {
    case CALIB_OK: return "success";
    case CALIB_BAD_ARGUMENT: return "bad argument (a null or empty required string, a count or grid out of range)";
    case CALIB_BAD_TARGET: return "the calibration target's description is missing or malformed";
    case CALIB_NO_VIEWS: return "too few chessboard views of a lens (at least 3 where the board is found)";
    case CALIB_NOT_CONVERGED: return "a lens's calibration failed or its reprojection error is above 1 px";
    case CALIB_BAD_INPUT: return "an input image is missing or does not decode";
    case CALIB_NO_CHART: return "the colour chart is not found in any capture";
    case CALIB_SATURATED: return "the flat field is saturated or too dark to measure shading";
    case CALIB_WRITE_FAILED: return "an output cannot be written";
    default: return "not a documented code";
    }
}

// Camera calibration. `working_path` is the job directory: the chessboard
// views are "caches/calibration/up_*.{png,jpg}" and "down_*.{png,jpg}"
// (views with the same name after the prefix were taken at the same
// moment), the results are written into "caches/calib_result/". `target`
// is "asset/calib_target.txt", resolved against the current directory: the
// description of the chessboard.
using RUN_CALIB_MAIN = int(const char *working_path, const char *target);

// Colour analysis. `src1`..`src4` are captures of the colour chart (empty
// strings for the unused ones); `working_path` is the job directory, whose
// "caches/calib_result/" receives the results; `count` is how many of the
// four captures are given (1..4, the first `count` ones).
using RUN_ANALYSIS_MAIN = int(const char *src1, const char *src2, const char *src3, const char *src4,
                              const char *working_path, int count);

// Shading calibration. As the analysis entry, the captures being of a flat
// white field; `grid` is the cell size in pixels of the shading map written
// to "caches/calib_result/shadingCalibrate" (4..256).
using RUN_SHADING_MAIN = int(const char *src1, const char *src2, const char *src3, const char *src4,
                             const char *working_path, int count, int grid);

// The cell size of the shading map the calibration process asks for.
inline constexpr int SHADING_GRID = 32;

// "caches/calib_result/shadingCalibrate": the gain that flattens each cell
// of the image (multiply a pixel by the gain of its cell, interpolated
// bilinearly between cell centres). Little-endian:
//
//   offset  size  field
//        0     8  magic "KIVOSHAD"
//        8     4  int32 version, 1
//       12     4  int32 image width in pixels
//       16     4  int32 image height in pixels
//       20     4  int32 cell size in pixels
//       24     4  int32 columns = ceil(width / cell)
//       28     4  int32 rows = ceil(height / cell)
//       32  4xRxC float gains, row-major, cell (0, 0) first; the gain of the
//                 brightest cell is 1, every gain at least 1
struct SHADING_HEADER {
    char mMagic[8];
    std::int32_t mVersion;
    std::int32_t mWidth;
    std::int32_t mHeight;
    std::int32_t mCell;
    std::int32_t mColumns;
    std::int32_t mRows;
};
static_assert(sizeof(SHADING_HEADER) == 32, "the shading header is 32 bytes");
inline constexpr char SHADING_MAGIC[8] = {'K', 'I', 'V', 'O', 'S', 'H', 'A', 'D'};

} // namespace ZARN::CalibLibrary
