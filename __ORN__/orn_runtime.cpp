// Time texts (shared by every platform) and the POSIX form of system_exec;
// the Windows form of system_exec is in orn_runtime_windows.cpp.

#include "orn_runtime.h"

#include <atomic>
#include <cstdio>
#include <cstdint>
#include <ctime>

namespace ORN {

namespace {

// The wall clock and the monotonic clock read together once; later time
// points are shown as that wall time plus the monotonic distance.
struct ClockAnchor {
    TimePoint::Clock::time_point mTick = TimePoint::Clock::now();
    std::chrono::system_clock::time_point mWall = std::chrono::system_clock::now();
};

const ClockAnchor &anchor() noexcept {
    static const ClockAnchor value;
    return value;
}

bool local_calendar(std::time_t seconds, std::tm &out) noexcept {
#ifdef _WIN32
    return ::localtime_s(&out, &seconds) == 0;
#else
    return ::localtime_r(&seconds, &out) != nullptr;
#endif
}

} // namespace

String<char> Duration::text() const {
    int64 ms = milliseconds();
    const bool negative = ms < 0;
    if (negative)
        ms = -ms;
    const int64 hours = ms / 3600000;
    const int64 minutes = ms / 60000 % 60;
    const int64 seconds = ms / 1000 % 60;
    const int millis = static_cast<int>(ms % 1000);
    char text[96];
    const char *sign = negative ? "-" : "";
    if (hours > 0)
        std::snprintf(text, sizeof(text), "%s%lld h %02lld min %02lld.%03d s", sign, static_cast<long long>(hours),
                      static_cast<long long>(minutes), static_cast<long long>(seconds), millis);
    else if (minutes > 0)
        std::snprintf(text, sizeof(text), "%s%lld min %02lld.%03d s", sign, static_cast<long long>(minutes),
                      static_cast<long long>(seconds), millis);
    else
        std::snprintf(text, sizeof(text), "%s%lld.%03d s", sign, static_cast<long long>(seconds), millis);
    return text;
}

String<char> TimePoint::text() const {
    using namespace std::chrono;
    const ClockAnchor &base = anchor();
    const auto wall = base.mWall + duration_cast<system_clock::duration>(mTick - base.mTick);
    const int64 ms = duration_cast<milliseconds>(wall.time_since_epoch()).count();
    int64 whole = ms / 1000;
    int millis = static_cast<int>(ms % 1000);
    if (millis < 0) {
        millis += 1000;
        whole -= 1;
    }
    // The calendar part changes once a second; each thread keeps the last one
    // it formatted, so a burst of log lines costs one conversion per second.
    thread_local int64 cached_second = INT64_MIN;
    thread_local char cached_text[32] = {};
    if (whole != cached_second) {
        std::tm calendar{};
        if (!local_calendar(static_cast<std::time_t>(whole), calendar))
            calendar = std::tm{};
        std::strftime(cached_text, sizeof(cached_text), "%Y-%m-%d %H:%M:%S", &calendar);
        cached_second = whole;
    }
    String<char> text;
    text.reserve(23);
    text.append(cached_text).push_back('.');
    text.push_back(static_cast<char>('0' + millis / 100));
    text.push_back(static_cast<char>('0' + millis / 10 % 10));
    text.push_back(static_cast<char>('0' + millis % 10));
    return text;
}

namespace {
std::atomic<int64> gTimeLimit{0};
} // namespace

void GlobalRuntime::set_time_limit(int64 seconds) noexcept { gTimeLimit.store(seconds > 0 ? seconds : 0); }
int64 GlobalRuntime::time_limit() noexcept { return gTimeLimit.load(); }

} // namespace ORN

// ===========================================================================
// POSIX form.
#ifndef _WIN32

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

extern char **environ;

namespace ORN {

namespace {

INDEX decode_status(int status) noexcept {
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return VAR_NONE;
}

} // namespace

String<char> GlobalRuntime::utf8_to_native(std::string_view text) { return String<char>(text); }

String<char> GlobalRuntime::quote_argument(std::string_view word) {
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+:,@";
    if (!word.empty() && word.find_first_not_of(plain) == std::string_view::npos)
        return String<char>(word);
    String<char> quoted;
    quoted.reserve(word.size() + 2);
    quoted.push_back('\'');
    for (const char c : word) {
        if (c == '\'')
            quoted.append("'\\''");
        else
            quoted.push_back(c);
    }
    quoted.push_back('\'');
    return quoted;
}

// The child is started with posix_spawn rather than a bare fork so that a
// large, multi-threaded host does not have its address space duplicated. It
// inherits the current directory (the "." of the start) and no descriptors
// except the standard ones: every file this library opens is close-on-exec.
INDEX GlobalRuntime::system_exec(const String<char> &command) {
    if (::isatty(STDOUT_FILENO)) {
        std::fflush(nullptr);
        const int r1x = std::system(command.c_str());
        return r1x == -1 ? VAR_NONE : decode_status(r1x);
    }
    std::fflush(nullptr);
    char shell[] = "/bin/sh";
    char option[] = "-c";
    String<char> line = command;
    char *argv[] = {shell, option, line.data(), nullptr};
    pid_t r2x = -1;
    const bool r5x = ::posix_spawn(&r2x, shell, nullptr, nullptr, argv, environ) == 0;
    _DYNAMIC_ASSERT_(r5x);
    int status = 0;
    while (::waitpid(r2x, &status, 0) < 0) {
        if (errno != EINTR)
            return VAR_NONE;
    }
    return decode_status(status);
}

} // namespace ORN

#endif // !_WIN32
