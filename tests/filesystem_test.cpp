// Files, directories, streams and external commands, on a real temporary
// directory.
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_runtime.h"

#include "support.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <atomic>
#include <chrono>
#include <csignal>
#include <optional>
#include <thread>

namespace {

using namespace zarn_test;
using FS = ORN::FileSystemProc;

// The platform's separator, as the library joins the paths it makes, and
// the source of the platform's file operations.
const std::string SEPARATOR(1, char(fs::path::preferred_separator));
#ifdef _WIN32
const std::string PLATFORM_SOURCE = "__ORN__/orn_filesystem_windows.cpp";
#else
const std::string PLATFORM_SOURCE = "__ORN__/orn_filesystem.cpp";
#endif

// The system's reason for a name that is not there: a missing file, and a
// missing folder on the way to it (one reason on POSIX, two on Windows).
#ifdef _WIN32
std::string system_text(DWORD code) {
    char buffer[1024] = {};
    DWORD n = ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code,
                               MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), buffer, sizeof(buffer), nullptr);
    while (n > 0 && (buffer[n - 1] == '\r' || buffer[n - 1] == '\n' || buffer[n - 1] == ' '))
        --n;
    return std::string(buffer, n);
}
const std::string FILE_MISSING = system_text(ERROR_FILE_NOT_FOUND), PATH_MISSING = system_text(ERROR_PATH_NOT_FOUND);
#else
const std::string FILE_MISSING = "No such file or directory", PATH_MISSING = FILE_MISSING;
#endif

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
                    contains(text, ") in " + PLATFORM_SOURCE + " ,")) << text;
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

    EXPECT_EQ(FS::working_path(), fs::current_path().string() + SEPARATOR);
#ifdef _WIN32
    EXPECT_TRUE(FS::find_file(FS::module_path() + "liborn.dll")) << FS::module_path();
#else
    EXPECT_TRUE(FS::find_file(FS::module_path() + "liborn.so")) << FS::module_path();
#endif
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
    // A job-relative name joined in the platform's form: on Windows a path
    // under a \\?\ prefix takes backslashes only.
    EXPECT_EQ(FS::join_path("\\\\?\\C:\\job", "caches/a/b.json"),
              "\\\\?\\C:\\job" + SEPARATOR + "caches" + SEPARATOR + "a" + SEPARATOR + "b.json");
    EXPECT_EQ(FS::join_path("", "a/b"), "a" + SEPARATOR + "b");
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
    EXPECT_TRUE(FS::identical_file(dir / "moved", dir / "linked"));
#ifndef _WIN32
    fs::create_symlink(dir / "moved", dir / "soft");
    EXPECT_TRUE(FS::identical_file(dir / "soft", dir / "linked"));
#endif
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

TEST(FileSystemSeparators, EveryOperationTakesBothSeparators) {
    TempDir dir;
    ScopedChdir in(dir.str());
    FS::build_directory("a\\b");
    FS::save_file("a\\b\\f", std::string_view("backslashes"));
    EXPECT_EQ(read_file(dir / "a/b/f"), "backslashes");
    if (SEPARATOR == "/") { // no file named "a\\b\\f" where a backslash is a character of names
        EXPECT_FALSE(fs::exists(dir.path() / "a\\b\\f"));
    }
    EXPECT_TRUE(FS::find_file("a\\b/f") && FS::find_directory("a\\b"));
    EXPECT_EQ(FS::load_file("a/b\\f").text(), "backslashes");
    EXPECT_EQ(FS::file_size("a\\b\\f"), 11);
    FS::link_file("a\\b\\f", "a\\g");
    EXPECT_EQ(inode_of(dir / "a/g"), inode_of(dir / "a/b/f"));
    EXPECT_TRUE(FS::identical_file("a\\g", "a/b/f"));
    FS::move_file("a\\g", "a\\b\\h");
    ORN::StreamLoader::open_write("a\\b\\h").write("+", 1);
    EXPECT_EQ(read_file(dir / "a/b/h"), "backslashes+");
    FS::erase_file("a\\b\\h");
    EXPECT_FALSE(fs::exists(dir / "a/b/h"));
}

TEST(FileSystemFailures, TellTheOperationThePathAndTheReason) {
    TempDir dir;
    struct CASE {
        std::function<void()> mCall;
        std::string mLine, mCondition;
    };
    std::vector<CASE> cases = {
        {[&] { FS::load_file(dir / "missing"); }, "load_file : " + (dir / "missing") + " : " + FILE_MISSING,
         "r2x >= 0 && r2x < load_file_size ()"},
        {[&] { FS::save_file(dir / "no/f", std::string_view("x")); },
         "save_file : " + (dir / "no/f") + " : " + PATH_MISSING, "r3x"},
        {[&] { FS::move_file(dir / "missing", dir / "other"); },
         "move_file : " + (dir / "missing") + " : " + FILE_MISSING, "r2x"},
    };
#ifndef _WIN32 // a FIFO: POSIX only
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    cases.push_back({[&] { FS::load_file(dir / "fifo"); }, "load_file : " + (dir / "fifo") + " : not a regular file",
                     "r2x >= 0 && r2x < load_file_size ()"});
    cases.push_back({[&] { ORN::StreamLoader::open_read(dir / "fifo"); }, "open : " + (dir / "fifo") + " : not a regular file",
                     "r1x.get() >= 0 && error == 0"});
#endif
    for (const auto &c : cases) {
        std::string text;
        const std::string out = capture_stdout([&] { text = failure_of(c.mCall); });
        EXPECT_EQ(out, c.mLine + "\n");
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : " + c.mCondition + " : at ")) << text;
    }
    // A stream write over the size limit fails on the size, before any byte moves.
    auto stream = ORN::StreamLoader::open_write(dir / "s");
    const std::string text = failure_of([&] { stream.write(dir.str().data(), FS::load_file_size()); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : data.size () < load_file_size () : at ")) << text;
}

TEST(JobDirectory, PublishesByHardLinkAndKeepsTheOldResultWhenTheSourceIsBad) {
    TempDir dir;
    const ORN::JobDirectory job(dir.str());
    write_file(dir / "caches/k/sub/a", "new");
    write_file(dir / "results/k/sub/a", "old");
    const FileId old = inode_of(dir / "results/k/sub/a");
    job.publish_file("caches/k/sub/a", "results/k/sub/a");
    EXPECT_EQ(inode_of(dir / "results/k/sub/a"), inode_of(dir / "caches/k/sub/a"));
    EXPECT_NE(inode_of(dir / "results/k/sub/a"), old);
    job.publish_file("caches/k/sub/a", "results/new/deep/a"); // the target folders are made
    EXPECT_EQ(inode_of(dir / "results/new/deep/a"), inode_of(dir / "caches/k/sub/a"));

    // A missing, linked or special source leaves the published result alone.
    std::vector<std::pair<std::string, std::string>> bad = {{"caches/k/missing", FILE_MISSING},
                                                            {"caches/k/../k/sub/a", "name leaves the job directory"}};
#ifndef _WIN32 // symbolic links and FIFOs: POSIX only
    fs::create_symlink(dir / "caches/k/sub/a", dir / "caches/k/link");
    ASSERT_EQ(::mkfifo((dir / "caches/k/fifo").c_str(), 0600), 0);
    bad.push_back({"caches/k/link", "symbolic link, not followed"});
    bad.push_back({"caches/k/fifo", "not a regular file"});
#endif
    for (const auto &[source, reason] : bad) {
        std::string text;
        const std::string out = capture_stdout([&] { text = failure_of([&] { job.publish_file(source, "results/k/sub/a"); }); });
        EXPECT_TRUE(contains(out, " : " + reason + "\n")) << out;
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : source_regular : at ")) << text;
        EXPECT_EQ(inode_of(dir / "results/k/sub/a"), inode_of(dir / "caches/k/sub/a")) << source;
    }
    // A directory in the target's place cannot be replaced.
    fs::create_directories(dir / "results/k/sub/dir/x");
    write_file(dir / "caches/k/sub/dir", "file");
    std::string text;
    capture_stdout([&] { text = failure_of([&] { job.publish_file("caches/k/sub/dir", "results/k/sub/dir"); }); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : replaced : at ")) << text;
    EXPECT_TRUE(fs::is_directory(dir / "results/k/sub/dir/x"));
}

// A run's results switch as one set: checked whole first, replaced one by
// one without ever missing, and what the set no longer has is unpublished.
TEST(JobDirectory, PublishesASetWholeOrNotAtAll) {
    TempDir dir, outside;
    const ORN::JobDirectory job(dir.str());
    write_file(outside / "canary", "canary");
    write_file(dir / "caches/a", "a");
    write_file(dir / "caches/b", "b");
    write_file(dir / "results/r/old", "old");
    write_file(dir / "results/r/sub/old2", "old2");
    write_file(dir / "results/other", "other");
#ifdef _WIN32
    write_file(dir / "results/r/planted", "planted");
#else
    fs::create_symlink(outside / "canary", dir / "results/r/planted");
#endif
    using P = ORN::JobDirectory::PUBLISHED;
    const auto publish = [&](std::initializer_list<P> files) {
        std::string text;
        const std::string out = capture_stdout([&] { text = failure_of([&] { job.publish_files("results/r", ORN::Array<P>(files)); }); });
        return out + text;
    };

    // A missing source, a target outside the set's folder, a target named twice:
    // refused before anything changes.
    struct REFUSED {
        std::initializer_list<P> mFiles;
        std::string mLine;
    };
    for (const REFUSED &c : {REFUSED{{{"caches/a", "results/r/a"}, {"caches/missing", "results/r/m"}},
                                    "missing file : " + (dir / "caches/missing") + "\n"},
                             REFUSED{{{"caches/a", "results/r/a"}, {"caches/b", "results/other"}},
                                    "publish : " + (dir / "results/other") + " : outside results/r\n"},
                             REFUSED{{{"caches/a", "results/r/a"}, {"caches/b", "results/r/a"}},
                                    "publish : " + (dir / "results/r/a") + " : published twice\n"}}) {
        const auto &files = c.mFiles;
        const auto &line = c.mLine;
        const std::string out = publish(files);
        EXPECT_TRUE(contains(out, line)) << out;
        EXPECT_TRUE(contains(out, "dynamic_assert failed : ")) << out;
        EXPECT_FALSE(fs::exists(dir / "results/r/a"));
        EXPECT_EQ(read_file(dir / "results/r/old"), "old");
    }

    const std::string out = publish({{"caches/a", "results/r/a"}, {"caches/b", "results/r/sub/b"}});
    EXPECT_TRUE(contains(out, "results/r : 2 files published, 3 removed\n")) << out;
    EXPECT_EQ(inode_of(dir / "results/r/a"), inode_of(dir / "caches/a"));
    EXPECT_EQ(inode_of(dir / "results/r/sub/b"), inode_of(dir / "caches/b"));
    for (const char *gone : {"results/r/old", "results/r/sub/old2", "results/r/planted"})
        EXPECT_FALSE(fs::exists(fs::symlink_status(dir / gone))) << gone;
    EXPECT_EQ(read_file(dir / "results/other"), "other");
    EXPECT_EQ(read_file(outside / "canary"), "canary");
    EXPECT_FALSE(fs::exists(dir / "caches/publishing/results.r.json"));
    // Republishing the same set is a no-op that keeps the same files.
    const auto inode = inode_of(dir / "results/r/a");
    publish({{"caches/a", "results/r/a"}, {"caches/b", "results/r/sub/b"}});
    EXPECT_EQ(inode_of(dir / "results/r/a"), inode);
    EXPECT_EQ(fs::directory_entry(dir / "results/r").exists() ? std::distance(fs::directory_iterator(dir / "results/r"), {}) : 0, 2);
}

// The directory of a test that kills a write in a death test's child. On
// Windows that child is the test program started again, which runs the
// test from its start (every step up to the kill must be one it repeats
// without a change) and finds its parent's directory in the environment.
class SharedDir {
public:
    SharedDir() {
        const char *shared = std::getenv("ZARN_TEST_SHARED_DIR");
        mRoot = shared != nullptr ? std::string(shared) : mOwned.emplace().str();
        if (shared == nullptr)
            set_environment("ZARN_TEST_SHARED_DIR", mRoot.c_str());
    }
    ~SharedDir() {
        if (mOwned)
            set_environment("ZARN_TEST_SHARED_DIR", nullptr);
    }
    const std::string &str() const { return mRoot; }
    std::string operator/(const std::string &name) const { return (fs::path(mRoot) / name).make_preferred().string(); }

private:
    std::optional<TempDir> mOwned;
    std::string mRoot;
};

#ifdef _WIN32
const auto KILLED = ::testing::ExitedWithCode(9); // TerminateProcess with SIGKILL's number
#else
const auto KILLED = ::testing::KilledBySignal(SIGKILL);
#endif

// Killed between two replacements: the journal says the folder is mixed,
// every result is still there, and the next publication says so and
// completes the switch.
TEST(JobDirectory, AKilledPublicationIsCompletedByTheNextOne) {
    const SharedDir dir;
    const auto at = [&](const std::string &name) { return dir / name; };
    const ORN::JobDirectory job(dir.str());
    using P = ORN::JobDirectory::PUBLISHED;
    write_file(at("caches/a"), "a");
    write_file(at("caches/b"), "b");
    write_file(at("caches/a2"), "a2");
    const auto publish = [&](std::initializer_list<P> files) {
        std::string text;
        const std::string out = capture_stdout([&] { text = failure_of([&] { job.publish_files("results/r", ORN::Array<P>(files)); }); });
        return out + text;
    };
    publish({{"caches/a", "results/r/a"}, {"caches/b", "results/r/sub/b"}});
    EXPECT_EXIT(
        {
            set_environment("ZARN_FAULT_POINT", "publish_file:before_rename@b");
            publish({{"caches/a2", "results/r/a"}, {"caches/a2", "results/r/sub/b"}});
            std::exit(0);
        },
        KILLED, "");
    EXPECT_EQ(read_file(at("results/r/a")), "a2");
    EXPECT_EQ(read_file(at("results/r/sub/b")), "b");
    EXPECT_EQ(read_file(at("caches/publishing/results.r.json")),
              R"({"directory":"results/r","state":"mixed","files":["results/r/a","results/r/sub/b"]})");
    const std::string again = publish({{"caches/a2", "results/r/a"}, {"caches/a2", "results/r/sub/b"}});
    EXPECT_TRUE(contains(again, "results/r holds a mix of two runs")) << again;
    EXPECT_EQ(read_file(at("results/r/sub/b")), "a2");
    EXPECT_FALSE(fs::exists(at("caches/publishing/results.r.json")));
    EXPECT_TRUE(fs::is_empty(at("caches/publishing")));
    EXPECT_EQ(std::distance(fs::directory_iterator(at("results/r/sub")), {}), 1); // no temporary left
}

// A folder that another publication owns is left whole by the pruning and
// may not be published into.
TEST(JobDirectory, PublicationLeavesTheFoldersOwnedElsewhere) {
    TempDir dir;
    const ORN::JobDirectory job(dir.str());
    write_file(dir / "caches/a", "a");
    write_file(dir / "results/r/old", "old");
    write_file(dir / "results/r/web/kept", "kept");
    write_file(dir / "results/r/web/deep/kept2", "kept2");
    write_file(dir / "results/r/webx/gone", "gone");
    using P = ORN::JobDirectory::PUBLISHED;
    const ORN::Array<ORN::String<char>> web = {"results/r/web/"};
    const auto publish = [&](std::initializer_list<P> files, const ORN::Array<ORN::String<char>> &spared) {
        std::string text;
        const std::string out = capture_stdout([&] { text = failure_of([&] { job.publish_files("results/r", ORN::Array<P>(files), spared); }); });
        return out + text;
    };
    std::string out = publish({{"caches/a", "results/r/a"}, {"caches/a", "results/r/web/a"}}, web);
    EXPECT_TRUE(contains(out, "publish : " + (dir / "results/r/web/a") + " : inside results/r/web, published elsewhere\n"))
        << out;
    EXPECT_TRUE(contains(out, "dynamic_assert failed : target : at ")) << out;
    out = publish({{"caches/a", "results/r/a"}}, {"results/web"});
    EXPECT_TRUE(contains(out, "publish : " + (dir / "results/web") + " : a folder owned elsewhere outside results/r\n"))
        << out;
    EXPECT_TRUE(contains(out, "dynamic_assert failed : inside : at ")) << out;
    EXPECT_FALSE(fs::exists(dir / "results/r/a"));

    out = publish({{"caches/a", "results/r/a"}}, web);
    EXPECT_TRUE(contains(out, "results/r : 1 files published, 2 removed\n")) << out;
    EXPECT_EQ(read_file(dir / "results/r/web/kept"), "kept");
    EXPECT_EQ(read_file(dir / "results/r/web/deep/kept2"), "kept2");
    EXPECT_FALSE(fs::exists(dir / "results/r/old"));
    EXPECT_FALSE(fs::exists(dir / "results/r/webx/gone"));
    // Without the argument the folder is pruned as before.
    publish({{"caches/a", "results/r/a"}}, {});
    EXPECT_FALSE(fs::exists(dir / "results/r/web/kept"));
}

// A checked input is handed on as the open file: swapping the name for a
// link afterwards changes nothing the reader sees.
TEST(JobDirectory, AnInputIsHeldOpenAsChecked) {
    TempDir dir, outside;
    const ORN::JobDirectory job(dir.str());
    write_file(dir / "in.jpg", "inside");
    write_file(outside / "secret", "secret");
    const ORN::JobDirectory::Input input = job.open_input("in.jpg");
#ifdef _WIN32
    // Held open, shared for reading only: the name can be neither replaced
    // nor removed while the input lives; read, it is the file checked.
    write_file(outside / "other.jpg", "outside");
    std::error_code replaced, removed;
    fs::rename(outside / "other.jpg", dir / "in.jpg", replaced);
    fs::remove(dir / "in.jpg", removed);
    EXPECT_TRUE(replaced && removed);
    EXPECT_EQ(read_file(std::string(input.path())), "inside");
    EXPECT_EQ(job.why_refused("missing"), "missing");
    return; // symbolic links: POSIX only
#endif
    fs::remove(dir / "in.jpg");
    fs::create_symlink(outside / "secret", dir / "in.jpg");
    EXPECT_EQ(read_file(std::string(input.path())), "inside");

    std::string text;
    const std::string out = capture_stdout([&] { text = failure_of([&] { job.open_input("in.jpg"); }); });
    EXPECT_TRUE(contains(out, "refused file : " + (dir / "in.jpg") + " : symbolic link, not followed\n")) << out;
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : ")) << text;
    EXPECT_EQ(job.why_refused("missing"), "missing");
}

// A job named under a \\?\ prefix (Windows' form for long paths, where '/'
// is no separator) saves, publishes and prunes as any other.
TEST(JobDirectory, AJobUnderAVerbatimPrefixPublishesAndPrunes) {
#ifndef _WIN32
    GTEST_SKIP() << "Windows only: \\\\?\\ paths";
#else
    TempDir dir;
    const ORN::JobDirectory job("\\\\?\\" + dir.str());
    write_file(dir / "caches/a", "a");
    write_file(dir / "results/r/old/old", "old");
    job.save_file("caches/deep/b.json", "{}");
    EXPECT_EQ(read_file(dir / "caches/deep/b.json"), "{}");
    using P = ORN::JobDirectory::PUBLISHED;
    std::string text;
    const std::string out = capture_stdout([&] {
        text = failure_of([&] {
            job.publish_files("results/r", ORN::Array<P>({{"caches/a", "results/r/sub/a"}, {"caches/deep/b.json", "results/r/b.json"}}));
        });
    });
    EXPECT_EQ(text, "");
    EXPECT_TRUE(contains(out, "results/r : 2 files published, 1 removed\n")) << out;
    EXPECT_EQ(inode_of(dir / "results/r/sub/a"), inode_of(dir / "caches/a"));
    EXPECT_EQ(inode_of(dir / "results/r/b.json"), inode_of(dir / "caches/deep/b.json"));
    EXPECT_FALSE(fs::exists(dir / "results/r/old/old"));
#endif
}

TEST(JobDirectory, DurableSaveReplacesWholeKeepsTheModeAndClearsLeftovers) {
    TempDir dir;
    const ORN::JobDirectory job(dir.str());
    job.save_file("deep/r.json", "{\"a\":1}"); // folders made, default mode
    EXPECT_EQ(read_file(dir / "deep/r.json"), "{\"a\":1}");
    write_file(dir / "r.json", "old");
    const bool posix_modes = fs::path::preferred_separator == '/';
    if (posix_modes)
        fs::permissions(dir / "r.json", fs::perms(0604));
    const FileId old = inode_of(dir / "r.json");
    write_file(dir / "r.json.tmp", "stale");
    write_file(dir / "r.json.tmp-1-2", "stale");
    write_file(dir / "r.jsonx", "unrelated");
    job.save_file("r.json", "new");
    EXPECT_EQ(read_file(dir / "r.json"), "new");
    EXPECT_NE(inode_of(dir / "r.json"), old) << "a new file, not the old one truncated";
    if (posix_modes) { // permission bits: POSIX only
        EXPECT_EQ(fs::status(dir / "r.json").permissions(), fs::perms(0604));
    }
    EXPECT_FALSE(fs::exists(dir / "r.json.tmp") || fs::exists(dir / "r.json.tmp-1-2"));
    EXPECT_TRUE(fs::exists(dir / "r.jsonx"));

    // A directory in the way: the rename fails, nothing is left behind.
    fs::create_directories(dir / "d.json/x");
    std::string text;
    const std::string out = capture_stdout([&] { text = failure_of([&] { job.save_file("d.json", "x"); }); });
    EXPECT_TRUE(starts_with(out, "save_file : " + (dir / "d.json") + " : ")) << out;
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : r5x : at ")) << text;
    EXPECT_EQ(fs::directory_iterator(dir / "d.json")->path().filename(), "x");
    for (const auto &e : fs::directory_iterator(dir.path()))
        EXPECT_FALSE(contains(e.path().filename().string(), ".tmp")) << e.path();
}

// A durable save killed just before or just after its rename leaves the
// old file or the new one whole; the next save clears what it left.
TEST(JobDirectory, AKilledDurableSaveLeavesTheOldFileOrTheNewOne) {
    const SharedDir dir;
    const ORN::JobDirectory job(dir.str());
    job.save_file("r.json", "{\"old\":1}");
    for (const auto &[point, left] : {std::pair{"save_file:before_rename@r.json", "{\"old\":1}"},
                                      std::pair{"save_file:after_rename@r.json", "{\"new\":2}"}}) {
        EXPECT_EXIT(
            {
                set_environment("ZARN_FAULT_POINT", point);
                job.save_file("r.json", "{\"new\":2}");
                std::exit(0);
            },
            KILLED, "")
            << point;
        EXPECT_EQ(read_file(dir / "r.json"), left) << point;
    }
    job.save_file("r.json", "{\"new\":3}");
    EXPECT_EQ(read_file(dir / "r.json"), "{\"new\":3}");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.str()), {}), 1) << "no temporary left";
}

// One run at a time: with waiting off a second holder of the job's lock
// fails at once after one line; with waiting on it holds the lock once the
// first lets go.
TEST(JobLock, ASecondHolderIsRefusedOrWaitsForTheFirst) {
    TempDir dir;
    const ORN::JobDirectory job(dir.str());
    const bool waits = ORN::JobLock::wait();
    std::optional<ORN::JobLock> first(std::in_place, job);
    ORN::JobLock::set_wait(false);
    std::string text;
    const std::string out = capture_stdout([&] { text = failure_of([&] { ORN::JobLock second(job); }); });
    EXPECT_EQ(out, "lock : " + (dir / "caches/job.lock") + " : the job is locked by another run\n");
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : locked : at ")) << text;

    ORN::JobLock::set_wait(true);
    std::atomic<bool> held{false};
    std::thread second([&] {
        const ORN::JobLock lock(job);
        held = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(held) << "held while the first holder still has it";
    first.reset();
    second.join();
    EXPECT_TRUE(held);
    ORN::JobLock::set_wait(false);
    EXPECT_EQ(failure_of([&] { ORN::JobLock third(job); }), "");
    ORN::JobLock::set_wait(waits);
    EXPECT_TRUE(fs::is_regular_file(dir / "caches/job.lock"));
}

TEST(JobDirectory, ReadsOnlyRegularFilesWithinTheJobAndTheLimit) {
    TempDir dir, outside;
    write_file(outside / "secret", "outside");
    const ORN::JobDirectory job(dir.str());
    write_file(dir / "caches/a.json", "12345");
    EXPECT_EQ(job.load_file("caches/a.json").text(), "12345");
    EXPECT_TRUE(job.find_file("caches/a.json") && !job.exist("caches/none"));
    std::vector<std::pair<std::string, std::string>> refused = {
        {"../secret", "load_file : " + (dir / "../secret") + " : name leaves the job directory"}};
#ifndef _WIN32 // symbolic links: POSIX only
    fs::create_symlink(outside / "secret", dir / "caches/link");
    fs::create_directory_symlink(outside.path(), dir / "linked");
    EXPECT_TRUE(!job.find_file("caches/link") && !job.find_file("linked/secret") && job.exist("caches/link"));
    refused.push_back({"caches/link", "load_file : " + (dir / "caches/link") + " : symbolic link, not followed"});
    refused.push_back({"linked/secret", "load_file : " + (dir / "linked") + " : symbolic link, not followed"});
#endif
    for (const auto &[name, line] : refused) {
        const std::string out = capture_stdout([&] { EXPECT_NE(failure_of([&] { job.load_file(name); }), ""); });
        EXPECT_EQ(out, line + "\n");
    }
    std::string text;
    const std::string out = capture_stdout([&] { text = failure_of([&] { job.load_file("caches/a.json", 5); }); });
    EXPECT_EQ(out, "load_file : " + (dir / "caches/a.json") + " : 5 bytes, over the limit of 5 bytes\n");
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : r2x < size_limit : at ")) << text;
    // The stamp changes with the file.
    const auto before = job.stamp("caches/a.json");
    EXPECT_EQ(before, job.stamp("caches/a.json"));
    write_file(dir / "caches/a.json", "123456");
    EXPECT_NE(before, job.stamp("caches/a.json"));
    EXPECT_EQ(job.stamp("caches/none").mSize, -1);
#ifndef _WIN32
    EXPECT_EQ(job.stamp("caches/link").mSize, -1);
#endif
}

TEST(FileSystemExec, ReturnsExitCodesOfTheChild) {
    TempDir dir;
#ifdef _WIN32
    // cmd.exe: 9009 for a command it cannot find; no signals.
    const std::pair<const char *, int> cases[] = {{"exit 0", 0}, {"exit 3", 3}, {"zarn_no_such_command_here 2>nul", 9009}};
    const std::string marker = "echo done> " + ORN::GlobalRuntime::quote_argument(dir / "marker"), marked = "done\r\n";
#else
    const std::pair<const char *, int> cases[] = {{"exit 0", 0}, {"exit 3", 3}, {"zarn_no_such_command_here 2>/dev/null", 127}, {"kill -9 $$", 128 + 9}};
    const std::string marker = "sleep 0.1; printf done > " + quote(dir / "marker"), marked = "done";
#endif
    for (const auto &[command, code] : cases)
        EXPECT_EQ(ORN::GlobalRuntime::system_exec(command), code) << command;
    // The child is waited for before the call returns.
    EXPECT_EQ(ORN::GlobalRuntime::system_exec(marker), 0);
    EXPECT_EQ(read_file(dir / "marker"), marked);
}

} // namespace
