// VeldaMainProcess end to end: the launcher, the module and the reference
// reconstruction library (or a test stand-in) over temporary job directories.
#include "support.h"

#include "__ORN__/orn_serialization.h"

#include <algorithm>
#include <map>

namespace {

using namespace zarn_test;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";
const std::string REPLAY = std::string(ZARN_BINARY_DIR) + "/tests/fixtures/replay";
const std::string NOENTRY = std::string(ZARN_BINARY_DIR) + "/tests/fixtures/noentry";
const fs::path SAMPLE_IMAGES = fs::path(ZARN_SOURCE_DIR) / "examples/sample-job/images";

const std::string PROJECT = R"({
  "protocol": "lumora-capture", "version": "1.2", "description": "Two rooms",
  "category": "residential", "uuid": "5f3c2a9e", "sceneNum": 3, "dataSource": "stereo",
  "create_time": "2026-11-20 09:41:07", "create_time_s": 1795599667,
  "state": {"done": false, "crashed": true},
  "expect_time": "2026-11-20 10:30:00", "expect_time_s": 1795602600, "progress": 0
})";
// PROJECT as written after a run that left a vision file.
const std::string PROJECT_DONE =
    R"({"protocol":"lumora-capture","version":"1.2","description":"Two rooms","category":"residential",)"
    R"("uuid":"5f3c2a9e","sceneNum":3,"dataSource":"stereo","create_time":"2026-11-20 09:41:07",)"
    R"("create_time_s":1795599667,"state":{"done":true,"crashed":false},"expect_time":"2026-11-20 10:30:00",)"
    R"("expect_time_s":1795602600,"progress":100})";

class VeldaMain : public ::testing::Test {
protected:
    // A job with two sample images, the process's split data and, unless
    // empty, the given project record.
    fs::path make_job(const std::string &name, const std::string &project = PROJECT,
                      const std::string &type = "indoor") {
        const fs::path job = mRoot.path() / name;
        fs::create_directories(job / "images");
        for (const char *image : {"point_000_down.png", "point_000_up.png"})
            fs::copy_file(SAMPLE_IMAGES / image, job / "images" / image);
        write_file(job / "caches/split_data.json",
                   R"({"VeldaMainProcess":{"Common":{"velda_type":")" + type + R"("}}})");
        if (!project.empty())
            write_file(job / "project.json", project);
        return job;
    }

    RunResult velda(const fs::path &job, const std::string &libs = BACKENDS, const std::string &env = "") {
        return run("env -u ZARN_BACKEND_FAIL -u ZARN_BACKEND_THROW NO_COLOR=1 ZARN_BACKEND_TRACE=" + quote(trace()) +
                   " " + env + " " + quote(ZARN) + " run --process VeldaMainProcess --libs " + quote(libs) + " " +
                   quote(job.string()));
    }

    std::string trace() const { return mRoot / "trace.txt"; }

    TempDir mRoot;
};

// The "file" entries of a manifest.
std::vector<std::string> manifest(const fs::path &file) {
    std::vector<std::string> files;
    for (const auto &entry : ORN::JsonParser(read_file(file)).child("upload").children())
        files.push_back(entry.child("file").value());
    return files;
}

TEST_F(VeldaMain, FirstRunPublishesEveryListedFileAsHardLinkAndWritesRecord) {
    const fs::path job = make_job("job");
    const auto r = velda(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nreturn value = 0\n")) << r.output;
    EXPECT_TRUE(contains(r.output, "\nall done\nsummary :\n")) << r.output;
    EXPECT_EQ(read_file(trace()), "run_velda_main \"\" \"indoor\" \"" + job.string() + "\"\n");

    std::map<std::string, ino_t> listed;
    for (const char *part : {"caches/upload.part3.json", "caches/upload.part9.json"})
        for (const auto &file : manifest(job / part)) {
            listed[file] = inode_of(job / "caches" / file);
            EXPECT_NE(listed[file], 0u) << file;
        }
    EXPECT_TRUE(listed.contains("updown/thumbnails/point_000_up.png"));
    EXPECT_TRUE(listed.contains("ar/anchors.json"));
    // Exactly the listed files, each the very file of the cache.
    EXPECT_EQ(tree(job / "results"), listed);
    EXPECT_TRUE(fs::is_directory(job / "caches/floorplan"));
    EXPECT_EQ(read_file(job / "project.json"), PROJECT_DONE);
    EXPECT_FALSE(fs::exists(job / "project.json.tmp"));
}

TEST_F(VeldaMain, DoneJobSaysAlreadyDoneAndTouchesNoLibraryButPublishesAgain) {
    const fs::path job = make_job("job");
    ASSERT_EQ(velda(job).status, 0);
    const auto results = tree(job / "results");
    // A result lost from "results/" comes back from the cache.
    fs::remove(job / "results/updown/poses.txt");
    fs::remove(job / "results/ar/anchors.json");
    const auto r = velda(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nalready done\n")) << r.output;
    EXPECT_FALSE(contains(r.output, "return value = ")) << r.output;
    EXPECT_EQ(lines_of(read_file(trace())).size(), 1u);
    EXPECT_EQ(tree(job / "results"), results);
    EXPECT_EQ(read_file(job / "project.json"), PROJECT_DONE);

    // Not even opened: a directory without the library serves as well.
    const TempDir empty;
    const auto again = velda(job, empty.str());
    EXPECT_EQ(again.status, 0) << again.output;
    EXPECT_TRUE(contains(again.output, "\nalready done\n"));
}

TEST_F(VeldaMain, FailingLibraryStopsTheRunAndKeepsEarlierResultsAndRecord) {
    const fs::path job = make_job("job");
    ASSERT_EQ(velda(job).status, 0);
    write_file(job / "project.json", PROJECT); // asks for a new run
    const auto results = tree(job / "results");
    const std::string poses = read_file(job / "results/updown/poses.txt");

    for (const auto &[code, line] : {std::pair{"7", "return value = 7"}, std::pair{"-2", "return value = -2"}}) {
        const auto r = velda(job, BACKENDS, std::string("ZARN_BACKEND_FAIL=run_velda_main:") + code);
        EXPECT_EQ(r.status, 1) << r.output;
        EXPECT_TRUE(contains(r.output, std::string("\n") + line + "\nVeldaMainProcess error\n"
                                           "dynamic_assert failed : mMainReturnValue == 0 : at "))
            << r.output;
        EXPECT_TRUE(contains(r.output, " in ZARN_Velda/VeldaMainProcess.cpp ,")) << r.output;
        EXPECT_FALSE(contains(r.output, "all done"));
        EXPECT_EQ(read_file(job / "project.json"), PROJECT);
        EXPECT_EQ(tree(job / "results"), results);
        EXPECT_EQ(read_file(job / "results/updown/poses.txt"), poses);
    }
}

TEST_F(VeldaMain, ExceptionFromLibraryBecomesAssertionFalse) {
    const fs::path job = make_job("job");
    const auto r = velda(job, BACKENDS, "ZARN_BACKEND_THROW=run_velda_main");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "VeldaMainProcess error\ndynamic_assert failed : false : at ")) << r.output;
    EXPECT_TRUE(contains(r.output, "ACT_mVeldaMain_mEnable")) << r.output;
    EXPECT_FALSE(contains(r.output, "return value = "));
    EXPECT_EQ(read_file(job / "project.json"), PROJECT);
    EXPECT_TRUE(tree(job / "results").empty());
}

TEST_F(VeldaMain, MissingLibraryOrEntryFailsWithBindingTexts) {
    const fs::path job = make_job("job");
    const TempDir empty;
    const auto missing = velda(job, empty.str());
    EXPECT_EQ(missing.status, 1) << missing.output;
    EXPECT_TRUE(contains(missing.output, "Error = ")) << missing.output;
    EXPECT_TRUE(contains(missing.output, "libopenMVG_velda.so")) << missing.output;
    EXPECT_TRUE(contains(missing.output, "VeldaMainProcess error\ndynamic_assert failed : false : at ")) << missing.output;

    const auto unlinked = velda(job, NOENTRY);
    EXPECT_EQ(unlinked.status, 1) << unlinked.output;
    EXPECT_TRUE(contains(unlinked.output, "function : run_velda_main\nError = ")) << unlinked.output;
    EXPECT_TRUE(contains(unlinked.output, "dynamic_assert failed : false : at ")) << unlinked.output;
    EXPECT_FALSE(fs::exists(trace()));
    EXPECT_EQ(read_file(job / "project.json"), PROJECT);
    // Nothing of the last run was deleted for a library that is not there.
    for (const char *file : {"vision.json", "floorplan.json", "mesh.json"})
        write_file(job / "caches" / file, "{}");
    ASSERT_EQ(velda(job, empty.str()).status, 1);
    ASSERT_EQ(velda(job, NOENTRY).status, 1);
    for (const char *file : {"vision.json", "floorplan.json", "mesh.json"})
        EXPECT_EQ(read_file(job / "caches" / file), "{}") << file;
}

TEST_F(VeldaMain, LibraryGetsTheTypeAsUtf8TextAndThePathUnchanged) {
    const fs::path job = make_job("job with space", PROJECT, "室内");
    ASSERT_EQ(velda(job).status, 0);
    EXPECT_EQ(read_file(trace()), "run_velda_main \"\" \"室内\" \"" + job.string() + "\"\n");
    EXPECT_TRUE(contains(read_file(job / "caches/vision.json"), R"({"type":"室内",)"));
}

TEST_F(VeldaMain, PublishingReplacesAnExistingResultWithAFreshLink) {
    const fs::path job = make_job("job");
    write_file(job / "results/updown/poses.txt", "stale");
    write_file(job / "results/ar/anchors.json", "stale");
    // Results of an earlier run that this one no longer lists are unpublished.
    write_file(job / "results/updown/thumbnails/gone.jpg", "stale");
    write_file(job / "results/ar/gone.json", "stale");
    ASSERT_EQ(velda(job).status, 0);
    for (const char *file : {"updown/poses.txt", "ar/anchors.json"}) {
        EXPECT_EQ(inode_of(job / "results" / file), inode_of(job / "caches" / file)) << file;
        EXPECT_NE(read_file(job / "results" / file), "stale");
    }
    EXPECT_FALSE(fs::exists(job / "results/updown/thumbnails/gone.jpg"));
    EXPECT_FALSE(fs::exists(job / "results/ar/gone.json"));
}

TEST_F(VeldaMain, ManifestEntriesOfOtherKindsContributeNothing) {
    const fs::path job = make_job("job");
    write_file(job / "replay/upload.part3.json",
               R"({"upload":[{"file":"updown/a.txt"},{"file":"ar/b.txt"},{"file":"other/c.txt"},)"
               R"({"file":"updownx/d.txt"},{"file":"updown"},{"file":"updown/../escape.txt"},{"file":7}]})");
    write_file(job / "replay/upload.part9.json",
               R"({"upload":[{"file":"ar/sub/e.txt"},{"file":"updown/a.txt"},{"file":"images/f.txt"}]})");
    for (const char *file : {"updown/a.txt", "ar/b.txt", "other/c.txt", "updownx/d.txt", "ar/sub/e.txt"})
        write_file(job / "replay" / file, file);
    const auto r = velda(job, REPLAY);
    ASSERT_EQ(r.status, 0) << r.output;
    const std::map<std::string, ino_t> published = {
        {"updown/a.txt", inode_of(job / "caches/updown/a.txt")},
        {"ar/sub/e.txt", inode_of(job / "caches/ar/sub/e.txt")},
    };
    EXPECT_EQ(tree(job / "results"), published);
    EXPECT_TRUE(contains(r.output, "ignored upload entry : updown/../escape.txt")) << r.output;
    EXPECT_FALSE(fs::exists(job / "escape.txt"));
    // The stand-in left no vision file: the capture is not done.
    const ORN::JsonParser record(read_file(job / "project.json"));
    EXPECT_EQ(record.child("state").child("done").value(true), false);
    EXPECT_EQ(record.child("progress").value(0), 100);
}

TEST_F(VeldaMain, CleanStepRemovesStaleOutputsAndLeavesFloorplanFolder) {
    for (const bool stale : {false, true}) {
        const fs::path job = make_job(stale ? "stale" : "fresh");
        write_file(job / "replay/upload.part3.json", R"({"upload":[]})");
        write_file(job / "replay/upload.part9.json", R"({"upload":[]})");
        if (stale)
            for (const char *file : {"vision.json", "floorplan.json", "mesh.json"})
                write_file(job / "caches" / file, "{}");
        const auto r = velda(job, REPLAY);
        ASSERT_EQ(r.status, 0) << r.output;
        EXPECT_TRUE(fs::is_directory(job / "caches/floorplan"));
        for (const char *file : {"vision.json", "floorplan.json", "mesh.json"})
            EXPECT_FALSE(fs::exists(job / "caches" / file)) << file;
        EXPECT_TRUE(contains(read_file(job / "project.json"), R"("state":{"done":false,"crashed":false})"));
    }
}

TEST_F(VeldaMain, MissingManifestIsReportedAndFatal) {
    const fs::path job = make_job("job");
    write_file(job / "replay/upload.part9.json", R"({"upload":[]})");
    const auto r = velda(job, REPLAY);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "missing file : " + (job / "caches/upload.part3.json").string())) << r.output;
    EXPECT_EQ(read_file(job / "project.json"), PROJECT);
}

TEST_F(VeldaMain, RecordKeepsValueFormsAndFillsMissingKeys) {
    const fs::path fresh = make_job("fresh", "");
    ASSERT_EQ(velda(fresh).status, 0);
    EXPECT_EQ(read_file(fresh / "project.json"),
              R"({"protocol":"","version":"","description":"","category":"","uuid":"","sceneNum":0,)"
              R"("dataSource":"","create_time":"","create_time_s":0,"state":{"done":true,"crashed":false},)"
              R"("expect_time":"","expect_time_s":0,"progress":100})");

    // Strings stay strings and numbers numbers, whatever they look like;
    // escapes survive, unknown keys go, reader-only number forms are
    // normalised.
    const fs::path forms =
        make_job("forms", R"({"extra":1,"version":2,"sceneNum":"3","description":"say \"hi\"\\\n\u00e9",)"
                          R"("uuid":null,"category":TRUE,"create_time_s":+5,"expect_time_s":1.5e3,"protocol":[1]})");
    ASSERT_EQ(velda(forms).status, 0);
    EXPECT_EQ(read_file(forms / "project.json"),
              R"({"protocol":"","version":2,"description":"say \"hi\"\\\n)"
              "\xc3\xa9"
              R"(","category":true,"uuid":null,"sceneNum":"3","dataSource":"","create_time":"",)"
              R"("create_time_s":5,"state":{"done":true,"crashed":false},"expect_time":"",)"
              R"("expect_time_s":1.5e3,"progress":100})");
}

TEST_F(VeldaMain, LeftoverTemporaryRecordsAreIgnoredAndRemoved) {
    const fs::path job = make_job("job");
    write_file(job / "project.json.tmp", PROJECT_DONE);
    write_file(job / "project.json.tmp-77-3", "{\"state\":");
    const auto r = velda(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_FALSE(contains(r.output, "already done")) << r.output;
    EXPECT_EQ(read_file(job / "project.json"), PROJECT_DONE);
    EXPECT_FALSE(fs::exists(job / "project.json.tmp"));
    EXPECT_FALSE(fs::exists(job / "project.json.tmp-77-3"));
}

} // namespace
