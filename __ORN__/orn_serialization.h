#pragma once

// Structured text of the core library.
//
// JsonParser reads a JSON text into one immutable node table and hands out
// light parsers (table, node index) that answer queries on it. JsonWriter
// builds JSON text by concatenation: quoted keys with their colon, then the
// values, no spaces. XmlParser reads settings documents through pugixml into
// a small element model of its own and can join several documents into one.

#include "orn_array.h"
#include "orn_basic.h"
#include "orn_stream.h"

#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>

namespace ORN {

// ---------------------------------------------------------------------------
// JSON reading.
//
// A parsed document is one shared table of NODE_PACK records addressed by a
// signed index; the root is node 0. Every parser handed out by a query holds
// the table, so any of them keeps the whole document alive. A parser whose
// index is VAR_NONE designates nothing and answers exist () with false.
//
// Accepted text: standard JSON, plus a leading '+' on numbers, a number
// ending in '.' ("5."), and the upper-case literals TRUE and FALSE (kept as
// written). A NUL byte where the text may end (before the root value or
// after it) ends it: nothing after it is read. Strings may not hold raw bytes 0..31 (DEL and bytes 128..255 pass
// through as they are); escapes are the JSON ones, \uXXXX decoded to UTF-8
// with surrogate pairs combined. Nesting is limited to 257 open values. An
// empty or blank-only text yields a document that does not exist. Anything
// else that is not accepted raises the assertion of the failed check, and no
// parser is made. A document never changes once parsed, so its parsers may be
// queried from several threads at once.
class JsonParser {
public:
    // Node kinds held in NODE_PACK::mClass.
    static constexpr INDEX NODE_EMPTY = 0;
    static constexpr INDEX NODE_NULL = 1;
    static constexpr INDEX NODE_VALUE = 2;
    static constexpr INDEX NODE_ARRAY = 3;
    static constexpr INDEX NODE_OBJECT = 4;

    // One JSON value, with links to other nodes of LINK_TYPE and runs of the
    // document's own text copy (offset, length) of its unsigned form. mValue
    // is the scalar's text (escapes resolved, quotes dropped); for a null it
    // is "null". An array or object has no text: its mValue.mLength counts
    // its children, and an object's mValue.mOffset is the number of its
    // member index, or NO_MAPPING when the object is small enough to be
    // searched along its chain. mName is the member name when the parent is
    // an object.
    template <class LINK_TYPE>
    struct BASIC_NODE_PACK {
        using LINK = LINK_TYPE;
        using OFFSET = std::make_unsigned_t<LINK_TYPE>;
        struct TEXT {
            OFFSET mOffset;
            OFFSET mLength;
        };
        static constexpr OFFSET NO_MAPPING = std::numeric_limits<OFFSET>::max();

        TEXT mValue;
        std::uint8_t mClass;
        LINK mParent;
        LINK mBrother;
        LINK mChild;
        TEXT mName;
    };
    // Texts up to the narrow limit (2 GiB) are indexed with 32-bit links and
    // runs, so that a node takes 32 bytes; longer ones with 64-bit ones
    // (64-byte nodes).
    using NODE_PACK = BASIC_NODE_PACK<std::int32_t>;
    using WIDE_NODE_PACK = BASIC_NODE_PACK<std::int64_t>;

    class Private {
    public:
        class Implement;
        // The longest text indexed with NODE_PACK: by default 2^31 - 1
        // bytes, the most its links and runs can address; a longer text gets
        // WIDE_NODE_PACK. Parses begun after a change use the new limit
        // ("bytes >= 0 && bytes <= NARROW_LIMIT"); tests lower it so that
        // small texts take the wide path.
        static INDEX narrow_limit() noexcept;
        static void set_narrow_limit(INDEX bytes);
        // Bytes per link of the table behind `parser`: 4 or 8, 0 when it
        // designates nothing.
        static INDEX link_size(const JsonParser &parser) noexcept;
        // Depth guard of one parse: entering a value checks the shared
        // counter against the limit and counts one level up; leaving counts
        // it down again, also when the parse fails. Used by the parser's own
        // source only.
        class RecursiveCounter {
        public:
            static constexpr INDEX DEFAULT_RECURSIVE_SIZE = 256;
            inline explicit RecursiveCounter(INDEX &self);
            inline ~RecursiveCounter();
            RecursiveCounter(const RecursiveCounter &) = delete;
            RecursiveCounter &operator=(const RecursiveCounter &) = delete;

        private:
            INDEX &mSelf;
        };
    };

    // A parser that designates nothing.
    JsonParser() noexcept = default;
    // Parses the whole text at once (the text is copied).
    explicit JsonParser(std::string_view text);
    // Any standard string, a String among them.
    explicit JsonParser(const std::string &text) : JsonParser(std::string_view(text)) {}
    explicit JsonParser(const char *text) : JsonParser(std::string_view(text)) {}
    explicit JsonParser(const Buffer<unsigned char> &text) : JsonParser(text.text()) {}
    // The same for the content of a file: text that is no JSON is told as
    // "<name> : line L, column C : not valid JSON" before the parser's
    // assertion.
    JsonParser(std::string_view text, std::string_view name);

    bool exist() const noexcept { return mIndex != VAR_NONE; }
    // The node kind (NODE_NULL .. NODE_OBJECT), NODE_EMPTY when absent.
    INDEX kind() const noexcept;
    bool null_type() const noexcept { return kind() == NODE_NULL; }
    bool string_type() const noexcept { return kind() == NODE_VALUE; }
    bool array_type() const noexcept { return kind() == NODE_ARRAY; }
    bool object_type() const noexcept { return kind() == NODE_OBJECT; }
    // Position of the node in its table (VAR_NONE when absent).
    INDEX index() const noexcept { return mIndex; }

    // The scalar's text. Asserts "exist ()" and then "string_type ()".
    String<char> value() const;
    // The same text without a copy; valid while any parser of the document
    // lives.
    std::string_view view() const;
    // True for a scalar written as a JSON string (quoted), false for a number
    // or a boolean, and for every other node.
    bool quoted() const noexcept;

    // Typed reads: the scalar's text converted to the default's type, or the
    // default when the node is absent, not a scalar, or its text does not
    // convert as a whole. Integers take integer text only ("1.5" and "1e3"
    // give the default, as does a value out of the type's range); floating
    // point takes any number text; booleans take "true", "TRUE", "false" and
    // "FALSE". A text read takes any scalar's text.
    String<char> value(const std::string &fallback) const;
    String<char> value(std::string_view fallback) const;
    String<char> value(const char *fallback) const;
    template <class T>
        requires(std::is_arithmetic_v<T> && !std::is_same_v<T, char>)
    T value(T fallback) const;

    // The member named `name` of an object (the last one if the name is
    // repeated); a parser designating nothing when this is not an object or
    // has no such member.
    JsonParser child(std::string_view name) const;
    // The children of an array or object in order (empty otherwise).
    Array<JsonParser> children() const;
    // Number of children of an array or object (0 otherwise).
    INDEX size() const noexcept;
    // The first child, the enclosing node, and the next child of the parent.
    JsonParser first() const noexcept;
    JsonParser parent() const noexcept;
    JsonParser brother() const noexcept;
    // The member name of this node within its object parent ("" otherwise).
    std::string_view name() const noexcept;

private:
    JsonParser(const StrongRef<const Private::Implement> &table, INDEX index) noexcept;
    JsonParser at(INDEX index) const noexcept;
    // Calls `f` with the node table of the document, narrow or wide; only
    // while the parser designates a node.
    template <class F>
    decltype(auto) visit(F &&f) const;

    StrongRef<const Private::Implement> mTable;
    INDEX mIndex = VAR_NONE;
};

// ---------------------------------------------------------------------------
// JSON writing.

// Appends `text` with the bytes JSON requires escaped: quote, backslash and
// bytes 0..31 (as \b \f \n \r \t or \u00xx). No quotes are added.
void json_escape(String<char> &out, std::string_view text);
String<char> json_escape(std::string_view text);

// Concatenates JSON text. Keys are written as "\"name\":", values directly
// after them, no spaces; commas and brackets are the caller's, through raw ()
// or comma (). Non-finite numbers are written as null so that the text stays
// valid JSON.
class JsonWriter {
public:
    JsonWriter() = default;
    explicit JsonWriter(INDEX reserve) { mText.reserve(static_cast<std::size_t>(reserve)); }

    JsonWriter &raw(std::string_view fragment) {
        mText.append(fragment);
        return *this;
    }
    JsonWriter &key(std::string_view name) {
        mText.push_back('"');
        json_escape(mText, name);
        mText.append("\":");
        return *this;
    }
    JsonWriter &string(std::string_view text) {
        mText.push_back('"');
        json_escape(mText, text);
        mText.push_back('"');
        return *this;
    }
    template <class T>
        requires(std::is_arithmetic_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char>)
    JsonWriter &number(T value) {
        if constexpr (std::is_floating_point_v<T>) {
            if (!(value - value == value - value)) // NaN or infinity
                return null();
        }
        TextWriter::append_number(mText, value);
        return *this;
    }
    JsonWriter &boolean(bool value) {
        mText.append(value ? "true" : "false");
        return *this;
    }
    JsonWriter &null() {
        mText.append("null");
        return *this;
    }
    JsonWriter &comma() {
        mText.push_back(',');
        return *this;
    }

    const String<char> &text() const & noexcept { return mText; }
    String<char> text() && noexcept { return std::move(mText); }
    INDEX size() const noexcept { return static_cast<INDEX>(mText.size()); }
    void clear() noexcept { mText.clear(); }

private:
    String<char> mText;
};

// ---------------------------------------------------------------------------
// XML reading.
//
// A parser designates one element of a document (made from text, the
// designated node is the document itself, whose children are the top-level
// elements). Child elements of the same name at the same place are one
// member: their attributes and children are united, the first occurrence's
// attribute winning. Element text is not kept.
//
// Settings follow the single-attribute value rule: an element's value is
// the value of its only attribute, and the element has no child elements;
// the attribute's name is free (new files use "value").
class XmlParser {
public:
    class Private {
    public:
        class Implement;
        // The longest text indexed with NODE_PACK: by default 2^31 - 1
        // bytes, the most its links and runs can address; a longer text gets
        // WIDE_NODE_PACK. Parses begun after a change use the new limit
        // ("bytes >= 0 && bytes <= NARROW_LIMIT"); tests lower it so that
        // small texts take the wide path.
        static INDEX narrow_limit() noexcept;
        static void set_narrow_limit(INDEX bytes);
        // Bytes per link of the table behind `parser`: 4 or 8, 0 when it
        // designates nothing.
        static INDEX link_size(const JsonParser &parser) noexcept;
    };

    // A parser that designates nothing.
    XmlParser() noexcept = default;
    // Parses the text; malformed XML raises the assertion
    // "result.status == pugi::status_ok". An empty or blank-only text yields
    // a parser that designates nothing.
    explicit XmlParser(std::string_view text);
    // Any standard string, a String among them.
    explicit XmlParser(const std::string &text) : XmlParser(std::string_view(text)) {}
    explicit XmlParser(const char *text) : XmlParser(std::string_view(text)) {}
    explicit XmlParser(const Buffer<unsigned char> &text) : XmlParser(text.text()) {}
    // Joins several documents in slot order: slots that designate nothing
    // are skipped; elements of the same name at the same place that have
    // child elements are joined recursively, and any other element (a
    // setting) is taken whole from the earliest slot that has it: the
    // attributes of different documents are never united.
    explicit XmlParser(const Array<XmlParser> &documents);

    bool exist() const noexcept { return mNode.exist(); }
    // The element's name ("" for a document or when absent).
    String<char> name() const;
    // The child element named `name`, or a parser designating nothing.
    XmlParser child(std::string_view name) const;
    // Child elements in document order.
    Array<XmlParser> children() const;

    // The value of the element's single attribute. Asserts "exist ()",
    // "mMemberSet.size () == 0" and "mAttributeMappingSet.length () == 1".
    String<char> value() const;
    // Typed reads: the value converted to the default's type (blanks around
    // the text are ignored), or the default when the element is absent,
    // breaks the value rule, or the text does not convert. Conversions are
    // those of JsonParser's typed reads.
    String<char> value(const std::string &fallback) const;
    String<char> value(std::string_view fallback) const;
    String<char> value(const char *fallback) const;
    template <class T>
        requires(std::is_arithmetic_v<T> && !std::is_same_v<T, char>)
    T value(T fallback) const;

private:
    explicit XmlParser(StrongRef<Private::Implement> node) noexcept : mNode(std::move(node)) {}
    const String<char> *single_value() const noexcept;

    // Elements are never changed once built; parsers share them.
    StrongRef<Private::Implement> mNode;
};

} // namespace ORN
