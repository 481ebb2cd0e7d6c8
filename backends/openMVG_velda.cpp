// Reference stand-in for the closed reconstruction library openMVG_velda.
//
//   int run_velda_main(int argc, char **argv)
//
// argv = {"", type, working directory}. From the job's images
// ("images/*.png|jpg|jpeg", in name order) it derives one camera pose per
// image and writes into the working directory what the reconstruction
// writes:
//
//   caches/vision.json                 the camera poses
//   caches/floorplan.json              one room around the cameras
//   caches/floorplan/floorplan.png     a drawing of it
//   caches/mesh.json                   the dense cloud's chunks and storeys
//   caches/dense/chunk_NNN.ply         the dense cloud, two chunks per room
//   caches/dense/room_mesh.ply         the true surfaces as triangles
//   caches/dense/truth.json            what the cloud holds, for checking
//   caches/updown/poses.txt            the poses as text
//   caches/updown/thumbnails/<stem>.png  a small copy of every image
//   caches/ar/anchors.json             one anchor per capture point
//   caches/ar/poses.txt                the poses in the AR frame
//   caches/upload.part3.json           {"upload":[{"file":"updown/..."},...]}
//   caches/upload.part9.json           {"upload":[{"file":"ar/..."},...]}
//
// Images whose names share the text before their last '_' ("point_000_up",
// "point_000_down") were taken at one capture point and share a position;
// points lie 1.5 m apart on a grid four points wide, cameras 1.6 m above the
// floor, and the images of one point turn evenly about the vertical axis.
// The dense cloud is that of a synthetic two-storey interior around the
// cameras (interior_scene.h), with as many surface points as the split
// data's VeldaMainProcess.Common.dense_points asks for (200000 when absent,
// not an integer, or outside 0..100000000). The output depends on nothing
// but the images and that number, so it is the same on every run. The
// images are read from the job without following links; files are written
// whole to exclusive temporary files and renamed into place
// (backend_support.h), their folders made without following links; the
// cloud's files are streamed through the job's durable writer first, and
// mesh.json, which lists them, comes last.
//
// Results: 0 done; 1 not three arguments; 2 empty type; 3 the working
// directory does not exist; 4 no images; 5 an image does not decode; 6 an
// output could not be written.

#include "backend_support.h"
#include "interior_scene.h"

#include "ZARN_Common/ImageProc.h"
#include "ZARN_Common/VeldaLibrary.h"
#include "ZARN_Common/PlyWriter.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_images.h"
#include "__ORN__/orn_serialization.h"

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <numbers>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using zarn_backend::json_string;
using zarn_backend::number_text;

// The result codes are the interface's (ZARN_Common/VeldaLibrary.h).
using namespace ZARN::VeldaLibrary;

constexpr double POINT_SPACING = 1.5;
constexpr int POINTS_PER_ROW = 4;
constexpr double CAMERA_HEIGHT = 1.6;
constexpr double ROOM_MARGIN = 1.0;
constexpr int THUMBNAIL_WIDTH = 48;
constexpr int PLAN_PIXELS_PER_METRE = 40;
constexpr std::int64_t DEFAULT_DENSE_POINTS = 200000;
constexpr std::int64_t MAX_DENSE_POINTS = 100000000;
constexpr ORN::INDEX PLY_BUFFER = ORN::INDEX(1) << 20;
constexpr std::size_t IMAGE_LIMIT = std::size_t(1) << 30; // bytes of an image file

struct Shot {
    std::string mFile; // relative to the working directory
    std::string mStem;
    std::string mPoint;
    int mPointIndex = 0;
    int mWidth = 0;
    int mHeight = 0;
    double mBrightness = 0;
    double mPosition[3] = {};
    double mYaw = 0;        // radians
    double mRotation[4] = {}; // quaternion w, x, y, z
    cv::Mat mThumbnail;
};

// Appends every part to out.
template <class... PARTS>
void append(std::string &out, const PARTS &...parts) {
    (out.append(parts), ...);
}

double rounded(double value) { return std::round(value * 1e6) / 1e6; }

std::string vector_text(const double *v, int n, bool round = true) {
    std::string out = "[";
    for (int i = 0; i < n; ++i)
        append(out, i ? "," : "", number_text(round ? rounded(v[i]) : v[i]));
    out += ']';
    return out;
}

bool image_name(const fs::path &file) {
    std::string ext = file.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext == ".png" || ext == ".jpg" || ext == ".jpeg";
}

// The images of the job: regular files of "images/" reached without links.
std::vector<std::string> list_images(int job) {
    std::vector<std::string> files;
    for (const std::string &name : zarn_backend::list_files_at(job, "images"))
        if (image_name(name))
            files.push_back(name);
    return files;
}

// Reads every image, makes its thumbnail and places its camera.
int survey(int job, const std::vector<std::string> &files, std::vector<Shot> &shots) {
    std::map<std::string, int> points;
    for (const std::string &name : files) {
        const fs::path file(name);
        std::vector<unsigned char> bytes;
        const zarn_backend::Descriptor input = zarn_backend::open_file_at(job, "images/" + name);
        if (!input || !zarn_backend::read_all(input.get(), bytes, IMAGE_LIMIT))
            return VELDA_BAD_IMAGE;
        ORN::Image decoded;
        if (!ORN::try_run([&] {
                decoded = ORN::Image::decode(bytes.data(), static_cast<ORN::INDEX>(bytes.size()), ORN::ImageReadMode::COLOR);
            }))
            return VELDA_BAD_IMAGE;
        const cv::Mat image = ZARN::ImageProc::mat(decoded);
        if (image.empty())
            return VELDA_BAD_IMAGE;
        Shot s;
        s.mFile = "images/" + file.filename().string();
        s.mStem = file.stem().string();
        const auto cut = s.mStem.rfind('_');
        s.mPoint = cut == std::string::npos || cut == 0 ? s.mStem : s.mStem.substr(0, cut);
        s.mPointIndex = points.emplace(s.mPoint, static_cast<int>(points.size())).first->second;
        s.mWidth = image.cols;
        s.mHeight = image.rows;
        cv::Mat grey;
        cv::cvtColor(image, grey, cv::COLOR_BGR2GRAY);
        s.mBrightness = std::round(cv::mean(grey)[0] * 100) / 100;
        const int height = std::max(1, static_cast<int>(std::lround(double(THUMBNAIL_WIDTH) * image.rows / image.cols)));
        cv::resize(image, s.mThumbnail, cv::Size(THUMBNAIL_WIDTH, height), 0, 0, cv::INTER_AREA);
        shots.push_back(std::move(s));
    }
    std::map<int, int> seen;
    std::map<int, int> count;
    for (const Shot &s : shots)
        ++count[s.mPointIndex];
    for (Shot &s : shots) {
        const int p = s.mPointIndex;
        s.mPosition[0] = POINT_SPACING * (p % POINTS_PER_ROW);
        s.mPosition[1] = POINT_SPACING * (p / POINTS_PER_ROW);
        s.mPosition[2] = CAMERA_HEIGHT;
        s.mYaw = 2 * std::numbers::pi * seen[p]++ / count[p];
        s.mRotation[0] = std::cos(s.mYaw / 2);
        s.mRotation[3] = std::sin(s.mYaw / 2);
    }
    return VELDA_OK;
}

struct Room {
    double mMin[2];
    double mMax[2];
};

Room room_around(const std::vector<Shot> &shots) {
    Room r{{shots[0].mPosition[0], shots[0].mPosition[1]}, {shots[0].mPosition[0], shots[0].mPosition[1]}};
    for (const Shot &s : shots)
        for (int k = 0; k < 2; ++k) {
            r.mMin[k] = std::min(r.mMin[k], s.mPosition[k]);
            r.mMax[k] = std::max(r.mMax[k], s.mPosition[k]);
        }
    for (int k = 0; k < 2; ++k) {
        r.mMin[k] -= ROOM_MARGIN;
        r.mMax[k] += ROOM_MARGIN;
    }
    return r;
}

std::string vision_json(const std::string &type, const std::vector<Shot> &shots) {
    std::string out = "{\"type\":" + json_string(type) + ",\"images\":[";
    for (std::size_t i = 0; i < shots.size(); ++i) {
        const Shot &s = shots[i];
        append(out, i ? "," : "", "{\"file\":", json_string(s.mFile), ",\"point\":", std::to_string(s.mPointIndex),
               ",\"width\":", std::to_string(s.mWidth), ",\"height\":", std::to_string(s.mHeight),
               ",\"brightness\":", number_text(s.mBrightness), ",\"position\":", vector_text(s.mPosition, 3),
               ",\"rotation\":", vector_text(s.mRotation, 4), "}");
    }
    out += "]}";
    return out;
}

std::string floorplan_json(const Room &r, const std::vector<Shot> &shots) {
    const double outline[8] = {r.mMin[0], r.mMin[1], r.mMax[0], r.mMin[1], r.mMax[0], r.mMax[1], r.mMin[0], r.mMax[1]};
    std::string out = "{\"rooms\":[{\"name\":\"room_0\",\"outline\":[";
    for (int i = 0; i < 4; ++i)
        append(out, i ? "," : "", vector_text(outline + 2 * i, 2));
    out += "]}],\"cameras\":[";
    for (std::size_t i = 0; i < shots.size(); ++i)
        append(out, i ? "," : "", vector_text(shots[i].mPosition, 2));
    out += "]}";
    return out;
}

// ---------------------------------------------------------------------------
// The dense cloud.

const char *const FLOOR_NAMES[] = {"floor_0", "floor_1"};

std::string chunk_name(std::size_t index) {
    char name[48];
    std::snprintf(name, sizeof(name), "dense/chunk_%03zu.ply", index);
    return name;
}

// The split data's "dense_points", or the default.
std::int64_t dense_points(const fs::path &work) {
    return ORN::try_invoke(
        [&] {
            const ORN::JobDirectory job(work.string());
            if (!job.find_file("caches/split_data.json"))
                return DEFAULT_DENSE_POINTS;
            const ORN::JsonParser split(job.load_file("caches/split_data.json"));
            const auto n = split.child("VeldaMainProcess").child("Common").child("dense_points").value(std::int64_t(-1));
            return n >= 0 && n <= MAX_DENSE_POINTS ? n : DEFAULT_DENSE_POINTS;
        },
        DEFAULT_DENSE_POINTS);
}

void write_chunk(const ORN::JobDirectory &job, std::size_t index, const zarn_interior::Chunk &c) {
    ZARN::PlyWriter ply;
    ply.element("vertex", static_cast<ORN::INDEX>(c.size()));
    const float *p = c.mPosition.data();
    ply.property("x", p, 12);
    ply.property("y", p + 1, 12);
    ply.property("z", p + 2, 12);
    if (index % 2 == 0) {
        const float *n = c.mNormal.data();
        ply.property("nx", n, 12);
        ply.property("ny", n + 1, 12);
        ply.property("nz", n + 2, 12);
    }
    const std::uint8_t *rgb = c.mColour.data();
    ply.property("red", rgb, 3);
    ply.property("green", rgb + 1, 3);
    ply.property("blue", rgb + 2, 3);
    job.save_file("caches/" + chunk_name(index), PLY_BUFFER, [&](ORN::FileWriter &out) { ply.write(out); });
}

// Two triangles per surface, each turning about the surface's normal.
void write_room_mesh(const ORN::JobDirectory &job, const zarn_interior::Scene &scene) {
    std::vector<float> vertices;
    std::vector<std::int32_t> faces;
    for (const zarn_interior::Surface &s : scene.mSurfaces) {
        const auto first = static_cast<std::int32_t>(vertices.size() / 3);
        for (const auto &[a, b] : {std::pair{0, 0}, std::pair{1, 0}, std::pair{1, 1}, std::pair{0, 1}})
            for (int k = 0; k < 3; ++k)
                vertices.push_back(static_cast<float>(s.mOrigin[k] + a * s.mU[k] + b * s.mV[k]));
        for (const int corner : {0, 1, 2, 0, 2, 3})
            faces.push_back(first + corner);
    }
    ZARN::PlyWriter ply;
    ply.element("vertex", static_cast<ORN::INDEX>(vertices.size() / 3));
    ply.property("x", vertices.data(), 12);
    ply.property("y", vertices.data() + 1, 12);
    ply.property("z", vertices.data() + 2, 12);
    ply.element("face", static_cast<ORN::INDEX>(faces.size() / 3));
    ply.property_list("vertex_indices", faces.data(), 3);
    job.save_file("caches/dense/room_mesh.ply", PLY_BUFFER, [&](ORN::FileWriter &out) { ply.write(out); });
}

std::string floors_json(const zarn_interior::Scene &scene) {
    std::string out = "[";
    for (std::size_t f = 0; f < scene.mFloors.size(); ++f)
        append(out, f ? "," : "", "{\"name\":", json_string(FLOOR_NAMES[f]), ",\"min\":",
               number_text(rounded(scene.mFloors[f].mMin)), ",\"max\":", number_text(rounded(scene.mFloors[f].mMax)),
               "}");
    return out + "]";
}

std::string mesh_json(const zarn_interior::Scene &scene, const std::vector<zarn_interior::Chunk> &chunks) {
    std::string out = "{\"chunks\":[";
    for (std::size_t i = 0; i < chunks.size(); ++i)
        append(out, i ? "," : "", "{\"file\":", json_string(chunk_name(i)), ",\"points\":",
               std::to_string(chunks[i].size()), ",\"viewpoint\":", vector_text(chunks[i].mViewpoint, 3), "}");
    append(out, "],\"floors\":", floors_json(scene), ",\"room_mesh\":\"dense/room_mesh.ply\"}");
    return out;
}

std::string truth_json(const zarn_interior::Scene &scene, const std::vector<zarn_interior::Chunk> &chunks) {
    struct COUNT {
        std::int64_t mPoints = 0, mDuplicates = 0, mOutliers = 0;
    };
    std::vector<COUNT> floors(scene.mFloors.size());
    COUNT all;
    for (const zarn_interior::Chunk &c : chunks) {
        COUNT &f = floors[static_cast<std::size_t>(c.mFloor)];
        for (const std::uint8_t flags : c.mFlags) {
            const bool copy = flags & zarn_interior::OVERLAP_COPY;
            for (COUNT *n : {&f, &all}) {
                ++n->mPoints;
                n->mDuplicates += copy;
                n->mOutliers += !copy && (flags & zarn_interior::OUTLIER);
            }
        }
    }
    const auto counts = [](const COUNT &n) {
        return "\"points\":" + std::to_string(n.mPoints) + ",\"duplicates\":" + std::to_string(n.mDuplicates) +
               ",\"outliers\":" + std::to_string(n.mOutliers);
    };
    std::string out = "{\"noise\":" + number_text(zarn_interior::NOISE) + "," + counts(all) + ",\"floors\":[";
    for (std::size_t f = 0; f < floors.size(); ++f)
        append(out, f ? "," : "", "{\"name\":", json_string(FLOOR_NAMES[f]), ",", counts(floors[f]), "}");
    out += "],\"surfaces\":[";
    for (std::size_t i = 0; i < scene.mSurfaces.size(); ++i) {
        const zarn_interior::Surface &s = scene.mSurfaces[i];
        // Unrounded: the surfaces are the truth the cloud is measured against.
        append(out, i ? "," : "", "{\"floor\":", std::to_string(s.mFloor), ",\"origin\":",
               vector_text(s.mOrigin, 3, false), ",\"u\":", vector_text(s.mU, 3, false), ",\"v\":",
               vector_text(s.mV, 3, false), ",\"normal\":", vector_text(s.mNormal, 3, false), "}");
    }
    return out + "]}";
}

// The chunks and the room mesh (streamed, durable), the truth; mesh.json is
// left to the caller, to be written after them.
bool write_dense(const fs::path &work, int dense, const zarn_interior::Scene &scene,
                 const std::vector<zarn_interior::Chunk> &chunks) {
    const ORN::JobDirectory job(work.string());
    return ORN::try_run([&] {
               for (std::size_t i = 0; i < chunks.size(); ++i)
                   write_chunk(job, i, chunks[i]);
               write_room_mesh(job, scene);
           }) &&
           zarn_backend::write_file_at(dense, "truth.json", truth_json(scene, chunks));
}

cv::Mat floorplan_image(const Room &r, const std::vector<Shot> &shots) {
    const auto px = [&](double metres) { return static_cast<int>(std::lround(metres * PLAN_PIXELS_PER_METRE)); };
    const int width = px(r.mMax[0] - r.mMin[0]) + 1;
    const int height = px(r.mMax[1] - r.mMin[1]) + 1;
    cv::Mat plan(height, width, CV_8UC3, cv::Scalar(255, 255, 255));
    cv::rectangle(plan, cv::Point(0, 0), cv::Point(width - 1, height - 1), cv::Scalar(0, 0, 0), 2);
    for (const Shot &s : shots)
        cv::circle(plan, cv::Point(px(s.mPosition[0] - r.mMin[0]), px(s.mPosition[1] - r.mMin[1])), 4,
                   cv::Scalar(0, 0, 200), cv::FILLED);
    return plan;
}

std::string poses_text(const std::vector<Shot> &shots) {
    std::string out = "# image x y z qw qx qy qz\n";
    for (const Shot &s : shots) {
        out += s.mFile;
        for (double v : s.mPosition)
            append(out, " ", number_text(rounded(v)));
        for (double v : s.mRotation)
            append(out, " ", number_text(rounded(v)));
        out += '\n';
    }
    return out;
}

std::string ar_poses_text(const std::vector<Shot> &shots) {
    // The AR frame has y up: (x, z, -y) of the reconstruction.
    std::string out = "# index image x y z yaw_degrees\n";
    for (std::size_t i = 0; i < shots.size(); ++i) {
        const Shot &s = shots[i];
        append(out, std::to_string(i), " ", s.mFile, " ", number_text(rounded(s.mPosition[0])), " ",
               number_text(rounded(s.mPosition[2])), " ", number_text(rounded(-s.mPosition[1])), " ",
               number_text(rounded(s.mYaw * 180 / std::numbers::pi)), "\n");
    }
    return out;
}

std::string anchors_json(const std::vector<Shot> &shots) {
    std::string out = "{\"anchors\":[";
    int last = -1;
    for (const Shot &s : shots) {
        if (s.mPointIndex <= last)
            continue;
        last = s.mPointIndex;
        append(out, last ? "," : "", "{\"id\":", json_string(s.mPoint), ",\"position\":", vector_text(s.mPosition, 3),
               "}");
    }
    out += "]}";
    return out;
}

std::string manifest_json(const std::vector<std::string> &files) {
    std::string out = "{\"upload\":[";
    for (std::size_t i = 0; i < files.size(); ++i)
        append(out, i ? "," : "", "{\"file\":", json_string(files[i]), "}");
    out += "]}";
    return out;
}

std::string png(const cv::Mat &image) {
    std::vector<unsigned char> bytes;
    cv::imencode(".png", image, bytes);
    return std::string(bytes.begin(), bytes.end());
}

int reconstruct(const std::string &type, const fs::path &work) {
    const zarn_backend::Descriptor job = zarn_backend::open_directory(work, true);
    if (!job)
        return VELDA_NO_WORKING_DIRECTORY;
    const std::vector<std::string> files = list_images(job.get());
    if (files.empty())
        return VELDA_NO_IMAGES;
    std::vector<Shot> shots;
    if (const int r = survey(job.get(), files, shots); r != VELDA_OK)
        return r;
    const Room room = room_around(shots);

    // Each output in its folder of caches/, made without following links.
    bool written = true;
    auto put = [&](const std::string &relative, const std::string &data) {
        const auto slash = relative.rfind('/');
        const std::string folder = "caches" + (slash == std::string::npos ? "" : "/" + relative.substr(0, slash));
        const zarn_backend::Descriptor directory = zarn_backend::open_directory_at(job.get(), folder, true);
        written = written && directory &&
                  zarn_backend::write_file_at(directory.get(), relative.substr(slash + 1), data);
    };
    std::vector<std::string> updown = {"updown/poses.txt"};
    put("updown/poses.txt", poses_text(shots));
    for (const Shot &s : shots) {
        std::string name = "updown/thumbnails/";
        append(name, s.mStem, ".png");
        put(name, png(s.mThumbnail));
        updown.push_back(std::move(name));
    }
    const std::vector<std::string> ar = {"ar/anchors.json", "ar/poses.txt"};
    put("ar/anchors.json", anchors_json(shots));
    put("ar/poses.txt", ar_poses_text(shots));
    put("vision.json", vision_json(type, shots));
    put("floorplan.json", floorplan_json(room, shots));
    put("floorplan/floorplan.png", png(floorplan_image(room, shots)));
    {
        const double footprint_min[2] = {room.mMin[0], room.mMin[1]}, footprint_max[2] = {room.mMax[0], room.mMax[1]};
        const zarn_interior::Scene scene = zarn_interior::make_scene(footprint_min, footprint_max);
        const std::vector<zarn_interior::Chunk> chunks = zarn_interior::sample_chunks(scene, dense_points(work));
        const zarn_backend::Descriptor dense = zarn_backend::open_directory_at(job.get(), "caches/dense", true);
        written = written && dense && write_dense(work, dense.get(), scene, chunks);
        put("mesh.json", mesh_json(scene, chunks));
    }
    put("upload.part3.json", manifest_json(updown));
    put("upload.part9.json", manifest_json(ar));
    return written ? VELDA_OK : VELDA_WRITE_FAILED;
}

} // namespace

ZARN_BACKEND_ENTRY int run_velda_main(int argc, char **argv) {
    std::vector<std::string> arguments;
    for (int i = 0; argv != nullptr && i < argc; ++i)
        arguments.emplace_back(argv[i] ? argv[i] : "");
    if (const auto code = zarn_backend::enter("run_velda_main", arguments))
        return *code;
    if (argc != 3 || argv == nullptr || argv[1] == nullptr || argv[2] == nullptr)
        return VELDA_BAD_ARGUMENTS;
    if (arguments[1].empty())
        return VELDA_EMPTY_TYPE;
    return reconstruct(arguments[1], fs::path(arguments[2]));
}
