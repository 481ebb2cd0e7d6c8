// StitchMainProcess: Panorama image and video stitching over the stitch plan.
//
// The run: read the stitch plan "caches/stitch_data.json"; check that every
// file the enabled steps read is there; stitch each image record into its
// panorama and each video record into its video with the stitching library,
// on the worker threads; write "caches/images.json" and
// "caches/videos/videos_hdr_param.json"; publish the stitched videos into
// "results/videos/" by hard link and list them in "caches/upload.part6.json";
// remove panoramas of "caches/images/" that the plan no longer produces.
//
// Per-run switches come from the process's member of the split data:
//   "image_stitch", "video_stitch", "videos_hdr_param"   steps (default true)
//   "always_inpaint"   every panorama marked for inpainting (default false)
// The panorama size table is chosen by the setting mPanoramaQuality.

#include "ZARN_Velda/ProcessFrame.h"
#include "ZARN_Velda/StitchHandle.h"
#include "__ORN__/orn_thread.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace ZARN {

namespace {

using ORN::FileSystemProc;
using ORN::INDEX;
using ORN::String;

// A path of the plan: a name inside the job ("/"-separated, no "." or ".."
// components), or empty.
bool job_name(const String<char> &text) {
    if (text.empty())
        return true;
    if (text.front() == '/' || text.front() == '\\' || (text.size() > 1 && text[1] == ':'))
        return false;
    for (const String<char> &part : FileSystemProc::decouple_path_name(text))
        if (part == "." || part == "..")
            return false;
    return true;
}

// The folder part of a job name ("" for a name at the top).
String<char> folder_of(const String<char> &name) {
    const auto slash = name.find_last_of("\\/");
    return slash == String<char>::npos ? String<char>() : name.substr(0, slash);
}

// A deterministic identifier in the form of a UUID (version 8, the form for
// identifiers made by an application's own rule): two 64-bit FNV-1a hashes
// of the job's name and the capture point's name.
String<char> point_uuid(std::string_view job, std::string_view point) {
    auto fnv = [](std::uint64_t hash, std::string_view text) {
        for (unsigned char c : text)
            hash = (hash ^ c) * 0x100000001b3ULL;
        return hash;
    };
    std::uint64_t high = fnv(fnv(0xcbf29ce484222325ULL, job), "/");
    high = fnv(high, point);
    std::uint64_t low = fnv(0x84222325cbf29ce4ULL, point);
    high = (high & ~0xF000ULL) | 0x8000ULL;                      // version 8
    low = (low & 0x3FFFFFFFFFFFFFFFULL) | 0x8000000000000000ULL; // variant 10
    char text[37];
    std::snprintf(text, sizeof(text), "%08x-%04x-%04x-%04x-%012llx", static_cast<unsigned>(high >> 32),
                  static_cast<unsigned>(high >> 16 & 0xFFFF), static_cast<unsigned>(high & 0xFFFF),
                  static_cast<unsigned>(low >> 48), static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
    return text;
}

// A switch of the process's split data; `fallback` when absent.
bool split_switch(const ORN::JsonParser &section, std::string_view key, bool fallback) {
    return section.child(key).value(fallback);
}

} // namespace

class StitchMainProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(StitchMainProcess)

public:
    struct SETTING {
        ORN::int64 mThreadConcurrency = 64;                                        // number of worker threads
        ORN::int64 mFileWriterBufferSize = Frame::DEFAULT_FILE_WRITER_BUFFER_SIZE; // size in bytes of the file writer's buffer
        String<char> mPanoramaQuality = "normal"; // keyword of the panorama size table

        template <class S, class F>
        static void each(S &s, F &&f) {
            f("mThreadConcurrency", s.mThreadConcurrency);
            f("mFileWriterBufferSize", s.mFileWriterBufferSize);
            f("mPanoramaQuality", s.mPanoramaQuality);
        }
    };

    static constexpr std::array<std::string_view, 3> WORKING_DIRECTORIES = {"caches/images", "caches/videos",
                                                                            "results/videos"};
    static constexpr std::string_view STITCH_DATA = "caches/stitch_data.json";
    static constexpr std::string_view HDR_PARAM_FILE = "videos_hdr_param.json";
    static constexpr std::string_view TABLE_UP = "caches/table_Up.bin";
    static constexpr std::string_view TABLE_DOWN = "caches/table_Down.bin";
    static constexpr std::string_view CALIBRATED_UP = "results/calib/tablea.bin";
    static constexpr std::string_view CALIBRATED_DOWN = "results/calib/tableb.bin";

    // -----------------------------------------------------------------------
    // The stitch plan.

    // One capture point's image set, read field by field (a field of an
    // element that is no object, and a missing key, stay empty or 0).
    struct NDS_mStitchDataImage {
        String<char> dst1, name, raw1, raw2;
        std::array<String<char>, 4> src1, src2;
        String<char> config;
        ORN::int64 hdr = 0, resolution = 0, is_main = 0;

        explicit NDS_mStitchDataImage(const ORN::JsonParser &e) {
            if (!e.object_type())
                return;
            dst1 = e.child("dst1").value("");
            name = e.child("name").value("");
            raw1 = e.child("raw1").value("");
            raw2 = e.child("raw2").value("");
            for (int i = 0; i < 4; ++i)
                src1[i] = e.child("src1_" + std::to_string(i)).value("");
            for (int i = 0; i < 4; ++i)
                src2[i] = e.child("src2_" + std::to_string(i)).value("");
            config = e.child("config").value("");
            hdr = e.child("hdr").value(ORN::int64(0));
            resolution = e.child("resolution").value(ORN::int64(0));
            is_main = e.child("is_main").value(ORN::int64(0));
        }
        // How many exposures per lens the HDR execute takes; 0 for a plain
        // capture.
        int brackets() const { return static_cast<int>(std::clamp<ORN::int64>(hdr, 0, StitchLibrary::MAX_BRACKETS)); }
    };

    // One video record.
    struct NDS_mStitchDataVideo {
        String<char> dst4, name, src1, src2, src3, src4, con;

        explicit NDS_mStitchDataVideo(const ORN::JsonParser &e) {
            if (!e.object_type())
                return;
            dst4 = e.child("dst4").value("");
            name = e.child("name").value("");
            src1 = e.child("src1").value("");
            src2 = e.child("src2").value("");
            src3 = e.child("src3").value("");
            src4 = e.child("src4").value("");
            con = e.child("con").value("");
        }
    };

    // "caches/stitch_data.json", parsed.
    struct CON_mStitchDataJson {
        ORN_NODE(CON_mStitchDataJson);
        ORN::JsonParser mSelf;
        explicit CON_mStitchDataJson(ORN::SyntaxTree &tree) {
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &path] { mSelf = ORN::JsonParser(ORN::JobDirectory(path.mSelf).load_file(STITCH_DATA)); });
        }
    };

    // The plan's records in file order. Every "resolution" must be 1, 2 or
    // 3, and every path a name inside the job.
    struct CON_mStitchData {
        ORN_NODE(CON_mStitchData);
        ORN::Array<NDS_mStitchDataImage> mImage;
        ORN::Array<NDS_mStitchDataVideo> mVideo;
        explicit CON_mStitchData(ORN::SyntaxTree &tree) {
            const auto &json = tree.stack<CON_mStitchDataJson>();
            tree.once([this, &json] {
                const ORN::JsonParser param = json.mSelf.child("stitch_main_param");
                for (const ORN::JsonParser &e : param.child("image_file").children()) {
                    const NDS_mStitchDataImage &image = mImage.append(e);
                    if (image.resolution < 1 || image.resolution > 3) {
                        ORN::console().error("resolution out of range in image [", mImage.size() - 1, "] : ",
                                             image.resolution);
                        _DYNAMIC_ASSERT_(false);
                    }
                    check_names({&image.dst1, &image.raw1, &image.raw2, &image.src1[0], &image.src1[1],
                                 &image.src1[2], &image.src1[3], &image.src2[0], &image.src2[1], &image.src2[2],
                                 &image.src2[3]});
                }
                for (const ORN::JsonParser &e : param.child("video_file").children()) {
                    const NDS_mStitchDataVideo &video = mVideo.append(e);
                    check_names({&video.dst4, &video.src1, &video.src2, &video.src3, &video.src4});
                }
                ORN::console().info("stitch data : ", mImage.size(), " images, ", mVideo.size(), " videos");
            });
        }

    private:
        // A plan that names files outside the job would make the library
        // read or write there.
        static void check_names(std::initializer_list<const String<char> *> names) {
            for (const String<char> *name : names) {
                const bool inside = job_name(*name);
                if (!inside)
                    ORN::console().error("stitch plan names a file outside the job : ", *name);
                _DYNAMIC_ASSERT_(inside);
            }
        }
    };

    // Video name -> position in the plan's video array.
    struct CON_mStitchDataVideoMappingSet {
        ORN_NODE(CON_mStitchDataVideoMappingSet);
        ORN::Set<String<char>> mSelf;
        explicit CON_mStitchDataVideoMappingSet(ORN::SyntaxTree &tree) {
            const auto &data = tree.stack<CON_mStitchData>();
            tree.once([this, &data] {
                for (const auto &video : data.mVideo)
                    mSelf.insert(video.name);
            });
        }
    };

    // Per image record: whether a video record carries the same name (a
    // point filmed as well, where people may walk through the pictures).
    struct CON_mStitchDataImageHasVideo {
        ORN_NODE(CON_mStitchDataImageHasVideo);
        ORN::BitSet mSelf;
        explicit CON_mStitchDataImageHasVideo(ORN::SyntaxTree &tree) {
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &videos = tree.stack<CON_mStitchDataVideoMappingSet>();
            tree.once([this, &data, &videos] {
                mSelf = ORN::BitSet(data.mImage.size());
                for (INDEX i = 0; i < data.mImage.size(); ++i)
                    mSelf.set(i, videos.mSelf.find(data.mImage[i].name) != ORN::VAR_NONE);
            });
        }
    };

    // The video records to stitch, in plan order. A record whose output
    // would be named like the HDR parameter file of "caches/videos/" is
    // left out (and said so): its video would be overwritten by that file.
    struct CON_mEnumStitchDataVideo {
        ORN_NODE(CON_mEnumStitchDataVideo);
        ORN::Array<INDEX> mSelf;
        explicit CON_mEnumStitchDataVideo(ORN::SyntaxTree &tree) {
            const auto &data = tree.stack<CON_mStitchData>();
            tree.once([this, &data] {
                for (INDEX i = 0; i < data.mVideo.size(); ++i) {
                    if (FileSystemProc::file_name(data.mVideo[i].dst4) == HDR_PARAM_FILE) {
                        ORN::console().warn("video [", i, "] left out : its output is named ", HDR_PARAM_FILE);
                        continue;
                    }
                    mSelf.append(i);
                }
            });
        }
    };

    // Width and height of the panorama per resolution class 1, 2, 3. The
    // entries start at 1024 x 512, which any keyword other than "normal",
    // "high" and "high2" keeps (a quick draft size).
    struct CON_mImageStitchPanoramaWidth {
        ORN_NODE(CON_mImageStitchPanoramaWidth);
        ORN::Array<ORN::PACK<std::int32_t, std::int32_t>> mSelf;
        explicit CON_mImageStitchPanoramaWidth(ORN::SyntaxTree &tree) {
            const auto &setting = tree.stack<CON_mSetting>();
            tree.once([this, &setting] {
                for (int i = 0; i < 3; ++i)
                    mSelf.append(ORN::PACK<std::int32_t, std::int32_t>{1024, 512});
                // Compared with its terminating zero, so "normal" matches and
                // "normalx" does not.
                const char *keyword = setting.mPanoramaQuality.c_str();
                if (std::strcmp(keyword, "normal") == 0 || std::strcmp(keyword, "high2") == 0) {
                    mSelf[0] = {4096, 2048};
                    mSelf[1] = {4096, 2048};
                    mSelf[2] = {4096, 2048};
                } else if (std::strcmp(keyword, "high") == 0) {
                    mSelf[0] = {8192, 4096};
                    mSelf[1] = {4096, 2048};
                    mSelf[2] = {8192, 4096};
                }
            });
        }
    };

    // One distinct stitching configuration: its name, the size at which the
    // library matches the lenses' exposure (an eighth of the panorama), and
    // the panorama size of the first image that uses it.
    struct NDS_mImageStitchConfigProprety {
        String<char> mConfig;
        std::int32_t mEstimateWidth = 0, mEstimateHeight = 0;
        std::int32_t mPanoramaWidth = 0, mPanoramaHeight = 0;
    };

    // The distinct "config" texts of the image records in first-seen order.
    struct CON_mImageStitchConfigProprety {
        ORN_NODE(CON_mImageStitchConfigProprety);
        ORN::ArrayList<NDS_mImageStitchConfigProprety> mSelf;
        ORN::Set<String<char>> mConfigSet;
        explicit CON_mImageStitchConfigProprety(ORN::SyntaxTree &tree) {
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &sizes = tree.stack<CON_mImageStitchPanoramaWidth>();
            tree.once([this, &data, &sizes] {
                for (const auto &image : data.mImage) {
                    if (mConfigSet.find(image.config) != ORN::VAR_NONE)
                        continue;
                    mConfigSet.insert(image.config);
                    const auto &size = sizes.mSelf[image.resolution - 1];
                    mSelf.append(NDS_mImageStitchConfigProprety{image.config, size.mP1 / 8, size.mP2 / 8, size.mP1,
                                                                size.mP2});
                }
            });
        }
    };

    // The lens tables, upper and lower lens: those the job's calibration
    // published ("results/calib/tablea.bin" and "tableb.bin") when both are
    // there, so that a rig calibrated in the job stitches with its own
    // lenses; otherwise the job's "caches/table_Up.bin" and
    // "caches/table_Down.bin".
    struct CON_mImageStitchDistortTableFile {
        ORN_NODE(CON_mImageStitchDistortTableFile);
        ORN::PACK<String<char>, String<char>> mSelf;  // full paths
        ORN::PACK<String<char>, String<char>> mNames; // names in the job
        explicit CON_mImageStitchDistortTableFile(ORN::SyntaxTree &tree) {
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &path] {
                const ORN::JobDirectory job(path.mSelf);
                const bool calibrated = job.find_file(CALIBRATED_UP) && job.find_file(CALIBRATED_DOWN);
                mNames = calibrated ? ORN::PACK<String<char>, String<char>>{String<char>(CALIBRATED_UP),
                                                                             String<char>(CALIBRATED_DOWN)}
                                    : ORN::PACK<String<char>, String<char>>{String<char>(TABLE_UP), String<char>(TABLE_DOWN)};
                mSelf = {job.path(mNames.mP1), job.path(mNames.mP2)};
                ORN::console().info("lens tables : ", mNames.mP1, ", ", mNames.mP2);
            });
        }
    };

    // -----------------------------------------------------------------------
    // Switches.

    template <bool DEFAULT>
    struct SWITCH {
        bool mSelf = DEFAULT;
        SWITCH(ORN::SyntaxTree &tree, std::string_view key) {
            const auto &json = tree.stack<CON_mSplitDataJson>();
            tree.once([this, &json, key] { mSelf = split_switch(json.mSelf, key, DEFAULT); });
        }
    };
    struct ACT_mImageStitch_mEnable : SWITCH<true> {
        ORN_NODE(ACT_mImageStitch_mEnable);
        explicit ACT_mImageStitch_mEnable(ORN::SyntaxTree &tree) : SWITCH(tree, "image_stitch") {}
    };
    struct ACT_mVideoStitch_mEnable : SWITCH<true> {
        ORN_NODE(ACT_mVideoStitch_mEnable);
        explicit ACT_mVideoStitch_mEnable(ORN::SyntaxTree &tree) : SWITCH(tree, "video_stitch") {}
    };
    struct ACT_mVideosHDRParamsJson_mEnable : SWITCH<true> {
        ORN_NODE(ACT_mVideosHDRParamsJson_mEnable);
        explicit ACT_mVideosHDRParamsJson_mEnable(ORN::SyntaxTree &tree) : SWITCH(tree, "videos_hdr_param") {}
    };
    struct CON_mAlwaysInpaint : SWITCH<false> {
        ORN_NODE(CON_mAlwaysInpaint);
        explicit CON_mAlwaysInpaint(ORN::SyntaxTree &tree) : SWITCH(tree, "always_inpaint") {}
    };
    // Whether every panorama is to be inpainted; otherwise only the main
    // image of each point is.
    struct ACT_mImageInpainting_mEnable {
        ORN_NODE(ACT_mImageInpainting_mEnable);
        bool mSelf = false;
        explicit ACT_mImageInpainting_mEnable(ORN::SyntaxTree &tree) {
            const auto &always = tree.stack<CON_mAlwaysInpaint>();
            tree.once([this, &always] { mSelf = always.mSelf; });
        }
    };

    // -----------------------------------------------------------------------
    // Required files: every file an enabled step reads, checked before any
    // library call. A file must be a regular file reached without links.

    static void check_required(const ORN::JobDirectory &job, const ORN::Array<String<char>> &names) {
        for (const String<char> &name : names) {
            if (!job.exist(name))
                ConsistencyProc::check_file_existance(job.path(name));
            const bool regular = job.find_file(name);
            if (!regular)
                ORN::console().error("refused file : ", job.path(name), " : not a regular file reached without links");
            _DYNAMIC_ASSERT_(regular);
        }
    }

    struct CON_mImageStitchRequiredFile {
        ORN_NODE(CON_mImageStitchRequiredFile);
        ORN::Array<String<char>> mSelf;
        explicit CON_mImageStitchRequiredFile(ORN::SyntaxTree &tree) {
            const auto &tables = tree.stack<CON_mImageStitchDistortTableFile>();
            const auto &enable = tree.stack<ACT_mImageStitch_mEnable>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &enable, &data, &tables, &path] {
                if (!enable.mSelf || data.mImage.empty())
                    return;
                mSelf.append(tables.mNames.mP1);
                mSelf.append(tables.mNames.mP2);
                for (const auto &image : data.mImage) {
                    if (image.brackets() == 0) {
                        mSelf.append(image.raw1);
                        mSelf.append(image.raw2);
                    }
                    for (int i = 0; i < image.brackets(); ++i) {
                        mSelf.append(image.src1[i]);
                        mSelf.append(image.src2[i]);
                    }
                }
                check_required(ORN::JobDirectory(path.mSelf), mSelf);
            });
        }
    };

    struct CON_mVideoStitchRequiredFile {
        ORN_NODE(CON_mVideoStitchRequiredFile);
        ORN::Array<String<char>> mSelf;
        explicit CON_mVideoStitchRequiredFile(ORN::SyntaxTree &tree) {
            const auto &tables = tree.stack<CON_mImageStitchDistortTableFile>();
            const auto &enable = tree.stack<ACT_mVideoStitch_mEnable>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &videos = tree.stack<CON_mEnumStitchDataVideo>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &enable, &data, &videos, &tables, &path] {
                if (!enable.mSelf || videos.mSelf.empty())
                    return;
                mSelf.append(tables.mNames.mP1);
                mSelf.append(tables.mNames.mP2);
                for (const INDEX i : videos.mSelf) {
                    const auto &video = data.mVideo[i];
                    for (const String<char> *source : {&video.src1, &video.src2, &video.src3, &video.src4})
                        if (source == &video.src1 || source == &video.src2 || !source->empty())
                            mSelf.append(*source);
                }
                check_required(ORN::JobDirectory(path.mSelf), mSelf);
            });
        }
    };

    // -----------------------------------------------------------------------
    // The library and its objects.

    struct CON_mStitchHandle {
        ORN_NODE(CON_mStitchHandle);
        ORN::AutoRef<StitchHandle> mSelf;
        explicit CON_mStitchHandle(ORN::SyntaxTree &tree) {
            // Every file is checked before the library is touched.
            tree.stack<CON_mImageStitchRequiredFile>();
            tree.stack<CON_mVideoStitchRequiredFile>();
            tree.once([this] { mSelf = ORN::AutoRef<StitchHandle>::make(); });
        }
    };

    // One initialised image stitcher per configuration, in the order of
    // CON_mImageStitchConfigProprety; destroyed when the image stitching
    // is over.
    struct SUB_mOptFlowStitchHandle {
        ORN_NODE(SUB_mOptFlowStitchHandle);
        ORN::ArrayList<LibraryObject<StitchLibrary::IMAGE_HANDLE>> mSelf;
        explicit SUB_mOptFlowStitchHandle(ORN::SyntaxTree &tree) {
            const auto &handle = tree.stack<CON_mStitchHandle>();
            const auto &configs = tree.stack<CON_mImageStitchConfigProprety>();
            const auto &tables = tree.stack<CON_mImageStitchDistortTableFile>();
            tree.once([this, &handle, &configs, &tables] {
                const StitchHandle &library = *handle.mSelf;
                ORN::console().info("initializing stitch");
                for (const auto &config : configs.mSelf) {
                    auto &object = mSelf.append(make_library_object<StitchLibrary::IMAGE_HANDLE>(
                        library.mCreateOptFlowStitchHandle, library.mDestroyOptFlowStitchHandle));
                    const auto me = object.self().mP1;
                    const int result = _CALL_TRY_([&] {
                        return library.mInitOptFlowStitchHandle(me, tables.mSelf.mP1.c_str(), tables.mSelf.mP2.c_str(),
                                                                config.mPanoramaWidth, config.mPanoramaHeight,
                                                                config.mEstimateWidth, config.mEstimateHeight,
                                                                StitchLibrary::OUTPUT_BITS);
                    });
                    check_result(result, [&] { return library.mGetOptFlowStitchCode(me); });
                }
                ORN::console().info(configs.mSelf.size(), " config to go");
            });
        }
    };

    // One initialised video stitcher per distinct "con" of the videos to
    // stitch, in first-seen order, and the set that maps "con" to it.
    struct SUB_mVideoStitchHandle {
        ORN_NODE(SUB_mVideoStitchHandle);
        ORN::ArrayList<LibraryObject<StitchLibrary::VIDEO_HANDLE>> mSelf;
        ORN::Set<String<char>> mConfigSet;
        explicit SUB_mVideoStitchHandle(ORN::SyntaxTree &tree) {
            const auto &handle = tree.stack<CON_mStitchHandle>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &videos = tree.stack<CON_mEnumStitchDataVideo>();
            const auto &sizes = tree.stack<CON_mImageStitchPanoramaWidth>();
            const auto &tables = tree.stack<CON_mImageStitchDistortTableFile>();
            tree.once([this, &handle, &data, &videos, &sizes, &tables] {
                const StitchHandle &library = *handle.mSelf;
                ORN::console().info("initializing stitch");
                // Video frames are half the size of a class 1 panorama.
                const std::int32_t width = sizes.mSelf[0].mP1 / 2, height = sizes.mSelf[0].mP2 / 2;
                for (const INDEX i : videos.mSelf) {
                    const String<char> &con = data.mVideo[i].con;
                    if (mConfigSet.find(con) != ORN::VAR_NONE)
                        continue;
                    mConfigSet.insert(con);
                    auto &object = mSelf.append(make_library_object<StitchLibrary::VIDEO_HANDLE>(
                        library.mCreateVideoStitchHandle, library.mDestroyVideoStitchHandle));
                    const auto me = object.self().mP1;
                    const int result = _CALL_TRY_([&] {
                        return library.mInitVideoStitchHandle(me, tables.mSelf.mP1.c_str(), tables.mSelf.mP2.c_str(),
                                                              width, height, StitchLibrary::OUTPUT_BITS);
                    });
                    check_result(result, [&] { return library.mGetVideoStitchCode(me); });
                }
                ORN::console().info(mSelf.size(), " config to go");
            });
        }
    };

    // A library call's result: on failure the object's code is logged as
    // "return value = " and ends the process.
    template <class CODE>
    static void check_result(int result, CODE &&code) {
        if (result == StitchLibrary::KIVO_OK)
            return;
        const ORN::int64 mStitchReturnValue = _CALL_TRY_(code);
        ORN::console().error("return value = ", mStitchReturnValue);
        _DYNAMIC_ASSERT_(mStitchReturnValue == 0);
    }

    // -----------------------------------------------------------------------
    // Stitching.

    // Runs `work(i)` for i in [0, n) on the workers, with the progress line
    // under `heading`; the first failure stops what has not started yet and
    // ends the action with its error.
    // The time spent inside the library's execute calls, summed over the
    // workers: what the action's time is made of besides the process's own
    // work (logged at verbose level after "time costs : ").
    struct LIBRARY_CLOCK {
        std::atomic<ORN::int64> mNanoseconds{0};
        template <class F>
        auto time(F &&call) {
            const ORN::TimePoint start = ORN::TimePoint::now();
            const auto result = call();
            mNanoseconds += start.elapsed().nanoseconds();
            return result;
        }
    };

    template <class WORK>
    static void run_on_workers(ORN::int64 threads, std::string_view heading, INDEX n, LIBRARY_CLOCK &clock,
                               WORK &&work) {
        auto &console = ORN::console();
        const ORN::TimePoint start = ORN::TimePoint::now();
        console.info("async processing ", n, " on ", std::clamp<INDEX>(threads, 1, std::max<INDEX>(n, 1)), " threads");
        auto progress = console.progress(String<char>(heading), n);
        ORN::WorkThread workers(std::min<INDEX>(threads, n));
        for (INDEX i = 0; i < n; ++i)
            workers.submit([&work, &progress, i] {
                work(i);
                progress.advance();
            });
        workers.wait();
        progress.finish();
        console.info("time costs : ", start.elapsed().text());
        console.verbose("library calls : ", ORN::Duration(std::chrono::nanoseconds(clock.mNanoseconds.load())).text());
    }

    struct ACT_mImageStitch {
        ORN_NODE(ACT_mImageStitch);
        const SUB_mOptFlowStitchHandle *mHandles = nullptr; // set when there is something to stitch
        const CON_mStitchHandle *mLibrary = nullptr;
        explicit ACT_mImageStitch(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mWorkingPath>();
            const auto &enable = tree.stack<ACT_mImageStitch_mEnable>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &configs = tree.stack<CON_mImageStitchConfigProprety>();
            const auto &sizes = tree.stack<CON_mImageStitchPanoramaWidth>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.stack<CON_mImageStitchRequiredFile>();
            // Held for the stitcher objects, which are declared only when
            // there is work.
            tree.stack<CON_mImageStitchDistortTableFile>();
            tree.maybe<CON_mStitchHandle>();
            tree.maybe<SUB_mOptFlowStitchHandle>();
            // The objects are fetched only when there is work: they play
            // before the second phase, which does the stitching.
            tree.once([this, &tree, &enable, &data, &configs, &sizes, &setting, &path] {
                if (!enable.mSelf || data.mImage.empty())
                    return;
                mHandles = &tree.stack<SUB_mOptFlowStitchHandle>();
                mLibrary = &tree.stack<CON_mStitchHandle>();
                tree.then([this, &data, &configs, &sizes, &setting, &path] { stitch(data, configs, sizes, setting, path); });
            });
        }

        void stitch(const CON_mStitchData &data, const CON_mImageStitchConfigProprety &configs,
                    const CON_mImageStitchPanoramaWidth &sizes, const CON_mSetting &setting,
                    const VAR_mWorkingPath &path) {
            {
                const StitchHandle &library = *mLibrary->mSelf;
                const ORN::JobDirectory job(path.mSelf);
                for (const auto &image : data.mImage)
                    job.build_directory(folder_of(image.dst1));
                LIBRARY_CLOCK clock;
                run_on_workers(setting.mThreadConcurrency, "image stitch : ", data.mImage.size(), clock, [&](INDEX i) {
                    const NDS_mStitchDataImage &image = data.mImage[i];
                    const auto me = mHandles->mSelf[configs.mConfigSet.map(image.config)].self().mP1;
                    const auto &size = sizes.mSelf[image.resolution - 1];
                    const int wh[2] = {size.mP1, size.mP2};
                    const String<char> output = job.path(image.dst1);
                    ORN::console().info("processing image [", i, "] ", image.name);
                    int result;
                    if (image.brackets() == 0) {
                        const String<char> upper = job.path(image.raw1), lower = job.path(image.raw2);
                        double statistics[2] = {0, 0};
                        result = _CALL_TRY_([&] {
                            return clock.time([&] {
                                return library.mExecuteOptFlowStitchHandle(me, upper.c_str(), lower.c_str(),
                                                                           output.c_str(), wh, statistics,
                                                                           image.name.c_str());
                            });
                        });
                        if (result == 0)
                            ORN::console().debug("image [", i, "] lower gain ", statistics[0], ", seam difference ",
                                                 statistics[1]);
                    } else {
                        std::array<String<char>, 8> paths;
                        std::array<const char *, 8> p{};
                        for (int k = 0; k < image.brackets(); ++k) {
                            paths[k] = job.path(image.src1[k]);
                            paths[4 + k] = job.path(image.src2[k]);
                            p[k] = paths[k].c_str();
                            p[4 + k] = paths[4 + k].c_str();
                        }
                        const auto brackets = static_cast<unsigned char>(image.brackets());
                        result = _CALL_TRY_([&] {
                            return clock.time([&] {
                                return library.mExecuteOptFlowStitchHDRHandle(me, p[0], p[1], p[2], p[3], p[4], p[5],
                                                                              p[6], p[7], output.c_str(), wh, brackets);
                            });
                        });
                    }
                    check_result(result, [&] { return library.mGetOptFlowStitchCode(me); });
                });
            }
        }
    };

    // "caches/images.json": the panoramas for the later steps.
    struct ACT_mImagesJson {
        ORN_NODE(ACT_mImagesJson);
        explicit ACT_mImagesJson(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mImageStitch>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &has_video = tree.stack<CON_mStitchDataImageHasVideo>();
            const auto &inpaint = tree.stack<ACT_mImageInpainting_mEnable>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&data, &has_video, &inpaint, &path] {
                const String<char> working_name = FileSystemProc::file_name(path.mSelf);
                ORN::JsonWriter writer(256 + 256 * data.mImage.size());
                writer.raw("{").key("images").raw("[");
                for (INDEX i = 0; i < data.mImage.size(); ++i) {
                    const NDS_mStitchDataImage &image = data.mImage[i];
                    if (i > 0)
                        writer.comma();
                    writer.raw("{").key("id").number(i).comma();
                    writer.key("uuid").string(point_uuid(working_name, image.name)).comma();
                    writer.key("raw1_image").string(image.raw1).comma();
                    writer.key("raw2_image").string(image.raw2).comma();
                    writer.key("is_main").boolean(image.is_main != 0).comma();
                    writer.key("inpaint").boolean(inpaint.mSelf || image.is_main != 0).comma();
                    writer.key("remove_people").boolean(has_video.mSelf.get(i)).raw("}");
                }
                writer.raw("]}");
                ORN::JobDirectory(path.mSelf).save_file("caches/images.json", writer.text());
                ORN::console().info("caches/images.json : ", data.mImage.size(), " images");
            });
        }
    };

    // Stitches the videos; keeps each one's HDR value and field of view.
    struct ACT_mVideoStitch {
        ORN_NODE(ACT_mVideoStitch);
        const SUB_mVideoStitchHandle *mHandles = nullptr; // set when there is something to stitch
        const CON_mStitchHandle *mLibrary = nullptr;
        ORN::Array<double> mHdr, mFov;
        explicit ACT_mVideoStitch(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mWorkingPath>();
            const auto &enable = tree.stack<ACT_mVideoStitch_mEnable>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &videos = tree.stack<CON_mEnumStitchDataVideo>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.stack<CON_mVideoStitchRequiredFile>();
            tree.stack<CON_mImageStitchPanoramaWidth>();
            tree.stack<CON_mImageStitchDistortTableFile>();
            tree.maybe<CON_mStitchHandle>();
            tree.maybe<SUB_mVideoStitchHandle>();
            tree.once([this, &tree, &enable, &data, &videos, &setting, &path] {
                if (!enable.mSelf || videos.mSelf.empty())
                    return;
                mHandles = &tree.stack<SUB_mVideoStitchHandle>();
                mLibrary = &tree.stack<CON_mStitchHandle>();
                tree.then([this, &data, &videos, &setting, &path] { stitch(data, videos, setting, path); });
            });
        }

        void stitch(const CON_mStitchData &data, const CON_mEnumStitchDataVideo &videos, const CON_mSetting &setting,
                    const VAR_mWorkingPath &path) {
            {
                const StitchHandle &library = *mLibrary->mSelf;
                const ORN::JobDirectory job(path.mSelf);
                const INDEX n = videos.mSelf.size();
                mHdr = ORN::Array<double>(n, 1.0);
                mFov = ORN::Array<double>(n, 0.0);
                for (const INDEX i : videos.mSelf)
                    job.build_directory(folder_of(data.mVideo[i].dst4));
                LIBRARY_CLOCK clock;
                run_on_workers(setting.mThreadConcurrency, "video stitch : ", n, clock, [&](INDEX k) {
                    const INDEX i = videos.mSelf[k];
                    const NDS_mStitchDataVideo &video = data.mVideo[i];
                    const auto me = mHandles->mSelf[mHandles->mConfigSet.map(video.con)].self().mP1;
                    ORN::console().info("processing video [", i, "] ", video.name);
                    const String<char> src1 = job.path(video.src1), src2 = job.path(video.src2);
                    const String<char> src3 = video.src3.empty() ? String<char>() : job.path(video.src3);
                    const String<char> src4 = video.src4.empty() ? String<char>() : job.path(video.src4);
                    const String<char> output = job.path(video.dst4);
                    double hdr = 1.0, fov = 0.0;
                    const int result = _CALL_TRY_([&] {
                        return clock.time([&] {
                            return library.mExecuteVideoStitchHandle(me, src1.c_str(), src2.c_str(), src3.c_str(),
                                                                     src4.c_str(), output.c_str(), &hdr, &fov);
                        });
                    });
                    check_result(result, [&] { return library.mGetVideoStitchCode(me); });
                    mHdr[k] = hdr;
                    mFov[k] = fov;
                });
            }
        }
    };

    // The HDR values of the stitched videos, in the order of
    // CON_mEnumStitchDataVideo.
    struct VAR_mVideoStitchHdrParam {
        ORN_NODE(VAR_mVideoStitchHdrParam);
        ORN::Array<double> mSelf;
        explicit VAR_mVideoStitchHdrParam(ORN::SyntaxTree &tree) {
            const auto &stitch = tree.stack<ACT_mVideoStitch>();
            tree.once([this, &stitch] { mSelf = stitch.mHdr; });
        }
    };
    // Their fields of view.
    struct SUB_mVideoStitchFovParam {
        ORN_NODE(SUB_mVideoStitchFovParam);
        ORN::Array<double> mSelf;
        explicit SUB_mVideoStitchFovParam(ORN::SyntaxTree &tree) {
            const auto &stitch = tree.stack<ACT_mVideoStitch>();
            tree.once([this, &stitch] { mSelf = stitch.mFov; });
        }
    };

    // "caches/videos/videos_hdr_param.json". Without stitched videos its
    // "hdr_param" array is empty.
    struct ACT_mVideosHDRParamsJson {
        ORN_NODE(ACT_mVideosHDRParamsJson);
        explicit ACT_mVideosHDRParamsJson(ORN::SyntaxTree &tree) {
            const auto &enable = tree.stack<ACT_mVideosHDRParamsJson_mEnable>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &videos = tree.stack<CON_mEnumStitchDataVideo>();
            const auto &hdr = tree.stack<VAR_mVideoStitchHdrParam>();
            const auto &fov = tree.stack<SUB_mVideoStitchFovParam>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&enable, &data, &videos, &hdr, &fov, &path] {
                if (!enable.mSelf)
                    return;
                ORN::JsonWriter writer(256);
                writer.raw("{").key("hdr_param").raw("[");
                for (INDEX k = 0; k < hdr.mSelf.size(); ++k) {
                    if (k > 0)
                        writer.comma();
                    writer.raw("{").key("name").string(data.mVideo[videos.mSelf[k]].name).comma();
                    writer.key("value").number(hdr.mSelf[k]).comma();
                    writer.key("fov").number(fov.mSelf[k]).raw("}");
                }
                writer.raw("]}");
                ORN::JobDirectory(path.mSelf).save_file(String<char>("caches/videos/") + String<char>(HDR_PARAM_FILE),
                                                        writer.text());
            });
        }
    };

    // The stitched videos' names under "results/videos/" ("videos/" + the
    // output's file name), in plan order; empty when no video was stitched.
    static ORN::Array<String<char>> published_videos(const CON_mStitchData &data, const CON_mEnumStitchDataVideo &videos,
                                                     const ACT_mVideoStitch &stitch) {
        ORN::Array<String<char>> names;
        if (stitch.mHandles != nullptr)
            for (const INDEX i : videos.mSelf)
                names.append(FileSystemProc::file_name(data.mVideo[i].dst4));
        return names;
    }

    // Publishes each stitched video into "results/videos/" by hard link.
    struct ACT_mResultsVideoFile {
        ORN_NODE(ACT_mResultsVideoFile);
        explicit ACT_mResultsVideoFile(ORN::SyntaxTree &tree) {
            const auto &stitch = tree.stack<ACT_mVideoStitch>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &videos = tree.stack<CON_mEnumStitchDataVideo>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&stitch, &data, &videos, &path] {
                if (stitch.mHandles == nullptr)
                    return;
                const ORN::JobDirectory job(path.mSelf);
                for (const INDEX i : videos.mSelf) {
                    const String<char> &source = data.mVideo[i].dst4;
                    job.publish_file(source, "results/videos/" + FileSystemProc::file_name(source));
                    ORN::console().debug("link : results/videos/", FileSystemProc::file_name(source));
                }
            });
        }
    };

    // "caches/upload.part6.json": {"upload":[{"file":"videos/<name>"},...]}.
    struct ACT_mUploadPart6Json {
        ORN_NODE(ACT_mUploadPart6Json);
        explicit ACT_mUploadPart6Json(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mResultsVideoFile>();
            const auto &stitch = tree.stack<ACT_mVideoStitch>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &videos = tree.stack<CON_mEnumStitchDataVideo>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&stitch, &data, &videos, &path] {
                ORN::JsonWriter writer(256);
                writer.raw("{").key("upload").raw("[");
                const auto names = published_videos(data, videos, stitch);
                for (INDEX k = 0; k < names.size(); ++k) {
                    if (k > 0)
                        writer.comma();
                    writer.raw("{").key("file").string("videos/" + names[k]).raw("}");
                }
                writer.raw("]}");
                ORN::JobDirectory(path.mSelf).save_file("caches/upload.part6.json", writer.text());
                ORN::console().info("caches/upload.part6.json : ", names.size(), " files");
            });
        }
    };

    // Removes the panoramas of "caches/images/" that no image record of the
    // plan produces any more (left by an earlier plan), so that later steps
    // that walk the folder see this plan's panoramas only.
    struct ACT_mCleanImage {
        ORN_NODE(ACT_mCleanImage);
        explicit ACT_mCleanImage(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mImagesJson>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&data, &path] {
                ORN::Set<String<char>> keep;
                for (const auto &image : data.mImage)
                    keep.insert(FileSystemProc::file_name(image.dst1));
                const ORN::JobDirectory job(path.mSelf);
                INDEX removed = 0;
                for (const String<char> &name : job.list_files("caches/images")) {
                    const auto dot = name.find_last_of('.');
                    const String<char> extension = dot == String<char>::npos ? String<char>() : name.substr(dot);
                    if (keep.find(name) != ORN::VAR_NONE ||
                        (extension != ".jpg" && extension != ".jpeg" && extension != ".png" && extension != ".tif"))
                        continue;
                    job.erase_file("caches/images/" + name);
                    ++removed;
                }
                if (removed > 0)
                    ORN::console().info("stale panoramas removed : ", removed);
            });
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath, ACT_mImageStitch, ACT_mImageInpainting_mEnable, ACT_mImagesJson,
                                   ACT_mVideoStitch, ACT_mVideosHDRParamsJson, ACT_mResultsVideoFile,
                                   ACT_mUploadPart6Json, ACT_mCleanImage>;
};

ZARN_DEFINE_PROCESS(StitchMainProcess)

} // namespace ZARN
