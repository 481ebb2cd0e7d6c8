// The Windows forms of the core and of the run-time binding, under Wine:
// the loader's messages, paths with a root of their own, the UTF-8 to code
// page conversion, the console's standard handles, publication by hard
// link, the converter script and cmd.exe's exit codes.
#include "support_windows.h"

#include "ZARN_Common/DLL.h"
#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_filesystem_platform.h"
#include "__ORN__/orn_runtime.h"

#include <tuple>

namespace {

using namespace zarn_test;

const std::string BINARY_DIR = ZARN_BINARY_DIR;
const std::string FIXTURES = BINARY_DIR + "/tests/fixtures";

TEST(DLL, OpensLinksAndCallsAnEntry) {
    ZARN::DLL dll;
    dll.open(FIXTURES + "/zarn_fixture.dll");
    EXPECT_EQ(dll.link_as<int()>("fixture_answer")(), 42);
}

// One line each: "Error = <code> : <library> : <the system's text>", the
// text whole (inserts such as %1 left in place) and without its CR LF.
TEST(DLL, LoadFailuresNameTheLibraryOnOneLine) {
    TempDir dir;
    write_file(dir / "zarn_text.dll", "not a library");
    for (const auto &[file, code] : {std::pair{"zarn_absent.dll", "126"}, std::pair{"zarn_text.dll", "193"}}) {
        ZARN::DLL dll;
        std::string text;
        const std::string out = capture_output([&] { text = failure_of([&] { dll.open(dir / file); }); });
        const std::string head = "Error = " + std::string(code) + " : " + (dir / file) + " : ";
        EXPECT_TRUE(starts_with(out, head)) << out;
        EXPECT_GT(out.size(), head.size() + 2) << out; // the system's text is there
        EXPECT_FALSE(contains(out, "\r")) << out;
        EXPECT_EQ(lines_of(out).size(), 1u) << out;
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : false : at ")) << text;
        EXPECT_TRUE(contains(text, " in ZARN_Common/DLL_windows.cpp ,")) << text;
    }
}

TEST(DLL, MissingEntryPrintsItsNameAndTheSystemsText) {
    ZARN::DLL dll;
    dll.open(FIXTURES + "/zarn_fixture.dll");
    std::string text;
    const std::string out = capture_output([&] { text = failure_of([&] { dll.link("fixture_question"); }); });
    const auto lines = lines_of(out);
    ASSERT_EQ(lines.size(), 2u) << out;
    EXPECT_EQ(lines[0], "function : fixture_question");
    EXPECT_TRUE(starts_with(lines[1], "Error = 127 : ")) << lines[1];
    EXPECT_GT(lines[1].size(), std::string("Error = 127 : ").size()) << lines[1];
    EXPECT_FALSE(contains(out, "\r")) << out;
    EXPECT_TRUE(contains(text, "ZARN::DLL::Private::Implement::link(")) << text;
}

TEST(Paths, RootsAreKeptWhole) {
    using ORN::Private::FilePlatform::root_of;
    const std::tuple<const char *, const char *, ORN::INDEX> table[] = {
        {"a\\b", "", 0},
        {"C:\\a\\b", "C:\\", 3},
        {"C:a", "C:", 2},
        {"\\a\\b", "\\", 1},
        {"/a/b", "\\", 1},
        {"\\\\server\\share\\x\\y", "\\\\server\\share\\", 15},
        {"//server/share/x", "\\\\server\\share\\", 15},
        {"\\\\server\\share", "\\\\server\\share", 14},
        {"\\\\?\\C:\\a\\b", "\\\\?\\C:\\", 7},
        {"\\\\?\\UNC\\server\\share\\x", "\\\\?\\UNC\\server\\share\\", 21},
        {"\\\\.\\pipe\\name", "\\\\.\\pipe\\", 9},
    };
    for (const auto &[path, root, length] : table) {
        ORN::INDEX got = -1;
        EXPECT_EQ(root_of(path, got), root) << path;
        EXPECT_EQ(got, length) << path;
    }
}

TEST(Paths, BuildDirectoryWithAVerbatimPrefixAndOnAShare) {
    TempDir dir;
    ORN::FileSystemProc::build_directory("\\\\?\\" + (dir / "a\\b\\c"));
    EXPECT_TRUE(fs::is_directory(dir / "a\\b\\c"));

    // A share that does not exist: nothing is made, least of all the same
    // path under the current drive's root.
    char saved[MAX_PATH + 1] = {};
    ::GetCurrentDirectoryA(MAX_PATH, saved);
    ASSERT_TRUE(::SetCurrentDirectoryA(dir.str().c_str()));
    ORN::FileSystemProc::build_directory("\\\\zarn-absent-server\\share\\x");
    const bool made = fs::exists("\\zarn-absent-server") || fs::exists("zarn-absent-server");
    ::SetCurrentDirectoryA(saved);
    EXPECT_FALSE(made);
}

TEST(Jobs, PublishedResultIsTheSameFile) {
    TempDir dir;
    const ORN::JobDirectory job(dir.str());
    job.save_file("caches/out/a.json", "{\"a\":1}");
    job.publish_file("caches/out/a.json", "results/a.json");
    EXPECT_EQ(read_file(dir / "results\\a.json"), "{\"a\":1}");
    EXPECT_NE(file_identity(dir / "results\\a.json"), "");
    EXPECT_EQ(file_identity(dir / "results\\a.json"), file_identity(dir / "caches\\out\\a.json"));
    // A second publication replaces the result by the new file.
    job.save_file("caches/out/a.json", "{\"a\":2}");
    job.publish_file("caches/out/a.json", "results/a.json");
    EXPECT_EQ(read_file(dir / "results\\a.json"), "{\"a\":2}");
    EXPECT_EQ(file_identity(dir / "results\\a.json"), file_identity(dir / "caches\\out\\a.json"));
}

// The tests run with LANG=en_US.UTF-8, which gives Wine the code page 1252.
TEST(Runtime, Utf8BecomesTheActiveCodePage) {
    ASSERT_EQ(::GetACP(), 1252u);
    EXPECT_EQ(ORN::GlobalRuntime::utf8_to_native("caf\xc3\xa9"), "caf\xe9");
    EXPECT_EQ(ORN::GlobalRuntime::utf8_to_native("indoor"), "indoor");
    EXPECT_EQ(ORN::GlobalRuntime::utf8_to_native(""), "");
    for (const auto &[text, line] : {std::pair{"\xe5\xae\xa4\xe5\x86\x85", "utf8_to_native : \xe5\xae\xa4\xe5\x86\x85 : not representable in code page 1252"},
                                     std::pair{"caf\xe9", "utf8_to_native : caf\xe9 : not UTF-8"}}) {
        std::string failure;
        const std::string out = capture_output([&] { failure = failure_of([&] { ORN::GlobalRuntime::utf8_to_native(text); }); });
        EXPECT_EQ(out, std::string(line) + "\n");
        EXPECT_TRUE(starts_with(failure, "dynamic_assert failed : r")) << failure;
    }
}

TEST(Runtime, CommandsAndTheConverterScript) {
    EXPECT_EQ(ORN::GlobalRuntime::system_exec("exit 3"), 3);
    TempDir job;
    const std::string script = BINARY_DIR + "/bin/DataConverter.bat";
    ASSERT_TRUE(fs::exists(script));
    const auto quote = ORN::GlobalRuntime::quote_argument;
    // Without its inpainting tool (the Windows build has no OpenCV) the
    // converter fails; wrong arguments are 2.
    EXPECT_EQ(ORN::GlobalRuntime::system_exec(quote(script) + " IMAGE " + quote(job.str())), 1);
    EXPECT_EQ(ORN::GlobalRuntime::system_exec(quote(script) + " VIDEO " + quote(job.str())), 2);
    EXPECT_EQ(ORN::GlobalRuntime::system_exec(quote(script) + " IMAGE"), 2);
}

TEST(Console, EachLineGoesToTheStandardHandleOfThatMoment) {
    ORN::console().info("console opened");
    const std::string out = capture_output([] {
        ORN::console().info("while redirected");
        ORN::console().error("an error while redirected");
    });
    EXPECT_EQ(out, "while redirected\nan error while redirected\n");
    // Back on the original handles: nothing more reaches the file.
    ORN::console().info("after");
}

} // namespace
