#pragma once

// External commands and time measurement.
//
// Text forms:
// - Duration::text() is what follows "total time costs : ". Below a minute it
//   is seconds with milliseconds ("0.012 s", "1.234 s"); below an hour
//   minutes and zero-padded seconds ("2 min 03.456 s"); beyond that hours,
//   minutes and seconds ("1 h 02 min 03.456 s"). Negative durations carry a
//   leading '-'.
// - TimePoint::text() is the time stamp of console log lines: the monotonic
//   time point shown as local wall-clock time with milliseconds,
//   "2026-11-21 15:30:12.345". The wall clock is read once, when the clock is
//   first used, and every later time point is placed relative to it by the
//   monotonic counter, so stamps never go backwards even if the system clock
//   is adjusted while the process runs.

#include "orn_basic.h"

#include <chrono>
#include <string_view>

namespace ORN {

class Duration {
public:
    constexpr Duration() noexcept = default;
    constexpr explicit Duration(std::chrono::nanoseconds span) noexcept : mSpan(span) {}

    static constexpr Duration from_seconds(double seconds) noexcept {
        return Duration(std::chrono::nanoseconds(static_cast<int64>(seconds * 1e9)));
    }

    constexpr int64 nanoseconds() const noexcept { return mSpan.count(); }
    constexpr int64 milliseconds() const noexcept { return mSpan.count() / 1000000; }
    constexpr double seconds() const noexcept { return static_cast<double>(mSpan.count()) * 1e-9; }
    constexpr std::chrono::nanoseconds span() const noexcept { return mSpan; }

    String<char> text() const;

    friend constexpr Duration operator+(Duration a, Duration b) noexcept { return Duration(a.mSpan + b.mSpan); }
    friend constexpr Duration operator-(Duration a, Duration b) noexcept { return Duration(a.mSpan - b.mSpan); }
    friend constexpr auto operator<=>(Duration a, Duration b) noexcept = default;

private:
    std::chrono::nanoseconds mSpan{0};
};

class TimePoint {
public:
    using Clock = std::chrono::steady_clock;

    constexpr TimePoint() noexcept = default;
    constexpr explicit TimePoint(Clock::time_point tick) noexcept : mTick(tick) {}

    static TimePoint now() noexcept { return TimePoint(Clock::now()); }

    // The monotonic tick counter (nanoseconds of the steady clock).
    constexpr int64 tick() const noexcept { return std::chrono::duration_cast<std::chrono::nanoseconds>(mTick.time_since_epoch()).count(); }
    // Time elapsed from this point until now.
    Duration elapsed() const noexcept { return now() - *this; }

    // Local wall-clock text, "YYYY-MM-DD hh:mm:ss.mmm" (see above).
    String<char> text() const;

    friend constexpr Duration operator-(TimePoint a, TimePoint b) noexcept {
        return Duration(std::chrono::duration_cast<std::chrono::nanoseconds>(a.mTick - b.mTick));
    }
    friend constexpr TimePoint operator+(TimePoint a, Duration d) noexcept { return TimePoint(a.mTick + d.span()); }
    friend constexpr auto operator<=>(TimePoint a, TimePoint b) noexcept = default;

private:
    Clock::time_point mTick{};
};

class GlobalRuntime {
public:
    // Runs a command line through the platform's command interpreter and
    // waits for it without a time limit; returns its exit code.
    //
    // With a terminal on standard output the command goes to system() and
    // shares that terminal; otherwise it is started as a detached child
    // ("/bin/sh -c command" on POSIX) in the current directory, and starting
    // it must succeed ("r5x"). A command that the interpreter cannot find
    // yields 127; a child ended by signal N yields 128 + N, as shells report.
    static INDEX system_exec(const String<char> &command);

    // One argument for the command line that system_exec hands to the
    // platform's interpreter, quoted so that the interpreter passes it to
    // the program as exactly that one word, whatever it holds: nothing in it
    // is expanded, substituted, split or run.
    // - POSIX (/bin/sh): a word made only of letters, digits and
    //   "/._-+:,@" stays as it is; any other word, the empty one included,
    //   is single-quoted, each ' written as '\'' ("it's" -> 'it'\''s').
    //   Newlines and every other byte stay literal inside the quotes.
    // - Windows (cmd.exe, then the program's CreateProcess argument rules):
    //   the word in double quotes, a quote written as \", backslashes
    //   doubled where they precede a quote or the closing quote, and every
    //   character cmd.exe reads ( ( ) % ! ^ " < > & | ) preceded by ^. A
    //   command line cannot carry a line break there: a word holding a
    //   carriage return, a line feed or a zero byte is refused
    //   ("r1x").
    static String<char> quote_argument(std::string_view word);

    // UTF-8 text as the narrow strings of the system's "A" interfaces take
    // it. POSIX: the same bytes (the process never sets a locale, and the
    // libraries read their narrow arguments as UTF-8). Windows: through
    // UTF-16 into the active code page (GetACP), "caf\xc3\xa9" becoming
    // "caf\xe9" under 1252. Text that is not UTF-8, or that the code page
    // cannot carry (no character is replaced by a default one), fails after
    // "utf8_to_native : <text> : <reason>".
    static String<char> utf8_to_native(std::string_view text);

    // The time limit in seconds (0: none) that the process being run asks
    // for in its settings ("mProcessTimeLimit"), set by the process in its
    // initialize and read by the host that watches it. Not a limit by
    // itself: the host enforces it.
    static void set_time_limit(int64 seconds) noexcept;
    static int64 time_limit() noexcept;
};

} // namespace ORN
