// CalibMainProcess end to end: the launcher, the module and the reference
// calibration library over a synthetic calibration capture made by
// zarn_capture --calibration.
#include "support.h"

#include <regex>
#include <rapidjson/document.h>

#include <algorithm>

namespace {

using namespace zarn_test;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";
const std::string FIXTURES = std::string(ZARN_BINARY_DIR) + "/tests/fixtures";

const std::vector<std::string> CALIB = {"down.jpg",    "up.jpg",      "Down.xml",   "Up.xml",       "Up2.xml",
                                        "tablea.bin",  "tablea2.bin", "tableb.bin", "sfm_init.bin", "sfm_init.json"};
const std::vector<std::string> ANALYSIS = {"colorCalibrate.txt", "colorCalibrate.jpg"};
const std::vector<std::string> SHADING = {"shadingCalibrate"};

// The regular files of a folder, sorted.
std::vector<std::string> files_in(const fs::path &dir) {
    std::vector<std::string> names;
    if (fs::exists(dir))
        for (const auto &e : fs::directory_iterator(dir))
            names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The job's files of a kind ("captures/chart_*"), relative to the job.
std::string first_capture(const fs::path &job, const std::string &prefix) {
    for (const auto &name : files_in(job / "captures"))
        if (starts_with(name, prefix))
            return "captures/" + name;
    return "";
}

class CalibMain : public ::testing::Test {
protected:
    // One calibration capture for all the cases; each case works on a copy.
    static void SetUpTestSuite() {
        sCapture = new TempDir;
        const auto r = run(quote(CAPTURE) + " " + quote(sCapture->str()) + " --points 0 --videos 0 --calibration");
        ASSERT_EQ(r.status, 0) << r.output;
    }
    static void TearDownTestSuite() {
        delete sCapture;
        sCapture = nullptr;
    }

    fs::path make_job(const std::string &name, bool calib, bool analysis, bool shading) {
        const fs::path job = mRoot.path() / name;
        fs::copy(sCapture->path(), job, fs::copy_options::recursive);
        const std::string chart = first_capture(job, "chart_"), flat = first_capture(job, "flat_");
        EXPECT_FALSE(chart.empty() || flat.empty());
        auto flag = [](bool on) { return on ? "true" : "false"; };
        write_file(job / "caches/split_data.json",
                   std::string(R"({"CalibMainProcess":{"enable_calib_main_calib":)") + flag(calib) +
                       R"(,"enable_calib_main_analysis":)" + flag(analysis) + R"(,"enable_calib_main_shading":)" +
                       flag(shading) + R"(,"analysis_raw":{"src1":")" + chart + R"("},"shading_raw":{"src1":")" + flat +
                       R"("}}})");
        return job;
    }

    RunResult calibrate(const fs::path &job, const std::string &env = "", const std::string &libs = BACKENDS) {
        std::string command = "env -u ZARN_BACKEND_FAIL -u ZARN_BACKEND_THROW NO_COLOR=1 ZARN_BACKEND_TRACE=";
        command.append(quote(trace())).append(" ").append(env).append(" ").append(quote(ZARN));
        command.append(" run --process CalibMainProcess --libs ").append(quote(libs)).append(" ");
        command.append(quote(job.string()));
        return run(command);
    }
    std::string trace() const { return mRoot / "trace.txt"; }
    std::string traced() const { return fs::exists(trace()) ? read_file(trace()) : std::string(); }

    static TempDir *sCapture;
    TempDir mRoot;
};
TempDir *CalibMain::sCapture = nullptr;

TEST_F(CalibMain, EachStagePublishesItsOwnFilesOnly) {
    struct CASE {
        bool mCalib, mAnalysis, mShading;
        std::vector<std::string> mFiles;
        std::vector<std::string> mEntries; // called, in order
    };
    std::vector<std::string> all = CALIB;
    all.insert(all.end(), ANALYSIS.begin(), ANALYSIS.end());
    all.insert(all.end(), SHADING.begin(), SHADING.end());
    const std::vector<CASE> cases = {
        {true, false, false, CALIB, {"run_calib_main"}},
        {false, true, false, ANALYSIS, {"run_analysis_main"}},
        {false, false, true, SHADING, {"run_shading_main"}},
        {true, true, true, all, {"run_calib_main", "run_analysis_main", "run_shading_main"}},
    };
    int n = 0;
    for (const CASE &c : cases) {
        const fs::path job = make_job("job" + std::to_string(n++), c.mCalib, c.mAnalysis, c.mShading);
        fs::remove(trace());
        const auto r = calibrate(job);
        ASSERT_EQ(r.status, 0) << r.output;
        std::vector<std::string> entries;
        for (const auto &line : lines_of(traced()))
            entries.push_back(line.substr(0, line.find(' ')));
        EXPECT_EQ(entries, c.mEntries);
        const auto lines = lines_of(r.output);
        EXPECT_EQ(std::size_t(std::count(lines.begin(), lines.end(), "return value = 0")), c.mEntries.size()) << r.output;

        // Exactly the stage's files, each the very file of the cache.
        std::vector<std::string> expected = c.mFiles;
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(files_in(job / "results/calib"), expected);
        for (const auto &name : c.mFiles)
            EXPECT_EQ(inode_of(job / "results/calib" / name), inode_of(job / "caches/calib_result" / name)) << name;

        // The manifest lists them in stage order, with their classes.
        rapidjson::Document d;
        d.Parse(read_file(job / "caches/upload.part5.json").c_str());
        ASSERT_FALSE(d.HasParseError());
        ASSERT_EQ(d["upload"].Size(), c.mFiles.size());
        for (rapidjson::SizeType i = 0; i < d["upload"].Size(); ++i) {
            EXPECT_EQ(std::string(d["upload"][i]["file"].GetString()), "calib/" + c.mFiles[i]);
            EXPECT_GT(std::string(d["upload"][i]["clazz"].GetString()).size(), 0u);
        }
    }
}

TEST_F(CalibMain, TheManifestIsWrittenExactly) {
    const fs::path job = make_job("job", false, true, true);
    ASSERT_EQ(calibrate(job).status, 0);
    EXPECT_EQ(read_file(job / "caches/upload.part5.json"),
              R"({"upload":[{"file":"calib/colorCalibrate.txt","clazz":"color_correction"},)"
              R"({"file":"calib/colorCalibrate.jpg","clazz":"preview"},)"
              R"({"file":"calib/shadingCalibrate","clazz":"shading_map"}]})");
}

TEST_F(CalibMain, WithEveryStageOffNothingIsLoadedCalledOrPublished) {
    const fs::path job = make_job("job", false, false, false);
    const TempDir empty; // no library at all
    const auto r = calibrate(job, "", empty.str());
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(traced(), "");
    EXPECT_TRUE(files_in(job / "results/calib").empty());
    EXPECT_EQ(read_file(job / "caches/upload.part5.json"), R"({"upload":[]})");
}

TEST_F(CalibMain, AFailingOrThrowingStageStopsBeforeAnythingIsPublished) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"ZARN_BACKEND_FAIL=run_analysis_main:6",
         "\nrun_analysis_main failed : the colour chart is not found in any capture\nreturn value = 6\nCalibMainProcess error\n"
                                                  "dynamic_assert failed : mMainReturnValue == 0 : at "},
        {"ZARN_BACKEND_FAIL=run_shading_main:-3", "\nreturn value = -3\nCalibMainProcess error\n"
                                                  "dynamic_assert failed : mMainReturnValue == 0 : at "},
        {"ZARN_BACKEND_THROW=run_calib_main", "\nrun_calib_main : injected fault\nCalibMainProcess error\n"
                                              "dynamic_assert failed : false : at "},
    };
    int n = 0;
    for (const auto &[env, text] : cases) {
        const fs::path job = make_job("job" + std::to_string(n++), true, true, true);
        const auto r = calibrate(job, env);
        EXPECT_EQ(r.status, 1) << r.output;
        EXPECT_TRUE(contains(r.output, text)) << env << "\n" << r.output;
        EXPECT_TRUE(files_in(job / "results/calib").empty()) << env;
        EXPECT_FALSE(fs::exists(job / "caches/upload.part5.json")) << env;
    }
}

TEST_F(CalibMain, ALibraryWithoutOneOfItsEntriesFailsToBind) {
    const fs::path job = make_job("job", true, false, false);
    const std::vector<std::string> entries = {"run_shading_main", "run_analysis_main", "run_calib_main"};
    for (std::size_t k = 0; k < entries.size(); ++k) {
        const auto r = calibrate(job, "", FIXTURES + "/calib_omit_" + std::to_string(k + 1));
        EXPECT_EQ(r.status, 1) << r.output;
        EXPECT_TRUE(contains(r.output, "function : " + entries[k] + "\nError = 2 : ")) << r.output;
        EXPECT_TRUE(contains(r.output, "CalibMainProcess error\ndynamic_assert failed : false : at ")) << r.output;
    }
}

TEST_F(CalibMain, GivenInputsReachTheLibraryFirstWhateverTheirKeys) {
    const fs::path job = make_job("job", false, true, false);
    const std::string chart = first_capture(job, "chart_");
    write_file(job / "caches/split_data.json", R"({"CalibMainProcess":{"enable_calib_main_analysis":true,)"
                                               R"("analysis_raw":{"src1":"","src3":")" + chart + R"("}}})");
    const auto r = calibrate(job);
    ASSERT_EQ(r.status, 0) << r.output;
    // The input reaches the library as the file the process opened and checked.
    const std::regex call("run_analysis_main \"/proc/self/fd/[0-9]+\" \"\" \"\" \"\" \"" + job.string() + "\" \"1\"\n");
    EXPECT_TRUE(std::regex_match(traced(), call)) << traced();
}

// Inputs reached through a link, or swapped for one, are never read, and a
// stage's outputs of an earlier run cannot pass for this run's: a library
// that leaves one out fails the run before anything is published.
TEST_F(CalibMain, InputsThroughLinksAndStaleOutputsAreRefused) {
    const fs::path job = make_job("job", false, true, false);
    const std::string chart = first_capture(job, "chart_");
    ASSERT_EQ(calibrate(job).status, 0);
    const auto published = files_in(job / "results/calib");
    ASSERT_FALSE(published.empty());
    const auto inode = inode_of(job / "results/calib/colorCalibrate.txt");

    // A chart outside the job, reached through a linked file and a linked folder.
    const fs::path outside = job.parent_path() / "outside";
    fs::create_directories(outside / "dir");
    fs::copy_file(job / chart, outside / "chart.jpg");
    fs::copy_file(job / chart, outside / "dir/chart.jpg");
    fs::create_symlink(outside / "chart.jpg", job / "linked.jpg");
    fs::create_directory_symlink(outside / "dir", job / "linked");
    for (const std::string name : {"linked.jpg", "linked/chart.jpg"}) {
        write_file(job / "caches/split_data.json", R"({"CalibMainProcess":{"enable_calib_main_analysis":true,)"
                                                   R"("analysis_raw":{"src1":")" + name + R"("}}})");
        const auto r = calibrate(job);
        EXPECT_EQ(r.status, 1) << r.output;
        EXPECT_TRUE(contains(r.output, " : symbolic link, not followed\nCalibMainProcess error\n")) << r.output;
        EXPECT_EQ(inode_of(job / "results/calib/colorCalibrate.txt"), inode) << name;
    }

    // The library leaves out one of its files: the earlier run's copy is gone
    // from the cache, so the run fails and the published set stays whole.
    write_file(job / "caches/split_data.json", R"({"CalibMainProcess":{"enable_calib_main_analysis":true,)"
                                               R"("analysis_raw":{"src1":")" + chart + R"("}}})");
    const auto r = calibrate(job, "ZARN_FORCE=1 ZARN_BACKEND_OMIT=colorCalibrate.jpg");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "missing file : " + (job / "caches/calib_result/colorCalibrate.jpg").string()))
        << r.output;
    EXPECT_EQ(files_in(job / "results/calib"), published);
    EXPECT_EQ(inode_of(job / "results/calib/colorCalibrate.txt"), inode);

    // A later run with no stage leaves nothing published as if current.
    write_file(job / "caches/split_data.json", R"({"CalibMainProcess":{}})");
    ASSERT_EQ(calibrate(job).status, 0);
    EXPECT_TRUE(files_in(job / "results/calib").empty());
    EXPECT_EQ(read_file(job / "caches/upload.part5.json"), R"({"upload":[]})");
}

// A stage whose inputs are unchanged keeps its results; a changed input, a
// missing result or a forced run calls the library again.
TEST_F(CalibMain, AnUpToDateStageIsKeptUnlessForced) {
    const fs::path job = make_job("job", false, true, true);
    ASSERT_EQ(calibrate(job).status, 0);
    const auto published = tree(job / "results/calib");
    fs::remove(trace());
    const auto again = calibrate(job);
    ASSERT_EQ(again.status, 0) << again.output;
    EXPECT_EQ(traced(), "");
    EXPECT_TRUE(contains(again.output, "calibration stage : colour analysis : up to date\n")) << again.output;
    EXPECT_EQ(tree(job / "results/calib"), published);

    fs::remove(job / "caches/calib_result/shadingCalibrate");
    ASSERT_EQ(calibrate(job).status, 0);
    EXPECT_TRUE(starts_with(traced(), "run_shading_main ")) << traced();
    fs::remove(trace());
    ASSERT_EQ(calibrate(job, "ZARN_FORCE=1").status, 0);
    EXPECT_TRUE(starts_with(traced(), "run_analysis_main ")) << traced();
    EXPECT_TRUE(contains(traced(), "\nrun_shading_main ")) << traced();
}

TEST_F(CalibMain, AMissingRawInputStopsBeforeItsStage) {
    const fs::path job = make_job("job", false, true, false);
    const std::string chart = first_capture(job, "chart_");
    fs::remove(job / chart);
    const auto r = calibrate(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "missing file : " + (job / chart).string() + "\nCalibMainProcess error\n"))
        << r.output;
    EXPECT_EQ(traced(), "");
}

// The rig calibrated in the job is the one its captures are stitched with.
TEST_F(CalibMain, TheStitcherUsesTheTablesTheCalibrationPublished) {
    const fs::path job = mRoot.path() / "rig";
    ASSERT_EQ(run(quote(CAPTURE) + " " + quote(job.string()) + " --points 1 --videos 0 --calibration").status, 0);
    write_file(job / "caches/split_data.json",
               R"({"CalibMainProcess":{"enable_calib_main_calib":true},"StitchMainProcess":{}})");
    write_file(job / "setting.xml",
               "<_Lumora><StitchMainProcess><mPanoramaQuality value=\"draft\"/></StitchMainProcess></_Lumora>");
    const auto r = run("env NO_COLOR=1 " + quote(ZARN) + " run --process CalibMainProcess --process StitchMainProcess --libs " +
                       quote(BACKENDS) + " " + quote(job.string()));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nlens tables : results/calib/tablea.bin, results/calib/tableb.bin\n")) << r.output;
    EXPECT_TRUE(fs::exists(job / "caches/images/point_000.jpg"));
}

} // namespace
