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

#include <cmath>
#include <cstdint>
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
