// The console service: levels, log rotation and the log lines are shared by
// every platform; the POSIX console follows at the end. The Windows console
// is in orn_debugger_windows.cpp.

#include "orn_debugger.h"

#include "orn_debugger_platform.h"
#include "orn_filesystem.h"
#include "orn_runtime.h"

#include <mutex>

namespace ORN {

namespace platform = ::ORN::Private::ConsolePlatform;

class ConsoleService::Abstract : public Interface {
public:
    virtual void write(ConsoleLevel level, const String<char> &message) = 0;
    virtual void show() = 0;
    virtual void attach_log(const String<char> &directory) = 0;
    virtual void detach_log() = 0;
    virtual bool log_attached() const = 0;
    virtual String<char> log_directory() const = 0;
    virtual void write_log_file(std::string_view tag, std::string_view message) = 0;
    virtual void pause() = 0;
    virtual void clear() = 0;
    virtual void set_screen_level(ConsoleLevel level) = 0;
};

class ConsoleService::Private::Implement final : public ConsoleService::Abstract {
public:
    // A line asked for while this thread is already writing one (a failing
    // log write that reports itself) is dropped instead of deadlocking.
    void write(ConsoleLevel level, const String<char> &message) override {
        if (tWriting)
            return;
        const Writing guard;
        const std::lock_guard<std::mutex> lock(mMutex);
        if (level <= mScreenLevel) {
            show_locked();
            platform::write_line(mConsole, ConsoleService::attribute(level), message);
        }
        write_log_locked(ConsoleService::tag(level), message);
    }

    void set_screen_level(ConsoleLevel level) override {
        const std::lock_guard<std::mutex> lock(mMutex);
        mScreenLevel = level;
    }

    void show() override {
        const std::lock_guard<std::mutex> lock(mMutex);
        show_locked();
    }

    void attach_log(const String<char> &directory) override {
        const std::lock_guard<std::mutex> lock(mMutex);
        mLog = StreamLoader();
        mLogDirectory.clear();
        if (!directory.empty() && !FileSystemProc::find_directory(directory))
            FileSystemProc::build_directory(directory);
        const String<char> r1x = FileSystemProc::join_path(directory, "console.old.log");
        const String<char> r2x = FileSystemProc::join_path(directory, "console.log");
        FileSystemProc::erase_file(r1x);
        if (FileSystemProc::find_file(r2x))
            FileSystemProc::move_file(r2x, r1x);
        mLog = StreamLoader::open_write(r2x);
        mLogDirectory = directory;
    }

    void detach_log() override {
        const std::lock_guard<std::mutex> lock(mMutex);
        mLog = StreamLoader();
        mLogDirectory.clear();
    }

    bool log_attached() const override {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mLog.exist();
    }

    String<char> log_directory() const override {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mLogDirectory;
    }

    void write_log_file(std::string_view tag, std::string_view message) override {
        if (tWriting)
            return;
        const Writing guard;
        const std::lock_guard<std::mutex> lock(mMutex);
        write_log_locked(tag, message);
    }

    void pause() override {
        void *console = nullptr;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            show_locked();
            console = mConsole;
            platform::attention(console);
        }
        platform::wait_key(console);
    }

    void clear() override {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mConsole != nullptr)
            platform::clear(mConsole);
    }

private:
    // Marks the thread as writing a line for as long as it lives.
    static thread_local bool tWriting;
    struct Writing {
        Writing() noexcept { tWriting = true; }
        ~Writing() { tWriting = false; }
    };

    void show_locked() {
        if (mConsole == nullptr)
            mConsole = platform::open();
    }

    // The whole line is built first and leaves in one write, so a reader of
    // the log never sees half a line; a failed write loses only that line.
    void write_log_locked(std::string_view tag, std::string_view message) noexcept {
        if (!mLog.exist())
            return;
        try_run([&] {
            mWriter.clear();
            mWriter << '[' << TimePoint::now().text() << "][" << tag << "] : " << message << '\n';
            mLog.write(mWriter.text().data(), mWriter.size());
        });
    }

    mutable std::mutex mMutex;
    ConsoleLevel mScreenLevel = ConsoleLevel::Verbose;
    void *mConsole = nullptr;
    String<char> mLogDirectory;
    StreamLoader mLog;
    TextWriter mWriter;
};

thread_local bool ConsoleService::Private::Implement::tWriting = false;

void Private::report_escaped(const char *text) noexcept {
    try_run([&] { console().error(text != nullptr ? text : "unknown exception"); });
}

ConsoleService::ConsoleService() : mThis(std::make_shared<Private::Implement>()) {}

String<char> ConsoleService::ansi_colour(int attribute) {
    if (attribute == 7)
        return {};
    // Console bits: 1 blue, 2 green, 4 red; ANSI colour numbers: 1 red,
    // 2 green, 4 blue. The bright bit selects the 90-97 range.
    const int colour = ((attribute & 1) ? 4 : 0) | (attribute & 2) | ((attribute & 4) ? 1 : 0);
    const int code = ((attribute & 8) ? 90 : 30) + colour;
    return "\x1b[" + std::to_string(code) + "m";
}

void ConsoleService::write(ConsoleLevel level, const String<char> &message) { mThis->write(level, message); }
void ConsoleService::show() { mThis->show(); }
void ConsoleService::attach_log(const String<char> &directory) { mThis->attach_log(directory); }
void ConsoleService::detach_log() { mThis->detach_log(); }
bool ConsoleService::log_attached() const { return mThis->log_attached(); }
String<char> ConsoleService::log_directory() const { return mThis->log_directory(); }
void ConsoleService::write_log_file(std::string_view tag, std::string_view message) { mThis->write_log_file(tag, message); }
void ConsoleService::pause() { mThis->pause(); }
void ConsoleService::clear() { mThis->clear(); }
void ConsoleService::set_screen_level(ConsoleLevel level) { mThis->set_screen_level(level); }

// Never destroyed: lines printed from other statics' destructors still work.
// Log lines reach the file with each write, so nothing is left to flush.
template <>
ConsoleService &GlobalStatic<Singleton<ConsoleService>>::instance() {
    static ConsoleService *const object = new ConsoleService();
    return *object;
}

ConsoleService &console() { return GlobalStatic<Singleton<ConsoleService>>::instance(); }

} // namespace ORN

// ===========================================================================
// POSIX console: standard output.
#ifndef _WIN32

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace ORN::Private::ConsolePlatform {

namespace {

std::FILE *stream_of(void *handle) noexcept { return handle ? static_cast<std::FILE *>(handle) : stdout; }

bool is_terminal(std::FILE *out) noexcept { return ::isatty(::fileno(out)) != 0; }

bool use_colour(std::FILE *out) noexcept { return std::getenv("NO_COLOR") == nullptr && is_terminal(out); }

void put(std::FILE *out, std::string_view text) noexcept {
    std::fwrite(text.data(), 1, text.size(), out);
    std::fflush(out);
}

} // namespace

void *open() { return stdout; }

void write_line(void *handle, int attribute, std::string_view text) {
    std::FILE *out = stream_of(handle);
    // Kept per thread: separate services have separate mutexes.
    thread_local String<char> line;
    line.clear();
    const String<char> colour = use_colour(out) ? ConsoleService::ansi_colour(attribute) : String<char>();
    line.append(colour);
    line.append(text);
    if (!colour.empty())
        line.append("\x1b[0m");
    line.push_back('\n');
    put(out, line);
}

void attention(void *handle) {
    std::FILE *out = stream_of(handle);
    if (is_terminal(out))
        put(out, use_colour(out) ? std::string_view("\a\x1b[0m") : std::string_view("\a"));
}

void wait_key(void *handle) {
    std::FILE *out = stream_of(handle);
    if (!::isatty(STDIN_FILENO) || !is_terminal(out))
        return;
    put(out, "Press Enter to continue . . . ");
    char c = 0;
    for (;;) {
        const ssize_t n = ::read(STDIN_FILENO, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || c == '\n')
            break;
    }
}

void clear(void *handle) {
    std::FILE *out = stream_of(handle);
    if (!is_terminal(out))
        return;
    std::fflush(out);
    (void)std::system("clear");
}

} // namespace ORN::Private::ConsolePlatform

#endif // !_WIN32
