#pragma once

// What the nine processes share: the common nodes (working path, settings,
// split data, enable switch) and the run sequence of `initialize` and
// `execute`. A process declares its own nodes, its settings record and the
// ordered list of its top-level actions; ZARN_DEFINE_PROCESS then gives it its
// entry points and its factory.

#include "ZARN_Common/ConsistencyProc.h"
#include "ZARN_Velda/export.h"
#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_functional.h"
#include "__ORN__/orn_runtime.h"
#include "__ORN__/orn_serialization.h"

#include <array>
#include <cstdio>
#include <string_view>

namespace ZARN::Frame {

using ORN::FileSystemProc;

// The working directory's own name: its last path component.
inline ORN::String<char> working_name(const ORN::String<char> &path) { return FileSystemProc::file_name(path); }

// The code of a failed call on a library object that several workers
// share: the object's last code, unless that is already another worker's
// success, when the call's own result stands. The failure is told on the
// console ("<what> failed : <meaning>", "return value = <code>"); the caller
// then asserts on the code under its own name.
template <class CODE, class MEANING>
ORN::int64 failed_call_code(int result, CODE &&code, std::string_view what, MEANING &&meaning) {
    const ORN::int64 object_code = _CALL_TRY_(code);
    const ORN::int64 failed = object_code != 0 ? object_code : result;
    ConsistencyProc::report_result(what, failed, meaning(failed));
    ORN::console().error("return value = ", failed);
    return failed;
}

// An ordered list of top-level action node types.
template <class... ACTIONS>
struct Actions {
    static void stack(ORN::SyntaxTree &tree) { (tree.stack<ACTIONS>(), ...); }
};

// Reads one setting into `field`; an absent key, one that breaks the
// single-attribute rule or does not convert keeps the current value.
template <class T>
void read_setting(const ORN::XmlParser &section, std::string_view key, T &field) {
    field = section.child(key).value(field);
}

// Default size in bytes of the buffered file writer (256 MiB).
inline constexpr ORN::int64 DEFAULT_FILE_WRITER_BUFFER_SIZE = 268435456;

// The settings record of a process whose only keys are its worker count and
// its file writer's buffer size, read in that order.
template <ORN::int64 THREADS>
struct WORKER_SETTING {
    ORN::int64 mThreadConcurrency = THREADS;                             // number of worker threads
    ORN::int64 mFileWriterBufferSize = DEFAULT_FILE_WRITER_BUFFER_SIZE; // size in bytes of the file writer's buffer

    template <class S, class F>
    static void each(S &s, F &&f) {
        f("mThreadConcurrency", s.mThreadConcurrency);
        f("mFileWriterBufferSize", s.mFileWriterBufferSize);
    }
};

// ---------------------------------------------------------------------------
// Common nodes. P is the process's Implement; P::NAME is its class name.

// The working directory handed to `initialize`.
struct VAR_mWorkingPath {
    ORN_NODE(VAR_mWorkingPath);
    ORN::String<char> mSelf;
    explicit VAR_mWorkingPath(ORN::SyntaxTree &tree) {
        tree.mark_as_iteration();
        tree.then([this, &tree] { mSelf = tree.later<ORN::String<char>>(); });
    }
};

// The process's section of the joined "setting.xml" files (non-existing when
// no file has one), and the files that were read.
template <class P>
struct CON_mSettingXml {
    ORN_NODE(CON_mSettingXml);
    ORN::XmlParser mSelf;
    ORN::Array<ORN::String<char>> mFiles;
    explicit CON_mSettingXml(ORN::SyntaxTree &tree) {
        const auto &path = tree.stack<VAR_mWorkingPath>();
        tree.once([this, &path] {
            mSelf = ConsistencyProc::load_Lumora_setting_xml(path.mSelf, mFiles).child("_Lumora").child(P::NAME);
        });
    }
};

// The process's settings record P::SETTING: plain fields named by their keys,
// holding their defaults, and `each(record, f)` calling f(key, field) for
// every key in reading order. Filled from the process's settings section.
template <class P>
struct CON_mSetting : P::SETTING {
    ORN_NODE(CON_mSetting);
    explicit CON_mSetting(ORN::SyntaxTree &tree) {
        const auto &xml = tree.stack<CON_mSettingXml<P>>();
        tree.once([this, &xml] {
            P::SETTING::each(*this, [&](std::string_view key, auto &field) { read_setting(xml.mSelf, key, field); });
        });
    }
    void report(ORN::ConsoleService &console) const {
        P::SETTING::each(*this, [&](std::string_view key, const auto &field) { console.info(key, " = ", field); });
    }
};

// The parsed "caches/split_data.json" of a job. All nine processes of a job
// read it: the document is parsed once and handed out again for as long as
// the file stays the very same (same inode, size and change times).
ORN::JsonParser split_data_document(const ORN::String<char> &working_path);

// The process's member of "caches/split_data.json".
template <class P>
struct CON_mSplitDataJson {
    ORN_NODE(CON_mSplitDataJson);
    ORN::JsonParser mSelf;
    explicit CON_mSplitDataJson(ORN::SyntaxTree &tree) {
        const auto &path = tree.stack<VAR_mWorkingPath>();
        tree.once([this, &path] { mSelf = split_data_document(path.mSelf).child(P::NAME); });
    }
};

// True exactly when the split data holds a non-null member for the process.
template <class P>
struct CON_mEnableProcess {
    ORN_NODE(CON_mEnableProcess);
    bool mSelf = false;
    explicit CON_mEnableProcess(ORN::SyntaxTree &tree) {
        const auto &json = tree.stack<CON_mSplitDataJson<P>>();
        tree.once([this, &json] { mSelf = json.mSelf.exist() && !json.mSelf.null_type(); });
    }
};

// The first action of every process: makes the directories the process
// writes into (P::WORKING_DIRECTORIES, relative to the working path, each a
// real directory of the job) and logs the settings files read and the
// settings in effect.
template <class P>
struct ACT_mWorkingPath {
    ORN_NODE(ACT_mWorkingPath);
    explicit ACT_mWorkingPath(ORN::SyntaxTree &tree) {
        const auto &path = tree.stack<VAR_mWorkingPath>();
        const auto &xml = tree.stack<CON_mSettingXml<P>>();
        if constexpr (requires { typename P::SETTING; }) {
            const auto &setting = tree.stack<CON_mSetting<P>>();
            tree.once([&path, &xml, &setting] {
                make_directories(path.mSelf, xml.mFiles);
                setting.report(ORN::console());
            });
        } else {
            tree.once([&path, &xml] { make_directories(path.mSelf, xml.mFiles); });
        }
    }

private:
    static void make_directories(const ORN::String<char> &path, const ORN::Array<ORN::String<char>> &files) {
        for (const auto &file : files)
            ORN::console().debug("setting file : ", file);
        if constexpr (requires { P::WORKING_DIRECTORIES; }) {
            const ORN::JobDirectory job(path);
            for (std::string_view dir : P::WORKING_DIRECTORIES)
                job.build_directory(dir);
        }
    }
};

// ---------------------------------------------------------------------------
// The run sequence shared by every process.

// A node whose action and release together take at least this long is a
// heavy one: its time is reported at info level.
constexpr ORN::INDEX HEAVY_NODE_NS = 50'000'000;

// The graph's time report, costliest node first, one line per node
// ("<node> : action A ms, release R ms"): the heavy nodes at info level, so
// that a plain run shows where its time went, the others at verbose level.
inline void report_times(const ORN::SyntaxTree &tree, ORN::ConsoleService &console) {
    char line[64];
    for (const auto &r : tree.time_report()) {
        std::snprintf(line, sizeof(line), " : action %.3f ms, release %.3f ms", double(r.mActionTime) * 1e-6,
                      double(r.mReleaseTime) * 1e-6);
        if (r.mActionTime + r.mReleaseTime >= HEAVY_NODE_NS)
            console.info(r.mName, line);
        else
            console.verbose(r.mName, line);
    }
}

// The build stamp of the module, one for all its processes: the date and
// time at which the module was last built.
extern const char BUILD_DATE[];
extern const char BUILD_TIME[];

template <class P>
class ProcessImplement : public Process {
public:
    // The common nodes, under the names a process's own nodes use.
    using VAR_mWorkingPath = Frame::VAR_mWorkingPath;
    using CON_mSettingXml = Frame::CON_mSettingXml<P>;
    using CON_mSetting = Frame::CON_mSetting<P>;
    using CON_mSplitDataJson = Frame::CON_mSplitDataJson<P>;
    using CON_mEnableProcess = Frame::CON_mEnableProcess<P>;
    using ACT_mWorkingPath = Frame::ACT_mWorkingPath<P>;

    ORN::String<char> mWorkingPath;
    ORN::String<char> mWorkingName;
    bool mEnableProcess = false;
    ORN::SyntaxTree mSyntaxTree;

protected:
    template <class>
    friend struct GraphExport;

    // The nodes `initialize` evaluates: the switch and the settings.
    void stack_initial_nodes() {
        mSyntaxTree.stack<CON_mSettingXml>();
        if constexpr (requires { typename P::SETTING; })
            mSyntaxTree.stack<CON_mSetting>();
    }

    // The declared graph of the whole process in Graphviz DOT form, the
    // nodes reached through optional dependencies included (drawn dashed);
    // no action runs.
    ORN::String<char> graph_dot(const ORN::String<char> &working_path) {
        mWorkingPath = working_path;
        mSyntaxTree.declare_optional(true);
        mSyntaxTree.stack<CON_mEnableProcess>();
        stack_initial_nodes();
        mSyntaxTree.redo<VAR_mWorkingPath>(mWorkingPath);
        P::ACTIONS::stack(mSyntaxTree);
        return mSyntaxTree.to_dot();
    }

    // Everything of `initialize` after the working name is set and checked:
    // the split data and the settings files are read here, also for a
    // process that turns out to be disabled.
    // The time limit the settings give ("mProcessTimeLimit", seconds, 0 for
    // none) is handed to the host, which enforces it.
    bool initialize_graph() {
        const auto &enable = mSyntaxTree.stack<CON_mEnableProcess>();
        const auto &xml = mSyntaxTree.stack<CON_mSettingXml>();
        stack_initial_nodes();
        mSyntaxTree.redo<VAR_mWorkingPath>(mWorkingPath);
        mSyntaxTree.play();
        ORN::GlobalRuntime::set_time_limit(xml.mSelf.child("mProcessTimeLimit").value(ORN::int64(0)));
        mEnableProcess = enable.mSelf;
        return mEnableProcess;
    }

    // An enabled process holds the job lock while its actions play.
    void run_sequence() {
        auto &console = ORN::console();
        console.print(P::NAME, ":");
        console.print("BUILD-TIME = ", BUILD_DATE, " ", BUILD_TIME);
        console.print("in ", mWorkingPath, " (", mWorkingName, ")");
        const ORN::TimePoint start = ORN::TimePoint::now();
        if (!mEnableProcess) {
            console.warn("skip ", P::NAME);
        } else {
            const ORN::JobLock lock{ORN::JobDirectory(mWorkingPath)};
            P::ACTIONS::stack(mSyntaxTree);
            mSyntaxTree.observe([this, &console](ORN::INDEX ix) { console.debug(mSyntaxTree.node_name(ix)); });
            mSyntaxTree.clean();
            mSyntaxTree.play();
            mSyntaxTree.observe(nullptr);
            report_times(mSyntaxTree, console);
        }
        console.info("total time costs : ", start.elapsed().text());
        console.info("all done");
    }
};

// The way `zarn graph` reaches a process's declared graph: not an operation
// of the process itself.
template <class IMPLEMENT>
struct GraphExport {
    static ORN::String<char> dot(const ORN::String<char> &working_path) {
        IMPLEMENT process;
        return static_cast<ProcessImplement<IMPLEMENT> &>(process).graph_dot(working_path);
    }
};

} // namespace ZARN::Frame

// Defines, inside namespace ZARN, the entry points and the factory of the
// process NAME, whose Implement derives from Frame::ProcessImplement. Expanded
// in the process's own source, so that its checks name that source.
#define ZARN_DEFINE_PROCESS(NAME)                                                                                      \
    bool NAME::Private::Implement::initialize(const ORN::String<char> &working_path) {                                \
        mWorkingPath = working_path;                                                                                   \
        mWorkingName = Frame::working_name(mWorkingPath);                                                              \
        _DYNAMIC_ASSERT_(!mWorkingName.empty ());                                                                      \
        return initialize_graph();                                                                                     \
    }                                                                                                                  \
    void NAME::Private::Implement::execute() { run_sequence(); }                                                         \
    ORN::StrongRef<Process> create_##NAME() {                                                                         \
        return ORN::StrongRef<Process>(std::make_shared<NAME::Private::Implement>());                                  \
    }                                                                                                                  \
    namespace Private {                                                                                                \
    ORN::String<char> graph_of_##NAME(const ORN::String<char> &working_path) {                                        \
        return Frame::GraphExport<NAME::Private::Implement>::dot(working_path);                                        \
    }                                                                                                                  \
    }

// The members every process's Implement declares: its class name and the
// two entry points that ZARN_DEFINE_PROCESS defines.
#define ZARN_PROCESS_IMPLEMENT(NAME_)                                                                                  \
public:                                                                                                                \
    static constexpr const char *NAME = #NAME_;                                                                        \
    bool initialize(const ORN::String<char> &working_path) override;                                                   \
    void execute() override;
