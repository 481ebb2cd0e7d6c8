// zarn: runs the module's processes over capture job directories.
//
//   zarn run [--process NAME]... [--libs DIR] [--log DIR] [--module FILE] [--no-wait] [--verbose]
//            [--time-limit SECONDS] [--force] [-j N] WORKDIR...
//   zarn status [--json] WORKDIR...
//   zarn submit [options] WORKDIR... | --from FILE;  zarn submit --again SUBMISSION
//   zarn graph --process NAME WORKDIR
//   zarn list
//   zarn --help | --version

#include "ZARN_Common/STLStreamLogger.h"
#include "ZARN_Runtime/export.h"
#include "ZARN_Velda/ProcessGraph.h"
#include "__ORN__/orn_debugger.h"

#include "__ORN__/orn_filesystem.h"

#include "__ORN__/orn_runtime.h"

#include "host/launcher.h"
#include "host/platform.h"
#include "host/run_record.h"
#include "host/status.h"
#include "host/submit.h"

#include <cstdint>
#include <cstring>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <map>
#include <set>
#include <memory>
#include <mutex>
#include <thread>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace ZARN::Host;
using Platform::Pipe;
using Platform::NO_PIPE;

// The help text, in pieces around the platform's default module and stop
// signals.
constexpr const char *USAGE = R"(usage:
  zarn run [--process NAME]... [--libs DIR] [--log DIR] [--log-in-job]
           [--module FILE] [--no-wait] [--verbose] [--time-limit SECONDS]
           [--force] [-j N] WORKDIR...
  zarn status [--json] WORKDIR... | --from FILE
  zarn submit [--partition P] [--cpus N] [--mem SIZE] [--time T]
              [--max-parallel K] [--process NAME]... [--libs DIR] [--into DIR]
              WORKDIR... | --from FILE
  zarn submit --again SUBMISSION
  zarn graph --process NAME WORKDIR
  zarn list
  zarn --help | --version

run      runs the processes over each working directory (all nine in the
         default order, or the ones named with --process, in the order given)
status   tells what the last run of each working directory came to, from its
         run record caches/zarn_run.json
submit   runs the working directories on a Slurm cluster, one array task per
         directory (see docs/FARM.md)
graph    prints the node graph of one process in Graphviz DOT form
list     prints the nine process names in the default order

--libs DIR     directory of the closed libraries, "asset/distortion.txt" and
               the shared "setting.xml"; becomes the current directory
--log DIR      writes the console log to DIR/console.log (the previous one is
               kept as console.old.log); with -j N above 1 each job's own log
               goes to DIR/<job name>/console.log
--log-in-job   keeps each job's own console log in the job, in
               caches/logs/console.log (the previous one is kept as
               caches/logs/console.old.log)
--module FILE  the module to load (default: )";
constexpr const char *USAGE_MODULE = R"( next to
               this program)
--no-wait      fail at once when another run holds a job's lock, instead of
               waiting for it
--verbose      also show the debug lines (each node as it plays, the files
               read and linked) and the time report, which otherwise go to
               the log only
--time-limit SECONDS
               ends a process that runs longer (0: no limit); without it,
               the setting mProcessTimeLimit of each process decides
--force        redoes all work, also what is up to date (work whose inputs
               and parameters are those of the files it made last time is
               otherwise kept)
-j N           runs N working directories at once (default 1), each on its
               share of the processors; every console line of a job then
               starts with "[<job name>] "

Each working directory runs in a child process of its own: a library that
ends the program (exit, _exit) or crashes it (a signal) fails that job's
process with "<Name> error" and the reason, and the next job still runs. A
process past its time limit is killed with every program it started. What
the processes and their libraries print on standard output and standard
error reaches the console and the log line by line. Error lines go to
standard error. The run ends with a summary: each job's processes with
their state (failed first, then done, skipped, not run) and time. Each job
keeps the record of its run in caches/zarn_run.json.

)";
constexpr const char *USAGE_END = R"(
exit status: 0 all done, 1 a process failed, 2 usage error, 128 + N
             stopped by signal N; zarn status: 0 every job done, 1 not
)";

// Why the console log cannot be written in `directory` ("<path> : <reason>"),
// or nothing: the folder must be (or become) a directory, "console.log" in
// it, when present, a regular file open for appending, and a new file must
// be possible beside it. Nothing of the folder's logs is changed.
std::string log_problem(const std::string &directory) {
    namespace fs = std::filesystem;
    std::error_code error;
    fs::create_directories(directory, error);
    if (error || !fs::is_directory(directory))
        return directory + " : " + (error ? error.message() : std::string("not a directory"));
    const std::string file = (fs::path(directory) / "console.log").string();
    if (fs::exists(fs::symlink_status(file)))
        if (const std::string reason = Platform::append_problem(file); !reason.empty())
            return file + " : " + reason;
    if (const std::string reason = Platform::create_problem(directory); !reason.empty())
        return file + " : " + reason;
    return std::string();
}

struct Options {
    std::string command;
    std::vector<std::string> processes;
    std::string libs;
    std::string log;
    std::string module;
    bool no_wait = false;
    bool verbose = false;
    bool force = false;
    bool log_in_job = false;
    std::int64_t time_limit = -1; // seconds; negative: the settings decide
    std::int64_t parallel = 1;    // jobs at once
    std::vector<std::string> workdirs;
    // The job a child started for one job runs (Windows): "<job>:<launcher
    // pid>:<start>" and the event channel's handle; empty in the launcher.
    std::string child;
    std::string channel;
};

// A whole number of at least `least`, or the usage error `what`.
std::int64_t whole_number(const std::string &text, std::int64_t least, const std::string &what) {
    std::int64_t n = -1;
    const auto r = std::from_chars(text.data(), text.data() + text.size(), n);
    if (r.ec != std::errc() || r.ptr != text.data() + text.size() || n < least)
        throw UsageError{what + text};
    return n;
}

Options parse(int argc, char **argv) {
    Options o;
    if (argc < 2)
        throw UsageError{"no command given (try zarn --help)"};
    o.command = argv[1];
    if (o.command == "--help" || o.command == "-h" || o.command == "--version" || o.command == "list") {
        if (argc > 2)
            throw UsageError{"unexpected argument " + std::string(argv[2])};
        return o;
    }
    if (o.command != "run" && o.command != "graph")
        throw UsageError{"unknown command " + o.command + " (try zarn --help)"};

    for (int i = 2; i < argc; ++i) {
        const std::string_view a = argv[i];
        auto value = [&](std::string &out) {
            if (i + 1 >= argc)
                throw UsageError{"option " + std::string(a) + " needs a value"};
            out = argv[++i];
        };
        if (a == "--process") {
            std::string name;
            value(name);
            if (!known_process(name))
                throw UsageError{"unknown process " + name + " (see zarn list)"};
            o.processes.push_back(name);
        } else if (a == "--libs" && o.command == "run") {
            value(o.libs);
        } else if (a == "--log" && o.command == "run") {
            value(o.log);
        } else if (a == "--log-in-job" && o.command == "run") {
            o.log_in_job = true;
        } else if (a == "--module" && o.command == "run") {
            value(o.module);
        } else if (a == "--no-wait" && o.command == "run") {
            o.no_wait = true;
        } else if (a == "--verbose" && o.command == "run") {
            o.verbose = true;
        } else if (a == "--force" && o.command == "run") {
            o.force = true;
        } else if (a == "--time-limit" && o.command == "run") {
            std::string text;
            value(text);
            o.time_limit = whole_number(text, 0, "--time-limit needs a whole number of seconds, not ");
        } else if ((a == "-j" || a == "--jobs") && o.command == "run") {
            std::string text;
            value(text);
            o.parallel = whole_number(text, 1, "-j needs a whole number of jobs, at least 1, not ");
        } else if (a == "--child" && o.command == "run") {
            value(o.child);
            value(o.channel);
        } else if (a.size() > 2 && a.substr(0, 2) == "-j" && o.command == "run") {
            o.parallel = whole_number(std::string(a.substr(2)), 1, "-j needs a whole number of jobs, at least 1, not ");
        } else if (a.size() > 1 && a[0] == '-') {
            throw UsageError{"unknown option " + std::string(a)};
        } else {
            o.workdirs.emplace_back(a);
        }
    }
    if (o.workdirs.empty())
        throw UsageError{"no working directory given"};
    if (o.command == "graph" && (o.processes.size() != 1 || o.workdirs.size() != 1))
        throw UsageError{"graph needs exactly one --process NAME and one WORKDIR"};
    if (o.processes.empty())
        o.processes.assign(PROCESS_ORDER.begin(), PROCESS_ORDER.end());
    return o;
}

// Factories are plain C++ functions of namespace ZARN, looked up by their
// decorated names: ZARN::create_<Name>() with no arguments.
std::string factory_symbol(std::string_view name) {
    const std::string function = "create_" + std::string(name);
    return "_ZN4ZARN" + std::to_string(function.size()) + function + "Ev";
}

using Factory = ORN::StrongRef<ZARN::Process> (*)();
using Factories = std::vector<std::pair<std::string, Factory>>;

// What the child running a job tells the launcher, one message per event:
// a process starts (its index), the time limit it asks for, how it ended,
// and the module's build stamp once a banner showed it (followed by that
// many bytes of text). Each message is one write of at most a few hundred
// bytes, so it arrives whole.
struct EVENT {
    enum Kind : char { START = 's', LIMIT = 'l', DONE = 'd', SKIPPED = 'k', FAILED = 'f', STAMP = 'b' } mKind;
    std::int64_t mValue; // START: the process's index; LIMIT: seconds; STAMP: the text's length
};

void tell(Pipe pipe, EVENT::Kind kind, std::int64_t value = 0, std::string_view text = {}) {
    char message[sizeof(EVENT) + 256];
    const std::size_t length = std::min<std::size_t>(text.size(), 256);
    const EVENT event{kind, text.empty() ? value : static_cast<std::int64_t>(length)};
    std::memcpy(message, &event, sizeof(event));
    std::memcpy(message + sizeof(event), text.data(), length);
    Platform::write_message(pipe, message, sizeof(event) + length);
}

// What a process of a job came to, for the summary.
struct OUTCOME {
    std::string mWorkdir;
    std::string mName;
    std::string mState = "not run"; // done, skipped, failed, not run
    double mSeconds = 0.0;
};

// What the job's child and its own children write to descriptors 1 and 2
// (a closed library's printf, a converter script, libjpeg's warnings) is
// read back by a thread and handed to the console line by line, standard
// output at print level and standard error at warn level: it reaches the
// log, and never lands in the middle of the progress line. The console
// itself writes to copies of the original descriptors.
class OutputCapture {
public:
    OutputCapture() {
        std::fflush(nullptr);
        Platform::console_to_standard();
        for (int i = 0; i < 2; ++i)
            if ((mRead[i] = Platform::capture_standard(i + 1)) == NO_PIPE)
                return;
        mThread = std::thread([this] { pump(); });
    }
    OutputCapture(const OutputCapture &) = delete;
    OutputCapture &operator=(const OutputCapture &) = delete;
    // Points 1 and 2 at /dev/null, then hands over what is left. A child
    // program that still holds the pipes (left running in the background)
    // cannot keep the job waiting: the rest is read for at most a second.
    ~OutputCapture() {
        std::fflush(nullptr);
        Platform::release_standard();
        mStop = true;
        if (mThread.joinable())
            mThread.join();
        for (Pipe &end : mRead)
            Platform::close_pipe(end);
    }

private:
    void pump() {
        std::string pending[2];
        bool open[2] = {mRead[0] != NO_PIPE, mRead[1] != NO_PIPE};
        auto &console = ORN::console();
        const auto emit = [&](int i, std::string_view line) {
            if (!line.empty() && line.back() == '\r')
                line.remove_suffix(1);
            i == 0 ? console.print(ORN::String<char>(line)) : console.warn(ORN::String<char>(line));
        };
        ORN::TimePoint stopping;
        while (open[0] || open[1]) {
            if (mStop && stopping == ORN::TimePoint())
                stopping = ORN::TimePoint::now();
            if (stopping != ORN::TimePoint() && stopping.elapsed().seconds() > 1.0)
                break;
            std::vector<bool> ready;
            Platform::wait_readable({open[0] ? mRead[0] : NO_PIPE, open[1] ? mRead[1] : NO_PIPE}, 100, ready);
            for (int i = 0; i < 2; ++i) {
                if (!ready[i])
                    continue;
                char buffer[4096];
                const long n = Platform::read_some(mRead[i], buffer, sizeof(buffer));
                if (n < 0)
                    continue;
                if (n <= 0) {
                    open[i] = false;
                    continue;
                }
                pending[i].append(buffer, static_cast<std::size_t>(n));
                std::size_t from = 0;
                for (std::size_t feed; (feed = pending[i].find('\n', from)) != std::string::npos; from = feed + 1)
                    emit(i, std::string_view(pending[i]).substr(from, feed - from));
                pending[i].erase(0, from);
            }
        }
        for (int i = 0; i < 2; ++i)
            if (!pending[i].empty())
                emit(i, pending[i]);
    }

    Pipe mRead[2] = {NO_PIPE, NO_PIPE};
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

// What one job of a run is given: its working directory, the text that
// starts each of its console lines and its own log directory (both only
// when several jobs run at once).
struct JOB {
    std::string mWorkdir;
    std::string mLabel;
    std::string mLog;
    bool mLogInJob = false; // the log is the job's own "caches/logs/console.log"
};

// Where a job keeps its own console log (with --log-in-job).
constexpr std::string_view JOB_LOG_FOLDER = "caches/logs";

// What the console of a job's child says that its run record keeps: the
// module's build stamp from a banner ("BUILD-TIME = <stamp>") and the last
// error line, the one that tells a person why a process failed.
// A stamp seen for the first time is told to the launcher through `pipe` at
// once, so that a run cut short in its first process still records it.
class ConsoleWatch {
public:
    explicit ConsoleWatch(Pipe pipe) {
        ORN::console().listen([this, pipe](ORN::ConsoleLevel level, std::string_view text) {
            constexpr std::string_view BANNER = "BUILD-TIME = ";
            const std::lock_guard<std::mutex> lock(mMutex);
            if (level == ORN::ConsoleLevel::Error || level == ORN::ConsoleLevel::Fatal) {
                mLastError = text;
            } else if (level == ORN::ConsoleLevel::Print && text.substr(0, BANNER.size()) == BANNER &&
                       text.substr(BANNER.size()) != mStamp) {
                mStamp = text.substr(BANNER.size());
                tell(pipe, EVENT::STAMP, 0, mStamp);
            }
        });
    }
    ConsoleWatch(const ConsoleWatch &) = delete;
    ConsoleWatch &operator=(const ConsoleWatch &) = delete;
    ~ConsoleWatch() { ORN::console().listen(nullptr); }

    std::string stamp() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mStamp;
    }
    std::string last_error() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mLastError;
    }
    void clear_error() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mLastError.clear();
    }

private:
    std::mutex mMutex;
    std::string mStamp, mLastError;
};

// The child's side: runs the processes of one job in order, reports each
// one to the launcher and keeps the job's run record (written as each
// process starts and ends, under the job lock); returns the exit status of
// the child. `time_limit` is the launcher's option (negative: none given,
// the settings decide). A record that cannot be written at the start of a
// process fails that process, as its own first write into the job would.
int run_job(const JOB &job, const Factories &factories, Pipe pipe, std::int64_t time_limit, RUN_RECORD record) {
    auto &console = ORN::console();
    if (!job.mLog.empty() || job.mLogInJob)
        console.detach_log();
    if (!job.mLog.empty()) {
        try {
            console.attach_log(job.mLog);
        } catch (const std::exception &e) {
            console.error(e.what());
            return EXIT_FAILED;
        }
    }
    ConsoleWatch watch(pipe);
    const OutputCapture capture;
    bool recording = true;
    for (std::size_t i = 0; i < factories.size(); ++i) {
        const auto &[name, factory] = factories[i];
        tell(pipe, EVENT::START, static_cast<std::int64_t>(i));
        PROCESS_RECORD &entry = record.mProcesses[i];
        entry.mState = "running";
        entry.mStarted = utc_now();
        watch.clear_error();
        const ORN::TimePoint started = ORN::TimePoint::now();
        const auto keep_stamp = [&] { record.mBuild = watch.stamp(); };
        try {
            // The job's own log, reached like every file of the job: a log
            // that cannot be kept there (a link, a FIFO) fails the job's
            // first process with the file layer's line, before anything
            // else of the job is touched.
            if (i == 0 && job.mLogInJob)
                console.attach_log(ORN::JobDirectory(job.mWorkdir), JOB_LOG_FOLDER);
            try {
                save_run_record(job.mWorkdir, record);
            } catch (...) {
                recording = false;
                throw;
            }
            bool enabled = false;
            {
                ORN::StrongRef<ZARN::Process> process = factory();
                ORN::GlobalRuntime::set_time_limit(0);
                enabled = process->initialize(job.mWorkdir);
                tell(pipe, EVENT::LIMIT, time_limit >= 0 ? time_limit : ORN::GlobalRuntime::time_limit());
                process->execute();
            }
            entry.mState = enabled ? "done" : "skipped";
            entry.mSeconds = started.elapsed().seconds();
            keep_stamp();
            if (i + 1 == factories.size()) {
                record.mState = "done";
                record.mEnded = utc_now();
            }
            save_run_record(job.mWorkdir, record);
            tell(pipe, enabled ? EVENT::DONE : EVENT::SKIPPED);
        } catch (const std::exception &e) {
            const std::string line = watch.last_error();
            console.error(name, " error");
            console.error(e.what());
            entry.mState = "failed";
            entry.mSeconds = started.elapsed().seconds();
            entry.mFailureLine = line.empty() ? std::string(e.what()) : line;
            entry.mFailureText = e.what();
            record.mState = "failed";
            record.mEnded = utc_now();
            keep_stamp();
            if (recording) {
                try {
                    save_run_record(job.mWorkdir, record);
                } catch (...) {
                    // Told on the console by the file layer; the process has
                    // failed already.
                }
            }
            tell(pipe, EVENT::FAILED);
            return EXIT_FAILED;
        }
    }
    return EXIT_DONE;
}

// How long a child that is asked to stop by the signal the launcher was sent
// may take before it is killed.
constexpr double STOP_GRACE_SECONDS = 10.0;

// The launcher's side of one job: runs it in a child process (the leader of
// its own process group, so that the job's programs can be signalled as
// one), so that a library that ends or crashes the program takes only that
// child with it. A child that stops in the middle of a process, whatever the
// way, fails that process; one that passes its time limit is killed with its
// process group (the kernel releases its job lock). The launcher follows the
// child's events in a copy of the job's run record and writes that record
// itself when the child could not: a crash, a time limit, a stop signal.
//
// With `capture`, the child's console lines come back through two pipes and
// are shown with the job's label in front (several jobs at once); otherwise
// the child writes to the launcher's own descriptors.
class JobRun {
public:
    JobRun(JOB job, const Factories &factories, std::int64_t time_limit, RUN_RECORD record, OUTCOME *outcomes, bool capture)
        : mJob(std::move(job)), mFactories(factories), mTimeLimit(time_limit), mRecord(std::move(record)),
          mOutcomes(outcomes), mCapture(capture) {}
    JobRun(const JobRun &) = delete;
    JobRun &operator=(const JobRun &) = delete;
    ~JobRun() { Platform::release_child(mChild); }

    // Starts the child; `cores`, when above 0, is how many processors its
    // workers plan with (ZARN_CORES, which the child inherits). `index` and
    // `directory` tell a child that is the launcher started again which job
    // it runs and where the launcher was started.
    void start(std::size_t cores, std::size_t index, const std::string &directory) {
        mRecord.mStarted = utc_now();
        std::fflush(nullptr);
        if (cores > 0)
            Platform::set_environment("ZARN_CORES", std::to_string(cores).c_str());
        Platform::CHILD_START start;
        start.mCapture = mCapture;
        start.mDirectory = directory;
        start.mChildArgument = std::to_string(index) + ":" + std::to_string(mRecord.mPid) + ":" + mRecord.mStarted;
        start.mBody = [this](Pipe channel) {
            if (mCapture)
                Platform::console_to_standard();
            return run_job(mJob, mFactories, channel, mTimeLimit, mRecord);
        };
        mChild = Platform::start_child(start);
    }

    const JOB &job() const { return mJob; }
    // The child has said its last (or passed its time limit): finish() next.
    bool over() const { return mChild.mChannel == NO_PIPE || mTimedOut; }

    // The pipes to wait on, and what they brought.
    void add_pipes(std::vector<Pipe> &ends) const {
        for (const Pipe end : {mChild.mChannel, mChild.mOutput[0], mChild.mOutput[1]})
            ends.push_back(end);
    }
    void on_ready(const std::vector<bool>::const_iterator ready) {
        if (ready[0])
            read_channel();
        for (int i = 0; i < 2; ++i)
            if (ready[1 + i])
                read_output(i);
    }

    // Milliseconds until the running process's time limit (-1: none); marks
    // the job as timed out once it has passed.
    int time_left() {
        if (mCurrent < 0 || mLimit <= 0 || mTimedOut)
            return -1;
        const double left = static_cast<double>(mLimit) - mStarted.elapsed().seconds();
        if (left <= 0) {
            mTimedOut = true;
            return 0;
        }
        return static_cast<int>(left * 1000) + 1;
    }

    // After over(): waits for the child and tells how the job ended, in the
    // console and, where the child could not, in the run record.
    int finish() {
        auto &console = ORN::console();
        const std::string name = current_name();
        if (mTimedOut) {
            Platform::kill_child(mChild);
            end_output();
            Platform::wait_child(mChild, -1);
            console.error(mJob.mLabel, name, " error");
            const std::string line = name + " exceeded its time limit of " + std::to_string(mLimit) + " s and was ended";
            console.error(mJob.mLabel, line);
            record_end("failed", "failed", line);
            return EXIT_FAILED;
        }
        end_output();
        const Platform::ENDING ending = Platform::wait_child(mChild, -1);
        if (mFailed)
            return EXIT_FAILED;
        if (mCurrent < 0 && !ending.mSignalled && ending.mCode == EXIT_DONE)
            return EXIT_DONE;
        console.error(mJob.mLabel, name, " error");
        std::string line;
        if (ending.mSignalled) {
            const int signal = ending.mCode;
            // Sent to the whole job by whoever sent the launcher its stop
            // signal (a scheduler cancelling the job, a terminal's ^C).
            if (Platform::stop_signal() != 0 && signal == Platform::stop_signal())
                return stopped(Platform::stop_signal(), false);
            line = "the program was ended by " + Platform::signal_text(signal) + " during " + name;
            // A stop signal sent to the job from outside (a scheduler that
            // signals every program of a cancelled job, the launcher's
            // own signal still on its way) stopped the job: nothing failed.
            if (Platform::is_stop_signal(signal)) {
                console.error(mJob.mLabel, line);
                record_end("interrupted", "interrupted", line);
                return EXIT_FAILED;
            }
        } else {
            line = "a library ended the program with exit status " + std::to_string(ending.mCode) + " during " + name;
        }
        console.error(mJob.mLabel, line);
        record_end("failed", "failed", line);
        return EXIT_FAILED;
    }

    // The launcher was sent `signal`: it is passed on to the job's process
    // group (once), then the child is waited for until `deadline` (killed
    // after it).
    void pass_on(int signal) { Platform::signal_child(mChild, signal); }
    int stopped(int signal, bool wait = true) {
        auto &console = ORN::console();
        const std::string name = current_name();
        if (wait) {
            end_output(STOP_GRACE_SECONDS);
            Platform::wait_child(mChild, STOP_GRACE_SECONDS);
            console.error(mJob.mLabel, name, " error");
        }
        const std::string line = "zarn was sent " + Platform::signal_text(signal) + " during " + name + "; the job was stopped";
        console.error(mJob.mLabel, line);
        record_end("interrupted", "interrupted", line);
        return EXIT_FAILED;
    }

private:
    std::string current_name() const { return mCurrent >= 0 ? mFactories[mCurrent].first : std::string("zarn"); }

    // One process ended as `state`.
    void finish_process(const char *state) {
        if (mCurrent < 0)
            return;
        mOutcomes[mCurrent].mState = state;
        mOutcomes[mCurrent].mSeconds = mStarted.elapsed().seconds();
        mRecord.mProcesses[mCurrent].mState = state;
        mRecord.mProcesses[mCurrent].mSeconds = mOutcomes[mCurrent].mSeconds;
        mCurrent = -1;
    }

    // The end the child could not record: the running process (if any) as
    // `process_state`, the run as `run_state`, written at once without
    // waiting for the job lock (a run that holds it now records its own).
    void record_end(const char *process_state, const char *run_state, const std::string &line) {
        if (mCurrent >= 0) {
            auto &entry = mRecord.mProcesses[mCurrent];
            entry.mFailureLine = line;
            entry.mFailureText.clear();
            finish_process(process_state);
            mOutcomes[&entry - mRecord.mProcesses.data()].mState = "failed";
        }
        mRecord.mState = run_state;
        mRecord.mEnded = utc_now();
        const bool wait = ORN::JobLock::wait();
        ORN::JobLock::set_wait(false);
        try {
            save_run_record(mJob.mWorkdir, mRecord);
        } catch (const std::exception &) {
            // Told on the console by the file layer.
        }
        ORN::JobLock::set_wait(wait);
    }

    void read_channel() {
        char buffer[4096];
        const long n = Platform::read_some(mChild.mChannel, buffer, sizeof(buffer));
        if (n < 0)
            return;
        if (n == 0) {
            Platform::close_pipe(mChild.mChannel);
            return;
        }
        mPending.append(buffer, static_cast<std::size_t>(n));
        for (;;) {
            if (mPending.size() < sizeof(EVENT))
                return;
            EVENT event;
            std::memcpy(&event, mPending.data(), sizeof(event));
            std::size_t length = sizeof(event);
            if (event.mKind == EVENT::STAMP) {
                length += static_cast<std::size_t>(event.mValue);
                if (mPending.size() < length)
                    return;
                mRecord.mBuild = mPending.substr(sizeof(event), length - sizeof(event));
            }
            mPending.erase(0, length);
            switch (event.mKind) {
            case EVENT::START:
                mCurrent = static_cast<int>(event.mValue);
                mStarted = ORN::TimePoint::now();
                mLimit = 0;
                mRecord.mProcesses[mCurrent].mState = "running";
                mRecord.mProcesses[mCurrent].mStarted = utc_now();
                break;
            case EVENT::LIMIT:
                mLimit = event.mValue;
                break;
            case EVENT::DONE:
                finish_process("done");
                break;
            case EVENT::SKIPPED:
                finish_process("skipped");
                break;
            case EVENT::FAILED:
                finish_process("failed");
                mFailed = true;
                break;
            case EVENT::STAMP:
                break;
            }
        }
    }

    // Lines of the child's standard output (print level) and standard
    // error (error level), each shown with the job's label.
    void read_output(int i) {
        char buffer[4096];
        const long n = Platform::read_some(mChild.mOutput[i], buffer, sizeof(buffer));
        if (n < 0)
            return;
        if (n == 0) {
            if (!mLine[i].empty())
                emit(i, mLine[i]);
            mLine[i].clear();
            Platform::close_pipe(mChild.mOutput[i]);
            return;
        }
        mLine[i].append(buffer, static_cast<std::size_t>(n));
        std::size_t from = 0;
        for (std::size_t feed; (feed = mLine[i].find('\n', from)) != std::string::npos; from = feed + 1)
            emit(i, std::string_view(mLine[i]).substr(from, feed - from));
        mLine[i].erase(0, from);
    }
    void emit(int i, std::string_view line) {
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        auto &console = ORN::console();
        i == 0 ? console.print(mJob.mLabel, line) : console.error(mJob.mLabel, line);
    }
    // Reads what the child still writes until it closes its end (within
    // `seconds`, negative: no bound).
    void end_output(double seconds = -1) {
        const ORN::TimePoint start = ORN::TimePoint::now();
        while (mChild.mOutput[0] != NO_PIPE || mChild.mOutput[1] != NO_PIPE) {
            if (seconds >= 0 && start.elapsed().seconds() > seconds)
                break;
            std::vector<bool> ready;
            Platform::wait_readable({mChild.mOutput[0], mChild.mOutput[1]}, 100, ready);
            for (int i = 0; i < 2; ++i)
                if (ready[i])
                    read_output(i);
        }
    }

    JOB mJob;
    const Factories &mFactories;
    std::int64_t mTimeLimit;
    RUN_RECORD mRecord;
    OUTCOME *mOutcomes;
    bool mCapture;
    Platform::CHILD mChild;
    std::string mPending, mLine[2];
    int mCurrent = -1; // the process running in the child, -1 between processes
    ORN::TimePoint mStarted;
    std::int64_t mLimit = 0;
    bool mFailed = false, mTimedOut = false;
};

// How many processors each of `slots` jobs at once plans its workers with:
// the launcher's own (its affinity mask) shared out in counts that differ by
// one at most, at least one each; 0 (no cap) for one job. The children are
// capped, not pinned: the system still runs any of them on any processor,
// so a job in a step that keeps fewer cores busy leaves the rest to the
// others.
std::vector<std::size_t> core_shares(std::size_t slots) {
    std::vector<std::size_t> shares(slots, 0);
    const std::size_t cpus = Platform::processors().size();
    if (slots < 2 || cpus == 0)
        return shares;
    for (std::size_t s = 0; s < slots; ++s)
        shares[s] = std::max<std::size_t>(cpus / slots + (s < cpus % slots ? 1 : 0), 1);
    return shares;
}

// One line per job and process, failures first, each with its state and
// time; the order of the run otherwise.
void print_summary(const std::vector<OUTCOME> &outcomes) {
    auto &console = ORN::console();
    console.info("summary :");
    for (const bool failures : {true, false})
        for (const auto &o : outcomes)
            if ((o.mState == "failed") == failures)
                console.info(o.mState, " : ", o.mName, " : ", o.mWorkdir, " : ",
                             ORN::Duration::from_seconds(o.mSeconds).text());
}

// The name of each job for its label and its log folder with several jobs
// at once: the working directory's own name, numbered "-2", "-3" ... when
// another job of the run has that name already.
std::vector<std::string> job_names(const std::vector<std::string> &workdirs) {
    std::vector<std::string> names;
    std::set<std::string> used;
    for (const auto &w : workdirs) {
        const std::string base = fs::path(w).filename().string();
        std::string name = base;
        for (int n = 2; used.count(name) != 0; ++n)
            name = base + "-" + std::to_string(n);
        used.insert(name);
        names.push_back(name);
    }
    return names;
}

// The run record every job of a run starts from.
RUN_RECORD base_record(const Factories &factories, std::int64_t pid) {
    RUN_RECORD base;
    base.mLauncher = std::string("zarn ") + ZARN_VERSION;
    base.mHost = host_name();
    base.mPid = pid;
    for (const auto &f : factories) {
        PROCESS_RECORD process;
        process.mName = f.first;
        base.mProcesses.push_back(std::move(process));
    }
    return base;
}

// Runs the jobs, `parallel` at once, each in its own child: a single event
// loop follows every running child (its events, its console lines, its
// time limit) and the launcher's stop signals. `directory` is where the
// launcher was started.
int run_jobs(const std::vector<JOB> &jobs, const Factories &factories, std::int64_t time_limit, std::size_t parallel,
             const std::string &directory, std::vector<OUTCOME> &outcomes) {
    const std::size_t slots = std::min(parallel, jobs.size());
    const bool capture = slots > 1 || !Platform::CHILD_SHARES_CONSOLE;
    const auto shares = core_shares(slots);
    std::vector<std::size_t> free_slots;
    for (std::size_t s = slots; s-- > 0;)
        free_slots.push_back(s);

    const RUN_RECORD base = base_record(factories, Platform::current_pid());

    struct RUNNING {
        std::unique_ptr<JobRun> mRun;
        std::size_t mSlot;
    };
    std::vector<RUNNING> running;
    std::size_t next = 0;
    int status = EXIT_DONE;
    for (;;) {
        while (Platform::stop_signal() == 0 && next < jobs.size() && running.size() < slots) {
            auto run = std::make_unique<JobRun>(jobs[next], factories, time_limit, base, &outcomes[next * factories.size()],
                                                capture);
            const std::size_t slot = free_slots.back();
            free_slots.pop_back();
            run->start(shares[slot], next, directory);
            running.push_back({std::move(run), slot});
            ++next;
        }
        if (running.empty())
            break;
        if (Platform::stop_signal() != 0) {
            const int signal = Platform::stop_signal();
            for (auto &r : running)
                r.mRun->pass_on(signal);
            for (auto &r : running)
                r.mRun->stopped(signal);
            running.clear();
            status = EXIT_FAILED;
            break;
        }
        int wait = -1;
        for (auto &r : running)
            if (const int left = r.mRun->time_left(); left >= 0)
                wait = wait < 0 ? left : std::min(wait, left);
        std::vector<Pipe> ends;
        for (auto &r : running)
            r.mRun->add_pipes(ends);
        std::vector<bool> ready;
        Platform::wait_readable(ends, wait, ready);
        for (std::size_t i = 0; i < running.size(); ++i)
            running[i].mRun->on_ready(ready.cbegin() + static_cast<std::ptrdiff_t>(3 * i));
        if (Platform::stop_signal() != 0)
            continue;
        for (auto &r : running)
            r.mRun->time_left();
        for (auto it = running.begin(); it != running.end();) {
            if (!it->mRun->over()) {
                ++it;
                continue;
            }
            if (it->mRun->finish() != EXIT_DONE)
                status = EXIT_FAILED;
            free_slots.push_back(it->mSlot);
            it = running.erase(it);
        }
    }
    return status;
}

// A child that is the launcher started again for one job (Windows): the job
// and the run record's start come from --child "<job>:<launcher pid>:<start>",
// its console lines go to the standard output and error it was given.
int run_child(const Options &o, const std::vector<JOB> &jobs, const Factories &factories) {
    const std::size_t first = o.child.find(':'), second = o.child.find(':', first + 1);
    if (second == std::string::npos)
        throw UsageError{"--child needs <job>:<pid>:<start>, not " + o.child};
    const auto index = whole_number(o.child.substr(0, first), 0, "--child needs a job number, not ");
    if (static_cast<std::size_t>(index) >= jobs.size())
        throw UsageError{"--child names no job: " + o.child};
    RUN_RECORD record = base_record(factories, whole_number(o.child.substr(first + 1, second - first - 1), 0,
                                                            "--child needs the launcher's pid, not "));
    record.mStarted = o.child.substr(second + 1);
    Platform::end_on_crash();
    Platform::console_to_standard();
    return run_job(jobs[static_cast<std::size_t>(index)], factories, Platform::channel_of(o.channel), o.time_limit,
                   std::move(record));
}

int run(const Options &o) {
    std::vector<std::string> workdirs;
    for (const auto &w : o.workdirs)
        workdirs.push_back(working_directory(w));
    const std::string module = o.module.empty() ? absolute_path(launcher_directory() + "/" + Platform::DEFAULT_MODULE)
                                                : absolute_path(o.module);
    const std::string log = o.log.empty() ? std::string() : absolute_path(o.log);
    const bool several = o.parallel > 1 && workdirs.size() > 1;
    std::vector<JOB> jobs;
    const auto names = job_names(workdirs);
    for (std::size_t i = 0; i < workdirs.size(); ++i) {
        JOB job;
        job.mWorkdir = workdirs[i];
        job.mLogInJob = o.log_in_job;
        if (several) {
            job.mLabel = "[" + names[i] + "] ";
            if (!log.empty() && !o.log_in_job)
                job.mLog = (fs::path(log) / names[i]).string();
        }
        jobs.push_back(std::move(job));
    }

    std::string reason;
    void *library = Platform::load_module(module, reason);
    if (library == nullptr)
        throw UsageError{"cannot load module " + module + ": " + reason};
    Factories factories;
    for (const auto &name : o.processes) {
        auto f = reinterpret_cast<Factory>(Platform::find_symbol(library, factory_symbol(name)));
        if (f == nullptr)
            throw UsageError{"module " + module + " has no factory for " + name};
        factories.emplace_back(name, f);
    }
    const std::string directory = fs::current_path().string();
    if (!o.libs.empty() && !Platform::change_directory(o.libs))
        throw UsageError{"cannot enter library directory " + o.libs};

    auto &console = ORN::console();
    if (!o.verbose)
        console.set_screen_level(ORN::ConsoleLevel::Info);
    ORN::JobLock::set_wait(!o.no_wait);
    // The module and its libraries learn it from the environment, which
    // every job's child inherits.
    if (o.force)
        Platform::set_environment("ZARN_FORCE", "1");
    ZARN::STLStreamLogger logger(console);
    if (!o.child.empty())
        return run_child(o, jobs, factories);
    if (!log.empty()) {
        // What stands in the way is told in one line before the console
        // touches the folder (and rotates the old logs); a failure that
        // only shows while attaching is told by the file layer, then here.
        if (const std::string problem = log_problem(log); !problem.empty())
            throw UsageError{"cannot write the log " + problem};
        for (const auto &job : jobs)
            if (!job.mLog.empty())
                if (const std::string problem = log_problem(job.mLog); !problem.empty())
                    throw UsageError{"cannot write the log " + problem};
        try {
            console.attach_log(log);
        } catch (const ORN::Exception &) {
            throw UsageError{"cannot write the log in " + log};
        }
    }

    Platform::catch_stop_signals();
    std::vector<OUTCOME> outcomes;
    for (const auto &workdir : workdirs)
        for (const auto &f : factories)
            outcomes.push_back({workdir, f.first});
    const int status = run_jobs(jobs, factories, o.time_limit, static_cast<std::size_t>(o.parallel), directory, outcomes);
    print_summary(outcomes);
    if (Platform::stop_signal() != 0)
        return 128 + Platform::stop_signal();
    return status;
}

int graph(const Options &o) {
    std::cout << ZARN::process_graph_dot(o.processes.front(), working_directory(o.workdirs.front()));
    return EXIT_DONE;
}

} // namespace

int main(int argc, char **argv) {
    Platform::prepare_output();
    try {
        if (argc >= 2 && std::string_view(argv[1]) == "status")
            return status_command(argc - 2, argv + 2);
        if (argc >= 2 && std::string_view(argv[1]) == "submit")
            return submit_command(argc - 2, argv + 2);
        const Options o = parse(argc, argv);
        if (o.command == "--help" || o.command == "-h") {
            std::cout << USAGE << Platform::DEFAULT_MODULE << USAGE_MODULE << Platform::STOP_HELP << USAGE_END;
            return EXIT_DONE;
        }
        if (o.command == "--version") {
            std::cout << "zarn " << ZARN_VERSION << "\n";
            return EXIT_DONE;
        }
        if (o.command == "list") {
            for (auto p : PROCESS_ORDER)
                std::cout << p << "\n";
            return EXIT_DONE;
        }
        if (o.command == "graph")
            return graph(o);
        return run(o);
    } catch (const UsageError &e) {
        std::cerr << "zarn: " << e.reason << "\n";
        return EXIT_USAGE;
    } catch (const std::exception &e) {
        std::cerr << "zarn: " << e.what() << "\n";
        return EXIT_FAILED;
    }
}
