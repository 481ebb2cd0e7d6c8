// A typical job end to end: four 4096 x 2048 capture points (three of them
// 4-exposure HDR records, as zarn_capture plans them), one video, 10^6
// dense points, run by `zarn run` with the reference libraries, against the
// baseline binaries over the same job in the same iteration.
//
//   BM_TypicalJob   each iteration copies the cached job twice, runs the
//                   current launcher over one copy and the baseline's over
//                   the other (the order alternates between iterations
//                   and repetitions):
//                   current_s, baseline_s and ratio (current / baseline),
//                   and the same for the processor time (user and system)
//                   of each launcher and all it started: *_cpu_s and
//                   cpu_ratio, less moved by other work on the machine.
//
// After each iteration a breakdown goes to standard error: each process's
// time from the job's run record (caches/zarn_run.json) and each heavy
// node's (at least 50 ms of action and release time together) from the
// processes' time report in the console log (`--log`, lines
// "<node> : action X ms, release Y ms"), for both sides; "-" stands for a
// node under 50 ms on that side, or one it does not have.
//
// Environment:
//   ZARN_BASELINE       the baseline's folder (bin/zarn, lib/, backends/);
//                       /work/baseline by default; the peer is left out when
//                       it holds no bin/zarn.
//   ZARN_JOB_BENCH_JOB  zarn_capture's options for the job
//                       ("--width 4096 --points 4 --videos 1 --dense 1000000").
//
// The job is generated once into build/bench/job_bench_cache/ (made anew
// when the generator is newer than it) and copied for every run, so that
// each run does all the work.

#include "bench_support.h"

#include <benchmark/benchmark.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using bench_support::shell_output;
using bench_support::quote;
using bench_support::read_text;

const std::string BUILD = ZARN_BINARY_DIR;
constexpr double HEAVY_SECONDS = 0.05;

std::string environment(const char *name, const std::string &fallback) {
    const char *value = std::getenv(name);
    return value ? std::string(value) : fallback;
}

std::string tail(const std::string &text, std::size_t lines) {
    std::size_t at = text.size();
    for (std::size_t n = 0; n <= lines && at != std::string::npos && at > 0; ++n)
        at = text.rfind('\n', at - 1);
    return at == std::string::npos ? text : text.substr(at + 1);
}

// One installation of the system: its launcher, the environment it needs
// and its libraries' folder.
struct SIDE {
    std::string mName, mLauncher, mEnvironment, mLibraries;
};

SIDE side_of(const std::string &name, const std::string &root) {
    return {name, root + "/bin/zarn", "LD_LIBRARY_PATH=" + quote(root + "/lib"), root + "/backends"};
}

// The current build, copied once into a folder of its own laid out like
// the baseline's (bin/, lib/, backends/), so that a rebuild in the tree
// while the benchmark runs changes nothing under it.
class Snapshot {
public:
    Snapshot() {
        char pattern[] = "/tmp/zarn-job-bench-build-XXXXXX";
        mRoot = ::mkdtemp(pattern);
        const auto r = shell_output("cd " + quote(BUILD) + " && mkdir -p " + quote(mRoot + "/bin") + " " + quote(mRoot + "/lib") +
                             " " + quote(mRoot + "/backends") + " && cp -a bin/zarn " + quote(mRoot + "/bin/") +
                             " && cp -a lib/*.so lib/DataConverter.sh lib/zarn_inpaint " + quote(mRoot + "/lib/") +
                             " && cp -a backends/*.so backends/asset " + quote(mRoot + "/backends/"));
        mReady = r.first == 0;
        mWhy = r.second;
    }
    ~Snapshot() {
        std::error_code ec;
        fs::remove_all(mRoot, ec);
    }
    bool ready() const { return mReady; }
    const std::string &why() const { return mWhy; }
    const std::string &root() const { return mRoot; }

private:
    std::string mRoot, mWhy;
    bool mReady = false;
};

// The baseline, or a side without a launcher when there is none.
SIDE baseline_side() {
    const std::string root = environment("ZARN_BASELINE", "/work/baseline");
    if (root.empty() || !fs::is_regular_file(root + "/bin/zarn"))
        return {"baseline", "", "", ""};
    return side_of("baseline", root);
}

// The generated job, made once and kept while the generator is not newer.
// Generated into a temporary folder first, so that an interrupted
// generation never passes for the job.
std::string cached_job(std::string &why) {
    const std::string options = environment("ZARN_JOB_BENCH_JOB", "--width 4096 --points 4 --videos 1 --dense 1000000");
    std::string key;
    for (const char c : options)
        key += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    const fs::path cache = fs::path(BUILD) / "bench" / "job_bench_cache";
    const fs::path job = cache / key, stamp = cache / (key + ".generated");
    const fs::path generator = fs::path(BUILD) / "bin" / "zarn_capture";
    std::error_code ec;
    if (fs::is_directory(job) && fs::exists(stamp) &&
        fs::last_write_time(stamp, ec) >= fs::last_write_time(generator, ec))
        return job.string();
    fs::create_directories(cache);
    const fs::path fresh = cache / (key + ".partial");
    fs::remove_all(fresh, ec);
    fs::remove_all(job, ec);
    fs::remove(stamp, ec);
    const auto r = shell_output(quote(generator.string()) + " " + quote(fresh.string()) + " " + options);
    if (r.first != 0) {
        why = "zarn_capture failed: " + tail(r.second, 5);
        return {};
    }
    fs::rename(fresh, job);
    std::ofstream(stamp) << options << '\n';
    return job.string();
}

// What one run took: the wall time, each process's seconds (run record) and
// each heavy node's ("<process>/<node>", action plus release seconds).
struct TIMES {
    double mWall = 0.0;
    // Processor time (user and system) of the launcher and everything it
    // started: less moved by other work on the machine than the wall time.
    double mProcessor = 0.0;
    std::vector<std::pair<std::string, double>> mProcesses;
    std::vector<std::pair<std::string, double>> mNodes;
};

// The "seconds" of each process that ran or was skipped, in the record's
// order, read from the run record's JSON text (written by the launcher in
// one fixed form: {"name":"...","state":"...","started":"...","seconds":S}).
std::vector<std::pair<std::string, double>> process_times(const std::string &record) {
    std::vector<std::pair<std::string, double>> times;
    constexpr std::string_view NAME = "{\"name\":\"", SECONDS = "\"seconds\":";
    for (std::size_t at = record.find(NAME); at != std::string::npos; at = record.find(NAME, at + 1)) {
        const std::size_t begin = at + NAME.size(), end = record.find('"', begin);
        const std::size_t seconds = record.find(SECONDS, end);
        if (end == std::string::npos || seconds == std::string::npos)
            break;
        times.emplace_back(record.substr(begin, end - begin), std::atof(record.c_str() + seconds + SECONDS.size()));
    }
    return times;
}

// The heavy nodes of the processes' time reports in a console log: after a
// banner line "<Process>:", lines "<node> : action A ms, release R ms".
std::vector<std::pair<std::string, double>> node_times(const std::string &log) {
    std::vector<std::pair<std::string, double>> times;
    std::istringstream lines(log);
    std::string line, process;
    constexpr std::string_view MARK = "] : ", ACTION = " : action ", RELEASE = " ms, release ";
    while (std::getline(lines, line)) {
        const std::size_t at = line.find(MARK);
        if (at == std::string::npos)
            continue;
        const std::string message = line.substr(at + MARK.size());
        if (!message.empty() && message.back() == ':' && message.find(' ') == std::string::npos) {
            process = message.substr(0, message.size() - 1);
            continue;
        }
        const std::size_t action = message.find(ACTION), release = message.find(RELEASE);
        if (action == std::string::npos || release == std::string::npos || release < action)
            continue;
        const double seconds = (std::atof(message.c_str() + action + ACTION.size()) +
                                std::atof(message.c_str() + release + RELEASE.size())) * 1e-3;
        if (seconds >= HEAVY_SECONDS)
            times.emplace_back(process + "/" + message.substr(0, action), seconds);
    }
    return times;
}

// The user and system time of the waited-for descendants so far.
double children_processor_seconds() {
    rusage usage{};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) * 1e-6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Runs every process of the job with one side over a fresh copy of it.
// Returns false, with the reason, when the run failed.
bool run_side(const SIDE &side, const std::string &job, TIMES &times, std::string &why) {
    char pattern[] = "/tmp/zarn-job-bench-XXXXXX";
    const fs::path root = ::mkdtemp(pattern);
    const fs::path copy = root / "job", logs = root / "logs";
    fs::create_directories(logs);
    bool ok = shell_output("cp -a " + quote(job) + " " + quote(copy.string())).first == 0;
    if (ok) {
        shell_output("sync");
        const double before = children_processor_seconds();
        const auto start = std::chrono::steady_clock::now();
        const auto r = shell_output("env NO_COLOR=1 " + side.mEnvironment + " " + quote(side.mLauncher) + " run --libs " +
                             quote(side.mLibraries) + " --log " + quote(logs.string()) + " " + quote(copy.string()));
        times.mWall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        times.mProcessor = children_processor_seconds() - before;
        ok = r.first == 0;
        if (!ok)
            why = side.mName + " run failed (" + std::to_string(r.first) + "): " + tail(r.second, 8);
        times.mProcesses = process_times(read_text(copy / "caches" / "zarn_run.json"));
        times.mNodes = node_times(read_text(logs / "console.log"));
    } else {
        why = "the job could not be copied";
    }
    std::error_code ec;
    fs::remove_all(root, ec);
    return ok;
}

// The breakdown of one iteration: one row per process, then per heavy node
// (of either side), with both sides' seconds and their ratio.
void print_breakdown(int iteration, const TIMES &current, const TIMES *baseline) {
    const auto table = [&](const char *title, const auto &mine, const auto *theirs) {
        std::vector<std::string> names;
        std::map<std::string, double> a, b;
        for (const auto &[name, s] : mine) {
            if (!a.count(name))
                names.push_back(name);
            a[name] += s;
        }
        if (theirs)
            for (const auto &[name, s] : *theirs) {
                if (!a.count(name) && !b.count(name))
                    names.push_back(name);
                b[name] += s;
            }
        std::fprintf(stderr, "  %-58s %10s %10s %7s\n", title, "current_s", "baseline_s", "ratio");
        // A name one side lacks: a node under the threshold there (or one
        // that side does not have), shown as "-".
        const auto cell = [](const std::map<std::string, double> &side, const std::string &name) {
            char text[32];
            const auto at = side.find(name);
            if (at == side.end())
                return std::string("-");
            std::snprintf(text, sizeof(text), "%.3f", at->second);
            return std::string(text);
        };
        for (const auto &name : names) {
            const bool both = a.count(name) && b.count(name) && b[name] > 0;
            char ratio[32] = "-";
            if (both)
                std::snprintf(ratio, sizeof(ratio), "%.3f", a[name] / b[name]);
            std::fprintf(stderr, "  %-58s %10s %10s %7s\n", name.c_str(), cell(a, name).c_str(), cell(b, name).c_str(), ratio);
        }
    };
    std::fprintf(stderr, "job_bench iteration %d: wall %.3f s (processor %.3f s)", iteration, current.mWall,
                 current.mProcessor);
    if (baseline)
        std::fprintf(stderr, ", baseline %.3f s (processor %.3f s), ratio %.3f (processor %.3f)", baseline->mWall,
                     baseline->mProcessor, current.mWall / baseline->mWall, current.mProcessor / baseline->mProcessor);
    std::fprintf(stderr, "\n");
    table("process", current.mProcesses, baseline ? &baseline->mProcesses : nullptr);
    table("heavy node (process/node, action + release)", current.mNodes, baseline ? &baseline->mNodes : nullptr);
}

void BM_TypicalJob(benchmark::State &state) {
    std::string why;
    const std::string job = cached_job(why);
    if (job.empty()) {
        state.SkipWithError(why.c_str());
        return;
    }
    static const Snapshot snapshot;
    if (!snapshot.ready()) {
        state.SkipWithError(("the build could not be copied: " + snapshot.why()).c_str());
        return;
    }
    const SIDE current = side_of("current", snapshot.root()), baseline = baseline_side();
    const bool peer = !baseline.mLauncher.empty();
    double mine = 0.0, theirs = 0.0, mine_cpu = 0.0, theirs_cpu = 0.0;
    // Counted over repetitions too (--benchmark_repetitions=N).
    static int iteration = 0;
    for (auto _ : state) {
        TIMES a, b;
        // The side that runs first alternates: the second finds the page
        // cache warmer with the job's inputs.
        const bool current_first = iteration % 2 == 0;
        bool ok = true;
        if (peer && !current_first)
            ok = run_side(baseline, job, b, why);
        ok = ok && run_side(current, job, a, why);
        if (ok && peer && current_first)
            ok = run_side(baseline, job, b, why);
        if (!ok) {
            state.SkipWithError(why.c_str());
            return;
        }
        print_breakdown(++iteration, a, peer ? &b : nullptr);
        mine += a.mWall;
        theirs += b.mWall;
        mine_cpu += a.mProcessor;
        theirs_cpu += b.mProcessor;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["current_s"] = mine / n;
    state.counters["current_cpu_s"] = mine_cpu / n;
    if (peer) {
        state.counters["baseline_s"] = theirs / n;
        state.counters["baseline_cpu_s"] = theirs_cpu / n;
        state.counters["ratio"] = mine / theirs;
        state.counters["cpu_ratio"] = mine_cpu / theirs_cpu;
    }
}
BENCHMARK(BM_TypicalJob)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
