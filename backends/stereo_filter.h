#pragma once

// The image filter of the stereo library: hides regions of a panorama
// (faces, number plates) by blurring, pixelating or filling them, with
// edges feathered inside each region, and writes the result and a preview.

#include <opencv2/core.hpp>

#include <atomic>
#include <mutex>

namespace zarn_stereo {

// The limits of the filter's init.
inline constexpr long long MIN_WRITE_BUFFER = 4096;
inline constexpr int MIN_PREVIEW_WIDTH = 16;
inline constexpr int MAX_PREVIEW_WIDTH = 4096;

// The region [x, x + w) x [y, y + h) of a frame_width x frame_height frame
// scaled to an image of image_width x image_height pixels: the smallest
// rectangle of whole pixels that holds it (at least one pixel each way).
cv::Rect scale_region(const int rect[4], int frame_width, int frame_height, int image_width, int image_height);

// Filters one region of an 8-bit colour image in place: the region is
// replaced by its blurred, pixelated or filled form (FILTER_TYPE), eased in
// from the region's edges over a feather inside the region. Pixels outside
// the region are not touched.
void filter_region(cv::Mat &image, const cv::Rect &region, int type);

// How far, in pixels, the feather of a region reaches inward.
double feather_width(const cv::Rect &region);

class Filter {
public:
    int init(long long write_buffer_size, int quality, int preview_width);
    int execute(const char *input, const char *output, const char *preview, const int *rects, int count, int width,
                int height, int type) const;

    int code() const { return mCode.load(); }
    int keep(int code) {
        mCode.store(code);
        return code;
    }

private:
    struct SETTINGS {
        long long mWriteBufferSize = 0;
        int mQuality = 0;
        int mPreviewWidth = 0;
    };
    std::atomic<int> mCode{0};
    std::atomic<bool> mReady{false};
    mutable std::mutex mMutex;
    SETTINGS mSettings;
};

} // namespace zarn_stereo
