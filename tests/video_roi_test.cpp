// VideoROIProcess: framed views cut from the stitched videos. The quoting of
// command-line arguments, the view projection against a projection written
// here, and the process end to end through the launcher on small generated
// videos (by zarn_capture and the stitch process, or by FFmpeg from a frame
// made here).
#include "support.h"

#include "ZARN_Common/ImageProc.h"
#include "ZARN_Common/ViewProjection.h"
#include "__ORN__/orn_runtime.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <numbers>

namespace {

using namespace zarn_test;
using ZARN::ViewProjection;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";
constexpr double PI = std::numbers::pi;

// Texts no shell may act on.
const std::vector<std::string> HOSTILE = {
    "", "plain", "two words", "it's", "\"double\"", "$(touch MARKER)", "`touch MARKER`", "a;touch MARKER",
    "line\nbreak", "100%", "bang!", "back\\slash", "*?[a]", "~", "$HOME", "'", "''\\'", "-n", "tab\there", "a|b&c>d<e",
};

TEST(QuoteArgument, EveryTextReachesTheProgramAsOneWordUnchanged) {
    TempDir dir;
    for (const std::string &word : HOSTILE) {
        const std::string command = "cd " + ORN::GlobalRuntime::quote_argument(dir.str()) +
                                    " && printf '[%s]' " + ORN::GlobalRuntime::quote_argument(word) + " > out";
        ASSERT_EQ(ORN::GlobalRuntime::system_exec(command), 0) << command;
        EXPECT_EQ(read_file(dir / "out"), "[" + word + "]") << command;
    }
    EXPECT_FALSE(fs::exists(dir / "MARKER"));
    // Plain words stay readable; everything else is single-quoted.
    EXPECT_EQ(ORN::GlobalRuntime::quote_argument("/tmp/job-1/a.b_c+d:e,f@g"), "/tmp/job-1/a.b_c+d:e,f@g");
    EXPECT_EQ(ORN::GlobalRuntime::quote_argument(""), "''");
    EXPECT_EQ(ORN::GlobalRuntime::quote_argument("it's"), "'it'\\''s'");
    EXPECT_EQ(ORN::GlobalRuntime::quote_argument("$(x)"), "'$(x)'");
}

// A few lines of projection of our own: the direction through a view's
// pixel, by rotating the camera ray with yaw (about the vertical, to the
// east), pitch (up) and roll (clockwise), all in degrees.
void own_direction(double yaw, double pitch, double roll, double fov, int w, int h, double x, double y, double d[3]) {
    const double f = w / 2.0 / std::tan(fov / 2 * PI / 180);
    double p[3] = {(x - w / 2.0) / f, (y - h / 2.0) / f, 1};
    const double r = roll * PI / 180, t = pitch * PI / 180, s = yaw * PI / 180;
    double q[3] = {p[0] * std::cos(r) - p[1] * std::sin(r), p[0] * std::sin(r) + p[1] * std::cos(r), p[2]};
    double u[3] = {q[0], q[1] * std::cos(t) - q[2] * std::sin(t), q[1] * std::sin(t) + q[2] * std::cos(t)};
    d[0] = u[0] * std::cos(s) + u[2] * std::sin(s);
    d[1] = u[1];
    d[2] = -u[0] * std::sin(s) + u[2] * std::cos(s);
}

// A colour that encodes a direction smoothly (no seam anywhere).
cv::Vec3b direction_colour(double lon, double lat) {
    return cv::Vec3b(cv::saturate_cast<uchar>(128 + 110 * std::cos(lat) * std::cos(lon)),
                     cv::saturate_cast<uchar>(128 + 110 * std::sin(lat)),
                     cv::saturate_cast<uchar>(128 + 110 * std::cos(lat) * std::sin(lon)));
}
cv::Mat direction_frame(int w, int h) {
    cv::Mat frame(h, w, CV_8UC3);
    for (int v = 0; v < h; ++v)
        for (int u = 0; u < w; ++u)
            frame.at<cv::Vec3b>(v, u) = direction_colour(2 * PI * (u + 0.5) / w - PI, PI / 2 - PI * (v + 0.5) / h);
    return frame;
}
// Largest channel difference between a view and the colours its own
// projection says, over the pixels inside the rectangle.
int worst_difference(const cv::Mat &view, double yaw, double pitch, double roll, double fov, cv::Rect inside) {
    int worst = 0;
    for (int y = inside.y; y < inside.y + inside.height; ++y)
        for (int x = inside.x; x < inside.x + inside.width; ++x) {
            double d[3];
            own_direction(yaw, pitch, roll, fov, view.cols, view.rows, x + 0.5, y + 0.5, d);
            const cv::Vec3b want = direction_colour(std::atan2(d[0], d[2]), std::asin(-d[1] / std::hypot(d[0], d[1], d[2])));
            const cv::Vec3b got = view.at<cv::Vec3b>(y, x);
            for (int c = 0; c < 3; ++c)
                worst = std::max(worst, std::abs(int(want[c]) - int(got[c])));
        }
    return worst;
}

TEST(ViewProjection, RendersWhatAnIndependentProjectionSeesAcrossTheSeamAndAtEveryRotation) {
    const cv::Mat frame = direction_frame(1024, 512);
    const ORN::Image image = ZARN::ImageProc::image(frame);
    struct CASE {
        double yaw, pitch, roll, fov;
    };
    for (const CASE c : {CASE{0, 0, 0, 90}, CASE{90, 0, 0, 60}, CASE{180, 0, 0, 100}, CASE{-150, 30, 20, 70},
                         CASE{45, -60, -35, 120}, CASE{10, 89, 0, 40}}) {
        const ViewProjection::VIEW view{c.yaw, c.pitch, c.roll, c.fov, 160, 90};
        const cv::Mat out = ZARN::ImageProc::mat(ViewProjection::render(image, view, 2));
        EXPECT_LE(worst_difference(out, c.yaw, c.pitch, c.roll, c.fov, cv::Rect(0, 0, 160, 90)), 3)
            << c.yaw << " " << c.pitch << " " << c.roll << " " << c.fov;
    }
    // The conventions: yaw 90 looks east, pitch 90 straight up, and a
    // positive roll turns the camera's right down.
    double d[3];
    ViewProjection::direction({90, 0, 0, 90, 100, 100}, 50, 50, d);
    EXPECT_NEAR(d[0], 1, 1e-12);
    ViewProjection::direction({0, 90, 0, 90, 100, 100}, 50, 50, d);
    EXPECT_NEAR(d[1], -1, 1e-12);
    ViewProjection::direction({0, 0, 30, 90, 100, 100}, 100, 50, d);
    EXPECT_GT(d[1], 0.3);
}

TEST(ViewProjection, AWideFrameShrunkIntoASmallViewDoesNotAlias) {
    // Columns alternating black and white, one pixel each: any view that
    // takes fewer samples than the frame has columns sees only grey.
    cv::Mat frame(1024, 4096, CV_8UC3);
    for (int u = 0; u < frame.cols; ++u)
        frame.col(u).setTo(cv::Scalar::all(u % 2 ? 255 : 0));
    const ViewProjection::VIEW view{37, 10, 0, 120, 64, 48};
    EXPECT_EQ(ViewProjection::level(view, 4096), 5);
    EXPECT_EQ(ViewProjection::level({0, 0, 0, 90, 4096, 2048}, 4096), 0);
    const cv::Mat out = ZARN::ImageProc::mat(ViewProjection::render(ZARN::ImageProc::image(frame), view, 1));
    cv::Scalar mean, deviation;
    cv::meanStdDev(out, mean, deviation);
    EXPECT_NEAR(mean[0], 127.5, 4);
    EXPECT_LT(deviation[0], 4) << "aliased";
}

// ---------------------------------------------------------------------------
// End to end.

class VideoROI : public ::testing::Test {
protected:
    // A job with one stitched video made by FFmpeg from a frame whose colours
    // encode direction: 8 frames at 25 fps, 512 x 256, named `video` in the
    // plan, its file `file` in caches/videos/.
    fs::path synthetic_job(const std::string &dir, const std::string &video = "video_000",
                           const std::string &file = "video_000.avi") {
        const fs::path job = mRoot.path() / dir;
        fs::create_directories(job / "caches/videos");
        fs::create_directories(job / "extras");
        cv::imwrite((mRoot.path() / "frame.png").string(), direction_frame(512, 256));
        const auto r = run("ffmpeg -nostdin -loglevel error -y -loop 1 -framerate 25 -i " + quote(mRoot / "frame.png") +
                           " -frames:v 8 -c:v mjpeg -q:v 1 " + quote((job / "caches/videos" / file).string()));
        EXPECT_EQ(r.status, 0) << r.output;
        write_file(job / "caches/stitch_data.json",
                   R"({"stitch_main_param":{"image_file":[],"video_file":[{"dst4":)" + json(("caches/videos/" + file)) +
                       R"(,"name":)" + json(video) + "}]}}");
        logo(job / "extras/logo.png");
        return job;
    }
    // A solid magenta logo, 40 x 20.
    static void logo(const fs::path &file) {
        fs::create_directories(file.parent_path());
        cv::imwrite(file.string(), cv::Mat(20, 40, CV_8UC3, cv::Scalar(255, 0, 255)));
    }
    static std::string json(const std::string &text) {
        std::string out = "\"";
        for (const char c : text) {
            if (c == '"' || c == '\\')
                out += std::string("\\") + c;
            else if (static_cast<unsigned char>(c) < 32) {
                char code[8];
                std::snprintf(code, sizeof(code), "\\u%04x", c);
                out += code;
            } else
                out += c;
        }
        return out + "\"";
    }
    static void member(const fs::path &job, const std::string &views, const std::string &extra = "") {
        write_file(job / "caches/split_data.json", R"({"VideoROIProcess":{)" + extra + R"("views":[)" + views + "]}}");
    }
    RunResult zarn(const fs::path &job, const std::string &processes = "--process VideoROIProcess",
                   const std::string &env = "") {
        return run("cd " + quote(mRoot.str()) + " && env NO_COLOR=1 " + env + " " + quote(ZARN) + " run " + processes +
                   " --libs " + quote(BACKENDS) + " " + quote(job.string()));
    }
    static cv::Mat image(const fs::path &file) { return cv::imread(file.string()); }

    TempDir mRoot;
};

TEST_F(VideoROI, AFramedViewIsTheProjectionOfItsFrameStampedWithLogoAndTime) {
    const fs::path job = synthetic_job("job");
    member(job, R"({"name":"east","video":"video_000","frame":3,"yaw":80,"pitch":-15,"roll":10,"fov":75,"width":320,"height":240,"text":"Hall"},
                   {"video":"video_000","time":0.1,"width":200,"height":100})");
    const auto r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    for (const char *line : {"\nvideo views : 2\n", "\ninitializing views\n", "\nprocessing view [0] east\n",
                             "\nprocessing view [1] video_000_1\n", "\nvideo roi : 2/2 100%", "\nreturn value = 0\n",
                             "\ntime costs : ", "\ncaches/upload.part8.json : 2 files\n", "\nall done\n"})
        EXPECT_TRUE(contains(r.output, line)) << line << "\n" << r.output;
    EXPECT_TRUE(contains(r.output, "\ncd " + (job / "caches/video_roi/work").string() +
                                       " && ffmpeg -nostdin -hide_banner -loglevel error -y -i 0.view.bmp -i logo.png "
                                       "-filter_complex '[1:v]scale=40:20:flags=area[logo]"))
        << r.output;

    const cv::Mat east = image(job / "results/video_roi/east.jpg");
    ASSERT_EQ(east.cols, 320);
    ASSERT_EQ(east.rows, 240);
    EXPECT_EQ(image(job / "results/video_roi/video_000_1.jpg").size(), cv::Size(200, 100));
    // Away from the stamps, the view is what our own projection sees.
    EXPECT_LE(worst_difference(east, 80, -15, 10, 75, cv::Rect(40, 50, 240, 120)), 12);
    // The logo at the top right (6 pixels in), the time text's dark box at
    // the bottom left.
    const cv::Vec3b logo = east.at<cv::Vec3b>(16, 320 - 6 - 20);
    EXPECT_GT(logo[0], 200);
    EXPECT_LT(logo[1], 60);
    EXPECT_GT(logo[2], 200);
    EXPECT_TRUE(fs::exists(job / "caches/video_roi/east.jpg"));
    EXPECT_EQ(inode_of(job / "caches/video_roi/east.jpg"), inode_of(job / "results/video_roi/east.jpg"));
    // Nothing left in the work folder.
    EXPECT_TRUE(fs::is_empty(job / "caches/video_roi/work"));
    EXPECT_EQ(read_file(job / "caches/upload.part8.json"),
              R"({"upload":[{"file":"video_roi/east.jpg"},{"file":"video_roi/video_000_1.jpg"}]})");

    // A second run keeps both; a changed view is made again, a dropped one
    // leaves the results and the cache.
    const ino_t kept = inode_of(job / "results/video_roi/east.jpg");
    const auto again = zarn(job);
    ASSERT_EQ(again.status, 0) << again.output;
    EXPECT_TRUE(contains(again.output, "\nvideo roi : 2 of 2 views up to date\n")) << again.output;
    EXPECT_FALSE(contains(again.output, "ffmpeg")) << again.output;
    EXPECT_EQ(inode_of(job / "results/video_roi/east.jpg"), kept);
    member(job, R"({"name":"east","video":"video_000","frame":3,"yaw":81,"pitch":-15,"roll":10,"fov":75,"width":320,"height":240,"text":"Hall"})");
    ASSERT_EQ(zarn(job).status, 0);
    EXPECT_NE(inode_of(job / "results/video_roi/east.jpg"), kept);
    EXPECT_FALSE(fs::exists(job / "results/video_roi/video_000_1.jpg"));
    EXPECT_FALSE(fs::exists(job / "caches/video_roi/video_000_1.jpg"));
    EXPECT_EQ(read_file(job / "caches/upload.part8.json"), R"({"upload":[{"file":"video_roi/east.jpg"}]})");
}

TEST_F(VideoROI, ViewsOfAVideoStitchedFromGeneratedCaptures) {
    const fs::path job = mRoot.path() / "captured";
    const auto made = run(quote(CAPTURE) + " " + quote(job.string()) + " --width 256 --points 0 --videos 1 --frames 8");
    ASSERT_EQ(made.status, 0) << made.output;
    logo(job / "extras/logo.png");
    write_file(job / "caches/split_data.json",
               R"({"StitchMainProcess":{},"VideoROIProcess":{"views":[{"name":"front","video":"video_000","frame":7,"width":128,"height":96},)"
               R"({"name":"back","video":"video_000","time":0,"yaw":180,"fov":120,"width":96,"height":96}]}})");
    const auto r = zarn(job, "--process StitchMainProcess --process VideoROIProcess");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(image(job / "results/video_roi/front.jpg").size(), cv::Size(128, 96));
    EXPECT_EQ(image(job / "results/video_roi/back.jpg").size(), cv::Size(96, 96));
    EXPECT_EQ(inode_of(job / "results/video_roi/back.jpg"), inode_of(job / "caches/video_roi/back.jpg"));
}

TEST_F(VideoROI, ANullMemberSkips) {
    const fs::path job = synthetic_job("job");
    write_file(job / "caches/split_data.json", R"({"VideoROIProcess":null})");
    const auto before = tree(job);
    const auto r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nskip VideoROIProcess\n")) << r.output;
    // Only the launcher's lock and run record are new.
    auto after = tree(job);
    EXPECT_EQ(after.erase("caches/job.lock") + after.erase("caches/zarn_run.json"), 2u);
    EXPECT_EQ(after, before);
}

TEST_F(VideoROI, BadViewsAreRefusedBeforeAnyWorkAndTheResultsStayAsTheyWere) {
    const fs::path job = synthetic_job("job");
    member(job, R"({"name":"good","video":"video_000","frame":0,"width":64,"height":32})");
    ASSERT_EQ(zarn(job).status, 0);
    const auto results = tree(job / "results");
    const std::string manifest = read_file(job / "caches/upload.part8.json");
    const std::string view = R"("name":"v","video":"video_000")";
    struct CASE {
        std::string views, extra, line;
    };
    const std::vector<CASE> cases = {
        {"{" + view + R"(,"time":0.4,"width":64,"height":32})", "",
         "views[0] (v) : time beyond the end of the video, the video has 8 frames (0.320 s at 25 fps) : " +
             (job / "caches/videos/video_000.avi").string()},
        {"{" + view + R"(,"frame":8,"width":64,"height":32})", "", "views[0] (v) : frame beyond the end of the video, "},
        {"{" + view + R"(,"frame":0,"fov":180,"width":64,"height":32})", "", "views[0] (v) : fov outside (0, 180) : 180"},
        {"{" + view + R"(,"frame":0,"fov":0,"width":64,"height":32})", "", "views[0] (v) : fov outside (0, 180) : 0"},
        {"{" + view + R"(,"frame":0,"width":0,"height":32})", "", "views[0] (v) : output size outside 1..16384 each way"},
        {"{" + view + R"(,"frame":0,"width":64,"height":16385})", "", "views[0] (v) : output size outside 1..16384 each way"},
        {R"({"name":"v","video":"nowhere","frame":0,"width":64,"height":32})", "",
         "views[0] (v) : no video of that name in the stitch plan : nowhere"},
        {"{" + view + R"(,"frame":0,"width":64,"height":32})", R"("logo":"extras/none.png",)",
         "logo : " + (job / "extras/none.png").string() + " : missing"},
        {R"({"name":"a/b","video":"video_000","frame":0,"width":64,"height":32})", "",
         "views[0] (a/b) : not a plain file name of at most 200 bytes"},
        {R"({"name":"..","video":"video_000","frame":0,"width":64,"height":32})", "", "views[0] (..) : not a plain file name"},
        {"{" + view + R"(,"frame":0,"width":64,"height":32},{)" + view + R"(,"frame":1,"width":64,"height":32})", "",
         "views[1] (v) : two views with one name"},
        {"{" + view + R"(,"frame":0,"time":0,"width":64,"height":32})", "",
         "views[0] (v) : give exactly one of \"time\" and \"frame\""},
    };
    for (const CASE &c : cases) {
        member(job, c.views, c.extra);
        const auto r = zarn(job);
        EXPECT_EQ(r.status, 1) << c.views;
        EXPECT_TRUE(contains(r.output, "\n" + c.line)) << c.line << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, "\nVideoROIProcess error\ndynamic_assert failed : ")) << r.output;
        EXPECT_FALSE(contains(r.output, "ffmpeg")) << r.output;
        EXPECT_EQ(tree(job / "results"), results) << c.views;
        EXPECT_EQ(read_file(job / "caches/upload.part8.json"), manifest);
    }
    // More views than allowed.
    std::string many;
    for (int i = 0; i < 257; ++i)
        many += (i ? "," : "") + std::string(R"({"video":"video_000","frame":0,"width":8,"height":8})");
    member(job, many);
    const auto r = zarn(job);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.output, "VideoROIProcess : 257 views, at most 256\n")) << r.output;

    // A video that is no video, and a missing one.
    member(job, R"({"name":"v","video":"video_000","frame":0,"width":64,"height":32})");
    write_file(job / "caches/videos/video_000.avi", "not a video at all");
    auto bad = zarn(job);
    EXPECT_EQ(bad.status, 1);
    EXPECT_TRUE(contains(bad.output, "\nviews[0] (v) : video not decodable : " + (job / "caches/videos/video_000.avi").string()))
        << bad.output;
    fs::remove(job / "caches/videos/video_000.avi");
    bad = zarn(job);
    EXPECT_TRUE(contains(bad.output, "\nviews[0] (v) : video missing : " + (job / "caches/videos/video_000.avi").string()))
        << bad.output;
    EXPECT_EQ(tree(job / "results"), results);
}

TEST_F(VideoROI, HostileNamesAndTextsNeitherBreakTheCommandNorRunAnything) {
    const std::string hostile = "x '\"$(touch MARKER)`touch MARKER`;touch MARKER\n";
    const std::string absolute = "$(touch " + (mRoot / "MARKER") + ")`touch " + (mRoot / "MARKER") + "`";
    const fs::path job = synthetic_job(hostile + "job", hostile + absolute, hostile + "v.avi");
    member(job, R"({"name":)" + json(hostile + "view") + R"(,"video":)" + json(hostile + absolute) +
                    R"(,"frame":1,"width":96,"height":64,"text":)" + json(hostile + absolute + "%{pts} 100% !") + "}");
    // Everything outside the job that the run could reach: the test's own
    // folder and the libraries' folder, where the tool's shell starts.
    const auto outside = [&] {
        auto files = tree(mRoot.path());
        for (auto it = files.begin(); it != files.end();)
            it = starts_with(it->first, job.filename().string() + "/") ? files.erase(it) : std::next(it);
        for (const auto &[name, inode] : tree(BACKENDS))
            files["backends/" + name] = inode;
        return files;
    };
    const auto before = outside();
    const auto r = zarn(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(image(job / "results/video_roi" / (hostile + "view.jpg")).size(), cv::Size(96, 64));
    for (const fs::path &where : {mRoot.path(), job, fs::path(BACKENDS), job / "caches/video_roi/work"})
        EXPECT_FALSE(fs::exists(where / "MARKER")) << where;
    EXPECT_EQ(outside(), before);
}

TEST_F(VideoROI, AFailingOverlayToolIsReportedWithItsStatusAndKeepsTheEarlierResults) {
    const fs::path job = synthetic_job("job");
    member(job, R"({"name":"v","video":"video_000","frame":0,"width":64,"height":32})");
    ASSERT_EQ(zarn(job).status, 0);
    const ino_t good = inode_of(job / "results/video_roi/v.jpg");
    member(job, R"({"name":"v","video":"video_000","frame":1,"width":64,"height":32})");
    write_file(mRoot.path() / "bin/ffmpeg", "#!/bin/sh\nexit 1\n");
    fs::permissions(mRoot.path() / "bin/ffmpeg", fs::perms::owner_all);
    const auto r = zarn(job, "--process VideoROIProcess", "PATH=" + quote((mRoot.path() / "bin").string()) + ":$PATH");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.output, "\nreturn value = 1\n")) << r.output;
    EXPECT_TRUE(contains(r.output, "\nviews[0] (v) : the overlay tool failed with status 1\n")) << r.output;
    EXPECT_TRUE(contains(r.output, "mOverlayReturnValue == 0")) << r.output;
    EXPECT_EQ(inode_of(job / "results/video_roi/v.jpg"), good);
    EXPECT_EQ(read_file(job / "caches/upload.part8.json"), R"({"upload":[{"file":"video_roi/v.jpg"}]})");
}

} // namespace
