// zarn: runs the module's processes over capture job directories.
//
//   zarn run [--process NAME]... [--libs DIR] [--log DIR] [--module FILE] [--no-wait] [--verbose]
//            [--time-limit SECONDS] [--force] WORKDIR...
//   zarn graph --process NAME WORKDIR
//   zarn list
//   zarn --help | --version

#include "ZARN_Common/STLStreamLogger.h"
#include "ZARN_Runtime/export.h"
#include "ZARN_Velda/ProcessGraph.h"
#include "__ORN__/orn_debugger.h"

#include "__ORN__/orn_filesystem.h"

#include "__ORN__/orn_runtime.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <thread>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 9> PROCESS_ORDER = {
    "CalibMainProcess",  "StitchMainProcess", "StereoRotStitchMainProcess", "ImageROIProcess",     "ImageFilterProcess",
    "VeldaMainProcess",  "VeldaMeshProcess",  "VideoTransferProcess",       "VideoROIProcess",
};

constexpr const char *USAGE = R"(usage:
  zarn run [--process NAME]... [--libs DIR] [--log DIR] [--module FILE]
           [--no-wait] [--verbose] [--time-limit SECONDS] [--force] WORKDIR...
  zarn graph --process NAME WORKDIR
  zarn list
  zarn --help | --version

run      runs the processes over each working directory (all nine in the
         default order, or the ones named with --process, in the order given)
graph    prints the node graph of one process in Graphviz DOT form
list     prints the nine process names in the default order

--libs DIR     directory of the closed libraries, "asset/distortion.txt" and
               the shared "setting.xml"; becomes the current directory
--log DIR      writes the console log to DIR/console.log (the previous one is
               kept as console.old.log)
--module FILE  the module to load (default: ../lib/libZARN_Velda.so next to
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

Each working directory runs in a child process of its own: a library that
ends the program (exit, _exit) or crashes it (a signal) fails that job's
process with "<Name> error" and the reason, and the next job still runs. A
process past its time limit is killed with every program it started. What
the processes and their libraries print on standard output and standard
error reaches the console and the log line by line. Error lines go to
standard error. The run ends with a summary: each job's processes with
their state (failed first, then done, skipped, not run) and time.

SIGTERM, SIGINT or SIGHUP stop the job that runs (the signal is passed on to
all its programs, which are killed after 10 s), no further job starts, and
zarn exits with 128 + the signal's number.

exit status: 0 all done, 1 a process failed, 2 usage error, 128 + N
             stopped by signal N
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
    if (fs::exists(fs::symlink_status(file))) {
        const int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            return file + " : " + std::strerror(errno);
        ::close(fd);
    }
    const std::string probe = (fs::path(directory) / (".console.log.probe-" + std::to_string(::getpid()))).string();
    const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return file + " : " + std::strerror(errno);
    ::close(fd);
    ::unlink(probe.c_str());
    return std::string();
}

constexpr int EXIT_DONE = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

struct UsageError {
    std::string reason;
};

struct Options {
    std::string command;
    std::vector<std::string> processes;
    std::string libs;
    std::string log;
    std::string module;
    bool no_wait = false;
    bool verbose = false;
    bool force = false;
    std::int64_t time_limit = -1; // seconds; negative: the settings decide
    std::vector<std::string> workdirs;
};

bool known_process(std::string_view name) {
    for (auto p : PROCESS_ORDER)
        if (p == name)
            return true;
    return false;
}

// Absolute and lexically normal, without a trailing separator.
std::string absolute_path(const std::string &path) {
    std::string p = fs::absolute(fs::path(path)).lexically_normal().string();
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    return p;
}

std::string launcher_directory() {
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : self.parent_path().string();
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
            std::int64_t seconds = -1;
            const auto r = std::from_chars(text.data(), text.data() + text.size(), seconds);
            if (r.ec != std::errc() || r.ptr != text.data() + text.size() || seconds < 0)
                throw UsageError{"--time-limit needs a whole number of seconds, not " + text};
            o.time_limit = seconds;
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
// a process starts (its index), the time limit it asks for, and how it
// ended. Each message is one write of a few bytes, so it arrives whole.
struct EVENT {
    enum Kind : char { START = 's', LIMIT = 'l', DONE = 'd', SKIPPED = 'k', FAILED = 'f' } mKind;
    std::int64_t mValue; // START: the process's index; LIMIT: seconds
};

void tell(int pipe, EVENT::Kind kind, std::int64_t value = 0) {
    const EVENT event{kind, value};
    [[maybe_unused]] const auto n = ::write(pipe, &event, sizeof(event));
}

// What a process of a job came to, for the summary.
struct OUTCOME {
    std::string mWorkdir;
    std::string mName;
    std::string mState = "not run"; // done, skipped, failed, not run
    double mSeconds = 0.0;
};

// The signal (SIGTERM, SIGINT, SIGHUP) the launcher was sent, 0 while none;
// the handler also wakes the launcher's wait through a pipe.
volatile std::sig_atomic_t gSignal = 0;
int gWake[2] = {-1, -1};

void on_signal(int signal) {
    const int saved = errno;
    gSignal = signal;
    const char byte = 0;
    [[maybe_unused]] const auto n = ::write(gWake[1], &byte, 1);
    errno = saved;
}

constexpr int STOP_SIGNALS[] = {SIGTERM, SIGINT, SIGHUP};

void catch_stop_signals() {
    if (::pipe2(gWake, O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    for (const int signal : STOP_SIGNALS)
        ::sigaction(signal, &action, nullptr);
}

// What the job's child and its own children write to descriptors 1 and 2
// (a closed library's printf, a converter script, libjpeg's warnings) is
// read back by a thread and handed to the console line by line, standard
// output at print level and standard error at warn level: it reaches the
// log, and never lands in the middle of the progress line. The console
// itself writes to copies of the original descriptors.
class OutputCapture {
public:
    OutputCapture() {
        auto &console = ORN::console();
        std::fflush(nullptr);
        console.redirect(STDOUT_FILENO, STDERR_FILENO);
        for (int i = 0; i < 2; ++i) {
            int ends[2];
            if (::pipe2(ends, O_CLOEXEC) != 0)
                return;
            ::dup2(ends[1], i + 1); // the duplicates are inherited by children
            ::close(ends[1]);
            mRead[i] = ends[0];
        }
        mThread = std::thread([this] { pump(); });
    }
    OutputCapture(const OutputCapture &) = delete;
    OutputCapture &operator=(const OutputCapture &) = delete;
    // Points 1 and 2 at /dev/null, then hands over what is left. A child
    // program that still holds the pipes (left running in the background)
    // cannot keep the job waiting: the rest is read for at most a second.
    ~OutputCapture() {
        std::fflush(nullptr);
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            ::dup2(null, STDOUT_FILENO);
            ::dup2(null, STDERR_FILENO);
            ::close(null);
        }
        mStop = true;
        if (mThread.joinable())
            mThread.join();
        for (const int fd : mRead)
            if (fd >= 0)
                ::close(fd);
    }

private:
    void pump() {
        std::string pending[2];
        bool open[2] = {mRead[0] >= 0, mRead[1] >= 0};
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
            pollfd polls[2] = {{open[0] ? mRead[0] : -1, POLLIN, 0}, {open[1] ? mRead[1] : -1, POLLIN, 0}};
            if (::poll(polls, 2, 100) <= 0)
                continue;
            for (int i = 0; i < 2; ++i) {
                if (polls[i].revents == 0)
                    continue;
                char buffer[4096];
                const ssize_t n = ::read(mRead[i], buffer, sizeof(buffer));
                if (n < 0 && errno == EINTR)
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

    int mRead[2] = {-1, -1};
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

// The child's side: runs the processes of one job in order and reports
// each one; returns the exit status of the child. `time_limit` is the
// launcher's option (negative: none given, the settings decide).
int run_job(const std::string &workdir, const Factories &factories, int pipe, std::int64_t time_limit) {
    auto &console = ORN::console();
    const OutputCapture capture;
    for (std::size_t i = 0; i < factories.size(); ++i) {
        const auto &[name, factory] = factories[i];
        tell(pipe, EVENT::START, static_cast<std::int64_t>(i));
        try {
            ORN::StrongRef<ZARN::Process> process = factory();
            ORN::GlobalRuntime::set_time_limit(0);
            const bool enabled = process->initialize(workdir);
            tell(pipe, EVENT::LIMIT, time_limit >= 0 ? time_limit : ORN::GlobalRuntime::time_limit());
            process->execute();
            tell(pipe, enabled ? EVENT::DONE : EVENT::SKIPPED);
        } catch (const std::exception &e) {
            console.error(name, " error");
            console.error(e.what());
            tell(pipe, EVENT::FAILED);
            return EXIT_FAILED;
        }
    }
    return EXIT_DONE;
}

// Waits for the child; after `grace` seconds (negative: no end) it is
// killed with its process group.
int wait_child(pid_t child, double grace) {
    const ORN::TimePoint start = ORN::TimePoint::now();
    int status = 0;
    for (;;) {
        const pid_t r = ::waitpid(child, &status, grace < 0 ? 0 : WNOHANG);
        if (r == child || (r < 0 && errno != EINTR))
            return status;
        if (r == 0) {
            if (start.elapsed().seconds() > grace) {
                ::kill(-child, SIGKILL);
                grace = -1;
            } else {
                ::usleep(20000);
            }
        }
    }
}

// How long a child that is asked to stop by the signal the launcher was sent
// may take before it is killed.
constexpr double STOP_GRACE_SECONDS = 10.0;

// The launcher's side: runs one job in a child process (the leader of its
// own process group, so that the job's programs can be signalled as one),
// so that a library that ends or crashes the program takes only that child
// with it. A child that stops in the middle of a process, whatever the way,
// fails that process; one that passes its time limit is killed with its
// process group (the kernel releases its job lock). A stop signal sent to
// the launcher is passed on to the job's process group.
int run_job_isolated(const std::string &workdir, const Factories &factories, std::int64_t time_limit,
                     std::vector<OUTCOME> &outcomes) {
    auto &console = ORN::console();
    const std::size_t first = outcomes.size();
    for (const auto &f : factories)
        outcomes.push_back({workdir, f.first});
    int channel[2];
    if (::pipe2(channel, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0)
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    if (child == 0) {
        ::setpgid(0, 0);
        for (const int signal : STOP_SIGNALS)
            ::signal(signal, SIG_DFL);
        ::close(channel[0]);
        ::close(gWake[0]);
        ::close(gWake[1]);
        const int status = run_job(workdir, factories, channel[1], time_limit);
        std::fflush(nullptr);
        ::_exit(status);
    }
    ::setpgid(child, child);
    ::close(channel[1]);
    int current = -1; // the process running in the child, -1 between processes
    ORN::TimePoint started;
    std::int64_t limit = 0;
    const auto finish = [&](const char *state) {
        if (current < 0)
            return;
        outcomes[first + current].mState = state;
        outcomes[first + current].mSeconds = started.elapsed().seconds();
        current = -1;
    };
    bool failed = false, timed_out = false;
    int stopped_by = 0;
    EVENT event;
    std::size_t have = 0;
    for (;;) {
        int wait = -1;
        if (current >= 0 && limit > 0) {
            const double left = static_cast<double>(limit) - started.elapsed().seconds();
            if (left <= 0) {
                timed_out = true;
                break;
            }
            wait = static_cast<int>(left * 1000) + 1;
        }
        pollfd polls[2] = {{channel[0], POLLIN, 0}, {gWake[0], POLLIN, 0}};
        const int ready = ::poll(polls, 2, wait);
        if (gSignal != 0) {
            stopped_by = gSignal;
            break;
        }
        if (ready <= 0)
            continue;
        if (polls[0].revents == 0)
            continue;
        const ssize_t n = ::read(channel[0], reinterpret_cast<char *>(&event) + have, sizeof(event) - have);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        have += static_cast<std::size_t>(n);
        if (have < sizeof(event))
            continue;
        have = 0;
        switch (event.mKind) {
        case EVENT::START:
            current = static_cast<int>(event.mValue);
            started = ORN::TimePoint::now();
            limit = 0;
            break;
        case EVENT::LIMIT:
            limit = event.mValue;
            break;
        case EVENT::DONE:
            finish("done");
            break;
        case EVENT::SKIPPED:
            finish("skipped");
            break;
        case EVENT::FAILED:
            finish("failed");
            failed = true;
            break;
        }
        if (failed)
            break;
    }
    ::close(channel[0]);
    const std::string name = current >= 0 ? factories[current].first : std::string("zarn");
    if (timed_out) {
        ::kill(-child, SIGKILL);
        wait_child(child, -1);
        console.error(name, " error");
        console.error(name, " exceeded its time limit of ", limit, " s and was ended");
        finish("failed");
        return EXIT_FAILED;
    }
    if (stopped_by != 0) {
        ::kill(-child, stopped_by);
        wait_child(child, STOP_GRACE_SECONDS);
        console.error(name, " error");
        console.error("zarn was sent signal ", stopped_by, " (", ::strsignal(stopped_by), ") during ", name,
                      "; the job was stopped");
        finish("failed");
        return EXIT_FAILED;
    }
    const int status = wait_child(child, -1);
    if (failed)
        return EXIT_FAILED;
    if (current < 0 && WIFEXITED(status) && WEXITSTATUS(status) == EXIT_DONE)
        return EXIT_DONE;
    console.error(name, " error");
    if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        console.error("the program was ended by signal ", signal, " (", ::strsignal(signal), ") during ", name);
    } else {
        console.error("a library ended the program with exit status ", WEXITSTATUS(status), " during ", name);
    }
    finish("failed");
    return EXIT_FAILED;
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

// The working directory made absolute; one that is missing or not a
// directory is a usage error.
std::string working_directory(const std::string &w) {
    std::string path = absolute_path(w);
    std::error_code ec;
    const auto type = fs::status(path, ec).type();
    if (type == fs::file_type::not_found)
        throw UsageError{"working directory " + path + " does not exist"};
    if (type != fs::file_type::directory)
        throw UsageError{"working directory " + path + " is not a directory"};
    return path;
}

int run(const Options &o) {
    std::vector<std::string> workdirs;
    for (const auto &w : o.workdirs)
        workdirs.push_back(working_directory(w));
    const std::string module =
        o.module.empty() ? absolute_path(launcher_directory() + "/../lib/libZARN_Velda.so") : absolute_path(o.module);
    const std::string log = o.log.empty() ? std::string() : absolute_path(o.log);

    void *library = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        throw UsageError{"cannot load module " + module + ": " + dlerror()};
    Factories factories;
    for (const auto &name : o.processes) {
        auto f = reinterpret_cast<Factory>(dlsym(library, factory_symbol(name).c_str()));
        if (f == nullptr)
            throw UsageError{"module " + module + " has no factory for " + name};
        factories.emplace_back(name, f);
    }
    if (!o.libs.empty() && chdir(o.libs.c_str()) != 0)
        throw UsageError{"cannot enter library directory " + o.libs};

    auto &console = ORN::console();
    if (!o.verbose)
        console.set_screen_level(ORN::ConsoleLevel::Info);
    if (!log.empty()) {
        // What stands in the way is told in one line before the console
        // touches the folder (and rotates the old logs); a failure that
        // only shows while attaching is told by the file layer, then here.
        if (const std::string problem = log_problem(log); !problem.empty())
            throw UsageError{"cannot write the log " + problem};
        try {
            console.attach_log(log);
        } catch (const ORN::Exception &) {
            throw UsageError{"cannot write the log in " + log};
        }
    }
    ORN::JobLock::set_wait(!o.no_wait);
    // The module and its libraries learn it from the environment, which
    // every job's child inherits.
    if (o.force)
        ::setenv("ZARN_FORCE", "1", 1);
    ZARN::STLStreamLogger logger(console);

    catch_stop_signals();
    int status = EXIT_DONE;
    std::vector<OUTCOME> outcomes;
    for (const auto &workdir : workdirs) {
        if (gSignal != 0)
            break;
        if (run_job_isolated(workdir, factories, o.time_limit, outcomes) != EXIT_DONE)
            status = EXIT_FAILED;
    }
    for (const auto &workdir : workdirs)
        if (std::none_of(outcomes.begin(), outcomes.end(), [&](const OUTCOME &c) { return c.mWorkdir == workdir; }))
            for (const auto &f : factories)
                outcomes.push_back({workdir, f.first});
    print_summary(outcomes);
    if (gSignal != 0)
        return 128 + gSignal;
    return status;
}

int graph(const Options &o) {
    std::cout << ZARN::process_graph_dot(o.processes.front(), working_directory(o.workdirs.front()));
    return EXIT_DONE;
}

} // namespace

int main(int argc, char **argv) {
    // Line-buffered even into a pipe or a file, so that what the closed
    // libraries print with C stdio keeps its place among the console lines.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    try {
        const Options o = parse(argc, argv);
        if (o.command == "--help" || o.command == "-h") {
            std::cout << USAGE;
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
