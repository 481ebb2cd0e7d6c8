// PLY loading speed and memory, against the raw whole-file read (the time
// just to get the bytes off the page cache), and against that read plus the
// first write of a buffer the size of the stored values (the floor once the
// values have to be held). The reader streams the file through a bounded
// window, so its peak memory should stay near the values alone.
//
// Chunk loading (PointCloudProc::read_chunk: the reader decoding the vertex
// element straight into the cloud's arrays) is measured against the raw
// read of the same file in the same run, beside the previous two-pass form
// (the reader storing every value widened, then the cloud converted from
// its columns), kept here only as the peer.
//
// Files (made once under /tmp, removed at exit):
//   vertices: 10^7 vertices, x y z float, red green blue uchar;
//   chunk:    4*10^6 vertices, x y z nx ny nz float, red green blue uchar
//             (a reconstruction's chunk with normals);
//   mesh:     10^6 vertices (x y z float) and 2*10^6 triangles
//             (list uchar int vertex_indices);
// each as binary little-endian, binary big-endian and ascii.
#include "ZARN_Common/PlyReader.h"
#include "ZARN_Common/PointCloudProc.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_stream.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using ORN::INDEX;

constexpr INDEX VERTEX_COUNT = 10'000'000;
constexpr INDEX CHUNK_COUNT = 4'000'000;
constexpr INDEX MESH_VERTEX_COUNT = 1'000'000;
constexpr INDEX FACE_COUNT = 2'000'000;

const char *const FORMATS[] = {"binary_little_endian", "binary_big_endian", "ascii"};

struct Files {
    fs::path dir;
    Files() {
        dir = fs::path("/tmp") / ("zarn_ply_bench_" + std::to_string(::getpid()));
        fs::create_directories(dir);
        for (const char *format : FORMATS) {
            write_vertices(path("vertices", format), format);
            write_chunk(path("chunk", format), format);
            write_mesh(path("mesh", format), format);
        }
    }
    ~Files() { fs::remove_all(dir); }

    std::string path(const std::string &kind, const std::string &format) const { return (dir / (kind + "_" + format + ".ply")).string(); }

    // Buffered writer of one body: binary values in the file's byte order
    // or ascii tokens.
    struct Out {
        std::FILE *file;
        bool ascii, big;
        std::string buffer;
        Out(const std::string &p, const std::string &format)
            : file(std::fopen(p.c_str(), "wb")), ascii(format == "ascii"), big(format == "binary_big_endian") {}
        ~Out() {
            flush();
            std::fclose(file);
        }
        void flush() {
            std::fwrite(buffer.data(), 1, buffer.size(), file);
            buffer.clear();
        }
        void text(const std::string &t) { buffer += t; }
        template <class T>
        void value(T v, char after) {
            if (ascii) {
                char t[32];
                const auto r = std::to_chars(t, t + sizeof t, v);
                buffer.append(t, static_cast<std::size_t>(r.ptr - t));
                buffer.push_back(after);
            } else {
                char b[sizeof(T)];
                std::memcpy(b, &v, sizeof(T));
                for (std::size_t i = 0; i < sizeof(T); ++i)
                    buffer.push_back(b[big ? sizeof(T) - 1 - i : i]);
            }
            if (buffer.size() > (1u << 22))
                flush();
        }
    };

    static void write_vertices(const std::string &p, const std::string &format) {
        Out out(p, format);
        out.text("ply\nformat " + format + " 1.0\nelement vertex " + std::to_string(VERTEX_COUNT) +
                 "\nproperty float x\nproperty float y\nproperty float z\nproperty uchar red\nproperty uchar green\n"
                 "property uchar blue\nend_header\n");
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> u(-100.f, 100.f);
        for (INDEX i = 0; i < VERTEX_COUNT; ++i) {
            out.value(u(rng), ' ');
            out.value(u(rng), ' ');
            out.value(u(rng), ' ');
            out.value(static_cast<unsigned char>(rng()), ' ');
            out.value(static_cast<unsigned char>(rng()), ' ');
            out.value(static_cast<unsigned char>(rng()), '\n');
        }
    }

    static void write_chunk(const std::string &p, const std::string &format) {
        Out out(p, format);
        out.text("ply\nformat " + format + " 1.0\nelement vertex " + std::to_string(CHUNK_COUNT) +
                 "\nproperty float x\nproperty float y\nproperty float z\nproperty float nx\nproperty float ny\n"
                 "property float nz\nproperty uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n");
        std::mt19937 rng(3);
        std::uniform_real_distribution<float> u(-100.f, 100.f), d(-1.f, 1.f);
        for (INDEX i = 0; i < CHUNK_COUNT; ++i) {
            for (int a = 0; a < 3; ++a)
                out.value(u(rng), ' ');
            for (int a = 0; a < 3; ++a)
                out.value(d(rng), ' ');
            out.value(static_cast<unsigned char>(rng()), ' ');
            out.value(static_cast<unsigned char>(rng()), ' ');
            out.value(static_cast<unsigned char>(rng()), '\n');
        }
    }

    static void write_mesh(const std::string &p, const std::string &format) {
        Out out(p, format);
        out.text("ply\nformat " + format + " 1.0\nelement vertex " + std::to_string(MESH_VERTEX_COUNT) +
                 "\nproperty float x\nproperty float y\nproperty float z\nelement face " + std::to_string(FACE_COUNT) +
                 "\nproperty list uchar int vertex_indices\nend_header\n");
        std::mt19937 rng(2);
        std::uniform_real_distribution<float> u(-100.f, 100.f);
        for (INDEX i = 0; i < MESH_VERTEX_COUNT; ++i) {
            out.value(u(rng), ' ');
            out.value(u(rng), ' ');
            out.value(u(rng), '\n');
        }
        for (INDEX i = 0; i < FACE_COUNT; ++i) {
            out.value(static_cast<unsigned char>(3), ' ');
            out.value(static_cast<std::int32_t>(rng() % MESH_VERTEX_COUNT), ' ');
            out.value(static_cast<std::int32_t>(rng() % MESH_VERTEX_COUNT), ' ');
            out.value(static_cast<std::int32_t>(rng() % MESH_VERTEX_COUNT), '\n');
        }
    }
};

const Files &files() {
    static const Files f;
    return f;
}

// Bytes of the values a reader keeps for each file kind.
INDEX stored_bytes(const std::string &kind) {
    return kind == "vertices" ? VERTEX_COUNT * 6 * 8
           : kind == "chunk"  ? CHUNK_COUNT * 9 * 8
                              : MESH_VERTEX_COUNT * 3 * 8 + FACE_COUNT * 3 * 8;
}

// Seconds per load of the raw read, by file, for the ratio counters.
std::map<std::string, double> &raw_seconds() {
    static std::map<std::string, double> m;
    return m;
}

double seconds_since(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

void BM_RawRead(benchmark::State &state, std::string kind, std::string format) {
    const std::string path = files().path(kind, format);
    double total = 0;
    for (auto _ : state) {
        const auto t = std::chrono::steady_clock::now();
        auto data = ORN::FileSystemProc::load_file(path);
        benchmark::DoNotOptimize(data.data());
        total += seconds_since(t);
    }
    raw_seconds()[path] = total / static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(fs::file_size(path)) * state.iterations());
}

// Seconds to make and first write a fresh buffer of the stored values' size:
// what holding the values costs before any parsing.
std::map<std::string, double> &touch_seconds() {
    static std::map<std::string, double> m;
    return m;
}

void BM_ValuesFirstWrite(benchmark::State &state, std::string kind) {
    const INDEX count = stored_bytes(kind) / 8;
    double total = 0;
    for (auto _ : state) {
        const auto t = std::chrono::steady_clock::now();
        ORN::Buffer<double> values(count);
        double *v = values.data();
        for (INDEX i = 0; i < count; ++i)
            v[i] = static_cast<double>(i);
        benchmark::DoNotOptimize(v);
        total += seconds_since(t);
    }
    touch_seconds()[kind] = total / static_cast<double>(state.iterations());
    state.SetBytesProcessed(stored_bytes(kind) * state.iterations());
}

void BM_PlyReader(benchmark::State &state, std::string kind, std::string format) {
    const std::string path = files().path(kind, format);
    double total = 0;
    for (auto _ : state) {
        const auto t = std::chrono::steady_clock::now();
        ZARN::PlyReader reader(path);
        benchmark::DoNotOptimize(&reader.get_value(0, 0, 0));
        total += seconds_since(t);
    }
    const double per_load = total / static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(fs::file_size(path)) * state.iterations());
    if (raw_seconds().count(path)) {
        state.counters["x_raw_read"] = per_load / raw_seconds()[path];
        if (touch_seconds().count(kind))
            state.counters["x_raw_plus_values"] = per_load / (raw_seconds()[path] + touch_seconds()[kind]);
    }
}

// The previous form of chunk loading, the peer of read_chunk: the reader
// stores every value widened to 8 bytes, then a second pass converts the
// columns into the cloud's arrays (normals made unit length, colours
// clamped, the chunk number filled in). The file's checks are read_chunk's.
ZARN::PointCloudProc::CLOUD two_pass_chunk(const std::string &path) {
    const ZARN::PlyReader ply(path);
    const INDEX vertex = ply.find_element("vertex");
    const auto find = [&](const char *name) { return ply.find_property(vertex, name); };
    const INDEX n = ply.element_size(vertex);
    ZARN::PointCloudProc::CLOUD cloud;
    cloud.resize(n);
    const double *axis[3] = {ply.get_values(vertex, find("x")).data(), ply.get_values(vertex, find("y")).data(),
                             ply.get_values(vertex, find("z")).data()};
    float *p = cloud.mPosition.data();
    for (INDEX i = 0; i < n; ++i, p += 3) {
        for (int a = 0; a < 3; ++a)
            p[a] = static_cast<float>(axis[a][i]);
        if (!(std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2])))
            std::abort();
    }
    float *nn = cloud.mNormal.data();
    if (find("nx") != ORN::VAR_NONE) {
        const double *normal[3] = {ply.get_values(vertex, find("nx")).data(), ply.get_values(vertex, find("ny")).data(),
                                   ply.get_values(vertex, find("nz")).data()};
        for (INDEX i = 0; i < n; ++i, nn += 3) {
            const double v[3] = {normal[0][i], normal[1][i], normal[2][i]};
            const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
            for (int a = 0; a < 3; ++a)
                nn[a] = length > 0 ? static_cast<float>(v[a] / length) : 0.0f;
        }
    } else {
        std::fill(cloud.mNormal.begin(), cloud.mNormal.end(), 0.0f);
    }
    if (find("red") != ORN::VAR_NONE) {
        const ORN::uint64 *channel[3] = {ply.get_bytes(vertex, find("red")).data(), ply.get_bytes(vertex, find("green")).data(),
                                         ply.get_bytes(vertex, find("blue")).data()};
        std::uint8_t *c = cloud.mColour.data();
        for (INDEX i = 0; i < n; ++i, c += 3)
            for (int a = 0; a < 3; ++a)
                c[a] = static_cast<std::uint8_t>(std::min<ORN::uint64>(channel[a][i], 255));
    } else {
        std::fill(cloud.mColour.begin(), cloud.mColour.end(), std::uint8_t(160));
    }
    std::fill(cloud.mChunk.begin(), cloud.mChunk.end(), std::uint16_t(0));
    return cloud;
}

// One way of loading a file: the reader alone, read_chunk, or the previous
// two-pass chunk loading.
enum LOAD { READER, CHUNK, TWO_PASS };

void load(LOAD what, const std::string &path) {
    if (what == READER) {
        ZARN::PlyReader reader(path);
        benchmark::DoNotOptimize(&reader.get_value(0, 0, 0));
    } else {
        const ZARN::PointCloudProc::CLOUD cloud =
            what == CHUNK ? ZARN::PointCloudProc::read_chunk(path, 0) : two_pass_chunk(path);
        benchmark::DoNotOptimize(cloud.mPosition.data());
    }
}

// Chunk loading, either form, against the raw read of the same file.
void BM_Chunk(benchmark::State &state, std::string kind, std::string format, LOAD what) {
    const std::string path = files().path(kind, format);
    double total = 0;
    for (auto _ : state) {
        const auto t = std::chrono::steady_clock::now();
        load(what, path);
        total += seconds_since(t);
    }
    state.SetBytesProcessed(static_cast<int64_t>(fs::file_size(path)) * state.iterations());
    if (raw_seconds().count(path))
        state.counters["x_raw_read"] = total / static_cast<double>(state.iterations()) / raw_seconds()[path];
}

// Peak resident memory of one load, measured in a child process: the peak
// mark is reset after the fork, so it covers only what the load adds.
void BM_PeakMemory(benchmark::State &state, std::string kind, std::string format, LOAD what) {
    const std::string path = files().path(kind, format);
    double grown_mb = 0;
    for (auto _ : state) {
        int fds[2];
        if (::pipe(fds) != 0) {
            state.SkipWithError("pipe");
            return;
        }
        const pid_t child = ::fork();
        if (child == 0) {
            const auto kib = [](const char *key) {
                std::ifstream status("/proc/self/status");
                std::string line;
                while (std::getline(status, line))
                    if (line.rfind(key, 0) == 0)
                        return std::stol(line.substr(std::strlen(key)));
                return -1L;
            };
            std::ofstream("/proc/self/clear_refs") << "5";
            const long before = kib("VmRSS:");
            load(what, path);
            const long grown = kib("VmHWM:") - before;
            [[maybe_unused]] const auto n = ::write(fds[1], &grown, sizeof grown);
            ::_exit(0);
        }
        long grown = 0;
        [[maybe_unused]] const auto n = ::read(fds[0], &grown, sizeof grown);
        ::waitpid(child, nullptr, 0);
        ::close(fds[0]);
        ::close(fds[1]);
        grown_mb = static_cast<double>(grown) / 1024.0;
    }
    // The values a reader keeps, or the cloud read_chunk makes.
    const INDEX kept = what == READER ? stored_bytes(kind)
                                      : (kind == "vertices" ? VERTEX_COUNT : kind == "chunk" ? CHUNK_COUNT : MESH_VERTEX_COUNT) *
                                            ZARN::PointCloudProc::CLOUD::POINT_BYTES;
    const double stored_mb = static_cast<double>(kept) / (1024.0 * 1024.0);
    const double file_mb = static_cast<double>(fs::file_size(path)) / (1024.0 * 1024.0);
    state.counters["peak_MiB"] = grown_mb;
    state.counters["values_MiB"] = stored_mb;
    state.counters["file_MiB"] = file_mb;
    state.counters["x_values"] = grown_mb / stored_mb;
}

void register_all() {
    for (const std::string kind : {"vertices", "chunk", "mesh"}) {
        benchmark::RegisterBenchmark(("ValuesFirstWrite/" + kind).c_str(), BM_ValuesFirstWrite, kind)
            ->Iterations(kind == "vertices" ? 5 : 10)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        for (const std::string format : FORMATS) {
            const bool big = kind == "vertices";
            const int binary_iterations = big ? 5 : 10;
            const int iterations = format == "ascii" ? (big ? 2 : 4) : binary_iterations;
            benchmark::RegisterBenchmark(("RawRead/" + kind + "/" + format).c_str(), BM_RawRead, kind, format)
                ->Iterations(iterations)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            benchmark::RegisterBenchmark(("PlyReader/" + kind + "/" + format).c_str(), BM_PlyReader, kind, format)
                ->Iterations(iterations)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            benchmark::RegisterBenchmark(("ReadChunk/" + kind + "/" + format).c_str(), BM_Chunk, kind, format, CHUNK)
                ->Iterations(iterations)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            benchmark::RegisterBenchmark(("TwoPassChunk/" + kind + "/" + format).c_str(), BM_Chunk, kind, format, TWO_PASS)
                ->Iterations(iterations)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            for (const auto &[name, what] : {std::pair{"PeakMemory/", READER}, std::pair{"PeakMemory/ReadChunk/", CHUNK}})
                benchmark::RegisterBenchmark((name + kind + "/" + format).c_str(), BM_PeakMemory, kind, format, what)
                    ->Iterations(1)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime();
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    files();
    register_all();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
