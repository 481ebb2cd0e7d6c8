// Point KD-tree (FLANN's single kd-tree behind ZARN::KD_Tree) against
// nanoflann over the same points in the same run: build, then 10^6 nearest
// and 8-nearest queries, on one thread and with OpenMP over every core.
//
// Both indexes use leaves of at most 10 points and exact search. ZARN's
// build includes calling the point function once per point, as its
// callers do.
#include "ZARN_Common/KD_Tree.h"

#include <benchmark/benchmark.h>
#include <nanoflann.hpp>
#include <omp.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using ORN::INDEX;

constexpr INDEX QUERY_COUNT = 1'000'000;

std::vector<double> random_rows(INDEX n, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 100.0);
    std::vector<double> rows(static_cast<std::size_t>(n) * 3);
    for (auto &v : rows)
        v = u(rng);
    return rows;
}

// Row-major N x 3 points seen by nanoflann in place.
struct Cloud {
    std::vector<double> rows;
    std::size_t kdtree_get_point_count() const { return rows.size() / 3; }
    double kdtree_get_pt(std::size_t i, std::size_t d) const { return rows[i * 3 + d]; }
    template <class B>
    bool kdtree_get_bbox(B &) const {
        return false;
    }
};
using NanoTree = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<double, Cloud>, Cloud, 3, std::uint32_t>;

struct Fixture {
    Cloud cloud;
    std::vector<double> queries;
    std::unique_ptr<ZARN::KD_Tree> zarn;
    std::unique_ptr<NanoTree> nano;
};

Fixture &fixture(INDEX n) {
    static std::map<INDEX, Fixture> all;
    Fixture &f = all[n];
    if (f.cloud.rows.empty()) {
        f.cloud.rows = random_rows(n, 1);
        f.queries = random_rows(QUERY_COUNT, 2);
    }
    return f;
}

ZARN::KD_Tree build_zarn(const Fixture &f) {
    const double *rows = f.cloud.rows.data();
    return ZARN::KD_Tree(static_cast<INDEX>(f.cloud.kdtree_get_point_count()), [rows](INDEX i) {
        return ORN::Vector<double>{rows[i * 3], rows[i * 3 + 1], rows[i * 3 + 2]};
    });
}

// Seconds of the nanoflann run of each case, for the ratio counters.
std::map<std::string, double> &nano_seconds() {
    static std::map<std::string, double> m;
    return m;
}

void report(benchmark::State &state, const std::string &key, bool is_nano, double seconds) {
    if (is_nano)
        nano_seconds()[key] = seconds;
    else if (nano_seconds().count(key))
        state.counters["x_nanoflann"] = seconds / nano_seconds()[key];
}

double seconds_of(const auto &body) {
    const double t = omp_get_wtime();
    body();
    return omp_get_wtime() - t;
}

void BM_Build(benchmark::State &state, bool is_nano) {
    const INDEX n = state.range(0);
    Fixture &f = fixture(n);
    double total = 0;
    for (auto _ : state) {
        if (is_nano) {
            f.nano.reset();
            total += seconds_of([&] { f.nano = std::make_unique<NanoTree>(3, f.cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10)); });
        } else {
            f.zarn.reset();
            total += seconds_of([&] { f.zarn = std::make_unique<ZARN::KD_Tree>(build_zarn(f)); });
        }
    }
    report(state, "build/" + std::to_string(n), is_nano, total / static_cast<double>(state.iterations()));
    state.SetItemsProcessed(n * state.iterations());
}

// 10^6 queries of k neighbours; `threads` 1 runs on the calling thread.
void BM_Query(benchmark::State &state, bool is_nano) {
    const INDEX n = state.range(0);
    const int k = static_cast<int>(state.range(1));
    const int threads = static_cast<int>(state.range(2));
    Fixture &f = fixture(n);
    if (is_nano && !f.nano)
        f.nano = std::make_unique<NanoTree>(3, f.cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    if (!is_nano && !f.zarn)
        f.zarn = std::make_unique<ZARN::KD_Tree>(build_zarn(f));
    const double *queries = f.queries.data();
    double total = 0;
    std::int64_t checksum = 0;
    for (auto _ : state) {
        std::int64_t sum = 0;
        total += seconds_of([&] {
#pragma omp parallel num_threads(threads) reduction(+ : sum)
            {
                if (is_nano) {
                    std::uint32_t index[8];
                    double distance[8];
#pragma omp for schedule(static)
                    for (INDEX q = 0; q < QUERY_COUNT; ++q) {
                        const std::size_t found = f.nano->knnSearch(queries + q * 3, static_cast<std::size_t>(k), index, distance);
                        sum += static_cast<std::int64_t>(index[found - 1]);
                    }
                } else {
                    ORN::Array<ORN::PACK<INDEX, double>> out;
#pragma omp for schedule(static)
                    for (INDEX q = 0; q < QUERY_COUNT; ++q) {
                        const ORN::Vector<double> point{queries[q * 3], queries[q * 3 + 1], queries[q * 3 + 2]};
                        if (k == 1) {
                            sum += f.zarn->find_nn(point).mP1;
                        } else {
                            f.zarn->find_nns(point, k, out);
                            sum += out[k - 1].mP1;
                        }
                    }
                }
            }
        });
        checksum = sum;
    }
    benchmark::DoNotOptimize(checksum);
    state.counters["index_sum"] = static_cast<double>(checksum);
    report(state, "query/" + std::to_string(n) + "/" + std::to_string(k) + "/" + std::to_string(threads), is_nano,
           total / static_cast<double>(state.iterations()));
    state.SetItemsProcessed(QUERY_COUNT * state.iterations());
}

void register_all() {
    const int cores = omp_get_num_procs();
    for (const INDEX n : {INDEX(1'000'000), INDEX(10'000'000)}) {
        const int iterations = n > 1'000'000 ? 1 : 3;
        for (const bool is_nano : {true, false})
            benchmark::RegisterBenchmark(is_nano ? "Build/nanoflann" : "Build/ZARN_KD_Tree", BM_Build, is_nano)
                ->Args({n})
                ->Iterations(iterations)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
        for (const int k : {1, 8})
            for (const int threads : {1, cores})
                for (const bool is_nano : {true, false})
                    benchmark::RegisterBenchmark(is_nano ? "Query/nanoflann" : "Query/ZARN_KD_Tree", BM_Query, is_nano)
                        ->Args({n, k, threads})
                        ->ArgNames({"points", "k", "threads"})
                        ->Iterations(1)
                        ->Unit(benchmark::kMillisecond)
                        ->UseRealTime();
    }
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    register_all();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
