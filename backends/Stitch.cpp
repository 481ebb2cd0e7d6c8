// Reference stand-in for the closed stitching library "libStitch.so", with
// the C interface of ZARN_Common/StitchLibrary.h (see there, and
// docs/BACKENDS.md, for every entry, argument and result code).
//
// An object is the two-lens stitcher of stitch_core.h: the two lens tables,
// the panorama size of its init and the remap tables of every panorama size
// it has stitched (stitch_maps.h); tables are made on first use of a size
// and kept, under a mutex, so that executes on one object may run on several
// threads at once. Everything else an execute touches is its own, and the
// object's last result is an atomic.
//
// Image execute: decode both captures (8-bit colour), check their sizes
// against the tables, match the lower lens's exposure to the upper's on the
// init's estimate size, remap both into the panorama, feather them across
// the overlap and encode the panorama by its extension. The HDR execute
// first merges each lens's brackets (merge_exposures of stitch_core.h). The
// video execute does the same per frame, a normal and a short exposure,
// into a Motion-JPEG AVI; its HDR value is the exposure ratio of the normal
// to the short streams measured on linear light (captures are encoded with
// gamma ImageProc::capture_gamma ()).
//
// Outputs are written to an exclusive temporary file in the target's
// directory and renamed into place (backend_support.h), so a hard link
// published from an earlier output keeps the earlier content; the target's
// directory must exist (the module makes it), and an output that cannot be
// renamed into place (a directory there) is KIVO_WRITE_FAILED.
//
// Fault injection (backend_support.h): an injected failure code makes init
// or execute return it and become the object's last result; on a get-code
// entry it is returned as it is; on a create entry, as ZARN_BACKEND_NULL,
// it makes the entry return null. Create and destroy take no code.

#include "backend_support.h"
#include "stitch_core.h"
#include "stitch_flow.h"
#include "stitch_repair.h"

#include "ZARN_Common/StitchLibrary.h"

#include <new>
#include <string>
#include <type_traits>
#include <vector>

namespace Lib = ZARN::StitchLibrary;
using zarn_stitch::guarded;
using zarn_stitch::Stitcher;
using zarn_stitch::text;

namespace {

// The composition the seam switch, the third int of an image execute's
// `size`, asks for (null: the plain blend); false for an unknown switch.
bool seam_compose(const int *size, Stitcher::COMPOSE *&how) {
    how = nullptr;
    if (size == nullptr)
        return true; // refused by the execute itself
    if (size[2] == Lib::SEAM_FLOW)
        how = zarn_stitch::compose_flow;
    return size[2] == Lib::SEAM_PLAIN || size[2] == Lib::SEAM_FLOW;
}

// An image execute's `size` in the trace: "WxHxS".
std::string seam_size_text(const int *size) {
    return size ? text(size) + "x" + std::to_string(size[2]) : std::string();
}

// The repair entry's paths in the trace: the exposures' paths joined by
// ";" (an out-of-range bracket count: the address alone).
std::string paths_text(const char *const *paths, int brackets) {
    if (paths == nullptr || brackets < 1 || brackets > Lib::MAX_BRACKETS)
        return text(static_cast<const void *>(paths));
    std::string t;
    for (int i = 0; i < brackets; ++i) {
        if (i > 0)
            t += ';';
        t += text(paths[i]);
    }
    return t;
}

// Its regions: "x,y,w,h,method" records joined by ";" (an out-of-range
// count: the address alone).
std::string regions_text(const int *regions, int count) {
    if (regions == nullptr || count < 1 || count > Lib::MAX_REPAIR_REGIONS)
        return text(static_cast<const void *>(regions));
    std::string t;
    for (int i = 0; i < count; ++i) {
        const int *r = regions + 5 * i;
        if (i > 0)
            t += ';';
        for (int k = 0; k < 5; ++k) {
            if (k > 0)
                t += ',';
            t += std::to_string(r[k]);
        }
    }
    return t;
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
    return zarn_stitch::create_entry<KIVO_Stitch::KIVO_OptFlowStitchParams>("KIVO_CreateOptFlowStitchHandle");
}

ZARN_BACKEND_ENTRY void KIVO_DestroyOptFlowStitchHandle(Lib::IMAGE_HANDLE handle) {
    zarn_stitch::destroy_entry("KIVO_DestroyOptFlowStitchHandle", handle);
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
                                          {text(handle), text(upper), text(lower), text(output), seam_size_text(size),
                                           text(static_cast<const void *>(statistics)), text(name)});
    if (handle == nullptr)
        return Lib::KIVO_BAD_ARGUMENT;
    Stitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    Stitcher::COMPOSE *how = nullptr;
    if (!seam_compose(size, how))
        return s.keep(Lib::KIVO_BAD_ARGUMENT);
    return s.keep(guarded(Lib::KIVO_WRITE_FAILED,
                          [&] { return s.execute_image({upper}, {lower}, output, size, statistics, how); }));
}

ZARN_BACKEND_ENTRY int KIVO_ExecuteOptFlowStitchHDRHandle(Lib::IMAGE_HANDLE handle, const char *upper_0,
                                                          const char *upper_1, const char *upper_2, const char *upper_3,
                                                          const char *lower_0, const char *lower_1, const char *lower_2,
                                                          const char *lower_3, const char *output, const int *size,
                                                          unsigned char brackets) {
    const auto code = zarn_backend::enter("KIVO_ExecuteOptFlowStitchHDRHandle",
                                          {text(handle), text(upper_0), text(upper_1), text(upper_2), text(upper_3),
                                           text(lower_0), text(lower_1), text(lower_2), text(lower_3), text(output),
                                           seam_size_text(size), std::to_string(brackets)});
    if (handle == nullptr)
        return Lib::KIVO_BAD_ARGUMENT;
    Stitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    Stitcher::COMPOSE *how = nullptr;
    if (brackets < 1 || brackets > Lib::MAX_BRACKETS || !seam_compose(size, how))
        return s.keep(Lib::KIVO_BAD_ARGUMENT);
    const std::vector<const char *> upper = {upper_0, upper_1, upper_2, upper_3};
    const std::vector<const char *> lower = {lower_0, lower_1, lower_2, lower_3};
    return s.keep(guarded(Lib::KIVO_WRITE_FAILED, [&] {
        return s.execute_image({upper.begin(), upper.begin() + brackets}, {lower.begin(), lower.begin() + brackets},
                               output, size, nullptr, how);
    }));
}

ZARN_BACKEND_ENTRY int KIVO_ExecutePanoRepairHandle(Lib::IMAGE_HANDLE handle, const char *const *upper,
                                                    const char *const *lower, int brackets, const char *panorama,
                                                    const char *output, const int *size, const int *regions,
                                                    int count) {
    const auto code = zarn_backend::enter("KIVO_ExecutePanoRepairHandle",
                                          {text(handle), paths_text(upper, brackets), paths_text(lower, brackets),
                                           std::to_string(brackets), text(panorama), text(output), text(size),
                                           regions_text(regions, count), std::to_string(count)});
    if (handle == nullptr)
        return Lib::KIVO_BAD_ARGUMENT;
    Stitcher &s = handle->mStitcher;
    if (code)
        return s.keep(*code);
    if (upper == nullptr || lower == nullptr || brackets < 1 || brackets > Lib::MAX_BRACKETS)
        return s.keep(Lib::KIVO_BAD_ARGUMENT);
    return s.keep(guarded(Lib::KIVO_WRITE_FAILED, [&] {
        return zarn_stitch::repair_panorama(s, {upper, upper + brackets}, {lower, lower + brackets}, panorama, output,
                                            size, regions, count);
    }));
}

ZARN_BACKEND_ENTRY int KIVO_GetOptFlowStitchCode(Lib::IMAGE_HANDLE handle) {
    return zarn_stitch::code_entry("KIVO_GetOptFlowStitchCode", handle, [](const auto &h) { return h.mStitcher.code(); });
}

// ---------------------------------------------------------------------------
// Video stitching.

ZARN_BACKEND_ENTRY Lib::VIDEO_HANDLE KIVO_CreateVideoStitchHandle() {
    return zarn_stitch::create_entry<KIVO_VideoStitch::KIVO_VideoStitchParams>("KIVO_CreateVideoStitchHandle");
}

ZARN_BACKEND_ENTRY void KIVO_DestroyVideoStitchHandle(Lib::VIDEO_HANDLE handle) {
    zarn_stitch::destroy_entry("KIVO_DestroyVideoStitchHandle", handle);
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
    return zarn_stitch::code_entry("KIVO_GetVideoStitchCode", handle, [](const auto &h) { return h.mStitcher.code(); });
}

// Each entry has exactly the type the callers bind it as.
static_assert(std::is_same_v<decltype(&KIVO_CreateOptFlowStitchHandle), Lib::CREATE_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_DestroyOptFlowStitchHandle), Lib::DESTROY_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_InitOptFlowStitchHandle), Lib::INIT_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteOptFlowStitchHandle), Lib::EXECUTE_OPT_FLOW_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteOptFlowStitchHDRHandle), Lib::EXECUTE_OPT_FLOW_STITCH_HDR *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecutePanoRepairHandle), Lib::EXECUTE_PANO_REPAIR *>);
static_assert(std::is_same_v<decltype(&KIVO_GetOptFlowStitchCode), Lib::GET_OPT_FLOW_STITCH_CODE *>);
static_assert(std::is_same_v<decltype(&KIVO_CreateVideoStitchHandle), Lib::CREATE_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_DestroyVideoStitchHandle), Lib::DESTROY_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_InitVideoStitchHandle), Lib::INIT_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteVideoStitchHandle), Lib::EXECUTE_VIDEO_STITCH *>);
static_assert(std::is_same_v<decltype(&KIVO_GetVideoStitchCode), Lib::GET_VIDEO_STITCH_CODE *>);
