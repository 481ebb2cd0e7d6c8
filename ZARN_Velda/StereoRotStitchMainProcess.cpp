// StereoRotStitchMainProcess: Stitching for the stereo rotating camera.
//
// The stereo rotating camera takes six views per capture (two lenses, three
// head positions) as raw sensor frames, in up to three exposure groups. The
// run: read the stitch plan and the capture record; develop every raw frame
// the records use (the ISP pass, into "caches/isp/<frame name>.png"); merge each
// view's exposures and stitch the six views into the panorama (the HDR pass,
// or the plain stitch of one exposure when HDR is off); inpaint the tripod
// area of the panoramas with the converter script beside the module; then
// as the two-lens stitch process: the image list, the videos, their HDR
// parameters, their publication and manifest; finally the capture record.
//
// Per-run switches (the process's member of the split data, default true):
// "image_isp", "image_hdr", "image_inpainting", "video_stitch",
// "videos_hdr_param".

#include "ZARN_Velda/ProjectRecord.h"
#include "ZARN_Velda/StitchProcess.h"
#include "__ORN__/orn_runtime.h"

namespace ZARN {

using namespace Stitch;
namespace Lib = StereoRotCamLibrary;

namespace {

// Where the ISP pass develops a raw frame: "caches/isp/" + the frame's name
// in the job with the extension ".png", inside the process's own folder
// whatever folder the plan keeps its frames in.
String<char> developed_name(const String<char> &frame) {
    const String<char> name = FileSystemProc::file_name(frame);
    const auto dot = name.find_last_of('.');
    const String<char> folder = folder_of(frame);
    return "caches/isp/" + (folder.empty() ? String<char>() : folder + "/") +
           (dot == String<char>::npos ? name : name.substr(0, dot)) + ".png";
}

} // namespace

class StereoRotStitchMainProcess::Private::Implement final : public StitchProcess<Implement> {
    ZARN_PROCESS_IMPLEMENT(StereoRotStitchMainProcess)

public:
    using VIDEO_HANDLE = Lib::VIDEO_HANDLE;

    // One capture point's raw frames: three exposure groups of six views.
    struct NDS_mStitchDataImage {
        String<char> dst1, name, raw1, raw2;
        std::array<std::array<String<char>, Lib::VIEWS>, Lib::MAX_GROUPS> src; // src[group][view]
        String<char> config;
        ORN::int64 hdr = 0, hdrCnt = 0;
        std::array<double, 3> gain{1.0, 1.0, 1.0}; // red, green, blue
        ORN::int64 resolution = 0, is_main = 0;

        explicit NDS_mStitchDataImage(const ORN::JsonParser &e) {
            if (!e.object_type())
                return;
            dst1 = e.child("dst1").value("");
            name = e.child("name").value("");
            raw1 = e.child("raw1").value("");
            raw2 = e.child("raw2").value("");
            for (int g = 0; g < Lib::MAX_GROUPS; ++g)
                for (int k = 0; k < Lib::VIEWS; ++k)
                    src[g][k] = e.child("src" + std::to_string(g + 1) + "_" + std::to_string(k)).value("");
            config = e.child("config").value("");
            hdr = e.child("hdr").value(ORN::int64(0));
            hdrCnt = e.child("hdrCnt").value(ORN::int64(0));
            // Three multipliers, or one for all three channels.
            const ORN::JsonParser g = e.child("gain");
            if (g.array_type() && g.size() == 3)
                for (int c = 0; c < 3; ++c)
                    gain[c] = g.children()[c].value(1.0);
            else
                gain.fill(g.value(1.0));
            resolution = e.child("resolution").value(ORN::int64(0));
            is_main = e.child("is_main").value(ORN::int64(0));
        }
        std::vector<const String<char> *> names() const {
            std::vector<const String<char> *> all = {&dst1, &raw1, &raw2};
            for (const auto &group : src)
                for (const auto &frame : group)
                    all.push_back(&frame);
            return all;
        }
        // The exposure groups used (1 to 3).
        int groups() const { return static_cast<int>(std::clamp<ORN::int64>(hdrCnt, 1, Lib::MAX_GROUPS)); }
        // The group stitched alone when HDR is off: the middle exposure.
        int single_group() const { return groups() >= 2 ? 1 : 0; }
    };

    // The camera's distortion table, "asset/distortion.txt" of the current
    // directory (no file of the job).
    struct CON_mDistortTableTxt {
        ORN_NODE(CON_mDistortTableTxt);
        String<char> mSelf;
        ORN::Array<String<char>> mJobFiles;
        explicit CON_mDistortTableTxt(ORN::SyntaxTree &tree) {
            tree.once([this] {
                mSelf = ConsistencyProc::asset_file_distort_table_txt();
                ConsistencyProc::check_file_existance(mSelf);
            });
        }
    };

    struct ACT_mImageStitchISP_mEnable : SWITCH<true> {
        ORN_NODE(ACT_mImageStitchISP_mEnable);
        explicit ACT_mImageStitchISP_mEnable(ORN::SyntaxTree &tree) : SWITCH(tree, "image_isp") {}
    };
    struct ACT_mImageStitchHDR_mEnable : SWITCH<true> {
        ORN_NODE(ACT_mImageStitchHDR_mEnable);
        explicit ACT_mImageStitchHDR_mEnable(ORN::SyntaxTree &tree) : SWITCH(tree, "image_hdr") {}
    };

    // The frames each record's stitch reads: the developed ones when the ISP
    // pass runs, the plan's own otherwise; group by group, view by view.
    static ORN::Array<String<char>> stitch_frames(const NDS_mStitchDataImage &image, bool isp, bool hdr) {
        ORN::Array<String<char>> frames;
        const int first = hdr ? 0 : image.single_group(), last = hdr ? image.groups() : first + 1;
        for (int g = first; g < last; ++g)
            for (int k = 0; k < Lib::VIEWS; ++k)
                frames.append(isp ? developed_name(image.src[g][k]) : image.src[g][k]);
        return frames;
    }

    // Every frame the enabled passes read, checked before any library call.
    struct CON_mImageStitchRequiredFile {
        ORN_NODE(CON_mImageStitchRequiredFile);
        ORN::Array<String<char>> mSelf;
        explicit CON_mImageStitchRequiredFile(ORN::SyntaxTree &tree) {
            const auto &isp = tree.stack<ACT_mImageStitchISP_mEnable>();
            const auto &hdr = tree.stack<ACT_mImageStitchHDR_mEnable>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &isp, &hdr, &data, &path] {
                for (const auto &image : data.mImage) {
                    const int groups = hdr.mSelf || isp.mSelf ? image.groups() : image.single_group() + 1;
                    for (int g = hdr.mSelf || isp.mSelf ? 0 : image.single_group(); g < groups; ++g)
                        for (int k = 0; k < Lib::VIEWS; ++k)
                            mSelf.append(image.src[g][k]);
                }
                check_required(ORN::JobDirectory(path.mSelf), mSelf);
            });
        }
    };

    struct CON_mStereoRotStitchHandle : LIBRARY_NODE<StereoRotStitchHandle> {
        ORN_NODE(CON_mStereoRotStitchHandle);
        using LIBRARY_NODE::LIBRARY_NODE;
    };
    using CON_mLibraryHandle = CON_mStereoRotStitchHandle;
    using CON_mLensTableFile = CON_mDistortTableTxt;

    using IMAGE_HANDLE = Lib::IMAGE_HANDLE;

    // The image stitchers read the camera's distortion table; the ISP pass
    // develops through the first of them.
    static int init_image(const StereoRotStitchHandle &library, IMAGE_HANDLE me, const CON_mDistortTableTxt &table,
                          const NDS_mImageStitchConfigProprety &config) {
        return library.mInitOptFlowStitchHandle(me, table.mSelf.c_str(), config.mPanoramaWidth, config.mPanoramaHeight,
                                                config.mEstimateWidth, config.mEstimateHeight,
                                                StitchLibrary::OUTPUT_BITS);
    }

    static int init_video(const StereoRotStitchHandle &library, VIDEO_HANDLE me, const CON_mDistortTableTxt &table,
                          int width, int height) {
        return library.mInitVideoStitchHandle(me, table.mSelf.c_str(), width, height, StitchLibrary::OUTPUT_BITS);
    }

    // The ISP pass: every raw frame the stitch reads, developed with the
    // record's gain into "caches/isp/<frame name>.png".
    struct ACT_mImageStitchISP {
        ORN_NODE(ACT_mImageStitchISP);
        const SUB_mOptFlowStitchHandle *mHandles = nullptr;
        const CON_mStereoRotStitchHandle *mLibrary = nullptr;
        explicit ACT_mImageStitchISP(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mWorkingPath>();
            const auto &isp = tree.stack<ACT_mImageStitchISP_mEnable>();
            const auto &hdr = tree.stack<ACT_mImageStitchHDR_mEnable>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.stack<CON_mStitchRequiredFile>();
            tree.stack<CON_mImageStitchConfigProprety>();
            const auto &sizes = tree.stack<CON_mImageStitchPanoramaWidth>();
            tree.stack<CON_mDistortTableTxt>();
            tree.maybe<CON_mStereoRotStitchHandle>();
            tree.maybe<SUB_mOptFlowStitchHandle>();
            tree.once([this, &tree, &isp, &hdr, &data, &sizes, &setting, &path] {
                if (!isp.mSelf || data.mImage.empty())
                    return;
                mHandles = &tree.stack<SUB_mOptFlowStitchHandle>();
                mLibrary = &tree.stack<CON_mStereoRotStitchHandle>();
                tree.then([this, &hdr, &data, &sizes, &setting, &path] { develop(hdr.mSelf, data, sizes, setting, path); });
            });
        }

        void develop(bool hdr, const CON_mStitchData &data, const CON_mImageStitchPanoramaWidth &sizes,
                     const CON_mSetting &setting, const VAR_mWorkingPath &path) {
            ORN::console().info("processing ISP");
            const StereoRotStitchHandle &library = *mLibrary->mSelf;
            const auto me = mHandles->mSelf[0].self().mP1;
            const ORN::JobDirectory job(path.mSelf);
            for (const auto &image : data.mImage)
                for (const String<char> &frame : stitch_frames(image, true, hdr))
                    job.build_directory(folder_of(frame));
            LIBRARY_CLOCK clock;
            // A record's frames are developed one after the other; each is at
            // most a panorama's size.
            const ORN::int64 task_bytes = largest_panorama(data, sizes) * BYTES_PER_PANORAMA_PIXEL;
            run_on_workers(setting.mThreadConcurrency, "image ISP : ", data.mImage.size(), task_bytes, clock,
                           [&](INDEX i) {
                const auto &image = data.mImage[i];
                const ORN::Array<String<char>> raw = stitch_frames(image, false, hdr);
                const ORN::Array<String<char>> developed = stitch_frames(image, true, hdr);
                for (INDEX f = 0; f < raw.size(); ++f) {
                    const auto input = job.open_input(raw[f]);
                    const String<char> output = job.path(developed[f]);
                    const int result = _CALL_TRY_([&] {
                        return clock.time([&] {
                            return library.mExecuteISPHandle(me, input.path().c_str(), output.c_str(), image.gain.data());
                        });
                    });
                    check_result(result, [&] { return library.mGetOptFlowStitchCode(me); });
                }
            });
        }
    };

    // The HDR pass (or, with HDR off, the plain stitch of the middle
    // exposure): each record's six views into its panorama.
    struct ACT_mImageStitch {
        ORN_NODE(ACT_mImageStitch);
        const SUB_mOptFlowStitchHandle *mHandles = nullptr;
        const CON_mStereoRotStitchHandle *mLibrary = nullptr;
        explicit ACT_mImageStitch(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mImageStitchISP>();
            const auto &isp = tree.stack<ACT_mImageStitchISP_mEnable>();
            const auto &hdr = tree.stack<ACT_mImageStitchHDR_mEnable>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &configs = tree.stack<CON_mImageStitchConfigProprety>();
            const auto &sizes = tree.stack<CON_mImageStitchPanoramaWidth>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.stack<CON_mStitchRequiredFile>();
            tree.stack<CON_mDistortTableTxt>();
            tree.maybe<CON_mStereoRotStitchHandle>();
            tree.maybe<SUB_mOptFlowStitchHandle>();
            tree.once([this, &tree, &isp, &hdr, &data, &configs, &sizes, &setting, &path] {
                if (data.mImage.empty())
                    return;
                mHandles = &tree.stack<SUB_mOptFlowStitchHandle>();
                mLibrary = &tree.stack<CON_mStereoRotStitchHandle>();
                tree.then([this, &isp, &hdr, &data, &configs, &sizes, &setting, &path] {
                    stitch(isp.mSelf, hdr.mSelf, data, configs, sizes, setting, path);
                });
            });
        }

        void stitch(bool isp, bool hdr, const CON_mStitchData &data, const CON_mImageStitchConfigProprety &configs,
                    const CON_mImageStitchPanoramaWidth &sizes, const CON_mSetting &setting,
                    const VAR_mWorkingPath &path) {
            if (hdr)
                ORN::console().info("processing HDR");
            const StereoRotStitchHandle &library = *mLibrary->mSelf;
            const ORN::JobDirectory job(path.mSelf);
            for (const auto &image : data.mImage)
                job.build_directory(folder_of(image.dst1));
            LIBRARY_CLOCK clock;
            COUNTDOWN left(configs.mSelf.size());
            for (const auto &image : data.mImage)
                left.add(configs.mConfigSet.map(image.config));
            const ORN::int64 task_bytes = largest_panorama(data, sizes) * BYTES_PER_PANORAMA_PIXEL;
            run_on_workers(setting.mThreadConcurrency, "image stitch : ", data.mImage.size(), task_bytes, clock,
                           [&](INDEX i) {
                const auto &image = data.mImage[i];
                const auto me = mHandles->mSelf[configs.mConfigSet.map(image.config)].self().mP1;
                const auto &size = sizes.mSelf[image.resolution - 1];
                const int wh[2] = {size.mP1, size.mP2};
                const String<char> output = job.path(image.dst1);
                ORN::console().info("processing image [", i, "] ", image.name);
                const ORN::Array<String<char>> frames = stitch_frames(image, isp, hdr);
                std::vector<ORN::JobDirectory::Input> inputs;
                inputs.reserve(frames.size());
                std::vector<const char *> paths;
                for (const String<char> &frame : frames)
                    paths.push_back(inputs.emplace_back(job.open_input(frame)).path().c_str());
                const int result = _CALL_TRY_([&] {
                    return clock.time([&] {
                        if (hdr)
                            return library.mExecuteOptFlowStitchHDRHandle(me, paths.data(), image.groups(),
                                                                          output.c_str(), wh,
                                                                          static_cast<unsigned char>(image.hdr));
                        return library.mExecuteOptFlowStitchHandle(me, paths.data(), output.c_str(), wh, nullptr,
                                                                   image.name.c_str());
                    });
                });
                check_result(result, [&] { return library.mGetOptFlowStitchCode(me); });
                if (left.done(configs.mConfigSet.map(image.config)))
                    mHandles->release(configs.mConfigSet.map(image.config));
            });
        }
    };

    // Inpaints the tripod area of the stitched panoramas with the converter
    // script beside the module: "bash <module directory>DataConverter.sh
    // IMAGE <working path>" (every word quoted; DataConverter.bat on Windows). The
    // command line and its exit status are printed; a non-zero status ends
    // the process. Its value is the switch "image_inpainting".
    struct ACT_mImageInpainting_mEnable {
        ORN_NODE(ACT_mImageInpainting_mEnable);
        bool mSelf = true;
        explicit ACT_mImageInpainting_mEnable(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mImageStitch>();
            const auto &json = tree.stack<CON_mSplitDataJson>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &json, &data, &path] {
                mSelf = split_switch(json.mSelf, "image_inpainting", true);
                if (!mSelf || data.mImage.empty())
                    return;
                const auto self = &Implement::shell_command;
                const String<char> command = shell_command(
                    FileSystemProc::module_path(reinterpret_cast<const void *>(self)), path.mSelf);
                ORN::console().info(command);
                const ORN::int64 mConverterReturnValue = ORN::GlobalRuntime::system_exec(command);
                ORN::console().info("return value = ", mConverterReturnValue);
                _DYNAMIC_ASSERT_(mConverterReturnValue == 0);
            });
        }
    };
    // On Windows the converter is "<module directory>DataConverter.bat",
    // run by cmd.exe.
    static String<char> shell_command(const String<char> &module_directory, const String<char> &working_path) {
#ifdef _WIN32
        return ORN::GlobalRuntime::quote_argument(module_directory + "DataConverter.bat") + " IMAGE " +
               ORN::GlobalRuntime::quote_argument(working_path);
#else
        return "bash " + ORN::GlobalRuntime::quote_argument(module_directory + "DataConverter.sh") + " IMAGE " +
               ORN::GlobalRuntime::quote_argument(working_path);
#endif
    }

    using CON_mProject = Project::CON_mProject;

    // Stitching does not finish a capture: "done" stays as read, "crashed"
    // is cleared, "progress" is 100 for a done capture and 50 otherwise
    // (the panoramas are there, the reconstruction is not yet).
    struct ACT_mProjectJson {
        ORN_NODE(ACT_mProjectJson);
        explicit ACT_mProjectJson(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mCleanImage>();
            tree.stack<ACT_mUploadPart6Json>();
            const auto &project = tree.stack<CON_mProject>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&project, &path] {
                const bool done = project.mSelf.mDone;
                Project::write_project(ORN::JobDirectory(path.mSelf), project.mSelf, done, false, done ? 100 : 50);
                ORN::console().info("project.json : done = ", done);
            });
        }
    };

    using ACTIONS =
        Frame::Actions<ACT_mWorkingPath, CON_mProject, ACT_mImageStitchISP, ACT_mImageStitch, ACT_mImageInpainting_mEnable,
                       ACT_mImagesJson, ACT_mVideoStitch, ACT_mVideosHDRParamsJson, ACT_mResultsVideoFile,
                       ACT_mUploadPart6Json, ACT_mCleanImage, ACT_mProjectJson>;
};

ZARN_DEFINE_PROCESS(StereoRotStitchMainProcess)

} // namespace ZARN
