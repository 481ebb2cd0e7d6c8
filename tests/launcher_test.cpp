// The launcher and the module end to end: command line, banners, skipping,
// failures and settings, over temporary job directories.
#include "support.h"

#include "ZARN_Velda/ProcessFrame.h"

#include <dlfcn.h>
#include <signal.h>
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
    for (const auto &[log, line] :
         {std::pair{logs / "file", "zarn: cannot write the log " + (logs / "file") + " : Not a directory\n"},
          std::pair{logs / "dir", "zarn: cannot write the log " + (logs / "dir/console.log") + " : Is a directory\n"},
          std::pair{std::string("/proc/self"), std::string("zarn: cannot write the log /proc/self/console.log : ")}}) {
        // Bounded: the console used to wait for itself for ever here.
        const auto r = run("timeout 30 " + quote(ZARN) + " run --process VideoROIProcess --log " + quote(log) + " " + job.str());
        EXPECT_EQ(r.status, 2) << log << ": " << r.output;
        EXPECT_TRUE(starts_with(r.output, line)) << r.output;
        EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
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
    EXPECT_TRUE(starts_with(lines[lines.size() - 4], "total time costs : "));
    EXPECT_EQ(lines[lines.size() - 3], "all done");
    EXPECT_EQ(lines[lines.size() - 2], "summary :");
    EXPECT_TRUE(starts_with(lines.back(), "done : VideoROIProcess : " + job.str() + " : ")) << lines.back();
    EXPECT_FALSE(contains(r.output, "skip"));
}

TEST(LauncherRun, MissingOrNullSectionSkipsAndTouchesNothingButTheRunRecord) {
    // What the job holds besides the run record, its lock and their folder.
    const auto snapshot_of_work = [](const TempDir &job) {
        auto entries = snapshot(job.path());
        std::erase_if(entries, [&](const std::string &e) {
            return starts_with(e, job / "caches ") || starts_with(e, job / "caches/zarn_run.json ") ||
                   starts_with(e, job / "caches/job.lock ");
        });
        return entries;
    };
    for (const std::string &split : {std::string(R"({"VeldaMainProcess":{}})"), std::string(R"({"VideoROIProcess":null})")}) {
        TempDir job;
        make_job(job, split);
        const auto before = snapshot_of_work(job);
        const auto r = zarn("run --process VideoROIProcess " + job.str());
        ASSERT_EQ(r.status, 0) << r.output;
        const auto lines = lines_of(r.output);
        ASSERT_EQ(lines.size(), 8u) << r.output;
        EXPECT_EQ(lines[0], "VideoROIProcess:");
        EXPECT_EQ(lines[3], "skip VideoROIProcess");
        EXPECT_TRUE(starts_with(lines[4], "total time costs : "));
        EXPECT_EQ(lines[5], "all done");
        EXPECT_TRUE(starts_with(lines[7], "skipped : VideoROIProcess : ")) << lines[7];
        EXPECT_EQ(snapshot_of_work(job), before);
        EXPECT_TRUE(contains(read_file(job / "caches/zarn_run.json"), R"("state":"done","processes":[{"name":"VideoROIProcess","state":"skipped",)"));
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
    // The summary: the failure first, then the rest in the order of the run.
    const auto summary = std::find(lines.begin(), lines.end(), "summary :");
    ASSERT_EQ(lines.end() - summary, 5) << r.output;
    EXPECT_TRUE(starts_with(summary[1], "failed : VideoROIProcess : " + bad.str() + " : ")) << summary[1];
    EXPECT_TRUE(starts_with(summary[2], "not run : VideoTransferProcess : " + bad.str() + " : ")) << summary[2];
    EXPECT_TRUE(starts_with(summary[3], "done : VideoROIProcess : " + good.str() + " : ")) << summary[3];
    EXPECT_TRUE(starts_with(summary[4], "skipped : VideoTransferProcess : " + good.str() + " : ")) << summary[4];
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
        // The record of settings keys only where the process has keys: all
        // but the calibration, which hands no work to workers.
        const bool keys = process != "CalibMainProcess";
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

// A reconstruction job for the reference library, which the fault injection
// of the environment can make hang.
class LauncherWatch : public ::testing::Test {
protected:
    fs::path job(const std::string &name) {
        const fs::path dir = root.path() / name;
        fs::create_directories(dir / "images");
        for (const char *image : {"point_000_down.png", "point_000_up.png"})
            fs::copy_file(fs::path(ZARN_SOURCE_DIR) / "examples/sample-job/images" / image, dir / "images" / image);
        write_file(dir / "caches/split_data.json", R"({"VeldaMainProcess":{"Common":{"velda_type":"indoor"}}})");
        return dir;
    }
    std::string command(const std::string &env, const std::string &arguments) const {
        return "env -u ZARN_BACKEND_FAIL -u ZARN_BACKEND_THROW -u ZARN_BACKEND_HANG NO_COLOR=1 " + env + " " + quote(ZARN) +
               " run --process VeldaMainProcess --libs " + quote(std::string(ZARN_BINARY_DIR) + "/backends") + " " +
               arguments;
    }
    TempDir root, logs;
};

TEST_F(LauncherWatch, AHungLibraryIsEndedAtItsTimeLimitAndTheNextJobRuns) {
    const fs::path hung = job("hung"), good = job("good");
    write_file(good / "caches/split_data.json", "{}");
    // The option, bounded from outside in case the limit is not kept.
    const auto r = run("timeout 120 " + command("ZARN_BACKEND_HANG=run_velda_main", "--time-limit 2 --log " + logs.str() +
                                                                                      " " + hung.string() + " " + good.string()));
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "VeldaMainProcess error\nVeldaMainProcess exceeded its time limit of 2 s and was ended\n"))
        << r.output;
    // What the library printed reached the console and the log as lines.
    const std::string log = read_file(logs / "console.log");
    EXPECT_TRUE(contains(log, "][PRINT] : run_velda_main : hanging\n")) << log;
    EXPECT_TRUE(contains(log, "][WARN] : run_velda_main : hanging\n")) << log;
    // The summary: failures first, then the rest in the order of the run.
    const auto lines = lines_of(r.output);
    const auto summary = std::find(lines.begin(), lines.end(), "summary :");
    ASSERT_EQ(lines.end() - summary, 3) << r.output;
    EXPECT_TRUE(starts_with(summary[1], "failed : VeldaMainProcess : " + hung.string() + " : 2.")) << summary[1];
    EXPECT_TRUE(starts_with(summary[2], "skipped : VeldaMainProcess : " + good.string() + " : ")) << summary[2];
    // The run record says where and why the job stopped.
    const std::string record = read_file(hung / "caches/zarn_run.json");
    EXPECT_TRUE(contains(record, R"(,"state":"failed","processes":[{"name":"VeldaMainProcess","state":"failed",)")) << record;
    EXPECT_TRUE(contains(record, R"("failure_line":"VeldaMainProcess exceeded its time limit of 2 s and was ended",)"))
        << record;
    // Nothing of the hung job is left running: its lock is free at once.
    const auto again = run("timeout 120 " + command("", "--no-wait " + hung.string()));
    EXPECT_EQ(again.status, 0) << again.output;

    // The same limit from the job's settings.
    const fs::path set_job = job("set");
    write_file(set_job / "setting.xml", "<_Lumora><VeldaMainProcess><mProcessTimeLimit value=\"1\"/></VeldaMainProcess></_Lumora>");
    const auto set = run("timeout 120 " + command("ZARN_BACKEND_HANG=run_velda_main", set_job.string()));
    EXPECT_EQ(set.status, 1) << set.output;
    EXPECT_TRUE(contains(set.output, "VeldaMainProcess exceeded its time limit of 1 s and was ended\n")) << set.output;
}

TEST_F(LauncherWatch, AStopSignalReachesTheWholeJob) {
    const fs::path hung = job("hung"), next = job("next");
    const std::string pid = root / "pid", status = root / "status";
    ASSERT_EQ(run("(" + command("ZARN_BACKEND_HANG=run_velda_main", "--log " + logs.str() + " " + hung.string() + " " +
                                next.string()) +
                  " > " + quote(root / "out") + " 2>&1 & echo $! > " + quote(pid) + "; wait $!; echo $? > " + quote(status) +
                  ") > /dev/null 2>&1 &")
                  .status,
              0);
    // Once the library hangs, the launcher is sent SIGTERM.
    for (int i = 0; i < 600 && !contains(read_file(logs / "console.log"), "run_velda_main : hanging"); ++i)
        ::usleep(100000);
    ASSERT_TRUE(contains(read_file(logs / "console.log"), "run_velda_main : hanging"));
    ASSERT_EQ(::kill(std::stoi(read_file(pid)), SIGTERM), 0);
    for (int i = 0; i < 600 && read_file(status).empty(); ++i)
        ::usleep(100000);
    EXPECT_EQ(read_file(status), "143\n") << read_file(root / "out");
    const std::string out = read_file(root / "out");
    EXPECT_TRUE(contains(out, "zarn was sent signal 15 (Terminated) during VeldaMainProcess; the job was stopped\n")) << out;
    EXPECT_TRUE(contains(out, "not run : VeldaMainProcess : " + next.string() + " : ")) << out;
    EXPECT_FALSE(fs::exists(next / "caches/vision.json"));
    const std::string record = read_file(hung / "caches/zarn_run.json");
    EXPECT_TRUE(contains(record, R"(,"state":"interrupted","processes":[{"name":"VeldaMainProcess","state":"interrupted",)"))
        << record;
    EXPECT_TRUE(contains(record, R"("failure_line":"zarn was sent signal 15 (Terminated) during VeldaMainProcess; the job was stopped",)"))
        << record;
    EXPECT_FALSE(fs::exists(next / "caches/zarn_run.json")) << "a job that never started keeps its record";
    // The job's child went with it: the lock is free.
    const auto again = run("timeout 120 " + command("", "--no-wait " + hung.string()));
    EXPECT_EQ(again.status, 0) << again.output;
}

TEST(LauncherRun, NamesFromAJobCannotForgeLinesOrMoveTheCursor) {
    TempDir root, logs;
    const fs::path job = root.path() / "job\n[ERROR] forged\x1b[2J";
    write_file(job / "caches/split_data.json", R"({"VideoROIProcess":{}})");
    const auto r = zarn("run --process VideoROIProcess --log " + logs.str() + " " + quote(job.string()));
    ASSERT_EQ(r.status, 0) << r.output;
    const std::string shown = "(job\\n[ERROR] forged\\x1b[2J)\n";
    EXPECT_TRUE(contains(r.output, shown)) << r.output;
    const std::string log = read_file(logs / "console.log");
    EXPECT_TRUE(contains(log, shown)) << log;
    for (const std::string &text : {r.output, log}) {
        EXPECT_FALSE(contains(text, "\n[ERROR] forged")) << text;
        EXPECT_FALSE(contains(text, "\x1b")) << text;
    }
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
