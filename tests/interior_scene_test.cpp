// The synthetic interior behind the reference reconstruction library's dense
// cloud: its geometry, the sampled chunks, and the files the library writes.
#include "support.h"

#include "interior_scene.h"

#include "ZARN_Common/PlyReader.h"
#include "__ORN__/orn_serialization.h"

#include <dlfcn.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>

namespace {

using namespace zarn_test;
using namespace zarn_interior;

const std::string CAPTURE = std::string(ZARN_BINARY_DIR) + "/bin/zarn_capture";
const std::string LIBRARY = std::string(ZARN_BINARY_DIR) + "/backends/libopenMVG_velda.so";

// A 2 m square footprint: the building is the minimum, [-3, 5] x [-2, 4].
const double FOOT_MIN[2] = {0, 0}, FOOT_MAX[2] = {2, 2};
constexpr std::int64_t POINTS = 60000;

struct Sample {
    Scene mScene;
    std::vector<Chunk> mChunks;
};
const Sample &sample() {
    static const Sample s = [] {
        Sample r{make_scene(FOOT_MIN, FOOT_MAX), {}};
        r.mChunks = sample_chunks(r.mScene, POINTS);
        return r;
    }();
    return s;
}

// Distance to one rectangle, from its own parametrisation.
double rectangle_distance(const Surface &s, const double p[3]) {
    double d2 = 0;
    double ab[2];
    const double *edges[2] = {s.mU, s.mV};
    for (int e = 0; e < 2; ++e) {
        double dot = 0, len2 = 0;
        for (int k = 0; k < 3; ++k) {
            dot += (p[k] - s.mOrigin[k]) * edges[e][k];
            len2 += edges[e][k] * edges[e][k];
        }
        ab[e] = std::clamp(dot / len2, 0.0, 1.0);
    }
    for (int k = 0; k < 3; ++k) {
        const double d = p[k] - (s.mOrigin[k] + ab[0] * s.mU[k] + ab[1] * s.mV[k]);
        d2 += d * d;
    }
    return std::sqrt(d2);
}

using KEY = std::tuple<float, float, float, int, int, int>;
KEY key_of(const Chunk &c, std::size_t i) {
    return {c.mPosition[3 * i], c.mPosition[3 * i + 1], c.mPosition[3 * i + 2], c.mColour[3 * i], c.mColour[3 * i + 1],
            c.mColour[3 * i + 2]};
}

TEST(InteriorScene, BuildingStoreysAndSurfacesAreConsistent) {
    const Scene &scene = sample().mScene;
    EXPECT_EQ(std::vector<double>(scene.mMin, scene.mMin + 2), (std::vector<double>{-3, -2}));
    EXPECT_EQ(std::vector<double>(scene.mMax, scene.mMax + 2), (std::vector<double>{5, 4}));
    const double wide_min[2] = {-10, 0}, wide_max[2] = {10, 3};
    const Scene wide = make_scene(wide_min, wide_max);
    EXPECT_DOUBLE_EQ(wide.mMax[0] - wide.mMin[0], 20);
    EXPECT_DOUBLE_EQ(wide.mMax[1] - wide.mMin[1], 6);

    ASSERT_EQ(scene.mFloors.size(), 2u);
    EXPECT_DOUBLE_EQ(scene.mFloors[0].mMax, 2.75);
    EXPECT_DOUBLE_EQ(scene.mFloors[1].mFloor, 2.9);
    int rooms[2] = {};
    for (const Room &r : scene.mRooms)
        ++rooms[r.mFloor];
    EXPECT_TRUE(rooms[0] >= 2 && rooms[0] <= 3 && rooms[1] >= 2 && rooms[1] <= 3);

    for (const Surface &s : scene.mSurfaces) {
        // u x v along the unit, axis-aligned normal; the whole rectangle
        // within its storey and facing its room's air.
        const double cross[3] = {s.mU[1] * s.mV[2] - s.mU[2] * s.mV[1], s.mU[2] * s.mV[0] - s.mU[0] * s.mV[2],
                                 s.mU[0] * s.mV[1] - s.mU[1] * s.mV[0]};
        const double along = cross[0] * s.mNormal[0] + cross[1] * s.mNormal[1] + cross[2] * s.mNormal[2];
        EXPECT_NEAR(along, s.area(), 1e-9);
        const Storey &f = scene.mFloors[static_cast<std::size_t>(s.mFloor)];
        const Room &room = scene.mRooms[static_cast<std::size_t>(s.mRoom)];
        EXPECT_EQ(room.mFloor, s.mFloor);
        double centre[3];
        for (int k = 0; k < 3; ++k) {
            const double a = s.mOrigin[k], b = a + s.mU[k] + s.mV[k];
            if (k == 2) {
                EXPECT_GE(std::min(a, b), f.mMin);
                EXPECT_LT(std::max(a, b), f.mMax);
            }
            centre[k] = (a + b) / 2 + 0.02 * s.mNormal[k];
        }
        // A point just off the surface is in the air: no surface nearer
        // than it is to its own.
        EXPECT_NEAR(distance_to_surfaces(scene, centre), 0.02, 1e-9);
    }
}

TEST(InteriorScene, DistanceIsZeroOnSurfacesAndExactElsewhere) {
    const Scene &scene = sample().mScene;
    for (const Surface &s : scene.mSurfaces) {
        const double corner[3] = {s.mOrigin[0] + s.mU[0], s.mOrigin[1] + s.mU[1], s.mOrigin[2] + s.mU[2]};
        EXPECT_EQ(distance_to_surfaces(scene, s.mOrigin), 0);
        EXPECT_EQ(distance_to_surfaces(scene, corner), 0);
    }
    // Above the living room's table (top 0.75 m over [-1.4, -0.6] x [0.4, 1.6]).
    const double above_table[3] = {-1.0, 1.0, 1.0};
    EXPECT_NEAR(distance_to_surfaces(scene, above_table), 0.25, 1e-12);
    // Outside the west wall, a metre from it; far above the roof.
    const double outside[3] = {-4.0, 1.0, 1.5};
    EXPECT_NEAR(distance_to_surfaces(scene, outside), 1.0, 1e-12);
    const double sky[3] = {1.0, 1.0, 25.5};
    EXPECT_NEAR(distance_to_surfaces(scene, sky), 20.0, 1e-12);

    // The grid against every rectangle, in and around the building.
    std::uint64_t state = 12345;
    const auto next = [&] {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<double>(state >> 11) * 0x1.0p-53;
    };
    for (int i = 0; i < 3000; ++i) {
        const double p[3] = {-6 + 14 * next(), -5 + 12 * next(), -2 + 10 * next()};
        double best = 1e300;
        for (const Surface &s : scene.mSurfaces)
            best = std::min(best, rectangle_distance(s, p));
        ASSERT_NEAR(distance_to_surfaces(scene, p), best, 1e-12) << p[0] << " " << p[1] << " " << p[2];
    }
}

TEST(InteriorScene, RaysMeetTheNearestSurfaceTheyFace) {
    const Scene &scene = sample().mScene;
    // Directions spread evenly over the sphere.
    constexpr int RAYS = 3000;
    std::vector<std::array<double, 3>> directions;
    for (int i = 0; i < RAYS; ++i) {
        const double z = 1 - (2 * i + 1.0) / RAYS, r = std::sqrt(1 - z * z), a = 2.399963229728653 * i;
        directions.push_back({r * std::cos(a), r * std::sin(a), z});
    }
    for (const Room &room : scene.mRooms) {
        double eye[3];
        room.viewpoint(eye);
        eye[0] += 0.137; // off the middle, where surfaces' edges would line up with the rays
        const RayCaster caster(scene, eye);
        EXPECT_LT(caster.candidates(), scene.mSurfaces.size() / 2);
        for (const auto &d : directions) {
            // Every surface, from its own parametrisation.
            double best = 1e300;
            int nearest = -1;
            for (std::size_t i = 0; i < scene.mSurfaces.size(); ++i) {
                const Surface &s = scene.mSurfaces[i];
                const double facing = d[0] * s.mNormal[0] + d[1] * s.mNormal[1] + d[2] * s.mNormal[2];
                if (facing >= 0)
                    continue;
                const double t = ((s.mOrigin[0] - eye[0]) * s.mNormal[0] + (s.mOrigin[1] - eye[1]) * s.mNormal[1] +
                                  (s.mOrigin[2] - eye[2]) * s.mNormal[2]) / facing;
                const double p[3] = {eye[0] + t * d[0], eye[1] + t * d[1], eye[2] + t * d[2]};
                if (t > 0 && t < best && rectangle_distance(s, p) < 1e-9) {
                    best = t;
                    nearest = static_cast<int>(i);
                }
            }
            Hit hit;
            ASSERT_TRUE(caster.cast(d.data(), hit)) << d[0] << " " << d[1] << " " << d[2]; // the rooms are closed
            EXPECT_EQ(hit.mSurface, nearest);
            EXPECT_NEAR(hit.mDistance, best, 1e-9);
            EXPECT_EQ(scene.mSurfaces[static_cast<std::size_t>(hit.mSurface)].mFloor, room.mFloor);
            EXPECT_LT(rectangle_distance(scene.mSurfaces[static_cast<std::size_t>(hit.mSurface)], hit.mPoint), 1e-9);
            // Nothing nearer than a limit short of the hit.
            Hit none;
            EXPECT_FALSE(caster.cast(d.data(), none, best * 0.999));
        }
    }
}

TEST(InteriorScene, ChunksCarryEveryPointOnceWithIdenticalCopiesInTheBand) {
    const Sample &s = sample();
    ASSERT_EQ(s.mChunks.size(), 2 * s.mScene.mRooms.size());
    std::int64_t surface = 0, outliers = 0, per_floor[2] = {};
    for (std::size_t c = 0; c < s.mChunks.size(); ++c) {
        const Chunk &chunk = s.mChunks[c];
        const Room &room = s.mScene.mRooms[c / 2];
        EXPECT_EQ(chunk.mRoom, static_cast<int>(c / 2));
        EXPECT_EQ(chunk.mNormal.size(), c % 2 ? 0 : chunk.mPosition.size());
        EXPECT_DOUBLE_EQ(chunk.mViewpoint[2], room.mMin[2] + 1.5);
        per_floor[chunk.mFloor] += static_cast<std::int64_t>(chunk.size());
        for (std::size_t i = 0; i < chunk.size(); ++i)
            if (!(chunk.mFlags[i] & OVERLAP_COPY))
                ++(chunk.mFlags[i] & OUTLIER ? outliers : surface);
    }
    EXPECT_GT(per_floor[0], POINTS / 4);
    EXPECT_GT(per_floor[1], POINTS / 4);
    EXPECT_EQ(surface, POINTS);
    EXPECT_EQ(outliers, outlier_count(POINTS));
    EXPECT_EQ(outlier_count(POINTS), 300); // 0.5 %

    for (std::size_t r = 0; r < s.mScene.mRooms.size(); ++r) {
        const Room &room = s.mScene.mRooms[r];
        const int axis = room.long_axis();
        const double middle = (room.mMin[axis] + room.mMax[axis]) / 2;
        const Chunk &first = s.mChunks[2 * r], &second = s.mChunks[2 * r + 1];
        std::map<KEY, int> band;
        for (std::size_t i = 0; i < first.size(); ++i) {
            const double at = first.mPosition[3 * i + axis];
            EXPECT_LT(at, middle + OVERLAP_BAND / 2);
            EXPECT_FALSE(first.mFlags[i] & OVERLAP_COPY);
            if (at >= middle - OVERLAP_BAND / 2)
                ++band[key_of(first, i)];
        }
        std::size_t copies = 0;
        for (std::size_t i = 0; i < second.size(); ++i) {
            const double at = second.mPosition[3 * i + axis];
            EXPECT_GE(at, middle - OVERLAP_BAND / 2);
            const bool copy = second.mFlags[i] & OVERLAP_COPY;
            EXPECT_EQ(copy, at < middle + OVERLAP_BAND / 2);
            if (copy) {
                ++copies;
                EXPECT_EQ(band[key_of(second, i)]--, 1) << "room " << r << " point " << i;
            }
        }
        EXPECT_GT(copies, 0u);
        EXPECT_EQ(copies, std::count_if(band.begin(), band.end(), [](const auto &b) { return b.second == 0; }) + 0u);
    }

    const std::vector<Chunk> again = sample_chunks(s.mScene, POINTS);
    const std::vector<Chunk> other = sample_chunks(s.mScene, POINTS, DEFAULT_SEED + 1);
    EXPECT_EQ(again[3].mPosition, s.mChunks[3].mPosition);
    EXPECT_EQ(again[4].mColour, s.mChunks[4].mColour);
    EXPECT_NE(other[3].mPosition, s.mChunks[3].mPosition);
}

TEST(InteriorScene, SurfacePointsHaveTheNoiseOutliersAreOffAndNormalsAreUnit) {
    const Sample &s = sample();
    double sum2 = 0;
    std::int64_t n = 0, far_outliers = 0, outliers = 0;
    for (std::size_t c = 0; c < s.mChunks.size(); ++c) {
        const Chunk &chunk = s.mChunks[c];
        for (std::size_t i = 0; i < chunk.size(); ++i) {
            if (chunk.mFlags[i] & OVERLAP_COPY)
                continue;
            const double p[3] = {chunk.mPosition[3 * i], chunk.mPosition[3 * i + 1], chunk.mPosition[3 * i + 2]};
            const double d = distance_to_surfaces(s.mScene, p);
            if (chunk.mFlags[i] & OUTLIER) {
                ++outliers;
                far_outliers += d > 5 * NOISE;
            } else {
                sum2 += d * d;
                ++n;
            }
            if (c % 2 == 0) {
                const float *v = &chunk.mNormal[3 * i];
                EXPECT_NEAR(v[0] * v[0] + v[1] * v[1] + v[2] * v[2], 1.0, 1e-5);
            }
        }
    }
    EXPECT_NEAR(std::sqrt(sum2 / static_cast<double>(n)), NOISE, 0.1 * NOISE);
    EXPECT_GT(far_outliers, outliers * 8 / 10);
}

// The library run on a generated job: the chunks, the listing, the room mesh
// and the truth agree with one another and with the scene sampled here.
TEST(InteriorScene, ReconstructionWritesChunksMeshListingAndTruth) {
    const TempDir dir;
    const fs::path job = dir.path() / "job";
    write_file(job / "caches/split_data.json",
               R"({"StitchMainProcess":{"video_stitch":false},"VeldaMainProcess":{"Common":{"velda_type":"x","dense_points":5}}})");
    const auto made = run(quote(CAPTURE) + " " + quote(job.string()) + " --points 2 --videos 0 --width 64 --dense 20000");
    ASSERT_EQ(made.status, 0) << made.output;
    EXPECT_EQ(read_file(job / "caches/split_data.json"),
              R"({"StitchMainProcess":{"video_stitch":false},"VeldaMainProcess":{"Common":{"velda_type":"x",)"
              R"("dense_points":20000}},"VeldaMeshProcess":{}})"
              "\n");
    // The generator gives the reconstruction the captures of each point.
    for (const char *name : {"point_000_up.jpg", "point_000_down.jpg", "point_001_up.jpg", "point_001_down.jpg"})
        EXPECT_EQ(read_file(job / "images" / name), read_file(job / "captures" / name)) << name;

    void *lib = dlopen(LIBRARY.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    const auto entry = reinterpret_cast<int (*)(int, char **)>(dlsym(lib, "run_velda_main"));
    ASSERT_NE(entry, nullptr);
    std::string args[3] = {"", "indoor", job.string()};
    char *argv[4] = {args[0].data(), args[1].data(), args[2].data(), nullptr};
    ASSERT_EQ(entry(3, argv), 0);

    // The points at 0 and 1.5 m: the footprint [-1, 2.5] x [-1, 1].
    const double foot_min[2] = {-1, -1}, foot_max[2] = {2.5, 1};
    const Scene scene = make_scene(foot_min, foot_max);
    const std::vector<Chunk> chunks = sample_chunks(scene, 20000);

    const ORN::JsonParser listing(read_file(job / "caches/mesh.json"));
    EXPECT_EQ(listing.child("room_mesh").value(), "dense/room_mesh.ply");
    EXPECT_EQ(listing.child("floors").children()[1].child("min").value(0.0), 2.75);
    const auto listed = listing.child("chunks").children();
    ASSERT_EQ(listed.size(), static_cast<ORN::INDEX>(chunks.size()));
    std::int64_t total = 0;
    for (std::size_t c = 0; c < chunks.size(); ++c) {
        const ORN::JsonParser entry_json = listed[static_cast<ORN::INDEX>(c)];
        const std::string file = entry_json.child("file").value();
        EXPECT_EQ(file, "dense/chunk_00" + std::to_string(c) + ".ply");
        EXPECT_NEAR(entry_json.child("viewpoint").children()[2].value(0.0), chunks[c].mViewpoint[2], 1e-6);
        const std::int64_t points = entry_json.child("points").value(std::int64_t(-1));
        EXPECT_EQ(points, static_cast<std::int64_t>(chunks[c].size()));
        total += points;

        const std::string path = (job / "caches" / file).string();
        const std::string normals = c % 2 ? "" : "property float nx\nproperty float ny\nproperty float nz\n";
        EXPECT_TRUE(starts_with(read_file(path), "ply\nformat binary_little_endian 1.0\nelement vertex " +
                                                     std::to_string(points) +
                                                     "\nproperty float x\nproperty float y\nproperty float z\n" +
                                                     normals +
                                                     "property uchar red\nproperty uchar green\nproperty uchar blue\n"
                                                     "end_header\n"))
            << file;
        const ZARN::PlyReader ply(path);
        const ORN::INDEX vertex = ply.find_element("vertex");
        ASSERT_EQ(ply.element_size(vertex), points);
        const ORN::INDEX last = points - 1;
        EXPECT_EQ(ply.get_value(vertex, ply.find_property(vertex, "z"), last), chunks[c].mPosition[3 * last + 2]);
        EXPECT_EQ(ply.get_byte(vertex, ply.find_property(vertex, "blue"), last), chunks[c].mColour[3 * last + 2]);
        EXPECT_EQ(ply.find_property(vertex, "nx") == ORN::VAR_NONE, c % 2 == 1);
    }

    const ORN::JsonParser truth(read_file(job / "caches/dense/truth.json"));
    EXPECT_EQ(truth.child("points").value(std::int64_t(0)), total);
    EXPECT_EQ(truth.child("outliers").value(std::int64_t(0)), outlier_count(20000));
    const auto floors = truth.child("floors").children();
    EXPECT_EQ(floors[0].child("points").value(std::int64_t(0)) + floors[1].child("points").value(std::int64_t(0)), total);
    EXPECT_EQ(truth.child("duplicates").value(std::int64_t(0)),
              total - 20000 - outlier_count(20000));
    const ORN::INDEX surfaces = truth.child("surfaces").size();
    EXPECT_EQ(surfaces, static_cast<ORN::INDEX>(scene.mSurfaces.size()));

    const ZARN::PlyReader mesh((job / "caches/dense/room_mesh.ply").string());
    const ORN::INDEX face = mesh.find_element("face"), vertex = mesh.find_element("vertex");
    ASSERT_EQ(mesh.element_size(face), 2 * surfaces);
    // No triangle leaves its storey.
    const ORN::INDEX z = mesh.find_property(vertex, "z");
    for (ORN::INDEX f = 0; f < mesh.element_size(face); ++f) {
        const auto corners = mesh.get_index_list(face, 0, f);
        ASSERT_EQ(corners.size(), 3);
        const auto storey = [&](ORN::INDEX v) { return mesh.get_value(vertex, z, v) >= 2.75; };
        EXPECT_TRUE(storey(corners[0]) == storey(corners[1]) && storey(corners[1]) == storey(corners[2]));
    }
}

} // namespace
