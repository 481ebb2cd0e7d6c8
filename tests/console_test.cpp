// The console service: lines on standard output, colours on a terminal, the
// rotated log, concurrent writers, the standard-stream logger, time texts.
#include "__ORN__/orn_core.h"
#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_runtime.h"
#include "ZARN_Common/STLStreamLogger.h"

#include "support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace zarn_test;

// Sends file descriptor 1 to another file for the life of the object.
class Redirect {
public:
    explicit Redirect(int fd) {
        std::fflush(stdout);
        mSaved = ::dup(STDOUT_FILENO);
        ::dup2(fd, STDOUT_FILENO);
    }
    ~Redirect() {
        std::fflush(stdout);
        ::dup2(mSaved, STDOUT_FILENO);
        ::close(mSaved);
    }

private:
    int mSaved;
};

// Standard output captured into a file.
class CaptureStdout {
public:
    explicit CaptureStdout(const std::string &path)
        : mPath(path), mFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644)), mRedirect(mFd) {}
    ~CaptureStdout() { ::close(mFd); }
    std::string text() const {
        std::fflush(stdout);
        return read_file(mPath);
    }

private:
    std::string mPath;
    int mFd;
    Redirect mRedirect;
};

const std::regex kLogLine(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\]\[([A-Z]+)\] : (.*))");

// Tag and message of a log line, or empty texts when it is malformed.
std::pair<std::string, std::string> parse_log_line(const std::string &line) {
    std::smatch m;
    if (!std::regex_match(line, m, kLogLine))
        return {};
    return {m[1], m[2]};
}

TEST(Console, OneProcessWideServiceInsideTheCoreLibrary) {
    ORN::ConsoleService &a = ORN::GlobalStatic<ORN::Singleton<ORN::ConsoleService>>::instance();
    EXPECT_EQ(&a, &ORN::console());
}

TEST(Console, LevelTagsAttributesAndColours) {
    using L = ORN::ConsoleLevel;
    const std::pair<L, std::pair<const char *, int>> table[] = {
        {L::Print, {"PRINT", 7}}, {L::Fatal, {"FATAL", 9}},  {L::Error, {"ERROR", 12}},     {L::Warn, {"WARN", 14}},
        {L::Info, {"INFO", 10}},  {L::Debug, {"DEBUG", 11}}, {L::Verbose, {"VERBOSE", 15}},
    };
    for (const auto &[level, expected] : table) {
        EXPECT_EQ(ORN::ConsoleService::tag(level), expected.first);
        EXPECT_EQ(ORN::ConsoleService::attribute(level), expected.second);
    }
    // Fatal is bright blue, not red.
    EXPECT_EQ(ORN::ConsoleService::ansi_colour(9), "\x1b[94m");
    EXPECT_EQ(ORN::ConsoleService::ansi_colour(12), "\x1b[91m");
    EXPECT_EQ(ORN::ConsoleService::ansi_colour(14), "\x1b[93m");
    EXPECT_EQ(ORN::ConsoleService::ansi_colour(10), "\x1b[92m");
    EXPECT_EQ(ORN::ConsoleService::ansi_colour(11), "\x1b[96m");
    EXPECT_EQ(ORN::ConsoleService::ansi_colour(15), "\x1b[97m");
    EXPECT_EQ(ORN::ConsoleService::ansi_colour(7), "");
}

TEST(Console, WithoutLogOnlyPlainLinesReachStandardOutput) {
    TempDir dir;
    ORN::ConsoleService service;
    std::string text;
    {
        CaptureStdout capture(dir / "stdout");
        service.print("print ", 1);
        service.fatal("fatal ", 2.5);
        service.error("error ", -3, ' ', true);
        service.warn(std::string("warn"));
        service.info("info ", 0.1, " ", 1e300);
        service.debug("debug");
        service.verbose();
        service.write_log_file("INFO", "ignored without a log");
        text = capture.text();
    }
    EXPECT_EQ(text, "print 1\nfatal 2.5\nerror -3 true\nwarn\ninfo 0.1 1e+300\ndebug\n\n");
    EXPECT_FALSE(service.log_attached());
    // Nothing but the captured output was written anywhere.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.str()), {}), 1);
}

TEST(Console, ColoursOnlyOnATerminalWithoutNoColor) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0)
        GTEST_SKIP() << "no pseudo-terminal available";
    ASSERT_EQ(::grantpt(master), 0);
    ASSERT_EQ(::unlockpt(master), 0);
    const int slave = ::open(::ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0);
    const auto drain = [&] {
        std::string out;
        char buffer[256];
        pollfd p{master, POLLIN, 0};
        while (::poll(&p, 1, 200) > 0) {
            const ssize_t n = ::read(master, buffer, sizeof(buffer));
            if (n <= 0)
                break;
            out.append(buffer, static_cast<std::size_t>(n));
        }
        return out;
    };
    ORN::ConsoleService service;
    const char *saved = std::getenv("NO_COLOR");
    const std::string saved_value = saved ? saved : "";
    ::unsetenv("NO_COLOR");
    std::string coloured, plain;
    {
        Redirect to_terminal(slave);
        service.fatal("blue");
        service.print("grey");
        coloured = drain();
        ::setenv("NO_COLOR", "1", 1);
        service.error("plain");
        plain = drain();
    }
    if (saved)
        ::setenv("NO_COLOR", saved_value.c_str(), 1);
    else
        ::unsetenv("NO_COLOR");
    ::close(slave);
    ::close(master);
    // The terminal turns "\n" into "\r\n".
    EXPECT_EQ(coloured, "\x1b[94mblue\x1b[0m\r\ngrey\r\n");
    EXPECT_EQ(plain, "plain\r\n");
}

TEST(ConsoleLog, RotationKeepsOneGenerationAndFormatsLines) {
    TempDir dir;
    write_file(dir / "console.log", "previous run\n");
    write_file(dir / "console.old.log", "run before that\n");
    ORN::ConsoleService service;
    {
        CaptureStdout capture(dir / "stdout");
        service.attach_log(dir.str());
        EXPECT_TRUE(service.log_attached());
        EXPECT_EQ(service.log_directory(), dir.str());
        EXPECT_EQ(read_file(dir / "console.log"), "");
        service.info("msg");
        service.fatal("n = ", 42);
        service.write_log_file("VERBOSE", "direct");
        service.detach_log();
        service.warn("after detach");
        EXPECT_EQ(capture.text(), "msg\nn = 42\nafter detach\n");
    }
    EXPECT_FALSE(service.log_attached());
    EXPECT_EQ(read_file(dir / "console.old.log"), "previous run\n");
    const auto lines = lines_of(read_file(dir / "console.log"));
    ASSERT_EQ(lines.size(), 3u) << read_file(dir / "console.log");
    EXPECT_EQ(parse_log_line(lines[0]), std::make_pair(std::string("INFO"), std::string("msg"))) << lines[0];
    EXPECT_EQ(parse_log_line(lines[1]), std::make_pair(std::string("FATAL"), std::string("n = 42"))) << lines[1];
    EXPECT_EQ(parse_log_line(lines[2]), std::make_pair(std::string("VERBOSE"), std::string("direct"))) << lines[2];
    EXPECT_EQ(lines[0].rfind("[", 0), 0u);
    EXPECT_NE(lines[0].find("][INFO] : msg"), std::string::npos);

    // A second attach rotates this run's log in turn; a missing directory is
    // created.
    service.attach_log(dir / "sub/logs");
    service.attach_log(dir.str());
    service.detach_log();
    EXPECT_EQ(lines_of(read_file(dir / "console.old.log")).size(), 3u);
    EXPECT_EQ(read_file(dir / "console.log"), "");
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "sub/logs/console.log"));
}

TEST(ConsoleLog, ConcurrentWritersProduceWholeLinesInPerThreadOrder) {
    TempDir dir;
    ORN::ConsoleService service;
    constexpr int kThreads = 8;
    constexpr int kLines = 400;
    const std::string padding(100, '.');
    std::string out;
    {
        CaptureStdout capture(dir / "stdout");
        service.attach_log(dir.str());
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                for (int i = 0; i < kLines; ++i)
                    service.info("thread ", t, " line ", i, ' ', padding);
            });
        for (auto &th : threads)
            th.join();
        service.detach_log();
        out = capture.text();
    }
    const std::regex whole(R"(thread (\d+) line (\d+) \.{100})");
    const auto check = [&](const std::vector<std::string> &messages) {
        ASSERT_EQ(messages.size(), std::size_t(kThreads * kLines));
        std::vector<int> next(kThreads, 0);
        for (const auto &m : messages) {
            std::smatch match;
            ASSERT_TRUE(std::regex_match(m, match, whole)) << m;
            const int t = std::stoi(match[1]);
            EXPECT_EQ(std::stoi(match[2]), next[t]++);
        }
    };
    check(lines_of(out));
    std::vector<std::string> logged;
    for (const auto &line : lines_of(read_file(dir / "console.log"))) {
        const auto [tag, message] = parse_log_line(line);
        EXPECT_EQ(tag, "INFO") << line;
        logged.push_back(message);
    }
    check(logged);
    // The log keeps the console's order.
    EXPECT_EQ(logged, lines_of(out));
}

TEST(ConsoleStreams, LoggerRoutesCoutAndCerrAndRestoresThem) {
    TempDir dir;
    ORN::ConsoleService service;
    std::streambuf *const cout_buffer = std::cout.rdbuf();
    std::streambuf *const cerr_buffer = std::cerr.rdbuf();
    std::string out;
    {
        CaptureStdout capture(dir / "stdout");
        service.attach_log(dir.str());
        {
            ZARN::STLStreamLogger logger(service);
            EXPECT_NE(std::cout.rdbuf(), cout_buffer);
            std::cout << "from cout " << 42 << std::endl;
            std::cerr << "err " << 1 << "\r\n"; // cerr flushes after each part: still one line
            std::cout << "two\nlines\n";
            std::cout << "partial";
            std::cout.setstate(std::ios::badbit);
        }
        EXPECT_EQ(std::cout.rdbuf(), cout_buffer);
        EXPECT_EQ(std::cerr.rdbuf(), cerr_buffer);
        EXPECT_TRUE(std::cout.good());
        service.detach_log();
        std::cout << "after" << std::endl;
        out = capture.text();
    }
    EXPECT_EQ(out, "from cout 42\nerr 1\ntwo\nlines\npartial\nafter\n");
    std::vector<std::pair<std::string, std::string>> logged;
    for (const auto &line : lines_of(read_file(dir / "console.log")))
        logged.push_back(parse_log_line(line));
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"PRINT", "from cout 42"}, {"ERROR", "err 1"}, {"PRINT", "two"}, {"PRINT", "lines"}, {"PRINT", "partial"}};
    EXPECT_EQ(logged, expected);
}

TEST(ConsoleTime, DurationAndTimePointTexts) {
    using ORN::Duration;
    using namespace std::chrono;
    EXPECT_EQ(Duration(milliseconds(12)).text(), "0.012 s");
    EXPECT_EQ(Duration(milliseconds(1234)).text(), "1.234 s");
    EXPECT_EQ(Duration(milliseconds(123456)).text(), "2 min 03.456 s");
    EXPECT_EQ(Duration(milliseconds(3723456)).text(), "1 h 02 min 03.456 s");
    EXPECT_EQ(Duration(milliseconds(-1500)).text(), "-1.500 s");

    const ORN::TimePoint a = ORN::TimePoint::now();
    std::this_thread::sleep_for(milliseconds(20));
    const ORN::TimePoint b = ORN::TimePoint::now();
    EXPECT_GE((b - a).milliseconds(), 20);
    EXPECT_GT(b.tick(), a.tick());
    EXPECT_TRUE(std::regex_match(a.text(), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})"))) << a.text();
    EXPECT_LT(a.text(), b.text());
    EXPECT_EQ((a + Duration(seconds(2))).text().substr(0, 4), a.text().substr(0, 4));
}

} // namespace
