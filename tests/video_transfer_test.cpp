// VideoTransferProcess end to end: the launcher, the module and the
// reference stitching library over videos stitched from zarn_capture's
// synthetic captures.
#include "support.h"

#include <rapidjson/document.h>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

namespace {

using namespace zarn_test;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";

rapidjson::Document parse_json(const std::string &text) {
    rapidjson::Document d;
    d.Parse(text.c_str());
    EXPECT_FALSE(d.HasParseError()) << text;
    return d;
}

// The SHA-256 of `size` bytes of a file from `offset`, by the system's tool.
std::string sha256_of(const fs::path &file, long long offset = 0, long long size = -1) {
    const std::string range = "tail -c +" + std::to_string(offset + 1) + " " + quote(file.string()) +
                              (size >= 0 ? " | head -c " + std::to_string(size) : std::string());
    return run(range + " | sha256sum | cut -c1-64").output.substr(0, 64);
}

// The top-level boxes of an MP4 file, in order.
std::vector<std::string> boxes(const fs::path &file) {
    const std::string d = read_file(file);
    std::vector<std::string> names;
    for (std::size_t at = 0; at + 8 <= d.size();) {
        const auto byte = [&](std::size_t i) { return std::uint64_t(static_cast<unsigned char>(d[at + i])); };
        const std::uint64_t size = byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3);
        names.push_back(d.substr(at + 4, 4));
        if (size < 8)
            break;
        at += size;
    }
    return names;
}

class VideoTransfer : public ::testing::Test {
protected:
    // A job with `videos` stitched videos of 8 frames (512 x 256).
    fs::path make_job(int videos = 1, const std::string &transfer_settings = "") {
        const fs::path job = mRoot.path() / "job";
        auto r = run(quote(CAPTURE) + " " + quote(job.string()) + " --width 256 --points 0 --videos " +
                     std::to_string(videos) + " --frames 8");
        EXPECT_EQ(r.status, 0) << r.output;
        write_file(job / "caches/split_data.json", R"({"StitchMainProcess":{},"VideoTransferProcess":{}})");
        write_file(job / "setting.xml", "<_Lumora><StitchMainProcess><mPanoramaQuality value=\"draft\"/>"
                                        "</StitchMainProcess><VideoTransferProcess>" +
                                            transfer_settings + "</VideoTransferProcess></_Lumora>");
        r = zarn(job, "StitchMainProcess");
        EXPECT_EQ(r.status, 0) << r.output;
        fs::remove(trace());
        return job;
    }
    RunResult zarn(const fs::path &job, const std::string &process = "VideoTransferProcess",
                   const std::string &env = "") {
        return run("env -u ZARN_BACKEND_FAIL -u ZARN_BACKEND_THROW -u ZARN_FORCE NO_COLOR=1 ZARN_BACKEND_TRACE=" +
                   quote(trace()) + " " + env + " " + quote(ZARN) + " run --process " + process + " --libs " +
                   quote(BACKENDS) + " " + quote(job.string()));
    }
    std::string trace() const { return mRoot / "trace.txt"; }
    std::string traced() const { return fs::exists(trace()) ? read_file(trace()) : std::string(); }
    std::size_t executes() const {
        std::size_t n = 0;
        for (const auto &line : lines_of(traced()))
            n += starts_with(line, "KIVO_ExecuteVideoTransferHandle ");
        return n;
    }
    // What a failed run must leave as it was.
    std::map<std::string, std::string> delivered(const fs::path &job) const {
        std::map<std::string, std::string> files;
        for (const auto &[name, inode] : tree(job / "results/videos/web"))
            files[name] = std::to_string(inode) + ":" + read_file(job / "results/videos/web" / name);
        files["manifest"] = read_file(job / "caches/upload.part10.json");
        return files;
    }
    static void set_hdr(const fs::path &job, const std::string &entries) {
        write_file(job / "caches/videos/videos_hdr_param.json", "{\"hdr_param\":[" + entries + "]}");
    }

    TempDir mRoot;
};

TEST_F(VideoTransfer, SkippedWithoutItsMemberAndTouchesNothing) {
    const fs::path job = make_job();
    write_file(job / "caches/split_data.json", R"({"StitchMainProcess":{}})");
    const auto r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nskip VideoTransferProcess\n")) << r.output;
    for (const char *name : {"caches/transfer", "results/videos/web", "caches/upload.part10.json"})
        EXPECT_FALSE(fs::exists(job / name)) << name;
    EXPECT_EQ(traced(), "");
}

TEST_F(VideoTransfer, DeliversAStreamableSphericalVideoWithItsPosterAndManifest) {
    const fs::path job = make_job(1, R"(<mUploadPartSize value="4096"/>)");
    const auto r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    for (const char *line : {"\nmUploadPartSize = 4096\n", "\ncaches/videos/videos_hdr_param.json : 1 videos\n",
                             "\ninitializing video transfer\n", "\nmThreadConcurrency = 1\n",
                             "\nasync processing 1 on 1 threads (bounded by mThreadConcurrency : ",
                             "\nprocessing video [0] video_000\n",
                             "\nvideo_000 : 8 frames, 0.8 s\n", "\nresults/videos/web : 2 files published\n",
                             "\ncaches/upload.part10.json : 2 files\n", "\nall done\n"})
        EXPECT_TRUE(contains(r.output, line)) << line << "\n" << r.output;
    // The library read the checked file, with the stitcher's HDR value.
    const std::string t = traced();
    EXPECT_TRUE(contains(t, "KIVO_InitVideoTransferHandle ")) << t;
    EXPECT_TRUE(contains(t, "\"67108864\" \"23\" \"fast\" \"48\" \"4\"")) << t;
    ASSERT_EQ(executes(), 1u) << t;
    EXPECT_TRUE(contains(t, "KIVO_ExecuteVideoTransferHandle \"0x")) << t;
    EXPECT_TRUE(contains(t, "\"/proc/self/fd/")) << t;

    const fs::path mp4 = job / "results/videos/web/video_000.mp4", jpg = job / "results/videos/web/video_000.jpg";
    EXPECT_EQ(inode_of(mp4), inode_of(job / "caches/transfer/video_000.mp4"));
    EXPECT_EQ(inode_of(jpg), inode_of(job / "caches/transfer/video_000.jpg"));
    // The stitched video's own publication is still there beside it.
    EXPECT_TRUE(fs::exists(job / "results/videos/video_000.avi"));

    const auto probe = run("ffprobe -v error -show_entries stream=codec_name,pix_fmt,width,height,nb_frames:"
                           "stream_side_data=side_data_type,projection,type -of default=nw=1 " + quote(mp4.string()));
    ASSERT_EQ(probe.status, 0) << probe.output;
    EXPECT_EQ(probe.output, "codec_name=h264\nwidth=512\nheight=256\npix_fmt=yuv420p\nnb_frames=8\n"
                            "side_data_type=Stereo 3D\ntype=2D\nside_data_type=Spherical Mapping\n"
                            "projection=equirectangular\n");
    // Fast start: the index comes before the media data.
    const auto order = boxes(mp4);
    const auto moov = std::find(order.begin(), order.end(), "moov"), mdat = std::find(order.begin(), order.end(), "mdat");
    ASSERT_NE(moov, order.end());
    ASSERT_NE(mdat, order.end());
    EXPECT_LT(moov, mdat);
    const cv::Mat poster = cv::imread(jpg.string());
    EXPECT_EQ(poster.cols, 512);
    EXPECT_EQ(poster.rows, 256);

    // The manifest: both files with their sizes and digests, and the parts
    // of each file larger than one part, checked against the files.
    const std::string text = read_file(job / "caches/upload.part10.json");
    EXPECT_TRUE(starts_with(text, R"({"upload":[{"file":"videos/web/video_000.mp4","size":)")) << text;
    const auto manifest = parse_json(text);
    ASSERT_EQ(manifest["upload"].Size(), 2u);
    const char *names[] = {"video_000.mp4", "video_000.jpg"};
    for (rapidjson::SizeType k = 0; k < 2; ++k) {
        const auto &e = manifest["upload"][k];
        const fs::path file = job / "results/videos/web" / names[k];
        EXPECT_EQ(std::string(e["file"].GetString()), std::string("videos/web/") + names[k]);
        EXPECT_EQ(e["size"].GetInt64(), static_cast<std::int64_t>(fs::file_size(file)));
        EXPECT_EQ(std::string(e["sha256"].GetString()), sha256_of(file));
        ASSERT_TRUE(e.HasMember("parts")) << names[k];
        long long offset = 0;
        for (const auto &part : e["parts"].GetArray()) {
            EXPECT_EQ(part["offset"].GetInt64(), offset);
            EXPECT_TRUE(part["size"].GetInt64() == 4096 || offset + part["size"].GetInt64() == e["size"].GetInt64());
            EXPECT_EQ(std::string(part["sha256"].GetString()), sha256_of(file, offset, part["size"].GetInt64()));
            offset += part["size"].GetInt64();
        }
        EXPECT_EQ(offset, e["size"].GetInt64());
    }
}

TEST_F(VideoTransfer, SecondRunKeepsWhatIsUpToDateAndRedoesOnlyAChangedVideo) {
    const fs::path job = make_job(2, R"(<mThreadConcurrency value="2"/>)");
    auto r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nasync processing 2 on 2 threads")) << r.output;
    EXPECT_EQ(executes(), 2u);
    // Small files: no parts at the default part size.
    EXPECT_FALSE(contains(read_file(job / "caches/upload.part10.json"), "\"parts\"")) << r.output;
    const auto first = delivered(job);
    const auto manifest = inode_of(job / "caches/upload.part10.json");
    const auto brightness = [&] { return cv::mean(cv::imread(job / "results/videos/web/video_001.jpg", cv::IMREAD_GRAYSCALE))[0]; };
    const double lifted = brightness();

    fs::remove(trace());
    r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nvideo transfer : 2 of 2 videos up to date\n")) << r.output;
    EXPECT_EQ(executes(), 0u) << traced();
    EXPECT_FALSE(contains(traced(), "KIVO_CreateVideoTransferHandle")) << traced();
    EXPECT_EQ(delivered(job), first);
    EXPECT_EQ(inode_of(job / "caches/upload.part10.json"), manifest);

    // A new HDR value for the second video redoes that one only.
    std::string hdr = read_file(job / "caches/videos/videos_hdr_param.json");
    const std::size_t value = hdr.find("\"value\":", hdr.find("\"name\":\"video_001\""));
    ASSERT_NE(value, std::string::npos) << hdr;
    hdr.replace(value + 8, hdr.find(',', value) - value - 8, "1");
    write_file(job / "caches/videos/videos_hdr_param.json", hdr);
    fs::remove(trace());
    r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    ASSERT_EQ(executes(), 1u) << traced();
    EXPECT_TRUE(contains(traced(), "\"1\" \"" + (job / "caches/transfer/video_001.mp4").string() + "\"")) << traced();
    const auto second = delivered(job);
    EXPECT_EQ(second.at("video_000.mp4"), first.at("video_000.mp4"));
    EXPECT_EQ(second.at("video_000.jpg"), first.at("video_000.jpg"));
    EXPECT_NE(second.at("video_001.mp4"), first.at("video_001.mp4"));
    // The stitcher's ratio of about 4 had lifted the mid-tones (x 1.5 at
    // half grey); a ratio of 1 leaves the frames as they were.
    EXPECT_GT(lifted, brightness() + 10);
    EXPECT_NE(second.at("manifest"), first.at("manifest"));
}

TEST_F(VideoTransfer, SameSourceGivesTheSameBytes) {
    const fs::path job = make_job();
    ASSERT_EQ(zarn(job).status, 0);
    const std::string mp4 = read_file(job / "results/videos/web/video_000.mp4");
    const auto r = zarn(job, "VideoTransferProcess", "ZARN_FORCE=1");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(executes(), 2u);
    EXPECT_EQ(read_file(job / "results/videos/web/video_000.mp4"), mp4);
}

// A failed transcoding, injected or from a broken source, ends the process
// and leaves the earlier deliveries, their folder and the manifest as they
// were; nothing half-written is left behind.
TEST_F(VideoTransfer, FailureLeavesTheEarlierDeliveriesIntact) {
    const fs::path job = make_job();
    ASSERT_EQ(zarn(job).status, 0);
    const auto before = delivered(job);
    set_hdr(job, R"({"name":"video_000","value":2})");

    auto r = zarn(job, "VideoTransferProcess", "ZARN_BACKEND_FAIL=KIVO_ExecuteVideoTransferHandle:4");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nvideo transfer failed : the source video is missing or does not decode\n"
                                   "return value = 4\nVideoTransferProcess error\ndynamic_assert failed : "
                                   "mTransferReturnValue == 0 : at "))
        << r.output;
    EXPECT_EQ(delivered(job), before);

    // A stitched video that is no AVI at all.
    write_file(job / "caches/videos/video_000.avi", std::string(4096, 'x'));
    r = zarn(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nreturn value = 4\n")) << r.output;
    EXPECT_EQ(delivered(job), before);
    EXPECT_EQ(tree(job / "caches/transfer").size(), 2u); // no temporary left
    // Once the source is right again, the delivery is made.
    ASSERT_EQ(zarn(job, "StitchMainProcess").status, 0);
    r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(delivered(job).at("video_000.mp4"), before.at("video_000.mp4"));
}

// Sizes are checked before frames are decoded: a header claiming huge
// frames is refused as beyond the limits, a frame claiming more pixels than
// the header is refused as undecodable, both within a small address space.
TEST_F(VideoTransfer, OversizedFramesAreRefusedBeforeTheyAreAllocated) {
    const fs::path job = make_job();
    const fs::path avi = job / "caches/videos/video_000.avi";
    const std::string good = read_file(avi);
    const auto patch = [&](std::size_t at) {
        std::string bomb = good;
        for (std::size_t i : {at, at + 2}) { // two 16-bit fields of 60000
            bomb[i] = static_cast<char>(0xEA);
            bomb[i + 1] = static_cast<char>(0x60);
        }
        fs::remove(avi);
        write_file(avi, bomb);
    };
    const auto limited = [&] {
        return run("prlimit --as=1073741824 env NO_COLOR=1 " + quote(ZARN) + " run --process VideoTransferProcess --libs " +
                   quote(BACKENDS) + " " + quote(job.string()));
    };
    // BITMAPINFOHEADER: width and height as 32-bit little-endian fields.
    std::string header = good;
    const std::size_t strf = header.find("strf");
    ASSERT_NE(strf, std::string::npos);
    for (std::size_t i : {strf + 12, strf + 16}) {
        header[i] = static_cast<char>(0x60);
        header[i + 1] = static_cast<char>(0xEA);
    }
    fs::remove(avi);
    write_file(avi, header);
    auto r = limited();
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nvideo transfer failed : the source video's frames, frame count or frame rate are "
                                   "beyond the limits\nreturn value = 8\n"))
        << r.output;
    // The first frame's start of frame: height and width, big-endian.
    const std::size_t sof = good.find("\xFF\xC0");
    ASSERT_NE(sof, std::string::npos);
    patch(sof + 5);
    r = limited();
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nreturn value = 4\n")) << r.output;
    EXPECT_FALSE(fs::exists(job / "results/videos/web/video_000.mp4"));
}

// Bad plans and HDR files are refused with a line naming the video before
// the library is opened.
TEST_F(VideoTransfer, BadInputIsRefusedBeforeAnyWork) {
    const fs::path job = make_job();
    struct CASE {
        std::string mHdr, mLine, mCondition;
    };
    const std::vector<CASE> cases = {
        {R"({"name":"ghost","value":2})", "video transfer, video [0] : no video of this name in the stitch plan : ghost",
         "found != ORN::VAR_NONE"},
        {R"({"name":"video_000","value":0.5})", "video transfer, video [0] : HDR value out of range (1 to 256) for "
                                                "video_000 : 0.500000",
         "range"},
        {R"({"name":"video_000","value":"bright"})",
         "video transfer, video [0] : HDR value out of range (1 to 256) for video_000 : not a number", "range"},
        {R"({"name":"video_000","value":2},{"name":"video_000","value":2})",
         "video transfer, video [1] : video listed twice : video_000", "once"},
        {R"({"name":"../video_000","value":2})", "video transfer, video [0] : not a video name : ../video_000", "plain"},
    };
    for (const CASE &c : cases) {
        set_hdr(job, c.mHdr);
        const auto r = zarn(job);
        EXPECT_EQ(r.status, 1) << r.output;
        EXPECT_TRUE(contains(r.output, "\n" + c.mLine + "\nVideoTransferProcess error\ndynamic_assert failed : " +
                                           c.mCondition + " : at "))
            << c.mLine << "\n" << r.output;
    }
    set_hdr(job, R"({"name":"video_000","value":2})");
    fs::remove(job / "caches/videos/video_000.avi");
    auto r = zarn(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nmissing file : " + (job / "caches/videos/video_000.avi").string() + "\n")) << r.output;
    write_file(job / "setting.xml", R"(<_Lumora><VideoTransferProcess><mUploadPartSize value="100"/></VideoTransferProcess></_Lumora>)");
    r = zarn(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nsetting out of range : mUploadPartSize = 100 (4096 to 4294967296)\n")) << r.output;
    EXPECT_FALSE(contains(traced(), "KIVO_")) << traced();
    EXPECT_TRUE(fs::is_empty(job / "results/videos/web"));
    EXPECT_FALSE(fs::exists(job / "caches/upload.part10.json"));
}

} // namespace
