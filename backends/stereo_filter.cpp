#include "stereo_filter.h"

#include "stitch_core.h"

#include "ZARN_Common/ImageProc.h"
#include "ZARN_Common/StereoRotCamLibrary.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace zarn_stereo {

namespace Lib = ZARN::StereoRotCamLibrary;
// The result codes, which the interface shares with the stitching library.
namespace Code = ZARN::StitchLibrary;
namespace fs = std::filesystem;
using ZARN::ImageProc;

namespace {

// The blur's sigma is this part of the region's smaller side (at least
// MIN_SIGMA pixels); large ones are done on a copy scaled down so that its
// sigma is SMALL_SIGMA.
constexpr double BLUR_PART = 1.0 / 8;
constexpr double MIN_SIGMA = 2;
constexpr double SMALL_SIGMA = 4;
// Pixelation: blocks of this part of the region's smaller side (at least
// MIN_BLOCK pixels).
constexpr double BLOCK_PART = 1.0 / 6;
constexpr int MIN_BLOCK = 4;
// The feather: this part of the region's smaller side, 1 to MAX_FEATHER
// pixels.
constexpr double FEATHER_PART = 1.0 / 8;
constexpr double MAX_FEATHER = 32;

bool output_extension(const std::string &ext) { return ext == ".jpg" || ext == ".jpeg" || ext == ".png"; }

cv::Mat blurred(const cv::Mat &roi) {
    const double sigma = std::max(MIN_SIGMA, std::min(roi.cols, roi.rows) * BLUR_PART);
    cv::Mat out;
    if (sigma <= 2 * SMALL_SIGMA) {
        cv::GaussianBlur(roi, out, cv::Size(), sigma, sigma, cv::BORDER_REFLECT_101);
        return out;
    }
    const double scale = SMALL_SIGMA / sigma;
    const cv::Size small(std::max(1, int(std::lround(roi.cols * scale))), std::max(1, int(std::lround(roi.rows * scale))));
    cv::Mat reduced;
    cv::resize(roi, reduced, small, 0, 0, cv::INTER_AREA);
    cv::GaussianBlur(reduced, reduced, cv::Size(), SMALL_SIGMA, SMALL_SIGMA, cv::BORDER_REFLECT_101);
    cv::resize(reduced, out, roi.size(), 0, 0, cv::INTER_LINEAR);
    return out;
}

cv::Mat pixelated(const cv::Mat &roi) {
    const int block = std::max(MIN_BLOCK, int(std::min(roi.cols, roi.rows) * BLOCK_PART));
    cv::Mat out(roi.size(), roi.type());
    for (int y = 0; y < roi.rows; y += block)
        for (int x = 0; x < roi.cols; x += block) {
            const cv::Rect cell(x, y, std::min(block, roi.cols - x), std::min(block, roi.rows - y));
            out(cell).setTo(cv::mean(roi(cell)));
        }
    return out;
}

cv::Mat filled(const cv::Mat &roi) { return cv::Mat(roi.size(), roi.type(), cv::mean(roi)); }

double smoothstep(double t) {
    t = std::clamp(t, 0.0, 1.0);
    return t * t * (3 - 2 * t);
}

} // namespace

cv::Rect scale_region(const int rect[4], int frame_width, int frame_height, int image_width, int image_height) {
    const auto low = [](long long v, long long image, long long frame) { return v * image / frame; };
    const auto high = [](long long v, long long image, long long frame) { return (v * image + frame - 1) / frame; };
    int x0 = int(low(rect[0], image_width, frame_width)), y0 = int(low(rect[1], image_height, frame_height));
    int x1 = int(high(rect[0] + (long long)rect[2], image_width, frame_width));
    int y1 = int(high(rect[1] + (long long)rect[3], image_height, frame_height));
    x0 = std::clamp(x0, 0, image_width - 1);
    y0 = std::clamp(y0, 0, image_height - 1);
    x1 = std::clamp(x1, x0 + 1, image_width);
    y1 = std::clamp(y1, y0 + 1, image_height);
    return {x0, y0, x1 - x0, y1 - y0};
}

double feather_width(const cv::Rect &region) {
    return std::clamp(std::min(region.width, region.height) * FEATHER_PART, 1.0, MAX_FEATHER);
}

void filter_region(cv::Mat &image, const cv::Rect &region, int type) {
    cv::Mat roi = image(region);
    const cv::Mat replaced = type == Lib::FILTER_BLUR ? blurred(roi) : type == Lib::FILTER_PIXELATE ? pixelated(roi) : filled(roi);
    // Each pixel's share of the replacement: from its centre's distance to
    // the region's nearest edge, eased over the feather.
    const double feather = feather_width(region);
    std::vector<float> across(static_cast<std::size_t>(region.width)), down(static_cast<std::size_t>(region.height));
    for (int x = 0; x < region.width; ++x)
        across[static_cast<std::size_t>(x)] = float(std::min(x + 0.5, region.width - x - 0.5));
    for (int y = 0; y < region.height; ++y)
        down[static_cast<std::size_t>(y)] = float(std::min(y + 0.5, region.height - y - 0.5));
    const int channels = roi.channels();
    for (int y = 0; y < region.height; ++y) {
        auto *o = roi.ptr<unsigned char>(y);
        const auto *r = replaced.ptr<unsigned char>(y);
        for (int x = 0; x < region.width; ++x) {
            const double share = smoothstep(std::min(across[static_cast<std::size_t>(x)], down[static_cast<std::size_t>(y)]) / feather);
            for (int c = 0; c < channels; ++c) {
                const int i = channels * x + c;
                o[i] = cv::saturate_cast<unsigned char>(o[i] + share * (double(r[i]) - o[i]));
            }
        }
    }
}

int Filter::init(long long write_buffer_size, int quality, int preview_width) {
    mReady.store(false);
    if (write_buffer_size < MIN_WRITE_BUFFER || quality < 1 || quality > 100 || preview_width < MIN_PREVIEW_WIDTH ||
        preview_width > MAX_PREVIEW_WIDTH)
        return Code::KIVO_BAD_ARGUMENT;
    const std::lock_guard lock(mMutex);
    mSettings = {write_buffer_size, quality, preview_width};
    mReady.store(true);
    return Code::KIVO_OK;
}

int Filter::execute(const char *input, const char *output, const char *preview, const int *rects, int count, int width,
                    int height, int type) const {
    if (!mReady.load())
        return Code::KIVO_NOT_INITIALISED;
    SETTINGS s;
    {
        const std::lock_guard lock(mMutex);
        s = mSettings;
    }
    using zarn_stitch::given;
    using zarn_stitch::lower_extension;
    if (!given(input) || !given(output) || !output_extension(lower_extension(output)) ||
        (given(preview) && !output_extension(lower_extension(preview))) || count < 0 ||
        (count > 0 && rects == nullptr) || width < 1 || height < 1 || type < Lib::FILTER_BLUR || type > Lib::FILTER_FILL)
        return Code::KIVO_BAD_ARGUMENT;
    for (int i = 0; i < count; ++i) {
        const int *r = rects + 4 * i;
        if (r[0] < 0 || r[1] < 0 || r[2] < 1 || r[3] < 1 || (long long)r[0] + r[2] > width ||
            (long long)r[1] + r[3] > height)
            return Code::KIVO_BAD_ARGUMENT;
    }
    std::error_code ec;
    if (!fs::is_regular_file(input, ec))
        return Code::KIVO_BAD_INPUT;
    ORN::Image image;
    if (!ORN::try_run([&] { image = ORN::Image::read(input, ORN::ImageReadMode::COLOR); }) || image.empty() ||
        image.depth() != ORN::ImageDepth::U8)
        return Code::KIVO_BAD_INPUT;
    cv::Mat pixels = ImageProc::mat(image);
    for (int i = 0; i < count; ++i)
        filter_region(pixels, scale_region(rects + 4 * i, width, height, pixels.cols, pixels.rows), type);

    const auto write = [&](const char *path, const ORN::Image &picture) {
        const std::string ext = lower_extension(path);
        ORN::Buffer<unsigned char> bytes;
        return ORN::try_run([&] { bytes = ORN::Image::encode(ext, picture, ext == ".png" ? -1 : s.mQuality); }) &&
               zarn_stitch::write_whole(path, bytes.data(), static_cast<std::size_t>(bytes.size()),
                                        static_cast<std::size_t>(s.mWriteBufferSize));
    };
    if (!write(output, image))
        return Code::KIVO_WRITE_FAILED;
    if (given(preview)) {
        const int w = s.mPreviewWidth;
        const int h = std::max(1, int(std::lround(double(pixels.rows) * w / pixels.cols)));
        ORN::Image small(w, h, 3, ORN::ImageDepth::U8);
        cv::Mat target = ImageProc::mat(small);
        cv::resize(pixels, target, target.size(), 0, 0, w < pixels.cols ? cv::INTER_AREA : cv::INTER_LINEAR);
        if (!write(preview, small))
            return Code::KIVO_WRITE_FAILED;
    }
    return Code::KIVO_OK;
}

} // namespace zarn_stereo
