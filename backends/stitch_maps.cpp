#include "stitch_maps.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace zarn_stitch {

using ZARN::ImageProc;

namespace {

// Where a lens does not see a pixel, its tables point here: outside every
// capture, so remap writes the border colour, black.
constexpr float OUTSIDE = -16.0f;
// Pixels closer than this (in pixels of the capture) to the edge of a
// lens's view are left out of the exposure match: their bilinear
// neighbours may lie outside the image circle.
constexpr double MATCH_EDGE_PIXELS = 2.0;
// Grey levels the exposure match trusts.
constexpr int MATCH_DARKEST = 8;
constexpr int MATCH_BRIGHTEST = 247;

// Per-row results of the first pass over the panorama.
struct ROWS {
    cv::Mat mUpper;  // CV_32FC2, full height
    cv::Mat mLower;  // CV_32FC2, full height
    cv::Mat mWeight; // CV_32FC1, full height
    cv::Mat mBoth;   // CV_8UC1, full height
    std::vector<unsigned char> mUpperSees, mLowerSees;
};

double smoothstep(double t) { return t * t * (3 - 2 * t); }

void fixed_point(const cv::Mat &map, cv::Mat &map1, cv::Mat &map2) {
    if (map.empty()) {
        map1.release();
        map2.release();
        return;
    }
    cv::convertMaps(map, cv::noArray(), map1, map2, CV_16SC2, false);
}

} // namespace

PanoramaMaps build_maps(const LENS_TABLE &upper, const LENS_TABLE &lower, int width, int height) {
    ROWS r;
    r.mUpper.create(height, width, CV_32FC2);
    r.mLower.create(height, width, CV_32FC2);
    r.mWeight.create(height, width, CV_32FC1);
    r.mBoth.create(height, width, CV_8UC1);
    r.mUpperSees.assign(static_cast<std::size_t>(height), 0);
    r.mLowerSees.assign(static_cast<std::size_t>(height), 0);
    const double upper_edge = MATCH_EDGE_PIXELS * 2 / (upper.mFx + upper.mFy);
    const double lower_edge = MATCH_EDGE_PIXELS * 2 / (lower.mFx + lower.mFy);

    cv::parallel_for_(cv::Range(0, height), [&](const cv::Range &rows) {
        for (int v = rows.start; v < rows.end; ++v) {
            auto *up = r.mUpper.ptr<cv::Vec2f>(v);
            auto *down = r.mLower.ptr<cv::Vec2f>(v);
            auto *weight = r.mWeight.ptr<float>(v);
            auto *both = r.mBoth.ptr<unsigned char>(v);
            bool upper_sees = false, lower_sees = false;
            for (int u = 0; u < width; ++u) {
                double d[3];
                ImageProc::panorama_direction(u, v, width, height, d);
                double ux = OUTSIDE, uy = OUTSIDE, lx = OUTSIDE, ly = OUTSIDE;
                const double mu = ImageProc::lens_margin(upper, d, &ux, &uy);
                const double ml = ImageProc::lens_margin(lower, d, &lx, &ly);
                if (mu > 0) {
                    up[u] = cv::Vec2f(float(ux), float(uy));
                    upper_sees = true;
                } else {
                    up[u] = cv::Vec2f(OUTSIDE, OUTSIDE);
                }
                if (ml > 0) {
                    down[u] = cv::Vec2f(float(lx), float(ly));
                    lower_sees = true;
                } else {
                    down[u] = cv::Vec2f(OUTSIDE, OUTSIDE);
                }
                const double pu = std::max(mu, 0.0), pl = std::max(ml, 0.0);
                weight[u] = pu + pl > 0 ? float(smoothstep(pu / (pu + pl))) : 0.0f;
                both[u] = mu > upper_edge && ml > lower_edge ? 255 : 0;
            }
            r.mUpperSees[static_cast<std::size_t>(v)] = upper_sees;
            r.mLowerSees[static_cast<std::size_t>(v)] = lower_sees;
        }
    });

    PanoramaMaps maps;
    maps.mWidth = width;
    maps.mHeight = height;
    maps.mUpperEnd = 0;
    for (int v = 0; v < height; ++v)
        if (r.mUpperSees[static_cast<std::size_t>(v)])
            maps.mUpperEnd = v + 1;
    maps.mLowerBegin = height;
    for (int v = height - 1; v >= 0; --v)
        if (r.mLowerSees[static_cast<std::size_t>(v)])
            maps.mLowerBegin = v;
    if (maps.mUpperEnd > 0)
        fixed_point(r.mUpper.rowRange(0, maps.mUpperEnd), maps.mUpperMap1, maps.mUpperMap2);
    if (maps.mLowerBegin < height)
        fixed_point(r.mLower.rowRange(maps.mLowerBegin, height), maps.mLowerMap1, maps.mLowerMap2);
    if (maps.band_end() > maps.band_begin()) {
        maps.mWeight = r.mWeight.rowRange(maps.band_begin(), maps.band_end()).clone();
        maps.mBoth = r.mBoth.rowRange(maps.band_begin(), maps.band_end()).clone();
    }
    return maps;
}

namespace {

// Remaps the rows [first, last) of the panorama from one lens whose tables
// start at panorama row `origin`.
void remap_rows(const cv::Mat &capture, const cv::Mat &map1, const cv::Mat &map2, int origin, int first, int last,
                cv::Mat out) {
    if (last <= first)
        return;
    cv::remap(capture, out, map1.rowRange(first - origin, last - origin), map2.rowRange(first - origin, last - origin),
              cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
}

} // namespace

namespace {

// The gain of the lower lens's view of the band against the upper one's
// (match_exposure).
double exposure_of_views(const PanoramaMaps &maps, const cv::Mat &up, const cv::Mat &down, double &difference) {
    cv::Mat up_grey = up, down_grey = down;
    if (up.channels() == 3)
        cv::cvtColor(up, up_grey, cv::COLOR_BGR2GRAY);
    if (down.channels() == 3)
        cv::cvtColor(down, down_grey, cv::COLOR_BGR2GRAY);
    double su = 0, sl = 0;
    for (int y = 0; y < up_grey.rows; ++y) {
        const auto *pu = up_grey.ptr<unsigned char>(y);
        const auto *pl = down_grey.ptr<unsigned char>(y);
        const auto *pm = maps.mBoth.ptr<unsigned char>(y);
        for (int x = 0; x < up_grey.cols; ++x)
            if (pm[x] && pu[x] >= MATCH_DARKEST && pu[x] <= MATCH_BRIGHTEST && pl[x] >= MATCH_DARKEST &&
                pl[x] <= MATCH_BRIGHTEST) {
                su += pu[x];
                sl += pl[x];
            }
    }
    const double gain = sl > 0 ? std::clamp(su / sl, 0.25, 4.0) : 1.0;
    double sum = 0;
    long count = 0;
    for (int y = 0; y < up_grey.rows; ++y) {
        const auto *pu = up_grey.ptr<unsigned char>(y);
        const auto *pl = down_grey.ptr<unsigned char>(y);
        const auto *pm = maps.mBoth.ptr<unsigned char>(y);
        for (int x = 0; x < up_grey.cols; ++x)
            if (pm[x]) {
                sum += std::abs(double(pu[x]) - std::min(255.0, gain * pl[x]));
                ++count;
            }
    }
    difference = count ? sum / double(count) : 0;
    return gain;
}

} // namespace

double match_exposure(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double &difference) {
    difference = 0;
    const int a = maps.band_begin(), b = maps.band_end();
    if (b <= a)
        return 1;
    cv::Mat up(b - a, maps.mWidth, upper.type()), down(b - a, maps.mWidth, lower.type());
    remap_rows(upper, maps.mUpperMap1, maps.mUpperMap2, 0, a, b, up);
    remap_rows(lower, maps.mLowerMap1, maps.mLowerMap2, maps.mLowerBegin, a, b, down);
    return exposure_of_views(maps, up, down, difference);
}

void band_views(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double gain, cv::Mat &up,
                cv::Mat &down) {
    const int a = maps.band_begin(), b = maps.band_end();
    if (b <= a) {
        up.release();
        down.release();
        return;
    }
    up.create(b - a, maps.mWidth, CV_8UC3);
    down.create(b - a, maps.mWidth, CV_8UC3);
    remap_rows(upper, maps.mUpperMap1, maps.mUpperMap2, 0, a, b, up);
    remap_rows(lower, maps.mLowerMap1, maps.mLowerMap2, maps.mLowerBegin, a, b, down);
    if (gain != 1.0)
        down.convertTo(down, CV_8U, gain);
}

namespace {

// The panorama from the two lenses; the band's rows only with `band`.
void compose_rows(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double gain, cv::Mat &out,
                  bool band) {
    const int h = maps.mHeight;
    const int a = maps.band_begin(), b = maps.band_end();
    // Upper lens alone above the band (and the band itself, blended below).
    const int upper_rows = band ? maps.mUpperEnd : std::min(maps.mUpperEnd, a);
    remap_rows(upper, maps.mUpperMap1, maps.mUpperMap2, 0, 0, upper_rows, out.rowRange(0, upper_rows));
    // Neither lens between them, when they leave a gap.
    if (maps.mLowerBegin > maps.mUpperEnd)
        out.rowRange(maps.mUpperEnd, maps.mLowerBegin).setTo(cv::Scalar::all(0));
    // Lower lens alone below the band, scaled in place.
    if (h > b) {
        cv::Mat below = out.rowRange(b, h);
        remap_rows(lower, maps.mLowerMap1, maps.mLowerMap2, maps.mLowerBegin, b, h, below);
        if (gain != 1.0)
            below.convertTo(below, CV_8U, gain);
    }
    if (b <= a || !band)
        return;
    cv::Mat down(b - a, maps.mWidth, CV_8UC3);
    remap_rows(lower, maps.mLowerMap1, maps.mLowerMap2, maps.mLowerBegin, a, b, down);
    cv::parallel_for_(cv::Range(0, b - a), [&](const cv::Range &rows) {
        for (int y = rows.start; y < rows.end; ++y) {
            auto *po = out.ptr<unsigned char>(a + y);
            const auto *pl = down.ptr<unsigned char>(y);
            const auto *pw = maps.mWeight.ptr<float>(y);
            for (int x = 0; x < maps.mWidth; ++x) {
                const float w = pw[x];
                for (int c = 0; c < 3; ++c) {
                    const float l = std::min(255.0f, float(gain) * pl[3 * x + c]);
                    po[3 * x + c] = cv::saturate_cast<unsigned char>(w * po[3 * x + c] + (1 - w) * l);
                }
            }
        }
    });
}

} // namespace

void compose(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double gain, cv::Mat &out) {
    compose_rows(maps, upper, lower, gain, out, true);
}

void compose_around_band(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double gain,
                         cv::Mat &out) {
    compose_rows(maps, upper, lower, gain, out, false);
}

double vertical_fov(const LENS_TABLE &upper, const LENS_TABLE &lower) {
    constexpr int MERIDIANS = 180;
    constexpr int STEPS = 1800;
    constexpr double PI = std::numbers::pi;
    int smallest = STEPS;
    for (int m = 0; m < MERIDIANS; ++m) {
        const double lon = 2 * PI * m / MERIDIANS;
        int covered = 0;
        for (int s = 0; s < STEPS; ++s) {
            const double lat = PI / 2 - PI * (s + 0.5) / STEPS;
            const double d[3] = {std::cos(lat) * std::sin(lon), -std::sin(lat), std::cos(lat) * std::cos(lon)};
            if (ImageProc::lens_margin(upper, d) > 0 || ImageProc::lens_margin(lower, d) > 0)
                ++covered;
        }
        smallest = std::min(smallest, covered);
    }
    return 180.0 * smallest / STEPS;
}

} // namespace zarn_stitch
