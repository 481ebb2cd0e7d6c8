#pragma once

// What the commands of the launcher `zarn` share: exit statuses, usage
// errors, the process order and the handling of working directories.

#include "host/platform.h"

#include <array>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

namespace ZARN::Host {

constexpr int EXIT_DONE = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

// Reported as "zarn: <reason>" with exit status 2.
struct UsageError {
    std::string reason;
};

constexpr std::array<std::string_view, 9> PROCESS_ORDER = {
    "CalibMainProcess",  "StitchMainProcess", "StereoRotStitchMainProcess", "ImageROIProcess",     "ImageFilterProcess",
    "VeldaMainProcess",  "VeldaMeshProcess",  "VideoTransferProcess",       "VideoROIProcess",
};

inline bool known_process(std::string_view name) {
    for (auto p : PROCESS_ORDER)
        if (p == name)
            return true;
    return false;
}

// Absolute and lexically normal, without a trailing separator.
inline std::string absolute_path(const std::string &path) {
    const std::filesystem::path full = std::filesystem::absolute(std::filesystem::path(path)).lexically_normal();
    std::string p = full.string();
    while (p.size() > full.root_path().string().size() && p.size() > 1 && Platform::separator(p.back()))
        p.pop_back();
    return p;
}

// The working directory made absolute; one that is missing or not a
// directory is a usage error.
inline std::string working_directory(const std::string &w) {
    namespace fs = std::filesystem;
    std::string path = absolute_path(w);
    std::error_code ec;
    const auto type = fs::status(path, ec).type();
    if (type == fs::file_type::not_found)
        throw UsageError{"working directory " + path + " does not exist"};
    if (type != fs::file_type::directory)
        throw UsageError{"working directory " + path + " is not a directory"};
    return path;
}

// The directory of the running launcher.
inline std::string launcher_directory() { return Platform::launcher_directory(); }

} // namespace ZARN::Host
