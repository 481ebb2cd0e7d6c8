// VeldaMeshProcess end to end: the launcher, the module and the reference
// reconstruction library's synthetic two-storey interior, over temporary
// job directories.
#include "support.h"

#include "ZARN_Common/PlyReader.h"
#include "ZARN_Common/PointCloudProc.h"
#include "ZARN_Common/SurfaceProc.h"
#include "__ORN__/orn_serialization.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <vector>

namespace {

using namespace zarn_test;
using ORN::INDEX;

const std::string ZARN = std::string(ZARN_BINARY_DIR) + "/bin/zarn";
const std::string BACKENDS = std::string(ZARN_BINARY_DIR) + "/backends";
const fs::path SAMPLE_IMAGES = fs::path(ZARN_SOURCE_DIR) / "examples/sample-job/images";

RunResult zarn(const fs::path &job, const std::string &process) {
    return run("env NO_COLOR=1 " + quote(ZARN) + " run --process " + process + " --libs " + quote(BACKENDS) + " " +
               quote(job.string()));
}

ORN::JsonParser json_of(const fs::path &file) { return ORN::JsonParser(read_file(file)); }

// The generator's true surfaces ("surfaces" of caches/dense/truth.json):
// the rectangles origin + a u + b v, a and b in [0, 1], each with its unit
// normal into the air it is seen from.
struct TRUE_SURFACE {
    double mOrigin[3], mU[3], mV[3], mNormal[3];
};
std::vector<TRUE_SURFACE> true_surfaces(const ORN::JsonParser &truth) {
    std::vector<TRUE_SURFACE> out;
    for (const ORN::JsonParser &s : truth.child("surfaces").children()) {
        TRUE_SURFACE &r = out.emplace_back();
        for (int a = 0; a < 3; ++a) {
            r.mOrigin[a] = s.child("origin").children()[a].value(0.0);
            r.mU[a] = s.child("u").children()[a].value(0.0);
            r.mV[a] = s.child("v").children()[a].value(0.0);
            r.mNormal[a] = s.child("normal").children()[a].value(0.0);
        }
    }
    return out;
}

// Distance from p to the nearest true surface, and that surface (the
// second nearest's distance too, to tell points near an edge).
struct NEAREST_SURFACE {
    double mDistance = 1e30, mSecond = 1e30;
    const TRUE_SURFACE *mSurface = nullptr;
};
NEAREST_SURFACE nearest_surface(const std::vector<TRUE_SURFACE> &surfaces, const double p[3]) {
    NEAREST_SURFACE out;
    for (const TRUE_SURFACE &s : surfaces) {
        const double d[3] = {p[0] - s.mOrigin[0], p[1] - s.mOrigin[1], p[2] - s.mOrigin[2]};
        const double uu = s.mU[0] * s.mU[0] + s.mU[1] * s.mU[1] + s.mU[2] * s.mU[2];
        const double vv = s.mV[0] * s.mV[0] + s.mV[1] * s.mV[1] + s.mV[2] * s.mV[2];
        const double a = std::clamp((d[0] * s.mU[0] + d[1] * s.mU[1] + d[2] * s.mU[2]) / uu, 0.0, 1.0);
        const double b = std::clamp((d[0] * s.mV[0] + d[1] * s.mV[1] + d[2] * s.mV[2]) / vv, 0.0, 1.0);
        double e = 0;
        for (int k = 0; k < 3; ++k) {
            const double q = d[k] - a * s.mU[k] - b * s.mV[k];
            e += q * q;
        }
        e = std::sqrt(e);
        if (e < out.mDistance) {
            out.mSecond = out.mDistance;
            out.mDistance = e;
            out.mSurface = &s;
        } else if (e < out.mSecond) {
            out.mSecond = e;
        }
    }
    return out;
}

class VeldaMesh : public ::testing::Test {
protected:
    // One reconstruction and one mesh run for all the cases: a job whose
    // caches hold the reference library's chunks of a 60 000-point
    // interior, meshed.
    static void SetUpTestSuite() {
        sBase = new TempDir;
        const fs::path job = sBase->path() / "job";
        fs::create_directories(job / "images");
        for (const char *image : {"point_000_down.png", "point_000_up.png"})
            fs::copy_file(SAMPLE_IMAGES / image, job / "images" / image);
        write_file(job / "caches/split_data.json", split_data(""));
        const auto r = zarn(job, "VeldaMainProcess --process VeldaMeshProcess");
        sOutput = new std::string(r.output);
        ASSERT_EQ(r.status, 0) << r.output;
    }
    static void TearDownTestSuite() {
        delete sBase;
        delete sOutput;
        sBase = nullptr;
        sOutput = nullptr;
    }

    static std::string split_data(const std::string &mesh) {
        return R"({"VeldaMainProcess":{"Common":{"velda_type":"indoor","dense_points":60000}},)"
               R"("VeldaMeshProcess":{"minimum_floor_points":500)" +
               mesh + "}}";
    }

    // A copy of the meshed job (hard links kept), with the mesh process's
    // own split data members added.
    fs::path job(const std::string &mesh = "") {
        const fs::path to = mRoot.path() / "job";
        EXPECT_EQ(run("cp -a " + quote((sBase->path() / "job").string()) + " " + quote(to.string())).status, 0);
        if (!mesh.empty())
            write_file(to / "caches/split_data.json", split_data(mesh));
        return to;
    }

    static TempDir *sBase;
    static std::string *sOutput;
    TempDir mRoot;
};
std::string *VeldaMesh::sOutput = nullptr;
TempDir *VeldaMesh::sBase = nullptr;

TEST_F(VeldaMesh, TwoFloorsMergedCleanedMeshedAndPublishedAsHardLinks) {
    const fs::path j = sBase->path() / "job";
    EXPECT_TRUE(contains(*sOutput, "\nall done\nsummary :\n")) << *sOutput;

    const ORN::JsonParser truth = json_of(j / "caches/dense/truth.json");
    const ORN::JsonParser report = json_of(j / "caches/mesh_report.json");
    // The overlaps' copies are exact: every one goes, nothing else.
    EXPECT_EQ(report.child("points_in").value(INDEX(0)), truth.child("points").value(INDEX(-1)));
    EXPECT_EQ(report.child("duplicates").value(INDEX(0)), truth.child("duplicates").value(INDEX(-1)));
    // The flying pixels go, and few surface points with them.
    const INDEX outliers = report.child("outliers").value(INDEX(0));
    const INDEX planted = truth.child("outliers").value(INDEX(0));
    EXPECT_GE(outliers, planted * 8 / 10);
    EXPECT_LE(outliers, planted + truth.child("points").value(INDEX(0)) / 20);
    EXPECT_EQ(report.child("points").value(INDEX(0)), report.child("points_in").value(INDEX(0)) -
                                                            report.child("duplicates").value(INDEX(0)) - outliers);

    // Exactly the listed files, each the very file of the cache.
    std::map<std::string, ino_t> listed;
    for (const auto &entry : json_of(j / "caches/upload.part4.json").child("upload").children()) {
        const std::string file = entry.child("file").value();
        listed[file] = inode_of(j / "caches" / file);
        EXPECT_NE(listed[file], 0u) << file;
    }
    std::map<std::string, ino_t> published;
    for (const auto &[file, inode] : tree(j / "results/mesh"))
        published["mesh/" + file] = inode;
    EXPECT_EQ(published, listed);
    EXPECT_EQ(tree(j / "caches/mesh").size(), listed.size());

    const std::vector<TRUE_SURFACE> surfaces = true_surfaces(truth);
    const double sigma = truth.child("noise").value(0.0);
    ASSERT_GT(surfaces.size(), 100u);
    ASSERT_GT(sigma, 0);
    const auto floors = report.child("floors").children();
    ASSERT_EQ(floors.size(), 2);
    for (INDEX f = 0; f < 2; ++f) {
        const ORN::JsonParser &floor = floors[f];
        const std::string name = "floor_" + std::to_string(f);
        EXPECT_EQ(floor.child("name").value(), name);
        const double low = floor.child("min").value(0.0), high = floor.child("max").value(0.0);
        const ORN::JsonParser floor_truth = truth.child("floors").children()[f];
        EXPECT_EQ(floor.child("duplicates").value(INDEX(0)), floor_truth.child("duplicates").value(INDEX(-1)));
        const auto triangles = floor.child("triangles").children();
        const auto targets = floor.child("targets").children();
        ASSERT_EQ(triangles.size(), 3);
        std::set<std::array<double, 3>> level0;
        for (INDEX l = 0; l < 3; ++l) {
            const std::string file = "mesh/" + name + "_lod" + std::to_string(l) + ".ply";
            ASSERT_TRUE(listed.contains(file)) << file;
            const ZARN::PlyReader ply((j / "results" / file).string());
            const INDEX vertex = ply.find_element("vertex"), face = ply.find_element("face");
            const INDEX count = triangles[l].value(INDEX(0));
            EXPECT_EQ(ply.element_size(face), count) << file;
            // Level 0 is the surface itself; level l aims at 4^-l of it.
            const INDEX target = targets[l].value(INDEX(0));
            EXPECT_EQ(target, l == 0 ? count : triangles[0].value(INDEX(0)) >> (2 * l)) << file;
            EXPECT_NEAR(double(count), double(target), 0.05 * double(target)) << file;
            // Each floor's mesh holds only that floor. Level 0 lies on the
            // true surfaces: half its vertices within the noise, nine in ten
            // within 6 sigma (at this density the solver rounds the edges of
            // the furniture and the door openings off by a few centimetres).
            // The simplified levels keep vertices of level 0 where they are.
            const INDEX x = ply.find_property(vertex, "x"), y = ply.find_property(vertex, "y");
            const INDEX z = ply.find_property(vertex, "z");
            std::vector<double> distance;
            for (INDEX v = 0; v < ply.element_size(vertex); ++v) {
                const std::array<double, 3> p = {ply.get_value(vertex, x, v), ply.get_value(vertex, y, v),
                                                  ply.get_value(vertex, z, v)};
                ASSERT_GE(p[2], low) << file;
                ASSERT_LT(p[2], high) << file;
                if (l == 0) {
                    level0.insert(p);
                    distance.push_back(nearest_surface(surfaces, p.data()).mDistance / sigma);
                } else {
                    ASSERT_TRUE(level0.contains(p)) << file << " vertex " << v;
                }
            }
            if (l == 0) {
                std::sort(distance.begin(), distance.end());
                EXPECT_LT(distance[distance.size() / 2], 1.0) << file;
                EXPECT_LT(distance[distance.size() * 9 / 10], 6.0) << file;
            }
        }
        EXPECT_GT(triangles[0].value(INDEX(0)), 1000);
        EXPECT_TRUE(read_file(j / "results/mesh" / (name + ".png")).starts_with("\x89PNG")) << name;
        EXPECT_TRUE(listed.contains("mesh/room_" + name + ".ply"));
    }

    // The final cloud, each point with its normal and its floor.
    const ZARN::PlyReader cloud((j / "results/mesh/point_cloud.ply").string());
    const INDEX vertex = cloud.find_element("vertex");
    ASSERT_EQ(cloud.element_size(vertex), report.child("points").value(INDEX(0)));
    const INDEX floor = cloud.find_property(vertex, "floor");
    INDEX position[3], normal[3];
    for (int a = 0; a < 3; ++a) {
        position[a] = cloud.find_property(vertex, std::string(1, char('x' + a)));
        normal[a] = cloud.find_property(vertex, "n" + std::string(1, char('x' + a)));
    }
    const double split = floors[0].child("max").value(0.0);
    // Normals, given or estimated, against the true normal of the surface a
    // point lies on (points near an edge, or off every surface, left out):
    // nearly all of them along it, and turned into the air it faces.
    INDEX compared = 0, along = 0, facing = 0;
    for (INDEX i = 0; i < cloud.element_size(vertex); ++i) {
        const double p[3] = {cloud.get_value(vertex, position[0], i), cloud.get_value(vertex, position[1], i),
                             cloud.get_value(vertex, position[2], i)};
        EXPECT_EQ(cloud.get_byte(vertex, floor, i), p[2] < split ? 0u : 1u) << i;
        const NEAREST_SURFACE s = nearest_surface(surfaces, p);
        if (s.mDistance > 3 * sigma || s.mSecond < 5 * sigma)
            continue;
        const double cosine = cloud.get_value(vertex, normal[0], i) * s.mSurface->mNormal[0] +
                              cloud.get_value(vertex, normal[1], i) * s.mSurface->mNormal[1] +
                              cloud.get_value(vertex, normal[2], i) * s.mSurface->mNormal[2];
        ++compared;
        along += std::abs(cosine) > 0.9;
        facing += cosine > 0;
    }
    EXPECT_GT(compared, cloud.element_size(vertex) * 8 / 10);
    EXPECT_GE(along, compared * 93 / 100);
    EXPECT_GE(facing, compared * 98 / 100);
}

TEST_F(VeldaMesh, SameInputsAreAlreadyDoneAndLostResultsComeBack) {
    const fs::path j = job();
    const auto results = tree(j / "results");
    const auto report = fs::last_write_time(j / "caches/mesh_report.json");
    fs::remove(j / "results/mesh/floor_1_lod2.ply");
    const auto r = zarn(j, "VeldaMeshProcess");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(contains(r.output, "\nalready done\n")) << r.output;
    EXPECT_FALSE(contains(r.output, "points loaded")) << r.output;
    EXPECT_EQ(tree(j / "results"), results);
    EXPECT_EQ(fs::last_write_time(j / "caches/mesh_report.json"), report);

    // Other parameters are other inputs: one explicit target, so fewer
    // levels, and the files of the dropped level leave both folders.
    write_file(j / "caches/split_data.json", split_data(R"(,"lod_triangles":[3000],"point_cloud":false)"));
    const auto again = zarn(j, "VeldaMeshProcess");
    ASSERT_EQ(again.status, 0) << again.output;
    EXPECT_FALSE(contains(again.output, "already done"));
    EXPECT_FALSE(fs::exists(j / "results/mesh/floor_0_lod2.ply"));
    EXPECT_FALSE(fs::exists(j / "caches/mesh/floor_0_lod2.ply"));
    EXPECT_FALSE(fs::exists(j / "results/mesh/point_cloud.ply"));
    for (const auto &floor : json_of(j / "caches/mesh_report.json").child("floors").children()) {
        const auto targets = floor.child("targets").children();
        const auto triangles = floor.child("triangles").children();
        ASSERT_EQ(targets.size(), 2);
        EXPECT_EQ(targets[1].value(INDEX(0)), 3000);
        EXPECT_NEAR(double(triangles[1].value(INDEX(0))), 3000.0, 150.0);
        const ZARN::PlyReader ply((j / "results/mesh" / (floor.child("name").value() + "_lod1.ply")).string());
        EXPECT_EQ(ply.element_size(ply.find_element("face")), triangles[1].value(INDEX(0)));
    }
}

TEST_F(VeldaMesh, FloorsFoundFromTheHeightsWhenTheListingHasNone) {
    const fs::path j = job();
    const std::string listing = read_file(j / "caches/mesh.json");
    const ORN::JsonParser parsed(listing);
    // The listing without its floors.
    std::string chunks = "{\"chunks\":[";
    for (const auto &c : parsed.child("chunks").children())
        chunks += std::string(c.index() == parsed.child("chunks").first().index() ? "" : ",") + "{\"file\":\"" +
                  c.child("file").value() + "\"}";
    write_file(j / "caches/mesh.json", chunks + "]}");
    const auto r = zarn(j, "VeldaMeshProcess");
    ASSERT_EQ(r.status, 0) << r.output;
    const ORN::JsonParser report = json_of(j / "caches/mesh_report.json");
    EXPECT_EQ(report.child("floors_found").value(false), true);
    const auto floors = report.child("floors").children();
    ASSERT_EQ(floors.size(), 2);
    // Between the ground floor's ceiling (2.6) and the upper floor (2.9).
    EXPECT_GT(floors[0].child("max").value(0.0), 2.6);
    EXPECT_LT(floors[0].child("max").value(0.0), 2.9);
    EXPECT_FALSE(fs::exists(j / "results/mesh/room_floor_0.ply"));
}

// The same inputs give the same bytes, whatever the number of workers: the
// surface solver's parallel sums once made the triangle counts of two runs
// differ.
TEST_F(VeldaMesh, RunsGiveTheSameFilesWhateverTheThreads) {
    const fs::path base = sBase->path() / "job";
    for (const char *threads : {"1", "2"}) {
        SCOPED_TRACE(threads);
        const fs::path j = job();
        write_file(j / "setting.xml", std::string("<_Lumora><VeldaMeshProcess><mThreadConcurrency value=\"") + threads +
                                          "\"/></VeldaMeshProcess></_Lumora>");
        fs::remove(j / "caches/mesh_report.json");
        const auto r = zarn(j, "VeldaMeshProcess");
        ASSERT_EQ(r.status, 0) << r.output;
        ASSERT_FALSE(contains(r.output, "already done")) << r.output;
        EXPECT_EQ(read_file(j / "caches/mesh_report.json"), read_file(base / "caches/mesh_report.json"));
        const auto files = tree(base / "caches/mesh");
        EXPECT_EQ(tree(j / "caches/mesh").size(), files.size());
        for (const auto &[file, inode] : files)
            EXPECT_TRUE(read_file(j / "caches/mesh" / file) == read_file(base / "caches/mesh" / file)) << file;
        fs::remove_all(j);
    }
}

// A floor whose points all lie at one place: the searches stay fast and the
// run stops with the floor's name before the surface solver, which would
// end the program with SIGSEGV. Bounded by `timeout`: its neighbour search
// once took minutes.
TEST_F(VeldaMesh, AFloorOfPointsAtOnePlaceStopsTheRunWithItsName) {
    const fs::path j = job();
    const auto results = tree(j / "results");
    std::string points;
    for (int i = 0; i < 100000; ++i)
        points += "-1.5 0.5 4\n";
    for (const char *chunk : {"chunk_006", "chunk_007", "chunk_008", "chunk_009"})
        write_file(j / "caches/dense" / (std::string(chunk) + ".ply"),
                   "ply\nformat ascii 1.0\nelement vertex 100000\nproperty float x\nproperty float y\n"
                   "property float z\nend_header\n" +
                       points);
    const auto r = run("timeout 120 env NO_COLOR=1 " + quote(ZARN) + " run --process VeldaMeshProcess --libs " +
                       quote(BACKENDS) + " " + quote(j.string()));
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(contains(r.output, "\nfloor_1 : points do not span a surface : 100000 points within 0 m, under 0.01 m\n"
                                   "VeldaMeshProcess error\ndynamic_assert failed : r2x >= MIN_SURFACE_EXTENT : at "))
        << r.output;
    EXPECT_EQ(tree(j / "results"), results);
}

// A failure after a good run: the listed cause and the assertion, and
// nothing of "results/" or the report changed.
struct FAILURE {
    const char *mName;
    std::function<void(const fs::path &)> mBreak;
    std::string mLine;
    std::string mAssertion;
};

TEST_F(VeldaMesh, BadInputStopsTheRunAndLeavesTheLastResults) {
    const std::vector<FAILURE> cases = {
        {"missing chunk", [](const fs::path &j) { fs::remove(j / "caches/dense/chunk_003.ply"); },
         "missing file : @/caches/dense/chunk_003.ply", "dynamic_assert failed : false : at "},
        {"PLY without positions",
         [](const fs::path &j) {
             write_file(j / "caches/dense/chunk_001.ply",
                        "ply\nformat ascii 1.0\nelement vertex 1\nproperty uchar red\nend_header\n7\n");
         },
         "PLY without positions : @/caches/dense/chunk_001.ply",
         "dynamic_assert failed : x != ORN::VAR_NONE && y != ORN::VAR_NONE && z != ORN::VAR_NONE : at "},
        {"floor with too few points",
         [](const fs::path &j) {
             std::string listing = read_file(j / "caches/mesh.json");
             const auto end = listing.find("]", listing.find("\"floors\""));
             listing.insert(end, R"(,{"name":"attic","min":6.0,"max":9.0})");
             write_file(j / "caches/mesh.json", listing);
         },
         "too few points on attic : 0", "dynamic_assert failed : r1x >= parameter.mMinimumFloorPoints : at "},
        {"chunk outside the job",
         [](const fs::path &j) {
             std::string listing = read_file(j / "caches/mesh.json");
             listing.replace(listing.find("dense/chunk_000.ply"), 19, "../../../etc/passwd");
             write_file(j / "caches/mesh.json", listing);
         },
         "name leaves the job directory : ../../../etc/passwd in @/caches/mesh.json", "dynamic_assert failed : plain : at "},
    };
    for (const FAILURE &c : cases) {
        SCOPED_TRACE(c.mName);
        const fs::path j = job();
        const auto results = tree(j / "results");
        const std::string report = read_file(j / "caches/mesh_report.json");
        c.mBreak(j);
        const auto r = zarn(j, "VeldaMeshProcess");
        EXPECT_EQ(r.status, 1) << r.output;
        std::string line = c.mLine;
        if (const auto at = line.find('@'); at != std::string::npos)
            line.replace(at, 1, j.string());
        // Chunks load on several threads: other lines may come in between.
        EXPECT_TRUE(contains(r.output, line + "\n")) << r.output;
        EXPECT_TRUE(contains(r.output, "\nVeldaMeshProcess error\n" + c.mAssertion)) << r.output;
        EXPECT_TRUE(contains(r.output, " in ZARN_")) << r.output;
        EXPECT_EQ(tree(j / "results"), results);
        EXPECT_EQ(read_file(j / "caches/mesh_report.json"), report);
        fs::remove_all(j);
    }
}

// Replaces the first `from` of the job's listing with `to`.
void edit_listing(const fs::path &j, const std::string &from, const std::string &to) {
    std::string listing = read_file(j / "caches/mesh.json");
    const auto at = listing.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    listing.replace(at, from.size(), to);
    write_file(j / "caches/mesh.json", listing);
}

// Every malformed parameter, listing value or setting stops the run before
// any chunk is read, with the file, the key and the reason on one line, and
// leaves the last good run's results and report as they were.
TEST_F(VeldaMesh, MalformedParametersListingsAndSettingsAreRefusedBeforeAnyWork) {
    const auto member = [](const std::string &mesh) {
        return [mesh](const fs::path &j) { write_file(j / "caches/split_data.json", split_data(mesh)); };
    };
    const auto listing = [](const std::string &from, const std::string &to) {
        return [from, to](const fs::path &j) { edit_listing(j, from, to); };
    };
    const std::string split = "@/caches/split_data.json : VeldaMeshProcess.";
    const std::string mesh = "@/caches/mesh.json : ";
    struct REFUSAL {
        const char *mName;
        std::function<void(const fs::path &)> mBreak;
        std::string mLine;
    };
    const std::vector<REFUSAL> cases = {
        {"text width", member(R"(,"picture_width":"huge")"), split + R"(picture_width : "huge" is not an integer)"},
        {"width in exponent form", member(R"(,"picture_width":1e3)"), split + "picture_width : 1e3 is not an integer"},
        {"width out of range", member(R"(,"picture_width":9000)"),
         split + "picture_width : 9000 is out of the range 64 to 8192"},
        {"text switch", member(R"(,"point_cloud":"no")"), split + R"(point_cloud : "no" is not true or false)"},
        {"text radius", member(R"(,"merge_radius":"abc")"), split + R"(merge_radius : "abc" is not a number)"},
        {"null ratio", member(R"(,"outlier_ratio":null)"), split + "outlier_ratio : null is not a number"},
        {"fractional count", member(R"(,"minimum_floor_points":1.5)"),
         split + "minimum_floor_points : 1.5 is not an integer"},
        {"targets not a list", member(R"(,"lod_triangles":5)"), split + "lod_triangles : 5 is not an array"},
        {"too many targets", member(R"(,"lod_triangles":[8,7,6,5,4,3,2,1])"),
         split + "lod_triangles : 8 elements, not 1 to 7"},
        {"growing targets", member(R"(,"lod_triangles":[100,200])"),
         split + "lod_triangles[1] : 200 is out of the range 1 to 99"},
        {"levels against targets", member(R"(,"lod_levels":4,"lod_triangles":[100])"),
         split + R"(lod_levels : 4 levels, where "lod_triangles" makes 2)"},
        {"too many levels", member(R"(,"lod_levels":9)"), split + "lod_levels : 9 is out of the range 1 to 8"},
        {"misspelt key", member(R"(,"lod_level":2)"), split + "lod_level : unknown key"},
        {"text viewpoint", listing("[-2.225,0,1.5]", R"(["a","b","c"])"),
         mesh + R"(chunks[0].viewpoint[0] : "a" is not a number)"},
        {"short viewpoint", listing("[-2.225,0,1.5]", "[1,2]"), mesh + "chunks[0].viewpoint : 2 elements, not 3 to 3"},
        {"floor without min", listing(R"("min":-0.15,)", ""), mesh + "floors[0].min : missing"},
        {"floor range upside down", listing(R"("max":2.75)", R"("max":-1)"),
         mesh + R"(floors[0].max : -1 is not above "min")"},
        {"floor name with folders", listing(R"("name":"floor_0")", R"("name":"/x/y")"),
         mesh + R"(floors[0].name : "/x/y" is not a plain file name)"},
        {"hidden floor name", listing(R"("name":"floor_0")", R"("name":".floor")"),
         mesh + R"(floors[0].name : ".floor" is not a plain file name)"},
        {"floor name twice", listing(R"("name":"floor_1")", R"("name":"floor_0")"),
         mesh + R"(floors[1].name : "floor_0" names two floors)"},
        {"chunk listed twice", listing("dense/chunk_001.ply", "dense/chunk_000.ply"),
         mesh + R"(chunks[1].file : "dense/chunk_000.ply" is listed twice)"},
        {"chunk linked twice",
         [](const fs::path &j) {
             fs::create_hard_link(j / "caches/dense/chunk_000.ply", j / "caches/dense/again.ply");
             edit_listing(j, "dense/chunk_003.ply", "dense/again.ply");
         },
         mesh + R"(chunks[3].file : "dense/again.ply" is the same file as chunks[0].file)"},
        {"too many chunks",
         [](const fs::path &j) {
             std::string chunks;
             for (int i = 0; i < 4097; ++i)
                 chunks += std::string(i > 0 ? "," : "") + R"({"file":"dense/c)" + std::to_string(i) + R"(.ply"})";
             write_file(j / "caches/mesh.json", R"({"chunks":[)" + chunks + "]}");
         },
         mesh + "chunks : 4097 elements, not 1 to 4096"},
        {"search count without bound",
         [](const fs::path &j) {
             write_file(j / "setting.xml", "<_Lumora><VeldaMeshProcess><mPointCloudSearchCount value=\"29000\"/>"
                                           "</VeldaMeshProcess></_Lumora>");
         },
         "@/setting.xml : VeldaMeshProcess/mPointCloudSearchCount : 29000 is out of the range 2 to 64"},
        {"thread count without bound",
         [](const fs::path &j) {
             write_file(j / "setting.xml", "<_Lumora><VeldaMeshProcess><mThreadConcurrency value=\"100000\"/>"
                                           "</VeldaMeshProcess></_Lumora>");
         },
         "@/setting.xml : VeldaMeshProcess/mThreadConcurrency : 100000 is out of the range 1 to 1024"},
    };
    for (const REFUSAL &c : cases) {
        SCOPED_TRACE(c.mName);
        const fs::path j = job();
        const auto results = tree(j / "results");
        const std::string report = read_file(j / "caches/mesh_report.json");
        c.mBreak(j);
        const auto r = zarn(j, "VeldaMeshProcess");
        EXPECT_EQ(r.status, 1) << r.output;
        std::string line = c.mLine;
        line.replace(line.find('@'), 1, j.string());
        EXPECT_TRUE(contains(r.output, "\n" + line + "\nVeldaMeshProcess error\ndynamic_assert failed : valid : at "))
            << r.output;
        EXPECT_FALSE(contains(r.output, "points loaded")) << r.output;
        EXPECT_EQ(tree(j / "results"), results);
        EXPECT_EQ(read_file(j / "caches/mesh_report.json"), report);
        fs::remove_all(j);
    }
}

// What the surfaces start with: the merged cloud, its kd-tree and the
// neighbour rows are needed by no node that plays from the surfaces on, so
// the graph has released them before the first solve (they were once held
// to the end for the trimming and for two counts of the report).
TEST_F(VeldaMesh, NothingBeforeTheFinalCloudIsHeldThroughTheSurfaces) {
    const auto r = run("env NO_COLOR=1 " + quote(ZARN) + " graph --process VeldaMeshProcess " +
                       quote((sBase->path() / "job").string()));
    ASSERT_EQ(r.status, 0) << r.output;
    std::map<std::string, std::string> label;
    std::multimap<std::string, std::string> needs;
    std::istringstream lines(r.output);
    std::string line;
    std::smatch m;
    while (std::getline(lines, line))
        if (std::regex_search(line, m, std::regex(R"re(^\s*(n\d+) \[label="(\w+)")re")))
            label[m[1]] = m[2];
        else if (std::regex_search(line, m, std::regex(R"(^\s*(n\d+) -> (n\d+))")))
            needs.emplace(m[1], m[2]);
    std::set<std::string> dependents;
    for (const auto &[from, to] : needs)
        if (label[to] == "CON_mMergedPointCloud" || label[to] == "CON_mFinalPointCloudKDTree" ||
            label[to] == "CON_mPointNeighbour")
            dependents.insert(label[from]);
    EXPECT_EQ(dependents, (std::set<std::string>{"CON_mFinalPointCloud", "CON_mFinalPointCloudKDTree", "CON_mFloorGroup",
                                                 "CON_mPointCloudOutlier", "CON_mPointNeighbour"}));
}

// ---------------------------------------------------------------------------
// The steps the process runs between the search and the surfaces, against
// the forms they stand in for.

using ZARN::PointCloudProc::CLOUD;

// Two spheres of `n` points each (a fixed sequence), the second 5 m above
// the first, normals outward and their floor in `group`; every third point
// without its normal.
CLOUD two_spheres(INDEX n, ORN::Array<std::uint8_t> &group) {
    CLOUD c;
    c.resize(2 * n);
    group = ORN::Array<std::uint8_t>(2 * n);
    for (INDEX i = 0; i < 2 * n; ++i) {
        const double k = double(i % n) + 0.5, z = 1 - 2 * k / double(n), r = std::sqrt(1 - z * z);
        const double phi = k * 2.399963229728653; // the golden angle
        const double d[3] = {r * std::cos(phi), r * std::sin(phi), z};
        for (int a = 0; a < 3; ++a) {
            c.mPosition[3 * i + a] = static_cast<float>(d[a] + (a == 2 && i >= n ? 5 : 0));
            c.mNormal[3 * i + a] = i % 3 == 0 ? 0.0f : static_cast<float>(d[a]);
            c.mColour[3 * i + a] = static_cast<std::uint8_t>((i * (a + 7)) % 256);
        }
        c.mChunk[i] = static_cast<std::uint16_t>(i >= n);
        group[i] = static_cast<std::uint8_t>(i >= n);
    }
    return c;
}

// The normals fitted from the rows the outlier search kept are those a
// second search of the tree gives, outliers passed over alike; the table
// lists exactly the points without normals, each with k + 1 rows.
TEST(MeshSteps, NormalsFromTheKeptRowsAreThoseOfASecondSearch) {
    ORN::Array<std::uint8_t> group;
    const CLOUD merged = two_spheres(3000, group);
    const ZARN::KD_Tree tree = ZARN::PointCloudProc::build_tree(merged);
    ORN::WorkThread workers(2);
    constexpr INDEX K = 8;
    ZARN::PointCloudProc::NEAREST_ROWS rows;
    const ORN::Array<float> distance = ZARN::PointCloudProc::neighbour_distance(tree, merged, K, workers, &rows);
    EXPECT_EQ(distance, ZARN::PointCloudProc::neighbour_distance(tree, merged, K, workers));
    ASSERT_EQ(rows.mWidth, K + 1);
    ASSERT_EQ(rows.mPoint.size(), 2000);
    ASSERT_EQ(rows.mRow.size(), 2000 * (K + 1));
    for (INDEX s = 0; s < rows.mPoint.size(); ++s)
        ASSERT_EQ(rows.mPoint[s], 3 * s) << s;
    // Some points taken for outliers: their rows are passed over.
    ORN::Array<std::uint8_t> outlier(merged.size());
    for (INDEX i = 0; i < merged.size(); i += 7)
        outlier[i] = 1;
    ORN::Array<INDEX> row;
    CLOUD searched = ZARN::PointCloudProc::remove_points(merged, outlier, &row);
    CLOUD kept = searched;
    const ORN::Array<ORN::Vector<double>> eye(2);
    const INDEX a = ZARN::PointCloudProc::estimate_normals(tree, merged, outlier, searched, row, K, eye, workers);
    const INDEX b = ZARN::PointCloudProc::estimate_normals(rows, merged, outlier, kept, row, K, eye, workers);
    EXPECT_EQ(a, b);
    EXPECT_GT(a, 1500);
    EXPECT_EQ(searched.mNormal, kept.mNormal);
    // Another k than the search's is refused.
    CLOUD other = searched;
    std::fill(other.mNormal.begin(), other.mNormal.end(), 0.0f);
    std::string text = "fitted";
    try {
        ZARN::PointCloudProc::estimate_normals(rows, merged, outlier, other, row, K - 1, eye, workers);
    } catch (const std::exception &e) {
        text = e.what();
    }
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : near.mWidth == std::min (k + 1, tree_cloud.size ()) : at "))
        << text;
}

// A floor solved where it lies in the cloud gives the very surface its
// copy gives, and the same extent and depth.
TEST(MeshSteps, ASelectedFloorIsSolvedAsItsCopy) {
    ORN::Array<std::uint8_t> group;
    CLOUD cloud = two_spheres(4000, group);
    for (INDEX i = 0; i < cloud.size(); ++i)
        for (int a = 0; a < 3 && i % 3 == 0; ++a)
            cloud.mNormal[3 * i + a] = cloud.mPosition[3 * i + a] - (a == 2 && group[i] ? 5.0f : 0.0f);
    ORN::Array<std::uint8_t> other(cloud.size());
    for (INDEX i = 0; i < cloud.size(); ++i)
        other[i] = group[i] != 1;
    const CLOUD copy = ZARN::PointCloudProc::remove_points(cloud, other);
    const ZARN::SurfaceProc::SELECTION upper{&group, 1};
    EXPECT_EQ(ZARN::SurfaceProc::extent(cloud, upper), ZARN::SurfaceProc::extent(copy));
    EXPECT_GT(ZARN::SurfaceProc::extent(cloud), ZARN::SurfaceProc::extent(copy) + 4);
    const int depth = ZARN::SurfaceProc::surface_depth(copy, 0.05);
    EXPECT_EQ(ZARN::SurfaceProc::surface_depth(cloud, 0.05, upper), depth);
    const ZARN::SurfaceProc::MESH mine = ZARN::SurfaceProc::reconstruct(cloud, depth, 1, upper);
    const ZARN::SurfaceProc::MESH theirs = ZARN::SurfaceProc::reconstruct(copy, depth, 1);
    ASSERT_GT(mine.triangle_count(), 1000);
    EXPECT_EQ(mine.mVertex, theirs.mVertex);
    EXPECT_EQ(mine.mColour, theirs.mColour);
    EXPECT_EQ(mine.mTriangle, theirs.mTriangle);
    for (INDEX v = 0; v < mine.vertex_count(); ++v)
        ASSERT_GT(mine.mVertex[3 * v + 2], 3.0f) << v;
}

} // namespace
