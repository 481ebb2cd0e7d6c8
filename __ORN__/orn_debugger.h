#pragma once

// The console and log service: every line the system prints goes through the
// one ConsoleService of the program, `ORN::console()`.
//
// A level operation writes the message and a line feed to standard output
// as one write (one fwrite and one fflush of the whole line), and, while a log
// is attached, appends "[" time "][" TAG "] : " message "\n" to its
// "console.log" with one write, the time being TimePoint::now().text()
// ("2026-11-21 15:30:12.345"). One mutex covers both, so lines of several
// threads never interleave and the log keeps the console's order.
//
// Colours: ANSI sequences derived from the level's console attribute (the
// Windows console colour code: bit 0 blue, bit 1 green, bit 2 red, bit 3
// bright), emitted only when standard output is a terminal and NO_COLOR is
// not set in the environment. Both are checked on every line, so redirecting
// the output at run time takes effect at once. Attribute 7, the console's
// default light grey, is written without any sequence. On Windows the
// attribute is set on the console itself for the text of the line.
//
// A log line that cannot be written is dropped: level operations never
// throw because of the log.
//
// Fatal and error lines go to standard error, the others to standard output.
// Control bytes in a message (C0 and DEL) are written out as "\n", "\r",
// "\t" or "\xHH" on the screen and in the log alike, so that a text taken
// from a job cannot forge a line or move the cursor.

#include "orn_basic.h"
#include "orn_core.h"
#include "orn_stream.h"

#include <cstdint>
#include <string_view>

namespace ORN {

class JobDirectory;

class ConsoleProgress;

enum class ConsoleLevel : int { Print, Fatal, Error, Warn, Info, Debug, Verbose };

class ORN_API ConsoleService {
public:
    class Abstract;
    struct Private {
        class Implement;
    };

    // Level tags and console attributes; fatal is bright blue on purpose.
    static constexpr std::string_view tag(ConsoleLevel level) noexcept {
        constexpr std::string_view tags[] = {"PRINT", "FATAL", "ERROR", "WARN", "INFO", "DEBUG", "VERBOSE"};
        return tags[static_cast<int>(level)];
    }
    static constexpr int attribute(ConsoleLevel level) noexcept {
        constexpr int attributes[] = {7, 9, 12, 14, 10, 11, 15};
        return attributes[static_cast<int>(level)];
    }
    // The ANSI sequence that starts a line of the given console attribute;
    // empty for the default attribute 7.
    static String<char> ansi_colour(int attribute);

    // Message built from any number of parts: texts as they are, numbers in
    // their shortest decimal form.
    template <class... A>
    static String<char> compose(const A &...parts) {
        TextWriter writer;
        ((void)(writer << parts), ...);
        return std::move(writer).text();
    }

    // A new service with no console shown and no log attached. The program's
    // own service is `console()`; others serve tests.
    ConsoleService();

    void write(ConsoleLevel level, const String<char> &message);

    void print(const String<char> &message) { write(ConsoleLevel::Print, message); }
    void fatal(const String<char> &message) { write(ConsoleLevel::Fatal, message); }
    void error(const String<char> &message) { write(ConsoleLevel::Error, message); }
    void warn(const String<char> &message) { write(ConsoleLevel::Warn, message); }
    void info(const String<char> &message) { write(ConsoleLevel::Info, message); }
    void debug(const String<char> &message) { write(ConsoleLevel::Debug, message); }
    void verbose(const String<char> &message) { write(ConsoleLevel::Verbose, message); }

    template <class... A>
    void print(const A &...parts) { print(compose(parts...)); }
    template <class... A>
    void fatal(const A &...parts) { fatal(compose(parts...)); }
    template <class... A>
    void error(const A &...parts) { error(compose(parts...)); }
    template <class... A>
    void warn(const A &...parts) { warn(compose(parts...)); }
    template <class... A>
    void info(const A &...parts) { info(compose(parts...)); }
    template <class... A>
    void debug(const A &...parts) { debug(compose(parts...)); }
    template <class... A>
    void verbose(const A &...parts) { verbose(compose(parts...)); }

    // Lines of levels more detailed than `level` (in the order print, fatal,
    // error, warn, info, debug, verbose) go to the log only. All levels are
    // shown until this is called; the launcher keeps debug and verbose lines
    // (each node's name, the time report) off the screen unless asked.
    void set_screen_level(ConsoleLevel level);

    // Makes sure a console exists and keeps its output handle (standard
    // output on POSIX). Level operations do this themselves when needed.
    void show();

    // From now on the console's own lines go to copies of the descriptors
    // `out` and `err` (descriptors on POSIX, handles on Windows), so that the
    // standard descriptors can be pointed elsewhere (a pipe that feeds what
    // others print back into the service) without the service reading its
    // own lines.
    void redirect(std::intptr_t out, std::intptr_t err);

    // From now on `listener` is called with the level and the text (control
    // bytes written out) of every line a level operation writes, shown or
    // not, right after it is written and under the service's mutex, so in
    // the console's order; a line the listener writes itself is dropped. An
    // empty function ends it. The launcher learns a job's build stamp and
    // failure lines this way.
    void listen(Function<void(ConsoleLevel, std::string_view)> listener);

    // Rotates the log of the directory and opens a new one: "console.log"
    // (if present) is renamed over "console.old.log", and "console.log" is
    // opened for appending. The directory is created when missing. The log
    // is a regular file opened without following a link: a link or a FIFO
    // named "console.log" is refused ("open : <path> : <reason>").
    // A log attached before is closed first.
    void attach_log(const String<char> &directory);
    // The same for a log folder inside a job (e.g. "caches/logs"), reached
    // like every name of the job: no link on the way is followed, and the
    // missing folders are made as real directories.
    void attach_log(const JobDirectory &job, std::string_view directory);
    // Closes the log; later lines go to the console only.
    void detach_log();
    bool log_attached() const;
    // The attached log directory; empty while none is attached.
    String<char> log_directory() const;

    // Appends one "[" time "][" tag "] : " message line to the attached log
    // (nothing without a log). Failures are swallowed.
    void write_log_file(std::string_view tag, std::string_view message);

    // Draws attention to the console, restores the default attribute and
    // waits for a key: on Windows the window flashes and "pause" runs; on
    // POSIX the terminal bell rings and the Enter key is awaited, returning at
    // once when standard input or standard output is not a terminal. Other
    // threads keep printing while it waits.
    void pause();
    // Clears the console when there is one: "cls" on Windows, "clear" on
    // POSIX (only when standard output is a terminal).
    void clear();

    // A progress report over `total` items, headed by `heading` (which ends
    // with its own separator, as in "image stitch : "); see ConsoleProgress.
    ConsoleProgress progress(std::string_view heading, INDEX total);

private:
    StrongRef<Abstract> mThis;
};

// The progress line of a long loop, e.g. `auto progress =
// console().progress("image stitch : ", total);`, then `progress.advance()`
// once per item from any thread, and `progress.finish()` at the end.
//
// The line is the heading, "done/total", the percentage, the rate in items
// per second (two decimals) and the estimated time left in seconds (one
// decimal), all separated by single spaces:
//
//     image stitch : 7/20 35% 2.41/s 5.4 s left
//
// The rate is items done over the time since the report was made. Rate and
// time left are left out while nothing is done: "image stitch : 0/20 0%".
//
// Where the line goes, at info level (the info colour, the screen level of
// the service applies):
// - Standard output a terminal: one line redrawn in place (a carriage
//   return, the text, spaces over what is left of the previous text), at
//   most ten times a second and at every tenth; finish() ends it with a line
//   feed. A console line printed meanwhile goes above it: the progress line
//   is wiped, the other line written, the progress line drawn again below.
//   Several reports at once share that one line.
// - Standard output not a terminal: one line per completed tenth, 10%, 20%,
//   ..., 100%, each exactly once and in order, even when one advance
//   completes several tenths. On such a line the percentage is the tenth
//   and the count is the number done when the line was written.
// - The log: those same tenth lines, always, tagged INFO.
// finish() writes the tenth lines still due and then the 100% line if it
// has not been written yet; with total 0 that is "heading 0/0 100%".
// Dropping a report without finish() ends the terminal line where it
// stands and writes nothing more.
//
// advance() is one atomic addition in the common case; it takes a lock only
// to write a line.
class ORN_API ConsoleProgress {
public:
    struct Private {
        class Implement;
    };

    ConsoleProgress(ConsoleProgress &&) noexcept;
    ConsoleProgress &operator=(ConsoleProgress &&) noexcept;
    ~ConsoleProgress();

    // Counts `count` more items done; asserts that no more than the total
    // are done. Thread-safe.
    void advance(INDEX count = 1);
    // Ends the report (see above); later calls do nothing.
    void finish();

    INDEX done() const;
    INDEX total() const;

    // The text of one line: `percent` is shown as given, the rate and time
    // left are derived from `done`, `total` and the elapsed `seconds`.
    static String<char> text(std::string_view heading, INDEX done, INDEX total, INDEX percent, double seconds);

private:
    friend class ConsoleService;
    explicit ConsoleProgress(AutoRef<Private::Implement> self) noexcept;

    AutoRef<Private::Implement> mThis;
};

} // namespace ORN
