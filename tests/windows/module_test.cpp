// The module ZARN_Velda.dll under Wine, loaded and called as a host does:
// a factory by its decorated name, a process over a job, the closed library
// found in the current directory under its Windows file name (a stand-in
// that writes down the arguments it received).
#include "support_windows.h"

#include "ZARN_Common/DLL.h"
#include "ZARN_Runtime/export.h"

namespace {

using namespace zarn_test;

const std::string BINARY_DIR = ZARN_BINARY_DIR;
const std::string STANDIN = BINARY_DIR + "/tests/fixtures/velda";

ORN::StrongRef<ZARN::Process> make(const std::string &name) {
    static ZARN::DLL *module = [] {
        auto *dll = new ZARN::DLL;
        dll->open(BINARY_DIR + "/bin/ZARN_Velda.dll");
        return dll;
    }();
    const std::string creator = "create_" + name;
    return module->link_as<ORN::StrongRef<ZARN::Process>()>("_ZN4ZARN" + std::to_string(creator.size()) + creator + "Ev")();
}

// A reconstruction job of the given type, run with the stand-in library
// from its directory; what the run printed.
std::string run_velda(const std::string &job, const std::string &type) {
    write_file(job + "\\caches\\split_data.json", R"({"VeldaMainProcess":{"Common":{"velda_type":")" + type + R"("}}})");
    write_file(job + "\\project.json",
               R"({"protocol":"lumora-capture","version":"1.2","description":"","category":"residential",)"
               R"("uuid":"5f3c2a9e","sceneNum":1,"dataSource":"stereo","state":{"done":false,"crashed":false},"progress":0})");
    char saved[MAX_PATH + 1] = {};
    ::GetCurrentDirectoryA(MAX_PATH, saved);
    EXPECT_TRUE(::SetCurrentDirectoryA(STANDIN.c_str()));
    std::string failure;
    const std::string out = capture_output([&] {
        failure = failure_of([&] {
            auto process = make("VeldaMainProcess");
            ASSERT_TRUE(process->initialize(job));
            process->execute();
        });
    });
    ::SetCurrentDirectoryA(saved);
    EXPECT_TRUE(starts_with(failure, "dynamic_assert failed : ")) << failure;
    return out;
}

// The library receives the type in the active code page (1252 here).
TEST(Module, ReconstructionTypeReachesTheLibraryInTheCodePage) {
    TempDir dir;
    const std::string job = dir / "job";
    const std::string out = run_velda(job, "caf\xc3\xa9");
    EXPECT_TRUE(contains(out, "return value = 4\n")) << out;
    EXPECT_EQ(read_file(job + "\\caches\\velda_arguments.txt"), "caf\xe9\n" + job + "\n");
}

// A type the code page cannot carry stops the run before the library.
TEST(Module, TypeOutsideTheCodePageIsRefusedBeforeTheLibrary) {
    TempDir dir;
    const std::string job = dir / "job";
    const std::string out = run_velda(job, "\xe5\xae\xa4\xe5\x86\x85");
    EXPECT_TRUE(contains(out, "utf8_to_native : \xe5\xae\xa4\xe5\x86\x85 : not representable in code page 1252\n")) << out;
    EXPECT_FALSE(fs::exists(job + "\\caches\\velda_arguments.txt"));
}

} // namespace
