// Files, directories, streams and external commands, on a real temporary
// directory.
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_runtime.h"

#include "support.h"

namespace {

using namespace zarn_test;
using FS = ORN::FileSystemProc;

// Runs a test body inside a directory and comes back whatever happens.
struct ScopedChdir {
    explicit ScopedChdir(const std::string &path) : mBack(fs::current_path()) { fs::current_path(path); }
    ~ScopedChdir() { fs::current_path(mBack); }
    fs::path mBack;
};

TEST(FileSystemLoadSave, RoundTripsBytesAndEmptyFileGivesEmptyBuffer) {
    TempDir dir;
    write_file(dir / "empty", "");
    EXPECT_TRUE(FS::load_file(dir / "empty").empty());
    EXPECT_EQ(FS::file_size(dir / "empty"), 0);

    const std::string bytes("a\0b\xff\n\r", 6);
    FS::save_file(dir / "bin", ORN::Buffer<unsigned char>::from_text(bytes));
    EXPECT_EQ(read_file(dir / "bin"), bytes);
    EXPECT_EQ(FS::load_file(dir / "bin").text(), bytes);
    EXPECT_EQ(FS::file_size(dir / "bin"), 6);

    // Saving truncates a longer file; the text form writes the same bytes.
    FS::save_file(dir / "bin", std::string_view("xy"));
    EXPECT_EQ(read_file(dir / "bin"), "xy");
}

TEST(FileSystemLoadSave, MissingFilesAndDirectoriesFail) {
    TempDir dir;
    for (const std::string &path : {dir / "missing", dir.str()}) {
        const std::string text = failure_of([&] { FS::load_file(path); });
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : r2x >= 0 && r2x < load_file_size () : at "
                                      "static ORN::Buffer<unsigned char> ORN::FileSystemProc::load_file(") &&
                    contains(text, ") in __ORN__/orn_filesystem.cpp ,")) << text;
        EXPECT_TRUE(starts_with(failure_of([&] { FS::file_size(path); }), "dynamic_assert failed : r2x >= 0 : at ")) << path;
    }
    const std::string text = failure_of([&] { FS::save_file(dir / "no/such/file", std::string_view("x")); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : r3x : at static void ORN::FileSystemProc::save_file(")) << text;
    EXPECT_FALSE(FS::find_file(dir / "no/such/file"));
}

TEST(FileSystemQuery, FindFileAndFindDirectoryTellThemApartAndPathsEndWithSeparator) {
    TempDir dir;
    write_file(dir / "f", "1");
    EXPECT_TRUE(FS::find_file(dir / "f") && !FS::find_directory(dir / "f"));
    EXPECT_TRUE(FS::find_directory(dir.str()) && !FS::find_file(dir.str()));
    EXPECT_TRUE(FS::find_directory(dir.str() + "/"));
    EXPECT_FALSE(FS::find_file(dir / "missing") || FS::find_directory(dir / "missing"));

    FS::erase_file(dir / "f");
    EXPECT_FALSE(FS::find_file(dir / "f"));
    FS::erase_file(dir / "f"); // already gone: ignored

    EXPECT_EQ(FS::working_path(), fs::current_path().string() + "/");
    EXPECT_TRUE(FS::find_file(FS::module_path() + "liborn.so")) << FS::module_path();
}

TEST(FileSystemDirectory, BuildsMissingLevelsOfRelativeAndAbsolutePaths) {
    TempDir dir;
    write_file(dir / "one/keep", "kept");
    {
        ScopedChdir in(dir.str());
        FS::build_directory("one\\two/three");
        EXPECT_TRUE(FS::find_directory("one/two/three"));
        EXPECT_EQ(read_file("one/keep"), "kept");
    }
    FS::build_directory(dir / "abs/a/b/");
    FS::build_directory(dir / "abs/a/b"); // exists already: left as it is
    EXPECT_TRUE(FS::find_directory(dir / "abs/a/b"));
    EXPECT_TRUE(starts_with(failure_of([] { FS::build_directory(""); }), "dynamic_assert failed : r2x.length () >= 1 : at "));
}

TEST(FileSystemDirectory, DecouplesOnBothSeparatorsKeepingDriveAndRoot) {
    using Parts = ORN::Deque<ORN::String<char>>;
    EXPECT_EQ(FS::decouple_path_name("C:\\a/b\\c.txt"), (Parts{"C:", "a", "b", "c.txt"}));
    EXPECT_EQ(FS::decouple_path_name("/x/y"), (Parts{"", "x", "y"}));
    EXPECT_EQ(FS::decouple_path_name("a//b/"), (Parts{"a", "b"}));
    EXPECT_TRUE(FS::decouple_path_name("").empty());

    EXPECT_EQ(FS::join_path("dir/", "a.txt"), "dir/a.txt");
    EXPECT_EQ(FS::join_path("C:\\dir\\", "/a.txt"), "C:\\dir\\a.txt");
    EXPECT_EQ(FS::join_path("", "a.txt"), "a.txt");
}

TEST(FileSystemLinkMove, RefuseAnExistingDestinationAndLinksAreIdentical) {
    TempDir dir;
    write_file(dir / "src", "source");
    write_file(dir / "dst", "destination");
    for (const char *name : {"link_file", "move_file"}) {
        const std::string text = failure_of([&] {
            name[0] == 'l' ? FS::link_file(dir / "src", dir / "dst") : FS::move_file(dir / "src", dir / "dst");
        });
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : !r1x : at static void ORN::FileSystemProc::" + std::string(name) + "(")) << text;
        EXPECT_EQ(read_file(dir / "src"), "source");
        EXPECT_EQ(read_file(dir / "dst"), "destination");
    }
    FS::link_file(dir / "src", dir / "linked");
    EXPECT_EQ(inode_of(dir / "src"), inode_of(dir / "linked"));
    FS::move_file(dir / "src", dir / "moved");
    EXPECT_FALSE(FS::find_file(dir / "src"));
    EXPECT_EQ(read_file(dir / "moved"), "source");

    // Hard links and symlinks name the same file; an equal copy or a missing file does not.
    write_file(dir / "copy", "source");
    fs::create_symlink(dir / "moved", dir / "soft");
    EXPECT_TRUE(FS::identical_file(dir / "moved", dir / "linked") && FS::identical_file(dir / "soft", dir / "linked"));
    EXPECT_FALSE(FS::identical_file(dir / "moved", dir / "copy"));
    EXPECT_FALSE(FS::identical_file(dir / "moved", dir / "missing") || FS::identical_file(dir / "missing", dir / "missing"));
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
    }
    EXPECT_EQ(read_file(dir / "log"), "first\nsecond\nthird\n");

    auto in = ORN::StreamLoader::open_read(dir / "log");
    ORN::Buffer<unsigned char> part(6), rest(100);
    EXPECT_EQ(in.read(part), 6);
    EXPECT_EQ(part.text(), "first\n");
    EXPECT_EQ(in.read(rest), 13);
    EXPECT_EQ(in.read(rest), 0);

    EXPECT_TRUE(ORN::StreamLoader::open_read(dir / "new").exist() && FS::find_file(dir / "new"));
    EXPECT_TRUE(starts_with(failure_of([] { ORN::StreamLoader().flush(); }), "dynamic_assert failed : exist () : at "));
}

TEST(FileSystemWriter, TinyBufferKeepsOrderAndWritesOnFillFlushAndDestruction) {
    TempDir dir;
    const std::string path = dir / "out";
    std::string expected = "abcde0123456789";
    {
        ORN::FileWriter writer(ORN::StreamLoader::open_write(path), 4);
        writer.write("ab");
        writer.write("cd");
        EXPECT_EQ(read_file(path), ""); // still in the buffer
        writer.write("e");              // does not fit: "abcd" goes out first
        EXPECT_EQ(read_file(path), "abcd");
        writer.write("0123456789"); // larger than the buffer: straight through after "e"
        EXPECT_EQ(read_file(path), expected);
        for (int i = 0; i < 50; ++i) {
            const std::string piece(static_cast<std::size_t>(i % 7), static_cast<char>('A' + i % 26));
            writer.write(piece);
            expected += piece;
        }
        writer.flush();
        EXPECT_EQ(read_file(path), expected);
        writer.write("tail");
    }
    EXPECT_EQ(read_file(path), expected + "tail");
}

TEST(FileSystemExec, ReturnsExitCodesOfTheChild) {
    TempDir dir;
    const std::pair<const char *, int> cases[] = {{"exit 0", 0}, {"exit 3", 3}, {"zarn_no_such_command_here 2>/dev/null", 127}, {"kill -9 $$", 128 + 9}};
    for (const auto &[command, code] : cases)
        EXPECT_EQ(ORN::GlobalRuntime::system_exec(command), code) << command;
    // The child is waited for before the call returns.
    EXPECT_EQ(ORN::GlobalRuntime::system_exec("sleep 0.1; printf done > " + quote(dir / "marker")), 0);
    EXPECT_EQ(read_file(dir / "marker"), "done");
}

} // namespace
