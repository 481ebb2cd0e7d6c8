// The video delivery entries of the reference stitching library (see
// ZARN_Common/VideoTransferLibrary.h and docs/BACKENDS.md).
//
// An execute reads the source with the AVI demuxer only (never probed as
// another format, only the file protocol) and checks the header's frame
// size, frame count and frame rate before anything is decoded; the decoder
// is held to the header's frame size, so a frame that claims more pixels is
// refused before it is allocated. Each frame is converted to limited-range
// yuv420p (cut to even sizes), its luma goes through the tone curve, and it
// is encoded by libx264 with the object's settings and a fixed thread count,
// so the same source gives the same bytes. The MP4 muxer writes the
// spherical video boxes (sv3d: equirectangular, st3d: mono) from the
// stream's side data and moves the index before the media data at the end
// (faststart). The poster is the tone-adjusted frame at the poster time,
// encoded by FFmpeg's JPEG encoder at quality 2.
//
// Both outputs are written to temporary files beside their targets
// (OutputFile, backend_support.h); the MP4 through the muxer's own I/O over
// the temporary file's descriptor, with a buffer of the init's size. Only
// when both are complete are they renamed over their targets.

#include "video_transfer.h"

#include "backend_support.h"
#include "stitch_core.h"

#include "ZARN_Common/VideoTransferLibrary.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/spherical.h>
#include <libavutil/stereo3d.h>
#include <libswscale/swscale.h>
}

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

namespace Lib = ZARN::VideoTransferLibrary;
using ZARN::StitchLibrary::KIVO_BAD_ARGUMENT;
using ZARN::StitchLibrary::KIVO_BAD_INPUT;
using ZARN::StitchLibrary::KIVO_NOT_INITIALISED;
using ZARN::StitchLibrary::KIVO_OK;
using ZARN::StitchLibrary::KIVO_WRITE_FAILED;
using zarn_stitch::text;

struct KIVO_VideoTransfer::KIVO_VideoTransferParams {
    zarn_transfer::ENCODING mEncoding;
    bool mInitialised = false;
    std::atomic<int> mCode{KIVO_NOT_INITIALISED};
    int keep(int code) {
        mCode = code;
        return code;
    }
};

namespace zarn_transfer {

std::array<unsigned char, 256> tone_curve(double hdr_value) {
    std::array<unsigned char, 256> lut{};
    const double k = std::log2(hdr_value);
    for (int v = 0; v < 256; ++v) {
        const double x = std::clamp((v - 16) / 219.0, 0.0, 1.0);
        lut[static_cast<std::size_t>(v)] = static_cast<unsigned char>(std::lround(16 + 219 * x * (1 + k) / (1 + k * x)));
    }
    return lut;
}

namespace {

// Owners of FFmpeg's objects.
struct FreeInput {
    void operator()(AVFormatContext *c) const { avformat_close_input(&c); }
};
struct FreeOutput {
    void operator()(AVFormatContext *c) const {
        if (c->pb != nullptr) {
            av_freep(&c->pb->buffer);
            avio_context_free(&c->pb);
        }
        avformat_free_context(c);
    }
};
struct FreeCodec {
    void operator()(AVCodecContext *c) const { avcodec_free_context(&c); }
};
struct FreeFrame {
    void operator()(AVFrame *f) const { av_frame_free(&f); }
};
struct FreePacket {
    void operator()(AVPacket *p) const { av_packet_free(&p); }
};
struct FreeScaler {
    void operator()(SwsContext *s) const { sws_freeContext(s); }
};
using Input = std::unique_ptr<AVFormatContext, FreeInput>;
using Output = std::unique_ptr<AVFormatContext, FreeOutput>;
using Codec = std::unique_ptr<AVCodecContext, FreeCodec>;
using Frame = std::unique_ptr<AVFrame, FreeFrame>;
using Packet = std::unique_ptr<AVPacket, FreePacket>;
using Scaler = std::unique_ptr<SwsContext, FreeScaler>;

// A failed step: the call's RESULT.
struct Failure {
    int mCode;
};
void require(bool condition, int code) {
    if (!condition)
        throw Failure{code};
}

// The muxer's I/O over the temporary file's descriptor.
int write_packet(void *opaque, std::uint8_t *data, int size) {
    const int fd = *static_cast<int *>(opaque);
    for (int done = 0; done < size;) {
        const ssize_t n = ::write(fd, data + done, static_cast<std::size_t>(size - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return AVERROR(n < 0 ? errno : EIO);
        done += static_cast<int>(n);
    }
    return size;
}
std::int64_t seek(void *opaque, std::int64_t offset, int whence) {
    const int fd = *static_cast<int *>(opaque);
    if (whence & AVSEEK_SIZE) {
        struct stat st {};
        return ::fstat(fd, &st) == 0 ? st.st_size : AVERROR(errno);
    }
    const off_t at = ::lseek(fd, offset, whence & ~AVSEEK_FORCE);
    return at < 0 ? AVERROR(errno) : at;
}

// The source: the AVI demuxer over the file protocol, its video stream and
// a decoder held to the header's frame size.
struct SOURCE {
    Input mFormat;
    int mStream = -1;
    Codec mDecoder;
    int mWidth = 0, mHeight = 0;
    AVRational mFrameRate{0, 1};

    explicit SOURCE(const char *path) {
        AVFormatContext *format = avformat_alloc_context();
        require(format != nullptr, KIVO_BAD_INPUT);
        AVDictionary *options = nullptr;
        av_dict_set(&options, "protocol_whitelist", "file", 0);
        const int opened = avformat_open_input(&format, path, av_find_input_format("avi"), &options);
        av_dict_free(&options);
        require(opened >= 0, KIVO_BAD_INPUT); // the context is freed on failure
        mFormat.reset(format);
        const AVCodec *codec = nullptr;
        mStream = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
        require(mStream >= 0 && codec != nullptr, KIVO_BAD_INPUT);
        const AVStream *stream = format->streams[mStream];
        const AVCodecParameters *p = stream->codecpar;
        require(p->codec_id == AV_CODEC_ID_MJPEG, KIVO_BAD_INPUT);
        mWidth = p->width;
        mHeight = p->height;
        require(mWidth >= Lib::MIN_SIZE && mHeight >= Lib::MIN_SIZE, KIVO_BAD_INPUT);
        require(mWidth <= Lib::MAX_WIDTH && mHeight <= Lib::MAX_HEIGHT, Lib::KIVO_INPUT_TOO_LARGE);
        // AVI gives one tick per frame.
        mFrameRate = stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate : av_inv_q(stream->time_base);
        require(mFrameRate.num > 0 && mFrameRate.den > 0, KIVO_BAD_INPUT);
        require(av_q2d(mFrameRate) <= Lib::MAX_FRAME_RATE, Lib::KIVO_INPUT_TOO_LARGE);
        require(stream->nb_frames <= Lib::MAX_FRAMES && stream->duration <= Lib::MAX_FRAMES * 1000,
                Lib::KIVO_INPUT_TOO_LARGE);
        mDecoder.reset(avcodec_alloc_context3(codec));
        require(mDecoder != nullptr, KIVO_BAD_INPUT);
        require(avcodec_parameters_to_context(mDecoder.get(), p) >= 0, KIVO_BAD_INPUT);
        mDecoder->max_pixels = std::int64_t(mWidth) * mHeight;
        mDecoder->thread_count = 1;
        mDecoder->err_recognition |= AV_EF_EXPLODE;
        require(avcodec_open2(mDecoder.get(), codec, nullptr) >= 0, KIVO_BAD_INPUT);
    }
};

// The H.264 encoder and the MP4 muxer writing into `file`.
struct DESTINATION {
    Codec mEncoder;
    Output mFormat;
    AVStream *mStream = nullptr;
    int mFd = -1;

    DESTINATION(const ENCODING &encoding, int width, int height, AVRational rate, zarn_backend::OutputFile &file) {
        const AVCodec *codec = avcodec_find_encoder_by_name("libx264");
        require(codec != nullptr, Lib::KIVO_ENCODER_FAILED);
        mEncoder.reset(avcodec_alloc_context3(codec));
        require(mEncoder != nullptr, Lib::KIVO_ENCODER_FAILED);
        AVCodecContext *e = mEncoder.get();
        e->width = width;
        e->height = height;
        e->pix_fmt = AV_PIX_FMT_YUV420P;
        e->time_base = av_inv_q(rate);
        e->framerate = rate;
        e->sample_aspect_ratio = AVRational{1, 1};
        e->gop_size = encoding.mGop;
        e->thread_count = encoding.mThreads;
        e->color_range = AVCOL_RANGE_MPEG;
        e->colorspace = AVCOL_SPC_BT470BG; // the JPEG frames' matrix, kept by the conversion
        e->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        av_opt_set(e->priv_data, "preset", encoding.mPreset.c_str(), 0);
        av_opt_set_double(e->priv_data, "crf", encoding.mCrf, 0);
        require(avcodec_open2(e, codec, nullptr) >= 0, Lib::KIVO_ENCODER_FAILED);

        AVFormatContext *format = nullptr;
        require(avformat_alloc_output_context2(&format, nullptr, "mp4", nullptr) >= 0 && format != nullptr,
                KIVO_WRITE_FAILED);
        mFormat.reset(format);
        // The index is moved to the front by reading the file again by name.
        const std::string alias = file.descriptor_path();
        require(!alias.empty(), KIVO_WRITE_FAILED);
        av_freep(&format->url);
        format->url = av_strdup(alias.c_str());
        format->protocol_whitelist = av_strdup("file");
        mFd = file.fd();
        auto *buffer = static_cast<unsigned char *>(av_malloc(static_cast<std::size_t>(encoding.mBufferSize)));
        require(buffer != nullptr, KIVO_WRITE_FAILED);
        format->pb = avio_alloc_context(buffer, static_cast<int>(encoding.mBufferSize), 1, &mFd, nullptr,
                                        write_packet, seek);
        if (format->pb == nullptr)
            av_free(buffer);
        require(format->pb != nullptr, KIVO_WRITE_FAILED);
        format->flags |= AVFMT_FLAG_BITEXACT | AVFMT_FLAG_CUSTOM_IO;
        // The spherical video boxes are written at this compliance level.
        format->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;

        mStream = avformat_new_stream(format, nullptr);
        require(mStream != nullptr, KIVO_WRITE_FAILED);
        require(avcodec_parameters_from_context(mStream->codecpar, e) >= 0, KIVO_WRITE_FAILED);
        mStream->time_base = e->time_base;
        mStream->avg_frame_rate = rate;
        std::size_t size = 0;
        AVSphericalMapping *mapping = av_spherical_alloc(&size);
        require(mapping != nullptr, KIVO_WRITE_FAILED);
        mapping->projection = AV_SPHERICAL_EQUIRECTANGULAR;
        if (av_stream_add_side_data(mStream, AV_PKT_DATA_SPHERICAL, reinterpret_cast<std::uint8_t *>(mapping), size) <
            0) {
            av_free(mapping);
            throw Failure{KIVO_WRITE_FAILED};
        }
        AVStereo3D *stereo = av_stereo3d_alloc();
        require(stereo != nullptr, KIVO_WRITE_FAILED);
        stereo->type = AV_STEREO3D_2D;
        if (av_stream_add_side_data(mStream, AV_PKT_DATA_STEREO3D, reinterpret_cast<std::uint8_t *>(stereo),
                                    sizeof(*stereo)) < 0) {
            av_free(stereo);
            throw Failure{KIVO_WRITE_FAILED};
        }
        AVDictionary *options = nullptr;
        av_dict_set(&options, "movflags", "+faststart", 0);
        const int written = avformat_write_header(format, &options);
        av_dict_free(&options);
        require(written >= 0, KIVO_WRITE_FAILED);
    }

    // Sends a frame (null: the end) and writes every packet that comes out.
    void encode(const AVFrame *frame, AVPacket *packet) {
        require(avcodec_send_frame(mEncoder.get(), frame) >= 0, Lib::KIVO_ENCODER_FAILED);
        for (;;) {
            const int got = avcodec_receive_packet(mEncoder.get(), packet);
            if (got == AVERROR(EAGAIN) || got == AVERROR_EOF)
                return;
            require(got >= 0, Lib::KIVO_ENCODER_FAILED);
            av_packet_rescale_ts(packet, mEncoder->time_base, mStream->time_base);
            packet->stream_index = mStream->index;
            const int written = av_write_frame(mFormat.get(), packet);
            av_packet_unref(packet);
            require(written >= 0, KIVO_WRITE_FAILED);
        }
    }

    void finish() {
        require(av_write_trailer(mFormat.get()) >= 0, KIVO_WRITE_FAILED);
        avio_flush(mFormat->pb);
        require(mFormat->pb->error == 0, KIVO_WRITE_FAILED);
    }
};

// The poster: a limited-range yuv420p frame as a full-range JPEG.
std::string encode_poster(const AVFrame *frame) {
    const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    require(codec != nullptr, Lib::KIVO_ENCODER_FAILED);
    Codec encoder(avcodec_alloc_context3(codec));
    require(encoder != nullptr, Lib::KIVO_ENCODER_FAILED);
    encoder->width = frame->width;
    encoder->height = frame->height;
    encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
    encoder->color_range = AVCOL_RANGE_JPEG;
    encoder->time_base = AVRational{1, 25};
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = FF_QP2LAMBDA * 2;
    encoder->thread_count = 1;
    require(avcodec_open2(encoder.get(), codec, nullptr) >= 0, Lib::KIVO_ENCODER_FAILED);

    Frame full(av_frame_alloc());
    require(full != nullptr, Lib::KIVO_ENCODER_FAILED);
    full->width = frame->width;
    full->height = frame->height;
    full->format = AV_PIX_FMT_YUVJ420P;
    full->quality = encoder->global_quality;
    require(av_frame_get_buffer(full.get(), 0) >= 0, Lib::KIVO_ENCODER_FAILED);
    Scaler scaler(sws_getContext(frame->width, frame->height, AV_PIX_FMT_YUV420P, frame->width, frame->height,
                                 AV_PIX_FMT_YUVJ420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    require(scaler != nullptr, Lib::KIVO_ENCODER_FAILED);
    sws_scale(scaler.get(), frame->data, frame->linesize, 0, frame->height, full->data, full->linesize);

    Packet packet(av_packet_alloc());
    require(packet != nullptr, Lib::KIVO_ENCODER_FAILED);
    require(avcodec_send_frame(encoder.get(), full.get()) >= 0 && avcodec_send_frame(encoder.get(), nullptr) >= 0,
            Lib::KIVO_ENCODER_FAILED);
    require(avcodec_receive_packet(encoder.get(), packet.get()) >= 0, Lib::KIVO_ENCODER_FAILED);
    return std::string(reinterpret_cast<const char *>(packet->data), static_cast<std::size_t>(packet->size));
}

int run(const ENCODING &encoding, const char *source_path, double hdr_value, const char *output, const char *poster,
        double poster_time, double *statistics) {
    SOURCE source(source_path);
    const int width = source.mWidth & ~1, height = source.mHeight & ~1;
    zarn_backend::OutputFile video{std::filesystem::path(output)}, picture{std::filesystem::path(poster)};
    require(video.ok() && picture.ok(), KIVO_WRITE_FAILED);
    DESTINATION destination(encoding, width, height, source.mFrameRate, video);

    const bool adjust = hdr_value != 1.0;
    const std::array<unsigned char, 256> curve = tone_curve(hdr_value);
    const double frames_per_second = av_q2d(source.mFrameRate);
    const long long poster_frame = std::llround(std::min(poster_time * frames_per_second, double(Lib::MAX_FRAMES)));

    Scaler scaler;
    // Two converted frames in turn: the one being made and the last one,
    // the poster should the video end before the poster time (the encoder
    // copies what it keeps, so neither is ever copied).
    Frame decoded(av_frame_alloc()), converted(av_frame_alloc()), last(av_frame_alloc());
    Packet in(av_packet_alloc()), out(av_packet_alloc());
    require(decoded && converted && last && in && out, KIVO_WRITE_FAILED);
    for (AVFrame *frame : {converted.get(), last.get()}) {
        frame->width = width;
        frame->height = height;
        frame->format = AV_PIX_FMT_YUV420P;
        require(av_frame_get_buffer(frame, 0) >= 0, KIVO_WRITE_FAILED);
    }
    std::string jpeg;
    long long count = 0;
    int format = AV_PIX_FMT_NONE; // the scaler's source format

    // Converts, adjusts and encodes one decoded frame; keeps the poster's.
    const auto take = [&](AVFrame *frame) {
        require(frame->width == source.mWidth && frame->height == source.mHeight, KIVO_BAD_INPUT);
        require(++count <= Lib::MAX_FRAMES, Lib::KIVO_INPUT_TOO_LARGE);
        if (frame->format != format) {
            format = frame->format;
            scaler.reset(sws_getContext(width, height, static_cast<AVPixelFormat>(frame->format), width, height,
                                        AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
        }
        require(scaler != nullptr, KIVO_BAD_INPUT);
        require(av_frame_make_writable(converted.get()) >= 0, KIVO_WRITE_FAILED);
        sws_scale(scaler.get(), frame->data, frame->linesize, 0, height, converted->data, converted->linesize);
        if (adjust)
            for (int y = 0; y < height; ++y) {
                unsigned char *row = converted->data[0] + std::ptrdiff_t(y) * converted->linesize[0];
                for (int x = 0; x < width; ++x)
                    row[x] = curve[row[x]];
            }
        converted->pts = count - 1;
        if (count - 1 == poster_frame)
            jpeg = encode_poster(converted.get());
        destination.encode(converted.get(), out.get());
        std::swap(converted, last);
    };
    const auto drain = [&] {
        for (;;) {
            const int got = avcodec_receive_frame(source.mDecoder.get(), decoded.get());
            if (got == AVERROR(EAGAIN) || got == AVERROR_EOF)
                return;
            require(got >= 0, KIVO_BAD_INPUT);
            take(decoded.get());
            av_frame_unref(decoded.get());
        }
    };
    for (;;) {
        const int read = av_read_frame(source.mFormat.get(), in.get());
        if (read == AVERROR_EOF)
            break;
        require(read >= 0, KIVO_BAD_INPUT);
        if (in->stream_index == source.mStream) {
            const int sent = avcodec_send_packet(source.mDecoder.get(), in.get());
            av_packet_unref(in.get());
            require(sent >= 0, KIVO_BAD_INPUT);
            drain();
        } else {
            av_packet_unref(in.get());
        }
    }
    require(avcodec_send_packet(source.mDecoder.get(), nullptr) >= 0, KIVO_BAD_INPUT);
    drain();
    require(count > 0, KIVO_BAD_INPUT);
    destination.encode(nullptr, out.get());
    destination.finish();
    if (jpeg.empty())
        jpeg = encode_poster(last.get());

    require(picture.write(jpeg.data(), jpeg.size()), KIVO_WRITE_FAILED);
    require(video.commit() && picture.commit(), KIVO_WRITE_FAILED);
    if (statistics != nullptr) {
        statistics[0] = double(count);
        statistics[1] = double(count) / frames_per_second;
    }
    return KIVO_OK;
}

} // namespace

int transfer(const ENCODING &encoding, const char *source, double hdr_value, const char *output, const char *poster,
             double poster_time, double *statistics) {
    try {
        return run(encoding, source, hdr_value, output, poster, poster_time, statistics);
    } catch (const Failure &failure) {
        return failure.mCode;
    }
}

} // namespace zarn_transfer

// ---------------------------------------------------------------------------
// The entries.

namespace {

bool known_preset(const char *preset) {
    for (const char *name : Lib::PRESETS)
        if (preset != nullptr && std::strcmp(preset, name) == 0)
            return true;
    return false;
}

} // namespace

ZARN_BACKEND_ENTRY Lib::TRANSFER_HANDLE KIVO_CreateVideoTransferHandle() {
    return zarn_stitch::create_entry<KIVO_VideoTransfer::KIVO_VideoTransferParams>("KIVO_CreateVideoTransferHandle");
}

ZARN_BACKEND_ENTRY void KIVO_DestroyVideoTransferHandle(Lib::TRANSFER_HANDLE handle) {
    zarn_stitch::destroy_entry("KIVO_DestroyVideoTransferHandle", handle);
}

ZARN_BACKEND_ENTRY int KIVO_InitVideoTransferHandle(Lib::TRANSFER_HANDLE handle, long long buffer_size, int crf,
                                                    const char *preset, int gop, int threads) {
    const auto code = zarn_backend::enter("KIVO_InitVideoTransferHandle",
                                          {text(static_cast<const void *>(handle)), std::to_string(buffer_size),
                                           std::to_string(crf), text(preset), std::to_string(gop),
                                           std::to_string(threads)});
    if (handle == nullptr)
        return KIVO_BAD_ARGUMENT;
    if (code)
        return handle->keep(*code);
    if (buffer_size < Lib::MIN_BUFFER_SIZE || buffer_size > Lib::MAX_BUFFER_SIZE || crf < 0 || crf > Lib::MAX_CRF ||
        !known_preset(preset) || gop < 1 || gop > Lib::MAX_GOP || threads < 1 || threads > 16)
        return handle->keep(KIVO_BAD_ARGUMENT);
    // FFmpeg's own messages would only repeat the result code.
    static std::once_flag quiet;
    std::call_once(quiet, [] { av_log_set_level(AV_LOG_FATAL); });
    handle->mEncoding = zarn_transfer::ENCODING{buffer_size, crf, preset, gop, threads};
    handle->mInitialised = true;
    return handle->keep(KIVO_OK);
}

ZARN_BACKEND_ENTRY int KIVO_ExecuteVideoTransferHandle(Lib::TRANSFER_HANDLE handle, const char *source,
                                                       double hdr_value, const char *output, const char *poster,
                                                       double poster_time, double *statistics) {
    const auto code = zarn_backend::enter(
        "KIVO_ExecuteVideoTransferHandle",
        {text(static_cast<const void *>(handle)), text(source), zarn_backend::number_text(hdr_value), text(output),
         text(poster), zarn_backend::number_text(poster_time), text(static_cast<const void *>(statistics))});
    if (handle == nullptr)
        return KIVO_BAD_ARGUMENT;
    if (code)
        return handle->keep(*code);
    if (!handle->mInitialised)
        return handle->keep(KIVO_NOT_INITIALISED);
    if (source == nullptr || output == nullptr || poster == nullptr || !(hdr_value >= Lib::MIN_HDR_VALUE) ||
        !(hdr_value <= Lib::MAX_HDR_VALUE) || !(poster_time >= 0) || !std::isfinite(poster_time) ||
        std::strcmp(output, poster) == 0)
        return handle->keep(KIVO_BAD_ARGUMENT);
    return handle->keep(zarn_stitch::guarded(KIVO_WRITE_FAILED, [&] {
        return zarn_transfer::transfer(handle->mEncoding, source, hdr_value, output, poster, poster_time, statistics);
    }));
}

ZARN_BACKEND_ENTRY int KIVO_GetVideoTransferCode(Lib::TRANSFER_HANDLE handle) {
    return zarn_stitch::code_entry("KIVO_GetVideoTransferCode", handle, [](const auto &h) { return h.mCode.load(); });
}

// Each entry has exactly the type the callers bind it as.
static_assert(std::is_same_v<decltype(&KIVO_CreateVideoTransferHandle), Lib::CREATE_VIDEO_TRANSFER *>);
static_assert(std::is_same_v<decltype(&KIVO_DestroyVideoTransferHandle), Lib::DESTROY_VIDEO_TRANSFER *>);
static_assert(std::is_same_v<decltype(&KIVO_InitVideoTransferHandle), Lib::INIT_VIDEO_TRANSFER *>);
static_assert(std::is_same_v<decltype(&KIVO_ExecuteVideoTransferHandle), Lib::EXECUTE_VIDEO_TRANSFER *>);
static_assert(std::is_same_v<decltype(&KIVO_GetVideoTransferCode), Lib::GET_VIDEO_TRANSFER_CODE *>);
