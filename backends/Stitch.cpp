// Reference stand-in for the closed stitching library "libStitch.so", with
// the C interface of ZARN_Common/StitchLibrary.h (see there, and
// docs/BACKENDS.md, for every entry, argument and result code).
//
// An object holds the two lens tables, the panorama size of its init and
// the remap tables of every panorama size it has stitched (stitch_maps.h);
// tables are made on first use of a size and kept, under a mutex, so that
// executes on one object may run on several threads at once. Everything
// else an execute touches is its own, and the object's last result is an
// atomic.
//
// Image execute: decode both captures (8-bit colour), check their sizes
// against the tables, match the lower lens's exposure to the upper's on the
// init's estimate size, remap both into the panorama, feather them across
// the overlap and encode the panorama by its extension. The HDR execute
// first fuses each lens's brackets (Mertens exposure fusion). The video
// execute does the same per frame, a normal and a short exposure fused,
// into a Motion-JPEG AVI; its HDR value is the exposure ratio of the normal
// to the short streams measured on linear light (captures are encoded with
// gamma ImageProc::capture_gamma ()).
//
// Outputs are written under a temporary name in the target's directory and
// renamed into place, so a hard link published from an earlier output keeps
// the earlier content; missing directories are made.
//
// Fault injection (backend_support.h): an injected failure code makes init
// or execute return it and become the object's last result; on a get-code
// entry it is returned as it is; on a create entry, as ZARN_BACKEND_NULL,
// it makes the entry return null. Create and destroy take no code.

#include "backend_support.h"
#include "stitch_maps.h"

#include "ZARN_Common/ImageProc.h"
#include "ZARN_Common/StitchLibrary.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/photo.hpp>
#include <opencv2/videoio.hpp>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Lib = ZARN::StitchLibrary;
namespace fs = std::filesystem;
using ZARN::ImageProc;
using zarn_stitch::LENS_TABLE;
using zarn_stitch::PanoramaMaps;

namespace {

// Largest panorama the library makes.
constexpr int MAX_WIDTH = 16384;
constexpr int MAX_HEIGHT = 8192;
// Frame rate of an output video whose input does not tell its own.
constexpr double DEFAULT_FPS = 25;
// Grey levels of a normal exposure, and the least of a short one, that the
// exposure ratio of a video trusts.
constexpr int RATIO_DARKEST = 20;
constexpr int RATIO_BRIGHTEST = 230;
constexpr int RATIO_SHORT_DARKEST = 3;

bool valid_size(int width, int height) { return width >= 2 && width <= MAX_WIDTH && height >= 1 && height <= MAX_HEIGHT; }

std::string lower_extension(const fs::path &path) {
    std::string ext = path.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

bool image_extension(const std::string &ext) {
    return ext == ".jpg" || ext == ".jpeg" || ext == ".png" || ext == ".tif" || ext == ".tiff";
}

bool given(const char *text) { return text != nullptr && *text != '\0'; }

// A name for the temporary file beside `path`, unique in this process and
// among processes; it keeps the target's extension.
fs::path temporary_beside(const fs::path &path) {
    static std::atomic<unsigned long> counter{0};
    std::string name(1, '.');
    name += path.filename().string();
    name += '.';
    name += std::to_string(::getpid());
    name += '.';
    name += std::to_string(counter.fetch_add(1));
    name += ".part";
    name += path.extension().string();
    return path.parent_path() / name;
}

bool make_parent(const fs::path &path) {
    std::error_code ec;
    if (!path.has_parent_path())
        return true;
    fs::create_directories(path.parent_path(), ec);
    return fs::is_directory(path.parent_path(), ec);
}

bool rename_into_place(const fs::path &temporary, const fs::path &path) {
    std::error_code ec;
    fs::rename(temporary, path, ec);
    if (ec)
        fs::remove(temporary, ec);
    return !ec;
}

bool write_whole(const fs::path &path, const ORN::Buffer<unsigned char> &bytes) {
    if (!make_parent(path))
        return false;
    const fs::path temporary = temporary_beside(path);
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size())) ||
            !out.flush()) {
            out.close();
            std::error_code ec;
            fs::remove(temporary, ec);
            return false;
        }
    }
    return rename_into_place(temporary, path);
}

// One decoded capture: the image keeps the pixels the matrix shows.
struct CAPTURE {
    ORN::Image mImage;
    cv::Mat mPixels;
};

// Decodes a capture as 8-bit colour; KIVO_BAD_INPUT when it is missing or
// does not decode, KIVO_INPUT_MISMATCH when its size is not the lens's.
int read_capture(const char *path, const LENS_TABLE &lens, CAPTURE &out) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec))
        return Lib::KIVO_BAD_INPUT;
    if (!ORN::try_run([&] { out.mImage = ORN::Image::read(path, ORN::ImageReadMode::COLOR); }))
        return Lib::KIVO_BAD_INPUT;
    if (out.mImage.width() != lens.mWidth || out.mImage.height() != lens.mHeight)
        return Lib::KIVO_INPUT_MISMATCH;
    out.mPixels = ImageProc::mat(out.mImage);
    return Lib::KIVO_OK;
}

// Mertens exposure fusion of 8-bit exposures of one scene, back to 8 bits.
cv::Mat fuse(const std::vector<cv::Mat> &exposures) {
    if (exposures.size() == 1)
        return exposures.front();
    cv::Mat fused, out;
    cv::createMergeMertens()->process(exposures, fused);
    fused.convertTo(out, CV_8U, 255.0);
    return out;
}

// The stitching state both kinds of objects share.
class Stitcher {
public:
    int init(const char *upper_table, const char *lower_table, int width, int height, int estimate_width,
             int estimate_height, int bits, bool video) {
        // A failed init leaves the object uninitialised.
        mReady.store(false);
        if (upper_table == nullptr || lower_table == nullptr || bits != Lib::OUTPUT_BITS || !valid_size(width, height) ||
            !valid_size(estimate_width, estimate_height))
            return Lib::KIVO_BAD_ARGUMENT;
        LENS_TABLE upper{}, lower{};
        if (!ORN::try_run([&] {
                upper = ImageProc::read_lens_table(upper_table);
                lower = ImageProc::read_lens_table(lower_table);
            }))
            return Lib::KIVO_BAD_TABLE;
        const std::lock_guard lock(mMutex);
        mReady.store(false);
        mMaps.clear();
        mUpper = upper;
        mLower = lower;
        mWidth = width;
        mHeight = height;
        mEstimateWidth = estimate_width;
        mEstimateHeight = estimate_height;
        mFov = video ? zarn_stitch::vertical_fov(upper, lower) : 0;
        maps_locked(width, height);
        maps_locked(estimate_width, estimate_height);
        mReady.store(true);
        return Lib::KIVO_OK;
    }

    int execute_image(const std::vector<const char *> &upper, const std::vector<const char *> &lower,
                      const char *output, const int *size, double *statistics) const {
        if (!mReady.load())
            return Lib::KIVO_NOT_INITIALISED;
        if (output == nullptr || size == nullptr || !valid_size(size[0], size[1]) ||
            !image_extension(lower_extension(output)))
            return Lib::KIVO_BAD_ARGUMENT;
        for (const char *p : upper)
            if (p == nullptr)
                return Lib::KIVO_BAD_ARGUMENT;
        for (const char *p : lower)
            if (p == nullptr)
                return Lib::KIVO_BAD_ARGUMENT;
        cv::Mat fused[2];
        const std::vector<const char *> *paths[2] = {&upper, &lower};
        const LENS_TABLE *lenses[2] = {&mUpper, &mLower};
        // The decoded images own the pixels every matrix below shows.
        std::vector<CAPTURE> captures[2];
        for (int lens = 0; lens < 2; ++lens) {
            captures[lens].resize(paths[lens]->size());
            std::vector<cv::Mat> exposures;
            for (std::size_t i = 0; i < captures[lens].size(); ++i) {
                CAPTURE &c = captures[lens][i];
                if (const int r = read_capture((*paths[lens])[i], *lenses[lens], c); r != Lib::KIVO_OK)
                    return r;
                exposures.push_back(c.mPixels);
            }
            fused[lens] = fuse(exposures);
        }
        double difference = 0;
        const double gain = zarn_stitch::match_exposure(*maps(mEstimateWidth, mEstimateHeight), fused[0], fused[1], difference);
        const std::shared_ptr<const PanoramaMaps> panorama = maps(size[0], size[1]);
        ORN::Image out(size[0], size[1], 3, ORN::ImageDepth::U8);
        cv::Mat pixels = ImageProc::mat(out);
        zarn_stitch::compose(*panorama, fused[0], fused[1], gain, pixels);
        ORN::Buffer<unsigned char> bytes;
        if (!ORN::try_run([&] { bytes = ORN::Image::encode(lower_extension(output), out); }) ||
            !write_whole(output, bytes))
            return Lib::KIVO_WRITE_FAILED;
        if (statistics != nullptr) {
            statistics[0] = gain;
            statistics[1] = difference;
        }
        return Lib::KIVO_OK;
    }

    int execute_video(const char *upper, const char *lower, const char *upper_short, const char *lower_short,
                      const char *output, double *hdr_value, double *fov) const {
        if (!mReady.load())
            return Lib::KIVO_NOT_INITIALISED;
        if (upper == nullptr || lower == nullptr || !given(output))
            return Lib::KIVO_BAD_ARGUMENT;
        // Streams: upper, lower, then the short ones that are given.
        struct STREAM {
            cv::VideoCapture mCapture;
            const LENS_TABLE *mLens;
            int mLensIndex;
            bool mShort;
        };
        std::vector<STREAM> streams;
        const char *names[4] = {upper, lower, upper_short, lower_short};
        for (int i = 0; i < 4; ++i) {
            if (i >= 2 && !given(names[i]))
                continue;
            std::error_code ec;
            if (!fs::is_regular_file(names[i], ec))
                return Lib::KIVO_BAD_INPUT;
            STREAM s{cv::VideoCapture(), i % 2 ? &mLower : &mUpper, i % 2, i >= 2};
            // OpenCV's own Motion-JPEG reader first (the same pixels on every
            // machine), then whatever else can read the file.
            if (!s.mCapture.open(names[i], cv::CAP_OPENCV_MJPEG) && !s.mCapture.open(names[i], cv::CAP_ANY))
                return Lib::KIVO_BAD_INPUT;
            streams.push_back(std::move(s));
        }
        double fps = streams[0].mCapture.get(cv::CAP_PROP_FPS);
        if (!(fps > 0))
            fps = DEFAULT_FPS;
        const std::shared_ptr<const PanoramaMaps> panorama = maps(mWidth, mHeight);

        const fs::path path(output);
        if (!make_parent(path))
            return Lib::KIVO_WRITE_FAILED;
        const fs::path temporary = temporary_beside(path);
        cv::VideoWriter writer;
        const auto discard = [&](int code) {
            writer.release();
            std::error_code ec;
            fs::remove(temporary, ec);
            return code;
        };
        if (!writer.open(temporary.string(), cv::CAP_OPENCV_MJPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), fps,
                         cv::Size(mWidth, mHeight), true))
            return discard(Lib::KIVO_WRITE_FAILED);

        // Linear light of each grey level, for the exposure ratio.
        double linear[256];
        for (int g = 0; g < 256; ++g)
            linear[g] = std::pow(g / 255.0, ImageProc::capture_gamma());
        double normal_light = 0, short_light = 0;
        double gain = 1;
        int frames = 0;
        for (;;) {
            std::vector<cv::Mat> frame(streams.size());
            bool complete = true;
            for (std::size_t i = 0; i < streams.size() && complete; ++i)
                complete = streams[i].mCapture.read(frame[i]) && !frame[i].empty();
            if (!complete)
                break;
            std::vector<cv::Mat> exposures[2];
            for (std::size_t i = 0; i < streams.size(); ++i) {
                if (frame[i].type() != CV_8UC3)
                    return discard(Lib::KIVO_BAD_INPUT);
                if (frame[i].cols != streams[i].mLens->mWidth || frame[i].rows != streams[i].mLens->mHeight)
                    return discard(Lib::KIVO_INPUT_MISMATCH);
                exposures[streams[i].mLensIndex].push_back(frame[i]);
            }
            for (int lens = 0; lens < 2; ++lens)
                if (exposures[lens].size() == 2)
                    accumulate_ratio(exposures[lens][0], exposures[lens][1], linear, normal_light, short_light);
            const cv::Mat up = fuse(exposures[0]);
            const cv::Mat down = fuse(exposures[1]);
            // One gain for the whole video, from its first frame, so the
            // lower half does not flicker.
            if (frames == 0) {
                double difference = 0;
                gain = zarn_stitch::match_exposure(*panorama, up, down, difference);
            }
            cv::Mat out(mHeight, mWidth, CV_8UC3);
            zarn_stitch::compose(*panorama, up, down, gain, out);
            writer.write(out);
            ++frames;
        }
        if (frames == 0)
            return discard(Lib::KIVO_BAD_INPUT);
        writer.release();
        if (!rename_into_place(temporary, path))
            return discard(Lib::KIVO_WRITE_FAILED);
        if (hdr_value != nullptr)
            *hdr_value = short_light > 0 ? normal_light / short_light : 1.0;
        if (fov != nullptr)
            *fov = mFov;
        return Lib::KIVO_OK;
    }

    int code() const { return mCode.load(); }
    int keep(int code) {
        mCode.store(code);
        return code;
    }

private:
    static void accumulate_ratio(const cv::Mat &normal, const cv::Mat &dim, const double *linear, double &normal_light,
                                 double &short_light) {
        cv::Mat n, s;
        cv::cvtColor(normal, n, cv::COLOR_BGR2GRAY);
        cv::cvtColor(dim, s, cv::COLOR_BGR2GRAY);
        for (int y = 0; y < n.rows; ++y) {
            const auto *pn = n.ptr<unsigned char>(y);
            const auto *ps = s.ptr<unsigned char>(y);
            for (int x = 0; x < n.cols; ++x)
                if (pn[x] >= RATIO_DARKEST && pn[x] <= RATIO_BRIGHTEST && ps[x] >= RATIO_SHORT_DARKEST) {
                    normal_light += linear[pn[x]];
                    short_light += linear[ps[x]];
                }
        }
    }

    std::shared_ptr<const PanoramaMaps> maps_locked(int width, int height) const {
        auto &slot = mMaps[{width, height}];
        if (!slot)
            slot = std::make_shared<const PanoramaMaps>(zarn_stitch::build_maps(mUpper, mLower, width, height));
        return slot;
    }
    std::shared_ptr<const PanoramaMaps> maps(int width, int height) const {
        const std::lock_guard lock(mMutex);
        return maps_locked(width, height);
    }

    std::atomic<int> mCode{Lib::KIVO_OK};
    std::atomic<bool> mReady{false};
    LENS_TABLE mUpper{}, mLower{};
    int mWidth = 0, mHeight = 0, mEstimateWidth = 0, mEstimateHeight = 0;
    double mFov = 0;
    mutable std::mutex mMutex;
    mutable std::map<std::pair<int, int>, std::shared_ptr<const PanoramaMaps>> mMaps;
};

// Trace text of the arguments; a null pointer is traced as "".
std::string text(const char *s) { return s ? std::string(s) : std::string(); }
std::string text(const void *p) {
    if (p == nullptr)
        return {};
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "%p", p);
    return buffer;
}
std::string text(const int *size) {
    return size ? std::to_string(size[0]) + "x" + std::to_string(size[1]) : std::string();
}

// Runs an entry's work; anything it throws (memory, OpenCV) becomes `failure`.
template <class F>
int guarded(int failure, F &&work) {
    try {
        return work();
    } catch (...) {
        return failure;
    }
}

} // namespace

namespace KIVO_Stitch {
struct KIVO_OptFlowStitchParams {
    Stitcher mStitcher;
};
} // namespace KIVO_Stitch
namespace KIVO_VideoStitch {
struct KIVO_VideoStitchParams {
    Stitcher mStitcher;
};
} // namespace KIVO_VideoStitch

// ---------------------------------------------------------------------------
// Image stitching.

ZARN_BACKEND_ENTRY Lib::IMAGE_HANDLE KIVO_CreateOptFlowStitchHandle() {
    const auto code = zarn_backend::enter("KIVO_CreateOptFlowStitchHandle", {});
    if (code || zarn_backend::injected_null("KIVO_CreateOptFlowStitchHandle"))
        return nullptr;
    return new (std::nothrow) KIVO_Stitch::KIVO_OptFlowStitchParams();
}

ZARN_BACKEND_ENTRY void KIVO_DestroyOptFlowStitchHandle(Lib::IMAGE_HANDLE handle) {
    zarn_backend::enter("KIVO_DestroyOptFlowStitchHandle", {text(handle)});
    delete handle;
}

ZARN_BACKEND_ENTRY int KIVO_InitOptFlowStitchHandle(Lib::IMAGE_HANDLE handle, const char *upper_table,
                                                    const char *lower_table, int width, int height, int estimate_width,
                                                    int estimate_height, int bits) {
    const auto code = zarn_backend::enter(
        "KIVO_InitOptFlowStitchHandle",
        {text(handle), text(upper_table), text(lower_table), std::to_string(width), std::to_string(height),
         std::to_string(estimate_width), std::to_string(estimate_height), std::to_string(bits)});
    if (handle == nullptr)
        return Lib::KIVO_BAD_ARGUMENT;
    Stitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    return s.keep(guarded(Lib::KIVO_BAD_TABLE, [&] {
        return s.init(upper_table, lower_table, width, height, estimate_width, estimate_height, bits, false);
    }));
}

ZARN_BACKEND_ENTRY int KIVO_ExecuteOptFlowStitchHandle(Lib::IMAGE_HANDLE handle, const char *upper, const char *lower,
                                                       const char *output, const int *size, double *statistics,
                                                       const char *name) {
    const auto code = zarn_backend::enter("KIVO_ExecuteOptFlowStitchHandle",
                                          {text(handle), text(upper), text(lower), text(output), text(size),
                                           text(static_cast<const void *>(statistics)), text(name)});
    if (handle == nullptr)
        return Lib::KIVO_BAD_ARGUMENT;
    Stitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    return s.keep(guarded(Lib::KIVO_WRITE_FAILED, [&] { return s.execute_image({upper}, {lower}, output, size, statistics); }));
}

ZARN_BACKEND_ENTRY int KIVO_ExecuteOptFlowStitchHDRHandle(Lib::IMAGE_HANDLE handle, const char *upper_0,
                                                          const char *upper_1, const char *upper_2, const char *upper_3,
                                                          const char *lower_0, const char *lower_1, const char *lower_2,
                                                          const char *lower_3, const char *output, const int *size,
                                                          unsigned char brackets) {
    const auto code = zarn_backend::enter("KIVO_ExecuteOptFlowStitchHDRHandle",
                                          {text(handle), text(upper_0), text(upper_1), text(upper_2), text(upper_3),
                                           text(lower_0), text(lower_1), text(lower_2), text(lower_3), text(output),
                                           text(size), std::to_string(brackets)});
    if (handle == nullptr)
        return Lib::KIVO_BAD_ARGUMENT;
    Stitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    if (brackets < 1 || brackets > Lib::MAX_BRACKETS)
        return s.keep(Lib::KIVO_BAD_ARGUMENT);
    const std::vector<const char *> upper = {upper_0, upper_1, upper_2, upper_3};
    const std::vector<const char *> lower = {lower_0, lower_1, lower_2, lower_3};
    return s.keep(guarded(Lib::KIVO_WRITE_FAILED, [&] {
        return s.execute_image({upper.begin(), upper.begin() + brackets}, {lower.begin(), lower.begin() + brackets},
                               output, size, nullptr);
    }));
}

ZARN_BACKEND_ENTRY int KIVO_GetOptFlowStitchCode(Lib::IMAGE_HANDLE handle) {
    const auto code = zarn_backend::enter("KIVO_GetOptFlowStitchCode", {text(handle)});
    if (code)
        return *code;
    return handle ? handle->mStitcher.code() : Lib::KIVO_BAD_ARGUMENT;
}

// ---------------------------------------------------------------------------
// Video stitching.

ZARN_BACKEND_ENTRY Lib::VIDEO_HANDLE KIVO_CreateVideoStitchHandle() {
    const auto code = zarn_backend::enter("KIVO_CreateVideoStitchHandle", {});
    if (code || zarn_backend::injected_null("KIVO_CreateVideoStitchHandle"))
        return nullptr;
    return new (std::nothrow) KIVO_VideoStitch::KIVO_VideoStitchParams();
}

ZARN_BACKEND_ENTRY void KIVO_DestroyVideoStitchHandle(Lib::VIDEO_HANDLE handle) {
    zarn_backend::enter("KIVO_DestroyVideoStitchHandle", {text(handle)});
    delete handle;
}

ZARN_BACKEND_ENTRY int KIVO_InitVideoStitchHandle(Lib::VIDEO_HANDLE handle, const char *upper_table,
                                                  const char *lower_table, int width, int height, int bits) {
    const auto code = zarn_backend::enter("KIVO_InitVideoStitchHandle",
                                          {text(handle), text(upper_table), text(lower_table), std::to_string(width),
                                           std::to_string(height), std::to_string(bits)});
    if (handle == nullptr)
        return Lib::KIVO_BAD_ARGUMENT;
    Stitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    // The exposure of a video is matched on its frames themselves.
    return s.keep(guarded(Lib::KIVO_BAD_TABLE,
                          [&] { return s.init(upper_table, lower_table, width, height, width, height, bits, true); }));
}

ZARN_BACKEND_ENTRY int KIVO_ExecuteVideoStitchHandle(Lib::VIDEO_HANDLE handle, const char *upper, const char *lower,
                                                     const char *upper_short, const char *lower_short,
                                                     const char *output, double *hdr_value, double *fov) {
    const auto code = zarn_backend::enter("KIVO_ExecuteVideoStitchHandle",
                                          {text(handle), text(upper), text(lower), text(upper_short),
                                           text(lower_short), text(output), text(static_cast<const void *>(hdr_value)),
                                           text(static_cast<const void *>(fov))});
    if (handle == nullptr)
        return Lib::KIVO_BAD_ARGUMENT;
    Stitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    return s.keep(guarded(Lib::KIVO_WRITE_FAILED, [&] {
        return s.execute_video(upper, lower, upper_short, lower_short, output, hdr_value, fov);
    }));
}

ZARN_BACKEND_ENTRY int KIVO_GetVideoStitchCode(Lib::VIDEO_HANDLE handle) {
    const auto code = zarn_backend::enter("KIVO_GetVideoStitchCode", {text(handle)});
    if (code)
        return *code;
    return handle ? handle->mStitcher.code() : Lib::KIVO_BAD_ARGUMENT;
}

// Each entry has exactly the type the callers bind it as.
static_assert(std::is_same_v<decltype(&KIVO_CreateOptFlowStitchHandle), Lib::CREATE_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_DestroyOptFlowStitchHandle), Lib::DESTROY_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_InitOptFlowStitchHandle), Lib::INIT_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteOptFlowStitchHandle), Lib::EXECUTE_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteOptFlowStitchHDRHandle), Lib::EXECUTE_OPT_FLOW_STITCH_HDR *>);
static_assert(std::is_same_v<decltype(&KIVO_GetOptFlowStitchCode), Lib::GET_OPT_FLOW_STITCH_CODE *>);
static_assert(std::is_same_v<decltype(&KIVO_CreateVideoStitchHandle), Lib::CREATE_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_DestroyVideoStitchHandle), Lib::DESTROY_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_InitVideoStitchHandle), Lib::INIT_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteVideoStitchHandle), Lib::EXECUTE_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_GetVideoStitchCode), Lib::GET_VIDEO_STITCH_CODE *>);
