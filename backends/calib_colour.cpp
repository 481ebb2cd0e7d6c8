#include "calib_colour.h"

#include "ZARN_Common/ImageProc.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace zarn_calib {

// The classic chart's published sRGB values (D65), in reading order.
const unsigned char REFERENCE_SRGB[PATCHES][3] = {
    {115, 82, 68},   {194, 150, 130}, {98, 122, 157},  {87, 108, 67},   {133, 128, 177}, {103, 189, 170},
    {214, 126, 44},  {80, 91, 166},   {193, 90, 99},   {94, 60, 108},   {157, 188, 64},  {224, 163, 46},
    {56, 61, 150},   {70, 148, 73},   {175, 54, 60},   {231, 199, 31},  {187, 86, 149},  {8, 133, 161},
    {243, 243, 242}, {200, 200, 200}, {160, 160, 160}, {122, 122, 121}, {85, 85, 85},    {52, 52, 52},
};

const char *const PATCH_NAMES[PATCHES] = {
    "dark_skin",   "light_skin",   "blue_sky",  "foliage",     "blue_flower", "bluish_green",
    "orange",      "purplish_blue", "moderate_red", "purple",   "yellow_green", "orange_yellow",
    "blue",        "green",        "red",       "yellow",      "magenta",     "cyan",
    "white",       "neutral_8",    "neutral_6.5", "neutral_5", "neutral_3.5", "black",
};

namespace {

constexpr double PI = std::numbers::pi;
// The middle of a patch that is measured: this fraction of its side is
// left out on every side.
constexpr double PATCH_INSET = 0.2;
// A patch is clipped when this share of its measured pixels has a channel
// at 255.
constexpr double CLIPPED_SHARE = 0.01;
// Each neutral patch is at least this much brighter than the next darker.
constexpr double NEUTRAL_STEP = 1.15;
constexpr double MAX_TURN_DEGREES = 30;

double luminance(const RGB &c) { return 0.2126729 * c[0] + 0.7151522 * c[1] + 0.0721750 * c[2]; }

// Means of the patches' middles for one placement; false when a patch
// falls outside the capture or covers too few pixels.
bool measure(const cv::Mat &capture, const cv::Matx23d &to_image, const double *linear, CHART_READING &out) {
    cv::Matx23d to_chart;
    cv::invertAffineTransform(to_image, to_chart);
    for (int p = 0; p < PATCHES; ++p) {
        const int col = p % CHART_COLUMNS, row = p / CHART_COLUMNS;
        const double x0 = CHART_BORDER + col * (1 + CHART_GAP) + PATCH_INSET, x1 = x0 + 1 - 2 * PATCH_INSET;
        const double y0 = CHART_BORDER + row * (1 + CHART_GAP) + PATCH_INSET, y1 = y0 + 1 - 2 * PATCH_INSET;
        double left = 1e30, top = 1e30, right = -1e30, bottom = -1e30;
        for (const double cx : {x0, x1})
            for (const double cy : {y0, y1}) {
                const cv::Vec3d q(cx, cy, 1);
                const cv::Vec2d pixel = to_image * q;
                left = std::min(left, pixel[0]), right = std::max(right, pixel[0]);
                top = std::min(top, pixel[1]), bottom = std::max(bottom, pixel[1]);
            }
        if (left < 0 || top < 0 || right > capture.cols - 1 || bottom > capture.rows - 1)
            return false;
        RGB sum{0, 0, 0};
        int count = 0, clipped = 0;
        for (int y = static_cast<int>(std::ceil(top)); y <= static_cast<int>(std::floor(bottom)); ++y) {
            const auto *row_pixels = capture.ptr<cv::Vec3b>(y);
            for (int x = static_cast<int>(std::ceil(left)); x <= static_cast<int>(std::floor(right)); ++x) {
                const cv::Vec2d c = to_chart * cv::Vec3d(x, y, 1);
                if (c[0] < x0 || c[0] > x1 || c[1] < y0 || c[1] > y1)
                    continue;
                const cv::Vec3b v = row_pixels[x];
                sum[0] += linear[v[2]], sum[1] += linear[v[1]], sum[2] += linear[v[0]];
                clipped += v[0] == 255 || v[1] == 255 || v[2] == 255;
                ++count;
            }
        }
        if (count < 9)
            return false;
        out.mMeans[static_cast<std::size_t>(p)] = {sum[0] / count, sum[1] / count, sum[2] / count};
        out.mClipped[static_cast<std::size_t>(p)] = clipped > CLIPPED_SHARE * count;
    }
    return true;
}

bool neutral_ramp(const CHART_READING &r) {
    for (int p = WHITE_PATCH; p + 1 < PATCHES; ++p)
        if (!(luminance(r.mMeans[static_cast<std::size_t>(p)]) >
              NEUTRAL_STEP * luminance(r.mMeans[static_cast<std::size_t>(p + 1)])))
            return false;
    return true;
}

} // namespace

double srgb_to_linear(double value) {
    const double v = value / 255;
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

double linear_to_srgb(double light) {
    const double v = light <= 0.0031308 ? 12.92 * light : 1.055 * std::pow(light, 1 / 2.4) - 0.055;
    return 255 * v;
}

std::optional<CHART_READING> read_chart(const cv::Mat &capture) {
    double linear[256];
    for (int v = 0; v < 256; ++v)
        linear[v] = std::pow(v / 255.0, ZARN::ImageProc::capture_gamma());
    cv::Mat grey, dark;
    cv::cvtColor(capture, grey, cv::COLOR_BGR2GRAY);
    // The frame and the darker patches against the lighter background.
    cv::threshold(grey, dark, 0, 255, cv::THRESH_BINARY_INV | cv::THRESH_OTSU);
    std::vector<std::vector<cv::Point>> contours;
    cv::findContours(dark, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
    std::vector<std::pair<double, std::size_t>> order;
    for (std::size_t i = 0; i < contours.size(); ++i)
        order.emplace_back(-cv::contourArea(contours[i]), i);
    std::sort(order.begin(), order.end());
    const double least = 0.01 * capture.cols * capture.rows;
    for (const auto &[negative_area, i] : order) {
        if (-negative_area < least)
            break;
        const cv::RotatedRect box = cv::minAreaRect(contours[i]);
        if (-negative_area < 0.85 * box.size.area())
            continue;
        cv::Point2f corners[4];
        box.points(corners);
        cv::Vec2d a(corners[1].x - corners[0].x, corners[1].y - corners[0].y);
        cv::Vec2d b(corners[2].x - corners[1].x, corners[2].y - corners[1].y);
        if (cv::norm(a) < cv::norm(b))
            std::swap(a, b);
        const double length = cv::norm(a), width = cv::norm(b);
        if (length < 1 || width < 1)
            continue;
        const double aspect = length / width;
        if (aspect < 0.9 * CHART_WIDTH / CHART_HEIGHT || aspect > 1.1 * CHART_WIDTH / CHART_HEIGHT)
            continue;
        cv::Vec2d e1 = a / length;
        if (e1[0] < 0)
            e1 = -e1;
        if (std::abs(std::atan2(e1[1], e1[0])) > MAX_TURN_DEGREES * PI / 180)
            continue;
        const cv::Vec2d e2(-e1[1], e1[0]);
        const double sx = length / CHART_WIDTH, sy = width / CHART_HEIGHT;
        // Upright, or turned by half a turn: the neutral row tells.
        for (const double side : {1.0, -1.0}) {
            const cv::Vec2d u = side * sx * e1, v = side * sy * e2;
            const cv::Vec2d origin = cv::Vec2d(box.center.x, box.center.y) - u * (CHART_WIDTH / 2) - v * (CHART_HEIGHT / 2);
            CHART_READING reading;
            reading.mPlace.mToImage = cv::Matx23d(u[0], v[0], origin[0], u[1], v[1], origin[1]);
            if (measure(capture, reading.mPlace.mToImage, linear, reading) && neutral_ramp(reading))
                return reading;
        }
    }
    return std::nullopt;
}

bool fit_correction(const std::array<RGB, PATCHES> &measured, const std::array<bool, PATCHES> &skip, int anchor,
                    cv::Matx33d &matrix) {
    std::vector<int> used;
    for (int p = 0; p < PATCHES; ++p)
        if (!skip[static_cast<std::size_t>(p)])
            used.push_back(p);
    if (used.size() < 4 || skip[static_cast<std::size_t>(anchor)])
        return false;
    const RGB &m_a = measured[static_cast<std::size_t>(anchor)];
    for (int c = 0; c < 3; ++c) {
        // Least squares of one output channel with the anchor met exactly:
        // [M'M m_a; m_a' 0] [x; mu] = [M'r; r_a].
        cv::Matx44d A = cv::Matx44d::zeros();
        cv::Vec4d rhs(0, 0, 0, 0);
        for (int p : used) {
            const RGB &m = measured[static_cast<std::size_t>(p)];
            const double r = srgb_to_linear(REFERENCE_SRGB[p][c]);
            for (int i = 0; i < 3; ++i) {
                rhs[i] += m[static_cast<std::size_t>(i)] * r;
                for (int j = 0; j < 3; ++j)
                    A(i, j) += m[static_cast<std::size_t>(i)] * m[static_cast<std::size_t>(j)];
            }
        }
        for (int i = 0; i < 3; ++i)
            A(i, 3) = A(3, i) = m_a[static_cast<std::size_t>(i)];
        rhs[3] = srgb_to_linear(REFERENCE_SRGB[anchor][c]);
        cv::Vec4d x;
        if (!cv::solve(A, rhs, x, cv::DECOMP_SVD))
            return false;
        for (int j = 0; j < 3; ++j)
            matrix(c, j) = x[j];
    }
    for (int i = 0; i < 9; ++i)
        if (!std::isfinite(matrix.val[i]))
            return false;
    return true;
}

RGB linear_srgb_to_lab(const RGB &c) {
    const double X = 0.4124564 * c[0] + 0.3575761 * c[1] + 0.1804375 * c[2];
    const double Y = 0.2126729 * c[0] + 0.7151522 * c[1] + 0.0721750 * c[2];
    const double Z = 0.0193339 * c[0] + 0.1191920 * c[1] + 0.9503041 * c[2];
    const auto f = [](double t) {
        constexpr double d = 6.0 / 29;
        return t > d * d * d ? std::cbrt(t) : t / (3 * d * d) + 4.0 / 29;
    };
    const double fx = f(X / 0.95047), fy = f(Y / 1.0), fz = f(Z / 1.08883);
    return {116 * fy - 16, 500 * (fx - fy), 200 * (fy - fz)};
}

double delta_e_2000(const RGB &lab1, const RGB &lab2) {
    const auto degrees = [](double r) { return r * 180 / PI; };
    const auto radians = [](double d) { return d * PI / 180; };
    const double L1 = lab1[0], a1 = lab1[1], b1 = lab1[2];
    const double L2 = lab2[0], a2 = lab2[1], b2 = lab2[2];
    const double C1 = std::hypot(a1, b1), C2 = std::hypot(a2, b2);
    const double C_mean = (C1 + C2) / 2;
    const double C7 = std::pow(C_mean, 7);
    const double G = 0.5 * (1 - std::sqrt(C7 / (C7 + std::pow(25.0, 7))));
    const double a1p = (1 + G) * a1, a2p = (1 + G) * a2;
    const double C1p = std::hypot(a1p, b1), C2p = std::hypot(a2p, b2);
    const auto hue = [&](double b, double ap) {
        if (b == 0 && ap == 0)
            return 0.0;
        const double h = degrees(std::atan2(b, ap));
        return h < 0 ? h + 360 : h;
    };
    const double h1p = hue(b1, a1p), h2p = hue(b2, a2p);
    const double dLp = L2 - L1, dCp = C2p - C1p;
    double dhp = 0;
    if (C1p * C2p != 0) {
        dhp = h2p - h1p;
        if (dhp > 180)
            dhp -= 360;
        else if (dhp < -180)
            dhp += 360;
    }
    const double dHp = 2 * std::sqrt(C1p * C2p) * std::sin(radians(dhp / 2));
    const double Lp_mean = (L1 + L2) / 2, Cp_mean = (C1p + C2p) / 2;
    double hp_mean = h1p + h2p;
    if (C1p * C2p != 0) {
        if (std::abs(h1p - h2p) <= 180)
            hp_mean = (h1p + h2p) / 2;
        else
            hp_mean = h1p + h2p < 360 ? (h1p + h2p + 360) / 2 : (h1p + h2p - 360) / 2;
    }
    const double T = 1 - 0.17 * std::cos(radians(hp_mean - 30)) + 0.24 * std::cos(radians(2 * hp_mean)) +
                     0.32 * std::cos(radians(3 * hp_mean + 6)) - 0.20 * std::cos(radians(4 * hp_mean - 63));
    const double d_theta = 30 * std::exp(-((hp_mean - 275) / 25) * ((hp_mean - 275) / 25));
    const double Cp7 = std::pow(Cp_mean, 7);
    const double R_C = 2 * std::sqrt(Cp7 / (Cp7 + std::pow(25.0, 7)));
    const double S_L = 1 + 0.015 * (Lp_mean - 50) * (Lp_mean - 50) / std::sqrt(20 + (Lp_mean - 50) * (Lp_mean - 50));
    const double S_C = 1 + 0.045 * Cp_mean, S_H = 1 + 0.015 * Cp_mean * T;
    const double R_T = -std::sin(radians(2 * d_theta)) * R_C;
    const double l = dLp / S_L, c = dCp / S_C, h = dHp / S_H;
    return std::sqrt(l * l + c * c + h * h + R_T * c * h);
}

std::vector<float> shading_gains(const cv::Mat &flat, int cell, int &columns, int &rows, double &brightest) {
    const int w = flat.cols, h = flat.rows;
    columns = (w + cell - 1) / cell;
    rows = (h + cell - 1) / cell;
    const auto cells = static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows);
    // First the plain means, for the level that counts as lit.
    std::vector<double> sum(cells, 0.0);
    std::vector<int> count(cells, 0);
    for (int y = 0; y < h; ++y) {
        const float *row = flat.ptr<float>(y);
        for (int x = 0; x < w; ++x) {
            const std::size_t c = static_cast<std::size_t>(y / cell) * static_cast<std::size_t>(columns) +
                                  static_cast<std::size_t>(x / cell);
            sum[c] += row[x];
            ++count[c];
        }
    }
    double peak = 0;
    for (std::size_t c = 0; c < cells; ++c)
        peak = std::max(peak, sum[c] / count[c]);
    brightest = 0;
    if (!(peak > 0))
        return {};
    const double lit_level = 0.25 * peak;
    std::vector<double> lit_sum(cells, 0.0);
    std::vector<int> lit(cells, 0);
    for (int y = 0; y < h; ++y) {
        const float *row = flat.ptr<float>(y);
        for (int x = 0; x < w; ++x)
            if (row[x] > lit_level) {
                const std::size_t c = static_cast<std::size_t>(y / cell) * static_cast<std::size_t>(columns) +
                                      static_cast<std::size_t>(x / cell);
                lit_sum[c] += row[x];
                ++lit[c];
            }
    }
    std::vector<double> mean(cells, 0.0);
    std::vector<std::size_t> measured;
    for (std::size_t c = 0; c < cells; ++c)
        if (lit[c] > 0 && 4 * lit[c] >= count[c]) {
            mean[c] = lit_sum[c] / lit[c];
            brightest = std::max(brightest, mean[c]);
            measured.push_back(c);
        }
    if (measured.empty() || !(brightest > 0))
        return {};
    std::vector<float> gains(cells, 1.0f);
    for (std::size_t c = 0; c < cells; ++c) {
        std::size_t from = c;
        if (!(4 * lit[c] >= count[c] && lit[c] > 0)) {
            // The nearest measured cell, the first in reading order on a tie.
            long best = -1;
            const long cx = static_cast<long>(c % static_cast<std::size_t>(columns)),
                       cy = static_cast<long>(c / static_cast<std::size_t>(columns));
            for (std::size_t m : measured) {
                const long dx = static_cast<long>(m % static_cast<std::size_t>(columns)) - cx;
                const long dy = static_cast<long>(m / static_cast<std::size_t>(columns)) - cy;
                const long d = dx * dx + dy * dy;
                if (best < 0 || d < best) {
                    best = d;
                    from = m;
                }
            }
        }
        gains[c] = std::max(1.0f, static_cast<float>(brightest / mean[from]));
    }
    return gains;
}

} // namespace zarn_calib
