#pragma once

// Image buffers of the core library: a two-dimensional array of pixels with
// 1 to 4 interleaved channels of one depth, rows possibly padded, and the
// codec and conversion operations over it. The face knows nothing of the
// codec library behind it (OpenCV, in orn_images_opencv.cpp).
//
// An Image is a counted reference to its pixels, like the codec library's
// own matrices: copying an Image shares the pixels, `clone ()` copies them.
// Several threads may read one image at once; writing while others read is
// the caller's business.
//
// Every failure raises the library's assertion exception after a console
// line "<operation> : <path> : <reason>" at error level; the operations are
// make_image, read_image, write_image, encode_image, decode_image,
// convert_color and convert_depth. Where no file is involved the path is the encoding's
// extension, "<memory>" or the image's layout ("64x32x3 u8").

#include "orn_array.h"
#include "orn_basic.h"
#include "orn_core.h"

#include <cstdint>
#include <string_view>

namespace ORN {

// Depth of one channel.
enum class ImageDepth : int { U8, U16, F32, F64 };

// How a file or buffer is decoded.
enum class ImageReadMode : int {
    UNCHANGED, // as stored: grey stays grey, alpha and 16 bits are kept
    COLOR,     // 3 channels, blue-green-red, 8 bits
    GRAY,      // 1 channel, 8 bits
};

// Colour conversions. Colour images are blue-green-red(-alpha), as decoded.
enum class ImageColor : int { BGR_TO_GRAY, GRAY_TO_BGR, BGR_TO_RGB, RGB_TO_BGR, BGRA_TO_BGR, BGR_TO_BGRA };

// What an encoded image's header says: its format ("JPEG", "PNG", "TIFF",
// "BMP", "WebP", "PNM") and the size the decoder would allocate.
struct IMAGE_HEADER {
    String<char> mFormat;
    INDEX mWidth = 0;
    INDEX mHeight = 0;
};

class ORN_API Image {
public:
    struct Private {
        class Implement;
    };

    // Bytes of one channel of the depth.
    static constexpr INDEX depth_bytes(ImageDepth depth) noexcept {
        constexpr INDEX bytes[] = {1, 2, 4, 8};
        return bytes[static_cast<int>(depth)];
    }
    // Largest width and height an image is made with.
    static constexpr INDEX max_side() noexcept { return INDEX(1) << 15; }
    // Most pixels a decoded image may have (134217728: twice a 16384 x 4096
    // panorama; 384 MiB at three 8-bit channels).
    static constexpr INDEX max_pixels() noexcept { return INDEX(1) << 27; }

    // No pixels: width, height and channels 0.
    Image() noexcept;
    // width x height pixels of `channels` (1 to 4) channels, uninitialised.
    Image(INDEX width, INDEX height, INDEX channels, ImageDepth depth);
    // The same, every byte zero.
    static Image zeros(INDEX width, INDEX height, INDEX channels, ImageDepth depth);

    bool empty() const noexcept { return mData == nullptr; }
    INDEX width() const noexcept { return mWidth; }
    INDEX height() const noexcept { return mHeight; }
    INDEX channels() const noexcept { return mChannels; }
    ImageDepth depth() const noexcept { return mDepth; }
    // Bytes from the start of one row to the start of the next.
    INDEX step() const noexcept { return mStep; }
    // Bytes of one pixel.
    INDEX pixel_bytes() const noexcept { return mChannels * depth_bytes(mDepth); }
    // The layout as text, "64x32x3 u8"; "empty" for an empty image.
    String<char> layout() const;
    // Same width, height, channels and depth.
    bool same_layout(const Image &other) const noexcept {
        return mWidth == other.mWidth && mHeight == other.mHeight && mChannels == other.mChannels && mDepth == other.mDepth;
    }

    // Row y as an array of width () * channels () channel values; T must be
    // the channel type of the depth (unsigned char, std::uint16_t, float,
    // double).
    template <class T>
    T *row(INDEX y) {
        _DYNAMIC_ASSERT_(y >= 0 && y < height ());
        _DYNAMIC_ASSERT_(INDEX (sizeof (T)) == depth_bytes (mDepth));
        return reinterpret_cast<T *>(mData + y * mStep);
    }
    template <class T>
    const T *row(INDEX y) const {
        _DYNAMIC_ASSERT_(y >= 0 && y < height ());
        _DYNAMIC_ASSERT_(INDEX (sizeof (T)) == depth_bytes (mDepth));
        return reinterpret_cast<const T *>(mData + y * mStep);
    }
    // The first byte of the pixels (null when empty); rows are step () apart.
    unsigned char *data() noexcept { return mData; }
    const unsigned char *data() const noexcept { return mData; }

    // A copy with pixels of its own, rows unpadded.
    Image clone() const;

    // The header of an encoded image, read without decoding; false when the
    // bytes are none of the formats above or the header is cut short.
    static bool probe(const unsigned char *bytes, INDEX size, IMAGE_HEADER &header);
    // Empty when the header can be read and claims a size within
    // max_side () and max_pixels (); otherwise the reason: "not a decodable
    // image", or "claims <w> x <h> pixels, beyond the limits (32768 per
    // side, 134217728 in all)". Every decode checks this first, so that a
    // small file claiming gigabytes is refused before anything is allocated.
    static String<char> check_header(const unsigned char *bytes, INDEX size);

    // Decodes the file ("read_image : <path> : no such file" when missing,
    // "... : not a decodable image" when its content is no image, "... :
    // claims ..." when its header is beyond the limits).
    static Image read(const String<char> &path, ImageReadMode mode = ImageReadMode::COLOR);
    // Encodes the image in the format its extension names (.jpg, .png,
    // .tif, .bmp, ...) and writes it to the path, which is replaced.
    // `quality` is the JPEG quality, 0 to 100, 95 when negative.
    static void write(const String<char> &path, const Image &image, INDEX quality = -1);
    // Encodes into memory; `extension` names the format (".jpg").
    static Buffer<unsigned char> encode(std::string_view extension, const Image &image, INDEX quality = -1);
    // Decodes an encoded image held in memory.
    static Image decode(const unsigned char *bytes, INDEX size, ImageReadMode mode = ImageReadMode::COLOR);
    static Image decode(const Buffer<unsigned char> &bytes, ImageReadMode mode = ImageReadMode::COLOR) {
        return decode(bytes.data(), bytes.size(), mode);
    }

    // A new image in another colour layout; the source must have the
    // channels the conversion starts from.
    Image convert(ImageColor code) const;
    // A new image of another depth, each value v becoming v * scale + offset,
    // rounded and saturated for integer depths.
    Image convert(ImageDepth depth, double scale = 1, double offset = 0) const;

private:
    explicit Image(StrongRef<Private::Implement> pixels);

    StrongRef<Private::Implement> mThis;
    unsigned char *mData = nullptr;
    INDEX mWidth = 0;
    INDEX mHeight = 0;
    INDEX mChannels = 0;
    INDEX mStep = 0;
    ImageDepth mDepth = ImageDepth::U8;
};

} // namespace ORN
