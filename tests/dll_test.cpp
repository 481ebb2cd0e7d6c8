// Run-time library binding against a small fixture library.
#include "support.h"

#include "ZARN_Common/export.h"

#include <dlfcn.h>

#include <cerrno>

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

    // Loaded by the host from elsewhere, under a SONAME unlike its file name.
    const std::string renamed = FIXTURES + "/renamed/libzarn_fixture_renamed.so";
    void *host = dlopen(renamed.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(host, nullptr) << dlerror();
    ZARN::DLL third;
    third.open(empty / "libzarn_fixture_renamed.so");
    EXPECT_EQ(third.link("fixture_answer"), dlsym(host, "fixture_answer"));
    EXPECT_EQ(third.link_as<int()>("fixture_answer")(), 7);
}

TEST(DLL, LoadFailuresCarryTheLoadersReasonAndAMeaningfulCode) {
    TempDir dir;
    write_file(dir / "libzarn_text.so", "not a library");
    for (const auto &[file, code] : {std::pair{"libzarn_absent.so", "Error = 2 : "}, std::pair{"libzarn_text.so", "Error = 8 : "}}) {
        ZARN::DLL dll;
        std::string text;
        errno = 25; // whatever an earlier call left behind plays no part
        const std::string out = capture_stdout([&] { text = failure_of([&] { dll.open(dir / file); }); });
        EXPECT_TRUE(starts_with(out, code)) << out;
        EXPECT_TRUE(contains(out, dir / file)) << out;
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : false : at ")) << text;
        EXPECT_TRUE(contains(text, "ZARN::DLL::Private::Implement::open")) << text;
        EXPECT_TRUE(contains(text, " in ZARN_Common/DLL_linux.cpp ,")) << text;
        // A failed open leaves nothing to link.
        EXPECT_TRUE(starts_with(failure_of([&] { dll.link("fixture_answer"); }), "dynamic_assert failed : mDLLHandle.exist () : at "));
    }
}

TEST(DLL, MissingSymbolPrintsItsNameAndFails) {
    ZARN::DLL dll;
    dll.open(FIXTURES + "/libzarn_fixture.so");
    std::string text;
    const auto lines = lines_of(capture_stdout([&] { text = failure_of([&] { dll.link("fixture_question"); }); }));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "function : fixture_question");
    EXPECT_TRUE(starts_with(lines[1], "Error = 2 : ")) << lines[1];
    EXPECT_TRUE(contains(lines[1], "fixture_question")) << lines[1];
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

// The functions quoted in the assertion texts take the path and the name by
// constant reference, and the texts say so.
TEST(DLL, AssertionTextsQuoteTheConstantReferenceSignatures) {
    const std::string at = " in ZARN_Common/DLL_linux.cpp ,";
    TempDir dir;
    ZARN::DLL dll;
    std::string text;
    capture_stdout([&] { text = failure_of([&] { dll.open(dir / "libzarn_absent.so"); }); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : false : at "
                                  "ZARN::DLL::Private::Implement::open(const ORN::String<char>&)::<lambda(void*&)>" + at))
        << text;
    text = failure_of([&] { dll.link("fixture_answer"); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : mDLLHandle.exist () : at "
                                  "virtual void* ZARN::DLL::Private::Implement::link(const ORN::String<char>&)" + at))
        << text;
    dll.open(FIXTURES + "/libzarn_fixture.so");
    capture_stdout([&] { text = failure_of([&] { dll.link("fixture_question"); }); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : false : at "
                                  "virtual void* ZARN::DLL::Private::Implement::link(const ORN::String<char>&)" + at))
        << text;

    ZARN::DLL unset(nullptr);
    EXPECT_TRUE(starts_with(failure_of([&] { unset.open("libzarn_fixture.so"); }),
                            "dynamic_assert failed : mThis.exist () : at void ZARN::DLL::open(const ORN::String<char>&) in "
                            "ZARN_Common/DLL.cpp ,"));
    EXPECT_TRUE(starts_with(failure_of([&] { unset.link("fixture_answer"); }),
                            "dynamic_assert failed : mThis.exist () : at void* ZARN::DLL::link(const ORN::String<char>&) in "
                            "ZARN_Common/DLL.cpp ,"));
}

TEST(DLL, LibraryPathIsTheCurrentDirectorysLinuxName) {
    EXPECT_EQ(ZARN::DLL::library_path("openMVG_velda"), fs::current_path().string() + "/libopenMVG_velda.so");
}

} // namespace
