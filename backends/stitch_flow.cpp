#include "stitch_flow.h"

#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include <algorithm>
#include <cmath>

namespace zarn_stitch {

namespace {

// Rows and columns of padding around the piece while the flow is estimated
// (at full resolution): context for the patches at its edges, and, across
// the panorama's left and right edges, the other side's pixels.
constexpr int PAD = 32;
// Flow shorter than this, in pixels, is noise of the estimate.
constexpr float FLOW_NOISE = 0.5f;
// Shares of the upper lens below WARP_RAMP and above 1 - WARP_RAMP, the
// band's edges, where the views turn from half-way back to where their own
// lens puts them.
constexpr float WARP_RAMP = 0.1f;

// How far along the flow a pixel of the upper lens's share w is placed: 1
// at the upper view, 0 at the lower one. Half-way, where the rig's centre
// sees the scene, over the band's middle; at its edges each lens's own
// place, so that the band meets the rows one lens fills alone.
float warp_share(float w) {
    if (w >= 1.0f - WARP_RAMP)
        return 0.5f + 0.5f * std::min(1.0f, (w - (1.0f - WARP_RAMP)) / WARP_RAMP);
    if (w <= WARP_RAMP)
        return 0.5f * std::max(0.0f, w / WARP_RAMP);
    return 0.5f;
}

// The views as the flow sees them: each where its lens sees the pixel, the
// other (through the gain) where it does not, so that the flow there is
// nil; the lower one brought to the upper's exposure for the grey levels.
void fill_unseen(const cv::Mat &upper, const cv::Mat &lower, double gain, const cv::Mat &weight, cv::Mat &up,
                 cv::Mat &down, cv::Mat &up_grey, cv::Mat &down_grey) {
    upper.copyTo(up);
    lower.copyTo(down);
    cv::Mat only_lower, only_upper, moved;
    cv::compare(weight, 0.0, only_lower, cv::CMP_LE);
    cv::compare(weight, 1.0, only_upper, cv::CMP_GE);
    if (cv::countNonZero(only_lower) > 0) {
        lower.convertTo(moved, CV_8U, gain);
        moved.copyTo(up, only_lower);
    }
    if (cv::countNonZero(only_upper) > 0) {
        upper.convertTo(moved, CV_8U, 1.0 / gain);
        moved.copyTo(down, only_upper);
    }
    cv::cvtColor(up, up_grey, cv::COLOR_BGR2GRAY);
    cv::cvtColor(down, down_grey, cv::COLOR_BGR2GRAY);
    if (gain != 1.0)
        down_grey.convertTo(down_grey, CV_8U, gain);
}

// The piece padded by PAD: across the left and right edges from the other
// side when it wraps, mirrored otherwise.
cv::Mat padded(const cv::Mat &m, bool wrap) {
    cv::Mat out;
    cv::copyMakeBorder(m, out, PAD, PAD, 0, 0, cv::BORDER_REFLECT_101);
    cv::copyMakeBorder(out, out, 0, 0, PAD, PAD, wrap && m.cols >= PAD ? cv::BORDER_WRAP : cv::BORDER_REFLECT_101);
    return out;
}

// The flow from the upper view to the lower one, at full resolution, for
// the padded views (grey).
cv::Mat estimate_flow(const cv::Mat &up_grey, const cv::Mat &down_grey, const FLOW_SETTINGS &s) {
    cv::Mat a = up_grey, b = down_grey;
    if (s.mScale > 1) {
        const cv::Size small((up_grey.cols + s.mScale - 1) / s.mScale, (up_grey.rows + s.mScale - 1) / s.mScale);
        cv::resize(up_grey, a, small, 0, 0, cv::INTER_AREA);
        cv::resize(down_grey, b, small, 0, 0, cv::INTER_AREA);
    }
    const auto dis = cv::DISOpticalFlow::create(cv::DISOpticalFlow::PRESET_MEDIUM);
    dis->setPatchSize(s.mPatch);
    dis->setPatchStride(s.mStride);
    dis->setGradientDescentIterations(s.mIterations);
    dis->setVariationalRefinementIterations(s.mRefinement);
    dis->setUseSpatialPropagation(false); // the same flow on every thread count
    dis->setUseMeanNormalization(true);
    // The coarsest level still sees the largest disparity of a near object.
    const int smallest = std::min(a.cols, a.rows);
    if (smallest < 2 * s.mPatch) // too small to search: no motion
        return cv::Mat::zeros(up_grey.size(), CV_32FC2);
    cv::Mat flow;
    dis->calc(a, b, flow);
    if (s.mScale > 1) {
        cv::Mat full;
        cv::resize(flow, full, up_grey.size(), 0, 0, cv::INTER_LINEAR);
        full *= double(s.mScale);
        return full;
    }
    return flow;
}

} // namespace

void flow_blend(const cv::Mat &upper, const cv::Mat &lower, double gain, const cv::Mat &weight,
                const FLOW_SETTINGS &settings, bool wrap, cv::Mat &out) {
    CV_Assert(upper.type() == CV_8UC3 && lower.type() == CV_8UC3 && weight.type() == CV_32FC1);
    CV_Assert(upper.size() == lower.size() && upper.size() == weight.size());
    cv::Mat up, down, up_grey, down_grey;
    fill_unseen(upper, lower, gain, weight, up, down, up_grey, down_grey);
    const cv::Mat up_pad = padded(up, wrap), down_pad = padded(down, wrap);
    const cv::Mat flow = estimate_flow(padded(up_grey, wrap), padded(down_grey, wrap), settings);

    // Where each view is sampled, in the padded views' coordinates. Flows
    // within FLOW_NOISE pixels are nil: where the lenses agree, the pixel is
    // the plain blend's, not a resampling of it.
    const int h = upper.rows, w = upper.cols;
    cv::Mat map_up(h, w, CV_32FC2), map_down(h, w, CV_32FC2);
    constexpr float NOISE2 = FLOW_NOISE * FLOW_NOISE;
    // Every pixel on its own: the same result on any split into stripes.
    cv::parallel_for_(cv::Range(0, h), [&](const cv::Range &rows) {
        for (int y = rows.start; y < rows.end; ++y) {
            const float *pw = weight.ptr<float>(y);
            const auto *pf = flow.ptr<cv::Vec2f>(y + PAD) + PAD;
            auto *mu = map_up.ptr<cv::Vec2f>(y);
            auto *md = map_down.ptr<cv::Vec2f>(y);
            const float py = float(y + PAD);
            for (int x = 0; x < w; ++x) {
                const float px = float(x + PAD);
                const float length2 = pf[x][0] * pf[x][0] + pf[x][1] * pf[x][1];
                if (length2 <= NOISE2) {
                    mu[x] = md[x] = cv::Vec2f(px, py);
                    continue;
                }
                const float keep = 1.0f - FLOW_NOISE / std::sqrt(length2);
                const float fx = keep * pf[x][0], fy = keep * pf[x][1];
                const float t = warp_share(pw[x]);
                mu[x] = cv::Vec2f(px - (1 - t) * fx, py - (1 - t) * fy);
                md[x] = cv::Vec2f(px + t * fx, py + t * fy);
            }
        }
    });
    cv::Mat moved_up, moved_down;
    cv::remap(up_pad, moved_up, map_up, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    cv::remap(down_pad, moved_down, map_down, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    // The blend of compose, to the bit.
    out.create(h, w, CV_8UC3);
    const float g = float(gain);
    cv::parallel_for_(cv::Range(0, h), [&](const cv::Range &rows) {
        for (int y = rows.start; y < rows.end; ++y) {
            const float *pw = weight.ptr<float>(y);
            const auto *pu = moved_up.ptr<unsigned char>(y);
            const auto *pl = moved_down.ptr<unsigned char>(y);
            auto *po = out.ptr<unsigned char>(y);
            for (int x = 0; x < w; ++x)
                for (int c = 0; c < 3; ++c) {
                    const float l = std::min(255.0f, g * pl[3 * x + c]);
                    po[3 * x + c] = cv::saturate_cast<unsigned char>(pw[x] * pu[3 * x + c] + (1 - pw[x]) * l);
                }
        }
    });
}

void compose_flow(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double gain, cv::Mat &out) {
    compose_around_band(maps, upper, lower, gain, out);
    cv::Mat up, down;
    band_views(maps, upper, lower, 1.0, up, down);
    if (up.empty())
        return;
    cv::Mat band = out.rowRange(maps.band_begin(), maps.band_end());
    flow_blend(up, down, gain, maps.mWeight, SEAM_FLOW, true, band);
}

} // namespace zarn_stitch
