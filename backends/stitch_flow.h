#pragma once

// Flow-aligned seams of the stitching library: the two lenses' views of the
// overlap band are aligned by dense optical flow before they are blended, so
// that a near object, which the two lens centres see from a few centimetres
// apart, is neither doubled nor cut at the seam.
//
// Given the two views of a piece of the panorama (the upper lens's U, the
// lower lens's L after its gain) and the upper lens's share w of each pixel
// (stitch_maps.h), the flow F from U to L (U(p) ~ L(p + F(p))) is estimated
// on grey levels by OpenCV's DIS, and each view is moved part of the way:
//
//   out(p) = w U(p - (1 - t) F(p)) + (1 - w) L(p + t F(p))
//
// t is one half over the band's middle: both views are brought to where
// the rig's centre, half-way between the lenses, sees the scene, which is
// what the panorama shows. Over the band's edges (w within 0.1 of 1 or of
// 0) t turns to w's side, 1 where only the upper lens sees the pixel and 0
// where only the lower one does, so that the band meets the rows each lens
// fills alone without a cut. Where one lens does not see a pixel, its view
// is filled with the other's before the flow, so the flow there is nil.
//
// The flow is estimated at a quarter of the panorama's resolution: the
// disparity of a near object is smooth over tens of pixels, and its size
// (a few degrees) is found as well as at half resolution (docs/PERFORMANCE.md
// compares them) at a fifth of the cost.
//
// DIS runs with its spatial propagation off: with it, the result depends on
// how many stripes OpenCV splits the image into, which is its thread count.
// Without it every patch is searched on its own, and the flow is the same
// bytes on every machine, thread count and worker.

#include "stitch_maps.h"

#include <opencv2/core.hpp>

namespace zarn_stitch {

// How the flow is estimated.
struct FLOW_SETTINGS {
    int mScale;         // the flow is estimated at 1/mScale of the panorama's resolution (1, 2 or 4)
    int mPatch;         // DIS patch size, pixels of the estimate
    int mStride;        // DIS patch stride
    int mIterations;    // DIS gradient-descent iterations per patch
    int mRefinement;    // variational refinement iterations (0: none)
    int mContext;       // pixels of context around a repaired region that the flow also sees
};

// The seam of every stitched panorama: quarter resolution, fast.
inline constexpr FLOW_SETTINGS SEAM_FLOW{4, 8, 4, 16, 5, 0};
// The re-alignment of a repaired region: twice the seam's resolution and
// 64 pixels of context on every side. Full resolution with denser patches
// and more refinement gains 0.03 dB on a 512 x 512 region of a 4096-wide
// panorama (0.35 dB on the small regions of a 1024-wide one) at about three
// times the region's flow time.
inline constexpr FLOW_SETTINGS REPAIR_FLOW{2, 8, 4, 16, 5, 64};

// The flow-aligned blend of one piece of the panorama: `upper` and `lower`
// the two views (CV_8UC3, black where a lens does not see), the lower one
// before `gain`, `weight` the upper lens's share (CV_32FC1); `wrap`: the
// piece is the panorama's whole width, whose left and right edges meet.
// Writes `out` (CV_8UC3, the size of the views; may be allocated by the
// caller). Where the flow is nil the pixels are compose's, to the bit.
void flow_blend(const cv::Mat &upper, const cv::Mat &lower, double gain, const cv::Mat &weight,
                const FLOW_SETTINGS &settings, bool wrap, cv::Mat &out);

// As compose (stitch_maps.h), the band aligned by flow_blend with SEAM_FLOW.
void compose_flow(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double gain, cv::Mat &out);

} // namespace zarn_stitch
