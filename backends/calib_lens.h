#pragma once

// The lens side of the reference calibration library: chessboard corners in
// a view, the fisheye model of the stitching library's lens tables, the
// calibration of one lens from its views, the rotation between two lenses
// from the views they share, and the angle of view a lens images.
//
// The model (ZARN_Common/StitchLibrary.h): a direction (x, y, z) in the
// lens frame at theta = atan2(|x, y|, z) from the axis images at
// theta_d = theta (1 + k1 theta^2 + k2 theta^4 + k3 theta^6 + k4 theta^8),
// pixel (fx theta_d x / |x, y| + cx, fy theta_d y / |x, y| + cy), pixel
// centres at whole numbers. It is OpenCV's fisheye model (cv::fisheye) with
// zero skew, but taken over the whole sphere: OpenCV's own projection
// measures theta as atan(|x, y| / z) and so holds only in front of the
// lens, while these lenses image up to 100 degrees and more from the axis.

#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace zarn_calib {

// The chessboard: columns x rows inner corners, square side in millimetres.
// Corner (i, j) (i across, j down) lies at (i, j, 0) squares in the board's
// frame, whose z points away from the side with the pattern. The outer
// square beside corner (0, 0) is black; columns + rows is odd, so that this
// tells the board's two half-turns apart.
struct BOARD {
    int mColumns = 0;
    int mRows = 0;
    double mSquare = 0;

    int corners() const noexcept { return mColumns * mRows; }
    // The corners in the board's frame, millimetres, row by row.
    std::vector<cv::Point3d> object_points() const;
};

// Intrinsics of one lens.
struct LENS {
    int mWidth = 0, mHeight = 0;
    double mFx = 0, mFy = 0, mCx = 0, mCy = 0;
    double mK[4] = {0, 0, 0, 0};

    // theta_d of theta.
    double distorted(double theta) const noexcept;
    // d theta_d / d theta.
    double slope(double theta) const noexcept;
    // The angle up to which theta_d grows with theta (at most pi).
    double monotonic_limit() const noexcept;
    // The image point of a lens-frame direction (any length but zero).
    cv::Point2d project(const cv::Vec3d &direction) const noexcept;
    // The unit direction imaged at a point; false where theta_d has no
    // inverse below `max_theta`.
    bool unproject(const cv::Point2d &point, cv::Vec3d &direction, double max_theta) const noexcept;
};

// One view of the board by one lens: its corners in the board's order and,
// once calibrated, the board's pose (X_lens = R X_board + t, millimetres).
struct VIEW {
    std::string mName; // what follows the lens's prefix in the file name
    std::vector<cv::Point2d> mCorners;
    cv::Vec3d mRvec, mTvec;
};

// The board's corners in a grey image, refined to a fraction of a pixel and
// put in the board's order (see BOARD); false when the board is not found
// whole.
bool find_corners(const cv::Mat &grey, const BOARD &board, std::vector<cv::Point2d> &corners);

// Calibrates a lens from its views (at least three): an initial fisheye
// calibration by OpenCV from the views that lie well inside the front
// hemisphere, the poses of the others from the unprojected corners, then a
// Levenberg-Marquardt refinement of the intrinsics and every pose over all
// views with the whole-sphere model. Fills each view's pose; returns the
// RMS reprojection error in pixels (the root of the mean squared distance
// between corner and reprojection), or a negative value when the
// calibration fails.
double calibrate(const BOARD &board, int width, int height, std::vector<VIEW> &views, LENS &lens);

// The rotation and translation from the first lens's frame to the second's
// (X_second = R X_first + T, millimetres) from the views both lenses took
// at one moment (matched by name): started from the mean of each moment's
// pair of poses, then refined together with the board's pose at each
// moment on both lenses' corners (the lenses' intrinsics held). `shared`
// receives how many moments were used; returns the RMS reprojection error
// of that fit in pixels, or a negative value without shared moments or
// when the fit fails.
double relative_pose(const BOARD &board, const LENS &first_lens, const std::vector<VIEW> &first,
                     const LENS &second_lens, const std::vector<VIEW> &second, cv::Matx33d &R, cv::Vec3d &T,
                     int &shared);

// The largest angle from the axis in degrees that the lens images: the
// image circle in the brightest value each pixel takes over the views (one
// 8-bit grey image), one pixel inside its edge, and never beyond where the
// distortion stops growing. A circle larger than the capture ends at the
// capture's corners.
double image_circle_angle(const LENS &lens, const cv::Mat &brightest);

} // namespace zarn_calib
