// The capture generator's scene with parallax (zarn_capture --parallax):
// where each lens sees the room from, the files it adds, and that a plain
// stitch of its captures doubles the near objects where the lenses meet.
#include "support.h"

#include "capture_parallax.h"

#include "ZARN_Common/ImageProc.h"
#include "__ORN__/orn_images.h"

#include <rapidjson/document.h>

#include <algorithm>
#include <cmath>

namespace {

using namespace zarn_test;
using namespace zarn_capture;
using ZARN::ImageProc;
using LENS_TABLE = ImageProc::LENS_TABLE;

const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";

// A generated job; `split` is written as its split data first when given.
fs::path generate(const TempDir &root, const std::string &name, const std::string &options, const std::string &split = "") {
    const fs::path job = root.path() / name;
    if (!split.empty())
        write_file(job / "caches/split_data.json", split);
    const auto r = run(quote(CAPTURE) + " " + quote(job.string()) + " " + options);
    EXPECT_EQ(r.status, 0) << r.output;
    return job;
}

rapidjson::Document parse_json(const fs::path &file) {
    rapidjson::Document d;
    d.Parse(read_file(file).c_str());
    EXPECT_FALSE(d.HasParseError()) << file;
    return d;
}

std::array<double, 3> unit(double x, double y, double z) {
    const double n = std::sqrt(x * x + y * y + z * z);
    return {x / n, y / n, z / n};
}

bool red(double r, double g, double b) { return r > 2 * g && r > 2 * b; }
bool white(double r, double g, double b) { return std::abs(r - g) < 0.15 * g && std::abs(b - g) < 0.15 * g; }

// The 8-bit colour of an image at a point (nearest pixel), red green blue.
std::array<double, 3> pixel(const ORN::Image &image, double x, double y) {
    const auto *row = image.row<unsigned char>(static_cast<ORN::INDEX>(std::lround(y)));
    const long u = std::lround(x);
    return {double(row[3 * u + 2]), double(row[3 * u + 1]), double(row[3 * u])};
}

// The middle of the pole's face turned to the rig, at height `above` the
// rig centre (panorama frame, relative to the rig centre).
std::array<double, 3> on_pole(const ParallaxRoom &room, int point, double above) {
    const NEAR_OBJECT pole = room.near_objects(point)[0];
    std::array<double, 3> p{};
    for (std::size_t k = 0; k < 3; ++k)
        p[k] = (pole.mMin[k] + pole.mMax[k]) / 2;
    const std::size_t k = std::abs(p[0]) > std::abs(p[2]) ? 0 : 2;
    p[k] = p[k] > 0 ? pole.mMin[k] : pole.mMax[k];
    p[1] = -above;
    return p;
}

TEST(CaptureParallax, EachLensSeesFromItsOwnCentreAndTheTruthFromTheRigCentre) {
    // A baseline of two stripes: the upper lens stands one stripe above
    // the rig centre, the lower one one below.
    const double baseline = 2 * STRIPE;
    const ParallaxRoom room(baseline);
    EXPECT_EQ(std::string(room.near_objects(0)[0].mName), "pole");
    for (int point = 0; point < 16; ++point) { // every place, every drift
        const auto p = on_pole(room, point, 0.5 * STRIPE); // the middle of a red stripe
        const double distance = std::hypot(p[0], p[2]);
        EXPECT_GE(distance, 0.5) << point;
        EXPECT_LE(distance, 1.0) << point;
        const RGB seen = room.view(point, RIG_CENTRE)(unit(p[0], p[1], p[2]).data());
        EXPECT_TRUE(red(seen[0], seen[1], seen[2])) << point;
        for (const EYE eye : {UPPER_LENS, LOWER_LENS}) {
            const POINT3 e = room.eye_offset(eye);
            EXPECT_EQ(e[1], (eye == UPPER_LENS ? -1 : 1) * baseline / 2);
            const ParallaxRoom::View view = room.view(point, eye);
            // The same point of the stripe from the lens's own centre: the
            // same radiance.
            const RGB same = view(unit(p[0] - e[0], p[1] - e[1], p[2] - e[2]).data());
            for (int c = 0; c < 3; ++c)
                EXPECT_NEAR(same[c], seen[c], 1e-9) << point << " " << eye;
            // The rig centre's direction from the lens: a stripe higher or
            // lower, white.
            const RGB shifted = view(unit(p[0], p[1], p[2]).data());
            EXPECT_TRUE(white(shifted[0], shifted[1], shifted[2])) << point << " " << eye;
        }
    }

    // The same in the files: the captures through the lens tables, the
    // truth through the panorama's projection.
    TempDir root;
    const fs::path job = generate(root, "job", "--width 1024 --points 1 --videos 0 --baseline 0.08");
    const auto p = on_pole(room, 0, 0.5 * STRIPE);
    const ORN::Image truth = ORN::Image::read((job / "truth/point_000.png").string());
    double u, v;
    ImageProc::panorama_point(unit(p[0], p[1], p[2]).data(), 1024, 512, u, v);
    const auto t = pixel(truth, u, v);
    EXPECT_TRUE(red(t[0], t[1], t[2])) << t[0] << " " << t[1] << " " << t[2];
    const char *names[2][2] = {{"caches/table_Up.bin", "captures/point_000_up.jpg"},
                               {"caches/table_Down.bin", "captures/point_000_down.jpg"}};
    for (const EYE eye : {UPPER_LENS, LOWER_LENS}) {
        const LENS_TABLE lens = ImageProc::read_lens_table((job / names[eye][0]).string());
        const ORN::Image capture = ORN::Image::read((job / names[eye][1]).string());
        const POINT3 e = room.eye_offset(eye);
        double x, y;
        ASSERT_TRUE(ImageProc::lens_project(lens, unit(p[0] - e[0], p[1] - e[1], p[2] - e[2]).data(), x, y));
        const auto at_lens = pixel(capture, x, y);
        EXPECT_TRUE(red(at_lens[0], at_lens[1], at_lens[2])) << eye << ": " << at_lens[0] << " " << at_lens[1] << " " << at_lens[2];
        ASSERT_TRUE(ImageProc::lens_project(lens, unit(p[0], p[1], p[2]).data(), x, y));
        const auto at_centre = pixel(capture, x, y);
        EXPECT_TRUE(white(at_centre[0], at_centre[1], at_centre[2]))
            << eye << ": " << at_centre[0] << " " << at_centre[1] << " " << at_centre[2];
    }
}

TEST(CaptureParallax, RigFileOptionsAndRefusals) {
    TempDir root;
    const std::string options = " --width 64 --points 1 --videos 0";
    EXPECT_EQ(read_file(generate(root, "default", "--parallax" + options) / "truth/rig.json"),
              R"({"baseline":0.03,"lenses":[{"name":"up","position":[0,-0.015,0]},{"name":"down","position":[0,0.015,0]}]})");
    EXPECT_EQ(read_file(generate(root, "wide", "--baseline 0.25" + options) / "truth/rig.json"),
              R"({"baseline":0.25,"lenses":[{"name":"up","position":[0,-0.125,0]},{"name":"down","position":[0,0.125,0]}]})");
    EXPECT_EQ(read_file(generate(root, "zero", "--baseline 0" + options) / "truth/rig.json"),
              R"({"baseline":0,"lenses":[{"name":"up","position":[0,0,0]},{"name":"down","position":[0,0,0]}]})");
    EXPECT_FALSE(fs::exists(generate(root, "plain", options) / "truth/rig.json"));

    for (const char *bad : {"--baseline 0.51", "--baseline -0.01", "--baseline nan", "--baseline 3cm", "--baseline",
                            "--parallax --stereo", "--repairs --regions", "--repairs --points 0"}) {
        const fs::path job = root.path() / "refused";
        const auto r = run(quote(CAPTURE) + " " + quote(job.string()) + " --width 64 --videos 0 " + bad);
        EXPECT_EQ(r.status, 2) << bad << "\n" << r.output;
        EXPECT_TRUE(contains(r.output, "usage: zarn_capture")) << bad;
        EXPECT_FALSE(fs::exists(job)) << bad;
    }
}

TEST(CaptureParallax, SameBytesOnEveryRunWhateverTheThreads) {
    TempDir root;
    const std::string options = " --parallax --repairs --width 256 --points 2 --videos 1 --frames 2";
    std::map<std::string, std::string> runs[2];
    for (int threads = 1; threads <= 2; ++threads) {
        const fs::path job = root.path() / std::to_string(threads);
        const auto r = run("OMP_NUM_THREADS=" + std::to_string(threads) + " " + quote(CAPTURE) + " " + quote(job.string()) + options);
        ASSERT_EQ(r.status, 0) << r.output;
        for (const auto &[name, inode] : tree(job))
            runs[threads - 1][name] = read_file(job / name);
    }
    EXPECT_EQ(runs[0].size(), 32u); // tables, 20 captures, 4 videos, plan, split data, 2 truths, rig, repairs
    EXPECT_TRUE(runs[0].count("truth/rig.json") && runs[0].count("truth/repairs.json") && runs[0].count("truth/point_001.png"));
    EXPECT_TRUE(runs[0] == runs[1]);
}

// What each lens sees of point 0 from its own centre, as a W x W/2
// panorama at the truth's exposure: the upper lens's view wherever it sees,
// the lower one's elsewhere; 2 x 2 samples per pixel, as the generator
// renders a panorama 1024 wide.
ORN::Image lens_views(const ParallaxRoom &room, const LENS_TABLE &upper, int width) {
    const int height = width / 2;
    const ParallaxRoom::View views[2] = {room.view(0, UPPER_LENS), room.view(0, LOWER_LENS)};
    ORN::Image out(width, height, 3, ORN::ImageDepth::U8);
    for (int v = 0; v < height; ++v)
        for (int u = 0; u < width; ++u) {
            double d[3];
            ImageProc::panorama_direction(u, v, width, height, d);
            const ParallaxRoom::View &view = views[ImageProc::lens_margin(upper, d) > 0 ? 0 : 1];
            RGB sum{};
            for (int j = 0; j < 2; ++j)
                for (int i = 0; i < 2; ++i) {
                    ImageProc::panorama_direction(u - 0.25 + 0.5 * i, v - 0.25 + 0.5 * j, width, height, d);
                    const RGB r = view(d);
                    for (int c = 0; c < 3; ++c)
                        sum[c] += r[c] / 4;
                }
            for (int c = 0; c < 3; ++c) {
                const double level = std::lround(std::clamp(sum[2 - c], 0.0, 1.0) * 4096) / 4096.0;
                out.row<unsigned char>(v)[3 * u + c] =
                    static_cast<unsigned char>(std::lround(255 * std::pow(level, 1 / ImageProc::capture_gamma())));
            }
        }
    return out;
}

TEST(CaptureParallax, NearObjectsGhostInAPlainStitch) {
    TempDir root;
    // PSNR of the stitched panorama against the truth in the band both
    // lenses see and in the regions around the near objects, and elsewhere
    // against what the one lens there sees from its own centre.
    struct FIGURES {
        double mBand, mRegions, mRest;
    } figures[2];
    const double baselines[2] = {0, 0.05};
    for (int i = 0; i < 2; ++i) {
        const fs::path job = generate(root, i ? "apart" : "together",
                                      "--width 1024 --points 1 --videos 0 --repairs --baseline " + std::to_string(baselines[i]),
                                      R"({"StitchMainProcess":{"seam":"plain"}})");
        write_file(job / "setting.xml", "<_Lumora><StitchMainProcess><mThreadConcurrency value=\"2\"/>"
                                        "<mPanoramaQuality value=\"draft\"/></StitchMainProcess></_Lumora>");
        const auto r = run("NO_COLOR=1 " + quote(ZARN) + " run --process StitchMainProcess --libs " + quote(BACKENDS) + " " +
                           quote(job.string()));
        ASSERT_EQ(r.status, 0) << r.output;
        const ORN::Image truth = ORN::Image::read((job / "truth/point_000.png").string());
        const ORN::Image stitched = ORN::Image::read((job / "caches/images/point_000.jpg").string());
        ASSERT_TRUE(stitched.same_layout(truth));
        const LENS_TABLE upper = ImageProc::read_lens_table((job / "caches/table_Up.bin").string());
        const ORN::Image up = ImageProc::lens_coverage(upper, 1024, 512);
        const ORN::Image down =
            ImageProc::lens_coverage(ImageProc::read_lens_table((job / "caches/table_Down.bin").string()), 1024, 512);
        ORN::Image band(1024, 512, 1, ORN::ImageDepth::U8), rest(1024, 512, 1, ORN::ImageDepth::U8),
            regions(1024, 512, 1, ORN::ImageDepth::U8);
        const auto repairs = parse_json(job / "truth/repairs.json");
        for (int y = 0; y < 512; ++y)
            for (int x = 0; x < 1024; ++x) {
                const bool both = up.row<unsigned char>(y)[x] && down.row<unsigned char>(y)[x];
                band.row<unsigned char>(y)[x] = both ? 255 : 0;
                rest.row<unsigned char>(y)[x] = both ? 0 : 255;
                bool in = false;
                for (const auto &region : repairs["regions"].GetArray()) {
                    const auto &rect = region["rect"];
                    in = in || (x >= rect["x"].GetInt() && x < rect["x"].GetInt() + rect["w"].GetInt() &&
                                y >= rect["y"].GetInt() && y < rect["y"].GetInt() + rect["h"].GetInt());
                }
                regions.row<unsigned char>(y)[x] = in ? 255 : 0;
            }
        const ParallaxRoom room(baselines[i]);
        figures[i] = {ImageProc::psnr(truth, stitched, band), ImageProc::psnr(truth, stitched, regions),
                      ImageProc::psnr(lens_views(room, upper, 1024), stitched, rest)};
        std::printf("baseline %.2f m: PSNR %.2f dB in the band both lenses see, %.2f dB around the near objects, %.2f dB "
                    "elsewhere against the lens's own view\n",
                    baselines[i], figures[i].mBand, figures[i].mRegions, figures[i].mRest);
    }
    EXPECT_GT(figures[0].mBand - figures[1].mBand, 6.0);
    EXPECT_GT(figures[0].mRegions - figures[1].mRegions, 8.0);
    EXPECT_LT(std::abs(figures[0].mRest - figures[1].mRest), 1.5);
}

TEST(CaptureParallax, RepairRegionsFrameTheNearObjectsInTheBand) {
    TempDir root;
    const fs::path job = generate(root, "job", "--repairs --width 512 --points 4 --videos 0");
    const auto repairs = parse_json(job / "truth/repairs.json");
    const auto split = parse_json(job / "caches/split_data.json");
    ASSERT_TRUE(split.HasMember("ImageROIProcess") && split.HasMember("StitchMainProcess"));
    const auto &member = split["ImageROIProcess"]["regions"];
    ASSERT_EQ(repairs["width"].GetInt(), 512);
    ASSERT_EQ(repairs["height"].GetInt(), 256);
    ASSERT_EQ(repairs["regions"].Size(), 8u);
    ASSERT_EQ(member.Size(), 8u);

    const LENS_TABLE lenses[2] = {ImageProc::read_lens_table((job / "caches/table_Up.bin").string()),
                                  ImageProc::read_lens_table((job / "caches/table_Down.bin").string())};
    const ParallaxRoom room(DEFAULT_BASELINE);
    for (rapidjson::SizeType i = 0; i < 8; ++i) {
        const auto &region = repairs["regions"][i];
        const int point = static_cast<int>(i / 2);
        const NEAR_OBJECT object = room.near_objects(point)[i % 2];
        EXPECT_EQ(std::string(region["name"].GetString()), "point_00" + std::to_string(point));
        EXPECT_EQ(std::string(region["object"].GetString()), object.mName);
        EXPECT_EQ(std::string(region["method"].GetString()), "auto");
        // The split data's member holds the same rectangles.
        EXPECT_EQ(std::string(member[i]["name"].GetString()), region["name"].GetString());
        EXPECT_EQ(std::string(member[i]["method"].GetString()), "auto");
        EXPECT_FALSE(member[i].HasMember("object"));
        const auto &rect = region["rect"];
        const int x = rect["x"].GetInt(), y = rect["y"].GetInt(), w = rect["w"].GetInt(), h = rect["h"].GetInt();
        for (const char *k : {"x", "y", "w", "h"})
            EXPECT_EQ(member[i]["rect"][k].GetInt(), rect[k].GetInt()) << i << k;
        EXPECT_TRUE(x >= 0 && y >= 0 && w > 0 && h > 0 && x + w <= 512 && y + h <= 256) << i;
        // Every pixel of the band (both lenses see it) in which the object
        // shows from the rig centre lies inside, with the margin of two
        // pixels; and the object shows in the rectangle.
        int shows = 0;
        for (int v = 0; v < 256; ++v)
            for (int u = 0; u < 512; ++u) {
                double d[3];
                ImageProc::panorama_direction(u, v, 512, 256, d);
                if (ImageProc::lens_margin(lenses[0], d) <= 0 || ImageProc::lens_margin(lenses[1], d) <= 0)
                    continue;
                // Where the ray meets the object's box, by its slabs.
                double near = 0, far = 1e9;
                for (int k = 0; k < 3; ++k) {
                    double a = object.mMin[k] / d[k], b = object.mMax[k] / d[k];
                    if (a > b)
                        std::swap(a, b);
                    near = std::max(near, a), far = std::min(far, b);
                }
                if (near > far)
                    continue;
                ++shows;
                EXPECT_TRUE(u >= x + 2 && u < x + w - 2 && v >= y + 2 && v < y + h - 2) << i << ": " << u << " " << v;
            }
        EXPECT_GT(shows, 20) << i;
    }

    // A member already there is kept as it is.
    const fs::path kept = generate(root, "kept", "--repairs --width 64 --points 1 --videos 0", R"({"ImageROIProcess":{"regions":[]}})");
    EXPECT_EQ(read_file(kept / "caches/split_data.json"), "{\"ImageROIProcess\":{\"regions\":[]},\"StitchMainProcess\":{}}\n");
    EXPECT_TRUE(fs::exists(kept / "truth/repairs.json"));
}

} // namespace
