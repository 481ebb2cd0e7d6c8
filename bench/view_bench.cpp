// A framed view's projection against FFmpeg's v360 filter making the same
// flat view from the same frame, in the same run.
//
// The frame: 4096 x 2048, a textured equirectangular image. The view: 1280 x
// 720, 90 degrees wide, yaw 30, pitch -10. Ours renders it from the decoded
// frame on every core (ViewProjection::render, pyramid level and bilinear
// sampling included). FFmpeg runs as a program reading the same frame as
// raw pixels: "v360" is the whole command with the filter, "crop" the same
// command with a filter that costs next to nothing, so that v360 - crop is
// the filter's own cost (its tables are built for every run, as one view
// of a frame needs). The counter "psnr_vs_v360" compares the two views.
#include "ZARN_Common/ImageProc.h"
#include "ZARN_Common/ViewProjection.h"
#include "__ORN__/orn_thread.h"

#include <benchmark/benchmark.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr int FRAME_W = 4096, FRAME_H = 2048, VIEW_W = 1280, VIEW_H = 720;
constexpr double FOV = 90, YAW = 30, PITCH = -10;

struct Fixture {
    fs::path mDir;
    cv::Mat mFrame;
    Fixture() {
        mDir = fs::temp_directory_path() / ("zarn-view-bench-" + std::to_string(::getpid()));
        fs::create_directories(mDir);
        // Smooth colour ramps under random blobs: detail at every scale.
        mFrame.create(FRAME_H, FRAME_W, CV_8UC3);
        cv::Mat noise(FRAME_H / 16, FRAME_W / 16, CV_8UC3);
        cv::randu(noise, cv::Scalar::all(0), cv::Scalar::all(255));
        cv::resize(noise, mFrame, mFrame.size(), 0, 0, cv::INTER_CUBIC);
        for (int y = 0; y < FRAME_H; y += 64)
            cv::line(mFrame, {0, y}, {FRAME_W - 1, y}, cv::Scalar(255, 255, 255), 2);
        for (int x = 0; x < FRAME_W; x += 64)
            cv::line(mFrame, {x, 0}, {x, FRAME_H - 1}, cv::Scalar(0, 0, 0), 2);
        std::ofstream(mDir / "frame.raw", std::ios::binary)
            .write(reinterpret_cast<const char *>(mFrame.data), std::streamsize(mFrame.total() * 3));
    }
    ~Fixture() {
        std::error_code ec;
        fs::remove_all(mDir, ec);
    }
    std::string ffmpeg(const std::string &filter, const std::string &out) const {
        return "ffmpeg -nostdin -hide_banner -loglevel error -y -f rawvideo -pix_fmt bgr24 -s " +
               std::to_string(FRAME_W) + "x" + std::to_string(FRAME_H) + " -i '" + (mDir / "frame.raw").string() +
               "' -vf '" + filter + "' -frames:v 1 -f rawvideo -pix_fmt bgr24 '" + (mDir / out).string() + "'";
    }
};

Fixture &fixture() {
    static Fixture f;
    return f;
}

ZARN::ViewProjection::VIEW view() { return {YAW, PITCH, 0, FOV, VIEW_W, VIEW_H}; }

std::string v360_filter() {
    const double v_fov = 2 * std::atan(std::tan(FOV / 2 * M_PI / 180) * VIEW_H / VIEW_W) * 180 / M_PI;
    char filter[256];
    std::snprintf(filter, sizeof(filter), "v360=e:flat:h_fov=%g:v_fov=%.6f:w=%d:h=%d:yaw=%g:pitch=%g:interp=linear", FOV,
                  v_fov, VIEW_W, VIEW_H, YAW, PITCH);
    return filter;
}

void BM_ViewProjection(benchmark::State &state) {
    const ORN::Image frame = ZARN::ImageProc::image(fixture().mFrame);
    const int threads = static_cast<int>(ORN::WorkThread::resources().mCores);
    ORN::Image out;
    for (auto _ : state) {
        out = ZARN::ViewProjection::render(frame, view(), threads);
        benchmark::DoNotOptimize(out.data());
    }
    // The same view by v360, compared.
    const std::string file = "v360.raw";
    if (std::system(fixture().ffmpeg(v360_filter(), file).c_str()) == 0) {
        std::ifstream in(fixture().mDir / file, std::ios::binary);
        cv::Mat theirs(VIEW_H, VIEW_W, CV_8UC3);
        in.read(reinterpret_cast<char *>(theirs.data), std::streamsize(theirs.total() * 3));
        state.counters["psnr_vs_v360"] = cv::PSNR(ZARN::ImageProc::mat(out), theirs);
    }
    state.counters["threads"] = threads;
}
BENCHMARK(BM_ViewProjection)->Unit(benchmark::kMillisecond)->UseRealTime();

void run_ffmpeg(benchmark::State &state, const std::string &filter) {
    const std::string command = fixture().ffmpeg(filter, "out.raw");
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("ffmpeg failed");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
}
void BM_FFmpeg_v360(benchmark::State &state) { run_ffmpeg(state, v360_filter()); }
void BM_FFmpeg_crop(benchmark::State &state) {
    run_ffmpeg(state, "crop=" + std::to_string(VIEW_W) + ":" + std::to_string(VIEW_H) + ":0:0");
}
BENCHMARK(BM_FFmpeg_v360)->Unit(benchmark::kMillisecond)->UseManualTime();
BENCHMARK(BM_FFmpeg_crop)->Unit(benchmark::kMillisecond)->UseManualTime();

} // namespace

BENCHMARK_MAIN();
