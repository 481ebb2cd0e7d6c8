// Files, directories, streams and external commands, on a real temporary
// directory.
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_runtime.h"

#include "support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

using namespace zarn_test;

using FS = ORN::FileSystemProc;

// The assertion text up to the line number.
std::string assertion(const std::string &condition, const std::string &function) {
    return "dynamic_assert failed : " + condition + " : at " + function + " in __ORN__/orn_filesystem.cpp ,";
}

ino_t inode_of(const std::string &path) {
    struct stat st {};
    ::stat(path.c_str(), &st);
    return st.st_ino;
}

// Runs a test body inside a directory and comes back whatever happens.
class ScopedChdir {
public:
    explicit ScopedChdir(const std::string &path) : mBack(std::filesystem::current_path()) { std::filesystem::current_path(path); }
    ~ScopedChdir() { std::filesystem::current_path(mBack); }

private:
    std::filesystem::path mBack;
};

TEST(FileSystemLoadSave, RoundTripsBytesAndEmptyFileGivesEmptyBuffer) {
    TempDir dir;
    write_file(dir / "empty", "");
    const auto empty = FS::load_file(dir / "empty");
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty.size(), 0);

    const std::string bytes("a\0b\xff\n\r", 6);
    FS::save_file(dir / "bin", ORN::Buffer<unsigned char>::from_text(bytes));
    EXPECT_EQ(read_file(dir / "bin"), bytes);
    EXPECT_EQ(FS::load_file(dir / "bin").text(), bytes);

    // Saving truncates a longer file; the text form writes the same bytes.
    FS::save_file(dir / "bin", std::string_view("xy"));
    EXPECT_EQ(read_file(dir / "bin"), "xy");
    FS::save_file(dir / "bin", ORN::Buffer<unsigned char>());
    EXPECT_EQ(std::filesystem::file_size(dir / "bin"), 0u);
}

TEST(FileSystemLoadSave, MissingFileOrDirectoryFailsOnTheSizeCheck) {
    TempDir dir;
    const std::string expected = assertion("r2x >= 0 && r2x < load_file_size ()",
                                           "static ORN::Buffer<unsigned char> ORN::FileSystemProc::load_file()");
    for (const std::string &path : {dir / "missing", dir.str()}) {
        const std::string text = failure_of([&] { FS::load_file(path); });
        // The parameter list is the compiler's own spelling; compare around it
        // and up to the line number.
        const auto open = text.find("::load_file(") + 11;
        const auto close = text.find(") in ");
        ASSERT_TRUE(open > 11 && close != std::string::npos) << text;
        EXPECT_EQ(text.substr(0, open + 1) + text.substr(close, text.rfind(',') + 1 - close), expected) << text;
    }
    EXPECT_EQ(FS::load_file_size(), 4294967294);
}

TEST(FileSystemLoadSave, SaveIntoMissingDirectoryFailsOnR3x) {
    TempDir dir;
    const std::string text = failure_of([&] { FS::save_file(dir / "no/such/file", std::string_view("x")); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : r3x : at static void ORN::FileSystemProc::save_file(")) << text;
    EXPECT_FALSE(FS::find_file(dir / "no/such/file"));
}

TEST(FileSystemQuery, FindFileAndFindDirectoryTellThemApart) {
    TempDir dir;
    write_file(dir / "f", "1");
    EXPECT_TRUE(FS::find_file(dir / "f"));
    EXPECT_FALSE(FS::find_directory(dir / "f"));
    EXPECT_TRUE(FS::find_directory(dir.str()));
    EXPECT_FALSE(FS::find_file(dir.str()));
    EXPECT_FALSE(FS::find_file(dir / "missing"));
    EXPECT_FALSE(FS::find_directory(dir / "missing"));
    // Trailing separators name the directory too.
    EXPECT_TRUE(FS::find_directory(dir.str() + "/"));

    FS::erase_file(dir / "f");
    EXPECT_FALSE(FS::find_file(dir / "f"));
    FS::erase_file(dir / "f"); // already gone: ignored
}

TEST(FileSystemDirectory, BuildsMissingLevelsOfRelativeAndAbsolutePaths) {
    TempDir dir;
    ::mkdir((dir / "one").c_str(), 0777);
    write_file(dir / "one/keep", "kept");
    {
        ScopedChdir in(dir.str());
        FS::build_directory("one\\two/three");
        EXPECT_TRUE(FS::find_directory("one/two"));
        EXPECT_TRUE(FS::find_directory("one/two/three"));
        EXPECT_EQ(read_file("one/keep"), "kept");
    }
    FS::build_directory(dir / "abs/a/b/");
    EXPECT_TRUE(FS::find_directory(dir / "abs/a/b"));
    // A path that exists already is left as it is.
    FS::build_directory(dir / "abs/a/b");

    const std::string empty = failure_of([] { FS::build_directory(""); });
    EXPECT_TRUE(starts_with(empty, "dynamic_assert failed : r2x.length () >= 1 : at ")) << empty;
}

TEST(FileSystemDirectory, DecouplesOnBothSeparatorsKeepingDriveAndRoot) {
    using Parts = ORN::Deque<ORN::String<char>>;
    EXPECT_EQ(FS::decouple_path_name("C:\\a/b\\c.txt"), (Parts{"C:", "a", "b", "c.txt"}));
    EXPECT_EQ(FS::decouple_path_name("/x/y"), (Parts{"", "x", "y"}));
    EXPECT_EQ(FS::decouple_path_name("a//b/"), (Parts{"a", "b"}));
    EXPECT_EQ(FS::decouple_path_name("name"), (Parts{"name"}));
    EXPECT_TRUE(FS::decouple_path_name("").empty());

    EXPECT_EQ(FS::join_path("dir", "a.txt"), "dir/a.txt");
    EXPECT_EQ(FS::join_path("dir/", "a.txt"), "dir/a.txt");
    EXPECT_EQ(FS::join_path("C:\\dir\\", "/a.txt"), "C:\\dir\\a.txt");
    EXPECT_EQ(FS::join_path("", "a.txt"), "a.txt");
}

TEST(FileSystemLink, CreatesTheSameFileAndRefusesAnExistingDestination) {
    TempDir dir;
    write_file(dir / "src", "source");
    write_file(dir / "dst", "destination");
    const std::string text = failure_of([&] { FS::link_file(dir / "src", dir / "dst"); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : !r1x : at static void ORN::FileSystemProc::link_file(")) << text;
    EXPECT_EQ(read_file(dir / "src"), "source");
    EXPECT_EQ(read_file(dir / "dst"), "destination");
    EXPECT_NE(inode_of(dir / "src"), inode_of(dir / "dst"));

    FS::link_file(dir / "src", dir / "linked");
    EXPECT_EQ(inode_of(dir / "src"), inode_of(dir / "linked"));
    EXPECT_EQ(read_file(dir / "linked"), "source");
    EXPECT_TRUE(FS::identical_file(dir / "src", dir / "linked"));
}

TEST(FileSystemMove, RenamesAndRefusesAnExistingDestination) {
    TempDir dir;
    write_file(dir / "a", "A");
    write_file(dir / "b", "B");
    const std::string text = failure_of([&] { FS::move_file(dir / "a", dir / "b"); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : !r1x : at static void ORN::FileSystemProc::move_file(")) << text;
    EXPECT_EQ(read_file(dir / "a"), "A");
    EXPECT_EQ(read_file(dir / "b"), "B");

    FS::move_file(dir / "a", dir / "c");
    EXPECT_FALSE(FS::find_file(dir / "a"));
    EXPECT_EQ(read_file(dir / "c"), "A");
}

TEST(FileSystemIdentity, HardLinkAndSymlinkAreIdenticalCopiesAndMissingFilesAreNot) {
    TempDir dir;
    write_file(dir / "f", "same");
    write_file(dir / "copy", "same");
    ::link((dir / "f").c_str(), (dir / "hard").c_str());
    ::symlink((dir / "f").c_str(), (dir / "soft").c_str());
    EXPECT_TRUE(FS::identical_file(dir / "f", dir / "f"));
    EXPECT_TRUE(FS::identical_file(dir / "f", dir / "hard"));
    EXPECT_TRUE(FS::identical_file(dir / "soft", dir / "f"));
    EXPECT_FALSE(FS::identical_file(dir / "f", dir / "copy"));
    EXPECT_FALSE(FS::identical_file(dir / "f", dir / "missing"));
    EXPECT_FALSE(FS::identical_file(dir / "missing", dir / "missing"));
}

TEST(FileSystemStream, WriteAppendsToExistingFileAndReadCreatesMissingOne) {
    TempDir dir;
    write_file(dir / "log", "first\n");
    {
        auto out = ORN::StreamLoader::open_write(dir / "log");
        auto copy = out; // shared: the file stays open while a copy lives
        out = ORN::StreamLoader();
        copy.write(ORN::Buffer<unsigned char>::from_text("second\n"));
        copy.write("third\n", 6);
        copy.flush();
    }
    EXPECT_EQ(read_file(dir / "log"), "first\nsecond\nthird\n");

    auto in = ORN::StreamLoader::open_read(dir / "log");
    ORN::Buffer<unsigned char> part(6);
    EXPECT_EQ(in.read(part), 6);
    EXPECT_EQ(part.text(), "first\n");
    ORN::Buffer<unsigned char> rest(100);
    EXPECT_EQ(in.read(rest), 13);
    EXPECT_EQ(in.read(rest), 0);

    EXPECT_TRUE(ORN::StreamLoader::open_read(dir / "new").exist());
    EXPECT_TRUE(FS::find_file(dir / "new"));
    EXPECT_FALSE(ORN::StreamLoader().exist());
    const std::string text = failure_of([] { ORN::StreamLoader().flush(); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : exist () : at ")) << text;
}

TEST(FileSystemWriter, TinyBufferKeepsOrderAndWritesOnFillFlushAndDestruction) {
    TempDir dir;
    const std::string path = dir / "out";
    std::string expected;
    {
        ORN::FileWriter writer(ORN::StreamLoader::open_write(path), 4);
        EXPECT_EQ(writer.buffer_size(), 4);
        writer.write("ab");
        EXPECT_EQ(read_file(path), ""); // still in the buffer
        writer.write("cd");
        writer.write("e"); // does not fit: "abcd" goes out first
        EXPECT_EQ(read_file(path), "abcd");
        writer.write("0123456789"); // larger than the buffer: straight through after "e"
        EXPECT_EQ(read_file(path), "abcde0123456789");
        for (int i = 0; i < 50; ++i) {
            const std::string piece(static_cast<std::size_t>(i % 7), static_cast<char>('A' + i % 26));
            writer.write(piece);
            expected += piece;
        }
        writer.write("z");
        writer.flush();
        EXPECT_EQ(read_file(path), "abcde0123456789" + expected + "z");
        writer.write("tail");
    }
    EXPECT_EQ(read_file(path), "abcde0123456789" + expected + "ztail");
}

TEST(FileSystemPaths, WorkingAndModulePathsEndWithSeparator) {
    const std::string working = FS::working_path();
    EXPECT_EQ(working, std::filesystem::current_path().string() + "/");
    const std::string module = FS::module_path();
    ASSERT_FALSE(module.empty());
    EXPECT_EQ(module.back(), '/');
    EXPECT_TRUE(FS::find_file(module + "liborn.so")) << module;
}

TEST(FileSystemExec, ReturnsExitCodesOfTheChild) {
    TempDir dir;
    EXPECT_EQ(ORN::GlobalRuntime::system_exec("exit 0"), 0);
    EXPECT_EQ(ORN::GlobalRuntime::system_exec("exit 3"), 3);
    EXPECT_EQ(ORN::GlobalRuntime::system_exec("zarn_no_such_command_here 2>/dev/null"), 127);
    EXPECT_EQ(ORN::GlobalRuntime::system_exec("kill -9 $$"), 128 + 9);
    // The child runs in the current directory and is waited for.
    {
        ScopedChdir in(dir.str());
        EXPECT_EQ(ORN::GlobalRuntime::system_exec("sleep 0.1; printf done > marker"), 0);
    }
    EXPECT_EQ(read_file(dir / "marker"), "done");
}

} // namespace
