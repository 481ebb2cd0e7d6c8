// The launcher's system calls on Windows: a job's child is the launcher
// started again with CreateProcessA for that one job (its command line and
// " --child <job>:<pid>:<start> <channel handle>"), held in a job object so
// that it is ended with every program it started; the module is loaded
// through ZARN::DLL (LoadLibraryA); Ctrl-C, Ctrl-Break and the console's
// close are the stop signals.

#include "host/platform.h"

#include "host/launcher.h"
#include "host/submit.h"

#include "ZARN_Common/DLL.h"
#include "__ORN__/orn_debugger.h"

#include <fcntl.h>
#include <io.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>

// Last: its min and max macros would break the standard headers.
#include <windows.h>

namespace ZARN::Host {

// Slurm runs on Linux only: the Windows form has no `zarn submit`.
int submit_command(int, char **) {
    std::cerr << "zarn: submit runs jobs on a Slurm cluster and is not available on Windows; use zarn run\n";
    return EXIT_USAGE;
}

namespace Platform {

const char *const DEFAULT_MODULE = "ZARN_Velda.dll";
const bool CHILD_SHARES_CONSOLE = false;
const char *const STOP_HELP = R"(Ctrl-C, Ctrl-Break or the console's close stop the jobs that run (their
programs are ended after 10 s), no further job starts, and zarn exits with
128 + 2, 21 or 15. zarn submit needs Slurm and is not available on Windows.
)";

namespace {

// The stop signal received (SIGINT for Ctrl-C, SIGBREAK for Ctrl-Break,
// SIGTERM for the console's close, logoff or shutdown), 0 while none.
std::atomic<int> gSignal{0};

BOOL WINAPI on_control(DWORD type) {
    gSignal = type == CTRL_C_EVENT ? SIGINT : type == CTRL_BREAK_EVENT ? SIGBREAK : SIGTERM;
    return TRUE;
}

HANDLE handle_of(Pipe end) { return reinterpret_cast<HANDLE>(end); }
Pipe pipe_of(HANDLE handle) { return reinterpret_cast<Pipe>(handle); }

// "Windows error N: <the system's message>".
std::string error_text(DWORD code) {
    char text[512] = {};
    DWORD n = ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, text, sizeof(text), nullptr);
    while (n > 0 && (text[n - 1] == '\r' || text[n - 1] == '\n' || text[n - 1] == ' '))
        --n;
    return "Windows error " + std::to_string(code) + (n > 0 ? ": " + std::string(text, n) : std::string());
}

void inheritable(HANDLE handle, bool on) { ::SetHandleInformation(handle, HANDLE_FLAG_INHERIT, on ? HANDLE_FLAG_INHERIT : 0); }

// A pipe whose ends are not inherited; false when it cannot be made.
bool new_pipe(HANDLE &read, HANDLE &write) {
    SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
    return ::CreatePipe(&read, &write, &attributes, 0) != FALSE;
}

// The C library's descriptor `stream` (1 or 2) and the standard handle
// pointed at `handle` (duplicated; the original stays the caller's).
void point_standard(int stream, HANDLE handle) {
    HANDLE copy = nullptr;
    if (!::DuplicateHandle(::GetCurrentProcess(), handle, ::GetCurrentProcess(), &copy, 0, TRUE, DUPLICATE_SAME_ACCESS))
        return;
    const int fd = ::_open_osfhandle(reinterpret_cast<std::intptr_t>(copy), _O_WRONLY | _O_BINARY);
    if (fd < 0) {
        ::CloseHandle(copy);
        return;
    }
    ::_dup2(fd, stream);
    ::_close(fd);
    ::SetStdHandle(stream == 1 ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE, reinterpret_cast<HANDLE>(::_get_osfhandle(stream)));
}

} // namespace

// The C library's text mode would write CR LF; its "line buffering" is
// full buffering, so C stdio lines reach the pipe when flushed.
void prepare_output() {
    ::_setmode(::_fileno(stdout), _O_BINARY);
    ::_setmode(::_fileno(stderr), _O_BINARY);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

std::string launcher_directory() {
    char path[MAX_PATH + 1] = {};
    const DWORD n = ::GetModuleFileNameA(nullptr, path, MAX_PATH);
    return n == 0 || n >= MAX_PATH ? std::string(".") : std::filesystem::path(path).parent_path().string();
}

bool separator(char c) { return c == '/' || c == '\\'; }

int current_pid() { return static_cast<int>(::GetCurrentProcessId()); }

std::string host_name() {
    char name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD size = sizeof(name);
    return ::GetComputerNameA(name, &size) ? std::string(name, size) : std::string("unknown");
}

std::tm utc_parts(std::time_t time) {
    std::tm parts{};
    ::gmtime_s(&parts, &time);
    return parts;
}

std::int64_t epoch_of(const std::string &utc) {
    std::tm parts{};
    int used = -1;
    if (std::sscanf(utc.c_str(), "%4d-%2d-%2dT%2d:%2d:%2dZ%n", &parts.tm_year, &parts.tm_mon, &parts.tm_mday, &parts.tm_hour,
                    &parts.tm_min, &parts.tm_sec, &used) != 6 ||
        used != static_cast<int>(utc.size()))
        return -1;
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    return static_cast<std::int64_t>(::_mkgmtime(&parts));
}

bool process_alive(std::int64_t pid) {
    const HANDLE process = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid));
    if (process == nullptr)
        return ::GetLastError() == ERROR_ACCESS_DENIED;
    DWORD code = 0;
    const bool alive = ::GetExitCodeProcess(process, &code) && code == STILL_ACTIVE;
    ::CloseHandle(process);
    return alive;
}

void set_environment(const char *name, const char *value) { ::_putenv_s(name, value); }

bool change_directory(const std::string &directory) { return ::SetCurrentDirectoryA(directory.c_str()) != FALSE; }

std::string append_problem(const std::string &file) {
    const HANDLE h = ::CreateFileA(file.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return error_text(::GetLastError());
    const bool disk = ::GetFileType(h) == FILE_TYPE_DISK;
    ::CloseHandle(h);
    return disk ? std::string() : std::string("not a regular file");
}

std::string create_problem(const std::string &directory) {
    const std::string probe =
        (std::filesystem::path(directory) / (".console.log.probe-" + std::to_string(::GetCurrentProcessId()))).string();
    const HANDLE h = ::CreateFileA(probe.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                   FILE_ATTRIBUTE_NORMAL | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return error_text(::GetLastError());
    ::CloseHandle(h);
    return std::string();
}

void *load_module(const std::string &path, std::string &error) {
    // Kept for the life of the launcher, as the factories taken from it.
    auto *module = new ZARN::DLL();
    try {
        module->open(path);
    } catch (const std::exception &) {
        // The loader's line ("Error = <code> : <path> : <message>") is on the
        // console already.
        error = "the loader refused it";
        delete module;
        return nullptr;
    }
    return module;
}

void *find_symbol(void *module, const std::string &name) {
    try {
        return static_cast<ZARN::DLL *>(module)->link(name);
    } catch (const std::exception &) {
        return nullptr;
    }
}

// An exception nobody handled ends the program with its code (its
// NTSTATUS), without an error box or a debugger (Wine's) waiting for a
// person.
LONG WINAPI end_program(EXCEPTION_POINTERS *exception) {
    ::TerminateProcess(::GetCurrentProcess(), exception->ExceptionRecord->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

void end_on_crash() {
    ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    ::SetUnhandledExceptionFilter(end_program);
}

void catch_stop_signals() { ::SetConsoleCtrlHandler(on_control, TRUE); }

int stop_signal() { return gSignal; }

bool is_stop_signal(int signal) { return signal == SIGINT || signal == SIGBREAK || signal == SIGTERM; }

std::string signal_text(int signal) {
    switch (signal) {
    case SIGINT:
        return "signal 2 (Ctrl-C)";
    case SIGBREAK:
        return "signal 21 (Ctrl-Break)";
    case SIGTERM:
        return "signal 15 (the console closed)";
    default:
        char text[32];
        std::snprintf(text, sizeof(text), "exception 0x%08X", static_cast<unsigned>(signal));
        return text;
    }
}

std::vector<int> processors() {
    std::vector<int> cpus;
    DWORD_PTR mask = 0, system = 0;
    if (!::GetProcessAffinityMask(::GetCurrentProcess(), &mask, &system))
        return cpus;
    for (int cpu = 0; cpu < static_cast<int>(8 * sizeof(mask)); ++cpu)
        if (mask & (DWORD_PTR(1) << cpu))
            cpus.push_back(cpu);
    return cpus;
}

// Anonymous pipes cannot be waited on: each is asked what it holds, every
// few milliseconds, until one has something (or its writer is gone).
void wait_readable(const std::vector<Pipe> &ends, int milliseconds, std::vector<bool> &ready) {
    ready.assign(ends.size(), false);
    const ULONGLONG start = ::GetTickCount64();
    for (;;) {
        bool any = false;
        for (std::size_t i = 0; i < ends.size(); ++i) {
            DWORD available = 0;
            if (ends[i] != NO_PIPE &&
                (!::PeekNamedPipe(handle_of(ends[i]), nullptr, 0, nullptr, &available, nullptr) || available > 0))
                ready[i] = any = true;
        }
        if (any || gSignal != 0 || (milliseconds >= 0 && ::GetTickCount64() - start >= static_cast<ULONGLONG>(milliseconds)))
            return;
        ::Sleep(5);
    }
}

long read_some(Pipe end, char *buffer, std::size_t size) {
    DWORD n = 0;
    if (!::ReadFile(handle_of(end), buffer, static_cast<DWORD>(size), &n, nullptr))
        return 0;
    return n == 0 ? -1 : static_cast<long>(n);
}

void close_pipe(Pipe &end) {
    if (end != NO_PIPE)
        ::CloseHandle(handle_of(end));
    end = NO_PIPE;
}

void write_message(Pipe channel, const void *data, std::size_t size) {
    DWORD written = 0;
    ::WriteFile(handle_of(channel), data, static_cast<DWORD>(size), &written, nullptr);
}

Pipe capture_standard(int stream) {
    HANDLE read = nullptr, write = nullptr;
    if (!new_pipe(read, write))
        return NO_PIPE;
    point_standard(stream, write); // the copy is inherited by children
    ::CloseHandle(write);
    return pipe_of(read);
}

void console_to_standard() {
    ORN::console().redirect(reinterpret_cast<std::intptr_t>(::GetStdHandle(STD_OUTPUT_HANDLE)),
                            reinterpret_cast<std::intptr_t>(::GetStdHandle(STD_ERROR_HANDLE)));
}

void release_standard() {
    const HANDLE null = ::CreateFileA("NUL", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (null == INVALID_HANDLE_VALUE)
        return;
    point_standard(1, null);
    point_standard(2, null);
    ::CloseHandle(null);
}

CHILD start_child(const CHILD_START &start) {
    HANDLE channel[2] = {}, output[2][2] = {};
    if (!new_pipe(channel[0], channel[1]))
        throw std::runtime_error("CreatePipe: " + error_text(::GetLastError()));
    for (int i = 0; start.mCapture && i < 2; ++i)
        if (!new_pipe(output[i][0], output[i][1]))
            throw std::runtime_error("CreatePipe: " + error_text(::GetLastError()));
    // Only the child's ends are inherited; the launcher closes its copies
    // right after, so no other child holds them.
    inheritable(channel[1], true);
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = start.mCapture ? output[0][1] : ::GetStdHandle(STD_OUTPUT_HANDLE);
    startup.hStdError = start.mCapture ? output[1][1] : ::GetStdHandle(STD_ERROR_HANDLE);
    for (int i = 0; start.mCapture && i < 2; ++i)
        inheritable(output[i][1], true);
    char self[MAX_PATH + 1] = {};
    ::GetModuleFileNameA(nullptr, self, MAX_PATH);
    std::string command = std::string(::GetCommandLineA()) + " --child " + start.mChildArgument + " " +
                          std::to_string(reinterpret_cast<std::intptr_t>(channel[1]));
    PROCESS_INFORMATION process{};
    const BOOL made = ::CreateProcessA(self, command.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr,
                                       start.mDirectory.empty() ? nullptr : start.mDirectory.c_str(), &startup, &process);
    const DWORD error = ::GetLastError();
    ::CloseHandle(channel[1]);
    for (int i = 0; start.mCapture && i < 2; ++i)
        ::CloseHandle(output[i][1]);
    if (!made) {
        ::CloseHandle(channel[0]);
        for (int i = 0; start.mCapture && i < 2; ++i)
            ::CloseHandle(output[i][0]);
        throw std::runtime_error("CreateProcessA: " + std::string(self) + " : " + error_text(error));
    }
    CHILD c;
    c.mId = pipe_of(process.hProcess);
    const HANDLE job = ::CreateJobObjectA(nullptr, nullptr);
    if (job != nullptr && ::AssignProcessToJobObject(job, process.hProcess))
        c.mGroup = pipe_of(job);
    else if (job != nullptr)
        ::CloseHandle(job);
    if (!start.mCpus.empty()) {
        DWORD_PTR mask = 0;
        for (const int cpu : start.mCpus)
            mask |= DWORD_PTR(1) << cpu;
        ::SetProcessAffinityMask(process.hProcess, mask);
    }
    ::ResumeThread(process.hThread);
    ::CloseHandle(process.hThread);
    c.mChannel = pipe_of(channel[0]);
    for (int i = 0; start.mCapture && i < 2; ++i)
        c.mOutput[i] = pipe_of(output[i][0]);
    return c;
}

void kill_child(const CHILD &child) {
    if (child.mGroup != -1)
        ::TerminateJobObject(handle_of(child.mGroup), 1);
    ::TerminateProcess(handle_of(child.mId), 1);
}

// Ctrl-C and Ctrl-Break reach every program of the console, the job's too;
// any other stop ends the job's programs.
void signal_child(const CHILD &child, int signal) {
    if (signal != SIGINT && signal != SIGBREAK)
        kill_child(child);
}

ENDING wait_child(const CHILD &child, double grace) {
    const HANDLE process = handle_of(child.mId);
    if (::WaitForSingleObject(process, grace < 0 ? INFINITE : static_cast<DWORD>(grace * 1000)) == WAIT_TIMEOUT) {
        kill_child(child);
        ::WaitForSingleObject(process, INFINITE);
    }
    DWORD code = 0;
    ::GetExitCodeProcess(process, &code);
    if (code == STATUS_CONTROL_C_EXIT)
        return {true, SIGINT};
    // An exception nobody handled (an access violation, a stack overflow):
    // the program's exit code is its NTSTATUS.
    if (code >= 0xC0000000u)
        return {true, static_cast<int>(code)};
    return {false, static_cast<int>(code)};
}

void release_child(CHILD &child) {
    close_pipe(child.mChannel);
    close_pipe(child.mOutput[0]);
    close_pipe(child.mOutput[1]);
    if (child.mId != -1)
        ::CloseHandle(handle_of(child.mId));
    if (child.mGroup != -1)
        ::CloseHandle(handle_of(child.mGroup));
    child.mId = child.mGroup = -1;
}

Pipe channel_of(const std::string &text) { return static_cast<Pipe>(std::stoll(text)); }

} // namespace Platform
} // namespace ZARN::Host
