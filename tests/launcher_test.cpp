// The launcher and the module end to end: command line, banners, skipping,
// failures and settings, over temporary job directories.
#include "support.h"

#include "ZARN_Velda/ProcessFrame.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>

namespace {

using namespace zarn_test;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string MODULE = std::string(ZARN_BINARY_DIR) + "/lib/libZARN_Velda.so";

RunResult zarn(const std::string &arguments) { return run(quote(ZARN) + " " + arguments); }

// A job whose split data enables exactly the given sections.
void make_job(const TempDir &job, const std::string &split_data) { write_file(job / "caches/split_data.json", split_data); }

// Every path under a directory with its size and modification time.
std::vector<std::string> snapshot(const fs::path &root) {
    std::vector<std::string> entries;
    for (const auto &e : fs::recursive_directory_iterator(root)) {
        const auto time = e.last_write_time().time_since_epoch().count();
        entries.push_back(e.path().string() + " " + (e.is_regular_file() ? std::to_string(e.file_size()) : "dir") + " " +
                          std::to_string(time));
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

TEST(LauncherCommandLine, ListHelpAndVersion) {
    const auto list = zarn("list");
    EXPECT_EQ(list.status, 0);
    EXPECT_EQ(list.output, "CalibMainProcess\nStitchMainProcess\nStereoRotStitchMainProcess\nImageROIProcess\n"
                           "ImageFilterProcess\nVeldaMainProcess\nVeldaMeshProcess\nVideoTransferProcess\nVideoROIProcess\n");
    const auto help = zarn("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(starts_with(help.output, "usage:"));
    const auto version = zarn("--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(starts_with(version.output, "zarn "));
}

TEST(LauncherCommandLine, UsageErrorsExitTwoWithOneLineReason) {
    TempDir job;
    for (const std::string &arguments :
         {std::string(""), std::string("frobnicate"), "run --bogus " + job.str(), "run --process NoSuchProcess " + job.str(),
          std::string("run"), std::string("run --process"), "run --module /nonexistent/libZARN_Velda.so " + job.str()}) {
        const auto r = zarn(arguments);
        EXPECT_EQ(r.status, 2) << arguments;
        EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << arguments << ": " << r.output;
        EXPECT_TRUE(starts_with(r.output, "zarn: ")) << r.output;
    }
}

TEST(LauncherCommandLine, ALogThatCannotBeWrittenIsAUsageErrorNotAHang) {
    TempDir job, logs;
    make_job(job, R"({"VideoROIProcess":{}})");
    write_file(logs / "file", "x");
    fs::create_directories(logs / "dir/console.log");
    for (const std::string &log : {logs / "file", logs / "dir", std::string("/proc/self")}) {
        // Bounded: the console used to wait for itself for ever here.
        const auto r = run("timeout 30 " + quote(ZARN) + " run --process VideoROIProcess --log " + quote(log) + " " + job.str());
        EXPECT_EQ(r.status, 2) << log << ": " << r.output;
        EXPECT_TRUE(contains(r.output, "zarn: cannot write the log in " + log + "\n")) << r.output;
        EXPECT_FALSE(contains(r.output, "VideoROIProcess:")) << r.output;
    }
    EXPECT_EQ(read_file(logs / "file"), "x");
    EXPECT_TRUE(fs::is_directory(logs / "dir/console.log"));
}

TEST(LauncherRun, EnabledProcessPrintsBannerRunsAndEndsAllDone) {
    TempDir job;
    make_job(job, R"({"VideoROIProcess":{}})");
    const auto r = zarn("run --process VideoROIProcess " + job.str() + "/");
    ASSERT_EQ(r.status, 0) << r.output;
    const auto lines = lines_of(r.output);
    ASSERT_GE(lines.size(), 5u);
    EXPECT_EQ(lines[0], "VideoROIProcess:");
    EXPECT_TRUE(starts_with(lines[1], "BUILD-TIME = ")) << lines[1];
    // Working paths are made absolute and lose their trailing separator.
    EXPECT_EQ(lines[2], "in " + job.str() + " (" + job.path().filename().string() + ")");
    EXPECT_TRUE(starts_with(lines[lines.size() - 2], "total time costs : "));
    EXPECT_EQ(lines.back(), "all done");
    EXPECT_FALSE(contains(r.output, "skip"));
}

TEST(LauncherRun, MissingOrNullSectionSkipsAndTouchesNothing) {
    for (const std::string &split : {std::string(R"({"VeldaMainProcess":{}})"), std::string(R"({"VideoROIProcess":null})")}) {
        TempDir job;
        make_job(job, split);
        const auto before = snapshot(job.path());
        const auto r = zarn("run --process VideoROIProcess " + job.str());
        ASSERT_EQ(r.status, 0) << r.output;
        const auto lines = lines_of(r.output);
        ASSERT_EQ(lines.size(), 6u) << r.output;
        EXPECT_EQ(lines[0], "VideoROIProcess:");
        EXPECT_EQ(lines[3], "skip VideoROIProcess");
        EXPECT_TRUE(starts_with(lines[4], "total time costs : "));
        EXPECT_EQ(lines[5], "all done");
        EXPECT_EQ(snapshot(job.path()), before);
    }
}

TEST(LauncherRun, AllNineRunInDefaultOrder) {
    TempDir job;
    make_job(job, "{}");
    const auto r = zarn("run " + job.str());
    ASSERT_EQ(r.status, 0) << r.output;
    std::vector<std::string> banners;
    for (const auto &line : lines_of(r.output))
        if (line.size() > 1 && line.back() == ':' && line.find(' ') == std::string::npos)
            banners.push_back(line.substr(0, line.size() - 1));
    const auto list = lines_of(zarn("list").output);
    EXPECT_EQ(banners, list);
}

TEST(LauncherRun, MalformedSplitDataFailsThatJobOnlyAndExitsOne) {
    TempDir bad, good;
    make_job(bad, R"({"VideoROIProcess":{},})");
    make_job(good, R"({"VideoROIProcess":{}})");
    const auto r = zarn("run --process VideoROIProcess --process VideoTransferProcess " + bad.str() + " " + good.str());
    EXPECT_EQ(r.status, 1);
    const auto lines = lines_of(r.output);
    const auto error = std::find(lines.begin(), lines.end(), "VideoROIProcess error");
    ASSERT_NE(error, lines.end()) << r.output;
    ASSERT_NE(error + 1, lines.end());
    EXPECT_TRUE(starts_with(*(error + 1), "dynamic_assert failed : ")) << *(error + 1);
    EXPECT_TRUE(contains(*(error + 1), " in __ORN__/orn_serialization.cpp ,")) << *(error + 1);
    // No further process for the failed job; the next job runs whole.
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "VideoTransferProcess:"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "all done"), 2);
    EXPECT_EQ(lines.back(), "all done");
}

TEST(LauncherRun, MissingSplitDataFailsWithTheLoadAssertion) {
    TempDir job;
    const auto r = zarn("run --process VideoROIProcess " + job.str());
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.output, "load_file : " + (job / "caches/split_data.json") +
                                       " : No such file or directory\nVideoROIProcess error\n"
                                       "dynamic_assert failed : r2x >= 0 && r2x < load_file_size () : at "))
        << r.output;
}

TEST(LauncherRun, TheSplitDataIsReadOncePerJobUntilItChanges) {
    TempDir job, other, logs;
    make_job(job, "{}");
    make_job(other, "{}");
    ASSERT_EQ(zarn("run --log " + logs.str() + " " + job.str() + " " + other.str()).status, 0);
    const auto lines = lines_of(read_file(logs / "console.log"));
    const auto reads = [&](const TempDir &dir) {
        const std::string read = "][DEBUG] : split data read : " + (dir / "caches/split_data.json");
        return std::count_if(lines.begin(), lines.end(), [&](const std::string &l) { return l.ends_with(read); });
    };
    EXPECT_EQ(reads(job), 1);
    EXPECT_EQ(reads(other), 1);
}

TEST(LauncherRun, OneBuildStampForTheWholeModule) {
    TempDir job;
    make_job(job, "{}");
    const auto r = zarn("run " + job.str());
    ASSERT_EQ(r.status, 0) << r.output;
    std::vector<std::string> stamps;
    for (const auto &line : lines_of(r.output))
        if (starts_with(line, "BUILD-TIME = "))
            stamps.push_back(line);
    ASSERT_EQ(stamps.size(), 9u) << r.output;
    EXPECT_EQ(std::count(stamps.begin(), stamps.end(), stamps.front()), 9) << r.output;
    // "Mmm dd yyyy hh:mm:ss", as the compiler gives date and time.
    EXPECT_EQ(stamps.front().size(), std::string("BUILD-TIME = May 20 2025 09:18:03").size()) << stamps.front();
}

TEST(LauncherRun, NodeTraceGoesToTheLogAndToTheScreenOnlyWhenVerbose) {
    TempDir job, logs;
    make_job(job, R"({"VideoROIProcess":{}})");
    const auto quiet = zarn("run --process VideoROIProcess --log " + logs.str() + " " + job.str());
    ASSERT_EQ(quiet.status, 0) << quiet.output;
    EXPECT_FALSE(contains(quiet.output, "ACT_mWorkingPath")) << quiet.output;
    const std::string log = read_file(logs / "console.log");
    EXPECT_TRUE(contains(log, "][DEBUG] : ACT_mWorkingPath\n")) << log;
    EXPECT_TRUE(contains(log, "][VERBOSE] : ACT_mWorkingPath : action ")) << log;

    const auto verbose = zarn("run --verbose --process VideoROIProcess " + job.str());
    ASSERT_EQ(verbose.status, 0) << verbose.output;
    EXPECT_TRUE(contains(verbose.output, "\nACT_mWorkingPath\n")) << verbose.output;
    EXPECT_TRUE(contains(verbose.output, "\nACT_mWorkingPath : action ")) << verbose.output;
}

TEST(LauncherRun, LogIsWrittenAndRotated) {
    TempDir job, logs;
    make_job(job, R"({"VideoROIProcess":{}})");
    ASSERT_EQ(zarn("run --process VideoROIProcess --log " + logs.str() + " " + job.str()).status, 0);
    const std::string first = read_file(logs / "console.log");
    EXPECT_TRUE(contains(first, "][PRINT] : VideoROIProcess:\n")) << first;
    EXPECT_TRUE(contains(first, "][INFO] : all done\n")) << first;
    ASSERT_EQ(zarn("run --process VideoROIProcess --log " + logs.str() + " " + job.str()).status, 0);
    EXPECT_EQ(read_file(logs / "console.old.log"), first);
}

TEST(LauncherGraph, PrintsTheDeclaredGraphWithoutRunningIt) {
    TempDir job;
    for (const auto &process : lines_of(zarn("list").output)) {
        const auto r = zarn("graph --process " + process + " " + job.str());
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_TRUE(starts_with(r.output, "digraph")) << r.output;
        for (const char *node : {"ACT_mWorkingPath", "CON_mEnableProcess", "CON_mSettingXml", "CON_mSplitDataJson",
                                 "VAR_mWorkingPath"})
            EXPECT_TRUE(contains(r.output, std::string("label=\"") + node + "\"")) << process << " " << node;
        // The record of settings keys only where the process has keys.
        const bool keys = process == "VeldaMainProcess" || process == "VeldaMeshProcess" ||
                          process == "ImageFilterProcess" || process == "VideoTransferProcess" ||
                          process == "StitchMainProcess" || process == "StereoRotStitchMainProcess";
        EXPECT_EQ(contains(r.output, "label=\"CON_mSetting\""), keys) << process;
    }
    EXPECT_TRUE(fs::is_empty(job.path()));
    // Every node a run can play, those behind optional dependencies dashed.
    const auto velda = zarn("graph --process VeldaMainProcess " + job.str()).output;
    for (const char *node : {"CON_mVeldaHandle", "ACT_mVeldaMain_mEnable"})
        EXPECT_TRUE(contains(velda, std::string("[label=\"") + node + "\", shape=")) << node << "\n" << velda;
    EXPECT_TRUE(contains(velda, "[label=\"ACT_mVeldaMain_mEnable\", shape=box, style=dashed]")) << velda;
    EXPECT_TRUE(contains(velda, "[label=\"ACT_mWorkingPath\", shape=box]")) << velda;
    EXPECT_TRUE(fs::is_empty(job.path()));
    const auto missing = zarn("graph --process VeldaMainProcess " + job.str() + "/absent");
    EXPECT_EQ(missing.status, 2) << missing.output;
    EXPECT_EQ(missing.output, "zarn: working directory " + job.str() + "/absent does not exist\n");
}

// Settings: the working directory's file, the current directory's (--libs)
// and the module directory's are joined; the earliest that holds a key wins.
class LauncherSettings : public ::testing::Test {
protected:
    static std::string setting(const std::string &process, const std::string &keys) {
        return "<_Lumora><" + process + ">" + keys + "</" + process + "></_Lumora>";
    }
    // Runs VideoTransferProcess with a private copy of the module, so that a
    // settings file can sit in the module's directory.
    RunResult run_transfer(const std::string &extra = "--verbose ") {
        fs::copy_file(MODULE, module_dir.path() / "libZARN_Velda.so", fs::copy_options::overwrite_existing);
        return zarn("run --process VideoTransferProcess --module " + (module_dir / "libZARN_Velda.so") + " --libs " +
                    libs.str() + " " + extra + job.str());
    }
    void SetUp() override { make_job(job, R"({"VideoTransferProcess":{}})"); }

    TempDir job, libs, module_dir;
};

TEST_F(LauncherSettings, DefaultsWithoutAnyFile) {
    const auto r = run_transfer();
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nmThreadConcurrency = 1\nmFileWriterBufferSize = 268435456\n")) << r.output;
}

TEST_F(LauncherSettings, ThreeFilesJoinInSlotOrder) {
    write_file(job / "setting.xml", setting("VideoTransferProcess", R"(<mThreadConcurrency value="4"/>)"));
    write_file(libs / "setting.xml",
               setting("VideoTransferProcess", R"(<mThreadConcurrency value="9"/><mFileWriterBufferSize value="1024"/>)"));
    write_file(module_dir / "setting.xml", setting("VideoTransferProcess", R"(<mFileWriterBufferSize value="2048"/>)"));
    const auto r = run_transfer();
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nmThreadConcurrency = 4\nmFileWriterBufferSize = 1024\n")) << r.output;
    EXPECT_TRUE(contains(r.output, "setting file : " + (module_dir / "setting.xml"))) << r.output;
}

TEST_F(LauncherSettings, SameFileIsReadOnce) {
    write_file(job / "setting.xml", setting("VideoTransferProcess", R"(<mThreadConcurrency value="4"/>)"));
    const auto r = zarn("run --verbose --process VideoTransferProcess --libs " + job.str() + " " + job.str());
    ASSERT_EQ(r.status, 0) << r.output;
    const auto lines = lines_of(r.output);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const std::string &l) { return starts_with(l, "setting file : "); }), 1)
        << r.output;
    EXPECT_TRUE(contains(r.output, "\nmThreadConcurrency = 4\n"));
}

TEST_F(LauncherSettings, BrokenKeysAndFilesKeepDefaults) {
    // Two attributes, a child element, a text that is no number: defaults stay.
    write_file(job / "setting.xml", setting("VideoTransferProcess", R"(<mThreadConcurrency value="4" other="5"/>)"
                                                                    R"(<mFileWriterBufferSize value="7"><x/></mFileWriterBufferSize>)"));
    write_file(libs / "setting.xml", "<_Lumora><unclosed>");
    const auto r = run_transfer();
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nmThreadConcurrency = 1\nmFileWriterBufferSize = 268435456\n")) << r.output;
}

// The entry points called directly, as any host would.
class ModuleEntryPoints : public ::testing::Test {
protected:
    using Factory = ORN::StrongRef<ZARN::Process> (*)();
    void SetUp() override {
        mModule = dlopen(MODULE.c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(mModule, nullptr) << dlerror();
    }
    Factory factory(const std::string &name) {
        const std::string function = "create_" + name;
        const std::string symbol = "_ZN4ZARN" + std::to_string(function.size()) + function + "Ev";
        return reinterpret_cast<Factory>(dlsym(mModule, symbol.c_str()));
    }
    void *mModule = nullptr;
};

TEST_F(ModuleEntryPoints, TrailingSeparatorFailsWithTheEmptyNameAssertion) {
    TempDir job;
    make_job(job, R"({"VideoTransferProcess":{}})");
    auto process = factory("VideoTransferProcess")();
    const std::string text = failure_of([&] { process->initialize(job.str() + "/"); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : !mWorkingName.empty () : at ")) << text;
    EXPECT_TRUE(contains(text, "ZARN::VideoTransferProcess::Private::Implement::initialize")) << text;
    EXPECT_TRUE(contains(text, " in ZARN_Velda/VideoTransferProcess.cpp ,")) << text;
}

TEST_F(ModuleEntryPoints, InitializeReportsTheSwitchAndExecuteSkips) {
    TempDir job;
    make_job(job, R"({"VideoROIProcess":{}})");
    EXPECT_TRUE(factory("VideoROIProcess")()->initialize(job.str()));
    auto disabled = factory("ImageROIProcess")();
    EXPECT_FALSE(disabled->initialize(job.str()));
    const std::string out = capture_stdout([&] { disabled->execute(); });
    EXPECT_TRUE(contains(out, "\nskip ImageROIProcess\n")) << out;
}

TEST_F(ModuleEntryPoints, InitializeReadsTheSettingsEvenOfASkippedProcess) {
    TempDir job;
    make_job(job, R"({"VideoTransferProcess":{}})");
    const auto setting = [&](const char *threads) {
        write_file(job / "setting.xml", std::string("<_Lumora><VideoTransferProcess><mThreadConcurrency value=\"") +
                                            threads + "\"/></VideoTransferProcess></_Lumora>");
    };
    setting("4");
    auto process = factory("VideoTransferProcess")();
    ASSERT_TRUE(process->initialize(job.str()));
    setting("9"); // too late: the settings were read by initialize
    const std::string out = capture_stdout([&] { process->execute(); });
    EXPECT_TRUE(contains(out, "\nmThreadConcurrency = 4\n")) << out;

    // A skipped process reads them too: a settings file that is a FIFO is
    // met (and left out) in initialize.
    fs::remove(job / "setting.xml");
    ASSERT_EQ(::mkfifo((job / "setting.xml").c_str(), 0600), 0);
    auto skipped = factory("ImageROIProcess")();
    std::string text;
    const std::string said = capture_stdout([&] { EXPECT_FALSE(skipped->initialize(job.str())); });
    EXPECT_TRUE(contains(said, "setting file ignored : " + (job / "setting.xml"))) << said;
}

TEST(WorkingName, LastComponentAfterEitherSeparator) {
    EXPECT_EQ(ZARN::Frame::working_name("D:/data/proj01"), "proj01");
    EXPECT_EQ(ZARN::Frame::working_name("D:\\data\\proj01"), "proj01");
    EXPECT_EQ(ZARN::Frame::working_name("D:\\data/x\\proj01"), "proj01");
    EXPECT_EQ(ZARN::Frame::working_name("proj01"), "proj01");
    EXPECT_EQ(ZARN::Frame::working_name("D:/data/"), "");
}

TEST(ModuleSymbols, ExportsExactlyTheNineFactories) {
    const auto r = run("nm -DC --defined-only " + quote(MODULE) + " | awk '{ $1=\"\"; $2=\"\"; sub(/^  /, \"\"); print }' | sort");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(r.output, "ZARN::create_CalibMainProcess()\nZARN::create_ImageFilterProcess()\nZARN::create_ImageROIProcess()\n"
                        "ZARN::create_StereoRotStitchMainProcess()\nZARN::create_StitchMainProcess()\n"
                        "ZARN::create_VeldaMainProcess()\nZARN::create_VeldaMeshProcess()\n"
                        "ZARN::create_VideoROIProcess()\nZARN::create_VideoTransferProcess()\n");
}

} // namespace
