#pragma once

// Helpers shared by the tests that work on real directories and programs.

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace zarn_test {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
class TempDir {
public:
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "zarn-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        mPath = pattern;
    }
    TempDir(const TempDir &) = delete;
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(mPath, ec);
    }
    const fs::path &path() const { return mPath; }
    std::string str() const { return mPath.string(); }
    std::string operator/(const std::string &name) const { return (mPath / name).string(); }

private:
    fs::path mPath;
};

inline void write_file(const fs::path &path, const std::string &text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string read_file(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

inline ino_t inode_of(const fs::path &path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Every regular file under a directory: relative name -> inode.
inline std::map<std::string, ino_t> tree(const fs::path &root) {
    std::map<std::string, ino_t> files;
    if (fs::exists(root))
        for (const auto &e : fs::recursive_directory_iterator(root))
            if (e.is_regular_file())
                files[fs::relative(e.path(), root).generic_string()] = inode_of(e.path());
    return files;
}

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

// What `f` writes to standard output and standard error (file descriptors
// 1 and 2, in the order written: the console's error lines go to the
// latter) while it runs.
inline std::string capture_stdout(const std::function<void()> &f) {
    std::fflush(stdout);
    std::fflush(stderr);
    TempDir dir;
    const std::string file = dir / "stdout";
    const int saved = ::dup(1), saved_error = ::dup(2);
    FILE *sink = std::fopen(file.c_str(), "w");
    ::dup2(fileno(sink), 1);
    ::dup2(fileno(sink), 2);
    const auto restore = [&] {
        std::fflush(stdout);
        std::fflush(stderr);
        ::dup2(saved, 1);
        ::dup2(saved_error, 2);
        ::close(saved);
        ::close(saved_error);
        std::fclose(sink);
    };
    try {
        f();
    } catch (...) {
        restore();
        throw;
    }
    restore();
    return read_file(file);
}

// The lines of a text, without their line feeds.
inline std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The text of the exception `f` throws, or "" when it throws none.
template <class F>
std::string failure_of(F &&f) {
    try {
        f();
    } catch (const std::exception &e) {
        return e.what();
    }
    return "";
}

inline bool starts_with(const std::string &text, const std::string &prefix) { return text.rfind(prefix, 0) == 0; }
inline bool contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

} // namespace zarn_test
