// VideoTransferProcess: HDR parameters and transfer of the stitched videos.
//
// The run: read the stitch plan "caches/stitch_data.json" and the HDR values
// of its stitched videos "caches/videos/videos_hdr_param.json", and check
// them whole (every listed video a video record of the plan, its stitched
// file in "caches/videos/" present, its HDR value in range) before anything
// is written; then, on the worker threads, have the stitching library turn
// each video whose source or parameters changed into the form a web 360
// viewer streams ("caches/transfer/<name>.mp4": H.264, fast start,
// spherical metadata; "caches/transfer/<name>.jpg": its poster), publish
// the deliveries into "results/videos/web/" by hard link and list them with
// their sizes and SHA-256 digests, whole and per upload part, in
// "caches/upload.part10.json".

#include "ZARN_Common/Digest.h"
#include "ZARN_Common/Fingerprint.h"
#include "ZARN_Common/VideoTransferLibrary.h"
#include "ZARN_Common/export.h"
#include "ZARN_Velda/ProcessFrame.h"
#include "ZARN_Velda/StitchHandle.h"
#include "__ORN__/orn_thread.h"


#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <mutex>
#include <string_view>

namespace ZARN {

namespace Lib = VideoTransferLibrary;
using ORN::INDEX;
using ORN::String;

// The video transfer entries of the stitching library, linked in this order.
struct VideoTransferHandle {
    DLL mDLL;
    Lib::CREATE_VIDEO_TRANSFER *mCreateVideoTransferHandle = nullptr;
    Lib::DESTROY_VIDEO_TRANSFER *mDestroyVideoTransferHandle = nullptr;
    Lib::INIT_VIDEO_TRANSFER *mInitVideoTransferHandle = nullptr;
    Lib::EXECUTE_VIDEO_TRANSFER *mExecuteVideoTransferHandle = nullptr;
    Lib::GET_VIDEO_TRANSFER_CODE *mGetVideoTransferCode = nullptr;

    VideoTransferHandle() {
        mDLL.open(DLL::library_path(STITCH_LIBRARY::LIBRARY));
        mCreateVideoTransferHandle = mDLL.link_as<Lib::CREATE_VIDEO_TRANSFER>("KIVO_CreateVideoTransferHandle");
        mDestroyVideoTransferHandle = mDLL.link_as<Lib::DESTROY_VIDEO_TRANSFER>("KIVO_DestroyVideoTransferHandle");
        mInitVideoTransferHandle = mDLL.link_as<Lib::INIT_VIDEO_TRANSFER>("KIVO_InitVideoTransferHandle");
        mExecuteVideoTransferHandle = mDLL.link_as<Lib::EXECUTE_VIDEO_TRANSFER>("KIVO_ExecuteVideoTransferHandle");
        mGetVideoTransferCode = mDLL.link_as<Lib::GET_VIDEO_TRANSFER_CODE>("KIVO_GetVideoTransferCode");
    }
};

class VideoTransferProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(VideoTransferProcess)

public:
    // One video transcodes at a time unless the settings ask for more: each
    // one keeps the encoder's threads busy already.
    struct SETTING {
        ORN::int64 mThreadConcurrency = 1;                                          // videos transcoded at once
        ORN::int64 mFileWriterBufferSize = Frame::DEFAULT_FILE_WRITER_BUFFER_SIZE; // bytes of the writer and the hashing reads
        ORN::int64 mUploadPartSize = 8388608; // bytes of one upload part of the manifest

        template <class S, class F>
        static void each(S &s, F &&f) {
            f("mThreadConcurrency", s.mThreadConcurrency);
            f("mFileWriterBufferSize", s.mFileWriterBufferSize);
            f("mUploadPartSize", s.mUploadPartSize);
        }
    };

    static constexpr std::array<std::string_view, 2> WORKING_DIRECTORIES = {"caches/transfer", "results/videos/web"};
    static constexpr std::string_view STITCH_DATA = "caches/stitch_data.json";
    static constexpr std::string_view HDR_PARAM_FILE = "caches/videos/videos_hdr_param.json";
    static constexpr std::string_view VIDEO_FOLDER = "caches/videos";
    static constexpr std::string_view TRANSFER_FOLDER = "caches/transfer";
    static constexpr std::string_view RESULT_FOLDER = "results/videos/web";
    static constexpr std::string_view MANIFEST = "caches/upload.part10.json";
    // The fingerprints of the deliveries' sources and parameters when last made.
    static constexpr std::string_view FINGERPRINTS = "caches/fingerprints/VideoTransferProcess.json";

    // The encoding of every delivery: H.264 at constant rate factor 23 with
    // x264's "fast" preset, a key frame at least every 48 frames, four
    // encoder threads whatever the machine (the same source gives the same
    // bytes everywhere), the poster at one second (the last frame of a
    // shorter video).
    static constexpr int CRF = 23, GOP = 48, ENCODER_THREADS = 4;
    static constexpr const char *PRESET = "fast";
    static constexpr double POSTER_TIME = 1.0;
    // The upload part size's bounds, and the bounds the buffer setting is
    // held to for the library's writer and the hashing reads.
    static constexpr ORN::int64 MIN_PART_SIZE = 4096, MAX_PART_SIZE = ORN::int64(1) << 32;
    static constexpr ORN::int64 MIN_BUFFER = 4096, MAX_BUFFER = ORN::int64(64) << 20;
    // What one transcoding takes at its peak: the decoded, converted and
    // encoder's frames (x264's lookahead and references, about 100 bytes
    // per pixel) of a 2048 x 1024 video, and the writer's buffer.
    static constexpr ORN::int64 TASK_PIXELS = 2048 * 1024, BYTES_PER_PIXEL = 100;

    // One stitched video to deliver.
    struct NDS_mVideoTransferData {
        String<char> mName;   // the video's name in the plan, and its deliveries'
        String<char> mSource; // "caches/videos/<file>", the plan's "dst4"
        double mHdr = 1.0;
    };

    static ORN::int64 buffer_size(const CON_mSetting &setting) {
        return std::clamp(setting.mFileWriterBufferSize, MIN_BUFFER, MAX_BUFFER);
    }
    static String<char> delivery(const String<char> &name, std::string_view extension) {
        return name + String<char>(extension);
    }

    // A job file read whole when present; `present` tells whether it was.
    static ORN::JsonParser optional_json(const ORN::JobDirectory &job, std::string_view name, bool &present) {
        present = job.exist(name);
        if (!present)
            return ORN::JsonParser();
        ConsistencyProc::check_file_existance(job, name);
        return ORN::JsonParser(job.load_file(name).text(), job.path(name));
    }

    // The videos to deliver, in the order of the HDR file, every one
    // checked before any is touched. Without a plan that lists videos and
    // without an HDR file there is nothing to deliver.
    struct CON_mVideoTransferData {
        ORN_NODE(CON_mVideoTransferData);
        ORN::Array<NDS_mVideoTransferData> mSelf;
        explicit CON_mVideoTransferData(ORN::SyntaxTree &tree) {
            const auto &path = tree.stack<VAR_mWorkingPath>();
            const auto &setting = tree.stack<CON_mSetting>();
            tree.once([this, &path, &setting] {
                const ORN::JobDirectory job(path.mSelf);
                check_setting(setting);
                bool plan_present = false, hdr_present = false;
                const ORN::JsonParser plan = optional_json(job, STITCH_DATA, plan_present);
                ORN::Array<ORN::PACK<String<char>, String<char>>> videos; // name, dst4
                for (const ORN::JsonParser &e : plan.child("stitch_main_param").child("video_file").children())
                    videos.append(ORN::PACK<String<char>, String<char>>{e.child("name").value(""), e.child("dst4").value("")});
                if (!job.exist(HDR_PARAM_FILE) && videos.empty()) {
                    ORN::console().info("video transfer : no stitched videos");
                    return;
                }
                ConsistencyProc::check_file_existance(job, HDR_PARAM_FILE);
                const ORN::JsonParser hdr = optional_json(job, HDR_PARAM_FILE, hdr_present).child("hdr_param");
                if (!hdr.array_type())
                    ORN::console().error("HDR parameter file without an \"hdr_param\" array : ", job.path(HDR_PARAM_FILE));
                _DYNAMIC_ASSERT_(hdr.array_type ());
                const bool bounded = hdr.size() <= MAX_VIDEOS;
                if (!bounded)
                    ORN::console().error("HDR parameter file lists ", hdr.size(), " videos (at most ", MAX_VIDEOS, ")");
                _DYNAMIC_ASSERT_(bounded);
                ORN::Set<String<char>> names;
                for (const ORN::JsonParser &e : hdr.children()) {
                    NDS_mVideoTransferData &r = mSelf.append();
                    r.mName = e.child("name").value("");
                    r.mHdr = e.child("value").value(std::nan(""));
                    check(job, mSelf.size() - 1, r, videos, names);
                }
                ORN::console().info(HDR_PARAM_FILE, " : ", mSelf.size(), " videos");
            });
        }

        static constexpr INDEX MAX_VIDEOS = 1000;

    private:
        static void refuse(INDEX i, std::string_view what, const String<char> &detail) {
            ORN::console().error("video transfer, video [", i, "] : ", what, detail);
        }
        static void check_setting(const CON_mSetting &setting) {
            const bool r1x = setting.mUploadPartSize >= MIN_PART_SIZE && setting.mUploadPartSize <= MAX_PART_SIZE;
            if (!r1x)
                ORN::console().error("setting out of range : mUploadPartSize = ", setting.mUploadPartSize, " (",
                                     MIN_PART_SIZE, " to ", MAX_PART_SIZE, ")");
            _DYNAMIC_ASSERT_(r1x);
        }
        static void check(const ORN::JobDirectory &job, INDEX i, NDS_mVideoTransferData &r,
                          const ORN::Array<ORN::PACK<String<char>, String<char>>> &videos, ORN::Set<String<char>> &names) {
            // A plain name: it names the deliveries' files.
            const bool plain = !r.mName.empty() && r.mName.find_first_of("/\\:") == String<char>::npos &&
                               r.mName != "." && r.mName != ".." && r.mName.size() <= 200;
            if (!plain)
                refuse(i, "not a video name : ", r.mName);
            _DYNAMIC_ASSERT_(plain);
            const bool once = names.find(r.mName) == ORN::VAR_NONE;
            if (!once)
                refuse(i, "video listed twice : ", r.mName);
            _DYNAMIC_ASSERT_(once);
            names.insert(r.mName);
            INDEX found = ORN::VAR_NONE;
            for (INDEX k = 0; k < videos.size() && found == ORN::VAR_NONE; ++k)
                if (videos[k].mP1 == r.mName)
                    found = k;
            if (found == ORN::VAR_NONE)
                refuse(i, "no video of this name in the stitch plan : ", r.mName);
            _DYNAMIC_ASSERT_(found != ORN::VAR_NONE);
            // The stitched file lies directly in the videos' folder.
            r.mSource = videos[found].mP2;
            const String<char> file = ORN::FileSystemProc::file_name(r.mSource);
            const bool inside = r.mSource == String<char>(VIDEO_FOLDER) + "/" + file && !file.empty() &&
                                file != "." && file != "..";
            if (!inside)
                refuse(i, "stitched video outside " + String<char>(VIDEO_FOLDER) + "/ : ", r.mSource);
            _DYNAMIC_ASSERT_(inside);
            const bool range = r.mHdr >= Lib::MIN_HDR_VALUE && r.mHdr <= Lib::MAX_HDR_VALUE;
            if (!range)
                refuse(i, "HDR value out of range (1 to 256) for ",
                       r.mName + " : " + (std::isnan(r.mHdr) ? String<char>("not a number") : std::to_string(r.mHdr)));
            _DYNAMIC_ASSERT_(range);
            ConsistencyProc::check_file_existance(job, r.mSource);
        }
    };

    // The stitching library, opened and linked when the node plays.
    struct CON_mVideoTransferHandle {
        ORN_NODE(CON_mVideoTransferHandle);
        ORN::AutoRef<VideoTransferHandle> mSelf;
        explicit CON_mVideoTransferHandle(ORN::SyntaxTree &tree) {
            tree.once([this] { mSelf = ORN::AutoRef<VideoTransferHandle>::make(); });
        }
    };

    // The transfer object, initialised with the encoding; destroyed when the
    // transfers are over.
    struct SUB_mVideoTransferHandle {
        ORN_NODE(SUB_mVideoTransferHandle);
        LibraryObject<Lib::TRANSFER_HANDLE> mSelf;
        explicit SUB_mVideoTransferHandle(ORN::SyntaxTree &tree) {
            const auto &handle = tree.stack<CON_mVideoTransferHandle>();
            const auto &setting = tree.stack<CON_mSetting>();
            tree.once([this, &handle, &setting] {
                const VideoTransferHandle &library = *handle.mSelf;
                ORN::console().info("initializing video transfer");
                mSelf = make_library_object<Lib::TRANSFER_HANDLE>(library.mCreateVideoTransferHandle,
                                                                  library.mDestroyVideoTransferHandle);
                const auto me = mSelf.self().mP1;
                const long long buffer = buffer_size(setting);
                const int result = _CALL_TRY_(
                    [&] { return library.mInitVideoTransferHandle(me, buffer, CRF, PRESET, GOP, ENCODER_THREADS); });
                check_result(result, [&] { return library.mGetVideoTransferCode(me); });
            });
        }
    };

    // A failing call: the object's code is logged as "return value = " and
    // ends the process.
    template <class CODE>
    static void check_result(int result, CODE &&code) {
        if (result == StitchLibrary::KIVO_OK)
            return;
        const ORN::int64 mTransferReturnValue = Frame::failed_call_code(result, code, "video transfer", Lib::meaning);
        _DYNAMIC_ASSERT_(mTransferReturnValue == 0);
    }

    // What a delivery is made from: the stitched video, its HDR value and
    // the encoding.
    static String<char> transfer_fingerprint(const ORN::JobDirectory &job, const NDS_mVideoTransferData &r) {
        Fingerprint fingerprint;
        fingerprint.add_file(job, r.mSource).add(r.mSource).add(r.mHdr);
        fingerprint.add(CRF).add(GOP).add(ENCODER_THREADS).add(std::string_view(PRESET)).add(POSTER_TIME);
        return fingerprint.text();
    }
    static ORN::Array<String<char>> transfer_outputs(const NDS_mVideoTransferData &r) {
        return {String<char>(TRANSFER_FOLDER) + "/" + delivery(r.mName, ".mp4"),
                String<char>(TRANSFER_FOLDER) + "/" + delivery(r.mName, ".jpg")};
    }

    // Transfers every video that is not up to date on the workers, then
    // publishes the deliveries and writes the manifest.
    struct ACT_mVideoTransfer {
        ORN_NODE(ACT_mVideoTransfer);
        const SUB_mVideoTransferHandle *mTransfer = nullptr;
        const CON_mVideoTransferHandle *mLibrary = nullptr;
        ORN::Array<INDEX> mTodo;
        ORN::Array<String<char>> mKeys;
        explicit ACT_mVideoTransfer(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mWorkingPath>();
            const auto &data = tree.stack<CON_mVideoTransferData>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.maybe<CON_mVideoTransferHandle>();
            tree.maybe<SUB_mVideoTransferHandle>();
            tree.once([this, &tree, &data, &setting, &path] {
                const ORN::JobDirectory job(path.mSelf);
                FingerprintRecord record(job, String<char>(FINGERPRINTS));
                for (INDEX i = 0; i < data.mSelf.size(); ++i) {
                    const NDS_mVideoTransferData &r = data.mSelf[i];
                    const String<char> key = transfer_fingerprint(job, r);
                    if (record.up_to_date(r.mName, key, transfer_outputs(r)))
                        continue;
                    mTodo.append(i);
                    mKeys.append(key);
                    record.set(r.mName, String<char>(), false); // until it is made again
                }
                record.save();
                if (mTodo.size() < data.mSelf.size())
                    ORN::console().info("video transfer : ", data.mSelf.size() - mTodo.size(), " of ",
                                        data.mSelf.size(), " videos up to date");
                if (mTodo.empty())
                    return deliver(job, data, setting);
                mTransfer = &tree.stack<SUB_mVideoTransferHandle>();
                mLibrary = &tree.stack<CON_mVideoTransferHandle>();
                tree.then([this, &data, &setting, &path] { transfer(data, setting, path); });
            });
        }

        void transfer(const CON_mVideoTransferData &data, const CON_mSetting &setting, const VAR_mWorkingPath &path) {
            auto &console = ORN::console();
            const VideoTransferHandle &library = *mLibrary->mSelf;
            const auto me = mTransfer->mSelf.self().mP1;
            const ORN::JobDirectory job(path.mSelf);
            const INDEX n = mTodo.size();
            const ORN::TimePoint start = ORN::TimePoint::now();
            FingerprintRecord record(job, String<char>(FINGERPRINTS));
            std::mutex record_mutex;
            const ORN::WORKER_PLAN plan =
                ORN::WorkThread::plan(setting.mThreadConcurrency, n, TASK_PIXELS * BYTES_PER_PIXEL + buffer_size(setting));
            console.info(plan.mReason);
            auto progress = console.progress("video transfer : ", n);
            ORN::WorkThread workers(plan);
            for (INDEX t = 0; t < n; ++t)
                workers.submit([&, t] {
                    const INDEX i = mTodo[t];
                    const NDS_mVideoTransferData &r = data.mSelf[i];
                    console.info("processing video [", i, "] ", r.mName);
                    const ORN::JobDirectory::Input input = job.open_input(r.mSource);
                    const ORN::Array<String<char>> outputs = transfer_outputs(r);
                    const String<char> video = job.path(outputs[0]), poster = job.path(outputs[1]);
                    std::array<double, 2> statistics{0, 0};
                    const int result = _CALL_TRY_([&] {
                        return library.mExecuteVideoTransferHandle(me, input.path().c_str(), r.mHdr, video.c_str(),
                                                                   poster.c_str(), POSTER_TIME, statistics.data());
                    });
                    check_result(result, [&] { return library.mGetVideoTransferCode(me); });
                    console.info(r.mName, " : ", ORN::int64(statistics[0]), " frames, ", statistics[1], " s");
                    {
                        const std::lock_guard<std::mutex> hold(record_mutex);
                        record.set(r.mName, mKeys[t]);
                    }
                    progress.advance();
                });
            workers.wait();
            progress.finish();
            console.info("time costs : ", start.elapsed().text());
            deliver(job, data, setting);
        }

        // The deliveries become the content of "results/videos/web/", the
        // manifest lists them, and what earlier plans left in
        // "caches/transfer/" goes.
        static void deliver(const ORN::JobDirectory &job, const CON_mVideoTransferData &data, const CON_mSetting &setting) {
            ORN::Array<ORN::JobDirectory::PUBLISHED> published;
            ORN::Set<String<char>> keep;
            for (const NDS_mVideoTransferData &r : data.mSelf)
                for (const char *extension : {".mp4", ".jpg"}) {
                    const String<char> file = delivery(r.mName, extension);
                    published.append(ORN::JobDirectory::PUBLISHED{String<char>(TRANSFER_FOLDER) + "/" + file,
                                                                  String<char>(RESULT_FOLDER) + "/" + file});
                    keep.insert(file);
                }
            job.publish_files(RESULT_FOLDER, published);
            write_manifest(job, published, setting);
            for (const String<char> &file : job.list_files(TRANSFER_FOLDER))
                if (keep.find(file) == ORN::VAR_NONE)
                    job.erase_file(String<char>(TRANSFER_FOLDER) + "/" + file);
        }

        // "caches/upload.part10.json": {"upload":[{"file":"videos/web/<name>.mp4","size":N,"sha256":"..",
        // "parts":[{"offset":0,"size":P,"sha256":".."},...]},...]}, "parts" only for a file larger than
        // one part. The digests are those of the published files.
        static void write_manifest(const ORN::JobDirectory &job, const ORN::Array<ORN::JobDirectory::PUBLISHED> &files,
                                   const CON_mSetting &setting) {
            ORN::JsonWriter writer(256 + 256 * files.size());
            writer.raw("{").key("upload").raw("[");
            ORN::Buffer<unsigned char> buffer(static_cast<INDEX>(buffer_size(setting)));
            for (INDEX k = 0; k < files.size(); ++k) {
                if (k > 0)
                    writer.comma();
                const String<char> &target = files[k].mTarget;
                writer.raw("{").key("file").string("videos/" + target.substr(String<char>("results/videos/").size()));
                hash_file(job, target, setting.mUploadPartSize, buffer, writer);
                writer.raw("}");
            }
            writer.raw("]}");
            const bool same = job.find_file(MANIFEST) && job.load_file(MANIFEST).text() == writer.text();
            if (!same)
                job.save_file(MANIFEST, writer.text());
            ORN::console().info(MANIFEST, " : ", files.size(), " files");
        }

        static void hash_file(const ORN::JobDirectory &job, const String<char> &name, ORN::int64 part_size,
                              ORN::Buffer<unsigned char> &buffer, ORN::JsonWriter &writer) {
            const ORN::JobDirectory::Input input = job.open_input(name);
            ORN::StreamLoader stream = ORN::StreamLoader::open_read(input.path());
            Sha256 whole, part;
            ORN::Array<ORN::PACK<ORN::int64, String<char>>> parts; // size, digest
            ORN::int64 size = 0, in_part = 0;
            for (INDEX got; (got = stream.read(buffer.data(), buffer.size())) > 0;) {
                whole.add(buffer.data(), got);
                for (INDEX at = 0; at < got;) {
                    const INDEX take = std::min<INDEX>(got - at, part_size - in_part);
                    part.add(buffer.data() + at, take);
                    at += take;
                    in_part += take;
                    if (in_part == part_size) {
                        parts.append(ORN::PACK<ORN::int64, String<char>>{in_part, part.hex()});
                                                in_part = 0;
                    }
                }
                size += got;
            }
            if (in_part > 0)
                parts.append(ORN::PACK<ORN::int64, String<char>>{in_part, part.hex()});
            writer.comma().key("size").number(size).comma().key("sha256").string(whole.hex());
            if (size <= part_size)
                return;
            writer.comma().key("parts").raw("[");
            ORN::int64 offset = 0;
            for (INDEX p = 0; p < parts.size(); ++p) {
                if (p > 0)
                    writer.comma();
                writer.raw("{").key("offset").number(offset).comma().key("size").number(parts[p].mP1).comma();
                writer.key("sha256").string(parts[p].mP2).raw("}");
                offset += parts[p].mP1;
            }
            writer.raw("]");
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath, ACT_mVideoTransfer>;
};

ZARN_DEFINE_PROCESS(VideoTransferProcess)

} // namespace ZARN
