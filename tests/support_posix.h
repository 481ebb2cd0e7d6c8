#pragma once

// Helpers of the tests that need POSIX: shell command lines, child
// processes, address space limits. Included by support.h on POSIX systems;
// a case that needs them is skipped on Windows.

#include "support.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>

namespace zarn_test {

// Shell-quoted word.
inline std::string quote(const std::string &word) {
    std::string q = "'";
    for (char c : word)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

struct RunResult {
    int status = -1;    // exit status
    std::string output; // standard output and standard error together
};

// For a child that checks a cost: its address space may grow by `bytes`
// beyond what it holds now, and no further.
inline void limit_address_space_growth(long long bytes) {
    std::ifstream status("/proc/self/status");
    long long size = 0;
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmSize:", 0) == 0)
            size = std::stoll(line.substr(7)) * 1024;
    const rlimit limit{rlim_t(size + bytes), rlim_t(size + bytes)};
    ::setrlimit(RLIMIT_AS, &limit);
}

// Runs `work` in a child process and returns the text it gives back, or
// "ended by signal N" when the child does not end by itself (a crash, an
// alarm, the kernel's refusal of memory): a cost or a crash is checked
// without putting the test program at risk.
inline std::string in_child(const std::function<std::string()> &work) {
    int ends[2];
    if (::pipe(ends) != 0)
        return "no pipe";
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        const std::string text = work();
        [[maybe_unused]] const auto n = ::write(ends[1], text.data(), text.size());
        ::_exit(0);
    }
    ::close(ends[1]);
    std::string text;
    char buffer[512];
    for (ssize_t n; (n = ::read(ends[0], buffer, sizeof(buffer))) > 0;)
        text.append(buffer, static_cast<std::size_t>(n));
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status))
        return "ended by signal " + std::to_string(WTERMSIG(status));
    return text;
}

// Runs a shell command line and collects its output (standard error too,
// of every command of the line) and exit status.
inline RunResult run(const std::string &command) {
    RunResult r;
    FILE *pipe = ::popen(("{ " + command + "\n} 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return r;
    char buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0)
        r.output.append(buffer, n);
    const int raw = ::pclose(pipe);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return r;
}

} // namespace zarn_test
