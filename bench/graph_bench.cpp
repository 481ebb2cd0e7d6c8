// The node graph evaluator at scale: declare, clean, play and destroy chains,
// wide fan-outs and layered diamonds of 10^3 to 10^6 nodes, against a direct
// evaluation of the same chain (heap values and type-erased actions run in a
// precomputed order, no graph); and the peak resident memory of a chain of
// large values with and without release.
//
// Declaring a node declares its dependencies recursively, so a chain of n
// nodes nests n constructors: the whole benchmark runs on a thread with a
// large stack.
#include "__ORN__/orn_functional.h"

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

using ORN::INDEX;
using ORN::SyntaxTree;

// Size of the graph being built by the current benchmark.
INDEX gCount = 0;
INDEX gWidth = 0;

// Chain: Link[k] needs Link[k + 1].
struct Link {
    ORN_NODE(Link);
    std::uint64_t mSelf = 0;
    Link(SyntaxTree &tree, INDEX key) {
        if (key + 1 == gCount) {
            tree.once([this] { mSelf = 1; });
            return;
        }
        const Link &next = tree.stack<Link>(key + 1);
        tree.once([this, &next] { mSelf = next.mSelf + 1; });
    }
};

// Fan-out: one hub needs n leaves.
struct Leaf {
    ORN_NODE(Leaf);
    std::uint64_t mSelf = 0;
    Leaf(SyntaxTree &tree, INDEX key) {
        tree.once([this, key] { mSelf = static_cast<std::uint64_t>(key); });
    }
};
struct Hub {
    ORN_NODE(Hub);
    std::uint64_t mSelf = 0;
    std::vector<const Leaf *> mLeaves;
    explicit Hub(SyntaxTree &tree) {
        mLeaves.reserve(static_cast<std::size_t>(gCount));
        for (INDEX k = 0; k < gCount; ++k)
            mLeaves.push_back(&tree.stack<Leaf>(k));
        tree.once([this] {
            for (const Leaf *l : mLeaves)
                mSelf += l->mSelf;
        });
    }
};

// Layered diamonds: cell (l, i) needs (l + 1, i) and (l + 1, i + 1 mod width).
struct Cell {
    ORN_NODE(Cell);
    std::uint64_t mSelf = 0;
    Cell(SyntaxTree &tree, INDEX key) {
        const INDEX layer = key / gWidth, i = key % gWidth;
        if ((layer + 1) * gWidth >= gCount) {
            tree.once([this, key] { mSelf = static_cast<std::uint64_t>(key); });
            return;
        }
        const Cell &a = tree.stack<Cell>((layer + 1) * gWidth + i);
        const Cell &b = tree.stack<Cell>((layer + 1) * gWidth + (i + 1) % gWidth);
        tree.once([this, &a, &b] { mSelf = a.mSelf * 31 + b.mSelf; });
    }
};
struct Top {
    ORN_NODE(Top);
    std::uint64_t mSelf = 0;
    explicit Top(SyntaxTree &tree) {
        std::vector<const Cell *> cells;
        for (INDEX i = 0; i < gWidth; ++i)
            cells.push_back(&tree.stack<Cell>(i));
        tree.once([this, cells] {
            for (const Cell *c : cells)
                mSelf ^= c->mSelf;
        });
    }
};

struct Phases {
    double mDeclare = 0, mPlay = 0, mDestroy = 0;
};

// The phase counters use this thread's CPU time (user and system, page faults
// included): the benchmark machine is shared, and waiting for a core is not
// the graph's cost.
double cpu_now() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}
double seconds_since(double t) { return cpu_now() - t; }

// Declare at the root, clean, play, destroy; one result value to keep.
template <class TOP>
std::uint64_t run_graph(Phases &p, INDEX top_key) {
    auto tree = std::make_unique<SyntaxTree>();
    double t = cpu_now();
    const TOP &top = top_key == ORN::VAR_NONE ? tree->stack<TOP>() : tree->stack<TOP>(top_key);
    p.mDeclare += seconds_since(t);
    t = cpu_now();
    tree->clean();
    tree->play();
    p.mPlay += seconds_since(t);
    const std::uint64_t result = top.mSelf;
    t = cpu_now();
    tree.reset();
    p.mDestroy += seconds_since(t);
    return result;
}

void report(benchmark::State &state, const Phases &p, INDEX nodes) {
    const double per = 1e9 / (double(state.iterations()) * double(nodes));
    state.counters["nodes"] = double(nodes);
    state.counters["ns/node"] = (p.mDeclare + p.mPlay + p.mDestroy) * per;
    state.counters["declare"] = p.mDeclare * per;
    state.counters["play"] = p.mPlay * per;
    state.counters["destroy"] = p.mDestroy * per;
    state.SetItemsProcessed(state.iterations() * nodes);
}

void BM_GraphChain(benchmark::State &state) {
    gCount = state.range(0);
    Phases p;
    for (auto _ : state)
        benchmark::DoNotOptimize(run_graph<Link>(p, 0));
    report(state, p, gCount);
}

void BM_GraphFanOut(benchmark::State &state) {
    gCount = state.range(0);
    Phases p;
    for (auto _ : state)
        benchmark::DoNotOptimize(run_graph<Hub>(p, ORN::VAR_NONE));
    report(state, p, gCount + 1);
}

void BM_GraphDiamond(benchmark::State &state) {
    gWidth = 100;
    gCount = state.range(0);
    Phases p;
    for (auto _ : state)
        benchmark::DoNotOptimize(run_graph<Top>(p, ORN::VAR_NONE));
    report(state, p, gCount + 1);
}

// The peer: the chain's values and actions without a graph, run in an order
// known in advance.
void BM_DirectChain(benchmark::State &state) {
    const INDEX n = state.range(0);
    struct Value {
        std::uint64_t mSelf = 0;
        ORN::Function<void()> mActor;
    };
    Phases p;
    for (auto _ : state) {
        double t = cpu_now();
        std::vector<std::unique_ptr<Value>> values(static_cast<std::size_t>(n));
        for (auto &v : values)
            v = std::make_unique<Value>();
        for (INDEX k = 0; k < n; ++k) {
            Value *self = values[std::size_t(k)].get();
            const Value *next = k + 1 < n ? values[std::size_t(k + 1)].get() : nullptr;
            self->mActor = [self, next] { self->mSelf = next ? next->mSelf + 1 : 1; };
        }
        p.mDeclare += seconds_since(t);
        t = cpu_now();
        for (INDEX k = n; k-- > 0;)
            values[std::size_t(k)]->mActor();
        p.mPlay += seconds_since(t);
        benchmark::DoNotOptimize(values[0]->mSelf);
        t = cpu_now();
        values.clear();
        p.mDestroy += seconds_since(t);
    }
    report(state, p, n);
}

// ---------------------------------------------------------------------------
// Peak memory: Blob[k] needs Blob[k + 1]; each holds 16 MiB, filled by its
// action from the next one's first byte. The live set is largest right after
// an action has filled its value, so each action samples the resident size
// there (the kernel's own high-water mark lags behind by a few MiB here).

constexpr INDEX kBlobs = 64;
constexpr INDEX kBlobBytes = INDEX(16) << 20;

INDEX status_kib(const char *key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(key, 0) == 0)
            return std::stoll(line.substr(std::strlen(key)));
    return -1;
}

INDEX gPeakKib = 0;

struct Blob {
    ORN_NODE(Blob);
    ORN::Buffer<unsigned char> mSelf;
    Blob(SyntaxTree &tree, INDEX key) {
        const Blob *next = key + 1 < kBlobs ? &tree.stack<Blob>(key + 1) : nullptr;
        tree.once([this, next] {
            mSelf = ORN::Buffer<unsigned char>(kBlobBytes);
            std::memset(mSelf.data(), next ? next->mSelf[0] + 1 : 1, std::size_t(kBlobBytes));
            gPeakKib = std::max(gPeakKib, status_kib("VmRSS:"));
        });
    }
};

// Resident peak growth (KiB) of one run of the chain. Measured in a fresh
// process (this program started again with kPeakChild), whose allocator has
// no free memory left over from the other benchmarks; large blocks are mapped
// and unmapped one by one, so what is measured is the graph's release, not
// the allocator's caching.
constexpr const char *kPeakChild = "--graph-peak-child";

INDEX peak_child(bool release) {
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    const INDEX base = status_kib("VmRSS:");
    SyntaxTree tree;
    const Blob &head = tree.stack<Blob>(0);
    if (release)
        tree.clean();
    tree.play();
    return head.mSelf[0] == static_cast<unsigned char>(kBlobs) ? gPeakKib - base : -1;
}

INDEX peak_growth_kib(bool release) {
    int fds[2];
    if (pipe(fds) != 0)
        return -1;
    const pid_t child = fork();
    if (child == 0) {
        dup2(fds[1], STDOUT_FILENO);
        execl("/proc/self/exe", "graph_bench", kPeakChild, release ? "1" : "0", static_cast<char *>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    char text[64] = {};
    INDEX got = 0;
    for (ssize_t r; got < INDEX(sizeof(text)) - 1 && (r = read(fds[0], text + got, sizeof(text) - 1 - std::size_t(got))) > 0;)
        got += r;
    close(fds[0]);
    waitpid(child, nullptr, 0);
    return got > 0 ? std::atoll(text) : -1;
}

void BM_GraphPeakMemory(benchmark::State &state) {
    const bool release = state.range(0) != 0;
    INDEX growth = 0;
    for (auto _ : state)
        growth = peak_growth_kib(release);
    state.counters["peak_MiB"] = double(growth) / 1024.0;
    state.counters["values_live"] = double(growth) / double(kBlobBytes / 1024);
}

// Each size runs for at least two seconds after a warm-up pass (the first
// pass of the largest sizes also pays for faulting in the deep stack).
void sizes(benchmark::internal::Benchmark *b) {
    b->RangeMultiplier(10)->Range(1000, 1000000)->Unit(benchmark::kMillisecond)->MinWarmUpTime(0.5)->MinTime(2.0);
}
BENCHMARK(BM_GraphChain)->Apply(sizes);
BENCHMARK(BM_DirectChain)->Apply(sizes);
BENCHMARK(BM_GraphFanOut)->Apply(sizes);
BENCHMARK(BM_GraphDiamond)->Apply(sizes);
BENCHMARK(BM_GraphPeakMemory)->ArgName("clean")->Arg(1)->Arg(0)->Iterations(1)->Unit(benchmark::kMillisecond);

struct Args {
    int argc;
    char **argv;
    int status = 0;
};

void *run_benchmarks(void *p) {
    auto *a = static_cast<Args *>(p);
    benchmark::Initialize(&a->argc, a->argv);
    if (benchmark::ReportUnrecognizedArguments(a->argc, a->argv)) {
        a->status = 1;
        return nullptr;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return nullptr;
}

} // namespace

int main(int argc, char **argv) {
    if (argc == 3 && std::strcmp(argv[1], kPeakChild) == 0) {
        std::printf("%lld\n", static_cast<long long>(peak_child(argv[2][0] == '1')));
        return 0;
    }
    Args args{argc, argv};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, std::size_t(4) << 30);
    pthread_t thread;
    if (pthread_create(&thread, &attr, run_benchmarks, &args) != 0) {
        std::fprintf(stderr, "cannot start the benchmark thread\n");
        return 1;
    }
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    return args.status;
}
