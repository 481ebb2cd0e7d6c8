// The console service: levels, log rotation and the log lines are shared by
// every platform; the POSIX console follows at the end. The Windows console
// is in orn_debugger_windows.cpp.

#include "orn_debugger.h"

#include "orn_debugger_platform.h"
#include "orn_filesystem.h"
#include "orn_runtime.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <mutex>

namespace ORN {

namespace platform = ::ORN::Private::ConsolePlatform;

class ConsoleService::Abstract : public Interface {
public:
    virtual void write(ConsoleLevel level, const String<char> &message) = 0;
    virtual void show() = 0;
    virtual void attach_log(const JobDirectory &base, std::string_view directory) = 0;
    virtual void detach_log() = 0;
    virtual bool log_attached() const = 0;
    virtual String<char> log_directory() const = 0;
    virtual void write_log_file(std::string_view tag, std::string_view message) = 0;
    virtual void pause() = 0;
    virtual void clear() = 0;
    virtual void set_screen_level(ConsoleLevel level) = 0;
    virtual void redirect(std::intptr_t out, std::intptr_t err) = 0;
    virtual void listen(Function<void(ConsoleLevel, std::string_view)> listener) = 0;
    // One line of the progress report `owner`: a tenth line goes to the log
    // and to the screen, any line is drawn in place on a terminal.
    virtual void write_progress(const void *owner, std::string_view text, bool tenth) = 0;
    // Ends the terminal line of `owner`, if it is the one drawn in place.
    virtual void end_progress(const void *owner) = 0;
};

class ConsoleService::Private::Implement final : public ConsoleService::Abstract {
public:
    // A line asked for while this thread is already writing one (a failing
    // log write that reports itself) is dropped instead of deadlocking.
    // Fatal and error lines go to standard error.
    void write(ConsoleLevel level, const String<char> &message) override {
        if (tWriting)
            return;
        const Writing guard;
        const std::string_view text = escaped(message);
        const std::lock_guard<std::mutex> lock(mMutex);
        if (level <= mScreenLevel) {
            show_locked();
            screen_line_locked(ConsoleService::attribute(level), text, level == ConsoleLevel::Fatal || level == ConsoleLevel::Error);
        }
        write_log_locked(ConsoleService::tag(level), text);
        if (mListener.exist())
            mListener(level, text);
    }

    void listen(Function<void(ConsoleLevel, std::string_view)> listener) override {
        const std::lock_guard<std::mutex> lock(mMutex);
        mListener = std::move(listener);
    }

    void redirect(std::intptr_t out, std::intptr_t err) override {
        const std::lock_guard<std::mutex> lock(mMutex);
        std::fflush(nullptr);
        mConsole = platform::open_descriptors(out, err);
    }

    void set_screen_level(ConsoleLevel level) override {
        const std::lock_guard<std::mutex> lock(mMutex);
        mScreenLevel = level;
    }

    void show() override {
        const std::lock_guard<std::mutex> lock(mMutex);
        show_locked();
    }

    // The files are rotated and opened without the mutex: a failing file
    // operation reports itself on the console (which takes the mutex) before
    // its assertion leaves. The previous log is closed first, so the report
    // of a failure reaches the screen only.
    // The log is rotated by a rename inside the one real directory reached
    // without links, and opened there as a regular file.
    void attach_log(const JobDirectory &base, std::string_view directory) override {
        detach_log();
        const String<char> r1x = directory.empty() ? String<char>("console.log")
                                                   : FileSystemProc::join_path(String<char>(directory), "console.log");
        StreamLoader log = base.append_file(r1x, "console.old.log");
        const std::lock_guard<std::mutex> lock(mMutex);
        mLog = std::move(log);
        mLogDirectory = directory.empty() ? base.root() : base.path(directory);
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
        const std::string_view text = escaped(message);
        const std::lock_guard<std::mutex> lock(mMutex);
        write_log_locked(tag, text);
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

    void write_progress(const void *owner, std::string_view line, bool tenth) override {
        if (tWriting)
            return;
        const Writing guard;
        const std::string_view text = escaped(line);
        const std::lock_guard<std::mutex> lock(mMutex);
        if (tenth)
            write_log_locked(ConsoleService::tag(ConsoleLevel::Info), text);
        if (ConsoleLevel::Info > mScreenLevel)
            return;
        show_locked();
        if (platform::on_terminal(mConsole)) {
            mProgressOwner = owner;
            mProgress.assign(text);
            draw_progress_locked();
        } else if (tenth) {
            screen_line_locked(ConsoleService::attribute(ConsoleLevel::Info), text, false);
        }
    }

    void end_progress(const void *owner) override {
        if (tWriting)
            return;
        const Writing guard;
        const std::lock_guard<std::mutex> lock(mMutex);
        if (owner == nullptr || mProgressOwner != owner)
            return;
        mProgressOwner = nullptr;
        mProgress.clear();
        mProgressWidth = 0;
        platform::write_partial(mConsole, 7, "\n");
    }

private:
    // Marks the thread as writing a line for as long as it lives.
    static thread_local bool tWriting;

    // The message with its control bytes (C0, DEL) written out, so that a
    // name taken from a job cannot start a line of its own, move the cursor
    // or change colours: line feed, carriage return and tab as "\n", "\r",
    // "\t", the others as "\xHH". The console's own colour sequences and
    // redraws are added afterwards, by the platform. A message without such
    // bytes is passed on as it is.
    static std::string_view escaped(std::string_view message) {
        const auto control = [](unsigned char c) { return c < 0x20 || c == 0x7f; };
        if (std::none_of(message.begin(), message.end(), [&](char c) { return control(static_cast<unsigned char>(c)); }))
            return message;
        thread_local String<char> text;
        text.clear();
        for (const char ch : message) {
            const auto c = static_cast<unsigned char>(ch);
            if (!control(c)) {
                text.push_back(ch);
                continue;
            }
            text.push_back('\\');
            if (c == '\n' || c == '\r' || c == '\t') {
                text.push_back(c == '\n' ? 'n' : c == '\r' ? 'r' : 't');
                continue;
            }
            constexpr char digits[] = "0123456789abcdef";
            text.push_back('x');
            text.push_back(digits[c >> 4]);
            text.push_back(digits[c & 15]);
        }
        return text;
    }
    struct Writing {
        Writing() noexcept { tWriting = true; }
        ~Writing() { tWriting = false; }
    };

    void show_locked() {
        if (mConsole == nullptr)
            mConsole = platform::open();
    }

    // A whole line on the screen. A progress line drawn in place is wiped
    // first and drawn again below, so the two never share a line.
    void screen_line_locked(int attribute, std::string_view text, bool error) {
        if (mProgressOwner != nullptr) {
            mDrawing.clear();
            mDrawing.push_back('\r');
            mDrawing.append(static_cast<std::size_t>(mProgressWidth), ' ');
            mDrawing.push_back('\r');
            platform::write_partial(mConsole, 7, mDrawing);
            mProgressWidth = 0;
        }
        platform::write_line(mConsole, attribute, text, error);
        if (mProgressOwner != nullptr)
            draw_progress_locked();
    }

    // Back to the start of the line, the progress text, and spaces over the
    // rest of the text drawn before.
    void draw_progress_locked() {
        mDrawing.clear();
        mDrawing.push_back('\r');
        mDrawing.append(mProgress);
        if (mProgressWidth > static_cast<INDEX>(mProgress.size()))
            mDrawing.append(static_cast<std::size_t>(mProgressWidth) - mProgress.size(), ' ');
        mProgressWidth = static_cast<INDEX>(mProgress.size());
        platform::write_partial(mConsole, ConsoleService::attribute(ConsoleLevel::Info), mDrawing);
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
    Function<void(ConsoleLevel, std::string_view)> mListener;
    TextWriter mWriter;
    // The progress line drawn in place on the terminal, if any: its report,
    // its text and the width it covers on the screen.
    const void *mProgressOwner = nullptr;
    String<char> mProgress;
    INDEX mProgressWidth = 0;
    String<char> mDrawing;
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
void ConsoleService::attach_log(const String<char> &directory) {
    mThis->detach_log();
    if (!directory.empty() && !FileSystemProc::find_directory(directory))
        FileSystemProc::build_directory(directory);
    mThis->attach_log(JobDirectory(directory.empty() ? String<char>(".") : directory), {});
}
void ConsoleService::attach_log(const JobDirectory &job, std::string_view directory) { mThis->attach_log(job, directory); }
void ConsoleService::detach_log() { mThis->detach_log(); }
bool ConsoleService::log_attached() const { return mThis->log_attached(); }
String<char> ConsoleService::log_directory() const { return mThis->log_directory(); }
void ConsoleService::write_log_file(std::string_view tag, std::string_view message) { mThis->write_log_file(tag, message); }
void ConsoleService::pause() { mThis->pause(); }
void ConsoleService::clear() { mThis->clear(); }
void ConsoleService::set_screen_level(ConsoleLevel level) { mThis->set_screen_level(level); }
void ConsoleService::redirect(std::intptr_t out, std::intptr_t err) { mThis->redirect(out, err); }
void ConsoleService::listen(Function<void(ConsoleLevel, std::string_view)> listener) { mThis->listen(std::move(listener)); }

// ---------------------------------------------------------------------------
// Progress reports. The count is one atomic; a line is written only when an
// advance completes a tenth or the in-place line is due for a redraw, and
// then under the report's mutex, which keeps the lines in order. Lock order:
// the report's mutex, then the service's.

class ConsoleProgress::Private::Implement {
public:
    Implement(StrongRef<ConsoleService::Abstract> service, std::string_view heading, INDEX total)
        : mService(std::move(service)), mHeading(heading), mTotal(total) {
        _DYNAMIC_ASSERT_(total >= 0);
        // Shown at once on a terminal; nothing elsewhere.
        mService->write_progress(this, ConsoleProgress::text(mHeading, 0, mTotal, 0, 0.0), false);
    }
    Implement(const Implement &) = delete;
    Implement &operator=(const Implement &) = delete;
    ~Implement() {
        try_run([&] { mService->end_progress(this); });
    }

    void advance(INDEX count) {
        _DYNAMIC_ASSERT_(count >= 0);
        const INDEX before = mDone.fetch_add(count, std::memory_order_relaxed);
        const INDEX done = before + count;
        _DYNAMIC_ASSERT_(done <= mTotal);
        if (tenth(done) > tenth(before)) {
            report();
            return;
        }
        const int64 now = TimePoint::now().tick();
        int64 due = mRedrawDue.load(std::memory_order_relaxed);
        if (now >= due && mRedrawDue.compare_exchange_strong(due, now + kRedrawPeriod, std::memory_order_relaxed))
            report();
    }

    void finish() {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mFinished)
            return;
        mFinished = true;
        const INDEX done = write_tenths_locked();
        if (mTenths < 10) {
            mTenths = 10;
            mService->write_progress(this, ConsoleProgress::text(mHeading, done, mTotal, 100, mStart.elapsed().seconds()), true);
        }
        mService->end_progress(this);
    }

    INDEX done() const noexcept { return mDone.load(std::memory_order_relaxed); }
    INDEX total() const noexcept { return mTotal; }

private:
    static constexpr int64 kRedrawPeriod = 100'000'000; // nanoseconds

    // Tenths completed by `done` items; 0 for an empty report, whose one
    // line finish() writes.
    int tenth(INDEX done) const noexcept {
        if (mTotal <= 0)
            return 0;
        const INDEX reached = done >= mTotal ? 10 : done * 10 / mTotal;
        return static_cast<int>(reached);
    }

    void report() {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mFinished)
            return;
        const int before = mTenths;
        const INDEX done = write_tenths_locked();
        if (mTenths == before) {
            const INDEX percent = mTotal > 0 ? std::min<INDEX>(done, mTotal) * 100 / mTotal : 100;
            mService->write_progress(this, ConsoleProgress::text(mHeading, done, mTotal, percent, mStart.elapsed().seconds()), false);
        }
    }

    // Writes one line when tenths were completed since the last one (several
    // tenths completed at once make one line, with the true percentage);
    // yields the count it shows.
    INDEX write_tenths_locked() {
        const INDEX done = mDone.load(std::memory_order_relaxed);
        const int reached = tenth(done);
        if (mTenths >= reached)
            return done;
        mTenths = reached;
        const INDEX percent = std::min<INDEX>(done, mTotal) * 100 / mTotal;
        mService->write_progress(this, ConsoleProgress::text(mHeading, done, mTotal, percent, mStart.elapsed().seconds()),
                                 true);
        return done;
    }

    const StrongRef<ConsoleService::Abstract> mService;
    const String<char> mHeading;
    const INDEX mTotal;
    const TimePoint mStart = TimePoint::now();
    std::atomic<INDEX> mDone{0};
    std::atomic<int64> mRedrawDue{0};
    std::mutex mMutex;
    int mTenths = 0; // tenth lines written
    bool mFinished = false;
};

ConsoleProgress ConsoleService::progress(std::string_view heading, INDEX total) {
    return ConsoleProgress(AutoRef<ConsoleProgress::Private::Implement>::make(mThis, heading, total));
}

ConsoleProgress::ConsoleProgress(AutoRef<Private::Implement> self) noexcept : mThis(std::move(self)) {}
ConsoleProgress::ConsoleProgress(ConsoleProgress &&) noexcept = default;
ConsoleProgress &ConsoleProgress::operator=(ConsoleProgress &&) noexcept = default;
ConsoleProgress::~ConsoleProgress() = default;

void ConsoleProgress::advance(INDEX count) { mThis->advance(count); }
void ConsoleProgress::finish() { mThis->finish(); }
INDEX ConsoleProgress::done() const { return mThis->done(); }
INDEX ConsoleProgress::total() const { return mThis->total(); }

String<char> ConsoleProgress::text(std::string_view heading, INDEX done, INDEX total, INDEX percent, double seconds) {
    // Fixed-point text with the given decimals; no locale is involved.
    const auto fixed = [](TextWriter &writer, double value, int decimals) {
        char buffer[400]; // room for any finite double
        const auto r = std::to_chars(buffer, buffer + sizeof(buffer), value, std::chars_format::fixed, decimals);
        writer << std::string_view(buffer, r.ec == std::errc() ? static_cast<std::size_t>(r.ptr - buffer) : 0);
    };
    TextWriter writer;
    writer << heading << done << '/' << total << ' ' << percent << '%';
    if (done > 0 && seconds > 0.0) {
        const double rate = static_cast<double>(done) / seconds;
        writer << ' ';
        fixed(writer, rate, 2);
        writer << "/s ";
        fixed(writer, static_cast<double>(total > done ? total - done : 0) / rate, 1);
        writer << " s left";
    }
    return std::move(writer).text();
}

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

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace ORN::Private::ConsolePlatform {

namespace {

// Where the console's lines go: standard output and standard error, or
// copies of them kept while the standard descriptors point elsewhere.
struct OUTPUT {
    std::FILE *mOut;
    std::FILE *mErr;
};

OUTPUT &standard_output() noexcept {
    static OUTPUT output{stdout, stderr};
    return output;
}

std::FILE *stream_of(void *handle, bool error = false) noexcept {
    const OUTPUT &output = handle ? *static_cast<OUTPUT *>(handle) : standard_output();
    return error ? output.mErr : output.mOut;
}

bool is_terminal(std::FILE *out) noexcept { return ::isatty(::fileno(out)) != 0; }

bool use_colour(std::FILE *out) noexcept { return std::getenv("NO_COLOR") == nullptr && is_terminal(out); }

void put(std::FILE *out, std::string_view text) noexcept {
    std::fwrite(text.data(), 1, text.size(), out);
    std::fflush(out);
}

} // namespace

void *open() { return &standard_output(); }

// Kept for the rest of the program: lines of other threads may still be on
// their way through it.
void *open_descriptors(std::intptr_t out, std::intptr_t err) {
    std::FILE *o = ::fdopen(::fcntl(static_cast<int>(out), F_DUPFD_CLOEXEC, 3), "w");
    std::FILE *e = ::fdopen(::fcntl(static_cast<int>(err), F_DUPFD_CLOEXEC, 3), "w");
    if (o == nullptr || e == nullptr)
        return &standard_output();
    return new OUTPUT{o, e};
}

void write_line(void *handle, int attribute, std::string_view text, bool error) {
    std::FILE *out = stream_of(handle, error);
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

bool on_terminal(void *handle) { return is_terminal(stream_of(handle)); }

void write_partial(void *handle, int attribute, std::string_view text) {
    std::FILE *out = stream_of(handle);
    thread_local String<char> piece;
    piece.clear();
    const String<char> colour = use_colour(out) ? ConsoleService::ansi_colour(attribute) : String<char>();
    piece.append(colour);
    piece.append(text);
    if (!colour.empty())
        piece.append("\x1b[0m");
    put(out, piece);
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
