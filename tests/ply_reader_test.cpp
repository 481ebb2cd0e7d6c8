// PLY reader: the same model in the three body formats, header rules and
// their exact assertion texts, typed access, and malformed bodies.
#include "ZARN_Common/PlyReader.h"
#include "ZARN_Common/PlyReaderWindow.h"

#include "support.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using zarn_test::failure_of;

namespace fs = std::filesystem;
using ORN::INDEX;
using ZARN::PlyReader;

// True when `text` is the assertion of `condition` raised in the reader's
// source, inside a function whose signature contains `function`.
::testing::AssertionResult raised(const std::string &text, const std::string &condition, const std::string &function) {
    const std::string head = "dynamic_assert failed : " + condition + " : at ";
    if (text.rfind(head, 0) != 0)
        return ::testing::AssertionFailure() << "got: " << text;
    const auto in = text.find(" in ZARN_Common/PlyReader.cpp ,");
    if (in == std::string::npos || text.substr(head.size(), in - head.size()).find(function) == std::string::npos)
        return ::testing::AssertionFailure() << "got: " << text;
    return ::testing::AssertionSuccess();
}

// A property of the test model: its type, its count type when it is a list,
// and per item the value tokens as they appear in the ascii body.
struct Property {
    std::string type;
    std::string count_type;
    std::string name;
    std::vector<std::vector<std::string>> items;
};
struct Element {
    std::string name;
    INDEX size;
    std::vector<Property> properties;
};

std::vector<Element> model() {
    return {
        {"vertex",
         3,
         {
             {"float", "", "x", {{"0.5"}, {"-1.25"}, {"3.75"}}},
             {"double", "", "w", {{"0.1"}, {"-2.5e-300"}, {"12345.678"}}},
             {"int", "", "id", {{"-7"}, {"2147483647"}, {"-2147483648"}}},
             {"int64", "", "big", {{"-9223372036854775807"}, {"0"}, {"9007199254740993"}}},
             {"uchar", "", "red", {{"0"}, {"128"}, {"255"}}},
             {"uint16", "", "flags", {{"65535"}, {"1"}, {"258"}}},
             {"uint32", "", "mask", {{"4294967295"}, {"16909060"}, {"7"}}},
             {"uint64", "", "tag", {{"18446744073709551615"}, {"72623859790382856"}, {"3"}}},
         }},
        {"empty", 0, {{"float", "", "q", {}}}},
        {"face",
         3,
         {
             {"int", "uchar", "vertex_indices", {{"0", "1", "2"}, {"2", "1", "0", "-5"}, {}}},
             {"double", "uint16", "weights", {{"0.25", "-0.75"}, {"1e10"}, {"-0"}}},
             {"uchar", "uint32", "labels", {{"9"}, {"8", "7"}, {"255", "0", "1"}}},
             {"float", "int", "uv", {{"1.5", "2.5"}, {"3.5", "4.5"}, {"5.5", "6.5"}}},
             {"int64", "uint64", "chain", {{}, {"-1"}, {"1", "2"}}},
             {"uint64", "int64", "bits", {{"1"}, {}, {"18446744073709551614"}}},
         }},
        // Every list as long as in the first item.
        {"tri",
         2,
         {
             {"uchar", "", "material", {{"4"}, {"200"}}},
             {"int", "uchar", "vertex_indices", {{"0", "1", "2"}, {"-3", "-4", "2147483647"}}},
             {"double", "uint16", "uv", {{"0.5", "0.25"}, {"-8", "1e-5"}}},
             {"float", "", "area", {{"2.5"}, {"-0.125"}}},
         }},
    };
}

std::string header(const std::string &format, const std::vector<Element> &elements, const std::string &eol = "\n") {
    std::string h = "ply" + eol + "format " + format + " 1.0" + eol + "comment made by the test" + eol;
    for (const auto &e : elements) {
        h += "element " + e.name + " " + std::to_string(e.size) + eol;
        for (const auto &p : e.properties)
            h += p.count_type.empty() ? "property " + p.type + " " + p.name + eol
                                      : "property list " + p.count_type + " " + p.type + " " + p.name + eol;
    }
    return h + "end_header" + eol;
}

void append_binary(std::string &out, const std::string &type, const std::string &token, bool big) {
    unsigned char bytes[8];
    std::size_t width = 0;
    const auto put = [&](auto value) {
        width = sizeof(value);
        std::memcpy(bytes, &value, width);
    };
    if (type == "float")
        put(std::strtof(token.c_str(), nullptr));
    else if (type == "double")
        put(std::strtod(token.c_str(), nullptr));
    else if (type == "int")
        put(static_cast<std::int32_t>(std::strtoll(token.c_str(), nullptr, 10)));
    else if (type == "int64")
        put(static_cast<std::int64_t>(std::strtoll(token.c_str(), nullptr, 10)));
    else if (type == "uchar")
        put(static_cast<std::uint8_t>(std::strtoull(token.c_str(), nullptr, 10)));
    else if (type == "uint16")
        put(static_cast<std::uint16_t>(std::strtoull(token.c_str(), nullptr, 10)));
    else if (type == "uint32")
        put(static_cast<std::uint32_t>(std::strtoull(token.c_str(), nullptr, 10)));
    else
        put(static_cast<std::uint64_t>(std::strtoull(token.c_str(), nullptr, 10)));
    static_assert(std::endian::native == std::endian::little);
    for (std::size_t i = 0; i < width; ++i)
        out.push_back(static_cast<char>(bytes[big ? width - 1 - i : i]));
}

std::string encode(const std::string &format, const std::vector<Element> &elements) {
    std::string out = header(format, elements);
    for (const auto &e : elements)
        for (INDEX i = 0; i < e.size; ++i) {
            for (const auto &p : e.properties) {
                const auto &tokens = p.items[i];
                if (format == "ascii") {
                    if (!p.count_type.empty())
                        out += std::to_string(tokens.size()) + " ";
                    for (const auto &t : tokens)
                        out += t + " ";
                } else {
                    const bool big = format == "binary_big_endian";
                    if (!p.count_type.empty())
                        append_binary(out, p.count_type, std::to_string(tokens.size()), big);
                    for (const auto &t : tokens)
                        append_binary(out, p.type, t, big);
                }
            }
            if (format == "ascii")
                out += "\n";
        }
    return out;
}

// Sets the streaming window for one scope.
class Window {
public:
    explicit Window(INDEX bytes) : mSaved(ZARN::ply_reader_window()) { ZARN::set_ply_reader_window(bytes); }
    ~Window() { ZARN::set_ply_reader_window(mSaved); }

private:
    INDEX mSaved;
};

class PlyReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        mDir = fs::temp_directory_path() /
               ("zarn_ply_test_" + std::to_string(::getpid()) + "_" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(mDir);
    }
    void TearDown() override { fs::remove_all(mDir); }

    std::string write(const std::string &name, const std::string &bytes) {
        const std::string path = (mDir / name).string();
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }
    std::string open_failure(const std::string &bytes) {
        const std::string path = write("bad.ply", bytes);
        return failure_of([&] { PlyReader reader(path); });
    }

    fs::path mDir;
};

// Compares every answer of the reader with the model's tokens, parsed the
// way each storage class reads them.
void expect_model(const PlyReader &r, const std::vector<Element> &elements, const std::string &label) {
    SCOPED_TRACE(label);
    for (INDEX e = 0; e < static_cast<INDEX>(elements.size()); ++e) {
        const Element &element = elements[e];
        ASSERT_EQ(r.find_element(element.name), e);
        ASSERT_EQ(r.element_size(e), element.size);
        for (INDEX p = 0; p < static_cast<INDEX>(element.properties.size()); ++p) {
            const Property &property = element.properties[p];
            ASSERT_EQ(r.find_property(e, property.name), p);
            const char cls = property.type == "float" || property.type == "double" ? 'v'
                             : property.type == "int" || property.type == "int64" ? 'i'
                                                                                  : 'b';
            for (INDEX i = 0; i < element.size; ++i) {
                const auto &tokens = property.items[i];
                SCOPED_TRACE(element.name + "." + property.name + "[" + std::to_string(i) + "]");
                const auto expect_item = [&](INDEX k, auto got) {
                    const char *t = tokens[k].c_str();
                    if constexpr (std::is_same_v<decltype(got), double>) {
                        const double want = property.type == "float" ? double(std::strtof(t, nullptr)) : std::strtod(t, nullptr);
                        EXPECT_EQ(std::bit_cast<std::uint64_t>(got), std::bit_cast<std::uint64_t>(want));
                    } else if constexpr (std::is_same_v<decltype(got), ORN::int64>) {
                        EXPECT_EQ(got, std::strtoll(t, nullptr, 10));
                    } else {
                        EXPECT_EQ(got, std::strtoull(t, nullptr, 10));
                    }
                };
                if (property.count_type.empty()) {
                    if (cls == 'v')
                        expect_item(0, r.get_value(e, p, i));
                    else if (cls == 'i')
                        expect_item(0, r.get_index(e, p, i));
                    else
                        expect_item(0, r.get_byte(e, p, i));
                    continue;
                }
                const auto expect_list = [&](auto view) {
                    ASSERT_EQ(view.size(), static_cast<INDEX>(tokens.size()));
                    INDEX k = 0;
                    for (auto value : view)
                        expect_item(k++, value);
                };
                if (cls == 'v')
                    expect_list(r.get_value_list(e, p, i));
                else if (cls == 'i')
                    expect_list(r.get_index_list(e, p, i));
                else
                    expect_list(r.get_byte_list(e, p, i));
            }
        }
    }
}

TEST_F(PlyReaderTest, AsciiAndBothBinaryOrdersGiveIdenticalAnswers) {
    const auto elements = model();
    for (const std::string format : {"ascii", "binary_little_endian", "binary_big_endian"}) {
        const PlyReader reader(write(format + ".ply", encode(format, elements)));
        expect_model(reader, elements, format);
        EXPECT_EQ(reader.element_size(reader.find_element("empty")), 0);
    }
}

TEST_F(PlyReaderTest, MissingNamesGiveNoneAndIndicesAreChecked) {
    const PlyReader r(write("m.ply", encode("binary_little_endian", model())));
    EXPECT_EQ(r.find_element("edge"), ORN::VAR_NONE);
    EXPECT_EQ(r.find_property(0, "nx"), ORN::VAR_NONE);
    EXPECT_EQ(r.find_property(2, "x"), ORN::VAR_NONE);
    EXPECT_TRUE(raised(failure_of([&] { r.get_value(0, 0, 3); }),
                       "item_index >= 0 && item_index < mElement[element_index].mSize", "item_column"));
    EXPECT_TRUE(raised(failure_of([&] { r.get_value(0, 0, -1); }),
                       "item_index >= 0 && item_index < mElement[element_index].mSize", "item_column"));
    EXPECT_TRUE(raised(failure_of([&] { r.get_value(1, 0, 0); }),
                       "item_index >= 0 && item_index < mElement[element_index].mSize", "item_column"));
    for (const std::string &text : {failure_of([&] { r.element_size(4); }), failure_of([&] { r.get_value(0, 8, 0); }),
                                    failure_of([&] { r.find_property(-1, "x"); })})
        EXPECT_EQ(text.rfind("dynamic_assert failed : index >= 0 && index < size () : at ", 0), 0u) << text;
    const PlyReader none;
    EXPECT_EQ(failure_of([&] { none.find_element("vertex"); })
                  .rfind("dynamic_assert failed : pointer.exist () : at static void ZARN::PlyReader::check_avaliable(", 0),
              0u);
}

TEST_F(PlyReaderTest, GettersHandOutStoredValuesAndListsWithoutCopies) {
    PlyReader copy;
    const double *x0;
    ORN::ArrayView<const ORN::int64> face1;
    {
        const PlyReader r(write("m.ply", encode("ascii", model())));
        x0 = &r.get_value(0, 0, 0);
        EXPECT_EQ(&r.get_value(0, 0, 0), x0);
        face1 = r.get_index_list(2, 0, 1);
        EXPECT_EQ(r.get_index_list(2, 0, 1).data(), face1.data());
        copy = r;
    }
    // The last handle keeps the values alive.
    EXPECT_EQ(*x0, 0.5);
    ASSERT_EQ(face1.size(), 4);
    EXPECT_EQ(face1[3], -5);
    EXPECT_EQ(failure_of([&] { face1[4]; }).rfind("dynamic_assert failed : index >= 0 && index < size () : at ", 0), 0u);
    EXPECT_EQ(copy.get_index_list(2, 0, 2).size(), 0);
}

TEST_F(PlyReaderTest, EachGetterAssertsItsOwnBodyType) {
    const PlyReader r(write("m.ply", encode("binary_big_endian", model())));
    const INDEX v = 0, f = 2;
    // red is "uchar": answered as a byte, refused as a value.
    EXPECT_EQ(r.get_byte(v, r.find_property(v, "red"), 1), 128u);
    const std::string cond = "mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_";
    EXPECT_TRUE(raised(failure_of([&] { r.get_value(v, 4, 1); }), cond + "VALUE", "ZARN::PlyReader::Implement::get_value("));
    EXPECT_TRUE(raised(failure_of([&] { r.get_index(v, 0, 0); }), cond + "INDEX", "::get_index("));
    EXPECT_TRUE(raised(failure_of([&] { r.get_byte(v, 2, 0); }), cond + "BYTE", "::get_byte("));
    EXPECT_TRUE(raised(failure_of([&] { r.get_value_list(f, 0, 0); }), cond + "VALUE_LIST", "::get_value_list("));
    EXPECT_TRUE(raised(failure_of([&] { r.get_index_list(f, 1, 0); }), cond + "INDEX_LIST", "::get_index_list("));
    EXPECT_TRUE(raised(failure_of([&] { r.get_byte_list(f, 0, 0); }), cond + "BYTE_LIST", "::get_byte_list("));
    // Scalars are not lists and lists are not scalars.
    EXPECT_TRUE(raised(failure_of([&] { r.get_value(f, 1, 0); }), cond + "VALUE", "::get_value("));
    EXPECT_TRUE(raised(failure_of([&] { r.get_value_list(v, 0, 0); }), cond + "VALUE_LIST", "::get_value_list("));
}

TEST_F(PlyReaderTest, CrLfHeadersAndBinaryBodiesStartingWithALineFeed) {
    const PlyReader text(write("t.ply", "ply\r\nformat ascii 1.0\r\ncomment c\r\nelement v 2\r\nproperty float x\r\n"
                                        "end_header\r\n1.5\r\n-2\r\n"));
    EXPECT_EQ(text.get_value(0, 0, 0), 1.5);
    EXPECT_EQ(text.get_value(0, 0, 1), -2.0);
    // Only one line end belongs to the header: the body's first byte is 0x0a.
    const PlyReader binary(write("b.ply", std::string("ply\r\nformat binary_little_endian 1.0\r\nelement v 2\r\n"
                                                      "property uchar c\r\nend_header\r\n\n\r")));
    EXPECT_EQ(binary.get_byte(0, 0, 0), 10u);
    EXPECT_EQ(binary.get_byte(0, 0, 1), 13u);
}

TEST_F(PlyReaderTest, HeaderRulesRejectWithTheirTexts) {
    const std::string ply = "ply\nformat ascii 1.0\n";
    for (const std::string type : {"char", "short", "ushort", "uint", "int8", "int16", "float32", "float64", "uint8"})
        EXPECT_TRUE(raised(open_failure(ply + "element v 1\nproperty " + type + " x\nend_header\n1\n"), "ix != VAR_NONE",
                           "read_header"))
            << type;
    for (const std::string type : {"float", "double", "char", "int32"})
        EXPECT_TRUE(raised(open_failure(ply + "element f 1\nproperty list " + type + " int i\nend_header\n1 1\n"),
                           "r4x != VAR_NONE", "read_header"))
            << type;
    EXPECT_TRUE(raised(open_failure(ply + "element f 1\nproperty list uchar short i\nend_header\n1 1\n"), "r5x != VAR_NONE",
                       "read_header"));
    for (const std::string count : {"-1", "x", "12a"})
        EXPECT_TRUE(raised(open_failure(ply + "element v " + count + "\nend_header\n"), "r3x >= 0", "read_header")) << count;

    EXPECT_TRUE(raised(open_failure("ply\nformat binary_middle_endian 1.0\nend_header\n"), "false",
                       "ZARN::PlyReader::Implement::Implement("));
    EXPECT_TRUE(raised(open_failure("ply\nelement v 0\nend_header\n"), "false", "ZARN::PlyReader::Implement::Implement("));
    for (const std::string line : {"obj_info scanner", "", "property float x", "element v", "end_header now", "PLY"})
        EXPECT_TRUE(raised(open_failure(ply + line + "\nelement v 0\nend_header\n"), "false", "read_header")) << line;
    EXPECT_TRUE(raised(open_failure(ply + "element v 0\n"), "false", "read_header"));
    EXPECT_TRUE(raised(open_failure("plyx\n" + ply), "r1x == \"ply\"", "read_header"));
    EXPECT_TRUE(raised(open_failure(""), "r1x == \"ply\"", "read_header"));
    for (const std::string end : {"end_header", "end_header\r", "end_header\r\r\n"})
        EXPECT_TRUE(raised(open_failure(ply + "element v 0\n" + end), "mTempRis[0] == STRU8 ('\\n')", "read_header"));
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
    // The same texts whether the body fits one window or takes many.
    for (const INDEX bytes : {ZARN::ply_reader_window(), INDEX(1), INDEX(5)}) {
        SCOPED_TRACE("window " + std::to_string(bytes));
        const Window window(bytes);
        const std::string le = "ply\nformat binary_little_endian 1.0\n";
        const std::string vertices = "element v 2\nproperty float x\nproperty uchar c\nend_header\n";
        EXPECT_TRUE(raised(open_failure(le + vertices + std::string(9, '\0')), "item_count <= (mEnd - mRis) / item_width",
                           "read_element_binary"));
        // A count far beyond the file is refused before anything is allocated.
        EXPECT_TRUE(raised(open_failure(le + "element v 4611686018427387903\nproperty double x\nend_header\n" + std::string(8, '\0')),
                           "item_count <= (mEnd - mRis) / item_width", "read_element_binary"));

        const std::string faces = "element f 2\nproperty list int uint16 i\nend_header\n";
        const std::string face0 = std::string("\x01\0\0\0\x07\0", 6);
        EXPECT_TRUE(raised(open_failure(le + faces + face0 + std::string("\xff\xff\xff\xff", 4)), "list_count >= 0",
                           "read_element_binary"));
        EXPECT_TRUE(raised(open_failure(le + faces + face0 + std::string("\x03\0\0\0\x01\0\x02\0\x03", 9)),
                           "list_count <= (mEnd - mRis) / width", "read_element_binary"));
        EXPECT_TRUE(raised(open_failure(le + faces + face0 + std::string("\x03\0", 2)), "count_width <= mEnd - mRis",
                           "read_element_binary"));
        // Lists of one length, the last one cut short.
        EXPECT_TRUE(raised(open_failure(le + faces + face0 + std::string("\x01\0\0\0\x07", 5)),
                           "list_count <= (mEnd - mRis) / width", "read_element_binary"));
        EXPECT_TRUE(raised(open_failure(le + "element f 1\nproperty list uint64 uchar i\nend_header\n" + std::string(8, '\xff') + "x"),
                           "list_count >= 0", "read_element_binary"));
        EXPECT_TRUE(raised(open_failure(le + "element f 2\nproperty uchar a\nproperty list uchar uchar i\nend_header\n" +
                                        std::string("\x01\x01\x05", 3)),
                           "width <= mEnd - mRis", "read_element_binary"));

        const std::string text = "ply\nformat ascii 1.0\n";
        EXPECT_TRUE(raised(open_failure(text + "element v 3\nproperty float x\nend_header\n1 2    \n"), "number_read", "read_body_text"));
        EXPECT_TRUE(raised(open_failure(text + "element v 3\nproperty float x\nend_header\n1 2\n"),
                           "item_count <= (reader.remaining () + 1) / 2 / property_count", "read_body_text"));
        EXPECT_TRUE(raised(open_failure(text + "element v 2\nproperty uchar x\nend_header\n1 -2\n"), "number_read", "read_body_text"));
        EXPECT_TRUE(raised(open_failure(text + "element v 2\nproperty int x\nend_header\n1 2.5\n"), "number_read", "read_body_text"));
        EXPECT_TRUE(raised(open_failure(text + "element f 1\nproperty list uchar int i\nend_header\n-1 4 5\n"), "list_count >= 0",
                           "read_body_text"));
        EXPECT_TRUE(raised(open_failure(text + "element f 1\nproperty list uchar int i\nend_header\n9 4 5\n"),
                           "list_count <= (reader.remaining () + 1) / 2", "read_body_text"));
    }
}

TEST_F(PlyReaderTest, BodiesThroughTinyWindowsGiveTheSameAnswers) {
    // Header lines, numbers, items wider than the window and list counts
    // all get cut somewhere by one of these.
    const auto elements = model();
    for (const std::string format : {"ascii", "binary_little_endian", "binary_big_endian"})
        for (const INDEX bytes : {1, 2, 3, 7, 16, 61}) {
            const Window window(bytes);
            const PlyReader reader(write(format + ".ply", encode(format, elements)));
            expect_model(reader, elements, format + " window " + std::to_string(bytes));
        }
}

TEST_F(PlyReaderTest, ListsAndNumbersStraddlingWindowsKeepTheirValues) {
    // Lists of one length over many blocks, then changing lengths, one list
    // several windows long, and a list of fixed length beside them.
    Element faces{"face", 400, {{"uchar", "", "flag", {}}, {"int", "uint16", "idx", {}}, {"double", "", "w", {}}, {"uint64", "uchar", "tag", {}}}};
    for (int i = 0; i < 400; ++i) {
        const int n = i == 300 ? 3000 : i < 150 ? 3 : (i * 7) % 6;
        faces.properties[0].items.push_back({std::to_string(i % 256)});
        std::vector<std::string> idx;
        for (int k = 0; k < n; ++k)
            idx.push_back(std::to_string((k * 7919 + i) % 4000000 - 2000000));
        faces.properties[1].items.push_back(idx);
        char w[40];
        std::snprintf(w, sizeof w, "%.17g", (i - 200) * 1.2345678901234567e-123);
        faces.properties[2].items.push_back({w});
        faces.properties[3].items.push_back({std::to_string(18446744073709551615ull - i), std::to_string(i)});
    }
    const std::vector<Element> elements{faces};
    for (const std::string format : {"ascii", "binary_little_endian", "binary_big_endian"})
        for (const INDEX bytes : {64, 1000}) {
            const Window window(bytes);
            const PlyReader reader(write(format + ".ply", encode(format, elements)));
            expect_model(reader, elements, format + " window " + std::to_string(bytes));
        }
}

TEST_F(PlyReaderTest, AMissingFileFailsAndIsNotCreated) {
    const std::string path = (mDir / "none.ply").string();
    const std::string text = failure_of([&] { PlyReader reader(path); });
    EXPECT_EQ(text.rfind("dynamic_assert failed : r2x >= 0 : at static ORN::INDEX ORN::FileSystemProc::file_size(", 0), 0u) << text;
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(failure_of([&] { PlyReader reader(mDir.string()); }).rfind("dynamic_assert failed : r2x >= 0 : at ", 0), 0u);
}

TEST_F(PlyReaderTest, ListsOfChangingLengthKeepEveryItemsOwnList) {
    // First lists equal in length, then longer, shorter and empty ones.
    std::string body;
    std::vector<std::vector<int>> lists;
    for (int i = 0; i < 300; ++i) {
        const int n = i < 100 ? 3 : (i * 7) % 11;
        lists.emplace_back();
        body.push_back(static_cast<char>(n));
        for (int k = 0; k < n; ++k) {
            const std::int32_t v = i * 100 + k - 5000;
            lists.back().push_back(v);
            body.append(reinterpret_cast<const char *>(&v), 4);
        }
    }
    const PlyReader r(write("l.ply", "ply\nformat binary_little_endian 1.0\nelement face 300\n"
                                     "property list uchar int vertex_indices\nend_header\n" +
                                         body));
    for (int i = 0; i < 300; ++i) {
        const auto view = r.get_index_list(0, 0, i);
        ASSERT_EQ(view.size(), static_cast<INDEX>(lists[i].size())) << i;
        for (INDEX k = 0; k < view.size(); ++k)
            ASSERT_EQ(view[k], lists[i][k]) << i;
    }
}

} // namespace
