#include "PlyReader.h"
#include "PlyReaderWindow.h"

#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_stream.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <charconv>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <unordered_map>

namespace ZARN {

using ORN::INDEX;
using ORN::STRU8;
using ORN::VAR_NONE;

namespace {

// Type names of a "property" line and their codes; the high hex digit of a
// code is the storage class (1 double, 2 int64, 3 uint64).
struct TYPE_NAME {
    std::string_view mName;
    INDEX mCode;
};
constexpr TYPE_NAME PROPERTY_TYPE[] = {
    {"float", 0x10}, {"double", 0x11}, {"int", 0x20},    {"int64", 0x21},
    {"uchar", 0x30}, {"uint16", 0x31}, {"uint32", 0x32}, {"uint64", 0x33},
};
// Types allowed for the count of a list (no floating point).
constexpr TYPE_NAME LIST_COUNT_TYPE[] = {
    {"int", 0x20}, {"int64", 0x21}, {"uchar", 0x30}, {"uint16", 0x31}, {"uint32", 0x32}, {"uint64", 0x33},
};

template <std::size_t N>
INDEX find_type(const TYPE_NAME (&table)[N], std::string_view name) noexcept {
    for (std::size_t i = 0; i < N; ++i)
        if (table[i].mName == name)
            return static_cast<INDEX>(i);
    return VAR_NONE;
}

constexpr INDEX storage_class(INDEX code) noexcept { return code >> 4; }

// Bytes a value of the type takes on disk.
constexpr INDEX width_of(INDEX code) noexcept {
    switch (code) {
    case 0x10: return 4;
    case 0x11: return 8;
    case 0x20: return 4;
    case 0x21: return 8;
    case 0x30: return 1;
    case 0x31: return 2;
    case 0x32: return 4;
    default: return 8;
    }
}

template <class U>
constexpr U swap_bytes(U value) noexcept {
    if constexpr (sizeof(U) == 1)
        return value;
    else if constexpr (sizeof(U) == 2)
        return __builtin_bswap16(value);
    else if constexpr (sizeof(U) == 4)
        return __builtin_bswap32(value);
    else
        return __builtin_bswap64(value);
}

template <std::size_t N>
struct UNSIGNED_OF;
template <>
struct UNSIGNED_OF<1> {
    using type = std::uint8_t;
};
template <>
struct UNSIGNED_OF<2> {
    using type = std::uint16_t;
};
template <>
struct UNSIGNED_OF<4> {
    using type = std::uint32_t;
};
template <>
struct UNSIGNED_OF<8> {
    using type = std::uint64_t;
};

// One on-disk value at an unaligned address.
template <class RAW, bool SWAP>
inline RAW load(const unsigned char *source) noexcept {
    using U = typename UNSIGNED_OF<sizeof(RAW)>::type;
    U bits;
    std::memcpy(&bits, source, sizeof(U));
    if constexpr (SWAP)
        bits = swap_bytes(bits);
    return std::bit_cast<RAW>(bits);
}

// A value in the type it is stored or delivered as: widened, or for a
// delivered byte, anything above 255 taken as 255.
template <class STORE, class RAW>
inline STORE convert(RAW value) noexcept {
    if constexpr (std::is_same_v<STORE, std::uint8_t> && !std::is_same_v<RAW, std::uint8_t>)
        return static_cast<STORE>(value > RAW(255) ? RAW(255) : value);
    else
        return static_cast<STORE>(value);
}

// Converts `count` on-disk values, `stride` bytes apart, into `target`, one
// every `step` values of the target's type.
using DECODE = void (*)(const unsigned char *source, INDEX stride, INDEX count, void *target, INDEX step);

template <class RAW, class STORE, bool SWAP>
void decode_column(const unsigned char *source, INDEX stride, INDEX count, void *target, INDEX step) {
    STORE *out = static_cast<STORE *>(target);
    if (step == 1) {
        for (INDEX i = 0; i < count; ++i, source += stride)
            out[i] = convert<STORE>(load<RAW, SWAP>(source));
    } else {
        for (INDEX i = 0; i < count; ++i, source += stride, out += step)
            *out = convert<STORE>(load<RAW, SWAP>(source));
    }
}

template <bool SWAP>
DECODE decoder_of(INDEX code) noexcept {
    switch (code) {
    case 0x10: return &decode_column<float, double, SWAP>;
    case 0x11: return &decode_column<double, double, SWAP>;
    case 0x20: return &decode_column<std::int32_t, ORN::int64, SWAP>;
    case 0x21: return &decode_column<std::int64_t, ORN::int64, SWAP>;
    case 0x30: return &decode_column<std::uint8_t, ORN::uint64, SWAP>;
    case 0x31: return &decode_column<std::uint16_t, ORN::uint64, SWAP>;
    case 0x32: return &decode_column<std::uint32_t, ORN::uint64, SWAP>;
    default: return &decode_column<std::uint64_t, ORN::uint64, SWAP>;
    }
}

DECODE decoder_of(INDEX code, bool swap) noexcept { return swap ? decoder_of<true>(code) : decoder_of<false>(code); }

// Kinds of a delivered array (PlyReader::DELIVERY).
enum : INDEX { DELIVER_FLOAT, DELIVER_DOUBLE, DELIVER_BYTE };

template <class RAW, bool SWAP>
DECODE delivery_decoder_of(INDEX kind) noexcept {
    if constexpr (std::is_floating_point_v<RAW>)
        return kind == DELIVER_FLOAT ? &decode_column<RAW, float, SWAP> : &decode_column<RAW, double, SWAP>;
    else
        return &decode_column<RAW, std::uint8_t, SWAP>;
}

// Decoder of a property of type `code` into an array of `kind`, which the
// delivery has matched to the type's storage class.
template <bool SWAP>
DECODE delivery_decoder_of(INDEX code, INDEX kind) noexcept {
    switch (code) {
    case 0x10: return delivery_decoder_of<float, SWAP>(kind);
    case 0x11: return delivery_decoder_of<double, SWAP>(kind);
    case 0x30: return delivery_decoder_of<std::uint8_t, SWAP>(kind);
    case 0x31: return delivery_decoder_of<std::uint16_t, SWAP>(kind);
    case 0x32: return delivery_decoder_of<std::uint32_t, SWAP>(kind);
    default: return delivery_decoder_of<std::uint64_t, SWAP>(kind);
    }
}

// Bytes of one value of a delivered array.
constexpr INDEX delivery_width(INDEX kind) noexcept { return kind == DELIVER_FLOAT ? 4 : kind == DELIVER_DOUBLE ? 8 : 1; }

// A list count of any count type, as a signed number (a uint64 count beyond
// the int64 range turns negative and is rejected as such).
template <bool SWAP>
ORN::int64 load_count(INDEX code, const unsigned char *source) noexcept {
    switch (code) {
    case 0x20: return load<std::int32_t, SWAP>(source);
    case 0x21: return load<std::int64_t, SWAP>(source);
    case 0x30: return load<std::uint8_t, SWAP>(source);
    case 0x31: return load<std::uint16_t, SWAP>(source);
    case 0x32: return load<std::uint32_t, SWAP>(source);
    default: return static_cast<ORN::int64>(load<std::uint64_t, SWAP>(source));
    }
}

// Items of a fixed-width element decoded per property in blocks, so that the
// block's source bytes stay in cache while each column is filled.
constexpr INDEX DECODE_BLOCK = 2048;

// Read in place of the byte after the header when the file ends there.
constexpr unsigned char NO_BYTE = 0;

// Bytes of the file held at a time. At 1 MiB a refill is one large read
// and the window stays in cache while it is decoded; larger windows only
// add memory (loads of 0.5 to 8 MiB windows measured alike, 16 MiB slower).
std::atomic<INDEX> g_window_size{INDEX(1) << 20};

} // namespace

INDEX ply_reader_window() { return g_window_size.load(std::memory_order_relaxed); }

void set_ply_reader_window(INDEX bytes) {
    _DYNAMIC_ASSERT_(bytes >= 1);
    g_window_size.store(bytes, std::memory_order_relaxed);
}

class PlyReader::Implement : public PlyReader::Abstract {
public:
    enum : INDEX {
        PLYREADER_BODY_TYPE_VALUE,
        PLYREADER_BODY_TYPE_VALUE_LIST,
        PLYREADER_BODY_TYPE_INDEX,
        PLYREADER_BODY_TYPE_INDEX_LIST,
        PLYREADER_BODY_TYPE_BYTE,
        PLYREADER_BODY_TYPE_BYTE_LIST,
        // Handed to the caller's array as it was read; not kept.
        PLYREADER_BODY_TYPE_DELIVERED,
    };

    // One "element" line.
    struct ELEMENT {
        ORN::String<char> mName;
        INDEX mSize = 0;
        // Positions in mProperty of the element's properties, in header order.
        ORN::Array<INDEX> mProperty;
        // Property name -> index among the element's properties.
        std::unordered_map<ORN::String<char>, INDEX> mPropertyMap;
    };

    // One "property" line.
    struct PROPERTY {
        ORN::String<char> mName;
        INDEX mType = VAR_NONE;
        // Type of the count of a list property; VAR_NONE for a scalar.
        INDEX mListType = VAR_NONE;
    };

    // Stored values of one property: one contiguous run per storage class
    // (only the property's own class is used). A list property keeps all its
    // items' values back to back; while every list has the same length only
    // that length is kept, otherwise mOffset holds where each item's list
    // starts (item count + 1 entries).
    struct COLUMN {
        ORN::Buffer<double> mValue;
        ORN::Buffer<ORN::int64> mIndex;
        ORN::Buffer<ORN::uint64> mByte;
        INDEX mUsed = 0;
        INDEX mStride = VAR_NONE;
        ORN::Buffer<INDEX> mOffset;

        template <class T>
        ORN::Buffer<T> &store() noexcept {
            if constexpr (std::is_same_v<T, double>)
                return mValue;
            else if constexpr (std::is_same_v<T, ORN::int64>)
                return mIndex;
            else
                return mByte;
        }
        template <class T>
        const ORN::Buffer<T> &store() const noexcept {
            return const_cast<COLUMN *>(this)->store<T>();
        }

        // Room for the next item's list of `count` values; `room` bounds
        // what the rest of the file can still hold, for the first guess.
        template <class T>
        T *append_list(INDEX item_index, INDEX count, INDEX item_count, INDEX room);

        template <class T>
        ORN::ArrayView<const T> list(INDEX item_index) const noexcept {
            const T *values = store<T>().data();
            if (mOffset.empty())
                return {values + item_index * mStride, mStride};
            const INDEX *offset = mOffset.data();
            return {values + offset[item_index], offset[item_index + 1] - offset[item_index]};
        }
    };

    Implement(const ORN::String<char> &path, const PLAN *plan);
    ~Implement() override = default;

    INDEX find_element(const ORN::String<char> &name) const override;
    INDEX element_size(INDEX element_index) const override;
    INDEX find_property(INDEX element_index, const ORN::String<char> &name) const override;
    const double &get_value(INDEX element_index, INDEX property_index, INDEX item_index) const override;
    VALUE_LIST get_value_list(INDEX element_index, INDEX property_index, INDEX item_index) const override;
    const ORN::int64 &get_index(INDEX element_index, INDEX property_index, INDEX item_index) const override;
    INDEX_LIST get_index_list(INDEX element_index, INDEX property_index, INDEX item_index) const override;
    const ORN::uint64 &get_byte(INDEX element_index, INDEX property_index, INDEX item_index) const override;
    BYTE_LIST get_byte_list(INDEX element_index, INDEX property_index, INDEX item_index) const override;
    VALUE_LIST get_values(INDEX element_index, INDEX property_index) const override;
    BYTE_LIST get_bytes(INDEX element_index, INDEX property_index) const override;

private:
    friend class PlyReader::DELIVERY;
    class TEXT_STREAM;

    // The window byte at the cursor.
    const unsigned char *cursor() const noexcept { return mWindow.data() + (mRis - mBase); }
    void fetch(INDEX n);
    void read_header();
    void read_body_text();
    void read_body_binary(bool swap);
    template <bool SWAP>
    void read_element_binary(INDEX element_index);
    void prepare_columns();
    // The plan's choice for the element whose body starts now: one target
    // per property, nullptr data where the reader keeps the values.
    DELIVERY plan_element(INDEX element_index);
    const COLUMN &item_column(INDEX element_index, INDEX property_index, INDEX item_index) const;

    ORN::Array<ELEMENT> mElement;
    std::unordered_map<ORN::String<char>, INDEX> mElementMap;
    ORN::Array<PROPERTY> mProperty;
    // [element_index][property_index]
    ORN::Array<ORN::Array<INDEX>> mBodyType;
    ORN::Array<ORN::Array<COLUMN>> mColumn;
    ORN::String<char> mFormat;
    // The one-pass read's plan while parsing; nullptr without one.
    const PLAN *mPlan = nullptr;

    // The file while parsing, read through a window: mWindow[0] is the
    // file's byte at offset mBase, the window's valid bytes end at file
    // offset mFill and are followed by a NUL. mRis is the file offset of the
    // body cursor and mEnd the size of the file, so that mEnd - mRis is what
    // the file still holds. mTempRis is the header cursor, in the window.
    ORN::StreamLoader mStream;
    ORN::Buffer<unsigned char> mWindow;
    INDEX mBase = 0;
    INDEX mFill = 0;
    INDEX mRis = 0;
    INDEX mEnd = 0;
    const unsigned char *mTempRis = nullptr;
};

// Numbers of a text body read through the window. A number is parsed only
// when a gap follows it inside the window (or the file ends there), so that
// one cut by the window's end is read again whole after the refill.
class PlyReader::Implement::TEXT_STREAM {
public:
    explicit TEXT_STREAM(Implement &owner) : mOwner(owner), mText(nullptr, 0) { restart(); }
    ~TEXT_STREAM() { mOwner.mRis = offset(); }

    // Bytes of the file from the cursor to its end.
    INDEX remaining() const noexcept { return mOwner.mEnd - offset(); }

    // Reads one number; false unless it is whole and followed by a gap or
    // by the end of the file. Blanks before it may run over several windows.
    template <class T>
    bool read_number(T &out) {
        mText.skip_gap();
        while (mText.position() >= mSafe && mOwner.mFill < mOwner.mEnd) [[unlikely]] {
            refill();
            mText.skip_gap();
        }
        return mText.read_number(out) && (mText.at_end() || ORN::TextReader::is_gap(mText.peek()));
    }

private:
    const char *window() const noexcept { return reinterpret_cast<const char *>(mOwner.mWindow.data()); }
    INDEX offset() const noexcept { return mOwner.mBase + (mText.position() - window()); }

    // Reader over the window from the owner's cursor; mSafe is the window's
    // last gap byte (its end once the file is read to the end).
    void restart() noexcept {
        const char *begin = window() + (mOwner.mRis - mOwner.mBase);
        const char *end = window() + (mOwner.mFill - mOwner.mBase);
        mText = ORN::TextReader(begin, end - begin);
        if (mOwner.mFill == mOwner.mEnd) {
            mSafe = end;
            return;
        }
        const char *p = end;
        while (p > begin && !ORN::TextReader::is_gap(STRU8(p[-1])))
            --p;
        mSafe = p > begin ? p - 1 : begin;
    }

    // Reads on until a gap follows the next number or the file ends.
    void refill() {
        while (mText.position() >= mSafe && mOwner.mFill < mOwner.mEnd) {
            mOwner.mRis = offset();
            mOwner.fetch(mOwner.mFill - mOwner.mRis + 1);
            restart();
        }
    }

    Implement &mOwner;
    ORN::TextReader mText;
    const char *mSafe = nullptr;
};

// Makes `n` bytes from the cursor readable in the window, or all that the
// file still holds when it ends sooner: the unread tail moves to the front
// and the rest of the window is read from the file. A window smaller than
// `n` grows.
void PlyReader::Implement::fetch(INDEX n) {
    if (mFill - mRis >= n || mFill == mEnd)
        return;
    const INDEX keep = mFill - mRis;
    INDEX capacity = mWindow.size() - 1;
    if (n > capacity && mEnd - mRis > capacity) {
        capacity = std::min(std::max(n, capacity * 2), mEnd - mRis);
        ORN::Buffer<unsigned char> grown(capacity + 1);
        std::memcpy(grown.data(), cursor(), static_cast<std::size_t>(keep));
        mWindow = std::move(grown);
    } else if (keep > 0) {
        std::memmove(mWindow.data(), cursor(), static_cast<std::size_t>(keep));
    }
    mBase = mRis;
    const INDEX wanted = std::min(capacity - keep, mEnd - mFill);
    const INDEX r8x = mStream.read(mWindow.data() + keep, wanted);
    // Fewer bytes than the size taken at the start: the file shrank.
    _DYNAMIC_ASSERT_(r8x == wanted);
    mFill += r8x;
    mWindow.data()[mFill - mBase] = 0;
}

template <class T>
T *PlyReader::Implement::COLUMN::append_list(INDEX item_index, INDEX count, INDEX item_count, INDEX room) {
    ORN::Buffer<T> &values = store<T>();
    if (item_index == 0) {
        // Guess that every list has the first one's length: exact for the
        // usual faces of one polygon kind, so no offsets are kept at all.
        mStride = count;
        const bool fits = count == 0 || item_count <= room / count;
        values = ORN::Buffer<T>(fits ? item_count * count : count);
    } else if (mStride != VAR_NONE && count != mStride) {
        mOffset = ORN::Buffer<INDEX>(item_count + 1);
        for (INDEX i = 0; i <= item_index; ++i)
            mOffset.data()[i] = i * mStride;
        mStride = VAR_NONE;
    }
    if (count > values.size() - mUsed) {
        const INDEX grown = values.size() + values.size() / 2 + 16;
        values.resize(mUsed + count > grown ? mUsed + count : grown);
    }
    T *target = values.data() + mUsed;
    mUsed += count;
    if (mStride == VAR_NONE)
        mOffset.data()[item_index + 1] = mUsed;
    return target;
}

PlyReader::Implement::Implement(const ORN::String<char> &path, const PLAN *plan) : mPlan(plan) {
    mEnd = ORN::FileSystemProc::file_size(path);
    mStream = ORN::StreamLoader::open_read(path);
    const INDEX window = std::max(INDEX(1), std::min(ply_reader_window(), mEnd));
    mWindow = ORN::Buffer<unsigned char>(window + 1);
    mWindow.data()[0] = 0;
    fetch(window);
    mTempRis = mWindow.data();
    read_header();
    prepare_columns();
    if (mFormat == "ascii")
        read_body_text();
    else if (mFormat == "binary_little_endian")
        read_body_binary(std::endian::native != std::endian::little);
    else if (mFormat == "binary_big_endian")
        read_body_binary(std::endian::native != std::endian::big);
    else
        _DYNAMIC_ASSERT_(false);
    mTempRis = nullptr;
    mWindow = {};
    mStream = {};
    mPlan = nullptr;
}

PlyReader::DELIVERY PlyReader::Implement::plan_element(INDEX element_index) {
    DELIVERY delivery(*this, element_index);
    if (mPlan == nullptr)
        return delivery;
    (*mPlan)(delivery);
    for (INDEX p = 0; p < delivery.mTarget.size(); ++p)
        if (delivery.mTarget[p].mData != nullptr)
            mBodyType[element_index][p] = PLYREADER_BODY_TYPE_DELIVERED;
    return delivery;
}

void PlyReader::Implement::read_header() {
    std::string_view words[6];
    for (INDEX line = 0;; ++line) {
        const unsigned char *limit = mWindow.data() + (mFill - mBase);
        const void *feed = std::memchr(mTempRis, '\n', static_cast<std::size_t>(limit - mTempRis));
        // A line the window cuts: move it to the front and read on.
        while (!feed && mFill < mEnd) {
            mRis = mBase + (mTempRis - mWindow.data());
            const INDEX scanned = mFill - mRis;
            fetch(scanned + 1);
            mTempRis = cursor();
            limit = mWindow.data() + (mFill - mBase);
            feed = std::memchr(mTempRis + scanned, '\n', static_cast<std::size_t>(limit - mTempRis - scanned));
        }
        const unsigned char *line_end = feed ? static_cast<const unsigned char *>(feed) : limit;
        const unsigned char *next = feed ? line_end + 1 : limit;

        // Split at blanks; a carriage return counts as one.
        INDEX count = 0;
        for (const unsigned char *p = mTempRis; p < line_end;) {
            while (p < line_end && (*p == ' ' || *p == '\t' || *p == '\r'))
                ++p;
            const unsigned char *b = p;
            while (p < line_end && *p != ' ' && *p != '\t' && *p != '\r')
                ++p;
            if (p > b) {
                if (count == 6) {
                    ++count;
                    break;
                }
                words[count++] = {reinterpret_cast<const char *>(b), static_cast<std::size_t>(p - b)};
            }
        }

        if (line == 0) {
            const std::string_view r1x = count == 1 ? words[0] : std::string_view();
            _DYNAMIC_ASSERT_(r1x == "ply");
            mTempRis = next;
            continue;
        }
        const std::string_view key = count > 0 ? words[0] : std::string_view();
        if (key == "format" && count >= 2) {
            mFormat = words[1];
        } else if (key == "comment") {
        } else if (key == "element" && count == 3) {
            INDEX r3x = VAR_NONE;
            const auto r = std::from_chars(words[2].data(), words[2].data() + words[2].size(), r3x);
            if (r.ec != std::errc() || r.ptr != words[2].data() + words[2].size())
                r3x = VAR_NONE;
            _DYNAMIC_ASSERT_(r3x >= 0);
            ELEMENT &element = mElement.append();
            element.mName = words[1];
            element.mSize = r3x;
            mElementMap.try_emplace(element.mName, mElement.size() - 1);
        } else if (key == "property" && !mElement.empty() && count == 3 && words[1] != "list") {
            const INDEX ix = find_type(PROPERTY_TYPE, words[1]);
            _DYNAMIC_ASSERT_(ix != VAR_NONE);
            PROPERTY &property = mProperty.append();
            property.mName = words[2];
            property.mType = PROPERTY_TYPE[ix].mCode;
            ELEMENT &element = mElement.back();
            element.mPropertyMap.try_emplace(property.mName, element.mProperty.size());
            element.mProperty.append(mProperty.size() - 1);
        } else if (key == "property" && !mElement.empty() && count == 5 && words[1] == "list") {
            const INDEX r4x = find_type(LIST_COUNT_TYPE, words[2]);
            _DYNAMIC_ASSERT_(r4x != VAR_NONE);
            const INDEX r5x = find_type(PROPERTY_TYPE, words[3]);
            _DYNAMIC_ASSERT_(r5x != VAR_NONE);
            PROPERTY &property = mProperty.append();
            property.mName = words[4];
            property.mType = PROPERTY_TYPE[r5x].mCode;
            property.mListType = LIST_COUNT_TYPE[r4x].mCode;
            ELEMENT &element = mElement.back();
            element.mPropertyMap.try_emplace(property.mName, element.mProperty.size());
            element.mProperty.append(mProperty.size() - 1);
        } else if (key == "end_header" && (count == 1 || words[0].data()[words[0].size()] == '\r')) {
            // The header ends right after the word, in "\n" or "\r\n"; a
            // carriage return followed by anything else is a missing line feed.
            mTempRis = reinterpret_cast<const unsigned char *>(words[0].data() + words[0].size());
            if (mTempRis < limit && mTempRis[0] == STRU8('\r'))
                ++mTempRis;
            if (mTempRis >= limit)
                mTempRis = &NO_BYTE;
            _DYNAMIC_ASSERT_(mTempRis[0] == STRU8 ('\n'));
            mRis = mBase + (mTempRis + 1 - mWindow.data());
            return;
        } else {
            _DYNAMIC_ASSERT_(false);
        }
        mTempRis = next;
    }
}

void PlyReader::Implement::prepare_columns() {
    mBodyType = ORN::Array<ORN::Array<INDEX>>(mElement.size());
    mColumn = ORN::Array<ORN::Array<COLUMN>>(mElement.size());
    for (INDEX e = 0; e < mElement.size(); ++e) {
        const ELEMENT &element = mElement[e];
        mBodyType[e] = ORN::Array<INDEX>(element.mProperty.size());
        mColumn[e] = ORN::Array<COLUMN>(element.mProperty.size());
        for (INDEX p = 0; p < element.mProperty.size(); ++p) {
            const PROPERTY &property = mProperty[element.mProperty[p]];
            const bool list = property.mListType != VAR_NONE;
            switch (storage_class(property.mType)) {
            case 1: mBodyType[e][p] = list ? PLYREADER_BODY_TYPE_VALUE_LIST : PLYREADER_BODY_TYPE_VALUE; break;
            case 2: mBodyType[e][p] = list ? PLYREADER_BODY_TYPE_INDEX_LIST : PLYREADER_BODY_TYPE_INDEX; break;
            default: mBodyType[e][p] = list ? PLYREADER_BODY_TYPE_BYTE_LIST : PLYREADER_BODY_TYPE_BYTE; break;
            }
        }
    }
}

void PlyReader::Implement::read_body_text() {
    TEXT_STREAM reader(*this);

    // Reads one number of type `code` into `target`, which has the type's
    // storage class.
    const auto read_value = [&reader](INDEX code, auto *target) {
        switch (code) {
        case 0x10: case 0x11: case 0x20: case 0x21:
        case 0x30: case 0x31: case 0x32: case 0x33: break;
        default: _DYNAMIC_ASSERT_(false);
        }
        // A number ends at a gap or at the end: "2.5" is no integer.
        const bool number_read = reader.read_number(*target);
        _DYNAMIC_ASSERT_(number_read);
    };

    for (INDEX e = 0; e < mElement.size(); ++e) {
        const ELEMENT &element = mElement[e];
        const INDEX item_count = element.mSize;
        const INDEX property_count = element.mProperty.size();
        if (item_count == 0 || property_count == 0)
            continue;
        // Every value takes at least one character and one gap.
        _DYNAMIC_ASSERT_(item_count <= (reader.remaining () + 1) / 2 / property_count);

        const DELIVERY delivery = plan_element(e);
        const DELIVERY::TARGET *target = delivery.mTarget.data();
        ORN::Array<COLUMN> &columns = mColumn[e];
        for (INDEX p = 0; p < property_count; ++p) {
            const PROPERTY &property = mProperty[element.mProperty[p]];
            if (property.mListType != VAR_NONE || target[p].mData != nullptr)
                continue;
            switch (storage_class(property.mType)) {
            case 1: columns[p].mValue = ORN::Buffer<double>(item_count); break;
            case 2: columns[p].mIndex = ORN::Buffer<ORN::int64>(item_count); break;
            default: columns[p].mByte = ORN::Buffer<ORN::uint64>(item_count); break;
            }
        }

        for (INDEX i = 0; i < item_count; ++i) {
            for (INDEX p = 0; p < property_count; ++p) {
                const PROPERTY &property = mProperty.data()[element.mProperty.data()[p]];
                COLUMN &column = columns.data()[p];
                const DELIVERY::TARGET &to = target[p];
                if (to.mData != nullptr) {
                    // Read in the storage class, then converted as the binary
                    // decoders convert.
                    const INDEX at = i * to.mStride;
                    if (to.mKind == DELIVER_BYTE) {
                        ORN::uint64 value = 0;
                        read_value(property.mType, &value);
                        static_cast<std::uint8_t *>(to.mData)[at] = convert<std::uint8_t>(value);
                    } else {
                        double value = 0;
                        read_value(property.mType, &value);
                        if (to.mKind == DELIVER_FLOAT)
                            static_cast<float *>(to.mData)[at] = static_cast<float>(value);
                        else
                            static_cast<double *>(to.mData)[at] = value;
                    }
                    continue;
                }
                if (property.mListType == VAR_NONE) {
                    switch (storage_class(property.mType)) {
                    case 1: read_value(property.mType, column.mValue.data() + i); break;
                    case 2: read_value(property.mType, column.mIndex.data() + i); break;
                    default: read_value(property.mType, column.mByte.data() + i); break;
                    }
                    continue;
                }
                ORN::int64 list_count = VAR_NONE;
                read_value(0x21, &list_count);
                _DYNAMIC_ASSERT_(list_count >= 0);
                _DYNAMIC_ASSERT_(list_count <= (reader.remaining () + 1) / 2);
                const INDEX room = (reader.remaining() + 1) / 2;
                const auto read_list = [&](auto *target) {
                    for (INDEX k = 0; k < list_count; ++k)
                        read_value(property.mType, target + k);
                };
                switch (storage_class(property.mType)) {
                case 1: read_list(column.append_list<double>(i, list_count, item_count, room)); break;
                case 2: read_list(column.append_list<ORN::int64>(i, list_count, item_count, room)); break;
                default: read_list(column.append_list<ORN::uint64>(i, list_count, item_count, room)); break;
                }
            }
        }
    }
}

void PlyReader::Implement::read_body_binary(bool swap) {
    for (INDEX e = 0; e < mElement.size(); ++e) {
        if (swap)
            read_element_binary<true>(e);
        else
            read_element_binary<false>(e);
    }
}

template <bool SWAP>
void PlyReader::Implement::read_element_binary(INDEX element_index) {
    const ELEMENT &element = mElement[element_index];
    const INDEX item_count = element.mSize;
    const INDEX property_count = element.mProperty.size();
    if (item_count == 0 || property_count == 0)
        return;
    ORN::Array<COLUMN> &columns = mColumn[element_index];

    // Layout of one item while items keep the same one: where each
    // property's first value sits, how many values it has, and for a list
    // where its count sits.
    ORN::Array<DECODE> decode(property_count);
    ORN::Array<INDEX> offset(property_count);
    ORN::Array<INDEX> length(property_count, 1);
    ORN::Array<INDEX> count_offset(property_count, VAR_NONE);
    ORN::Array<INDEX> list_type(property_count, VAR_NONE);
    bool fixed = true;
    INDEX item_width = 0;
    for (INDEX p = 0; p < property_count; ++p) {
        const PROPERTY &property = mProperty[element.mProperty[p]];
        decode[p] = decoder_of(property.mType, SWAP);
        offset[p] = item_width;
        item_width += width_of(property.mType);
        list_type[p] = property.mListType;
        fixed = fixed && property.mListType == VAR_NONE;
    }
    if (fixed)
        _DYNAMIC_ASSERT_(item_count <= (mEnd - mRis) / item_width);
    else
        // Every item holds at least one byte.
        _DYNAMIC_ASSERT_(item_count <= mEnd - mRis);
    const DELIVERY delivery = plan_element(element_index);
    const DELIVERY::TARGET *delivered = delivery.mTarget.data();

    // With lists, the first item gives the layout that later items are
    // expected to share (triangles, quads); items are decoded in blocks for
    // as long as they do, and one by one from the first that does not.
    bool uniform = fixed;
    if (!fixed) {
        uniform = true;
        item_width = 0;
        for (INDEX p = 0; p < property_count && uniform; ++p) {
            const INDEX width = width_of(mProperty[element.mProperty[p]].mType);
            if (list_type[p] != VAR_NONE) {
                const INDEX count_width = width_of(list_type[p]);
                uniform = count_width <= mEnd - mRis - item_width;
                if (!uniform)
                    break;
                fetch(item_width + count_width);
                const ORN::int64 list_count = load_count<SWAP>(list_type[p], cursor() + item_width);
                uniform = list_count >= 0 && list_count <= (mEnd - mRis - item_width - count_width) / width;
                if (!uniform)
                    break;
                count_offset[p] = item_width;
                length[p] = list_count;
                item_width += count_width;
            }
            offset[p] = item_width;
            item_width += width * length[p];
        }
        uniform = uniform && item_count <= (mEnd - mRis) / item_width;
    }

    // Where each property's values go: item i's k-th value at
    // target + i * item_bytes + k * 8, `step` values of the target's type
    // after the previous item's.
    ORN::Array<unsigned char *> target(property_count);
    ORN::Array<INDEX> item_bytes(property_count);
    ORN::Array<INDEX> step(property_count);
    for (INDEX p = 0; p < property_count; ++p) {
        const PROPERTY &property = mProperty[element.mProperty[p]];
        if (delivered[p].mData != nullptr) {
            decode[p] = SWAP ? delivery_decoder_of<true>(property.mType, delivered[p].mKind)
                             : delivery_decoder_of<false>(property.mType, delivered[p].mKind);
            target[p] = static_cast<unsigned char *>(delivered[p].mData);
            step[p] = delivered[p].mStride;
            item_bytes[p] = delivered[p].mStride * delivery_width(delivered[p].mKind);
            continue;
        }
        step[p] = length[p];
        item_bytes[p] = length[p] * 8;
        if (property.mListType != VAR_NONE && !uniform)
            continue;
        const INDEX stored = item_count * length[p];
        COLUMN &column = columns[p];
        if (property.mListType != VAR_NONE)
            column.mStride = length[p];
        switch (storage_class(property.mType)) {
        case 1:
            column.mValue = ORN::Buffer<double>(stored);
            target[p] = reinterpret_cast<unsigned char *>(column.mValue.data());
            break;
        case 2:
            column.mIndex = ORN::Buffer<ORN::int64>(stored);
            target[p] = reinterpret_cast<unsigned char *>(column.mIndex.data());
            break;
        default:
            column.mByte = ORN::Buffer<ORN::uint64>(stored);
            target[p] = reinterpret_cast<unsigned char *>(column.mByte.data());
            break;
        }
    }

    INDEX i = 0;
    while (uniform && i < item_count) {
        // The file holds every remaining item at this width, so the fetch
        // yields the whole block.
        INDEX count = item_count - i < DECODE_BLOCK ? item_count - i : DECODE_BLOCK;
        const INDEX capacity = mWindow.size() - 1;
        if (count * item_width > capacity)
            count = capacity / item_width > 0 ? capacity / item_width : 1;
        fetch(count * item_width);
        const unsigned char *block = cursor();
        // Lists of the block as long as the first item's.
        for (INDEX p = 0; p < property_count; ++p) {
            if (list_type.data()[p] == VAR_NONE)
                continue;
            const unsigned char *at = block + count_offset.data()[p];
            for (INDEX k = 0; k < count; ++k)
                if (load_count<SWAP>(list_type.data()[p], at + k * item_width) != length.data()[p]) {
                    count = k;
                    uniform = false;
                    break;
                }
        }
        for (INDEX p = 0; p < property_count; ++p) {
            const INDEX n = length.data()[p];
            const INDEX width = width_of(mProperty.data()[element.mProperty.data()[p]].mType);
            for (INDEX k = 0; k < n; ++k)
                decode.data()[p](block + offset.data()[p] + k * width, item_width, count,
                                 target.data()[p] + i * item_bytes.data()[p] + k * 8, step.data()[p]);
            if (list_type.data()[p] != VAR_NONE)
                columns.data()[p].mUsed += count * n;
        }
        mRis += count * item_width;
        i += count;
    }

    for (; i < item_count; ++i) {
        for (INDEX p = 0; p < property_count; ++p) {
            const PROPERTY &property = mProperty.data()[element.mProperty.data()[p]];
            if (property.mListType == VAR_NONE) {
                const INDEX width = width_of(property.mType);
                _DYNAMIC_ASSERT_(width <= mEnd - mRis);
                fetch(width);
                decode.data()[p](cursor(), 0, 1, target.data()[p] + i * item_bytes.data()[p], 1);
                mRis += width;
                continue;
            }
            const INDEX count_width = width_of(property.mListType);
            _DYNAMIC_ASSERT_(count_width <= mEnd - mRis);
            fetch(count_width);
            const ORN::int64 list_count = load_count<SWAP>(property.mListType, cursor());
            mRis += count_width;
            const INDEX width = width_of(property.mType);
            _DYNAMIC_ASSERT_(list_count >= 0);
            _DYNAMIC_ASSERT_(list_count <= (mEnd - mRis) / width);
            const INDEX room = (mEnd - mRis) / width;
            COLUMN &column = columns.data()[p];
            unsigned char *values = nullptr;
            switch (storage_class(property.mType)) {
            case 1: values = reinterpret_cast<unsigned char *>(column.append_list<double>(i, list_count, item_count, room)); break;
            case 2: values = reinterpret_cast<unsigned char *>(column.append_list<ORN::int64>(i, list_count, item_count, room)); break;
            default: values = reinterpret_cast<unsigned char *>(column.append_list<ORN::uint64>(i, list_count, item_count, room)); break;
            }
            // A long list may run over several windows.
            for (INDEX left = list_count; left > 0;) {
                fetch(width);
                const INDEX ready = std::min(left, (mFill - mRis) / width);
                decode.data()[p](cursor(), width, ready, values, 1);
                values += ready * 8;
                mRis += ready * width;
                left -= ready;
            }
        }
    }
}

INDEX PlyReader::Implement::find_element(const ORN::String<char> &name) const {
    const auto it = mElementMap.find(name);
    return it == mElementMap.end() ? VAR_NONE : it->second;
}

INDEX PlyReader::Implement::element_size(INDEX element_index) const { return mElement[element_index].mSize; }

INDEX PlyReader::Implement::find_property(INDEX element_index, const ORN::String<char> &name) const {
    const ELEMENT &element = mElement[element_index];
    const auto it = element.mPropertyMap.find(name);
    return it == element.mPropertyMap.end() ? VAR_NONE : it->second;
}

const PlyReader::Implement::COLUMN &PlyReader::Implement::item_column(INDEX element_index, INDEX property_index, INDEX item_index) const {
    _DYNAMIC_ASSERT_(item_index >= 0 && item_index < mElement[element_index].mSize);
    return mColumn[element_index][property_index];
}

const double &PlyReader::Implement::get_value(INDEX element_index, INDEX property_index, INDEX item_index) const {
    _DYNAMIC_ASSERT_(mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_VALUE);
    return item_column(element_index, property_index, item_index).mValue.data()[item_index];
}

PlyReader::VALUE_LIST PlyReader::Implement::get_value_list(INDEX element_index, INDEX property_index, INDEX item_index) const {
    _DYNAMIC_ASSERT_(mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_VALUE_LIST);
    return item_column(element_index, property_index, item_index).list<double>(item_index);
}

const ORN::int64 &PlyReader::Implement::get_index(INDEX element_index, INDEX property_index, INDEX item_index) const {
    _DYNAMIC_ASSERT_(mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_INDEX);
    return item_column(element_index, property_index, item_index).mIndex.data()[item_index];
}

PlyReader::INDEX_LIST PlyReader::Implement::get_index_list(INDEX element_index, INDEX property_index, INDEX item_index) const {
    _DYNAMIC_ASSERT_(mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_INDEX_LIST);
    return item_column(element_index, property_index, item_index).list<ORN::int64>(item_index);
}

const ORN::uint64 &PlyReader::Implement::get_byte(INDEX element_index, INDEX property_index, INDEX item_index) const {
    _DYNAMIC_ASSERT_(mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_BYTE);
    return item_column(element_index, property_index, item_index).mByte.data()[item_index];
}

PlyReader::BYTE_LIST PlyReader::Implement::get_byte_list(INDEX element_index, INDEX property_index, INDEX item_index) const {
    _DYNAMIC_ASSERT_(mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_BYTE_LIST);
    return item_column(element_index, property_index, item_index).list<ORN::uint64>(item_index);
}

PlyReader::VALUE_LIST PlyReader::Implement::get_values(INDEX element_index, INDEX property_index) const {
    _DYNAMIC_ASSERT_(mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_VALUE);
    return VALUE_LIST(mColumn[element_index][property_index].mValue.data(), mElement[element_index].mSize);
}

PlyReader::BYTE_LIST PlyReader::Implement::get_bytes(INDEX element_index, INDEX property_index) const {
    _DYNAMIC_ASSERT_(mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_BYTE);
    return BYTE_LIST(mColumn[element_index][property_index].mByte.data(), mElement[element_index].mSize);
}

// ---------------------------------------------------------------------------

PlyReader::DELIVERY::DELIVERY(const Implement &reader, INDEX element_index)
    : mReader(reader), mElement(element_index), mTarget(reader.mElement[element_index].mProperty.size()) {}

INDEX PlyReader::DELIVERY::find_element(const ORN::String<char> &name) const { return mReader.find_element(name); }

INDEX PlyReader::DELIVERY::element_size() const { return mReader.element_size(mElement); }

INDEX PlyReader::DELIVERY::find_property(const ORN::String<char> &name) const { return mReader.find_property(mElement, name); }

bool PlyReader::DELIVERY::deliver(INDEX property_index, float *data, INDEX stride) {
    return deliver(property_index, data, DELIVER_FLOAT, stride);
}

bool PlyReader::DELIVERY::deliver(INDEX property_index, double *data, INDEX stride) {
    return deliver(property_index, data, DELIVER_DOUBLE, stride);
}

bool PlyReader::DELIVERY::deliver(INDEX property_index, std::uint8_t *data, INDEX stride) {
    return deliver(property_index, data, DELIVER_BYTE, stride);
}

bool PlyReader::DELIVERY::deliver(INDEX property_index, void *data, INDEX kind, INDEX stride) {
    _DYNAMIC_ASSERT_(property_index >= 0 && property_index < mTarget.size ());
    _DYNAMIC_ASSERT_(data != nullptr && stride >= 1);
    const Implement::PROPERTY &property = mReader.mProperty[mReader.mElement[mElement].mProperty[property_index]];
    const INDEX wanted = kind == DELIVER_BYTE ? 3 : 1;
    if (property.mListType != VAR_NONE || storage_class(property.mType) != wanted)
        return false;
    mTarget[property_index] = {data, kind, stride};
    return true;
}

PlyReader::PlyReader(const ORN::String<char> &path) : mThis(ORN::StrongRef<Implement>::make(path, nullptr)) {}

PlyReader::PlyReader(const ORN::String<char> &path, const PLAN &plan) : mThis(ORN::StrongRef<Implement>::make(path, &plan)) {}

void PlyReader::check_avaliable(const ORN::StrongRef<Abstract> &pointer) { _DYNAMIC_ASSERT_(pointer.exist ()); }

INDEX PlyReader::find_element(const ORN::String<char> &name) const {
    check_avaliable(mThis);
    return mThis.get()->find_element(name);
}

INDEX PlyReader::element_size(INDEX element_index) const {
    check_avaliable(mThis);
    return mThis.get()->element_size(element_index);
}

INDEX PlyReader::find_property(INDEX element_index, const ORN::String<char> &name) const {
    check_avaliable(mThis);
    return mThis.get()->find_property(element_index, name);
}

const double &PlyReader::get_value(INDEX element_index, INDEX property_index, INDEX item_index) const {
    check_avaliable(mThis);
    return mThis.get()->get_value(element_index, property_index, item_index);
}

PlyReader::VALUE_LIST PlyReader::get_value_list(INDEX element_index, INDEX property_index, INDEX item_index) const {
    check_avaliable(mThis);
    return mThis.get()->get_value_list(element_index, property_index, item_index);
}

const ORN::int64 &PlyReader::get_index(INDEX element_index, INDEX property_index, INDEX item_index) const {
    check_avaliable(mThis);
    return mThis.get()->get_index(element_index, property_index, item_index);
}

PlyReader::INDEX_LIST PlyReader::get_index_list(INDEX element_index, INDEX property_index, INDEX item_index) const {
    check_avaliable(mThis);
    return mThis.get()->get_index_list(element_index, property_index, item_index);
}

const ORN::uint64 &PlyReader::get_byte(INDEX element_index, INDEX property_index, INDEX item_index) const {
    check_avaliable(mThis);
    return mThis.get()->get_byte(element_index, property_index, item_index);
}

PlyReader::BYTE_LIST PlyReader::get_byte_list(INDEX element_index, INDEX property_index, INDEX item_index) const {
    check_avaliable(mThis);
    return mThis.get()->get_byte_list(element_index, property_index, item_index);
}

PlyReader::VALUE_LIST PlyReader::get_values(INDEX element_index, INDEX property_index) const {
    check_avaliable(mThis);
    return mThis.get()->get_values(element_index, property_index);
}

PlyReader::BYTE_LIST PlyReader::get_bytes(INDEX element_index, INDEX property_index) const {
    check_avaliable(mThis);
    return mThis.get()->get_bytes(element_index, property_index);
}

} // namespace ZARN
