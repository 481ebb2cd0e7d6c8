// zarn.exe end to end under Wine: a reconstruction job and a calibration
// job run with the stand-in libraries of the tests (openMVG_velda.dll,
// Calib.dll), their results published as hard links, their manifests and
// run records, the exit statuses, a crashing library that fails only its
// own job, and two jobs at once.
#include "support_windows.h"

namespace {

using namespace zarn_test;

// A path of the build tree as Windows names it (the build tree is on Z:).
std::string native(std::string path) {
    for (char &c : path)
        c = c == '/' ? '\\' : c;
    return "Z:" + path;
}

const std::string ZARN = native(ZARN_BINARY_DIR "/bin/zarn.exe");
const std::string VELDA_LIBS = native(ZARN_BINARY_DIR "/tests/fixtures/velda");
const std::string CALIB_LIBS = native(ZARN_BINARY_DIR "/tests/fixtures/calib");

struct RUN {
    DWORD mStatus = 0;
    std::string mOutput; // standard output and error, in one file
};

// zarn.exe with `arguments`, its output caught (it inherits the standard
// handles); ZARN_BACKEND_FAIL is `fail` for its run.
RUN zarn(const std::string &arguments, const std::string &fail = "") {
    RUN run;
    run.mOutput = capture_output([&] {
        ::SetEnvironmentVariableA("ZARN_BACKEND_FAIL", fail.empty() ? nullptr : fail.c_str());
        STARTUPINFOA startup{};
        startup.cb = sizeof(startup);
        std::string command = "\"" + ZARN + "\" " + arguments;
        PROCESS_INFORMATION process{};
        const BOOL made =
            ::CreateProcessA(ZARN.c_str(), command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process);
        ::SetEnvironmentVariableA("ZARN_BACKEND_FAIL", nullptr);
        ASSERT_TRUE(made) << "cannot start " << ZARN;
        ::WaitForSingleObject(process.hProcess, INFINITE);
        ::GetExitCodeProcess(process.hProcess, &run.mStatus);
        ::CloseHandle(process.hProcess);
        ::CloseHandle(process.hThread);
    });
    return run;
}

// A reconstruction job of type `type` with two captures.
void velda_job(const std::string &job, const std::string &type) {
    write_file(job + "\\images\\point_000_up.jpg", "up");
    write_file(job + "\\images\\point_000_down.jpg", "down");
    write_file(job + "\\caches\\split_data.json", R"({"VeldaMainProcess":{"Common":{"velda_type":")" + type + R"("}}})");
    write_file(job + "\\project.json",
               R"({"protocol":"lumora-capture","version":"1.2","description":"","category":"residential",)"
               R"("uuid":"5f3c2a9e","sceneNum":1,"dataSource":"stereo","state":{"done":false,"crashed":false},"progress":0})");
}

// A calibration job whose colour analysis is switched on.
void calib_job(const std::string &job) {
    write_file(job + "\\captures\\chart_00.jpg", "chart bytes");
    write_file(job + "\\caches\\split_data.json",
               R"({"CalibMainProcess":{"enable_calib_main_analysis":true,"analysis_raw":{"src1":"captures/chart_00.jpg"}}})");
}

void expect_linked(const std::string &job, const std::string &cached, const std::string &published) {
    const std::string identity = file_identity(job + "\\caches\\" + cached);
    EXPECT_FALSE(identity.empty()) << cached;
    EXPECT_EQ(file_identity(job + "\\results\\" + published), identity) << published;
}

TEST(LauncherRun, ReconstructionJobPublishesItsListedResultsAsHardLinks) {
    TempDir dir;
    const std::string job = dir / "house";
    velda_job(job, "interior");
    const RUN run = zarn("run --process VeldaMainProcess --libs " + VELDA_LIBS + " " + job);
    EXPECT_EQ(run.mStatus, 0u) << run.mOutput;
    EXPECT_TRUE(contains(run.mOutput, "caches/upload.part3.json : 1 files\n")) << run.mOutput;
    EXPECT_TRUE(contains(run.mOutput, "caches/upload.part9.json : 2 files\n")) << run.mOutput;
    EXPECT_TRUE(contains(run.mOutput, "done : VeldaMainProcess : " + job + " : ")) << run.mOutput;
    EXPECT_EQ(read_file(job + "\\results\\updown\\poses.txt"), "point_000_down.jpg 0 0 0\npoint_000_up.jpg 0 0 0\n");
    expect_linked(job, "updown\\poses.txt", "updown\\poses.txt");
    expect_linked(job, "ar\\poses.txt", "ar\\poses.txt");
    expect_linked(job, "ar\\anchors.json", "ar\\anchors.json");
    EXPECT_TRUE(contains(read_file(job + "\\project.json"), R"("state":{"done":true,"crashed":false})"));
    EXPECT_TRUE(contains(read_file(job + "\\caches\\zarn_run.json"), R"("state":"done")"));

    // zarn status reads the record the run left.
    const RUN status = zarn("status " + job);
    EXPECT_EQ(status.mStatus, 0u) << status.mOutput;
    EXPECT_TRUE(starts_with(status.mOutput, "done : " + job + " : ")) << status.mOutput;
}

TEST(LauncherRun, CalibrationJobWritesItsManifestOrFailsWithTheLibrarysCode) {
    TempDir dir;
    const std::string job = dir / "rig";
    calib_job(job);
    const RUN run = zarn("run --process CalibMainProcess --libs " + CALIB_LIBS + " " + job);
    EXPECT_EQ(run.mStatus, 0u) << run.mOutput;
    EXPECT_EQ(read_file(job + "\\caches\\upload.part5.json"),
              R"({"upload":[{"file":"calib/colorCalibrate.txt","clazz":"color_correction"},)"
              R"({"file":"calib/colorCalibrate.jpg","clazz":"preview"}]})");
    EXPECT_EQ(read_file(job + "\\results\\calib\\colorCalibrate.jpg"), "chart bytes");
    expect_linked(job, "calib_result\\colorCalibrate.txt", "calib\\colorCalibrate.txt");
    expect_linked(job, "calib_result\\colorCalibrate.jpg", "calib\\colorCalibrate.jpg");

    // The library fails (a write error): exit status 1, the process's error
    // lines, and the published results of the last run stay as they were.
    const std::string published = file_identity(job + "\\results\\calib\\colorCalibrate.txt");
    write_file(job + "\\captures\\chart_00.jpg", "another chart");
    const RUN failed = zarn("run --process CalibMainProcess --libs " + CALIB_LIBS + " " + job, "run_analysis_main:8");
    EXPECT_EQ(failed.mStatus, 1u) << failed.mOutput;
    EXPECT_TRUE(contains(failed.mOutput, "run_analysis_main failed : an output cannot be written\n")) << failed.mOutput;
    EXPECT_TRUE(contains(failed.mOutput, "CalibMainProcess error\n")) << failed.mOutput;
    EXPECT_TRUE(contains(failed.mOutput, "failed : CalibMainProcess : " + job + " : ")) << failed.mOutput;
    EXPECT_EQ(file_identity(job + "\\results\\calib\\colorCalibrate.txt"), published);
    EXPECT_EQ(read_file(job + "\\results\\calib\\colorCalibrate.jpg"), "chart bytes");
    EXPECT_TRUE(contains(read_file(job + "\\caches\\zarn_run.json"), R"("state":"failed")"));
    const RUN status = zarn("status " + job);
    EXPECT_EQ(status.mStatus, 1u) << status.mOutput;
    EXPECT_TRUE(starts_with(status.mOutput, "failed : " + job + " : CalibMainProcess : ")) << status.mOutput;
}

// Three jobs, two at once: the library crashes in one and ends the program
// in another, which fails those jobs only; every line of a job starts with
// its name.
TEST(LauncherRun, TwoAtOnceACrashOrAnExitFailsOnlyItsOwnJob) {
    TempDir dir;
    const std::string good = dir / "good", bad = dir / "bad", quits = dir / "quits";
    velda_job(good, "interior");
    velda_job(bad, "crash");
    velda_job(quits, "exit");
    const RUN run =
        zarn("run -j 2 --process VeldaMainProcess --libs " + VELDA_LIBS + " " + bad + " " + quits + " " + good);
    EXPECT_EQ(run.mStatus, 1u) << run.mOutput;
    EXPECT_TRUE(contains(run.mOutput, "[bad] VeldaMainProcess error\n")) << run.mOutput;
    EXPECT_TRUE(contains(run.mOutput,
                         "[bad] the program was ended by exception 0xC0000005 during VeldaMainProcess\n"))
        << run.mOutput;
    EXPECT_TRUE(contains(run.mOutput,
                         "[quits] a library ended the program with exit status 7 during VeldaMainProcess\n"))
        << run.mOutput;
    EXPECT_TRUE(contains(run.mOutput, "[good] caches/upload.part9.json : 2 files\n")) << run.mOutput;
    EXPECT_TRUE(contains(run.mOutput, "failed : VeldaMainProcess : " + quits + " : ")) << run.mOutput;
    EXPECT_TRUE(contains(run.mOutput, "failed : VeldaMainProcess : " + bad + " : ")) << run.mOutput;
    EXPECT_TRUE(contains(run.mOutput, "done : VeldaMainProcess : " + good + " : ")) << run.mOutput;
    expect_linked(good, "ar\\anchors.json", "ar\\anchors.json");
    EXPECT_FALSE(fs::exists(bad + "\\results\\ar\\anchors.json"));
    EXPECT_TRUE(contains(read_file(bad + "\\caches\\zarn_run.json"),
                         R"("failure_line":"the program was ended by exception 0xC0000005 during VeldaMainProcess")"));
}

// A process past its time limit is ended (with every program of its job)
// and fails; its record says so.
TEST(LauncherRun, TimeLimitEndsTheJob) {
    TempDir dir;
    const std::string job = dir / "slow";
    velda_job(job, "sleep");
    const RUN run = zarn("run --time-limit 1 --process VeldaMainProcess --libs " + VELDA_LIBS + " " + job);
    EXPECT_EQ(run.mStatus, 1u) << run.mOutput;
    EXPECT_TRUE(contains(run.mOutput, "VeldaMainProcess error\nVeldaMainProcess exceeded its time limit of 1 s and was ended\n"))
        << run.mOutput;
    EXPECT_TRUE(contains(read_file(job + "\\caches\\zarn_run.json"),
                         R"("failure_line":"VeldaMainProcess exceeded its time limit of 1 s and was ended")"));
}

TEST(LauncherRun, UsageErrors) {
    TempDir dir;
    const RUN submit = zarn("submit " + dir.str());
    EXPECT_EQ(submit.mStatus, 2u);
    EXPECT_EQ(submit.mOutput, "zarn: submit runs jobs on a Slurm cluster and is not available on Windows; use zarn run\n");
    const RUN process = zarn("run --process NoSuchProcess " + dir.str());
    EXPECT_EQ(process.mStatus, 2u);
    EXPECT_EQ(process.mOutput, "zarn: unknown process NoSuchProcess (see zarn list)\n");
    const RUN module = zarn("run --module " + dir.str() + "\\none.dll " + dir.str());
    EXPECT_EQ(module.mStatus, 2u);
    EXPECT_TRUE(contains(module.mOutput, "zarn: cannot load module " + dir.str() + "\\none.dll: ")) << module.mOutput;
}

} // namespace
