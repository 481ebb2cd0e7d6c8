// The reference stitching library called directly, as the stitch process
// binds it, on a job made by zarn_capture whose panoramas are known.
#include "support.h"

#include "ZARN_Common/ImageProc.h"
#include "ZARN_Common/StitchLibrary.h"
#include "__ORN__/orn_images.h"

#include <opencv2/core.hpp>
#include <rapidjson/document.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>

#include <array>
#include <cmath>
#include <functional>
#include <cstring>
#include <thread>

namespace {

using namespace zarn_test;
namespace Lib = ZARN::StitchLibrary;
using ZARN::ImageProc;

const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string LIBRARY = std::string(ZARN_BINARY_DIR) + "/backends/libStitch.so";

// The generator's lower lens is this much less sensitive than the upper;
// the gain that undoes it, on gamma-encoded grey levels.
const double LOWER_GAIN = std::pow(1 / 0.82, 1 / 2.2);
constexpr int WIDTH = 512, HEIGHT = 256;
const int SIZE[3] = {WIDTH, HEIGHT, Lib::SEAM_PLAIN};
const int FLOW_SIZE[3] = {WIDTH, HEIGHT, Lib::SEAM_FLOW};

struct API {
    Lib::CREATE_OPT_FLOW_STITCH *mCreate;
    Lib::DESTROY_OPT_FLOW_STITCH *mDestroy;
    Lib::INIT_OPT_FLOW_STITCH *mInit;
    Lib::EXECUTE_OPT_FLOW_STITCH *mExecute;
    Lib::EXECUTE_OPT_FLOW_STITCH_HDR *mExecuteHdr;
    Lib::GET_OPT_FLOW_STITCH_CODE *mCode;
    Lib::EXECUTE_PANO_REPAIR *mRepair;
    Lib::CREATE_VIDEO_STITCH *mCreateVideo;
    Lib::DESTROY_VIDEO_STITCH *mDestroyVideo;
    Lib::INIT_VIDEO_STITCH *mInitVideo;
    Lib::EXECUTE_VIDEO_STITCH *mExecuteVideo;
    Lib::GET_VIDEO_STITCH_CODE *mVideoCode;
};

const API &api() {
    static const API a = [] {
        void *lib = dlopen(LIBRARY.c_str(), RTLD_NOW | RTLD_LOCAL);
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
        get(r.mCode, "KIVO_GetOptFlowStitchCode");
        get(r.mRepair, "KIVO_ExecutePanoRepairHandle");
        get(r.mCreateVideo, "KIVO_CreateVideoStitchHandle");
        get(r.mDestroyVideo, "KIVO_DestroyVideoStitchHandle");
        get(r.mInitVideo, "KIVO_InitVideoStitchHandle");
        get(r.mExecuteVideo, "KIVO_ExecuteVideoStitchHandle");
        get(r.mVideoCode, "KIVO_GetVideoStitchCode");
        return r;
    }();
    return a;
}

// The generated job all cases read (none writes into it): made once per
// build of the generator and shared by the test processes.
const fs::path &job() {
    static const fs::path root = [] {
        const fs::path dir = fs::path(ZARN_BINARY_DIR) / "tests" / "stitch_library_job";
        fs::create_directories(dir.parent_path());
        const int lock = ::open((dir.string() + ".lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
        ::flock(lock, LOCK_EX);
        const auto when = fs::last_write_time(CAPTURE).time_since_epoch().count();
        const std::string stamp = std::to_string(fs::file_size(CAPTURE)) + " " + std::to_string(when);
        if (!fs::exists(dir / "stamp") || read_file(dir / "stamp") != stamp) {
            fs::remove_all(dir);
            const auto r = run(quote(CAPTURE) + " " + quote(dir.string()) + " --points 2 --videos 1 --frames 3");
            EXPECT_EQ(r.status, 0) << r.output;
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
std::string capture(int point, const char *lens, int bracket = -1) {
    char name[64];
    if (bracket < 0)
        std::snprintf(name, sizeof(name), "captures/point_%03d_%s.jpg", point, lens);
    else
        std::snprintf(name, sizeof(name), "captures/point_%03d_%s_%d.jpg", point, lens, bracket);
    return at(name);
}

// An image object, initialised on the job's tables, destroyed at the end.
struct Stitcher {
    Lib::IMAGE_HANDLE mHandle = api().mCreate();
    Stitcher() {
        EXPECT_NE(mHandle, nullptr);
        EXPECT_EQ(init(at("caches/table_Up.bin"), at("caches/table_Down.bin")), Lib::KIVO_OK);
    }
    ~Stitcher() { api().mDestroy(mHandle); }
    int init(const std::string &up, const std::string &down, int width = WIDTH, int bits = 8) {
        return api().mInit(mHandle, up.c_str(), down.c_str(), width, width / 2, width / 4, width / 8, bits);
    }
    int stitch(int point, const std::string &out, double *statistics = nullptr, const int *size = SIZE) {
        return api().mExecute(mHandle, capture(point, "up").c_str(), capture(point, "down").c_str(), out.c_str(),
                              size, statistics, "point");
    }
};

// Where both lenses see the panorama.
ORN::Image overlap(int width, int height) {
    const auto up = ImageProc::lens_coverage(ImageProc::read_lens_table(at("caches/table_Up.bin")), width, height);
    const auto down = ImageProc::lens_coverage(ImageProc::read_lens_table(at("caches/table_Down.bin")), width, height);
    ORN::Image both(width, height, 1, ORN::ImageDepth::U8);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            both.row<unsigned char>(y)[x] = up.row<unsigned char>(y)[x] & down.row<unsigned char>(y)[x];
    return both;
}

// The frames of a Motion-JPEG AVI: the frame count of its main header and
// the JPEG data of its "00dc" chunks.
struct AVI {
    int mHeaderFrames = -1;
    double mFps = 0;
    std::vector<std::string> mFrames;
};
AVI read_avi(const std::string &path) {
    const std::string data = read_file(path);
    AVI a;
    const auto u32 = [&](std::size_t at) {
        std::uint32_t v = 0;
        std::memcpy(&v, data.data() + at, 4);
        return v;
    };
    const auto avih = data.find("avih");
    if (avih == std::string::npos)
        return a;
    a.mFps = 1e6 / u32(avih + 8);
    a.mHeaderFrames = static_cast<int>(u32(avih + 8 + 16));
    // The chunks of the "movi" list, in order.
    const auto movi = data.find("movi");
    if (movi == std::string::npos || movi < 4)
        return a;
    const std::size_t end = std::min<std::size_t>(data.size(), movi + u32(movi - 4));
    for (std::size_t p = movi + 4; p + 8 <= end;) {
        const std::uint32_t size = u32(p + 4);
        if (data.compare(p, 4, "00dc") == 0)
            a.mFrames.push_back(data.substr(p + 8, size));
        p += 8 + size + (size & 1);
    }
    return a;
}

ORN::Image decode(const std::string &bytes) {
    return ORN::Image::decode(reinterpret_cast<const unsigned char *>(bytes.data()), static_cast<ORN::INDEX>(bytes.size()));
}

TEST(StitchLibrary, PanoramasMatchTheTruthWhereBothLensesSee) {
    TempDir out;
    Stitcher s;
    const ORN::Image both = overlap(WIDTH, HEIGHT);
    fs::create_directories(out.path() / "nested/dir"); // the module makes the output's folder
    for (int point = 0; point < 2; ++point)
        for (const char *format : {".png", ".jpg"}) {
            const std::string file = out / ("nested/dir/p" + std::to_string(point) + format);
            double statistics[2] = {};
            ASSERT_EQ(s.stitch(point, file, statistics), Lib::KIVO_OK);
            const ORN::Image truth = ORN::Image::read(at("truth/point_00" + std::to_string(point) + ".png"));
            const ORN::Image panorama = ORN::Image::read(file);
            ASSERT_TRUE(panorama.same_layout(truth));
            const double overlap_db = ImageProc::psnr(truth, panorama, both);
            const double all_db = ImageProc::psnr(truth, panorama);
            std::printf("point %d %s: PSNR %.2f dB where both lenses see, %.2f dB overall; gain %.4f, difference %.2f\n",
                        point, format, overlap_db, all_db, statistics[0], statistics[1]);
            EXPECT_GE(overlap_db, 30.0) << point << format;
            EXPECT_GE(all_db, 30.0) << point << format;
            EXPECT_NEAR(statistics[0], LOWER_GAIN, 0.03);
            EXPECT_LT(statistics[1], 4.0);
        }
}

TEST(StitchLibrary, HdrFusesTheBracketsBeforeStitching) {
    TempDir out;
    Stitcher s;
    const std::string plain = out / "plain.png", fused = out / "fused.png", single = out / "single.png";
    ASSERT_EQ(s.stitch(1, plain), Lib::KIVO_OK);
    std::string b[8];
    for (int k = 0; k < 4; ++k) {
        b[k] = capture(1, "up", k);
        b[4 + k] = capture(1, "down", k);
    }
    EXPECT_EQ(api().mExecuteHdr(s.mHandle, b[0].c_str(), b[1].c_str(), b[2].c_str(), b[3].c_str(), b[4].c_str(),
                                b[5].c_str(), b[6].c_str(), b[7].c_str(), fused.c_str(), SIZE, 4),
              Lib::KIVO_OK);
    // One bracket: the normal exposure alone, unused paths null.
    const std::string normal_up = capture(1, "up", 2), normal_down = capture(1, "down", 2);
    EXPECT_EQ(api().mExecuteHdr(s.mHandle, normal_up.c_str(), nullptr, nullptr, nullptr, normal_down.c_str(), nullptr,
                                nullptr, nullptr, single.c_str(), SIZE, 1),
              Lib::KIVO_OK);
    EXPECT_EQ(read_file(single), read_file(plain)); // bracket 2 is the raw capture

    const ORN::Image truth = ORN::Image::read(at("truth/point_001.png"));
    const ORN::Image p = ORN::Image::read(plain), f = ORN::Image::read(fused);
    const auto clipped = [](const ORN::Image &image) {
        int n = 0;
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width() * 3; ++x)
                n += image.row<unsigned char>(y)[x] >= 250;
        return n;
    };
    const double db = ImageProc::psnr(truth, f);
    std::printf("HDR point 1: PSNR %.2f dB against the single-exposure truth; clipped values %d fused, %d plain\n", db,
                clipped(f), clipped(p));
    // The lights and the window keep their detail; the room stays the room:
    // the normal exposure's tones where it is well exposed (Mertens fusion
    // of these brackets gives 27.4 dB).
    EXPECT_LT(clipped(f) * 2, clipped(p));
    EXPECT_GT(db, 34.0);

    // Where the normal exposure is well below white, the merge keeps it (up
    // to the lower lens's gain, matched on the merged captures).
    double sum = 0;
    long count = 0;
    for (int y = 0; y < p.height(); ++y)
        for (int x = 0; x < p.width(); ++x) {
            const unsigned char *a = p.row<unsigned char>(y) + 3 * x, *c = f.row<unsigned char>(y) + 3 * x;
            if (std::max({a[0], a[1], a[2]}) > 200)
                continue;
            for (int k = 0; k < 3; ++k)
                sum += std::abs(int(a[k]) - int(c[k]));
            count += 3;
        }
    ASSERT_GT(count, 0);
    std::printf("HDR point 1: mean difference %.3f from the normal exposure's panorama below grey 200\n", sum / count);
    EXPECT_LT(sum / count, 1.5);

    // The merge and the decoding over OpenCV's threads give the same bytes
    // on one thread as on two.
    const int threads = cv::getNumThreads();
    std::string bytes[2];
    for (int n : {1, 2}) {
        cv::setNumThreads(n);
        const std::string file = out / ("threads" + std::to_string(n) + ".png");
        EXPECT_EQ(api().mExecuteHdr(s.mHandle, b[0].c_str(), b[1].c_str(), b[2].c_str(), b[3].c_str(), b[4].c_str(),
                                    b[5].c_str(), b[6].c_str(), b[7].c_str(), file.c_str(), SIZE, 4),
                  Lib::KIVO_OK);
        bytes[n - 1] = read_file(file);
    }
    cv::setNumThreads(threads);
    EXPECT_TRUE(bytes[0] == bytes[1]);
    EXPECT_TRUE(bytes[0] == read_file(fused));
}

TEST(StitchLibrary, VideoFramesHdrValueAndFieldOfView) {
    TempDir out;
    const auto video = api().mCreateVideo();
    ASSERT_NE(video, nullptr);
    ASSERT_EQ(api().mInitVideo(video, at("caches/table_Up.bin").c_str(), at("caches/table_Down.bin").c_str(), WIDTH,
                               HEIGHT, 8),
              Lib::KIVO_OK);
    const std::string up = at("captures/video_000_up.avi"), down = at("captures/video_000_down.avi");
    const std::string up_short = at("captures/video_000_up_short.avi"), down_short = at("captures/video_000_down_short.avi");
    double hdr = 0, fov = 0;
    const std::string fused = out / "videos/fused.avi";
    fs::create_directories(out.path() / "videos"); // the module makes the output's folder
    ASSERT_EQ(api().mExecuteVideo(video, up.c_str(), down.c_str(), up_short.c_str(), down_short.c_str(), fused.c_str(),
                                  &hdr, &fov),
              Lib::KIVO_OK);
    std::printf("video: HDR value %.3f, field of view %.2f degrees\n", hdr, fov);
    EXPECT_NEAR(hdr, 4.0, 0.4); // the generator's short streams have a quarter of the exposure
    EXPECT_NEAR(fov, 180.0, 0.1);
    const AVI a = read_avi(fused);
    EXPECT_EQ(a.mHeaderFrames, 3);
    EXPECT_EQ(a.mFrames.size(), 3u);
    EXPECT_NEAR(a.mFps, 10.0, 0.01);

    // Without short streams: no fusion, ratio 1, and the first frame is the
    // first point's panorama.
    const std::string plain = out / "plain.avi";
    ASSERT_EQ(api().mExecuteVideo(video, up.c_str(), down.c_str(), "", nullptr, plain.c_str(), &hdr, &fov), Lib::KIVO_OK);
    EXPECT_EQ(hdr, 1.0);
    const AVI b = read_avi(plain);
    ASSERT_EQ(b.mFrames.size(), 3u);
    const ORN::Image frame = decode(b.mFrames[0]);
    ASSERT_EQ(frame.width(), WIDTH);
    const double db = ImageProc::psnr(ORN::Image::read(at("truth/point_000.png")), frame, overlap(WIDTH, HEIGHT));
    std::printf("video frame 0: PSNR %.2f dB where both lenses see\n", db);
    EXPECT_GE(db, 28.0);
    api().mDestroyVideo(video);

    // Lenses of 80 degrees leave 20 degrees around the horizon unseen.
    TempDir narrow;
    for (const char *name : {"up.bin", "down.bin"}) {
        auto t = ImageProc::read_lens_table(at(std::string("caches/table_") + (name[0] == 'u' ? "Up.bin" : "Down.bin")));
        t.mMaxAngle = 80;
        ImageProc::write_lens_table(narrow / name, t);
    }
    const auto narrow_video = api().mCreateVideo();
    ASSERT_EQ(api().mInitVideo(narrow_video, (narrow / "up.bin").c_str(), (narrow / "down.bin").c_str(), 256, 128, 8),
              Lib::KIVO_OK);
    ASSERT_EQ(api().mExecuteVideo(narrow_video, up.c_str(), down.c_str(), nullptr, nullptr, (out / "n.avi").c_str(),
                                  &hdr, &fov),
              Lib::KIVO_OK);
    EXPECT_NEAR(fov, 160.0, 1.0);
    api().mDestroyVideo(narrow_video);
}

// Sixteen stitchers of the same lens tables at 4096 x 2048 hold one set of
// remap tables between them: they fit, in a child, in an address space that
// has room for a few sets only.
TEST(StitchLibrary, StitchersOfTheSameTablesAndSizeShareTheirRemapTables) {
    const std::string up = at("caches/table_Up.bin"), down = at("caches/table_Down.bin");
    api(); // the library is loaded before the limit
    const pid_t child = ::fork();
    if (child == 0) {
        limit_address_space_growth(400 << 20);
        std::vector<Lib::IMAGE_HANDLE> handles;
        int failed = 0;
        for (int i = 0; i < 16; ++i) {
            handles.push_back(api().mCreate());
            failed += api().mInit(handles.back(), up.c_str(), down.c_str(), 4096, 2048, 512, 256, 8) != Lib::KIVO_OK;
        }
        for (const auto handle : handles)
            api().mDestroy(handle);
        ::_exit(failed);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0) << "stitchers whose init failed";
}

TEST(StitchLibrary, ThreadsOnOneObjectWriteWhatOneThreadWrites) {
    TempDir out;
    Stitcher s;
    const auto file = [&](int point, int round) {
        char name[32];
        std::snprintf(name, sizeof(name), "p%d_%d.jpg", point, round);
        return out / name;
    };
    // A size not prepared by init: its tables are made by whichever thread
    // comes first.
    const int size[3] = {384, 192, Lib::SEAM_FLOW};
    std::string expected[2];
    {
        Stitcher reference;
        for (int p = 0; p < 2; ++p) {
            ASSERT_EQ(reference.stitch(p, file(p, 9), nullptr, size), Lib::KIVO_OK);
            expected[p] = read_file(file(p, 9));
        }
    }
    int codes[2][3] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 3; ++i)
                codes[t][i] = s.stitch(t, file(t, i), nullptr, size);
        });
    for (auto &t : threads)
        t.join();
    for (int t = 0; t < 2; ++t)
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(codes[t][i], Lib::KIVO_OK);
            EXPECT_TRUE(read_file(file(t, i)) == expected[t]) << t << " " << i;
        }
}

TEST(StitchLibrary, AReplacedOutputLeavesAPublishedLinkAlone) {
    TempDir out;
    Stitcher s;
    const std::string file = out / "p.jpg", link = out / "published.jpg";
    ASSERT_EQ(s.stitch(0, file), Lib::KIVO_OK);
    const std::string first = read_file(file);
    fs::create_hard_link(file, link);
    ASSERT_EQ(s.stitch(1, file), Lib::KIVO_OK);
    EXPECT_NE(read_file(file), first);
    EXPECT_EQ(read_file(link), first);
    // No temporary file is left behind.
    EXPECT_EQ(std::distance(fs::directory_iterator(out.path()), fs::directory_iterator()), 2);
}

// Outputs never follow a link: neither one planted at the temporary names
// this process takes next, nor one at the target, nor a linked folder; and
// the temporaries an interrupted run of another process left beside a
// target are removed before it is written.
TEST(StitchLibrary, OutputsFollowNoLinkAndClearInterruptedTemporaries) {
    TempDir dir;
    const fs::path outside = dir.path() / "outside", job = dir.path() / "job";
    write_file(outside / "canary.jpg", "canary");
    fs::create_directories(job / "videos");
    const auto canary = [&] { return std::make_pair(tree(outside), read_file(outside / "canary.jpg")); };
    const auto before = canary();
    const std::string pid = std::to_string(::getpid());
    for (int n = 0; n < 40; ++n) {
        fs::create_symlink(outside / "canary.jpg", job / (".p.jpg." + pid + "." + std::to_string(n) + ".part.jpg"));
        fs::create_symlink(outside / "canary.jpg",
                           job / ("videos/.video_000.avi." + pid + "." + std::to_string(n) + ".part.avi"));
    }
    fs::create_symlink(outside / "canary.jpg", job / "p.jpg");
    // Left by interrupted runs: a process that is gone, one that lives (not
    // this one), and a temporary of another target, which stays.
    for (const char *stale : {".video_000.avi.999999999.0.part.avi", ".video_000.avi.1.7.part.avi"})
        write_file(job / "videos" / stale, "partial");
    write_file(job / "videos/.video_001.avi.999999999.0.part.avi", "partial");

    Stitcher s;
    ASSERT_EQ(s.stitch(0, (job / "p.jpg").string()), Lib::KIVO_OK);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(job / "p.jpg")));
    EXPECT_TRUE(starts_with(read_file(job / "p.jpg"), "\xff\xd8"));

    const auto video = api().mCreateVideo();
    ASSERT_EQ(api().mInitVideo(video, at("caches/table_Up.bin").c_str(), at("caches/table_Down.bin").c_str(), WIDTH,
                               HEIGHT, 8),
              Lib::KIVO_OK);
    const std::string up = at("captures/video_000_up.avi"), down = at("captures/video_000_down.avi");
    const std::string output = (job / "videos/video_000.avi").string();
    ASSERT_EQ(api().mExecuteVideo(video, up.c_str(), down.c_str(), nullptr, nullptr, output.c_str(), nullptr, nullptr),
              Lib::KIVO_OK);
    EXPECT_EQ(read_avi(output).mFrames.size(), 3u);
    EXPECT_FALSE(fs::exists(job / "videos/.video_000.avi.999999999.0.part.avi"));
    EXPECT_FALSE(fs::exists(job / "videos/.video_000.avi.1.7.part.avi"));
    EXPECT_TRUE(fs::exists(job / "videos/.video_001.avi.999999999.0.part.avi"));

    // A folder that is a link out of the job.
    fs::create_directory_symlink(outside, job / "linked");
    EXPECT_EQ(s.stitch(0, (job / "linked/p.jpg").string()), Lib::KIVO_WRITE_FAILED);
    EXPECT_EQ(api().mExecuteVideo(video, up.c_str(), down.c_str(), nullptr, nullptr, (job / "linked/v.avi").c_str(),
                                  nullptr, nullptr),
              Lib::KIVO_WRITE_FAILED);
    api().mDestroyVideo(video);
    EXPECT_EQ(canary(), before);
}

TEST(StitchLibrary, EveryFailureHasItsCode) {
    TempDir dir;
    const std::string up = at("caches/table_Up.bin"), down = at("caches/table_Down.bin");
    // Malformed tables: truncated, a wrong magic, a reflection.
    const std::string table = read_file(up);
    write_file(dir / "short.bin", table.substr(0, 100));
    std::string magic = table;
    magic[0] = 'X';
    write_file(dir / "magic.bin", magic);
    auto reflected = ImageProc::read_lens_table(up);
    for (int i = 0; i < 3; ++i)
        reflected.mRotation[i] = -reflected.mRotation[i];
    const auto bytes = ImageProc::encode_lens_table(reflected);
    write_file(dir / "reflected.bin", std::string(bytes.text()));
    // A capture of the wrong size, and a file that is no image.
    ORN::Image::write(dir / "small.jpg", ORN::Image::zeros(64, 64, 3, ORN::ImageDepth::U8));
    write_file(dir / "text.jpg", "not an image");
    write_file(dir / "file", "x");

    Lib::IMAGE_HANDLE h = api().mCreate();
    const auto exec = [&](const std::string &a, const std::string &b, const std::string &o, const int *size = SIZE) {
        return api().mExecute(h, a.c_str(), b.c_str(), o.c_str(), size, nullptr, nullptr);
    };
    const std::string u = capture(0, "up"), d = capture(0, "down"), o = dir / "o.jpg";
    capture_stdout([&] {
        EXPECT_EQ(exec(u, d, o), Lib::KIVO_NOT_INITIALISED);
        EXPECT_EQ(api().mCode(h), Lib::KIVO_NOT_INITIALISED);
        for (const std::string &bad : {dir / "absent.bin", dir / "short.bin", dir / "magic.bin", dir / "reflected.bin"})
            EXPECT_EQ(api().mInit(h, up.c_str(), bad.c_str(), WIDTH, HEIGHT, 64, 32, 8), Lib::KIVO_BAD_TABLE) << bad;
        EXPECT_EQ(api().mCode(h), Lib::KIVO_BAD_TABLE);
        EXPECT_EQ(api().mInit(h, up.c_str(), down.c_str(), WIDTH, HEIGHT, 64, 32, 16), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mInit(h, up.c_str(), down.c_str(), 0, HEIGHT, 64, 32, 8), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mInit(h, nullptr, down.c_str(), WIDTH, HEIGHT, 64, 32, 8), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(exec(u, d, o), Lib::KIVO_NOT_INITIALISED); // a failed init leaves it so
        ASSERT_EQ(api().mInit(h, up.c_str(), down.c_str(), WIDTH, HEIGHT, 64, 32, 8), Lib::KIVO_OK);

        EXPECT_EQ(exec(dir / "absent.jpg", d, o), Lib::KIVO_BAD_INPUT);
        EXPECT_EQ(exec(u, dir / "text.jpg", o), Lib::KIVO_BAD_INPUT);
        EXPECT_EQ(exec(u, dir / "small.jpg", o), Lib::KIVO_INPUT_MISMATCH);
        EXPECT_EQ(api().mCode(h), Lib::KIVO_INPUT_MISMATCH);
        EXPECT_EQ(exec(u, d, dir / "file/o.jpg"), Lib::KIVO_WRITE_FAILED);
        // An output that cannot be renamed into place: a directory there.
        fs::create_directories(dir.path() / "folder.jpg/inside");
        EXPECT_EQ(exec(u, d, dir / "folder.jpg"), Lib::KIVO_WRITE_FAILED);
        EXPECT_TRUE(fs::is_directory(dir.path() / "folder.jpg/inside"));
        // A missing folder is not made: the module makes the output folders.
        EXPECT_EQ(exec(u, d, dir / "absent/o.jpg"), Lib::KIVO_WRITE_FAILED);
        EXPECT_FALSE(fs::exists(dir.path() / "absent"));
        EXPECT_EQ(exec(u, d, dir / "o.gif"), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(exec(u, d, o, nullptr), Lib::KIVO_BAD_ARGUMENT);
        const int zero[3] = {0, 0, 0};
        EXPECT_EQ(exec(u, d, o, zero), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mExecute(h, nullptr, d.c_str(), o.c_str(), SIZE, nullptr, nullptr), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mExecuteHdr(h, u.c_str(), nullptr, nullptr, nullptr, d.c_str(), nullptr, nullptr, nullptr,
                                    o.c_str(), SIZE, 0),
                  Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mExecuteHdr(h, u.c_str(), nullptr, nullptr, nullptr, d.c_str(), nullptr, nullptr, nullptr,
                                    o.c_str(), SIZE, 2),
                  Lib::KIVO_BAD_ARGUMENT);
        // The brackets are decoded together: of two bad ones, the first in
        // the order given (upper 0..3, lower 0..3) is the result, and
        // nothing is written.
        {
            const std::string small = dir / "small.jpg", absent = dir / "absent.jpg", hdr = dir / "hdr.jpg";
            const auto brackets = [&](const std::string &upper_1, const std::string &lower_2) {
                return api().mExecuteHdr(h, u.c_str(), upper_1.c_str(), u.c_str(), u.c_str(), d.c_str(), d.c_str(),
                                         lower_2.c_str(), d.c_str(), hdr.c_str(), SIZE, 4);
            };
            EXPECT_EQ(brackets(small, absent), Lib::KIVO_INPUT_MISMATCH);
            EXPECT_EQ(brackets(absent, small), Lib::KIVO_BAD_INPUT);
            EXPECT_EQ(brackets(u, small), Lib::KIVO_INPUT_MISMATCH);
            EXPECT_FALSE(fs::exists(hdr));
        }
        EXPECT_EQ(exec(u, d, o), Lib::KIVO_OK);
        EXPECT_EQ(api().mCode(h), Lib::KIVO_OK);

        // A null handle, for every entry that takes one.
        EXPECT_EQ(api().mInit(nullptr, up.c_str(), down.c_str(), WIDTH, HEIGHT, 64, 32, 8), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mExecute(nullptr, u.c_str(), d.c_str(), o.c_str(), SIZE, nullptr, nullptr), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mCode(nullptr), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mVideoCode(nullptr), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(api().mExecuteVideo(nullptr, u.c_str(), d.c_str(), nullptr, nullptr, o.c_str(), nullptr, nullptr),
                  Lib::KIVO_BAD_ARGUMENT);

        // Videos: not initialised, a missing stream, streams of another size.
        const auto v = api().mCreateVideo();
        const std::string vu = at("captures/video_000_up.avi"), vd = at("captures/video_000_down.avi");
        EXPECT_EQ(api().mExecuteVideo(v, vu.c_str(), vd.c_str(), nullptr, nullptr, (dir / "v.avi").c_str(), nullptr, nullptr),
                  Lib::KIVO_NOT_INITIALISED);
        ASSERT_EQ(api().mInitVideo(v, up.c_str(), down.c_str(), 128, 64, 8), Lib::KIVO_OK);
        EXPECT_EQ(api().mExecuteVideo(v, vu.c_str(), (dir / "absent.avi").c_str(), nullptr, nullptr,
                                      (dir / "v.avi").c_str(), nullptr, nullptr),
                  Lib::KIVO_BAD_INPUT);
        auto other = ImageProc::read_lens_table(down);
        other.mWidth += 8;
        ImageProc::write_lens_table(dir / "other.bin", other);
        ASSERT_EQ(api().mInitVideo(v, up.c_str(), (dir / "other.bin").c_str(), 128, 64, 8), Lib::KIVO_OK);
        EXPECT_EQ(api().mExecuteVideo(v, vu.c_str(), vd.c_str(), nullptr, nullptr, (dir / "v.avi").c_str(), nullptr, nullptr),
                  Lib::KIVO_INPUT_MISMATCH);
        EXPECT_EQ(api().mVideoCode(v), Lib::KIVO_INPUT_MISMATCH);
        EXPECT_FALSE(fs::exists(dir / "v.avi"));
        api().mDestroyVideo(v);
    });
    api().mDestroy(h);
}

// --- Flow-aligned seams and the panorama repair.

// A job with parallax (two lens centres 3 cm apart, near objects across the
// seam band) and its marked regions, when the generator makes one.
const fs::path &parallax_job() {
    static const fs::path root = [] {
        if (!contains(run(quote(CAPTURE) + " --help").output, "--parallax"))
            return fs::path();
        const fs::path dir = fs::path(ZARN_BINARY_DIR) / "tests" / "stitch_library_parallax_job";
        const int lock = ::open((dir.string() + ".lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
        ::flock(lock, LOCK_EX);
        const auto when = fs::last_write_time(CAPTURE).time_since_epoch().count();
        const std::string stamp = std::to_string(fs::file_size(CAPTURE)) + " " + std::to_string(when);
        if (!fs::exists(dir / "stamp") || read_file(dir / "stamp") != stamp) {
            fs::remove_all(dir);
            const auto r = run(quote(CAPTURE) + " " + quote(dir.string()) +
                               " --width 1024 --points 1 --videos 0 --parallax --repairs");
            EXPECT_EQ(r.status, 0) << r.output;
            if (r.status == 0)
                write_file(dir / "stamp", stamp);
        }
        ::flock(lock, LOCK_UN);
        ::close(lock);
        return dir;
    }();
    return root;
}

// The rows where both lenses see some of the panorama, as a mask.
ORN::Image band_mask(const fs::path &job, int width, int height) {
    const auto up = ImageProc::lens_coverage(ImageProc::read_lens_table((job / "caches/table_Up.bin").string()), width, height);
    const auto down = ImageProc::lens_coverage(ImageProc::read_lens_table((job / "caches/table_Down.bin").string()), width, height);
    ORN::Image band(width, height, 1, ORN::ImageDepth::U8);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            band.row<unsigned char>(y)[x] = up.row<unsigned char>(y)[x] & down.row<unsigned char>(y)[x];
    return band;
}

// A rectangle of a panorama as a mask.
ORN::Image rect_mask(int width, int height, int x0, int y0, int w, int h) {
    ORN::Image mask = ORN::Image::zeros(width, height, 1, ORN::ImageDepth::U8);
    for (int y = y0; y < y0 + h; ++y)
        for (int x = x0; x < x0 + w; ++x)
            mask.row<unsigned char>(y)[x] = 255;
    return mask;
}

// Pixels of two same-sized images that differ, inside and outside a set of
// rectangles {x, y, w, h}.
std::pair<long, long> differing(const ORN::Image &a, const ORN::Image &b, const std::vector<std::array<int, 4>> &rects) {
    long inside = 0, outside = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const bool differs = std::memcmp(a.row<unsigned char>(y) + 3 * x, b.row<unsigned char>(y) + 3 * x, 3) != 0;
            bool in = false;
            for (const auto &r : rects)
                in = in || (x >= r[0] && x < r[0] + r[2] && y >= r[1] && y < r[1] + r[3]);
            (in ? inside : outside) += differs;
        }
    return {inside, outside};
}

TEST(StitchLibrary, FlowSeamsKeepThePlainBlendWhereTheLensesAgreeOnEveryThreadCount) {
    TempDir out;
    Stitcher s;
    const ORN::Image both = overlap(WIDTH, HEIGHT);
    const ORN::Image truth = ORN::Image::read(at("truth/point_000.png"));
    ASSERT_EQ(s.stitch(0, out / "plain.png"), Lib::KIVO_OK);
    const int threads = cv::getNumThreads();
    cv::setNumThreads(1);
    ASSERT_EQ(s.stitch(0, out / "flow1.png", nullptr, FLOW_SIZE), Lib::KIVO_OK);
    cv::setNumThreads(7);
    ASSERT_EQ(s.stitch(0, out / "flow7.png", nullptr, FLOW_SIZE), Lib::KIVO_OK);
    cv::setNumThreads(threads);
    EXPECT_TRUE(read_file(out / "flow1.png") == read_file(out / "flow7.png"));
    const double plain_db = ImageProc::psnr(truth, ORN::Image::read(out / "plain.png"), both);
    const double flow_db = ImageProc::psnr(truth, ORN::Image::read(out / "flow1.png"), both);
    std::printf("single centre, where both lenses see: plain %.2f dB, flow %.2f dB\n", plain_db, flow_db);
    EXPECT_GE(flow_db, plain_db - 0.02);
    // An unknown seam is refused before anything is written.
    const int unknown[3] = {WIDTH, HEIGHT, 2};
    EXPECT_EQ(s.stitch(0, out / "unknown.png", nullptr, unknown), Lib::KIVO_BAD_ARGUMENT);
    EXPECT_FALSE(fs::exists(out / "unknown.png"));
}

TEST(StitchLibrary, FlowSeamsReduceTheBandErrorOnParallaxCaptures) {
    const fs::path &job = parallax_job();
    if (job.empty())
        GTEST_SKIP() << "the capture generator makes no parallax captures";
    TempDir out;
    constexpr int W = 1024, H = 512;
    Lib::IMAGE_HANDLE h = api().mCreate();
    ASSERT_EQ(api().mInit(h, (job / "caches/table_Up.bin").c_str(), (job / "caches/table_Down.bin").c_str(), W, H,
                          W / 8, H / 8, 8),
              Lib::KIVO_OK);
    const std::string up = job / "captures/point_000_up.jpg", down = job / "captures/point_000_down.jpg";
    const ORN::Image truth = ORN::Image::read((job / "truth/point_000.png").string()), band = band_mask(job, W, H);
    double db[2];
    for (int seam = 0; seam < 2; ++seam) {
        const int size[3] = {W, H, seam};
        const std::string file = out / std::string("p").append(std::to_string(seam)).append(".png");
        ASSERT_EQ(api().mExecute(h, up.c_str(), down.c_str(), file.c_str(), size, nullptr, "p"), Lib::KIVO_OK);
        db[seam] = ImageProc::psnr(truth, ORN::Image::read(file), band);
    }
    std::printf("parallax, where both lenses see: plain %.2f dB, flow %.2f dB\n", db[0], db[1]);
    // Both views brought half-way, where the truth's centre sees the scene
    // (views kept near their own lens's place across the band gave +1.1 dB).
    EXPECT_GT(db[1], db[0] + 2.5);
    api().mDestroy(h);
}

// The regions of the repair cases: one across the band, one in the
// panorama's last blocks (its grown rectangle clipped by the edges).
const int REGIONS[2][5] = {{101, 110, 50, 30, 0}, {500, 250, 12, 6, 0}};
// Grown to 16 x 16 blocks (4:2:0 JPEG), and by the pixel around them whose
// chroma the decoder interpolates from the blocks' samples.
const std::vector<std::array<int, 4>> GROWN = {{95, 95, 66, 50}, {495, 239, 17, 17}};
const std::vector<std::array<int, 4>> EXACT = {{101, 110, 50, 30}, {500, 250, 12, 6}};

struct Repair {
    Stitcher &mStitcher;
    std::string mUp = capture(0, "up"), mDown = capture(0, "down");
    int mSize[2] = {WIDTH, HEIGHT};
    int run(const std::string &panorama, const std::string &output, int method, const int *regions = &REGIONS[0][0],
            int count = 2) {
        std::vector<int> r;
        if (regions != nullptr && count > 0)
            r.assign(regions, regions + 5 * count);
        for (int i = 0; i < count && method >= 0; ++i)
            r[std::size_t(5 * i + 4)] = method;
        const char *u[1] = {mUp.c_str()}, *d[1] = {mDown.c_str()};
        return api().mRepair(mStitcher.mHandle, u, d, 1, panorama.c_str(), output.c_str(), mSize,
                             regions ? r.data() : nullptr, count);
    }
};

TEST(StitchLibrary, RepairRendersOnlyTheRegionsGrownToTheBlockGrid) {
    TempDir out;
    Stitcher s;
    Repair repair{s};
    const std::string jpg = out / "pano.jpg", png = out / "pano.png";
    ASSERT_EQ(s.stitch(0, jpg), Lib::KIVO_OK);
    ASSERT_EQ(s.stitch(0, png), Lib::KIVO_OK);
    const std::string jpg_bytes = read_file(jpg), png_bytes = read_file(png);
    const ORN::Image before_jpg = ORN::Image::read(jpg), before_png = ORN::Image::read(png);
    const ORN::Image truth = ORN::Image::read(at("truth/point_000.png"));
    const ORN::Image region = rect_mask(WIDTH, HEIGHT, 101, 110, 50, 30);
    for (const int method : {Lib::REPAIR_UPPER, Lib::REPAIR_LOWER, Lib::REPAIR_FLOW, Lib::REPAIR_AUTO}) {
        const std::string name = std::to_string(method);
        ASSERT_EQ(repair.run(jpg, out / ("r" + name + ".jpg"), method), Lib::KIVO_OK) << method;
        ASSERT_EQ(repair.run(png, out / ("r" + name + ".png"), method), Lib::KIVO_OK) << method;
        const ORN::Image a = ORN::Image::read(out / ("r" + name + ".jpg"));
        const ORN::Image b = ORN::Image::read(out / ("r" + name + ".png"));
        ASSERT_TRUE(a.same_layout(before_jpg));
        const auto [in_jpg, out_jpg] = differing(before_jpg, a, GROWN);
        const auto [in_png, out_png] = differing(before_png, b, EXACT);
        EXPECT_EQ(out_jpg, 0) << method;
        EXPECT_EQ(out_png, 0) << method;
        // One lens alone is not the blend across the band.
        if (method == Lib::REPAIR_UPPER || method == Lib::REPAIR_LOWER) {
            EXPECT_GT(in_jpg, 100) << method;
            EXPECT_GT(in_png, 100) << method;
        }
        const double db = ImageProc::psnr(truth, b, region);
        std::printf("repair by method %d: %.2f dB in the region (%.2f dB before)\n", method, db,
                    ImageProc::psnr(truth, before_png, region));
        EXPECT_GT(db, 28.0) << method;
    }
    // The same regions give the same file; the panoramas are untouched.
    ASSERT_EQ(repair.run(jpg, out / "again.jpg", Lib::REPAIR_FLOW), Lib::KIVO_OK);
    EXPECT_TRUE(read_file(out / "again.jpg") == read_file(out / "r3.jpg"));
    EXPECT_TRUE(read_file(jpg) == jpg_bytes);
    EXPECT_TRUE(read_file(png) == png_bytes);
}

TEST(StitchLibrary, RepairBringsMarkedRegionsCloserToTheTruthOnParallaxCaptures) {
    const fs::path &job = parallax_job();
    if (job.empty())
        GTEST_SKIP() << "the capture generator makes no parallax captures";
    TempDir out;
    constexpr int W = 1024, H = 512;
    Lib::IMAGE_HANDLE h = api().mCreate();
    ASSERT_EQ(api().mInit(h, (job / "caches/table_Up.bin").c_str(), (job / "caches/table_Down.bin").c_str(), W, H,
                          W / 8, H / 8, 8),
              Lib::KIVO_OK);
    const std::string up = job / "captures/point_000_up.jpg", down = job / "captures/point_000_down.jpg";
    const std::string pano = out / "pano.jpg";
    const int size[3] = {W, H, Lib::SEAM_PLAIN};
    ASSERT_EQ(api().mExecute(h, up.c_str(), down.c_str(), pano.c_str(), size, nullptr, "p"), Lib::KIVO_OK);
    const ORN::Image truth = ORN::Image::read((job / "truth/point_000.png").string()), before = ORN::Image::read(pano);
    rapidjson::Document repairs;
    repairs.Parse(read_file(job / "truth/repairs.json").c_str());
    ASSERT_FALSE(repairs.HasParseError());
    std::vector<int> regions;
    for (const auto &r : repairs["regions"].GetArray())
        if (std::string(r["name"].GetString()) == "point_000")
            regions.insert(regions.end(), {r["rect"]["x"].GetInt(), r["rect"]["y"].GetInt(), r["rect"]["w"].GetInt(),
                                           r["rect"]["h"].GetInt(), Lib::REPAIR_AUTO});
    ASSERT_FALSE(regions.empty());
    const int count = int(regions.size() / 5);
    for (const int method : {Lib::REPAIR_FLOW, Lib::REPAIR_AUTO}) {
        for (int i = 0; i < count; ++i)
            regions[std::size_t(5 * i + 4)] = method;
        const char *u[1] = {up.c_str()}, *d[1] = {down.c_str()};
        const std::string file = out / std::string("r").append(std::to_string(method)).append(".jpg");
        ASSERT_EQ(api().mRepair(h, u, d, 1, pano.c_str(), file.c_str(), size, regions.data(), count), Lib::KIVO_OK);
        const ORN::Image after = ORN::Image::read(file);
        for (int i = 0; i < count; ++i) {
            const int *r = &regions[std::size_t(5 * i)];
            const ORN::Image mask = rect_mask(W, H, r[0], r[1], r[2], r[3]);
            const double was = ImageProc::psnr(truth, before, mask), is = ImageProc::psnr(truth, after, mask);
            std::printf("parallax region %d by method %d: %.2f dB, %.2f dB before\n", i, method, is, was);
            EXPECT_GT(is, was + 2.0) << i << " " << method;
        }
    }
    api().mDestroy(h);
}

// A JPEG capture is decoded only where the regions sample it (and its
// luminance for the gain); the same captures as PNG are decoded whole. Both
// must give the same regions, up to a level where the flow resamples: a
// footprint that missed a sampled pixel shows as black pixels.
TEST(StitchLibrary, RepairFromJpegFootprintsMatchesWholeCaptures) {
    const fs::path &job = parallax_job();
    if (job.empty())
        GTEST_SKIP() << "the capture generator makes no parallax captures";
    TempDir out;
    constexpr int W = 1024, H = 512;
    Lib::IMAGE_HANDLE h = api().mCreate();
    ASSERT_EQ(api().mInit(h, (job / "caches/table_Up.bin").c_str(), (job / "caches/table_Down.bin").c_str(), W, H,
                          W / 8, H / 8, 8),
              Lib::KIVO_OK);
    const std::string up = job / "captures/point_000_up.jpg", down = job / "captures/point_000_down.jpg";
    const std::string up_png = out / "up.png", down_png = out / "down.png", pano = out / "pano.png";
    ORN::Image::write(up_png, ORN::Image::read(up));
    ORN::Image::write(down_png, ORN::Image::read(down));
    const int size[3] = {W, H, Lib::SEAM_PLAIN};
    ASSERT_EQ(api().mExecute(h, up.c_str(), down.c_str(), pano.c_str(), size, nullptr, "p"), Lib::KIVO_OK);
    // Across the band on both sides of the panorama's seam, one lens and
    // flow; and one near the bottom, where only the lower lens sees.
    const std::vector<int> regions = {0, 200, 96, 100, Lib::REPAIR_FLOW, 900, 220, 124, 60, Lib::REPAIR_UPPER,
                                      400, 180, 160, 120, Lib::REPAIR_AUTO, 300, 470, 40, 30, Lib::REPAIR_LOWER};
    const char *jpegs[2][1] = {{up.c_str()}, {down.c_str()}}, *pngs[2][1] = {{up_png.c_str()}, {down_png.c_str()}};
    const std::string a = out / "a.png", b = out / "b.png";
    ASSERT_EQ(api().mRepair(h, jpegs[0], jpegs[1], 1, pano.c_str(), a.c_str(), size, regions.data(), 4), Lib::KIVO_OK);
    ASSERT_EQ(api().mRepair(h, pngs[0], pngs[1], 1, pano.c_str(), b.c_str(), size, regions.data(), 4), Lib::KIVO_OK);
    const ORN::Image ia = ORN::Image::read(a), ib = ORN::Image::read(b);
    const cv::Mat pa = ImageProc::mat(ia), pb = ImageProc::mat(ib);
    cv::Mat diff;
    cv::absdiff(pa, pb, diff);
    double largest = 0;
    cv::minMaxLoc(diff.reshape(1), nullptr, &largest);
    std::printf("footprint decode against whole decode: largest difference %.0f, mean %.4f\n", largest,
                cv::mean(diff.reshape(1))[0]);
    EXPECT_LE(largest, 2.0);
    EXPECT_LT(cv::mean(diff.reshape(1))[0], 0.01);
    api().mDestroy(h);
}

TEST(StitchLibrary, RepairRefusesBadArgumentsAndWritesNothing) {
    TempDir dir;
    Stitcher s;
    Repair repair{s};
    const std::string pano = dir / "pano.jpg", o = dir / "o.jpg";
    ASSERT_EQ(s.stitch(0, pano), Lib::KIVO_OK);
    ORN::Image::write(dir / "small.jpg", ORN::Image::zeros(64, 64, 3, ORN::ImageDepth::U8));
    write_file(dir / "text.jpg", "not an image");
    const auto codes = [&](const std::function<int()> &call) {
        const int code = call();
        EXPECT_FALSE(fs::exists(o)) << code;
        EXPECT_EQ(api().mCode(s.mHandle), code);
        return code;
    };
    const auto with = [&](std::initializer_list<int> region) {
        std::vector<int> r(region);
        return codes([&] { return repair.run(pano, o, -1, r.data(), 1); });
    };
    capture_stdout([&] {
        EXPECT_EQ(with({0, 0, 0, 10, 0}), Lib::KIVO_BAD_ARGUMENT);            // empty
        EXPECT_EQ(with({-1, 0, 10, 10, 0}), Lib::KIVO_BAD_ARGUMENT);          // outside
        EXPECT_EQ(with({500, 0, 13, 10, 0}), Lib::KIVO_BAD_ARGUMENT);         // past the right edge
        EXPECT_EQ(with({0, 250, 10, 7, 0}), Lib::KIVO_BAD_ARGUMENT);          // past the bottom
        EXPECT_EQ(with({1, 0, 2147483647, 10, 0}), Lib::KIVO_BAD_ARGUMENT);   // no overflow
        EXPECT_EQ(with({0, 0, 10, 10, 4}), Lib::KIVO_BAD_ARGUMENT);           // unknown method
        EXPECT_EQ(with({0, 0, 10, 10, -1}), Lib::KIVO_BAD_ARGUMENT);
        std::vector<int> many(5 * 257, 0);
        for (std::size_t i = 0; i < many.size(); i += 5)
            many[i + 2] = many[i + 3] = 8;
        EXPECT_EQ(codes([&] { return repair.run(pano, o, -1, many.data(), 257); }), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(codes([&] { return repair.run(pano, o, -1, many.data(), 0); }), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(codes([&] { return repair.run(pano, o, -1, nullptr, 1); }), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(codes([&] { return repair.run(pano, pano, 1); }), Lib::KIVO_BAD_ARGUMENT); // over the panorama
        EXPECT_EQ(codes([&] { return repair.run(pano, dir / "o.gif", 1); }), Lib::KIVO_BAD_ARGUMENT);
        const char *u[2] = {repair.mUp.c_str(), nullptr}, *d[2] = {repair.mDown.c_str(), nullptr};
        const auto brackets = [&](int n, const char *const *uu, const char *const *dd) {
            return codes([&] {
                return api().mRepair(s.mHandle, uu, dd, n, pano.c_str(), o.c_str(), repair.mSize, &REGIONS[0][0], 1);
            });
        };
        EXPECT_EQ(brackets(0, u, d), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(brackets(5, u, d), Lib::KIVO_BAD_ARGUMENT);
        EXPECT_EQ(brackets(2, u, d), Lib::KIVO_BAD_ARGUMENT); // a null exposure
        EXPECT_EQ(brackets(1, nullptr, d), Lib::KIVO_BAD_ARGUMENT);
        repair.mSize[0] = 1024;
        EXPECT_EQ(codes([&] { return repair.run(pano, o, 1); }), Lib::KIVO_INPUT_MISMATCH); // not the panorama's size
        repair.mSize[0] = WIDTH;
        EXPECT_EQ(codes([&] { return repair.run(dir / "absent.jpg", o, 1); }), Lib::KIVO_BAD_INPUT);
        EXPECT_EQ(codes([&] { return repair.run(dir / "text.jpg", o, 1); }), Lib::KIVO_BAD_INPUT);
        EXPECT_EQ(codes([&] { return repair.run(dir / "small.jpg", o, 1); }), Lib::KIVO_INPUT_MISMATCH);
        repair.mDown = dir / "absent.jpg";
        EXPECT_EQ(codes([&] { return repair.run(pano, o, 1); }), Lib::KIVO_BAD_INPUT);
        repair.mDown = dir / "small.jpg";
        EXPECT_EQ(codes([&] { return repair.run(pano, o, 1); }), Lib::KIVO_INPUT_MISMATCH);
        repair.mDown = capture(0, "down");
        EXPECT_EQ(repair.run(pano, dir / "absent/o.jpg", 1), Lib::KIVO_WRITE_FAILED);
        EXPECT_EQ(api().mRepair(nullptr, nullptr, nullptr, 1, pano.c_str(), o.c_str(), repair.mSize, &REGIONS[0][0], 1),
                  Lib::KIVO_BAD_ARGUMENT);
        Lib::IMAGE_HANDLE fresh = api().mCreate();
        const char *uu[1] = {repair.mUp.c_str()}, *dd[1] = {repair.mDown.c_str()};
        EXPECT_EQ(api().mRepair(fresh, uu, dd, 1, pano.c_str(), o.c_str(), repair.mSize, &REGIONS[0][0], 1),
                  Lib::KIVO_NOT_INITIALISED);
        api().mDestroy(fresh);
        EXPECT_EQ(repair.run(pano, o, 1), Lib::KIVO_OK);
    });
    // Nothing but the panorama, its test files and the output.
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 4);
}

// Sets an environment variable for the life of the object.
struct Env {
    std::string mName;
    Env(const std::string &name, const std::string &value) : mName(name) { ::setenv(name.c_str(), value.c_str(), 1); }
    ~Env() { ::unsetenv(mName.c_str()); }
};

TEST(StitchLibrary, FaultSwitchesAndTrace) {
    TempDir dir;
    Stitcher s;
    const std::string o = dir / "o.jpg";
    {
        Env fail("ZARN_BACKEND_FAIL", "KIVO_ExecuteOptFlowStitchHandle:9,KIVO_InitVideoStitchHandle:12");
        EXPECT_EQ(s.stitch(0, o), 9);
        EXPECT_EQ(api().mCode(s.mHandle), 9);
        EXPECT_FALSE(fs::exists(o));
        const auto v = api().mCreateVideo();
        EXPECT_EQ(api().mInitVideo(v, "a", "b", 64, 32, 8), 12);
        EXPECT_EQ(api().mVideoCode(v), 12);
        api().mDestroyVideo(v);
    }
    {
        Env fail("ZARN_BACKEND_FAIL", "KIVO_GetOptFlowStitchCode:5");
        EXPECT_EQ(s.stitch(0, o), Lib::KIVO_OK);
        EXPECT_EQ(api().mCode(s.mHandle), 5);
    }
    {
        Env fail("ZARN_BACKEND_FAIL", "KIVO_ExecutePanoRepairHandle:11");
        ASSERT_EQ(s.stitch(0, o), Lib::KIVO_OK);
        Repair repair{s};
        EXPECT_EQ(repair.run(o, dir / "r.jpg", Lib::REPAIR_UPPER), 11);
        EXPECT_EQ(api().mCode(s.mHandle), 11);
        EXPECT_FALSE(fs::exists(dir / "r.jpg"));
        Env thrown("ZARN_BACKEND_THROW", "KIVO_ExecutePanoRepairHandle");
        EXPECT_EQ(failure_of([&] { repair.run(o, dir / "r.jpg", Lib::REPAIR_UPPER); }),
                  "KIVO_ExecutePanoRepairHandle : injected fault");
        fs::remove(o);
    }
    {
        Env null("ZARN_BACKEND_NULL", "KIVO_CreateOptFlowStitchHandle");
        EXPECT_EQ(api().mCreate(), nullptr);
        const auto v = api().mCreateVideo();
        EXPECT_NE(v, nullptr);
        api().mDestroyVideo(v);
    }
    {
        Env thrown("ZARN_BACKEND_THROW", "KIVO_ExecuteOptFlowStitchHandle");
        EXPECT_EQ(failure_of([&] { s.stitch(0, o); }), "KIVO_ExecuteOptFlowStitchHandle : injected fault");
    }
    {
        Env trace("ZARN_BACKEND_TRACE", dir / "trace.txt");
        api().mExecute(s.mHandle, capture(0, "up").c_str(), nullptr, o.c_str(), SIZE, nullptr, "p\"0");
    }
    {
        Env trace("ZARN_BACKEND_TRACE", dir / "repair.txt");
        Repair repair{s};
        repair.run(o, dir / "r.png", Lib::REPAIR_FLOW);
    }
    const auto repaired = lines_of(read_file(dir / "repair.txt"));
    ASSERT_EQ(repaired.size(), 1u);
    EXPECT_TRUE(repaired[0].ends_with(" \"" + capture(0, "up") + "\" \"" + capture(0, "down") + "\" \"1\" \"" + o +
                                      "\" \"" + (dir / "r.png") + "\" \"512x256\" \"101,110,50,30,3;500,250,12,6,3\" \"2\""))
        << repaired[0];
    const auto lines = lines_of(read_file(dir / "trace.txt"));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(starts_with(lines[0], "KIVO_ExecuteOptFlowStitchHandle \"0x")) << lines[0];
    EXPECT_TRUE(lines[0].ends_with(" \"" + capture(0, "up") + "\" \"\" \"" + o + "\" \"512x256x0\" \"\" \"p\\\"0\""))
        << lines[0];
}

} // namespace
