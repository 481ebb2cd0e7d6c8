#pragma once

// What the two reference stitching libraries (libStitch.so, and the video
// side and file handling of libStereoRotCam.so) share: output files written
// under a temporary name and renamed into place, decoding of captures,
// exposure fusion and merging, the two-lens stitcher of images and videos, and the text
// of entry arguments for the call trace.

#include "stitch_maps.h"

#include "ZARN_Common/StitchLibrary.h"
#include "backend_support.h"
#include "__ORN__/orn_array.h"
#include "__ORN__/orn_images.h"

#include <opencv2/core.hpp>

#include <atomic>
#include <filesystem>
#include <map>
#include <new>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace zarn_stitch {

// Largest panorama the libraries make.
inline constexpr int MAX_WIDTH = 16384;
inline constexpr int MAX_HEIGHT = 8192;

bool valid_size(int width, int height);

// --- Output files.

// The extension of a path in lower case, with its dot (".jpg").
std::string lower_extension(const std::filesystem::path &path);
// .jpg, .jpeg, .png, .tif, .tiff.
bool image_extension(const std::string &ext);
// Not null and not empty.
bool given(const char *text);
// Writes the bytes as an output of backend_support (an exclusive temporary
// file in the target's directory, renamed over the target), in pieces of at
// most `piece` bytes (0: all at once), so that a hard link to an earlier
// file keeps the earlier content. The target's directory must exist. False
// when anything fails (no temporary is left).
bool write_whole(const std::filesystem::path &path, const unsigned char *bytes, std::size_t size, std::size_t piece = 0);
bool write_whole(const std::filesystem::path &path, const ORN::Buffer<unsigned char> &bytes);

// --- Captures.

// One decoded capture: the image keeps the pixels the matrix shows.
struct CAPTURE {
    ORN::Image mImage;
    cv::Mat mPixels;
};

// Decodes a capture as 8-bit colour; KIVO_BAD_INPUT when it is missing or
// does not decode, KIVO_INPUT_MISMATCH when its size is not width x height.
int read_capture(const char *path, int width, int height, CAPTURE &out);
int read_capture(const char *path, const LENS_TABLE &lens, CAPTURE &out);

// Mertens exposure fusion of 8-bit exposures of one scene, back to 8 bits
// (the stereo library's fusion mode); a single exposure is returned as it
// is.
cv::Mat fuse(const std::vector<cv::Mat> &exposures);

// The two-lens stitcher's merge of 8-bit colour exposures of one scene (one
// size, any order) into one 8-bit image; a single exposure is returned as
// it is. The exposures' ratios of light are measured from the images
// (linear light of the values two neighbours as given both expose well);
// the middle one by light (of an even count, the brighter middle one, as a
// bracket is set around the metered exposure) is the reference, kept as it
// is wherever its brightest channel is at most 230. Above, the pixel's
// radiance is merged from the reference and its darker exposures (each
// weighted by its share of the light, ramping to 0 as its brightest channel
// goes from 230 to 250) and brought back by a tone curve that follows the
// capture curve up to 230, then a logarithmic shoulder meeting it with its
// slope and reaching 255 at the brightest radiance the darkest exposure
// holds. Exposures brighter than the reference are not used. Each pixel on
// its own: the same bytes on any number of threads.
cv::Mat merge_exposures(const std::vector<cv::Mat> &exposures);

// --- Remap tables shared across objects.

// The bytes of the values, one after the other: a key of the tables made
// from them.
template <class... T>
std::string table_key(const T &...values) {
    static_assert((std::is_trivially_copyable_v<T> && ...));
    std::string key;
    (key.append(reinterpret_cast<const char *>(&values), sizeof(values)), ...);
    return key;
}
template <class T>
std::string table_key(const std::vector<T> &values, int width, int height) {
    static_assert(std::is_trivially_copyable_v<T>);
    std::string key(reinterpret_cast<const char *>(values.data()), values.size() * sizeof(T));
    return key + table_key(width, height);
}

// The tables of `key`, shared by every object of the library that asks for
// the same key (the same lens tables and panorama size): made by `build`
// when no object holds them, and gone with the last object that does.
template <class MAPS, class BUILD>
std::shared_ptr<const MAPS> shared_tables(const std::string &key, BUILD &&build) {
    static std::mutex mutex;
    static std::map<std::string, std::weak_ptr<const MAPS>> tables;
    const std::lock_guard lock(mutex);
    for (auto i = tables.begin(); i != tables.end();) // forget the tables that went
        i = i->second.expired() ? tables.erase(i) : std::next(i);
    if (auto held = tables[key].lock())
        return held;
    auto made = std::make_shared<const MAPS>(build());
    tables[key] = made;
    return made;
}

// --- The two-lens stitcher (upper and lower lens), as an image and a video
// object of libStitch.so are one, and the video object of the stereo
// library with its lenses at the head's first position.
//
// It holds the two lens tables, the panorama size of its init and the remap
// tables of every panorama size it has stitched (stitch_maps.h), shared with
// every other object of the same lens tables (shared_tables); tables are
// made on first use of a size and kept, under a mutex, so that executes may
// run on several threads at once. Everything else an execute touches is its
// own, and the last result is an atomic.
class Stitcher {
public:
    // Reads the two lens table files, then as init_tables.
    int init(const char *upper_table, const char *lower_table, int width, int height, int estimate_width,
             int estimate_height, int bits, bool video);
    // Checks the sizes and bits (KIVO_BAD_ARGUMENT) and prepares the tables
    // of the two sizes; `video` also measures the field of view. A failed
    // init leaves the object uninitialised.
    static bool valid_init(int width, int height, int estimate_width, int estimate_height, int bits);
    int init_tables(const LENS_TABLE &upper, const LENS_TABLE &lower, int width, int height, int estimate_width,
                    int estimate_height, int bits, bool video);
    // Makes the object uninitialised (a failed init).
    void reset() { mReady.store(false); }

    // How the two lenses' views are put together (compose of stitch_maps.h,
    // or another blend of the band).
    using COMPOSE = void(const PanoramaMaps &maps, const cv::Mat &upper, const cv::Mat &lower, double gain,
                         cv::Mat &out);
    // One panorama from the exposures of each lens (fused when there are
    // several); `statistics`, when not null, receives the lower lens's gain
    // and the mean difference over the overlap. `size` is the panorama's
    // width and height; `how` composes it (null: compose).
    int execute_image(const std::vector<const char *> &upper, const std::vector<const char *> &lower,
                      const char *output, const int *size, double *statistics, COMPOSE *how = nullptr) const;
    // The lens tables and the gain of the lower lens for its fused capture
    // (exposure_gain), and the remap tables of a size, for an entry that
    // composes panoramas in its own way; null before a successful init.
    const LENS_TABLE *upper_lens() const { return mReady.load() ? &mUpper : nullptr; }
    const LENS_TABLE *lower_lens() const { return mReady.load() ? &mLower : nullptr; }
    double exposure_gain(const cv::Mat &upper, const cv::Mat &lower, double &difference) const;
    std::shared_ptr<const PanoramaMaps> maps(int width, int height) const;
    // One Motion-JPEG video from two or four streams.
    int execute_video(const char *upper, const char *lower, const char *upper_short, const char *lower_short,
                      const char *output, double *hdr_value, double *fov) const;

    int code() const { return mCode.load(); }
    int keep(int code) {
        mCode.store(code);
        return code;
    }

private:
    static void accumulate_ratio(const cv::Mat &normal, const cv::Mat &dim, const double *linear, double &normal_light,
                                 double &short_light);
    std::shared_ptr<const PanoramaMaps> maps_locked(int width, int height) const;

    std::atomic<int> mCode{ZARN::StitchLibrary::KIVO_OK};
    std::atomic<bool> mReady{false};
    LENS_TABLE mUpper{}, mLower{};
    int mWidth = 0, mHeight = 0, mEstimateWidth = 0, mEstimateHeight = 0;
    double mFov = 0;
    mutable std::mutex mMutex;
    mutable std::map<std::pair<int, int>, std::shared_ptr<const PanoramaMaps>> mMaps;
};

// --- Trace text of entry arguments; a null pointer is traced as "".

std::string text(const char *s);
std::string text(const void *p); // a hexadecimal address
std::string text(const int *size); // "WxH"

// Runs an entry's work; anything it throws (memory, OpenCV) becomes `failure`.
template <class F>
int guarded(int failure, F &&work) {
    try {
        return work();
    } catch (...) {
        return failure;
    }
}

// --- The entries every handle API of the libraries repeats.

// A create entry: a new object, or null when the entry is made to fail.
template <class HANDLE>
HANDLE *create_entry(const char *entry) {
    const auto code = zarn_backend::enter(entry, {});
    if (code || zarn_backend::injected_null(entry))
        return nullptr;
    return new (std::nothrow) HANDLE();
}

// A destroy entry (an injected failure does not keep an object alive).
template <class HANDLE>
void destroy_entry(const char *entry, HANDLE *handle) {
    zarn_backend::enter(entry, {text(static_cast<const void *>(handle))});
    delete handle;
}

// A get-code entry: the object's last result (`last` reads it), or the
// injected code.
template <class HANDLE, class LAST>
int code_entry(const char *entry, HANDLE *handle, LAST &&last) {
    const auto code = zarn_backend::enter(entry, {text(static_cast<const void *>(handle))});
    if (code)
        return *code;
    return handle ? last(*handle) : int(ZARN::StitchLibrary::KIVO_BAD_ARGUMENT);
}

} // namespace zarn_stitch
