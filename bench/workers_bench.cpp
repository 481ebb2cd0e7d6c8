// The worker layer and the cores, on 4096 x 2048 panoramas of a generated
// job (zarn_capture --width 4096 --points 4 --videos 0; build the targets
// zarn, ZARN_Velda, Stitch and zarn_capture first).
//
//   BM_StitchWorkers        eight panoramas through the stitching library's
//                           execute entry, handed to a pool as the stitch
//                           process does, in the same iteration: one worker
//                           and two workers planned by WorkThread::plan (each
//                           pool sizes OpenCV's threads: cores / workers), and
//                           two workers of a plain pool that leaves OpenCV's
//                           own count alone (the form before the plan did).
//                           speedup = one / two planned (target at least
//                           1.8), plain_speedup = one / two plain, and
//                           speedup_over_single = one worker whose OpenCV
//                           runs on one thread / two planned workers. Page
//                           faults (getrusage ru_minflt of the worker thread)
//                           of each worker's first panorama and of the later
//                           ones; the cores each form kept busy on average
//                           (CPU seconds / wall seconds).
//   BM_DefaultConfiguration `zarn run --force --process StitchMainProcess`
//                           over the job with this build and with the
//                           baseline's binaries (/work/baseline, or
//                           ZARN_BASELINE) in the same iteration, both with
//                           their own default settings: speedup = baseline
//                           time / this build's time (target at least 1.6).
//                           Argument 0: every record plain (the records' hdr
//                           set to 0); 1: the records as generated (three of
//                           the four are 4-exposure HDR). Page faults of each
//                           run (the children's ru_minflt).
#include "ZARN_Common/StitchLibrary.h"
#include "__ORN__/orn_thread.h"

#include "bench_support.h"

#include <benchmark/benchmark.h>

#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using bench_support::quote;
using bench_support::read_text;
using bench_support::seconds_since;
namespace Lib = ZARN::StitchLibrary;
using ORN::INDEX;

const std::string BUILD = ZARN_BINARY_DIR;
constexpr int WIDTH = 4096, HEIGHT = 2048;
const int SIZE[3] = {WIDTH, HEIGHT, Lib::SEAM_PLAIN};
constexpr int POINTS = 4;
constexpr int RECORDS = 8;

std::string baseline() {
    const char *from = std::getenv("ZARN_BASELINE");
    return from != nullptr && *from != '\0' ? from : "/work/baseline";
}

int shell(const std::string &command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

long thread_faults() {
    struct rusage usage {};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt;
}

// CPU seconds of this process (every thread), user and system.
double cpu_seconds() {
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

long children_faults() {
    struct rusage usage {};
    getrusage(RUSAGE_CHILDREN, &usage);
    return usage.ru_minflt;
}

// The generated job (made once), and the stitching library over it.
class Setup {
public:
    static Setup &get() {
        static Setup setup;
        return setup;
    }
    ~Setup() {
        std::error_code ec;
        fs::remove_all(mRoot, ec);
    }

    fs::path mRoot, mJob;
    Lib::EXECUTE_OPT_FLOW_STITCH *mExecute = nullptr;
    Lib::IMAGE_HANDLE mHandle = nullptr;

private:
    Setup() {
        char pattern[] = "/tmp/zarn_workers_bench_XXXXXX";
        mRoot = ::mkdtemp(pattern);
        mJob = mRoot / "job";
        if (shell(quote(BUILD + "/bin/zarn_capture") + " " + quote(mJob.string()) +
                  " --width 4096 --points 4 --videos 0 > /dev/null") != 0)
            throw std::runtime_error("zarn_capture failed");
        void *lib = dlopen((BUILD + "/backends/libStitch.so").c_str(), RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr)
            throw std::runtime_error(dlerror());
        const auto create = reinterpret_cast<Lib::CREATE_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_CreateOptFlowStitchHandle"));
        const auto init = reinterpret_cast<Lib::INIT_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_InitOptFlowStitchHandle"));
        mExecute = reinterpret_cast<Lib::EXECUTE_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_ExecuteOptFlowStitchHandle"));
        mHandle = create();
        if (init(mHandle, (mJob / "caches/table_Up.bin").c_str(), (mJob / "caches/table_Down.bin").c_str(), WIDTH,
                 HEIGHT, WIDTH / 8, HEIGHT / 8, Lib::OUTPUT_BITS) != Lib::KIVO_OK)
            throw std::runtime_error("init failed");
        fs::create_directories(mJob / "caches/images");
    }
};

struct FAULTS {
    std::mutex mMutex;
    std::vector<bool> mSeen; // per worker thread, by first appearance
    std::vector<std::thread::id> mThreads;
    long mFirst = 0, mFirstCount = 0, mLater = 0, mLaterCount = 0;
    void add(long faults) {
        const std::lock_guard<std::mutex> lock(mMutex);
        bool first = true;
        for (const auto &id : mThreads)
            first = first && id != std::this_thread::get_id();
        if (first) {
            mThreads.push_back(std::this_thread::get_id());
            mFirst += faults, ++mFirstCount;
        } else {
            mLater += faults, ++mLaterCount;
        }
    }
};

// The seconds the pool takes for the eight panoramas.
double stitch_records(ORN::WorkThread &pool, FAULTS *faults) {
    Setup &s = Setup::get();
    std::atomic<bool> failed{false};
    const auto start = std::chrono::steady_clock::now();
    pool.parallel_for(RECORDS, [&](INDEX i) {
        const std::string point = "captures/point_00" + std::to_string(i % POINTS);
        const std::string up = (s.mJob / (point + "_up.jpg")).string(), down = (s.mJob / (point + "_down.jpg")).string();
        const std::string out = (s.mJob / ("caches/images/bench_" + std::to_string(i) + ".jpg")).string();
        const long before = thread_faults();
        if (s.mExecute(s.mHandle, up.c_str(), down.c_str(), out.c_str(), SIZE, nullptr, "bench") != Lib::KIVO_OK)
            failed = true;
        if (faults != nullptr)
            faults->add(thread_faults() - before);
    });
    return failed ? -1.0 : seconds_since(start);
}

ORN::WORKER_PLAN plan_of(ORN::int64 requested) {
    return ORN::WorkThread::plan(requested, RECORDS, ORN::int64(WIDTH) * HEIGHT * 60);
}

void BM_StitchWorkers(benchmark::State &state) {
    Setup::get();
    double one = 0, two = 0, plain = 0, single = 0, cpu[3] = {0, 0, 0};
    FAULTS faults;
    for (auto _ : state) {
        double a, b, c, at = cpu_seconds();
        {
            ORN::WorkThread pool(plan_of(1));
            a = stitch_records(pool, nullptr);
        }
        cpu[0] += cpu_seconds() - at, at = cpu_seconds();
        {
            ORN::WorkThread pool(plan_of(2));
            b = stitch_records(pool, &faults);
        }
        cpu[1] += cpu_seconds() - at, at = cpu_seconds();
        {
            ORN::WorkThread pool(plan_of(2).mWorkers);
            c = stitch_records(pool, nullptr);
        }
        cpu[2] += cpu_seconds() - at;
        double d;
        {
            ORN::WORKER_PLAN alone = plan_of(1);
            alone.mLibraryThreads = 1;
            ORN::WorkThread pool(alone);
            d = stitch_records(pool, nullptr);
        }
        single += d;
        if (a < 0 || b < 0 || c < 0 || d < 0) {
            state.SkipWithError("a panorama failed");
            return;
        }
        one += a, two += b, plain += c;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["workers"] = static_cast<double>(plan_of(2).mWorkers);
    state.counters["one_s"] = one / n;
    state.counters["two_s"] = two / n;
    state.counters["plain_two_s"] = plain / n;
    state.counters["speedup"] = one / two;
    // Cores kept busy on average (CPU seconds over wall seconds).
    state.counters["one_cores"] = cpu[0] / one;
    state.counters["two_cores"] = cpu[1] / two;
    state.counters["plain_two_cores"] = cpu[2] / plain;
    state.counters["plain_speedup"] = one / plain;
    state.counters["one_single_s"] = single / n;
    state.counters["speedup_over_single"] = single / two;
    state.counters["faults_first"] = faults.mFirstCount ? double(faults.mFirst) / double(faults.mFirstCount) : 0;
    state.counters["faults_later"] = faults.mLaterCount ? double(faults.mLater) / double(faults.mLaterCount) : 0;
}
BENCHMARK(BM_StitchWorkers)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

// A copy of the job for one launcher, its records plain when asked.
fs::path job_copy(const std::string &name, bool hdr) {
    const Setup &s = Setup::get();
    const fs::path copy = s.mRoot / name;
    std::error_code ec;
    fs::remove_all(copy, ec);
    fs::copy(s.mJob, copy, fs::copy_options::recursive);
    fs::remove_all(copy / "caches/images", ec);
    if (!hdr) {
        std::string data = read_text(copy / "caches/stitch_data.json");
        for (std::size_t at; (at = data.find("\"hdr\":4")) != std::string::npos;)
            data.replace(at, 7, "\"hdr\":0");
        std::ofstream(copy / "caches/stitch_data.json", std::ios::trunc) << data;
    }
    return copy;
}

// One run of the stitch process; its seconds (negative on failure) and the
// page faults it took.
std::pair<double, long> run_stitch(const std::string &prefix, const std::string &zarn, const std::string &libs,
                                   const fs::path &job) {
    const long faults = children_faults();
    const auto start = std::chrono::steady_clock::now();
    const int status = shell(prefix + "NO_COLOR=1 " + quote(zarn) + " run --force --process StitchMainProcess --libs " +
                             quote(libs) + " " + quote(job.string()) + " > /dev/null 2>&1");
    const double seconds = seconds_since(start);
    return {status == 0 ? seconds : -1.0, children_faults() - faults};
}

void BM_DefaultConfiguration(benchmark::State &state) {
    const bool hdr = state.range(0) != 0;
    const std::string old = baseline();
    if (!fs::exists(old + "/bin/zarn")) {
        state.SkipWithError(("no baseline in " + old).c_str());
        return;
    }
    const fs::path now_job = job_copy(hdr ? "now_hdr" : "now_plain", hdr);
    const fs::path old_job = job_copy(hdr ? "old_hdr" : "old_plain", hdr);
    double now = 0, before = 0;
    long now_faults = 0, before_faults = 0;
    for (auto _ : state) {
        const auto a = run_stitch("", BUILD + "/bin/zarn", BUILD + "/backends", now_job);
        const auto b = run_stitch("LD_LIBRARY_PATH=" + quote(old + "/lib") + " ", old + "/bin/zarn", old + "/backends",
                                  old_job);
        if (a.first < 0 || b.first < 0) {
            state.SkipWithError("a run failed");
            return;
        }
        now += a.first, before += b.first;
        now_faults += a.second, before_faults += b.second;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["now_s"] = now / n;
    state.counters["baseline_s"] = before / n;
    state.counters["speedup"] = before / now;
    state.counters["now_faults"] = double(now_faults) / n;
    state.counters["baseline_faults"] = double(before_faults) / n;
}
BENCHMARK(BM_DefaultConfiguration)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
