// PLY reader: the same model in the three body formats, header rules and
// their exact assertion texts, typed access, and malformed bodies.
#include "ZARN_Common/PlyReader.h"
#include "ZARN_Common/PlyReaderWindow.h"

#include "support.h"

#include <array>
#include <bit>
#include <cstdint>
#include <map>
#include <set>
#include <tuple>

namespace {

using namespace zarn_test;
using ORN::INDEX;
using ZARN::PlyReader;
using CASE = std::tuple<std::string, std::string, std::string>; // file bytes, condition, function

// True when `text` is the assertion of `condition` raised in the reader's
// source, inside a function whose signature contains `function`.
::testing::AssertionResult raised(const std::string &text, const std::string &condition, const std::string &function) {
    const std::string head = "dynamic_assert failed : " + condition + " : at ";
    const auto in = text.find(" in ZARN_Common/PlyReader.cpp ,");
    if (starts_with(text, head) && in != std::string::npos && contains(text.substr(head.size(), in - head.size()), function))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "got: " << text;
}

// A property of the test model: its type, its count type when it is a list,
// and per item the value tokens as they appear in the ascii body.
struct Property {
    std::string type, count_type, name;
    std::vector<std::vector<std::string>> items;
};
struct Element {
    std::string name;
    INDEX size;
    std::vector<Property> properties;
};

std::vector<Element> model() {
    return {{"vertex", 3, {{"float", "", "x", {{"0.5"}, {"-1.25"}, {"3.75"}}},
                           {"double", "", "w", {{"0.1"}, {"-2.5e-300"}, {"12345.678"}}},
                           {"int", "", "id", {{"-7"}, {"2147483647"}, {"-2147483648"}}},
                           {"int64", "", "big", {{"-9223372036854775807"}, {"0"}, {"9007199254740993"}}},
                           {"uchar", "", "red", {{"0"}, {"128"}, {"255"}}},
                           {"uint16", "", "flags", {{"65535"}, {"1"}, {"258"}}},
                           {"uint32", "", "mask", {{"4294967295"}, {"16909060"}, {"7"}}},
                           {"uint64", "", "tag", {{"18446744073709551615"}, {"72623859790382856"}, {"3"}}}}},
            {"empty", 0, {{"float", "", "q", {}}}},
            {"face", 3, {{"int", "uchar", "vertex_indices", {{"0", "1", "2"}, {"2", "1", "0", "-5"}, {}}},
                         {"double", "uint16", "weights", {{"0.25", "-0.75"}, {"1e10"}, {"-0"}}},
                         {"uchar", "uint32", "labels", {{"9"}, {"8", "7"}, {"255", "0", "1"}}},
                         {"float", "int", "uv", {{"1.5", "2.5"}, {"3.5", "4.5"}, {"5.5", "6.5"}}},
                         {"int64", "uint64", "chain", {{}, {"-1"}, {"1", "2"}}},
                         {"uint64", "int64", "bits", {{"1"}, {}, {"18446744073709551614"}}}}},
            // Every list as long as in the first item.
            {"tri", 2, {{"uchar", "", "material", {{"4"}, {"200"}}},
                        {"int", "uchar", "vertex_indices", {{"0", "1", "2"}, {"-3", "-4", "2147483647"}}},
                        {"double", "uint16", "uv", {{"0.5", "0.25"}, {"-8", "1e-5"}}},
                        {"float", "", "area", {{"2.5"}, {"-0.125"}}}}}};
}

// The 64 bits the reader keeps for `token` of `type`: the double for real
// types, the two's complement integer otherwise.
std::uint64_t bits_of(const std::string &token, const std::string &type) {
    const char *t = token.c_str();
    return type == "float"    ? std::bit_cast<std::uint64_t>(double(std::strtof(t, nullptr)))
           : type == "double" ? std::bit_cast<std::uint64_t>(std::strtod(t, nullptr))
                              : std::strtoull(t, nullptr, 10);
}

std::string encode(const std::string &format, const std::vector<Element> &elements) {
    std::string out = "ply\nformat " + format + " 1.0\ncomment made by the test\n";
    for (const auto &e : elements) {
        out += "element " + e.name + " " + std::to_string(e.size) + "\n";
        for (const auto &p : e.properties)
            out += "property " + (p.count_type.empty() ? "" : "list " + p.count_type + " ") + p.type + " " + p.name + "\n";
    }
    out += "end_header\n";
    const bool ascii = format == "ascii", big = format == "binary_big_endian";
    const auto put = [&](const std::string &type, const std::string &token) {
        const std::size_t width = type == "uchar" ? 1 : type == "uint16" ? 2 : type == "int" || type == "uint32" || type == "float" ? 4 : 8;
        const std::uint64_t bits = type == "float" ? std::bit_cast<std::uint32_t>(std::strtof(token.c_str(), nullptr)) : bits_of(token, type);
        for (std::size_t i = 0; !ascii && i < width; ++i)
            out.push_back(static_cast<char>(bits >> 8 * (big ? width - 1 - i : i)));
        out += ascii ? token + " " : "";
    };
    for (const auto &e : elements)
        for (INDEX i = 0; i < e.size; ++i) {
            for (const auto &p : e.properties) {
                if (!p.count_type.empty())
                    put(p.count_type, std::to_string(p.items[i].size()));
                for (const auto &token : p.items[i])
                    put(p.type, token);
            }
            out += ascii ? "\n" : "";
        }
    return out;
}

// Sets the streaming window for one scope.
struct Window {
    explicit Window(INDEX bytes) : mSaved(ZARN::ply_reader_window()) { ZARN::set_ply_reader_window(bytes); }
    ~Window() { ZARN::set_ply_reader_window(mSaved); }
    INDEX mSaved;
};

class PlyReaderTest : public ::testing::Test {
protected:
    std::string write(const std::string &name, const std::string &bytes) {
        write_file(mDir / name, bytes);
        return mDir / name;
    }
    std::string open_failure(const std::string &bytes) {
        return failure_of([&] { PlyReader reader(write("bad.ply", bytes)); });
    }
    void expect_failures(const std::vector<CASE> &cases) {
        for (const auto &[bytes, condition, function] : cases)
            EXPECT_TRUE(raised(open_failure(bytes), condition, function)) << bytes;
    }
    TempDir mDir;
};

// Compares every answer of the reader, through the getter of each
// property's storage class, bit for bit with the model's tokens.
void expect_model(const PlyReader &r, const std::vector<Element> &elements, const std::string &label) {
    SCOPED_TRACE(label);
    for (INDEX e = 0; e < static_cast<INDEX>(elements.size()); ++e) {
        ASSERT_EQ(r.find_element(elements[e].name), e);
        ASSERT_EQ(r.element_size(e), elements[e].size);
        for (INDEX p = 0; p < static_cast<INDEX>(elements[e].properties.size()); ++p) {
            const Property &property = elements[e].properties[p];
            ASSERT_EQ(r.find_property(e, property.name), p);
            const bool real = property.type == "float" || property.type == "double";
            const bool index = property.type == "int" || property.type == "int64";
            for (INDEX i = 0; i < elements[e].size; ++i) {
                SCOPED_TRACE(elements[e].name + "." + property.name + "[" + std::to_string(i) + "]");
                const auto expect = [&](const auto &values) {
                    ASSERT_EQ(static_cast<std::size_t>(values.size()), property.items[i].size());
                    std::size_t k = 0;
                    for (const auto value : values)
                        EXPECT_EQ(std::bit_cast<std::uint64_t>(value), bits_of(property.items[i][k++], property.type));
                };
                if (!property.count_type.empty())
                    real ? expect(r.get_value_list(e, p, i)) : index ? expect(r.get_index_list(e, p, i)) : expect(r.get_byte_list(e, p, i));
                else
                    real ? expect(std::array{r.get_value(e, p, i)}) : index ? expect(std::array{r.get_index(e, p, i)}) : expect(std::array{r.get_byte(e, p, i)});
            }
        }
    }
}

TEST_F(PlyReaderTest, AsciiAndBothBinaryOrdersGiveIdenticalAnswersThroughAnyWindow) {
    // Header lines, numbers, items wider than the window and list counts
    // all get cut somewhere by the tiny windows.
    const auto elements = model();
    for (const std::string format : {"ascii", "binary_little_endian", "binary_big_endian"})
        for (const INDEX bytes : {ZARN::ply_reader_window(), INDEX(1), INDEX(2), INDEX(3), INDEX(7), INDEX(16), INDEX(61)}) {
            const Window window(bytes);
            expect_model(PlyReader(write(format + ".ply", encode(format, elements))), elements, format + " window " + std::to_string(bytes));
        }
}

TEST_F(PlyReaderTest, MissingNamesGiveNoneAndIndicesAreChecked) {
    const PlyReader r(write("m.ply", encode("binary_little_endian", model())));
    EXPECT_EQ(r.find_element("edge"), ORN::VAR_NONE);
    EXPECT_EQ(r.find_property(0, "nx"), ORN::VAR_NONE);
    EXPECT_EQ(r.find_property(2, "x"), ORN::VAR_NONE);
    for (const auto &[e, i] : {std::pair<INDEX, INDEX>{0, 3}, {0, -1}, {1, 0}})
        EXPECT_TRUE(raised(failure_of([&] { r.get_value(e, 0, i); }), "item_index >= 0 && item_index < mElement[element_index].mSize", "item_column"));
    for (const std::string &text : {failure_of([&] { r.element_size(4); }), failure_of([&] { r.get_value(0, 8, 0); }),
                                    failure_of([&] { r.find_property(-1, "x"); })})
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : index >= 0 && index < size () : at ")) << text;
    EXPECT_TRUE(starts_with(failure_of([] { PlyReader().find_element("vertex"); }),
                            "dynamic_assert failed : pointer.exist () : at static void ZARN::PlyReader::check_avaliable("));
}

TEST_F(PlyReaderTest, GettersHandOutStoredValuesAndListsWithoutCopies) {
    PlyReader copy;
    const double *x0;
    ORN::ArrayView<const ORN::int64> face1;
    {
        const PlyReader r(write("m.ply", encode("ascii", model())));
        x0 = &r.get_value(0, 0, 0);
        face1 = r.get_index_list(2, 0, 1);
        EXPECT_TRUE(&r.get_value(0, 0, 0) == x0 && r.get_index_list(2, 0, 1).data() == face1.data());
        // A whole column is the same stored values, every item of the element.
        const auto xs = r.get_values(0, 0);
        ASSERT_EQ(xs.size(), r.element_size(0));
        for (INDEX i = 0; i < xs.size(); ++i)
            EXPECT_EQ(&xs[i], &r.get_value(0, 0, i));
        const INDEX red = r.find_property(0, "red");
        const auto reds = r.get_bytes(0, red);
        ASSERT_EQ(reds.size(), r.element_size(0));
        EXPECT_EQ(&reds[1], &r.get_byte(0, red, 1));
        EXPECT_TRUE(raised(failure_of([&] { r.get_values(0, red); }), "mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_VALUE",
                           "::get_values("));
        EXPECT_TRUE(raised(failure_of([&] { r.get_bytes(2, 0); }), "mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_BYTE",
                           "::get_bytes("));
        copy = r;
    }
    // The last handle keeps the values alive.
    EXPECT_EQ(*x0, 0.5);
    ASSERT_EQ(face1.size(), 4);
    EXPECT_EQ(face1[3], -5);
    EXPECT_TRUE(starts_with(failure_of([&] { face1[4]; }), "dynamic_assert failed : index >= 0 && index < size () : at "));
}

TEST_F(PlyReaderTest, EachGetterAssertsItsOwnBodyType) {
    const PlyReader r(write("m.ply", encode("binary_big_endian", model())));
    // red is "uchar": answered as a byte, refused as a value.
    EXPECT_EQ(r.get_byte(0, r.find_property(0, "red"), 1), 128u);
    EXPECT_TRUE(raised(failure_of([&] { r.get_value(0, 4, 1); }), "mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_VALUE",
                       "ZARN::PlyReader::Implement::get_value("));
    // The other getters likewise; scalars are not lists and lists are not scalars.
    const std::tuple<std::function<void()>, std::string, std::string> cases[] = {
        {[&] { r.get_index(0, 0, 0); }, "INDEX", "::get_index("}, {[&] { r.get_byte(0, 2, 0); }, "BYTE", "::get_byte("},
        {[&] { r.get_value_list(2, 0, 0); }, "VALUE_LIST", "::get_value_list("}, {[&] { r.get_index_list(2, 1, 0); }, "INDEX_LIST", "::get_index_list("},
        {[&] { r.get_byte_list(2, 0, 0); }, "BYTE_LIST", "::get_byte_list("}, {[&] { r.get_value(2, 1, 0); }, "VALUE", "::get_value("},
        {[&] { r.get_value_list(0, 0, 0); }, "VALUE_LIST", "::get_value_list("}};
    for (const auto &[call, type, function] : cases)
        EXPECT_TRUE(raised(failure_of(call), "mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_" + type, function)) << type;
}

TEST_F(PlyReaderTest, CrLfHeadersAndBinaryBodiesStartingWithALineFeed) {
    const PlyReader text(write("t.ply", "ply\r\nformat ascii 1.0\r\ncomment c\r\nelement v 2\r\nproperty float x\r\n"
                                        "end_header\r\n1.5\r\n-2\r\n"));
    EXPECT_EQ(text.get_value(0, 0, 0), 1.5);
    EXPECT_EQ(text.get_value(0, 0, 1), -2.0);
    // Only one line end belongs to the header: the body's first byte is 0x0a.
    const PlyReader binary(write("b.ply", "ply\r\nformat binary_little_endian 1.0\r\nelement v 2\r\nproperty uchar c\r\nend_header\r\n\n\r"));
    EXPECT_EQ(binary.get_byte(0, 0, 0), 10u);
    EXPECT_EQ(binary.get_byte(0, 0, 1), 13u);
}

TEST_F(PlyReaderTest, HeaderRulesRejectWithTheirTexts) {
    const std::string ply = "ply\nformat ascii 1.0\n", list = ply + "element f 1\nproperty list ";
    std::vector<CASE> cases = {{list + "uchar short i\nend_header\n1 1\n", "r5x != VAR_NONE", "read_header"},
                               {"ply\nformat binary_middle_endian 1.0\nend_header\n", "false", "ZARN::PlyReader::Implement::Implement("},
                               {"ply\nelement v 0\nend_header\n", "false", "ZARN::PlyReader::Implement::Implement("},
                               {ply + "element v 0\n", "false", "read_header"},
                               {"plyx\n" + ply, "r1x == \"ply\"", "read_header"},
                               {"", "r1x == \"ply\"", "read_header"}};
    for (const std::string type : {"char", "short", "ushort", "uint", "int8", "int16", "float32", "float64", "uint8"})
        cases.push_back({ply + "element v 1\nproperty " + type + " x\nend_header\n1\n", "ix != VAR_NONE", "read_header"});
    for (const std::string type : {"float", "double", "char", "int32"})
        cases.push_back({list + type + " int i\nend_header\n1 1\n", "r4x != VAR_NONE", "read_header"});
    for (const std::string count : {"-1", "x", "12a"})
        cases.push_back({ply + "element v " + count + "\nend_header\n", "r3x >= 0", "read_header"});
    for (const std::string line : {"obj_info scanner", "", "property float x", "element v", "end_header now", "PLY"})
        cases.push_back({ply + line + "\nelement v 0\nend_header\n", "false", "read_header"});
    for (const std::string end : {"end_header", "end_header\r", "end_header\r\r\n", "end_header\rnow\n", "end_header\r1 2\n", "end_header \n"})
        cases.push_back({ply + "element v 0\n" + end, "mTempRis[0] == STRU8 ('\\n')", "read_header"});
    expect_failures(cases);
}

TEST_F(PlyReaderTest, EmptyElementsAndElementsWithoutPropertiesTakeNoBody) {
    const PlyReader r(write("e.ply", "ply\nformat binary_big_endian 1.0\nelement none 0\nproperty double d\n"
                                     "property list uchar int l\nelement bare 1000000000000\nelement v 1\n"
                                     "property uint16 u\nend_header\n\x01\x02"));
    EXPECT_EQ(r.element_size(0), 0);
    EXPECT_EQ(r.element_size(1), 1000000000000);
    EXPECT_EQ(r.get_byte(2, 0, 0), 0x0102u);
}

TEST_F(PlyReaderTest, MalformedBodiesFailWithoutReadingPastTheData) {
    const std::string le = "ply\nformat binary_little_endian 1.0\n", text = "ply\nformat ascii 1.0\n";
    const std::string faces = le + "element f 2\nproperty list int uint16 i\nend_header\n" + std::string("\x01\0\0\0\x07\0", 6);
    const std::string items = "item_count <= (mEnd - mRis) / item_width", lists = "list_count <= (mEnd - mRis) / width";
    const std::vector<CASE> cases = {
        // A truncated body, and a count far beyond the file refused before anything is allocated.
        {le + "element v 2\nproperty float x\nproperty uchar c\nend_header\n" + std::string(9, '\0'), items, "read_element_binary"},
        {le + "element v 4611686018427387903\nproperty double x\nend_header\n" + std::string(8, '\0'), items, "read_element_binary"},
        // Negative and overrunning list counts; lists of one length, the last one cut short.
        {faces + std::string("\xff\xff\xff\xff", 4), "list_count >= 0", "read_element_binary"},
        {faces + std::string("\x03\0\0\0\x01\0\x02\0\x03", 9), lists, "read_element_binary"},
        {faces + std::string("\x03\0", 2), "count_width <= mEnd - mRis", "read_element_binary"},
        {faces + std::string("\x01\0\0\0\x07", 5), lists, "read_element_binary"},
        {le + "element f 1\nproperty list uint64 uchar i\nend_header\n" + std::string(8, '\xff') + "x", "list_count >= 0", "read_element_binary"},
        {le + "element f 2\nproperty uchar a\nproperty list uchar uchar i\nend_header\n\x01\x01\x05", "width <= mEnd - mRis", "read_element_binary"},
        {text + "element v 3\nproperty float x\nend_header\n1 2    \n", "number_read", "read_body_text"},
        {text + "element v 3\nproperty float x\nend_header\n1 2\n", "item_count <= (reader.remaining () + 1) / 2 / property_count", "read_body_text"},
        {text + "element v 2\nproperty uchar x\nend_header\n1 -2\n", "number_read", "read_body_text"},
        {text + "element v 2\nproperty int x\nend_header\n1 2.5\n", "number_read", "read_body_text"},
        {text + "element f 1\nproperty list uchar int i\nend_header\n-1 4 5\n", "list_count >= 0", "read_body_text"},
        {text + "element f 1\nproperty list uchar int i\nend_header\n9 4 5\n", "list_count <= (reader.remaining () + 1) / 2", "read_body_text"}};
    // The same texts whether the body fits one window or takes many.
    for (const INDEX bytes : {ZARN::ply_reader_window(), INDEX(1), INDEX(5)}) {
        SCOPED_TRACE("window " + std::to_string(bytes));
        const Window window(bytes);
        expect_failures(cases);
    }
}

// A plan that asks for every scalar property: reals into float arrays two
// apart ("w" into doubles two apart), the unsigned types into bytes, and
// the signed ones into bytes as well, which the reader must refuse.
struct Delivered {
    std::vector<INDEX> elements;
    std::map<std::pair<INDEX, INDEX>, std::vector<float>> floats;
    std::map<std::pair<INDEX, INDEX>, std::vector<double>> doubles;
    std::map<std::pair<INDEX, INDEX>, std::vector<std::uint8_t>> bytes;
    std::set<std::pair<INDEX, INDEX>> refused;

    PlyReader::PLAN plan() {
        return [this](PlyReader::DELIVERY &d) {
            const INDEX e = d.element_index();
            elements.push_back(e);
            const auto n = static_cast<std::size_t>(d.element_size());
            for (const std::string name : {"x", "w", "id", "big", "red", "flags", "mask", "tag", "material", "area", "vertex_indices", "uv"}) {
                const INDEX p = d.find_property(name);
                if (p == ORN::VAR_NONE)
                    continue;
                bool taken;
                if (name == "w")
                    taken = d.deliver(p, (doubles[{e, p}] = std::vector<double>(2 * n)).data(), 2);
                else if (name == "x" || name == "area" || name == "uv")
                    taken = d.deliver(p, (floats[{e, p}] = std::vector<float>(2 * n, -1.0f)).data(), 2);
                else
                    taken = d.deliver(p, (bytes[{e, p}] = std::vector<std::uint8_t>(n)).data(), 1);
                if (!taken)
                    refused.insert({e, p});
            }
        };
    }
};

TEST_F(PlyReaderTest, ListsOfChangingLengthAndNumbersStraddlingWindowsKeepTheirValues) {
    // Lists of one length over many blocks, then changing lengths, one list
    // several windows long, and a list of fixed length beside them.
    Element faces{"face", 400, {{"uchar", "", "flag", {}}, {"int", "uint16", "idx", {}}, {"double", "", "w", {}}, {"uint64", "uchar", "tag", {}}}};
    for (int i = 0; i < 400; ++i) {
        faces.properties[0].items.push_back({std::to_string(i % 256)});
        faces.properties[1].items.emplace_back();
        for (int k = 0; k < (i == 300 ? 3000 : i < 150 ? 3 : (i * 7) % 6); ++k)
            faces.properties[1].items.back().push_back(std::to_string((k * 7919 + i) % 4000000 - 2000000));
        char w[40];
        std::snprintf(w, sizeof w, "%.17g", (i - 200) * 1.2345678901234567e-123);
        faces.properties[2].items.push_back({w});
        faces.properties[3].items.push_back({std::to_string(18446744073709551615ull - i), std::to_string(i)});
    }
    for (const std::string format : {"ascii", "binary_little_endian", "binary_big_endian"})
        for (const INDEX bytes : {INDEX(64), INDEX(1000), ZARN::ply_reader_window()}) {
            const Window window(bytes);
            expect_model(PlyReader(write(format + ".ply", encode(format, {faces}))), {faces}, format + " window " + std::to_string(bytes));
            // A scalar taken by a plan between lists of changing length.
            Delivered d;
            const PlyReader planned(mDir / (format + ".ply"), d.plan());
            const std::vector<double> &w = d.doubles[{0, 2}];
            ASSERT_EQ(w.size(), 800u);
            for (std::size_t i = 0; i < 400; ++i)
                ASSERT_EQ(std::bit_cast<std::uint64_t>(w[2 * i]), bits_of(faces.properties[2].items[i][0], "double")) << format << " item " << i;
            EXPECT_EQ(planned.get_index_list(0, 1, 300).size(), 3000);
            EXPECT_EQ(planned.get_byte_list(0, 3, 399)[1], 399u);
        }
}

TEST_F(PlyReaderTest, BlankRunsLongerThanTheWindowAreSkippedAcrossRefills) {
    // Blank lines of elements without properties, and long runs of blanks
    // between two numbers, at windows far smaller than either.
    std::vector<Element> elements = {{"v", 3, {{"float", "", "x", {{"1.5"}, {"-2"}, {"123456"}}}}},
                                     {"bare", 300, {}},
                                     {"f", 2, {{"int", "uchar", "i", {{"7", "8"}, {"-9"}}}, {"uint16", "", "u", {{"65535"}, {"4"}}}}}};
    const std::string body = encode("ascii", elements);
    for (const INDEX bytes : {INDEX(1), INDEX(2), INDEX(7), INDEX(64), INDEX(1000)}) {
        const Window window(bytes);
        const std::string label = "window " + std::to_string(bytes);
        expect_model(PlyReader(write("bare.ply", body)), elements, label);
        for (const INDEX run : {2 * bytes - 1, 2 * bytes, 3 * bytes + 5}) {
            const std::string gap = std::string(static_cast<std::size_t>(run), ' ') + "\r\n\t";
            const PlyReader r(write("gap.ply", "ply\nformat ascii 1.0\nelement v 3\nproperty int x\nend_header\n" + gap + "1" + gap + "-22" + gap + "333" + gap));
            EXPECT_TRUE(r.get_index(0, 0, 0) == 1 && r.get_index(0, 0, 1) == -22 && r.get_index(0, 0, 2) == 333) << label << " run " << run;
        }
    }
}

TEST_F(PlyReaderTest, APlanTakesScalarsOfItsClassIntoItsArraysAndTheRestIsKept) {
    const auto elements = model();
    for (const std::string format : {"ascii", "binary_little_endian", "binary_big_endian"})
        for (const INDEX bytes : {ZARN::ply_reader_window(), INDEX(1), INDEX(7), INDEX(61)}) {
            const Window window(bytes);
            const std::string label = format + " window " + std::to_string(bytes);
            SCOPED_TRACE(label);
            Delivered d;
            const PlyReader r(write(format + ".ply", encode(format, elements)), d.plan());
            // Asked once per element with a body, the empty one not at all.
            EXPECT_EQ(d.elements, (std::vector<INDEX>{0, 2, 3}));
            // Signed integers and lists stay with the reader, and answer.
            EXPECT_EQ(d.refused, (std::set<std::pair<INDEX, INDEX>>{{0, 2}, {0, 3}, {2, 0}, {2, 3}, {3, 1}, {3, 2}}));
            EXPECT_EQ(r.get_index(0, 2, 2), -2147483648LL);
            EXPECT_EQ(r.get_value_list(2, 1, 0)[1], -0.75);
            EXPECT_EQ(r.get_index_list(3, 1, 1)[2], 2147483647);
            // float x at every other slot, the slots between untouched.
            EXPECT_EQ((d.floats[{0, 0}]), (std::vector<float>{0.5f, -1.0f, -1.25f, -1.0f, 3.75f, -1.0f}));
            EXPECT_EQ((d.floats[{3, 3}]), (std::vector<float>{2.5f, -1.0f, -0.125f, -1.0f}));
            const std::vector<double> w = d.doubles[{0, 1}];
            ASSERT_EQ(w.size(), 6u);
            for (std::size_t i = 0; i < 3; ++i)
                EXPECT_EQ(std::bit_cast<std::uint64_t>(w[2 * i]), bits_of(elements[0].properties[1].items[i][0], "double"));
            // Bytes as they are, anything above 255 as 255.
            EXPECT_EQ((d.bytes[{0, 4}]), (std::vector<std::uint8_t>{0, 128, 255}));
            EXPECT_EQ((d.bytes[{0, 5}]), (std::vector<std::uint8_t>{255, 1, 255}));
            EXPECT_EQ((d.bytes[{0, 6}]), (std::vector<std::uint8_t>{255, 255, 7}));
            EXPECT_EQ((d.bytes[{0, 7}]), (std::vector<std::uint8_t>{255, 255, 3}));
            EXPECT_EQ((d.bytes[{3, 0}]), (std::vector<std::uint8_t>{4, 200}));
            // What was handed over is not kept: its getters refuse it.
            EXPECT_TRUE(raised(failure_of([&] { r.get_value(0, 0, 0); }), "mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_VALUE",
                               "::get_value("));
            EXPECT_TRUE(raised(failure_of([&] { r.get_bytes(0, 4); }), "mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_BYTE",
                               "::get_bytes("));
        }
}

// Any file, however broken, fails with a plan exactly as without one: the
// same assertion, raised at the same place, and the plan never sees an
// element whose item count the file cannot hold (its arrays would be
// allocated for it).
TEST_F(PlyReaderTest, APlanChangesNoFailure) {
    std::vector<std::string> files;
    const std::string le = "ply\nformat binary_little_endian 1.0\n", text = "ply\nformat ascii 1.0\n";
    for (const std::string format : {"ascii", "binary_little_endian", "binary_big_endian"}) {
        const std::string whole = encode(format, model());
        // Every cut of the file, and every byte of its body changed.
        for (std::size_t size = 0; size < whole.size(); ++size)
            files.push_back(whole.substr(0, size));
        for (std::size_t at = whole.find("end_header") + 11; at < whole.size(); ++at) {
            std::string changed = whole;
            changed[at] = at % 2 ? '\xff' : '-';
            files.push_back(changed);
        }
    }
    for (const std::string count : {"4611686018427387903", "1000000000000"}) {
        files.push_back(le + "element vertex " + count + "\nproperty float x\nproperty uchar red\nend_header\n" + std::string(64, '\0'));
        files.push_back(le + "element vertex " + count + "\nproperty float x\nproperty list uchar int i\nend_header\n" + std::string(64, '\0'));
        files.push_back(text + "element vertex " + count + "\nproperty float x\nend_header\n1 2 3 4\n");
    }
    INDEX failed = 0;
    for (const std::string &bytes_of_file : files) {
        const std::string path = write("f.ply", bytes_of_file);
        for (const INDEX bytes : {ZARN::ply_reader_window(), INDEX(5)}) {
            const Window window(bytes);
            const std::string whole = failure_of([&] { PlyReader reader(path); });
            Delivered d;
            const std::string planned = failure_of([&] { PlyReader reader(path, d.plan()); });
            EXPECT_EQ(planned, whole) << "window " << bytes << ": " << bytes_of_file;
            failed += !whole.empty();
        }
    }
    // Most of them fail at all.
    EXPECT_GT(failed, static_cast<INDEX>(files.size()));
}

TEST_F(PlyReaderTest, AMissingFileFailsAndIsNotCreated) {
    const std::string path = mDir / "none.ply";
    const std::string text = failure_of([&] { PlyReader reader(path); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : r2x >= 0 : at static ORN::INDEX ORN::FileSystemProc::file_size(")) << text;
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(starts_with(failure_of([&] { PlyReader reader(mDir.str()); }), "dynamic_assert failed : r2x >= 0 : at "));
}

} // namespace
