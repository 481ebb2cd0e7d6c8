#include "stitch_repair.h"

#include "stitch_flow.h"

#include "ZARN_Common/ImageProc.h"

#include <opencv2/imgproc.hpp>

#include <cstdio>
#include <csetjmp>
#include <jpeglib.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace zarn_stitch {

namespace Lib = ZARN::StitchLibrary;
namespace fs = std::filesystem;
using ZARN::ImageProc;

namespace {

// Where a remap table points when its lens does not see the pixel
// (stitch_maps.cpp): any integer part below this is "not seen".
constexpr short UNSEEN_BELOW = -8;

// --- The two lenses over a rectangle of the panorama.

// A capture's pixels, or the part of them from mOrigin on (capture
// coordinates) that the regions sample.
struct LENS_PIXELS {
    cv::Mat mPixels;
    cv::Point mOrigin;
};

struct VIEWS {
    cv::Mat mUp, mDown;           // CV_8UC3, the lower one before the gain; black where unseen
    cv::Mat mUpSees, mDownSees;   // CV_8UC1, 255 where the lens sees the pixel
    cv::Mat mWeight;              // CV_32FC1, the upper lens's share as compose gives it
};

void lens_view(const LENS_PIXELS &capture, const cv::Mat &map1, const cv::Mat &map2, int origin, int rows_end,
               const cv::Rect &r, cv::Mat &view, cv::Mat &sees) {
    view = cv::Mat::zeros(r.size(), CV_8UC3);
    sees = cv::Mat::zeros(r.size(), CV_8UC1);
    const int first = std::max(r.y, origin), last = std::min(r.y + r.height, rows_end);
    if (last <= first || map1.empty())
        return;
    const cv::Rect in_map(r.x, first - origin, r.width, last - first);
    cv::Mat part = view.rowRange(first - r.y, last - r.y);
    // The tables are shared: a part of a capture gets shifted copies.
    cv::Mat table = map1(in_map);
    if (capture.mOrigin != cv::Point()) {
        cv::Mat shifted;
        cv::subtract(table, cv::Scalar(capture.mOrigin.x, capture.mOrigin.y), shifted);
        table = shifted;
    }
    cv::remap(capture.mPixels, part, table, map2(in_map), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
    for (int y = 0; y < in_map.height; ++y) {
        const auto *m = map1.ptr<cv::Vec2s>(in_map.y + y) + in_map.x;
        auto *s = sees.ptr<unsigned char>(first - r.y + y);
        for (int x = 0; x < r.width; ++x)
            s[x] = m[x][0] > UNSEEN_BELOW && m[x][1] > UNSEEN_BELOW ? 255 : 0;
    }
}

VIEWS views(const PanoramaMaps &m, const LENS_PIXELS &upper, const LENS_PIXELS &lower, const cv::Rect &r) {
    VIEWS v;
    lens_view(upper, m.mUpperMap1, m.mUpperMap2, 0, m.mUpperEnd, r, v.mUp, v.mUpSees);
    lens_view(lower, m.mLowerMap1, m.mLowerMap2, m.mLowerBegin, m.mHeight, r, v.mDown, v.mDownSees);
    v.mWeight.create(r.size(), CV_32FC1);
    const int a = m.band_begin(), b = m.band_end();
    for (int y = 0; y < r.height; ++y) {
        const int row = r.y + y;
        float *w = v.mWeight.ptr<float>(y);
        if (row < a)
            std::fill(w, w + r.width, 1.0f);
        else if (row >= b)
            std::fill(w, w + r.width, 0.0f);
        else
            std::memcpy(w, m.mWeight.ptr<float>(row - a) + r.x, sizeof(float) * std::size_t(r.width));
    }
    return v;
}

// One lens where it sees the pixel, the other where it does not.
cv::Mat one_lens(const VIEWS &v, double gain, bool upper) {
    cv::Mat out = cv::Mat::zeros(v.mUp.size(), CV_8UC3);
    const float g = float(gain);
    for (int y = 0; y < out.rows; ++y) {
        const auto *pu = v.mUp.ptr<cv::Vec3b>(y);
        const auto *pl = v.mDown.ptr<cv::Vec3b>(y);
        const auto *su = v.mUpSees.ptr<unsigned char>(y);
        const auto *sl = v.mDownSees.ptr<unsigned char>(y);
        auto *po = out.ptr<cv::Vec3b>(y);
        for (int x = 0; x < out.cols; ++x) {
            const bool take_upper = upper ? su[x] || !sl[x] : su[x] && !sl[x];
            if (take_upper)
                po[x] = pu[x];
            else
                for (int c = 0; c < 3; ++c)
                    po[x][c] = cv::saturate_cast<unsigned char>(std::min(255.0f, g * pl[x][c]));
        }
    }
    return out;
}

// The method the automatic one stands for on a region.
int automatic(const VIEWS &v, double gain) {
    cv::Mat up_grey, down_grey;
    cv::cvtColor(v.mUp, up_grey, cv::COLOR_BGR2GRAY);
    cv::cvtColor(v.mDown, down_grey, cv::COLOR_BGR2GRAY);
    double share = 0, difference = 0;
    long both = 0;
    for (int y = 0; y < up_grey.rows; ++y) {
        const auto *pu = up_grey.ptr<unsigned char>(y);
        const auto *pl = down_grey.ptr<unsigned char>(y);
        const auto *su = v.mUpSees.ptr<unsigned char>(y);
        const auto *sl = v.mDownSees.ptr<unsigned char>(y);
        const float *w = v.mWeight.ptr<float>(y);
        for (int x = 0; x < up_grey.cols; ++x) {
            share += w[x];
            if (su[x] && sl[x]) {
                difference += std::abs(double(pu[x]) - std::min(255.0, gain * pl[x]));
                ++both;
            }
        }
    }
    const double pixels = double(up_grey.total());
    if (both * 4 >= long(pixels) && difference / double(both) > AUTO_DISAGREEMENT)
        return Lib::REPAIR_FLOW;
    return share * 2 >= pixels ? Lib::REPAIR_UPPER : Lib::REPAIR_LOWER;
}

// The pixels of rectangle r by a method.
cv::Mat render(const PanoramaMaps &m, const LENS_PIXELS &upper, const LENS_PIXELS &lower, double gain,
               const cv::Rect &r, const cv::Rect &measured, int method) {
    if (method == Lib::REPAIR_AUTO) {
        const VIEWS v = views(m, upper, lower, measured);
        method = automatic(v, gain);
    }
    if (method == Lib::REPAIR_UPPER || method == Lib::REPAIR_LOWER)
        return one_lens(views(m, upper, lower, r), gain, method == Lib::REPAIR_UPPER);
    // The flow sees the rectangle with context around it.
    const int c = REPAIR_FLOW.mContext;
    const cv::Rect wide = cv::Rect(r.x - c, r.y - c, r.width + 2 * c, r.height + 2 * c) &
                          cv::Rect(0, 0, m.mWidth, m.mHeight);
    const VIEWS v = views(m, upper, lower, wide);
    cv::Mat out;
    flow_blend(v.mUp, v.mDown, gain, v.mWeight, REPAIR_FLOW, false, out);
    return out(r - wide.tl()).clone();
}

// --- JPEG blocks (libjpeg).

struct JPEG_ERROR {
    jpeg_error_mgr mManager;
    std::jmp_buf mJump;
};

void jump_out(j_common_ptr info) { std::longjmp(reinterpret_cast<JPEG_ERROR *>(info->err)->mJump, 1); }
void silent(j_common_ptr, int) {}

// The error manager of a libjpeg object: quiet, and a failure jumps back to
// the caller's setjmp on `error`.
jpeg_error_mgr *quiet_errors(JPEG_ERROR &error) {
    jpeg_error_mgr *manager = jpeg_std_error(&error.mManager);
    manager->error_exit = jump_out;
    manager->emit_message = silent;
    return manager;
}

// A decompressor of the panorama's bytes with its coefficients read, and
// a compressor of its tiles with the same tables; each owns its libjpeg
// object. Failures of libjpeg come back as false (no C++ object is live
// between a setjmp and its longjmp).
struct SOURCE {
    jpeg_decompress_struct mInfo{};
    JPEG_ERROR mError{};
    jvirt_barray_ptr *mCoefficients = nullptr;
    bool mMade = false;
    ~SOURCE() {
        if (mMade)
            jpeg_destroy_decompress(&mInfo);
    }
};

bool open_source(SOURCE &s, const unsigned char *bytes, std::size_t size) {
    s.mInfo.err = quiet_errors(s.mError);
    if (setjmp(s.mError.mJump))
        return false;
    jpeg_create_decompress(&s.mInfo);
    s.mMade = true;
    jpeg_mem_src(&s.mInfo, bytes, static_cast<unsigned long>(size));
    jpeg_save_markers(&s.mInfo, JPEG_COM, 0xFFFF);
    for (int m = 0; m < 16; ++m)
        jpeg_save_markers(&s.mInfo, JPEG_APP0 + m, 0xFFFF);
    if (jpeg_read_header(&s.mInfo, TRUE) != JPEG_HEADER_OK)
        return false;
    s.mCoefficients = jpeg_read_coefficients(&s.mInfo);
    return s.mCoefficients != nullptr;
}

// The tile's pixels (BGR) encoded with the source's tables and sampling,
// into `bytes` (malloc'ed by libjpeg; the caller frees it).
bool encode_tile(jpeg_decompress_struct &source, const cv::Mat &tile, unsigned char *&bytes, unsigned long &size) {
    jpeg_compress_struct info{};
    JPEG_ERROR error{};
    info.err = quiet_errors(error);
    if (setjmp(error.mJump)) {
        jpeg_destroy_compress(&info);
        return false;
    }
    jpeg_create_compress(&info);
    jpeg_mem_dest(&info, &bytes, &size);
    info.image_width = static_cast<JDIMENSION>(tile.cols);
    info.image_height = static_cast<JDIMENSION>(tile.rows);
    info.input_components = 3;
    info.in_color_space = JCS_EXT_BGR;
    jpeg_set_defaults(&info);
    jpeg_set_colorspace(&info, source.jpeg_color_space);
    if (info.num_components != source.num_components) {
        jpeg_destroy_compress(&info);
        return false;
    }
    for (int i = 0; i < NUM_QUANT_TBLS; ++i)
        if (source.quant_tbl_ptrs[i] != nullptr) {
            if (info.quant_tbl_ptrs[i] == nullptr)
                info.quant_tbl_ptrs[i] = jpeg_alloc_quant_table(reinterpret_cast<j_common_ptr>(&info));
            std::memcpy(info.quant_tbl_ptrs[i]->quantval, source.quant_tbl_ptrs[i]->quantval,
                        sizeof(source.quant_tbl_ptrs[i]->quantval));
            info.quant_tbl_ptrs[i]->sent_table = FALSE;
        }
    for (int c = 0; c < info.num_components; ++c) {
        info.comp_info[c].h_samp_factor = source.comp_info[c].h_samp_factor;
        info.comp_info[c].v_samp_factor = source.comp_info[c].v_samp_factor;
        info.comp_info[c].quant_tbl_no = source.comp_info[c].quant_tbl_no;
    }
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(tile.ptr<unsigned char>(static_cast<int>(info.next_scanline)));
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    return true;
}

// Copies the tile's blocks into the source's, at the tile's place (its
// corner on the MCU grid).
bool paste_tile(SOURCE &s, const unsigned char *bytes, unsigned long size, int mcu_x, int mcu_y) {
    SOURCE t;
    if (!open_source(t, bytes, size) || t.mInfo.num_components != s.mInfo.num_components)
        return false;
    if (setjmp(s.mError.mJump) || setjmp(t.mError.mJump))
        return false;
    for (int c = 0; c < s.mInfo.num_components; ++c) {
        const jpeg_component_info &to = s.mInfo.comp_info[c];
        const jpeg_component_info &from = t.mInfo.comp_info[c];
        const auto column = static_cast<JDIMENSION>(mcu_x * to.h_samp_factor);
        const auto row = static_cast<JDIMENSION>(mcu_y * to.v_samp_factor);
        const JDIMENSION columns = std::min(from.width_in_blocks, to.width_in_blocks - column);
        const JDIMENSION rows = std::min(from.height_in_blocks, to.height_in_blocks - row);
        for (JDIMENSION y = 0; y < rows; ++y) {
            JBLOCKARRAY src = t.mInfo.mem->access_virt_barray(reinterpret_cast<j_common_ptr>(&t.mInfo),
                                                              t.mCoefficients[c], y, 1, FALSE);
            JBLOCKARRAY dst = s.mInfo.mem->access_virt_barray(reinterpret_cast<j_common_ptr>(&s.mInfo),
                                                              s.mCoefficients[c], row + y, 1, TRUE);
            std::memcpy(dst[0] + column, src[0], sizeof(JBLOCK) * columns);
        }
    }
    return true;
}

// The source's coefficients, with its markers, as a new JPEG.
bool write_coefficients(SOURCE &s, unsigned char *&bytes, unsigned long &size) {
    jpeg_compress_struct info{};
    JPEG_ERROR error{};
    info.err = quiet_errors(error);
    if (setjmp(error.mJump)) {
        jpeg_destroy_compress(&info);
        return false;
    }
    jpeg_create_compress(&info);
    if (setjmp(s.mError.mJump)) { // the source's blocks are read through its own object
        jpeg_destroy_compress(&info);
        return false;
    }
    jpeg_mem_dest(&info, &bytes, &size);
    jpeg_copy_critical_parameters(&s.mInfo, &info);
    info.write_JFIF_header = FALSE; // the source's own APP0, copied below
    info.write_Adobe_marker = FALSE;
    jpeg_write_coefficients(&info, s.mCoefficients);
    for (jpeg_saved_marker_ptr m = s.mInfo.marker_list; m != nullptr; m = m->next)
        jpeg_write_marker(&info, m->marker, m->data, m->data_length);
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    return true;
}

bool is_jpeg(const std::vector<unsigned char> &bytes) {
    return bytes.size() > 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF;
}

// One region, checked: x, y, width, height, method.
struct REGION {
    cv::Rect mRect;
    int mMethod;
};

bool valid_regions(const int *regions, int count, int width, int height, std::vector<REGION> &out) {
    if (regions == nullptr || count < 1 || count > Lib::MAX_REPAIR_REGIONS)
        return false;
    for (int i = 0; i < count; ++i) {
        const int *r = regions + 5 * i;
        const long long x = r[0], y = r[1], w = r[2], h = r[3];
        if (x < 0 || y < 0 || w <= 0 || h <= 0 || x + w > width || y + h > height)
            return false;
        if (r[4] < Lib::REPAIR_AUTO || r[4] > Lib::REPAIR_FLOW)
            return false;
        out.push_back({cv::Rect(r[0], r[1], r[2], r[3]), r[4]});
    }
    return true;
}

bool same_file(const char *a, const char *b) {
    if (std::strcmp(a, b) == 0 || fs::path(a).lexically_normal() == fs::path(b).lexically_normal())
        return true;
    std::error_code ec;
    return fs::equivalent(a, b, ec) && !ec;
}

// Frees what libjpeg's memory destination allocated.
struct MALLOCED {
    unsigned char *mBytes = nullptr;
    unsigned long mSize = 0;
    ~MALLOCED() { std::free(mBytes); }
};

// --- Captures decoded only where the regions need them.

// A JPEG capture of one bracket is decoded in part: the rows and columns
// the regions sample (their footprint) in colour, and its luminance alone
// (no chroma, no colour conversion) for the lower lens's gain, which the
// whole band of both lenses decides.

// Capture pixels decoded around a footprint.
constexpr int FOOTPRINT_MARGIN = 16;
// Pixels of room beyond a cropped decode's rows.
constexpr int CROP_SLACK = 64;
// A decode that this path leaves to the whole one (not a JPEG, or not of
// a colour space it reads as BGR).
constexpr int NOT_HERE = -1;

// The capture pixels the panorama rectangle r samples through one lens's
// tables (each entry and its right and lower neighbours), grown by
// FOOTPRINT_MARGIN; empty when the lens sees none of r.
cv::Rect footprint(const cv::Mat &map1, int origin, int rows_end, const cv::Rect &r) {
    const int first = std::max(r.y, origin), last = std::min(r.y + r.height, rows_end);
    if (last <= first || map1.empty())
        return {};
    int x0 = std::numeric_limits<int>::max(), y0 = x0, x1 = std::numeric_limits<int>::min(), y1 = x1;
    for (int y = first; y < last; ++y) {
        const auto *m = map1.ptr<cv::Vec2s>(y - origin) + r.x;
        for (int x = 0; x < r.width; ++x)
            if (m[x][0] > UNSEEN_BELOW && m[x][1] > UNSEEN_BELOW) {
                x0 = std::min<int>(x0, m[x][0]);
                x1 = std::max<int>(x1, m[x][0]);
                y0 = std::min<int>(y0, m[x][1]);
                y1 = std::max<int>(y1, m[x][1]);
            }
    }
    if (x1 < x0)
        return {};
    return cv::Rect(x0 - FOOTPRINT_MARGIN, y0 - FOOTPRINT_MARGIN, x1 - x0 + 2 + 2 * FOOTPRINT_MARGIN,
                    y1 - y0 + 2 + 2 * FOOTPRINT_MARGIN);
}

struct READER {
    jpeg_decompress_struct mInfo{};
    JPEG_ERROR mError{};
    bool mMade = false;
    ~READER() {
        if (mMade)
            jpeg_destroy_decompress(&mInfo);
    }
};

// Starts decoding a JPEG capture of the lens's size: its luminance with
// `grey`, otherwise colour (BGR) cropped to the columns of `box` (`x` and
// `width` receive them, widened to the blocks'). Returns a RESULT, or
// NOT_HERE.
int start_jpeg(READER &r, const std::vector<unsigned char> &bytes, const LENS_TABLE &lens, bool grey,
               const cv::Rect &box, JDIMENSION &x, JDIMENSION &width) {
    if (bytes.size() < 3 || bytes[0] != 0xFF || bytes[1] != 0xD8 || bytes[2] != 0xFF)
        return NOT_HERE;
    r.mInfo.err = quiet_errors(r.mError);
    if (setjmp(r.mError.mJump))
        return Lib::KIVO_BAD_INPUT;
    jpeg_create_decompress(&r.mInfo);
    r.mMade = true;
    jpeg_mem_src(&r.mInfo, bytes.data(), static_cast<unsigned long>(bytes.size()));
    if (jpeg_read_header(&r.mInfo, TRUE) != JPEG_HEADER_OK)
        return Lib::KIVO_BAD_INPUT;
    if (int(r.mInfo.image_width) != lens.mWidth || int(r.mInfo.image_height) != lens.mHeight)
        return Lib::KIVO_INPUT_MISMATCH;
    const bool colour = r.mInfo.jpeg_color_space == JCS_YCbCr && r.mInfo.num_components == 3;
    if (!colour && r.mInfo.jpeg_color_space != JCS_GRAYSCALE)
        return NOT_HERE;
    r.mInfo.out_color_space = grey ? JCS_GRAYSCALE : JCS_EXT_BGR;
    jpeg_start_decompress(&r.mInfo);
    x = 0;
    width = r.mInfo.output_width;
    if (!grey) {
        x = static_cast<JDIMENSION>(box.x);
        width = static_cast<JDIMENSION>(box.width);
        jpeg_crop_scanline(&r.mInfo, &x, &width);
    }
    return Lib::KIVO_OK;
}

// Reads rows [first, first + out.rows) of a started decode into `out`, the
// rows above only entropy-decoded; false when the data fail.
bool read_rows(READER &r, int first, cv::Mat &out) {
    if (setjmp(r.mError.mJump))
        return false;
    if (first > 0)
        jpeg_skip_scanlines(&r.mInfo, static_cast<JDIMENSION>(first));
    while (r.mInfo.output_scanline < static_cast<JDIMENSION>(first + out.rows)) {
        JSAMPROW row = out.ptr<unsigned char>(int(r.mInfo.output_scanline) - first);
        jpeg_read_scanlines(&r.mInfo, &row, 1);
    }
    jpeg_abort_decompress(&r.mInfo);
    return true;
}

// Decodes a JPEG capture of the lens's size: with `grey`, its luminance
// whole into `out.mPixels`; otherwise the pixels of `box` (its columns
// widened to the blocks') from `out.mOrigin` on: the rows above are only
// entropy-decoded, the columns beside not transformed. Returns a RESULT, or
// NOT_HERE. (No C++ object is made while libjpeg may jump out.)
int decode_jpeg(const std::vector<unsigned char> &bytes, const LENS_TABLE &lens, bool grey, cv::Rect box,
                LENS_PIXELS &out) {
    box &= cv::Rect(0, 0, lens.mWidth, lens.mHeight);
    out.mOrigin = cv::Point();
    if (!grey && box.empty()) { // the lens sees none of the regions
        out.mPixels = cv::Mat::zeros(1, 1, CV_8UC3);
        return Lib::KIVO_OK;
    }
    READER r;
    JDIMENSION x = 0, width = 0;
    if (const int code = start_jpeg(r, bytes, lens, grey, box, x, width); code != Lib::KIVO_OK)
        return code;
    if (grey) {
        out.mPixels.create(lens.mHeight, lens.mWidth, CV_8UC1);
        return read_rows(r, 0, out.mPixels) ? int(Lib::KIVO_OK) : int(Lib::KIVO_BAD_INPUT);
    }
    out.mOrigin = cv::Point(int(x), box.y);
    // The decoder may write past the cropped width (whole blocks, its
    // upsampling's context): rows as wide as the capture's and more, and a
    // spare row below.
    const cv::Mat rows(box.height + 1, lens.mWidth + CROP_SLACK, CV_8UC3);
    out.mPixels = rows(cv::Rect(0, 0, int(width), box.height));
    return read_rows(r, box.y, out.mPixels) ? int(Lib::KIVO_OK) : int(Lib::KIVO_BAD_INPUT);
}

// The two captures of one bracket, decoded where the regions sample them,
// and the gain from their luminance; NOT_HERE when either is not a
// JPEG this path reads (the whole path then decodes both).
int read_footprints(const PanoramaMaps &m, const Stitcher &stitcher, const LENS_TABLE *const lenses[2],
                    const char *const paths[2], const std::vector<cv::Rect> &rects, LENS_PIXELS fused[2],
                    double &gain) {
    std::vector<unsigned char> bytes[2];
    for (int lens = 0; lens < 2; ++lens) {
        std::error_code ec;
        if (!fs::is_regular_file(paths[lens], ec) || !zarn_backend::read_path(paths[lens], bytes[lens], MAX_PANORAMA_BYTES))
            return Lib::KIVO_BAD_INPUT;
    }
    LENS_PIXELS luminance[2];
    for (int lens = 0; lens < 2; ++lens)
        if (const int r = decode_jpeg(bytes[lens], *lenses[lens], true, {}, luminance[lens]); r != Lib::KIVO_OK)
            return r;
    for (int lens = 0; lens < 2; ++lens) {
        const cv::Mat &map1 = lens ? m.mLowerMap1 : m.mUpperMap1;
        const int origin = lens ? m.mLowerBegin : 0, end = lens ? m.mHeight : m.mUpperEnd;
        cv::Rect box;
        for (const cv::Rect &r : rects)
            box |= footprint(map1, origin, end, r);
        if (const int r = decode_jpeg(bytes[lens], *lenses[lens], false, box, fused[lens]); r != Lib::KIVO_OK)
            return r;
    }
    double difference = 0;
    gain = stitcher.exposure_gain(luminance[0].mPixels, luminance[1].mPixels, difference);
    return Lib::KIVO_OK;
}

} // namespace

int repair_panorama(const Stitcher &stitcher, const std::vector<const char *> &upper,
                    const std::vector<const char *> &lower, const char *panorama, const char *output, const int *size,
                    const int *regions, int count) {
    const LENS_TABLE *lenses[2] = {stitcher.upper_lens(), stitcher.lower_lens()};
    if (lenses[0] == nullptr || lenses[1] == nullptr)
        return Lib::KIVO_NOT_INITIALISED;
    // Every argument is checked before anything is read.
    if (!given(panorama) || !given(output) || size == nullptr || !valid_size(size[0], size[1]) ||
        !image_extension(lower_extension(output)) || same_file(panorama, output))
        return Lib::KIVO_BAD_ARGUMENT;
    if (upper.empty() || upper.size() > std::size_t(Lib::MAX_BRACKETS) || lower.size() != upper.size())
        return Lib::KIVO_BAD_ARGUMENT;
    for (const auto *paths : {&upper, &lower})
        for (const char *p : *paths)
            if (p == nullptr)
                return Lib::KIVO_BAD_ARGUMENT;
    std::vector<REGION> todo;
    if (!valid_regions(regions, count, size[0], size[1], todo))
        return Lib::KIVO_BAD_ARGUMENT;

    // The panorama.
    std::vector<unsigned char> bytes;
    std::error_code ec;
    if (!fs::is_regular_file(panorama, ec) || !zarn_backend::read_path(panorama, bytes, MAX_PANORAMA_BYTES))
        return Lib::KIVO_BAD_INPUT;
    const std::string ext = lower_extension(output);
    const bool blocks = is_jpeg(bytes) && (ext == ".jpg" || ext == ".jpeg");
    SOURCE source;
    ORN::Image whole;
    if (blocks) {
        if (!open_source(source, bytes.data(), bytes.size()))
            return Lib::KIVO_BAD_INPUT;
        if (int(source.mInfo.image_width) != size[0] || int(source.mInfo.image_height) != size[1])
            return Lib::KIVO_INPUT_MISMATCH;
        if (source.mInfo.num_components != 3)
            return Lib::KIVO_BAD_INPUT;
    } else {
        if (!ORN::try_run([&] {
                whole = ORN::Image::decode(bytes.data(), static_cast<ORN::INDEX>(bytes.size()), ORN::ImageReadMode::COLOR);
            }))
            return Lib::KIVO_BAD_INPUT;
        if (whole.width() != size[0] || whole.height() != size[1])
            return Lib::KIVO_INPUT_MISMATCH;
    }

    // Each region as it is rendered: grown to the block grid, with the
    // flow's context around it.
    const int mcu_w = blocks ? 8 * source.mInfo.max_h_samp_factor : 1;
    const int mcu_h = blocks ? 8 * source.mInfo.max_v_samp_factor : 1;
    std::vector<cv::Rect> grown, sampled;
    for (const REGION &r : todo) {
        const int x0 = r.mRect.x / mcu_w * mcu_w, y0 = r.mRect.y / mcu_h * mcu_h;
        const int x1 = std::min(size[0], (r.mRect.x + r.mRect.width + mcu_w - 1) / mcu_w * mcu_w);
        const int y1 = std::min(size[1], (r.mRect.y + r.mRect.height + mcu_h - 1) / mcu_h * mcu_h);
        grown.emplace_back(x0, y0, x1 - x0, y1 - y0);
        const int c = REPAIR_FLOW.mContext;
        sampled.push_back(cv::Rect(x0 - c, y0 - c, x1 - x0 + 2 * c, y1 - y0 + 2 * c) & cv::Rect(0, 0, size[0], size[1]));
    }
    const std::shared_ptr<const PanoramaMaps> maps = stitcher.maps(size[0], size[1]);

    // The captures, fused, and the gain the stitcher gives them: a single
    // JPEG bracket decoded only where the regions sample it, anything else
    // decoded whole.
    LENS_PIXELS fused[2];
    double gain = 1;
    std::vector<CAPTURE> captures[2];
    int read = NOT_HERE;
    if (upper.size() == 1) {
        const char *const pair[2] = {upper[0], lower[0]};
        read = read_footprints(*maps, stitcher, lenses, pair, sampled, fused, gain);
        if (read != Lib::KIVO_OK && read != NOT_HERE)
            return read;
    }
    if (read == NOT_HERE) {
        const std::vector<const char *> *paths[2] = {&upper, &lower};
        for (int lens = 0; lens < 2; ++lens) {
            captures[lens].resize(paths[lens]->size());
            std::vector<cv::Mat> exposures;
            for (std::size_t i = 0; i < captures[lens].size(); ++i) {
                if (const int r = read_capture((*paths[lens])[i], *lenses[lens], captures[lens][i]); r != Lib::KIVO_OK)
                    return r;
                exposures.push_back(captures[lens][i].mPixels);
            }
            fused[lens].mPixels = merge_exposures(exposures);
        }
        double difference = 0;
        gain = stitcher.exposure_gain(fused[0].mPixels, fused[1].mPixels, difference);
    }

    if (!blocks) {
        cv::Mat pixels = ImageProc::mat(whole);
        for (const REGION &r : todo)
            render(*maps, fused[0], fused[1], gain, r.mRect, r.mRect, r.mMethod).copyTo(pixels(r.mRect));
        ORN::Buffer<unsigned char> encoded;
        if (!ORN::try_run([&] { encoded = ORN::Image::encode(ext, whole); }) || !write_whole(output, encoded))
            return Lib::KIVO_WRITE_FAILED;
        return Lib::KIVO_OK;
    }

    // Each region grown to the MCU grid, rendered, encoded and pasted.
    for (std::size_t i = 0; i < todo.size(); ++i) {
        const cv::Mat tile = render(*maps, fused[0], fused[1], gain, grown[i], todo[i].mRect, todo[i].mMethod);
        MALLOCED encoded;
        if (!encode_tile(source.mInfo, tile, encoded.mBytes, encoded.mSize) ||
            !paste_tile(source, encoded.mBytes, encoded.mSize, grown[i].x / mcu_w, grown[i].y / mcu_h))
            return Lib::KIVO_BAD_INPUT;
    }
    MALLOCED repaired;
    if (!write_coefficients(source, repaired.mBytes, repaired.mSize))
        return Lib::KIVO_BAD_INPUT;
    if (!write_whole(output, repaired.mBytes, repaired.mSize))
        return Lib::KIVO_WRITE_FAILED;
    return Lib::KIVO_OK;
}

} // namespace zarn_stitch
