// The stitching library's video delivery against FFmpeg's command line
// doing the same conversion with the same encoder settings on the same
// video, in the same run: a Motion-JPEG AVI of 2048 x 1024 (the size of a
// stitched video at the "normal" panorama quality), 60 frames at 30 per
// second, decoded, tone-adjusted by an HDR value of 2 (the same curve as
// `lutyuv`), encoded by libx264 (preset fast, CRF 23, key frame every 48
// frames, 4 threads) into a fast-start MP4. The library also writes the
// poster JPEG; the command line writes none.
//
// Both alternate within each iteration; the counters give frames per
// second of each and the library's speed relative to the command line
// (target: at least 0.9). Build the targets Stitch first; `ffmpeg` must be
// on the path.
#include "ZARN_Common/VideoTransferLibrary.h"

#include <benchmark/benchmark.h>

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace {

namespace fs = std::filesystem;
namespace Lib = ZARN::VideoTransferLibrary;

constexpr int FRAMES = 60;
constexpr double HDR = 2.0;

fs::path build_directory() { return fs::canonical("/proc/self/exe").parent_path().parent_path(); }

void shell(const std::string &command) {
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("failed: " + command);
}

struct Setup {
    Setup() {
        char pattern[] = "/tmp/zarn_video_bench_XXXXXX";
        mDir = ::mkdtemp(pattern);
        shell("ffmpeg -v error -y -f lavfi -i testsrc2=size=2048x1024:rate=30 -frames:v " + std::to_string(FRAMES) +
              " -c:v mjpeg -q:v 3 -pix_fmt yuvj420p " + path("source.avi"));
        void *lib = dlopen((build_directory() / "backends/libStitch.so").c_str(), RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr)
            throw std::runtime_error(dlerror());
        auto *create = reinterpret_cast<Lib::CREATE_VIDEO_TRANSFER *>(dlsym(lib, "KIVO_CreateVideoTransferHandle"));
        auto *init = reinterpret_cast<Lib::INIT_VIDEO_TRANSFER *>(dlsym(lib, "KIVO_InitVideoTransferHandle"));
        mExecute = reinterpret_cast<Lib::EXECUTE_VIDEO_TRANSFER *>(dlsym(lib, "KIVO_ExecuteVideoTransferHandle"));
        if (create == nullptr || init == nullptr || mExecute == nullptr)
            throw std::runtime_error("libStitch.so lacks the transfer entries");
        mHandle = create();
        if (init(mHandle, 64 << 20, 23, "fast", 48, 4) != 0)
            throw std::runtime_error("init failed");
    }
    ~Setup() {
        std::error_code ec;
        fs::remove_all(mDir, ec);
    }
    std::string path(const std::string &name) const { return (mDir / name).string(); }

    double library() const {
        const auto start = std::chrono::steady_clock::now();
        double statistics[2] = {0, 0};
        if (mExecute(mHandle, path("source.avi").c_str(), HDR, path("library.mp4").c_str(),
                     path("library.jpg").c_str(), 1.0, statistics) != 0 ||
            statistics[0] != FRAMES)
            throw std::runtime_error("transfer failed");
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    double command_line() const {
        // The tone curve of the library, k = log2(2) = 1.
        const std::string x = "clip((val-16)/219\\,0\\,1)";
        const std::string curve = "lutyuv=y=16+219*" + x + "*2/(1+" + x + ")";
        const auto start = std::chrono::steady_clock::now();
        shell("ffmpeg -v error -y -i " + path("source.avi") + " -vf 'format=yuv420p," + curve +
              "' -c:v libx264 -preset fast -crf 23 -g 48 -threads 4 -movflags +faststart " + path("command.mp4"));
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

    fs::path mDir;
    Lib::TRANSFER_HANDLE mHandle = nullptr;
    Lib::EXECUTE_VIDEO_TRANSFER *mExecute = nullptr;
};

void BM_TransferAgainstCommandLine(benchmark::State &state) {
    static Setup setup;
    double library = 0, command = 0;
    for (auto _ : state) {
        command += setup.command_line();
        library += setup.library();
    }
    const double n = double(state.iterations()) * FRAMES;
    state.counters["library_fps"] = n / library;
    state.counters["ffmpeg_fps"] = n / command;
    state.counters["speed_ratio"] = command / library;
}
BENCHMARK(BM_TransferAgainstCommandLine)->Iterations(3)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
