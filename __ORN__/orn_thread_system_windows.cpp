// The resources the workers may use, as Windows tells them: the process's
// affinity mask (and SLURM_CPUS_PER_TASK or ZARN_CORES where set) for the processors, the
// available physical memory, and the job object's limit when the process
// runs in one.

#ifdef _WIN32

#include "orn_thread.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <algorithm>
#include <bit>
#include <cstdlib>

namespace ORN {

WORKER_RESOURCES WorkThread::resources() {
    WORKER_RESOURCES r;
    DWORD_PTR process = 0, system = 0;
    r.mCores = GetProcessAffinityMask(GetCurrentProcess(), &process, &system) && process != 0
                   ? std::popcount(static_cast<unsigned long long>(process))
                   : Thread::hardware_concurrency();
    for (const char *cap : {"SLURM_CPUS_PER_TASK", "ZARN_CORES"})
        if (const char *value = std::getenv(cap)) {
            const long long cpus = std::atoll(value);
            if (cpus >= 1 && cpus < r.mCores) {
                r.mCores = cpus;
                r.mCoresFrom = cap;
            }
        }
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof(status);
    if (GlobalMemoryStatusEx(&status)) {
        r.mMemory = static_cast<int64>(status.ullAvailPhys);
        r.mMemoryFrom = "available physical memory";
    }
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION job{};
    if (QueryInformationJobObject(nullptr, JobObjectExtendedLimitInformation, &job, sizeof(job), nullptr) &&
        (job.BasicLimitInformation.LimitFlags & JOB_OBJECT_LIMIT_PROCESS_MEMORY)) {
        const int64 limit = static_cast<int64>(job.ProcessMemoryLimit);
        if (r.mMemory < 0 || limit < r.mMemory) {
            r.mMemory = limit;
            r.mMemoryFrom = "job object limit";
        }
    }
    return r;
}

} // namespace ORN

#endif // _WIN32
