// ImageFilterProcess end to end: the launcher, the module and the filter of
// the reference stereo rotating-camera library over panoramas and region
// files made here.
#include "support.h"

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <algorithm>

namespace {

using namespace zarn_test;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";

// A textured 512 x 256 panorama: fine detail everywhere, so that a blurred
// region is told from an untouched one.
void write_panorama(const fs::path &file, int seed) {
    cv::Mat image(256, 512, CV_8UC3);
    cv::RNG rng(seed);
    rng.fill(image, cv::RNG::UNIFORM, 0, 256);
    fs::create_directories(file.parent_path());
    cv::imwrite(file.string(), image, {cv::IMWRITE_JPEG_QUALITY, 95});
}

// Mean absolute difference of horizontal neighbours inside a rectangle: the
// fine detail left there.
double detail(const cv::Mat &image, const cv::Rect &r) {
    cv::Mat grey;
    image(r).convertTo(grey, CV_32F);
    double sum = 0;
    for (int y = 0; y < grey.rows; ++y)
        for (int x = 1; x < grey.cols; ++x)
            for (int c = 0; c < 3; ++c)
                sum += std::abs(grey.at<cv::Vec3f>(y, x)[c] - grey.at<cv::Vec3f>(y, x - 1)[c]);
    return sum / (grey.rows * (grey.cols - 1) * 3.0);
}

std::string record(const std::string &pano, const std::string &rects, bool preview = false, int type = 0) {
    return R"({"panoId":")" + pano + R"(","resolution":1,"rect":[)" + rects + R"(],"width":512,"height":256,"type":)" +
           std::to_string(type) + R"(,"preview":)" + (preview ? "true" : "false") + "}";
}

class ImageFilter : public ::testing::Test {
protected:
    fs::path make_job(const std::string &name, int panoramas) {
        const fs::path job = mRoot.path() / name;
        for (int i = 0; i < panoramas; ++i)
            write_panorama(job / (std::string("caches/images/p") + std::to_string(i) + ".jpg"), i);
        write_file(job / "caches/split_data.json", R"({"ImageFilterProcess":{}})");
        write_file(job / "setting.xml",
                   "<_Lumora><ImageFilterProcess><mThreadConcurrency value=\"2\"/></ImageFilterProcess></_Lumora>");
        return job;
    }
    RunResult filter(const fs::path &job, const std::string &env = "") {
        std::string command = "env -u ZARN_BACKEND_FAIL -u ZARN_BACKEND_NULL NO_COLOR=1 ZARN_BACKEND_TRACE=";
        command.append(quote(trace())).append(" ").append(env).append(" ").append(quote(ZARN));
        command.append(" run --process ImageFilterProcess --libs ").append(quote(BACKENDS)).append(" ");
        command.append(quote(job.string()));
        return run(command);
    }
    std::string trace() const { return mRoot / "trace.txt"; }
    std::string traced() const { return fs::exists(trace()) ? read_file(trace()) : std::string(); }
    std::size_t executes() const {
        const auto lines = lines_of(traced());
        return std::size_t(std::count_if(lines.begin(), lines.end(),
                                         [](const std::string &l) { return starts_with(l, "KIVO_ExecuteFilterHandle "); }));
    }
    TempDir mRoot;
};

TEST_F(ImageFilter, BlursTheListedRegionsWritesPreviewsAndPublishes) {
    const fs::path job = make_job("job", 2);
    write_file(job / "extras/image-ROI.json",
               std::string("{\"images\":[") + record("p0", R"({"x":100,"y":60,"w":80,"h":50},{"x":300,"y":120,"w":60,"h":60})", true) +
                   std::string(",") + record("p1", R"({"x":0,"y":0,"w":64,"h":32})", false, 1) + "]}");
    const auto r = filter(job);
    ASSERT_EQ(r.status, 0) << r.output;
    for (const char *line : {"\ninitializing filter\n", "\nprocessing image [0] p0\n", "\nprocessing image [1] p1\n",
                             "\ntime costs : "})
        EXPECT_TRUE(contains(r.output, line)) << line << "\n" << r.output;
    EXPECT_EQ(executes(), 2u);

    const cv::Mat before = cv::imread((job / "caches/images/p0.jpg").string());
    const cv::Mat after = cv::imread((job / "extras/images/p0.jpg").string());
    ASSERT_EQ(after.size(), before.size());
    // Inside: the detail is gone; well outside: the picture is the same.
    EXPECT_LT(detail(after, cv::Rect(110, 70, 60, 30)), 0.2 * detail(before, cv::Rect(110, 70, 60, 30)));
    EXPECT_GT(detail(after, cv::Rect(400, 10, 60, 40)), 0.8 * detail(before, cv::Rect(400, 10, 60, 40)));
    EXPECT_TRUE(fs::exists(job / "extras/images/p0_preview.jpg"));
    EXPECT_FALSE(fs::exists(job / "extras/images/p1_preview.jpg"));
    for (const char *file : {"p0.jpg", "p1.jpg"})
        EXPECT_EQ(inode_of(job / "results/images" / file), inode_of(job / "extras/images" / file)) << file;
}

// A record whose panorama and regions are unchanged keeps its filtered
// image; a changed record or panorama is filtered again, and --force redoes all.
TEST_F(ImageFilter, UpToDateImagesAreKeptUnlessForced) {
    const fs::path job = make_job("job", 2);
    const auto regions = [&](const std::string &first) {
        write_file(job / "extras/image-ROI.json", "{\"images\":[" + record("p0", first) + "," +
                                                       record("p1", R"({"x":0,"y":0,"w":64,"h":32})") + "]}");
    };
    regions(R"({"x":100,"y":60,"w":80,"h":50})");
    ASSERT_EQ(filter(job).status, 0);
    const auto first = tree(job / "results/images");
    fs::remove(trace());
    auto r = filter(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(executes(), 0u);
    EXPECT_FALSE(contains(r.output, "initializing filter")) << r.output;
    EXPECT_TRUE(contains(r.output, "\nimage filter : 2 of 2 images up to date\n")) << r.output;
    EXPECT_EQ(tree(job / "results/images"), first);

    regions(R"({"x":100,"y":60,"w":80,"h":51})");
    r = filter(job);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(executes(), 1u);
    EXPECT_TRUE(contains(r.output, "\nprocessing image [0] p0\n")) << r.output;
    EXPECT_EQ(inode_of(job / "results/images/p1.jpg"), first.at("p1.jpg"));

    fs::remove(trace());
    ASSERT_EQ(filter(job, "ZARN_FORCE=1").status, 0);
    EXPECT_EQ(executes(), 2u);
}

TEST_F(ImageFilter, ABrokenRegionFileStopsBeforeAnythingIsWritten) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"({"image":[]})", "region file without an \"images\" array : "},
        {R"({"images":{}})", "region file without an \"images\" array : "},
        {std::string("{\"images\":[") + record("p0", R"({"x":500,"y":0,"w":20,"h":10})") + "]}",
         "region file, image [0] : rectangle outside the image : p0 500,0 20x10 in 512x256"},
        {std::string("{\"images\":[") + record("p0", R"({"x":0,"y":0,"w":0,"h":10})") + "]}",
         "region file, image [0] : rectangle outside the image : p0 0,0 0x10 in 512x256"},
        {std::string("{\"images\":[") + record("p0", "") + std::string(",") + record("nowhere", "") + "]}", "missing file : "},
        {std::string("{\"images\":[") + record("../p0", "") + "]}", "region file, image [0] : not a panorama name : ../p0"},
        // A value beyond int is refused as it is, not cut to 0 first.
        {std::string("{\"images\":[") + record("p0", R"({"x":4294967296,"y":0,"w":20,"h":10})") + "]}",
         "region file, image [0] : rectangle outside the image : p0 4294967296,0 20x10 in 512x256"},
        {std::string("{\"images\":[") + record("p0", R"({"x":0,"y":0,"w":4294967316,"h":10})") + "]}",
         "region file, image [0] : rectangle outside the image : p0 0,0 4294967316x10 in 512x256"},
        {std::string("{\"images\":[") + record("p0", "") + "," + record("p0", "") + "]}",
         "region file, image [1] : panorama listed twice : p0"},
        {std::string("{\"images\":[") + record("p0", [] {
             std::string rects;
             for (int k = 0; k < 257; ++k)
                 rects += std::string(k ? "," : "") + R"({"x":0,"y":0,"w":512,"h":256})";
             return rects;
         }()) + "]}",
         "region file, image [0] : more than 256 rectangles : 257 for p0"},
    };
    int n = 0;
    for (const auto &[text, line] : cases) {
        const fs::path job = make_job(std::string("job") + std::to_string(n++), 1);
        write_file(job / "extras/image-ROI.json", text);
        fs::remove(trace());
        const auto r = filter(job);
        EXPECT_EQ(r.status, 1) << text << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, line)) << text << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, "\nImageFilterProcess error\ndynamic_assert failed : ")) << r.output;
        EXPECT_EQ(traced(), "") << "no library call for " << text;
        EXPECT_TRUE(fs::is_empty(job / "extras/images")) << text;
    }
}

// The preview of "p0" would be written over the filtered panorama of a
// record "p0_preview": refused before anything is written.
TEST_F(ImageFilter, APreviewThatWouldReplaceAnotherRecordIsRefused) {
    const fs::path job = make_job("job", 1);
    write_panorama(job / "caches/images/p0_preview.jpg", 7);
    write_file(job / "extras/image-ROI.json",
               std::string("{\"images\":[") + record("p0_preview", "") + "," + record("p0", "", true) + "]}");
    auto r = filter(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "region file, image [1] : its preview would replace the filtered panorama of "
                                   "p0_preview\n"))
        << r.output;
    EXPECT_EQ(traced(), "");
    EXPECT_TRUE(fs::is_empty(job / "extras/images"));
    // Without the preview both are filtered.
    write_file(job / "extras/image-ROI.json",
               std::string("{\"images\":[") + record("p0_preview", "") + "," + record("p0", "") + "]}");
    r = filter(job);
    EXPECT_EQ(r.status, 0) << r.output;
}

// The most rectangles a record may have, each covering the whole frame,
// filter within a time bound (the cost grows with their area, not more).
TEST_F(ImageFilter, TheMostRectanglesOfTheWholeFrameFinishInBoundedTime) {
    const fs::path job = make_job("job", 1);
    std::string rects;
    for (int k = 0; k < 256; ++k)
        rects += std::string(k ? "," : "") + R"({"x":0,"y":0,"w":512,"h":256})";
    write_file(job / "extras/image-ROI.json", std::string("{\"images\":[") + record("p0", rects) + "]}");
    const auto r = filter(job, "timeout 60");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(fs::exists(job / "results/images/p0.jpg"));
}

TEST_F(ImageFilter, AFailingImageStopsTheRunAfterTheRecordsInFlight) {
    const fs::path job = make_job("job", 8);
    write_file(job / "caches/images/p2.jpg", "not a picture");
    std::string records;
    for (int i = 0; i < 8; ++i)
        records.append(i ? "," : "").append(record(std::string("p") + std::to_string(i), R"({"x":10,"y":10,"w":20,"h":20})"));
    write_file(job / "extras/image-ROI.json", "{\"images\":[" + records + "]}");
    const auto r = filter(job);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nreturn value = 4\n")) << r.output;
    EXPECT_TRUE(contains(r.output, "ImageFilterProcess error\ndynamic_assert failed : mFilterReturnValue == 0 : at "))
        << r.output;
    EXPECT_LE(executes(), 4u) << traced();
    EXPECT_TRUE(fs::exists(job / "extras/images/p0.jpg") && fs::exists(job / "extras/images/p1.jpg"));
    EXPECT_FALSE(fs::exists(job / "extras/images/p2.jpg"));
    EXPECT_TRUE(fs::is_empty(job / "results/images"));
}

TEST_F(ImageFilter, ANullFilterObjectIsFatal) {
    const fs::path job = make_job("job", 1);
    write_file(job / "extras/image-ROI.json", std::string("{\"images\":[") + record("p0", "") + "]}");
    const auto r = filter(job, "ZARN_BACKEND_NULL=KIVO_CreateFilterHandle");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\ninitializing filter\nImageFilterProcess error\n"
                                   "dynamic_assert failed : me.mP1 != nullptr : at "))
        << r.output;
}

} // namespace
