#include "orn_serialization.h"
#include "orn_debugger.h"

#include <pugixml.hpp>

#include <algorithm>
#include <atomic>
#include <bit>
#include <charconv>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace ORN {

namespace {

// ---------------------------------------------------------------------------
// Typed reads shared by the JSON and XML parsers: the whole text must
// convert, a leading '+' is allowed before a digit or a point.

std::string_view without_plus(std::string_view text) noexcept {
    if (text.size() >= 2 && text[0] == '+' && text[1] != '-' && text[1] != '+')
        text.remove_prefix(1);
    return text;
}

template <class T>
bool convert_text(std::string_view text, T &out) noexcept {
    if constexpr (std::is_same_v<T, bool>) {
        if (text == "true" || text == "TRUE") {
            out = true;
            return true;
        }
        if (text == "false" || text == "FALSE") {
            out = false;
            return true;
        }
        return false;
    } else {
        text = without_plus(text);
        if (text.empty())
            return false;
        const char *const b = text.data();
        const char *const e = b + text.size();
        T result{};
        std::from_chars_result r;
        if constexpr (std::is_floating_point_v<T>)
            r = std::from_chars(b, e, result, std::chars_format::general);
        else
            r = std::from_chars(b, e, result, 10);
        if (r.ec != std::errc() || r.ptr != e)
            return false;
        out = result;
        return true;
    }
}

// Bytes JSON's blank rule skips between tokens.
inline bool is_gap(char c) noexcept { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }
inline bool is_digit(char c) noexcept { return static_cast<unsigned char>(c - '0') < 10; }

std::uint32_t hash_name(std::string_view name) noexcept {
    std::uint32_t h = 2166136261u;
    for (const char c : name)
        h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
    return h;
}

// Value of one hexadecimal digit, or -1.
inline int hex_digit(char c) noexcept {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The code unit of four hexadecimal digits, or a negative number.
[[gnu::always_inline]] inline std::int32_t hex_unit(const char *p) noexcept {
    return (hex_digit(p[0]) << 12) | (hex_digit(p[1]) << 8) | (hex_digit(p[2]) << 4) | hex_digit(p[3]);
}

} // namespace

// ---------------------------------------------------------------------------
// JSON node table.

// Objects with at least this many members get a hashed member index; smaller
// ones are searched along their chain.
static constexpr INDEX MAPPING_SIZE = 32;
// Zero bytes kept after the text copy, so that literal matches and 16-byte
// scans near the end never leave the copy.
static constexpr INDEX TEXT_PADDING = 64;
// The longest text NODE_PACK can index: its runs are 32-bit, and with at
// most one node per byte of text (plus the root) so are its links.
static constexpr INDEX NARROW_LIMIT = std::numeric_limits<std::int32_t>::max();

namespace {
std::atomic<INDEX> g_narrow_limit{NARROW_LIMIT};
} // namespace

// The document's own copy of the text, and the kind of node table that
// indexes it. The nodes themselves are held by the TABLE of that kind.
class JsonParser::Private::Implement {
public:
    // Copies the text and counts the nodes it can hold at most: every node
    // but the root is made right after a '[', ',' or ':' of its own (a
    // failing last node too), so there is at most one more than the number
    // of those bytes.
    Implement(std::string_view text, bool wide) : mTextSize(static_cast<INDEX>(text.size())), mWide(wide) {
        mText = std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(mTextSize + TEXT_PADDING));
        mBound = 1 + copy_counting(text.data(), mText.get(), mTextSize);
        std::memset(mText.get() + mTextSize, 0, TEXT_PADDING);
    }

    std::string_view text(std::uint64_t offset, std::uint64_t length) const noexcept {
        return {mText.get() + offset, static_cast<std::size_t>(length)};
    }

    std::unique_ptr<char[]> mText;
    INDEX mTextSize = 0;
    INDEX mBound = 0;
    // Nodes are WIDE_NODE_PACK (text above the narrow limit), else NODE_PACK.
    bool mWide = false;

private:
    // Copies `size` bytes and counts the '[', ',' and ':' among them.
    static INDEX copy_counting(const char *from, char *to, INDEX size) noexcept {
        INDEX count = 0;
        INDEX i = 0;
#if defined(__SSE2__)
        // Per-byte counters, added up before any of them can overflow.
        const __m128i open = _mm_set1_epi8('[');
        const __m128i comma = _mm_set1_epi8(',');
        const __m128i colon = _mm_set1_epi8(':');
        const __m128i zero = _mm_setzero_si128();
        while (i + 16 <= size) {
            __m128i counters = zero;
            for (int round = 0; round < 255 && i + 16 <= size; ++round, i += 16) {
                const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(from + i));
                _mm_storeu_si128(reinterpret_cast<__m128i *>(to + i), v);
                const __m128i hit = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, open), _mm_cmpeq_epi8(v, comma)), _mm_cmpeq_epi8(v, colon));
                counters = _mm_sub_epi8(counters, hit);
            }
            const __m128i sums = _mm_sad_epu8(counters, zero);
            count += _mm_cvtsi128_si64(sums) + _mm_cvtsi128_si64(_mm_unpackhi_epi64(sums, sums));
        }
#endif
        for (; i < size; ++i) {
            const char c = from[i];
            to[i] = c;
            count += (c == '[') | (c == ',') | (c == ':');
        }
        return count;
    }
};

INDEX JsonParser::Private::narrow_limit() noexcept { return g_narrow_limit.load(std::memory_order_relaxed); }

void JsonParser::Private::set_narrow_limit(INDEX bytes) {
    _DYNAMIC_ASSERT_(bytes >= 0 && bytes <= NARROW_LIMIT);
    g_narrow_limit.store(bytes, std::memory_order_relaxed);
}

INDEX JsonParser::Private::link_size(const JsonParser &parser) noexcept {
    if (!parser.exist())
        return 0;
    return parser.mTable.get()->mWide ? INDEX(sizeof(WIDE_NODE_PACK::LINK)) : INDEX(sizeof(NODE_PACK::LINK));
}

JsonParser::Private::RecursiveCounter::RecursiveCounter(INDEX &self) : mSelf(self) {
    _DYNAMIC_ASSERT_(mSelf <= DEFAULT_RECURSIVE_SIZE);
    ++mSelf;
}

JsonParser::Private::RecursiveCounter::~RecursiveCounter() { --mSelf; }

namespace {

using Implement = JsonParser::Private::Implement;
using RecursiveCounter = JsonParser::Private::RecursiveCounter;
using NODE_PACK = JsonParser::NODE_PACK;
using WIDE_NODE_PACK = JsonParser::WIDE_NODE_PACK;
static_assert(sizeof(NODE_PACK) == 32);
static_assert(sizeof(WIDE_NODE_PACK) == 64);

constexpr std::uint8_t NODE_NULL = JsonParser::NODE_NULL;
constexpr std::uint8_t NODE_VALUE = JsonParser::NODE_VALUE;
constexpr std::uint8_t NODE_ARRAY = JsonParser::NODE_ARRAY;
constexpr std::uint8_t NODE_OBJECT = JsonParser::NODE_OBJECT;

// The node table of one document, with nodes of one width. It is sized once
// to the bound, never moves while it is filled, and pages of it that stay
// unused are never touched.
template <class NODE>
class TABLE final : public Implement {
public:
    using LINK = typename NODE::LINK;
    using TEXT = typename NODE::TEXT;

    // One slot of a member index: the name's hash and the member node.
    struct SLOT {
        std::uint32_t mHash;
        LINK mNode;
    };
    // A member index: an open-addressing table of mMask + 1 slots.
    struct MAPPING {
        std::unique_ptr<SLOT[]> mSlotSet;
        INDEX mMask;
    };

    TABLE(std::string_view text, bool wide) : Implement(text, wide), mNodeSet(mBound) {}

    std::string_view text(TEXT t) const noexcept { return Implement::text(t.mOffset, t.mLength); }
    const NODE &operator[](INDEX index) const noexcept { return mNodeSet.data()[index]; }

    // The member of object `object` named `name`, the last one if repeated.
    LINK find(const NODE &object, std::string_view name) const noexcept {
        if (object.mValue.mOffset != NODE::NO_MAPPING) {
            const MAPPING &m = mMappingSet[object.mValue.mOffset];
            const SLOT *slots = m.mSlotSet.get();
            const std::uint32_t h = hash_name(name);
            for (INDEX i = h & m.mMask;; i = (i + 1) & m.mMask) {
                const SLOT &s = slots[i];
                if (s.mNode == VAR_NONE)
                    return VAR_NONE;
                if (s.mHash == h && text((*this)[s.mNode].mName) == name)
                    return s.mNode;
            }
        }
        LINK found = VAR_NONE;
        for (LINK i = object.mChild; i != VAR_NONE;) {
            const NODE &member = (*this)[i];
            if (member.mName.mLength == name.size() && text(member.mName) == name)
                found = i;
            i = member.mBrother;
        }
        return found;
    }

    // Builds the member index of a large object; a later member of the same
    // name replaces an earlier one.
    void build_mapping(NODE &object, INDEX count) {
        const INDEX capacity = INDEX(std::bit_ceil(static_cast<std::uint64_t>(count) * 2));
        auto slots = std::make_unique_for_overwrite<SLOT[]>(static_cast<std::size_t>(capacity));
        std::fill_n(slots.get(), capacity, SLOT{0, VAR_NONE});
        const INDEX mask = capacity - 1;
        for (LINK member = object.mChild; member != VAR_NONE; member = (*this)[member].mBrother) {
            const std::string_view name = text((*this)[member].mName);
            const std::uint32_t h = hash_name(name);
            for (INDEX i = h & mask;; i = (i + 1) & mask) {
                SLOT &s = slots[i];
                if (s.mNode == VAR_NONE) {
                    s = SLOT{h, member};
                    break;
                }
                if (s.mHash == h && text((*this)[s.mNode].mName) == name) {
                    s.mNode = member;
                    break;
                }
            }
        }
        object.mValue.mOffset = static_cast<typename NODE::OFFSET>(mMappingSet.size());
        mMappingSet.push_back(MAPPING{std::move(slots), mask});
    }

    Buffer<NODE> mNodeSet; // sized to the bound, filled up to mNodeSize
    INDEX mNodeSize = 0;
    std::vector<MAPPING> mMappingSet;
};

// The recursive-descent reader over the table's own text copy. Strings with
// escapes are decoded in place (a decoded string never grows), so every
// scalar and member name is a run of that copy. The text ends at its first
// NUL outside a string; the copy is followed by NULs.
template <class NODE>
class Generator {
public:
    using LINK = typename NODE::LINK;
    using TEXT = typename NODE::TEXT;
    using OFFSET = typename NODE::OFFSET;

    explicit Generator(TABLE<NODE> &table) noexcept
        : mRis(table.mText.get()), mBegin(table.mText.get()), mEnd(table.mText.get() + table.mTextSize),
          mNodeSet(table.mNodeSet.data()), mTable(table) {}

    // Where the parse stands in the text (offsets of the unread part are
    // those of the original text: decoding never moves what lies ahead).
    INDEX offset() const noexcept { return static_cast<INDEX>(mRis - mBegin); }

    // Parses the document; VAR_NONE for a blank text.
    INDEX generate() {
        skip_gap();
        if (*mRis == '\0')
            return VAR_NONE;
        mLatestIndex = parse_value(VAR_NONE);
        skip_gap();
        _DYNAMIC_ASSERT_(mRis[0] == STRU8 ('\0'));
        _DYNAMIC_ASSERT_(mLatestIndex == 0);
        mTable.mNodeSize = mNodeSize;
        return mLatestIndex;
    }

private:
    void skip_gap() noexcept {
        while (is_gap(*mRis))
            ++mRis;
    }

    TEXT run(const char *b, const char *e) const noexcept {
        return TEXT{static_cast<OFFSET>(b - mBegin), static_cast<OFFSET>(e - b)};
    }

    LINK append(LINK parent) noexcept {
        const LINK index = mNodeSize++;
        mNodeSet[index] = NODE{TEXT{0, 0}, 0, parent, VAR_NONE, VAR_NONE, TEXT{0, 0}};
        return index;
    }

    LINK parse_value(LINK parent) {
        const RecursiveCounter counter(mSelf);
        const LINK index = append(parent);
        NODE &node = mNodeSet[index];
        switch (*mRis) {
        case '+':
        case '-':
        case '0':
        case '1':
        case '2':
        case '3':
        case '4':
        case '5':
        case '6':
        case '7':
        case '8':
        case '9':
            node.mValue = parse_number();
            node.mClass = NODE_VALUE;
            break;
        case '"':
            node.mValue = parse_string();
            node.mClass = NODE_VALUE;
            break;
        case 't':
        case 'T':
        case 'f':
        case 'F':
            node.mValue = parse_boolean();
            node.mClass = NODE_VALUE;
            break;
        case 'n':
            _DYNAMIC_ASSERT_(std::memcmp (mRis, "null", 4) == 0);
            node.mValue = run(mRis, mRis + 4);
            node.mClass = NODE_NULL;
            mRis += 4;
            break;
        case '[':
            node.mClass = NODE_ARRAY;
            parse_array(index);
            break;
        case '{':
            node.mClass = NODE_OBJECT;
            node.mValue.mOffset = NODE::NO_MAPPING;
            parse_object(index);
            break;
        default:
            _DYNAMIC_ASSERT_(false);
        }
        return index;
    }

    // Sign, integer part, optional fraction (digits optional), optional
    // exponent (digits required). Only checked here, never converted.
    TEXT parse_number() {
        const char *const b = mRis;
        if (*mRis == '+' || *mRis == '-')
            ++mRis;
        if (*mRis == '0') {
            ++mRis;
        } else {
            _DYNAMIC_ASSERT_(is_digit (mRis[0]));
            do
                ++mRis;
            while (is_digit(*mRis));
        }
        if (*mRis == '.') {
            ++mRis;
            while (is_digit(*mRis))
                ++mRis;
        }
        if (*mRis == 'e' || *mRis == 'E') {
            ++mRis;
            if (*mRis == '+' || *mRis == '-')
                ++mRis;
            _DYNAMIC_ASSERT_(is_digit (mRis[0]));
            do
                ++mRis;
            while (is_digit(*mRis));
        }
        return run(b, mRis);
    }

    TEXT parse_boolean() {
        INDEX size = 0;
        if (std::memcmp(mRis, "true", 4) == 0 || std::memcmp(mRis, "TRUE", 4) == 0)
            size = 4;
        else if (std::memcmp(mRis, "false", 5) == 0 || std::memcmp(mRis, "FALSE", 5) == 0)
            size = 5;
        _DYNAMIC_ASSERT_(size > 0);
        const char *const b = mRis;
        mRis += size;
        return run(b, mRis);
    }

    // Moves mRis to the next byte that is a quote, a backslash or below 32
    // (the NUL after the text is one of those).
    void scan_plain() noexcept {
#if defined(__SSE2__)
        const __m128i quote = _mm_set1_epi8('"');
        const __m128i slash = _mm_set1_epi8('\\');
        const __m128i low = _mm_set1_epi8(0x1F);
        for (;;) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(mRis));
            const __m128i hit = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, slash)),
                                             _mm_cmpeq_epi8(_mm_min_epu8(v, low), v));
            const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(hit));
            if (mask != 0) {
                mRis += std::countr_zero(mask);
                return;
            }
            mRis += 16;
        }
#else
        while (*mRis != '"' && *mRis != '\\' && STRU8(*mRis) >= 0x20)
            ++mRis;
#endif
    }

    // A quoted string at mRis; yields its decoded content. The string path
    // (this, the escapes and hex_unit under it) is kept inline in
    // parse_value: left to itself, GCC moves parts of it out of line once
    // two table widths are instantiated, and texts with many strings then
    // parse 5 to 7 % slower.
    [[gnu::always_inline]] TEXT parse_string() {
        ++mRis;
        char *const b = mRis;
        scan_plain();
        if (*mRis == '"') {
            const char *const e = mRis++;
            return run(b, e);
        }
        char *out = mRis;
        for (;;) {
            const char c = *mRis;
            if (c == '"') {
                ++mRis;
                return run(b, out);
            }
            if (c == '\\') {
                out = parse_escape(out);
            } else {
                _DYNAMIC_ASSERT_(mRis < mEnd);
                _DYNAMIC_ASSERT_(STRU8 (mRis[0]) >= STRU8 (' '));
            }
            const char *const plain = mRis;
            scan_plain();
            std::memmove(out, plain, static_cast<std::size_t>(mRis - plain));
            out += mRis - plain;
        }
    }

    // The escape at mRis (a backslash); writes its bytes at `out`.
    [[gnu::always_inline]] char *parse_escape(char *out) {
        char escape = 0;
        switch (mRis[1]) {
        case '"':
            escape = '"';
            break;
        case '\\':
            escape = '\\';
            break;
        case '/':
            escape = '/';
            break;
        case 'b':
            escape = '\b';
            break;
        case 'f':
            escape = '\f';
            break;
        case 'n':
            escape = '\n';
            break;
        case 'r':
            escape = '\r';
            break;
        case 't':
            escape = '\t';
            break;
        case 'u':
            return parse_unicode(out);
        default:
            break;
        }
        _DYNAMIC_ASSERT_(escape != 0);
        mRis += 2;
        *out++ = escape;
        return out;
    }

    // "\uXXXX", or a surrogate pair of two of them, as UTF-8.
    [[gnu::always_inline]] char *parse_unicode(char *out) {
        std::int32_t code = hex_unit(mRis + 2);
        _DYNAMIC_ASSERT_(code >= 0);
        mRis += 6;
        if (code >= 0xD800 && code <= 0xDBFF) {
            _DYNAMIC_ASSERT_(mRis[0] == STRU8 ('\\') && mRis[1] == STRU8 ('u'));
            const std::int32_t low = hex_unit(mRis + 2);
            _DYNAMIC_ASSERT_(low >= 0xDC00 && low <= 0xDFFF);
            mRis += 6;
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        } else {
            _DYNAMIC_ASSERT_(code < 0xDC00 || code > 0xDFFF);
        }
        if (code < 0x80) {
            *out++ = static_cast<char>(code);
        } else if (code < 0x800) {
            *out++ = static_cast<char>(0xC0 | (code >> 6));
            *out++ = static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            *out++ = static_cast<char>(0xE0 | (code >> 12));
            *out++ = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            *out++ = static_cast<char>(0x80 | (code & 0x3F));
        } else {
            *out++ = static_cast<char>(0xF0 | (code >> 18));
            *out++ = static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            *out++ = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            *out++ = static_cast<char>(0x80 | (code & 0x3F));
        }
        return out;
    }

    void parse_array(LINK index) {
        ++mRis;
        skip_gap();
        if (*mRis == ']') {
            ++mRis;
            return;
        }
        LINK last = parse_value(index);
        mNodeSet[index].mChild = last;
        OFFSET count = 1;
        for (;;) {
            skip_gap();
            if (*mRis != ',')
                break;
            ++mRis;
            skip_gap();
            const LINK next = parse_value(index);
            mNodeSet[last].mBrother = next;
            last = next;
            ++count;
        }
        _DYNAMIC_ASSERT_(mRis[0] == STRU8 (']'));
        ++mRis;
        mNodeSet[index].mValue.mLength = count;
    }

    void parse_object(LINK index) {
        ++mRis;
        skip_gap();
        if (*mRis == '}') {
            ++mRis;
            return;
        }
        LINK last = VAR_NONE;
        OFFSET count = 0;
        for (;;) {
            _DYNAMIC_ASSERT_(mRis[0] == STRU8 ('"'));
            const TEXT name = parse_string();
            skip_gap();
            _DYNAMIC_ASSERT_(mRis[0] == STRU8 (':'));
            ++mRis;
            skip_gap();
            const LINK member = parse_value(index);
            mNodeSet[member].mName = name;
            if (last == VAR_NONE)
                mNodeSet[index].mChild = member;
            else
                mNodeSet[last].mBrother = member;
            last = member;
            ++count;
            skip_gap();
            if (*mRis != ',')
                break;
            ++mRis;
            skip_gap();
        }
        _DYNAMIC_ASSERT_(mRis[0] == STRU8 ('}'));
        ++mRis;
        mNodeSet[index].mValue.mLength = count;
        if (count >= MAPPING_SIZE)
            mTable.build_mapping(mNodeSet[index], count);
    }

    char *mRis;
    const char *const mBegin;
    const char *const mEnd;
    NODE *const mNodeSet;
    LINK mNodeSize = 0;
    INDEX mSelf = 0;
    INDEX mLatestIndex = VAR_NONE;
    TABLE<NODE> &mTable;
};

// The offset at which the last parse of this thread failed.
thread_local INDEX gFailureOffset = 0;

// Parses `text` into a table of NODE; no table for a blank text.
template <class NODE>
StrongRef<const Implement> parse_table(std::string_view text, bool wide, INDEX &root) {
    auto table = std::make_shared<TABLE<NODE>>(text, wide);
    Generator<NODE> generator(*table);
    try {
        root = generator.generate();
    } catch (...) {
        gFailureOffset = generator.offset();
        throw;
    }
    if (root == VAR_NONE)
        return {};
    return StrongRef<const Implement>(std::shared_ptr<const Implement>(std::move(table)));
}

} // namespace

// ---------------------------------------------------------------------------
// JsonParser queries.

template <class F>
decltype(auto) JsonParser::visit(F &&f) const {
    const Private::Implement &table = *mTable.get();
    if (table.mWide) [[unlikely]]
        return f(static_cast<const TABLE<WIDE_NODE_PACK> &>(table));
    return f(static_cast<const TABLE<NODE_PACK> &>(table));
}

JsonParser::JsonParser(std::string_view text) {
    INDEX root = VAR_NONE;
    auto table = static_cast<INDEX>(text.size()) > Private::narrow_limit() ? parse_table<WIDE_NODE_PACK>(text, true, root)
                                                                            : parse_table<NODE_PACK>(text, false, root);
    if (root == VAR_NONE)
        return;
    mTable = std::move(table);
    mIndex = root;
}

JsonParser::JsonParser(std::string_view text, std::string_view name) {
    try {
        *this = JsonParser(text);
    } catch (...) {
        // Line and column (in bytes), both from 1, of where the text stops
        // being JSON; the parser's own assertion follows.
        const auto at = static_cast<std::size_t>(std::min<INDEX>(gFailureOffset, static_cast<INDEX>(text.size())));
        const std::string_view before = text.substr(0, at);
        const auto line = std::count(before.begin(), before.end(), '\n') + 1;
        const auto start = before.find_last_of('\n');
        const auto column = at - (start == std::string_view::npos ? 0 : start + 1) + 1;
        console().error(name, " : line ", static_cast<INDEX>(line), ", column ", static_cast<INDEX>(column),
                        " : not valid JSON");
        throw;
    }
}

JsonParser::JsonParser(const StrongRef<const Private::Implement> &table, INDEX index) noexcept : mTable(table), mIndex(index) {}

JsonParser JsonParser::at(INDEX index) const noexcept { return index == VAR_NONE ? JsonParser() : JsonParser(mTable, index); }

INDEX JsonParser::kind() const noexcept {
    if (!exist())
        return NODE_EMPTY;
    return visit([&](const auto &table) -> INDEX { return table[mIndex].mClass; });
}

std::string_view JsonParser::view() const {
    _DYNAMIC_ASSERT_(exist ());
    _DYNAMIC_ASSERT_(string_type ());
    return visit([&](const auto &table) { return table.text(table[mIndex].mValue); });
}

bool JsonParser::quoted() const noexcept {
    // A string's text starts right after its opening quote (escapes are
    // decoded in place, never moving the start); a number's or a boolean's
    // text starts at its first character, which no quote precedes.
    if (!string_type())
        return false;
    return visit([&](const auto &table) {
        const auto offset = table[mIndex].mValue.mOffset;
        return offset != 0 && table.mText[offset - 1] == '"';
    });
}

String<char> JsonParser::value() const {
    _DYNAMIC_ASSERT_(exist ());
    _DYNAMIC_ASSERT_(string_type ());
    return String<char>(view());
}

String<char> JsonParser::value(std::string_view fallback) const {
    return string_type() ? String<char>(view()) : String<char>(fallback);
}
String<char> JsonParser::value(const std::string &fallback) const { return value(std::string_view(fallback)); }
String<char> JsonParser::value(const char *fallback) const { return value(std::string_view(fallback)); }

template <class T>
    requires(std::is_arithmetic_v<T> && !std::is_same_v<T, char>)
T JsonParser::value(T fallback) const {
    if (!string_type())
        return fallback;
    T out = fallback;
    return convert_text(view(), out) ? out : fallback;
}

JsonParser JsonParser::child(std::string_view name) const {
    if (!object_type())
        return {};
    return at(visit([&](const auto &table) -> INDEX { return table.find(table[mIndex], name); }));
}

INDEX JsonParser::size() const noexcept {
    if (!exist())
        return 0;
    return visit([&](const auto &table) -> INDEX {
        const auto &n = table[mIndex];
        return n.mClass >= NODE_ARRAY ? INDEX(n.mValue.mLength) : 0;
    });
}

Array<JsonParser> JsonParser::children() const {
    Array<JsonParser> result;
    if (!exist())
        return result;
    result.reserve(size());
    visit([&](const auto &table) {
        for (INDEX i = table[mIndex].mChild; i != VAR_NONE; i = table[i].mBrother)
            result.append(JsonParser(mTable, i));
    });
    return result;
}

JsonParser JsonParser::first() const noexcept {
    return exist() ? at(visit([&](const auto &table) -> INDEX { return table[mIndex].mChild; })) : JsonParser();
}

JsonParser JsonParser::parent() const noexcept {
    return exist() ? at(visit([&](const auto &table) -> INDEX { return table[mIndex].mParent; })) : JsonParser();
}

JsonParser JsonParser::brother() const noexcept {
    return exist() ? at(visit([&](const auto &table) -> INDEX { return table[mIndex].mBrother; })) : JsonParser();
}

std::string_view JsonParser::name() const noexcept {
    return exist() ? visit([&](const auto &table) { return table.text(table[mIndex].mName); }) : std::string_view();
}

// ---------------------------------------------------------------------------
// JSON writing.

void json_escape(String<char> &out, std::string_view text) {
    static constexpr char HEX[] = "0123456789abcdef";
    const char *p = text.data();
    const char *const e = p + text.size();
    while (p < e) {
        const char *plain = p;
        while (p < e && *p != '"' && *p != '\\' && STRU8(*p) >= 0x20)
            ++p;
        out.append(plain, p);
        if (p == e)
            break;
        const unsigned char c = STRU8(*p++);
        switch (c) {
        case '"':
            out.append("\\\"");
            break;
        case '\\':
            out.append("\\\\");
            break;
        case '\b':
            out.append("\\b");
            break;
        case '\f':
            out.append("\\f");
            break;
        case '\n':
            out.append("\\n");
            break;
        case '\r':
            out.append("\\r");
            break;
        case '\t':
            out.append("\\t");
            break;
        default: {
            const char unit[6] = {'\\', 'u', '0', '0', HEX[c >> 4], HEX[c & 15]};
            out.append(unit, sizeof(unit));
        }
        }
    }
}

String<char> json_escape(std::string_view text) {
    String<char> out;
    out.reserve(text.size());
    json_escape(out, text);
    return out;
}

// ---------------------------------------------------------------------------
// XML element model.

class XmlParser::Private::Implement {
public:
    // Elements nested deeper than this are refused (the model is built and
    // released recursively).
    static constexpr INDEX DEFAULT_RECURSIVE_SIZE = 256;

    // The value of the single-attribute rule.
    const String<char> &value() const {
        _DYNAMIC_ASSERT_(mMemberSet.size () == 0);
        _DYNAMIC_ASSERT_(mAttributeMappingSet.length () == 1);
        return mAttributeMappingSet[0].mP2;
    }

    const String<char> *attribute(std::string_view name) const noexcept {
        for (const auto &a : mAttributeMappingSet)
            if (a.mP1 == name)
                return &a.mP2;
        return nullptr;
    }

    // Adds the attribute unless one of that name is already there.
    void unite_attribute(std::string_view name, std::string_view value) {
        if (!attribute(name))
            mAttributeMappingSet.append(PACK<String<char>, String<char>>{String<char>(name), String<char>(value)});
    }

    // The member named `name`, made empty when absent.
    Implement &member(std::string_view name) {
        const String<char> key(name);
        INDEX position = mMemberNameSet.find(key);
        if (position == VAR_NONE) {
            position = mMemberNameSet.insert(key);
            auto node = StrongRef<Implement>::make();
            node->mName = key;
            mMemberSet.append(std::move(node));
        }
        return *mMemberSet[position];
    }

    // The member named `name`, or nothing.
    StrongRef<Implement> find(std::string_view name) const {
        const INDEX position = mMemberNameSet.find(String<char>(name));
        return position == VAR_NONE ? StrongRef<Implement>() : mMemberSet[position];
    }

    // Copies the attributes and child elements of a pugixml node into this
    // element, uniting same-name children.
    void build(const pugi::xml_node &source, INDEX depth) {
        _DYNAMIC_ASSERT_(depth <= DEFAULT_RECURSIVE_SIZE);
        for (const pugi::xml_attribute &a : source.attributes())
            unite_attribute(a.name(), a.value());
        for (const pugi::xml_node &c : source.children())
            if (c.type() == pugi::node_element)
                member(c.name()).build(c, depth + 1);
    }

    // Joins the elements of one name and place in several documents (in
    // slot order) into one. Elements with child elements are joined member
    // by member; a setting (no child elements in any document) is taken
    // whole from the earliest document that has it, so that its attribute,
    // whatever its name, never meets another document's. The joined element
    // keeps the earliest document's attributes; a part that stands alone is
    // shared as it is.
    static StrongRef<Implement> join(const std::vector<StrongRef<Implement>> &parts) {
        const bool members = std::any_of(parts.begin(), parts.end(), [](const auto &part) { return part->mMemberSet.size() != 0; });
        if (parts.size() == 1 || !members)
            return parts.front();
        auto joined = StrongRef<Implement>::make();
        joined->mName = parts.front()->mName;
        joined->mAttributeMappingSet = parts.front()->mAttributeMappingSet;
        Set<String<char>> names;
        std::vector<std::vector<StrongRef<Implement>>> groups;
        for (const auto &part : parts) {
            for (const auto &m : part->mMemberSet) {
                const INDEX position = names.insert(m->mName);
                if (position == static_cast<INDEX>(groups.size()))
                    groups.emplace_back();
                groups[static_cast<std::size_t>(position)].push_back(m);
            }
        }
        for (INDEX i = 0; i < names.size(); ++i) {
            joined->mMemberNameSet.insert(names[i]);
            joined->mMemberSet.append(join(groups[static_cast<std::size_t>(i)]));
        }
        return joined;
    }

    String<char> mName;
    Array<StrongRef<Implement>> mMemberSet;
    Set<String<char>> mMemberNameSet;
    Array<PACK<String<char>, String<char>>> mAttributeMappingSet;
};

XmlParser::XmlParser(std::string_view text) {
    if (std::all_of(text.begin(), text.end(), is_gap))
        return;
    pugi::xml_document document;
    const pugi::xml_parse_result result = document.load_buffer(text.data(), text.size());
    _DYNAMIC_ASSERT_(result.status == pugi::status_ok);
    auto root = StrongRef<Private::Implement>::make();
    root->build(document, 0);
    mNode = std::move(root);
}

XmlParser::XmlParser(const Array<XmlParser> &documents) {
    std::vector<StrongRef<Private::Implement>> parts;
    for (const XmlParser &d : documents)
        if (d.exist())
            parts.push_back(d.mNode);
    if (!parts.empty())
        mNode = Private::Implement::join(parts);
}

String<char> XmlParser::name() const { return exist() ? mNode->mName : String<char>(); }

XmlParser XmlParser::child(std::string_view name) const {
    return exist() ? XmlParser(mNode->find(name)) : XmlParser();
}

Array<XmlParser> XmlParser::children() const {
    Array<XmlParser> result;
    if (exist())
        for (const auto &m : mNode->mMemberSet)
            result.append(XmlParser(m));
    return result;
}

String<char> XmlParser::value() const {
    _DYNAMIC_ASSERT_(exist ());
    return mNode->value();
}

const String<char> *XmlParser::single_value() const noexcept {
    if (!exist() || mNode->mMemberSet.size() != 0 || mNode->mAttributeMappingSet.length() != 1)
        return nullptr;
    return &mNode->mAttributeMappingSet[0].mP2;
}

String<char> XmlParser::value(std::string_view fallback) const {
    const String<char> *v = single_value();
    return v ? *v : String<char>(fallback);
}
String<char> XmlParser::value(const std::string &fallback) const { return value(std::string_view(fallback)); }
String<char> XmlParser::value(const char *fallback) const { return value(std::string_view(fallback)); }

template <class T>
    requires(std::is_arithmetic_v<T> && !std::is_same_v<T, char>)
T XmlParser::value(T fallback) const {
    const String<char> *v = single_value();
    if (!v)
        return fallback;
    std::string_view text(*v);
    while (!text.empty() && is_gap(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && is_gap(text.back()))
        text.remove_suffix(1);
    T out = fallback;
    return convert_text(text, out) ? out : fallback;
}

#define ORN_SERIALIZATION_TYPED_READ(T)                                                                                \
    template T JsonParser::value<T>(T) const;                                                                          \
    template T XmlParser::value<T>(T) const;

ORN_SERIALIZATION_TYPED_READ(bool)
ORN_SERIALIZATION_TYPED_READ(signed char)
ORN_SERIALIZATION_TYPED_READ(unsigned char)
ORN_SERIALIZATION_TYPED_READ(short)
ORN_SERIALIZATION_TYPED_READ(unsigned short)
ORN_SERIALIZATION_TYPED_READ(int)
ORN_SERIALIZATION_TYPED_READ(unsigned int)
ORN_SERIALIZATION_TYPED_READ(long)
ORN_SERIALIZATION_TYPED_READ(unsigned long)
ORN_SERIALIZATION_TYPED_READ(long long)
ORN_SERIALIZATION_TYPED_READ(unsigned long long)
ORN_SERIALIZATION_TYPED_READ(float)
ORN_SERIALIZATION_TYPED_READ(double)
ORN_SERIALIZATION_TYPED_READ(long double)

#undef ORN_SERIALIZATION_TYPED_READ

} // namespace ORN
