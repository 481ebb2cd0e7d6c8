// The text reader and the shortest-form number writer.
#include "support.h"

#include "__ORN__/orn_stream.h"

#include <cmath>
#include <limits>
#include <random>

namespace {

TEST(TextWriter, NumbersInTheShortestFormThatReadsBack) {
    EXPECT_EQ(ORN::TextWriter::number(0.1), "0.1");
    EXPECT_EQ(ORN::TextWriter::number(100.0), "100");
    EXPECT_EQ(ORN::TextWriter::number(1e21), "1e+21");
    EXPECT_EQ(ORN::TextWriter::number(-0.0), "-0");
    EXPECT_EQ(ORN::TextWriter::number(5e-324), "5e-324");
    EXPECT_EQ(ORN::TextWriter::number(std::int64_t(-9223372036854775807 - 1)), "-9223372036854775808");
    EXPECT_EQ(ORN::TextWriter::number(std::uint64_t(18446744073709551615u)), "18446744073709551615");

    std::mt19937_64 random(7);
    for (int i = 0; i < 20000; ++i) {
        std::uint64_t bits = random();
        double value;
        std::memcpy(&value, &bits, sizeof(value));
        if (!std::isfinite(value))
            continue;
        const auto text = ORN::TextWriter::number(value);
        double back = 0;
        ORN::TextReader reader(text);
        ASSERT_TRUE(reader.read_number(back)) << text;
        EXPECT_EQ(std::memcmp(&back, &value, sizeof(value)), 0) << text;
        EXPECT_TRUE(reader.at_end()) << text;
    }
}

TEST(TextWriter, ConcatenatesTextBooleansAndNumbers) {
    ORN::TextWriter w;
    w << "n=" << 3 << ' ' << true << ' ' << 2.5 << ORN::String<char>("!");
    EXPECT_EQ(w.text(), "n=3 true 2.5!");
}

TEST(TextReader, PeekGetAndEndOfText) {
    const ORN::String<char> text = "ab";
    ORN::TextReader r(text);
    EXPECT_EQ(r.peek(), 'a');
    EXPECT_EQ(r.get(), 'a');
    EXPECT_EQ(r.get(), 'b');
    EXPECT_TRUE(r.at_end());
    // At the end the reader answers NUL and stays put.
    EXPECT_EQ(r.peek(), 0);
    EXPECT_EQ(r.get(), 0);
    EXPECT_EQ(r.remaining(), 0);
}

TEST(TextReader, GapsLiteralsWordsAndLines) {
    const ORN::String<char> text = " \t\r\nply\r\nformat ascii 1.0\nend";
    ORN::TextReader r(text);
    r.skip_gap();
    EXPECT_FALSE(r.match("plx"));
    EXPECT_TRUE(r.match("ply"));
    EXPECT_EQ(r.line(), ""); // the rest of the first line, without "\r"
    EXPECT_EQ(r.word(), "format");
    r.skip_blank();
    EXPECT_EQ(r.line(), "ascii 1.0");
    EXPECT_EQ(r.line(), "end");
    EXPECT_TRUE(r.at_end());
    EXPECT_FALSE(r.match("x"));
}

TEST(TextReader, NumbersAcceptALeadingPlusAndRejectNonNumbers) {
    const ORN::String<char> text = " +5 -7 2.5e3 x";
    ORN::TextReader r(text);
    std::int64_t i = 0;
    ASSERT_TRUE(r.read_number(i));
    EXPECT_EQ(i, 5);
    ASSERT_TRUE(r.read_number(i));
    EXPECT_EQ(i, -7);
    double d = 0;
    ASSERT_TRUE(r.read_number(d));
    EXPECT_EQ(d, 2500.0);
    EXPECT_FALSE(r.read_number(d));
    EXPECT_EQ(r.peek(), 'x'); // nothing consumed but the gap
    std::uint64_t u = 0;
    const ORN::String<char> negative = "-1";
    ORN::TextReader n(negative);
    EXPECT_FALSE(n.read_number(u));
}

} // namespace
