// StereoRotStitchMainProcess end to end: the launcher, the module, the
// reference stereo rotating-camera library and the converter script over
// synthetic stereo captures made by zarn_capture --stereo.
#include "support.h"

#include <algorithm>

namespace {

using namespace zarn_test;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";
const std::string CONVERTER = std::string(ZARN_BINARY_DIR) + "/lib/DataConverter.sh";

const std::string PROJECT = R"({"protocol":"lumora-capture","version":"1.2","description":"Stereo","category":"residential",)"
                            R"("uuid":"77aa","sceneNum":2,"dataSource":"stereo-rotating-camera","create_time":"2026-11-20",)"
                            R"("create_time_s":1795599667,"state":{"done":false,"crashed":true},"expect_time":"",)"
                            R"("expect_time_s":0,"progress":0})";

// The entry names of a trace, in call order.
std::vector<std::string> entries(const std::string &trace) {
    std::vector<std::string> names;
    for (const auto &line : lines_of(trace))
        names.push_back(line.substr(0, line.find(' ')));
    return names;
}

class StereoMain : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        sCapture = new TempDir;
        const auto r = run(quote(CAPTURE) + " " + quote(sCapture->str()) + " --stereo --points 2 --videos 0");
        ASSERT_EQ(r.status, 0) << r.output;
    }
    static void TearDownTestSuite() {
        delete sCapture;
        sCapture = nullptr;
    }

    fs::path make_job(const std::string &name, const std::string &switches = "") {
        const fs::path job = mRoot.path() / name;
        fs::copy(sCapture->path(), job, fs::copy_options::recursive);
        write_file(job / "caches/split_data.json", R"({"StereoRotStitchMainProcess":{)" + switches + "}}");
        write_file(job / "setting.xml", "<_Lumora><StereoRotStitchMainProcess><mThreadConcurrency value=\"2\"/>"
                                        "<mPanoramaQuality value=\"draft\"/></StereoRotStitchMainProcess></_Lumora>");
        write_file(job / "project.json", PROJECT);
        return job;
    }
    RunResult stitch(const fs::path &job, const std::string &env = "") {
        fs::remove(trace());
        std::string command = "env -u ZARN_BACKEND_FAIL NO_COLOR=1 ZARN_BACKEND_TRACE=";
        command.append(quote(trace())).append(" ").append(env).append(" ").append(quote(ZARN));
        command.append(" run --process StereoRotStitchMainProcess --libs ").append(quote(BACKENDS)).append(" ");
        command.append(quote(job.string()));
        return run(command);
    }
    std::string trace() const { return mRoot / "trace.txt"; }
    std::string traced() const { return fs::exists(trace()) ? read_file(trace()) : std::string(); }

    static TempDir *sCapture;
    TempDir mRoot;
};
TempDir *StereoMain::sCapture = nullptr;

TEST_F(StereoMain, DevelopsMergesStitchesInpaintsAndKeepsTheRecord) {
    const fs::path job = make_job("job");
    const auto r = stitch(job);
    ASSERT_EQ(r.status, 0) << r.output;
    // The passes in order, each with its lines.
    const auto lines = lines_of(r.output);
    auto at = [&](const std::string &line) { return std::find(lines.begin(), lines.end(), line) - lines.begin(); };
    EXPECT_LT(at("processing ISP"), at("processing HDR"));
    EXPECT_LT(at("processing HDR"), at("processing image [0] stereo_000"));
    const std::string command = "bash " + CONVERTER + " IMAGE " + job.string();
    EXPECT_LT(at("processing image [1] stereo_001"), at(command)) << r.output;
    EXPECT_EQ(lines[std::size_t(at(command)) + 3], "return value = 0") << r.output;

    // 2 points x 3 exposures x 6 views developed, then merged and stitched.
    const auto called = entries(traced());
    EXPECT_EQ(std::count(called.begin(), called.end(), "KIVO_ExecuteISPHandle"), 36);
    EXPECT_EQ(std::count(called.begin(), called.end(), "KIVO_ExecuteOptFlowStitchHDRHandle"), 2);
    EXPECT_EQ(std::count(called.begin(), called.end(), "KIVO_ExecuteOptFlowStitchHandle"), 0);
    EXPECT_TRUE(fs::exists(job / "caches/isp/captures/stereo_000_g0_v0.png"));
    EXPECT_TRUE(fs::exists(job / "caches/images/stereo_001.jpg"));

    // The record by the rules of the reconstruction's: fields kept, not
    // crashed; stitching leaves "done" as it was.
    EXPECT_EQ(read_file(job / "project.json"),
              R"({"protocol":"lumora-capture","version":"1.2","description":"Stereo","category":"residential",)"
              R"("uuid":"77aa","sceneNum":2,"dataSource":"stereo-rotating-camera","create_time":"2026-11-20",)"
              R"("create_time_s":1795599667,"state":{"done":false,"crashed":false},"expect_time":"",)"
              R"("expect_time_s":0,"progress":50})");
}

TEST_F(StereoMain, TheGatesChooseThePasses) {
    // HDR off: the middle exposure of each view stitched plainly.
    const fs::path plain = make_job("plain", R"("image_hdr":false,"image_inpainting":false)");
    const auto p = stitch(plain);
    ASSERT_EQ(p.status, 0) << p.output;
    EXPECT_TRUE(contains(p.output, "\nprocessing ISP\n"));
    EXPECT_FALSE(contains(p.output, "processing HDR")) << p.output;
    EXPECT_FALSE(contains(p.output, "DataConverter.sh")) << p.output;
    auto called = entries(traced());
    EXPECT_EQ(std::count(called.begin(), called.end(), "KIVO_ExecuteISPHandle"), 12);
    EXPECT_EQ(std::count(called.begin(), called.end(), "KIVO_ExecuteOptFlowStitchHandle"), 2);
    EXPECT_TRUE(contains(traced(), "stereo_000_g1_v5.png")) << traced();

    // ISP off: the plan's frames are read as they are (here, frames the
    // first run developed).
    const fs::path developed = make_job("developed", R"("image_isp":false,"image_inpainting":false)");
    fs::create_directories(developed / "developed");
    for (const auto &e : fs::directory_iterator(plain / "caches/isp/captures"))
        fs::copy_file(e.path(), developed / "developed" / e.path().filename());
    std::string plan = read_file(developed / "caches/stitch_data.json");
    for (auto i = plan.find("captures/"); i != std::string::npos; i = plan.find("captures/", i))
        plan.replace(i, 9, "developed/");
    for (auto i = plan.find(".pgm"); i != std::string::npos; i = plan.find(".pgm", i))
        plan.replace(i, 4, ".png");
    write_file(developed / "caches/stitch_data.json", plan);
    // Only the middle exposure was developed: HDR off as well.
    write_file(developed / "caches/split_data.json",
               R"({"StereoRotStitchMainProcess":{"image_isp":false,"image_hdr":false,"image_inpainting":false}})");
    const auto d = stitch(developed);
    ASSERT_EQ(d.status, 0) << d.output;
    EXPECT_FALSE(contains(d.output, "processing ISP")) << d.output;
    called = entries(traced());
    EXPECT_EQ(std::count(called.begin(), called.end(), "KIVO_ExecuteISPHandle"), 0);
    EXPECT_EQ(std::count(called.begin(), called.end(), "KIVO_ExecuteOptFlowStitchHandle"), 2);
}

// The switches in every combination over a capture with a point and a
// video (the ISP pass on: the plan names raw frames) and over a video-only
// capture: each run ends with "all done" and does the steps switched on.
TEST_F(StereoMain, EveryCombinationOfTheSwitchesRunsItsSteps) {
    const auto on = [](bool b) { return b ? "true" : "false"; };
    for (const int points : {1, 0}) {
        const fs::path base = mRoot.path() / ("base" + std::to_string(points));
        const auto c = run(quote(CAPTURE) + " " + quote(base.string()) + " --stereo --points " + std::to_string(points) +
                           " --videos 1 --frames 3");
        ASSERT_EQ(c.status, 0) << c.output;
        write_file(base / "setting.xml", "<_Lumora><StereoRotStitchMainProcess><mThreadConcurrency value=\"2\"/>"
                                         "<mPanoramaQuality value=\"draft\"/></StereoRotStitchMainProcess></_Lumora>");
        write_file(base / "project.json", PROJECT);
        for (int bits = 0; bits < 16; ++bits) {
            // With a point the ISP pass stays on and the converter is switched
            // instead; a video-only job has nothing to develop.
            const bool isp = points ? true : bits & 8, inpaint = points ? bits & 8 : true;
            const bool hdr = bits & 1, video = bits & 2, param = bits & 4;
            const std::string name = "p" + std::to_string(points) + "s" + std::to_string(bits);
            const fs::path job = mRoot.path() / name;
            fs::copy(base, job, fs::copy_options::recursive);
            write_file(job / "caches/split_data.json",
                       std::string(R"({"StereoRotStitchMainProcess":{"image_isp":)") + on(isp) + ",\"image_hdr\":" +
                           on(hdr) + ",\"image_inpainting\":" + on(inpaint) + ",\"video_stitch\":" + on(video) +
                           ",\"videos_hdr_param\":" + on(param) + "}}");
            const auto r = stitch(job);
            ASSERT_EQ(r.status, 0) << name << "\n" << r.output;
            EXPECT_TRUE(contains(r.output, "\nall done\n")) << name;
            EXPECT_EQ(fs::exists(job / "caches/images/stereo_000.jpg"), points > 0) << name;
            EXPECT_EQ(contains(r.output, "DataConverter.sh"), inpaint && points > 0) << name;
            EXPECT_EQ(fs::exists(job / "results/videos/stereo_video_000.avi"), video) << name << "\n" << r.output;
            EXPECT_EQ(fs::exists(job / "caches/videos/videos_hdr_param.json"), param) << name;
            EXPECT_EQ(traced().empty(), points == 0 && !video) << name;
        }
    }
}

// Developed frames go to the process's own folder caches/isp/, whatever
// folder the plan keeps its raw frames in: frames in a folder "mesh" do not
// reach the mesh process's caches/mesh/.
TEST_F(StereoMain, DevelopedFramesStayInTheProcesssFolder) {
    const fs::path job = make_job("job", R"("image_hdr":false,"image_inpainting":false)");
    fs::rename(job / "captures", job / "mesh");
    std::string plan = read_file(job / "caches/stitch_data.json");
    for (auto i = plan.find("\"captures/"); i != std::string::npos; i = plan.find("\"captures/", i))
        plan.replace(i + 1, 9, "mesh/");
    write_file(job / "caches/stitch_data.json", plan);
    write_file(job / "caches/mesh/stereo_000_g1_v0.png", "canary");
    const auto r = stitch(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(read_file(job / "caches/mesh/stereo_000_g1_v0.png"), "canary");
    EXPECT_EQ(tree(job / "caches/mesh").size(), 1u);
    EXPECT_TRUE(fs::exists(job / "caches/isp/mesh/stereo_000_g1_v0.png"));
    EXPECT_TRUE(contains(traced(), job.string() + "/caches/isp/mesh/stereo_001_g1_v5.png")) << traced();
}

TEST_F(StereoMain, AFailingConverterEndsTheProcessAndKeepsTheRecord) {
    const fs::path job = make_job("job");
    write_file(job / "caches/images/broken.jpg", "not a panorama");
    const auto r = stitch(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nbash " + CONVERTER + " IMAGE " + job.string() + "\n")) << r.output;
    EXPECT_TRUE(contains(r.output, "\nreturn value = 1\nStereoRotStitchMainProcess error\n"
                                   "dynamic_assert failed : mConverterReturnValue == 0 : at "))
        << r.output;
    EXPECT_EQ(read_file(job / "project.json"), PROJECT);
    EXPECT_EQ(read_file(job / "caches/images/broken.jpg"), "not a panorama");
}

TEST_F(StereoMain, AMissingFrameOrABrokenRecordStopsBeforeAnyLibraryCall) {
    const fs::path job = make_job("job");
    fs::remove(job / "captures/stereo_001_g2_v4.pgm");
    const auto r = stitch(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "missing file : " + (job / "captures/stereo_001_g2_v4.pgm").string() +
                                       "\nStereoRotStitchMainProcess error\n"))
        << r.output;
    EXPECT_EQ(traced(), "");

    const fs::path record = make_job("record");
    write_file(record / "project.json", "[1,2,3]");
    const auto b = stitch(record);
    EXPECT_EQ(b.status, 1) << b.output;
    EXPECT_TRUE(contains(b.output, "capture record is not a JSON object : ")) << b.output;
    EXPECT_EQ(read_file(record / "project.json"), "[1,2,3]");
    EXPECT_EQ(traced(), "");
}

TEST_F(StereoMain, AFailingDevelopmentReportsTheLibrarysCode) {
    const fs::path job = make_job("job");
    const auto r = stitch(job, "ZARN_BACKEND_FAIL=KIVO_ExecuteISPHandle:5");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nreturn value = 5\nStereoRotStitchMainProcess error\n"
                                   "dynamic_assert failed : mStitchReturnValue == 0 : at "))
        << r.output;
    EXPECT_FALSE(fs::exists(job / "caches/images/stereo_000.jpg"));
    EXPECT_EQ(read_file(job / "project.json"), PROJECT);
}

} // namespace
