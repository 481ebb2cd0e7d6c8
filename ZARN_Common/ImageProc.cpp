#include "ZARN_Common/ImageProc.h"

#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>

namespace ZARN {

using ORN::INDEX;
using ORN::String;

namespace {

constexpr double PI = std::numbers::pi;
constexpr INDEX LENS_TABLE_BYTES = 168;
// A table file is read whole only below this size.
constexpr INDEX LENS_TABLE_FILE_LIMIT = 4096;

// Little-endian fields, whatever the machine's order.
std::uint64_t load_le(const unsigned char *p, int bytes) {
    std::uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i)
        v = (v << 8) | p[i];
    return v;
}

void store_le(unsigned char *p, std::uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i, v >>= 8)
        p[i] = static_cast<unsigned char>(v & 0xff);
}

std::int32_t load_int(const unsigned char *p) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(load_le(p, 4)));
}
double load_double(const unsigned char *p) { return std::bit_cast<double>(load_le(p, 8)); }
void store_int(unsigned char *p, std::int32_t v) { store_le(p, static_cast<std::uint32_t>(v), 4); }
void store_double(unsigned char *p, double v) { store_le(p, std::bit_cast<std::uint64_t>(v), 8); }

// The double fields of a table in file order (fx .. max angle).
template <class TABLE>
auto double_fields(TABLE &t) {
    std::array<decltype(&t.mFx), 4 + 4 + 9 + 1> out{};
    int n = 0;
    for (auto *p : {&t.mFx, &t.mFy, &t.mCx, &t.mCy})
        out[n++] = p;
    for (auto &k : t.mK)
        out[n++] = &k;
    for (auto &r : t.mRotation)
        out[n++] = &r;
    out[n++] = &t.mMaxAngle;
    return out;
}

double distorted(const ImageProc::LENS_TABLE &lens, double theta) {
    const double t2 = theta * theta;
    return theta * (1 + t2 * (lens.mK[0] + t2 * (lens.mK[1] + t2 * (lens.mK[2] + t2 * lens.mK[3]))));
}

// d theta_d / d theta.
double distorted_slope(const ImageProc::LENS_TABLE &lens, double theta) {
    const double t2 = theta * theta;
    return 1 + t2 * (3 * lens.mK[0] + t2 * (5 * lens.mK[1] + t2 * (7 * lens.mK[2] + t2 * 9 * lens.mK[3])));
}

// The direction in the lens frame: R^T d.
void to_lens(const ImageProc::LENS_TABLE &lens, const double d[3], double out[3]) {
    const double *R = lens.mRotation;
    for (int i = 0; i < 3; ++i)
        out[i] = R[i] * d[0] + R[3 + i] * d[1] + R[6 + i] * d[2];
}

void report(std::string_view operation, const String<char> &path, const String<char> &reason) {
    ORN::console().error(operation, " : ", path, " : ", reason);
}

} // namespace

String<char> ImageProc::check_lens_table(const LENS_TABLE &t) {
    if (std::memcmp(t.mMagic, StitchLibrary::LENS_TABLE_MAGIC, sizeof(t.mMagic)) != 0)
        return "bad magic";
    if (t.mVersion != StitchLibrary::LENS_TABLE_VERSION)
        return "unknown version " + std::to_string(t.mVersion);
    if (t.mWidth < 1 || t.mWidth > ORN::Image::max_side() || t.mHeight < 1 || t.mHeight > ORN::Image::max_side())
        return "capture size out of range";
    if (t.mZero != 0)
        return "reserved field not zero";
    for (const double *v : double_fields(t))
        if (!std::isfinite(*v))
            return "a number is not finite";
    if (!(t.mFx > 0) || !(t.mFy > 0))
        return "focal length not positive";
    const double *R = t.mRotation;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            const double dot = R[3 * i] * R[3 * j] + R[3 * i + 1] * R[3 * j + 1] + R[3 * i + 2] * R[3 * j + 2];
            if (std::abs(dot - (i == j ? 1.0 : 0.0)) > 1e-6)
                return "rotation not orthonormal";
        }
    const double det = R[0] * (R[4] * R[8] - R[5] * R[7]) - R[1] * (R[3] * R[8] - R[5] * R[6]) +
                       R[2] * (R[3] * R[7] - R[4] * R[6]);
    if (det <= 0)
        return "rotation is a reflection";
    if (!(t.mMaxAngle > 0 && t.mMaxAngle <= 180))
        return "largest angle out of range";
    // Each angle must land on its own image radius.
    const double max_angle = t.mMaxAngle * PI / 180;
    for (int i = 0; i <= 256; ++i)
        if (distorted_slope(t, max_angle * i / 256) <= 0)
            return "distortion folds back before the largest angle";
    return {};
}

bool ImageProc::decode_lens_table(const unsigned char *bytes, INDEX size, LENS_TABLE &table, String<char> &reason) {
    if (bytes == nullptr || size != LENS_TABLE_BYTES) {
        reason = std::to_string(size) + " bytes, not " + std::to_string(LENS_TABLE_BYTES);
        return false;
    }
    LENS_TABLE t{};
    std::memcpy(t.mMagic, bytes, sizeof(t.mMagic));
    t.mVersion = load_int(bytes + 8);
    t.mWidth = load_int(bytes + 12);
    t.mHeight = load_int(bytes + 16);
    t.mZero = load_int(bytes + 20);
    const unsigned char *p = bytes + 24;
    for (double *v : double_fields(t)) {
        *v = load_double(p);
        p += 8;
    }
    reason = check_lens_table(t);
    if (!reason.empty())
        return false;
    table = t;
    return true;
}

ORN::Buffer<unsigned char> ImageProc::encode_lens_table(const LENS_TABLE &table) {
    ORN::Buffer<unsigned char> out(LENS_TABLE_BYTES);
    unsigned char *bytes = out.data();
    std::memcpy(bytes, table.mMagic, sizeof(table.mMagic));
    store_int(bytes + 8, table.mVersion);
    store_int(bytes + 12, table.mWidth);
    store_int(bytes + 16, table.mHeight);
    store_int(bytes + 20, table.mZero);
    unsigned char *p = bytes + 24;
    for (const double *v : double_fields(table)) {
        store_double(p, *v);
        p += 8;
    }
    return out;
}

ImageProc::LENS_TABLE ImageProc::read_lens_table(const String<char> &path) {
    const bool r1x = ORN::FileSystemProc::find_file(path);
    if (!r1x)
        report("read_lens_table", path, "no such file");
    _DYNAMIC_ASSERT_(r1x);
    const ORN::Buffer<unsigned char> r2x = ORN::FileSystemProc::load_file(path, LENS_TABLE_FILE_LIMIT);
    LENS_TABLE table{};
    String<char> reason;
    const bool r3x = decode_lens_table(r2x.data(), r2x.size(), table, reason);
    if (!r3x)
        report("read_lens_table", path, reason);
    _DYNAMIC_ASSERT_(r3x);
    return table;
}

void ImageProc::write_lens_table(const String<char> &path, const LENS_TABLE &table) {
    const String<char> reason = check_lens_table(table);
    if (!reason.empty())
        report("write_lens_table", path, reason);
    _DYNAMIC_ASSERT_(reason.empty ());
    ORN::FileSystemProc::save_file(path, encode_lens_table(table));
}

void ImageProc::panorama_direction(double u, double v, INDEX width, INDEX height, double direction[3]) {
    const double lon = 2 * PI * (u + 0.5) / double(width) - PI;
    const double lat = PI / 2 - PI * (v + 0.5) / double(height);
    const double c = std::cos(lat);
    direction[0] = c * std::sin(lon);
    direction[1] = -std::sin(lat);
    direction[2] = c * std::cos(lon);
}

void ImageProc::panorama_point(const double direction[3], INDEX width, INDEX height, double &u, double &v) {
    const double lon = std::atan2(direction[0], direction[2]);
    const double lat = std::atan2(-direction[1], std::hypot(direction[0], direction[2]));
    u = (lon + PI) / (2 * PI) * double(width) - 0.5;
    v = (PI / 2 - lat) / PI * double(height) - 0.5;
}

double ImageProc::lens_angle(const LENS_TABLE &lens, const double direction[3]) {
    double d[3];
    to_lens(lens, direction, d);
    return std::atan2(std::hypot(d[0], d[1]), d[2]);
}

bool ImageProc::lens_project(const LENS_TABLE &lens, const double direction[3], double &x, double &y) {
    double d[3];
    to_lens(lens, direction, d);
    const double rho = std::hypot(d[0], d[1]);
    const double theta = std::atan2(rho, d[2]);
    if (theta > lens.mMaxAngle * (PI / 180))
        return false;
    if (rho < 1e-300) {
        x = lens.mCx;
        y = lens.mCy;
        return true;
    }
    const double r = distorted(lens, theta) / rho;
    x = lens.mFx * r * d[0] + lens.mCx;
    y = lens.mFy * r * d[1] + lens.mCy;
    return true;
}

bool ImageProc::lens_unproject(const LENS_TABLE &lens, double x, double y, double direction[3]) {
    const double a = (x - lens.mCx) / lens.mFx;
    const double b = (y - lens.mCy) / lens.mFy;
    const double theta_d = std::hypot(a, b);
    const double max_angle = lens.mMaxAngle * (PI / 180);
    if (theta_d > distorted(lens, max_angle))
        return false;
    // theta_d grows with theta up to the largest angle (check_lens_table),
    // so Newton's steps from theta_d settle on the one root.
    double theta = std::min(theta_d, max_angle);
    for (int i = 0; i < 20; ++i) {
        const double step = (distorted(lens, theta) - theta_d) / distorted_slope(lens, theta);
        theta = std::clamp(theta - step, 0.0, max_angle);
        if (std::abs(step) < 1e-14)
            break;
    }
    double d[3] = {0, 0, 1};
    if (theta_d > 0) {
        const double s = std::sin(theta) / theta_d;
        d[0] = s * a;
        d[1] = s * b;
        d[2] = std::cos(theta);
    }
    const double *R = lens.mRotation;
    for (int i = 0; i < 3; ++i)
        direction[i] = R[3 * i] * d[0] + R[3 * i + 1] * d[1] + R[3 * i + 2] * d[2];
    return true;
}

double ImageProc::lens_margin(const LENS_TABLE &lens, const double direction[3], double *x, double *y) {
    double d[3];
    to_lens(lens, direction, d);
    const double rho = std::hypot(d[0], d[1]);
    const double theta = std::atan2(rho, d[2]);
    const double angle = lens.mMaxAngle * (PI / 180) - theta;
    if (angle < 0)
        return angle;
    double px = lens.mCx, py = lens.mCy;
    if (rho >= 1e-300) {
        const double r = distorted(lens, theta) / rho;
        px += lens.mFx * r * d[0];
        py += lens.mFy * r * d[1];
    }
    if (x != nullptr && y != nullptr) {
        *x = px;
        *y = py;
    }
    const double border = std::min(std::min(px, lens.mWidth - 1 - px), std::min(py, lens.mHeight - 1 - py));
    return std::min(angle, border * 2 / (lens.mFx + lens.mFy));
}

ORN::Image ImageProc::lens_coverage(const LENS_TABLE &lens, INDEX width, INDEX height) {
    ORN::Image mask(width, height, 1, ORN::ImageDepth::U8);
    for (INDEX v = 0; v < height; ++v) {
        unsigned char *row = mask.row<unsigned char>(v);
        for (INDEX u = 0; u < width; ++u) {
            double d[3];
            panorama_direction(double(u), double(v), width, height, d);
            row[u] = lens_margin(lens, d) > 0 ? 255 : 0;
        }
    }
    return mask;
}

double ImageProc::psnr(const ORN::Image &a, const ORN::Image &b, const ORN::Image &mask) {
    const bool r1x = a.same_layout(b) && a.depth() == ORN::ImageDepth::U8;
    if (!r1x)
        report("psnr", a.layout() + " / " + b.layout(), "needs two 8-bit images of one layout");
    _DYNAMIC_ASSERT_(r1x);
    const bool r2x = mask.empty() || (mask.width() == a.width() && mask.height() == a.height() &&
                                      mask.channels() == 1 && mask.depth() == ORN::ImageDepth::U8);
    if (!r2x)
        report("psnr", mask.layout(), "the mask is not one 8-bit channel of the images' size");
    _DYNAMIC_ASSERT_(r2x);
    const INDEX values = a.width() * a.channels();
    double sum = 0;
    INDEX count = 0;
    for (INDEX y = 0; y < a.height(); ++y) {
        const unsigned char *pa = a.row<unsigned char>(y);
        const unsigned char *pb = b.row<unsigned char>(y);
        const unsigned char *pm = mask.empty() ? nullptr : mask.row<unsigned char>(y);
        for (INDEX i = 0; i < values; ++i) {
            if (pm != nullptr && pm[i / a.channels()] == 0)
                continue;
            const double d = double(pa[i]) - double(pb[i]);
            sum += d * d;
            ++count;
        }
    }
    if (count == 0)
        return std::numeric_limits<double>::quiet_NaN();
    if (sum == 0)
        return std::numeric_limits<double>::infinity();
    return 10 * std::log10(255.0 * 255.0 * double(count) / sum);
}

cv::Mat ImageProc::mat(const ORN::Image &image) {
    if (image.empty())
        return cv::Mat();
    constexpr int depths[] = {CV_8U, CV_16U, CV_32F, CV_64F};
    const int type = CV_MAKETYPE(depths[static_cast<int>(image.depth())], static_cast<int>(image.channels()));
    return cv::Mat(static_cast<int>(image.height()), static_cast<int>(image.width()), type,
                   const_cast<unsigned char *>(image.data()), static_cast<std::size_t>(image.step()));
}

ORN::Image ImageProc::image(const cv::Mat &matrix) {
    if (matrix.empty())
        return ORN::Image();
    ORN::ImageDepth depth = ORN::ImageDepth::U8;
    switch (matrix.depth()) {
    case CV_8U:
        break;
    case CV_16U:
        depth = ORN::ImageDepth::U16;
        break;
    case CV_32F:
        depth = ORN::ImageDepth::F32;
        break;
    case CV_64F:
        depth = ORN::ImageDepth::F64;
        break;
    default:
        report("image", std::to_string(matrix.cols) + "x" + std::to_string(matrix.rows), "unsupported channel depth");
        _DYNAMIC_ASSERT_(false);
    }
    ORN::Image out(matrix.cols, matrix.rows, matrix.channels(), depth);
    cv::Mat target = mat(out);
    matrix.copyTo(target);
    return out;
}

} // namespace ZARN
