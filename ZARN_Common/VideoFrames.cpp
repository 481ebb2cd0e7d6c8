// Video frames through OpenCV's videoio (its FFmpeg backend).

#include "ZARN_Common/VideoFrames.h"

#include "ZARN_Common/ImageProc.h"

#include <opencv2/videoio.hpp>

namespace ZARN::VideoFrames {

bool probe(const ORN::String<char> &path, INFO &info) {
    cv::VideoCapture capture;
    if (!capture.open(path, cv::CAP_FFMPEG) || !capture.isOpened())
        return false;
    info.mWidth = static_cast<ORN::int64>(capture.get(cv::CAP_PROP_FRAME_WIDTH));
    info.mHeight = static_cast<ORN::int64>(capture.get(cv::CAP_PROP_FRAME_HEIGHT));
    info.mFrameCount = static_cast<ORN::int64>(capture.get(cv::CAP_PROP_FRAME_COUNT));
    info.mFps = capture.get(cv::CAP_PROP_FPS);
    return true;
}

ORN::Image read(const ORN::String<char> &path, ORN::int64 width, ORN::int64 height, ORN::int64 index) {
    cv::Mat frame;
    cv::VideoCapture capture;
    bool read = capture.open(path, cv::CAP_FFMPEG) && capture.get(cv::CAP_PROP_FRAME_WIDTH) == double(width) &&
                capture.get(cv::CAP_PROP_FRAME_HEIGHT) == double(height);
    if (read && index > 0)
        read = capture.set(cv::CAP_PROP_POS_FRAMES, double(index));
    read = read && capture.read(frame) && frame.type() == CV_8UC3 && frame.cols == width && frame.rows == height;
    return read ? ImageProc::image(frame) : ORN::Image();
}

} // namespace ZARN::VideoFrames
