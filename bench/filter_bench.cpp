// The reference image filter (libStereoRotCam.so) on panoramas of the
// "normal" size, 4096 x 2048 JPEG, with 20 regions each, against decoding
// and encoding the same images alone (the least any filter does); then one
// object shared by one and by two threads.
//
// The panoramas are made here: smooth shapes with fine grain, so that their
// JPEG size is that of a real panorama (about 2 MB at quality 95). Build
// the target StereoRotCam first; it is found beside this program's build
// directory.
#include "ZARN_Common/ImageProc.h"
#include "ZARN_Common/StereoRotCamLibrary.h"
#include "__ORN__/orn_images.h"

#include <benchmark/benchmark.h>

#include <dlfcn.h>
#include <unistd.h>

#include <opencv2/imgproc.hpp>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
namespace Lib = ZARN::StereoRotCamLibrary;
namespace Code = ZARN::StitchLibrary;
using ZARN::ImageProc;

constexpr int WIDTH = 4096, HEIGHT = 2048;
constexpr int PANORAMAS = 4, REGIONS = 20, QUALITY = 95;
// What the filter process passes: its default write buffer and preview.
constexpr long long WRITE_BUFFER = 268435456;
constexpr int PREVIEW_WIDTH = 512;

fs::path build_directory() { return fs::canonical("/proc/self/exe").parent_path().parent_path(); }

struct Setup {
    Setup() {
        char pattern[] = "/tmp/zarn_filter_bench_XXXXXX";
        mDir = ::mkdtemp(pattern);
        cv::RNG rng(7);
        for (int p = 0; p < PANORAMAS; ++p) {
            cv::Mat image(HEIGHT, WIDTH, CV_8UC3);
            image.setTo(cv::Scalar(90 + 20 * p, 120, 150));
            for (int s = 0; s < 400; ++s)
                cv::circle(image, cv::Point(rng.uniform(0, WIDTH), rng.uniform(0, HEIGHT)), rng.uniform(10, 200),
                           cv::Scalar(rng.uniform(0, 256), rng.uniform(0, 256), rng.uniform(0, 256)), cv::FILLED,
                           cv::LINE_AA);
            cv::Mat grain(HEIGHT, WIDTH, CV_8UC3);
            rng.fill(grain, cv::RNG::NORMAL, 0, 6);
            cv::add(image, grain, image);
            ORN::Image::write(input(p), ImageProc::image(image), QUALITY);
            std::vector<int> rects;
            for (int r = 0; r < REGIONS; ++r) {
                const int w = rng.uniform(60, 400), h = rng.uniform(40, 300);
                rects.insert(rects.end(), {rng.uniform(0, WIDTH - w), rng.uniform(0, HEIGHT - h), w, h});
            }
            mRects.push_back(rects);
        }
        void *lib = dlopen((build_directory() / "backends/libStereoRotCam.so").c_str(), RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr)
            throw std::runtime_error(dlerror());
        const auto create = reinterpret_cast<Lib::CREATE_FILTER *>(dlsym(lib, "KIVO_CreateFilterHandle"));
        const auto init = reinterpret_cast<Lib::INIT_FILTER *>(dlsym(lib, "KIVO_InitFilterHandle"));
        mExecute = reinterpret_cast<Lib::EXECUTE_FILTER *>(dlsym(lib, "KIVO_ExecuteFilterHandle"));
        mHandle = create();
        if (init(mHandle, WRITE_BUFFER, QUALITY, PREVIEW_WIDTH) != Code::KIVO_OK)
            throw std::runtime_error("init failed");
    }
    ~Setup() {
        std::error_code ec;
        fs::remove_all(mDir, ec);
    }
    std::string input(int p) const { return (mDir / ("in_" + std::to_string(p) + ".jpg")).string(); }
    std::string output(const char *kind, int thread) const {
        return (mDir / (kind + std::to_string(thread) + ".jpg")).string();
    }

    fs::path mDir;
    std::vector<std::vector<int>> mRects;
    Lib::EXECUTE_FILTER *mExecute = nullptr;
    Lib::FILTER_HANDLE mHandle = nullptr;
};

Setup &setup() {
    static Setup s;
    return s;
}

// One panorama through the library: decode, 20 regions, encode, write (and
// the preview when the second argument is 1). Each thread goes through the
// panoramas in turn.
void BM_FilterPanorama(benchmark::State &state) {
    Setup &s = setup();
    const int type = static_cast<int>(state.range(0));
    const bool preview = state.range(1) != 0;
    const std::string out = s.output("out_", state.thread_index()), small = s.output("preview_", state.thread_index());
    int p = state.thread_index();
    for (auto _ : state) {
        const std::string in = s.input(p % PANORAMAS);
        if (s.mExecute(s.mHandle, in.c_str(), out.c_str(), preview ? small.c_str() : nullptr,
                       s.mRects[p % PANORAMAS].data(), REGIONS, WIDTH, HEIGHT, type) != Code::KIVO_OK)
            state.SkipWithError("execute failed");
        ++p;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FilterPanorama)
    ->ArgNames({"type", "preview"})
    ->Args({Lib::FILTER_BLUR, 0})
    ->Args({Lib::FILTER_PIXELATE, 0})
    ->Args({Lib::FILTER_FILL, 0})
    ->Args({Lib::FILTER_BLUR, 1})
    ->Threads(1)
    ->Threads(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// The peer: the same panoramas decoded, encoded at the same quality and
// written, nothing else.
void BM_DecodeEncodeAlone(benchmark::State &state) {
    Setup &s = setup();
    const std::string out = s.output("plain_", state.thread_index());
    int p = state.thread_index();
    for (auto _ : state) {
        const ORN::Image image = ORN::Image::read(s.input(p % PANORAMAS));
        const ORN::Buffer<unsigned char> bytes = ORN::Image::encode(".jpg", image, QUALITY);
        std::ofstream(out, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        ++p;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeEncodeAlone)->Threads(1)->Threads(2)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
