#pragma once

// The capture generator's stereo camera and region files (zarn_capture
// --stereo, --regions): a scene handed in by the generator is rendered
// through the stereo rotating camera of backends/asset/distortion.txt into
// raw frames whose right answer is known.
//
// A stereo job (paths relative to the job):
//
//   captures/stereo_NNN_gG_vK.pgm   raw frame of point N, exposure group G
//                                   (0..2, darkest first, EXPOSURES), view K
//                                   (0..5: lens K % 2 at head position K / 2)
//   captures/stereo_video_NNN_up.avi, _down.avi, _up_short.avi,
//                   _down_short.avi video streams of the two lenses at
//                                   position 0, developed (Motion-JPEG), the
//                                   short ones at SHORT_EXPOSURE
//   truth/stereo_NNN.png            the panorama the upper lens's normal
//                                   exposure (group 2) would give, W x W/2
//   truth/distortion.txt            the camera's distortion table (the
//                                   text of backends/asset/distortion.txt)
//   caches/stitch_data.json         the stereo stitch plan of them all
//
// Raw frames: 16-bit big-endian PGM, maxval 4095, RGGB mosaic of the
// radiance x exposure x the lens's sensitivity (the lower lens is
// LOWER_SENSITIVITY of the upper) x the sensor's colour cast CAST; the
// plan's "gain" is the cast's inverse, so developing with it gives back the
// scene's colours.
//
// Region file "extras/image-ROI.json" (--regions): one record per panorama
// of the job, with rectangles (in a frame of W x W/2, the panorama at the
// generator's width) around the scene's features that stand for faces and
// number plates. A feature across the panorama's left and right edges gets
// one rectangle on each side.

#include "stereo_rig.h"

#include <array>
#include <functional>
#include <string>
#include <vector>

namespace zarn_capture {

using RGB = std::array<double, 3>; // linear radiance, red green blue
using POINT3 = std::array<double, 3>;

// The scene the generator renders.
struct SCENE {
    // Radiance seen from capture point `point` at video frame `frame` (0 for
    // still captures) along the unit direction d (panorama frame: x east,
    // y down, z north).
    std::function<RGB(int point, int frame, const double d[3])> mRadiance;
    // Where capture point `point` stands (panorama frame, metres).
    std::function<POINT3(int point)> mEye;
    // Flat features to hide, each given by its four corners in order.
    std::vector<std::array<POINT3, 4>> mFeatures;
};

// Exposure groups, darkest first; the last is the normal exposure.
inline constexpr double EXPOSURES[3] = {0.125, 0.35, 1.0};
inline constexpr double SHORT_EXPOSURE = 0.25;
inline constexpr double LOWER_SENSITIVITY = 0.85;
// The sensor's response to red, green and blue light.
inline constexpr double CAST[3] = {0.52, 1.0, 0.71};

// The stereo camera the generator renders through.
zarn_stereo::RIG stereo_camera();
// Its distortion table's text.
std::string stereo_distortion_table();

struct STEREO_JOB {
    std::string mJob;
    int mWidth = 512; // of the truth panoramas
    int mPoints = 2;
    int mVideos = 1;
    int mFrames = 4;
};

// Writes the stereo job (its captures, truth and plan).
void make_stereo_job(const STEREO_JOB &job, const SCENE &scene);

// One rectangle of a region record, in pixels of the frame.
struct REGION {
    int mX, mY, mW, mH;
};
// The rectangles around the scene's features in the panorama of `point`,
// width x height.
std::vector<REGION> feature_regions(const SCENE &scene, int point, int width, int height);
// Writes "extras/image-ROI.json" of the job: one record per name, name k
// being the panorama of point k.
void write_regions(const std::string &job, const std::vector<std::string> &names, int width, const SCENE &scene);

} // namespace zarn_capture
