#include "backend_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <fstream>
#include <mutex>

namespace zarn_backend {

namespace {

std::string_view environment(const char *name) {
    const char *value = std::getenv(name);
    return value ? std::string_view(value) : std::string_view();
}

// The items of a comma-separated list.
std::vector<std::string_view> items(std::string_view list) {
    std::vector<std::string_view> out;
    while (!list.empty()) {
        const auto comma = list.find(',');
        const std::string_view item = list.substr(0, comma);
        if (!item.empty())
            out.push_back(item);
        if (comma == std::string_view::npos)
            break;
        list.remove_prefix(comma + 1);
    }
    return out;
}

bool names(const char *variable, std::string_view entry) {
    for (std::string_view item : items(environment(variable)))
        if (item == entry)
            return true;
    return false;
}

std::string trace_argument(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            out.push_back('\\');
        out.push_back(c);
    }
    out.push_back('"');
    return out;
}

std::mutex gTraceMutex;

} // namespace

InjectedFault::InjectedFault(std::string_view entry)
    : std::runtime_error(std::string(entry) + " : injected fault") {}

void trace_call(std::string_view entry, const std::vector<std::string> &arguments) {
    const std::string_view file = environment("ZARN_BACKEND_TRACE");
    if (file.empty())
        return;
    std::string line(entry);
    for (const std::string &a : arguments) {
        line.push_back(' ');
        line += trace_argument(a);
    }
    line.push_back('\n');
    // One append of the whole line, so that lines of concurrent calls (and of
    // several processes sharing the file) never interleave.
    const std::lock_guard lock(gTraceMutex);
    const int fd = ::open(std::string(file).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    [[maybe_unused]] const ssize_t written = ::write(fd, line.data(), line.size());
    ::close(fd);
}

std::optional<int> injected_failure(std::string_view entry) {
    for (std::string_view item : items(environment("ZARN_BACKEND_FAIL"))) {
        const auto colon = item.rfind(':');
        if (colon == std::string_view::npos || item.substr(0, colon) != entry)
            continue;
        const std::string_view code = item.substr(colon + 1);
        int value = 0;
        const auto r = std::from_chars(code.data(), code.data() + code.size(), value);
        if (r.ec == std::errc() && r.ptr == code.data() + code.size())
            return value;
    }
    return std::nullopt;
}

bool injected_throw(std::string_view entry) { return names("ZARN_BACKEND_THROW", entry); }

bool injected_null(std::string_view entry) { return names("ZARN_BACKEND_NULL", entry); }

std::optional<int> enter(std::string_view entry, const std::vector<std::string> &arguments) {
    trace_call(entry, arguments);
    if (injected_throw(entry))
        throw InjectedFault(entry);
    return injected_failure(entry);
}

bool write_file(const std::filesystem::path &path, std::string_view data) {
    std::error_code ec;
    if (path.has_parent_path())
        std::filesystem::create_directories(path.parent_path(), ec);
    std::filesystem::path temporary = path;
    temporary += ".part";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out.write(data.data(), static_cast<std::streamsize>(data.size())) || !out.flush())
            return false;
    }
    std::filesystem::rename(temporary, path, ec);
    if (ec) {
        std::filesystem::remove(temporary, ec);
        return false;
    }
    return true;
}

std::string json_string(std::string_view text) {
    static constexpr char HEX[] = "0123456789abcdef";
    std::string out = "\"";
    for (char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(c);
        } else if (u < 0x20) {
            out += "\\u00";
            out.push_back(HEX[u >> 4]);
            out.push_back(HEX[u & 15]);
        } else {
            out.push_back(c);
        }
    }
    out.push_back('"');
    return out;
}

std::string number_text(double value) {
    if (value == 0)
        value = 0; // no "-0"
    char buffer[64];
    const auto r = std::to_chars(buffer, buffer + sizeof(buffer), value);
    return std::string(buffer, r.ptr);
}

} // namespace zarn_backend
