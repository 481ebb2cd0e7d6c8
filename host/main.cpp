// zarn: runs the module's processes over capture job directories.
//
//   zarn run [--process NAME]... [--libs DIR] [--log DIR] [--module FILE] [--no-wait] [--verbose] WORKDIR...
//   zarn graph --process NAME WORKDIR
//   zarn list
//   zarn --help | --version

#include "ZARN_Common/STLStreamLogger.h"
#include "ZARN_Runtime/export.h"
#include "ZARN_Velda/ProcessGraph.h"
#include "__ORN__/orn_debugger.h"

#include "__ORN__/orn_filesystem.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <array>
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
           [--no-wait] [--verbose] WORKDIR...
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

Each working directory runs in a child process of its own: a library that
ends the program (exit, _exit) or crashes it (a signal) fails that job's
process with "<Name> error" and the reason, and the next job still runs.

exit status: 0 all done, 1 a process failed, 2 usage error
)";

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

// What the child running a job tells the launcher, one byte per event:
// the index of the process that starts, then DONE or FAILED for it.
constexpr char DONE = 'd';
constexpr char FAILED = 'f';

void tell(int pipe, char event) { [[maybe_unused]] const auto n = ::write(pipe, &event, 1); }

// The child's side: runs the processes of one job in order and reports
// each one; returns the exit status of the child.
int run_job(const std::string &workdir, const Factories &factories, int pipe) {
    auto &console = ORN::console();
    for (std::size_t i = 0; i < factories.size(); ++i) {
        const auto &[name, factory] = factories[i];
        tell(pipe, static_cast<char>(i));
        try {
            ORN::StrongRef<ZARN::Process> process = factory();
            process->initialize(workdir);
            process->execute();
        } catch (const std::exception &e) {
            console.error(name, " error");
            console.error(e.what());
            tell(pipe, FAILED);
            return EXIT_FAILED;
        }
        tell(pipe, DONE);
    }
    return EXIT_DONE;
}

// The launcher's side: runs one job in a child process, so that a library
// that ends or crashes the program takes only that child with it. A child
// that stops in the middle of a process, whatever the way, fails that
// process.
int run_job_isolated(const std::string &workdir, const Factories &factories) {
    auto &console = ORN::console();
    int channel[2];
    if (::pipe2(channel, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0)
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    if (child == 0) {
        ::close(channel[0]);
        const int status = run_job(workdir, factories, channel[1]);
        std::fflush(nullptr);
        ::_exit(status);
    }
    ::close(channel[1]);
    int current = -1; // the process running in the child, -1 between processes
    char event;
    for (;;) {
        const ssize_t n = ::read(channel[0], &event, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        current = event == DONE || event == FAILED ? -1 : static_cast<unsigned char>(event);
        if (event == FAILED) {
            ::close(channel[0]);
            int ignored;
            while (::waitpid(child, &ignored, 0) < 0 && errno == EINTR) {
            }
            return EXIT_FAILED;
        }
    }
    ::close(channel[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (current < 0 && WIFEXITED(status) && WEXITSTATUS(status) == EXIT_DONE)
        return EXIT_DONE;
    const std::string name = current >= 0 ? factories[current].first : std::string("zarn");
    console.error(name, " error");
    if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        console.error("the program was ended by signal ", signal, " (", ::strsignal(signal), ") during ", name);
    } else {
        console.error("a library ended the program with exit status ", WEXITSTATUS(status), " during ", name);
    }
    return EXIT_FAILED;
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
        // The console has said what is wrong with the file (one line for
        // each failing operation); the launcher only adds that it stops.
        try {
            console.attach_log(log);
        } catch (const ORN::Exception &) {
            throw UsageError{"cannot write the log in " + log};
        }
    }
    ORN::JobLock::set_wait(!o.no_wait);
    ZARN::STLStreamLogger logger(console);

    int status = EXIT_DONE;
    for (const auto &workdir : workdirs)
        if (run_job_isolated(workdir, factories) != EXIT_DONE)
            status = EXIT_FAILED;
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
