#include "stereo_isp.h"

#include "stereo_raw.h"

#include "ZARN_Common/ImageProc.h"

#include <opencv2/imgproc.hpp>
#include <opencv2/photo.hpp>

#include <algorithm>
#include <array>
#include <cmath>

namespace zarn_stereo {

namespace {

// Values two neighbouring exposures must both lie within for their ratio.
constexpr int RATIO_DARKEST = 16;
constexpr int RATIO_BRIGHTEST = 240;

double display(double linear) { return std::pow(std::clamp(linear, 0.0, 1.0), 1 / ZARN::ImageProc::capture_gamma()); }

unsigned char display_byte(double linear) { return static_cast<unsigned char>(std::lround(255 * display(linear))); }

double from_display(double value) { return std::pow(value / 255.0, ZARN::ImageProc::capture_gamma()); }

} // namespace

bool valid_gain(const double *gain) {
    if (gain == nullptr)
        return false;
    for (int c = 0; c < 3; ++c)
        if (!std::isfinite(gain[c]) || !(gain[c] > 0) || gain[c] > MAX_GAIN)
            return false;
    return true;
}

cv::Mat develop(const cv::Mat &mosaic, const double gain[3]) {
    // OpenCV names a Bayer pattern after the second row's second and third
    // samples: the RGGB mosaic is its "BG" pattern.
    cv::Mat colour;
    cv::cvtColor(mosaic, colour, cv::COLOR_BayerBG2BGR);
    // One table per channel (blue, green, red) from sample to display value.
    std::array<std::array<unsigned char, RAW_MAXVAL + 1>, 3> table{};
    for (int c = 0; c < 3; ++c)
        for (int v = 0; v <= RAW_MAXVAL; ++v)
            table[static_cast<std::size_t>(c)][static_cast<std::size_t>(v)] =
                display_byte(gain[2 - c] * v / double(RAW_MAXVAL));
    cv::Mat out(colour.size(), CV_8UC3);
    cv::parallel_for_(cv::Range(0, colour.rows), [&](const cv::Range &rows) {
        for (int y = rows.start; y < rows.end; ++y) {
            const auto *in = colour.ptr<unsigned short>(y);
            auto *o = out.ptr<unsigned char>(y);
            for (int i = 0; i < 3 * colour.cols; ++i)
                o[i] = table[static_cast<std::size_t>(i % 3)][std::min<unsigned>(in[i], RAW_MAXVAL)];
        }
    });
    return out;
}

std::vector<float> exposure_times(const std::vector<std::vector<cv::Mat>> &groups) {
    std::vector<float> times(groups.size(), 1.0f);
    double linear[256];
    for (int z = 0; z < 256; ++z)
        linear[z] = from_display(z);
    for (std::size_t g = groups.size() - 1; g-- > 0;) {
        double dim = 0, bright = 0;
        for (std::size_t view = 0; view < groups[g].size(); ++view) {
            const cv::Mat &a = groups[g][view], &b = groups[g + 1][view];
            for (int y = 0; y < a.rows; ++y) {
                const auto *pa = a.ptr<unsigned char>(y);
                const auto *pb = b.ptr<unsigned char>(y);
                for (int i = 0; i < a.cols * a.channels(); ++i)
                    if (pa[i] >= RATIO_DARKEST && pa[i] <= RATIO_BRIGHTEST && pb[i] >= RATIO_DARKEST &&
                        pb[i] <= RATIO_BRIGHTEST) {
                        dim += linear[pa[i]];
                        bright += linear[pb[i]];
                    }
            }
        }
        // Without a value both expose well, the two count as one exposure.
        const double ratio = dim > 0 && bright > 0 ? std::clamp(bright / dim, 1.0 / 256, 256.0) : 1.0;
        times[g] = static_cast<float>(times[g + 1] / ratio);
    }
    return times;
}

double tone(double linear) {
    if (linear <= KNEE)
        return std::max(linear, 0.0);
    const double t = (linear - KNEE) / (1 - KNEE);
    return KNEE + (1 - KNEE) * t / (1 + t);
}

cv::Mat merge_radiance(const std::vector<cv::Mat> &exposures, const std::vector<float> &times) {
    // The response of the display curve; a value of 0 stands for half a
    // step, so that its logarithm stays finite.
    cv::Mat response(256, 1, CV_32FC3);
    for (int z = 0; z < 256; ++z)
        response.at<cv::Vec3f>(z) = cv::Vec3f::all(static_cast<float>(from_display(z == 0 ? 0.5 : z)));
    cv::Mat radiance;
    cv::createMergeDebevec()->process(exposures, radiance, times, response);
    cv::Mat out(radiance.size(), CV_8UC3);
    cv::parallel_for_(cv::Range(0, radiance.rows), [&](const cv::Range &rows) {
        for (int y = rows.start; y < rows.end; ++y) {
            const auto *in = radiance.ptr<float>(y);
            auto *o = out.ptr<unsigned char>(y);
            for (int i = 0; i < 3 * radiance.cols; ++i) {
                o[i] = display_byte(std::isfinite(in[i]) ? tone(in[i]) : 0.0);
            }
        }
    });
    return out;
}

} // namespace zarn_stereo
