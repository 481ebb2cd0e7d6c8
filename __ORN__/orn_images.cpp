// The size an encoded image claims in its header, read without decoding
// anything: the decoders allocate what the header claims, so a small file
// may claim gigabytes. The formats are those a job holds: JPEG (the first
// frame header, SOF0 to SOF15), PNG (IHDR), TIFF (the first directory),
// BMP, WebP (VP8, VP8L, VP8X) and the portable maps (PBM, PGM, PPM, PFM).

#include "orn_images.h"

#include <cctype>
#include <cstdint>
#include <cstring>

namespace ORN {

namespace {

struct READER {
    const unsigned char *mBytes;
    INDEX mSize;
    bool has(INDEX at, INDEX n) const { return at >= 0 && n >= 0 && at <= mSize && n <= mSize - at; }
    std::uint32_t be(INDEX at, int n) const {
        std::uint32_t v = 0;
        for (int i = 0; i < n; ++i)
            v = v << 8 | mBytes[at + i];
        return v;
    }
    std::uint32_t le(INDEX at, int n) const {
        std::uint32_t v = 0;
        for (int i = n - 1; i >= 0; --i)
            v = v << 8 | mBytes[at + i];
        return v;
    }
};

bool jpeg(const READER &r, IMAGE_HEADER &h) {
    INDEX at = 2;
    while (r.has(at, 4)) {
        if (r.mBytes[at] != 0xFF)
            return false;
        const unsigned marker = r.mBytes[at + 1];
        if (marker == 0xFF) { // fill byte
            ++at;
            continue;
        }
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) { // no length
            at += 2;
            continue;
        }
        if (marker == 0xD9 || marker == 0xDA) // end, or scan data before any frame header
            return false;
        const INDEX length = r.be(at + 2, 2);
        if (length < 2)
            return false;
        if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC) {
            if (!r.has(at + 4, 5))
                return false;
            h.mHeight = r.be(at + 5, 2);
            h.mWidth = r.be(at + 7, 2);
            return true;
        }
        at += 2 + length;
    }
    return false;
}

bool tiff(const READER &r, IMAGE_HEADER &h) {
    const bool little = r.mBytes[0] == 'I';
    const auto get = [&](INDEX at, int n) { return little ? r.le(at, n) : r.be(at, n); };
    if (get(2, 2) != 42 || !r.has(4, 4))
        return false;
    const INDEX ifd = get(4, 4);
    if (!r.has(ifd, 2))
        return false;
    const INDEX entries = get(ifd, 2);
    INDEX width = -1, height = -1;
    for (INDEX e = 0; e < entries && r.has(ifd + 2 + 12 * e, 12); ++e) {
        const INDEX at = ifd + 2 + 12 * e;
        const std::uint32_t tag = get(at, 2), type = get(at + 2, 2);
        const INDEX value = type == 3 ? get(at + 8, 2) : type == 4 ? get(at + 8, 4) : -1;
        if (tag == 256)
            width = value;
        else if (tag == 257)
            height = value;
    }
    if (width < 0 || height < 0)
        return false;
    h.mWidth = width;
    h.mHeight = height;
    return true;
}

bool webp(const READER &r, IMAGE_HEADER &h) {
    if (!r.has(12, 18))
        return false;
    const unsigned char *chunk = r.mBytes + 12;
    if (std::memcmp(chunk, "VP8X", 4) == 0) {
        h.mWidth = INDEX(r.le(24, 3)) + 1;
        h.mHeight = INDEX(r.le(27, 3)) + 1;
        return true;
    }
    if (std::memcmp(chunk, "VP8L", 4) == 0 && r.mBytes[20] == 0x2F) {
        const std::uint32_t bits = r.le(21, 4);
        h.mWidth = INDEX(bits & 0x3FFF) + 1;
        h.mHeight = INDEX(bits >> 14 & 0x3FFF) + 1;
        return true;
    }
    if (std::memcmp(chunk, "VP8 ", 4) == 0) {
        h.mWidth = r.le(26, 2) & 0x3FFF;
        h.mHeight = r.le(28, 2) & 0x3FFF;
        return true;
    }
    return false;
}

// "P1".."P6", "PF", "Pf": whitespace and comments, then width and height.
bool portable_map(const READER &r, IMAGE_HEADER &h) {
    INDEX at = 2;
    INDEX values[2] = {0, 0};
    for (INDEX &value : values) {
        for (;;) {
            while (at < r.mSize && std::isspace(r.mBytes[at]))
                ++at;
            if (at < r.mSize && r.mBytes[at] == '#') {
                while (at < r.mSize && r.mBytes[at] != '\n')
                    ++at;
                continue;
            }
            break;
        }
        if (at >= r.mSize || !std::isdigit(r.mBytes[at]))
            return false;
        for (; at < r.mSize && std::isdigit(r.mBytes[at]); ++at) {
            value = value * 10 + (r.mBytes[at] - '0');
            if (value > (INDEX(1) << 40))
                return false;
        }
    }
    h.mWidth = values[0];
    h.mHeight = values[1];
    return true;
}

} // namespace

String<char> Image::layout() const {
    if (empty())
        return "empty";
    constexpr const char *names[] = {"u8", "u16", "f32", "f64"};
    return std::to_string(mWidth) + "x" + std::to_string(mHeight) + "x" + std::to_string(mChannels) + " " +
           names[static_cast<int>(mDepth)];
}

bool Image::probe(const unsigned char *bytes, INDEX size, IMAGE_HEADER &header) {
    header = IMAGE_HEADER();
    if (bytes == nullptr || size < 4)
        return false;
    const READER r{bytes, size};
    const auto starts = [&](const char *magic) {
        const auto n = static_cast<INDEX>(std::strlen(magic));
        return size >= n && std::memcmp(bytes, magic, static_cast<std::size_t>(n)) == 0;
    };
    bool known = false;
    if (bytes[0] == 0xFF && bytes[1] == 0xD8) {
        header.mFormat = "JPEG";
        known = jpeg(r, header);
    } else if (starts("\x89PNG\r\n\x1A\n")) {
        header.mFormat = "PNG";
        known = r.has(16, 8) && std::memcmp(bytes + 12, "IHDR", 4) == 0;
        if (known) {
            header.mWidth = r.be(16, 4);
            header.mHeight = r.be(20, 4);
        }
    } else if (starts("II*") || starts("MM")) {
        header.mFormat = "TIFF";
        known = tiff(r, header);
    } else if (starts("BM")) {
        header.mFormat = "BMP";
        known = r.has(14, 12);
        if (known && r.le(14, 4) == 12) { // the OS/2 header: 16-bit sizes
            header.mWidth = r.le(18, 2);
            header.mHeight = r.le(20, 2);
        } else if (known) {
            header.mWidth = static_cast<std::int32_t>(r.le(18, 4));
            const auto height = static_cast<std::int32_t>(r.le(22, 4));
            header.mHeight = height < 0 ? -INDEX(height) : INDEX(height);
        }
    } else if (starts("RIFF") && size >= 12 && std::memcmp(bytes + 8, "WEBP", 4) == 0) {
        header.mFormat = "WebP";
        known = webp(r, header);
    } else if (bytes[0] == 'P' && ((bytes[1] >= '1' && bytes[1] <= '6') || bytes[1] == 'F' || bytes[1] == 'f')) {
        header.mFormat = "PNM";
        known = portable_map(r, header);
    }
    return known;
}

String<char> Image::check_header(const unsigned char *bytes, INDEX size) {
    IMAGE_HEADER header;
    if (!probe(bytes, size, header))
        return "not a decodable image";
    if (header.mWidth < 1 || header.mHeight < 1 || header.mWidth > max_side() || header.mHeight > max_side() ||
        header.mWidth * header.mHeight > max_pixels())
        return "claims " + std::to_string(header.mWidth) + " x " + std::to_string(header.mHeight) +
               " pixels, beyond the limits (" + std::to_string(max_side()) + " per side, " +
               std::to_string(max_pixels()) + " in all)";
    return String<char>();
}

} // namespace ORN
