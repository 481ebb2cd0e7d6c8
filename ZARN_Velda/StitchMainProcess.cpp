// StitchMainProcess: Panorama image and video stitching over the stitch plan.
//
// The run: read the stitch plan "caches/stitch_data.json"; check that every
// file the enabled steps read is there; stitch each image record into its
// panorama and each video record into its video with the stitching library,
// on the worker threads; write "caches/images.json" and
// "caches/videos/videos_hdr_param.json"; publish the stitched videos into
// "results/videos/" by hard link and list them in "caches/upload.part6.json";
// remove panoramas of "caches/images/" that the plan no longer produces.
// What it shares with the stereo stitch process is in StitchProcess.h.
//
// Per-run switches come from the process's member of the split data:
//   "image_stitch", "video_stitch", "videos_hdr_param"   steps (default true)
//   "always_inpaint"   every panorama marked for inpainting (default false)
// The panorama size table is chosen by the setting mPanoramaQuality.

#include "ZARN_Common/Fingerprint.h"
#include "ZARN_Velda/StitchProcess.h"

#include <mutex>

namespace ZARN {

using namespace Stitch;

class StitchMainProcess::Private::Implement final : public StitchProcess<Implement> {
    ZARN_PROCESS_IMPLEMENT(StitchMainProcess)

public:
    using VIDEO_HANDLE = StitchLibrary::VIDEO_HANDLE;
    // The fingerprints of the panoramas' inputs when they were last made.
    static constexpr std::string_view FINGERPRINTS = "caches/fingerprints/StitchMainProcess.json";

    // One capture point's image set.
    using NDS_mStitchDataImage = TwoLensImage;

    // The lens tables, upper and lower lens (`lens_table_names`: the job's
    // calibrated ones when it has them).
    struct CON_mImageStitchDistortTableFile {
        ORN_NODE(CON_mImageStitchDistortTableFile);
        ORN::PACK<String<char>, String<char>> mSelf;  // the paths handed to the library
        ORN::PACK<String<char>, String<char>> mNames; // names in the job
        ORN::JobDirectory::Input mUp, mDown;           // held open while the node lives
        ORN::Array<String<char>> mJobFiles;            // the same, for the required-file checks
        explicit CON_mImageStitchDistortTableFile(ORN::SyntaxTree &tree) {
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &path] {
                const ORN::JobDirectory job(path.mSelf);
                mNames = lens_table_names(job);
                mUp = job.open_input(mNames.mP1);
                mDown = job.open_input(mNames.mP2);
                mSelf = {mUp.path(), mDown.path()};
                mJobFiles = {mNames.mP1, mNames.mP2};
                ORN::console().info("lens tables : ", mNames.mP1, ", ", mNames.mP2);
            });
        }
    };

    struct ACT_mImageStitch_mEnable : SWITCH<true> {
        ORN_NODE(ACT_mImageStitch_mEnable);
        explicit ACT_mImageStitch_mEnable(ORN::SyntaxTree &tree) : SWITCH(tree, "image_stitch") {}
    };
    // How the overlap band of each panorama is blended: the split data's
    // "seam", "flow" (the default: aligned by optical flow) or "plain"; the
    // third int of the image executes' size.
    struct CON_mStitchSeam {
        ORN_NODE(CON_mStitchSeam);
        int mSelf = StitchLibrary::SEAM_FLOW;
        explicit CON_mStitchSeam(ORN::SyntaxTree &tree) {
            const auto &json = tree.stack<CON_mSplitDataJson>();
            tree.once([this, &json] {
                const String<char> seam = json.mSelf.child("seam").value("flow");
                if (seam != "flow" && seam != "plain") {
                    ORN::console().error("caches/split_data.json : StitchMainProcess : seam : \"", seam,
                                         "\" is neither \"flow\" nor \"plain\"");
                    _DYNAMIC_ASSERT_(seam == "flow" || seam == "plain");
                }
                mSelf = seam == "plain" ? StitchLibrary::SEAM_PLAIN : StitchLibrary::SEAM_FLOW;
            });
        }
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
                for (const String<char> &name : tables.mJobFiles)
                    mSelf.append(name);
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

    struct CON_mStitchHandle : LIBRARY_NODE<StitchHandle> {
        ORN_NODE(CON_mStitchHandle);
        using LIBRARY_NODE::LIBRARY_NODE;
    };

    using CON_mLibraryHandle = CON_mStitchHandle;
    using CON_mLensTableFile = CON_mImageStitchDistortTableFile;

    using IMAGE_HANDLE = StitchLibrary::IMAGE_HANDLE;

    // The image stitchers read the two lens tables.
    static int init_image(const StitchHandle &library, IMAGE_HANDLE me, const CON_mImageStitchDistortTableFile &tables,
                          const NDS_mImageStitchConfigProprety &config) {
        return library.mInitOptFlowStitchHandle(me, tables.mSelf.mP1.c_str(), tables.mSelf.mP2.c_str(),
                                                config.mPanoramaWidth, config.mPanoramaHeight, config.mEstimateWidth,
                                                config.mEstimateHeight, StitchLibrary::OUTPUT_BITS);
    }

    // The video stitchers read the same lens tables.
    static int init_video(const StitchHandle &library, VIDEO_HANDLE me, const CON_mImageStitchDistortTableFile &tables,
                          int width, int height) {
        return library.mInitVideoStitchHandle(me, tables.mSelf.mP1.c_str(), tables.mSelf.mP2.c_str(), width, height,
                                              StitchLibrary::OUTPUT_BITS);
    }

    // What a panorama is made from: its captures, the lens tables, its size
    // and the way it is stitched.
    static String<char> panorama_fingerprint(const ORN::JobDirectory &job, const NDS_mStitchDataImage &image,
                                             const CON_mImageStitchDistortTableFile &tables,
                                             const ORN::PACK<std::int32_t, std::int32_t> &size, int seam) {
        Fingerprint fingerprint;
        fingerprint.add(image.name).add(image.config).add(size.mP1).add(size.mP2).add(image.brackets()).add(seam);
        fingerprint.add_file(job, tables.mNames.mP1).add_file(job, tables.mNames.mP2);
        if (image.brackets() == 0)
            fingerprint.add_file(job, image.raw1).add_file(job, image.raw2);
        for (int k = 0; k < image.brackets(); ++k)
            fingerprint.add_file(job, image.src1[k]).add_file(job, image.src2[k]);
        return fingerprint.text();
    }

    struct ACT_mImageStitch {
        ORN_NODE(ACT_mImageStitch);
        const SUB_mOptFlowStitchHandle *mHandles = nullptr; // set when there is something to stitch
        const CON_mStitchHandle *mLibrary = nullptr;
        // The records to stitch (the others are up to date) and their
        // fingerprints, recorded as each panorama is made.
        ORN::Array<INDEX> mTodo;
        ORN::Array<String<char>> mKeys;
        int mSeam = StitchLibrary::SEAM_FLOW; // the third int of the executes' size
        explicit ACT_mImageStitch(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mWorkingPath>();
            const auto &enable = tree.stack<ACT_mImageStitch_mEnable>();
            const auto &data = tree.stack<CON_mStitchData>();
            const auto &configs = tree.stack<CON_mImageStitchConfigProprety>();
            const auto &sizes = tree.stack<CON_mImageStitchPanoramaWidth>();
            const auto &setting = tree.stack<CON_mSetting>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            const auto &seam = tree.stack<CON_mStitchSeam>();
            tree.stack<CON_mStitchRequiredFile>();
            // Held for the stitcher objects, which are declared only when
            // there is work.
            tree.stack<CON_mImageStitchDistortTableFile>();
            tree.maybe<CON_mStitchHandle>();
            tree.maybe<SUB_mOptFlowStitchHandle>();
            // The objects are fetched only when there is work: they play
            // before the second phase, which does the stitching.
            const auto &tables = tree.stack<CON_mImageStitchDistortTableFile>();
            tree.once([this, &tree, &enable, &data, &configs, &sizes, &setting, &path, &tables, &seam] {
                if (!enable.mSelf || data.mImage.empty())
                    return;
                mSeam = seam.mSelf;
                const ORN::JobDirectory job(path.mSelf);
                FingerprintRecord record(job, String<char>(FINGERPRINTS));
                for (INDEX i = 0; i < data.mImage.size(); ++i) {
                    const NDS_mStitchDataImage &image = data.mImage[i];
                    const String<char> key =
                        panorama_fingerprint(job, image, tables, sizes.mSelf[image.resolution - 1], mSeam);
                    if (record.up_to_date(image.dst1, key, {image.dst1}))
                        continue;
                    mTodo.append(i);
                    mKeys.append(key);
                    record.set(image.dst1, String<char>(), false); // until it is made again
                }
                record.save();
                if (mTodo.size() < data.mImage.size())
                    ORN::console().info("image stitch : ", data.mImage.size() - mTodo.size(), " of ",
                                        data.mImage.size(), " panoramas up to date");
                if (mTodo.empty())
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
                for (const INDEX i : mTodo)
                    job.build_directory(folder_of(data.mImage[i].dst1));
                LIBRARY_CLOCK clock;
                COUNTDOWN left(configs.mSelf.size());
                for (const INDEX i : mTodo)
                    left.add(configs.mConfigSet.map(data.mImage[i].config));
                FingerprintRecord record(job, String<char>(FINGERPRINTS));
                std::mutex record_mutex;
                const ORN::int64 task_bytes = largest_panorama(data, sizes) * BYTES_PER_PANORAMA_PIXEL;
                run_on_workers(setting.mThreadConcurrency, "image stitch : ", mTodo.size(), task_bytes, clock,
                               [&](INDEX t) {
                    const INDEX i = mTodo[t];
                    const NDS_mStitchDataImage &image = data.mImage[i];
                    const auto me = mHandles->mSelf[configs.mConfigSet.map(image.config)].self().mP1;
                    const auto &size = sizes.mSelf[image.resolution - 1];
                    const int wh[3] = {size.mP1, size.mP2, mSeam};
                    const String<char> output = job.path(image.dst1);
                    ORN::console().info("processing image [", i, "] ", image.name);
                    int result;
                    if (image.brackets() == 0) {
                        const auto upper = job.open_input(image.raw1), lower = job.open_input(image.raw2);
                        double statistics[2] = {0, 0};
                        result = _CALL_TRY_([&] {
                            return clock.time([&] {
                                return library.mExecuteOptFlowStitchHandle(me, upper.path().c_str(), lower.path().c_str(),
                                                                           output.c_str(), wh, statistics,
                                                                           image.name.c_str());
                            });
                        });
                        if (result == 0)
                            ORN::console().debug("image [", i, "] lower gain ", statistics[0], ", seam difference ",
                                                 statistics[1]);
                    } else {
                        std::array<ORN::JobDirectory::Input, 8> inputs;
                        std::array<const char *, 8> p{};
                        for (int k = 0; k < image.brackets(); ++k) {
                            inputs[k] = job.open_input(image.src1[k]);
                            inputs[4 + k] = job.open_input(image.src2[k]);
                            p[k] = inputs[k].path().c_str();
                            p[4 + k] = inputs[4 + k].path().c_str();
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
                    {
                        const std::lock_guard<std::mutex> hold(record_mutex);
                        record.set(image.dst1, mKeys[t]);
                    }
                    if (left.done(configs.mConfigSet.map(image.config)))
                        mHandles->release(configs.mConfigSet.map(image.config));
                });
            }
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath, ACT_mImageStitch, ACT_mImageInpainting_mEnable, ACT_mImagesJson,
                                   ACT_mVideoStitch, ACT_mVideosHDRParamsJson, ACT_mResultsVideoFile,
                                   ACT_mUploadPart6Json, ACT_mCleanImage>;
};

ZARN_DEFINE_PROCESS(StitchMainProcess)

} // namespace ZARN
