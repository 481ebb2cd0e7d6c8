#pragma once

// Writer of binary little-endian PLY files from columns held in memory.
//
// A file is declared element by element: `element (name, count)`, then that
// element's properties, each a column of `count` values read from memory
// with a stride (so that interleaved records and separate arrays both
// serve), or a fixed-length list such as a face's three vertex indices.
// `write` then emits the header and the body, item by item, through a
// buffered writer. Every type is one that ZARN::PlyReader accepts.
//
//   PlyWriter ply;
//   ply.element("vertex", n);
//   ply.property("x", &points[0].x, sizeof(POINT));
//   ...
//   ply.element("face", m);
//   ply.property_list("vertex_indices", faces.data(), 3);
//   job.save_file("caches/mesh/a.ply", buffer_size, [&](ORN::FileWriter &out) { ply.write(out); });
//
// The writer keeps pointers to the columns: they must stay valid until
// `write` returns.

#include "__ORN__/orn_array.h"
#include "__ORN__/orn_basic.h"
#include "__ORN__/orn_filesystem.h"

#include <cstdint>
#include <string_view>

namespace ZARN {

class PlyWriter {
public:
    // On-disk types, named as in a "property" line.
    enum class TYPE : std::uint8_t { FLOAT, DOUBLE, INT, INT64, UCHAR, UINT16, UINT32, UINT64 };

    template <class T>
    static constexpr TYPE type_of() noexcept;

    // A comment line of the header (no line feed inside).
    void comment(std::string_view text);
    // Starts an element of `count` items; its properties follow.
    void element(std::string_view name, ORN::INDEX count);
    // A scalar property: item i's value is at `data + i * stride` bytes
    // (stride 0: packed values of T).
    template <class T>
    void property(std::string_view name, const T *data, ORN::INDEX stride = 0) {
        add(name, type_of<T>(), data, stride ? stride : ORN::INDEX(sizeof(T)), 0);
    }
    // A list property of `length` values per item, counted with a "uchar":
    // item i's values are the `length` packed values at `data + i * length`.
    template <class T>
    void property_list(std::string_view name, const T *data, int length) {
        add(name, type_of<T>(), data, ORN::INDEX(sizeof(T)) * length, length);
    }

    // The header, then every element's items in declaration order.
    void write(ORN::FileWriter &out) const;
    // Exact size in bytes of what `write` emits.
    ORN::INDEX file_size() const;

private:
    struct PROPERTY {
        ORN::String<char> mName;
        TYPE mType;
        const unsigned char *mData;
        ORN::INDEX mStride;
        int mLength; // 0: scalar; otherwise the fixed list length
    };
    struct ELEMENT {
        ORN::String<char> mName;
        ORN::INDEX mCount;
        ORN::Array<PROPERTY> mProperty;
    };

    void add(std::string_view name, TYPE type, const void *data, ORN::INDEX stride, int length);
    ORN::String<char> header() const;

    ORN::Array<ORN::String<char>> mComment;
    ORN::Array<ELEMENT> mElement;
};

template <class T>
constexpr PlyWriter::TYPE PlyWriter::type_of() noexcept {
    if constexpr (std::is_same_v<T, float>)
        return TYPE::FLOAT;
    else if constexpr (std::is_same_v<T, double>)
        return TYPE::DOUBLE;
    else if constexpr (std::is_same_v<T, std::int32_t>)
        return TYPE::INT;
    else if constexpr (std::is_same_v<T, std::int64_t>)
        return TYPE::INT64;
    else if constexpr (std::is_same_v<T, std::uint8_t>)
        return TYPE::UCHAR;
    else if constexpr (std::is_same_v<T, std::uint16_t>)
        return TYPE::UINT16;
    else if constexpr (std::is_same_v<T, std::uint32_t>)
        return TYPE::UINT32;
    else {
        static_assert(std::is_same_v<T, std::uint64_t>, "a type the PLY reader accepts");
        return TYPE::UINT64;
    }
}

} // namespace ZARN
