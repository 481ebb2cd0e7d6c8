// The mesh process (VeldaMeshProcess) on the reference reconstruction's
// synthetic two-storey interior, whose true surfaces are known:
//
//   Load/*     the chunks read on two workers: the raw read of the files
//              (load_file, the peer), the PLY reader alone, and read_chunk;
//              the page cache warm for all three, their memory fresh.
//   Normals/*  normals of the merged cloud (k = 8, two threads): ours
//              (build_tree, then estimate_normals on the cloud without its
//              normals) against Open3D's PointCloud::EstimateNormals, whose
//              own kd-tree (KDTreeFlann over the same points) is also built
//              alone to tell the search from the tree.
//   Process    the whole process through the launcher, its stages from the
//              verbose time report, its processor time and peak memory
//              (the child's rusage, and the resident size sampled per stage) against
//              twice the final cloud's own size plus the meshes' own size.
//              With ZARN_MESH_BENCH_BASELINE naming the tree of an earlier
//              build (bin/zarn, lib/, backends/), Process/baseline runs that
//              build's process over the same job first, and Process gives
//              its time and peak against it; Quality/baseline/* measure the
//              earlier build's meshes, kept in the job's "baseline_results".
//   Quality/*  each floor's level-0 mesh against the true surfaces: points
//              sampled on its triangles by area (fixed hash sequence) and
//              its vertices, their distance to the nearest true surface;
//              triangles farther than 5 x NOISE and where they lie; the
//              other way, how much of the true surfaces the mesh covers;
//              the height range; the levels' triangle counts against their
//              targets; the smallest level's mean error.
//   Surface/*  (only with ZARN_MESH_BENCH_VARIANTS=1) each floor's surface
//              made again from the final cloud with another Poisson depth,
//              trim distance or normal orientation, measured the same way.
//
// ZARN_MESH_BENCH_POINTS sets the dense point count (10^7 by default). The
// job is made under /tmp and removed at exit, unless ZARN_MESH_BENCH_DIR
// names a directory to keep: a job already there with the same count is
// used again. The launcher, the generator and the libraries come from this
// build tree.
#include "ZARN_Common/PlyReader.h"
#include "ZARN_Common/PointCloudProc.h"
#include "ZARN_Common/SurfaceProc.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_serialization.h"
#include "__ORN__/orn_thread.h"
#include "interior_scene.h"

#include "bench_support.h"

#include <benchmark/benchmark.h>
#include <omp.h>
#include <open3d/geometry/KDTreeFlann.h>
#include <open3d/geometry/KDTreeSearchParam.h>
#include <open3d/geometry/PointCloud.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using bench_support::quote;
using bench_support::read_text;
using ORN::INDEX;
using ZARN::PointCloudProc::CLOUD;
using Clock = std::chrono::steady_clock;

constexpr int THREADS = 2;
constexpr INDEX SEARCH_COUNT = 8;       // the process's mPointCloudSearchCount
constexpr double MERGE_RADIUS = 0.002;  // the process's merge_radius
constexpr double FAR = 5 * zarn_interior::NOISE;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

INDEX point_count() {
    const char *text = std::getenv("ZARN_MESH_BENCH_POINTS");
    const long long n = text != nullptr ? std::atoll(text) : 0;
    return n > 0 ? INDEX(n) : INDEX(10'000'000);
}

void check(bool ok, const std::string &what) {
    if (!ok) {
        std::fprintf(stderr, "mesh_bench: %s\n", what.c_str());
        std::exit(1);
    }
}

void shell(const std::string &command) {
    check(std::system(command.c_str()) == 0, "failed: " + command);
}

// "1.234 s", "2 min 03.456 s", "1 h 02 min 03.456 s" -> seconds.
double duration_of(const std::string &text) {
    double s = 0;
    std::smatch m;
    if (std::regex_search(text, m, std::regex(R"((\d+) h)")))
        s += 3600 * std::stod(m[1]);
    if (std::regex_search(text, m, std::regex(R"((\d+) min)")))
        s += 60 * std::stod(m[1]);
    if (std::regex_search(text, m, std::regex(R"(([0-9.]+) s$)")))
        s += std::stod(m[1]);
    return s;
}

// ---------------------------------------------------------------------------
// The job: the generator's capture job, reconstructed by the reference
// library with `points` dense points.

struct Job {
    INDEX mPoints = 0;
    fs::path mDir;
    bool mOwned = true;
    std::vector<std::string> mChunk; // absolute paths
    ORN::Array<ORN::Vector<double>> mViewpoint;
    std::vector<ZARN::PointCloudProc::FLOOR> mFloor;
    zarn_interior::Scene mScene;

    // The file that marks a directory as a job this benchmark made.
    static constexpr const char *MARK = ".mesh_bench";

    Job() : mPoints(point_count()) {
        const std::string bin = ZARN_BINARY_DIR;
        std::error_code ec;
        if (const char *dir = std::getenv("ZARN_MESH_BENCH_DIR")) {
            mDir = fs::absolute(dir);
            mOwned = false;
        } else {
            mDir = fs::path("/tmp") / ("zarn_mesh_bench_" + std::to_string(::getpid()));
        }
        const auto made = [&] {
            if (!fs::exists(mDir / "caches/mesh.json") || !fs::exists(mDir / "caches/dense/truth.json"))
                return false;
            const ORN::JsonParser split(read_text(mDir / "caches/split_data.json"));
            return split.child("VeldaMainProcess").child("Common").child("dense_points").value(INDEX(-1)) == mPoints;
        };
        if (!made()) {
            const Clock::time_point start = Clock::now();
            // Only a job this benchmark made (its mark inside) is replaced;
            // any other directory is left alone.
            const bool ours = !fs::exists(mDir, ec) ||
                              (fs::is_directory(fs::symlink_status(mDir)) &&
                               (fs::is_empty(mDir) || fs::is_regular_file(fs::symlink_status(mDir / MARK))));
            check(ours, mDir.string() + " is neither empty nor a job of this benchmark");
            fs::remove_all(mDir);
            shell(quote(bin + "/bin/zarn_capture") + " " + quote(mDir.string()) + " --points 2 --dense " +
                  std::to_string(mPoints) + " > /dev/null");
            // The reconstruction takes the job's images: the plain captures
            // of both points.
            fs::create_directories(mDir / "images");
            for (const auto &e : fs::directory_iterator(mDir / "captures")) {
                const std::string name = e.path().filename().string();
                if (std::regex_match(name, std::regex(R"(point_\d+_(up|down)\.jpg)")))
                    fs::copy_file(e.path(), mDir / "images" / name, fs::copy_options::overwrite_existing);
            }
            shell("env NO_COLOR=1 " + quote(bin + "/bin/zarn") + " run --process VeldaMainProcess --libs " +
                  quote(bin + "/backends") + " " + quote(mDir.string()) + " > /dev/null");
            std::ofstream(mDir / MARK) << "made by mesh_bench\n";
            std::fprintf(stderr, "job of %lld points made in %.1f s : %s\n", static_cast<long long>(mPoints),
                         seconds_since(start), mDir.c_str());
        }
        const ORN::JsonParser listing(read_text(mDir / "caches/mesh.json"));
        for (const ORN::JsonParser &c : listing.child("chunks").children()) {
            mChunk.push_back((mDir / "caches" / c.child("file").value("")).string());
            ORN::Vector<double> eye(3);
            const auto xyz = c.child("viewpoint").children();
            for (INDEX a = 0; a < 3; ++a)
                eye[a] = xyz[a].value(0.0);
            mViewpoint.append(eye);
        }
        for (const ORN::JsonParser &f : listing.child("floors").children()) {
            ZARN::PointCloudProc::FLOOR floor;
            floor.mName = f.child("name").value("");
            floor.mMin = f.child("min").value(0.0);
            floor.mMax = f.child("max").value(0.0);
            mFloor.push_back(floor);
        }
        // The scene the reconstruction sampled: the building around the
        // cameras' room of the floor plan, checked against the truth file.
        const ORN::JsonParser plan(read_text(mDir / "caches/floorplan.json"));
        double low[2] = {1e30, 1e30}, high[2] = {-1e30, -1e30};
        for (const ORN::JsonParser &corner : plan.child("rooms").children()[0].child("outline").children())
            for (INDEX a = 0; a < 2; ++a) {
                low[a] = std::min(low[a], corner.children()[a].value(0.0));
                high[a] = std::max(high[a], corner.children()[a].value(0.0));
            }
        mScene = zarn_interior::make_scene(low, high);
        const ORN::JsonParser truth(read_text(mDir / "caches/dense/truth.json"));
        const auto surfaces = truth.child("surfaces").children();
        check(surfaces.size() == INDEX(mScene.mSurfaces.size()), "the scene differs from the truth file");
        for (INDEX i = 0; i < surfaces.size(); ++i)
            for (INDEX a = 0; a < 3; ++a)
                check(surfaces[i].child("origin").children()[a].value(0.0) == mScene.mSurfaces[i].mOrigin[a],
                      "the scene differs from the truth file");
    }
    ~Job() {
        if (mOwned)
            fs::remove_all(mDir);
    }
    Job(const Job &) = delete;

    INDEX chunk_bytes() const {
        INDEX sum = 0;
        for (const std::string &c : mChunk)
            sum += INDEX(fs::file_size(c));
        return sum;
    }
};

Job &job() {
    static Job j;
    return j;
}

// Distance from p to one true surface (a rectangle).
double to_surface(const zarn_interior::Surface &s, const double p[3]) {
    const double d[3] = {p[0] - s.mOrigin[0], p[1] - s.mOrigin[1], p[2] - s.mOrigin[2]};
    const double uu = s.mU[0] * s.mU[0] + s.mU[1] * s.mU[1] + s.mU[2] * s.mU[2];
    const double vv = s.mV[0] * s.mV[0] + s.mV[1] * s.mV[1] + s.mV[2] * s.mV[2];
    const double a = std::clamp((d[0] * s.mU[0] + d[1] * s.mU[1] + d[2] * s.mU[2]) / uu, 0.0, 1.0);
    const double b = std::clamp((d[0] * s.mV[0] + d[1] * s.mV[1] + d[2] * s.mV[2]) / vv, 0.0, 1.0);
    double sum = 0;
    for (int k = 0; k < 3; ++k) {
        const double e = p[k] - (s.mOrigin[k] + a * s.mU[k] + b * s.mV[k]);
        sum += e * e;
    }
    return std::sqrt(sum);
}

// How well normals fit the true surfaces: the mean |cos| of the angle to the
// nearest true surface's normal, over every 16th point lying within 3 cm of
// a surface (the flying pixels left out); orientation aside.
template <class NORMAL>
double true_fit(const zarn_interior::Scene &scene, const CLOUD &cloud, NORMAL &&normal) {
    double sum = 0;
    INDEX count = 0;
#pragma omp parallel for num_threads(THREADS) reduction(+ : sum, count) schedule(static)
    for (INDEX i = 0; i < cloud.size(); i += 16) {
        const double p[3] = {cloud.mPosition[3 * i], cloud.mPosition[3 * i + 1], cloud.mPosition[3 * i + 2]};
        const zarn_interior::Surface *best = nullptr;
        double nearest = 0.03;
        for (const zarn_interior::Surface &s : scene.mSurfaces)
            if (const double d = to_surface(s, p); d < nearest) {
                nearest = d;
                best = &s;
            }
        if (best == nullptr)
            continue;
        const std::array<double, 3> n = normal(i);
        sum += std::abs(n[0] * best->mNormal[0] + n[1] * best->mNormal[1] + n[2] * best->mNormal[2]);
        ++count;
    }
    return sum / double(std::max<INDEX>(count, 1));
}

// ---------------------------------------------------------------------------
// Loading.

std::map<std::string, double> &peer_seconds() {
    static std::map<std::string, double> m;
    return m;
}

// What a load does: the raw read (the peer), the PLY reader alone (parsing
// and widening every value), or read_chunk (the reader, then the cloud's
// own arrays).
enum LOAD { RAW, READER, CHUNK };

void BM_Load(benchmark::State &state, LOAD what) {
    Job &j = job();
    const INDEX n = INDEX(j.mChunk.size());
    ORN::WorkThread workers(THREADS);
    ORN::Array<ORN::Buffer<unsigned char>> bytes(n);
    ORN::Array<ZARN::PlyReader> reader(n);
    ORN::Array<CLOUD> cloud(n);
    const auto load = [&] {
        workers.parallel_for(n, [&](INDEX i) {
            const std::string &file = j.mChunk[size_t(i)];
            if (what == RAW)
                bytes[i] = ORN::FileSystemProc::load_file(file);
            else if (what == READER)
                reader[i] = ZARN::PlyReader(file);
            else
                cloud[i] = ZARN::PointCloudProc::read_chunk(file, static_cast<std::uint16_t>(i));
        });
    };
    const auto release = [&] {
        for (INDEX i = 0; i < n; ++i) {
            bytes[i] = ORN::Buffer<unsigned char>();
            reader[i] = ZARN::PlyReader();
            cloud[i] = CLOUD();
        }
    };
    // Page cache warm.
    load();
    release();
    double total = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        load();
        const double s = seconds_since(start);
        state.SetIterationTime(s);
        total += s;
        state.PauseTiming();
        release();
        state.ResumeTiming();
    }
    const double mean = total / double(state.iterations());
    if (what == RAW)
        peer_seconds()["load"] = mean;
    else if (peer_seconds().count("load"))
        state.counters["x_raw"] = mean / peer_seconds()["load"];
    state.SetBytesProcessed(j.chunk_bytes() * INDEX(state.iterations()));
    state.counters["files"] = double(n);
}

// ---------------------------------------------------------------------------
// Normals.

struct NormalCase {
    CLOUD mCloud; // merged, without normals
    std::vector<Eigen::Vector3d> mOpen3D;
    double mOpen3DTree = 0, mOpen3DEstimate = 0;
};

NormalCase &normal_case() {
    static NormalCase c;
    if (c.mCloud.size() == 0) {
        Job &j = job();
        const INDEX n = INDEX(j.mChunk.size());
        ORN::WorkThread workers(THREADS);
        ORN::Array<CLOUD> chunk(n);
        workers.parallel_for(n, [&](INDEX i) {
            chunk[i] = ZARN::PointCloudProc::read_chunk(j.mChunk[size_t(i)], static_cast<std::uint16_t>(i));
        });
        c.mCloud = ZARN::PointCloudProc::merge_chunks(chunk, MERGE_RADIUS, workers).mCloud;
        std::fill(c.mCloud.mNormal.begin(), c.mCloud.mNormal.end(), 0.0f);
    }
    return c;
}

void BM_NormalsOpen3D(benchmark::State &state) {
    NormalCase &c = normal_case();
    omp_set_num_threads(THREADS);
    open3d::geometry::PointCloud cloud;
    cloud.points_.resize(size_t(c.mCloud.size()));
    for (INDEX i = 0; i < c.mCloud.size(); ++i)
        cloud.points_[size_t(i)] = Eigen::Vector3d(c.mCloud.mPosition[3 * i], c.mCloud.mPosition[3 * i + 1],
                                                   c.mCloud.mPosition[3 * i + 2]);
    double tree = 0, estimate = 0;
    for (auto _ : state) {
        Clock::time_point start = Clock::now();
        {
            const open3d::geometry::KDTreeFlann index(cloud);
            tree += seconds_since(start);
        }
        cloud.normals_.clear();
        start = Clock::now();
        cloud.EstimateNormals(open3d::geometry::KDTreeSearchParamKNN(int(SEARCH_COUNT)));
        const double s = seconds_since(start);
        estimate += s;
        state.SetIterationTime(s);
    }
    const double runs = double(state.iterations());
    c.mOpen3DTree = tree / runs;
    c.mOpen3DEstimate = estimate / runs;
    c.mOpen3D = cloud.normals_;
    state.counters["tree_s"] = c.mOpen3DTree;
    state.counters["estimate_s"] = c.mOpen3DEstimate;
    state.counters["without_tree_s"] = c.mOpen3DEstimate - c.mOpen3DTree;
    state.counters["true_abs_cos"] = true_fit(job().mScene, c.mCloud, [&](INDEX i) {
        const Eigen::Vector3d &n = cloud.normals_[size_t(i)];
        return std::array<double, 3>{n[0], n[1], n[2]};
    });
    state.SetItemsProcessed(c.mCloud.size() * INDEX(state.iterations()));
}

void BM_NormalsZARN(benchmark::State &state) {
    NormalCase &c = normal_case();
    ORN::WorkThread workers(THREADS);
    ORN::Array<INDEX> row(c.mCloud.size());
    for (INDEX i = 0; i < row.size(); ++i)
        row[i] = i;
    const ORN::Array<std::uint8_t> skip;
    double tree = 0, estimate = 0;
    CLOUD out;
    for (auto _ : state) {
        Clock::time_point start = Clock::now();
        const ZARN::KD_Tree index = ZARN::PointCloudProc::build_tree(c.mCloud);
        tree += seconds_since(start);
        state.PauseTiming();
        out = c.mCloud;
        state.ResumeTiming();
        start = Clock::now();
        ZARN::PointCloudProc::estimate_normals(index, c.mCloud, skip, out, row, SEARCH_COUNT, job().mViewpoint, workers);
        const double s = seconds_since(start);
        estimate += s;
        state.SetIterationTime(s);
    }
    const double runs = double(state.iterations());
    tree /= runs;
    estimate /= runs;
    state.counters["tree_s"] = tree;
    state.counters["estimate_s"] = estimate;
    if (c.mOpen3DEstimate > 0) {
        // Ours without the tree against Open3D's search and fit; ours with
        // the tree against Open3D's call, which builds its own.
        state.counters["x_open3d"] = estimate / (c.mOpen3DEstimate - c.mOpen3DTree);
        state.counters["x_open3d_with_trees"] = (tree + estimate) / c.mOpen3DEstimate;
        // Agreement of the two fits, up to orientation.
        double sum = 0;
        INDEX close = 0;
        for (INDEX i = 0; i < c.mCloud.size(); ++i) {
            const Eigen::Vector3d &o = c.mOpen3D[size_t(i)];
            const double d = std::abs(o[0] * out.mNormal[3 * i] + o[1] * out.mNormal[3 * i + 1] + o[2] * out.mNormal[3 * i + 2]);
            sum += d;
            close += d > 0.99;
        }
        state.counters["mean_abs_cos"] = sum / double(c.mCloud.size());
        state.counters["share_cos_0.99"] = double(close) / double(c.mCloud.size());
    }
    state.counters["true_abs_cos"] = true_fit(job().mScene, out, [&](INDEX i) {
        return std::array<double, 3>{out.mNormal[3 * i], out.mNormal[3 * i + 1], out.mNormal[3 * i + 2]};
    });
    state.SetItemsProcessed(c.mCloud.size() * INDEX(state.iterations()));
}

// How the fit follows k: estimate_normals for every 16th point of the
// merged cloud (the tree over all of it), and the fit to the true surfaces.
void BM_NormalFit(benchmark::State &state) {
    NormalCase &c = normal_case();
    static ZARN::KD_Tree tree;
    if (!tree.exist())
        tree = ZARN::PointCloudProc::build_tree(c.mCloud);
    const INDEX k = state.range(0), n = (c.mCloud.size() + 15) / 16;
    CLOUD some;
    some.resize(n);
    ORN::Array<INDEX> row(n);
    for (INDEX i = 0; i < n; ++i) {
        row[i] = 16 * i;
        std::copy_n(&c.mCloud.mPosition[48 * i], 3, &some.mPosition[3 * i]);
        some.mChunk[i] = c.mCloud.mChunk[16 * i];
    }
    ORN::WorkThread workers(THREADS);
    for (auto _ : state) {
        std::fill(some.mNormal.begin(), some.mNormal.end(), 0.0f);
        const Clock::time_point start = Clock::now();
        ZARN::PointCloudProc::estimate_normals(tree, c.mCloud, ORN::Array<std::uint8_t>(), some, row, k, job().mViewpoint,
                                               workers);
        state.SetIterationTime(seconds_since(start));
    }
    // Every point of the sample: the fit's own stride of 16 walks a copy
    // spread out again.
    CLOUD spread;
    spread.resize(16 * n);
    for (INDEX i = 0; i < n; ++i) {
        std::copy_n(&some.mPosition[3 * i], 3, &spread.mPosition[48 * i]);
        std::copy_n(&some.mNormal[3 * i], 3, &spread.mNormal[48 * i]);
    }
    state.counters["true_abs_cos"] = true_fit(job().mScene, spread, [&](INDEX i) {
        return std::array<double, 3>{spread.mNormal[3 * i], spread.mNormal[3 * i + 1], spread.mNormal[3 * i + 2]};
    });
    state.SetItemsProcessed(n * INDEX(state.iterations()));
}

// ---------------------------------------------------------------------------
// The whole process.

long resident_kb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    return 0;
}

std::vector<pid_t> children_of(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
    std::vector<pid_t> out;
    long c;
    while (in >> c)
        out.push_back(pid_t(c));
    return out;
}

struct ProcessRun {
    std::string mOutput;
    std::map<std::string, double> mNode; // seconds of each node's action
    double mLoad = 0, mSurface = 0, mTotal = 0, mWall = 0;
    long mPeakKb = 0;                          // ru_maxrss of the launcher's run
    double mCpu = 0;                           // processor time of the run (user and system), s
    std::map<std::string, long> mStagePeakKb;  // sampled resident size while a node ran
    std::vector<std::string> mOrder;           // nodes in the order they started
};

// The earlier build the process is measured against, or nullptr.
const char *baseline_tree() { return std::getenv("ZARN_MESH_BENCH_BASELINE"); }

// Runs the mesh process once (its report removed first, so that it does
// not find the run done) and gathers its figures: this build's, or with
// `baseline` the earlier build's (its launcher, its libraries).
ProcessRun run_process(const Job &j, bool baseline = false) {
    fs::remove(j.mDir / "caches/mesh_report.json");
    const std::string bin = baseline ? std::string(baseline_tree()) : std::string(ZARN_BINARY_DIR);
    const std::string zarn = bin + "/bin/zarn", libs = bin + "/backends", lib = bin + "/lib";
    int out[2];
    check(::pipe(out) == 0, "pipe");
    std::fflush(nullptr);
    const Clock::time_point start = Clock::now();
    const pid_t pid = ::fork();
    check(pid >= 0, "fork");
    if (pid == 0) {
        ::dup2(out[1], 1);
        ::dup2(out[1], 2);
        ::close(out[0]);
        ::close(out[1]);
        ::setenv("NO_COLOR", "1", 1);
        if (baseline)
            ::setenv("LD_LIBRARY_PATH", lib.c_str(), 1);
        ::execl(zarn.c_str(), zarn.c_str(), "run", "--process", "VeldaMeshProcess", "--verbose", "--libs", libs.c_str(),
                j.mDir.c_str(), static_cast<char *>(nullptr));
        ::_exit(127);
    }
    ::close(out[1]);
    ProcessRun r;
    std::mutex lock;
    std::string node = "start";
    std::atomic<bool> running{true};
    std::thread sampler([&] {
        while (running) {
            long kb = resident_kb(pid);
            for (pid_t c : children_of(pid))
                kb += resident_kb(c);
            {
                std::lock_guard<std::mutex> hold(lock);
                long &peak = r.mStagePeakKb[node];
                peak = std::max(peak, kb);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    const std::regex node_line(R"(^((CON|ACT|VAR)_m\w+)$)");
    std::string pending;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(out[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        r.mOutput.append(buffer, size_t(n));
        pending.append(buffer, size_t(n));
        for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
            std::smatch m;
            const std::string line = pending.substr(0, end);
            if (std::regex_match(line, m, node_line)) {
                std::lock_guard<std::mutex> hold(lock);
                node = m[1];
                r.mOrder.push_back(node);
            }
        }
    }
    ::close(out[0]);
    int status = 0;
    struct rusage usage {};
    while (::wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    r.mWall = seconds_since(start);
    running = false;
    sampler.join();
    check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the mesh process failed:\n" + r.mOutput);
    r.mPeakKb = usage.ru_maxrss;
    const auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    r.mCpu = seconds(usage.ru_utime) + seconds(usage.ru_stime);

    std::istringstream lines(r.mOutput);
    std::string line;
    std::smatch m;
    const std::regex action(R"(^(\w+) : action ([0-9.]+) ms)");
    const std::regex loaded(R"(^points loaded : \d+ in (.*)$)");
    const std::regex surface(R"( : surface of \d+ triangles \(depth \d+, \d+ before trimming\) in (.*)$)");
    const std::regex total(R"(^total time costs : (.*)$)");
    while (std::getline(lines, line)) {
        if (std::regex_search(line, m, action))
            r.mNode[m[1]] += std::stod(m[2]) / 1000;
        else if (std::regex_search(line, m, loaded))
            r.mLoad = duration_of(m[1]);
        else if (std::regex_search(line, m, surface))
            r.mSurface += duration_of(m[1]);
        else if (std::regex_search(line, m, total))
            r.mTotal = duration_of(m[1]);
    }
    return r;
}

// The earlier build's run, its results and report kept in
// "baseline_results" of the job; made before this build's run, whose
// results stay in the job.
fs::path baseline_results() { return job().mDir / "baseline_results"; }

ProcessRun &baseline_run() {
    static ProcessRun r;
    if (r.mOutput.empty()) {
        const Job &j = job();
        r = run_process(j, true);
        fs::remove_all(baseline_results());
        fs::create_directories(baseline_results());
        for (const auto &e : fs::directory_iterator(j.mDir / "results/mesh"))
            fs::copy_file(e.path(), baseline_results() / e.path().filename());
        fs::copy_file(j.mDir / "caches/mesh_report.json", baseline_results() / "mesh_report.json");
    }
    return r;
}

ProcessRun &process_run() {
    static ProcessRun r;
    if (r.mOutput.empty()) {
        if (baseline_tree() != nullptr)
            baseline_run();
        r = run_process(job());
    }
    return r;
}

// A PLY file's element counts and whether its vertices carry colours, from
// its header alone.
struct PlyHeader {
    INDEX mVertex = 0, mFace = 0;
    bool mColour = false;
};

PlyHeader ply_header(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    PlyHeader h;
    std::string line, element;
    while (std::getline(in, line) && line != "end_header") {
        std::istringstream words(line);
        std::string word, name;
        words >> word;
        if (word == "element") {
            long long count = 0;
            words >> element >> count;
            (element == "vertex" ? h.mVertex : h.mFace) = INDEX(count);
        } else if (word == "property" && element == "vertex" && line.find(" red") != std::string::npos) {
            h.mColour = true;
        }
    }
    return h;
}

void BM_Process(benchmark::State &state, bool baseline) {
    const Job &j = job();
    ProcessRun &r = baseline ? baseline_run() : process_run();
    const fs::path results = baseline ? baseline_results() : j.mDir / "results/mesh";
    const fs::path report_file = baseline ? baseline_results() / "mesh_report.json" : j.mDir / "caches/mesh_report.json";
    for (auto _ : state)
        state.SetIterationTime(r.mTotal);
    const auto node = [&](const char *name) { return r.mNode.count(name) ? r.mNode.at(name) : 0.0; };
    const double merged = node("CON_mMergedPointCloud");
    const double floor_mesh = node("CON_mFloorMesh");
    const double write = node("ACT_mMeshFile") + node("ACT_mUploadPart4Json") + node("ACT_mMeshReportJson") +
                         node("ACT_mResultsMeshDire");
    const std::pair<const char *, double> stage[] = {
        {"load_s", r.mLoad},
        {"merge_s", merged - r.mLoad},
        {"tree_s", node("CON_mFinalPointCloudKDTree")},
        {"outliers_s", node("CON_mPointNeighbour") + node("CON_mPointCloudOutlier")},
        {"normals_s", node("CON_mFinalPointCloud")},
        {"grouping_s", node("CON_mFloorGroup")},
        {"surfaces_s", r.mSurface},
        {"lods_s", floor_mesh - r.mSurface},
        {"write_s", write},
    };
    double sum = 0;
    for (const auto &[name, seconds] : stage) {
        state.counters[name] = seconds;
        sum += seconds;
    }
    state.counters["other_s"] = r.mTotal - sum;
    state.counters["total_s"] = r.mTotal;
    state.counters["cpu_s"] = r.mCpu;

    // Memory against the results' own size.
    const ORN::JsonParser report(read_text(report_file));
    const INDEX points = report.child("points").value(INDEX(0));
    const INDEX points_in = report.child("points_in").value(INDEX(0));
    INDEX mesh_bytes = 0;
    for (const auto &e : fs::directory_iterator(results))
        if (e.path().extension() == ".ply" && e.path().filename() != "point_cloud.ply") {
            const PlyHeader h = ply_header(e.path());
            mesh_bytes += h.mVertex * (12 + (h.mColour ? 3 : 0)) + h.mFace * 12;
        }
    const double peak = double(r.mPeakKb) * 1024;
    const double own = 2.0 * double(points) * double(CLOUD::POINT_BYTES) + double(mesh_bytes);
    state.counters["peak_MiB"] = peak / 1048576;
    state.counters["peak_B_per_point"] = peak / double(points);
    state.counters["own_B_per_point"] = own / double(points);
    state.counters["x_own"] = peak / own;
    state.counters["points_in"] = double(points_in);
    state.counters["points"] = double(points);
    state.counters["mesh_MiB"] = double(mesh_bytes) / 1048576;
    if (!baseline && baseline_tree() != nullptr) {
        // The same job, the earlier build, in this run.
        const ProcessRun &b = baseline_run();
        state.counters["x_baseline_time"] = r.mTotal / b.mTotal;
        state.counters["x_baseline_wall"] = r.mWall / b.mWall;
        // Processor time moves less with the machine's other work than
        // wall time does.
        state.counters["x_baseline_cpu"] = r.mCpu / b.mCpu;
        state.counters["x_baseline_peak"] = double(r.mPeakKb) / double(b.mPeakKb);
    }

    std::fprintf(stderr, "resident size sampled while each node ran (MiB, bytes per final point):\n");
    for (const std::string &name : r.mOrder)
        if (r.mStagePeakKb.count(name))
            std::fprintf(stderr, "  %-28s %9.1f %7.1f\n", name.c_str(), double(r.mStagePeakKb[name]) / 1024,
                         double(r.mStagePeakKb[name]) * 1024 / double(points));
    std::fprintf(stderr, "process wall time %.2f s (time report total %.2f s)\n", r.mWall, r.mTotal);
}

// ---------------------------------------------------------------------------
// Quality.

struct Mesh {
    std::vector<float> mVertex;
    std::vector<std::uint32_t> mTriangle;
    INDEX triangles() const { return INDEX(mTriangle.size() / 3); }
};

Mesh read_mesh(const fs::path &path) {
    const ZARN::PlyReader ply(path.string());
    const INDEX vertex = ply.find_element("vertex"), face = ply.find_element("face");
    const INDEX axis[3] = {ply.find_property(vertex, "x"), ply.find_property(vertex, "y"), ply.find_property(vertex, "z")};
    const INDEX list = ply.find_property(face, "vertex_indices");
    Mesh m;
    m.mVertex.resize(size_t(3 * ply.element_size(vertex)));
    for (INDEX v = 0; v < ply.element_size(vertex); ++v)
        for (int a = 0; a < 3; ++a)
            m.mVertex[size_t(3 * v + a)] = float(ply.get_value(vertex, axis[a], v));
    m.mTriangle.reserve(size_t(3 * ply.element_size(face)));
    for (INDEX t = 0; t < ply.element_size(face); ++t)
        for (const ORN::int64 i : ply.get_index_list(face, list, t))
            m.mTriangle.push_back(std::uint32_t(i));
    return m;
}

// 64 bits of a fixed hash sequence.
std::uint64_t hash(std::uint64_t x) {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}
double unit(std::uint64_t x) { return double(hash(x) >> 11) * 0x1.0p-53; }


// Where a point off the true surfaces lies.
const char *const PLACE[] = {"off every surface (> 10 cm)", "door opening", "furniture", "room edge or corner",
                             "open wall, floor or ceiling"};
int place_of(const zarn_interior::Scene &scene, const double p[3]) {
    if (zarn_interior::distance_to_surfaces(scene, p) > 0.1)
        return 0;
    for (const zarn_interior::Surface &s : scene.mSurfaces) {
        const double u = std::sqrt(s.mU[0] * s.mU[0] + s.mU[1] * s.mU[1] + s.mU[2] * s.mU[2]);
        const double v = std::sqrt(s.mV[0] * s.mV[0] + s.mV[1] * s.mV[1] + s.mV[2] * s.mV[2]);
        // The jambs, head and floor strip of an opening are a wall thick.
        if (std::min(u, v) < 0.1 + 1e-6 && to_surface(s, p) < 0.15)
            return 1;
    }
    for (const zarn_interior::Block &b : scene.mFurniture) {
        double sum = 0;
        for (int k = 0; k < 3; ++k) {
            const double e = p[k] - std::clamp(p[k], b.mMin[k], b.mMax[k]);
            sum += e * e;
        }
        if (sum < 0.1 * 0.1)
            return 2;
    }
    std::vector<const zarn_interior::Surface *> near;
    for (const zarn_interior::Surface &s : scene.mSurfaces)
        if (to_surface(s, p) < 0.1)
            near.push_back(&s);
    for (size_t a = 0; a < near.size(); ++a)
        for (size_t b = a + 1; b < near.size(); ++b) {
            const double *n = near[a]->mNormal, *o = near[b]->mNormal;
            if (std::abs(n[0] * o[0] + n[1] * o[1] + n[2] * o[2]) < 0.5)
                return 3;
        }
    return 4;
}

struct Quality {
    double mMean = 0;     // over the samples and the vertices
    double mMax = 0;      // over the triangles
    INDEX mFar = 0;       // triangles farther than FAR
    INDEX mPlace[5] = {}; // where the far ones lie
    bool mInRange = true;
    double mLowest = 1e30, mHighest = -1e30;
    std::vector<double> mWorst; // centroid of the farthest triangle
};

// Distances of a mesh to the true surfaces: two points per triangle on
// average, placed by area, plus every vertex; a triangle's distance is the
// largest of its corners' and its centroid's.
Quality measure(const zarn_interior::Scene &scene, const Mesh &mesh, const ZARN::PointCloudProc::FLOOR &floor,
                bool places) {
    Quality q;
    const INDEX triangles = mesh.triangles(), vertices = INDEX(mesh.mVertex.size() / 3);
    const auto corner = [&](INDEX t, int c) { return &mesh.mVertex[3 * size_t(mesh.mTriangle[size_t(3 * t + c)])]; };
    std::vector<double> cumulative(static_cast<size_t>(triangles));
    double area = 0;
    for (INDEX t = 0; t < triangles; ++t) {
        const float *a = corner(t, 0), *b = corner(t, 1), *c = corner(t, 2);
        const double u[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
        const double v[3] = {double(c[0]) - a[0], double(c[1]) - a[1], double(c[2]) - a[2]};
        const double x = u[1] * v[2] - u[2] * v[1], y = u[2] * v[0] - u[0] * v[2], z = u[0] * v[1] - u[1] * v[0];
        area += 0.5 * std::sqrt(x * x + y * y + z * z);
        cumulative[size_t(t)] = area;
    }
    std::vector<double> vertex(static_cast<size_t>(vertices));
    double sum = 0;
#pragma omp parallel for num_threads(THREADS) reduction(+ : sum) schedule(static)
    for (INDEX v = 0; v < vertices; ++v) {
        const double p[3] = {mesh.mVertex[size_t(3 * v)], mesh.mVertex[size_t(3 * v + 1)], mesh.mVertex[size_t(3 * v + 2)]};
        vertex[size_t(v)] = zarn_interior::distance_to_surfaces(scene, p);
        sum += vertex[size_t(v)];
    }
    const INDEX samples = 2 * triangles;
#pragma omp parallel for num_threads(THREADS) reduction(+ : sum) schedule(static)
    for (INDEX s = 0; s < samples; ++s) {
        const double at = unit(3 * std::uint64_t(s)) * area;
        const INDEX t = std::min<INDEX>(
            triangles - 1, INDEX(std::upper_bound(cumulative.begin(), cumulative.end(), at) - cumulative.begin()));
        double r1 = std::sqrt(unit(3 * std::uint64_t(s) + 1)), r2 = unit(3 * std::uint64_t(s) + 2);
        const float *a = corner(t, 0), *b = corner(t, 1), *c = corner(t, 2);
        double p[3];
        for (int k = 0; k < 3; ++k)
            p[k] = (1 - r1) * a[k] + r1 * (1 - r2) * b[k] + r1 * r2 * c[k];
        sum += zarn_interior::distance_to_surfaces(scene, p);
    }
    q.mMean = sum / double(vertices + samples);
    std::vector<double> worst(static_cast<size_t>(triangles));
#pragma omp parallel for num_threads(THREADS) schedule(static)
    for (INDEX t = 0; t < triangles; ++t) {
        double p[3] = {0, 0, 0}, d = 0;
        for (int c = 0; c < 3; ++c) {
            d = std::max(d, vertex[mesh.mTriangle[size_t(3 * t + c)]]);
            for (int k = 0; k < 3; ++k)
                p[k] += corner(t, c)[k] / 3.0;
        }
        worst[size_t(t)] = std::max(d, zarn_interior::distance_to_surfaces(scene, p));
    }
    for (INDEX t = 0; t < triangles; ++t) {
        const double d = worst[size_t(t)];
        double p[3] = {0, 0, 0};
        for (int c = 0; c < 3; ++c)
            for (int k = 0; k < 3; ++k)
                p[k] += corner(t, c)[k] / 3.0;
        if (d > q.mMax) {
            q.mMax = d;
            q.mWorst.assign(p, p + 3);
        }
        if (d > FAR) {
            ++q.mFar;
            if (places)
                ++q.mPlace[place_of(scene, p)];
        }
    }
    for (INDEX v = 0; v < vertices; ++v) {
        const double z = mesh.mVertex[size_t(3 * v + 2)];
        q.mLowest = std::min(q.mLowest, z);
        q.mHighest = std::max(q.mHighest, z);
        q.mInRange = q.mInRange && z >= floor.mMin && z < floor.mMax;
    }
    return q;
}

// Distance from p to the triangle abc (the closest point by the triangle's
// Voronoi regions).
double to_triangle(const double p[3], const float *a, const float *b, const float *c) {
    const auto sub = [](const double *x, const float *y, double *out) {
        for (int k = 0; k < 3; ++k)
            out[k] = x[k] - y[k];
    };
    const auto dot = [](const double *x, const double *y) { return x[0] * y[0] + x[1] * y[1] + x[2] * y[2]; };
    const double A[3] = {a[0], a[1], a[2]};
    double ab[3], ac[3], ap[3];
    for (int k = 0; k < 3; ++k) {
        ab[k] = double(b[k]) - a[k];
        ac[k] = double(c[k]) - a[k];
    }
    sub(p, a, ap);
    double closest[3];
    const auto at = [&](double v, double w) {
        for (int k = 0; k < 3; ++k)
            closest[k] = A[k] + v * ab[k] + w * ac[k];
    };
    const double d1 = dot(ab, ap), d2 = dot(ac, ap);
    double bp[3], cp[3];
    sub(p, b, bp);
    sub(p, c, cp);
    const double d3 = dot(ab, bp), d4 = dot(ac, bp), d5 = dot(ab, cp), d6 = dot(ac, cp);
    const double va = d3 * d6 - d5 * d4, vb = d5 * d2 - d1 * d6, vc = d1 * d4 - d3 * d2;
    if (d1 <= 0 && d2 <= 0)
        at(0, 0);
    else if (d3 >= 0 && d4 <= d3)
        at(1, 0);
    else if (d6 >= 0 && d5 <= d6)
        at(0, 1);
    else if (vc <= 0 && d1 >= 0 && d3 <= 0)
        at(d1 / (d1 - d3), 0);
    else if (vb <= 0 && d2 >= 0 && d6 <= 0)
        at(0, d2 / (d2 - d6));
    else if (va <= 0 && d4 - d3 >= 0 && d5 - d6 >= 0) {
        const double w = (d4 - d3) / ((d4 - d3) + (d5 - d6));
        at(1 - w, w);
    } else {
        const double sum = va + vb + vc;
        at(vb / sum, vc / sum);
    }
    double e = 0;
    for (int k = 0; k < 3; ++k)
        e += (p[k] - closest[k]) * (p[k] - closest[k]);
    return std::sqrt(e);
}

// The other way round: points spread by area over the floor's true surfaces
// (fixed hash sequence), their distance to the mesh; the share within FAR
// is the share of the true surfaces the mesh covers.
struct Coverage {
    double mMean = 0;
    double mCovered = 0;     // within FAR
    double mCoveredNear = 0; // within 2 x NOISE
};

Coverage cover(const zarn_interior::Scene &scene, const Mesh &mesh, int floor) {
    constexpr INDEX SAMPLES = 1'000'000;
    std::vector<const zarn_interior::Surface *> surface;
    std::vector<double> cumulative;
    double area = 0;
    for (const zarn_interior::Surface &s : scene.mSurfaces)
        if (s.mFloor == floor) {
            surface.push_back(&s);
            cumulative.push_back(area += s.area());
        }
    std::vector<float> point(3 * size_t(SAMPLES));
    for (INDEX i = 0; i < SAMPLES; ++i) {
        const std::uint64_t key = 0x5eed0000000000ULL + 3 * std::uint64_t(i);
        const size_t k = std::min(surface.size() - 1, size_t(std::upper_bound(cumulative.begin(), cumulative.end(),
                                                                                unit(key) * area) -
                                                             cumulative.begin()));
        const zarn_interior::Surface &s = *surface[k];
        const double a = unit(key + 1), b = unit(key + 2);
        for (int c = 0; c < 3; ++c)
            point[size_t(3 * i + c)] = float(s.mOrigin[c] + a * s.mU[c] + b * s.mV[c]);
    }
    // Exact distances to the triangles around the eight nearest vertices:
    // with triangles a few millimetres wide, the nearest one is among them.
    const INDEX vertices = INDEX(mesh.mVertex.size() / 3);
    std::vector<std::uint32_t> first(size_t(vertices) + 1, 0), around(mesh.mTriangle.size());
    for (const std::uint32_t v : mesh.mTriangle)
        ++first[v + 1];
    for (INDEX v = 0; v < vertices; ++v)
        first[size_t(v) + 1] += first[size_t(v)];
    {
        std::vector<std::uint32_t> fill(first.begin(), first.end() - 1);
        for (size_t i = 0; i < mesh.mTriangle.size(); ++i)
            around[fill[mesh.mTriangle[i]]++] = std::uint32_t(i / 3);
    }
    const float *xyz = mesh.mVertex.data();
    const ZARN::KD_Tree tree(vertices, [xyz](INDEX v) {
        return ORN::Vector<double>{double(xyz[3 * v]), double(xyz[3 * v + 1]), double(xyz[3 * v + 2])};
    });
    std::vector<float> distance(static_cast<size_t>(SAMPLES));
#pragma omp parallel num_threads(THREADS)
    {
        ORN::Array<ORN::PACK<INDEX, double>> near;
#pragma omp for schedule(static)
        for (INDEX i = 0; i < SAMPLES; ++i) {
            const double p[3] = {point[size_t(3 * i)], point[size_t(3 * i + 1)], point[size_t(3 * i + 2)]};
            tree.find_nns(ORN::Vector<double>{p[0], p[1], p[2]}, std::min<INDEX>(8, vertices), near);
            double best = near[0].mP2;
            for (const auto &n : near)
                for (std::uint32_t k = first[size_t(n.mP1)]; k < first[size_t(n.mP1) + 1]; ++k) {
                    const std::uint32_t *t = &mesh.mTriangle[3 * size_t(around[k])];
                    best = std::min(best, to_triangle(p, &xyz[3 * size_t(t[0])], &xyz[3 * size_t(t[1])], &xyz[3 * size_t(t[2])]));
                }
            distance[size_t(i)] = float(best);
        }
    }
    Coverage c;
    for (const float d : distance) {
        c.mMean += d;
        c.mCovered += d <= FAR;
        c.mCoveredNear += d <= 2 * zarn_interior::NOISE;
    }
    c.mMean /= double(SAMPLES);
    c.mCovered /= double(SAMPLES);
    c.mCoveredNear /= double(SAMPLES);
    return c;
}

void BM_Quality(benchmark::State &state, INDEX f, bool baseline) {
    Job &j = job();
    process_run(); // the meshes of this build (and of the earlier one first)
    const fs::path results = baseline ? baseline_results() : j.mDir / "results/mesh";
    const ZARN::PointCloudProc::FLOOR &floor = j.mFloor[size_t(f)];
    const ORN::JsonParser report(
        read_text(baseline ? baseline_results() / "mesh_report.json" : j.mDir / "caches/mesh_report.json"));
    const ORN::JsonParser mine = report.child("floors").children()[f];
    const auto triangles = mine.child("triangles").children(), targets = mine.child("targets").children();
    const INDEX levels = triangles.size();
    double lod_off = 0;
    for (INDEX l = 1; l < levels; ++l) {
        const double target = targets[l].value(0.0);
        lod_off = std::max(lod_off, std::abs(triangles[l].value(0.0) - target) / target);
    }
    Quality level0, smallest;
    Coverage covered;
    INDEX count0 = 0, count_last = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        const Mesh m0 = read_mesh(results / (floor.mName + "_lod0.ply"));
        const Mesh last = read_mesh(results / (floor.mName + "_lod" + std::to_string(levels - 1) + ".ply"));
        count0 = m0.triangles();
        count_last = last.triangles();
        level0 = measure(j.mScene, m0, floor, true);
        smallest = measure(j.mScene, last, floor, false);
        covered = cover(j.mScene, m0, int(f));
        state.SetIterationTime(seconds_since(start));
    }
    const double noise = zarn_interior::NOISE;
    state.counters["depth"] = mine.child("depth").value(0.0);
    state.counters["triangles"] = double(count0);
    state.counters["mean_mm"] = level0.mMean * 1000;
    state.counters["mean_x_noise"] = level0.mMean / noise;
    state.counters["max_mm"] = level0.mMax * 1000;
    state.counters["far_share"] = double(level0.mFar) / double(count0);
    state.counters["in_range"] = level0.mInRange ? 1 : 0;
    state.counters["truth_to_mesh_mm"] = covered.mMean * 1000;
    state.counters["covered_share"] = covered.mCovered;
    state.counters["covered_share_20mm"] = covered.mCoveredNear;
    state.counters["lod_off"] = lod_off;
    state.counters["smallest_triangles"] = double(count_last);
    state.counters["smallest_mean_mm"] = smallest.mMean * 1000;
    std::fprintf(stderr, "%s: heights %.3f .. %.3f in [%.3f, %.3f); %lld of %lld triangles beyond %.0f mm", floor.mName.c_str(),
                 level0.mLowest, level0.mHighest, floor.mMin, floor.mMax, static_cast<long long>(level0.mFar),
                 static_cast<long long>(count0), FAR * 1000);
    if (!level0.mWorst.empty())
        std::fprintf(stderr, "; farthest %.1f mm at (%.2f, %.2f, %.2f)", level0.mMax * 1000, level0.mWorst[0],
                     level0.mWorst[1], level0.mWorst[2]);
    std::fprintf(stderr, "\n");
    for (int p = 0; p < 5; ++p)
        if (level0.mPlace[p] > 0)
            std::fprintf(stderr, "  %-30s %8lld  %5.1f %%\n", PLACE[p], static_cast<long long>(level0.mPlace[p]),
                         100.0 * double(level0.mPlace[p]) / double(level0.mFar));
}


// ---------------------------------------------------------------------------
// One floor's surface again, from the final cloud the process wrote, with
// another depth, trim distance or normals (ZARN_MESH_BENCH_VARIANTS=1):
// what each of the process's choices does to the far triangles. "true side"
// turns every normal to the side of the nearest true surface's normal,
// which leaves the fit alone and corrects only the orientation.

struct FloorCloud {
    CLOUD mCloud;
    ORN::Array<float> mTrueSide; // the normals turned to the true side
    ZARN::KD_Tree mTree;
    double mSpacing = 0;
    int mDepth = 0;
    INDEX mFlipped = 0;
};

FloorCloud &floor_cloud(INDEX f) {
    static std::map<INDEX, FloorCloud> all;
    FloorCloud &c = all[f];
    if (c.mCloud.size() > 0)
        return c;
    Job &j = job();
    process_run();
    const ORN::JsonParser report(read_text(j.mDir / "caches/mesh_report.json"));
    c.mSpacing = report.child("spacing").value(0.0);
    c.mDepth = int(report.child("floors").children()[f].child("depth").value(INDEX(0)));
    const ZARN::PlyReader ply((j.mDir / "results/mesh/point_cloud.ply").string());
    const INDEX vertex = ply.find_element("vertex"), floor = ply.find_property(vertex, "floor");
    const char *const names[6] = {"x", "y", "z", "nx", "ny", "nz"};
    INDEX property[6];
    for (int k = 0; k < 6; ++k)
        property[k] = ply.find_property(vertex, names[k]);
    INDEX n = 0;
    for (INDEX i = 0; i < ply.element_size(vertex); ++i)
        n += INDEX(ply.get_byte(vertex, floor, i)) == f;
    c.mCloud.resize(n);
    std::fill(c.mCloud.mColour.begin(), c.mCloud.mColour.end(), std::uint8_t(160));
    std::fill(c.mCloud.mChunk.begin(), c.mCloud.mChunk.end(), std::uint16_t(0));
    for (INDEX i = 0, m = 0; i < ply.element_size(vertex); ++i)
        if (INDEX(ply.get_byte(vertex, floor, i)) == f) {
            for (int k = 0; k < 3; ++k) {
                c.mCloud.mPosition[3 * m + k] = float(ply.get_value(vertex, property[k], i));
                c.mCloud.mNormal[3 * m + k] = float(ply.get_value(vertex, property[3 + k], i));
            }
            ++m;
        }
    std::vector<const zarn_interior::Surface *> surface;
    for (const zarn_interior::Surface &s : j.mScene.mSurfaces)
        if (s.mFloor == int(f))
            surface.push_back(&s);
    c.mTrueSide = c.mCloud.mNormal;
    INDEX flipped = 0;
#pragma omp parallel for num_threads(THREADS) reduction(+ : flipped) schedule(static)
    for (INDEX i = 0; i < n; ++i) {
        const double p[3] = {c.mCloud.mPosition[3 * i], c.mCloud.mPosition[3 * i + 1], c.mCloud.mPosition[3 * i + 2]};
        const zarn_interior::Surface *best = surface[0];
        double nearest = 1e30;
        for (const zarn_interior::Surface *s : surface)
            if (const double d = to_surface(*s, p); d < nearest) {
                nearest = d;
                best = s;
            }
        float *normal = &c.mTrueSide[3 * i];
        if (normal[0] * best->mNormal[0] + normal[1] * best->mNormal[1] + normal[2] * best->mNormal[2] < 0) {
            for (int k = 0; k < 3; ++k)
                normal[k] = -normal[k];
            ++flipped;
        }
    }
    c.mFlipped = flipped;
    c.mTree = ZARN::PointCloudProc::build_tree(c.mCloud);
    return c;
}

void BM_Surface(benchmark::State &state, INDEX f, int depth_step, double reach, bool true_side) {
    Job &j = job();
    FloorCloud &c = floor_cloud(f);
    const ZARN::PointCloudProc::FLOOR &floor = j.mFloor[size_t(f)];
    const int depth = c.mDepth + depth_step;
    CLOUD points = c.mCloud;
    if (true_side)
        points.mNormal = c.mTrueSide;
    ORN::WorkThread workers(THREADS);
    Quality q;
    Coverage covered;
    INDEX triangles = 0;
    double solve = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        const ZARN::SurfaceProc::MESH surface = ZARN::SurfaceProc::reconstruct(points, depth, THREADS);
        solve = seconds_since(start);
        const ZARN::SurfaceProc::MESH level0 =
            ZARN::SurfaceProc::trim(surface, c.mTree, ORN::Array<std::uint8_t>(), std::max(reach * c.mSpacing, 1e-3),
                                    floor.mMin, floor.mMax, workers);
        state.SetIterationTime(seconds_since(start));
        Mesh mesh;
        mesh.mVertex.assign(level0.mVertex.begin(), level0.mVertex.end());
        mesh.mTriangle.assign(level0.mTriangle.begin(), level0.mTriangle.end());
        triangles = mesh.triangles();
        q = measure(j.mScene, mesh, floor, true);
        covered = cover(j.mScene, mesh, int(f));
    }
    state.counters["depth"] = depth;
    state.counters["trim_x_spacing"] = reach;
    state.counters["solve_s"] = solve;
    state.counters["triangles"] = double(triangles);
    state.counters["mean_mm"] = q.mMean * 1000;
    state.counters["max_mm"] = q.mMax * 1000;
    state.counters["far"] = double(q.mFar);
    state.counters["far_share"] = double(q.mFar) / double(triangles);
    state.counters["covered_share_20mm"] = covered.mCoveredNear;
    state.counters["truth_to_mesh_mm"] = covered.mMean * 1000;
    if (true_side)
        state.counters["flipped_share"] = double(c.mFlipped) / double(c.mCloud.size());
}

void register_all() {
    const INDEX n = point_count();
    const int runs = n > 2'000'000 ? 3 : 5;
    for (const auto &[name, what] : {std::pair{"Load/raw_read", RAW}, std::pair{"Load/PlyReader", READER},
                                      std::pair{"Load/read_chunk", CHUNK}})
        benchmark::RegisterBenchmark(name, BM_Load, what)
            ->Iterations(runs)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    const int normal_runs = n > 2'000'000 ? 1 : 3;
    benchmark::RegisterBenchmark("Normals/Open3D", BM_NormalsOpen3D)
        ->Iterations(normal_runs)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Normals/ZARN", BM_NormalsZARN)
        ->Iterations(normal_runs)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Normals/fit", BM_NormalFit)
        ->ArgName("k")
        ->Arg(8)
        ->Arg(16)
        ->Arg(32)
        ->Arg(64)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    const bool peer = baseline_tree() != nullptr;
    if (peer)
        benchmark::RegisterBenchmark("Process/baseline", BM_Process, true)
            ->Iterations(1)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Process", BM_Process, false)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
    for (const bool baseline : {true, false})
        for (INDEX f = 0; f < 2 && (peer || !baseline); ++f)
            benchmark::RegisterBenchmark(
                ((baseline ? "Quality/baseline/floor_" : "Quality/floor_") + std::to_string(f)).c_str(), BM_Quality, f,
                baseline)
                ->Iterations(1)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
    if (std::getenv("ZARN_MESH_BENCH_VARIANTS") == nullptr)
        return;
    struct VARIANT {
        const char *mName;
        int mDepthStep;
        double mReach;
        bool mTrueSide;
    };
    for (const VARIANT &v : {VARIANT{"process", 0, 3, false}, VARIANT{"true_side", 0, 3, true},
                             VARIANT{"trim_2", 0, 2, false}, VARIANT{"trim_1.5", 0, 1.5, false},
                             VARIANT{"trim_1", 0, 1, false}, VARIANT{"depth_-1", -1, 3, false},
                             VARIANT{"depth_+1", 1, 3, false}})
        for (INDEX f = 0; f < 2; ++f)
            benchmark::RegisterBenchmark(("Surface/floor_" + std::to_string(f) + "/" + v.mName).c_str(), BM_Surface, f,
                                         v.mDepthStep, v.mReach, v.mTrueSide)
                ->Iterations(1)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
}

} // namespace

int main(int argc, char **argv) {
    // Large blocks come fresh from the kernel every time, as they do in the
    // process's single run: left to itself, glibc keeps freed blocks in the
    // heap after the first round, and later rounds would find their pages
    // already mapped.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    register_all();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
