// PLY loading speed and memory, against the raw whole-file read (the time
// just to get the bytes off the page cache), and against that read plus the
// first write of a buffer the size of the stored values (the floor once the
// values have to be held). The reader streams the file through a bounded
// window, so its peak memory should stay near the values alone.
//
// Files (made once under /tmp, removed at exit):
//   vertices: 10^7 vertices, x y z float, red green blue uchar;
//   mesh:     10^6 vertices (x y z float) and 2*10^6 triangles
//             (list uchar int vertex_indices);
// each as binary little-endian, binary big-endian and ascii.
#include "ZARN_Common/PlyReader.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_stream.h"

#include <benchmark/benchmark.h>

#include <charconv>
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
    return kind == "vertices" ? VERTEX_COUNT * 6 * 8 : MESH_VERTEX_COUNT * 3 * 8 + FACE_COUNT * 3 * 8;
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

// Peak resident memory of one load, measured in a child process: the peak
// mark is reset after the fork, so it covers only what the load adds.
void BM_PeakMemory(benchmark::State &state, std::string kind, std::string format) {
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
            {
                ZARN::PlyReader reader(path);
                benchmark::DoNotOptimize(&reader.get_value(0, 0, 0));
            }
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
    const double stored_mb = static_cast<double>(stored_bytes(kind)) / (1024.0 * 1024.0);
    const double file_mb = static_cast<double>(fs::file_size(path)) / (1024.0 * 1024.0);
    state.counters["peak_MiB"] = grown_mb;
    state.counters["values_MiB"] = stored_mb;
    state.counters["file_MiB"] = file_mb;
    state.counters["x_values"] = grown_mb / stored_mb;
}

void register_all() {
    for (const std::string kind : {"vertices", "mesh"}) {
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
            benchmark::RegisterBenchmark(("PeakMemory/" + kind + "/" + format).c_str(), BM_PeakMemory, kind, format)
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
