#pragma once

// Helpers of the Windows form's tests: temporary directories, whole files,
// the console's output caught through the standard handles.

#include <gtest/gtest.h>

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace zarn_test {

namespace fs = std::filesystem;

// A fresh directory under the temporary directory, removed with everything
// in it when the object goes. Its path uses backslashes, as Windows gives.
class TempDir {
public:
    TempDir() {
        char base[MAX_PATH + 1] = {};
        ::GetTempPathA(MAX_PATH, base);
        for (unsigned n = ::GetTickCount() ^ ::GetCurrentProcessId();; ++n) {
            mPath = std::string(base) + "zarn-test-" + std::to_string(n);
            if (::CreateDirectoryA(mPath.c_str(), nullptr))
                break;
            if (::GetLastError() != ERROR_ALREADY_EXISTS)
                throw std::runtime_error("CreateDirectoryA failed for " + mPath);
        }
    }
    TempDir(const TempDir &) = delete;
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(mPath, ec);
    }
    const std::string &str() const { return mPath; }
    std::string operator/(const std::string &name) const { return mPath + "\\" + name; }

private:
    std::string mPath;
};

inline void write_file(const std::string &path, const std::string &text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Volume and file index: equal for two names of one file (hard links).
inline std::string file_identity(const std::string &path) {
    const HANDLE h = ::CreateFileA(path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                   nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return "";
    BY_HANDLE_FILE_INFORMATION info{};
    const bool ok = ::GetFileInformationByHandle(h, &info) != FALSE;
    ::CloseHandle(h);
    return ok ? std::to_string(info.dwVolumeSerialNumber) + ":" + std::to_string(info.nFileIndexHigh) + ":" +
                    std::to_string(info.nFileIndexLow)
              : "";
}

// What is written to the standard output and error handles (both pointed
// at one file) while `f` runs.
inline std::string capture_output(const std::function<void()> &f) {
    TempDir dir;
    const std::string file = dir / "output";
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    const HANDLE sink = ::CreateFileA(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                                      CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (sink == INVALID_HANDLE_VALUE)
        throw std::runtime_error("cannot create " + file);
    std::fflush(nullptr);
    const HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE), err = ::GetStdHandle(STD_ERROR_HANDLE);
    ::SetStdHandle(STD_OUTPUT_HANDLE, sink);
    ::SetStdHandle(STD_ERROR_HANDLE, sink);
    const auto restore = [&] {
        ::SetStdHandle(STD_OUTPUT_HANDLE, out);
        ::SetStdHandle(STD_ERROR_HANDLE, err);
        ::CloseHandle(sink);
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

inline std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

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
