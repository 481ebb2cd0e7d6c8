// Run-time library binding against a small fixture library.
#include "support.h"

#include "ZARN_Common/DLL.h"

namespace {

using namespace zarn_test;

const std::string FIXTURES = std::string(ZARN_BINARY_DIR) + "/tests/fixtures";

TEST(DLL, OpensLinksAndCallsAnEntry) {
    ZARN::DLL dll;
    dll.open(FIXTURES + "/libzarn_fixture.so");
    auto answer = dll.link_as<int()>("fixture_answer");
    EXPECT_EQ(answer(), 42);
    // Closing forgets the handle but never unloads: the address stays valid.
    dll.close();
    EXPECT_EQ(answer(), 42);
}

TEST(DLL, ReusesALoadedLibraryOfTheSameFileName) {
    ZARN::DLL first;
    first.open(FIXTURES + "/libzarn_fixture.so");
    TempDir empty;
    ZARN::DLL second;
    second.open(empty / "libzarn_fixture.so"); // no copy there: the loaded one is used
    EXPECT_EQ(second.link("fixture_answer"), first.link("fixture_answer"));
}

TEST(DLL, MissingLibraryPrintsTheReasonAndFails) {
    TempDir empty;
    ZARN::DLL dll;
    std::string text;
    const std::string out = capture_stdout([&] { text = failure_of([&] { dll.open(empty / "libzarn_absent.so"); }); });
    EXPECT_TRUE(starts_with(out, "Error = ")) << out;
    EXPECT_TRUE(contains(out, "libzarn_absent.so")) << out;
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : false : at ")) << text;
    EXPECT_TRUE(contains(text, "ZARN::DLL::Private::Implement::open")) << text;
    EXPECT_TRUE(contains(text, " in ZARN_Common/DLL_linux.cpp ,")) << text;
    // A failed open leaves nothing to link.
    EXPECT_TRUE(starts_with(failure_of([&] { dll.link("fixture_answer"); }), "dynamic_assert failed : mDLLHandle.exist () : at "));
}

TEST(DLL, MissingSymbolPrintsItsNameAndFails) {
    ZARN::DLL dll;
    dll.open(FIXTURES + "/libzarn_fixture.so");
    std::string text;
    const auto lines = lines_of(capture_stdout([&] { text = failure_of([&] { dll.link("fixture_question"); }); }));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "function : fixture_question");
    EXPECT_TRUE(starts_with(lines[1], "Error = ")) << lines[1];
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : false : at ")) << text;
    EXPECT_TRUE(contains(text, "ZARN::DLL::Private::Implement::link(")) << text;
}

TEST(DLL, LinkBeforeOpenAndUnsetWrapperFail) {
    ZARN::DLL dll;
    const std::string text = failure_of([&] { dll.link("fixture_answer"); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : mDLLHandle.exist () : at ")) << text;
    EXPECT_TRUE(contains(text, "ZARN::DLL::Private::Implement::link(")) << text;

    ZARN::DLL unset(nullptr);
    for (const std::string &t : {failure_of([&] { unset.open(FIXTURES + "/libzarn_fixture.so"); }),
                                 failure_of([&] { unset.link("fixture_answer"); })})
        EXPECT_TRUE(starts_with(t, "dynamic_assert failed : mThis.exist () : at ")) << t;
}

TEST(DLL, LibraryPathIsTheCurrentDirectorysLinuxName) {
    EXPECT_EQ(ZARN::DLL::library_path("openMVG_velda"), fs::current_path().string() + "/libopenMVG_velda.so");
}

} // namespace
