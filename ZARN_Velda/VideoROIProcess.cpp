// VideoROIProcess: Region-of-interest frames cut from the stitched videos.
//
// The run: read the process's views from the split data and check every one
// of them whole before anything is written (a plain, unique name; a video of
// the stitch plan "caches/stitch_data.json" whose stitched file
// "caches/videos/<dst4 file name>" opens and decodes, with frames within the
// image limits; a time or frame before its end; a field of view in
// (0, 180); an output size of 1 to 16384 each way; the job's logo, a
// decodable image). Then, on the worker threads, each view that is not up to
// date is rendered from its frame as a flat perspective image
// (ViewProjection), and FFmpeg's command-line tool stamps it with the logo
// (top right) and its time text (bottom left: the optional caption, then
// the frame's time) into "caches/video_roi/<name>.jpg". The views are
// published into "results/video_roi/" by hard link and listed in
// "caches/upload.part8.json".
//
// The tool runs in the process's work folder "caches/video_roi/work/" on
// files of fixed names the process writes there ("<i>.view.bmp",
// "logo.png", "<i>.text.txt" -> "<i>.framed.jpg"): no name or text of a
// JSON file enters its command line or its filter graph; the work folder's
// path is the one word of the job on the command line, quoted as one
// argument.

#include "ZARN_Common/Fingerprint.h"
#include "ZARN_Common/VideoFrames.h"
#include "ZARN_Common/ViewProjection.h"
#include "ZARN_Velda/ProcessFrame.h"
#include "__ORN__/orn_images.h"
#include "__ORN__/orn_thread.h"


#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <string_view>

namespace ZARN {

using ORN::INDEX;
using ORN::FileSystemProc;
using ORN::String;

class VideoROIProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(VideoROIProcess)

public:
    using SETTING = Frame::WORKER_SETTING<64>;

    static constexpr std::array<std::string_view, 3> WORKING_DIRECTORIES = {"caches/video_roi", "caches/video_roi/work",
                                                                            "results/video_roi"};
    static constexpr std::string_view STITCH_DATA = "caches/stitch_data.json";
    static constexpr std::string_view VIDEO_FOLDER = "caches/videos";
    static constexpr std::string_view VIEW_FOLDER = "caches/video_roi";
    static constexpr std::string_view WORK_FOLDER = "caches/video_roi/work";
    static constexpr std::string_view DEFAULT_LOGO = "extras/logo.png";
    static constexpr std::string_view FINGERPRINTS = "caches/fingerprints/VideoROIProcess.json";
    static constexpr std::string_view MANIFEST = "caches/upload.part8.json";
    // The font of the time text (Debian's fonts-dejavu-core).
    static constexpr std::string_view FONT = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
    // Most views one job may ask for, the largest side of a view, the
    // longest caption (bytes) and view name (bytes, so that "<name>.jpg" and
    // the publisher's temporary names stay within a file name's 255 bytes).
    static constexpr INDEX MAX_VIEWS = 256;
    static constexpr ORN::int64 MAX_SIDE = 16384;
    static constexpr INDEX MAX_TEXT = 1024;
    static constexpr INDEX MAX_NAME = 200;
    // The framed views' JPEG quality on FFmpeg's scale (2 best, 31 worst).
    static constexpr int QUALITY = 2;
    // Bumped when the stamp's layout changes, so that earlier views are redone.
    static constexpr int LAYOUT = 1;

    // One view of the split data.
    struct NDS_mVideoROIView {
        String<char> mName, mVideo, mText;
        bool mHasTime = false;
        double mTime = 0;
        ORN::int64 mFrame = 0; // as given
        ViewProjection::VIEW mView;
    };
    // Where a view's frame is: its video as probed and the frame's index.
    struct NDS_mVideoROIFrame {
        String<char> mFile; // "caches/videos/<dst4 file name>"
        ORN::int64 mFrame = 0;
        ORN::int64 mFrameWidth = 0, mFrameHeight = 0, mFrameCount = 0;
        double mFps = 0;
    };

    static void refuse(INDEX i, const String<char> &name, std::string_view reason, const String<char> &detail = {}) {
        ORN::console().error("views[", i, "] (", name, ") : ", reason, detail);
    }

    static bool plain_name(const String<char> &name) {
        return !name.empty() && name.size() <= MAX_NAME && name.find_first_of(std::string_view("/\\\0", 3)) == String<char>::npos &&
               name != "." && name != "..";
    }

    // The video records of the stitch plan: name -> "caches/videos/<dst4
    // file name>". Read only when there are views.
    struct CON_mStitchDataVideo {
        ORN_NODE(CON_mStitchDataVideo);
        ORN::Array<ORN::PACK<String<char>, String<char>>> mSelf;
        explicit CON_mStitchDataVideo(ORN::SyntaxTree &tree) {
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &path] {
                const ORN::JobDirectory job(path.mSelf);
                ConsistencyProc::check_file_existance(job, STITCH_DATA);
                const ORN::JsonParser plan(job.load_file(STITCH_DATA).text(), job.path(STITCH_DATA));
                for (const ORN::JsonParser &e : plan.child("stitch_main_param").child("video_file").children()) {
                    const String<char> name = e.child("name").value("");
                    const String<char> file = FileSystemProc::file_name(e.child("dst4").value(""));
                    if (!name.empty() && plain_name(file))
                        mSelf.append(ORN::PACK<String<char>, String<char>>{name, String<char>(VIDEO_FOLDER) + "/" + file});
                }
            });
        }
        const String<char> *find(const String<char> &name) const {
            for (const auto &record : mSelf)
                if (record.mP1 == name)
                    return &record.mP2;
            return nullptr;
        }
    };

    // The views, each checked on its own (everything the split data alone
    // tells), and the logo's name.
    struct CON_mVideoROIData {
        ORN_NODE(CON_mVideoROIData);
        ORN::Array<NDS_mVideoROIView> mSelf;
        String<char> mLogo;
        explicit CON_mVideoROIData(ORN::SyntaxTree &tree) {
            const auto &json = tree.stack<CON_mSplitDataJson>();
            tree.once([this, &json] {
                const bool r1x = json.mSelf.object_type();
                if (!r1x)
                    ORN::console().error("VideoROIProcess : the split data member is not an object");
                _DYNAMIC_ASSERT_(r1x);
                mLogo = json.mSelf.child("logo").value(String<char>(DEFAULT_LOGO));
                const ORN::JsonParser views = json.mSelf.child("views");
                const bool r2x = !views.exist() || views.array_type();
                if (!r2x)
                    ORN::console().error("VideoROIProcess : \"views\" is not an array");
                _DYNAMIC_ASSERT_(r2x);
                const bool r3x = views.size() <= MAX_VIEWS;
                if (!r3x)
                    ORN::console().error("VideoROIProcess : ", views.size(), " views, at most ", MAX_VIEWS);
                _DYNAMIC_ASSERT_(r3x);
                for (const ORN::JsonParser &e : views.children()) {
                    const INDEX i = mSelf.size();
                    read_view(i, e, mSelf.append());
                }
                ORN::Set<String<char>> names;
                for (INDEX i = 0; i < mSelf.size(); ++i) {
                    const bool once = names.find(mSelf[i].mName) == ORN::VAR_NONE;
                    if (!once)
                        refuse(i, mSelf[i].mName, "two views with one name");
                    _DYNAMIC_ASSERT_(once);
                    names.insert(mSelf[i].mName);
                }
                ORN::console().info("video views : ", mSelf.size());
            });
        }

    private:
        static void read_view(INDEX i, const ORN::JsonParser &e, NDS_mVideoROIView &v) {
            v.mVideo = e.child("video").value("");
            v.mName = e.child("name").exist() ? e.child("name").value("") : v.mVideo + "_" + std::to_string(i);
            const bool object = e.object_type();
            if (!object)
                refuse(i, v.mName, "not an object");
            _DYNAMIC_ASSERT_(object);
            const bool named = plain_name(v.mName);
            if (!named)
                refuse(i, v.mName, "not a plain file name of at most " + std::to_string(MAX_NAME) + " bytes");
            _DYNAMIC_ASSERT_(named);
            const bool video = !v.mVideo.empty();
            if (!video)
                refuse(i, v.mName, "no \"video\"");
            _DYNAMIC_ASSERT_(video);

            const ORN::JsonParser time = e.child("time"), frame = e.child("frame");
            const bool one = time.exist() != frame.exist();
            if (!one)
                refuse(i, v.mName, "give exactly one of \"time\" and \"frame\"");
            _DYNAMIC_ASSERT_(one);
            v.mHasTime = time.exist();
            v.mTime = time.value(-1.0);
            v.mFrame = frame.value(ORN::int64(-1));
            const bool when = v.mHasTime ? std::isfinite(v.mTime) && v.mTime >= 0 : v.mFrame >= 0;
            if (!when)
                refuse(i, v.mName, v.mHasTime ? "time is not a number of seconds >= 0 : " : "frame is not an index >= 0 : ",
                       String<char>(v.mHasTime ? time.view() : frame.view()));
            _DYNAMIC_ASSERT_(when);

            const double nan = std::nan("");
            v.mView.mYaw = e.child("yaw").value(0.0);
            v.mView.mPitch = e.child("pitch").value(0.0);
            v.mView.mRoll = e.child("roll").value(0.0);
            v.mView.mFov = e.child("fov").exist() ? e.child("fov").value(nan) : 90.0;
            const bool angles = std::isfinite(v.mView.mYaw) && std::isfinite(v.mView.mPitch) &&
                                std::isfinite(v.mView.mRoll) && (e.child("yaw").exist() ? e.child("yaw").value(nan) == v.mView.mYaw : true) &&
                                (e.child("pitch").exist() ? e.child("pitch").value(nan) == v.mView.mPitch : true) &&
                                (e.child("roll").exist() ? e.child("roll").value(nan) == v.mView.mRoll : true);
            if (!angles)
                refuse(i, v.mName, "yaw, pitch and roll must be numbers of degrees");
            _DYNAMIC_ASSERT_(angles);
            const bool fov = v.mView.mFov > 0 && v.mView.mFov < 180;
            if (!fov)
                refuse(i, v.mName, "fov outside (0, 180) : ", String<char>(e.child("fov").view()));
            _DYNAMIC_ASSERT_(fov);

            const ORN::int64 width = e.child("width").value(ORN::int64(0)), height = e.child("height").value(ORN::int64(0));
            const bool size = width >= 1 && width <= MAX_SIDE && height >= 1 && height <= MAX_SIDE &&
                              width * height <= ORN::Image::max_pixels();
            if (!size)
                refuse(i, v.mName, "output size outside 1..16384 each way (at most " +
                                       std::to_string(ORN::Image::max_pixels()) + " pixels) : ",
                       String<char>(e.child("width").view()) + " x " + String<char>(e.child("height").view()));
            _DYNAMIC_ASSERT_(size);
            v.mView.mWidth = width;
            v.mView.mHeight = height;

            const ORN::JsonParser text = e.child("text");
            v.mText = text.value("");
            const bool caption = !text.exist() || (text.string_type() && v.mText.size() <= MAX_TEXT);
            if (!caption)
                refuse(i, v.mName, "text is not a text of at most " + std::to_string(MAX_TEXT) + " bytes");
            _DYNAMIC_ASSERT_(caption);
        }
    };

    // What the views need from the job, checked before any work: the plan's
    // videos (each opened, its frame size within the image limits, each
    // view's time within its length) and the logo (a decodable image),
    // decoded here.
    struct CON_mVideoROIRequiredFile {
        ORN_NODE(CON_mVideoROIRequiredFile);
        ORN::Array<NDS_mVideoROIFrame> mSelf; // one per view
        ORN::Image mLogo;
        explicit CON_mVideoROIRequiredFile(ORN::SyntaxTree &tree) {
            const auto &data = tree.stack<CON_mVideoROIData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.maybe<CON_mStitchDataVideo>();
            tree.once([this, &tree, &data, &path] {
                if (data.mSelf.empty())
                    return;
                const auto &plan = tree.stack<CON_mStitchDataVideo>();
                tree.then([this, &data, &plan, &path] { check(data, plan, path); });
            });
        }

    private:
        void check(const CON_mVideoROIData &data, const CON_mStitchDataVideo &plan, const VAR_mWorkingPath &path) {
            const ORN::JobDirectory job(path.mSelf);
            for (INDEX i = 0; i < data.mSelf.size(); ++i) {
                const NDS_mVideoROIView &v = data.mSelf[i];
                const String<char> *file = plan.find(v.mVideo);
                const bool known = file != nullptr;
                if (!known)
                    refuse(i, v.mName, "no video of that name in the stitch plan : ", v.mVideo);
                _DYNAMIC_ASSERT_(known);
                NDS_mVideoROIFrame &f = mSelf.append();
                f.mFile = *file;
                probe(job, i, v, f, mSelf);
            }
            const String<char> why = job.why_refused(data.mLogo);
            const bool logo = why.empty();
            if (!logo)
                ORN::console().error("logo : ", job.path(data.mLogo), " : ", why);
            _DYNAMIC_ASSERT_(logo);
            const auto bytes = job.load_file(data.mLogo, ORN::JobDirectory::config_file_size());
            const String<char> header = ORN::Image::check_header(bytes.data(), bytes.size());
            if (!header.empty())
                ORN::console().error("logo : ", job.path(data.mLogo), " : ", header);
            _DYNAMIC_ASSERT_(header.empty ());
            mLogo = ORN::Image::decode(bytes, ORN::ImageReadMode::UNCHANGED);
            const bool font = FileSystemProc::find_file(String<char>(FONT));
            if (!font)
                ORN::console().error("missing file : ", FONT, " : the font of the time text (fonts-dejavu-core)");
            _DYNAMIC_ASSERT_(font);
        }

        // Opens the view's video (once per video: the views of one video
        // share what was found), then places the view's frame in it.
        static void probe(const ORN::JobDirectory &job, INDEX i, const NDS_mVideoROIView &v, NDS_mVideoROIFrame &f,
                          const ORN::Array<NDS_mVideoROIFrame> &frames) {
            const NDS_mVideoROIFrame *known = nullptr;
            for (INDEX k = 0; k < i && known == nullptr; ++k)
                if (frames[k].mFile == f.mFile)
                    known = &frames[k];
            if (known != nullptr) {
                f.mFrameWidth = known->mFrameWidth;
                f.mFrameHeight = known->mFrameHeight;
                f.mFrameCount = known->mFrameCount;
                f.mFps = known->mFps;
            } else {
                const String<char> why = job.why_refused(f.mFile);
                const bool there = why.empty();
                if (!there)
                    refuse(i, v.mName, "video " + why + " : ", job.path(f.mFile));
                _DYNAMIC_ASSERT_(there);
                const ORN::JobDirectory::Input input = job.open_input(f.mFile);
                VideoFrames::INFO info;
                const bool decodable = VideoFrames::probe(input.path(), info);
                if (decodable) {
                    f.mFrameWidth = info.mWidth;
                    f.mFrameHeight = info.mHeight;
                    f.mFrameCount = info.mFrameCount;
                    f.mFps = info.mFps;
                }
                const bool opened = decodable && f.mFrameCount > 0 && f.mFps > 0 && std::isfinite(f.mFps);
                if (!opened)
                    refuse(i, v.mName, "video not decodable : ", job.path(f.mFile));
                _DYNAMIC_ASSERT_(opened);
                const bool framed = f.mFrameWidth >= 2 && f.mFrameHeight >= 1 &&
                                    f.mFrameWidth <= ORN::Image::max_side() && f.mFrameHeight <= ORN::Image::max_side() &&
                                    f.mFrameWidth * f.mFrameHeight <= ORN::Image::max_pixels();
                if (!framed)
                    refuse(i, v.mName,
                           "video frames of " + std::to_string(f.mFrameWidth) + " x " + std::to_string(f.mFrameHeight) +
                               " pixels, beyond the image limits : ",
                           job.path(f.mFile));
                _DYNAMIC_ASSERT_(framed);
            }
            // The frame shown at time t is the one that starts at or before
            // it (a millionth of a frame of slack for times written in decimal).
            if (v.mHasTime)
                f.mFrame = static_cast<ORN::int64>(std::min(std::floor(v.mTime * f.mFps + 1e-6), 9.0e18));
            if (!v.mHasTime)
                f.mFrame = v.mFrame;
            const bool inside = f.mFrame < f.mFrameCount;
            if (!inside) {
                char length[128];
                std::snprintf(length, sizeof(length), "the video has %lld frames (%.3f s at %g fps) : ",
                              static_cast<long long>(f.mFrameCount), double(f.mFrameCount) / f.mFps, f.mFps);
                refuse(i, v.mName,
                       (v.mHasTime ? "time beyond the end of the video, " : "frame beyond the end of the video, ") +
                           String<char>(length),
                       job.path(f.mFile));
            }
            _DYNAMIC_ASSERT_(inside);
        }
    };

    // What a framed view is made from.
    static String<char> view_fingerprint(const ORN::JobDirectory &job, const String<char> &logo,
                                         const NDS_mVideoROIView &v, const NDS_mVideoROIFrame &f) {
        Fingerprint fingerprint;
        fingerprint.add_file(job, f.mFile).add_file(job, logo);
        fingerprint.add(f.mFrame).add(v.mView.mYaw).add(v.mView.mPitch).add(v.mView.mRoll).add(v.mView.mFov);
        fingerprint.add(v.mView.mWidth).add(v.mView.mHeight).add(std::string_view(v.mText));
        fingerprint.add(QUALITY).add(LAYOUT);
        return fingerprint.text();
    }
    static String<char> view_file(const NDS_mVideoROIView &v) { return String<char>(VIEW_FOLDER) + "/" + v.mName + ".jpg"; }

    // The time of a frame, "hh:mm:ss.mmm".
    static String<char> time_text(const NDS_mVideoROIFrame &f) {
        const auto ms = static_cast<long long>(std::llround(double(f.mFrame) / f.mFps * 1000.0));
        char text[64];
        std::snprintf(text, sizeof(text), "%02lld:%02lld:%02lld.%03lld", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60,
                      ms % 1000);
        return text;
    }

    // The overlay tool's command line for view i: in the work folder, the
    // rendered view and the logo in, the framed view out. Only numbers and
    // the process's own fixed names go into the filter graph.
    static String<char> overlay_command(const ORN::JobDirectory &job, INDEX i, const NDS_mVideoROIView &v,
                                        const ORN::Image &logo) {
        const ORN::int64 w = v.mView.mWidth, h = v.mView.mHeight;
        const ORN::int64 margin = std::max<ORN::int64>(2, std::min(w, h) / 40);
        // The logo at most a fifth of the view each way, never enlarged.
        const double scale = std::min({1.0, double(w) / 5.0 / double(logo.width()), double(h) / 5.0 / double(logo.height())});
        const ORN::int64 lw = std::max<ORN::int64>(1, std::llround(double(logo.width()) * scale));
        const ORN::int64 lh = std::max<ORN::int64>(1, std::llround(double(logo.height()) * scale));
        const ORN::int64 font = std::max<ORN::int64>(8, h / 24);
        const String<char> n = std::to_string(i);
        const String<char> graph = "[1:v]scale=" + std::to_string(lw) + ":" + std::to_string(lh) +
                                   ":flags=area[logo];[0:v][logo]overlay=x=" + std::to_string(std::max<ORN::int64>(0, w - lw - margin)) +
                                   ":y=" + std::to_string(std::min(margin, std::max<ORN::int64>(0, h - lh))) +
                                   ":format=auto,drawtext=fontfile=" + String<char>(FONT) + ":textfile=" + n +
                                   ".text.txt:expansion=none:fontsize=" + std::to_string(font) +
                                   ":fontcolor=white:box=1:boxcolor=black@0.5:boxborderw=" +
                                   std::to_string(std::max<ORN::int64>(1, font / 4)) + ":x=" + std::to_string(margin) +
                                   ":y=h-th-" + std::to_string(margin) + ",format=yuvj444p";
        using ORN::GlobalRuntime;
        return "cd " + GlobalRuntime::quote_argument(job.path(WORK_FOLDER)) +
               " && ffmpeg -nostdin -hide_banner -loglevel error -y -i " + n + ".view.bmp -i logo.png -filter_complex " +
               GlobalRuntime::quote_argument(graph) + " -frames:v 1 -update 1 -q:v " + std::to_string(QUALITY) + " " + n +
               ".framed.jpg";
    }

    // Renders and stamps every view that is not up to date on the workers,
    // then publishes the set.
    struct ACT_mVideoROI {
        ORN_NODE(ACT_mVideoROI);
        explicit ACT_mVideoROI(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mWorkingPath>();
            const auto &data = tree.stack<CON_mVideoROIData>();
            const auto &files = tree.stack<CON_mVideoROIRequiredFile>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&data, &files, &setting, &path] { run(data, files, setting, path); });
        }

        static void run(const CON_mVideoROIData &data, const CON_mVideoROIRequiredFile &files, const CON_mSetting &setting,
                        const VAR_mWorkingPath &path) {
            auto &console = ORN::console();
            const ORN::JobDirectory job(path.mSelf);
            clean_work(job);
            FingerprintRecord record(job, String<char>(FINGERPRINTS));
            ORN::Array<INDEX> todo;
            ORN::Array<String<char>> keys;
            for (INDEX i = 0; i < data.mSelf.size(); ++i) {
                const NDS_mVideoROIView &v = data.mSelf[i];
                const String<char> key = view_fingerprint(job, data.mLogo, v, files.mSelf[i]);
                if (record.up_to_date(v.mName, key, {view_file(v)}))
                    continue;
                todo.append(i);
                keys.append(key);
                record.set(v.mName, String<char>(), false); // until it is made again
            }
            record.save();
            if (todo.size() < data.mSelf.size())
                console.info("video roi : ", data.mSelf.size() - todo.size(), " of ", data.mSelf.size(), " views up to date");
            if (!todo.empty()) {
                console.info("initializing views");
                job.save_file(String<char>(WORK_FOLDER) + "/logo.png", ORN::Image::encode(".png", files.mLogo).text());
                const ORN::TimePoint start = ORN::TimePoint::now();
                // A task holds the decoded frame twice (the decoder's and the
                // copy rendered from), the half-size level, and the view three
                // times (rendered, encoded, checked).
                ORN::int64 task_bytes = 0;
                for (const INDEX i : todo) {
                    const NDS_mVideoROIView &v = data.mSelf[i];
                    const NDS_mVideoROIFrame &f = files.mSelf[i];
                    task_bytes = std::max<ORN::int64>(task_bytes, f.mFrameWidth * f.mFrameHeight * 8 +
                                                                      v.mView.mWidth * v.mView.mHeight * 9);
                }
                const ORN::WORKER_PLAN plan = ORN::WorkThread::plan(setting.mThreadConcurrency, todo.size(), task_bytes);
                console.info(plan.mReason);
                // The cores the workers leave render the rows of one view.
                const int rows = static_cast<int>(plan.mLibraryThreads);
                std::mutex record_mutex;
                auto progress = console.progress("video roi : ", todo.size());
                ORN::WorkThread workers(plan);
                for (INDEX t = 0; t < todo.size(); ++t)
                    workers.submit([&, t] {
                        const INDEX i = todo[t];
                        const NDS_mVideoROIView &v = data.mSelf[i];
                        console.info("processing view [", i, "] ", v.mName);
                        frame_view(job, i, v, files.mSelf[i], files.mLogo, rows);
                        {
                            const std::lock_guard<std::mutex> hold(record_mutex);
                            record.set(v.mName, keys[t]);
                        }
                        progress.advance();
                    });
                workers.wait();
                progress.finish();
                console.info("time costs : ", start.elapsed().text());
                clean_work(job);
            }
            remove_stale(job, data);
            ORN::Array<ORN::JobDirectory::PUBLISHED> published;
            for (const NDS_mVideoROIView &v : data.mSelf)
                published.append(ORN::JobDirectory::PUBLISHED{view_file(v), "results/video_roi/" + v.mName + ".jpg"});
            job.publish_files("results/video_roi", published);
        }

        // One view: its frame decoded, rendered, written for the tool,
        // stamped, checked and moved into "caches/video_roi/<name>.jpg".
        static void frame_view(const ORN::JobDirectory &job, INDEX i, const NDS_mVideoROIView &v,
                               const NDS_mVideoROIFrame &f, const ORN::Image &logo, int rows) {
            auto &console = ORN::console();
            ORN::Image frame;
            {
                const ORN::JobDirectory::Input input = job.open_input(f.mFile);
                frame = VideoFrames::read(input.path(), f.mFrameWidth, f.mFrameHeight, f.mFrame);
                const bool read = !frame.empty();
                if (!read)
                    refuse(i, v.mName, "frame " + std::to_string(f.mFrame) + " not decodable : ", job.path(f.mFile));
                _DYNAMIC_ASSERT_(read);
            }
            const ORN::Image view = ViewProjection::render(frame, v.mView, rows);
            frame = ORN::Image();
            const String<char> n = String<char>(WORK_FOLDER) + "/" + std::to_string(i);
            job.save_file(n + ".view.bmp", ORN::Image::encode(".bmp", view).text());
            job.save_file(n + ".text.txt", v.mText.empty() ? time_text(f) : v.mText + "\n" + time_text(f));
            job.erase_file(n + ".framed.jpg");

            const String<char> command = overlay_command(job, i, v, logo);
            console.info(command);
            const ORN::int64 mOverlayReturnValue = ORN::GlobalRuntime::system_exec(command);
            console.info("return value = ", mOverlayReturnValue);
            if (mOverlayReturnValue != 0)
                refuse(i, v.mName, "the overlay tool failed with status ", std::to_string(mOverlayReturnValue));
            _DYNAMIC_ASSERT_(mOverlayReturnValue == 0);

            // What the tool wrote must be the view, whole.
            const String<char> why = job.why_refused(n + ".framed.jpg");
            ORN::IMAGE_HEADER header;
            const auto bytes = why.empty() ? job.load_file(n + ".framed.jpg", ORN::FileSystemProc::load_file_size())
                                           : ORN::Buffer<unsigned char>();
            const bool r1x = why.empty() && ORN::Image::probe(bytes.data(), bytes.size(), header) &&
                             header.mWidth == v.mView.mWidth && header.mHeight == v.mView.mHeight &&
                             !ORN::Image::decode(bytes).empty();
            if (!r1x)
                refuse(i, v.mName, "the overlay tool left no framed view of the right size : ", job.path(n + ".framed.jpg"));
            _DYNAMIC_ASSERT_(r1x);
            job.publish_file(n + ".framed.jpg", view_file(v));
            for (const char *part : {".view.bmp", ".text.txt", ".framed.jpg"})
                job.erase_file(n + part);
        }

        // The work folder holds nothing between runs.
        static void clean_work(const ORN::JobDirectory &job) {
            for (const auto &entry : job.list_entries(WORK_FOLDER))
                if (entry.mKind != ORN::JobDirectory::KIND::DIRECTORY)
                    job.erase_file(String<char>(WORK_FOLDER) + "/" + entry.mName);
        }

        // Views of "caches/video_roi/" that no view of this run makes any
        // more (left by an earlier member).
        static void remove_stale(const ORN::JobDirectory &job, const CON_mVideoROIData &data) {
            ORN::Set<String<char>> keep;
            for (const NDS_mVideoROIView &v : data.mSelf)
                keep.insert(v.mName + ".jpg");
            for (const String<char> &name : job.list_files(VIEW_FOLDER))
                if (keep.find(name) == ORN::VAR_NONE && name.size() > 4 && name.substr(name.size() - 4) == ".jpg")
                    job.erase_file(String<char>(VIEW_FOLDER) + "/" + name);
        }
    };

    // "caches/upload.part8.json": {"upload":[{"file":"video_roi/<name>.jpg"},...]}.
    struct ACT_mUploadPart8Json {
        ORN_NODE(ACT_mUploadPart8Json);
        explicit ACT_mUploadPart8Json(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mVideoROI>();
            const auto &data = tree.stack<CON_mVideoROIData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&data, &path] {
                ORN::JsonWriter writer(256 + 64 * data.mSelf.size());
                writer.raw("{").key("upload").raw("[");
                for (INDEX k = 0; k < data.mSelf.size(); ++k) {
                    if (k > 0)
                        writer.comma();
                    writer.raw("{").key("file").string("video_roi/" + data.mSelf[k].mName + ".jpg").raw("}");
                }
                writer.raw("]}");
                ORN::JobDirectory(path.mSelf).save_file(MANIFEST, writer.text());
                ORN::console().info(MANIFEST, " : ", data.mSelf.size(), " files");
            });
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath, ACT_mVideoROI, ACT_mUploadPart8Json>;
};

ZARN_DEFINE_PROCESS(VideoROIProcess)

} // namespace ZARN
