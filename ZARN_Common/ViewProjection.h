#pragma once

// Flat perspective views cut from an equirectangular frame.
//
// The frame is a panorama in the frame of ImageProc: x east, y down, z
// north; column u of a frame W pixels wide looks at longitude
// 2 pi (u + 0.5) / W - pi (0 is north, pi / 2 east), row v of a frame H
// pixels high at latitude pi / 2 - pi (v + 0.5) / H.
//
// A view is a pinhole camera at the centre, W x H pixels, with a horizontal
// field of view fov (square pixels, the principal point at the image
// centre). Before any rotation it looks north, its x to the east and its y
// down. The rotations, in degrees, are applied in this order to the camera:
// roll about its line of sight (positive: the camera turns clockwise as the
// viewer sees it, so the scene turns counter-clockwise in the picture), then
// pitch (positive: up), then yaw (positive: to the east). Pixel (x, y) of
// the view looks along R_yaw R_pitch R_roll ((x + 0.5 - W / 2) / f,
// (y + 0.5 - H / 2) / f, 1) with f = (W / 2) / tan(fov / 2).
//
// Sampling: bilinear, on the level of an area-averaged pyramid of the frame
// (each level half the one before, rounded up) at which one pixel of the
// view's centre covers at least one pixel of the level, so a wide frame
// shrunk into a small view does not alias. Columns wrap around (the ±180
// degree edge is seamless); rows are clamped at the poles.

#include "__ORN__/orn_images.h"

namespace ZARN {

class ViewProjection {
public:
    struct VIEW {
        double mYaw = 0, mPitch = 0, mRoll = 0; // degrees
        double mFov = 90;                       // horizontal, degrees, in (0, 180)
        ORN::INDEX mWidth = 0, mHeight = 0;     // pixels of the view
    };

    // The rotation R_yaw R_pitch R_roll, row-major.
    static void rotation(const VIEW &view, double r[9]);
    // The unit direction (frame coordinates) through the view's point (x, y)
    // (pixel centres at half-integers: pixel (i, j) is at (i + 0.5, j + 0.5)).
    static void direction(const VIEW &view, double x, double y, double d[3]);
    // The pyramid level sampled for a view of a frame `frame_width` pixels
    // wide: the largest L with 2^L frame pixels per view pixel at most.
    static int level(const VIEW &view, ORN::INDEX frame_width);
    // The view (3 channels, 8 bits) of a frame of 3 channels, 8 bits, of at
    // least 2 x 1 pixels; `threads` rows are rendered at once (at least 1).
    static ORN::Image render(const ORN::Image &frame, const VIEW &view, int threads = 1);
};

} // namespace ZARN
