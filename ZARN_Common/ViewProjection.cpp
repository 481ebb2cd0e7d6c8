#include "ZARN_Common/ViewProjection.h"

#ifndef _WIN32
#include "ZARN_Common/ImageProc.h"

#include <opencv2/imgproc.hpp>
#endif

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace ZARN {

using ORN::INDEX;

namespace {

constexpr double DEG = std::numbers::pi / 180.0;

// atan(t) for |t| <= 1, within 1e-5 radians (a small fraction of a pixel of
// a 16384 wide frame).
inline float atan_unit(float t) {
    const float s = t * t;
    return t * (0.99997726f +
                s * (-0.33262347f + s * (0.19354346f + s * (-0.11643287f + s * (0.05265332f + s * -0.01172120f)))));
}

// atan2(y, x) from the same polynomial, without branches the compiler
// cannot turn into selects.
inline float atan2_fast(float y, float x) {
    const float ax = std::fabs(x), ay = std::fabs(y);
    const bool steep = ay > ax;
    const float big = steep ? ay : ax, small = steep ? ax : ay;
    float a = big > 0 ? atan_unit(small / big) : 0.0f;
    a = steep ? float(std::numbers::pi / 2) - a : a;
    a = x < 0 ? float(std::numbers::pi) - a : a;
    return y < 0 ? -a : a;
}

} // namespace

void ViewProjection::rotation(const VIEW &view, double r[9]) {
    const double cy = std::cos(view.mYaw * DEG), sy = std::sin(view.mYaw * DEG);
    const double cp = std::cos(view.mPitch * DEG), sp = std::sin(view.mPitch * DEG);
    const double cr = std::cos(view.mRoll * DEG), sr = std::sin(view.mRoll * DEG);
    // Yaw about y (z toward x), pitch about x (z toward -y), roll about z
    // (x toward y).
    const double yaw[9] = {cy, 0, sy, 0, 1, 0, -sy, 0, cy};
    const double pitch[9] = {1, 0, 0, 0, cp, -sp, 0, sp, cp};
    const double roll[9] = {cr, -sr, 0, sr, cr, 0, 0, 0, 1};
    double yp[9];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            yp[3 * i + j] = 0;
            for (int k = 0; k < 3; ++k)
                yp[3 * i + j] += yaw[3 * i + k] * pitch[3 * k + j];
        }
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            r[3 * i + j] = 0;
            for (int k = 0; k < 3; ++k)
                r[3 * i + j] += yp[3 * i + k] * roll[3 * k + j];
        }
}

void ViewProjection::direction(const VIEW &view, double x, double y, double d[3]) {
    double r[9];
    rotation(view, r);
    const double f = 0.5 * double(view.mWidth) / std::tan(0.5 * view.mFov * DEG);
    const double c[3] = {(x - 0.5 * double(view.mWidth)) / f, (y - 0.5 * double(view.mHeight)) / f, 1.0};
    const double n = std::sqrt(c[0] * c[0] + c[1] * c[1] + 1.0);
    for (int i = 0; i < 3; ++i)
        d[i] = (r[3 * i] * c[0] + r[3 * i + 1] * c[1] + r[3 * i + 2] * c[2]) / n;
}

int ViewProjection::level(const VIEW &view, INDEX frame_width) {
    // At the view's centre one pixel spans 1 / f radians; a frame pixel at
    // level L spans 2 pi 2^L / width.
    const double f = 0.5 * double(view.mWidth) / std::tan(0.5 * view.mFov * DEG);
    const double ratio = double(frame_width) / (2.0 * std::numbers::pi * f);
    int level = 0;
    while (level < 30 && ratio >= double(INDEX(2) << level))
        ++level;
    return level;
}

// The Windows build has no OpenCV: its render is in ViewProjection_windows.cpp.
#ifndef _WIN32
ORN::Image ViewProjection::render(const ORN::Image &frame, const VIEW &view, int threads) {
    _DYNAMIC_ASSERT_(frame.channels () == 3 && frame.depth () == ORN::ImageDepth::U8);
    _DYNAMIC_ASSERT_(frame.width () >= 2 && frame.height () >= 1);
    _DYNAMIC_ASSERT_(view.mWidth >= 1 && view.mHeight >= 1 && view.mFov > 0 && view.mFov < 180);

    // The pyramid down to the level sampled; level 0 is the frame itself.
    cv::Mat source = ImageProc::mat(frame);
    for (int l = level(view, frame.width()); l > 0 && source.cols >= 4 && source.rows >= 2; --l) {
        cv::Mat half;
        cv::resize(source, half, cv::Size((source.cols + 1) / 2, (source.rows + 1) / 2), 0, 0, cv::INTER_AREA);
        source = half;
    }

    ORN::Image out(view.mWidth, view.mHeight, 3, ORN::ImageDepth::U8);
    double r[9];
    rotation(view, r);
    const double f = 0.5 * double(view.mWidth) / std::tan(0.5 * view.mFov * DEG);
    const int width = source.cols, height = source.rows;
    const float u_scale = float(width / (2.0 * std::numbers::pi)), u_offset = float(0.5 * width - 0.5);
    const float v_scale = float(height / std::numbers::pi), v_offset = float(0.5 * height - 0.5);
    const float v_last = float(height - 1);
    const INDEX step = INDEX(source.step[0]);
    const unsigned char *base = source.data;
    const int out_width = static_cast<int>(view.mWidth), out_height = static_cast<int>(view.mHeight);

#pragma omp parallel for num_threads(std::max(threads, 1)) schedule(static)
    for (int j = 0; j < out_height; ++j) {
        // The ray through (x + 0.5, j + 0.5) is d0 + x dx: linear along a row.
        const double cy = (j + 0.5 - 0.5 * out_height) / f, cx0 = (0.5 - 0.5 * out_width) / f;
        float d0[3], dx[3];
        for (int i = 0; i < 3; ++i) {
            d0[i] = float(r[3 * i] * cx0 + r[3 * i + 1] * cy + r[3 * i + 2]);
            dx[i] = float(r[3 * i] / f);
        }
        unsigned char *row = out.row<unsigned char>(j);
        for (int x = 0; x < out_width; ++x) {
            const float px = d0[0] + float(x) * dx[0], py = d0[1] + float(x) * dx[1], pz = d0[2] + float(x) * dx[2];
            const float lon = atan2_fast(px, pz);
            const float lat = atan2_fast(-py, std::sqrt(px * px + pz * pz));
            float u = lon * u_scale + u_offset;
            float v = std::clamp(v_offset - lat * v_scale, 0.0f, v_last);
            const float u_floor = std::floor(u), v_floor = std::floor(v);
            const float fu = u - u_floor, fv = v - v_floor;
            int x0 = static_cast<int>(u_floor);
            x0 = x0 < 0 ? x0 + width : (x0 >= width ? x0 - width : x0);
            const int x1 = x0 + 1 == width ? 0 : x0 + 1;
            const int y0 = static_cast<int>(v_floor), y1 = std::min(y0 + 1, height - 1);
            const unsigned char *a = base + y0 * step, *b = base + y1 * step;
            const float w00 = (1 - fu) * (1 - fv), w01 = fu * (1 - fv), w10 = (1 - fu) * fv, w11 = fu * fv;
            for (int c = 0; c < 3; ++c) {
                const float value = w00 * a[3 * x0 + c] + w01 * a[3 * x1 + c] + w10 * b[3 * x0 + c] +
                                    w11 * b[3 * x1 + c];
                row[3 * x + c] = static_cast<unsigned char>(value + 0.5f);
            }
        }
    }
    return out;
}

#endif

} // namespace ZARN
