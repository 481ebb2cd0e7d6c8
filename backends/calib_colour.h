#pragma once

// The colour side of the reference calibration library: the 24-patch colour
// chart (finding it, measuring its patches), the colour correction matrix,
// the CIEDE2000 colour difference, and the shading map of a flat field.
//
// The chart: 6 x 4 square patches of side P in the classic chart's order
// (dark skin, light skin, blue sky, ... in the first row; white, neutral 8,
// 6.5, 5, 3.5, black in the last), gaps of P / 4 between them, on a dark
// frame reaching P / 2 beyond the outer patches, so the chart is 8.25 P x
// 5.75 P; it lies on a neutral background lighter than its frame, upright
// or turned by up to 30 degrees. The patches' colours are the published
// 8-bit sRGB values of the classic chart (REFERENCE_SRGB).
//
// Captures are decoded to linear light with the capture gamma
// (ImageProc::capture_gamma: value = 255 light^(1 / gamma)).

#include <opencv2/core.hpp>

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace zarn_calib {

constexpr int PATCHES = 24;
constexpr int CHART_COLUMNS = 6, CHART_ROWS = 4;
// Chart geometry in patch sides.
constexpr double CHART_GAP = 0.25, CHART_BORDER = 0.5;
constexpr double CHART_WIDTH = 2 * CHART_BORDER + CHART_COLUMNS + (CHART_COLUMNS - 1) * CHART_GAP;
constexpr double CHART_HEIGHT = 2 * CHART_BORDER + CHART_ROWS + (CHART_ROWS - 1) * CHART_GAP;
// The first of the six neutral patches (white), in reading order.
constexpr int WHITE_PATCH = 18;

extern const unsigned char REFERENCE_SRGB[PATCHES][3];
extern const char *const PATCH_NAMES[PATCHES];

using RGB = std::array<double, 3>; // red, green, blue

// sRGB's transfer: an 8-bit value to linear light, and back (unclipped).
double srgb_to_linear(double value);
double linear_to_srgb(double light);

// Where a chart lies in a capture: chart coordinates (patch sides, top left
// corner of the frame at 0, 0, x along the patch rows) to pixels.
struct CHART_PLACE {
    cv::Matx23d mToImage;
};

// The chart in an 8-bit colour capture (blue-green-red), with the linear
// mean of each patch's middle (red, green, blue) and whether any of its
// pixels there is clipped; nothing when no chart is found.
struct CHART_READING {
    CHART_PLACE mPlace;
    std::array<RGB, PATCHES> mMeans;
    std::array<bool, PATCHES> mClipped;
};
std::optional<CHART_READING> read_chart(const cv::Mat &capture);

// The correction matrix (row-major, linear camera RGB to linear sRGB) that
// brings the measured patches nearest their references in the least-squares
// sense, with the anchor patch met exactly; patches flagged in `skip` take
// no part. False when fewer than four patches remain.
bool fit_correction(const std::array<RGB, PATCHES> &measured, const std::array<bool, PATCHES> &skip, int anchor,
                    cv::Matx33d &matrix);

// CIE L*a*b* (D65 white) of linear sRGB, and the CIEDE2000 difference.
RGB linear_srgb_to_lab(const RGB &rgb);
double delta_e_2000(const RGB &lab1, const RGB &lab2);

// The shading map of a flat field (mean of the captures' grey, one float
// channel): per cell of `cell` pixels, the gain that lifts its mean to the
// brightest cell's. Cells are measured over their lit pixels (above a
// quarter of the brightest cell's mean); a cell less than a quarter lit
// (beyond a fisheye's image circle) takes the gain of the nearest measured
// cell. Row-major, columns = ceil(width / cell); empty when nothing is lit.
std::vector<float> shading_gains(const cv::Mat &flat, int cell, int &columns, int &rows, double &brightest);

} // namespace zarn_calib
