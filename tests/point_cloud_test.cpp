// The mesh process's building blocks on small clouds whose answers are
// worked out by hand: the PLY writer against the reader, the streaming
// durable writer's failure path, merging, outliers, normals, floors, and
// the mesh steps.

#include "ZARN_Common/PlyReader.h"
#include "ZARN_Common/PlyWriter.h"
#include "ZARN_Common/PointCloudProc.h"
#include "ZARN_Common/SurfaceProc.h"
#include "__ORN__/orn_filesystem.h"
#include "support.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace zarn_test;
using ORN::INDEX;
using ZARN::PointCloudProc::CLOUD;
using ZARN::SurfaceProc::MESH;

CLOUD cloud_of(std::initializer_list<std::array<float, 3>> points, std::uint16_t chunk = 0) {
    CLOUD c;
    c.resize(static_cast<INDEX>(points.size()));
    INDEX i = 0;
    for (const auto &p : points) {
        for (int a = 0; a < 3; ++a)
            c.mPosition[3 * i + a] = p[a];
        c.mChunk[i++] = chunk;
    }
    return c;
}

// ---------------------------------------------------------------------------

TEST(PlyWriter, WritesWhatTheReaderReadsBackThroughTheDurableWriter) {
    TempDir dir;
    const ORN::JobDirectory job(dir.str());
    const float xyz[] = {1.5f, -2.0f, 3.25f, 4.0f, 5.0f, -6.5f};
    const std::uint8_t rgb[] = {255, 0, 7, 1, 2, 3};
    const std::int32_t face[] = {0, 1, 0};
    ZARN::PlyWriter ply;
    ply.comment("written by a test");
    ply.element("vertex", 2);
    ply.property("x", &xyz[0], 12);
    ply.property("y", &xyz[1], 12);
    ply.property("z", &xyz[2], 12);
    ply.property("red", &rgb[0], 3);
    ply.property("green", &rgb[1], 3);
    ply.property("blue", &rgb[2], 3);
    ply.element("face", 1);
    ply.property_list("vertex_indices", face, 3);
    // A buffer smaller than one item still writes whole items.
    job.save_file("out/a.ply", 5, [&](ORN::FileWriter &out) { ply.write(out); });

    EXPECT_EQ(fs::file_size(dir.path() / "out/a.ply"), static_cast<std::uintmax_t>(ply.file_size()));
    const ZARN::PlyReader reader(dir / "out/a.ply");
    const INDEX v = reader.find_element("vertex");
    ASSERT_EQ(reader.element_size(v), 2);
    EXPECT_EQ(reader.get_value(v, reader.find_property(v, "x"), 1), 4.0);
    EXPECT_EQ(reader.get_value(v, reader.find_property(v, "z"), 1), -6.5);
    EXPECT_EQ(reader.get_byte(v, reader.find_property(v, "red"), 0), 255u);
    EXPECT_EQ(reader.get_byte(v, reader.find_property(v, "blue"), 1), 3u);
    const INDEX f = reader.find_element("face");
    const auto list = reader.get_index_list(f, reader.find_property(f, "vertex_indices"), 0);
    ASSERT_EQ(list.size(), 3);
    EXPECT_EQ(list[1], 1);
    EXPECT_TRUE(read_file(dir.path() / "out/a.ply").starts_with("ply\nformat binary_little_endian 1.0\ncomment"));
}

TEST(PlyWriter, AFailingFillLeavesTheOldFileAndNoTemporary) {
    TempDir dir;
    write_file(dir.path() / "m.ply", "old content");
    const ORN::JobDirectory job(dir.str());
    EXPECT_THROW(job.save_file("m.ply", 4096,
                               [](ORN::FileWriter &out) {
                                   out.write(std::string(10000, 'x'));
                                   throw std::runtime_error("stopped half-way");
                               }),
                 std::runtime_error);
    EXPECT_EQ(read_file(dir.path() / "m.ply"), "old content");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
}

// Runs `work` in a child process given `seconds` of time (SIGALRM ends it)
// and `megabytes` more address space than it holds at the start; returns
// "ok", the text of an exception the work threw, or how the child ended.
std::string bounded(unsigned seconds, long long megabytes, const std::function<std::string()> &work) {
    return in_child([&] {
        limit_address_space_growth(megabytes << 20);
        ::alarm(seconds);
        try {
            return work();
        } catch (const std::exception &e) {
            return std::string(e.what());
        }
    });
}

// n points at one place, in chunk `chunk`.
CLOUD coinciding(INDEX n, float x, std::uint16_t chunk, float y = 2) {
    CLOUD c;
    c.resize(n);
    for (INDEX i = 0; i < n; ++i) {
        c.mPosition[3 * i] = x;
        c.mPosition[3 * i + 1] = y;
        c.mPosition[3 * i + 2] = 3;
        c.mChunk[i] = chunk;
    }
    return c;
}

// A flat grid of n points 1 cm apart, and one point far away.
CLOUD grid_and_far_point(INDEX n, std::uint16_t chunk) {
    CLOUD c;
    c.resize(n + 1);
    const INDEX side = static_cast<INDEX>(std::sqrt(double(n))) + 1;
    for (INDEX i = 0; i < n; ++i) {
        c.mPosition[3 * i] = 0.01f * float(i % side);
        c.mPosition[3 * i + 1] = 0.01f * float(i / side);
        c.mChunk[i] = chunk;
    }
    c.mPosition[3 * n] = 1e9f;
    c.mChunk[n] = chunk;
    return c;
}

// Points at one place, and a far point per chunk, cost about as much as any
// other points: each of these took minutes (the searches walked every point
// or every cell) and is given seconds here, in a child.
TEST(PointCloud, DegenerateCloudsAreSearchedAndMergedInNearLinearTime) {
    constexpr INDEX N = 200000;
    EXPECT_EQ(bounded(30, 512,
                      [] {
                          const CLOUD c = coinciding(N, 1, 0);
                          const ZARN::KD_Tree tree = ZARN::PointCloudProc::build_tree(c);
                          ORN::WorkThread workers(2);
                          const ORN::Array<float> d = ZARN::PointCloudProc::neighbour_distance(tree, c, 8, workers);
                          return std::all_of(d.begin(), d.end(), [](float v) { return v == 0; }) ? "ok" : "distance";
                      }),
              "ok");
    // One place in both chunks: every later point is a copy. One place in
    // each, 0.8 radii apart along x and y (1.13 radii): none is.
    for (const float x : {1.0f, 1.0008f}) {
        SCOPED_TRACE(x);
        EXPECT_EQ(bounded(30, 512,
                          [x] {
                              ORN::Array<CLOUD> chunks;
                              chunks.append(coinciding(N, 1, 0));
                              chunks.append(coinciding(N, x, 1, x == 1.0f ? 2.0f : 2.0008f));
                              ORN::WorkThread workers(2);
                              const auto merged = ZARN::PointCloudProc::merge_chunks(chunks, 0.001, workers);
                              return std::to_string(merged.mCloud.size());
                          }),
                  std::to_string(x == 1.0f ? N : 2 * N));
    }
    // Two copies of one grid, each with a point far away on the same side:
    // the copy goes whole, the two far points stay.
    EXPECT_EQ(bounded(30, 512,
                      [] {
                          ORN::Array<CLOUD> chunks;
                          chunks.append(grid_and_far_point(N, 0));
                          chunks.append(grid_and_far_point(N, 1));
                          chunks[1].mPosition[3 * N + 1] = 5;
                          ORN::WorkThread workers(2);
                          const auto merged = ZARN::PointCloudProc::merge_chunks(chunks, 0.001, workers);
                          return std::to_string(merged.mCloud.size());
                      }),
              std::to_string(N + 2));
    // 2000 copies of one chunk of 1000 points: each later copy goes whole,
    // without comparing each chunk with every earlier one.
    EXPECT_EQ(bounded(30, 1024,
                      [] {
                          ORN::Array<CLOUD> chunks;
                          for (int c = 0; c < 2000; ++c) {
                              chunks.append(grid_and_far_point(999, static_cast<std::uint16_t>(c)));
                              chunks.back().mPosition[3 * 999 + 2] = float(c); // one point of its own
                          }
                          ORN::WorkThread workers(2);
                          const auto merged = ZARN::PointCloudProc::merge_chunks(chunks, 0.001, workers);
                          return std::to_string(merged.mCloud.size());
                      }),
              std::to_string(999 + 2000));
}

TEST(Surface, PointsAtOnePlaceAreRefusedBeforeTheSolver) {
    // The solver itself ends the program with SIGSEGV on them.
    const std::string text = bounded(60, 4096, [] {
        CLOUD c = coinciding(1000, 1, 0);
        for (INDEX i = 0; i < c.size(); ++i)
            c.mNormal[3 * i + 2] = 1;
        ZARN::SurfaceProc::reconstruct(c, 6, 1);
        return std::string("reconstructed");
    });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : extent (points, selection) > 0 : at ")) << text;
    EXPECT_TRUE(contains(text, " in ZARN_Common/SurfaceProc.cpp ,")) << text;
}

// ---------------------------------------------------------------------------
// Chunks.

// A PLY file of one "vertex" element, each property a type, a name and its
// values, and then the `tail` bytes (further elements' headers go in
// `more_header`).
struct PlyProperty {
    std::string type, name;
    std::vector<double> values;
};
std::string ply_file(const std::string &format, const std::vector<PlyProperty> &properties, const std::string &more_header = "",
                     const std::string &tail = "") {
    std::string out = "ply\nformat " + format + " 1.0\nelement vertex " + std::to_string(properties[0].values.size()) + "\n";
    for (const auto &p : properties)
        out += "property " + p.type + " " + p.name + "\n";
    out += more_header + "end_header\n";
    for (std::size_t i = 0; i < properties[0].values.size(); ++i) {
        for (const auto &p : properties) {
            const double v = p.values[i];
            if (format == "ascii") {
                char t[40];
                std::snprintf(t, sizeof t, "%.17g ", v);
                out += t;
                continue;
            }
            std::string bytes;
            const auto put = [&](auto value) { bytes.assign(reinterpret_cast<const char *>(&value), sizeof value); };
            if (p.type == "float")
                put(float(v));
            else if (p.type == "double")
                put(v);
            else if (p.type == "int")
                put(std::int32_t(v));
            else if (p.type == "uint16")
                put(std::uint16_t(v));
            else
                put(std::uint8_t(v));
            if (format == "binary_big_endian")
                std::reverse(bytes.begin(), bytes.end());
            out += bytes;
        }
        out += format == "ascii" ? "\n" : "";
    }
    return out + tail;
}

TEST(PointCloud, ChunksAreReadInEveryFormatAndType) {
    TempDir dir;
    const std::vector<PlyProperty> full = {{"float", "x", {1.5, -2, 1e30}},
                                           {"uchar", "red", {0, 7, 255}},
                                           {"float", "y", {0.25, 3, -1e-3}},
                                           {"double", "confidence", {0.5, 0.25, 1}},
                                           {"float", "z", {-8, 0, 123456.789}},
                                           {"float", "nx", {3, 0, 0.1}},
                                           {"float", "ny", {0, 0, 0.2}},
                                           {"float", "nz", {4, 0, -0.3}},
                                           {"uchar", "green", {1, 2, 3}},
                                           {"uchar", "blue", {250, 128, 9}}};
    // Positions as doubles, colours as uint16 (clamped to 255), no normals;
    // then no colours either.
    const std::vector<PlyProperty> wide = {{"double", "x", {0.1, -1e300 * 0, 3}}, {"double", "y", {1, 2, 1e-300}},
                                           {"double", "z", {7, 8, 9}},           {"uint16", "red", {256, 65535, 255}},
                                           {"uint16", "green", {0, 1, 2}},       {"uint16", "blue", {3, 4, 300}}};
    const std::vector<PlyProperty> bare = {{"float", "x", {1, 2, 3}}, {"float", "y", {4, 5, 6}}, {"float", "z", {7, 8, 9}},
                                           {"float", "nx", {1, 0, 0}}, {"float", "ny", {0, 1, 0}}};
    // A face element after the points is read and left alone.
    const std::string faces = "element face 1\nproperty list uchar int vertex_indices\n";
    for (const std::string format : {"ascii", "binary_little_endian", "binary_big_endian"}) {
        SCOPED_TRACE(format);
        const std::string face = format == "ascii" ? "3 0 1 2\n" : std::string("\x03") + (format == "binary_big_endian" ? std::string("\0\0\0\0\0\0\0\x01\0\0\0\x02", 12) : std::string("\0\0\0\0\x01\0\0\0\x02\0\0\0", 12));
        write_file(dir.path() / "full.ply", ply_file(format, full, faces, face));
        const CLOUD c = ZARN::PointCloudProc::read_chunk((dir.path() / "full.ply").string(), 7);
        ASSERT_EQ(c.size(), 3);
        EXPECT_EQ(std::vector<float>(c.mPosition.begin(), c.mPosition.end()),
                  (std::vector<float>{1.5f, 0.25f, -8, -2, 3, 0, 1e30f, -1e-3f, 123456.789f}));
        // Unit length, computed in double from the stored values; none where
        // the normal is 0.
        const float n2[3] = {0.1f, 0.2f, -0.3f};
        const double l2 = std::sqrt(double(n2[0]) * n2[0] + double(n2[1]) * n2[1] + double(n2[2]) * n2[2]);
        EXPECT_EQ(std::vector<float>(c.mNormal.begin(), c.mNormal.end()),
                  (std::vector<float>{0.6f, 0, 0.8f, 0, 0, 0, float(n2[0] / l2), float(n2[1] / l2), float(n2[2] / l2)}));
        EXPECT_EQ(std::vector<std::uint8_t>(c.mColour.begin(), c.mColour.end()), (std::vector<std::uint8_t>{0, 1, 250, 7, 2, 128, 255, 3, 9}));
        EXPECT_EQ(std::vector<std::uint16_t>(c.mChunk.begin(), c.mChunk.end()), (std::vector<std::uint16_t>{7, 7, 7}));

        write_file(dir.path() / "wide.ply", ply_file(format, wide));
        const CLOUD w = ZARN::PointCloudProc::read_chunk((dir.path() / "wide.ply").string(), 2);
        EXPECT_EQ(std::vector<float>(w.mPosition.begin(), w.mPosition.end()),
                  (std::vector<float>{float(0.1), 1, 7, -0.0f, 2, 8, 3, float(1e-300), 9}));
        EXPECT_EQ(std::vector<float>(w.mNormal.begin(), w.mNormal.end()), std::vector<float>(9, 0.0f));
        EXPECT_EQ(std::vector<std::uint8_t>(w.mColour.begin(), w.mColour.end()), (std::vector<std::uint8_t>{255, 0, 3, 255, 1, 4, 255, 2, 255}));

        // Two of three normals are none; points without colours are grey.
        write_file(dir.path() / "bare.ply", ply_file(format, bare));
        const CLOUD b = ZARN::PointCloudProc::read_chunk((dir.path() / "bare.ply").string(), 0);
        EXPECT_EQ(std::vector<float>(b.mNormal.begin(), b.mNormal.end()), std::vector<float>(9, 0.0f));
        EXPECT_EQ(std::vector<std::uint8_t>(b.mColour.begin(), b.mColour.end()), std::vector<std::uint8_t>(9, 160));
    }
}

TEST(PointCloud, BadChunksFailWithTheFilesOwnErrorFirst) {
    TempDir dir;
    const auto failure = [&](const std::string &bytes) {
        write_file(dir.path() / "bad.ply", bytes);
        return failure_of([&] { ZARN::PointCloudProc::read_chunk((dir.path() / "bad.ply").string(), 0); });
    };
    const std::string le = "binary_little_endian";
    const PlyProperty y{"float", "y", {1, 2}}, z{"float", "z", {3, 4}};
    // Positions of another storage class, refused by the reader's column getter.
    const std::string int_x = failure(ply_file(le, {{"int", "x", {1, 2}}, y, z}));
    EXPECT_TRUE(starts_with(int_x, "dynamic_assert failed : mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_VALUE : at ")) << int_x;
    EXPECT_TRUE(contains(int_x, "::get_values(") && contains(int_x, " in ZARN_Common/PlyReader.cpp ,")) << int_x;
    const std::string float_red = failure(ply_file(le, {{"float", "x", {1, 2}}, y, z, {"float", "red", {1, 2}}, {"uchar", "green", {1, 2}}, {"uchar", "blue", {1, 2}}}));
    EXPECT_TRUE(starts_with(float_red, "dynamic_assert failed : mBodyType[element_index][property_index] == PLYREADER_BODY_TYPE_BYTE : at ")) << float_red;
    // A position that is not a finite float, even where the double was.
    for (const std::string &format : {std::string("ascii"), le}) {
        const std::string text = failure(ply_file(format, {{"double", "x", {1, 2}}, {"double", "y", {1, 1e39}}, z}));
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : r1x : at ") && contains(text, " in ZARN_Common/PointCloudProc.cpp ,")) << text;
    }
    // A broken element after the points is the first error, before the
    // positions' class or a missing normal.
    const std::string cut = failure(ply_file(le, {{"int", "x", {1, 2}}, y, z, {"float", "nx", {0, 0}}},
                                             "element face 1\nproperty list uchar int vertex_indices\n", std::string("\x03\0\0\0", 4)));
    EXPECT_TRUE(starts_with(cut, "dynamic_assert failed : list_count <= (mEnd - mRis) / width : at ")) << cut;
    // A count the file cannot hold is refused before the cloud is made.
    const std::string huge = failure("ply\nformat binary_little_endian 1.0\nelement vertex 1000000000000\nproperty float x\n"
                                     "property float y\nproperty float z\nend_header\n" + std::string(24, '\0'));
    EXPECT_TRUE(starts_with(huge, "dynamic_assert failed : item_count <= (mEnd - mRis) / item_width : at ")) << huge;
}

// A chunk goes from the file into the cloud without a widened copy of its
// values: 10^6 points (27 MB in the file, 29 MB as a cloud) are read with
// 48 MB to spare, where 8-byte copies of the nine values would take 72 MB.
TEST(PointCloud, AChunkIsReadWithoutAWidenedCopy) {
    TempDir dir;
    constexpr INDEX N = 1'000'000;
    {
        std::vector<float> xyz(3 * N), normal(3 * N);
        std::vector<std::uint8_t> rgb(3 * N);
        for (INDEX i = 0; i < 3 * N; ++i) {
            xyz[i] = float(i % 1000) * 0.01f;
            normal[i] = i % 3 == 2 ? 1.0f : 0.0f;
            rgb[i] = std::uint8_t(i);
        }
        ZARN::PlyWriter ply;
        ply.element("vertex", N);
        const char *names[] = {"x", "y", "z", "nx", "ny", "nz", "red", "green", "blue"};
        for (int a = 0; a < 3; ++a) {
            ply.property(names[a], xyz.data() + a, 12);
            ply.property(names[3 + a], normal.data() + a, 12);
        }
        for (int a = 0; a < 3; ++a)
            ply.property(names[6 + a], rgb.data() + a, 3);
        const ORN::JobDirectory job(dir.str());
        job.save_file("chunk.ply", 1 << 20, [&](ORN::FileWriter &out) { ply.write(out); });
    }
    const std::string path = (dir.path() / "chunk.ply").string();
    EXPECT_EQ(bounded(60, 48, [&] {
                  const CLOUD c = ZARN::PointCloudProc::read_chunk(path, 3);
                  return c.size() == N && c.mPosition[2998] == float(998) * 0.01f && c.mNormal[3 * 5 + 2] == 1.0f && c.mColour[3 * N - 1] == std::uint8_t(3 * N - 1)
                             ? std::string("ok")
                             : std::string("wrong values");
              }),
              "ok");
}

TEST(PointCloud, MergeDropsCopiesFromLaterChunksOnly) {
    ORN::Array<CLOUD> chunks;
    // Two points of one chunk closer than the radius are both kept.
    chunks.append(cloud_of({{0, 0, 0}, {0.0001f, 0, 0}, {1, 0, 0}}, 0));
    // An exact copy, a near copy, and a point of its own.
    chunks.append(cloud_of({{1, 0, 0}, {1.0005f, 0, 0.5f}, {2, 0, 0}}, 1));
    chunks.append(cloud_of({{1.0005f, 0, 0.5f}, {1.0008f, 0, 0}, {3, 0, 0}}, 2));
    ORN::WorkThread workers(2);
    const auto merged = ZARN::PointCloudProc::merge_chunks(chunks, 0.001, workers);
    const CLOUD &c = merged.mCloud;
    ASSERT_EQ(c.size(), 6);
    const float expect_x[] = {0, 0.0001f, 1, 1.0005f, 2, 3};
    const std::uint16_t expect_chunk[] = {0, 0, 0, 1, 1, 2};
    for (INDEX i = 0; i < 6; ++i) {
        EXPECT_EQ(c.mPosition[3 * i], expect_x[i]) << i;
        EXPECT_EQ(c.mChunk[i], expect_chunk[i]) << i;
    }
    // (1,0,0) of chunk 1; (1.0005,0,0.5) and (1.0008,0,0) of chunk 2.
    ASSERT_EQ(merged.mDuplicateHeight.size(), 3);
    EXPECT_EQ(merged.mDuplicateHeight[1], 0.5f);
    // The chunks' own arrays are handed back.
    EXPECT_EQ(chunks[0].size(), 0);
}

TEST(PointCloud, OutlierIsThePointFarFromItsNeighbours) {
    CLOUD c;
    c.resize(101);
    for (INDEX i = 0; i < 100; ++i) {
        c.mPosition[3 * i] = 0.1f * float(i % 10);
        c.mPosition[3 * i + 1] = 0.1f * float(i / 10);
    }
    c.mPosition[300] = 0.45f, c.mPosition[301] = 0.45f, c.mPosition[302] = 1.0f;
    const ZARN::KD_Tree tree = ZARN::PointCloudProc::build_tree(c);
    ORN::WorkThread workers(2);
    const ORN::Array<float> d = ZARN::PointCloudProc::neighbour_distance(tree, c, 4, workers);
    // An inner grid point: four neighbours at 0.1.
    EXPECT_NEAR(d[55], 0.1, 1e-6);
    // A corner: two neighbours at 0.1, the diagonal at 0.1·√2, then 0.2.
    EXPECT_NEAR(d[0], (0.1 + 0.1 + 0.1 * std::sqrt(2.0) + 0.2) / 4, 1e-6);
    // The lifted point: the four grid points around (0.45, 0.45).
    EXPECT_NEAR(d[100], std::sqrt(1.0 + 2 * 0.05 * 0.05), 1e-6);
    const auto outliers = ZARN::PointCloudProc::find_outliers(d, 2.0);
    EXPECT_EQ(outliers.mCount, 1);
    EXPECT_EQ(outliers.mOutlier[100], 1);
    ORN::Array<INDEX> kept;
    const CLOUD inliers = ZARN::PointCloudProc::remove_points(c, outliers.mOutlier, &kept);
    EXPECT_EQ(inliers.size(), 100);
    EXPECT_EQ(kept[99], 99);
}

TEST(PointCloud, NormalsFollowThePlaneFaceTheViewpointAndSkipMarkedPoints) {
    // The plane z = x, sampled on a grid, with a stray point above it.
    CLOUD c;
    c.resize(50);
    for (INDEX i = 0; i < 49; ++i) {
        const float x = 0.1f * float(i % 7), y = 0.1f * float(i / 7);
        c.mPosition[3 * i] = x, c.mPosition[3 * i + 1] = y, c.mPosition[3 * i + 2] = x;
    }
    c.mPosition[147] = 0.3f, c.mPosition[148] = 0.3f, c.mPosition[149] = 0.45f;
    // Point 0 brings its own normal, which stays.
    c.mNormal[0] = 0, c.mNormal[1] = 1, c.mNormal[2] = 0;
    ORN::Array<std::uint8_t> skip(50);
    skip[49] = 1;
    ORN::Array<INDEX> row(50);
    for (INDEX i = 0; i < 50; ++i)
        row[i] = i;
    const ZARN::KD_Tree tree = ZARN::PointCloudProc::build_tree(c);
    ORN::Array<ORN::Vector<double>> eye;
    eye.append(ORN::Vector<double>{-5.0, 0.0, 5.0});
    ORN::WorkThread workers(2);
    CLOUD out = c;
    EXPECT_EQ(ZARN::PointCloudProc::estimate_normals(tree, c, skip, out, row, 8, eye, workers), 49);
    EXPECT_EQ(out.mNormal[1], 1.0f);
    const double h = 1 / std::sqrt(2.0);
    // Point 24 (0.3, 0.3, 0.3) has the stray point among its nearest.
    for (INDEX i : {INDEX(10), INDEX(24), INDEX(48)}) {
        EXPECT_NEAR(out.mNormal[3 * i], -h, 1e-5) << i;
        EXPECT_NEAR(out.mNormal[3 * i + 1], 0, 1e-5) << i;
        EXPECT_NEAR(out.mNormal[3 * i + 2], h, 1e-5) << i;
    }
    // Seen from the other side, the normals turn round.
    eye[0] = ORN::Vector<double>{5.0, 0.0, -5.0};
    CLOUD back = c;
    ZARN::PointCloudProc::estimate_normals(tree, c, skip, back, row, 8, eye, workers);
    EXPECT_NEAR(back.mNormal[3 * 24], h, 1e-5);
}

TEST(PointCloud, FloorsFromSlabsAndTheNearestRangeRule) {
    // Floor slabs (facing up) at 0 and 3, ceilings (facing down) at 2.6 and 5.6.
    CLOUD c;
    c.resize(400);
    const float level[4] = {0.02f, 2.62f, 3.02f, 5.62f};
    for (INDEX i = 0; i < 400; ++i) {
        const INDEX s = i / 100;
        c.mPosition[3 * i] = float(i % 10), c.mPosition[3 * i + 1] = float(i % 100 / 10);
        c.mPosition[3 * i + 2] = level[s];
        c.mNormal[3 * i + 2] = s % 2 == 0 ? 1.0f : -1.0f;
    }
    const auto floors = ZARN::PointCloudProc::find_floors(c);
    ASSERT_EQ(floors.size(), 2);
    EXPECT_EQ(floors[0].mName, "floor_0");
    EXPECT_NEAR(floors[0].mMax, 2.82, 1e-4);
    EXPECT_EQ(floors[1].mMin, floors[0].mMax);
    EXPECT_GT(floors[1].mMax, 5.62);
    const auto group = ZARN::PointCloudProc::assign_floors(c, floors);
    EXPECT_EQ(group[0], 0);
    EXPECT_EQ(group[150], 0);
    EXPECT_EQ(group[250], 1);
    // Outside every range: the nearest floor.
    EXPECT_EQ(ZARN::PointCloudProc::floor_of(floors, -3.0), 0);
    EXPECT_EQ(ZARN::PointCloudProc::floor_of(floors, 40.0), 1);
    // A point far above, facing up, is one bin of its own: the same floors
    // (the last one reaching up to it), in bounded memory.
    CLOUD far = c;
    far.resize(401);
    far.mPosition[3 * 400 + 2] = 1e30f;
    far.mNormal[3 * 400 + 2] = 1;
    EXPECT_EQ(bounded(30, 256,
                      [&far] {
                          const auto found = ZARN::PointCloudProc::find_floors(far);
                          return std::to_string(found.size()) + " " + std::to_string(found[0].mMax);
                      }),
              "2 " + std::to_string(floors[0].mMax));
    // No slab facing up: no floor.
    for (INDEX i = 0; i < 400; ++i)
        c.mNormal[3 * i + 2] = -1;
    EXPECT_TRUE(ZARN::PointCloudProc::find_floors(c).empty());
}

// ---------------------------------------------------------------------------

// A flat n x n grid of squares at height z, two triangles each.
MESH grid_mesh(int n, float z) {
    MESH m;
    for (int y = 0; y <= n; ++y)
        for (int x = 0; x <= n; ++x)
            for (float v : {float(x) / n, float(y) / n, z})
                m.mVertex.append(v);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) {
            const std::uint32_t a = y * (n + 1) + x, b = a + 1, c = a + n + 1, d = c + 1;
            for (std::uint32_t i : {a, b, d, a, d, c})
                m.mTriangle.append(i);
        }
    return m;
}

TEST(Surface, SimplifyMeetsItsTargetAndSplitFollowsTheFloors) {
    // A grid with bumps, so that simplifying has something to weigh.
    MESH m = grid_mesh(100, 0);
    for (INDEX v = 0; v < m.vertex_count(); ++v)
        m.mVertex[3 * v + 2] = 0.02f * std::sin(m.mVertex[3 * v] * 12) * std::cos(m.mVertex[3 * v + 1] * 9);
    ASSERT_EQ(m.triangle_count(), 20000);
    for (INDEX target : {INDEX(5000), INDEX(1250), INDEX(300)}) {
        float error = -1;
        const MESH s = ZARN::SurfaceProc::simplify(m, target, &error);
        EXPECT_NEAR(double(s.triangle_count()), double(target), 0.05 * double(target)) << target;
        EXPECT_GE(error, 0);
        EXPECT_LT(s.vertex_count(), m.vertex_count());
    }
    EXPECT_EQ(ZARN::SurfaceProc::simplify(m, 30000).triangle_count(), 20000);

    MESH two = grid_mesh(2, 0.1f);
    const MESH upper = grid_mesh(2, 3.1f);
    const std::uint32_t shift = static_cast<std::uint32_t>(two.vertex_count());
    for (float v : upper.mVertex)
        two.mVertex.append(v);
    for (std::uint32_t i : upper.mTriangle)
        two.mTriangle.append(i + shift);
    ORN::Array<ZARN::PointCloudProc::FLOOR> floors;
    floors.append(ZARN::PointCloudProc::FLOOR{"floor_0", -0.2, 2.8});
    floors.append(ZARN::PointCloudProc::FLOOR{"floor_1", 2.8, 5.8});
    const MESH top = ZARN::SurfaceProc::floor_part(two, floors, 1);
    ASSERT_EQ(top.triangle_count(), 8);
    ASSERT_EQ(top.vertex_count(), 9);
    for (INDEX v = 0; v < top.vertex_count(); ++v)
        EXPECT_EQ(top.mVertex[3 * v + 2], 3.1f);
}

TEST(Surface, TrimKeepsOnlyTrianglesNearUnmarkedPoints) {
    // Points cover the left half of a unit square; a marked point sits on
    // the right half.
    CLOUD c;
    c.resize(0);
    for (int y = 0; y <= 10; ++y)
        for (int x = 0; x <= 5; ++x) {
            CLOUD one = cloud_of({{0.1f * float(x), 0.1f * float(y), 0}});
            for (float v : one.mPosition)
                c.mPosition.append(v);
            c.mNormal.append(0), c.mNormal.append(0), c.mNormal.append(1);
            c.mColour.append(0), c.mColour.append(0), c.mColour.append(0);
            c.mChunk.append(0);
        }
    const INDEX marked = c.size();
    for (float v : {0.9f, 0.5f, 0.0f})
        c.mPosition.append(v);
    for (int k = 0; k < 3; ++k)
        c.mNormal.append(0), c.mColour.append(0);
    c.mChunk.append(0);
    ORN::Array<std::uint8_t> skip(c.size());
    skip[marked] = 1;
    const ZARN::KD_Tree tree = ZARN::PointCloudProc::build_tree(c);
    ORN::WorkThread workers(2);
    const MESH square = grid_mesh(10, 0);
    const MESH kept = ZARN::SurfaceProc::trim(square, tree, skip, 0.05, -1, 1, workers);
    // Squares with every corner at x <= 0.5: 5 columns of 10.
    EXPECT_EQ(kept.triangle_count(), 100);
    for (INDEX v = 0; v < kept.vertex_count(); ++v)
        EXPECT_LE(kept.mVertex[3 * v], 0.5f + 1e-6f);
    // The height range cuts too.
    EXPECT_EQ(ZARN::SurfaceProc::trim(square, tree, skip, 0.05, 0.5, 1, workers).triangle_count(), 0);
}

} // namespace
