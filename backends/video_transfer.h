#pragma once

// The stitching library's video delivery (ZARN_Common/VideoTransferLibrary.h):
// a stitched Motion-JPEG AVI decoded, tone-adjusted by its HDR value and
// encoded as H.264 in a fast-start MP4 with spherical metadata, with a JPEG
// poster, through FFmpeg's libraries (libavformat, libavcodec with x264,
// libswscale).

#include <array>
#include <string>

namespace zarn_transfer {

// The encoding an init sets.
struct ENCODING {
    long long mBufferSize = 0;
    int mCrf = 23;
    std::string mPreset = "fast";
    int mGop = 48;
    int mThreads = 1;
};

// The tone curve of an HDR value h on limited-range luma (16..235): with
// x = (Y - 16) / 219 clamped to [0, 1] and k = log2(h),
// Y' = 16 + 219 x (1 + k) / (1 + k x), rounded. k = 0 is the identity;
// a larger ratio lifts the shadows and mid-tones the short exposure kept
// dark while white stays white.
std::array<unsigned char, 256> tone_curve(double hdr_value);

// One delivery (see EXECUTE_VIDEO_TRANSFER): a RESULT code.
int transfer(const ENCODING &encoding, const char *source, double hdr_value, const char *output, const char *poster,
             double poster_time, double *statistics);

} // namespace zarn_transfer
