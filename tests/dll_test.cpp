// Run-time library binding against a small fixture library.
#include "support.h"

#include "ZARN_Common/export.h"

#ifndef _WIN32
#include <dlfcn.h>
#endif

#include <cerrno>

namespace {

using namespace zarn_test;

const std::string FIXTURES = std::string(ZARN_BINARY_DIR) + "/tests/fixtures";

// The platform's file name of a library, and what the wrapper's texts say
// only on that platform: its source, the loader's codes for a missing file,
// a file that is no library and a missing entry, the handle's type.
#ifdef _WIN32
std::string library(const std::string &name) { return name + ".dll"; }
const std::string SOURCE = "ZARN_Common/DLL_windows.cpp", MISSING = "Error = 126 : ", NOT_A_LIBRARY = "Error = 193 : ",
                  NO_ENTRY = "Error = 127 : ", HANDLE_TYPE = "HINSTANCE__*&";
#else
std::string library(const std::string &name) { return "lib" + name + ".so"; }
const std::string SOURCE = "ZARN_Common/DLL_linux.cpp", MISSING = "Error = 2 : ", NOT_A_LIBRARY = "Error = 8 : ",
                  NO_ENTRY = "Error = 2 : ", HANDLE_TYPE = "void*&";
#endif
const std::string FIXTURE = library("zarn_fixture");

TEST(DLL, OpensLinksAndCallsAnEntry) {
    ZARN::DLL dll;
    dll.open(FIXTURES + "/" + FIXTURE);
    auto answer = dll.link_as<int()>("fixture_answer");
    EXPECT_EQ(answer(), 42);
    // Closing forgets the handle but never unloads: the address stays valid.
    dll.close();
    EXPECT_EQ(answer(), 42);
}

TEST(DLL, ReusesALoadedLibraryOfTheSameFileName) {
    ZARN::DLL first;
    first.open(FIXTURES + "/" + FIXTURE);
    TempDir empty;
    ZARN::DLL second;
    second.open(empty / FIXTURE); // no copy there: the loaded one is used
    EXPECT_EQ(second.link("fixture_answer"), first.link("fixture_answer"));

    // Loaded by the host from elsewhere (on Linux under a SONAME unlike its file name).
    const std::string renamed = FIXTURES + "/renamed/" + library("zarn_fixture_renamed");
#ifdef _WIN32
    const HMODULE host = ::LoadLibraryA(renamed.c_str());
    ASSERT_NE(host, nullptr) << ::GetLastError();
    void *const entry = reinterpret_cast<void *>(::GetProcAddress(host, "fixture_answer"));
#else
    void *host = dlopen(renamed.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(host, nullptr) << dlerror();
    void *const entry = dlsym(host, "fixture_answer");
#endif
    ZARN::DLL third;
    third.open(empty / library("zarn_fixture_renamed"));
    EXPECT_EQ(third.link("fixture_answer"), entry);
    EXPECT_EQ(third.link_as<int()>("fixture_answer")(), 7);
}

TEST(DLL, LoadFailuresCarryTheLoadersReasonAndAMeaningfulCode) {
    TempDir dir;
    write_file(dir / library("zarn_text"), "not a library");
    for (const auto &[file, code] : {std::pair{library("zarn_absent"), MISSING}, std::pair{library("zarn_text"), NOT_A_LIBRARY}}) {
        ZARN::DLL dll;
        std::string text;
        errno = 25; // whatever an earlier call left behind plays no part
        const std::string out = capture_stdout([&] { text = failure_of([&] { dll.open(dir / file); }); });
        EXPECT_TRUE(starts_with(out, code)) << out;
        EXPECT_TRUE(contains(out, dir / file)) << out;
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : false : at ")) << text;
        EXPECT_TRUE(contains(text, "ZARN::DLL::Private::Implement::open")) << text;
        EXPECT_TRUE(contains(text, " in " + SOURCE + " ,")) << text;
        // A failed open leaves nothing to link.
        EXPECT_TRUE(starts_with(failure_of([&] { dll.link("fixture_answer"); }), "dynamic_assert failed : mDLLHandle.exist () : at "));
    }
}

TEST(DLL, MissingSymbolPrintsItsNameAndFails) {
    ZARN::DLL dll;
    dll.open(FIXTURES + "/" + FIXTURE);
    std::string text;
    const auto lines = lines_of(capture_stdout([&] { text = failure_of([&] { dll.link("fixture_question"); }); }));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "function : fixture_question");
    EXPECT_TRUE(starts_with(lines[1], NO_ENTRY)) << lines[1];
#ifndef _WIN32 // the loader's own text names the entry
    EXPECT_TRUE(contains(lines[1], "fixture_question")) << lines[1];
#endif
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : false : at ")) << text;
    EXPECT_TRUE(contains(text, "ZARN::DLL::Private::Implement::link(")) << text;
}

TEST(DLL, LinkBeforeOpenAndUnsetWrapperFail) {
    ZARN::DLL dll;
    const std::string text = failure_of([&] { dll.link("fixture_answer"); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : mDLLHandle.exist () : at ")) << text;
    EXPECT_TRUE(contains(text, "ZARN::DLL::Private::Implement::link(")) << text;

    ZARN::DLL unset(nullptr);
    for (const std::string &t : {failure_of([&] { unset.open(FIXTURES + "/" + FIXTURE); }),
                                 failure_of([&] { unset.link("fixture_answer"); })})
        EXPECT_TRUE(starts_with(t, "dynamic_assert failed : mThis.exist () : at ")) << t;
}

// The functions quoted in the assertion texts take the path and the name by
// constant reference, and the texts say so.
TEST(DLL, AssertionTextsQuoteTheConstantReferenceSignatures) {
    const std::string at = " in " + SOURCE + " ,";
    TempDir dir;
    ZARN::DLL dll;
    std::string text;
    capture_stdout([&] { text = failure_of([&] { dll.open(dir / library("zarn_absent")); }); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : false : at "
                                  "ZARN::DLL::Private::Implement::open(const ORN::String<char>&)::<lambda(" + HANDLE_TYPE + ")>" + at))
        << text;
    text = failure_of([&] { dll.link("fixture_answer"); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : mDLLHandle.exist () : at "
                                  "virtual void* ZARN::DLL::Private::Implement::link(const ORN::String<char>&)" + at))
        << text;
    dll.open(FIXTURES + "/" + FIXTURE);
    capture_stdout([&] { text = failure_of([&] { dll.link("fixture_question"); }); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : false : at "
                                  "virtual void* ZARN::DLL::Private::Implement::link(const ORN::String<char>&)" + at))
        << text;

    ZARN::DLL unset(nullptr);
    EXPECT_TRUE(starts_with(failure_of([&] { unset.open(FIXTURE); }),
                            "dynamic_assert failed : mThis.exist () : at void ZARN::DLL::open(const ORN::String<char>&) in "
                            "ZARN_Common/DLL.cpp ,"));
    EXPECT_TRUE(starts_with(failure_of([&] { unset.link("fixture_answer"); }),
                            "dynamic_assert failed : mThis.exist () : at void* ZARN::DLL::link(const ORN::String<char>&) in "
                            "ZARN_Common/DLL.cpp ,"));
}

TEST(DLL, LibraryPathIsTheCurrentDirectorysPlatformName) {
    EXPECT_EQ(ZARN::DLL::library_path("openMVG_velda"), (fs::current_path() / library("openMVG_velda")).string());
}

} // namespace
