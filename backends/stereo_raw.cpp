#include "stereo_raw.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>

namespace zarn_stereo {

namespace {

constexpr int MAX_SIDE = 32768;

// The next header field: blanks and "#" comments (to the end of the line)
// are skipped before it; a field is a run of decimal digits.
bool header_number(const unsigned char *bytes, std::size_t size, std::size_t &at, long &out) {
    for (;;) {
        while (at < size && std::isspace(bytes[at]))
            ++at;
        if (at < size && bytes[at] == '#') {
            while (at < size && bytes[at] != '\n' && bytes[at] != '\r')
                ++at;
            continue;
        }
        break;
    }
    std::size_t digits = 0;
    out = 0;
    while (at < size && std::isdigit(bytes[at]) && digits < 9) {
        out = out * 10 + (bytes[at] - '0');
        ++at;
        ++digits;
    }
    return digits > 0 && (at >= size || !std::isdigit(bytes[at]));
}

} // namespace

bool decode_raw(const unsigned char *bytes, std::size_t size, cv::Mat &mosaic, std::string &reason) {
    if (size < 2 || bytes[0] != 'P' || bytes[1] != '5') {
        reason = "not a binary PGM";
        return false;
    }
    std::size_t at = 2;
    long width = 0, height = 0, maxval = 0;
    if (!header_number(bytes, size, at, width) || !header_number(bytes, size, at, height) ||
        !header_number(bytes, size, at, maxval) || at >= size || !std::isspace(bytes[at])) {
        reason = "bad PGM header";
        return false;
    }
    ++at; // the one blank after maxval
    if (maxval != RAW_MAXVAL) {
        reason = "maxval " + std::to_string(maxval) + ", not " + std::to_string(RAW_MAXVAL);
        return false;
    }
    if (width < 2 || height < 2 || width > MAX_SIDE || height > MAX_SIDE) {
        reason = "size out of range";
        return false;
    }
    const std::size_t samples = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    if (size - at < 2 * samples) {
        reason = "too few samples";
        return false;
    }
    cv::Mat m(static_cast<int>(height), static_cast<int>(width), CV_16UC1);
    const unsigned char *p = bytes + at;
    for (int y = 0; y < m.rows; ++y) {
        auto *row = m.ptr<unsigned short>(y);
        for (int x = 0; x < m.cols; ++x, p += 2) {
            const unsigned v = (unsigned(p[0]) << 8) | p[1];
            if (v > RAW_MAXVAL) {
                reason = "a sample above maxval";
                return false;
            }
            row[x] = static_cast<unsigned short>(v);
        }
    }
    mosaic = m;
    return true;
}

bool read_raw(const char *path, cv::Mat &mosaic, std::string &reason) {
    if (path == nullptr) {
        reason = "no path";
        return false;
    }
    std::error_code ec;
    std::ifstream in;
    if (std::filesystem::is_regular_file(path, ec))
        in.open(path, std::ios::binary);
    if (!in.is_open()) {
        reason = "cannot open the file";
        return false;
    }
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    // The largest frame is 2 x 32768^2 bytes and a short header.
    if (size <= 0 || size > std::streamoff(2) * MAX_SIDE * MAX_SIDE + 4096) {
        reason = "not a raw frame (size)";
        return false;
    }
    std::string bytes(static_cast<std::size_t>(size), '\0');
    if (!in.read(bytes.data(), size)) {
        reason = "cannot read the file";
        return false;
    }
    return decode_raw(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(), mosaic, reason);
}

std::string encode_raw(const cv::Mat &mosaic) {
    CV_Assert(mosaic.type() == CV_16UC1);
    std::string out = "P5\n" + std::to_string(mosaic.cols) + " " + std::to_string(mosaic.rows) + "\n" +
                      std::to_string(RAW_MAXVAL) + "\n";
    const std::size_t header = out.size();
    out.resize(header + 2 * static_cast<std::size_t>(mosaic.cols) * static_cast<std::size_t>(mosaic.rows));
    char *p = out.data() + header;
    for (int y = 0; y < mosaic.rows; ++y) {
        const auto *row = mosaic.ptr<unsigned short>(y);
        for (int x = 0; x < mosaic.cols; ++x) {
            const unsigned v = std::min<unsigned>(row[x], RAW_MAXVAL);
            *p++ = static_cast<char>(v >> 8);
            *p++ = static_cast<char>(v & 0xff);
        }
    }
    return out;
}

} // namespace zarn_stereo
