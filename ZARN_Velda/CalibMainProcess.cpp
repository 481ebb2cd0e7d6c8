// CalibMainProcess: Camera calibration, analysis and shading.
//
// The run: read the three stage switches and the raw inputs from the
// process's member of the split data; call the calibration library once per
// enabled stage (camera calibration, colour analysis, shading), each of
// which writes its results into "caches/calib_result/"; publish the files of
// the enabled stages into "results/calib/" by hard link; write
// "caches/upload.part5.json".
//
// The process's member of "caches/split_data.json":
//
//   {"enable_calib_main_calib": true, "enable_calib_main_analysis": true,
//    "enable_calib_main_shading": true,
//    "analysis_raw": {"src1": "captures/chart_00.jpg", "src2": "", ...},
//    "shading_raw": {"src1": "captures/flat_00.jpg"}}
//
// The library is opened only when a stage is enabled.

#include "ZARN_Common/CalibLibrary.h"
#include "ZARN_Common/Fingerprint.h"
#include "ZARN_Common/export.h"
#include "ZARN_Velda/ProcessFrame.h"

#include <array>
#include <string_view>

namespace ZARN {

namespace {

using ORN::FileSystemProc;
using ORN::INDEX;
using ORN::String;

// A published file and its class in the upload manifest.
struct CALIB_FILE {
    std::string_view mName;
    std::string_view mClass;
};

// The files each stage leaves in "caches/calib_result/", in publication
// order; the case of the names is theirs ("down.jpg" beside "Down.xml").
constexpr std::array<CALIB_FILE, 10> CALIB_FILES = {{
    {"down.jpg", "preview"},
    {"up.jpg", "preview"},
    {"Down.xml", "intrinsics"},
    {"Up.xml", "intrinsics"},
    {"Up2.xml", "extrinsics"},
    {"tablea.bin", "lens_table"},
    {"tablea2.bin", "lens_table"},
    {"tableb.bin", "lens_table"},
    {"sfm_init.bin", "sfm_init"},
    {"sfm_init.json", "sfm_init"},
}};
constexpr std::array<CALIB_FILE, 2> ANALYSIS_FILES = {{
    {"colorCalibrate.txt", "color_correction"},
    {"colorCalibrate.jpg", "preview"},
}};
constexpr std::array<CALIB_FILE, 1> SHADING_FILES = {{
    {"shadingCalibrate", "shading_map"},
}};

// The description of the calibration target, resolved by the library
// against the current directory.
constexpr std::string_view CALIB_TARGET = "asset/calib_target.txt";

// The fingerprints of the stages' inputs when their files were last made.
constexpr std::string_view FINGERPRINTS = "caches/fingerprints/CalibMainProcess.json";

} // namespace

// The calibration library: "libCalib.so" ("Calib.dll" on Windows) in the
// current directory, and its three entries, linked in this order.
struct CalibHandle {
    DLL mDLL;
    CalibLibrary::RUN_SHADING_MAIN *mRunShadingMain = nullptr;
    CalibLibrary::RUN_ANALYSIS_MAIN *mRunAnalysisMain = nullptr;
    CalibLibrary::RUN_CALIB_MAIN *mRunCalibMain = nullptr;

    CalibHandle() {
        mDLL.open(DLL::library_path("Calib"));
        mRunShadingMain = mDLL.link_as<CalibLibrary::RUN_SHADING_MAIN>("run_shading_main");
        mRunAnalysisMain = mDLL.link_as<CalibLibrary::RUN_ANALYSIS_MAIN>("run_analysis_main");
        mRunCalibMain = mDLL.link_as<CalibLibrary::RUN_CALIB_MAIN>("run_calib_main");
    }
};

class CalibMainProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(CalibMainProcess)

public:
    static constexpr std::array<std::string_view, 3> WORKING_DIRECTORIES = {"caches/calibration", "caches/calib_result",
                                                                            "results/calib"};

    // The stage switches and the raw inputs ("analysis_raw" and
    // "shading_raw" are objects holding "src1".."src4"; a missing switch is
    // false, a missing input empty). Every input is a name inside the job.
    struct CON_mSplitData {
        ORN_NODE(CON_mSplitData);
        bool mCalib = false, mAnalysis = false, mShading = false;
        std::array<String<char>, 4> mAnalysisRaw;
        String<char> mShadingRaw;
        explicit CON_mSplitData(ORN::SyntaxTree &tree) {
            const auto &json = tree.stack<CON_mSplitDataJson>();
            tree.once([this, &json] {
                const ORN::JsonParser &section = json.mSelf;
                mCalib = section.child("enable_calib_main_calib").value(false);
                mAnalysis = section.child("enable_calib_main_analysis").value(false);
                mShading = section.child("enable_calib_main_shading").value(false);
                const ORN::JsonParser analysis = section.child("analysis_raw");
                for (int i = 0; i < 4; ++i)
                    mAnalysisRaw[i] = analysis.child("src" + std::to_string(i + 1)).value("");
                mShadingRaw = section.child("shading_raw").child("src1").value("");
                for (const String<char> *name : {&mAnalysisRaw[0], &mAnalysisRaw[1], &mAnalysisRaw[2],
                                                 &mAnalysisRaw[3], &mShadingRaw}) {
                    ORN::Deque<String<char>> parts = FileSystemProc::decouple_path_name(*name);
                    bool inside = name->empty() || (name->front() != '/' && name->front() != '\\');
                    for (const auto &part : parts)
                        inside = inside && part != "." && part != ".." && part.find(':') == String<char>::npos;
                    if (!inside)
                        ORN::console().error("calibration input outside the job : ", *name);
                    _DYNAMIC_ASSERT_(inside);
                }
                ORN::console().info("calibration stages : calib ", mCalib, ", analysis ", mAnalysis, ", shading ",
                                    mShading);
            });
        }
    };

    // The library, opened and linked when the node plays.
    struct CON_mCalibHandle {
        ORN_NODE(CON_mCalibHandle);
        ORN::AutoRef<CalibHandle> mSelf;
        explicit CON_mCalibHandle(ORN::SyntaxTree &tree) {
            tree.once([this] { mSelf = ORN::AutoRef<CalibHandle>::make(); });
        }
    };

    // A stage's call: the result, sign-extended, logged as "return value = "
    // and required to be 0.
    static ORN::int64 check_stage(std::string_view entry, ORN::int64 mMainReturnValue) {
        ConsistencyProc::report_result(entry, mMainReturnValue, CalibLibrary::meaning(mMainReturnValue));
        ORN::console().info("return value = ", mMainReturnValue);
        _DYNAMIC_ASSERT_(mMainReturnValue == 0);
        return mMainReturnValue;
    }

    // The raw inputs of a stage, the given ones first (an empty one in
    // between is left out, so the library gets `count` given sources), each
    // opened as a regular file of the job reached without links and handed
    // to the library by a path that names the open file.
    struct STAGE_INPUTS {
        std::array<ORN::JobDirectory::Input, 4> mFiles;
        std::array<String<char>, 4> mPaths;
        int mCount = 0;
    };
    static STAGE_INPUTS stage_inputs(const ORN::JobDirectory &job, const std::array<String<char>, 4> &names) {
        STAGE_INPUTS inputs;
        for (const String<char> &name : names) {
            if (name.empty())
                continue;
            inputs.mFiles[inputs.mCount] = job.open_input(name);
            inputs.mPaths[inputs.mCount] = inputs.mFiles[inputs.mCount].path();
            ++inputs.mCount;
        }
        return inputs;
    }

    // Runs a stage unless it is up to date: its files were made from inputs
    // with this very fingerprint and are all still in "caches/calib_result/".
    // Otherwise the stage's files of an earlier run are removed first, so
    // that a file the library leaves out this time is missing instead of
    // passing for this run's, and the stage's fingerprint is recorded once
    // it has succeeded.
    template <std::size_t N, class CALL>
    static ORN::int64 run_stage(const String<char> &working_path, std::string_view title, std::string_view entry,
                                const std::array<CALIB_FILE, N> &files, Fingerprint fingerprint, CALL &&call) {
        const ORN::JobDirectory job(working_path);
        ORN::Array<String<char>> outputs;
        for (const CALIB_FILE &file : files)
            outputs.append("caches/calib_result/" + String<char>(file.mName));
        FingerprintRecord record(job, String<char>(FINGERPRINTS));
        const String<char> key = fingerprint.add(entry).text();
        if (record.up_to_date(entry, key, outputs)) {
            ORN::console().info("calibration stage : ", title, " : up to date");
            return 0;
        }
        ORN::console().info("calibration stage : ", title);
        record.set(entry, "");
        for (const String<char> &output : outputs)
            job.erase_file(output);
        const ORN::int64 result = check_stage(entry, _CALL_TRY_(call));
        record.set(entry, key);
        return result;
    }

    // What a stage reads from the job: its given inputs.
    static Fingerprint inputs_fingerprint(const String<char> &working_path, const std::array<String<char>, 4> &names) {
        const ORN::JobDirectory job(working_path);
        Fingerprint fingerprint;
        for (const String<char> &name : names)
            if (!name.empty())
                fingerprint.add_file(job, name);
        return fingerprint;
    }

    // The camera calibration itself: ("working path", "asset/calib_target.txt").
    struct ACT_mCalibMainCalib_mEnable {
        ORN_NODE(ACT_mCalibMainCalib_mEnable);
        ORN::int64 mMainReturnValue = 0;
        explicit ACT_mCalibMainCalib_mEnable(ORN::SyntaxTree &tree) {
            const auto &handle = tree.stack<CON_mCalibHandle>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &handle, &path] {
                // The views, and the target's description (outside the job).
                Fingerprint fingerprint;
                fingerprint.add_folder(ORN::JobDirectory(path.mSelf), "caches/calibration");
                ORN::try_run([&] { fingerprint.add(FileSystemProc::load_file(String<char>(CALIB_TARGET)).text()); });
                const auto run = handle.mSelf->mRunCalibMain;
                const String<char> target(CALIB_TARGET);
                mMainReturnValue = run_stage(path.mSelf, "camera calibration", "run_calib_main", CALIB_FILES,
                                             fingerprint, [&] { return run(path.mSelf.c_str(), target.c_str()); });
            });
        }
    };

    // The camera calibration stage: runs when its switch is on.
    struct ACT_mCalibMainCalib {
        ORN_NODE(ACT_mCalibMainCalib);
        explicit ACT_mCalibMainCalib(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mWorkingPath>();
            const auto &data = tree.stack<CON_mSplitData>();
            tree.stack<VAR_mWorkingPath>();
            tree.maybe<CON_mCalibHandle>();
            tree.maybe<ACT_mCalibMainCalib_mEnable>();
            tree.once([&tree, &data] {
                if (data.mCalib)
                    tree.stack<ACT_mCalibMainCalib_mEnable>();
            });
        }
    };

    // The colour analysis stage: the chart captures of "analysis_raw".
    struct ACT_mCalibMainAnalysis {
        ORN_NODE(ACT_mCalibMainAnalysis);
        ORN::int64 mMainReturnValue = 0;
        explicit ACT_mCalibMainAnalysis(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mCalibMainCalib>();
            const auto &data = tree.stack<CON_mSplitData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.maybe<CON_mCalibHandle>();
            tree.once([this, &tree, &data, &path] {
                if (!data.mAnalysis)
                    return;
                const auto &handle = tree.stack<CON_mCalibHandle>();
                tree.then([this, &handle, &data, &path] {
                    const auto run = handle.mSelf->mRunAnalysisMain;
                    const auto in = stage_inputs(ORN::JobDirectory(path.mSelf), data.mAnalysisRaw);
                    const auto &src = in.mPaths;
                    mMainReturnValue = run_stage(path.mSelf, "colour analysis", "run_analysis_main", ANALYSIS_FILES,
                                                 inputs_fingerprint(path.mSelf, data.mAnalysisRaw), [&] {
                                                     return run(src[0].c_str(), src[1].c_str(), src[2].c_str(),
                                                                src[3].c_str(), path.mSelf.c_str(), in.mCount);
                                                 });
                });
            });
        }
    };

    // The shading stage: the flat-field capture of "shading_raw"; its result
    // is "caches/calib_result/shadingCalibrate".
    struct ACT_mCalibMainShading {
        ORN_NODE(ACT_mCalibMainShading);
        ORN::int64 mMainReturnValue = 0;
        explicit ACT_mCalibMainShading(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mCalibMainAnalysis>();
            const auto &data = tree.stack<CON_mSplitData>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.maybe<CON_mCalibHandle>();
            tree.once([this, &tree, &data, &path] {
                if (!data.mShading)
                    return;
                const auto &handle = tree.stack<CON_mCalibHandle>();
                tree.then([this, &handle, &data, &path] {
                    const auto run = handle.mSelf->mRunShadingMain;
                    const std::array<String<char>, 4> names = {data.mShadingRaw, "", "", ""};
                    Fingerprint fingerprint = inputs_fingerprint(path.mSelf, names);
                    fingerprint.add(CalibLibrary::SHADING_GRID);
                    const auto in = stage_inputs(ORN::JobDirectory(path.mSelf), names);
                    const auto &src = in.mPaths;
                    mMainReturnValue =
                        run_stage(path.mSelf, "shading", "run_shading_main", SHADING_FILES, fingerprint, [&] {
                            return run(src[0].c_str(), src[1].c_str(), src[2].c_str(), src[3].c_str(),
                                       path.mSelf.c_str(), in.mCount, CalibLibrary::SHADING_GRID);
                        });
                });
            });
        }
    };

    // The result files of the enabled stages, stage by stage in the order
    // calib, analysis, shading.
    struct CON_mEnumCalibFile {
        ORN_NODE(CON_mEnumCalibFile);
        ORN::Array<CALIB_FILE> mCalib, mAnalysis, mShading;
        explicit CON_mEnumCalibFile(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mCalibMainShading>();
            const auto &data = tree.stack<CON_mSplitData>();
            tree.once([this, &data] {
                if (data.mCalib)
                    mCalib = ORN::Array<CALIB_FILE>(CALIB_FILES.begin(), CALIB_FILES.end());
                if (data.mAnalysis)
                    mAnalysis = ORN::Array<CALIB_FILE>(ANALYSIS_FILES.begin(), ANALYSIS_FILES.end());
                if (data.mShading)
                    mShading = ORN::Array<CALIB_FILE>(SHADING_FILES.begin(), SHADING_FILES.end());
            });
        }
        template <class F>
        void each(F &&f) const {
            for (const auto *list : {&mCalib, &mAnalysis, &mShading})
                for (const CALIB_FILE &file : *list)
                    f(file);
        }
    };

    // Publishes each listed file from "caches/calib_result/" into
    // "results/calib/" by hard link.
    struct ACT_mResultsCalibDire {
        ORN_NODE(ACT_mResultsCalibDire);
        explicit ACT_mResultsCalibDire(ORN::SyntaxTree &tree) {
            const auto &files = tree.stack<CON_mEnumCalibFile>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&files, &path] {
                ORN::Array<ORN::JobDirectory::PUBLISHED> published;
                files.each([&](const CALIB_FILE &file) {
                    const String<char> name(file.mName);
                    published.append(ORN::JobDirectory::PUBLISHED{"caches/calib_result/" + name, "results/calib/" + name});
                });
                ORN::JobDirectory(path.mSelf).publish_files("results/calib", published);
            });
        }
    };

    // "caches/upload.part5.json": {"upload":[{"file":"calib/<name>","clazz":"<class>"},...]}.
    struct ACT_mUploadPart5Json {
        ORN_NODE(ACT_mUploadPart5Json);
        explicit ACT_mUploadPart5Json(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mResultsCalibDire>();
            const auto &files = tree.stack<CON_mEnumCalibFile>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&files, &path] {
                ORN::JsonWriter writer(1024);
                writer.raw("{").raw("\"upload\":[");
                INDEX count = 0;
                files.each([&](const CALIB_FILE &file) {
                    if (count++ > 0)
                        writer.comma();
                    writer.raw("{").raw("\"file\":").string("calib/" + String<char>(file.mName)).comma();
                    writer.raw("\"clazz\":").string(file.mClass).raw("}");
                });
                writer.raw("]}");
                ORN::JobDirectory(path.mSelf).save_file("caches/upload.part5.json", writer.text());
                ORN::console().info("caches/upload.part5.json : ", count, " files");
            });
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath, ACT_mCalibMainCalib, ACT_mCalibMainAnalysis, ACT_mCalibMainShading,
                                   ACT_mResultsCalibDire, ACT_mUploadPart5Json>;
};

ZARN_DEFINE_PROCESS(CalibMainProcess)

} // namespace ZARN
