// The resources the workers may use, as Linux tells them: the affinity
// mask, SLURM_CPUS_PER_TASK and ZARN_CORES for the processors; MemAvailable, the memory
// cgroup (version 2, or version 1) and the address space limit for memory.

#ifndef _WIN32

#include "orn_thread.h"

#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace ORN {

namespace {

// A whole number at the start of a text; -1 when there is none.
int64 leading_number(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    int64 value = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end != text.data() ? value : -1;
}

// The first line of a small system file ("" when it cannot be read).
std::string first_line(const std::string &path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// The value after "<key>:" in a file of such lines (/proc/meminfo,
// /proc/self/status), in bytes when the line says kB; -1 when absent.
int64 keyed_value(const char *path, std::string_view key) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line))
        if (line.size() > key.size() && line.compare(0, key.size(), key) == 0 && line[key.size()] == ':') {
            const int64 value = leading_number(std::string_view(line).substr(key.size() + 1));
            return value < 0 ? -1 : line.find("kB") != std::string::npos ? value * 1024 : value;
        }
    return -1;
}

// What the process's memory cgroup still allows; -1 without a limit.
int64 cgroup_room() {
    std::ifstream in("/proc/self/cgroup");
    std::string line;
    while (std::getline(in, line)) {
        // "0::/path" (version 2) or "N:...memory...:/path" (version 1).
        const auto first = line.find(':'), second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos)
            continue;
        const std::string controllers = line.substr(first + 1, second - first - 1);
        const std::string group = line.substr(second + 1);
        int64 limit = -1, usage = -1;
        if (line.compare(0, first, "0") == 0 && controllers.empty()) {
            const std::string root = "/sys/fs/cgroup" + (group == "/" ? std::string() : group);
            limit = leading_number(first_line(root + "/memory.max"));
            usage = leading_number(first_line(root + "/memory.current"));
        } else if (("," + controllers + ",").find(",memory,") != std::string::npos) {
            const std::string root = "/sys/fs/cgroup/memory" + (group == "/" ? std::string() : group);
            limit = leading_number(first_line(root + "/memory.limit_in_bytes"));
            usage = leading_number(first_line(root + "/memory.usage_in_bytes"));
            if (limit >= (int64(1) << 60))
                limit = -1; // "no limit" is a huge number in version 1
        }
        if (limit >= 0)
            return std::max<int64>(limit - std::max<int64>(usage, 0), 0);
    }
    return -1;
}

} // namespace

WORKER_RESOURCES WorkThread::resources() {
    WORKER_RESOURCES r;
    cpu_set_t set;
    CPU_ZERO(&set);
    r.mCores = sched_getaffinity(0, sizeof(set), &set) == 0 ? std::max(CPU_COUNT(&set), 1)
                                                             : Thread::hardware_concurrency();
    // The scheduler's share of a task, and the launcher's share of a job it
    // runs beside others (zarn run -j N).
    for (const char *cap : {"SLURM_CPUS_PER_TASK", "ZARN_CORES"})
        if (const char *value = std::getenv(cap)) {
            const int64 cpus = leading_number(value);
            if (cpus >= 1 && cpus < r.mCores) {
                r.mCores = cpus;
                r.mCoresFrom = cap;
            }
        }

    const auto take = [&r](int64 bytes, const char *from) {
        if (bytes >= 0 && (r.mMemory < 0 || bytes < r.mMemory)) {
            r.mMemory = bytes;
            r.mMemoryFrom = from;
        }
    };
    take(keyed_value("/proc/meminfo", "MemAvailable"), "MemAvailable");
    take(cgroup_room(), "cgroup");
    struct rlimit limit {};
    if (getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        const int64 used = std::max<int64>(keyed_value("/proc/self/status", "VmSize"), 0);
        take(std::max<int64>(static_cast<int64>(limit.rlim_cur) - used, 0), "address space limit");
    }
    return r;
}

} // namespace ORN

#endif // _WIN32
