#include "stereo_maps.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace zarn_stereo {

using ZARN::ImageProc;

namespace {

constexpr double PI = std::numbers::pi;
// Where a view does not see a pixel, its tables point here: outside every
// capture, so remap gives black.
constexpr float OUTSIDE = -16.0f;
// Pixels closer than this (in pixels of the capture) to the edge of a
// view are left out of the exposure match: their bilinear neighbours may
// lie outside the image.
constexpr double MATCH_EDGE_PIXELS = 2.0;
// Grey levels the exposure match trusts.
constexpr int MATCH_DARKEST = 8;
constexpr int MATCH_BRIGHTEST = 247;
// Rows built, and composed, together.
constexpr int BLOCK_ROWS = 16;
constexpr double FULL_SHARE = 65535.0;

// The panorama rows a view's cone of view can reach, one row more on each
// side.
void row_range(const LENS_TABLE &lens, int height, int &begin, int &end) {
    const double *R = lens.mRotation;
    const double axis_latitude = std::asin(std::clamp(-R[5], -1.0, 1.0)); // the lens's z axis, y down
    const double reach = lens.mMaxAngle * PI / 180;
    const double top = std::min(axis_latitude + reach, PI / 2), bottom = std::max(axis_latitude - reach, -PI / 2);
    const double first = (PI / 2 - top) * height / PI - 0.5, last = (PI / 2 - bottom) * height / PI - 0.5;
    begin = std::clamp(static_cast<int>(std::floor(first)) - 1, 0, height);
    end = std::clamp(static_cast<int>(std::ceil(last)) + 2, begin, height);
}

} // namespace

MULTI_MAPS build_multi_maps(const std::vector<LENS_TABLE> &views, int width, int height) {
    MULTI_MAPS maps;
    maps.mWidth = width;
    maps.mHeight = height;
    maps.mCovered.create(height, width, CV_8UC1);
    const int n = static_cast<int>(views.size());
    maps.mViews.resize(views.size());
    std::vector<double> edge(views.size());
    for (int k = 0; k < n; ++k) {
        VIEW_MAPS &m = maps.mViews[static_cast<std::size_t>(k)];
        const LENS_TABLE &lens = views[static_cast<std::size_t>(k)];
        row_range(lens, height, m.mRowBegin, m.mRowEnd);
        const int rows = m.mRowEnd - m.mRowBegin;
        if (rows > 0) {
            m.mMap1.create(rows, width, CV_16SC2);
            m.mMap2.create(rows, width, CV_16UC1);
            m.mWeight.create(rows, width, CV_16UC1);
            m.mInside.create(rows, width, CV_8UC1);
        }
        edge[static_cast<std::size_t>(k)] = MATCH_EDGE_PIXELS * 2 / (lens.mFx + lens.mFy);
    }
    const int blocks = (height + BLOCK_ROWS - 1) / BLOCK_ROWS;
    cv::parallel_for_(cv::Range(0, blocks), [&](const cv::Range &range) {
        std::vector<double> margin(views.size());
        std::vector<cv::Vec2f> point(views.size());
        std::vector<cv::Mat> floating(views.size());
        for (int block = range.start; block < range.end; ++block) {
            const int a = block * BLOCK_ROWS, b = std::min(height, a + BLOCK_ROWS);
            for (int k = 0; k < n; ++k)
                floating[static_cast<std::size_t>(k)].create(b - a, width, CV_32FC2);
            for (int v = a; v < b; ++v) {
                auto *covered = maps.mCovered.ptr<unsigned char>(v);
                for (int u = 0; u < width; ++u) {
                    double d[3];
                    ImageProc::panorama_direction(u, v, width, height, d);
                    double total = 0;
                    for (int k = 0; k < n; ++k) {
                        const VIEW_MAPS &m = maps.mViews[static_cast<std::size_t>(k)];
                        double x = OUTSIDE, y = OUTSIDE;
                        double mk = 0;
                        if (v >= m.mRowBegin && v < m.mRowEnd)
                            mk = ImageProc::lens_margin(views[static_cast<std::size_t>(k)], d, &x, &y);
                        margin[static_cast<std::size_t>(k)] = mk;
                        point[static_cast<std::size_t>(k)] =
                            mk > 0 ? cv::Vec2f(float(x), float(y)) : cv::Vec2f(OUTSIDE, OUTSIDE);
                        if (mk > 0)
                            total += mk * mk;
                    }
                    covered[u] = total > 0 ? 255 : 0;
                    for (int k = 0; k < n; ++k) {
                        VIEW_MAPS &m = maps.mViews[static_cast<std::size_t>(k)];
                        if (v < m.mRowBegin || v >= m.mRowEnd)
                            continue;
                        const double mk = margin[static_cast<std::size_t>(k)];
                        floating[static_cast<std::size_t>(k)].at<cv::Vec2f>(v - a, u) = point[static_cast<std::size_t>(k)];
                        m.mWeight.at<unsigned short>(v - m.mRowBegin, u) =
                            mk > 0 ? static_cast<unsigned short>(std::lround(FULL_SHARE * mk * mk / total)) : 0;
                        m.mInside.at<unsigned char>(v - m.mRowBegin, u) =
                            mk > edge[static_cast<std::size_t>(k)] ? 255 : 0;
                    }
                }
            }
            for (int k = 0; k < n; ++k) {
                VIEW_MAPS &m = maps.mViews[static_cast<std::size_t>(k)];
                const int first = std::max(a, m.mRowBegin), last = std::min(b, m.mRowEnd);
                if (last <= first)
                    continue;
                cv::Mat map1 = m.mMap1.rowRange(first - m.mRowBegin, last - m.mRowBegin);
                cv::Mat map2 = m.mMap2.rowRange(first - m.mRowBegin, last - m.mRowBegin);
                cv::convertMaps(floating[static_cast<std::size_t>(k)].rowRange(first - a, last - a), cv::noArray(), map1,
                                map2, CV_16SC2, false);
            }
        }
    });
    return maps;
}

namespace {

// The rows [first, last) of a view remapped from its capture.
cv::Mat remap_rows(const VIEW_MAPS &m, const cv::Mat &capture, int first, int last) {
    cv::Mat out;
    cv::remap(capture, out, m.mMap1.rowRange(first - m.mRowBegin, last - m.mRowBegin),
              m.mMap2.rowRange(first - m.mRowBegin, last - m.mRowBegin), cv::INTER_LINEAR, cv::BORDER_CONSTANT,
              cv::Scalar::all(0));
    return out;
}

} // namespace

std::vector<double> match_gains(const MULTI_MAPS &maps, const std::vector<cv::Mat> &views, double &difference) {
    const int n = static_cast<int>(maps.mViews.size());
    std::vector<double> gains(maps.mViews.size(), 1.0);
    difference = 0;
    // Each view's grey levels over its rows.
    std::vector<cv::Mat> grey(maps.mViews.size());
    for (int k = 0; k < n; ++k) {
        const VIEW_MAPS &m = maps.mViews[static_cast<std::size_t>(k)];
        if (m.mRowEnd > m.mRowBegin)
            cv::cvtColor(remap_rows(m, views[static_cast<std::size_t>(k)], m.mRowBegin, m.mRowEnd),
                         grey[static_cast<std::size_t>(k)], cv::COLOR_BGR2GRAY);
    }
    // Visits every pixel seen well by two views i < j, with their levels.
    const auto each_pair = [&](auto &&visit) {
        std::vector<int> seen;
        std::vector<unsigned char> level;
        for (int v = 0; v < maps.mHeight; ++v)
            for (int u = 0; u < maps.mWidth; ++u) {
                seen.clear();
                level.clear();
                for (int k = 0; k < n; ++k) {
                    const VIEW_MAPS &m = maps.mViews[static_cast<std::size_t>(k)];
                    if (v < m.mRowBegin || v >= m.mRowEnd || !m.mInside.at<unsigned char>(v - m.mRowBegin, u))
                        continue;
                    seen.push_back(k);
                    level.push_back(grey[static_cast<std::size_t>(k)].at<unsigned char>(v - m.mRowBegin, u));
                }
                for (std::size_t p = 0; p < seen.size(); ++p)
                    for (std::size_t q = p + 1; q < seen.size(); ++q)
                        visit(seen[p], seen[q], level[p], level[q]);
            }
    };
    std::vector<double> sums(static_cast<std::size_t>(n * n), 0.0), counts(static_cast<std::size_t>(n * n), 0.0);
    each_pair([&](int i, int j, unsigned char gi, unsigned char gj) {
        if (gi < MATCH_DARKEST || gi > MATCH_BRIGHTEST || gj < MATCH_DARKEST || gj > MATCH_BRIGHTEST)
            return;
        sums[static_cast<std::size_t>(i * n + j)] += gi; // view i's levels where i and j overlap
        sums[static_cast<std::size_t>(j * n + i)] += gj;
        counts[static_cast<std::size_t>(i * n + j)] += 1;
    });
    // Least squares for the logarithms a_k of the gains, a_0 = 0:
    // a_i - a_j = log(sum_j) - log(sum_i) over each overlapping pair,
    // weighted by its pixels; a small pull towards 0 keeps a view without
    // overlap at gain 1.
    if (n > 1) {
        cv::Mat A = cv::Mat::zeros(n - 1, n - 1, CV_64F), b = cv::Mat::zeros(n - 1, 1, CV_64F);
        double total = 0;
        for (int i = 0; i < n; ++i)
            for (int j = i + 1; j < n; ++j) {
                const double w = counts[static_cast<std::size_t>(i * n + j)];
                const double si = sums[static_cast<std::size_t>(i * n + j)], sj = sums[static_cast<std::size_t>(j * n + i)];
                if (w <= 0 || si <= 0 || sj <= 0)
                    continue;
                total += w;
                const double d = std::log(sj) - std::log(si);
                if (i > 0) {
                    A.at<double>(i - 1, i - 1) += w;
                    b.at<double>(i - 1) += w * d;
                }
                if (j > 0) {
                    A.at<double>(j - 1, j - 1) += w;
                    b.at<double>(j - 1) -= w * d;
                }
                if (i > 0 && j > 0) {
                    A.at<double>(i - 1, j - 1) -= w;
                    A.at<double>(j - 1, i - 1) -= w;
                }
            }
        for (int k = 0; k < n - 1; ++k)
            A.at<double>(k, k) += 1e-9 * (total + 1);
        cv::Mat a;
        if (cv::solve(A, b, a, cv::DECOMP_SVD))
            for (int k = 1; k < n; ++k)
                gains[static_cast<std::size_t>(k)] = std::clamp(std::exp(a.at<double>(k - 1)), 0.25, 4.0);
    }
    double sum = 0;
    long count = 0;
    each_pair([&](int i, int j, unsigned char gi, unsigned char gj) {
        sum += std::abs(std::min(255.0, gains[static_cast<std::size_t>(i)] * gi) -
                        std::min(255.0, gains[static_cast<std::size_t>(j)] * gj));
        ++count;
    });
    difference = count ? sum / double(count) : 0;
    return gains;
}

void compose_views(const MULTI_MAPS &maps, const std::vector<cv::Mat> &views, const std::vector<double> &gains,
                   cv::Mat &out) {
    const int n = static_cast<int>(maps.mViews.size());
    const int width = maps.mWidth;
    const int blocks = (maps.mHeight + BLOCK_ROWS - 1) / BLOCK_ROWS;
    // Per channel value and gain: the scaled value, clipped.
    std::vector<float> scaled(maps.mViews.size() * 256);
    for (int k = 0; k < n; ++k)
        for (int z = 0; z < 256; ++z)
            scaled[static_cast<std::size_t>(k * 256 + z)] =
                static_cast<float>(std::min(255.0, gains[static_cast<std::size_t>(k)] * z));
    cv::parallel_for_(cv::Range(0, blocks), [&](const cv::Range &range) {
        cv::Mat sum, weight;
        for (int block = range.start; block < range.end; ++block) {
            const int a = block * BLOCK_ROWS, b = std::min(maps.mHeight, a + BLOCK_ROWS);
            sum = cv::Mat::zeros(b - a, width, CV_32FC3);
            weight = cv::Mat::zeros(b - a, width, CV_32FC1);
            for (int k = 0; k < n; ++k) {
                const VIEW_MAPS &m = maps.mViews[static_cast<std::size_t>(k)];
                const int first = std::max(a, m.mRowBegin), last = std::min(b, m.mRowEnd);
                if (last <= first)
                    continue;
                const cv::Mat pixels = remap_rows(m, views[static_cast<std::size_t>(k)], first, last);
                const float *table = &scaled[static_cast<std::size_t>(k * 256)];
                for (int v = first; v < last; ++v) {
                    const auto *p = pixels.ptr<unsigned char>(v - first);
                    const auto *w = m.mWeight.ptr<unsigned short>(v - m.mRowBegin);
                    auto *s = sum.ptr<float>(v - a);
                    auto *t = weight.ptr<float>(v - a);
                    for (int u = 0; u < width; ++u) {
                        if (!w[u])
                            continue;
                        const float share = w[u];
                        t[u] += share;
                        for (int c = 0; c < 3; ++c)
                            s[3 * u + c] += share * table[p[3 * u + c]];
                    }
                }
            }
            for (int v = a; v < b; ++v) {
                const auto *s = sum.ptr<float>(v - a);
                const auto *t = weight.ptr<float>(v - a);
                auto *o = out.ptr<unsigned char>(v);
                for (int u = 0; u < width; ++u)
                    for (int c = 0; c < 3; ++c)
                        o[3 * u + c] = t[u] > 0 ? cv::saturate_cast<unsigned char>(s[3 * u + c] / t[u]) : 0;
            }
        }
    });
}

} // namespace zarn_stereo
