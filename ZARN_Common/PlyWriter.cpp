#include "PlyWriter.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace ZARN {

using ORN::INDEX;

namespace {

struct TYPE_INFO {
    std::string_view mName;
    int mWidth;
};
constexpr TYPE_INFO TYPE_TABLE[] = {
    {"float", 4}, {"double", 8}, {"int", 4}, {"int64", 8}, {"uchar", 1}, {"uint16", 2}, {"uint32", 4}, {"uint64", 8},
};
const TYPE_INFO &info(PlyWriter::TYPE type) { return TYPE_TABLE[static_cast<int>(type)]; }

// Copies one value of `width` bytes in little-endian order.
inline void put(unsigned char *to, const unsigned char *from, int width) {
    std::memcpy(to, from, static_cast<std::size_t>(width));
    if constexpr (std::endian::native == std::endian::big)
        std::reverse(to, to + width);
}

} // namespace

void PlyWriter::comment(std::string_view text) {
    _DYNAMIC_ASSERT_(text.find ('\n') == std::string_view::npos);
    mComment.append(text);
}

void PlyWriter::element(std::string_view name, INDEX count) {
    _DYNAMIC_ASSERT_(count >= 0);
    mElement.append(ELEMENT{ORN::String<char>(name), count, {}});
}

void PlyWriter::add(std::string_view name, TYPE type, const void *data, INDEX stride, int length) {
    _DYNAMIC_ASSERT_(!mElement.empty ());
    _DYNAMIC_ASSERT_(length >= 0 && length <= 255);
    ELEMENT &element = mElement.back();
    _DYNAMIC_ASSERT_(data != nullptr || element.mCount == 0);
    element.mProperty.append(PROPERTY{ORN::String<char>(name), type, static_cast<const unsigned char *>(data), stride, length});
}

ORN::String<char> PlyWriter::header() const {
    ORN::String<char> text = "ply\nformat binary_little_endian 1.0\n";
    for (const auto &line : mComment)
        text.append("comment ").append(line).append("\n");
    for (const ELEMENT &element : mElement) {
        text.append("element ").append(element.mName).append(" ").append(std::to_string(element.mCount)).append("\n");
        for (const PROPERTY &p : element.mProperty) {
            text.append("property ");
            if (p.mLength > 0)
                text.append("list uchar ");
            text.append(info(p.mType).mName).append(" ").append(p.mName).append("\n");
        }
    }
    return text.append("end_header\n");
}

INDEX PlyWriter::file_size() const {
    INDEX size = static_cast<INDEX>(header().size());
    for (const ELEMENT &element : mElement) {
        INDEX item = 0;
        for (const PROPERTY &p : element.mProperty)
            item += p.mLength > 0 ? 1 + INDEX(p.mLength) * info(p.mType).mWidth : info(p.mType).mWidth;
        size += item * element.mCount;
    }
    return size;
}

void PlyWriter::write(ORN::FileWriter &out) const {
    out.write(header());
    // Items are packed into a block of whole items, then handed over.
    constexpr INDEX BLOCK = INDEX(1) << 16;
    ORN::Array<unsigned char> block(BLOCK);
    for (const ELEMENT &element : mElement) {
        INDEX item_size = 0;
        for (const PROPERTY &p : element.mProperty)
            item_size += p.mLength > 0 ? 1 + INDEX(p.mLength) * info(p.mType).mWidth : info(p.mType).mWidth;
        if (item_size == 0)
            continue;
        const INDEX per_block = std::max<INDEX>(1, BLOCK / item_size);
        if (per_block * item_size > block.size())
            block = ORN::Array<unsigned char>(per_block * item_size);
        for (INDEX first = 0; first < element.mCount; first += per_block) {
            const INDEX last = std::min(element.mCount, first + per_block);
            unsigned char *to = block.data();
            for (INDEX i = first; i < last; ++i)
                for (const PROPERTY &p : element.mProperty) {
                    const int width = info(p.mType).mWidth;
                    const unsigned char *from = p.mData + i * p.mStride;
                    if (p.mLength == 0) {
                        put(to, from, width);
                        to += width;
                        continue;
                    }
                    *to++ = static_cast<unsigned char>(p.mLength);
                    for (int k = 0; k < p.mLength; ++k, to += width, from += width)
                        put(to, from, width);
                }
            out.write(block.data(), static_cast<INDEX>(to - block.data()));
        }
    }
}

} // namespace ZARN
