#pragma once

// The C interface of the video delivery entries of the stitching library,
// "libStitch.so" ("Stitch.dll" on Windows): the library that made the
// stitched videos turns them into the form a web 360 viewer streams. This
// is how VideoTransferProcess calls them and how the reference library in
// backends/ implements them. docs/BACKENDS.md describes every entry,
// argument, result code and file format in full; keep the two in step.
//
// The entries have C linkage and the platform's C calling convention; each
// side spells them with the function types below (the reference library
// checks its definitions against them at compile time).

#include "ZARN_Common/StitchLibrary.h"

namespace KIVO_VideoTransfer {
struct KIVO_VideoTransferParams; // a video transfer object, opaque to the caller
}

namespace ZARN::VideoTransferLibrary {

using TRANSFER_HANDLE = KIVO_VideoTransfer::KIVO_VideoTransferParams *;

// Result codes: those of the stitching library (StitchLibrary::RESULT,
// KIVO_OK to KIVO_WRITE_FAILED, with KIVO_BAD_INPUT for a source that is
// missing or does not decode) and two of the transfer's own.
enum RESULT : int {
    KIVO_INPUT_TOO_LARGE = 8, // the source's frame size, frame count or frame rate is beyond the limits below
    KIVO_ENCODER_FAILED = 9,  // the H.264 or JPEG encoder is missing or refused the settings or a frame
};

// What a result code means, for the line that reports a failed call.
constexpr const char *meaning(long long code) noexcept {
    switch (code) {
    case StitchLibrary::KIVO_BAD_INPUT: return "the source video is missing or does not decode";
    case KIVO_INPUT_TOO_LARGE: return "the source video's frames, frame count or frame rate are beyond the limits";
    case KIVO_ENCODER_FAILED: return "the encoder is missing or refused the settings or a frame";
    default: return StitchLibrary::meaning(code);
    }
}

// What a source may be; checked on its headers before a frame is decoded,
// and again on every decoded frame.
inline constexpr int MAX_WIDTH = 8192, MAX_HEIGHT = 4096; // pixels
inline constexpr int MIN_SIZE = 16;                       // pixels, each way
inline constexpr long long MAX_FRAMES = 216000;           // two hours at 30 frames per second
inline constexpr double MAX_FRAME_RATE = 240;             // frames per second

// The HDR value's range: the exposure ratio of normal to short that the
// video stitcher measured (1: a single exposure).
inline constexpr double MIN_HDR_VALUE = 1.0, MAX_HDR_VALUE = 256.0;

// The init arguments' ranges.
inline constexpr long long MIN_BUFFER_SIZE = 4096, MAX_BUFFER_SIZE = 1ll << 30;
inline constexpr int MAX_CRF = 51;
inline constexpr int MAX_GOP = 1000;
// The x264 presets, fastest first.
inline constexpr const char *PRESETS[] = {"ultrafast", "superfast", "veryfast", "faster", "fast",
                                          "medium",    "slow",      "slower",   "veryslow"};

// Makes a transfer object; null when it cannot be made.
using CREATE_VIDEO_TRANSFER = TRANSFER_HANDLE();
// Releases the object; the handle is not used again.
using DESTROY_VIDEO_TRANSFER = void(TRANSFER_HANDLE handle);
// Sets the encoding of every later execute: `buffer_size` bytes of the
// output writer (MIN_BUFFER_SIZE to MAX_BUFFER_SIZE), H.264 constant rate
// factor `crf` (0 to MAX_CRF, lower is better), x264 `preset` (one of
// PRESETS), a key frame at least every `gop` frames (1 to MAX_GOP), and
// `threads` encoder threads (1 to 16; the output depends on it and on
// nothing else of the machine). Returns a RESULT.
using INIT_VIDEO_TRANSFER = int(TRANSFER_HANDLE handle, long long buffer_size, int crf, const char *preset, int gop,
                                int threads);
// Delivers one stitched video: decodes `source` (Motion-JPEG in an AVI
// container, equirectangular frames), applies the tone curve of
// `hdr_value` (MIN_HDR_VALUE to MAX_HDR_VALUE) to every frame, and writes
// `output`, H.264 (yuv420p, the frame size cut down to even numbers) in an
// MP4 container with its index before the media data and the spherical
// video boxes of an equirectangular projection, and `poster`, a JPEG of
// the tone-adjusted frame shown at `poster_time` seconds (at least 0; the
// last frame when the video is shorter). `statistics`, when not null,
// receives two doubles: the number of frames and the duration in seconds.
// Each output replaces its file only when complete. Returns a RESULT. Safe
// to call from several threads at once on one initialised object.
using EXECUTE_VIDEO_TRANSFER = int(TRANSFER_HANDLE handle, const char *source, double hdr_value, const char *output,
                                   const char *poster, double poster_time, double *statistics);
// The last result of the object's init or execute calls (of any thread).
using GET_VIDEO_TRANSFER_CODE = int(TRANSFER_HANDLE handle);

} // namespace ZARN::VideoTransferLibrary
