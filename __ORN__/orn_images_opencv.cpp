// The image buffers over OpenCV: an Image's pixels are one cv::Mat, and the
// codec and conversion operations are OpenCV's (imread, imwrite, imencode,
// imdecode, cvtColor, Mat::convertTo, Mat::zeros).

#include "orn_images.h"

#include "orn_debugger.h"
#include "orn_filesystem.h"
#include "orn_thread.h"

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <climits>
#include <vector>

namespace ORN {

namespace {

// The pixel buffers of matrices released on a worker thread, kept for the
// thread's next matrix of the same byte size (the next record's captures
// and panorama), so that a worker does not take fresh pages from the system
// for every record. At least MIN_BYTES each (smaller ones cost little to
// allocate), the newest MAX_BUFFERS of them up to MAX_BYTES in all; they go
// with their thread.
class PixelStore {
public:
    static constexpr std::size_t MIN_BYTES = std::size_t(1) << 20;
    static constexpr std::size_t MAX_BYTES = std::size_t(192) << 20;
    static constexpr std::size_t MAX_BUFFERS = 10;

    ~PixelStore() {
        tGone = true;
        for (const BUFFER &b : mBuffers)
            cv::fastFree(b.mData);
    }

    // This thread's store; null off the workers and while the thread ends.
    static PixelStore *here() {
        if (tGone || !WorkThread::on_worker())
            return nullptr;
        thread_local PixelStore store;
        return &store;
    }

    // A kept buffer of exactly `bytes` bytes, taken out; null when none.
    void *take(std::size_t bytes) {
        for (auto i = mBuffers.rbegin(); i != mBuffers.rend(); ++i)
            if (i->mBytes == bytes) {
                void *data = i->mData;
                mBuffers.erase(std::next(i).base());
                mBytes -= bytes;
                return data;
            }
        return nullptr;
    }

    // Keeps the buffer, or frees it when it is not worth keeping.
    void give(void *data, std::size_t bytes) {
        if (bytes < MIN_BYTES || bytes > MAX_BYTES) {
            cv::fastFree(data);
            return;
        }
        mBuffers.push_back({data, bytes});
        mBytes += bytes;
        while (mBuffers.size() > MAX_BUFFERS || mBytes > MAX_BYTES) {
            mBytes -= mBuffers.front().mBytes;
            cv::fastFree(mBuffers.front().mData);
            mBuffers.erase(mBuffers.begin());
        }
    }

private:
    struct BUFFER {
        void *mData;
        std::size_t mBytes;
    };
    static thread_local bool tGone;
    std::vector<BUFFER> mBuffers;
    std::size_t mBytes = 0;
};

thread_local bool PixelStore::tGone = false;

// OpenCV's allocation of a matrix, in contiguous rows, through the store:
// a matrix made with this allocator takes a kept buffer of its size when the
// thread has one, and its buffer goes back to the store of the thread that
// releases the matrix last. Nothing is kept while anything still shows it.
class ReusingAllocator final : public cv::MatAllocator {
public:
    cv::UMatData *allocate(int dims, const int *sizes, int type, void *data0, size_t *step, cv::AccessFlag,
                           cv::UMatUsageFlags) const override {
        std::size_t total = CV_ELEM_SIZE(type);
        for (int i = dims - 1; i >= 0; --i) {
            if (step != nullptr) {
                if (data0 != nullptr && step[i] != cv::Mat::AUTO_STEP)
                    total = step[i];
                else
                    step[i] = total;
            }
            total *= static_cast<std::size_t>(sizes[i]);
        }
        void *data = data0;
        if (data == nullptr)
            if (PixelStore *store = PixelStore::here())
                data = store->take(total);
        if (data == nullptr && data0 == nullptr)
            data = cv::fastMalloc(total);
        auto *u = new cv::UMatData(this);
        u->data = u->origdata = static_cast<uchar *>(data);
        u->size = total;
        if (data0 != nullptr)
            u->flags |= cv::UMatData::USER_ALLOCATED;
        return u;
    }

    bool allocate(cv::UMatData *u, cv::AccessFlag, cv::UMatUsageFlags) const override { return u != nullptr; }

    void deallocate(cv::UMatData *u) const override {
        if (u == nullptr)
            return;
        if (!(u->flags & cv::UMatData::USER_ALLOCATED) && u->origdata != nullptr) {
            if (PixelStore *store = PixelStore::here())
                store->give(u->origdata, u->size);
            else
                cv::fastFree(u->origdata);
        }
        delete u;
    }

    // The allocator; never destroyed, as matrices may outlive every scope.
    static cv::MatAllocator *get() {
        static ReusingAllocator *const allocator = new ReusingAllocator;
        return allocator;
    }
};

// An empty matrix whose pixels, once made, come from the store.
cv::Mat reusing_matrix() {
    cv::Mat m;
    m.allocator = ReusingAllocator::get();
    return m;
}

// A matrix of that size and type: a kept buffer when there is one.
cv::Mat reused_pixels(int rows, int cols, int type) {
    cv::Mat m = reusing_matrix();
    m.create(rows, cols, type);
    return m;
}

} // namespace

class Image::Private::Implement {
public:
    explicit Implement(cv::Mat pixels) : mPixels(std::move(pixels)) {}
    cv::Mat mPixels;
};

namespace {

constexpr int cv_depth(ImageDepth depth) noexcept {
    constexpr int depths[] = {CV_8U, CV_16U, CV_32F, CV_64F};
    return depths[static_cast<int>(depth)];
}

// The depth of an OpenCV matrix; false for the depths images do not take
// (signed integers, half floats).
bool image_depth(int depth, ImageDepth &out) noexcept {
    switch (depth) {
    case CV_8U:
        out = ImageDepth::U8;
        return true;
    case CV_16U:
        out = ImageDepth::U16;
        return true;
    case CV_32F:
        out = ImageDepth::F32;
        return true;
    case CV_64F:
        out = ImageDepth::F64;
        return true;
    default:
        return false;
    }
}

int read_flags(ImageReadMode mode) noexcept {
    switch (mode) {
    case ImageReadMode::UNCHANGED:
        return cv::IMREAD_UNCHANGED;
    case ImageReadMode::GRAY:
        return cv::IMREAD_GRAYSCALE;
    case ImageReadMode::COLOR:
        break;
    }
    return cv::IMREAD_COLOR;
}

void report(std::string_view operation, const String<char> &path, const String<char> &reason) {
    console().error(operation, " : ", path, " : ", reason);
}

// The extension of a path, dot included ("" when it has none).
String<char> extension_of(const String<char> &path) {
    const String<char> name = FileSystemProc::file_name(path);
    const auto dot = name.rfind('.');
    return dot == String<char>::npos ? String<char>() : name.substr(dot);
}

std::vector<int> write_params(std::string_view extension, INDEX quality) {
    String<char> ext(extension);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (ext == ".jpg" || ext == ".jpeg" || ext == ".jpe")
        return {cv::IMWRITE_JPEG_QUALITY, static_cast<int>(quality < 0 ? 95 : std::min<INDEX>(quality, 100))};
    return {};
}

// OpenCV's own pool (parallel_for_ in remap, convertTo, the caller's
// loops) is one per process, shared with every library loaded here that
// links libopencv_core; the worker pools size it from their plans.
[[maybe_unused]] const bool OPENCV_THREADS_OWNED = [] {
    WorkThread::own_library_threads(LIBRARY_THREADS{"OpenCV", [] { return cv::getNumThreads(); },
                                                    [](int threads) { cv::setNumThreads(threads); }});
    return true;
}();

// Decodes into a matrix whose pixels come from the store (an undecodable
// image leaves it empty).
cv::Mat decode_reusing(const cv::Mat &encoded, ImageReadMode mode) {
    cv::Mat out = reusing_matrix();
    cv::imdecode(encoded, read_flags(mode), &out);
    return out;
}

// The matrix of an image; an empty matrix for an empty image.
const cv::Mat &pixels_of(const StrongRef<Image::Private::Implement> &pixels) {
    static const cv::Mat none;
    return pixels.exist() ? pixels->mPixels : none;
}

} // namespace

Image::Image() noexcept = default;

Image::Image(StrongRef<Private::Implement> pixels) : mThis(std::move(pixels)) {
    const cv::Mat &m = mThis->mPixels;
    ImageDepth depth = ImageDepth::U8;
    const bool known = image_depth(m.depth(), depth);
    if (!known)
        report("make_image", std::to_string(m.cols) + "x" + std::to_string(m.rows) + "x" + std::to_string(m.channels()),
               "unsupported channel depth " + std::to_string(m.depth()));
    _DYNAMIC_ASSERT_(known);
    mDepth = depth;
    mWidth = m.cols;
    mHeight = m.rows;
    mChannels = m.channels();
    mStep = static_cast<INDEX>(m.step[0]);
    mData = m.data;
}

namespace {

// The pixels of a new image, checked against the size limits.
cv::Mat new_pixels(INDEX width, INDEX height, INDEX channels, ImageDepth depth, bool zero) {
    const bool r1x = width >= 1 && width <= Image::max_side() && height >= 1 && height <= Image::max_side() &&
                     channels >= 1 && channels <= 4;
    if (!r1x)
        report("make_image", std::to_string(width) + "x" + std::to_string(height) + "x" + std::to_string(channels),
               "size out of range");
    _DYNAMIC_ASSERT_(r1x);
    const int type = CV_MAKETYPE(cv_depth(depth), static_cast<int>(channels));
    cv::Mat pixels = reused_pixels(static_cast<int>(height), static_cast<int>(width), type);
    if (zero)
        pixels.setTo(cv::Scalar::all(0));
    return pixels;
}

} // namespace

Image::Image(INDEX width, INDEX height, INDEX channels, ImageDepth depth)
    : Image(StrongRef<Private::Implement>::make(new_pixels(width, height, channels, depth, false))) {}

Image Image::zeros(INDEX width, INDEX height, INDEX channels, ImageDepth depth) {
    return Image(StrongRef<Private::Implement>::make(new_pixels(width, height, channels, depth, true)));
}

Image Image::clone() const {
    if (empty())
        return Image();
    const cv::Mat &from = mThis->mPixels;
    cv::Mat copy = reused_pixels(from.rows, from.cols, from.type());
    from.copyTo(copy);
    return Image(StrongRef<Private::Implement>::make(std::move(copy)));
}

// Files go through the file system layer (a regular file, read without
// blocking) and the codec works in memory, so that this layer touches no
// file itself.
Image Image::read(const String<char> &path, ImageReadMode mode) {
    cv::Mat r1x;
    String<char> reason = "not a decodable image";
    Buffer<unsigned char> bytes;
    if (!FileSystemProc::find_file(path))
        reason = "no such file";
    else if (!try_run([&] { bytes = FileSystemProc::load_file(path); }))
        reason = "cannot be read";
    else if (bytes.size() > INT_MAX)
        reason = "too large";
    else if (const String<char> refused = check_header(bytes.data(), bytes.size()); !refused.empty())
        reason = refused;
    else
        try {
            const cv::Mat encoded(1, static_cast<int>(bytes.size()), CV_8U, bytes.data());
            r1x = decode_reusing(encoded, mode);
        } catch (const cv::Exception &e) {
            reason = e.err;
        }
    if (r1x.empty())
        report("read_image", path, reason);
    _DYNAMIC_ASSERT_(!r1x.empty ());
    return Image(StrongRef<Private::Implement>::make(std::move(r1x)));
}

void Image::write(const String<char> &path, const Image &image, INDEX quality) {
    if (image.empty())
        report("write_image", path, "empty image");
    _DYNAMIC_ASSERT_(!image.empty ());
    std::vector<unsigned char> bytes;
    bool r1x = false;
    String<char> reason = "cannot be encoded as " + extension_of(path);
    try {
        r1x = cv::imencode(extension_of(path), pixels_of(image.mThis), bytes, write_params(extension_of(path), quality));
    } catch (const cv::Exception &e) {
        reason = e.err;
    }
    const std::string_view encoded(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    if (r1x && !try_run([&] { FileSystemProc::save_file(path, encoded); })) {
        r1x = false;
        reason = "cannot be written";
    }
    if (!r1x)
        report("write_image", path, reason);
    _DYNAMIC_ASSERT_(r1x);
}

Buffer<unsigned char> Image::encode(std::string_view extension, const Image &image, INDEX quality) {
    if (image.empty())
        report("encode_image", String<char>(extension), "empty image");
    _DYNAMIC_ASSERT_(!image.empty ());
    std::vector<unsigned char> bytes;
    bool r1x = false;
    String<char> reason = "cannot be encoded";
    try {
        r1x = cv::imencode(String<char>(extension), pixels_of(image.mThis), bytes, write_params(extension, quality));
    } catch (const cv::Exception &e) {
        reason = e.err;
    }
    if (!r1x)
        report("encode_image", String<char>(extension), reason);
    _DYNAMIC_ASSERT_(r1x);
    return Buffer<unsigned char>(bytes.data(), static_cast<INDEX>(bytes.size()));
}

Image Image::decode(const unsigned char *bytes, INDEX size, ImageReadMode mode) {
    cv::Mat r1x;
    String<char> reason = "not a decodable image";
    if (bytes == nullptr || size <= 0)
        reason = "no bytes";
    else if (size > INT_MAX)
        reason = "too large";
    else if (const String<char> refused = check_header(bytes, size); !refused.empty())
        reason = refused;
    else
        try {
            const cv::Mat encoded(1, static_cast<int>(size), CV_8U, const_cast<unsigned char *>(bytes));
            r1x = decode_reusing(encoded, mode);
        } catch (const cv::Exception &e) {
            reason = e.err;
        }
    if (r1x.empty())
        report("decode_image", "<memory>", reason);
    _DYNAMIC_ASSERT_(!r1x.empty ());
    return Image(StrongRef<Private::Implement>::make(std::move(r1x)));
}

Image Image::convert(ImageColor code) const {
    struct CONVERSION {
        int mCode;
        INDEX mChannels; // channels of the source
    };
    constexpr CONVERSION conversions[] = {
        {cv::COLOR_BGR2GRAY, 3}, {cv::COLOR_GRAY2BGR, 1},  {cv::COLOR_BGR2RGB, 3},
        {cv::COLOR_RGB2BGR, 3},  {cv::COLOR_BGRA2BGR, 4}, {cv::COLOR_BGR2BGRA, 3},
    };
    const CONVERSION &r1x = conversions[static_cast<int>(code)];
    if (channels() != r1x.mChannels)
        report("convert_color", layout(), "needs " + std::to_string(r1x.mChannels) + " channels");
    _DYNAMIC_ASSERT_(channels () == r1x.mChannels);
    const bool r2x = mDepth != ImageDepth::F64;
    if (!r2x)
        report("convert_color", layout(), "64-bit channels are not converted");
    _DYNAMIC_ASSERT_(r2x);
    cv::Mat out;
    cv::cvtColor(mThis->mPixels, out, r1x.mCode);
    return Image(StrongRef<Private::Implement>::make(std::move(out)));
}

Image Image::convert(ImageDepth depth, double scale, double offset) const {
    if (empty())
        report("convert_depth", layout(), "empty image");
    _DYNAMIC_ASSERT_(!empty ());
    cv::Mat out;
    mThis->mPixels.convertTo(out, cv_depth(depth), scale, offset);
    return Image(StrongRef<Private::Implement>::make(std::move(out)));
}

} // namespace ORN
