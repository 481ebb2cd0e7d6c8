#include "capture_stereo.h"

#include "stereo_raw.h"

#include "ZARN_Common/ImageProc.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_images.h"
#include "__ORN__/orn_serialization.h"

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

namespace zarn_capture {

namespace {

using ORN::FileSystemProc;
using ZARN::ImageProc;
using zarn_stereo::LENS_TABLE;

constexpr double VIDEO_FPS = 10;
// Rays per pixel side of a raw frame.
constexpr int FRAME_SAMPLES = 2;
// Extra pixels around each feature's rectangle.
constexpr int REGION_MARGIN = 2;
// Points sampled along each edge of a feature.
constexpr int EDGE_SAMPLES = 32;

std::string numbered(const char *prefix, int n) {
    char buffer[48];
    std::snprintf(buffer, sizeof(buffer), "%s_%03d", prefix, n);
    return buffer;
}

unsigned char display(double linear) {
    return static_cast<unsigned char>(
        std::lround(255 * std::pow(std::clamp(linear, 0.0, 1.0), 1 / ImageProc::capture_gamma())));
}

// The mean radiance over each pixel of a lens, from samples x samples rays.
std::vector<RGB> render_lens(const LENS_TABLE &lens, const SCENE &scene, int point, int frame, int samples) {
    std::vector<RGB> out(static_cast<std::size_t>(lens.mWidth) * static_cast<std::size_t>(lens.mHeight));
#pragma omp parallel for schedule(dynamic, 4)
    for (int y = 0; y < lens.mHeight; ++y)
        for (int x = 0; x < lens.mWidth; ++x) {
            RGB sum{};
            for (int j = 0; j < samples; ++j)
                for (int i = 0; i < samples; ++i) {
                    double d[3];
                    if (!ImageProc::lens_unproject(lens, x - 0.5 + (i + 0.5) / samples, y - 0.5 + (j + 0.5) / samples, d))
                        continue;
                    const RGB r = scene.mRadiance(point, frame, d);
                    for (std::size_t c = 0; c < 3; ++c)
                        sum[c] += r[c];
                }
            for (double &c : sum)
                c /= samples * samples;
            out[static_cast<std::size_t>(y) * static_cast<std::size_t>(lens.mWidth) + static_cast<std::size_t>(x)] = sum;
        }
    return out;
}

// The sensor's RGGB mosaic of the light, scaled by `scale`.
cv::Mat mosaic(const std::vector<RGB> &light, int width, int height, double scale) {
    cv::Mat out(height, width, CV_16UC1);
    for (int y = 0; y < height; ++y) {
        auto *row = out.ptr<unsigned short>(y);
        for (int x = 0; x < width; ++x) {
            const std::size_t c = y % 2 == 0 ? (x % 2 == 0 ? 0 : 1) : (x % 2 == 0 ? 1 : 2);
            const double v = light[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)][c] *
                             scale * CAST[c];
            row[x] = static_cast<unsigned short>(std::lround(std::clamp(v, 0.0, 1.0) * zarn_stereo::RAW_MAXVAL));
        }
    }
    return out;
}

// The developed 8-bit blue-green-red image of the light, scaled.
ORN::Image developed(const std::vector<RGB> &light, int width, int height, double scale) {
    ORN::Image image(width, height, 3, ORN::ImageDepth::U8);
    for (int y = 0; y < height; ++y) {
        auto *row = image.row<unsigned char>(y);
        for (int x = 0; x < width; ++x) {
            const RGB &r = light[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)];
            for (int c = 0; c < 3; ++c)
                row[3 * x + c] = display(r[static_cast<std::size_t>(2 - c)] * scale);
        }
    }
    return image;
}

ORN::Image truth_panorama(const SCENE &scene, int point, int width, int height, int samples) {
    std::vector<RGB> light(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
#pragma omp parallel for schedule(dynamic, 4)
    for (int v = 0; v < height; ++v)
        for (int u = 0; u < width; ++u) {
            RGB sum{};
            for (int j = 0; j < samples; ++j)
                for (int i = 0; i < samples; ++i) {
                    double d[3];
                    ImageProc::panorama_direction(u - 0.5 + (i + 0.5) / samples, v - 0.5 + (j + 0.5) / samples, width,
                                                  height, d);
                    const RGB r = scene.mRadiance(point, 0, d);
                    for (std::size_t c = 0; c < 3; ++c)
                        sum[c] += r[c];
                }
            for (double &c : sum)
                c /= samples * samples;
            light[static_cast<std::size_t>(v) * static_cast<std::size_t>(width) + static_cast<std::size_t>(u)] = sum;
        }
    return developed(light, width, height, 1.0);
}

void write_video(const std::string &path, const std::vector<ORN::Image> &frames) {
    cv::VideoWriter writer(path, cv::CAP_OPENCV_MJPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), VIDEO_FPS,
                           cv::Size(static_cast<int>(frames[0].width()), static_cast<int>(frames[0].height())), true);
    if (!writer.isOpened())
        throw std::runtime_error("cannot write " + path);
    for (const ORN::Image &f : frames)
        writer.write(ImageProc::mat(f));
}

} // namespace

zarn_stereo::RIG stereo_camera() {
    zarn_stereo::RIG rig;
    rig.mPositions = zarn_stereo::POSITIONS;
    rig.mDegrees = 120;
    // Both lenses image a little more than a hemisphere, cropped by a 16:10
    // sensor: each view sees a band across the sky (or the floor) and the
    // head's three positions fill in the rest. The lower lens is turned a
    // little off its nominal axis, and both differ a little in focal
    // length, centre and distortion.
    struct SHAPE {
        double mFx, mFy, mCx, mCy, mK[4], mR[9], mMaxAngle;
    };
    static constexpr SHAPE SHAPES[2] = {
        // Looking up: x east, y north, z up (0.3 degrees off).
        {166.0, 166.4, 320.6, 198.9, {0.011, -0.0014, 0.00018, 0},
         {0.999986814448, 0.000513588748994, 0.00510951638499, 0.00511003858509, -0.00102064999676, -0.999986422797,
          -0.000508366748014, 0.99999934725, -0.00102326099725},
         100},
        // Looking down: x east, y south, z down (0.6 degrees off).
        {168.2, 167.7, 318.8, 200.7, {0.009, -0.001, 0.00015, 0},
         {0.999950129419, -0.00211509411365, -0.00976038175683, 0.00976699516133, 0.00313932614531, 0.999947373834,
          -0.00208434178272, -0.999992835478, 0.00315982769926},
         99},
    };
    for (int i = 0; i < 2; ++i) {
        const SHAPE &s = SHAPES[i];
        LENS_TABLE &t = rig.mLens[static_cast<std::size_t>(i)];
        t = LENS_TABLE{};
        std::copy(std::begin(ZARN::StitchLibrary::LENS_TABLE_MAGIC), std::end(ZARN::StitchLibrary::LENS_TABLE_MAGIC),
                  t.mMagic);
        t.mVersion = ZARN::StitchLibrary::LENS_TABLE_VERSION;
        t.mWidth = 640;
        t.mHeight = 400;
        t.mFx = s.mFx;
        t.mFy = s.mFy;
        t.mCx = s.mCx;
        t.mCy = s.mCy;
        std::copy(std::begin(s.mK), std::end(s.mK), t.mK);
        std::copy(std::begin(s.mR), std::end(s.mR), t.mRotation);
        t.mMaxAngle = s.mMaxAngle;
    }
    return rig;
}

std::string stereo_distortion_table() {
    return zarn_stereo::distortion_table_text(
        stereo_camera(),
        "The distortion table of the stereo rotating camera that zarn_capture --stereo renders\n"
        "(its format is described at the top of backends/StereoRotCam.cpp).\n"
        "rig <positions> <degrees between positions>\n"
        "lens up|down <width> <height> <fx> <fy> <cx> <cy> <k1> <k2> <k3> <k4> <r00> .. <r22> <max angle>");
}

void make_stereo_job(const STEREO_JOB &o, const SCENE &scene) {
    const ORN::String<char> job = o.mJob;
    const auto at = [&](std::string_view relative) { return FileSystemProc::join_path(job, relative); };
    for (const char *dir : {"caches", "captures", "truth"})
        FileSystemProc::build_directory(at(dir));
    const zarn_stereo::RIG rig = stereo_camera();
    const auto views = zarn_stereo::view_lenses(rig);
    FileSystemProc::save_file(at("truth/distortion.txt"), std::string_view(stereo_distortion_table()));
    const double sensitivity[2] = {1.0, LOWER_SENSITIVITY};
    const int height = o.mWidth / 2;
    const int truth_samples = std::clamp((2048 + o.mWidth - 1) / o.mWidth, 1, 4);
    const auto frame_name = [](const std::string &name, int group, int view) {
        return "captures/" + name + "_g" + std::to_string(group) + "_v" + std::to_string(view) + ".pgm";
    };

    ORN::JsonWriter plan;
    plan.raw("{").key("stitch_main_param").raw("{").key("image_file").raw("[");
    for (int p = 0; p < o.mPoints; ++p) {
        const std::string name = numbered("stereo", p);
        for (int k = 0; k < zarn_stereo::VIEWS; ++k) {
            const LENS_TABLE &lens = views[static_cast<std::size_t>(k)];
            const std::vector<RGB> light = render_lens(lens, scene, p, 0, FRAME_SAMPLES);
            for (int g = 0; g < 3; ++g)
                FileSystemProc::save_file(
                    at(frame_name(name, g, k)),
                    std::string_view(zarn_stereo::encode_raw(
                        mosaic(light, lens.mWidth, lens.mHeight, EXPOSURES[g] * sensitivity[k % 2]))));
        }
        ORN::Image::write(at("truth/" + name + ".png"), truth_panorama(scene, p, o.mWidth, height, truth_samples));

        if (p)
            plan.comma();
        plan.raw("{").key("dst1").string("caches/images/" + name + ".jpg");
        plan.comma().key("name").string(name);
        plan.comma().key("raw1").string(frame_name(name, 2, 0));
        plan.comma().key("raw2").string(frame_name(name, 2, 1));
        for (int g = 0; g < 3; ++g)
            for (int k = 0; k < zarn_stereo::VIEWS; ++k)
                plan.comma()
                    .key("src" + std::to_string(g + 1) + "_" + std::to_string(k))
                    .string(frame_name(name, g, k));
        plan.comma().key("config").string("default");
        // Exposure fusion and radiance merging by turns.
        plan.comma().key("hdr").number(1 + p % 2);
        plan.comma().key("hdrCnt").number(3);
        plan.comma().key("gain").raw("[");
        for (int c = 0; c < 3; ++c) {
            if (c)
                plan.comma();
            plan.number(1 / CAST[c]);
        }
        plan.raw("]");
        plan.comma().key("resolution").number(1);
        plan.comma().key("is_main").number(1);
        plan.raw("}");
    }
    plan.raw("]").comma().key("video_file").raw("[");
    for (int v = 0; v < o.mVideos && o.mFrames > 0; ++v) {
        const std::string name = numbered("stereo_video", v);
        std::vector<ORN::Image> streams[4]; // up, down, up short, down short
        for (int f = 0; f < o.mFrames; ++f)
            for (int lens = 0; lens < 2; ++lens) {
                const LENS_TABLE &t = views[static_cast<std::size_t>(lens)];
                const std::vector<RGB> light = render_lens(t, scene, v, f, 1);
                streams[lens].push_back(developed(light, t.mWidth, t.mHeight, sensitivity[lens]));
                streams[2 + lens].push_back(developed(light, t.mWidth, t.mHeight, sensitivity[lens] * SHORT_EXPOSURE));
            }
        const std::string stem = "captures/" + name + "_";
        const std::string files[4] = {stem + "up.avi", stem + "down.avi", stem + "up_short.avi", stem + "down_short.avi"};
        for (int s = 0; s < 4; ++s)
            write_video(at(files[s]), streams[s]);
        if (v)
            plan.comma();
        plan.raw("{").key("dst4").string("caches/videos/" + name + ".avi");
        plan.comma().key("name").string(name);
        for (int s = 0; s < 4; ++s)
            plan.comma().key("src" + std::to_string(s + 1)).string(files[s]);
        plan.comma().key("con").string("default");
        plan.raw("}");
    }
    plan.raw("]}}");
    FileSystemProc::save_file(at("caches/stitch_data.json"), std::string_view(plan.text()));
}

std::vector<REGION> feature_regions(const SCENE &scene, int point, int width, int height) {
    std::vector<REGION> out;
    const POINT3 eye = scene.mEye(point);
    for (const auto &corners : scene.mFeatures) {
        std::vector<double> us, vs;
        for (int e = 0; e < 4; ++e) {
            const POINT3 &a = corners[static_cast<std::size_t>(e)], &b = corners[static_cast<std::size_t>((e + 1) % 4)];
            for (int s = 0; s < EDGE_SAMPLES; ++s) {
                const double t = double(s) / EDGE_SAMPLES;
                const double d[3] = {a[0] + t * (b[0] - a[0]) - eye[0], a[1] + t * (b[1] - a[1]) - eye[1],
                                     a[2] + t * (b[2] - a[2]) - eye[2]};
                double u = 0, v = 0;
                ImageProc::panorama_point(d, width, height, u, v);
                us.push_back(u);
                vs.push_back(v);
            }
        }
        // A feature across the left and right edges: its left part moves
        // one panorama width to the right.
        const auto [umin, umax] = std::minmax_element(us.begin(), us.end());
        if (*umax - *umin > width / 2.0)
            for (double &u : us)
                if (u < width / 2.0)
                    u += width;
        const auto [u0, u1] = std::minmax_element(us.begin(), us.end());
        const auto [v0, v1] = std::minmax_element(vs.begin(), vs.end());
        // Whole pixels (centres at whole numbers) that hold the feature.
        const int x0 = static_cast<int>(std::floor(*u0 + 0.5)) - REGION_MARGIN;
        const int x1 = static_cast<int>(std::floor(*u1 + 0.5)) + 1 + REGION_MARGIN;
        const int y0 = std::max(0, static_cast<int>(std::floor(*v0 + 0.5)) - REGION_MARGIN);
        const int y1 = std::min(height, static_cast<int>(std::floor(*v1 + 0.5)) + 1 + REGION_MARGIN);
        if (y1 <= y0)
            continue;
        if (x1 > width && x0 < width) {
            out.push_back({x0, y0, width - x0, y1 - y0});
            out.push_back({0, y0, std::min(x1 - width, width), y1 - y0});
        } else if (x1 > width) {
            out.push_back({x0 - width, y0, std::min(x1, 2 * width) - x0, y1 - y0});
        } else {
            const int left = std::max(0, x0);
            out.push_back({left, y0, x1 - left, y1 - y0});
        }
    }
    return out;
}

void write_regions(const std::string &job, const std::vector<std::string> &names, int width, const SCENE &scene) {
    const int height = width / 2;
    ORN::JsonWriter file;
    file.raw("{").key("images").raw("[");
    for (std::size_t p = 0; p < names.size(); ++p) {
        if (p)
            file.comma();
        file.raw("{").key("panoId").string(names[p]);
        file.comma().key("resolution").number(1);
        file.comma().key("rect").raw("[");
        const auto regions = feature_regions(scene, static_cast<int>(p), width, height);
        for (std::size_t r = 0; r < regions.size(); ++r) {
            if (r)
                file.comma();
            file.raw("{").key("x").number(regions[r].mX).comma().key("y").number(regions[r].mY);
            file.comma().key("w").number(regions[r].mW).comma().key("h").number(regions[r].mH).raw("}");
        }
        file.raw("]");
        file.comma().key("width").number(width).comma().key("height").number(height);
        // Blur, pixelation and filling by turns.
        file.comma().key("type").number(static_cast<int>(p % 3));
        file.comma().key("preview").boolean(true);
        file.raw("}");
    }
    file.raw("]}");
    const ORN::String<char> root = job;
    FileSystemProc::build_directory(FileSystemProc::join_path(root, "extras"));
    FileSystemProc::save_file(FileSystemProc::join_path(root, "extras/image-ROI.json"), std::string_view(file.text()));
}

} // namespace zarn_capture
