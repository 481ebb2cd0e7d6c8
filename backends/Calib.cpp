// Reference stand-in for the closed calibration library "libCalib.so", with
// the C interface of ZARN_Common/CalibLibrary.h (see there, and
// docs/BACKENDS.md, for every entry, argument and result code). Each entry
// starts with the trace and fault injection of backend_support.h; a handed
// path is used as given (absolute, relative to the current directory, or a
// "/proc/self/fd/N" of the module's), while the chessboard views, which the
// library finds itself, are reached from the job without links.
// Outputs go to "caches/calib_result/" of the job (made without following
// links): each entry writes all its files to exclusive temporary files first
// (backend_support.h) and renames them into place only when every one is
// written, so a failed call leaves no file that passes for a result (and a
// file published earlier as a hard link keeps its content).
//
// --- run_calib_main (working_path, target)
//
// `target` describes the chessboard in a text file: blank lines and text
// after '#' are ignored, and one line remains,
//
//     chessboard <inner corners across> <inner corners down> <square side, mm>
//
// with 2..64 corners each way, one count even and the other odd (the board
// then has one black and one white outer corner square, which orders its
// corners unambiguously), and a positive side. Anything else, or no such
// file, is CALIB_BAD_TARGET.
//
// The views are "caches/calibration/up_<name>.<ext>" (upper lens) and
// "down_<name>.<ext>" (lower lens), ext png, jpg or jpeg in any case, read
// in name order; views of one lens must share one size (else
// CALIB_BAD_INPUT, as for a file that does not decode). The board is looked
// for in each (calib_lens.h); a lens with fewer than 3 views where it is
// found whole, or no moment at which both lenses found it, is
// CALIB_NO_VIEWS; a calibration that fails or leaves a reprojection error
// (RMS) above 1 pixel is CALIB_NOT_CONVERGED.
//
// Each lens is calibrated with the fisheye model of the lens tables
// (calib_lens.h). The rotation and translation from the upper lens's frame
// to the lower's (X_lower = R X_upper + T, millimetres) are fitted to the
// moments both lenses saw the board (an RMS above 1 pixel there is
// CALIB_NOT_CONVERGED too). The upper lens is
// taken to look straight up (lens x east, y north); the lower lens's
// orientation follows from it and the rotation. The angle of view of each
// lens is measured on its image circle. Written into caches/calib_result/:
//
//   Up.xml, Down.xml   OpenCV FileStorage: lens ("up" / "down"), image_width,
//                      image_height, camera_matrix (3 x 3), distortion_
//                      coefficients (4 x 1: k1..k4), rms (pixels), views
//                      (how many were used), max_angle (degrees)
//   Up2.xml            OpenCV FileStorage: R (3 x 3), T (3 x 1, mm) from the
//                      upper to the lower lens, views (moments used), rms
//                      (pixels: the reprojection error of both lenses'
//                      corners at those moments)
//   tablea.bin         the upper lens's table (StitchLibrary.h)
//   tableb.bin         the lower lens's table
//   tablea2.bin        the upper lens's table for frames of half the size:
//                      capture width and height halved (rounded down), fx,
//                      fy halved, cx' = (cx + 0.5) / 2 - 0.5 (and cy), since
//                      pixel centres lie at whole numbers
//   up.jpg, down.jpg   the two views of the first moment (in name order)
//                      both lenses saw the board, each resampled with its
//                      lens's table into its half of an equirectangular
//                      panorama: twice the capture's width wide, a quarter
//                      of that high, the upper lens from the zenith down to
//                      the horizon, the lower from the horizon down to the
//                      nadir (one above the other, the board continues
//                      across the seam)
//   sfm_init.json      the rig for the reconstruction:
//                      {"version":1,"unit":"mm","lenses":[LENS,LENS]}, upper
//                      lens first, LENS = {"name":"up"|"down","width":W,
//                      "height":H,"K":[9, row-major],"D":[k1,k2,k3,k4],
//                      "R":[9, row-major, lens to rig as in the table],
//                      "centre":[3, the lens's centre in the rig's frame,
//                      mm; the upper lens's is 0],"rms":px,"max_angle":deg}
//   sfm_init.bin       the same numbers as little-endian doubles: the lens
//                      count (2), then per lens (upper, lower) width, height,
//                      K (9), D (4), R (9), centre (3), rms, max_angle:
//                      1 + 2 x 29 doubles, 472 bytes
//
// --- run_analysis_main (src1, src2, src3, src4, working_path, count)
//
// The first `count` (1..4) sources are captures of the 24-patch colour
// chart (layout in calib_colour.h). The chart is found in each capture
// where it shows and the linear means of its patches are averaged over
// those captures; no chart in any capture is CALIB_NO_CHART (as is a chart
// with fewer than four usable patches). The colour correction matrix M
// (linear camera RGB to linear sRGB) is the least-squares fit of the
// patches to their published values with the white patch met exactly
// (the brightest neutral patch that is not clipped, when white is);
// clipped patches take no part. Written:
//
//   colorCalibrate.txt  text, one record per line, numbers in fixed notation:
//       # comment lines
//       matrix m00 m01 m02 m10 m11 m12 m20 m21 m22
//       captures <how many captures showed the chart>
//       anchor <patch number 1..24 met exactly>
//       patch <1..24> <name> <camera R G B, linear> <dE2000 before> <after> <used 0|1>
//       ...                                                  (24 lines)
//       mean <mean dE2000 before> <after>
//       max <largest dE2000 before> <after>
//     "before" compares the measured colour, scaled so that the anchor's
//     luminance is its reference's (the exposure alone), "after" M times
//     the measured colour; both against the published sRGB values, CIE Lab
//     under D65.
//   colorCalibrate.jpg  the chart of the first capture that shows it,
//                      straightened to 48 pixels per patch side, as captured
//                      (left) and corrected (right, sRGB)
//
// --- run_shading_main (src1, src2, src3, src4, working_path, count, grid)
//
// The first `count` sources are captures of a flat white field, one size.
// A capture with more than 2 % of its pixels at 255 in some channel, or a
// field whose brightest cell averages below 16 grey levels, is
// CALIB_SATURATED. The captures' grey levels (mean of the channels) are
// averaged and each cell of `grid` (4..256) pixels gets the gain that lifts
// its mean to the brightest cell's (calib_colour.h); gains apply to pixel
// values as stored. Written: shadingCalibrate (format in CalibLibrary.h).
//
// Unexpected failures inside an entry (memory, OpenCV) give the stage's
// own failure: CALIB_NOT_CONVERGED, CALIB_NO_CHART, CALIB_SATURATED.

#include "backend_support.h"
#include "calib_colour.h"
#include "calib_lens.h"

#include "ZARN_Common/CalibLibrary.h"
#include "ZARN_Common/ImageProc.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <numbers>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Lib = ZARN::CalibLibrary;
namespace fs = std::filesystem;
using ZARN::ImageProc;
using zarn_calib::BOARD;
using zarn_calib::LENS;
using zarn_calib::VIEW;

namespace {

constexpr double PI = std::numbers::pi;
constexpr double MAX_RMS = 1.0;          // pixels
constexpr std::uintmax_t TARGET_LIMIT = 65536; // bytes of the target description
constexpr std::size_t IMAGE_LIMIT = std::size_t(1) << 30; // bytes of an image file
constexpr int MIN_VIEWS = 3;
constexpr std::string_view VIEWS = "caches/calibration"; // of the job
constexpr double SATURATED_SHARE = 0.02;
constexpr double DARKEST_FIELD = 16; // grey levels
constexpr int JPEG_QUALITY = 95;
constexpr int CHART_PREVIEW_PATCH = 48; // pixels per patch side
// The upper lens looks up: lens x east, y north, z up (the panorama's -y).
constexpr double UPPER_ORIENTATION[9] = {1, 0, 0, 0, 0, -1, 0, 1, 0};

bool given(const char *text) { return text != nullptr && *text != '\0'; }
std::string text(const char *s) { return s ? std::string(s) : std::string(); }

// --- Little-endian fields.

void put_le(std::string &out, std::uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i, v >>= 8)
        out.push_back(static_cast<char>(v & 0xff));
}
void put_int(std::string &out, std::int32_t v) { put_le(out, static_cast<std::uint32_t>(v), 4); }
void put_float(std::string &out, float v) { put_le(out, std::bit_cast<std::uint32_t>(v), 4); }
void put_double(std::string &out, double v) { put_le(out, std::bit_cast<std::uint64_t>(v), 8); }

// Fixed-point text of a number, whatever the locale.
std::string fixed(double value, int digits) {
    if (std::abs(value) < 0.5 * std::pow(10.0, -digits))
        value = 0; // no "-0.000"
    char buffer[64];
    const auto r = std::to_chars(buffer, buffer + sizeof(buffer), value, std::chars_format::fixed, digits);
    return std::string(buffer, r.ptr);
}

// --- The outputs of one call, all or nothing.

class Outputs {
public:
    explicit Outputs(const char *working_path) : mWorkingPath(working_path) {}

    void add(const std::string &name, std::string bytes) {
        if (!zarn_backend::injected_omission(name))
            mFiles.emplace_back(name, std::move(bytes));
    }

    // Writes every file to its own temporary file in caches/calib_result/
    // of the job (made as a real directory when missing), then renames them
    // all into place; on any failure removes what it wrote and gives
    // CALIB_WRITE_FAILED.
    int commit() {
        const zarn_backend::Descriptor job = zarn_backend::open_directory(mWorkingPath, true);
        const zarn_backend::Descriptor directory =
            job ? zarn_backend::open_directory_at(job.get(), "caches/calib_result", true) : zarn_backend::Descriptor();
        if (!directory)
            return Lib::CALIB_WRITE_FAILED;
        std::vector<std::unique_ptr<zarn_backend::OutputFile>> files;
        for (const auto &[name, bytes] : mFiles) {
            files.push_back(std::make_unique<zarn_backend::OutputFile>(directory.get(), name));
            if (!files.back()->write(bytes.data(), bytes.size()) || !files.back()->finish())
                return Lib::CALIB_WRITE_FAILED;
        }
        for (const auto &file : files)
            if (!file->commit())
                return Lib::CALIB_WRITE_FAILED;
        return Lib::CALIB_OK;
    }

private:
    fs::path mWorkingPath;
    std::vector<std::pair<std::string, std::string>> mFiles;
};

// --- Images.

// Decodes the bytes of an image file (8-bit grey or blue-green-red); false
// when they do not decode.
bool decode_image(const std::vector<unsigned char> &bytes, ORN::ImageReadMode mode, cv::Mat &out) {
    ORN::Image image;
    if (bytes.empty() || !ORN::try_run([&] {
            image = ORN::Image::decode(bytes.data(), static_cast<ORN::INDEX>(bytes.size()), mode);
        }))
        return false;
    out = ImageProc::mat(image).clone();
    return !out.empty();
}

// An image the module handed (a capture); false when it is missing, not a
// regular file or does not decode.
bool read_image(const fs::path &path, ORN::ImageReadMode mode, cv::Mat &out) {
    std::vector<unsigned char> bytes;
    return zarn_backend::read_path(path, bytes, IMAGE_LIMIT) && decode_image(bytes, mode, out);
}

// An image the library finds in the job by itself, reached from the job's
// directory without links.
bool read_image_at(int job, const std::string &relative, ORN::ImageReadMode mode, cv::Mat &out) {
    std::vector<unsigned char> bytes;
    const zarn_backend::Descriptor file = zarn_backend::open_file_at(job, relative);
    return file && zarn_backend::read_all(file.get(), bytes, IMAGE_LIMIT) && decode_image(bytes, mode, out);
}

std::string encode_jpeg(const cv::Mat &image) {
    std::vector<unsigned char> bytes;
    cv::imencode(".jpg", image, bytes, {cv::IMWRITE_JPEG_QUALITY, JPEG_QUALITY});
    return std::string(bytes.begin(), bytes.end());
}

// ---------------------------------------------------------------------------
// Camera calibration.

std::vector<std::string> words(const std::string &line) {
    std::vector<std::string> out;
    std::istringstream in(line);
    for (std::string w; in >> w;)
        out.push_back(w);
    return out;
}

template <class T>
bool number(const std::string &word, T &value) {
    const auto r = std::from_chars(word.data(), word.data() + word.size(), value);
    return r.ec == std::errc() && r.ptr == word.data() + word.size();
}

int read_target(const char *path, BOARD &board) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec) || fs::file_size(path, ec) > TARGET_LIMIT || ec)
        return Lib::CALIB_BAD_TARGET;
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return Lib::CALIB_BAD_TARGET;
    std::vector<std::vector<std::string>> lines;
    for (std::string line; std::getline(in, line);) {
        if (const auto hash = line.find('#'); hash != std::string::npos)
            line.erase(hash);
        std::vector<std::string> w = words(line);
        if (!w.empty())
            lines.push_back(std::move(w));
    }
    if (lines.size() != 1 || lines[0].size() != 4 || lines[0][0] != "chessboard")
        return Lib::CALIB_BAD_TARGET;
    BOARD b;
    if (!number(lines[0][1], b.mColumns) || !number(lines[0][2], b.mRows) || !number(lines[0][3], b.mSquare))
        return Lib::CALIB_BAD_TARGET;
    if (b.mColumns < 2 || b.mColumns > 64 || b.mRows < 2 || b.mRows > 64 || (b.mColumns + b.mRows) % 2 == 0 ||
        !(b.mSquare > 0) || !std::isfinite(b.mSquare))
        return Lib::CALIB_BAD_TARGET;
    board = b;
    return Lib::CALIB_OK;
}

struct VIEW_FILE {
    std::string mName;     // after the prefix, without the extension
    std::string mRelative; // "caches/calibration/<file>"
};

// The views of one lens, in file-name order; of several files with one
// name (up_01.png, up_01.jpg) the first counts. Only regular files reached
// from the job without links count.
std::vector<VIEW_FILE> view_files(int job, const std::string &prefix) {
    std::vector<std::string> found;
    for (const std::string &file : zarn_backend::list_files_at(job, VIEWS)) {
        std::string ext = fs::path(file).extension().string();
        std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (file.rfind(prefix, 0) == 0 && (ext == ".png" || ext == ".jpg" || ext == ".jpeg"))
            found.push_back(file);
    }
    std::vector<VIEW_FILE> out;
    for (const std::string &file : found) {
        const std::string name = fs::path(file).stem().string().substr(prefix.size());
        if (std::none_of(out.begin(), out.end(), [&](const VIEW_FILE &v) { return v.mName == name; }))
            out.push_back({name, std::string(VIEWS) + "/" + file});
    }
    return out;
}

struct LENS_RESULT {
    LENS mLens;
    std::vector<VIEW> mViews;
    double mRms = 0;
    double mMaxAngle = 0;
    std::vector<std::string> mFiles; // of mViews, relative to the job
};

int calibrate_lens(int job, const std::vector<VIEW_FILE> &files, const BOARD &board, LENS_RESULT &out) {
    cv::Mat brightest;
    for (const VIEW_FILE &f : files) {
        cv::Mat grey;
        if (!read_image_at(job, f.mRelative, ORN::ImageReadMode::GRAY, grey))
            return Lib::CALIB_BAD_INPUT;
        if (brightest.empty())
            brightest = grey.clone();
        else if (grey.size() != brightest.size())
            return Lib::CALIB_BAD_INPUT;
        else
            cv::max(brightest, grey, brightest);
        VIEW view;
        view.mName = f.mName;
        if (zarn_calib::find_corners(grey, board, view.mCorners)) {
            out.mViews.push_back(std::move(view));
            out.mFiles.push_back(f.mRelative);
        }
    }
    if (static_cast<int>(out.mViews.size()) < MIN_VIEWS)
        return Lib::CALIB_NO_VIEWS;
    out.mRms = zarn_calib::calibrate(board, brightest.cols, brightest.rows, out.mViews, out.mLens);
    if (!(out.mRms >= 0) || out.mRms > MAX_RMS)
        return Lib::CALIB_NOT_CONVERGED;
    out.mMaxAngle = zarn_calib::image_circle_angle(out.mLens, brightest);
    if (!(out.mMaxAngle > 0))
        return Lib::CALIB_NOT_CONVERGED;
    return Lib::CALIB_OK;
}

ImageProc::LENS_TABLE table_of(const LENS &lens, const cv::Matx33d &R, double max_angle) {
    ImageProc::LENS_TABLE t{};
    std::memcpy(t.mMagic, ZARN::StitchLibrary::LENS_TABLE_MAGIC, sizeof(t.mMagic));
    t.mVersion = ZARN::StitchLibrary::LENS_TABLE_VERSION;
    t.mWidth = lens.mWidth;
    t.mHeight = lens.mHeight;
    t.mFx = lens.mFx, t.mFy = lens.mFy, t.mCx = lens.mCx, t.mCy = lens.mCy;
    std::copy(std::begin(lens.mK), std::end(lens.mK), t.mK);
    for (int i = 0; i < 9; ++i)
        t.mRotation[i] = R.val[i];
    t.mMaxAngle = max_angle;
    return t;
}

std::string table_bytes(const ImageProc::LENS_TABLE &t) {
    const ORN::Buffer<unsigned char> bytes = ImageProc::encode_lens_table(t);
    return std::string(reinterpret_cast<const char *>(bytes.data()), static_cast<std::size_t>(bytes.size()));
}

// The lens's half of an equirectangular panorama, resampled from a view.
cv::Mat hemisphere(const ImageProc::LENS_TABLE &t, const cv::Mat &view, bool upper) {
    const int width = 2 * t.mWidth, height = std::max(1, width / 4);
    cv::Mat map_x(height, width, CV_32F), map_y(height, width, CV_32F);
    for (int v = 0; v < height; ++v)
        for (int u = 0; u < width; ++u) {
            const double lon = 2 * PI * (u + 0.5) / width - PI;
            const double lat = upper ? PI / 2 - PI / 2 * (v + 0.5) / height : -PI / 2 * (v + 0.5) / height;
            const double d[3] = {std::cos(lat) * std::sin(lon), -std::sin(lat), std::cos(lat) * std::cos(lon)};
            double x = -1, y = -1;
            if (!ImageProc::lens_project(t, d, x, y))
                x = y = -1;
            map_x.at<float>(v, u) = static_cast<float>(x);
            map_y.at<float>(v, u) = static_cast<float>(y);
        }
    cv::Mat out;
    cv::remap(view, out, map_x, map_y, cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
    return out;
}

std::string lens_xml(const char *name, const LENS_RESULT &r) {
    cv::FileStorage fs("lens.xml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
    const LENS &l = r.mLens;
    fs << "lens" << name;
    fs << "image_width" << l.mWidth << "image_height" << l.mHeight;
    fs << "camera_matrix" << cv::Mat(cv::Matx33d(l.mFx, 0, l.mCx, 0, l.mFy, l.mCy, 0, 0, 1));
    fs << "distortion_coefficients" << cv::Mat(cv::Vec4d(l.mK[0], l.mK[1], l.mK[2], l.mK[3]));
    fs << "rms" << r.mRms << "views" << static_cast<int>(r.mViews.size()) << "max_angle" << r.mMaxAngle;
    return fs.releaseAndGetString();
}

void json_numbers(std::string &out, const double *values, int count) {
    out += '[';
    for (int i = 0; i < count; ++i) {
        if (i)
            out += ',';
        out += zarn_backend::number_text(values[i]);
    }
    out += ']';
}

// One lens of the rig, in the order of sfm_init.bin.
struct RIG_LENS {
    const char *mName;
    const LENS_RESULT *mResult;
    cv::Matx33d mR;
    cv::Vec3d mCentre;

    std::vector<double> numbers() const {
        const LENS &l = mResult->mLens;
        std::vector<double> n = {double(l.mWidth), double(l.mHeight), l.mFx, 0, l.mCx, 0, l.mFy, l.mCy, 0, 0, 1};
        n.insert(n.end(), std::begin(l.mK), std::end(l.mK));
        n.insert(n.end(), mR.val, mR.val + 9);
        n.insert(n.end(), mCentre.val, mCentre.val + 3);
        n.push_back(mResult->mRms);
        n.push_back(mResult->mMaxAngle);
        return n;
    }
};

std::string rig_json(const std::vector<RIG_LENS> &lenses) {
    std::string out = "{\"version\":1,\"unit\":\"mm\",\"lenses\":[";
    for (std::size_t i = 0; i < lenses.size(); ++i) {
        const std::vector<double> n = lenses[i].numbers();
        if (i)
            out += ',';
        out += "{\"name\":" + zarn_backend::json_string(lenses[i].mName);
        out += ",\"width\":" + zarn_backend::number_text(n[0]);
        out += ",\"height\":" + zarn_backend::number_text(n[1]);
        out += ",\"K\":";
        json_numbers(out, n.data() + 2, 9);
        out += ",\"D\":";
        json_numbers(out, n.data() + 11, 4);
        out += ",\"R\":";
        json_numbers(out, n.data() + 15, 9);
        out += ",\"centre\":";
        json_numbers(out, n.data() + 24, 3);
        out += ",\"rms\":" + zarn_backend::number_text(n[27]);
        out += ",\"max_angle\":" + zarn_backend::number_text(n[28]) + "}";
    }
    return out + "]}";
}

std::string rig_bin(const std::vector<RIG_LENS> &lenses) {
    std::string out;
    put_double(out, static_cast<double>(lenses.size()));
    for (const RIG_LENS &l : lenses)
        for (double v : l.numbers())
            put_double(out, v);
    return out;
}

int calib_main(const char *working_path, const char *target) {
    BOARD board;
    if (const int r = read_target(target, board); r != Lib::CALIB_OK)
        return r;
    const zarn_backend::Descriptor job = zarn_backend::open_directory(working_path, true);
    if (!job)
        return Lib::CALIB_NO_VIEWS;
    LENS_RESULT up, down;
    if (const int r = calibrate_lens(job.get(), view_files(job.get(), "up_"), board, up); r != Lib::CALIB_OK)
        return r;
    if (const int r = calibrate_lens(job.get(), view_files(job.get(), "down_"), board, down); r != Lib::CALIB_OK)
        return r;
    cv::Matx33d R;
    cv::Vec3d T;
    int shared = 0;
    const double pair_rms = zarn_calib::relative_pose(board, up.mLens, up.mViews, down.mLens, down.mViews, R, T, shared);
    if (shared == 0)
        return Lib::CALIB_NO_VIEWS;
    if (!(pair_rms >= 0) || pair_rms > MAX_RMS)
        return Lib::CALIB_NOT_CONVERGED;

    const cv::Matx33d upper(UPPER_ORIENTATION);
    const cv::Matx33d lower = upper * R.t();
    const ImageProc::LENS_TABLE table_up = table_of(up.mLens, upper, up.mMaxAngle);
    const ImageProc::LENS_TABLE table_down = table_of(down.mLens, lower, down.mMaxAngle);
    LENS half = up.mLens;
    half.mWidth = up.mLens.mWidth / 2, half.mHeight = up.mLens.mHeight / 2;
    half.mFx /= 2, half.mFy /= 2;
    half.mCx = (up.mLens.mCx + 0.5) / 2 - 0.5, half.mCy = (up.mLens.mCy + 0.5) / 2 - 0.5;
    const ImageProc::LENS_TABLE table_half = table_of(half, upper, up.mMaxAngle);
    for (const auto *t : {&table_up, &table_down, &table_half})
        if (!ImageProc::check_lens_table(*t).empty())
            return Lib::CALIB_NOT_CONVERGED;

    // The previews show the first moment both lenses saw the board.
    std::size_t first_up = 0, first_down = 0;
    [&] {
        for (std::size_t i = 0; i < up.mViews.size(); ++i)
            for (std::size_t j = 0; j < down.mViews.size(); ++j)
                if (up.mViews[i].mName == down.mViews[j].mName) {
                    first_up = i, first_down = j;
                    return;
                }
    }();
    cv::Mat preview_up, preview_down;
    if (!read_image_at(job.get(), up.mFiles[first_up], ORN::ImageReadMode::COLOR, preview_up) ||
        !read_image_at(job.get(), down.mFiles[first_down], ORN::ImageReadMode::COLOR, preview_down))
        return Lib::CALIB_BAD_INPUT;

    cv::FileStorage pair("Up2.xml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
    pair << "R" << cv::Mat(R) << "T" << cv::Mat(T) << "views" << shared << "rms" << pair_rms;

    const std::vector<RIG_LENS> rig = {
        {"up", &up, upper, cv::Vec3d(0, 0, 0)},
        {"down", &down, lower, upper * (-(R.t() * T))},
    };
    Outputs outputs(working_path);
    outputs.add("down.jpg", encode_jpeg(hemisphere(table_down, preview_down, false)));
    outputs.add("up.jpg", encode_jpeg(hemisphere(table_up, preview_up, true)));
    outputs.add("Down.xml", lens_xml("down", down));
    outputs.add("Up.xml", lens_xml("up", up));
    outputs.add("Up2.xml", pair.releaseAndGetString());
    outputs.add("tablea.bin", table_bytes(table_up));
    outputs.add("tablea2.bin", table_bytes(table_half));
    outputs.add("tableb.bin", table_bytes(table_down));
    outputs.add("sfm_init.bin", rig_bin(rig));
    outputs.add("sfm_init.json", rig_json(rig));
    return outputs.commit();
}

// ---------------------------------------------------------------------------
// Colour analysis and shading.

// The first `count` sources, checked: CALIB_BAD_ARGUMENT when a count is out
// of range or a source is missing from the list.
int sources(const char *const (&src)[4], int count, std::vector<fs::path> &out) {
    if (count < 1 || count > 4)
        return Lib::CALIB_BAD_ARGUMENT;
    for (int i = 0; i < count; ++i) {
        if (!given(src[i]))
            return Lib::CALIB_BAD_ARGUMENT;
        out.emplace_back(src[i]);
    }
    return Lib::CALIB_OK;
}

// Linear light of each grey level of a capture.
std::array<double, 256> capture_linear() {
    std::array<double, 256> out{};
    for (int v = 0; v < 256; ++v)
        out[static_cast<std::size_t>(v)] = std::pow(v / 255.0, ImageProc::capture_gamma());
    return out;
}

// The chart of a capture straightened, as captured and corrected side by side.
cv::Mat chart_preview(const cv::Mat &capture, const zarn_calib::CHART_PLACE &place, const cv::Matx33d &M) {
    const int P = CHART_PREVIEW_PATCH;
    const int w = static_cast<int>(std::lround(zarn_calib::CHART_WIDTH * P));
    const int h = static_cast<int>(std::lround(zarn_calib::CHART_HEIGHT * P));
    // Preview pixel (x, y) shows chart point ((x + 0.5) / P, (y + 0.5) / P).
    const cv::Matx33d scale(1.0 / P, 0, 0.5 / P, 0, 1.0 / P, 0.5 / P, 0, 0, 1);
    const cv::Matx23d to_capture = place.mToImage * scale;
    cv::Mat raw;
    cv::warpAffine(capture, raw, to_capture, cv::Size(w, h), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                   cv::BORDER_REPLICATE);
    const std::array<double, 256> linear = capture_linear();
    cv::Mat corrected(raw.size(), CV_8UC3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const cv::Vec3b v = raw.at<cv::Vec3b>(y, x);
            const cv::Vec3d rgb(linear[v[2]], linear[v[1]], linear[v[0]]);
            const cv::Vec3d out = M * rgb;
            cv::Vec3b &o = corrected.at<cv::Vec3b>(y, x);
            for (int c = 0; c < 3; ++c)
                o[2 - c] = cv::saturate_cast<unsigned char>(zarn_calib::linear_to_srgb(std::clamp(out[c], 0.0, 1.0)));
        }
    constexpr int gap = 8;
    cv::Mat canvas(h, 2 * w + gap, CV_8UC3, cv::Scalar::all(128));
    raw.copyTo(canvas(cv::Rect(0, 0, w, h)));
    corrected.copyTo(canvas(cv::Rect(w + gap, 0, w, h)));
    return canvas;
}

int analysis_main(const char *const (&src)[4], const char *working_path, int count) {
    std::vector<fs::path> paths;
    if (const int r = sources(src, count, paths); r != Lib::CALIB_OK)
        return r;
    std::array<zarn_calib::RGB, zarn_calib::PATCHES> means{};
    std::array<bool, zarn_calib::PATCHES> clipped{};
    int found = 0;
    cv::Mat first;
    zarn_calib::CHART_PLACE first_place;
    for (const fs::path &p : paths) {
        cv::Mat capture;
        if (!read_image(p, ORN::ImageReadMode::COLOR, capture))
            return Lib::CALIB_BAD_INPUT;
        const auto reading = zarn_calib::read_chart(capture);
        if (!reading)
            continue;
        if (found++ == 0) {
            first = capture;
            first_place = reading->mPlace;
        }
        for (std::size_t i = 0; i < means.size(); ++i) {
            for (int c = 0; c < 3; ++c)
                means[i][static_cast<std::size_t>(c)] += reading->mMeans[i][static_cast<std::size_t>(c)];
            clipped[i] = clipped[i] || reading->mClipped[i];
        }
    }
    if (found == 0)
        return Lib::CALIB_NO_CHART;
    for (auto &m : means)
        for (double &c : m)
            c /= found;
    // White, or the brightest neutral patch that is not clipped.
    int anchor = zarn_calib::WHITE_PATCH;
    while (anchor < zarn_calib::PATCHES && clipped[static_cast<std::size_t>(anchor)])
        ++anchor;
    cv::Matx33d M;
    if (anchor == zarn_calib::PATCHES || !zarn_calib::fit_correction(means, clipped, anchor, M))
        return Lib::CALIB_NO_CHART;

    zarn_calib::RGB reference[zarn_calib::PATCHES];
    for (int p = 0; p < zarn_calib::PATCHES; ++p)
        for (int c = 0; c < 3; ++c)
            reference[p][static_cast<std::size_t>(c)] = zarn_calib::srgb_to_linear(zarn_calib::REFERENCE_SRGB[p][c]);
    const auto luminance = [](const zarn_calib::RGB &c) { return 0.2126729 * c[0] + 0.7151522 * c[1] + 0.0721750 * c[2]; };
    const double exposure = luminance(reference[anchor]) / luminance(means[static_cast<std::size_t>(anchor)]);
    std::string txt = "# colour correction of the 24-patch chart: linear sRGB = matrix x camera RGB (linear)\n"
                      "# patch <number> <name> <camera R G B> <dE2000 before> <dE2000 after> <used in the fit>\n";
    const auto put = [&txt](std::initializer_list<std::string_view> words) {
        for (std::size_t i = 0; i < words.size(); ++i) {
            if (i)
                txt += ' ';
            txt += words.begin()[i];
        }
        txt += '\n';
    };
    put({"matrix", fixed(M.val[0], 6), fixed(M.val[1], 6), fixed(M.val[2], 6), fixed(M.val[3], 6), fixed(M.val[4], 6),
         fixed(M.val[5], 6), fixed(M.val[6], 6), fixed(M.val[7], 6), fixed(M.val[8], 6)});
    put({"captures", std::to_string(found)});
    put({"anchor", std::to_string(anchor + 1)});
    double sum_before = 0, sum_after = 0, max_before = 0, max_after = 0;
    for (int p = 0; p < zarn_calib::PATCHES; ++p) {
        const zarn_calib::RGB &m = means[static_cast<std::size_t>(p)];
        const zarn_calib::RGB before = {m[0] * exposure, m[1] * exposure, m[2] * exposure};
        const cv::Vec3d c = M * cv::Vec3d(m[0], m[1], m[2]);
        const zarn_calib::RGB after = {std::max(c[0], 0.0), std::max(c[1], 0.0), std::max(c[2], 0.0)};
        const zarn_calib::RGB lab = zarn_calib::linear_srgb_to_lab(reference[p]);
        const double e_before = zarn_calib::delta_e_2000(lab, zarn_calib::linear_srgb_to_lab(before));
        const double e_after = zarn_calib::delta_e_2000(lab, zarn_calib::linear_srgb_to_lab(after));
        sum_before += e_before, sum_after += e_after;
        max_before = std::max(max_before, e_before), max_after = std::max(max_after, e_after);
        put({"patch", std::to_string(p + 1), zarn_calib::PATCH_NAMES[p], fixed(m[0], 6), fixed(m[1], 6), fixed(m[2], 6),
             fixed(e_before, 4), fixed(e_after, 4), clipped[static_cast<std::size_t>(p)] ? "0" : "1"});
    }
    put({"mean", fixed(sum_before / zarn_calib::PATCHES, 4), fixed(sum_after / zarn_calib::PATCHES, 4)});
    put({"max", fixed(max_before, 4), fixed(max_after, 4)});

    Outputs outputs(working_path);
    outputs.add("colorCalibrate.txt", std::move(txt));
    outputs.add("colorCalibrate.jpg", encode_jpeg(chart_preview(first, first_place, M)));
    return outputs.commit();
}

int shading_main(const char *const (&src)[4], const char *working_path, int count, int grid) {
    std::vector<fs::path> paths;
    if (const int r = sources(src, count, paths); r != Lib::CALIB_OK)
        return r;
    if (grid < 4 || grid > 256)
        return Lib::CALIB_BAD_ARGUMENT;
    cv::Mat sum;
    for (const fs::path &p : paths) {
        cv::Mat capture;
        if (!read_image(p, ORN::ImageReadMode::COLOR, capture))
            return Lib::CALIB_BAD_INPUT;
        if (!sum.empty() && capture.size() != sum.size())
            return Lib::CALIB_BAD_INPUT;
        std::vector<cv::Mat> channels;
        cv::split(capture, channels);
        cv::Mat full = (channels[0] == 255) | (channels[1] == 255) | (channels[2] == 255);
        if (cv::countNonZero(full) > SATURATED_SHARE * capture.total())
            return Lib::CALIB_SATURATED;
        cv::Mat grey(capture.size(), CV_32F, cv::Scalar(0));
        for (const cv::Mat &c : channels)
            cv::add(grey, c, grey, cv::noArray(), CV_32F);
        if (sum.empty())
            sum = cv::Mat(capture.size(), CV_32F, cv::Scalar(0));
        sum += grey;
    }
    const cv::Mat flat = sum / (3.0 * static_cast<double>(paths.size()));
    int columns = 0, rows = 0;
    double brightest = 0;
    const std::vector<float> gains = zarn_calib::shading_gains(flat, grid, columns, rows, brightest);
    if (gains.empty() || brightest < DARKEST_FIELD)
        return Lib::CALIB_SATURATED;
    std::string bytes(Lib::SHADING_MAGIC, sizeof(Lib::SHADING_MAGIC));
    put_int(bytes, 1);
    put_int(bytes, flat.cols);
    put_int(bytes, flat.rows);
    put_int(bytes, grid);
    put_int(bytes, columns);
    put_int(bytes, rows);
    for (float g : gains)
        put_float(bytes, g);
    Outputs outputs(working_path);
    outputs.add("shadingCalibrate", std::move(bytes));
    return outputs.commit();
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

ZARN_BACKEND_ENTRY int run_calib_main(const char *working_path, const char *target) {
    if (const auto code = zarn_backend::enter("run_calib_main", {text(working_path), text(target)}))
        return *code;
    if (!given(working_path) || !given(target))
        return Lib::CALIB_BAD_ARGUMENT;
    return guarded(Lib::CALIB_NOT_CONVERGED, [&] { return calib_main(working_path, target); });
}

ZARN_BACKEND_ENTRY int run_analysis_main(const char *src1, const char *src2, const char *src3, const char *src4,
                                         const char *working_path, int count) {
    if (const auto code = zarn_backend::enter("run_analysis_main", {text(src1), text(src2), text(src3), text(src4),
                                                                    text(working_path), std::to_string(count)}))
        return *code;
    if (!given(working_path))
        return Lib::CALIB_BAD_ARGUMENT;
    const char *const src[4] = {src1, src2, src3, src4};
    return guarded(Lib::CALIB_NO_CHART, [&] { return analysis_main(src, working_path, count); });
}

ZARN_BACKEND_ENTRY int run_shading_main(const char *src1, const char *src2, const char *src3, const char *src4,
                                        const char *working_path, int count, int grid) {
    if (const auto code =
            zarn_backend::enter("run_shading_main", {text(src1), text(src2), text(src3), text(src4), text(working_path),
                                                     std::to_string(count), std::to_string(grid)}))
        return *code;
    if (!given(working_path))
        return Lib::CALIB_BAD_ARGUMENT;
    const char *const src[4] = {src1, src2, src3, src4};
    return guarded(Lib::CALIB_SATURATED, [&] { return shading_main(src, working_path, count, grid); });
}

// Each entry has exactly the type the calibration process binds it as.
static_assert(std::is_same_v<decltype(&run_calib_main), Lib::RUN_CALIB_MAIN *>);
static_assert(std::is_same_v<decltype(&run_analysis_main), Lib::RUN_ANALYSIS_MAIN *>);
static_assert(std::is_same_v<decltype(&run_shading_main), Lib::RUN_SHADING_MAIN *>);
