// Many jobs: what Slurm costs a job on the private cluster of this machine
// (scripts/slurm-private-cluster.sh), and `zarn run -j 2` against `-j 1`.
//
// Every job is a small generated capture whose only work is one panorama
// (zarn_capture --width 256 --points 1 --videos 0, StitchMainProcess with the
// reference libraries); local runs use --force and submitted jobs are fresh,
// so that each run does the work.
//
//   BM_ClusterOverhead   one job submitted with `zarn submit` and waited for
//                        until Slurm has nothing of it left, against the same
//                        job run by `zarn run` here: overhead_s is the
//                        difference, per job (the target is at most 1 s).
//   BM_ClusterArray8     eight jobs as one array (all processors in use):
//                        overhead_per_job_s is the array's time less the
//                        time `zarn run -j 2` takes for the same jobs, by job.
//   BM_ParallelRun       eight jobs with -j 1 and with -j 2 in the same
//                        iteration: speedup is the ratio (target at least 1.7).
//
// The cluster benchmarks are skipped when the daemons cannot be started.

#include "bench_support.h"

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using bench_support::shell_output;
using bench_support::quote;
using bench_support::seconds_since;

const std::string BIN = std::string(ZARN_BINARY_DIR) + "/bin";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";
const std::string CLUSTER = std::string(ZARN_SOURCE_DIR) + "/scripts/slurm-private-cluster.sh";

// A folder of generated jobs, removed at the end.
class Jobs {
public:
    explicit Jobs(int count) {
        char pattern[] = "/tmp/zarn-farm-bench-XXXXXX";
        mRoot = ::mkdtemp(pattern);
        for (int i = 0; i < count; ++i) {
            const std::string job = mRoot + "/job" + std::to_string(i);
            shell_output(quote(BIN + "/zarn_capture") + " " + quote(job) + " --width 256 --points 1 --videos 0");
            mList += ' ';
            mList += quote(job);
            mJobs.push_back(job);
        }
    }
    ~Jobs() {
        std::error_code ec;
        fs::remove_all(mRoot, ec);
    }
    const std::string &root() const { return mRoot; }
    const std::string &list() const { return mList; }

private:
    std::string mRoot, mList;
    std::vector<std::string> mJobs;
};

// Runs the jobs here; the seconds it took, or a negative number on failure.
double run_here(const Jobs &jobs, int parallel) {
    const auto start = std::chrono::steady_clock::now();
    const auto r = shell_output("NO_COLOR=1 " + quote(BIN + "/zarn") + " run --force -j " + std::to_string(parallel) +
                         " --process StitchMainProcess --libs " + quote(BACKENDS) + jobs.list() + " > /dev/null");
    return r.first == 0 ? seconds_since(start) : -1.0;
}

// The private cluster, started on first use and stopped at the end.
class Cluster {
public:
    static Cluster &get() {
        static Cluster cluster;
        return cluster;
    }
    bool up() const { return mUp; }
    const std::string &why() const { return mWhy; }
    // Submits the jobs as one array and waits until Slurm has nothing of it
    // left; the seconds it took, or a negative number on failure.
    double submit_and_wait(const Jobs &jobs, int round) const {
        const std::string env = "SLURM_CONF=" + quote(mDir + "/slurm.conf");
        const std::string into = jobs.root() + "/submission-" + std::to_string(round);
        const auto start = std::chrono::steady_clock::now();
        const auto r = shell_output("env " + env + " " + quote(BIN + "/zarn") + " submit --cpus 1 --process StitchMainProcess --libs " +
                             quote(BACKENDS) + " --into " + quote(into) + jobs.list() + " | tail -n 1");
        const auto at = r.second.rfind("Slurm job ");
        if (r.first != 0 || at == std::string::npos)
            return -1.0;
        const std::string id = r.second.substr(at + 10, r.second.find('\n', at) - at - 10);
        // Done when squeue knows nothing of the job (Slurm's own end),
        // looked at every 20 ms.
        for (int i = 0; i < 6000; ++i) {
            const auto q = shell_output("env " + env + " squeue -h -j " + id);
            if (q.first == 0 && q.second.empty())
                return seconds_since(start);
            ::usleep(20000);
        }
        return -1.0;
    }
    ~Cluster() {
        if (mUp)
            shell_output(quote(CLUSTER) + " stop " + quote(mDir));
        std::error_code ec;
        fs::remove_all(mDir, ec);
    }

private:
    Cluster() {
        char pattern[] = "/tmp/zarn-cluster-XXXXXX";
        mDir = ::mkdtemp(pattern);
        const auto r = shell_output("timeout 60 " + quote(CLUSTER) + " start " + quote(mDir) + " " + std::to_string(::getpid()));
        mUp = r.first == 0;
        mWhy = r.second;
        if (mUp) {
            // The first job after the start waits for the node's first
            // registration; it is not what a running cluster costs.
            Jobs warm(1);
            submit_and_wait(warm, 0);
        }
    }
    std::string mDir, mWhy;
    bool mUp = false;
};

// Runs `jobs` fresh jobs here (with `parallel` at once) and as many through
// the cluster in every iteration; the mean seconds of each, or nothing when
// the cluster is down or a run fails (the benchmark then says why).
std::optional<std::pair<double, double>> here_and_there(benchmark::State &state, int jobs, int parallel) {
    Cluster &cluster = Cluster::get();
    if (!cluster.up()) {
        state.SkipWithError(("the private cluster did not start: " + cluster.why()).c_str());
        return std::nullopt;
    }
    double here = 0, there = 0;
    for (auto _ : state) {
        // Fresh jobs each time: a task does not redo work that is up to date.
        const Jobs local(jobs), submitted(jobs);
        const double h = run_here(local, parallel), t = cluster.submit_and_wait(submitted, 1);
        if (h < 0 || t < 0) {
            state.SkipWithError("a run failed");
            return std::nullopt;
        }
        here += h;
        there += t;
    }
    const double n = static_cast<double>(state.iterations());
    return std::pair(here / n, there / n);
}

void BM_ClusterOverhead(benchmark::State &state) {
    const auto times = here_and_there(state, 1, 1);
    if (!times)
        return;
    const auto [here, there] = *times;
    state.counters["run_here_s"] = here;
    state.counters["submit_to_done_s"] = there;
    state.counters["overhead_s"] = there - here;
}
BENCHMARK(BM_ClusterOverhead)->Iterations(5)->Unit(benchmark::kSecond)->UseRealTime();

void BM_ClusterArray8(benchmark::State &state) {
    const auto times = here_and_there(state, 8, 2);
    if (!times)
        return;
    const auto [here, there] = *times;
    state.counters["run_here_j2_s"] = here;
    state.counters["submit_to_done_s"] = there;
    state.counters["overhead_per_job_s"] = (there - here) / 8;
}
BENCHMARK(BM_ClusterArray8)->Iterations(2)->Unit(benchmark::kSecond)->UseRealTime();

void BM_ParallelRun(benchmark::State &state) {
    Jobs jobs(8);
    double one = 0, two = 0;
    for (auto _ : state) {
        const double a = run_here(jobs, 1), b = run_here(jobs, 2);
        if (a < 0 || b < 0) {
            state.SkipWithError("a run failed");
            return;
        }
        one += a;
        two += b;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["j1_s"] = one / n;
    state.counters["j2_s"] = two / n;
    state.counters["speedup"] = one / two;
}
BENCHMARK(BM_ParallelRun)->Iterations(2)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
