// ImageROIProcess end to end: the launcher, the module and the reference
// stitching library's repair entry over jobs made by zarn_capture, stitched
// and then repaired in one run.
#include "support.h"

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <regex>
#include <set>

#include <rapidjson/document.h>

namespace {

using namespace zarn_test;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";
const std::string BOTH = "--process StitchMainProcess --process ImageROIProcess";
const std::string REPAIR = "--process ImageROIProcess";
const std::vector<std::string> PANORAMAS = {"point_000.jpg", "point_001.jpg"};

// The trace lines of one entry.
std::vector<std::string> calls(const std::string &trace, const std::string &entry) {
    std::vector<std::string> lines;
    for (const auto &line : lines_of(trace))
        if (line == entry || starts_with(line, entry + " "))
            lines.push_back(line);
    return lines;
}

std::string region(const std::string &name, int x, int y, int w, int h, const std::string &method = "") {
    return R"({"name":")" + name + R"(","rect":{"x":)" + std::to_string(x) + R"(,"y":)" + std::to_string(y) +
           R"(,"w":)" + std::to_string(w) + R"(,"h":)" + std::to_string(h) + "}" +
           (method.empty() ? std::string() : R"(,"method":)" + method) + "}";
}

// Root mean square difference of two pictures inside a rectangle.
double rms(const cv::Mat &a, const cv::Mat &b, const cv::Rect &r) {
    cv::Mat d;
    cv::absdiff(a(r), b(r), d);
    d.convertTo(d, CV_32F);
    return std::sqrt(cv::mean(d.mul(d))[0] + cv::mean(d.mul(d))[1] + cv::mean(d.mul(d))[2]);
}

// The pixels outside the rectangles `grown` are the same in both pictures.
bool same_outside(const cv::Mat &a, const cv::Mat &b, const std::vector<cv::Rect> &grown) {
    cv::Mat mask(a.size(), CV_8U, cv::Scalar(255));
    for (const cv::Rect &r : grown)
        mask(r & cv::Rect(0, 0, a.cols, a.rows)).setTo(0);
    cv::Mat d;
    cv::absdiff(a, b, d);
    cv::Mat any;
    cv::transform(d, any, cv::Matx13f(1, 1, 1));
    return cv::countNonZero(any & mask) == 0;
}

// A rectangle grown outwards to the 16-pixel grid (the largest JPEG block),
// and by one pixel more: the decoder's chroma upsampling blends each block
// with its neighbours' samples at their common edge.
cv::Rect to_grid(const cv::Rect &r) {
    const int x0 = r.x / 16 * 16, y0 = r.y / 16 * 16;
    const int x1 = (r.x + r.width + 15) / 16 * 16, y1 = (r.y + r.height + 15) / 16 * 16;
    return {x0 - 1, y0 - 1, x1 - x0 + 2, y1 - y0 + 2};
}

class ImageROI : public ::testing::Test {
protected:
    // A stitched job: two points (the first plain, the second bracketed),
    // panoramas of 1024 x 512, captures with parallax.
    fs::path make_job(const std::string &name, const std::string &capture = "--parallax --repairs") {
        const fs::path job = mRoot.path() / name;
        const auto r = run(quote(CAPTURE) + " " + quote(job.string()) + " --width 1024 --points 2 --videos 0 " + capture);
        EXPECT_EQ(r.status, 0) << r.output;
        write_file(job / "setting.xml", "<_Lumora><StitchMainProcess><mThreadConcurrency value=\"2\"/>"
                                        "<mPanoramaQuality value=\"draft\"/></StitchMainProcess><ImageROIProcess>"
                                        "<mThreadConcurrency value=\"2\"/></ImageROIProcess></_Lumora>");
        return job;
    }
    static void set_regions(const fs::path &job, const std::string &member, const std::string &stitch = "{}") {
        write_file(job / "caches/split_data.json",
                   R"({"StitchMainProcess":)" + stitch + R"(,"ImageROIProcess":)" + member + "}");
    }
    RunResult zarn(const fs::path &job, const std::string &processes = BOTH, const std::string &env = "",
                   const std::string &libs = BACKENDS) {
        std::string command = "env -u ZARN_BACKEND_FAIL -u ZARN_BACKEND_THROW -u ZARN_BACKEND_NULL -u ZARN_FORCE "
                              "NO_COLOR=1 ZARN_BACKEND_TRACE=";
        command.append(quote(trace())).append(" ").append(env).append(" ").append(quote(ZARN));
        command.append(" run ").append(processes).append(" --libs ").append(quote(libs)).append(" ");
        command.append(quote(job.string()));
        fs::remove(trace());
        return run(command);
    }
    std::string trace() const { return mRoot / "trace.txt"; }
    std::string traced() const { return fs::exists(trace()) ? read_file(trace()) : std::string(); }
    std::size_t repairs() const { return calls(traced(), "KIVO_ExecutePanoRepairHandle").size(); }

    TempDir mRoot;
};

TEST_F(ImageROI, SkippedWithoutItsMember) {
    const fs::path job = make_job("job", "");
    write_file(job / "caches/split_data.json", R"({"StitchMainProcess":{}})");
    const auto r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nskip ImageROIProcess\n")) << r.output;
    EXPECT_FALSE(fs::exists(job / "caches/image_roi"));
    EXPECT_FALSE(fs::exists(job / "caches/upload.part7.json"));
    EXPECT_TRUE(calls(traced(), "KIVO_ExecutePanoRepairHandle").empty());
}

// Each method repairs the marked regions of both panoramas from the raw
// captures, the plain point from its two captures and the bracketed one
// from its four exposures per lens: closer to the truth than the stitch
// inside, the same picture outside the regions grown to the block grid.
TEST_F(ImageROI, RepairsEveryMethodCloserToTheTruthAndLeavesTheRestAsItWas) {
    const fs::path job = make_job("job");
    // The generated regions: around the near objects where they cross the
    // seam, one or two per panorama.
    const std::string generated = read_file(job / "truth/repairs.json");
    rapidjson::Document d;
    d.Parse(generated.c_str());
    ASSERT_TRUE(!d.HasParseError() && d.HasMember("regions") && d["regions"].IsArray()) << generated;
    std::vector<std::pair<std::string, cv::Rect>> rects;
    for (const auto &e : d["regions"].GetArray()) {
        const auto &r = e["rect"];
        rects.push_back({e["name"].GetString(), cv::Rect(r["x"].GetInt(), r["y"].GetInt(), r["w"].GetInt(), r["h"].GetInt())});
    }
    ASSERT_FALSE(rects.empty()) << generated;

    // The plain blend, which doubles the near objects at the seam.
    set_regions(job, "{}", R"({"seam":"plain"})");
    ASSERT_EQ(zarn(job).status, 0);
    std::map<std::string, cv::Mat> stitched, truth;
    for (const auto &[name, rect] : rects) {
        stitched[name] = cv::imread((job / "caches/images" / (name + ".jpg")).string());
        truth[name] = cv::imread((job / "truth" / (name + ".png")).string());
        ASSERT_EQ(stitched[name].size(), truth[name].size()) << name;
    }
    for (const std::string method : {"upper", "lower", "flow", "auto"}) {
        std::string member;
        for (const auto &[name, rect] : rects)
            member.append(member.empty() ? "" : ",")
                .append(region(name, rect.x, rect.y, rect.width, rect.height, "\"" + method + "\""));
        set_regions(job, R"({"regions":[)" + member + "]}");
        const auto r = zarn(job, REPAIR);
        ASSERT_EQ(r.status, 0) << method << "\n" << r.output;
        for (const char *line : {"\ninitializing stitch\n", "\n1 config to go\n", "\nasync processing ",
                                 "\ntime costs : ", "\nall done\n"})
            EXPECT_TRUE(contains(r.output, line)) << method << " " << line << "\n" << r.output;
        std::map<std::string, double> before, after;
        for (const auto &[name, rect] : rects) {
            EXPECT_TRUE(contains(r.output, "\nprocessing image [" + std::to_string(std::stoi(name.substr(6))) + "] " +
                                               name + "\n"))
                << r.output;
            const cv::Mat repaired = cv::imread((job / "caches/images" / (name + ".jpg")).string());
            before[name] += rms(stitched[name], truth[name], rect);
            after[name] += rms(repaired, truth[name], rect);
            std::vector<cv::Rect> grown;
            for (const auto &[other, o] : rects)
                if (other == name)
                    grown.push_back(to_grid(o));
            EXPECT_TRUE(same_outside(stitched[name], repaired, grown)) << method << " " << name;
        }
        // "upper" and "lower" take one lens as it is: the near object stays
        // where that lens saw it, so only the aligning methods must come
        // closer to the truth everywhere.
        if (std::string(method) == "flow" || std::string(method) == "auto") {
            for (const auto &[name, error] : after)
                EXPECT_LT(error, 0.95 * before[name]) << method << " " << name << " before " << before[name];
        }
    }
}

// The manifest lists the repaired panoramas; the results, the panoramas
// the later steps read and the repairs are one file each; the stitcher's
// output is kept beside them.
TEST_F(ImageROI, PublishesTheRepairsAsHardLinksWithTheirManifest) {
    const fs::path job = make_job("job");
    set_regions(job, R"({"regions":[)" + region("point_001", 500, 200, 64, 64, "\"upper\"") + "," +
                         region("point_000", 0, 0, 32, 16) + "]}");
    const auto r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(read_file(job / "caches/upload.part7.json"),
              R"({"upload":[{"file":"image_roi/point_000.jpg"},{"file":"image_roi/point_001.jpg"}]})");
    for (const std::string &file : PANORAMAS) {
        const ino_t repaired = inode_of(job / "caches/image_roi/repaired" / file);
        EXPECT_NE(repaired, 0u) << file;
        EXPECT_EQ(inode_of(job / "caches/images" / file), repaired) << file;
        EXPECT_EQ(inode_of(job / "results/image_roi" / file), repaired) << file;
        EXPECT_NE(inode_of(job / "caches/image_roi/stitched" / file), repaired) << file;
    }
    EXPECT_EQ(tree(job / "results/image_roi").size(), 2u);
    // The bracketed point's four exposures per lens, the plain point's one.
    const auto lines = calls(traced(), "KIVO_ExecutePanoRepairHandle");
    EXPECT_EQ(lines.size(), 2u);
    const std::regex counts(R"re(" "([0-9]+)" "/proc/self/fd/[0-9]+" ")re");
    std::multiset<std::string> brackets;
    for (const auto &line : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_search(line, m, counts)) << line;
        brackets.insert(m[1]);
    }
    EXPECT_EQ(brackets, (std::multiset<std::string>{"1", "4"}));
    EXPECT_EQ(calls(traced(), "KIVO_DestroyOptFlowStitchHandle").size(),
              calls(traced(), "KIVO_CreateOptFlowStitchHandle").size());
}

// Repairs start from the stitcher's output: repeated, forced or not, they
// give the same file; a run without regions gives the stitcher's output
// back byte for byte; a new stitch is recognised and repaired.
TEST_F(ImageROI, RepairsAreIdempotentUndoneByARunWithoutRegionsAndFollowANewStitch) {
    const fs::path job = make_job("job");
    set_regions(job, "{}");
    ASSERT_EQ(zarn(job).status, 0);
    std::map<std::string, std::string> stitched;
    for (const std::string &file : PANORAMAS)
        stitched[file] = read_file(job / "caches/images" / file);

    const std::string regions = R"({"regions":[)" + region("point_000", 448, 224, 128, 64, "\"flow\"") + "," +
                                region("point_001", 100, 240, 64, 32) + "]}";
    set_regions(job, regions);
    auto r = zarn(job, REPAIR);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(repairs(), 2u);
    std::map<std::string, std::string> first;
    for (const std::string &file : PANORAMAS) {
        first[file] = read_file(job / "caches/images" / file);
        EXPECT_NE(first[file], stitched[file]) << file;
        EXPECT_EQ(read_file(job / "caches/image_roi/stitched" / file), stitched[file]) << file;
    }
    const auto results = tree(job / "results/image_roi");

    // Up to date: nothing is called, nothing changes.
    r = zarn(job, REPAIR);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(repairs(), 0u);
    EXPECT_TRUE(contains(r.output, "\nimage repair : 2 of 2 panoramas up to date\n")) << r.output;
    EXPECT_FALSE(contains(r.output, "initializing stitch")) << r.output;
    EXPECT_EQ(tree(job / "results/image_roi"), results);

    // Forced: repaired again from the kept output, the same bytes.
    r = zarn(job, REPAIR, "ZARN_FORCE=1");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(repairs(), 2u);
    for (const std::string &file : PANORAMAS)
        EXPECT_EQ(read_file(job / "caches/images" / file), first[file]) << file;

    // Other regions: the first ones are the stitcher's again, not kept as
    // repaired; the panorama that lost its regions is the stitcher's file.
    set_regions(job, R"({"regions":[)" + region("point_000", 800, 100, 32, 32, "\"upper\"") + "]}");
    r = zarn(job, REPAIR);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(repairs(), 1u);
    const cv::Mat before = cv::imdecode(cv::Mat(1, int(stitched["point_000.jpg"].size()), CV_8U,
                                                stitched["point_000.jpg"].data()), cv::IMREAD_COLOR);
    EXPECT_TRUE(same_outside(before, cv::imread((job / "caches/images/point_000.jpg").string()),
                             {to_grid(cv::Rect(800, 100, 32, 32))}));
    EXPECT_EQ(read_file(job / "caches/images/point_001.jpg"), stitched["point_001.jpg"]);
    EXPECT_EQ(read_file(job / "caches/upload.part7.json"), R"({"upload":[{"file":"image_roi/point_000.jpg"}]})");
    set_regions(job, regions);
    ASSERT_EQ(zarn(job, REPAIR).status, 0);

    // Without regions: the stitcher's output back, nothing published.
    set_regions(job, R"({"regions":[]})");
    r = zarn(job, REPAIR);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(repairs(), 0u);
    EXPECT_TRUE(contains(r.output, "\nstitched panoramas restored : 2\n")) << r.output;
    for (const std::string &file : PANORAMAS)
        EXPECT_EQ(read_file(job / "caches/images" / file), stitched[file]) << file;
    EXPECT_TRUE(tree(job / "results/image_roi").empty());
    EXPECT_TRUE(tree(job / "caches/image_roi").empty());
    EXPECT_EQ(read_file(job / "caches/upload.part7.json"), R"({"upload":[]})");

    // Repaired again, then stitched anew: the new stitch is what is kept
    // and repaired, the old one is gone.
    set_regions(job, regions);
    ASSERT_EQ(zarn(job, REPAIR).status, 0);
    ASSERT_EQ(zarn(job, "--process StitchMainProcess", "ZARN_FORCE=1").status, 0);
    const ino_t restitched = inode_of(job / "caches/images/point_000.jpg");
    r = zarn(job, REPAIR);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nstitched panorama kept : caches/image_roi/stitched/point_000.jpg\n")) << r.output;
    EXPECT_EQ(repairs(), 2u);
    EXPECT_EQ(inode_of(job / "caches/image_roi/stitched/point_000.jpg"), restitched);
    EXPECT_EQ(read_file(job / "caches/images/point_000.jpg"), first["point_000.jpg"]);
}

// Bad regions stop the run before any library call, with one line naming
// the region, and leave the panoramas and results of the last run as they
// were.
TEST_F(ImageROI, BadRegionsStopBeforeAnythingIsCalledOrChanged) {
    const fs::path base = make_job("base");
    set_regions(base, R"({"regions":[)" + region("point_000", 10, 10, 32, 32) + "]}");
    ASSERT_EQ(zarn(base).status, 0);

    std::string many;
    for (int k = 0; k < 257; ++k)
        many.append(k ? "," : "").append(region("point_001", 0, 0, 16, 16));
    struct CASE {
        std::string regions, line;
        std::function<void(const fs::path &)> damage = nullptr;
    };
    const std::vector<CASE> cases = {
        {region("nowhere", 0, 0, 8, 8),
         "regions[0] (nowhere) : unknown panorama : no image of this name in caches/stitch_data.json"},
        {region("point_000", 0, 0, 8, 8) + "," + region("point_000", 1000, 0, 100, 10),
         "regions[1] (point_000) : rectangle outside the panorama : 1000,0 100x10 in 1024x512"},
        {region("point_000", 0, 500, 8, 13), "regions[0] (point_000) : rectangle outside the panorama : 0,500 8x13 in 1024x512"},
        {region("point_000", 4, 4, 0, 8), "regions[0] (point_000) : empty rectangle : 4,4 0x8"},
        {region("point_000", 0, 0, 8, 8, "\"blur\""),
         R"(regions[0] (point_000) : unknown method : blur ("upper", "lower", "flow" or "auto"))"},
        {many, "regions[256] (point_001) : too many regions : more than 256 for one panorama"},
        {region("point_000", 0, 0, 8, 8), "regions[0] (point_000) : lens table missing or refused : caches/table_Down.bin",
         [](const fs::path &job) { fs::remove(job / "caches/table_Down.bin"); }},
        {region("point_000", 0, 0, 8, 8), "regions[0] (point_000) : raw capture missing or refused : captures/point_000_down.jpg",
         [](const fs::path &job) { fs::remove(job / "captures/point_000_down.jpg"); }},
        {region("point_001", 0, 0, 8, 8), "regions[0] (point_001) : raw capture missing or refused : captures/point_001_up_3.jpg",
         [](const fs::path &job) {
             fs::remove(job / "captures/point_001_up_3.jpg");
             fs::create_symlink(job / "captures/point_001_up_2.jpg", job / "captures/point_001_up_3.jpg");
         }},
        {region("point_001", 0, 0, 8, 8),
         "regions[0] (point_001) : no stitched panorama : caches/images/point_001.jpg",
         [](const fs::path &job) { fs::remove(job / "caches/images/point_001.jpg"); }},
        {region("point_001", 0, 0, 8, 8), "regions[0] (point_001) : stitched panorama ",
         [](const fs::path &job) { write_file(job / "caches/images/point_001.jpg", "no picture"); }},
        {R"({"regions":{}})", R"(ImageROIProcess : "regions" is not an array)"},
    };
    int n = 0;
    for (const CASE &c : cases) {
        const fs::path job = mRoot.path() / ("job" + std::to_string(n++));
        fs::copy(base, job, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        set_regions(job, starts_with(c.regions, R"({"regions")") ? c.regions : R"({"regions":[)" + c.regions + "]}");
        if (c.damage)
            c.damage(job);
        const auto images = tree(job / "caches/images"), results = tree(job / "results"),
                   kept = tree(job / "caches/image_roi");
        const std::string manifest = read_file(job / "caches/upload.part7.json");
        const auto r = zarn(job, REPAIR);
        EXPECT_EQ(r.status, 1) << c.line << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, "\n" + c.line)) << c.line << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, "\nImageROIProcess error\ndynamic_assert failed : ")) << r.output;
        EXPECT_EQ(traced(), "") << c.line;
        EXPECT_EQ(tree(job / "caches/images"), images) << c.line;
        EXPECT_EQ(tree(job / "results"), results) << c.line;
        EXPECT_EQ(tree(job / "caches/image_roi"), kept) << c.line;
        EXPECT_EQ(read_file(job / "caches/upload.part7.json"), manifest) << c.line;
    }
}

// A failing repair reports the library's code and its meaning and leaves
// the last run's repair in place.
TEST_F(ImageROI, TheLibrarysFailureCodeEndsTheRunWithNothingChanged) {
    const fs::path job = make_job("job");
    set_regions(job, R"({"regions":[)" + region("point_000", 10, 10, 32, 32) + "]}");
    ASSERT_EQ(zarn(job).status, 0);
    set_regions(job, R"({"regions":[)" + region("point_000", 100, 100, 32, 32) + "]}");
    const auto images = tree(job / "caches/images"), results = tree(job / "results");
    const std::string repaired = read_file(job / "caches/images/point_000.jpg");
    const auto r = zarn(job, REPAIR, "ZARN_BACKEND_FAIL=KIVO_ExecutePanoRepairHandle:4");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nrepair failed : an input image or video is missing or does not decode\n"
                                   "return value = 4\n"))
        << r.output;
    EXPECT_TRUE(contains(r.output, "\nImageROIProcess error\ndynamic_assert failed : mRepairReturnValue == 0 : at "))
        << r.output;
    EXPECT_EQ(tree(job / "caches/images"), images);
    EXPECT_EQ(tree(job / "results"), results);
    EXPECT_EQ(read_file(job / "caches/images/point_000.jpg"), repaired);
    // The next run repairs it.
    EXPECT_EQ(zarn(job, REPAIR).status, 0);
    EXPECT_EQ(repairs(), 1u);
}

// A job with calibrated lens tables is repaired with them, as it was
// stitched: the job's own "caches/table_*.bin" may not even be valid.
TEST_F(ImageROI, RepairsWithTheLensTablesTheStitcherUsed) {
    const fs::path job = make_job("job", "");
    fs::create_directories(job / "results/calib");
    fs::copy_file(job / "caches/table_Up.bin", job / "results/calib/tablea.bin");
    fs::copy_file(job / "caches/table_Down.bin", job / "results/calib/tableb.bin");
    write_file(job / "caches/table_Up.bin", "not a lens table");
    write_file(job / "caches/table_Down.bin", "not a lens table");
    set_regions(job, R"({"regions":[)" + region("point_000", 10, 10, 32, 32) + "]}");
    const auto r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "lens tables : results/calib/tablea.bin, results/calib/tableb.bin\n")) << r.output;
    EXPECT_EQ(repairs(), 1u);
}

// A stitching library without the repair entry stops the binding at that
// name, after the three it links first.
TEST_F(ImageROI, ALibraryWithoutTheRepairEntryFailsAtLink) {
    const fs::path job = make_job("job", "");
    set_regions(job, "{}");
    ASSERT_EQ(zarn(job).status, 0);
    set_regions(job, R"({"regions":[)" + region("point_000", 10, 10, 32, 32) + "]}");
    const fs::path libs = mRoot.path() / "libs";
    fs::create_directories(libs);
    fs::copy_file(BACKENDS + "/libStereoRotCam.so", libs / "libStitch.so");
    const auto images = tree(job / "caches/images");
    const auto r = zarn(job, REPAIR, "", libs.string());
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nfunction : KIVO_ExecutePanoRepairHandle\n")) << r.output;
    EXPECT_TRUE(contains(r.output, "\nImageROIProcess error\ndynamic_assert failed : false : at ")) << r.output;
    EXPECT_EQ(tree(job / "caches/images"), images);
    EXPECT_TRUE(tree(job / "results/image_roi").empty());
}

} // namespace
