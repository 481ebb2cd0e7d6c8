#pragma once

// The operating system as the launcher sees it, one definition per platform
// (platform_linux.cpp, platform_windows.cpp). Everything else of the
// launcher (options, job loop, run record, summary, status) is written once
// on top of these calls.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace ZARN::Host::Platform {

// The read end of a pipe (a descriptor on POSIX, a handle on Windows); the
// write end of the event channel on the child's side.
using Pipe = std::intptr_t;
constexpr Pipe NO_PIPE = -1;

// The module next to the launcher, relative to the launcher's directory.
extern const char *const DEFAULT_MODULE;
// Whether a job's child writes to the launcher's own standard output and
// error (and its log) when it runs alone; otherwise its lines always come
// back through pipes and the launcher shows and logs them.
extern const bool CHILD_SHARES_CONSOLE;
// The help's paragraph on the stop signals.
extern const char *const STOP_HELP;

// Standard output line-buffered even into a pipe or a file, so that what
// the closed libraries print with C stdio keeps its place among the console
// lines; lines end with a line feed alone on every platform.
void prepare_output();

// The directory of the running launcher.
std::string launcher_directory();
// The path separator that ends a directory name ("/", or "\\" too).
bool separator(char c);
int current_pid();
std::string host_name();
// The calendar parts of `time` in UTC.
std::tm utc_parts(std::time_t time);
// Seconds since the epoch of "YYYY-MM-DDTHH:MM:SSZ"; -1 when it is not one.
std::int64_t epoch_of(const std::string &utc);
// Whether a program of that id runs on this machine.
bool process_alive(std::int64_t pid);
void set_environment(const char *name, const char *value);
bool change_directory(const std::string &directory);

// Why `file` (present) cannot be opened for appending ("" when it can);
// a FIFO is never waited for.
std::string append_problem(const std::string &file);
// Why a new file cannot be made in `directory` ("" when it can); the probe
// is removed at once.
std::string create_problem(const std::string &directory);

// The module loaded by path, or null with the loader's reason in `error`.
void *load_module(const std::string &path, std::string &error);
void *find_symbol(void *module, const std::string &name);

// In a job's child: a crash ends the program at once (no error box, no
// debugger waiting for a person), so that the launcher sees how it ended.
void end_on_crash();

// Stop signals (SIGTERM, SIGINT, SIGHUP; Ctrl-C, Ctrl-Break and the
// console's close on Windows): from now on they are caught, and the one
// received is told by stop_signal() (0 while none). They also end a
// wait_readable() at once.
void catch_stop_signals();
int stop_signal();
bool is_stop_signal(int signal);
// "signal N (name)", as the run's lines tell how a program ended.
std::string signal_text(int signal);

// The processors the launcher may use.
std::vector<int> processors();

// What is readable among `ends` (data, or the writer's end), after at most
// `milliseconds` (negative: no bound); `ready[i]` tells it of `ends[i]`
// (NO_PIPE never is). Ends early when a stop signal arrives.
void wait_readable(const std::vector<Pipe> &ends, int milliseconds, std::vector<bool> &ready);
// Bytes read into `buffer`: more than 0, 0 at the writer's end, negative
// when interrupted (read again later).
long read_some(Pipe end, char *buffer, std::size_t size);
void close_pipe(Pipe &end);
// One message on the event channel, in one write (it arrives whole).
void write_message(Pipe channel, const void *data, std::size_t size);

// The child's own output capture: standard output (`stream` 1) or error
// (2) of this program and of every program it starts pointed at a new
// pipe, whose read end is returned (NO_PIPE when none could be made).
Pipe capture_standard(int stream);
// The console writes to copies of the present standard output and error.
void console_to_standard();
// Standard output and error pointed at the null device.
void release_standard();

// How a job's child ended: its exit status, or the signal (the exception
// on Windows) that ended it.
struct ENDING {
    bool mSignalled = false;
    int mCode = 0;
};

// A job's child as the launcher holds it.
struct CHILD {
    std::intptr_t mId = -1;    // the process id (POSIX) or handle (Windows)
    std::intptr_t mGroup = -1; // the job object that holds its programs (Windows)
    Pipe mChannel = NO_PIPE;   // its events
    Pipe mOutput[2] = {NO_PIPE, NO_PIPE}; // its standard output and error, with `capture`
};

// What starting a job's child takes: with `capture`, its standard output
// and error come back through pipes; `cpus`, when not empty, the
// processors it may use. On POSIX the child is this program forked, and
// runs `body` with the channel's write end; on Windows it is the launcher
// started again in `directory` with its own command line and
// " --child <child_argument> <channel handle>".
struct CHILD_START {
    bool mCapture = false;
    std::vector<int> mCpus;
    std::string mDirectory;
    std::string mChildArgument;
    std::function<int(Pipe)> mBody;
};
CHILD start_child(const CHILD_START &start);
// Ends the child with every program it started.
void kill_child(const CHILD &child);
// Passes the launcher's stop signal on to the child's programs.
void signal_child(const CHILD &child, int signal);
// Waits for the child; after `grace` seconds (negative: no end) it is
// killed with its programs.
ENDING wait_child(const CHILD &child, double grace);
void release_child(CHILD &child);

// The child's side of the event channel, from its command-line form.
Pipe channel_of(const std::string &text);

} // namespace ZARN::Host::Platform
