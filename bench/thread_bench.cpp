// Cost of handing work to the pool and of counting progress: submit and
// wait for many empty tasks, an indexed loop of small bodies, and
// ConsoleProgress::advance from several threads (its few tenth lines are
// printed among the results).
#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_thread.h"

#include <benchmark/benchmark.h>

#include <optional>
#include <vector>

namespace {

void BM_SubmitAndWait(benchmark::State &state) {
    ORN::WorkThread pool(state.range(0));
    constexpr int kTasks = 1000;
    for (auto _ : state) {
        for (int i = 0; i < kTasks; ++i)
            pool.submit([] {});
        pool.wait();
    }
    state.SetItemsProcessed(state.iterations() * kTasks);
}
BENCHMARK(BM_SubmitAndWait)->Arg(1)->Arg(4)->Arg(16)->UseRealTime();

void BM_ParallelFor(benchmark::State &state) {
    ORN::WorkThread pool(state.range(0));
    std::vector<double> values(4096, 1.0);
    for (auto _ : state) {
        pool.parallel_for(static_cast<ORN::INDEX>(values.size()), [&](ORN::INDEX i) {
            double &v = values[static_cast<std::size_t>(i)];
            for (int k = 0; k < 64; ++k)
                v = v * 1.0000001 + 1e-9;
        });
        benchmark::DoNotOptimize(values.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(values.size()));
}
BENCHMARK(BM_ParallelFor)->Arg(1)->Arg(4)->UseRealTime();

void BM_ProgressAdvance(benchmark::State &state) {
    static ORN::ConsoleService service;
    constexpr ORN::INDEX kTotal = 1 << 20;
    static std::optional<ORN::ConsoleProgress> progress;
    if (state.thread_index() == 0) {
        progress.emplace(service.progress("bench : ", kTotal * 64));
    }
    for (auto _ : state)
        progress->advance();
    if (state.thread_index() == 0)
        progress.reset();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ProgressAdvance)->Threads(1)->Threads(4)->Iterations(1 << 20)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
