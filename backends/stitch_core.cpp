#include "stitch_core.h"

#include "ZARN_Common/ImageProc.h"

#include <fcntl.h>
#include <unistd.h>

#include <opencv2/imgproc.hpp>
#include <opencv2/photo.hpp>
#include <opencv2/videoio.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace zarn_stitch {

namespace Lib = ZARN::StitchLibrary;
namespace fs = std::filesystem;
using ZARN::ImageProc;

namespace {

// Frame rate of an output video whose input does not tell its own.
constexpr double DEFAULT_FPS = 25;
// Grey levels of a normal exposure, and the least of a short one, that the
// exposure ratio of a video trusts.
constexpr int RATIO_DARKEST = 20;
constexpr int RATIO_BRIGHTEST = 230;
constexpr int RATIO_SHORT_DARKEST = 3;

} // namespace

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

bool write_whole(const fs::path &path, const unsigned char *bytes, std::size_t size, std::size_t piece) {
    return zarn_backend::write_file(path, bytes, size, piece);
}

bool write_whole(const fs::path &path, const ORN::Buffer<unsigned char> &bytes) {
    return write_whole(path, bytes.data(), static_cast<std::size_t>(bytes.size()));
}

int read_capture(const char *path, int width, int height, CAPTURE &out) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec))
        return Lib::KIVO_BAD_INPUT;
    if (!ORN::try_run([&] { out.mImage = ORN::Image::read(path, ORN::ImageReadMode::COLOR); }))
        return Lib::KIVO_BAD_INPUT;
    if (out.mImage.width() != width || out.mImage.height() != height)
        return Lib::KIVO_INPUT_MISMATCH;
    out.mPixels = ImageProc::mat(out.mImage);
    return Lib::KIVO_OK;
}

int read_capture(const char *path, const LENS_TABLE &lens, CAPTURE &out) {
    return read_capture(path, lens.mWidth, lens.mHeight, out);
}

// ---------------------------------------------------------------------------
// Exposure fusion and merging.

namespace {

// Grey levels two exposures must both lie within for their ratio.
constexpr int FUSE_RATIO_DARKEST = 16;
constexpr int FUSE_RATIO_BRIGHTEST = 240;
// The ratio is measured on every FUSE_RATIO_STEP-th pixel of every
// FUSE_RATIO_STEP-th row.
constexpr int FUSE_RATIO_STEP = 4;
// Ratios beyond this (either way) are not trusted.
constexpr double FUSE_LARGEST_RATIO = 256;
// The reference exposure is kept as it is up to this grey level (of its
// brightest channel); above it, the other exposures complete it, their
// weight ramping down to 0 at FUSE_WHITE as they near white themselves.
constexpr int FUSE_KNEE = 230;
constexpr int FUSE_WHITE = 250;
// Entries of the tone table, spaced evenly in the square root of the
// radiance between 0 and the brightest radiance the exposures can hold.
constexpr int FUSE_TONE_STEPS = 16384;

double linear_light(int grey) { return std::pow(grey / 255.0, ImageProc::capture_gamma()); }

// Linear light of the second exposure over the first's, from the values
// both expose well; 1 when they have none in common.
double exposure_ratio(const cv::Mat &first, const cv::Mat &second, const double *linear) {
    double a = 0, b = 0;
    const int channels = first.channels();
    for (int y = 0; y < first.rows; y += FUSE_RATIO_STEP) {
        const auto *pa = first.ptr<unsigned char>(y);
        const auto *pb = second.ptr<unsigned char>(y);
        for (int x = 0; x < first.cols; x += FUSE_RATIO_STEP)
            for (int c = 0; c < channels; ++c) {
                const int va = pa[channels * x + c], vb = pb[channels * x + c];
                if (va >= FUSE_RATIO_DARKEST && va <= FUSE_RATIO_BRIGHTEST && vb >= FUSE_RATIO_DARKEST &&
                    vb <= FUSE_RATIO_BRIGHTEST) {
                    a += linear[va];
                    b += linear[vb];
                }
            }
    }
    return a > 0 && b > 0 ? std::clamp(b / a, 1 / FUSE_LARGEST_RATIO, FUSE_LARGEST_RATIO) : 1.0;
}

// The tone curve above the knee: grey levels that follow a logarithm of
// the radiance above the knee, meeting the capture curve there with its
// slope and reaching 255 at `white` (radiance in the reference's scale, 1
// its white). Returns the grey level, 0..255 as a real number.
struct SHOULDER {
    double mKnee, mScale, mSpan;
    explicit SHOULDER(double white) {
        const double gamma = ImageProc::capture_gamma();
        mKnee = linear_light(FUSE_KNEE);
        // The capture curve's slope at the knee, in grey levels per unit of
        // radiance; the shoulder s ln(1 + (v - knee) / s) / ln(1 + (white -
        // knee) / s) of the remaining levels has that slope there when
        // s ln(1 + (white - knee) / s) = levels / slope, found by bisection
        // (the left side grows with s) between 0 and levels / slope; a
        // white so near the knee that the equation has no root there takes
        // levels / slope, a shoulder a little steeper than the curve there.
        const double slope = 255 / gamma * std::pow(mKnee, 1 / gamma - 1);
        const double levels = 255.0 - FUSE_KNEE, room = std::max(white - mKnee, 1e-6);
        double low = 1e-9, high = levels / slope;
        for (int i = 0; i < 100; ++i) {
            const double s = 0.5 * (low + high);
            (s * std::log1p(room / s) < levels / slope ? low : high) = s;
        }
        mScale = low;
        mSpan = std::log1p(room / mScale);
    }
    double grey(double v) const {
        if (v <= mKnee)
            return 255 * std::pow(std::max(v, 0.0), 1 / ImageProc::capture_gamma());
        return std::min(255.0, FUSE_KNEE + (255.0 - FUSE_KNEE) * std::log1p((v - mKnee) / mScale) / mSpan);
    }
};

} // namespace

cv::Mat fuse(const std::vector<cv::Mat> &exposures) {
    if (exposures.size() == 1)
        return exposures.front();
    cv::Mat fused, out;
    cv::createMergeMertens()->process(exposures, fused);
    fused.convertTo(out, CV_8U, 255.0);
    return out;
}

cv::Mat merge_exposures(const std::vector<cv::Mat> &exposures) {
    if (exposures.size() == 1)
        return exposures.front();
    CV_Assert(!exposures.empty() && exposures.front().type() == CV_8UC3);
    for (const cv::Mat &e : exposures)
        CV_Assert(e.type() == CV_8UC3 && e.size() == exposures.front().size());
    const int n = static_cast<int>(exposures.size());
    double linear[256];
    for (int g = 0; g < 256; ++g)
        linear[g] = linear_light(g);
    // Each exposure's light relative to the first, chained through the
    // neighbours as given; then the exposures from the darkest.
    std::vector<double> light(static_cast<std::size_t>(n), 1.0);
    for (int k = 1; k < n; ++k)
        light[std::size_t(k)] =
            light[std::size_t(k - 1)] * exposure_ratio(exposures[std::size_t(k - 1)], exposures[std::size_t(k)], linear);
    std::vector<int> order(static_cast<std::size_t>(n));
    for (int k = 0; k < n; ++k)
        order[std::size_t(k)] = k;
    std::stable_sort(order.begin(), order.end(),
                     [&](int a, int b) { return light[std::size_t(a)] < light[std::size_t(b)]; });
    // The reference: the middle exposure (of an even count, the brighter
    // middle one), as a bracket is set around the metered exposure. Its
    // darker ones bring the highlights it clips; the brighter ones add
    // nothing it lacks.
    const int reference = order[std::size_t(n / 2)];
    std::vector<int> darker(order.begin(), order.begin() + n / 2);
    const double white = light[std::size_t(reference)] / light[std::size_t(order.front())];

    // Per exposure, each grey level's radiance in the reference's scale and
    // the weight of its brightest channel (a darker exposure counts less,
    // by its share of the light: its values are coarser).
    struct TABLES {
        float mRadiance[256];
        float mWeight[256];
    };
    std::vector<TABLES> tables(static_cast<std::size_t>(n));
    for (int k = 0; k < n; ++k) {
        const double share = light[std::size_t(k)] / light[std::size_t(reference)];
        for (int g = 0; g < 256; ++g) {
            const double ramp = g <= FUSE_KNEE    ? 1.0
                                : g >= FUSE_WHITE ? 0.0
                                                  : double(FUSE_WHITE - g) / (FUSE_WHITE - FUSE_KNEE);
            tables[std::size_t(k)].mRadiance[g] = static_cast<float>(linear[g] / share);
            tables[std::size_t(k)].mWeight[g] = static_cast<float>(ramp * share);
        }
    }
    const SHOULDER shoulder(white);
    std::vector<unsigned char> tone(FUSE_TONE_STEPS + 1);
    for (int i = 0; i <= FUSE_TONE_STEPS; ++i) {
        const double root = double(i) / FUSE_TONE_STEPS;
        tone[std::size_t(i)] = static_cast<unsigned char>(std::lround(shoulder.grey(root * root * white)));
    }
    const float to_step = static_cast<float>(FUSE_TONE_STEPS / std::sqrt(white));
    const int darkest = order.front();

    // Each pixel on its own, so the bytes are the same on any number of
    // threads: the reference's pixel, or where its brightest channel is
    // above the knee, the weighted radiance of it and the darker exposures
    // through the tone curve (the darkest alone when all of them are white).
    const cv::Mat &base = exposures[std::size_t(reference)];
    cv::Mat out(base.size(), CV_8UC3);
    cv::parallel_for_(cv::Range(0, out.rows), [&](const cv::Range &rows) {
        std::vector<const unsigned char *> row(static_cast<std::size_t>(n));
        for (int y = rows.start; y < rows.end; ++y) {
            const auto *ref = base.ptr<unsigned char>(y);
            auto *o = out.ptr<unsigned char>(y);
            std::memcpy(o, ref, static_cast<std::size_t>(3 * out.cols));
            for (int k = 0; k < n; ++k)
                row[std::size_t(k)] = exposures[std::size_t(k)].ptr<unsigned char>(y);
            for (int x = 0; x < out.cols; ++x) {
                const unsigned char *r = ref + 3 * x;
                if (std::max({r[0], r[1], r[2]}) <= FUSE_KNEE)
                    continue;
                float sum = 0, value[3] = {0, 0, 0};
                const auto add = [&](int k, float weight) {
                    const unsigned char *e = row[std::size_t(k)] + 3 * x;
                    const TABLES &t = tables[std::size_t(k)];
                    for (int c = 0; c < 3; ++c)
                        value[c] += weight * t.mRadiance[e[c]];
                    sum += weight;
                };
                for (int k : darker) {
                    const unsigned char *e = row[std::size_t(k)] + 3 * x;
                    add(k, tables[std::size_t(k)].mWeight[std::max({e[0], e[1], e[2]})]);
                }
                add(reference, tables[std::size_t(reference)].mWeight[std::max({r[0], r[1], r[2]})]);
                if (!(sum > 0)) {
                    sum = value[0] = value[1] = value[2] = 0;
                    add(darkest, 1);
                }
                for (int c = 0; c < 3; ++c) {
                    const float step = std::sqrt(std::max(value[c] / sum, 0.0f)) * to_step;
                    o[3 * x + c] = tone[std::size_t(std::min(static_cast<int>(step + 0.5f), FUSE_TONE_STEPS))];
                }
            }
        }
    });
    return out;
}

// ---------------------------------------------------------------------------
// The two-lens stitcher.

bool Stitcher::valid_init(int width, int height, int estimate_width, int estimate_height, int bits) {
    return bits == Lib::OUTPUT_BITS && valid_size(width, height) && valid_size(estimate_width, estimate_height);
}

int Stitcher::init(const char *upper_table, const char *lower_table, int width, int height, int estimate_width,
                   int estimate_height, int bits, bool video) {
    // A failed init leaves the object uninitialised.
    mReady.store(false);
    if (upper_table == nullptr || lower_table == nullptr ||
        !valid_init(width, height, estimate_width, estimate_height, bits))
        return Lib::KIVO_BAD_ARGUMENT;
    LENS_TABLE upper{}, lower{};
    if (!ORN::try_run([&] {
            upper = ImageProc::read_lens_table(upper_table);
            lower = ImageProc::read_lens_table(lower_table);
        }))
        return Lib::KIVO_BAD_TABLE;
    return init_tables(upper, lower, width, height, estimate_width, estimate_height, bits, video);
}

int Stitcher::init_tables(const LENS_TABLE &upper, const LENS_TABLE &lower, int width, int height, int estimate_width,
                          int estimate_height, int bits, bool video) {
    mReady.store(false);
    if (!valid_init(width, height, estimate_width, estimate_height, bits))
        return Lib::KIVO_BAD_ARGUMENT;
    const std::lock_guard lock(mMutex);
    mReady.store(false);
    mMaps.clear();
    mUpper = upper;
    mLower = lower;
    mWidth = width;
    mHeight = height;
    mEstimateWidth = estimate_width;
    mEstimateHeight = estimate_height;
    mFov = video ? vertical_fov(upper, lower) : 0;
    maps_locked(width, height);
    maps_locked(estimate_width, estimate_height);
    mReady.store(true);
    return Lib::KIVO_OK;
}

int Stitcher::execute_image(const std::vector<const char *> &upper, const std::vector<const char *> &lower,
                            const char *output, const int *size, double *statistics, COMPOSE *how) const {
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
    // The decoded images own the pixels every matrix below shows. The
    // captures are decoded over OpenCV's threads, one capture each; the
    // first that fails, in the order given, is the result.
    std::vector<CAPTURE> captures[2];
    std::vector<std::pair<int, std::size_t>> all;
    for (int lens = 0; lens < 2; ++lens) {
        captures[lens].resize(paths[lens]->size());
        for (std::size_t i = 0; i < captures[lens].size(); ++i)
            all.emplace_back(lens, i);
    }
    std::vector<int> read(all.size(), Lib::KIVO_OK);
    cv::parallel_for_(cv::Range(0, static_cast<int>(all.size())), [&](const cv::Range &range) {
        for (int j = range.start; j < range.end; ++j) {
            const auto [lens, i] = all[std::size_t(j)];
            read[std::size_t(j)] = read_capture((*paths[lens])[i], *lenses[lens], captures[lens][i]);
        }
    });
    for (const int r : read)
        if (r != Lib::KIVO_OK)
            return r;
    for (int lens = 0; lens < 2; ++lens) {
        std::vector<cv::Mat> exposures;
        for (const CAPTURE &c : captures[lens])
            exposures.push_back(c.mPixels);
        fused[lens] = merge_exposures(exposures);
    }
    double difference = 0;
    const double gain = exposure_gain(fused[0], fused[1], difference);
    const std::shared_ptr<const PanoramaMaps> panorama = maps(size[0], size[1]);
    ORN::Image out(size[0], size[1], 3, ORN::ImageDepth::U8);
    cv::Mat pixels = ImageProc::mat(out);
    (how ? how : compose)(*panorama, fused[0], fused[1], gain, pixels);
    ORN::Buffer<unsigned char> bytes;
    if (!ORN::try_run([&] { bytes = ORN::Image::encode(lower_extension(output), out); }) || !write_whole(output, bytes))
        return Lib::KIVO_WRITE_FAILED;
    if (statistics != nullptr) {
        statistics[0] = gain;
        statistics[1] = difference;
    }
    return Lib::KIVO_OK;
}

double Stitcher::exposure_gain(const cv::Mat &upper, const cv::Mat &lower, double &difference) const {
    return match_exposure(*maps(mEstimateWidth, mEstimateHeight), upper, lower, difference);
}

int Stitcher::execute_video(const char *upper, const char *lower, const char *upper_short, const char *lower_short,
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
        // The frame size the stream's header claims is the lens's, checked
        // before any frame is decoded.
        if (s.mCapture.get(cv::CAP_PROP_FRAME_WIDTH) != s.mLens->mWidth ||
            s.mCapture.get(cv::CAP_PROP_FRAME_HEIGHT) != s.mLens->mHeight)
            return Lib::KIVO_INPUT_MISMATCH;
        streams.push_back(std::move(s));
    }
    double fps = streams[0].mCapture.get(cv::CAP_PROP_FPS);
    if (!(fps > 0))
        fps = DEFAULT_FPS;
    const std::shared_ptr<const PanoramaMaps> panorama = maps(mWidth, mHeight);

    // The writer opens the output's temporary file through a name of its
    // descriptor.
    zarn_backend::OutputFile file{fs::path(output)};
    const std::string named = file.descriptor_path();
    cv::VideoWriter writer;
    const auto discard = [&](int code) {
        writer.release();
        file.discard();
        return code;
    };
    if (named.empty() || !writer.open(named, cv::CAP_OPENCV_MJPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), fps,
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
        const cv::Mat up = merge_exposures(exposures[0]);
        const cv::Mat down = merge_exposures(exposures[1]);
        // One gain for the whole video, from its first frame, so the lower
        // half does not flicker.
        if (frames == 0) {
            double difference = 0;
            gain = match_exposure(*panorama, up, down, difference);
        }
        cv::Mat out(mHeight, mWidth, CV_8UC3);
        compose(*panorama, up, down, gain, out);
        writer.write(out);
        ++frames;
    }
    if (frames == 0)
        return discard(Lib::KIVO_BAD_INPUT);
    writer.release();
    if (!file.commit())
        return discard(Lib::KIVO_WRITE_FAILED);
    if (hdr_value != nullptr)
        *hdr_value = short_light > 0 ? normal_light / short_light : 1.0;
    if (fov != nullptr)
        *fov = mFov;
    return Lib::KIVO_OK;
}

void Stitcher::accumulate_ratio(const cv::Mat &normal, const cv::Mat &dim, const double *linear, double &normal_light,
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

std::shared_ptr<const PanoramaMaps> Stitcher::maps_locked(int width, int height) const {
    auto &slot = mMaps[{width, height}];
    if (!slot)
        slot = shared_tables<PanoramaMaps>(table_key(mUpper, mLower, width, height),
                                           [&] { return build_maps(mUpper, mLower, width, height); });
    return slot;
}

std::shared_ptr<const PanoramaMaps> Stitcher::maps(int width, int height) const {
    const std::lock_guard lock(mMutex);
    return maps_locked(width, height);
}

// ---------------------------------------------------------------------------
// Trace text.

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

} // namespace zarn_stitch
