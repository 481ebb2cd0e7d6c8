#pragma once

// Helpers only the Windows form's tests need, beside the shared ones of
// support.h: a file's volume and index, and the output written to the
// standard handles (which a child started with inherited handles shares).

#include "../support.h"

#include <functional>
#include <string>

namespace zarn_test {

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

} // namespace zarn_test
