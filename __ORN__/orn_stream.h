#pragma once

// Text reading and writing over byte ranges.
//
// TextReader walks a byte range and never reads past its end: at the end it
// answers NUL, so parsers can treat the end like a terminating NUL byte.
//
// TextWriter appends to a growing narrow string; numbers are written in the
// shortest decimal form that reads back to the same value.

#include "orn_array.h"
#include "orn_basic.h"

#include <charconv>
#include <cstring>
#include <string_view>
#include <system_error>

namespace ORN {

class TextReader {
public:
    // Reads the `size` bytes at `text`.
    TextReader(const char *text, INDEX size) noexcept : mRis(text), mEnd(text + size) {}
    explicit TextReader(const String<char> &text) noexcept : TextReader(text.c_str(), static_cast<INDEX>(text.size())) {}

    const char *position() const noexcept { return mRis; }
    void seek(const char *p) noexcept { mRis = p; }
    const char *end() const noexcept { return mEnd; }
    bool at_end() const noexcept { return mRis >= mEnd; }
    INDEX remaining() const noexcept { return mEnd - mRis; }

    // The next byte, or NUL at the end.
    unsigned char peek() const noexcept { return mRis < mEnd ? STRU8(*mRis) : 0; }
    // Consumes and yields the next byte (NUL at the end, without moving).
    unsigned char get() noexcept { return mRis < mEnd ? STRU8(*mRis++) : 0; }
    void skip(INDEX n = 1) noexcept { mRis = (n < remaining()) ? mRis + n : mEnd; }

    static constexpr bool is_gap(unsigned char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
    // Skips spaces, tabs and line ends.
    void skip_gap() noexcept {
        while (mRis < mEnd && is_gap(STRU8(*mRis)))
            ++mRis;
    }
    // Skips spaces and tabs only (keeps line ends).
    void skip_blank() noexcept {
        while (mRis < mEnd && (*mRis == ' ' || *mRis == '\t'))
            ++mRis;
    }
    // Consumes `literal` when the text continues with it.
    bool match(std::string_view literal) noexcept {
        if (static_cast<std::size_t>(remaining()) < literal.size() || std::memcmp(mRis, literal.data(), literal.size()) != 0)
            return false;
        mRis += literal.size();
        return true;
    }
    // The bytes up to the next gap byte (or the end), consumed.
    std::string_view word() noexcept {
        const char *b = mRis;
        while (mRis < mEnd && !is_gap(STRU8(*mRis)))
            ++mRis;
        return {b, static_cast<std::size_t>(mRis - b)};
    }
    // The bytes up to the next line feed, consumed with it; a carriage return
    // before the line feed is not part of the line.
    std::string_view line() noexcept {
        const char *b = mRis;
        const std::size_t left = mRis < mEnd ? static_cast<std::size_t>(mEnd - mRis) : 0;
        const void *nl = left ? std::memchr(mRis, '\n', left) : nullptr;
        const char *e = nl ? static_cast<const char *>(nl) : mEnd;
        mRis = nl ? e + 1 : mEnd;
        if (e > b && e[-1] == '\r')
            --e;
        return {b, static_cast<std::size_t>(e - b)};
    }

    // Reads a number after skipping gaps; false (position unchanged past the
    // gap) when no number starts here. A leading '+' is accepted.
    bool read_number(double &out) noexcept { return read_any(out); }
    bool read_number(std::int64_t &out) noexcept { return read_any(out); }
    bool read_number(std::uint64_t &out) noexcept { return read_any(out); }

private:
    template <class T>
    bool read_any(T &out) noexcept {
        skip_gap();
        const char *b = mRis;
        if (b < mEnd && *b == '+')
            ++b;
        const auto r = std::from_chars(b, mEnd, out);
        if (r.ec != std::errc())
            return false;
        mRis = r.ptr;
        return true;
    }

    const char *mRis;
    const char *mEnd;
};

class TextWriter {
public:
    TextWriter() = default;
    explicit TextWriter(INDEX reserve) { mText.reserve(static_cast<std::size_t>(reserve)); }

    TextWriter &operator<<(std::string_view text) {
        mText.append(text);
        return *this;
    }
    TextWriter &operator<<(const char *text) { return *this << std::string_view(text); }
    TextWriter &operator<<(const std::string &text) { return *this << std::string_view(text); }
    TextWriter &operator<<(char c) {
        mText.push_back(c);
        return *this;
    }
    TextWriter &operator<<(bool b) { return *this << (b ? std::string_view("true") : std::string_view("false")); }
    template <class T, class = std::enable_if_t<std::is_arithmetic_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char>>>
    TextWriter &operator<<(T value) {
        append_number(mText, value);
        return *this;
    }

    // Shortest decimal text that reads back to the same value; integers as
    // plain digits. Non-finite doubles are written as "nan", "inf", "-inf".
    template <class T>
    static void append_number(String<char> &out, T value) {
        char buffer[64];
        const auto r = std::to_chars(buffer, buffer + sizeof(buffer), value);
        out.append(std::string_view(buffer, static_cast<std::size_t>(r.ptr - buffer)));
    }
    template <class T>
    static String<char> number(T value) {
        String<char> s;
        append_number(s, value);
        return s;
    }

    const String<char> &text() const & noexcept { return mText; }
    String<char> text() && noexcept { return std::move(mText); }
    void clear() noexcept { mText.clear(); }
    INDEX size() const noexcept { return static_cast<INDEX>(mText.size()); }

private:
    String<char> mText;
};

} // namespace ORN
