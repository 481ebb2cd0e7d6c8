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
//   caches/mesh.json                   floor and ceiling of that room
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
// The output depends on nothing but the images, so it is the same on every
// run. Files are written whole and renamed into place.
//
// Results: 0 done; 1 not three arguments; 2 empty type; 3 the working
// directory does not exist; 4 no images; 5 an image does not decode; 6 an
// output could not be written.

#include "backend_support.h"

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using zarn_backend::json_string;
using zarn_backend::number_text;

enum RESULT : int {
    DONE = 0,
    BAD_ARGUMENTS = 1,
    EMPTY_TYPE = 2,
    NO_WORKING_DIRECTORY = 3,
    NO_IMAGES = 4,
    BAD_IMAGE = 5,
    WRITE_FAILED = 6,
};

constexpr double POINT_SPACING = 1.5;
constexpr int POINTS_PER_ROW = 4;
constexpr double CAMERA_HEIGHT = 1.6;
constexpr double CEILING_HEIGHT = 2.6;
constexpr double ROOM_MARGIN = 1.0;
constexpr int THUMBNAIL_WIDTH = 48;
constexpr int PLAN_PIXELS_PER_METRE = 40;

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

std::string vector_text(const double *v, int n) {
    std::string out = "[";
    for (int i = 0; i < n; ++i)
        append(out, i ? "," : "", number_text(rounded(v[i])));
    out += ']';
    return out;
}

bool image_name(const fs::path &file) {
    std::string ext = file.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext == ".png" || ext == ".jpg" || ext == ".jpeg";
}

std::vector<fs::path> list_images(const fs::path &work) {
    std::vector<fs::path> files;
    std::error_code ec;
    for (fs::directory_iterator it(work / "images", ec), end; !ec && it != end; it.increment(ec))
        if (it->is_regular_file(ec) && image_name(it->path()))
            files.push_back(it->path());
    std::sort(files.begin(), files.end());
    return files;
}

// Reads every image, makes its thumbnail and places its camera.
int survey(const std::vector<fs::path> &files, std::vector<Shot> &shots) {
    std::map<std::string, int> points;
    for (const fs::path &file : files) {
        const cv::Mat image = cv::imread(file.string(), cv::IMREAD_COLOR);
        if (image.empty())
            return BAD_IMAGE;
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
    return DONE;
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

std::string mesh_json(const Room &r) {
    std::string out = "{\"vertices\":[";
    for (int level = 0; level < 2; ++level)
        for (int corner = 0; corner < 4; ++corner) {
            const double v[3] = {corner == 1 || corner == 2 ? r.mMax[0] : r.mMin[0], corner >= 2 ? r.mMax[1] : r.mMin[1],
                                 level ? CEILING_HEIGHT : 0.0};
            append(out, level || corner ? "," : "", vector_text(v, 3));
        }
    // Floor facing up, ceiling facing down.
    out += "],\"faces\":[[0,1,2],[0,2,3],[4,6,5],[4,7,6]]}";
    return out;
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
    std::error_code ec;
    if (!fs::is_directory(work, ec))
        return NO_WORKING_DIRECTORY;
    const std::vector<fs::path> files = list_images(work);
    if (files.empty())
        return NO_IMAGES;
    std::vector<Shot> shots;
    if (const int r = survey(files, shots); r != DONE)
        return r;
    const Room room = room_around(shots);
    const fs::path caches = work / "caches";

    bool written = true;
    auto put = [&](const std::string &relative, const std::string &data) {
        written = written && zarn_backend::write_file(caches / relative, data);
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
    put("mesh.json", mesh_json(room));
    put("upload.part3.json", manifest_json(updown));
    put("upload.part9.json", manifest_json(ar));
    return written ? DONE : WRITE_FAILED;
}

} // namespace

ZARN_BACKEND_ENTRY int run_velda_main(int argc, char **argv) {
    std::vector<std::string> arguments;
    for (int i = 0; argv != nullptr && i < argc; ++i)
        arguments.emplace_back(argv[i] ? argv[i] : "");
    if (const auto code = zarn_backend::enter("run_velda_main", arguments))
        return *code;
    if (argc != 3 || argv == nullptr || argv[1] == nullptr || argv[2] == nullptr)
        return BAD_ARGUMENTS;
    if (arguments[1].empty())
        return EMPTY_TYPE;
    return reconstruct(arguments[1], fs::path(arguments[2]));
}
