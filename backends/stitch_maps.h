#pragma once

// The panorama side of the reference stitching library: remap tables from
// an equirectangular panorama into the two fisheye captures, the blend
// weights across their overlap, the exposure match of the lower lens, and
// the composition of one panorama.
//
// The upper lens fills the rows from the top down to the last row it sees,
// the lower lens the rows from the first row it sees to the bottom; rows
// both see form the band, where the two are feathered: the upper lens's
// share of a pixel is m_u / (m_u + m_l) eased by a smoothstep, m being how
// far inside each lens's view the pixel is (ImageProc::lens_margin). So the
// seam fades across the whole overlap around the horizon.

#include "ZARN_Common/ImageProc.h"

#include <opencv2/core.hpp>

namespace zarn_stitch {

using LENS_TABLE = ZARN::ImageProc::LENS_TABLE;

struct PanoramaMaps {
    int mWidth = 0;
    int mHeight = 0;
    int mUpperEnd = 0;   // rows [0, mUpperEnd) are remapped from the upper lens
    int mLowerBegin = 0; // rows [mLowerBegin, mHeight) from the lower lens
    // Fixed-point remap tables (cv::convertMaps, CV_16SC2 and CV_16UC1) of
    // those rows; pixels a lens does not see map outside its capture.
    cv::Mat mUpperMap1, mUpperMap2;
    cv::Mat mLowerMap1, mLowerMap2;
    // Rows [band_begin (), band_end ()): the upper lens's share (CV_32FC1)
    // and where both lenses see the pixel well inside their views (CV_8UC1,
    // 255), the pixels the exposure match compares.
    cv::Mat mWeight;
    cv::Mat mBoth;

    int band_begin() const noexcept { return mLowerBegin; }
    int band_end() const noexcept { return mUpperEnd > mLowerBegin ? mUpperEnd : mLowerBegin; }
};

// The tables of a width x height panorama from the two lenses.
PanoramaMaps build_maps(const LENS_TABLE &upper, const LENS_TABLE &lower, int width, int height);

// The gain that brings the lower lens to the upper lens's exposure, from the
// pixels both see in a panorama of the maps' size: the ratio of their grey
// sums over pixels neither clipped nor near black (1 when there are none),
// kept within [1/4, 4]. The captures are colour (CV_8UC3, compared by
// their grey levels) or grey levels already (CV_8UC1, a JPEG's luminance).
// `difference` receives the mean absolute grey difference over the overlap
// after the gain (0 without overlap).
double match_exposure(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double &difference);

// The two lenses' views of the band rows (band_end () - band_begin () rows
// of the maps' width, CV_8UC3, black where a lens does not see), the lower
// one scaled by gain; empty without a band.
void band_views(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double gain, cv::Mat &up,
                cv::Mat &down);

// Composes the panorama into `out` (the maps' size, CV_8UC3, allocated by
// the caller) from the two captures (CV_8UC3), the lower one scaled by gain.
void compose(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double gain, cv::Mat &out);
// As compose, the band's rows left as they are (for a blend of the caller's).
void compose_around_band(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double gain,
                         cv::Mat &out);

// The vertical field of view in degrees that the two lenses cover together:
// along each meridian, the covered part of its 180 degrees, sampled every
// 0.1 degree; the smallest over the meridians, sampled every 2 degrees.
double vertical_fov(const LENS_TABLE &upper, const LENS_TABLE &lower);

} // namespace zarn_stitch
