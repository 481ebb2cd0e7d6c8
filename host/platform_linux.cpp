// The launcher's system calls on POSIX: a job's child is this program
// forked, the leader of its own process group, so that the job's programs
// can be signalled as one; the module is loaded with dlopen.

#include "host/platform.h"

#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_runtime.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace ZARN::Host::Platform {

const char *const DEFAULT_MODULE = "../lib/libZARN_Velda.so";
const bool CHILD_SHARES_CONSOLE = true;
const char *const STOP_HELP = R"(SIGTERM, SIGINT or SIGHUP stop the jobs that run (the signal is passed on to
all their programs, which are killed after 10 s), no further job starts, and
zarn exits with 128 + the signal's number.
)";

namespace {

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

} // namespace

void prepare_output() { std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); }

std::string launcher_directory() {
    std::error_code ec;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : self.parent_path().string();
}

bool separator(char c) { return c == '/'; }

int current_pid() { return static_cast<int>(::getpid()); }

std::string host_name() {
    char name[256] = {};
    if (::gethostname(name, sizeof(name) - 1) != 0)
        return "unknown";
    return name;
}

std::tm utc_parts(std::time_t time) {
    std::tm parts{};
    ::gmtime_r(&time, &parts);
    return parts;
}

std::int64_t epoch_of(const std::string &utc) {
    std::tm parts{};
    const char *end = ::strptime(utc.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    if (end == nullptr || *end != '\0')
        return -1;
    return static_cast<std::int64_t>(::timegm(&parts));
}

bool process_alive(std::int64_t pid) { return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM; }

void set_environment(const char *name, const char *value) { ::setenv(name, value, 1); }

bool change_directory(const std::string &directory) { return ::chdir(directory.c_str()) == 0; }

std::string append_problem(const std::string &file) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return std::strerror(errno);
    ::close(fd);
    return std::string();
}

std::string create_problem(const std::string &directory) {
    const std::string probe = (std::filesystem::path(directory) / (".console.log.probe-" + std::to_string(::getpid()))).string();
    const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return std::strerror(errno);
    ::close(fd);
    ::unlink(probe.c_str());
    return std::string();
}

void *load_module(const std::string &path, std::string &error) {
    void *library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        error = ::dlerror();
    return library;
}

void *find_symbol(void *module, const std::string &name) { return ::dlsym(module, name.c_str()); }

// A signal's default action ends the program; the launcher's wait tells it.
void end_on_crash() {}

void catch_stop_signals() {
    if (::pipe2(gWake, O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    for (const int signal : STOP_SIGNALS)
        ::sigaction(signal, &action, nullptr);
}

int stop_signal() { return gSignal; }

bool is_stop_signal(int signal) {
    return std::find(std::begin(STOP_SIGNALS), std::end(STOP_SIGNALS), signal) != std::end(STOP_SIGNALS);
}

std::string signal_text(int signal) { return "signal " + std::to_string(signal) + " (" + ::strsignal(signal) + ")"; }

std::vector<int> processors() {
    std::vector<int> cpus;
    cpu_set_t set;
    CPU_ZERO(&set);
    if (::sched_getaffinity(0, sizeof(set), &set) != 0)
        return cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &set))
            cpus.push_back(cpu);
    return cpus;
}

void wait_readable(const std::vector<Pipe> &ends, int milliseconds, std::vector<bool> &ready) {
    std::vector<pollfd> polls{{gWake[0], POLLIN, 0}};
    for (const Pipe end : ends)
        polls.push_back({static_cast<int>(end), POLLIN, 0});
    const int n = ::poll(polls.data(), polls.size(), milliseconds);
    ready.assign(ends.size(), false);
    for (std::size_t i = 0; n > 0 && i < ends.size(); ++i)
        ready[i] = polls[1 + i].revents != 0;
}

long read_some(Pipe end, char *buffer, std::size_t size) {
    const ssize_t n = ::read(static_cast<int>(end), buffer, size);
    if (n < 0 && errno == EINTR)
        return -1;
    return n < 0 ? 0 : static_cast<long>(n);
}

void close_pipe(Pipe &end) {
    if (end != NO_PIPE)
        ::close(static_cast<int>(end));
    end = NO_PIPE;
}

void write_message(Pipe channel, const void *data, std::size_t size) {
    [[maybe_unused]] const auto n = ::write(static_cast<int>(channel), data, size);
}

Pipe capture_standard(int stream) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return NO_PIPE;
    ::dup2(ends[1], stream); // the duplicate is inherited by children
    ::close(ends[1]);
    return ends[0];
}

void console_to_standard() { ORN::console().redirect(STDOUT_FILENO, STDERR_FILENO); }

void release_standard() {
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        ::close(null);
    }
}

CHILD start_child(const CHILD_START &start) {
    int channel[2], output[2][2] = {{-1, -1}, {-1, -1}};
    if (::pipe2(channel, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    for (int i = 0; start.mCapture && i < 2; ++i)
        if (::pipe2(output[i], O_CLOEXEC) != 0)
            throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
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
        gWake[0] = gWake[1] = -1;
        if (!start.mCpus.empty()) {
            cpu_set_t set;
            CPU_ZERO(&set);
            for (const int cpu : start.mCpus)
                CPU_SET(cpu, &set);
            ::sched_setaffinity(0, sizeof(set), &set);
        }
        if (start.mCapture) {
            for (int i = 0; i < 2; ++i) {
                ::dup2(output[i][1], i + 1);
                ::close(output[i][0]);
                ::close(output[i][1]);
            }
        }
        const int status = start.mBody(channel[1]);
        std::fflush(nullptr);
        ::_exit(status);
    }
    ::setpgid(child, child);
    ::close(channel[1]);
    CHILD c;
    c.mId = child;
    c.mChannel = channel[0];
    for (int i = 0; start.mCapture && i < 2; ++i) {
        ::close(output[i][1]);
        c.mOutput[i] = output[i][0];
    }
    return c;
}

void kill_child(const CHILD &child) { ::kill(-static_cast<pid_t>(child.mId), SIGKILL); }

void signal_child(const CHILD &child, int signal) { ::kill(-static_cast<pid_t>(child.mId), signal); }

ENDING wait_child(const CHILD &child, double grace) {
    const pid_t pid = static_cast<pid_t>(child.mId);
    const ORN::TimePoint start = ORN::TimePoint::now();
    int status = 0;
    for (;;) {
        const pid_t r = ::waitpid(pid, &status, grace < 0 ? 0 : WNOHANG);
        if (r == pid || (r < 0 && errno != EINTR))
            break;
        if (r == 0) {
            if (start.elapsed().seconds() > grace) {
                ::kill(-pid, SIGKILL);
                grace = -1;
            } else {
                ::usleep(20000);
            }
        }
    }
    if (WIFSIGNALED(status))
        return {true, WTERMSIG(status)};
    return {false, WIFEXITED(status) ? WEXITSTATUS(status) : 0};
}

void release_child(CHILD &child) {
    close_pipe(child.mChannel);
    close_pipe(child.mOutput[0]);
    close_pipe(child.mOutput[1]);
}

Pipe channel_of(const std::string &text) { return static_cast<Pipe>(std::stoll(text)); }

} // namespace ZARN::Host::Platform
