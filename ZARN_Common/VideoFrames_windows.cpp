// The Windows build has no video decoder (OpenCV's videoio): every use of
// a video's frames fails, after one console line naming what is missing.

#include "ZARN_Common/VideoFrames.h"

#include "__ORN__/orn_debugger.h"

namespace ZARN::VideoFrames {

namespace {

[[noreturn]] void unsupported(const ORN::String<char> &path) {
    ORN::console().error("decode_video : ", path, " : the Windows build has no video decoder (OpenCV videoio)");
    constexpr bool video_decoder = false;
    _DYNAMIC_ASSERT_(video_decoder);
    throw ORN::Exception("unreachable");
}

} // namespace

bool probe(const ORN::String<char> &path, INFO &) { unsupported(path); }

ORN::Image read(const ORN::String<char> &path, ORN::int64, ORN::int64, ORN::int64) { unsupported(path); }

} // namespace ZARN::VideoFrames
