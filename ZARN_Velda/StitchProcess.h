#pragma once

// What the two stitch processes (the two-lens stitcher and the stereo
// rotating camera's) share: the stitch plan and its checks, the panorama
// size table, the distinct configurations, the switches, the image list,
// the whole video part (stitching on the workers, HDR parameters,
// publication, the part-6 manifest) and the cleaning of stale panoramas.
//
// A process P derives its Implement from StitchProcess<P> and provides what
// differs: its image record NDS_mStitchDataImage (with names(), the plan
// paths to check), its library node CON_mLibraryHandle, its lens-table node
// CON_mLensTableFile (with mJobFiles, the job files the video step needs),
// IMAGE_HANDLE and init_image(library, object, tables, configuration),
// VIDEO_HANDLE and init_video(library, object, tables, width, height), its
// image passes ending in ACT_mImageStitch, and ACT_mImageInpainting_mEnable.
// ImageROIProcess derives from it too, for the plan (CON_mStitchDataJson,
// CON_mStitchData and their rules) and the worker loop alone.

#include "ZARN_Common/Digest.h"
#include "ZARN_Velda/ProcessFrame.h"
#include "ZARN_Velda/StitchHandle.h"
#include "__ORN__/orn_thread.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace ZARN::Stitch {

using ORN::FileSystemProc;
using ORN::INDEX;
using ORN::String;

// A path of the plan: a name inside the job ("/"-separated, no "." or ".."
// components), or empty.
inline bool job_name(const String<char> &text) {
    if (text.empty())
        return true;
    if (text.front() == '/' || text.front() == '\\' || (text.size() > 1 && text[1] == ':'))
        return false;
    for (const String<char> &part : FileSystemProc::decouple_path_name(text))
        if (part == "." || part == "..")
            return false;
    return true;
}

// One capture point of the two-lens plan, read field by field (a field of
// an element that is no object, and a missing key, stay empty or 0): the
// image record of StitchMainProcess, read by the panorama repair as well.
struct TwoLensImage {
    String<char> dst1, name, raw1, raw2;
    std::array<String<char>, 4> src1, src2;
    String<char> config;
    ORN::int64 hdr = 0, resolution = 0, is_main = 0;

    explicit TwoLensImage(const ORN::JsonParser &e) {
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
    // The plan's paths of the record, each to be a name inside the job.
    std::vector<const String<char> *> names() const {
        return {&dst1, &raw1, &raw2, &src1[0], &src1[1], &src1[2], &src1[3], &src2[0], &src2[1], &src2[2], &src2[3]};
    }
    // How many exposures per lens the HDR execute takes; 0 for a plain
    // capture.
    int brackets() const { return static_cast<int>(std::clamp<ORN::int64>(hdr, 0, StitchLibrary::MAX_BRACKETS)); }
    // The exposures per lens a repair reads, darkest first: the first
    // brackets() of a bracketed capture, or the plain capture alone.
    int exposures() const { return std::max(brackets(), 1); }
    const String<char> &upper(int k) const { return hdr > 0 ? src1[k] : raw1; }
    const String<char> &lower(int k) const { return hdr > 0 ? src2[k] : raw2; }
};

// The lens tables a job's panoramas are stitched and repaired with, upper
// lens first: those the job's calibration published ("results/calib/tablea.bin"
// and "tableb.bin") when both are there, so that a rig calibrated in the job
// stitches with its own lenses; otherwise "caches/table_Up.bin" and
// "caches/table_Down.bin".
inline ORN::PACK<String<char>, String<char>> lens_table_names(const ORN::JobDirectory &job) {
    constexpr std::string_view calibrated_up = "results/calib/tablea.bin", calibrated_down = "results/calib/tableb.bin";
    if (job.find_file(calibrated_up) && job.find_file(calibrated_down))
        return {String<char>(calibrated_up), String<char>(calibrated_down)};
    return {String<char>("caches/table_Up.bin"), String<char>("caches/table_Down.bin")};
}

// The folder part of a job name ("" for a name at the top).
inline String<char> folder_of(const String<char> &name) {
    const auto slash = name.find_last_of("\\/");
    return slash == String<char>::npos ? String<char>() : name.substr(0, slash);
}

// A deterministic identifier of a capture point in the form of a UUID
// version 8 (the form for identifiers made by an application's own rule):
// the first 16 bytes of the SHA-256 of "zarn-point", the job's name and the
// point's name, each ended by a zero byte, with the version and variant
// bits set. Any change of either name changes about every digit.
inline String<char> point_uuid(std::string_view job, std::string_view point) {
    std::string message = "zarn-point";
    message.push_back('\0');
    message.append(job).push_back('\0');
    message.append(point).push_back('\0');
    std::array<unsigned char, 32> d = Sha256().add(message).digest();
    d[6] = static_cast<unsigned char>((d[6] & 0x0F) | 0x80); // version 8
    d[8] = static_cast<unsigned char>((d[8] & 0x3F) | 0x80); // variant 10
    String<char> text;
    static constexpr char HEX[] = "0123456789abcdef";
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text += '-';
        text += HEX[d[static_cast<std::size_t>(i)] >> 4];
        text += HEX[d[static_cast<std::size_t>(i)] & 15];
    }
    return text;
}

// A switch of the process's split data; `fallback` when absent.
inline bool split_switch(const ORN::JsonParser &section, std::string_view key, bool fallback) {
    return section.child(key).value(fallback);
}


template <class P>
class StitchProcess : public Frame::ProcessImplement<P> {
public:
    // The common nodes under the names the nodes below use.
    using VAR_mWorkingPath = Frame::VAR_mWorkingPath;
    using CON_mSettingXml = Frame::CON_mSettingXml<P>;
    using CON_mSetting = Frame::CON_mSetting<P>;
    using CON_mSplitDataJson = Frame::CON_mSplitDataJson<P>;
    using CON_mEnableProcess = Frame::CON_mEnableProcess<P>;
    using ACT_mWorkingPath = Frame::ACT_mWorkingPath<P>;

    static constexpr std::array<std::string_view, 3> WORKING_DIRECTORIES = {"caches/images", "caches/videos",
                                                                            "results/videos"};
    static constexpr std::string_view STITCH_DATA = "caches/stitch_data.json";
    static constexpr std::string_view HDR_PARAM_FILE = "videos_hdr_param.json";
    // Where the plan's outputs go: "dst1" directly in PANORAMA_FOLDER,
    // "dst4" directly in VIDEO_FOLDER.
    static constexpr std::string_view PANORAMA_FOLDER = "caches/images";
    static constexpr std::string_view VIDEO_FOLDER = "caches/videos";

    // The settings of both processes.
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

    // -----------------------------------------------------------------------
    // The stitch plan.

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
            tree.once([this, &path] { const ORN::JobDirectory job(path.mSelf);
                mSelf = ORN::JsonParser(job.load_file(STITCH_DATA).text(), job.path(STITCH_DATA)); });
        }
    };

    // The plan's records in file order. Every "resolution" must be 1, 2 or
    // 3, and every path a name inside the job.
    struct CON_mStitchData {
        ORN_NODE(CON_mStitchData);
        ORN::Array<typename P::NDS_mStitchDataImage> mImage;
        ORN::Array<NDS_mStitchDataVideo> mVideo;
        explicit CON_mStitchData(ORN::SyntaxTree &tree) {
            const auto &json = tree.stack<CON_mStitchDataJson>();
            tree.once([this, &json] {
                const ORN::JsonParser param = json.mSelf.child("stitch_main_param");
                ORN::Set<String<char>> outputs;
                for (const ORN::JsonParser &e : param.child("image_file").children()) {
                    const auto &image = mImage.append(e);
                    if (image.resolution < 1 || image.resolution > 3) {
                        ORN::console().error("resolution out of range in image [", mImage.size() - 1, "] : ",
                                             image.resolution);
                        _DYNAMIC_ASSERT_(false);
                    }
                    check_names(image.names());
                    check_output(image.dst1, PANORAMA_FOLDER, outputs);
                }
                for (const ORN::JsonParser &e : param.child("video_file").children()) {
                    const NDS_mStitchDataVideo &video = mVideo.append(e);
                    check_names({&video.dst4, &video.src1, &video.src2, &video.src3, &video.src4});
                    check_output(video.dst4, VIDEO_FOLDER, outputs);
                }
                check_bounds();
                ORN::console().info("stitch data : ", mImage.size(), " images, ", mVideo.size(), " videos");
            });
        }

        // What a plan may ask for: records, and distinct configurations
        // (each one a library object with its own tables).
        static constexpr INDEX MAX_IMAGE_RECORDS = 10000, MAX_VIDEO_RECORDS = 1000, MAX_CONFIGS = 16;

        void check_bounds() const {
            ORN::Set<String<char>> configs, cons;
            for (const auto &image : mImage)
                configs.insert(image.config);
            for (const auto &video : mVideo)
                cons.insert(video.con);
            const bool r1x = mImage.size() <= MAX_IMAGE_RECORDS && mVideo.size() <= MAX_VIDEO_RECORDS &&
                             configs.size() <= MAX_CONFIGS && cons.size() <= MAX_CONFIGS;
            if (!r1x)
                ORN::console().error("stitch plan beyond its limits : ", mImage.size(), " images (at most ",
                                     MAX_IMAGE_RECORDS, "), ", mVideo.size(), " videos (at most ", MAX_VIDEO_RECORDS,
                                     "), ", configs.size(), " image and ", cons.size(), " video configurations (at most ",
                                     MAX_CONFIGS, " each)");
            _DYNAMIC_ASSERT_(r1x);
        }

    public:
        // An output of the plan is a file of the process's own folder,
        // directly in it, named once: a panorama anywhere else could replace
        // another process's files or results, and a video elsewhere would
        // escape its publication.
        static void check_output(const String<char> &name, std::string_view folder, ORN::Set<String<char>> &outputs) {
            const String<char> file = FileSystemProc::file_name(name);
            const bool inside = folder_of(name) == folder && !file.empty() && file != "." && file != "..";
            if (!inside)
                ORN::console().error("stitch plan output outside ", folder, "/ : ", name);
            _DYNAMIC_ASSERT_(inside);
            const bool once = outputs.find(name) == ORN::VAR_NONE;
            if (!once)
                ORN::console().error("stitch plan names one output twice : ", name);
            _DYNAMIC_ASSERT_(once);
            outputs.insert(name);
        }

    private:
        // A plan that names files outside the job would make the library
        // read or write there.
        static void check_names(const std::vector<const String<char> *> &names) {
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
    struct ACT_mVideoStitch_mEnable : SWITCH<true> {
        ORN_NODE(ACT_mVideoStitch_mEnable);
        explicit ACT_mVideoStitch_mEnable(ORN::SyntaxTree &tree) : SWITCH<true>(tree, "video_stitch") {}
    };
    struct ACT_mVideosHDRParamsJson_mEnable : SWITCH<true> {
        ORN_NODE(ACT_mVideosHDRParamsJson_mEnable);
        explicit ACT_mVideosHDRParamsJson_mEnable(ORN::SyntaxTree &tree) : SWITCH<true>(tree, "videos_hdr_param") {}
    };
    // -----------------------------------------------------------------------
    // Required files: every file an enabled step reads, checked before any
    // library call. A file must be a regular file reached without links.

    static void check_required(const ORN::JobDirectory &job, const ORN::Array<String<char>> &names) {
        for (const String<char> &name : names) {
            if (!job.exist(name))
                ConsistencyProc::check_file_existance(job, name);
            const bool regular = job.find_file(name);
            if (!regular)
                ORN::console().error("refused file : ", job.path(name), " : not a regular file reached without links");
            _DYNAMIC_ASSERT_(regular);
        }
    }

    struct CON_mVideoStitchRequiredFile {
        ORN_NODE(CON_mVideoStitchRequiredFile);
        ORN::Array<String<char>> mSelf;
        explicit CON_mVideoStitchRequiredFile(ORN::SyntaxTree &tree) {
            const auto &tables = tree.stack<typename P::CON_mLensTableFile>();
            const auto &enable = tree.stack<ACT_mVideoStitch_mEnable>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &videos = tree.stack<CON_mEnumStitchDataVideo>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &enable, &data, &videos, &tables, &path] {
                if (!enable.mSelf || videos.mSelf.empty())
                    return;
                for (const String<char> &name : tables.mJobFiles)
                    mSelf.append(name);
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

    // Every file of every enabled pass, images and videos, checked. Each
    // action that may open the library stacks this node (and the lens
    // table node), so that both stay alive for the library node, which is
    // built only when an action fetches it: the library may be fetched
    // first by the video pass, after the image passes had nothing to do.
    struct CON_mStitchRequiredFile {
        ORN_NODE(CON_mStitchRequiredFile);
        explicit CON_mStitchRequiredFile(ORN::SyntaxTree &tree) {
            tree.stack<typename P::CON_mImageStitchRequiredFile>();
            tree.stack<CON_mVideoStitchRequiredFile>();
        }
    };

    // -----------------------------------------------------------------------
    // The library's objects and calls.

    // The process's library, opened and linked when the node plays, after
    // every file the enabled passes read was checked. Whatever fetches it
    // stacks what it stacks.
    template <class BINDING>
    struct LIBRARY_NODE {
        ORN::AutoRef<BINDING> mSelf;
        explicit LIBRARY_NODE(ORN::SyntaxTree &tree) {
            tree.stack<CON_mStitchRequiredFile>();
            tree.stack<typename P::CON_mLensTableFile>();
            tree.once([this] { mSelf = ORN::AutoRef<BINDING>::make(); });
        }
    };

    // One initialised image stitcher per configuration, in the order of
    // CON_mImageStitchConfigProprety; destroyed when the image passes are
    // over.
    struct SUB_mOptFlowStitchHandle {
        ORN_NODE(SUB_mOptFlowStitchHandle);
        mutable ORN::ArrayList<LibraryObject<typename P::IMAGE_HANDLE>> mSelf;
        // Destroys the stitcher of a configuration whose last record is done
        // (see COUNTDOWN); its tables go with it unless another holds them.
        void release(INDEX config) const { mSelf[config].reset(); }
        explicit SUB_mOptFlowStitchHandle(ORN::SyntaxTree &tree) {
            const auto &handle = tree.stack<typename P::CON_mLibraryHandle>();
            const auto &configs = tree.stack<CON_mImageStitchConfigProprety>();
            const auto &tables = tree.stack<typename P::CON_mLensTableFile>();
            tree.once([this, &handle, &configs, &tables] {
                const auto &library = *handle.mSelf;
                ORN::console().info("initializing stitch");
                for (const auto &config : configs.mSelf) {
                    auto &object = mSelf.append(make_library_object<typename P::IMAGE_HANDLE>(
                        library.mCreateOptFlowStitchHandle, library.mDestroyOptFlowStitchHandle));
                    const auto me = object.self().mP1;
                    const int result = _CALL_TRY_([&] { return P::init_image(library, me, tables, config); });
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
        mutable ORN::ArrayList<LibraryObject<typename P::VIDEO_HANDLE>> mSelf;
        void release(INDEX config) const { mSelf[config].reset(); }
        ORN::Set<String<char>> mConfigSet;
        explicit SUB_mVideoStitchHandle(ORN::SyntaxTree &tree) {
            const auto &handle = tree.stack<typename P::CON_mLibraryHandle>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &videos = tree.stack<CON_mEnumStitchDataVideo>();
            const auto &sizes = tree.stack<CON_mImageStitchPanoramaWidth>();
            const auto &tables = tree.stack<typename P::CON_mLensTableFile>();
            tree.once([this, &handle, &data, &videos, &sizes, &tables] {
                const auto &library = *handle.mSelf;
                ORN::console().info("initializing stitch");
                // Video frames are half the size of a class 1 panorama.
                const std::int32_t width = sizes.mSelf[0].mP1 / 2, height = sizes.mSelf[0].mP2 / 2;
                for (const INDEX i : videos.mSelf) {
                    const String<char> &con = data.mVideo[i].con;
                    if (mConfigSet.find(con) != ORN::VAR_NONE)
                        continue;
                    mConfigSet.insert(con);
                    auto &object = mSelf.append(make_library_object<typename P::VIDEO_HANDLE>(
                        library.mCreateVideoStitchHandle, library.mDestroyVideoStitchHandle));
                    const auto me = object.self().mP1;
                    const int result = _CALL_TRY_([&] { return P::init_video(library, me, tables, width, height); });
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
        const ORN::int64 mStitchReturnValue = Frame::failed_call_code(result, code, "stitching", StitchLibrary::meaning);
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

    // What one task takes at its peak, for the bound on the workers that
    // run at once: per pixel of the panorama it makes, the two lens images
    // warped to the panorama and their weights (float), the blend and the
    // encoded output, about 60 bytes (a 4096 x 2048 panorama: 0.5 GB).
    static constexpr ORN::int64 BYTES_PER_PANORAMA_PIXEL = 60;
    // The largest panorama the image records make, in pixels.
    static ORN::int64 largest_panorama(const CON_mStitchData &data, const CON_mImageStitchPanoramaWidth &sizes) {
        ORN::int64 pixels = 0;
        for (const auto &image : data.mImage) {
            const auto &size = sizes.mSelf[image.resolution - 1];
            pixels = std::max<ORN::int64>(pixels, ORN::int64(size.mP1) * size.mP2);
        }
        return pixels;
    }

    // `task_bytes`: what one task takes at its peak (see WorkThread::plan).
    template <class WORK>
    static void run_on_workers(ORN::int64 threads, std::string_view heading, INDEX n, ORN::int64 task_bytes,
                               LIBRARY_CLOCK &clock, WORK &&work) {
        auto &console = ORN::console();
        const ORN::TimePoint start = ORN::TimePoint::now();
        const ORN::WORKER_PLAN plan = ORN::WorkThread::plan(threads, n, task_bytes);
        console.info(plan.mReason);
        auto progress = console.progress(String<char>(heading), n);
        ORN::WorkThread workers(plan);
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

    // Each configuration's records still to do in a pass; done(c) is true
    // for the record that completes the configuration's last, after which
    // its stitcher is released.
    struct COUNTDOWN {
        std::vector<std::atomic<INDEX>> mLeft;
        explicit COUNTDOWN(INDEX configs) : mLeft(static_cast<std::size_t>(configs)) {}
        void add(INDEX config) { ++mLeft[static_cast<std::size_t>(config)]; }
        bool done(INDEX config) { return --mLeft[static_cast<std::size_t>(config)] == 0; }
    };

    // "caches/images.json": the panoramas for the later steps.
    struct ACT_mImagesJson {
        ORN_NODE(ACT_mImagesJson);
        explicit ACT_mImagesJson(ORN::SyntaxTree &tree) {
            tree.stack<typename P::ACT_mImageStitch>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &has_video = tree.stack<CON_mStitchDataImageHasVideo>();
            const auto &inpaint = tree.stack<typename P::ACT_mImageInpainting_mEnable>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&data, &has_video, &inpaint, &path] {
                const String<char> working_name = FileSystemProc::file_name(path.mSelf);
                ORN::JsonWriter writer(256 + 256 * data.mImage.size());
                writer.raw("{").key("images").raw("[");
                for (INDEX i = 0; i < data.mImage.size(); ++i) {
                    const auto &image = data.mImage[i];
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
        const typename P::CON_mLibraryHandle *mLibrary = nullptr;
        ORN::Array<double> mHdr, mFov;
        explicit ACT_mVideoStitch(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mWorkingPath>();
            const auto &enable = tree.stack<ACT_mVideoStitch_mEnable>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &videos = tree.stack<CON_mEnumStitchDataVideo>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.stack<CON_mStitchRequiredFile>();
            const auto &sizes = tree.stack<CON_mImageStitchPanoramaWidth>();
            tree.stack<typename P::CON_mLensTableFile>();
            tree.maybe<typename P::CON_mLibraryHandle>();
            tree.maybe<SUB_mVideoStitchHandle>();
            tree.once([this, &tree, &enable, &data, &videos, &sizes, &setting, &path] {
                if (!enable.mSelf || videos.mSelf.empty())
                    return;
                mHandles = &tree.stack<SUB_mVideoStitchHandle>();
                mLibrary = &tree.stack<typename P::CON_mLibraryHandle>();
                tree.then([this, &data, &videos, &sizes, &setting, &path] { stitch(data, videos, sizes, setting, path); });
            });
        }

        void stitch(const CON_mStitchData &data, const CON_mEnumStitchDataVideo &videos,
                    const CON_mImageStitchPanoramaWidth &sizes, const CON_mSetting &setting,
                    const VAR_mWorkingPath &path) {
            {
                const auto &library = *mLibrary->mSelf;
                const ORN::JobDirectory job(path.mSelf);
                const INDEX n = videos.mSelf.size();
                mHdr = ORN::Array<double>(n, 1.0);
                mFov = ORN::Array<double>(n, 0.0);
                for (const INDEX i : videos.mSelf)
                    job.build_directory(folder_of(data.mVideo[i].dst4));
                LIBRARY_CLOCK clock;
                COUNTDOWN left(mHandles->mSelf.size());
                for (const INDEX i : videos.mSelf)
                    left.add(mHandles->mConfigSet.map(data.mVideo[i].con));
                // A video task holds a frame of each stream, their warped
                // forms and the output frame at half a class 1 panorama.
                const ORN::int64 frame = ORN::int64(sizes.mSelf[0].mP1 / 2) * (sizes.mSelf[0].mP2 / 2);
                run_on_workers(setting.mThreadConcurrency, "video stitch : ", n, frame * BYTES_PER_PANORAMA_PIXEL,
                               clock, [&](INDEX k) {
                    const INDEX i = videos.mSelf[k];
                    const NDS_mStitchDataVideo &video = data.mVideo[i];
                    const auto me = mHandles->mSelf[mHandles->mConfigSet.map(video.con)].self().mP1;
                    ORN::console().info("processing video [", i, "] ", video.name);
                    const auto open = [&](const String<char> &name) {
                        return name.empty() ? ORN::JobDirectory::Input() : job.open_input(name);
                    };
                    const auto in1 = open(video.src1), in2 = open(video.src2), in3 = open(video.src3),
                               in4 = open(video.src4);
                    const String<char> &src1 = in1.path(), &src2 = in2.path(), &src3 = in3.path(), &src4 = in4.path();
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
                    if (left.done(mHandles->mConfigSet.map(video.con)))
                        mHandles->release(mHandles->mConfigSet.map(video.con));
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

    // Makes the stitched videos, by hard link, the content of
    // "results/videos/" (none when no video was stitched).
    struct ACT_mResultsVideoFile {
        ORN_NODE(ACT_mResultsVideoFile);
        explicit ACT_mResultsVideoFile(ORN::SyntaxTree &tree) {
            const auto &stitch = tree.stack<ACT_mVideoStitch>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &videos = tree.stack<CON_mEnumStitchDataVideo>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&stitch, &data, &videos, &path] {
                ORN::Array<ORN::JobDirectory::PUBLISHED> published;
                if (stitch.mHandles != nullptr)
                    for (const INDEX i : videos.mSelf) {
                        const String<char> &source = data.mVideo[i].dst4;
                        published.append(ORN::JobDirectory::PUBLISHED{source, "results/videos/" + FileSystemProc::file_name(source)});
                    }
                ORN::JobDirectory(path.mSelf).publish_files("results/videos", published, {"results/videos/web"});
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

};

} // namespace ZARN::Stitch
