#pragma once

// Helpers shared by the tests that work on real directories and programs,
// on Linux and on Windows alike. What needs POSIX (child processes, shell
// command lines) is in support_posix.h, included here on POSIX systems.

#include <gtest/gtest.h>

#ifdef _WIN32
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <io.h>
#else
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace zarn_test {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes. Names below it are given with the
// platform's separator (`dir / "a/b"` is "...\\a\\b" on Windows), as the
// core library writes them in its messages.
class TempDir {
public:
    TempDir() {
#ifdef _WIN32
        for (unsigned n = ::GetTickCount() ^ ::GetCurrentProcessId();; ++n) {
            mPath = fs::temp_directory_path() / ("zarn-test-" + std::to_string(n));
            if (fs::create_directory(mPath))
                break;
        }
#else
        std::string pattern = (fs::temp_directory_path() / "zarn-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        mPath = pattern;
#endif
    }
    TempDir(const TempDir &) = delete;
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(mPath, ec);
    }
    const fs::path &path() const { return mPath; }
    std::string str() const { return mPath.string(); }
    std::string operator/(const std::string &name) const { return (mPath / name).make_preferred().string(); }

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

// The file's identity: equal for two names of one file (hard links), 0
// when there is no file. The inode on POSIX, the file index on Windows.
using FileId = std::uint64_t;
inline FileId inode_of(const fs::path &path) {
#ifdef _WIN32
    const HANDLE h = ::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                   nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return 0;
    BY_HANDLE_FILE_INFORMATION info{};
    const bool ok = ::GetFileInformationByHandle(h, &info) != FALSE;
    ::CloseHandle(h);
    return ok ? (FileId(info.nFileIndexHigh) << 32 | info.nFileIndexLow) : 0;
#else
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
#endif
}

// Every regular file under a directory: relative name -> identity.
inline std::map<std::string, FileId> tree(const fs::path &root) {
    std::map<std::string, FileId> files;
    if (fs::exists(root))
        for (const auto &e : fs::recursive_directory_iterator(root))
            if (e.is_regular_file())
                files[fs::relative(e.path(), root).generic_string()] = inode_of(e.path());
    return files;
}

// What `f` writes to standard output and standard error (file descriptors
// 1 and 2, in the order written: the console's error lines go to the
// latter) while it runs. On Windows the standard handles, where the
// console writes, follow the descriptors.
inline std::string capture_stdout(const std::function<void()> &f) {
    std::fflush(stdout);
    std::fflush(stderr);
    TempDir dir;
    const std::string file = dir / "stdout";
    const int saved = ::dup(1), saved_error = ::dup(2);
    FILE *sink = std::fopen(file.c_str(), "wb");
    const auto redirect = [](int out, int error) {
        ::dup2(out, 1);
        ::dup2(error, 2);
#ifdef _WIN32
        ::SetStdHandle(STD_OUTPUT_HANDLE, reinterpret_cast<HANDLE>(::_get_osfhandle(1)));
        ::SetStdHandle(STD_ERROR_HANDLE, reinterpret_cast<HANDLE>(::_get_osfhandle(2)));
#endif
    };
    redirect(fileno(sink), fileno(sink));
    const auto restore = [&] {
        std::fflush(stdout);
        std::fflush(stderr);
        redirect(saved, saved_error);
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

// Sets a variable of the process's environment, or removes it (null).
inline void set_environment(const char *name, const char *value) {
#ifdef _WIN32
    ::_putenv_s(name, value != nullptr ? value : "");
    ::SetEnvironmentVariableA(name, value);
#else
    value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
#endif
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

#ifndef _WIN32
#include "support_posix.h"
#endif
