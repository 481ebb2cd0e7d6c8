#pragma once

// Raw frames of the stereo camera: binary PGM ("P5") with 16-bit big-endian
// samples and maxval 4095, holding the sensor's RGGB Bayer mosaic (row 0:
// R G R G ..., row 1: G B G B ...), linear light, black level 0.

#include <opencv2/core.hpp>

#include <string>

namespace zarn_stereo {

inline constexpr int RAW_MAXVAL = 4095;

// The mosaic of a raw frame (CV_16UC1, samples 0..RAW_MAXVAL); false with
// the reason when the file is missing, unreadable or not of that form
// (another magic or maxval, a side below 2 or above 32768, too few samples
// or a sample above maxval).
bool read_raw(const char *path, cv::Mat &mosaic, std::string &reason);
bool decode_raw(const unsigned char *bytes, std::size_t size, cv::Mat &mosaic, std::string &reason);
// The file's bytes of a mosaic (CV_16UC1, samples clipped to RAW_MAXVAL).
std::string encode_raw(const cv::Mat &mosaic);

} // namespace zarn_stereo
