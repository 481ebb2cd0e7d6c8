#pragma once

// Small helpers of the benchmarks that run the launcher and the generator
// as a user would: quoting for sh, running a command, timing, reading files.

#include "__ORN__/orn_runtime.h"

#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

namespace bench_support {

// One word for sh, whatever it holds.
inline std::string quote(const std::string &word) {
    return std::string(ORN::GlobalRuntime::quote_argument(word).c_str());
}

// Runs a shell command; its exit status (128 when a signal ended it) and
// its output, both streams.
inline std::pair<int, std::string> shell_output(const std::string &command) {
    FILE *pipe = ::popen(("{ " + command + "\n} 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return {127, "popen failed"};
    std::string out;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;)
        out.append(buffer, n);
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128, out};
}

inline double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline std::string read_text(const std::filesystem::path &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace bench_support
