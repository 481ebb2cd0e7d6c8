// StitchMainProcess end to end: the launcher, the module and the reference
// stitching library over synthetic captures made by zarn_capture.
#include "support.h"

#include <regex>
#include <rapidjson/document.h>

#include <opencv2/imgcodecs.hpp>

#include <sched.h>

#include <algorithm>

namespace {

using namespace zarn_test;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";
const std::string FIXTURES = std::string(ZARN_BINARY_DIR) + "/tests/fixtures";

// The entries in the order the binding links them.
const std::vector<std::string> ENTRIES = {
    "KIVO_CreateOptFlowStitchHandle", "KIVO_DestroyOptFlowStitchHandle", "KIVO_InitOptFlowStitchHandle",
    "KIVO_ExecuteOptFlowStitchHandle", "KIVO_ExecuteOptFlowStitchHDRHandle", "KIVO_GetOptFlowStitchCode",
    "KIVO_CreateVideoStitchHandle", "KIVO_DestroyVideoStitchHandle", "KIVO_InitVideoStitchHandle",
    "KIVO_ExecuteVideoStitchHandle", "KIVO_GetVideoStitchCode",
};

rapidjson::Document parse_json(const fs::path &file) {
    rapidjson::Document d;
    d.Parse(read_file(file).c_str());
    EXPECT_FALSE(d.HasParseError()) << file;
    return d;
}

// The trace lines of one entry.
std::vector<std::string> calls(const std::string &trace, const std::string &entry) {
    std::vector<std::string> lines;
    for (const auto &line : lines_of(trace))
        if (line == entry || starts_with(line, entry + " "))
            lines.push_back(line);
    return lines;
}

class StitchMain : public ::testing::Test {
protected:
    // A job with generated captures (two points: the first plain, the
    // second bracketed; one video) and small panoramas.
    fs::path make_job(const std::string &name, int threads = 2, const std::string &quality = "draft",
                      const std::string &capture = "--points 2 --videos 1 --frames 3") {
        const fs::path job = mRoot.path() / name;
        const auto r = run(quote(CAPTURE) + " " + quote(job.string()) + " " + capture);
        EXPECT_EQ(r.status, 0) << r.output;
        write_file(job / "caches/split_data.json", R"({"StitchMainProcess":{}})");
        set_setting(job, threads, quality);
        return job;
    }
    static void set_setting(const fs::path &job, int threads, const std::string &quality) {
        write_file(job / "setting.xml", "<_Lumora><StitchMainProcess><mThreadConcurrency value=\"" +
                                            std::to_string(threads) + "\"/><mPanoramaQuality value=\"" + quality +
                                            "\"/></StitchMainProcess></_Lumora>");
    }

    RunResult stitch(const fs::path &job, const std::string &env = "", const std::string &libs = BACKENDS) {
        std::string command = "env -u ZARN_BACKEND_FAIL -u ZARN_BACKEND_THROW -u ZARN_BACKEND_NULL NO_COLOR=1 "
                              "ZARN_BACKEND_TRACE=";
        command.append(quote(trace())).append(" ").append(env).append(" ").append(quote(ZARN));
        command.append(" run --process StitchMainProcess --libs ").append(quote(libs)).append(" ");
        command.append(quote(job.string()));
        return run(command);
    }
    std::string trace() const { return mRoot / "trace.txt"; }
    std::string traced() const { return fs::exists(trace()) ? read_file(trace()) : std::string(); }

    TempDir mRoot;
};

TEST_F(StitchMain, StitchesPanoramasAndVideosWritesItsFilesAndPublishesTheVideos) {
    const fs::path job = make_job("job");
    const auto r = stitch(job);
    ASSERT_EQ(r.status, 0) << r.output;
    for (const char *line : {"\ninitializing stitch\n", "\n1 config to go\n", "\nprocessing image [0] point_000\n",
                             "\nprocessing image [1] point_001\n", "\nimage stitch : 2/2 100%",
                             "\nprocessing video [0] video_000\n", "\nvideo stitch : 1/1 100%", "\ntime costs : "})
        EXPECT_TRUE(contains(r.output, line)) << line << "\n" << r.output;
    EXPECT_TRUE(contains(r.output, "\nall done\n"));

    // Panoramas of the draft size; one init for the one configuration; the
    // bracketed point through the HDR entry with its four exposures.
    for (const char *file : {"caches/images/point_000.jpg", "caches/images/point_001.jpg"}) {
        const cv::Mat panorama = cv::imread((job / file).string());
        EXPECT_EQ(panorama.cols, 1024) << file;
        EXPECT_EQ(panorama.rows, 512) << file;
    }
    const std::string t = traced();
    EXPECT_EQ(calls(t, "KIVO_InitOptFlowStitchHandle").size(), 1u) << t;
    EXPECT_TRUE(contains(calls(t, "KIVO_InitOptFlowStitchHandle")[0], "\"1024\" \"512\" \"128\" \"64\" \"8\"")) << t;
    EXPECT_EQ(calls(t, "KIVO_ExecuteOptFlowStitchHandle").size(), 1u) << t;
    ASSERT_EQ(calls(t, "KIVO_ExecuteOptFlowStitchHDRHandle").size(), 1u) << t;
    // Every input reaches the library as the file the process opened and checked.
    const std::string bracketed = calls(t, "KIVO_ExecuteOptFlowStitchHDRHandle")[0];
    const std::regex opened("\"/proc/self/fd/[0-9]+\"");
    EXPECT_EQ(std::distance(std::sregex_iterator(bracketed.begin(), bracketed.end(), opened), std::sregex_iterator()), 8)
        << t;
    EXPECT_TRUE(contains(calls(t, "KIVO_InitVideoStitchHandle")[0], "\"512\" \"256\" \"8\"")) << t;
    // Every object made is destroyed once.
    EXPECT_EQ(calls(t, "KIVO_DestroyOptFlowStitchHandle").size(), calls(t, "KIVO_CreateOptFlowStitchHandle").size());
    EXPECT_EQ(calls(t, "KIVO_DestroyVideoStitchHandle").size(), calls(t, "KIVO_CreateVideoStitchHandle").size());

    const auto images = parse_json(job / "caches/images.json");
    ASSERT_TRUE(images["images"].IsArray());
    ASSERT_EQ(images["images"].Size(), 2u);
    const auto &first = images["images"][0];
    const std::vector<std::string> keys = {"id", "uuid", "raw1_image", "raw2_image", "is_main", "inpaint", "remove_people"};
    std::vector<std::string> order;
    for (auto m = first.MemberBegin(); m != first.MemberEnd(); ++m)
        order.emplace_back(m->name.GetString());
    EXPECT_EQ(order, keys);
    EXPECT_EQ(first["id"].GetInt(), 0);
    EXPECT_EQ(std::string(first["raw1_image"].GetString()), "captures/point_000_up.jpg");
    EXPECT_TRUE(first["is_main"].GetBool());
    EXPECT_EQ(std::string(first["uuid"].GetString()).size(), 36u);
    EXPECT_NE(std::string(first["uuid"].GetString()), images["images"][1]["uuid"].GetString());

    const auto hdr = parse_json(job / "caches/videos/videos_hdr_param.json");
    ASSERT_EQ(hdr["hdr_param"].Size(), 1u);
    EXPECT_EQ(std::string(hdr["hdr_param"][0]["name"].GetString()), "video_000");
    EXPECT_GT(hdr["hdr_param"][0]["value"].GetDouble(), 1.0);
    EXPECT_GT(hdr["hdr_param"][0]["fov"].GetDouble(), 90.0);

    EXPECT_EQ(inode_of(job / "results/videos/video_000.avi"), inode_of(job / "caches/videos/video_000.avi"));
    EXPECT_NE(inode_of(job / "results/videos/video_000.avi"), 0u);
    EXPECT_EQ(read_file(job / "caches/upload.part6.json"), R"({"upload":[{"file":"videos/video_000.avi"}]})");
}

TEST_F(StitchMain, OutputsAreTheSameWithOneWorkerOrTwo) {
    const fs::path one = make_job("one", 1), two = make_job("two", 2);
    ASSERT_EQ(stitch(one).status, 0);
    ASSERT_EQ(stitch(two).status, 0);
    // (caches/images.json differs by the identifiers, made from the job's name.)
    for (const char *file : {"caches/images/point_000.jpg", "caches/images/point_001.jpg", "caches/videos/video_000.avi",
                             "caches/videos/videos_hdr_param.json"})
        EXPECT_TRUE(read_file(one / file) == read_file(two / file)) << file;
}

// A huge mThreadConcurrency on one core: one worker, and the log says why.
TEST_F(StitchMain, TheWorkersAreBoundedByTheCores) {
    const fs::path job = make_job("job", 100000);
    cpu_set_t set;
    CPU_ZERO(&set);
    ASSERT_EQ(sched_getaffinity(0, sizeof(set), &set), 0);
    int first = 0;
    while (!CPU_ISSET(first, &set))
        ++first;
    const auto r = stitch(job, "taskset -c " + std::to_string(first));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nasync processing 2 on 1 threads (bounded by the cores : mThreadConcurrency "
                                   "100000, 2 tasks, 1 cores (affinity), memory for "))
        << r.output;
    EXPECT_TRUE(contains(r.output, "\nasync processing 1 on 1 threads (bounded by the tasks : ")) << r.output;
}

TEST_F(StitchMain, APlanWithoutVideosAndDisabledStepsWriteEmptyLists) {
    const fs::path job = make_job("job");
    {
        // The plan without its "video_file" member.
        std::string text = read_file(job / "caches/stitch_data.json");
        const auto at = text.find("\"video_file\"");
        ASSERT_NE(at, std::string::npos);
        const auto comma = text.rfind(',', at);
        const auto close = text.find(']', at);
        text.erase(comma, close + 1 - comma);
        write_file(job / "caches/stitch_data.json", text);
        ASSERT_FALSE(parse_json(job / "caches/stitch_data.json").HasParseError());
    }
    const auto r = stitch(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(read_file(job / "caches/videos/videos_hdr_param.json"), R"({"hdr_param":[]})");
    EXPECT_EQ(read_file(job / "caches/upload.part6.json"), R"({"upload":[]})");
    EXPECT_TRUE(calls(traced(), "KIVO_CreateVideoStitchHandle").empty());

    // With image stitching switched off nothing is stitched at all, and the
    // image list is still written.
    const fs::path off = make_job("off");
    write_file(off / "caches/split_data.json", R"({"StitchMainProcess":{"image_stitch":false,"video_stitch":false}})");
    fs::remove(trace());
    const auto o = stitch(off);
    ASSERT_EQ(o.status, 0) << o.output;
    EXPECT_FALSE(fs::exists(off / "caches/images/point_000.jpg"));
    EXPECT_EQ(traced(), "") << "the library is not even loaded";
    EXPECT_EQ(parse_json(off / "caches/images.json")["images"].Size(), 2u);
}

// The three step switches in every combination, over a job with a point
// and a video and over a video-only capture: each run ends with "all done"
// and does exactly the steps switched on.
TEST_F(StitchMain, EveryCombinationOfTheSwitchesRunsItsSteps) {
    for (const int points : {1, 0}) {
        const fs::path base =
            make_job("base" + std::to_string(points), 2, "draft", "--points " + std::to_string(points) + " --videos 1 --frames 3");
        for (int bits = 0; bits < 8; ++bits) {
            const bool image = bits & 1, video = bits & 2, hdr = bits & 4;
            const std::string name = "p" + std::to_string(points) + "s" + std::to_string(bits);
            const fs::path job = mRoot.path() / name;
            fs::copy(base, job, fs::copy_options::recursive);
            write_file(job / "caches/split_data.json",
                       std::string(R"({"StitchMainProcess":{"image_stitch":)") + (image ? "true" : "false") +
                           ",\"video_stitch\":" + (video ? "true" : "false") +
                           ",\"videos_hdr_param\":" + (hdr ? "true" : "false") + "}}");
            fs::remove(trace());
            const auto r = stitch(job);
            ASSERT_EQ(r.status, 0) << name << "\n" << r.output;
            EXPECT_TRUE(contains(r.output, "\nall done\n")) << name;
            EXPECT_EQ(fs::exists(job / "caches/images/point_000.jpg"), image && points > 0) << name;
            EXPECT_EQ(fs::exists(job / "caches/videos/video_000.avi"), video) << name;
            EXPECT_EQ(fs::exists(job / "results/videos/video_000.avi"), video) << name;
            EXPECT_EQ(fs::exists(job / "caches/videos/videos_hdr_param.json"), hdr) << name;
            EXPECT_EQ(parse_json(job / "caches/images.json")["images"].Size(), unsigned(points)) << name;
            EXPECT_EQ(traced().empty(), !(image && points > 0) && !video) << name << "\n" << traced();
        }
    }
}

// The identifiers of caches/images.json: the SHA-256 of the job's and the
// point's names laid out as a UUID version 8; two points of a job, and one
// point of two jobs, differ in nearly every digit.
TEST_F(StitchMain, PointIdentifiersAreHashesOfTheJobAndThePoint) {
    std::vector<std::vector<std::string>> ids;
    for (const char *name : {"a", "b"}) {
        const fs::path job = make_job(name, 2, "draft", "--points 2 --videos 0");
        write_file(job / "caches/split_data.json", R"({"StitchMainProcess":{"image_stitch":false}})");
        ASSERT_EQ(stitch(job).status, 0);
        const auto images = parse_json(job / "caches/images.json");
        ids.push_back({images["images"][0]["uuid"].GetString(), images["images"][1]["uuid"].GetString()});
    }
    const auto digest = run("printf 'zarn-point\\000a\\000point_000\\000' | sha256sum");
    ASSERT_EQ(digest.status, 0);
    std::string hex = digest.output.substr(0, 32);
    hex[12] = '8';
    hex[16] = "89ab"[std::stoi(hex.substr(16, 1), nullptr, 16) & 3];
    EXPECT_EQ(ids[0][0], hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" + hex.substr(16, 4) +
                             "-" + hex.substr(20));
    const auto differing = [](const std::string &x, const std::string &y) {
        int n = 0;
        for (std::size_t i = 0; i < x.size(); ++i)
            n += x[i] != y[i];
        return n;
    };
    EXPECT_GE(differing(ids[0][0], ids[0][1]), 24) << ids[0][0] << " " << ids[0][1];
    EXPECT_GE(differing(ids[0][0], ids[1][0]), 24) << ids[0][0] << " " << ids[1][0];
    EXPECT_GE(differing(ids[1][0], ids[1][1]), 24) << ids[1][0] << " " << ids[1][1];
    for (const auto &job : ids)
        for (const std::string &id : job) {
            ASSERT_EQ(id.size(), 36u);
            EXPECT_EQ(id[14], '8') << id;
            EXPECT_NE(std::string("89ab").find(id[19]), std::string::npos) << id;
        }
}

// Outputs of the plan stay in the process's own folders: a panorama directly
// in caches/images/, a video directly in caches/videos/, each named once.
// Anything else stops the process before any library call, and the other
// processes' results stay as they were.
TEST_F(StitchMain, PlanOutputsAreConfinedToTheProcesssFolders) {
    const fs::path job = make_job("job");
    write_file(job / "results/mesh/floor_0.png", "floor");
    write_file(job / "results/calib/up.jpg", "calibration");
    write_file(job / "results/videos/kept.avi", "video");
    const std::string plan = read_file(job / "caches/stitch_data.json");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"caches/images/point_000.jpg", "results/mesh/floor_0.png"},
        {"caches/images/point_001.jpg", "results/calib/up.jpg"},
        {"caches/images/point_001.jpg", "caches/images/sub/point_001.jpg"},
        {"caches/images/point_001.jpg", "caches/images/"},
        {"caches/images/point_001.jpg", "caches/images/point_000.jpg"},
        {"caches/videos/video_000.avi", "results/videos/kept.avi"},
        {"caches/videos/video_000.avi", "caches/mesh/video_000.avi"},
    };
    for (const auto &[from, to] : cases) {
        std::string text = plan;
        const auto at = text.find("\"" + from + "\"");
        ASSERT_NE(at, std::string::npos) << from;
        text.replace(at + 1, from.size(), to);
        write_file(job / "caches/stitch_data.json", text);
        fs::remove(trace());
        const auto r = stitch(job);
        EXPECT_EQ(r.status, 1) << r.output;
        const std::string line = to == "caches/images/point_000.jpg" ? "stitch plan names one output twice : " + to
                                 : starts_with(from, "caches/videos") ? "stitch plan output outside caches/videos/ : " + to
                                                                       : "stitch plan output outside caches/images/ : " + to;
        EXPECT_TRUE(contains(r.output, "\n" + line + "\nStitchMainProcess error\n")) << to << "\n" << r.output;
        EXPECT_EQ(traced(), "") << to;
    }
    EXPECT_EQ(read_file(job / "results/mesh/floor_0.png"), "floor");
    EXPECT_EQ(read_file(job / "results/calib/up.jpg"), "calibration");
    EXPECT_EQ(read_file(job / "results/videos/kept.avi"), "video");
    EXPECT_FALSE(fs::exists(job / "caches/mesh"));
}

// Each configuration's stitcher goes with its last record; a plan asking
// for more configurations than the limit stops before any library call.
TEST_F(StitchMain, ConfigurationsAreReleasedWithTheirLastRecordAndBounded) {
    const fs::path job = make_job("job", 1);
    const auto records = [](int n, int configs) {
        std::string text;
        for (int i = 0; i < n; ++i)
            text += std::string(i ? "," : "") + R"({"dst1":"caches/images/p)" + std::to_string(i) + R"(.jpg","name":"p)" +
                    std::to_string(i) + R"(","raw1":"captures/point_000_up.jpg","raw2":"captures/point_000_down.jpg",)" +
                    R"("config":"c)" + std::to_string(i * configs / n) + R"(","hdr":0,"resolution":1,"is_main":1})";
        return R"({"stitch_main_param":{"image_file":[)" + text + "]}}";
    };
    write_file(job / "caches/stitch_data.json", records(3, 2)); // c0, c0, c1
    const auto r = stitch(job);
    ASSERT_EQ(r.status, 0) << r.output;
    std::vector<std::string> order;
    for (const auto &line : lines_of(traced()))
        if (starts_with(line, "KIVO_ExecuteOptFlowStitchHandle ") || starts_with(line, "KIVO_DestroyOptFlowStitchHandle "))
            order.push_back(line.substr(5, 7));
    EXPECT_EQ(order, (std::vector<std::string>{"Execute", "Execute", "Destroy", "Execute", "Destroy"})) << traced();

    write_file(job / "caches/stitch_data.json", records(17, 17));
    fs::remove(trace());
    const auto b = stitch(job);
    EXPECT_EQ(b.status, 1) << b.output;
    EXPECT_TRUE(contains(b.output, "\nstitch plan beyond its limits : 17 images (at most 10000), 0 videos (at most "
                                   "1000), 17 image and 0 video configurations (at most 16 each)\n"))
        << b.output;
    EXPECT_EQ(traced(), "");
}

// A panorama whose captures, lens tables and size are unchanged is kept; a
// changed capture makes its panorama again, and --force all of them.
TEST_F(StitchMain, UpToDatePanoramasAreKeptUnlessForced) {
    const fs::path job = make_job("job", 2, "draft", "--points 2 --videos 0");
    write_file(job / "caches/split_data.json", R"({"StitchMainProcess":{"video_stitch":false}})");
    ASSERT_EQ(stitch(job).status, 0);
    const auto point0 = inode_of(job / "caches/images/point_000.jpg");
    const auto point1 = inode_of(job / "caches/images/point_001.jpg");
    fs::remove(trace());
    auto r = stitch(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(calls(traced(), "KIVO_CreateOptFlowStitchHandle").empty()) << traced();
    EXPECT_TRUE(contains(r.output, "\nimage stitch : 2 of 2 panoramas up to date\n")) << r.output;
    EXPECT_EQ(inode_of(job / "caches/images/point_000.jpg"), point0);

    // A capture of the plain point replaced: that panorama only.
    const auto plan = parse_json(job / "caches/stitch_data.json");
    const std::string raw1 = plan["stitch_main_param"]["image_file"][0]["raw1"].GetString();
    const std::string bytes = read_file(job / raw1);
    fs::remove(job / raw1);
    write_file(job / raw1, bytes);
    fs::last_write_time(job / raw1, fs::file_time_type::clock::now() + std::chrono::seconds(5));
    r = stitch(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nimage stitch : 1 of 2 panoramas up to date\n")) << r.output;
    EXPECT_NE(inode_of(job / "caches/images/point_000.jpg"), point0);
    EXPECT_EQ(inode_of(job / "caches/images/point_001.jpg"), point1);

    fs::remove(trace());
    ASSERT_EQ(stitch(job, "ZARN_FORCE=1").status, 0);
    EXPECT_EQ(calls(traced(), "KIVO_ExecuteOptFlowStitchHandle").size() +
                  calls(traced(), "KIVO_ExecuteOptFlowStitchHDRHandle").size(),
              2u);
}

TEST_F(StitchMain, ResolutionOutsideOneToThreeStopsBeforeAnyLibraryCall) {
    const fs::path job = make_job("job");
    const std::string plan = read_file(job / "caches/stitch_data.json");
    for (const std::string &bad : {std::string("\"resolution\":0"), std::string("\"resolution\":4")}) {
        std::string text = plan;
        const auto at = text.find("\"resolution\":1");
        ASSERT_NE(at, std::string::npos);
        text.replace(at, 14, bad);
        write_file(job / "caches/stitch_data.json", text);
        const auto r = stitch(job);
        EXPECT_EQ(r.status, 1) << r.output;
        EXPECT_TRUE(contains(r.output, "StitchMainProcess error\ndynamic_assert failed : false : at ")) << r.output;
        EXPECT_TRUE(contains(r.output, "CON_mStitchData")) << r.output;
        EXPECT_EQ(traced(), "");
    }
    // An element that is no object has no resolution either.
    std::string text = plan;
    text.insert(text.find("\"image_file\":[") + 14, "7,");
    write_file(job / "caches/stitch_data.json", text);
    const auto r = stitch(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "resolution out of range in image [0] : 0\n")) << r.output;
}

TEST_F(StitchMain, TheQualityKeywordChoosesThePanoramaSizes) {
    const fs::path job = make_job("job");
    const std::string plan = read_file(job / "caches/stitch_data.json");
    const std::vector<std::tuple<std::string, int, std::string>> cases = {
        {"normal", 1, "\"4096\" \"2048\""}, {"normal", 3, "\"4096\" \"2048\""}, {"high", 1, "\"8192\" \"4096\""},
        {"high", 2, "\"4096\" \"2048\""},   {"high", 3, "\"8192\" \"4096\""},   {"high2", 1, "\"4096\" \"2048\""},
        {"high2", 3, "\"4096\" \"2048\""},  {"normalx", 1, "\"1024\" \"512\""},
    };
    for (const auto &[quality, resolution, size] : cases) {
        std::string text = plan;
        for (auto at = text.find("\"resolution\":1"); at != std::string::npos; at = text.find("\"resolution\":1", at + 1))
            text.replace(at, 14, "\"resolution\":" + std::to_string(resolution));
        write_file(job / "caches/stitch_data.json", text);
        set_setting(job, 2, quality);
        fs::remove(trace());
        // The init is traced, then fails: nothing is stitched at that size.
        const auto r = stitch(job, "ZARN_BACKEND_FAIL=KIVO_InitOptFlowStitchHandle:9");
        EXPECT_EQ(r.status, 1) << r.output;
        EXPECT_TRUE(contains(r.output, "\nreturn value = 9\nStitchMainProcess error\n")) << r.output;
        const auto inits = calls(traced(), "KIVO_InitOptFlowStitchHandle");
        ASSERT_EQ(inits.size(), 1u) << quality;
        EXPECT_TRUE(contains(inits[0], size)) << quality << " " << resolution << ": " << inits[0];
    }
}

TEST_F(StitchMain, AMissingCaptureStopsBeforeAnyLibraryCall) {
    for (const char *file : {"captures/point_001_down_2.jpg", "captures/video_000_up_short.avi", "caches/table_Up.bin"}) {
        const fs::path job = make_job(fs::path(file).stem().string());
        fs::remove(job / file);
        fs::remove(trace());
        const auto r = stitch(job);
        EXPECT_EQ(r.status, 1) << r.output;
        EXPECT_TRUE(contains(r.output, "missing file : " + (job / file).string() + "\nStitchMainProcess error\n"))
            << r.output;
        EXPECT_EQ(traced(), "") << file;
        EXPECT_FALSE(fs::exists(job / "caches/images/point_000.jpg"));
    }
}

TEST_F(StitchMain, AFailingRecordStopsTheRestAndKeepsWhatWasWritten) {
    const fs::path job = make_job("job");
    // Eight plain records over the first point's captures; record 2's upper
    // capture does not decode.
    fs::copy_file(job / "captures/point_000_up.jpg", job / "captures/broken_up.jpg");
    {
        std::string bytes = read_file(job / "captures/broken_up.jpg");
        bytes.resize(64);
        write_file(job / "captures/broken_up.jpg", bytes);
    }
    std::string records;
    for (int i = 0; i < 8; ++i) {
        records += std::string(i ? "," : "") + R"({"dst1":"caches/images/p)" + std::to_string(i) +
                   R"(.jpg","name":"p)" + std::to_string(i) + R"(","raw1":"captures/)" +
                   (i == 2 ? "broken_up.jpg" : "point_000_up.jpg") +
                   R"(","raw2":"captures/point_000_down.jpg","config":"default","hdr":0,"resolution":1,"is_main":1})";
    }
    write_file(job / "caches/stitch_data.json", R"({"stitch_main_param":{"image_file":[)" + records + "]}}");
    const auto r = stitch(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nreturn value = 4\n")) << r.output;
    EXPECT_TRUE(contains(r.output, "StitchMainProcess error\ndynamic_assert failed : mStitchReturnValue == 0 : at "))
        << r.output;
    // Records 0 and 1 were done before; with two workers at most one more
    // was already running when record 2 failed; none started after.
    EXPECT_TRUE(fs::exists(job / "caches/images/p0.jpg") && fs::exists(job / "caches/images/p1.jpg"));
    const auto executed = calls(traced(), "KIVO_ExecuteOptFlowStitchHandle");
    EXPECT_LE(executed.size(), 4u) << traced();
    for (int later = 4; later < 8; ++later)
        EXPECT_FALSE(fs::exists(job / ("caches/images/p" + std::to_string(later) + ".jpg"))) << later;
    EXPECT_FALSE(fs::exists(job / "caches/images.json"));
}

TEST_F(StitchMain, BindingFailures) {
    const fs::path job = make_job("job");
    // A null object from create.
    const auto null = stitch(job, "ZARN_BACKEND_NULL=KIVO_CreateOptFlowStitchHandle");
    EXPECT_EQ(null.status, 1) << null.output;
    EXPECT_TRUE(contains(null.output, "StitchMainProcess error\ndynamic_assert failed : me.mP1 != nullptr : at "))
        << null.output;
    // An exception from the library keeps its text.
    const auto thrown = stitch(job, "ZARN_BACKEND_THROW=KIVO_ExecuteOptFlowStitchHandle");
    EXPECT_EQ(thrown.status, 1) << thrown.output;
    EXPECT_TRUE(contains(thrown.output, "KIVO_ExecuteOptFlowStitchHandle : injected fault\n")) << thrown.output;
    // Each missing entry, in link order, stops the binding.
    for (std::size_t k = 0; k < ENTRIES.size(); ++k) {
        fs::remove(trace());
        const auto r = stitch(job, "", FIXTURES + "/stitch_omit_" + std::to_string(k + 1));
        EXPECT_EQ(r.status, 1) << r.output;
        EXPECT_TRUE(contains(r.output, "function : " + ENTRIES[k] + "\nError = 2 : ")) << ENTRIES[k] << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, "StitchMainProcess error\ndynamic_assert failed : false : at virtual void* "
                                       "ZARN::DLL::Private::Implement::link("))
            << r.output;
    }
}

} // namespace
