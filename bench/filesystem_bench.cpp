// Whole-file loads against std::ifstream, and console/log lines against
// plain stdio and std::ofstream doing the same work (one flushed line on
// standard output, one appended line in a log file).
#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

struct Scratch {
    Scratch() {
        char pattern[] = "/tmp/zarn_fs_bench_XXXXXX";
        mPath = ::mkdtemp(pattern);
        std::string block(1 << 20, 'x');
        for (std::size_t i = 0; i < block.size(); i += 61)
            block[i] = '\n';
        std::ofstream out(file(), std::ios::binary);
        for (int i = 0; i < 256; ++i)
            out << block;
    }
    ~Scratch() { std::filesystem::remove_all(mPath); }
    std::string file() const { return mPath + "/data.bin"; }
    std::string mPath;
};

Scratch &scratch() {
    static Scratch s;
    return s;
}

void BM_LoadFile(benchmark::State &state) {
    const std::string path = scratch().file();
    for (auto _ : state) {
        auto data = ORN::FileSystemProc::load_file(path);
        benchmark::DoNotOptimize(data.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(std::filesystem::file_size(path)));
}
BENCHMARK(BM_LoadFile)->Unit(benchmark::kMillisecond);

void BM_IfstreamRead(benchmark::State &state) {
    const std::string path = scratch().file();
    for (auto _ : state) {
        std::ifstream in(path, std::ios::binary | std::ios::ate);
        std::vector<char> data(static_cast<std::size_t>(in.tellg()));
        in.seekg(0);
        in.read(data.data(), static_cast<std::streamsize>(data.size()));
        benchmark::DoNotOptimize(data.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(std::filesystem::file_size(path)));
}
BENCHMARK(BM_IfstreamRead)->Unit(benchmark::kMillisecond);

// Standard output goes to /dev/null while a line benchmark runs.
class Quiet {
public:
    Quiet() : mSaved(::dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDOUT_FILENO);
        ::close(null);
    }
    ~Quiet() {
        std::fflush(stdout);
        ::dup2(mSaved, STDOUT_FILENO);
        ::close(mSaved);
    }

private:
    int mSaved;
};

const std::string kMessage = "image 1234 of 5678 stitched, overlap 0.125, score 0.98765";

// Thread 0 prepares and tears down; the benchmark's threads enter and leave
// the timed loop together.
ORN::ConsoleService &shared_service() {
    static ORN::ConsoleService service;
    return service;
}
std::unique_ptr<Quiet> gQuiet;

void BM_ConsoleLineWithLog(benchmark::State &state) {
    ORN::ConsoleService &service = shared_service();
    if (state.thread_index() == 0) {
        service.attach_log(scratch().mPath);
        gQuiet = std::make_unique<Quiet>();
    }
    for (auto _ : state)
        service.info(kMessage);
    if (state.thread_index() == 0) {
        gQuiet.reset();
        service.detach_log();
    }
}
BENCHMARK(BM_ConsoleLineWithLog)->Threads(1)->Threads(2);

std::mutex gPeerMutex;
std::ofstream gPeerLog;

void BM_StdioAndOfstreamLine(benchmark::State &state) {
    if (state.thread_index() == 0) {
        gPeerLog.open(scratch().mPath + "/peer.log", std::ios::app);
        gQuiet = std::make_unique<Quiet>();
    }
    for (auto _ : state) {
        const std::lock_guard<std::mutex> lock(gPeerMutex);
        std::fprintf(stdout, "%s\n", kMessage.c_str());
        std::fflush(stdout);
        gPeerLog << "[2026-01-01 00:00:00.000][INFO] : " << kMessage << '\n' << std::flush;
    }
    if (state.thread_index() == 0) {
        gQuiet.reset();
        gPeerLog.close();
    }
}
BENCHMARK(BM_StdioAndOfstreamLine)->Threads(1)->Threads(2);

void BM_ConsoleLineNoLog(benchmark::State &state) {
    ORN::ConsoleService service;
    Quiet quiet;
    for (auto _ : state)
        service.info(kMessage);
}
BENCHMARK(BM_ConsoleLineNoLog);

} // namespace

BENCHMARK_MAIN();
