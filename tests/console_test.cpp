// The console service: lines on standard output, colours on a terminal, the
// rotated log, concurrent writers, the standard-stream logger, time texts.
#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_runtime.h"
#include "ZARN_Common/STLStreamLogger.h"

#include "support.h"

#include <fcntl.h>
#ifndef _WIN32
#include <poll.h>
#endif

#include <iostream>
#include <optional>
#include <regex>
#include <thread>
#include <tuple>

namespace {

using namespace zarn_test;
using Logged = std::vector<std::pair<std::string, std::string>>;

#ifdef _WIN32
constexpr int WRITE_FLAGS = O_WRONLY | O_CREAT | O_TRUNC | O_BINARY;
// The handle behind a descriptor, which the Windows console writes to.
std::intptr_t native(int fd) { return ::_get_osfhandle(fd); }
#else
constexpr int WRITE_FLAGS = O_WRONLY | O_CREAT | O_TRUNC;
std::intptr_t native(int fd) { return fd; }
#endif

// Tag and message of each line of the log in `dir`; empty texts for a malformed line.
Logged log_of(const TempDir &dir) {
    static const std::regex form(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\]\[([A-Z]+)\] : (.*))");
    Logged logged;
    std::smatch m;
    for (const auto &line : lines_of(read_file(dir / "console.log")))
        logged.emplace_back(std::regex_match(line, m, form) ? Logged::value_type(m[1], m[2]) : Logged::value_type());
    return logged;
}

TEST(Console, LevelTagsAttributesAndColours) {
    using enum ORN::ConsoleLevel;
    using S = ORN::ConsoleService;
    const std::tuple<ORN::ConsoleLevel, const char *, int, const char *> table[] = {
        {Print, "PRINT", 7, ""}, {Fatal, "FATAL", 9, "\x1b[94m"}, {Error, "ERROR", 12, "\x1b[91m"}, {Warn, "WARN", 14, "\x1b[93m"},
        {Info, "INFO", 10, "\x1b[92m"}, {Debug, "DEBUG", 11, "\x1b[96m"}, {Verbose, "VERBOSE", 15, "\x1b[97m"}};
    for (const auto &[level, tag, attribute, colour] : table) {
        EXPECT_EQ(S::tag(level), tag);
        EXPECT_EQ(S::attribute(level), attribute) << tag;
        EXPECT_EQ(S::ansi_colour(attribute), colour) << tag;
    }
}

TEST(Console, WithoutLogOnlyPlainLinesReachStandardOutput) {
    ORN::ConsoleService service;
    EXPECT_EQ(capture_stdout([&] {
                  service.print("print ", 1);
                  service.fatal("fatal ", 2.5);
                  service.error("error ", -3, ' ', true);
                  service.warn(std::string("warn"));
                  service.info("info ", 0.1, " ", 1e300);
                  service.debug("debug");
                  service.verbose();
                  service.write_log_file("INFO", "ignored without a log");
              }),
              "print 1\nfatal 2.5\nerror -3 true\nwarn\ninfo 0.1 1e+300\ndebug\n\n");
}

TEST(Console, ColoursOnlyOnATerminalWithoutNoColor) {
#ifdef _WIN32
    GTEST_SKIP() << "POSIX only: pseudo-terminals";
#else
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0)
        GTEST_SKIP() << "no pseudo-terminal available";
    ASSERT_TRUE(::grantpt(master) == 0 && ::unlockpt(master) == 0);
    const int slave = ::open(::ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0);
    // What the terminal receives while `f` writes to standard output.
    const auto shown = [&](const std::function<void()> &f) {
        std::fflush(stdout);
        const int saved = ::dup(STDOUT_FILENO);
        ::dup2(slave, STDOUT_FILENO);
        f();
        std::fflush(stdout);
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
        std::string out;
        char buffer[256];
        pollfd p{master, POLLIN, 0};
        for (ssize_t n; ::poll(&p, 1, 200) > 0 && (n = ::read(master, buffer, sizeof(buffer))) > 0;)
            out.append(buffer, std::size_t(n));
        return out;
    };
    ORN::ConsoleService service;
    const char *env = std::getenv("NO_COLOR");
    const std::optional<std::string> saved = env ? std::optional<std::string>(env) : std::nullopt;
    ::unsetenv("NO_COLOR");
    // The terminal turns "\n" into "\r\n".
    EXPECT_EQ(shown([&] {
                  service.info("green");
                  service.print("grey");
              }),
              "\x1b[92mgreen\x1b[0m\r\ngrey\r\n");
    ::setenv("NO_COLOR", "1", 1);
    EXPECT_EQ(shown([&] { service.warn("plain"); }), "plain\r\n");
    saved ? ::setenv("NO_COLOR", saved->c_str(), 1) : ::unsetenv("NO_COLOR");
    ::close(slave);
    ::close(master);
#endif
}

// What the service writes to descriptors 1 and 2 while `f` runs, apart.
std::pair<std::string, std::string> streams_of(const std::function<void()> &f) {
    TempDir dir;
    std::fflush(nullptr);
    int saved[2];
    for (int fd : {1, 2}) {
        saved[fd - 1] = ::dup(fd);
        const int sink = ::open((dir / std::to_string(fd)).c_str(), WRITE_FLAGS, 0600);
        ::dup2(sink, fd);
        ::close(sink);
    }
    const auto follow = [] {
#ifdef _WIN32
        ::SetStdHandle(STD_OUTPUT_HANDLE, reinterpret_cast<HANDLE>(native(1)));
        ::SetStdHandle(STD_ERROR_HANDLE, reinterpret_cast<HANDLE>(native(2)));
#endif
    };
    follow();
    f();
    std::fflush(nullptr);
    for (int fd : {1, 2}) {
        ::dup2(saved[fd - 1], fd);
        ::close(saved[fd - 1]);
    }
    follow();
    return {read_file(dir / "1"), read_file(dir / "2")};
}

TEST(Console, FatalAndErrorLinesGoToStandardErrorTheOthersToStandardOutput) {
    ORN::ConsoleService service;
    const auto [out, err] = streams_of([&] {
        service.info("one");
        service.error("two");
        service.print("three");
        service.fatal("four");
        service.warn("five");
    });
    EXPECT_EQ(out, "one\nthree\nfive\n");
    EXPECT_EQ(err, "two\nfour\n");
}

TEST(Console, RedirectedLinesGoToCopiesOfTheGivenDescriptors) {
    TempDir dir;
    const int out = ::open((dir / "out").c_str(), WRITE_FLAGS, 0600);
    const int err = ::open((dir / "err").c_str(), WRITE_FLAGS, 0600);
    ORN::ConsoleService service;
    service.redirect(native(out), native(err));
    ::close(out);
    ::close(err); // the service keeps copies
    const auto [shown, shown_err] = streams_of([&] {
        service.info("to the file");
        service.error("to the error file");
    });
    EXPECT_EQ(shown + shown_err, "");
    EXPECT_EQ(read_file(dir / "out"), "to the file\n");
    EXPECT_EQ(read_file(dir / "err"), "to the error file\n");
}

TEST(ConsoleLog, ControlBytesAreWrittenOutOnTheScreenAndInTheLog) {
    TempDir dir;
    ORN::ConsoleService service;
    const std::string forged = "plan\n[ERROR] forged\r\x1b[2J\t\x01\x7f end \xc3\xa9";
    const std::string escaped = "plan\\n[ERROR] forged\\r\\x1b[2J\\t\\x01\\x7f end \xc3\xa9";
    const std::string out = capture_stdout([&] {
        service.attach_log(dir.str());
        service.info(forged);
        service.write_log_file("DEBUG", forged);
        auto progress = service.progress(forged + " : ", 1);
        progress.advance();
        progress.finish();
        service.detach_log();
    });
    EXPECT_EQ(out, escaped + "\n" + escaped + " : 1/1 100%" + out.substr(out.rfind(" 100%") + 5));
    const Logged logged = log_of(dir);
    ASSERT_EQ(logged.size(), 3u) << read_file(dir / "console.log");
    EXPECT_EQ(logged[0], Logged::value_type("INFO", escaped));
    EXPECT_EQ(logged[1], Logged::value_type("DEBUG", escaped));
    EXPECT_TRUE(starts_with(logged[2].second, escaped + " : 1/1 100%")) << logged[2].second;
}

TEST(ConsoleLog, RotationKeepsOneGenerationAndFormatsLines) {
    TempDir dir;
    write_file(dir / "console.log", "previous run\n");
    write_file(dir / "console.old.log", "run before that\n");
    ORN::ConsoleService service;
    EXPECT_EQ(capture_stdout([&] {
                  service.attach_log(dir.str());
                  service.info("msg");
                  service.fatal("n = ", 42);
                  service.write_log_file("VERBOSE", "direct");
                  service.detach_log();
                  service.warn("after detach");
              }),
              "msg\nn = 42\nafter detach\n");
    EXPECT_EQ(read_file(dir / "console.old.log"), "previous run\n");
    EXPECT_EQ(log_of(dir), (Logged{{"INFO", "msg"}, {"FATAL", "n = 42"}, {"VERBOSE", "direct"}}));
    // A second attach rotates this run's log in turn; a missing directory is created.
    service.attach_log(dir / "sub/logs");
    service.attach_log(dir.str());
    service.detach_log();
    EXPECT_EQ(lines_of(read_file(dir / "console.old.log")).size(), 3u);
    EXPECT_EQ(read_file(dir / "console.log"), "");
    EXPECT_TRUE(fs::is_regular_file(dir / "sub/logs/console.log"));
}

TEST(ConsoleLog, ALogThatCannotBeOpenedFailsAfterSayingWhyAndTheConsoleGoesOn) {
    TempDir dir;
    fs::create_directories(dir / "logs/console.log");
    write_file(dir / "file", "x");
    ORN::ConsoleService service;
    service.attach_log(dir.str());
    for (const std::string &bad : {dir / "logs", dir / "file"}) {
        std::string text;
        // The failure is reported through the same service: it used to wait
        // for its own mutex for ever.
        const std::string said = capture_stdout([&] { text = failure_of([&] { service.attach_log(bad); }); });
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : ")) << text;
        EXPECT_TRUE(starts_with(said, "open : " + (fs::path(bad) / "console.log").make_preferred().string() + " : ")) << said;
        EXPECT_FALSE(service.log_attached());
    }
    EXPECT_EQ(capture_stdout([&] { service.info("still here"); }), "still here\n");
    EXPECT_TRUE(fs::is_directory(dir / "logs/console.log"));
}

TEST(ConsoleLog, ConcurrentWritersProduceWholeLinesInPerThreadOrder) {
    TempDir dir;
    ORN::ConsoleService service;
    constexpr int kThreads = 8, kLines = 400;
    const auto out = lines_of(capture_stdout([&] {
        service.attach_log(dir.str());
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                for (int i = 0; i < kLines; ++i)
                    service.info("thread ", t, " line ", i, ' ', std::string(100, '.'));
            });
        for (auto &th : threads)
            th.join();
        service.detach_log();
    }));
    ASSERT_EQ(out.size(), std::size_t(kThreads * kLines));
    const std::regex whole(R"(thread (\d+) line (\d+) \.{100})");
    std::vector<int> next(kThreads, 0);
    Logged expected;
    for (const auto &line : out) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, whole)) << line;
        EXPECT_EQ(std::stoi(m[2]), next[std::stoi(m[1])]++);
        expected.emplace_back("INFO", line);
    }
    // The log holds the same whole lines in the console's order.
    EXPECT_EQ(log_of(dir), expected);
}

TEST(ConsoleStreams, LoggerRoutesCoutAndCerrAndRestoresThem) {
    TempDir dir;
    ORN::ConsoleService service;
    std::streambuf *const cout_buffer = std::cout.rdbuf();
    std::streambuf *const cerr_buffer = std::cerr.rdbuf();
    EXPECT_EQ(capture_stdout([&] {
                  service.attach_log(dir.str());
                  {
                      ZARN::STLStreamLogger logger(service);
                      std::cout << "from cout " << 42 << std::endl;
                      std::cerr << "err " << 1 << "\r\n"; // cerr flushes after each part: still one line
                      std::cout << "two\nlines\n" << "partial";
                      std::cout.setstate(std::ios::badbit);
                  }
                  service.detach_log();
                  std::cout << "after" << std::endl;
              }),
              "from cout 42\nerr 1\ntwo\nlines\npartial\nafter\n");
    EXPECT_TRUE(std::cout.rdbuf() == cout_buffer && std::cerr.rdbuf() == cerr_buffer && std::cout.good());
    EXPECT_EQ(log_of(dir), (Logged{{"PRINT", "from cout 42"}, {"ERROR", "err 1"}, {"PRINT", "two"}, {"PRINT", "lines"},
                                   {"PRINT", "partial"}}));
}

TEST(ConsoleTime, DurationAndTimePointTexts) {
    using namespace std::chrono;
    const std::pair<long, const char *> durations[] = {
        {12, "0.012 s"}, {1234, "1.234 s"}, {123456, "2 min 03.456 s"}, {3723456, "1 h 02 min 03.456 s"}, {-1500, "-1.500 s"}};
    for (const auto &[ms, text] : durations)
        EXPECT_EQ(ORN::Duration(milliseconds(ms)).text(), text);

    const ORN::TimePoint a = ORN::TimePoint::now(), b = a + ORN::Duration(seconds(2));
    EXPECT_EQ((b - a).milliseconds(), 2000);
    EXPECT_LT(a.text(), b.text());
}

} // namespace
