// VeldaMainProcess: Structure from motion over the capture and publication of its up-down and AR results.
//
// The run: make the working folders, read the capture record "project.json";
// unless it says the capture is done, clear the reconstruction's stale
// outputs and call "run_velda_main" of the reconstruction library; then
// publish every file the library listed in "caches/upload.part3.json"
// (up-down) and "caches/upload.part9.json" (AR) from "caches/" into
// "results/" by hard link, check the manifests against "results/", and
// replace "project.json" with the new state.

#include "ZARN_Common/VeldaLibrary.h"
#include "ZARN_Common/export.h"
#include "ZARN_Velda/ProcessFrame.h"
#include "ZARN_Velda/ProjectRecord.h"

#include <array>
#include <string_view>

namespace ZARN {

namespace {

using ORN::FileSystemProc;

// ---------------------------------------------------------------------------
// Upload manifests.

// The two kinds of published results: the manifest naming them, the folder
// under "caches/" and "results/", and the first path component that marks an
// entry of this kind.
struct UPDOWN_KIND {
    static constexpr std::string_view MANIFEST = "caches/upload.part3.json";
    static constexpr std::string_view KIND = "updown";
};
struct SFMAR_KIND {
    static constexpr std::string_view MANIFEST = "caches/upload.part9.json";
    static constexpr std::string_view KIND = "ar";
};

// The names, relative to the kind's folder and "/"-separated, of the
// manifest's "upload" entries whose "file" starts with the kind's component.
// A manifest must be an object with an "upload" array: anything else is an
// error, never an empty list. Entries of other kinds, without a name after
// the kind, or with "." or ".." components (which would leave the folder)
// are not listed.
ORN::Array<ORN::String<char>> read_manifest(const ORN::JobDirectory &job, std::string_view manifest,
                                            std::string_view kind) {
    ConsistencyProc::check_file_existance(job, manifest);
    const ORN::JsonParser document(job.load_file(manifest).text(), job.path(manifest));
    const ORN::JsonParser upload = document.child("upload");
    if (!upload.array_type())
        ORN::console().error("manifest without an \"upload\" array : ", job.path(manifest));
    _DYNAMIC_ASSERT_(upload.array_type ());
    ORN::Array<ORN::String<char>> names;
    for (const ORN::JsonParser &entry : upload.children()) {
        const ORN::JsonParser file = entry.child("file");
        if (!file.string_type())
            continue;
        const ORN::Deque<ORN::String<char>> parts = FileSystemProc::decouple_path_name(file.value());
        if (parts.size() < 2 || parts[0] != kind)
            continue;
        ORN::String<char> name;
        bool inside = true;
        for (ORN::INDEX i = 1; i < parts.size() && inside; ++i) {
            inside = !parts[i].empty() && parts[i] != "." && parts[i] != "..";
            if (i > 1)
                name.push_back('/');
            name.append(parts[i]);
        }
        if (!inside) {
            ORN::console().warn("ignored upload entry : ", file.value());
            continue;
        }
        names.append(std::move(name));
    }
    return names;
}

} // namespace

// ---------------------------------------------------------------------------
// The reconstruction library: "libopenMVG_velda.so" ("openMVG_velda.dll" on
// Windows) in the current directory, and its one entry, a program's main.
struct VeldaHandle {
    using RUN_VELDA_MAIN = VeldaLibrary::RUN_VELDA_MAIN;

    DLL mDLL;
    RUN_VELDA_MAIN *mRunVeldaMain = nullptr;

    VeldaHandle() {
        mDLL.open(DLL::library_path("openMVG_velda"));
        mRunVeldaMain = mDLL.link_as<RUN_VELDA_MAIN>("run_velda_main");
    }
};

class VeldaMainProcess::Private::Implement final : public Frame::ProcessImplement<Implement> {
    ZARN_PROCESS_IMPLEMENT(VeldaMainProcess)

    struct SETTING {
        ORN::int64 mFileWriterBufferSize = Frame::DEFAULT_FILE_WRITER_BUFFER_SIZE; // size in bytes of the buffered file writer

        template <class S, class F>
        static void each(S &s, F &&f) {
            f("mFileWriterBufferSize", s.mFileWriterBufferSize);
        }
    };

    static constexpr std::array<std::string_view, 4> WORKING_DIRECTORIES = {
        "caches/updown",
        "results/updown",
        "caches/ar",
        "results/ar",
    };

    // The library, opened and linked when the node plays (declaring the graph
    // touches nothing).
    struct CON_mVeldaHandle {
        ORN_NODE(CON_mVeldaHandle);
        ORN::AutoRef<VeldaHandle> mSelf;
        explicit CON_mVeldaHandle(ORN::SyntaxTree &tree) {
            tree.once([this] { mSelf = ORN::AutoRef<VeldaHandle>::make(); });
        }
    };

    // "velda_type" of object "Common" in the process's split data, as UTF-8.
    struct CON_mVeldaType {
        ORN_NODE(CON_mVeldaType);
        ORN::String<char> mSelf;
        explicit CON_mVeldaType(ORN::SyntaxTree &tree) {
            const auto &json = tree.stack<CON_mSplitDataJson>();
            tree.once([this, &json] { mSelf = json.mSelf.child("Common").child("velda_type").value(""); });
        }
    };

    using CON_mProject = Project::CON_mProject;

    // Clears what the library writes anew and makes its floor plan folder,
    // once the library is loaded and linked: a library that cannot be
    // opened leaves the files of the last run in place.
    struct ACT_mVeldaMain_mClean {
        ORN_NODE(ACT_mVeldaMain_mClean);
        explicit ACT_mVeldaMain_mClean(ORN::SyntaxTree &tree) {
            tree.stack<CON_mVeldaHandle>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&path] {
                const ORN::JobDirectory job(path.mSelf);
                job.build_directory("caches/floorplan");
                for (std::string_view file : {"caches/vision.json", "caches/floorplan.json", "caches/mesh.json"})
                    job.erase_file(file);
            });
        }
    };

    // Calls the library once: ("", type, working path).
    struct ACT_mVeldaMain_mEnable {
        ORN_NODE(ACT_mVeldaMain_mEnable);
        ORN::int64 mMainReturnValue = 0;
        explicit ACT_mVeldaMain_mEnable(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mVeldaMain_mClean>();
            const auto &type = tree.stack<CON_mVeldaType>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            const auto &handle = tree.stack<CON_mVeldaHandle>();
            tree.once([this, &type, &path, &handle] {
                ORN::String<char> program;
                // The type as the library's narrow strings carry it (the
                // active code page on Windows).
                ORN::String<char> velda_type = ORN::GlobalRuntime::utf8_to_native(type.mSelf);
                ORN::String<char> working_path = path.mSelf;
                char *argv[] = {program.data(), velda_type.data(), working_path.data(), nullptr};
                const auto run = handle.mSelf->mRunVeldaMain;
                mMainReturnValue = _CALL_TRY_([&] { return run(3, argv); });
                ConsistencyProc::report_result("run_velda_main", mMainReturnValue,
                                               VeldaLibrary::meaning(mMainReturnValue));
                ORN::console().info("return value = ", mMainReturnValue);
                _DYNAMIC_ASSERT_(mMainReturnValue == 0);
            });
        }
    };

    // The reconstruction step. A done capture only says so; otherwise the
    // clean and the library call are fetched here and play before this node
    // completes. A done capture therefore opens no library.
    struct ACT_mVeldaMain {
        ORN_NODE(ACT_mVeldaMain);
        explicit ACT_mVeldaMain(ORN::SyntaxTree &tree) {
            const auto &project = tree.stack<CON_mProject>();
            // Declared now, while the split data is still held for it.
            tree.stack<CON_mVeldaType>();
            tree.maybe<ACT_mVeldaMain_mClean>();
            tree.maybe<ACT_mVeldaMain_mEnable>();
            tree.once([&tree, &project] {
                if (project.mSelf.mDone) {
                    ORN::console().info("already done");
                    return;
                }
                tree.stack<ACT_mVeldaMain_mClean>();
                tree.stack<ACT_mVeldaMain_mEnable>();
            });
        }
    };

    // True when the library left "caches/vision.json".
    struct CON_mHasVisionJson {
        ORN_NODE(CON_mHasVisionJson);
        bool mSelf = false;
        explicit CON_mHasVisionJson(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mVeldaMain>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &path] {
                mSelf = ORN::JobDirectory(path.mSelf).find_file("caches/vision.json");
            });
        }
    };

    // The files of one kind that the library listed in its manifest. A done
    // capture lists them too: its results are published again, so that a
    // result deleted from "results/" comes back.
    template <class K>
    struct ENUM_FILE {
        ORN::Array<ORN::String<char>> mSelf;
        explicit ENUM_FILE(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mVeldaMain>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([this, &path] {
                mSelf = read_manifest(ORN::JobDirectory(path.mSelf), K::MANIFEST, K::KIND);
                ORN::console().info(K::MANIFEST, " : ", mSelf.size(), " files");
            });
        }
    };
    struct CON_mEnumUpdownFile : ENUM_FILE<UPDOWN_KIND> {
        ORN_NODE(CON_mEnumUpdownFile);
        using ENUM_FILE::ENUM_FILE;
    };
    struct CON_mEnumSFMARFile : ENUM_FILE<SFMAR_KIND> {
        ORN_NODE(CON_mEnumSFMARFile);
        using ENUM_FILE::ENUM_FILE;
    };

    // Publishes each listed file from "caches/" into "results/" as a hard
    // link; nothing is copied.
    template <class K, class ENUM>
    struct RESULTS_DIRE {
        explicit RESULTS_DIRE(ORN::SyntaxTree &tree) {
            const auto &names = tree.stack<ENUM>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&names, &path] {
                ORN::Array<ORN::JobDirectory::PUBLISHED> published;
                for (const ORN::String<char> &name : names.mSelf) {
                    const ORN::String<char> relative = ORN::String<char>(K::KIND) + "/" + name;
                    published.append(ORN::JobDirectory::PUBLISHED{"caches/" + relative, "results/" + relative});
                }
                ORN::JobDirectory(path.mSelf).publish_files("results/" + ORN::String<char>(K::KIND), published);
            });
        }
    };
    struct ACT_mResultsUpdownDire : RESULTS_DIRE<UPDOWN_KIND, CON_mEnumUpdownFile> {
        ORN_NODE(ACT_mResultsUpdownDire);
        using RESULTS_DIRE::RESULTS_DIRE;
    };
    struct ACT_mResultsSFMARDire : RESULTS_DIRE<SFMAR_KIND, CON_mEnumSFMARFile> {
        ORN_NODE(ACT_mResultsSFMARDire);
        using RESULTS_DIRE::RESULTS_DIRE;
    };

    // Closes a manifest: read again, every file it lists of its kind must now
    // be in "results/".
    template <class K, class DIRE>
    struct UPLOAD_JSON {
        explicit UPLOAD_JSON(ORN::SyntaxTree &tree) {
            tree.stack<DIRE>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&path] {
                const ORN::JobDirectory job(path.mSelf);
                for (const ORN::String<char> &name : read_manifest(job, K::MANIFEST, K::KIND))
                    ConsistencyProc::check_file_existance(job, "results/" + ORN::String<char>(K::KIND) + "/" + name);
            });
        }
    };
    struct ACT_mUploadPart3Json : UPLOAD_JSON<UPDOWN_KIND, ACT_mResultsUpdownDire> {
        ORN_NODE(ACT_mUploadPart3Json);
        using UPLOAD_JSON::UPLOAD_JSON;
    };
    struct ACT_mUploadPart9Json : UPLOAD_JSON<SFMAR_KIND, ACT_mResultsSFMARDire> {
        ORN_NODE(ACT_mUploadPart9Json);
        using UPLOAD_JSON::UPLOAD_JSON;
    };

    // Replaces "project.json" once everything else has succeeded: the fields
    // as read; done when the run left a vision file (a done capture stays
    // done), not crashed, progress 100. The durable writer replaces the
    // record whole, keeping its permission bits.
    struct ACT_mProjectJson {
        ORN_NODE(ACT_mProjectJson);
        explicit ACT_mProjectJson(ORN::SyntaxTree &tree) {
            tree.stack<ACT_mUploadPart3Json>();
            tree.stack<ACT_mUploadPart9Json>();
            const auto &project = tree.stack<CON_mProject>();
            const auto &vision = tree.stack<CON_mHasVisionJson>();
            const auto &path = tree.stack<VAR_mWorkingPath>();
            tree.once([&project, &vision, &path] {
                const bool done = project.mSelf.mDone || vision.mSelf;
                Project::write_project(ORN::JobDirectory(path.mSelf), project.mSelf, done, false, 100);
                ORN::console().info("project.json : done = ", done);
            });
        }
    };

    using ACTIONS = Frame::Actions<ACT_mWorkingPath, ACT_mVeldaMain, ACT_mResultsUpdownDire, ACT_mUploadPart3Json,
                                   ACT_mResultsSFMARDire, ACT_mUploadPart9Json, ACT_mProjectJson>;
};

ZARN_DEFINE_PROCESS(VeldaMainProcess)

} // namespace ZARN
