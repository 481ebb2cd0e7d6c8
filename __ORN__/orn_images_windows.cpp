// The image buffers of the Windows build, which has no OpenCV: an Image's
// pixels are a plain unpadded array, made, zeroed and copied here. The codec
// and conversion operations need the codec library and fail, after the
// usual "<operation> : <path> : <reason>" line, with a reason naming what
// this build lacks.

#include "orn_images.h"

#include "orn_debugger.h"

#include <vector>

namespace ORN {

class Image::Private::Implement {
public:
    Implement(INDEX width, INDEX height, INDEX channels, ImageDepth depth)
        : mWidth(width), mHeight(height), mChannels(channels), mDepth(depth),
          mPixels(static_cast<std::size_t>(width * height * channels * depth_bytes(depth))) {}
    INDEX mWidth;
    INDEX mHeight;
    INDEX mChannels;
    ImageDepth mDepth;
    std::vector<unsigned char> mPixels;
};

namespace {

constexpr const char *LACKING = "the Windows build has no image codec library (OpenCV)";

void report(std::string_view operation, const String<char> &path, const String<char> &reason) {
    console().error(operation, " : ", path, " : ", reason);
}

// Reports the operation as one this build cannot do, and fails.
[[noreturn]] void unsupported(std::string_view operation, const String<char> &path) {
    report(operation, path, LACKING);
    constexpr bool codec_library = false;
    _DYNAMIC_ASSERT_(codec_library);
    throw Exception("unreachable");
}

StrongRef<Image::Private::Implement> new_pixels(INDEX width, INDEX height, INDEX channels, ImageDepth depth) {
    const bool r1x = width >= 1 && width <= Image::max_side() && height >= 1 && height <= Image::max_side() &&
                     channels >= 1 && channels <= 4;
    if (!r1x)
        report("make_image", std::to_string(width) + "x" + std::to_string(height) + "x" + std::to_string(channels),
               "size out of range");
    _DYNAMIC_ASSERT_(r1x);
    return StrongRef<Image::Private::Implement>::make(width, height, channels, depth);
}

} // namespace

Image::Image() noexcept = default;

Image::Image(StrongRef<Private::Implement> pixels) : mThis(std::move(pixels)) {
    mDepth = mThis->mDepth;
    mWidth = mThis->mWidth;
    mHeight = mThis->mHeight;
    mChannels = mThis->mChannels;
    mStep = mWidth * mChannels * depth_bytes(mDepth);
    mData = mThis->mPixels.data();
}

Image::Image(INDEX width, INDEX height, INDEX channels, ImageDepth depth)
    : Image(new_pixels(width, height, channels, depth)) {}

// The pixels of a new array are value-initialised, zero already.
Image Image::zeros(INDEX width, INDEX height, INDEX channels, ImageDepth depth) {
    return Image(new_pixels(width, height, channels, depth));
}

Image Image::clone() const {
    if (empty())
        return Image();
    auto pixels = StrongRef<Private::Implement>::make(*mThis);
    return Image(std::move(pixels));
}

Image Image::read(const String<char> &path, ImageReadMode) { unsupported("read_image", path); }

void Image::write(const String<char> &path, const Image &, INDEX) { unsupported("write_image", path); }

Buffer<unsigned char> Image::encode(std::string_view extension, const Image &, INDEX) {
    unsupported("encode_image", String<char>(extension));
}

Image Image::decode(const unsigned char *, INDEX, ImageReadMode) { unsupported("decode_image", "<memory>"); }

Image Image::convert(ImageColor) const { unsupported("convert_color", layout()); }

Image Image::convert(ImageDepth, double, double) const { unsupported("convert_depth", layout()); }

} // namespace ORN
