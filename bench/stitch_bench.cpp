// The reference stitching library at the "normal" panorama size, 4096 x 2048,
// against its essential steps measured alone in the same run: decoding the
// two captures, one full-panorama remap per lens, encoding the panorama
// (JPEG, quality 95). Then one object shared by one and by two threads.
//
// The job is made by zarn_capture at that width (captures about 2464
// pixels square); build the targets Stitch and zarn_capture first. Both
// are found beside this program's build directory.
//
// A bracketed capture (the generator's second point: four exposures per
// lens, darkest first) merged and stitched by the HDR execute, against the
// plain execute of the same point's normal capture in the same iterations,
// with OpenCV's default threads and with one: their time ratio, PSNR
// against the truth and clipped values. ZARN_STITCH_LIBRARY names another
// libStitch.so to measure (today's: run with LD_LIBRARY_PATH at its core
// library, docs/PERFORMANCE.md).
//
// Then, on a parallax capture of the same size (lenses 3 cm apart, near
// objects across the seam band): the flow-aligned seam against the plain
// blend in the same iterations (time, PSNR against the truth over the band
// where both lenses see, edge doubling), and a 512 x 512 repair against a
// whole stitch.
#include "ZARN_Common/ImageProc.h"
#include "ZARN_Common/StitchLibrary.h"
#include "__ORN__/orn_images.h"

#include <benchmark/benchmark.h>

#include <dlfcn.h>
#include <unistd.h>

#include <opencv2/imgproc.hpp>

#include <fstream>
#include <sstream>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
namespace Lib = ZARN::StitchLibrary;
using ZARN::ImageProc;

constexpr int WIDTH = 4096, HEIGHT = 2048;
// The panorama size and the seam: the plain blend, as the figures before the
// flow-aligned seams were measured.
const int SIZE[3] = {WIDTH, HEIGHT, Lib::SEAM_PLAIN};

fs::path build_directory() { return fs::canonical("/proc/self/exe").parent_path().parent_path(); }

struct Setup {
    Setup() {
        char pattern[] = "/tmp/zarn_stitch_bench_XXXXXX";
        mJob = ::mkdtemp(pattern);
        const std::string command = (build_directory() / "bin/zarn_capture").string() + " " + mJob.string() +
                                    " --width 4096 --points 2 --videos 0 > /dev/null";
        if (std::system(command.c_str()) != 0)
            throw std::runtime_error("zarn_capture failed: " + command);
        fs::create_directories(mJob / "caches/images");
        const char *other = std::getenv("ZARN_STITCH_LIBRARY");
        const fs::path library = other && *other ? fs::path(other) : build_directory() / "backends/libStitch.so";
        void *lib = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr)
            throw std::runtime_error(dlerror());
        mCreate = reinterpret_cast<Lib::CREATE_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_CreateOptFlowStitchHandle"));
        mInit = reinterpret_cast<Lib::INIT_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_InitOptFlowStitchHandle"));
        mExecute = reinterpret_cast<Lib::EXECUTE_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_ExecuteOptFlowStitchHandle"));
        mExecuteHdr =
            reinterpret_cast<Lib::EXECUTE_OPT_FLOW_STITCH_HDR *>(dlsym(lib, "KIVO_ExecuteOptFlowStitchHDRHandle"));
        if (mCreate == nullptr || mInit == nullptr || mExecute == nullptr || mExecuteHdr == nullptr)
            throw std::runtime_error("libStitch.so lacks an entry");
        mHandle = mCreate();
        if (mInit(mHandle, path("caches/table_Up.bin").c_str(), path("caches/table_Down.bin").c_str(), WIDTH, HEIGHT,
                  WIDTH / 8, HEIGHT / 8, Lib::OUTPUT_BITS) != Lib::KIVO_OK)
            throw std::runtime_error("init failed");
        // The peers' remap tables: every panorama pixel through each lens.
        for (int lens = 0; lens < 2; ++lens) {
            const auto table = ImageProc::read_lens_table(path(lens ? "caches/table_Down.bin" : "caches/table_Up.bin"));
            cv::Mat map(HEIGHT, WIDTH, CV_32FC2);
            cv::parallel_for_(cv::Range(0, HEIGHT), [&](const cv::Range &rows) {
                for (int v = rows.start; v < rows.end; ++v)
                    for (int u = 0; u < WIDTH; ++u) {
                        double d[3], x = -16, y = -16;
                        ImageProc::panorama_direction(u, v, WIDTH, HEIGHT, d);
                        ImageProc::lens_project(table, d, x, y);
                        map.at<cv::Vec2f>(v, u) = cv::Vec2f(float(x), float(y));
                    }
            });
            cv::convertMaps(map, cv::noArray(), mMap1[lens], mMap2[lens], CV_16SC2, false);
        }
        mUp = ORN::Image::read(path("captures/point_000_up.jpg"));
        mDown = ORN::Image::read(path("captures/point_000_down.jpg"));
        mPanorama = ORN::Image::read(path("truth/point_000.png"));
    }
    ~Setup() {
        std::error_code ec;
        fs::remove_all(mJob, ec);
    }
    std::string path(const std::string &relative) const { return (mJob / relative).string(); }

    fs::path mJob;
    Lib::CREATE_OPT_FLOW_STITCH *mCreate = nullptr;
    Lib::INIT_OPT_FLOW_STITCH *mInit = nullptr;
    Lib::EXECUTE_OPT_FLOW_STITCH *mExecute = nullptr;
    Lib::EXECUTE_OPT_FLOW_STITCH_HDR *mExecuteHdr = nullptr;
    Lib::IMAGE_HANDLE mHandle = nullptr;
    cv::Mat mMap1[2], mMap2[2];
    ORN::Image mUp, mDown, mPanorama;
};

Setup &setup() {
    static Setup s;
    return s;
}

// One panorama by the library: decode, match, remap, blend, encode, write.
void BM_LibraryPanorama(benchmark::State &state) {
    Setup &s = setup();
    const std::string up = s.path("captures/point_000_up.jpg"), down = s.path("captures/point_000_down.jpg");
    const std::string out = s.path("caches/images/bench_" + std::to_string(state.thread_index()) + ".jpg");
    for (auto _ : state)
        if (s.mExecute(s.mHandle, up.c_str(), down.c_str(), out.c_str(), SIZE, nullptr, "bench") != Lib::KIVO_OK)
            state.SkipWithError("execute failed");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LibraryPanorama)->Threads(1)->Threads(2)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_DecodeCaptures(benchmark::State &state) {
    Setup &s = setup();
    for (auto _ : state) {
        auto a = ORN::Image::read(s.path("captures/point_000_up.jpg"));
        auto b = ORN::Image::read(s.path("captures/point_000_down.jpg"));
        benchmark::DoNotOptimize(a.data());
        benchmark::DoNotOptimize(b.data());
    }
}
BENCHMARK(BM_DecodeCaptures)->Unit(benchmark::kMillisecond);

void BM_RemapBothLenses(benchmark::State &state) {
    Setup &s = setup();
    ORN::Image out(WIDTH, HEIGHT, 3, ORN::ImageDepth::U8);
    cv::Mat pixels = ImageProc::mat(out);
    const ORN::Image *captures[2] = {&s.mUp, &s.mDown};
    for (auto _ : state)
        for (int lens = 0; lens < 2; ++lens) {
            cv::remap(ImageProc::mat(*captures[lens]), pixels, s.mMap1[lens], s.mMap2[lens], cv::INTER_LINEAR,
                      cv::BORDER_CONSTANT);
            benchmark::DoNotOptimize(out.data());
        }
}
BENCHMARK(BM_RemapBothLenses)->Unit(benchmark::kMillisecond);

void BM_EncodePanorama(benchmark::State &state) {
    Setup &s = setup();
    for (auto _ : state) {
        auto bytes = ORN::Image::encode(".jpg", s.mPanorama, 95);
        benchmark::DoNotOptimize(bytes.data());
    }
}
BENCHMARK(BM_EncodePanorama)->Unit(benchmark::kMillisecond);

// The three steps back to back, as the least a stitcher does.
void BM_EssentialSteps(benchmark::State &state) {
    Setup &s = setup();
    ORN::Image out(WIDTH, HEIGHT, 3, ORN::ImageDepth::U8);
    cv::Mat pixels = ImageProc::mat(out);
    for (auto _ : state) {
        const ORN::Image captures[2] = {ORN::Image::read(s.path("captures/point_000_up.jpg")),
                                        ORN::Image::read(s.path("captures/point_000_down.jpg"))};
        for (int lens = 0; lens < 2; ++lens)
            cv::remap(ImageProc::mat(captures[lens]), pixels, s.mMap1[lens], s.mMap2[lens], cv::INTER_LINEAR,
                      cv::BORDER_CONSTANT);
        auto bytes = ORN::Image::encode(".jpg", out, 95);
        benchmark::DoNotOptimize(bytes.data());
    }
}
BENCHMARK(BM_EssentialSteps)->Unit(benchmark::kMillisecond);

// The peer: FFmpeg's v360 filter turning the same two fisheye captures,
// side by side (input=dfisheye), into a 4096 x 2048 equirectangular JPEG of
// the same quality, one thread. It runs as a program, so its time includes
// starting FFmpeg (a few milliseconds), decoding and encoding, like the
// library's. Skipped when ffmpeg is not installed.
void BM_FfmpegV360(benchmark::State &state) {
    Setup &s = setup();
    if (std::system("command -v ffmpeg > /dev/null 2>&1") != 0) {
        state.SkipWithError("ffmpeg is not installed");
        return;
    }
    const std::string pair = s.path("captures/side_by_side.jpg");
    if (!fs::exists(pair)) {
        cv::Mat both;
        cv::hconcat(ImageProc::mat(s.mUp), ImageProc::mat(s.mDown), both);
        ORN::Image::write(pair, ImageProc::image(both), 95);
    }
    const auto table = ImageProc::read_lens_table(s.path("caches/table_Up.bin"));
    const std::string fov = std::to_string(2 * table.mMaxAngle);
    const std::string command = "ffmpeg -v error -y -threads 1 -filter_threads 1 -i " + pair +
                                " -vf v360=input=dfisheye:output=e:w=" + std::to_string(WIDTH) +
                                ":h=" + std::to_string(HEIGHT) + ":ih_fov=" + fov + ":iv_fov=" + fov +
                                ":pitch=90 -q:v 2 " + s.path("caches/images/ffmpeg.jpg");
    for (auto _ : state)
        if (std::system(command.c_str()) != 0)
            state.SkipWithError("ffmpeg failed");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FfmpegV360)->UseRealTime()->Unit(benchmark::kMillisecond);

// The whole stitch process over 20 panoramas of the same capture, with one
// worker, through the launcher (--verbose): the action's time ("time costs
// : ") against the time its library calls took ("library calls : "), both
// as the process reports them. The counter "overhead_percent" is what the
// process adds around the library calls; "cold_library_percent" is how much
// longer the calls took in the fresh process than 20 calls on a warm object
// in this one (the library's own start-up: first-touch memory).
void BM_ProcessTwentyPanoramas(benchmark::State &state) {
    Setup &s = setup();
    const fs::path job = s.mJob / "twenty";
    fs::create_directories(job / "caches");
    for (const char *table : {"caches/table_Up.bin", "caches/table_Down.bin"})
        fs::copy_file(s.path(table), job / table, fs::copy_options::overwrite_existing);
    std::string records;
    for (int i = 0; i < 20; ++i)
        records += std::string(i ? "," : "") + "{\"dst1\":\"caches/images/p" + std::to_string(i) +
                   ".jpg\",\"name\":\"p" + std::to_string(i) + "\",\"raw1\":\"" +
                   s.path("captures/point_000_up.jpg").substr(s.mJob.string().size() + 1) + "\",\"raw2\":\"" +
                   s.path("captures/point_000_down.jpg").substr(s.mJob.string().size() + 1) +
                   "\",\"config\":\"default\",\"hdr\":0,\"resolution\":1,\"is_main\":1}";
    // The captures are reached from the job through its own folder.
    fs::create_directories(job / "captures");
    for (const char *capture : {"captures/point_000_up.jpg", "captures/point_000_down.jpg"})
        fs::copy_file(s.path(capture), job / capture, fs::copy_options::overwrite_existing);
    auto write = [](const fs::path &file, const std::string &text) {
        FILE *f = std::fopen(file.c_str(), "wb");
        std::fwrite(text.data(), 1, text.size(), f);
        std::fclose(f);
    };
    write(job / "caches/stitch_data.json", "{\"stitch_main_param\":{\"image_file\":[" + records + "]}}");
    write(job / "caches/split_data.json", "{\"StitchMainProcess\":{\"video_stitch\":false}}");
    write(job / "setting.xml", "<_Lumora><StitchMainProcess><mThreadConcurrency value=\"1\"/></StitchMainProcess></_Lumora>");

    const std::string up = s.path("captures/point_000_up.jpg"), down = s.path("captures/point_000_down.jpg");
    const std::string out = s.path("caches/images/alone.jpg");
    const std::string command = (build_directory() / "bin/zarn").string() +
                                " run --verbose --process StitchMainProcess --libs " +
                                (build_directory() / "backends").string() + " " + job.string();
    double overhead = 0, cold = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < 20; ++i)
            s.mExecute(s.mHandle, up.c_str(), down.c_str(), out.c_str(), SIZE, nullptr, "alone");
        const double alone = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        FILE *pipe = ::popen(("NO_COLOR=1 " + command).c_str(), "r");
        double action = 0, library = 0;
        char line[512];
        while (std::fgets(line, sizeof(line), pipe) != nullptr) {
            (void)std::sscanf(line, "time costs : %lf s", &action);
            (void)std::sscanf(line, "library calls : %lf s", &library);
        }
        ::pclose(pipe);
        if (action <= 0 || library <= 0) {
            state.SkipWithError("the process did not report its times");
            return;
        }
        overhead = 100.0 * (action - library) / action;
        cold = 100.0 * (library - alone) / alone;
        state.SetIterationTime(action);
    }
    state.counters["overhead_percent"] = overhead;
    state.counters["cold_library_percent"] = cold;
}
BENCHMARK(BM_ProcessTwentyPanoramas)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// --- Bracketed captures.

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The HDR execute of point 1's four brackets per lens against the plain
// execute of its normal capture, one of each per iteration on one object,
// JPEG out (quality as the library writes). Argument: OpenCV's threads (0:
// its default). The time is the HDR execute's; counters: both times and
// their ratio, PSNR against the truth of both, and the share of values at
// 250 or above in each (the truth clips where the normal exposure does).
void BM_HdrAgainstPlain(benchmark::State &state) {
    Setup &s = setup();
    const int threads = cv::getNumThreads();
    if (state.range(0) > 0)
        cv::setNumThreads(int(state.range(0)));
    const std::string up = s.path("captures/point_001_up.jpg"), down = s.path("captures/point_001_down.jpg");
    std::string b[8];
    for (int k = 0; k < 4; ++k) {
        b[k] = s.path("captures/point_001_up_" + std::to_string(k) + ".jpg");
        b[4 + k] = s.path("captures/point_001_down_" + std::to_string(k) + ".jpg");
    }
    const std::string out[2] = {s.path("caches/images/hdr_plain.jpg"), s.path("caches/images/hdr.jpg")};
    double time[2] = {0, 0};
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        if (s.mExecute(s.mHandle, up.c_str(), down.c_str(), out[0].c_str(), SIZE, nullptr, "bench") != Lib::KIVO_OK) {
            state.SkipWithError("execute failed");
            break;
        }
        time[0] += seconds_since(start);
        start = std::chrono::steady_clock::now();
        if (s.mExecuteHdr(s.mHandle, b[0].c_str(), b[1].c_str(), b[2].c_str(), b[3].c_str(), b[4].c_str(),
                          b[5].c_str(), b[6].c_str(), b[7].c_str(), out[1].c_str(), SIZE, 4) != Lib::KIVO_OK) {
            state.SkipWithError("HDR execute failed");
            break;
        }
        const double hdr = seconds_since(start);
        time[1] += hdr;
        state.SetIterationTime(hdr);
    }
    cv::setNumThreads(threads);
    if (state.iterations() == 0 || time[0] <= 0)
        return;
    const double n = double(state.iterations());
    state.counters["plain_ms"] = 1e3 * time[0] / n;
    state.counters["hdr_ms"] = 1e3 * time[1] / n;
    state.counters["hdr_over_plain"] = time[1] / time[0];
    const ORN::Image truth = ORN::Image::read(s.path("truth/point_001.png"));
    const char *names[2] = {"plain", "hdr"};
    for (int i = 0; i < 2; ++i) {
        const ORN::Image image = ORN::Image::read(out[i]);
        const cv::Mat values = ImageProc::mat(image).reshape(1);
        state.counters[std::string(names[i]) + "_dB"] = ImageProc::psnr(truth, image);
        state.counters[std::string(names[i]) + "_clipped_percent"] =
            100.0 * cv::countNonZero(values >= 250) / double(values.total());
    }
}
BENCHMARK(BM_HdrAgainstPlain)->Arg(0)->Arg(1)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

// --- Parallax: flow-aligned seams and repairs.

struct ParallaxSetup {
    ParallaxSetup() {
        char pattern[] = "/tmp/zarn_stitch_parallax_XXXXXX";
        mJob = ::mkdtemp(pattern);
        const std::string command = (build_directory() / "bin/zarn_capture").string() + " " + mJob.string() +
                                    " --width 4096 --points 1 --videos 0 --parallax --repairs > /dev/null";
        if (std::system(command.c_str()) != 0)
            throw std::runtime_error("zarn_capture failed: " + command);
        fs::create_directories(mJob / "caches/images");
        void *lib = dlopen((build_directory() / "backends/libStitch.so").c_str(), RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr)
            throw std::runtime_error(dlerror());
        const auto create = reinterpret_cast<Lib::CREATE_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_CreateOptFlowStitchHandle"));
        const auto init = reinterpret_cast<Lib::INIT_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_InitOptFlowStitchHandle"));
        mExecute = reinterpret_cast<Lib::EXECUTE_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_ExecuteOptFlowStitchHandle"));
        mRepair = reinterpret_cast<Lib::EXECUTE_PANO_REPAIR *>(dlsym(lib, "KIVO_ExecutePanoRepairHandle"));
        mDestroy = reinterpret_cast<Lib::DESTROY_OPT_FLOW_STITCH *>(dlsym(lib, "KIVO_DestroyOptFlowStitchHandle"));
        if (mExecute == nullptr || mRepair == nullptr || mDestroy == nullptr)
            throw std::runtime_error("libStitch.so lacks an entry");
        mHandle = create();
        if (init(mHandle, path("caches/table_Up.bin").c_str(), path("caches/table_Down.bin").c_str(), WIDTH, HEIGHT,
                 WIDTH / 8, HEIGHT / 8, Lib::OUTPUT_BITS) != Lib::KIVO_OK)
            throw std::runtime_error("init failed");
        mTruth = ORN::Image::read(path("truth/point_000.png"));
        // The band: where both lenses see the panorama.
        const auto up = ImageProc::lens_coverage(ImageProc::read_lens_table(path("caches/table_Up.bin")), WIDTH, HEIGHT);
        const auto down = ImageProc::lens_coverage(ImageProc::read_lens_table(path("caches/table_Down.bin")), WIDTH, HEIGHT);
        cv::Mat band;
        cv::bitwise_and(ImageProc::mat(up), ImageProc::mat(down), band);
        mBand = ImageProc::image(band);
        mTruthEdges = edges(ImageProc::mat(mTruth));
        // The first marked region, grown to 512 x 512 around its centre.
        std::ifstream in(path("truth/repairs.json"));
        std::stringstream text;
        text << in.rdbuf();
        int x = 0, y = 0, w = 0, h = 0;
        const std::string all = text.str();
        const auto rect = all.find("\"rect\":");
        if (rect == std::string::npos ||
            std::sscanf(all.c_str() + rect, "\"rect\":{\"x\":%d,\"y\":%d,\"w\":%d,\"h\":%d}", &x, &y, &w, &h) != 4)
            throw std::runtime_error("no marked region in truth/repairs.json");
        mRegion[0] = std::clamp(x + w / 2 - 256, 0, WIDTH - 512);
        mRegion[1] = std::clamp(y + h / 2 - 256, 0, HEIGHT - 512);
    }
    ~ParallaxSetup() {
        if (mHandle != nullptr)
            mDestroy(mHandle);
        std::error_code ec;
        fs::remove_all(mJob, ec);
    }
    std::string path(const std::string &relative) const { return (mJob / relative).string(); }

    // Strong edges: Canny on grey levels with fixed thresholds.
    static cv::Mat edges(const cv::Mat &bgr) {
        cv::Mat grey, out;
        cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
        cv::Canny(grey, out, 40, 120);
        return out;
    }
    // Edge doubling: the share (percent) of the stitch's edge pixels in the
    // band with no edge of the truth within 2 pixels. A doubled or cut
    // object leaves edges where the truth has none.
    double ghost_percent(const ORN::Image &stitched) const {
        cv::Mat near_truth;
        cv::dilate(mTruthEdges, near_truth, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(5, 5)));
        const cv::Mat found = edges(ImageProc::mat(stitched));
        const cv::Mat band = ImageProc::mat(mBand);
        long all = 0, stray = 0;
        for (int y = 0; y < found.rows; ++y) {
            const auto *f = found.ptr<unsigned char>(y);
            const auto *n = near_truth.ptr<unsigned char>(y);
            const auto *b = band.ptr<unsigned char>(y);
            for (int x = 0; x < found.cols; ++x)
                if (f[x] && b[x]) {
                    ++all;
                    stray += n[x] == 0;
                }
        }
        return all ? 100.0 * double(stray) / double(all) : 0.0;
    }

    fs::path mJob;
    Lib::EXECUTE_OPT_FLOW_STITCH *mExecute = nullptr;
    Lib::EXECUTE_PANO_REPAIR *mRepair = nullptr;
    Lib::DESTROY_OPT_FLOW_STITCH *mDestroy = nullptr;
    Lib::IMAGE_HANDLE mHandle = nullptr;
    ORN::Image mTruth, mBand;
    cv::Mat mTruthEdges;
    int mRegion[2] = {0, 0};
};

ParallaxSetup &parallax() {
    static ParallaxSetup s;
    return s;
}

// The flow-aligned seam (seam 1) against the plain blend (seam 0), one of
// each per iteration on one object, JPEG out. The time is the flow
// stitch's; counters: both times and their ratio, band PSNR and edge
// doubling of both.
void BM_ParallaxFlowAgainstPlain(benchmark::State &state) {
    ParallaxSetup &s = parallax();
    const std::string up = s.path("captures/point_000_up.jpg"), down = s.path("captures/point_000_down.jpg");
    double time[2] = {0, 0};
    std::string out[2];
    for (auto _ : state) {
        for (int seam = 0; seam < 2; ++seam) {
            const int size[3] = {WIDTH, HEIGHT, seam};
            out[seam] = s.path("caches/images/seam_" + std::to_string(seam) + ".jpg");
            const auto start = std::chrono::steady_clock::now();
            if (s.mExecute(s.mHandle, up.c_str(), down.c_str(), out[seam].c_str(), size, nullptr, "bench") !=
                Lib::KIVO_OK) {
                state.SkipWithError("execute failed");
                return;
            }
            time[seam] += seconds_since(start);
            if (seam == 1)
                state.SetIterationTime(seconds_since(start));
        }
    }
    const double n = double(state.iterations());
    state.counters["plain_ms"] = 1e3 * time[0] / n;
    state.counters["flow_ms"] = 1e3 * time[1] / n;
    state.counters["flow_over_plain"] = time[1] / time[0];
    const char *names[2] = {"plain", "flow"};
    for (int seam = 0; seam < 2; ++seam) {
        const ORN::Image stitched = ORN::Image::read(out[seam]);
        state.counters[std::string(names[seam]) + "_band_dB"] = ImageProc::psnr(s.mTruth, stitched, s.mBand);
        state.counters[std::string(names[seam]) + "_ghost_percent"] = s.ghost_percent(stitched);
    }
}
BENCHMARK(BM_ParallaxFlowAgainstPlain)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

// A 512 x 512 region around the first marked one, repaired (method auto)
// in the plain stitch, against a whole stitch (plain, the cheaper seam) in
// the same iterations. The time is the repair's.
void BM_ParallaxRepairAgainstStitch(benchmark::State &state) {
    ParallaxSetup &s = parallax();
    const std::string up = s.path("captures/point_000_up.jpg"), down = s.path("captures/point_000_down.jpg");
    const std::string pano = s.path("caches/images/plain.jpg"), repaired = s.path("caches/images/repaired.jpg");
    const int size[3] = {WIDTH, HEIGHT, Lib::SEAM_PLAIN};
    const int region[5] = {s.mRegion[0], s.mRegion[1], 512, 512, Lib::REPAIR_AUTO};
    const char *u[1] = {up.c_str()}, *d[1] = {down.c_str()};
    double stitch = 0, repair = 0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        if (s.mExecute(s.mHandle, up.c_str(), down.c_str(), pano.c_str(), size, nullptr, "bench") != Lib::KIVO_OK) {
            state.SkipWithError("execute failed");
            return;
        }
        stitch += seconds_since(start);
        start = std::chrono::steady_clock::now();
        if (s.mRepair(s.mHandle, u, d, 1, pano.c_str(), repaired.c_str(), size, region, 1) != Lib::KIVO_OK) {
            state.SkipWithError("repair failed");
            return;
        }
        const double r = seconds_since(start);
        repair += r;
        state.SetIterationTime(r);
    }
    const double n = double(state.iterations());
    state.counters["stitch_ms"] = 1e3 * stitch / n;
    state.counters["repair_ms"] = 1e3 * repair / n;
    state.counters["repair_percent_of_stitch"] = 100.0 * repair / stitch;
    const ORN::Image before = ORN::Image::read(pano), after = ORN::Image::read(repaired);
    cv::Mat mask = cv::Mat::zeros(HEIGHT, WIDTH, CV_8UC1);
    mask(cv::Rect(region[0], region[1], 512, 512)).setTo(255);
    const ORN::Image inside = ImageProc::image(mask);
    state.counters["region_dB_before"] = ImageProc::psnr(s.mTruth, before, inside);
    state.counters["region_dB_after"] = ImageProc::psnr(s.mTruth, after, inside);
}
BENCHMARK(BM_ParallaxRepairAgainstStitch)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
