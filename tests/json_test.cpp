// JSON reading (ORN::JsonParser) and writing (ORN::JsonWriter, json_escape).
#include "__ORN__/orn_serialization.h"

#include "support.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>
#include <string>

namespace {

using zarn_test::failure_of;

using ORN::JsonParser;

// The parse of `text` fails with the assertion `condition` of the parser's
// source file.
void expect_rejected(const std::string &text, const std::string &condition) {
    const std::string what = failure_of([&] { JsonParser p(text); });
    EXPECT_EQ(what.rfind("dynamic_assert failed : " + condition + " : at ", 0), 0u) << "text: " << text << "\n" << what;
    EXPECT_NE(what.find(" in __ORN__/orn_serialization.cpp ,"), std::string::npos) << what;
}

std::string nested(int depth, const std::string &inner = "") {
    return std::string(depth, '[') + inner + std::string(depth, ']');
}

TEST(JsonParse, ArraysObjectsAndScalarKinds) {
    const JsonParser a("[1,2,3]");
    ASSERT_TRUE(a.array_type());
    EXPECT_EQ(a.index(), 0);
    const auto items = a.children();
    ASSERT_EQ(items.size(), 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(items[i].kind(), JsonParser::NODE_VALUE);
        EXPECT_EQ(items[i].value(), std::to_string(i + 1));
        EXPECT_EQ(items[i].index(), i + 1);
    }
    for (const char *empty : {"[]", "{}", " [ ] ", "{ \n}"}) {
        const JsonParser e(empty);
        EXPECT_TRUE(e.exist()) << empty;
        EXPECT_EQ(e.size(), 0);
        EXPECT_FALSE(e.first().exist());
        EXPECT_TRUE(e.children().empty());
    }
    const JsonParser o(" {\"n\" : null , \"s\":\"x\",\"t\":true,\"a\":[],\"o\":{}}\r\n\t ");
    EXPECT_EQ(o.kind(), JsonParser::NODE_OBJECT);
    EXPECT_EQ(o.child("n").kind(), JsonParser::NODE_NULL);
    EXPECT_EQ(o.child("s").kind(), JsonParser::NODE_VALUE);
    EXPECT_EQ(o.child("t").kind(), JsonParser::NODE_VALUE);
    EXPECT_EQ(o.child("a").kind(), JsonParser::NODE_ARRAY);
    EXPECT_EQ(o.child("o").kind(), JsonParser::NODE_OBJECT);
    EXPECT_EQ(o.child("zz").kind(), JsonParser::NODE_EMPTY);
    EXPECT_EQ(JsonParser("\"top\"").value(), "top");
}

TEST(JsonParse, ScalarsKeepTheirTextAsWritten) {
    const auto items = JsonParser("[+5,5.,-0,1.25e-3,2E+10,TRUE,FALSE,true,false,\"\"]").children();
    const char *expected[] = {"+5", "5.", "-0", "1.25e-3", "2E+10", "TRUE", "FALSE", "true", "false", ""};
    ASSERT_EQ(items.size(), 10);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(items[i].value(), expected[i]);
}

TEST(JsonParse, QuotedTellsStringsFromBareScalars) {
    const JsonParser doc(R"({"s":"5","e":"","x":"a\"b","n":5,"t":true,"z":null,"a":[],"o":{"k":"v"}})");
    EXPECT_TRUE(doc.child("s").quoted());
    EXPECT_TRUE(doc.child("e").quoted());
    EXPECT_TRUE(doc.child("x").quoted()); // decoded in place: still a string
    EXPECT_EQ(doc.child("x").value(), "a\"b");
    for (const char *bare : {"n", "t", "z", "a", "o", "missing"})
        EXPECT_FALSE(doc.child(bare).quoted()) << bare;
    EXPECT_TRUE(doc.child("o").child("k").quoted());
    EXPECT_TRUE(JsonParser(R"("root")").quoted());
    EXPECT_FALSE(JsonParser("7").quoted());
    EXPECT_FALSE(doc.quoted());
}

TEST(JsonParse, RejectedForms) {
    expect_rejected("{} x", "mRis[0] == STRU8 ('\\0')");
    expect_rejected("[1] [2]", "mRis[0] == STRU8 ('\\0')");
    expect_rejected("012", "mRis[0] == STRU8 ('\\0')");
    expect_rejected(std::string("{}\0x", 4), "mRis == mEnd");
    expect_rejected("[012]", "mRis[0] == STRU8 (']')");
    expect_rejected("[1 2]", "mRis[0] == STRU8 (']')");
    expect_rejected("[1", "mRis[0] == STRU8 (']')");
    expect_rejected("[1,2,]", "false");
    expect_rejected("[,1]", "false");
    expect_rejected(".5", "false");
    expect_rejected("'a'", "false");
    expect_rejected("1e", "is_digit (mRis[0])");
    expect_rejected("1e+", "is_digit (mRis[0])");
    expect_rejected("-", "is_digit (mRis[0])");
    expect_rejected("+-1", "is_digit (mRis[0])");
    expect_rejected("True", "size > 0");
    expect_rejected("[tru]", "size > 0");
    expect_rejected("nul", "std::memcmp (mRis, \"null\", 4) == 0");
    expect_rejected("NULL", "false");
    expect_rejected("{\"a\":1,}", "mRis[0] == STRU8 ('\"')");
    expect_rejected("{a:1}", "mRis[0] == STRU8 ('\"')");
    expect_rejected("{\"a\" 1}", "mRis[0] == STRU8 (':')");
    expect_rejected("{\"a\":1 \"b\":2}", "mRis[0] == STRU8 ('}')");
}

TEST(JsonParse, NestingLimitCountsOpenValues) {
    EXPECT_TRUE(JsonParser(nested(257)).exist());
    expect_rejected(nested(258), "mSelf <= DEFAULT_RECURSIVE_SIZE");
    // A scalar inside the innermost array is one more open value.
    std::string wide;
    for (int i = 0; i < 1000; ++i)
        wide += (i ? ",7" : "7");
    const JsonParser deep(nested(256, wide));
    JsonParser inner = deep;
    for (int i = 1; i < 256; ++i)
        inner = inner.first();
    EXPECT_EQ(inner.size(), 1000);
    expect_rejected(nested(257, "7"), "mSelf <= DEFAULT_RECURSIVE_SIZE");
    static_assert(JsonParser::Private::RecursiveCounter::DEFAULT_RECURSIVE_SIZE == 256);
}

TEST(JsonParse, StringBytesAndEscapes) {
    expect_rejected("\"abc", "mRis < mEnd");
    expect_rejected("[\"abc\\\"]", "mRis < mEnd");
    expect_rejected(std::string("\"a\0b\"", 5), "STRU8 (mRis[0]) >= STRU8 (' ')");
    for (char c : {'\t', '\n', '\r', '\x01', '\x1f'})
        expect_rejected(std::string("\"a") + c + "\"", "STRU8 (mRis[0]) >= STRU8 (' ')");
    expect_rejected("\"\\x\"", "escape != 0");
    expect_rejected("\"\\", "escape != 0");
    expect_rejected("\"\\u12G4\"", "code >= 0");
    expect_rejected("\"\\ud83d\"", "mRis[0] == STRU8 ('\\\\') && mRis[1] == STRU8 ('u')");
    expect_rejected("\"\\ud83d\\u0041\"", "low >= 0xDC00 && low <= 0xDFFF");
    expect_rejected("\"\\ude00\"", "code < 0xDC00 || code > 0xDFFF");

    // DEL and bytes above 127 pass through untouched.
    EXPECT_EQ(JsonParser("\"\x7f\xc3\xa9\xff\"").value(), "\x7f\xc3\xa9\xff");
    EXPECT_EQ(JsonParser(R"("a\"b\\c\/d\be\ff\ng\rh\ti")").value(), "a\"b\\c/d\be\ff\ng\rh\ti");
    EXPECT_EQ(JsonParser(R"("\u0041\u00e9\u20AC\ud83d\ude00!")").value(), "A\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80!");
    EXPECT_EQ(JsonParser(R"("x\u0000y")").value(), std::string("x\0y", 3));
    // Decoding in place leaves the following tokens intact.
    const JsonParser o(R"({"k\u00e9y":"v\\\\","next":"plain","n":12})");
    EXPECT_EQ(o.child("k\xc3\xa9y").value(), "v\\\\");
    EXPECT_EQ(o.child("next").value(), "plain");
    EXPECT_EQ(o.child("n").value(), "12");
    EXPECT_EQ(o.child("n").name(), "n");
}

TEST(JsonParse, BlankTextIsAMissingDocumentAndFailuresLeaveNoParser) {
    for (const char *blank : {"", " ", "\r\n\t  "}) {
        const JsonParser p(blank);
        EXPECT_FALSE(p.exist());
        EXPECT_EQ(p.kind(), JsonParser::NODE_EMPTY);
        EXPECT_EQ(p.value(7), 7);
    }
    JsonParser kept("[1]");
    EXPECT_THROW(kept = JsonParser("[1,"), ORN::Exception);
    EXPECT_EQ(kept.first().value(), "1");
    EXPECT_TRUE(JsonParser(ORN::Buffer<unsigned char>::from_text("{\"a\":[true]}")).child("a").first().value(false));
}

TEST(JsonQuery, ValueAssertsExistThenStringType) {
    const JsonParser doc(R"({"n":null,"a":[1],"o":{}})");
    for (const auto &p : {doc.child("n"), doc.child("a"), doc.child("o"), doc}) {
        const std::string what = failure_of([&] { p.value(); });
        EXPECT_EQ(what.rfind("dynamic_assert failed : string_type () : at ", 0), 0u) << what;
        EXPECT_NE(what.find(" in __ORN__/orn_serialization.cpp ,"), std::string::npos);
        EXPECT_EQ(failure_of([&] { p.view(); }).rfind("dynamic_assert failed : string_type () : at ", 0), 0u);
    }
    const std::string missing = failure_of([&] { doc.child("absent").value(); });
    EXPECT_EQ(missing.rfind("dynamic_assert failed : exist () : at ", 0), 0u) << missing;
    EXPECT_NE(missing.find(" in __ORN__/orn_serialization.cpp ,"), std::string::npos);
    EXPECT_EQ(failure_of([] { JsonParser().value(); }).rfind("dynamic_assert failed : exist () : at ", 0), 0u);

    EXPECT_TRUE(doc.child("n").null_type());
    EXPECT_EQ(doc.child("n").value(std::string("d")), "d");
    EXPECT_EQ(doc.child("n").value(int64_t(3)), 3);
    EXPECT_EQ(doc.child("a").value("d"), "d");
}

TEST(JsonQuery, TypedReadsConvertTheWholeTextOrKeepTheDefault) {
    const JsonParser d(R"({"i":"42","neg":-7,"plus":+5,"f":1.5,"e":1e3,"dot":5.,"big":300,"huge":123456789012345678901,
                           "t":true,"T":TRUE,"F":FALSE,"one":1,"s":"x1","sp":" 4","pm":"+-5","n":null,"o":{}})");
    EXPECT_EQ(d.child("i").value(0), 42);
    EXPECT_EQ(d.child("neg").value(int64_t(0)), -7);
    EXPECT_EQ(d.child("plus").value(0), 5);
    EXPECT_EQ(d.child("f").value(9), 9);
    EXPECT_EQ(d.child("e").value(9), 9);
    EXPECT_EQ(d.child("big").value(std::int8_t(9)), 9);
    EXPECT_EQ(d.child("big").value(std::int16_t(9)), 300);
    EXPECT_EQ(d.child("neg").value(9u), 9u);
    EXPECT_EQ(d.child("huge").value(int64_t(9)), 9);
    EXPECT_EQ(d.child("s").value(9), 9);
    EXPECT_EQ(d.child("sp").value(9), 9);
    EXPECT_EQ(d.child("pm").value(9), 9);
    EXPECT_EQ(d.child("o").value(9), 9);
    EXPECT_EQ(d.child("missing").value(9), 9);

    EXPECT_DOUBLE_EQ(d.child("f").value(0.0), 1.5);
    EXPECT_DOUBLE_EQ(d.child("e").value(0.0), 1000.0);
    EXPECT_DOUBLE_EQ(d.child("dot").value(0.0), 5.0);
    EXPECT_DOUBLE_EQ(d.child("plus").value(0.0), 5.0);
    EXPECT_FLOAT_EQ(d.child("huge").value(0.0f), 1.2345679e20f);
    EXPECT_DOUBLE_EQ(d.child("s").value(2.5), 2.5);

    EXPECT_TRUE(d.child("t").value(false));
    EXPECT_TRUE(d.child("T").value(false));
    EXPECT_FALSE(d.child("F").value(true));
    EXPECT_TRUE(d.child("one").value(true));
    EXPECT_FALSE(d.child("one").value(false));

    EXPECT_EQ(d.child("e").value(std::string()), "1e3");
    EXPECT_EQ(d.child("t").value(""), "true");
    EXPECT_EQ(d.child("o").value(std::string_view("dflt")), "dflt");
}

TEST(JsonQuery, NavigationFollowsParentAndBrother) {
    const JsonParser doc(R"({"a":{"x":1,"y":[10,20]},"b":2})");
    const JsonParser a = doc.child("a");
    EXPECT_EQ(a.name(), "a");
    EXPECT_EQ(a.brother().name(), "b");
    EXPECT_FALSE(a.brother().brother().exist());
    EXPECT_EQ(a.parent().index(), doc.index());
    EXPECT_FALSE(doc.parent().exist());
    const JsonParser y = a.child("y");
    EXPECT_EQ(y.first().brother().value(), "20");
    EXPECT_EQ(y.first().brother().parent().parent().first().value(), "1");
    EXPECT_EQ(y.first().name(), "");
    EXPECT_FALSE(y.child("x").exist());
    EXPECT_FALSE(y.first().child("x").exist());
    const auto members = doc.children();
    ASSERT_EQ(members.size(), 2);
    EXPECT_EQ(members[0].name(), "a");
    EXPECT_EQ(members[1].value(), "2");
    EXPECT_FALSE(JsonParser().brother().exist());
    EXPECT_EQ(JsonParser().size(), 0);
}

TEST(JsonQuery, RepeatedMemberLookupFindsTheLastAndKeepsBoth) {
    const JsonParser small(R"({"k":1,"other":0,"k":2})");
    EXPECT_EQ(small.child("k").value(), "2");
    EXPECT_EQ(small.size(), 3);
    EXPECT_EQ(small.first().value(), "1");

    std::string text = "{";
    for (int i = 0; i < 40; ++i)
        text += "\"m" + std::to_string(i) + "\":" + std::to_string(i) + ",";
    text += "\"m7\":\"last\"}";
    const JsonParser large(text);
    EXPECT_EQ(large.child("m7").value(), "last");
    EXPECT_EQ(large.size(), 41);
}

TEST(JsonQuery, LookupInAnObjectWithFiveThousandMembers) {
    std::string text = "{";
    for (int i = 0; i < 5000; ++i)
        text += (i ? ",\"key" : "\"key") + std::to_string(i) + "\":" + std::to_string(i * 3);
    text += "}";
    const JsonParser doc(text);
    ASSERT_EQ(doc.size(), 5000);
    for (int i = 0; i < 5000; ++i)
        ASSERT_EQ(doc.child("key" + std::to_string(i)).value(-1), i * 3) << i;
    EXPECT_FALSE(doc.child("key5000").exist());
    EXPECT_FALSE(doc.child("").exist());
    EXPECT_FALSE(doc.child("key").exist());
    const auto members = doc.children();
    EXPECT_EQ(members[4999].name(), "key4999");
}

TEST(JsonQuery, ChildrenKeepTheSharedTableAlive) {
    JsonParser kept;
    std::string_view view;
    {
        std::string text = R"({"a":{"b":["first","second"]}})";
        const JsonParser root(text);
        kept = root.child("a").child("b").first().brother();
        view = kept.view();
        text.assign(text.size(), 'x'); // the parser does not refer to the caller's text
    }
    EXPECT_EQ(kept.value(), "second");
    EXPECT_EQ(view, "second");
    EXPECT_EQ(kept.parent().parent().name(), "a");
    EXPECT_EQ(kept.parent().parent().parent().index(), 0);
}

// ---------------------------------------------------------------------------

TEST(JsonWrite, FragmentsConcatenateWithoutSpaces) {
    ORN::JsonWriter w;
    w.raw("{").key("version").number(3).comma().key("state").raw("{").key("done").boolean(true).comma();
    w.key("crashed").boolean(false).comma().key("progress").number(0.25).raw("}").comma();
    w.key("uuid").string("a\"b").comma().key("none").null().comma().key("nan").number(std::nan("")).raw("}");
    EXPECT_EQ(w.text(), R"({"version":3,"state":{"done":true,"crashed":false,"progress":0.25},"uuid":"a\"b","none":null,"nan":null})");
    EXPECT_EQ(ORN::json_escape(std::string("\"\\/\b\f\n\r\t\x01\x1f\x7f\xc3\xa9", 13)),
              "\\\"\\\\/\\b\\f\\n\\r\\t\\u0001\\u001f\x7f\xc3\xa9");
}

TEST(JsonWrite, RoundTripThroughBothReaders) {
    std::string every;
    for (int c = 1; c < 256; ++c)
        if (c < 0x80)
            every.push_back(static_cast<char>(c));
    every += "\xe2\x82\xac";
    const double numbers[] = {0.1, -2.5e-300, 1e300, 123456789.125, -0.0};
    ORN::JsonWriter w;
    w.raw("{").key(every).string(every).comma().key("n").raw("[");
    for (int i = 0; i < 5; ++i)
        (i ? w.comma() : w).number(numbers[i]);
    w.comma().number(std::numeric_limits<int64_t>::max()).comma().number(std::numeric_limits<int64_t>::min());
    w.raw("],\"inf\":").number(INFINITY).comma().key("b").boolean(true).raw("}");

    const JsonParser ours(w.text());
    EXPECT_EQ(ours.child(every).value(), every);
    const auto n = ours.child("n").children();
    ASSERT_EQ(n.size(), 7);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(n[i].value(1.0), numbers[i]) << n[i].value();
    EXPECT_EQ(n[1].value(), "-2.5e-300");
    EXPECT_EQ(n[5].value(int64_t(0)), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(n[6].value(int64_t(0)), std::numeric_limits<int64_t>::min());
    EXPECT_TRUE(ours.child("inf").null_type());

    const auto theirs = nlohmann::json::parse(w.text());
    EXPECT_EQ(theirs.at(every).get<std::string>(), every);
    EXPECT_EQ(theirs.at("n").at(0).get<double>(), 0.1);
    EXPECT_EQ(theirs.at("n").at(5).get<int64_t>(), std::numeric_limits<int64_t>::max());
    EXPECT_TRUE(theirs.at("inf").is_null());
    EXPECT_TRUE(theirs.at("b").get<bool>());

    // And back: what nlohmann writes (with \u escapes for control bytes)
    // reads the same here.
    const JsonParser again(theirs.dump());
    EXPECT_EQ(again.child(every).value(), every);
    const JsonParser ascii(theirs.dump(-1, ' ', true));
    EXPECT_EQ(ascii.child(every).value(), every);
}

} // namespace
