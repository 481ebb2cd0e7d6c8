// The reference stereo rotating-camera library called directly, as the
// stereo stitch and image filter processes bind it, on a stereo capture made
// by zarn_capture --stereo whose panoramas are known. The current directory
// is the libraries' own, where "asset/distortion.txt" describes the camera.
#include "support.h"

#include "ZARN_Common/ImageProc.h"
#include "ZARN_Common/StereoRotCamLibrary.h"
#include "__ORN__/orn_images.h"
#include "__ORN__/orn_serialization.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>

#include <array>
#include <cmath>
#include <cstring>
#include <map>
#include <numbers>
#include <thread>

namespace {

using namespace zarn_test;
namespace Lib = ZARN::StereoRotCamLibrary;
namespace Code = ZARN::StitchLibrary;
using ZARN::ImageProc;

const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string LIBRARIES = std::string(ZARN_BINARY_DIR) + "/backends";
const char *const TABLE = "asset/distortion.txt";
// The processes run in the libraries' directory, where the camera's table is.
const bool IN_LIBRARIES = ::chdir(LIBRARIES.c_str()) == 0;
constexpr int WIDTH = 512, HEIGHT = 256;
const int SIZE[2] = {WIDTH, HEIGHT};
// The generator's sensor: its response to red, green and blue, and the
// lower lens's sensitivity against the upper's.
constexpr double CAST[3] = {0.52, 1.0, 0.71};
const double LOWER_GAIN = std::pow(1 / 0.85, 1 / 2.2);
constexpr double UNIT_GAIN[3] = {1, 1, 1};
constexpr int RECT[4] = {10, 10, 20, 20};

struct API {
    Lib::CREATE_OPT_FLOW_STITCH *mCreate;
    Lib::DESTROY_OPT_FLOW_STITCH *mDestroy;
    Lib::INIT_OPT_FLOW_STITCH *mInit;
    Lib::EXECUTE_OPT_FLOW_STITCH *mExecute;
    Lib::EXECUTE_OPT_FLOW_STITCH_HDR *mExecuteHdr;
    Lib::EXECUTE_ISP *mIsp;
    Lib::GET_OPT_FLOW_STITCH_CODE *mCode;
    Lib::CREATE_VIDEO_STITCH *mCreateVideo;
    Lib::DESTROY_VIDEO_STITCH *mDestroyVideo;
    Lib::INIT_VIDEO_STITCH *mInitVideo;
    Lib::EXECUTE_VIDEO_STITCH *mExecuteVideo;
    Lib::GET_VIDEO_STITCH_CODE *mVideoCode;
    Lib::CREATE_FILTER *mCreateFilter;
    Lib::DESTROY_FILTER *mDestroyFilter;
    Lib::INIT_FILTER *mInitFilter;
    Lib::EXECUTE_FILTER *mFilter;
    Lib::GET_FILTER_CODE *mFilterCode;
};

const API &api() {
    static const API a = [] {
        void *lib = dlopen((LIBRARIES + "/libStereoRotCam.so").c_str(), RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(lib, nullptr) << dlerror();
        const auto get = [&](auto &slot, const char *name) {
            slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(dlsym(lib, name));
            EXPECT_NE(slot, nullptr) << name;
        };
        API r{};
        get(r.mCreate, "KIVO_CreateOptFlowStitchHandle");
        get(r.mDestroy, "KIVO_DestroyOptFlowStitchHandle");
        get(r.mInit, "KIVO_InitOptFlowStitchHandle");
        get(r.mExecute, "KIVO_ExecuteOptFlowStitchHandle");
        get(r.mExecuteHdr, "KIVO_ExecuteOptFlowStitchHDRHandle");
        get(r.mIsp, "KIVO_ExecuteISPHandle");
        get(r.mCode, "KIVO_GetOptFlowStitchCode");
        get(r.mCreateVideo, "KIVO_CreateVideoStitchHandle");
        get(r.mDestroyVideo, "KIVO_DestroyVideoStitchHandle");
        get(r.mInitVideo, "KIVO_InitVideoStitchHandle");
        get(r.mExecuteVideo, "KIVO_ExecuteVideoStitchHandle");
        get(r.mVideoCode, "KIVO_GetVideoStitchCode");
        get(r.mCreateFilter, "KIVO_CreateFilterHandle");
        get(r.mDestroyFilter, "KIVO_DestroyFilterHandle");
        get(r.mInitFilter, "KIVO_InitFilterHandle");
        get(r.mFilter, "KIVO_ExecuteFilterHandle");
        get(r.mFilterCode, "KIVO_GetFilterCode");
        return r;
    }();
    return a;
}

// A file name made by printf.
template <class... A>
std::string named(const char *format, A... values) {
    char buffer[128];
    std::snprintf(buffer, sizeof(buffer), format, values...);
    return buffer;
}

// The generated stereo job all cases read (none writes into it), with its
// frames developed once: "developed/p<P>_g<G>_v<K>.png".
const fs::path &job() {
    static const fs::path root = [] {
        api();
        const fs::path dir = fs::path(ZARN_BINARY_DIR) / "tests" / "stereo_library_job";
        fs::create_directories(dir.parent_path());
        const int lock = ::open((dir.string() + ".lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
        ::flock(lock, LOCK_EX);
        const auto when = fs::last_write_time(CAPTURE).time_since_epoch().count();
        const std::string stamp = std::to_string(fs::file_size(CAPTURE)) + " " + std::to_string(when);
        if (!fs::exists(dir / "stamp") || read_file(dir / "stamp") != stamp) {
            fs::remove_all(dir);
            const auto r = run(quote(CAPTURE) + " " + quote(dir.string()) +
                               " --stereo --regions --width 512 --points 2 --videos 1 --frames 2");
            EXPECT_EQ(r.status, 0) << r.output;
            const ORN::JsonParser plan(read_file(dir / "caches/stitch_data.json"));
            const auto h = api().mCreate();
            fs::create_directories(dir / "developed"); // the module makes the output folders
            for (int p = 0; p < 2; ++p) {
                const ORN::JsonParser record = plan.child("stitch_main_param").child("image_file").children()[p];
                double gain[3];
                for (int c = 0; c < 3; ++c)
                    gain[c] = record.child("gain").children()[c].value(0.0);
                for (int g = 0; g < 3; ++g)
                    for (int k = 0; k < 6; ++k) {
                        const std::string key = named("src%d_%d", g + 1, k);
                        const std::string raw = (dir / record.child(key).value("")).string();
                        const std::string out = (dir / named("developed/p%d_src%d_%d.png", p, g + 1, k)).string();
                        EXPECT_EQ(api().mIsp(h, raw.c_str(), out.c_str(), gain), Code::KIVO_OK) << raw;
                    }
            }
            api().mDestroy(h);
            if (r.status == 0)
                write_file(dir / "stamp", stamp);
        }
        ::flock(lock, LOCK_UN);
        ::close(lock);
        return dir;
    }();
    return root;
}

std::string at(const std::string &relative) { return (job() / relative).string(); }
// The developed frames of point p, group g, view order.
std::array<std::string, 6> developed(int p, int g) {
    std::array<std::string, 6> out;
    for (int k = 0; k < 6; ++k)
        out[k] = at(named("developed/p%d_src%d_%d.png", p, g + 1, k));
    return out;
}
std::string truth(int p) { return at(named("truth/stereo_%03d.png", p)); }

// An image object, initialised on the camera's table, destroyed at the end.
struct Stitcher {
    Lib::IMAGE_HANDLE mHandle = api().mCreate();
    Stitcher() {
        EXPECT_NE(mHandle, nullptr);
        EXPECT_EQ(api().mInit(mHandle, TABLE, WIDTH, HEIGHT, WIDTH / 4, HEIGHT / 4, 8), Code::KIVO_OK);
    }
    ~Stitcher() { api().mDestroy(mHandle); }
    int stitch(int p, int g, const std::string &out, double *statistics = nullptr, const int *size = SIZE) {
        const auto v = developed(p, g);
        const char *views[6];
        for (int k = 0; k < 6; ++k)
            views[k] = v[k].c_str();
        return api().mExecute(mHandle, views, out.c_str(), size, statistics, "stereo");
    }
    int hdr(int p, int groups, const std::string &out, unsigned char mode, const int *size = SIZE) {
        std::vector<std::string> paths;
        for (int g = 3 - groups; g < 3; ++g)
            for (const std::string &s : developed(p, g))
                paths.push_back(s);
        std::vector<const char *> frames;
        for (const std::string &s : paths)
            frames.push_back(s.c_str());
        return api().mExecuteHdr(mHandle, frames.data(), groups, out.c_str(), size, mode);
    }
};

// The lens tables of the six views, from the table's documented rule: view
// k is lens k % 2 turned by (k / 2) x 120 degrees about the vertical.
std::vector<ImageProc::LENS_TABLE> view_lenses() {
    std::vector<ImageProc::LENS_TABLE> lenses(2);
    for (const std::string &line : lines_of(read_file(TABLE))) {
        std::istringstream in(line);
        std::string word, which;
        in >> word >> which;
        if (word != "lens")
            continue;
        auto &t = lenses[which == "up" ? 0 : 1];
        std::memcpy(t.mMagic, Code::LENS_TABLE_MAGIC, 8);
        t.mVersion = 1;
        in >> t.mWidth >> t.mHeight >> t.mFx >> t.mFy >> t.mCx >> t.mCy;
        for (double &k : t.mK)
            in >> k;
        for (double &r : t.mRotation)
            in >> r;
        in >> t.mMaxAngle;
    }
    std::vector<ImageProc::LENS_TABLE> views;
    for (int k = 0; k < 6; ++k) {
        auto t = lenses[k % 2];
        const double a = (k / 2) * 120 * std::numbers::pi / 180, c = std::cos(a), s = std::sin(a);
        const double y[9] = {c, 0, s, 0, 1, 0, -s, 0, c};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                t.mRotation[3 * i + j] = y[3 * i] * lenses[k % 2].mRotation[j] +
                                         y[3 * i + 1] * lenses[k % 2].mRotation[3 + j] +
                                         y[3 * i + 2] * lenses[k % 2].mRotation[6 + j];
        views.push_back(t);
    }
    return views;
}

// Where some view sees the panorama.
ORN::Image covered() {
    ORN::Image mask = ORN::Image::zeros(WIDTH, HEIGHT, 1, ORN::ImageDepth::U8);
    for (const auto &lens : view_lenses()) {
        const ORN::Image one = ImageProc::lens_coverage(lens, WIDTH, HEIGHT);
        for (int y = 0; y < HEIGHT; ++y)
            for (int x = 0; x < WIDTH; ++x)
                mask.row<unsigned char>(y)[x] |= one.row<unsigned char>(y)[x];
    }
    return mask;
}

// Values at full white.
int clipped(const ORN::Image &image) {
    int n = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width() * 3; ++x)
            n += image.row<unsigned char>(y)[x] == 255;
    return n;
}

// A raw frame: 16-bit big-endian binary PGM of the samples.
std::string pgm(int width, int height, const std::function<int(int, int)> &sample, int maxval = 4095) {
    std::string out = "P5\n# made by the test\n" + std::to_string(width) + " " + std::to_string(height) + "\n" +
                      std::to_string(maxval) + "\n";
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int v = sample(x, y);
            out.push_back(static_cast<char>(v >> 8));
            out.push_back(static_cast<char>(v & 0xff));
        }
    return out;
}

// Sets an environment variable for the life of the object.
struct Env {
    std::string mName;
    Env(const std::string &name, const std::string &value) : mName(name) { ::setenv(name.c_str(), value.c_str(), 1); }
    ~Env() { ::unsetenv(mName.c_str()); }
};

TEST(StereoLibrary, TheCommittedTableDescribesTheGeneratorsCamera) {
    ASSERT_TRUE(IN_LIBRARIES);
    EXPECT_EQ(read_file(TABLE), read_file(at("truth/distortion.txt")));
    // Together the six views see every direction.
    const ORN::Image mask = covered();
    int seen = 0;
    for (int y = 0; y < HEIGHT; ++y)
        for (int x = 0; x < WIDTH; ++x)
            seen += mask.row<unsigned char>(y)[x] != 0;
    EXPECT_EQ(seen, WIDTH * HEIGHT);
}

TEST(StereoLibrary, IspUndoesTheCastAndFollowsTheMosaic) {
    TempDir dir;
    // Columns of six grey levels through the cast, then a patch of red light
    // alone: the RGGB sites of red are row and column even.
    const int levels[6] = {40, 200, 600, 1200, 2200, 3600};
    const auto sample = [&](int x, int y) {
        if (x >= 60) {
            const bool red = y % 2 == 0 && x % 2 == 0;
            return red ? 2000 : 0;
        }
        const int c = y % 2 == 0 ? (x % 2 == 0 ? 0 : 1) : (x % 2 == 0 ? 1 : 2);
        return static_cast<int>(std::lround(levels[x / 10] * CAST[c]));
    };
    write_file(dir / "frame.pgm", pgm(72, 24, sample));
    const double gain[3] = {1 / CAST[0], 1 / CAST[1], 1 / CAST[2]};
    const auto h = api().mCreate(); // no init: development needs no table
    fs::create_directories(dir.path() / "out");
    ASSERT_EQ(api().mIsp(h, (dir / "frame.pgm").c_str(), (dir / "out/frame.png").c_str(), gain), Code::KIVO_OK);
    ASSERT_EQ(api().mIsp(h, (dir / "frame.pgm").c_str(), (dir / "frame.jpg").c_str(), gain), Code::KIVO_OK);
    EXPECT_EQ(api().mCode(h), Code::KIVO_OK);
    api().mDestroy(h);
    const ORN::Image out = ORN::Image::read(dir / "out/frame.png");
    ASSERT_EQ(out.width(), 72);
    ASSERT_EQ(out.height(), 24);
    for (int i = 0; i < 6; ++i) {
        // Away from the column's edges and the frame's border.
        const unsigned char *p = out.row<unsigned char>(12) + 3 * (10 * i + 5);
        const int expected = static_cast<int>(std::lround(255 * std::pow(levels[i] / 4095.0, 1 / 2.2)));
        EXPECT_NEAR(p[0], p[1], 1) << i;
        EXPECT_NEAR(p[2], p[1], 1) << i;
        EXPECT_NEAR(p[1], expected, 1) << i;
    }
    const unsigned char *red = out.row<unsigned char>(12) + 3 * 66;
    EXPECT_GT(red[2], 200);
    EXPECT_EQ(red[1], 0);
    EXPECT_EQ(red[0], 0);
    EXPECT_EQ(ORN::Image::read(dir / "frame.jpg").width(), 72);
}

TEST(StereoLibrary, DevelopedMergedAndStitchedCapturesMatchTheTruth) {
    TempDir out;
    Stitcher s;
    const ORN::Image mask = covered();
    for (int p = 0; p < 2; ++p) {
        const ORN::Image truth_image = ORN::Image::read(truth(p));
        double statistics[2] = {};
        ASSERT_EQ(s.stitch(p, 2, out / "plain.png", statistics), Code::KIVO_OK);
        ASSERT_EQ(s.hdr(p, 3, out / "radiance.png", 2), Code::KIVO_OK);
        ASSERT_EQ(s.hdr(p, 3, out / "fused.png", 1), Code::KIVO_OK);
        const ORN::Image plain = ORN::Image::read(out / "plain.png"), radiance = ORN::Image::read(out / "radiance.png"),
                         fused = ORN::Image::read(out / "fused.png");
        ASSERT_TRUE(plain.same_layout(truth_image));
        const double plain_db = ImageProc::psnr(truth_image, plain, mask);
        const double radiance_db = ImageProc::psnr(truth_image, radiance, mask);
        const double fused_db = ImageProc::psnr(truth_image, fused, mask);
        std::printf("point %d: PSNR over the covered area %.2f dB plain, %.2f dB radiance merge, %.2f dB exposure "
                    "fusion; lower-lens gain %.4f, difference %.2f; clipped values %d plain, %d merged, %d fused\n",
                    p, plain_db, radiance_db, fused_db, statistics[0], statistics[1], clipped(plain), clipped(radiance),
                    clipped(fused));
        EXPECT_GE(plain_db, 28.0);
        EXPECT_GE(radiance_db, 28.0);
        EXPECT_GE(fused_db, 15.0);
        EXPECT_NEAR(statistics[0], LOWER_GAIN, 0.03);
        EXPECT_LT(statistics[1], 4.0);
        // The lights and the window keep their detail.
        EXPECT_LT(clipped(radiance) * 2, clipped(plain));
        EXPECT_LT(clipped(fused) * 2, clipped(plain));
    }
    // One group is the plain stitch, whatever the mode.
    ASSERT_EQ(s.stitch(0, 2, out / "plain.png"), Code::KIVO_OK);
    ASSERT_EQ(s.hdr(0, 1, out / "one.png", 2), Code::KIVO_OK);
    EXPECT_EQ(read_file(out / "one.png"), read_file(out / "plain.png"));
}

TEST(StereoLibrary, VideoStitchesTheLensesAtTheFirstPosition) {
    TempDir out;
    const auto v = api().mCreateVideo();
    ASSERT_EQ(api().mInitVideo(v, TABLE, WIDTH, HEIGHT, 8), Code::KIVO_OK);
    const std::string stem = at("captures/stereo_video_000_");
    double hdr = 0, fov = 0;
    fs::create_directories(out.path() / "v");
    ASSERT_EQ(api().mExecuteVideo(v, (stem + "up.avi").c_str(), (stem + "down.avi").c_str(),
                                  (stem + "up_short.avi").c_str(), (stem + "down_short.avi").c_str(),
                                  (out / "v/fused.avi").c_str(), &hdr, &fov),
              Code::KIVO_OK);
    std::printf("video: HDR value %.3f, field of view %.2f degrees\n", hdr, fov);
    EXPECT_NEAR(hdr, 4.0, 0.4); // the short streams have a quarter of the exposure
    // Where the 16:10 sensors crop the image circles, the two lenses at one
    // position leave a band around the horizon unseen.
    EXPECT_GT(fov, 100.0);
    EXPECT_LT(fov, 180.0);
    EXPECT_GT(fs::file_size(out / "v/fused.avi"), 1000u);
    EXPECT_EQ(api().mVideoCode(v), Code::KIVO_OK);
    api().mDestroyVideo(v);
}

// The image the filter cases work on: the first truth panorama at twice the
// region file's frame, as PNG so that its pixels are known exactly.
struct FilterCase {
    TempDir mDir;
    std::string mInput = mDir / "in.png";
    std::vector<int> mRects;
    int mFrame[2] = {0, 0};
    Lib::FILTER_HANDLE mHandle = api().mCreateFilter();
    FilterCase() {
        ORN::Image big(2 * WIDTH, 2 * HEIGHT, 3, ORN::ImageDepth::U8);
        const ORN::Image small = ORN::Image::read(truth(0));
        for (int y = 0; y < big.height(); ++y)
            for (int x = 0; x < big.width(); ++x)
                std::memcpy(big.row<unsigned char>(y) + 3 * x, small.row<unsigned char>(y / 2) + 3 * (x / 2), 3);
        ORN::Image::write(mInput, big);
        const ORN::JsonParser regions(read_file(at("extras/image-ROI.json")));
        const ORN::JsonParser record = regions.child("images").children()[0];
        EXPECT_EQ(record.child("panoId").value(""), "stereo_000");
        for (const ORN::JsonParser &r : record.child("rect").children())
            for (const char *key : {"x", "y", "w", "h"})
                mRects.push_back(static_cast<int>(r.child(key).value(ORN::int64(-1))));
        mFrame[0] = static_cast<int>(record.child("width").value(ORN::int64(0)));
        mFrame[1] = static_cast<int>(record.child("height").value(ORN::int64(0)));
        EXPECT_EQ(api().mInitFilter(mHandle, 4096, 90, 256), Code::KIVO_OK);
    }
    ~FilterCase() { api().mDestroyFilter(mHandle); }
    int run(const std::string &output, const char *preview, int type, const int *rects = nullptr, int count = -1) {
        if (rects == nullptr) {
            rects = mRects.data();
            count = static_cast<int>(mRects.size() / 4);
        }
        return api().mFilter(mHandle, mInput.c_str(), output.c_str(), preview, rects, count, mFrame[0], mFrame[1], type);
    }
    // Whether pixel (x, y) of the input lies in a region (scaled by 2).
    bool inside(int x, int y) const {
        for (std::size_t i = 0; i < mRects.size(); i += 4)
            if (x >= 2 * mRects[i] && x < 2 * (mRects[i] + mRects[i + 2]) && y >= 2 * mRects[i + 1] &&
                y < 2 * (mRects[i + 1] + mRects[i + 3]))
                return true;
        return false;
    }
};

// Over the regions' pixels at least `inset` pixels inside them: the mean
// squared Laplacian of the green channel, and the share of pixels that
// differ from their right neighbour.
struct DETAIL {
    double mEnergy = 0, mChanging = 0;
};
DETAIL detail(const ORN::Image &image, const FilterCase &c, int inset) {
    DETAIL d;
    long n = 0;
    for (int y = 1; y + 1 < image.height(); ++y)
        for (int x = 1; x + 1 < image.width(); ++x) {
            if (!c.inside(x - inset, y) || !c.inside(x + inset, y) || !c.inside(x, y - inset) || !c.inside(x, y + inset))
                continue;
            const auto g = [&](int xx, int yy) { return double(image.row<unsigned char>(yy)[3 * xx + 1]); };
            const double l = 4 * g(x, y) - g(x - 1, y) - g(x + 1, y) - g(x, y - 1) - g(x, y + 1);
            d.mEnergy += l * l;
            d.mChanging += std::memcmp(image.row<unsigned char>(y) + 3 * x, image.row<unsigned char>(y) + 3 * x + 3, 3) != 0;
            ++n;
        }
    if (n) {
        d.mEnergy /= double(n);
        d.mChanging /= double(n);
    }
    return d;
}

TEST(StereoLibrary, FilterHidesTheRegionsAndLeavesTheRestAlone) {
    FilterCase c;
    ASSERT_GE(c.mRects.size(), 8u); // the picture across the panorama's edges, and more
    const ORN::Image input = ORN::Image::read(c.mInput);
    const DETAIL before = detail(input, c, 8);
    fs::create_directories(c.mDir.path() / "out");
    for (int type : {Lib::FILTER_BLUR, Lib::FILTER_PIXELATE, Lib::FILTER_FILL}) {
        const std::string out = c.mDir / named("out/filtered%d.png", type);
        const std::string preview = c.mDir / named("out/preview%d.jpg", type);
        ASSERT_EQ(c.run(out, preview.c_str(), type), Code::KIVO_OK) << type;
        const ORN::Image filtered = ORN::Image::read(out);
        ASSERT_TRUE(filtered.same_layout(input));
        long changed_outside = 0, changed_inside = 0;
        for (int y = 0; y < input.height(); ++y)
            for (int x = 0; x < input.width(); ++x) {
                const bool same = std::memcmp(input.row<unsigned char>(y) + 3 * x, filtered.row<unsigned char>(y) + 3 * x, 3) == 0;
                (c.inside(x, y) ? changed_inside : changed_outside) += !same;
            }
        const DETAIL after = detail(filtered, c, 8);
        std::printf("filter type %d: inside the regions, high-frequency energy %.1f before, %.1f after, pixels unlike "
                    "their neighbour %.0f %% before, %.0f %% after; %ld pixels changed inside, %ld outside\n",
                    type, before.mEnergy, after.mEnergy, 100 * before.mChanging, 100 * after.mChanging, changed_inside,
                    changed_outside);
        EXPECT_EQ(changed_outside, 0);
        EXPECT_GT(changed_inside, 100);
        // Pixelation trades the detail for block edges.
        if (type == Lib::FILTER_PIXELATE)
            EXPECT_LT(after.mChanging * 2, before.mChanging);
        else
            EXPECT_LT(after.mEnergy * 4, before.mEnergy);
        const ORN::Image small = ORN::Image::read(preview);
        EXPECT_EQ(small.width(), 256);
        EXPECT_EQ(small.height(), 128);
    }
    // JPEG output at the init's quality; the pieces of the write buffer do
    // not change the bytes.
    ASSERT_EQ(c.run(c.mDir / "a.jpg", nullptr, Lib::FILTER_BLUR), Code::KIVO_OK);
    ASSERT_EQ(api().mInitFilter(c.mHandle, 1 << 24, 90, 256), Code::KIVO_OK);
    ASSERT_EQ(c.run(c.mDir / "b.jpg", "", Lib::FILTER_BLUR), Code::KIVO_OK);
    EXPECT_EQ(read_file(c.mDir / "a.jpg"), read_file(c.mDir / "b.jpg"));
    EXPECT_GT(ImageProc::psnr(input, ORN::Image::read(c.mDir / "a.jpg")), 30.0);
    // Filling: the feather lies inside the region, whose middle is one colour.
    const int one[4] = {100, 60, 80, 40}; // pixels 200..360 x 120..200 of the image
    ASSERT_EQ(c.run(c.mDir / "fill.png", nullptr, Lib::FILTER_FILL, one, 1), Code::KIVO_OK);
    const ORN::Image fill = ORN::Image::read(c.mDir / "fill.png");
    const auto px = [](const ORN::Image &i, int x, int y) { return i.row<unsigned char>(y) + 3 * x; };
    EXPECT_EQ(std::memcmp(px(fill, 280, 160), px(fill, 250, 140), 3), 0);
    EXPECT_EQ(std::memcmp(px(fill, 280, 160), px(fill, 330, 185), 3), 0);
    int edge = 0, middle = 0;
    for (int c3 = 0; c3 < 3; ++c3) {
        edge += std::abs(px(fill, 200, 160)[c3] - px(input, 200, 160)[c3]);
        middle += std::abs(px(fill, 280, 160)[c3] - px(input, 280, 160)[c3]);
    }
    EXPECT_LT(edge * 10, middle + 10);
    EXPECT_EQ(std::memcmp(px(fill, 199, 160), px(input, 199, 160), 3), 0);
    EXPECT_EQ(std::memcmp(px(fill, 360, 160), px(input, 360, 160), 3), 0);
}

TEST(StereoLibrary, ThreadsOnOneObjectWriteWhatOneThreadWrites) {
    TempDir out;
    // A size not prepared by init: its tables are made by whichever thread
    // comes first.
    const int size[2] = {384, 192};
    std::string expected[2];
    {
        Stitcher reference;
        for (int p = 0; p < 2; ++p) {
            ASSERT_EQ(reference.hdr(p, 3, out / named("ref%d.jpg", p), 2, size), Code::KIVO_OK);
            expected[p] = read_file(out / named("ref%d.jpg", p));
        }
    }
    FilterCase f;
    ASSERT_EQ(f.run(f.mDir / "ref.png", nullptr, Lib::FILTER_PIXELATE), Code::KIVO_OK);
    const std::string filtered = read_file(f.mDir / "ref.png");

    Stitcher s;
    int codes[2][4] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&, t] {
            // Each thread stitches the other point the second time.
            for (int i = 0; i < 2; ++i) {
                codes[t][i] = s.hdr((t + i) % 2, 3, out / named("p%d%d.jpg", t, i), 2, size);
                codes[t][2 + i] = f.run(f.mDir / named("f%d%d.png", t, i), nullptr, Lib::FILTER_PIXELATE);
            }
        });
    for (auto &t : threads)
        t.join();
    for (int t = 0; t < 2; ++t)
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(codes[t][i], Code::KIVO_OK);
            EXPECT_EQ(codes[t][2 + i], Code::KIVO_OK);
            EXPECT_TRUE(read_file(out / named("p%d%d.jpg", t, i)) == expected[(t + i) % 2]) << t << i;
            EXPECT_TRUE(read_file(f.mDir / named("f%d%d.png", t, i)) == filtered) << t << i;
        }
}

TEST(StereoLibrary, EveryFailureHasItsCode) {
    TempDir dir;
    const std::string table = read_file(TABLE);
    const auto replaced = [&](const std::string &from, const std::string &to) {
        std::string t = table;
        t.replace(t.find(from), from.size(), to);
        return t;
    };
    const std::string up_line = lines_of(table)[lines_of(table).size() - 2];
    const std::map<std::string, std::string> bad_tables = {
        {"positions", replaced("rig 3 120", "rig 4 90")},
        {"keyword", table + "mirror 1\n"},
        {"no_down", replaced("lens down", "# lens down")},
        {"twice", table + up_line + "\n"},
        {"short", replaced(" 100\n", "\n")},
        {"word", replaced(" 100\n", " wide\n")},
        {"reflection", replaced("lens up 640 400 166 166.4 320.6 198.9 0.011 -0.0014 0.00018 0 0.",
                                "lens up 640 400 166 166.4 320.6 198.9 0.011 -0.0014 0.00018 0 -0.")},
    };
    for (const auto &[name, text] : bad_tables)
        write_file(dir / name, text);
    ORN::Image::write(dir / "small.png", ORN::Image::zeros(64, 40, 3, ORN::ImageDepth::U8));
    write_file(dir / "text.png", "not an image");
    write_file(dir / "file", "x");
    write_file(dir / "maxval.pgm", pgm(8, 8, [](int, int) { return 7; }, 255));
    write_file(dir / "high.pgm", pgm(8, 8, [](int x, int) { return x == 3 ? 4096 : 7; }));
    write_file(dir / "cut.pgm", pgm(8, 8, [](int, int) { return 7; }).substr(0, 60));
    write_file(dir / "good.pgm", pgm(8, 8, [](int, int) { return 7; }));
    const double negative[3] = {1, -1, 1}, nan[3] = {1, NAN, 1};
    const double *gain = UNIT_GAIN;

    const auto h = api().mCreate();
    auto views = developed(0, 2);
    const auto exec = [&](const std::string &o, const int *size = SIZE) {
        const char *v[6];
        for (int k = 0; k < 6; ++k)
            v[k] = views[k].c_str();
        return api().mExecute(h, v, o.c_str(), size, nullptr, nullptr);
    };
    const std::string o = dir / "o.jpg";
    capture_stdout([&] {
        // Stitching.
        EXPECT_EQ(exec(o), Code::KIVO_NOT_INITIALISED);
        EXPECT_EQ(api().mCode(h), Code::KIVO_NOT_INITIALISED);
        for (const std::string &bad : {std::string("absent.txt"), std::string("file")})
            EXPECT_EQ(api().mInit(h, (dir / bad).c_str(), WIDTH, HEIGHT, 64, 32, 8), Code::KIVO_BAD_TABLE) << bad;
        for (const auto &entry : bad_tables)
            EXPECT_EQ(api().mInit(h, (dir / entry.first).c_str(), WIDTH, HEIGHT, 64, 32, 8), Code::KIVO_BAD_TABLE)
                << entry.first;
        EXPECT_EQ(api().mInit(h, TABLE, WIDTH, HEIGHT, 64, 32, 16), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mInit(h, TABLE, 0, HEIGHT, 64, 32, 8), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mInit(h, nullptr, WIDTH, HEIGHT, 64, 32, 8), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(exec(o), Code::KIVO_NOT_INITIALISED); // a failed init leaves it so
        ASSERT_EQ(api().mInit(h, TABLE, WIDTH, HEIGHT, 64, 32, 8), Code::KIVO_OK);
        EXPECT_EQ(exec(o), Code::KIVO_OK);
        EXPECT_EQ(exec(dir / "o.gif"), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(exec(o, nullptr), Code::KIVO_BAD_ARGUMENT);
        const int zero[2] = {0, 0};
        EXPECT_EQ(exec(o, zero), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(exec(dir / "file/o.jpg"), Code::KIVO_WRITE_FAILED);
        EXPECT_EQ(api().mExecute(h, nullptr, o.c_str(), SIZE, nullptr, nullptr), Code::KIVO_BAD_ARGUMENT);
        views[3] = dir / "absent.png";
        EXPECT_EQ(exec(o), Code::KIVO_BAD_INPUT);
        views[3] = dir / "text.png";
        EXPECT_EQ(exec(o), Code::KIVO_BAD_INPUT);
        views[3] = dir / "small.png";
        EXPECT_EQ(exec(o), Code::KIVO_INPUT_MISMATCH);
        EXPECT_EQ(api().mCode(h), Code::KIVO_INPUT_MISMATCH);
        std::vector<const char *> frames(18, views[0].c_str());
        EXPECT_EQ(api().mExecuteHdr(h, frames.data(), 0, o.c_str(), SIZE, 1), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mExecuteHdr(h, frames.data(), 4, o.c_str(), SIZE, 1), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mExecuteHdr(h, nullptr, 2, o.c_str(), SIZE, 1), Code::KIVO_BAD_ARGUMENT);
        frames[7] = nullptr;
        EXPECT_EQ(api().mExecuteHdr(h, frames.data(), 2, o.c_str(), SIZE, 2), Code::KIVO_BAD_ARGUMENT);

        // Development.
        const auto isp = [&](const std::string &raw, const std::string &out, const double *g = UNIT_GAIN) {
            return api().mIsp(h, raw.c_str(), out.c_str(), g);
        };
        EXPECT_EQ(isp(dir / "good.pgm", dir / "d.png"), Code::KIVO_OK);
        EXPECT_EQ(isp(dir / "good.pgm", dir / "d.tif"), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(isp(dir / "good.pgm", dir / "d.png", nullptr), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(isp(dir / "good.pgm", dir / "d.png", negative), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(isp(dir / "good.pgm", dir / "d.png", nan), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mIsp(h, nullptr, (dir / "d.png").c_str(), gain), Code::KIVO_BAD_ARGUMENT);
        for (const char *bad : {"absent.pgm", "maxval.pgm", "high.pgm", "cut.pgm", "small.png", "file"})
            EXPECT_EQ(isp(dir / bad, dir / "d.png"), Code::KIVO_BAD_INPUT) << bad;
        EXPECT_EQ(api().mCode(h), Code::KIVO_BAD_INPUT);
        EXPECT_EQ(isp(dir / "good.pgm", dir / "file/d.png"), Code::KIVO_WRITE_FAILED);

        // Video.
        const auto v = api().mCreateVideo();
        const std::string up = at("captures/stereo_video_000_up.avi"), down = at("captures/stereo_video_000_down.avi");
        const std::string vo = dir / "v.avi";
        EXPECT_EQ(api().mExecuteVideo(v, up.c_str(), down.c_str(), nullptr, nullptr, vo.c_str(), nullptr, nullptr),
                  Code::KIVO_NOT_INITIALISED);
        EXPECT_EQ(api().mInitVideo(v, (dir / "positions").c_str(), 128, 64, 8), Code::KIVO_BAD_TABLE);
        EXPECT_EQ(api().mInitVideo(v, TABLE, 128, 64, 7), Code::KIVO_BAD_ARGUMENT);
        ASSERT_EQ(api().mInitVideo(v, TABLE, 128, 64, 8), Code::KIVO_OK);
        EXPECT_EQ(api().mExecuteVideo(v, up.c_str(), (dir / "absent.avi").c_str(), nullptr, nullptr, vo.c_str(),
                                      nullptr, nullptr),
                  Code::KIVO_BAD_INPUT);
        EXPECT_EQ(api().mVideoCode(v), Code::KIVO_BAD_INPUT);
        EXPECT_FALSE(fs::exists(vo));
        api().mDestroyVideo(v);

        // A null handle, for every entry that takes one.
        EXPECT_EQ(api().mInit(nullptr, TABLE, WIDTH, HEIGHT, 64, 32, 8), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mIsp(nullptr, (dir / "good.pgm").c_str(), (dir / "d.png").c_str(), gain), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mCode(nullptr), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mVideoCode(nullptr), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mInitFilter(nullptr, 4096, 90, 64), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mFilterCode(nullptr), Code::KIVO_BAD_ARGUMENT);
    });
    api().mDestroy(h);

    // The filter.
    FilterCase c;
    const auto f = api().mCreateFilter();
    const int *rect = RECT;
    const auto filter = [&](const std::string &in, const std::string &out, const int *r = RECT, int count = 1,
                            int width = WIDTH, int type = 0, const char *preview = nullptr) {
        return api().mFilter(f, in.c_str(), out.c_str(), preview, r, count, width, HEIGHT, type);
    };
    const std::string fo = dir / "f.png";
    capture_stdout([&] {
        EXPECT_EQ(filter(c.mInput, fo), Code::KIVO_NOT_INITIALISED);
        EXPECT_EQ(api().mInitFilter(f, 4095, 90, 64), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mInitFilter(f, 4096, 0, 64), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mInitFilter(f, 4096, 101, 64), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mInitFilter(f, 4096, 90, 15), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mInitFilter(f, 4096, 90, 4097), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mFilterCode(f), Code::KIVO_BAD_ARGUMENT);
        ASSERT_EQ(api().mInitFilter(f, 4096, 90, 64), Code::KIVO_OK);
        EXPECT_EQ(filter(c.mInput, fo), Code::KIVO_OK);
        EXPECT_EQ(filter(c.mInput, fo, rect, 0), Code::KIVO_OK); // no region: the image as decoded
        for (const std::array<int, 4> &outside :
             {std::array<int, 4>{500, 10, 20, 20}, {-1, 10, 20, 20}, {10, 250, 20, 7}, {10, 10, 0, 20}, {10, 10, 20, -3}}) {
            EXPECT_EQ(filter(c.mInput, fo, outside.data()), Code::KIVO_BAD_ARGUMENT) << outside[0] << " " << outside[1];
        }
        EXPECT_EQ(filter(c.mInput, fo, nullptr, 1), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(filter(c.mInput, fo, rect, -1), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(filter(c.mInput, fo, rect, 1, 0), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(filter(c.mInput, fo, rect, 1, WIDTH, 3), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(filter(c.mInput, dir / "f.bmp"), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(filter(c.mInput, fo, rect, 1, WIDTH, 0, (dir / "p.gif").c_str()), Code::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(filter(dir / "absent.png", fo), Code::KIVO_BAD_INPUT);
        EXPECT_EQ(filter(dir / "text.png", fo), Code::KIVO_BAD_INPUT);
        EXPECT_EQ(filter(c.mInput, dir / "file/f.png"), Code::KIVO_WRITE_FAILED);
        EXPECT_EQ(filter(c.mInput, fo, rect, 1, WIDTH, 0, (dir / "file/p.jpg").c_str()), Code::KIVO_WRITE_FAILED);
        EXPECT_EQ(api().mFilterCode(f), Code::KIVO_WRITE_FAILED);
        EXPECT_EQ(api().mFilter(f, nullptr, fo.c_str(), nullptr, rect, 1, WIDTH, HEIGHT, 0), Code::KIVO_BAD_ARGUMENT);
    });
    api().mDestroyFilter(f);
}

TEST(StereoLibrary, FaultSwitchesAndTrace) {
    TempDir dir;
    Stitcher s;
    FilterCase c;
    const double gain[3] = {2, 1, 1.5};
    const std::string raw = at("captures/stereo_000_g0_v0.pgm");
    {
        Env fail("ZARN_BACKEND_FAIL", "KIVO_ExecuteISPHandle:9,KIVO_ExecuteFilterHandle:11,KIVO_InitVideoStitchHandle:12");
        EXPECT_EQ(api().mIsp(s.mHandle, raw.c_str(), (dir / "d.png").c_str(), gain), 9);
        EXPECT_EQ(api().mCode(s.mHandle), 9);
        EXPECT_FALSE(fs::exists(dir / "d.png"));
        EXPECT_EQ(c.run(dir / "f.png", nullptr, 0), 11);
        EXPECT_EQ(api().mFilterCode(c.mHandle), 11);
        const auto v = api().mCreateVideo();
        EXPECT_EQ(api().mInitVideo(v, TABLE, 64, 32, 8), 12);
        EXPECT_EQ(api().mVideoCode(v), 12);
        api().mDestroyVideo(v);
    }
    {
        Env fail("ZARN_BACKEND_FAIL", "KIVO_InitFilterHandle:8,KIVO_GetFilterCode:5,KIVO_ExecuteOptFlowStitchHDRHandle:6");
        EXPECT_EQ(api().mInitFilter(c.mHandle, 4096, 90, 64), 8);
        EXPECT_EQ(api().mFilterCode(c.mHandle), 5);
        EXPECT_EQ(s.hdr(0, 3, dir / "h.jpg", 2), 6);
    }
    {
        Env null("ZARN_BACKEND_NULL", "KIVO_CreateFilterHandle,KIVO_CreateVideoStitchHandle");
        EXPECT_EQ(api().mCreateFilter(), nullptr);
        EXPECT_EQ(api().mCreateVideo(), nullptr);
        const auto h = api().mCreate();
        EXPECT_NE(h, nullptr);
        api().mDestroy(h);
    }
    {
        Env thrown("ZARN_BACKEND_THROW", "KIVO_ExecuteFilterHandle");
        EXPECT_EQ(failure_of([&] { c.run(dir / "f.png", nullptr, 0); }), "KIVO_ExecuteFilterHandle : injected fault");
    }
    {
        Env trace("ZARN_BACKEND_TRACE", dir / "trace.txt");
        api().mIsp(s.mHandle, raw.c_str(), (dir / "d.png").c_str(), gain);
        const int rects[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        api().mFilter(c.mHandle, "in.jpg", "out.jpg", nullptr, rects, 2, 64, 32, 1);
        const char *views[6] = {"a", "b", "c", "d", "e", "f"};
        api().mExecute(s.mHandle, views, "o.png", SIZE, nullptr, "n");
    }
    const auto lines = lines_of(read_file(dir / "trace.txt"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(starts_with(lines[0], "KIVO_ExecuteISPHandle \"0x")) << lines[0];
    EXPECT_TRUE(lines[0].ends_with("\" \"" + raw + "\" \"" + (dir / "d.png") + "\" \"2,1,1.5\"")) << lines[0];
    EXPECT_TRUE(lines[1].ends_with(" \"in.jpg\" \"out.jpg\" \"\" \"1,2,3,4;5,6,7,8\" \"2\" \"64\" \"32\" \"1\""))
        << lines[1];
    EXPECT_TRUE(lines[2].ends_with(" \"a|b|c|d|e|f\" \"o.png\" \"512x256\" \"\" \"n\"")) << lines[2];
}

} // namespace
