#pragma once

// Development of the stereo camera's raw frames and the merging of a view's
// exposures.
//
// Development: the RGGB mosaic is demosaiced (OpenCV's bilinear Bayer
// conversion), each channel is multiplied by its white-balance gain and
// clipped to the sensor's white, and the display curve 255 v^(1/2.2) turns
// the linear value v (0..1) into 8 bits. The curve is the camera's encoding
// gamma of ZARN::ImageProc::capture_gamma (), so a merge can undo it.
//
// Merging, per view, of the same view's exposures (darkest first):
// - exposure fusion (Mertens, stitch_core's fuse ());
// - radiance: the exposures' times relative to the brightest are measured
//   from the frames themselves (the ratio of linear light over the values
//   well exposed in both of two neighbouring exposures, all views together),
//   OpenCV's Debevec merge with the known response of the display curve
//   gives the radiance in the brightest exposure's scale, and a global tone
//   map brings it back to 8 bits: linear up to KNEE, above it a shoulder
//   KNEE + (1 - KNEE) t / (1 + t), t = (v - KNEE) / (1 - KNEE), that meets
//   the line smoothly and approaches white without reaching it, then the
//   display curve.

#include <opencv2/core.hpp>

#include <vector>

namespace zarn_stereo {

// White-balance gains accepted: finite, above 0, at most this.
inline constexpr double MAX_GAIN = 64;
// The tone map is linear below this linear value.
inline constexpr double KNEE = 0.8;

bool valid_gain(const double *gain);

// An 8-bit BGR image of a mosaic (CV_16UC1, 0..4095) with gains red,
// green, blue.
cv::Mat develop(const cv::Mat &mosaic, const double gain[3]);

// Exposure times of the groups (group g: its frames of every view, 8-bit
// BGR, one size per view), relative to the last (brightest) group.
std::vector<float> exposure_times(const std::vector<std::vector<cv::Mat>> &groups);

// The radiance merge and tone map of one view's exposures with their times.
cv::Mat merge_radiance(const std::vector<cv::Mat> &exposures, const std::vector<float> &times);

// The tone map of one linear value (any value >= 0) to 0..1, before the
// display curve.
double tone(double linear);

} // namespace zarn_stereo
