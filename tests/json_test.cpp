// JSON reading (ORN::JsonParser) and writing (ORN::JsonWriter, json_escape).
#include "__ORN__/orn_serialization.h"

#include "support.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>

namespace {

using namespace zarn_test;
using ORN::JsonParser;

// `f` fails with the assertion `condition` of the parser's source file.
template <class F>
void expect_assert(F &&f, const std::string &condition, const std::string &label) {
    const std::string what = failure_of(f);
    EXPECT_TRUE(starts_with(what, "dynamic_assert failed : " + condition + " : at ") &&
                contains(what, " in __ORN__/orn_serialization.cpp ,"))
        << "case: " << label << "\n" << what;
}

std::string nested(int depth, const std::string &inner = "") {
    return std::string(depth, '[') + inner + std::string(depth, ']');
}

TEST(JsonParse, NodeKindsAndScalarsKeepTheirTextAsWritten) {
    for (const char *empty : {"[]", "{}", " [ ] ", "{ \n}"}) {
        const JsonParser e(empty);
        EXPECT_TRUE(e.exist() && e.size() == 0 && !e.first().exist()) << empty;
    }
    const JsonParser o(" {\"n\" : null , \"s\":\"x\",\"t\":true,\"a\":[],\"o\":{}}\r\n\t ");
    const std::pair<const char *, ORN::INDEX> kinds[] = {{"n", JsonParser::NODE_NULL},  {"s", JsonParser::NODE_VALUE},
                                                    {"t", JsonParser::NODE_VALUE}, {"a", JsonParser::NODE_ARRAY},
                                                    {"o", JsonParser::NODE_OBJECT}, {"zz", JsonParser::NODE_EMPTY}};
    for (const auto &[name, kind] : kinds)
        EXPECT_EQ(o.child(name).kind(), kind) << name;
    EXPECT_EQ(o.kind(), JsonParser::NODE_OBJECT);
    EXPECT_EQ(JsonParser("\"top\"").value(), "top");

    // Items come in document order; scalars keep the text they were written with.
    const auto items = JsonParser("[+5,5.,-0,1.25e-3,2E+10,TRUE,FALSE,true,false,\"\"]").children();
    const char *expected[] = {"+5", "5.", "-0", "1.25e-3", "2E+10", "TRUE", "FALSE", "true", "false", ""};
    ASSERT_EQ(items.size(), 10);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(items[i].value(), expected[i]);
}

TEST(JsonParse, QuotedTellsStringsFromBareScalars) {
    const JsonParser doc(R"({"s":"5","e":"","x":"a\"b","n":5,"t":true,"z":null,"a":[],"o":{"k":"v"}})");
    for (const char *quoted : {"s", "e", "x"})
        EXPECT_TRUE(doc.child(quoted).quoted()) << quoted;
    for (const char *bare : {"n", "t", "z", "a", "o", "missing"})
        EXPECT_FALSE(doc.child(bare).quoted()) << bare;
    EXPECT_TRUE(doc.child("o").child("k").quoted() && JsonParser(R"("root")").quoted());
    EXPECT_FALSE(JsonParser("7").quoted() || doc.quoted());
}

TEST(JsonParse, RejectedFormsNameTheFailedCondition) {
    const std::string end = "mRis[0] == STRU8 ('\\0')", close = "mRis[0] == STRU8 (']')", digit = "is_digit (mRis[0])",
                      ctrl = "STRU8 (mRis[0]) >= STRU8 (' ')", open = "mRis < mEnd", depth = "mSelf <= DEFAULT_RECURSIVE_SIZE";
    const std::pair<std::string, std::string> cases[] = {
        {"{} x", end}, {"[1] [2]", end}, {"012", end}, {std::string("[1\0]", 4), close}, {"[012]", close},
        {"[1 2]", close}, {"[1", close}, {"[1,2,]", "false"}, {"[,1]", "false"}, {".5", "false"}, {"'a'", "false"},
        {"NULL", "false"}, {"1e", digit}, {"1e+", digit}, {"-", digit}, {"+-1", digit}, {"True", "size > 0"},
        {"[tru]", "size > 0"}, {"nul", "std::memcmp (mRis, \"null\", 4) == 0"}, {"{\"a\":1,}", "mRis[0] == STRU8 ('\"')"},
        {"{a:1}", "mRis[0] == STRU8 ('\"')"}, {"{\"a\" 1}", "mRis[0] == STRU8 (':')"}, {std::string("{\"a\"\0:1}", 8), "mRis[0] == STRU8 (':')"}, {"{\"a\":1 \"b\":2}", "mRis[0] == STRU8 ('}')"},
        // Strings: unterminated, control bytes, bad escapes and lone surrogates.
        {"\"abc", open}, {"[\"abc\\\"]", open}, {std::string("\"a\0b\"", 5), ctrl}, {"\"a\t\"", ctrl}, {"\"a\n\"", ctrl},
        {"\"a\r\"", ctrl}, {"\"a\x01\"", ctrl}, {"\"a\x1f\"", ctrl}, {"\"\\x\"", "escape != 0"}, {"\"\\", "escape != 0"},
        {"\"\\u12G4\"", "code >= 0"}, {"\"\\ud83d\"", "mRis[0] == STRU8 ('\\\\') && mRis[1] == STRU8 ('u')"},
        {"\"\\ud83d\\u0041\"", "low >= 0xDC00 && low <= 0xDFFF"}, {"\"\\ude00\"", "code < 0xDC00 || code > 0xDFFF"},
        // Nesting: at most 256 open values, a scalar in the innermost array being one more.
        {nested(258), depth}, {nested(257, "7"), depth}};
    for (const auto &[text, condition] : cases)
        expect_assert([&] { JsonParser p(text); }, condition, text);

    EXPECT_TRUE(JsonParser(nested(257)).exist());
    JsonParser inner(nested(256, "7,7,7"));
    for (int i = 1; i < 256; ++i)
        inner = inner.first();
    EXPECT_EQ(inner.size(), 3);
}

// A file's text that is no JSON is told by name, line and column (of the
// first byte the parser could not take, after any decoded escapes), then
// the parser's own assertion; a good text says nothing.
TEST(JsonParse, AFileThatIsNoJsonNamesItsLineAndColumn) {
    for (const auto &[text, place] : {std::pair{"{\"a\":1,\n  \"b\": tru\n}", "line 2, column 8"},
                                      std::pair{"{\"a\":\"\\u00e9x\",\n\n\"b\" 1}", "line 3, column 5"},
                                      std::pair{"[1,2", "line 1, column 5"}}) {
        std::string failure;
        const std::string out = capture_stdout([&] { failure = failure_of([&] { ORN::JsonParser(text, "job/x.json"); }); });
        EXPECT_EQ(out, std::string("job/x.json : ") + place + " : not valid JSON\n") << text;
        EXPECT_TRUE(starts_with(failure, "dynamic_assert failed : ")) << failure;
    }
    std::string failure;
    EXPECT_EQ(capture_stdout([&] { failure = failure_of([&] { ORN::JsonParser("{\"a\":[1]}", "x.json"); }); }), "");
    EXPECT_EQ(failure, "");
}

TEST(JsonParse, StringEscapesDecodeInPlace) {
    EXPECT_EQ(JsonParser("\"\x7f\xc3\xa9\xff\"").value(), "\x7f\xc3\xa9\xff"); // DEL and high bytes untouched
    EXPECT_EQ(JsonParser(R"("a\"b\\c\/d\be\ff\ng\rh\ti")").value(), "a\"b\\c/d\be\ff\ng\rh\ti");
    EXPECT_EQ(JsonParser(R"("\u0041\u00e9\u20AC\ud83d\ude00!")").value(), "A\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80!");
    EXPECT_EQ(JsonParser(R"("x\u0000y")").value(), std::string("x\0y", 3));
    // Decoding in place leaves the following tokens intact.
    const JsonParser o(R"({"k\u00e9y":"v\\\\","next":"plain","n":12})");
    EXPECT_EQ(o.child("k\xc3\xa9y").value(), "v\\\\");
    EXPECT_EQ(o.child("next").value(), "plain");
    EXPECT_EQ(o.child("n").value(), "12");
}

TEST(JsonParse, ANulByteEndsTheText) {
    // Whatever follows the first NUL after the root value is never read.
    for (const std::string &text : {std::string("{\"a\":1}\0garbage", 15), std::string("{\"a\":1} \r\n\0{\"a\":2", 17),
                                   std::string("{\"a\":1}\0", 8)}) {
        const JsonParser doc(text);
        EXPECT_TRUE(doc.size() == 1 && doc.child("a").value() == "1") << text;
    }
    EXPECT_EQ(JsonParser(std::string("[7]\0]", 5)).first().value(), "7");
}

TEST(JsonParse, BlankTextIsAMissingDocumentAndFailuresLeaveNoParser) {
    const std::string blanks[] = {"", " ", "\r\n\t  ", std::string("\0[1]", 4), std::string(" \n\0{", 4)};
    for (const std::string &blank : blanks)
        EXPECT_TRUE(!JsonParser(blank).exist() && JsonParser(blank).value(7) == 7) << blank;
    JsonParser kept("[1]");
    EXPECT_THROW(kept = JsonParser("[1,"), ORN::Exception);
    EXPECT_EQ(kept.first().value(), "1");
}

// Every node of a tree: position, kind, name, quoting, text or child count,
// parent, and where lookup by its name leads.
std::string dump(const JsonParser &p) {
    std::string out = std::to_string(p.index()) + ' ' + std::to_string(p.kind()) + ' ' + std::string(p.name()) + (p.quoted() ? " q " : " ") +
                      (p.string_type() ? p.value() : std::to_string(p.size())) + ' ' + std::to_string(p.parent().index()) + '\n';
    for (JsonParser c = p.first(); c.exist(); c = c.brother())
        out += dump(c) + (p.object_type() ? std::to_string(p.child(c.name()).index()) + '\n' : "");
    return out;
}

// Lowers the size above which texts get 64-bit links, for one scope.
struct NarrowLimit {
    explicit NarrowLimit(ORN::INDEX bytes) : mSaved(JsonParser::Private::narrow_limit()) { JsonParser::Private::set_narrow_limit(bytes); }
    ~NarrowLimit() { JsonParser::Private::set_narrow_limit(mSaved); }
    ORN::INDEX mSaved;
};

TEST(JsonParse, TextsAboveTheNarrowLimitGetWideLinksAndTheSameAnswers) {
    EXPECT_EQ(JsonParser::Private::narrow_limit(), 2147483647);
    std::string large = "{";
    for (int i = 0; i < 100; ++i)
        large += "\"k" + std::to_string(i % 90) + "\":[" + std::to_string(i) + ",\"s\\u00e9\"],";
    const std::string texts[] = {large + "\"k5\":{}}", nested(257), R"([1,"a\"b",TRUE,null,{"x":{"y":[]}}])", "\"top\"", "-0.5e+3",
                                 std::string("{\"a\":[1]}\0x", 11)};
    for (const std::string &text : texts) {
        const JsonParser narrow(text);
        const NarrowLimit limit(0);
        const JsonParser wide(text);
        EXPECT_EQ(JsonParser::Private::link_size(narrow), 4);
        EXPECT_EQ(JsonParser::Private::link_size(wide), 8);
        EXPECT_EQ(dump(wide), dump(narrow)) << text;
    }
    // The limit is inclusive, and failures read alike on both tables.
    const NarrowLimit limit(7);
    EXPECT_EQ(JsonParser::Private::link_size(JsonParser("[1,2,3]")), 4);
    EXPECT_EQ(JsonParser::Private::link_size(JsonParser("[1,2,3] ")), 8);
    EXPECT_EQ(JsonParser::Private::link_size(JsonParser()), 0);
    expect_assert([] { JsonParser p(nested(258)); }, "mSelf <= DEFAULT_RECURSIVE_SIZE", "wide depth");
    expect_assert([] { JsonParser p("[1,2,] "); }, "false", "wide comma");
    expect_assert([] { JsonParser::Private::set_narrow_limit(-1); }, "bytes >= 0 && bytes <= NARROW_LIMIT", "negative limit");
}

TEST(JsonQuery, ValueAssertsExistThenStringTypeAndTypedReadsKeepTheDefault) {
    const JsonParser doc(R"({"n":null,"a":[1],"o":{}})");
    for (const auto &p : {doc.child("n"), doc.child("a"), doc.child("o"), doc}) {
        expect_assert([&] { p.value(); }, "string_type ()", "value");
        expect_assert([&] { p.view(); }, "string_type ()", "view");
    }
    expect_assert([&] { doc.child("absent").value(); }, "exist ()", "absent");
    EXPECT_EQ(doc.child("n").value(std::string("d")), "d");
    EXPECT_EQ(doc.child("n").value(int64_t(3)), 3);

    const JsonParser d(R"({"i":"42","neg":-7,"plus":+5,"f":1.5,"e":1e3,"dot":5.,"big":300,"huge":123456789012345678901,
                           "t":true,"T":TRUE,"F":FALSE,"one":1,"s":"x1","sp":" 4","pm":"+-5","o":{}})");
    const std::pair<const char *, int> ints[] = {{"i", 42}, {"neg", -7}, {"plus", 5}, {"f", 9}, {"e", 9},
                                                 {"s", 9},  {"sp", 9},   {"pm", 9},   {"o", 9}, {"missing", 9}};
    for (const auto &[name, expected] : ints)
        EXPECT_EQ(d.child(name).value(9), expected) << name;
    EXPECT_EQ(d.child("big").value(std::int8_t(9)), 9);
    EXPECT_EQ(d.child("big").value(std::int16_t(9)), 300);
    EXPECT_EQ(d.child("neg").value(9u), 9u);
    EXPECT_EQ(d.child("huge").value(int64_t(9)), 9);
    const std::pair<const char *, double> reals[] = {{"f", 1.5}, {"e", 1000.0}, {"dot", 5.0}, {"plus", 5.0}, {"s", 2.5}};
    for (const auto &[name, expected] : reals)
        EXPECT_DOUBLE_EQ(d.child(name).value(2.5), expected) << name;
    EXPECT_FLOAT_EQ(d.child("huge").value(0.0f), 1.2345679e20f);
    EXPECT_TRUE(d.child("t").value(false) && d.child("T").value(false) && d.child("one").value(true));
    EXPECT_FALSE(d.child("F").value(true) || d.child("one").value(false));
    EXPECT_EQ(d.child("e").value(std::string()), "1e3");
    EXPECT_EQ(d.child("o").value(std::string_view("dflt")), "dflt");
}

TEST(JsonQuery, NavigationFollowsParentAndBrother) {
    const JsonParser doc(R"({"a":{"x":1,"y":[10,20]},"b":2})");
    const JsonParser a = doc.child("a");
    EXPECT_EQ(a.brother().name(), "b");
    EXPECT_FALSE(a.brother().brother().exist() || doc.parent().exist() || JsonParser().brother().exist());
    EXPECT_EQ(a.parent().index(), doc.index());
    const JsonParser y = a.child("y");
    EXPECT_EQ(y.first().brother().value(), "20");
    EXPECT_EQ(y.first().brother().parent().parent().first().value(), "1");
    EXPECT_FALSE(y.child("x").exist() || y.first().child("x").exist());
    const auto members = doc.children();
    ASSERT_EQ(members.size(), 2);
    EXPECT_EQ(members[0].name(), "a");
    EXPECT_EQ(members[1].value(), "2");
}

TEST(JsonQuery, LookupInAnObjectWithFiveThousandMembersFindsTheLastRepeat) {
    const JsonParser small(R"({"k":1,"other":0,"k":2})");
    EXPECT_EQ(small.child("k").value(), "2");
    EXPECT_EQ(small.size(), 3);
    std::string text = "{";
    for (int i = 0; i < 5000; ++i)
        text += "\"key" + std::to_string(i) + "\":" + std::to_string(i * 3) + ",";
    const JsonParser doc(text + "\"key7\":\"last\"}");
    ASSERT_EQ(doc.size(), 5001);
    for (int i = 0; i < 5000; ++i)
        ASSERT_EQ(doc.child("key" + std::to_string(i)).value(-1), i == 7 ? -1 : i * 3) << i;
    EXPECT_EQ(doc.child("key7").value(), "last");
    EXPECT_FALSE(doc.child("key5000").exist() || doc.child("").exist() || doc.child("key").exist());
    EXPECT_EQ(doc.children()[4999].name(), "key4999");
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
}

TEST(JsonWrite, FragmentsConcatenateWithoutSpacesAndEscape) {
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
    for (int c = 1; c < 0x80; ++c)
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
    EXPECT_EQ(n[5].value(int64_t(0)), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(n[6].value(int64_t(0)), std::numeric_limits<int64_t>::min());
    EXPECT_TRUE(ours.child("inf").null_type());

    const auto theirs = nlohmann::json::parse(w.text());
    EXPECT_EQ(theirs.at(every).get<std::string>(), every);
    EXPECT_EQ(theirs.at("n").at(0).get<double>(), 0.1);
    EXPECT_EQ(theirs.at("n").at(5).get<int64_t>(), std::numeric_limits<int64_t>::max());
    EXPECT_TRUE(theirs.at("inf").is_null() && theirs.at("b").get<bool>());
    // And back: what nlohmann writes (with \u escapes for control bytes) reads the same here.
    EXPECT_EQ(JsonParser(theirs.dump()).child(every).value(), every);
    EXPECT_EQ(JsonParser(theirs.dump(-1, ' ', true)).child(every).value(), every);
}

} // namespace
