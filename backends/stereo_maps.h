#pragma once

// The panorama side of the stereo stitcher: remap tables from an
// equirectangular panorama into each view of the camera, the blend weights
// over every overlap, the exposure match of the views and the composition
// of one panorama. The projection is the stitching library's (ImageProc's
// lens model and panorama frame), with each view's rotated lens.
//
// A view's share of a pixel is m_k^2 / sum m_j^2, m being how far inside
// each view the pixel is (ImageProc::lens_margin): every seam fades across
// the whole overlap, and a view's share reaches 0 at the edge of its view.
// Each view's tables cover the rows its cone of view can reach (its largest
// angle around its axis), over the whole width.

#include "ZARN_Common/ImageProc.h"

#include <opencv2/core.hpp>

#include <vector>

namespace zarn_stereo {

using LENS_TABLE = ZARN::ImageProc::LENS_TABLE;

struct VIEW_MAPS {
    int mRowBegin = 0; // the rows [mRowBegin, mRowEnd) of the panorama
    int mRowEnd = 0;
    cv::Mat mMap1, mMap2; // fixed-point remap tables (CV_16SC2, CV_16UC1)
    cv::Mat mWeight;      // the view's share, CV_16UC1, 65535 = all
    cv::Mat mInside;      // CV_8UC1, 255 where the view sees the pixel well inside its view
};

struct MULTI_MAPS {
    int mWidth = 0;
    int mHeight = 0;
    std::vector<VIEW_MAPS> mViews;
    cv::Mat mCovered; // CV_8UC1, 255 where some view has a share
};

MULTI_MAPS build_multi_maps(const std::vector<LENS_TABLE> &views, int width, int height);

// Gains of the views (view 0 keeps 1) that bring each to the others'
// exposure: least squares on the logarithms of the ratios of grey sums over
// the pixels each pair sees (neither clipped nor near black), each kept
// within [1/4, 4]. `difference` receives the mean absolute grey difference
// of the pairs over those overlaps after the gains (0 without overlap).
std::vector<double> match_gains(const MULTI_MAPS &maps, const std::vector<cv::Mat> &views, double &difference);

// Composes the panorama into `out` (the maps' size, CV_8UC3, allocated by
// the caller) from the views (CV_8UC3), each scaled by its gain; pixels no
// view sees are black.
void compose_views(const MULTI_MAPS &maps, const std::vector<cv::Mat> &views, const std::vector<double> &gains,
                   cv::Mat &out);

} // namespace zarn_stereo
