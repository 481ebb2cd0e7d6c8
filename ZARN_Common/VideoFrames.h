#pragma once

// Frames of a video file, decoded by the codec library: the size, length and
// rate a decoder sees, and one frame as an 8-bit blue-green-red image.
// The Windows build has no decoder; there both fail (VideoFrames_windows.cpp).

#include "__ORN__/orn_basic.h"
#include "__ORN__/orn_images.h"

namespace ZARN::VideoFrames {

struct INFO {
    ORN::int64 mWidth = 0;
    ORN::int64 mHeight = 0;
    ORN::int64 mFrameCount = 0;
    double mFps = 0;
};

// What the decoder sees of the file; false when it opens no video there.
bool probe(const ORN::String<char> &path, INFO &info);
// Frame `index` (from 0), an 8-bit three-channel image of width x height;
// empty when the file does not open at that size or the frame is not
// decodable.
ORN::Image read(const ORN::String<char> &path, ORN::int64 width, ORN::int64 height, ORN::int64 index);

} // namespace ZARN::VideoFrames
