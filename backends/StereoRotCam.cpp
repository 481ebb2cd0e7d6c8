// Reference stand-in for the closed stereo rotating-camera library
// "libStereoRotCam.so", with the C interface of
// ZARN_Common/StereoRotCamLibrary.h (see there for every entry and
// argument; the result codes are the stitching library's).
//
// The distortion table
// --------------------
// One text file describes the camera (the stereo process hands the library
// "asset/distortion.txt" of the current directory). Lines are made of
// fields separated by blanks; blank lines and lines whose first field starts
// with "#" are comments. Besides comments the file holds exactly three
// lines, in any order:
//
//   rig <positions> <degrees>
//   lens up <width> <height> <fx> <fy> <cx> <cy> <k1> <k2> <k3> <k4> <r00> <r01> <r02> <r10> <r11> <r12> <r20> <r21> <r22> <max angle>
//   lens down <the same 20 numbers>
//
// - rig: the number of head positions, which must be 3, and the turn of the
//   head from one position to the next in degrees (within (-360, 360); 120
//   for the positions 0, 120 and 240 degrees).
// - lens up / lens down: the upper and the lower lens at position 0, with
//   the numbers of the stitching library's lens table in its order: the
//   capture size in pixels (integers), the focal lengths and principal point
//   in pixels, the fisheye distortion k1..k4, the rotation R (row-major, 3 x
//   3) from the lens's frame (z along the optical axis, x to the image's
//   right, y down the image) to the panorama's frame (x east, y down, z
//   north), and the largest angle from the optical axis that the lens
//   images, in degrees. Each lens must pass the lens table's checks (a
//   proper rotation, a largest angle in (0, 180], a distortion that grows up
//   to it).
// - Numbers are decimal (C syntax, an exponent allowed); integers have no
//   sign, point or exponent.
// - View k of a capture (k = 0..5) is lens k % 2 (0 up, 1 down) at position
//   p = k / 2. Its rotation is Y(p x degrees) R, Y(a) being the turn by a
//   about the vertical axis that takes north towards east: Y(a) = [cos a, 0,
//   sin a; 0, 1, 0; -sin a, 0, cos a], so that a direction at longitude L is
//   seen where position 0 sees longitude L - p x degrees.
// - A missing or unreadable file, another keyword, a missing or repeated
//   line, a wrong count of numbers or a lens that fails its checks is
//   KIVO_BAD_TABLE.
//
// The work
// --------
// - ISP (KIVO_ExecuteISPHandle, on any object, initialised or not): the raw
//   frame (16-bit big-endian binary PGM, maxval 4095, RGGB mosaic, linear)
//   is demosaiced (bilinear), multiplied per channel by the three gains
//   (red, green, blue), clipped and encoded with the display curve
//   255 v^(1/2.2), 8 bits per channel; written as PNG or JPEG (quality 95)
//   by the output's extension (.png, .jpg, .jpeg; another is
//   KIVO_BAD_ARGUMENT). Gains must be finite, above 0 and at most 64.
// - Stitching: each view's lens model is remapped into the equirectangular
//   panorama; overlapping views are feathered with shares m^2 / sum m^2 of
//   how far inside each view a pixel is; the views' exposures are matched
//   (one gain per view, view 0 fixed, by least squares over all overlaps)
//   on the init's estimate size. `statistics` receives the mean gain of the
//   three lower-lens views and the mean absolute grey difference of
//   overlapping views after the gains. Pixels no view sees are black.
// - HDR: per view, its `groups` exposures are fused (mode other than 2:
//   Mertens exposure fusion) or merged (mode 2: the exposure times relative
//   to the brightest group are measured from the frames, OpenCV's Debevec
//   merge with the display curve's known response gives the radiance, and a
//   global tone map - linear up to 0.8 of white, then a shoulder
//   0.8 + 0.2 t / (1 + t), t = (v - 0.8) / 0.2, that never quite reaches
//   white - with the display curve brings it back to 8 bits); then the
//   six views are stitched as above. One group is the plain stitch.
// - Video: the stitching library's two-lens video stitcher with the two
//   lenses at position 0.
// - Filter: see stereo_filter.h. The output and preview are JPEG of the
//   init's quality, or PNG (lossless) when their names end in ".png"; other
//   extensions are KIVO_BAD_ARGUMENT. They are written in pieces of the
//   init's buffer size. A rectangle that is empty or reaches outside the
//   frame is KIVO_BAD_ARGUMENT.
// - Inputs are checked against their view's capture size
//   (KIVO_INPUT_MISMATCH); a missing or undecodable input or raw frame is
//   KIVO_BAD_INPUT. Outputs are written to an exclusive temporary file in
//   the target's directory and renamed into place (backend_support.h); the
//   directory must exist.
// - Execute entries may run on several threads at once on one object; the
//   remap tables of each panorama size are built once, under a mutex, and
//   every execute's result is the same whatever runs beside it.
//
// Fault injection and trace (backend_support.h): as in the stitching
// library. An injected failure code makes init or execute return it and
// become the object's last result; a get-code entry returns it as it is; on
// a create entry it, like ZARN_BACKEND_NULL, makes the entry return null. In
// the trace a handle is a hexadecimal address, `size` "WxH", a list of paths
// one argument with the paths separated by "|", `gain` "r,g,b", `rects`
// "x,y,w,h;x,y,w,h;...", other pointers addresses and numbers decimal.

#include "backend_support.h"
#include "stereo_filter.h"
#include "stereo_isp.h"
#include "stereo_maps.h"
#include "stereo_raw.h"
#include "stereo_rig.h"
#include "stitch_core.h"

#include "ZARN_Common/ImageProc.h"
#include "ZARN_Common/StereoRotCamLibrary.h"

#include <opencv2/core.hpp>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Lib = ZARN::StereoRotCamLibrary;
// The result codes, which the interface shares with the stitching library.
namespace Code = ZARN::StitchLibrary;
using ZARN::ImageProc;
using zarn_stitch::guarded;
using zarn_stitch::text;

static_assert(Lib::VIEWS == zarn_stereo::VIEWS);

namespace {

bool developed_extension(const std::string &ext) { return ext == ".png" || ext == ".jpg" || ext == ".jpeg"; }

// The six-view stitcher of one image object.
class StereoStitcher {
public:
    int init(const char *table, int width, int height, int estimate_width, int estimate_height, int bits) {
        mReady.store(false);
        if (table == nullptr ||
            !zarn_stitch::Stitcher::valid_init(width, height, estimate_width, estimate_height, bits))
            return Code::KIVO_BAD_ARGUMENT;
        zarn_stereo::RIG rig;
        std::string reason;
        if (!zarn_stereo::read_distortion_table(table, rig, reason))
            return Code::KIVO_BAD_TABLE;
        const std::lock_guard lock(mMutex);
        mMaps.clear();
        const auto lenses = zarn_stereo::view_lenses(rig);
        mLenses.assign(lenses.begin(), lenses.end());
        mEstimateWidth = estimate_width;
        mEstimateHeight = estimate_height;
        maps_locked(width, height);
        maps_locked(estimate_width, estimate_height);
        mReady.store(true);
        return Code::KIVO_OK;
    }

    // frames[g][k]: group g's frame of view k.
    int execute(const std::vector<std::vector<const char *>> &frames, const char *output, const int *size,
                double *statistics, unsigned char mode) const {
        if (!mReady.load())
            return Code::KIVO_NOT_INITIALISED;
        if (output == nullptr || size == nullptr || !zarn_stitch::valid_size(size[0], size[1]) ||
            !zarn_stitch::image_extension(zarn_stitch::lower_extension(output)))
            return Code::KIVO_BAD_ARGUMENT;
        for (const auto &group : frames)
            for (const char *p : group)
                if (p == nullptr)
                    return Code::KIVO_BAD_ARGUMENT;
        // The decoded images own the pixels every matrix below shows.
        std::vector<std::vector<zarn_stitch::CAPTURE>> captures(frames.size());
        std::vector<std::vector<cv::Mat>> pixels(frames.size());
        for (std::size_t g = 0; g < frames.size(); ++g) {
            captures[g].resize(frames[g].size());
            for (std::size_t k = 0; k < frames[g].size(); ++k) {
                if (const int r = zarn_stitch::read_capture(frames[g][k], mLenses[k], captures[g][k]); r != Code::KIVO_OK)
                    return r;
                pixels[g].push_back(captures[g][k].mPixels);
            }
        }
        std::vector<cv::Mat> views(static_cast<std::size_t>(Lib::VIEWS));
        const bool radiance = frames.size() > 1 && mode == 2;
        const std::vector<float> times = radiance ? zarn_stereo::exposure_times(pixels) : std::vector<float>();
        for (std::size_t k = 0; k < views.size(); ++k) {
            std::vector<cv::Mat> exposures;
            for (const auto &group : pixels)
                exposures.push_back(group[k]);
            views[k] = radiance ? zarn_stereo::merge_radiance(exposures, times) : zarn_stitch::fuse(exposures);
        }
        double difference = 0;
        const std::vector<double> gains =
            zarn_stereo::match_gains(*maps(mEstimateWidth, mEstimateHeight), views, difference);
        const std::shared_ptr<const zarn_stereo::MULTI_MAPS> panorama = maps(size[0], size[1]);
        ORN::Image out(size[0], size[1], 3, ORN::ImageDepth::U8);
        cv::Mat target = ImageProc::mat(out);
        zarn_stereo::compose_views(*panorama, views, gains, target);
        ORN::Buffer<unsigned char> bytes;
        if (!ORN::try_run([&] { bytes = ORN::Image::encode(zarn_stitch::lower_extension(output), out); }) ||
            !zarn_stitch::write_whole(output, bytes))
            return Code::KIVO_WRITE_FAILED;
        if (statistics != nullptr) {
            statistics[0] = (gains[1] + gains[3] + gains[5]) / 3;
            statistics[1] = difference;
        }
        return Code::KIVO_OK;
    }

    static int isp(const char *raw, const char *output, const double *gain) {
        if (raw == nullptr || !zarn_stitch::given(output) ||
            !developed_extension(zarn_stitch::lower_extension(output)) || !zarn_stereo::valid_gain(gain))
            return Code::KIVO_BAD_ARGUMENT;
        cv::Mat mosaic;
        std::string reason;
        if (!zarn_stereo::read_raw(raw, mosaic, reason))
            return Code::KIVO_BAD_INPUT;
        const ORN::Image developed = ImageProc::image(zarn_stereo::develop(mosaic, gain));
        ORN::Buffer<unsigned char> bytes;
        if (!ORN::try_run([&] { bytes = ORN::Image::encode(zarn_stitch::lower_extension(output), developed); }) ||
            !zarn_stitch::write_whole(output, bytes))
            return Code::KIVO_WRITE_FAILED;
        return Code::KIVO_OK;
    }

    int code() const { return mCode.load(); }
    int keep(int code) {
        mCode.store(code);
        return code;
    }

private:
    std::shared_ptr<const zarn_stereo::MULTI_MAPS> maps_locked(int width, int height) const {
        auto &slot = mMaps[{width, height}];
        if (!slot)
            slot = zarn_stitch::shared_tables<zarn_stereo::MULTI_MAPS>(
                zarn_stitch::table_key(mLenses, width, height),
                [&] { return zarn_stereo::build_multi_maps(mLenses, width, height); });
        return slot;
    }
    std::shared_ptr<const zarn_stereo::MULTI_MAPS> maps(int width, int height) const {
        const std::lock_guard lock(mMutex);
        return maps_locked(width, height);
    }

    std::atomic<int> mCode{Code::KIVO_OK};
    std::atomic<bool> mReady{false};
    std::vector<zarn_stereo::LENS_TABLE> mLenses;
    int mEstimateWidth = 0, mEstimateHeight = 0;
    mutable std::mutex mMutex;
    mutable std::map<std::pair<int, int>, std::shared_ptr<const zarn_stereo::MULTI_MAPS>> mMaps;
};

// Trace text of the arguments that are lists.
std::string text_list(const char *const *paths, int count) {
    if (paths == nullptr)
        return {};
    std::string out;
    for (int i = 0; i < count; ++i) {
        if (i)
            out += '|';
        out += text(paths[i]);
    }
    return out;
}
std::string text_gain(const double *gain) {
    if (gain == nullptr)
        return {};
    return zarn_backend::number_text(gain[0]) + "," + zarn_backend::number_text(gain[1]) + "," +
           zarn_backend::number_text(gain[2]);
}
std::string text_rects(const int *rects, int count) {
    if (rects == nullptr)
        return {};
    std::string out;
    for (int i = 0; i < count; ++i) {
        if (i)
            out += ';';
        for (int j = 0; j < 4; ++j) {
            if (j)
                out += ',';
            out += std::to_string(rects[4 * i + j]);
        }
    }
    return out;
}

} // namespace

namespace KIVO_StereoRotStitch {
struct KIVO_OptFlowStitchParams {
    StereoStitcher mStitcher;
};
} // namespace KIVO_StereoRotStitch
namespace KIVO_StereoRotVideoStitch {
struct KIVO_VideoStitchParams {
    zarn_stitch::Stitcher mStitcher;
};
} // namespace KIVO_StereoRotVideoStitch
namespace KIVO_Filter {
struct KIVO_FilterParams {
    zarn_stereo::Filter mFilter;
};
} // namespace KIVO_Filter

// ---------------------------------------------------------------------------
// Stitching.

ZARN_BACKEND_ENTRY Lib::IMAGE_HANDLE KIVO_CreateOptFlowStitchHandle() {
    return zarn_stitch::create_entry<KIVO_StereoRotStitch::KIVO_OptFlowStitchParams>("KIVO_CreateOptFlowStitchHandle");
}

ZARN_BACKEND_ENTRY void KIVO_DestroyOptFlowStitchHandle(Lib::IMAGE_HANDLE handle) {
    zarn_stitch::destroy_entry("KIVO_DestroyOptFlowStitchHandle", handle);
}

ZARN_BACKEND_ENTRY int KIVO_InitOptFlowStitchHandle(Lib::IMAGE_HANDLE handle, const char *distortion_table, int width,
                                                    int height, int estimate_width, int estimate_height, int bits) {
    const auto code = zarn_backend::enter(
        "KIVO_InitOptFlowStitchHandle",
        {text(handle), text(distortion_table), std::to_string(width), std::to_string(height),
         std::to_string(estimate_width), std::to_string(estimate_height), std::to_string(bits)});
    if (handle == nullptr)
        return Code::KIVO_BAD_ARGUMENT;
    StereoStitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    return s.keep(guarded(Code::KIVO_BAD_TABLE, [&] {
        return s.init(distortion_table, width, height, estimate_width, estimate_height, bits);
    }));
}

ZARN_BACKEND_ENTRY int KIVO_ExecuteOptFlowStitchHandle(Lib::IMAGE_HANDLE handle, const char *const *views,
                                                       const char *output, const int *size, double *statistics,
                                                       const char *name) {
    const auto code = zarn_backend::enter("KIVO_ExecuteOptFlowStitchHandle",
                                          {text(handle), text_list(views, Lib::VIEWS), text(output), text(size),
                                           text(static_cast<const void *>(statistics)), text(name)});
    if (handle == nullptr)
        return Code::KIVO_BAD_ARGUMENT;
    StereoStitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    if (views == nullptr)
        return s.keep(Code::KIVO_BAD_ARGUMENT);
    return s.keep(guarded(Code::KIVO_WRITE_FAILED, [&] {
        return s.execute({std::vector<const char *>(views, views + Lib::VIEWS)}, output, size, statistics, 0);
    }));
}

ZARN_BACKEND_ENTRY int KIVO_ExecuteOptFlowStitchHDRHandle(Lib::IMAGE_HANDLE handle, const char *const *frames,
                                                          int groups, const char *output, const int *size,
                                                          unsigned char mode) {
    const bool counted = groups >= 1 && groups <= Lib::MAX_GROUPS;
    const auto code = zarn_backend::enter(
        "KIVO_ExecuteOptFlowStitchHDRHandle",
        {text(handle), counted ? text_list(frames, groups * Lib::VIEWS) : text(static_cast<const void *>(frames)),
         std::to_string(groups), text(output), text(size), std::to_string(mode)});
    if (handle == nullptr)
        return Code::KIVO_BAD_ARGUMENT;
    StereoStitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    if (frames == nullptr || !counted)
        return s.keep(Code::KIVO_BAD_ARGUMENT);
    std::vector<std::vector<const char *>> grouped;
    for (int g = 0; g < groups; ++g)
        grouped.emplace_back(frames + g * Lib::VIEWS, frames + (g + 1) * Lib::VIEWS);
    return s.keep(guarded(Code::KIVO_WRITE_FAILED, [&] { return s.execute(grouped, output, size, nullptr, mode); }));
}

ZARN_BACKEND_ENTRY int KIVO_ExecuteISPHandle(Lib::IMAGE_HANDLE handle, const char *raw, const char *output,
                                             const double *gain) {
    const auto code =
        zarn_backend::enter("KIVO_ExecuteISPHandle", {text(handle), text(raw), text(output), text_gain(gain)});
    if (handle == nullptr)
        return Code::KIVO_BAD_ARGUMENT;
    StereoStitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    return s.keep(guarded(Code::KIVO_WRITE_FAILED, [&] { return StereoStitcher::isp(raw, output, gain); }));
}

ZARN_BACKEND_ENTRY int KIVO_GetOptFlowStitchCode(Lib::IMAGE_HANDLE handle) {
    return zarn_stitch::code_entry("KIVO_GetOptFlowStitchCode", handle, [](const auto &h) { return h.mStitcher.code(); });
}

// ---------------------------------------------------------------------------
// Video: the two lenses at position 0.

ZARN_BACKEND_ENTRY Lib::VIDEO_HANDLE KIVO_CreateVideoStitchHandle() {
    return zarn_stitch::create_entry<KIVO_StereoRotVideoStitch::KIVO_VideoStitchParams>("KIVO_CreateVideoStitchHandle");
}

ZARN_BACKEND_ENTRY void KIVO_DestroyVideoStitchHandle(Lib::VIDEO_HANDLE handle) {
    zarn_stitch::destroy_entry("KIVO_DestroyVideoStitchHandle", handle);
}

ZARN_BACKEND_ENTRY int KIVO_InitVideoStitchHandle(Lib::VIDEO_HANDLE handle, const char *distortion_table, int width,
                                                  int height, int bits) {
    const auto code =
        zarn_backend::enter("KIVO_InitVideoStitchHandle", {text(handle), text(distortion_table), std::to_string(width),
                                                           std::to_string(height), std::to_string(bits)});
    if (handle == nullptr)
        return Code::KIVO_BAD_ARGUMENT;
    zarn_stitch::Stitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    return s.keep(guarded(Code::KIVO_BAD_TABLE, [&] {
        s.reset();
        // The exposure of a video is matched on its frames themselves.
        if (distortion_table == nullptr || !zarn_stitch::Stitcher::valid_init(width, height, width, height, bits))
            return int(Code::KIVO_BAD_ARGUMENT);
        zarn_stereo::RIG rig;
        std::string reason;
        if (!zarn_stereo::read_distortion_table(distortion_table, rig, reason))
            return int(Code::KIVO_BAD_TABLE);
        return s.init_tables(zarn_stereo::view_lens(rig, 0), zarn_stereo::view_lens(rig, 1), width, height, width,
                             height, bits, true);
    }));
}

ZARN_BACKEND_ENTRY int KIVO_ExecuteVideoStitchHandle(Lib::VIDEO_HANDLE handle, const char *upper, const char *lower,
                                                     const char *upper_short, const char *lower_short,
                                                     const char *output, double *hdr_value, double *fov) {
    const auto code = zarn_backend::enter("KIVO_ExecuteVideoStitchHandle",
                                          {text(handle), text(upper), text(lower), text(upper_short),
                                           text(lower_short), text(output), text(static_cast<const void *>(hdr_value)),
                                           text(static_cast<const void *>(fov))});
    if (handle == nullptr)
        return Code::KIVO_BAD_ARGUMENT;
    zarn_stitch::Stitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    return s.keep(guarded(Code::KIVO_WRITE_FAILED, [&] {
        return s.execute_video(upper, lower, upper_short, lower_short, output, hdr_value, fov);
    }));
}

ZARN_BACKEND_ENTRY int KIVO_GetVideoStitchCode(Lib::VIDEO_HANDLE handle) {
    return zarn_stitch::code_entry("KIVO_GetVideoStitchCode", handle, [](const auto &h) { return h.mStitcher.code(); });
}

// ---------------------------------------------------------------------------
// The image filter.

ZARN_BACKEND_ENTRY Lib::FILTER_HANDLE KIVO_CreateFilterHandle() {
    return zarn_stitch::create_entry<KIVO_Filter::KIVO_FilterParams>("KIVO_CreateFilterHandle");
}

ZARN_BACKEND_ENTRY void KIVO_DestroyFilterHandle(Lib::FILTER_HANDLE handle) {
    zarn_stitch::destroy_entry("KIVO_DestroyFilterHandle", handle);
}

ZARN_BACKEND_ENTRY int KIVO_InitFilterHandle(Lib::FILTER_HANDLE handle, long long write_buffer_size, int quality,
                                             int preview_width) {
    const auto code = zarn_backend::enter("KIVO_InitFilterHandle",
                                          {text(handle), std::to_string(write_buffer_size), std::to_string(quality),
                                           std::to_string(preview_width)});
    if (handle == nullptr)
        return Code::KIVO_BAD_ARGUMENT;
    zarn_stereo::Filter &f = handle->mFilter;
    if (code)
        return f.keep(*code);
    return f.keep(f.init(write_buffer_size, quality, preview_width));
}

ZARN_BACKEND_ENTRY int KIVO_ExecuteFilterHandle(Lib::FILTER_HANDLE handle, const char *input, const char *output,
                                                const char *preview, const int *rects, int count, int width, int height,
                                                int type) {
    const auto code = zarn_backend::enter(
        "KIVO_ExecuteFilterHandle",
        {text(handle), text(input), text(output), text(preview), count >= 0 ? text_rects(rects, count) : text(rects),
         std::to_string(count), std::to_string(width), std::to_string(height), std::to_string(type)});
    if (handle == nullptr)
        return Code::KIVO_BAD_ARGUMENT;
    zarn_stereo::Filter &f = handle->mFilter;
    if (code)
        return f.keep(*code);
    return f.keep(guarded(Code::KIVO_WRITE_FAILED, [&] {
        return f.execute(input, output, preview, rects, count, width, height, type);
    }));
}

ZARN_BACKEND_ENTRY int KIVO_GetFilterCode(Lib::FILTER_HANDLE handle) {
    return zarn_stitch::code_entry("KIVO_GetFilterCode", handle, [](const auto &h) { return h.mFilter.code(); });
}

// Each entry has exactly the type the callers bind it as.
static_assert(std::is_same_v<decltype(&KIVO_CreateOptFlowStitchHandle), Lib::CREATE_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_DestroyOptFlowStitchHandle), Lib::DESTROY_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_InitOptFlowStitchHandle), Lib::INIT_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteOptFlowStitchHandle), Lib::EXECUTE_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteOptFlowStitchHDRHandle), Lib::EXECUTE_OPT_FLOW_STITCH_HDR *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteISPHandle), Lib::EXECUTE_ISP *>);
static_assert(std::is_same_v<decltype(&KIVO_GetOptFlowStitchCode), Lib::GET_OPT_FLOW_STITCH_CODE *>);
static_assert(std::is_same_v<decltype(&KIVO_CreateVideoStitchHandle), Lib::CREATE_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_DestroyVideoStitchHandle), Lib::DESTROY_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_InitVideoStitchHandle), Lib::INIT_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteVideoStitchHandle), Lib::EXECUTE_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_GetVideoStitchCode), Lib::GET_VIDEO_STITCH_CODE *>);
static_assert(std::is_same_v<decltype(&KIVO_CreateFilterHandle), Lib::CREATE_FILTER *>);
static_assert(std::is_same_v<decltype(&KIVO_DestroyFilterHandle), Lib::DESTROY_FILTER *>);
static_assert(std::is_same_v<decltype(&KIVO_InitFilterHandle), Lib::INIT_FILTER *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteFilterHandle), Lib::EXECUTE_FILTER *>);
static_assert(std::is_same_v<decltype(&KIVO_GetFilterCode), Lib::GET_FILTER_CODE *>);
