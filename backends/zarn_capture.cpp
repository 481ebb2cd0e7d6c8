// zarn_capture: makes a capture job whose right answer is known.
//
//   zarn_capture JOBDIR [--width W] [--points N] [--videos N] [--frames N] [--calibration]
//                       [--stereo] [--regions] [--dense N] [--parallax] [--baseline M] [--repairs]
//
// A procedural room (painted walls with a door, a window onto a garden, a
// picture and a bookcase; a plank floor with a rug; a ceiling with three
// round lights) is rendered through two fisheye lenses on one centre: the
// upper lens looks up, the lower one down, each sees a little more than a
// hemisphere, so their views overlap around the horizon. The lenses differ a
// little in focal length, centre and distortion, the lower one is turned a
// little off its nominal axis and is less sensitive (gain LOWER_SENSITIVITY).
// Written into JOBDIR (paths relative to it):
//
//   caches/table_Up.bin, caches/table_Down.bin   the two lens tables
//   captures/point_NNN_up.jpg, _down.jpg         the raw captures of point N
//   captures/point_NNN_up_K.jpg, _down_K.jpg     exposure brackets K = 0..3,
//                                                darkest first (BRACKETS)
//   truth/point_NNN.png                          the panorama the upper lens's
//                                                exposure would give, W x W/2
//   captures/video_NNN_up.avi, _down.avi         video streams (Motion-JPEG),
//   captures/video_NNN_up_short.avi, _down_short.avi  and the same at a
//                                                quarter of the exposure; the
//                                                room turns slowly
//   caches/stitch_data.json                      the stitch plan of them all
//
// With --calibration, also the captures of the calibration and what they
// should give:
//
//   caches/calibration/up_NN.png, down_NN.png    a chessboard (asset
//                                                calib_target.txt) at 20
//                                                moments, both lenses each
//                                                time: overhead, underfoot,
//                                                and around the horizon where
//                                                both lenses see it
//   captures/chart_NN.jpg                        the 24-patch colour chart
//                                                under a colour cast
//   captures/flat_NN.jpg                         a vignetted white field
//                                                through the upper lens
//   truth/calibration.json                       the lenses, the board's poses
//                                                and who sees them, the cast,
//                                                the vignetting
//
// With --stereo, the job is the stereo rotating camera's instead of the
// two-lens one: the same room through the camera of
// backends/asset/distortion.txt, as raw frames of three exposures, with its
// truth and its stereo stitch plan (capture_stereo.h lists the files). With
// --regions, also the region file "extras/image-ROI.json" of the job's
// panoramas: rectangles around the picture, the light switch and the door's
// upper panel, which stand for faces and number plates.
//
// With --parallax, the two-lens job's captures (stills, brackets and video
// frames) show real parallax: the lenses stand --baseline M metres apart
// (0.03 by default) on the rig's vertical axis, the upper one above the rig
// centre, and see the furnished interior of capture_parallax.h, with a
// pole and a floor lamp 0.7 and 0.95 m from the rig across the band both
// lenses see. The lens tables are the same; the truth is rendered from the
// rig centre, and
//
//   truth/rig.json      {"baseline":B,"lenses":[{"name":"up","position":[0,-B/2,0]},
//                       {"name":"down","position":[0,B/2,0]}]}: metres,
//                       panorama frame, relative to the rig centre
//
// With --repairs (implies --parallax), the rectangles of each panorama
// (W x W/2 pixels) around the near objects where they cross that band:
//
//   truth/repairs.json  {"width":W,"height":W/2,"regions":[{"name":"point_NNN",
//                       "object":"pole","rect":{"x":..,"y":..,"w":..,"h":..},
//                       "method":"auto"},...]}
//
// and the same regions, without "object", as the split data's member
// "ImageROIProcess" ({"regions":[...]}).
//
// With --dense N, also the reconstruction's input images "images/" (per
// capture point its two captures at the normal exposure, or the stereo
// camera's panorama) and the split data asks the reconstruction for N dense
// points: "dense_points": N in the member "VeldaMainProcess"."Common" (the
// member is made, with "velda_type" "indoor", when the file has none).
//
// The split data "caches/split_data.json" is always written, so that the
// job runs as generated: it switches on every process the job holds work
// for, with the member shown when the file has none for it (members already
// there are kept as they are):
//
//   StitchMainProcess {} (StereoRotStitchMainProcess {} with --stereo)
//   CalibMainProcess (--calibration): all three stages, the chart captures
//       as "analysis_raw", the first flat field as "shading_raw" (the
//       process hands the shading stage its "src1" only)
//   ImageFilterProcess {} (--regions, with at least one point)
//   ImageROIProcess {"regions":[...]} (--repairs)
//   VeldaMainProcess (--dense), VeldaMeshProcess {} (--dense N with N at
//       least 1000; below 8000 {"minimum_floor_points": N / 8}, as the
//       default 1000 would not be met)
//
// The panorama width W (default 512, or 1024 with --calibration: the boards
// at the horizon span less than 20 degrees and need that many pixels to be
// found) sets the lenses' resolution: the captures are about 0.6 W square.
// Everything is computed from fixed numbers, so a job made twice is the same
// byte for byte.

#include "capture_parallax.h"
#include "capture_stereo.h"
#include "capture_texture.h"

#include "ZARN_Common/ImageProc.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_images.h"
#include "__ORN__/orn_serialization.h"

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <numbers>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using ORN::FileSystemProc;
using ORN::INDEX;
using ZARN::ImageProc;
using LENS_TABLE = ImageProc::LENS_TABLE;
using RGB = std::array<double, 3>; // linear radiance, red green blue
using zarn_capture::hash;
using zarn_capture::inside;
using zarn_capture::mix;
using zarn_capture::noise;
using zarn_capture::random01;
using zarn_capture::scaled;
using zarn_capture::smoothstep;

constexpr double PI = std::numbers::pi;
constexpr double LOWER_SENSITIVITY = 0.82;
constexpr double BRACKETS[4] = {0.125, 0.35, 1.0, 2.8};
constexpr double SHORT_EXPOSURE = 0.25;
constexpr double VIDEO_FPS = 10;
constexpr double VIDEO_TURN_DEGREES = 1.5; // per frame
constexpr int JPEG_QUALITY = 95;

// ---------------------------------------------------------------------------
// Lenses.

double distorted(const LENS_TABLE &t, double theta) {
    const double t2 = theta * theta;
    return theta * (1 + t2 * (t.mK[0] + t2 * (t.mK[1] + t2 * (t.mK[2] + t2 * t.mK[3]))));
}

// Rotation by `degrees` about a unit axis (row-major).
std::array<double, 9> axis_rotation(double ax, double ay, double az, double degrees) {
    const double n = std::sqrt(ax * ax + ay * ay + az * az);
    ax /= n, ay /= n, az /= n;
    const double a = degrees * PI / 180, c = std::cos(a), s = std::sin(a), t = 1 - c;
    return {t * ax * ax + c,      t * ax * ay - s * az, t * ax * az + s * ay,
            t * ax * ay + s * az, t * ay * ay + c,      t * ay * az - s * ax,
            t * ax * az - s * ay, t * ay * az + s * ax, t * az * az + c};
}

std::array<double, 9> product(const std::array<double, 9> &a, const std::array<double, 9> &b) {
    std::array<double, 9> out{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k)
                out[3 * i + j] += a[3 * i + k] * b[3 * k + j];
    return out;
}

// The two lenses for a panorama `width` pixels wide: [0] upper, [1] lower.
std::array<LENS_TABLE, 2> make_lenses(int width) {
    const double scale = width / 512.0;
    struct SHAPE {
        double mFocal, mAspect, mDx, mDy, mMaxAngle;
        double mK[4];
        std::array<double, 9> mNominal; // lens x, y, z axes as columns
        std::array<double, 9> mError;
    };
    const SHAPE shapes[2] = {
        // Looking up: lens x east, y north, z up.
        {0.150 * width, 1.004, 1.7, -2.3, 101.0, {0.012, -0.0015, 0.0002, 0}, {1, 0, 0, 0, 0, -1, 0, 1, 0},
         axis_rotation(0.2, 0.1, 1.0, 0.25)},
        // Looking down: lens x east, y south, z down.
        {0.153 * width, 0.997, -1.1, 0.9, 99.5, {0.009, -0.0010, 0.00015, 0}, {1, 0, 0, 0, 0, 1, 0, -1, 0},
         axis_rotation(0.3, 0.2, 0.93, 0.7)},
    };
    // One capture size for both, large enough for the wider image circle.
    double radius = 0;
    for (const SHAPE &s : shapes) {
        LENS_TABLE t{};
        std::copy(std::begin(s.mK), std::end(s.mK), t.mK);
        const double r = distorted(t, s.mMaxAngle * PI / 180) * s.mFocal * std::max(1.0, s.mAspect);
        radius = std::max(radius, r + std::max(std::abs(s.mDx), std::abs(s.mDy)) * scale);
    }
    const int side = 8 * static_cast<int>(std::ceil((2 * radius + 8) / 8));
    std::array<LENS_TABLE, 2> lenses{};
    for (int i = 0; i < 2; ++i) {
        const SHAPE &s = shapes[i];
        LENS_TABLE &t = lenses[static_cast<std::size_t>(i)];
        std::memcpy(t.mMagic, ZARN::StitchLibrary::LENS_TABLE_MAGIC, sizeof(t.mMagic));
        t.mVersion = ZARN::StitchLibrary::LENS_TABLE_VERSION;
        t.mWidth = side;
        t.mHeight = side;
        t.mZero = 0;
        t.mFx = s.mFocal;
        t.mFy = s.mFocal * s.mAspect;
        t.mCx = (side - 1) / 2.0 + s.mDx * scale;
        t.mCy = (side - 1) / 2.0 + s.mDy * scale;
        std::copy(std::begin(s.mK), std::end(s.mK), t.mK);
        const std::array<double, 9> r = product(s.mError, s.mNominal);
        std::copy(r.begin(), r.end(), t.mRotation);
        t.mMaxAngle = s.mMaxAngle;
    }
    return lenses;
}

// ---------------------------------------------------------------------------
// The room. Frame of the panorama: x east, y down, z north; metres; the
// floor is y = 0.

constexpr double ROOM_WEST = -2.8, ROOM_EAST = 3.6, ROOM_SOUTH = -3.2, ROOM_NORTH = 3.0;
constexpr double ROOM_HEIGHT = 2.7;
constexpr double CAMERA_HEIGHT = 1.55;
constexpr double LIGHTS[3][2] = {{0.5, 0.4}, {2.2, -1.8}, {-1.6, 1.8}}; // x, z on the ceiling
constexpr double LIGHT_RADIUS = 0.17;
constexpr double LIGHT_POWER = 1.7;
constexpr double LIGHT_RADIANCE = 7.0;

// Light falling on a surface point with normal n from the ceiling lights,
// and from the room at large.
double irradiance(const double p[3], const double n[3]) {
    double e = 0.32;
    for (const auto &l : LIGHTS) {
        const double d[3] = {l[0] - p[0], -ROOM_HEIGHT - p[1], l[1] - p[2]};
        const double dist2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
        const double dist = std::sqrt(dist2);
        const double facing = std::max(0.0, (n[0] * d[0] + n[1] * d[1] + n[2] * d[2]) / dist);
        const double downward = std::max(0.0, -d[1] / dist); // the lights shine down
        e += LIGHT_POWER * facing * downward / (0.6 + dist2);
    }
    return e;
}

RGB floor_colour(double x, double z) {
    // Planks 0.2 m wide running north, of staggered lengths.
    const double across = (x - ROOM_WEST) / 0.2;
    const auto plank = static_cast<std::int64_t>(std::floor(across));
    const double shift = random01(plank, 0, 11) * 1.3;
    const double along = (z + shift) / 1.3;
    const auto piece = static_cast<std::int64_t>(std::floor(along));
    const double fa = across - std::floor(across), fl = along - std::floor(along);
    const double seam = smoothstep(0.0, 0.08, std::min(fa, 1 - fa)) * smoothstep(0.0, 0.012, std::min(fl, 1 - fl));
    const double tone = 0.8 + 0.4 * random01(plank, piece, 12);
    const double grain = 0.9 + 0.2 * noise(x * 30, z * 2.5, 13);
    RGB wood = scaled(RGB{0.42, 0.25, 0.13}, tone * grain);
    wood = scaled(wood, 0.55 + 0.45 * seam);
    // A rug with a border and a diamond pattern.
    const double rug = inside(x, z, -1.3, 1.1, -1.6, 0.9, 0.01);
    if (rug > 0) {
        const double border = 1 - inside(x, z, -1.15, 0.95, -1.45, 0.75, 0.01);
        const double u = (x + 0.1) / 0.35, v = (z + 0.35) / 0.35;
        const double diamond = std::abs(u - std::round(u)) + std::abs(v - std::round(v));
        RGB field = mix(RGB{0.45, 0.08, 0.07}, RGB{0.75, 0.62, 0.35}, smoothstep(0.42, 0.5, diamond));
        field = mix(field, RGB{0.08, 0.12, 0.35}, border);
        wood = mix(wood, field, rug);
    }
    return wood;
}

RGB ceiling_colour(double x, double z, bool &emits) {
    emits = false;
    for (const auto &l : LIGHTS) {
        const double r = std::hypot(x - l[0], z - l[1]);
        if (r < LIGHT_RADIUS + 0.05) {
            const double lamp = 1 - smoothstep(LIGHT_RADIUS - 0.01, LIGHT_RADIUS + 0.01, r);
            emits = true;
            const RGB rim = {0.35, 0.35, 0.36};
            return mix(rim, RGB{LIGHT_RADIANCE, LIGHT_RADIANCE * 0.95, LIGHT_RADIANCE * 0.85}, lamp);
        }
    }
    return scaled(RGB{0.86, 0.86, 0.83}, 0.95 + 0.05 * noise(x * 3, z * 3, 21));
}

// Paint of a wall with its furniture; s runs along the wall, h is the height
// above the floor. `bright` says the colour is light, not paint.
RGB wall_colour(int wall, double s, double h, bool &bright) {
    bright = false;
    constexpr RGB paints[4] = {{0.62, 0.54, 0.43}, {0.42, 0.52, 0.60}, {0.52, 0.58, 0.46}, {0.70, 0.65, 0.58}};
    RGB c = scaled(paints[wall], 0.96 + 0.08 * noise(s * 4, h * 4, 31 + wall));
    // Baseboard.
    c = mix(c, RGB{0.80, 0.80, 0.77}, 1 - smoothstep(0.095, 0.105, h));
    switch (wall) {
    case 0: { // north: a door
        const double frame = inside(s, h, -1.96, -0.94, -1, 2.11);
        const double leaf = inside(s, h, -1.9, -1.0, -1, 2.05);
        c = mix(c, RGB{0.82, 0.81, 0.78}, frame);
        RGB wood = scaled(RGB{0.48, 0.30, 0.16}, 0.92 + 0.16 * noise(s * 25, h * 2, 41));
        const double panels = inside(s, h, -1.8, -1.1, 1.1, 1.9, 0.012) + inside(s, h, -1.8, -1.1, 0.15, 0.95, 0.012);
        const double groove = panels * (1 - (inside(s, h, -1.77, -1.13, 1.13, 1.87, 0.012) +
                                             inside(s, h, -1.77, -1.13, 0.18, 0.92, 0.012)));
        wood = scaled(wood, 1 - 0.35 * groove);
        c = mix(c, wood, leaf);
        const double knob = 1 - smoothstep(0.025, 0.035, std::hypot(s + 1.1, h - 1.0));
        c = mix(c, RGB{0.95, 0.82, 0.45}, knob);
        break;
    }
    case 1: { // east: a window onto a garden
        const double frame = inside(s, h, -1.16, 1.16, 0.84, 2.26);
        const double glass = inside(s, h, -1.1, 1.1, 0.9, 2.2) *
                             (1 - inside(s, h, -0.025, 0.025, 0.9, 2.2)) * (1 - inside(s, h, -1.1, 1.1, 1.52, 1.58));
        c = mix(c, RGB{0.85, 0.85, 0.83}, frame);
        if (glass > 0) {
            const double t = (h - 0.9) / 1.3;
            RGB view = mix(RGB{2.2, 2.4, 2.6}, RGB{0.9, 1.4, 2.4}, t);
            const double hill = 1.25 + 0.12 * std::sin(s * 3.1) + 0.05 * std::sin(s * 9.7 + 1);
            view = mix(view, scaled(RGB{0.16, 0.34, 0.11}, 1.3 + 0.4 * noise(s * 8, h * 8, 51)),
                       1 - smoothstep(hill - 0.01, hill + 0.01, h));
            c = mix(c, view, glass);
            bright = glass > 0.5;
        }
        break;
    }
    case 2: { // south: a picture and a switch
        const double frame = inside(s, h, -0.55, 0.95, 1.15, 1.95);
        const double canvas = inside(s, h, -0.5, 0.9, 1.2, 1.9);
        c = mix(c, RGB{0.18, 0.11, 0.06}, frame);
        const double r = std::hypot(s - 0.35, h - 1.6);
        RGB art = mix(RGB{0.85, 0.70, 0.20}, RGB{0.15, 0.30, 0.55}, 0.5 + 0.5 * std::sin(r * 22));
        art = mix(art, RGB{0.75, 0.18, 0.12}, smoothstep(0.55, 0.6, 0.5 + 0.5 * std::sin((s + h) * 9)));
        c = mix(c, art, canvas);
        c = mix(c, RGB{0.88, 0.88, 0.86}, inside(s, h, 1.6, 1.68, 1.05, 1.17));
        break;
    }
    default: { // west: a bookcase
        const double body = inside(s, h, -2.05, -0.35, 0, 1.95);
        if (body > 0) {
            RGB shelf = RGB{0.30, 0.19, 0.10};
            const double level = h / 0.48;
            const auto row = static_cast<std::int64_t>(std::floor(level));
            const double fl = level - std::floor(level);
            // Books of one row: widths 5 to 9 cm, heights 60 to 90 % of the shelf.
            double x = -2.0;
            std::int64_t n = 0;
            RGB book = RGB{0.12, 0.08, 0.05};
            while (x < -0.4) {
                const double w = 0.05 + 0.04 * random01(row, n, 61);
                if (s >= x && s < x + w) {
                    const double top = 0.6 + 0.3 * random01(row, n, 62);
                    const double hue = random01(row, n, 63);
                    const RGB cover = hue < 0.33 ? RGB{0.55, 0.12, 0.10} : hue < 0.66 ? RGB{0.12, 0.30, 0.45} : RGB{0.20, 0.40, 0.18};
                    const double edge = smoothstep(0.0, 0.006, std::min(s - x, x + w - s));
                    book = mix(book, scaled(cover, 0.7 + 0.5 * random01(row, n, 64)),
                               edge * (1 - smoothstep(top - 0.02, top, fl)) * smoothstep(0.04, 0.06, fl));
                    break;
                }
                x += w;
                ++n;
            }
            shelf = mix(shelf, book, inside(s, fl, -2.0, -0.4, 0.04, 1.1, 0.004));
            c = mix(c, shelf, body);
        }
        break;
    }
    }
    return c;
}

// Radiance seen from `eye` along the unit direction d.
RGB radiance(const double eye[3], const double d[3]) {
    double t = 1e30;
    int face = -1; // 0 north, 1 east, 2 south, 3 west, 4 floor, 5 ceiling
    const auto try_plane = [&](double distance, int f) {
        if (distance > 0 && distance < t) {
            t = distance;
            face = f;
        }
    };
    if (d[2] > 0)
        try_plane((ROOM_NORTH - eye[2]) / d[2], 0);
    if (d[0] > 0)
        try_plane((ROOM_EAST - eye[0]) / d[0], 1);
    if (d[2] < 0)
        try_plane((ROOM_SOUTH - eye[2]) / d[2], 2);
    if (d[0] < 0)
        try_plane((ROOM_WEST - eye[0]) / d[0], 3);
    if (d[1] > 0)
        try_plane((0 - eye[1]) / d[1], 4);
    if (d[1] < 0)
        try_plane((-ROOM_HEIGHT - eye[1]) / d[1], 5);
    const double p[3] = {eye[0] + t * d[0], eye[1] + t * d[1], eye[2] + t * d[2]};
    const double h = -p[1];
    bool light = false;
    RGB albedo{};
    double n[3] = {0, 0, 0};
    switch (face) {
    case 0:
        albedo = wall_colour(0, p[0], h, light);
        n[2] = -1;
        break;
    case 1:
        albedo = wall_colour(1, p[2], h, light);
        n[0] = -1;
        break;
    case 2:
        albedo = wall_colour(2, p[0], h, light);
        n[2] = 1;
        break;
    case 3:
        albedo = wall_colour(3, p[2], h, light);
        n[0] = 1;
        break;
    case 4:
        albedo = floor_colour(p[0], p[2]);
        n[1] = -1;
        break;
    default:
        albedo = ceiling_colour(p[0], p[2], light);
        n[1] = 1;
        break;
    }
    if (light)
        return albedo;
    // Corners get a little less light.
    const double corner = std::min({p[0] - ROOM_WEST, ROOM_EAST - p[0], p[2] - ROOM_SOUTH, ROOM_NORTH - p[2], h,
                                    ROOM_HEIGHT - h});
    const double occlusion = 0.75 + 0.25 * smoothstep(0.0, 0.35, corner);
    return scaled(albedo, irradiance(p, n) * occlusion);
}

// The eye of capture point `point`, and the room's turn (degrees about the
// vertical) at frame `frame` of a video.
struct VIEW {
    double mEye[3];
    double mTurn;
};

VIEW view_of(int point, int frame = 0) {
    static constexpr double OFFSETS[4][2] = {{0, 0}, {0.9, -0.6}, {-0.8, 0.7}, {1.4, 1.1}};
    const auto &o = OFFSETS[point % 4];
    const double drift = 0.15 * (point / 4);
    return {{o[0] + drift, -CAMERA_HEIGHT, o[1] - drift}, VIDEO_TURN_DEGREES * frame};
}

RGB look(const VIEW &view, const double d[3]) {
    if (view.mTurn == 0)
        return radiance(view.mEye, d);
    const double a = view.mTurn * PI / 180, c = std::cos(a), s = std::sin(a);
    const double turned[3] = {c * d[0] + s * d[2], d[1], -s * d[0] + c * d[2]};
    return radiance(view.mEye, turned);
}

// ---------------------------------------------------------------------------
// Rendering: the mean radiance over each pixel, from samples x samples points.

using RADIANCE = std::vector<RGB>;

// `look` gives the radiance along a unit direction (panorama frame).
template <class LOOK> RADIANCE render_lens(const LENS_TABLE &lens, const LOOK &look, int samples) {
    RADIANCE out(static_cast<std::size_t>(lens.mWidth) * static_cast<std::size_t>(lens.mHeight));
#pragma omp parallel for schedule(dynamic, 4)
    for (int y = 0; y < lens.mHeight; ++y)
        for (int x = 0; x < lens.mWidth; ++x) {
            RGB sum{};
            for (int j = 0; j < samples; ++j)
                for (int i = 0; i < samples; ++i) {
                    double d[3];
                    if (!ImageProc::lens_unproject(lens, x - 0.5 + (i + 0.5) / samples, y - 0.5 + (j + 0.5) / samples, d))
                        continue;
                    const RGB r = look(d);
                    for (int c = 0; c < 3; ++c)
                        sum[static_cast<std::size_t>(c)] += r[static_cast<std::size_t>(c)];
                }
            out[static_cast<std::size_t>(y) * static_cast<std::size_t>(lens.mWidth) + static_cast<std::size_t>(x)] =
                scaled(sum, 1.0 / (samples * samples));
        }
    return out;
}

template <class LOOK> RADIANCE render_panorama(int width, int height, const LOOK &look, int samples) {
    RADIANCE out(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
#pragma omp parallel for schedule(dynamic, 4)
    for (int v = 0; v < height; ++v)
        for (int u = 0; u < width; ++u) {
            RGB sum{};
            for (int j = 0; j < samples; ++j)
                for (int i = 0; i < samples; ++i) {
                    double d[3];
                    ImageProc::panorama_direction(u - 0.5 + (i + 0.5) / samples, v - 0.5 + (j + 0.5) / samples, width,
                                                  height, d);
                    const RGB r = look(d);
                    for (int c = 0; c < 3; ++c)
                        sum[static_cast<std::size_t>(c)] += r[static_cast<std::size_t>(c)];
                }
            out[static_cast<std::size_t>(v) * static_cast<std::size_t>(width) + static_cast<std::size_t>(u)] =
                scaled(sum, 1.0 / (samples * samples));
        }
    return out;
}

// The 8-bit blue-green-red image a camera makes of the radiance.
ORN::Image expose(const RADIANCE &light, int width, int height, double exposure) {
    unsigned char curve[4097];
    for (int i = 0; i <= 4096; ++i)
        curve[i] = static_cast<unsigned char>(std::lround(255 * std::pow(i / 4096.0, 1 / ImageProc::capture_gamma())));
    ORN::Image image(width, height, 3, ORN::ImageDepth::U8);
    for (int y = 0; y < height; ++y) {
        unsigned char *row = image.row<unsigned char>(y);
        for (int x = 0; x < width; ++x) {
            const RGB &r = light[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)];
            for (int c = 0; c < 3; ++c) {
                const double v = std::clamp(r[static_cast<std::size_t>(2 - c)] * exposure, 0.0, 1.0);
                row[3 * x + c] = curve[std::lround(v * 4096)];
            }
        }
    }
    return image;
}

// ---------------------------------------------------------------------------
// The job.

struct OPTIONS {
    std::string mJob;
    int mWidth = 512;
    int mPoints = 2;
    int mVideos = 1;
    int mFrames = 4;
    bool mCalibration = false;
    bool mStereo = false;
    bool mRegions = false;
    int mDense = -1; // dense points asked of the reconstruction; -1: not given
    bool mParallax = false;
    double mBaseline = zarn_capture::DEFAULT_BASELINE;
    bool mRepairs = false;
};

std::string numbered(const char *prefix, int n) {
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "%s_%03d", prefix, n);
    return buffer;
}

void write_jpeg(const ORN::String<char> &path, const ORN::Image &image) { ORN::Image::write(path, image, JPEG_QUALITY); }

void write_video(const std::string &path, const std::vector<ORN::Image> &frames) {
    cv::VideoWriter writer(path, cv::CAP_OPENCV_MJPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), VIDEO_FPS,
                           cv::Size(static_cast<int>(frames[0].width()), static_cast<int>(frames[0].height())), true);
    if (!writer.isOpened())
        throw std::runtime_error("cannot write " + path);
    for (const ORN::Image &f : frames)
        writer.write(ImageProc::mat(f));
}

void numbers(ORN::JsonWriter &json, const double *values, int count) {
    json.raw("[");
    for (int i = 0; i < count; ++i) {
        if (i)
            json.comma();
        json.number(values[i]);
    }
    json.raw("]");
}

void make_job(const OPTIONS &o) {
    const ORN::String<char> job = o.mJob;
    const auto at = [&](std::string_view relative) { return FileSystemProc::join_path(job, relative); };
    for (const char *dir : {"caches", "captures", "truth"})
        FileSystemProc::build_directory(at(dir));
    const std::array<LENS_TABLE, 2> lenses = make_lenses(o.mWidth);
    ImageProc::write_lens_table(at("caches/table_Up.bin"), lenses[0]);
    ImageProc::write_lens_table(at("caches/table_Down.bin"), lenses[1]);
    // Enough samples per pixel that nothing in the room aliases.
    const int samples = std::clamp((2048 + o.mWidth - 1) / o.mWidth, 1, 4);
    const int side = lenses[0].mWidth;
    const char *tags[2] = {"up", "down"};
    const double sensitivity[2] = {1.0, LOWER_SENSITIVITY};
    // The radiance eye `eye` (a lens, or the rig centre for the truth) of
    // capture point `point` sees at video frame `frame`: the room from one
    // centre, or with --parallax the interior from the eye's own centre.
    std::unique_ptr<zarn_capture::ParallaxRoom> parallax;
    if (o.mParallax)
        parallax = std::make_unique<zarn_capture::ParallaxRoom>(o.mBaseline);
    const auto render = [&](int point, int frame, zarn_capture::EYE eye) {
        const int height = o.mWidth / 2;
        if (parallax) {
            const zarn_capture::ParallaxRoom::View look = parallax->view(point, eye, VIDEO_TURN_DEGREES * frame);
            return eye == zarn_capture::RIG_CENTRE ? render_panorama(o.mWidth, height, look, samples)
                                                   : render_lens(lenses[static_cast<std::size_t>(eye)], look, samples);
        }
        const VIEW view = view_of(point, frame);
        const auto look_from = [&view](const double d[3]) { return look(view, d); };
        return eye == zarn_capture::RIG_CENTRE ? render_panorama(o.mWidth, height, look_from, samples)
                                               : render_lens(lenses[static_cast<std::size_t>(eye)], look_from, samples);
    };

    ORN::JsonWriter plan;
    plan.raw("{").key("stitch_main_param").raw("{").key("image_file").raw("[");
    for (int p = 0; p < o.mPoints; ++p) {
        const std::string name = numbered("point", p);
        for (int lens = 0; lens < 2; ++lens) {
            const RADIANCE light = render(p, 0, zarn_capture::EYE(lens));
            const std::string stem = "captures/" + name + "_" + tags[lens];
            write_jpeg(at(stem + ".jpg"), expose(light, side, side, sensitivity[lens]));
            for (int b = 0; b < 4; ++b)
                write_jpeg(at(stem + "_" + std::to_string(b) + ".jpg"),
                           expose(light, side, side, sensitivity[lens] * BRACKETS[b]));
        }
        const int height = o.mWidth / 2;
        ORN::Image::write(at("truth/" + name + ".png"), expose(render(p, 0, zarn_capture::RIG_CENTRE), o.mWidth, height, 1.0));

        if (p)
            plan.comma();
        plan.raw("{").key("dst1").string("caches/images/" + name + ".jpg");
        plan.comma().key("name").string(name);
        plan.comma().key("raw1").string("captures/" + name + "_up.jpg");
        plan.comma().key("raw2").string("captures/" + name + "_down.jpg");
        for (int lens = 0; lens < 2; ++lens)
            for (int b = 0; b < 4; ++b)
                plan.comma()
                    .key("src" + std::to_string(lens + 1) + "_" + std::to_string(b))
                    .string("captures/" + name + "_" + tags[lens] + "_" + std::to_string(b) + ".jpg");
        plan.comma().key("config").string("default");
        plan.comma().key("hdr").number(p == 0 ? 0 : 4);
        plan.comma().key("resolution").number(1);
        plan.comma().key("is_main").number(1);
        plan.raw("}");
    }
    plan.raw("]").comma().key("video_file").raw("[");
    for (int v = 0; v < o.mVideos; ++v) {
        const std::string name = numbered("video", v);
        std::vector<ORN::Image> streams[4]; // up, down, up short, down short
        for (int f = 0; f < o.mFrames; ++f) {
            for (int lens = 0; lens < 2; ++lens) {
                const RADIANCE light = render(v, f, zarn_capture::EYE(lens));
                streams[lens].push_back(expose(light, side, side, sensitivity[lens]));
                streams[2 + lens].push_back(expose(light, side, side, sensitivity[lens] * SHORT_EXPOSURE));
            }
        }
        const std::string stem = "captures/" + name + "_";
        const std::string files[4] = {stem + "up.avi", stem + "down.avi", stem + "up_short.avi", stem + "down_short.avi"};
        for (int s = 0; s < 4; ++s)
            if (o.mFrames > 0)
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
    if (!parallax)
        return;
    // Where the lenses stand, relative to the rig centre.
    ORN::JsonWriter rig;
    rig.raw("{").key("baseline").number(o.mBaseline).comma().key("lenses").raw("[");
    for (int lens = 0; lens < 2; ++lens) {
        const zarn_capture::POINT3 at_lens = parallax->eye_offset(zarn_capture::EYE(lens));
        rig.raw(lens ? ",{" : "{").key("name").string(tags[lens]).comma().key("position");
        numbers(rig, at_lens.data(), 3);
        rig.raw("}");
    }
    rig.raw("]}");
    FileSystemProc::save_file(at("truth/rig.json"), std::string_view(rig.text()));
}

// The regions around the near objects of the parallax scene where they
// cross the band both lenses see (--repairs): written to
// "truth/repairs.json" with the object each frames, and returned as the
// member "ImageROIProcess" of the split data.
std::string make_repairs(const OPTIONS &o) {
    const std::array<LENS_TABLE, 2> lenses = make_lenses(o.mWidth);
    const zarn_capture::ParallaxRoom room(o.mBaseline);
    ORN::JsonWriter member, truth;
    member.raw("{").key("regions").raw("[");
    truth.raw("{").key("width").number(o.mWidth).comma().key("height").number(o.mWidth / 2);
    truth.comma().key("regions").raw("[");
    bool first = true;
    for (int p = 0; p < o.mPoints; ++p)
        for (const auto &[object, r] : room.repairs(p, lenses, o.mWidth)) {
            const auto region = [&](ORN::JsonWriter &out, bool named) {
                out.raw(first ? "{" : ",{").key("name").string(numbered("point", p));
                if (named)
                    out.comma().key("object").string(object);
                out.comma().key("rect").raw("{").key("x").number(r.mX).comma().key("y").number(r.mY);
                out.comma().key("w").number(r.mW).comma().key("h").number(r.mH).raw("}");
                out.comma().key("method").string("auto").raw("}");
            };
            region(member, false);
            region(truth, true);
            first = false;
        }
    member.raw("]}");
    truth.raw("]}");
    FileSystemProc::save_file(FileSystemProc::join_path(o.mJob, "truth/repairs.json"), std::string_view(truth.text()));
    return member.text();
}

// ---------------------------------------------------------------------------
// Calibration captures (--calibration): chessboard views through the two
// lenses, a colour chart under a colour cast, a vignetted flat field, and
// the truth of all three in truth/calibration.json.

// The chessboard of backends/asset/calib_target.txt: 9 x 4 inner corners,
// 40 mm squares, on white paper one square wider on every side. Square
// (i, j) of the pattern (0 .. 9, 0 .. 4) is black when i + j is even, so
// the outer square beside the first inner corner is black.
constexpr int BOARD_COLUMNS = 9, BOARD_ROWS = 4;
constexpr double BOARD_SQUARE = 0.040; // metres
constexpr double BOARD_MARGIN = 1.0;   // squares of white paper around the pattern
constexpr double BOARD_WHITE = 0.80, BOARD_BLACK = 0.035, BOARD_WALL = 0.22; // radiance

// The wall behind the boards, by capture pixel.
double board_wall(double x, double y) { return BOARD_WALL * (0.95 + 0.1 * noise(x / 40, y / 40, 71)); }

struct BOARD_POSE {
    double mCentre[3]; // panorama frame, metres
    double mU[3];      // along the pattern's columns (first inner corner to the next)
    double mV[3];      // along its rows; U x V points away from the viewer
};

using VEC3 = std::array<double, 3>;

VEC3 cross(const VEC3 &a, const VEC3 &b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
double dot(const VEC3 &a, const VEC3 &b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
VEC3 normalised(const VEC3 &a) {
    const double n = std::sqrt(dot(a, a));
    return {a[0] / n, a[1] / n, a[2] / n};
}
VEC3 turned(const std::array<double, 9> &r, const VEC3 &a) {
    return {r[0] * a[0] + r[1] * a[1] + r[2] * a[2], r[3] * a[0] + r[4] * a[1] + r[5] * a[2],
            r[6] * a[0] + r[7] * a[1] + r[8] * a[2]};
}

// A board `distance` metres away at longitude / latitude (degrees, panorama
// frame), facing the lenses, then tilted about its own axes: `pitch` about
// U, `yaw` about V, `roll` about the line of sight.
BOARD_POSE board_pose(double longitude, double latitude, double distance, double pitch, double yaw, double roll) {
    const double lon = longitude * PI / 180, lat = latitude * PI / 180;
    const VEC3 c = {std::cos(lat) * std::sin(lon), -std::sin(lat), std::cos(lat) * std::cos(lon)};
    // "Down" as the viewer sees the board: the room's down, or south / north
    // for boards overhead / underfoot.
    VEC3 down = {0, 1, 0};
    if (std::abs(c[1]) > 0.9)
        down = c[1] < 0 ? VEC3{0, 0, -1} : VEC3{0, 0, 1};
    const double along = dot(down, c);
    const VEC3 v0 = normalised({down[0] - along * c[0], down[1] - along * c[1], down[2] - along * c[2]});
    const VEC3 u0 = cross(v0, c);
    const auto r = product(axis_rotation(c[0], c[1], c[2], roll),
                           product(axis_rotation(v0[0], v0[1], v0[2], yaw), axis_rotation(u0[0], u0[1], u0[2], pitch)));
    const VEC3 u = turned(r, u0), v = turned(r, v0);
    return {{distance * c[0], distance * c[1], distance * c[2]}, {u[0], u[1], u[2]}, {v[0], v[1], v[2]}};
}

// The moments of the calibration: boards overhead for the upper lens,
// underfoot for the lower one, and around the horizon, where both lenses
// see them at once.
std::vector<BOARD_POSE> board_poses() {
    struct PLACE {
        double mLon, mLat, mDistance, mPitch, mYaw, mRoll;
    };
    static constexpr PLACE places[] = {
        {0, 90, 0.50, 10, -15, 0},     {30, 62, 0.50, 25, 0, 10},    {120, 55, 0.50, -20, 25, -10},
        {210, 48, 0.55, 15, -30, 20},  {300, 40, 0.55, -25, 10, 0},  {75, 28, 0.60, 10, 35, -20},
        {165, 22, 0.60, 0, -25, 15},   {255, 70, 0.50, 30, 20, 5},   {40, -90, 0.50, -10, 15, 30},
        {70, -62, 0.50, -25, 0, -10},  {160, -55, 0.50, 20, -25, 10}, {250, -48, 0.55, -15, 30, -20},
        {340, -40, 0.55, 25, -10, 0},  {115, -28, 0.60, -10, -35, 20}, {205, -22, 0.60, 0, 25, -15},
        {295, -70, 0.50, -30, -20, -5}, {15, -0.8, 1.05, 0, 20, 0},   {105, -0.8, 1.05, 0, -20, 0},
        {195, -0.8, 1.05, 0, 10, 0},   {285, -0.8, 1.05, 0, -10, 0},
    };
    std::vector<BOARD_POSE> out;
    for (const PLACE &p : places)
        out.push_back(board_pose(p.mLon, p.mLat, p.mDistance, p.mPitch, p.mYaw, p.mRoll));
    return out;
}

// What the lens sees along the panorama direction d: -1 when the ray misses
// the board, else 0 (paper) or 1 (black square).
int board_hit(const BOARD_POSE &b, const double d[3]) {
    const VEC3 u = {b.mU[0], b.mU[1], b.mU[2]}, v = {b.mV[0], b.mV[1], b.mV[2]};
    const VEC3 n = cross(u, v);
    const VEC3 c = {b.mCentre[0], b.mCentre[1], b.mCentre[2]};
    const VEC3 dir = {d[0], d[1], d[2]};
    const double facing = dot(n, dir);
    if (facing <= 1e-9)
        return -1;
    const double t = dot(n, c) / facing;
    const VEC3 p = {t * dir[0] - c[0], t * dir[1] - c[1], t * dir[2] - c[2]};
    const double sx = dot(p, u) / BOARD_SQUARE + (BOARD_COLUMNS + 1) / 2.0;
    const double sy = dot(p, v) / BOARD_SQUARE + (BOARD_ROWS + 1) / 2.0;
    if (sx < -BOARD_MARGIN || sx > BOARD_COLUMNS + 1 + BOARD_MARGIN || sy < -BOARD_MARGIN ||
        sy > BOARD_ROWS + 1 + BOARD_MARGIN)
        return -1;
    if (sx < 0 || sx >= BOARD_COLUMNS + 1 || sy < 0 || sy >= BOARD_ROWS + 1)
        return 0;
    const auto i = static_cast<int>(std::floor(sx)), j = static_cast<int>(std::floor(sy));
    return (i + j) % 2 == 0 ? 1 : 0;
}

// The unit direction of point k of `count` around the board's paper edge.
void board_outline(const BOARD_POSE &b, int k, int count, double d[3]) {
    const double half_x = (BOARD_COLUMNS + 1) / 2.0 + BOARD_MARGIN, half_y = (BOARD_ROWS + 1) / 2.0 + BOARD_MARGIN;
    const int per_side = count / 4;
    const int side = k / per_side;
    const double t = -1 + 2.0 * (k % per_side) / per_side;
    const double sx = side == 0 ? t : side == 1 ? 1 : side == 2 ? -t : -1;
    const double sy = side == 0 ? -1 : side == 1 ? t : side == 2 ? 1 : -t;
    for (int i = 0; i < 3; ++i)
        d[i] = b.mCentre[i] + BOARD_SQUARE * (sx * half_x * b.mU[i] + sy * half_y * b.mV[i]);
    const double n = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    for (int i = 0; i < 3; ++i)
        d[i] /= n;
}

// Whether the lens sees the whole board, paper margin included, at least
// half a degree inside its view.
bool lens_sees_board(const LENS_TABLE &lens, const BOARD_POSE &b) {
    for (int k = 0; k < 160; ++k) {
        double d[3];
        board_outline(b, k, 160, d);
        if (ImageProc::lens_margin(lens, d) < 0.5 * PI / 180)
            return false;
    }
    return true;
}

// The dim wall behind the boards as a lens sees it: radiance per pixel,
// pixels on the image circle's edge covered in part, black beyond.
std::vector<double> render_wall(const LENS_TABLE &lens) {
    const int w = lens.mWidth, h = lens.mHeight;
    std::vector<double> out(static_cast<std::size_t>(w) * static_cast<std::size_t>(h));
    const double edge = distorted(lens, lens.mMaxAngle * PI / 180);
    const double slack = 2.0 / std::min(lens.mFx, lens.mFy);
    const auto inside = [&](double x, double y) {
        const double a = (x - lens.mCx) / lens.mFx, b = (y - lens.mCy) / lens.mFy;
        return std::sqrt(a * a + b * b) <= edge;
    };
#pragma omp parallel for schedule(dynamic, 8)
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const double a = (x - lens.mCx) / lens.mFx, b = (y - lens.mCy) / lens.mFy;
            const double rho = std::sqrt(a * a + b * b);
            double covered = rho <= edge - slack ? 1 : 0;
            if (rho > edge - slack && rho <= edge + slack) {
                constexpr int n = 8;
                for (int j = 0; j < n; ++j)
                    for (int i = 0; i < n; ++i)
                        covered += inside(x - 0.5 + (i + 0.5) / n, y - 0.5 + (j + 0.5) / n);
                covered /= n * n;
            }
            out[static_cast<std::size_t>(y) * static_cast<std::size_t>(w) + static_cast<std::size_t>(x)] =
                covered * board_wall(x, y);
        }
    return out;
}

// The grey 8-bit view of the board through the lens, in front of the wall.
// Where the board shows, a pixel whose corners all see one thing takes the
// radiance at its centre, the others (edges of squares and of the board)
// the mean of 8 x 8 samples.
ORN::Image render_board(const LENS_TABLE &lens, const std::vector<double> &wall, const BOARD_POSE &board) {
    const int w = lens.mWidth, h = lens.mHeight;
    std::vector<double> light = wall;
    // Where the board may show: the box around its projected outline (the
    // whole capture when part of it is beyond the lens's view).
    int x0 = w, y0 = h, x1 = -1, y1 = -1;
    bool beyond = false;
    for (int k = 0; k < 160; ++k) {
        double d[3], x, y;
        board_outline(board, k, 160, d);
        if (!ImageProc::lens_project(lens, d, x, y)) {
            beyond = true;
            continue;
        }
        x0 = std::min(x0, static_cast<int>(std::floor(x)) - 2);
        y0 = std::min(y0, static_cast<int>(std::floor(y)) - 2);
        x1 = std::max(x1, static_cast<int>(std::ceil(x)) + 2);
        y1 = std::max(y1, static_cast<int>(std::ceil(y)) + 2);
    }
    if (beyond && x1 >= 0)
        x0 = 0, y0 = 0, x1 = w - 1, y1 = h - 1;
    x0 = std::max(x0, 0), y0 = std::max(y0, 0), x1 = std::min(x1, w - 1), y1 = std::min(y1, h - 1);
    const int bw = std::max(0, x1 - x0 + 2), bh = std::max(0, y1 - y0 + 2);
    // What each pixel corner of the box sees: -2 outside the image circle,
    // else board_hit.
    std::vector<signed char> corner(static_cast<std::size_t>(bw) * static_cast<std::size_t>(bh));
#pragma omp parallel for schedule(dynamic, 8)
    for (int j = 0; j < bh; ++j)
        for (int i = 0; i < bw; ++i) {
            double d[3];
            corner[static_cast<std::size_t>(j) * static_cast<std::size_t>(bw) + static_cast<std::size_t>(i)] =
                static_cast<signed char>(ImageProc::lens_unproject(lens, x0 + i - 0.5, y0 + j - 0.5, d) ? board_hit(board, d)
                                                                                                        : -2);
        }
    const auto radiance_at = [&](double x, double y, int hit) {
        return hit < 0 ? board_wall(x, y) : hit == 1 ? BOARD_BLACK : BOARD_WHITE;
    };
#pragma omp parallel for schedule(dynamic, 8)
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x) {
            const auto at = [&](int cx, int cy) {
                return corner[static_cast<std::size_t>(cy - y0) * static_cast<std::size_t>(bw) + static_cast<std::size_t>(cx - x0)];
            };
            const int label = at(x, y);
            if (label == -1 && at(x + 1, y) == -1 && at(x, y + 1) == -1 && at(x + 1, y + 1) == -1)
                continue; // the wall alone
            double value = 0;
            if (label == at(x + 1, y) && label == at(x, y + 1) && label == at(x + 1, y + 1)) {
                double d[3];
                if (label != -2 && ImageProc::lens_unproject(lens, x, y, d))
                    value = radiance_at(x, y, board_hit(board, d));
            } else {
                constexpr int n = 8;
                for (int j = 0; j < n; ++j)
                    for (int i = 0; i < n; ++i) {
                        const double sx = x - 0.5 + (i + 0.5) / n, sy = y - 0.5 + (j + 0.5) / n;
                        double d[3];
                        if (ImageProc::lens_unproject(lens, sx, sy, d))
                            value += radiance_at(sx, sy, board_hit(board, d));
                    }
                value /= n * n;
            }
            light[static_cast<std::size_t>(y) * static_cast<std::size_t>(w) + static_cast<std::size_t>(x)] = value;
        }
    unsigned char curve[4097];
    for (int i = 0; i <= 4096; ++i)
        curve[i] = static_cast<unsigned char>(std::lround(255 * std::pow(i / 4096.0, 1 / ImageProc::capture_gamma())));
    ORN::Image image(w, h, 1, ORN::ImageDepth::U8);
    for (int y = 0; y < h; ++y) {
        unsigned char *row = image.row<unsigned char>(y);
        const double *in = light.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(w);
        for (int x = 0; x < w; ++x)
            row[x] = curve[static_cast<int>(std::clamp(in[x], 0.0, 1.0) * 4096 + 0.5)];
    }
    return image;
}

// The 24 patches of the classic colour chart, 8-bit sRGB, in reading order
// (dark skin .. black); the chart layout is the one the calibration
// library's analysis expects (backends/Calib.cpp).
constexpr unsigned char CHART_SRGB[24][3] = {
    {115, 82, 68},   {194, 150, 130}, {98, 122, 157},  {87, 108, 67},   {133, 128, 177}, {103, 189, 170},
    {214, 126, 44},  {80, 91, 166},   {193, 90, 99},   {94, 60, 108},   {157, 188, 64},  {224, 163, 46},
    {56, 61, 150},   {70, 148, 73},   {175, 54, 60},   {231, 199, 31},  {187, 86, 149},  {8, 133, 161},
    {243, 243, 242}, {200, 200, 200}, {160, 160, 160}, {122, 122, 121}, {85, 85, 85},    {52, 52, 52},
};
constexpr unsigned char CHART_FRAME_SRGB = 28, CHART_BACKGROUND_SRGB = 185;
constexpr double CHART_PATCH = 1.0, CHART_GAP = 0.25, CHART_BORDER = 0.5; // in patch sides
// The colour cast of the chart captures: camera RGB = exposure x CAST x
// scene RGB, both linear.
constexpr double CHART_CAST[9] = {1.10, 0.08, -0.02, 0.05, 0.95, 0.03, -0.03, 0.10, 0.72};
constexpr double CHART_EXPOSURE = 0.80;
constexpr int CHART_CAPTURES = 2, FLAT_CAPTURES = 2;
constexpr int CHART_WIDTH = 800, CHART_HEIGHT = 600;

double srgb_to_linear(double v) {
    v /= 255;
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

// Linear scene RGB of a point of the chart (chart units: patch sides, the
// chart's top left corner at 0, 0).
RGB chart_colour(double x, double y) {
    const double width = 2 * CHART_BORDER + 6 * CHART_PATCH + 5 * CHART_GAP;
    const double height = 2 * CHART_BORDER + 4 * CHART_PATCH + 3 * CHART_GAP;
    if (x < 0 || y < 0 || x >= width || y >= height) {
        const double g = srgb_to_linear(CHART_BACKGROUND_SRGB);
        return {g, g, g};
    }
    const double px = (x - CHART_BORDER) / (CHART_PATCH + CHART_GAP), py = (y - CHART_BORDER) / (CHART_PATCH + CHART_GAP);
    const auto col = static_cast<int>(std::floor(px)), row = static_cast<int>(std::floor(py));
    if (col >= 0 && col < 6 && row >= 0 && row < 4 && px - col < CHART_PATCH / (CHART_PATCH + CHART_GAP) &&
        py - row < CHART_PATCH / (CHART_PATCH + CHART_GAP)) {
        const unsigned char *s = CHART_SRGB[row * 6 + col];
        return {srgb_to_linear(s[0]), srgb_to_linear(s[1]), srgb_to_linear(s[2])};
    }
    const double g = srgb_to_linear(CHART_FRAME_SRGB);
    return {g, g, g};
}

// Capture `index` of the chart: turned a little, placed a little apart, with
// a little noise, under the colour cast.
ORN::Image render_chart(int index) {
    const double angle = (index % 2 ? -2.5 : 3.0) * PI / 180, c = std::cos(angle), s = std::sin(angle);
    const double scale = 66.0 + 3 * index; // pixels per patch side
    const double ox = CHART_WIDTH / 2.0 + 9 * index - 4, oy = CHART_HEIGHT / 2.0 - 7 * index + 3;
    const double mid_x = (2 * CHART_BORDER + 6 * CHART_PATCH + 5 * CHART_GAP) / 2;
    const double mid_y = (2 * CHART_BORDER + 4 * CHART_PATCH + 3 * CHART_GAP) / 2;
    RADIANCE light(static_cast<std::size_t>(CHART_WIDTH) * CHART_HEIGHT);
    constexpr int n = 4;
#pragma omp parallel for schedule(dynamic, 8)
    for (int y = 0; y < CHART_HEIGHT; ++y)
        for (int x = 0; x < CHART_WIDTH; ++x) {
            RGB sum{};
            for (int j = 0; j < n; ++j)
                for (int i = 0; i < n; ++i) {
                    const double dx = x - 0.5 + (i + 0.5) / n - ox, dy = y - 0.5 + (j + 0.5) / n - oy;
                    const RGB scene = chart_colour((c * dx + s * dy) / scale + mid_x, (-s * dx + c * dy) / scale + mid_y);
                    for (int k = 0; k < 3; ++k)
                        sum[static_cast<std::size_t>(k)] += scene[static_cast<std::size_t>(k)];
                }
            RGB camera{};
            const double grain = 1 + 0.012 * (random01(x, y, 80 + static_cast<std::uint32_t>(index)) - 0.5);
            for (int r = 0; r < 3; ++r)
                for (int k = 0; k < 3; ++k)
                    camera[static_cast<std::size_t>(r)] +=
                        CHART_EXPOSURE * grain * CHART_CAST[3 * r + k] * sum[static_cast<std::size_t>(k)] / (n * n);
            light[static_cast<std::size_t>(y) * CHART_WIDTH + static_cast<std::size_t>(x)] = camera;
        }
    return expose(light, CHART_WIDTH, CHART_HEIGHT, 1.0);
}

// The vignetting of the flat field, on linear light: 1 + a1 q^2 + a2 q^4,
// q the distance from the upper lens's principal point over half the
// capture's width.
constexpr double FLAT_LEVEL = 0.82;
constexpr double FLAT_VIGNETTING[2] = {-0.30, -0.12};

// Flat capture `index`: a white field through the upper lens, vignetted,
// black outside the image circle, with a little noise.
ORN::Image render_flat(const LENS_TABLE &lens, int index) {
    const int w = lens.mWidth, h = lens.mHeight;
    const double half = w / 2.0;
    RADIANCE light(static_cast<std::size_t>(w) * static_cast<std::size_t>(h));
    const double edge = distorted(lens, lens.mMaxAngle * PI / 180);
    const double slack = 2.0 / std::min(lens.mFx, lens.mFy);
#pragma omp parallel for schedule(dynamic, 8)
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const double rho = std::hypot((x - lens.mCx) / lens.mFx, (y - lens.mCy) / lens.mFy);
            double covered = 1;
            if (rho > edge + slack)
                covered = 0;
            else if (rho > edge - slack) {
                constexpr int n = 8;
                int inside = 0;
                for (int j = 0; j < n; ++j)
                    for (int i = 0; i < n; ++i) {
                        const double sx = x - 0.5 + (i + 0.5) / n, sy = y - 0.5 + (j + 0.5) / n;
                        inside += std::hypot((sx - lens.mCx) / lens.mFx, (sy - lens.mCy) / lens.mFy) <= edge;
                    }
                covered = inside / double(n * n);
            }
            const double q2 = ((x - lens.mCx) * (x - lens.mCx) + (y - lens.mCy) * (y - lens.mCy)) / (half * half);
            const double vignetting = 1 + q2 * (FLAT_VIGNETTING[0] + q2 * FLAT_VIGNETTING[1]);
            const double grain = 1 + 0.01 * (random01(x, y, 90 + static_cast<std::uint32_t>(index)) - 0.5);
            const double v = FLAT_LEVEL * vignetting * grain * covered;
            light[static_cast<std::size_t>(y) * static_cast<std::size_t>(w) + static_cast<std::size_t>(x)] = {v, v, v};
        }
    return expose(light, w, h, 1.0);
}

void make_calibration(const OPTIONS &o) {
    const ORN::String<char> job = o.mJob;
    const auto at = [&](std::string_view relative) { return FileSystemProc::join_path(job, relative); };
    FileSystemProc::build_directory(at("caches/calibration"));
    const std::array<LENS_TABLE, 2> lenses = make_lenses(o.mWidth);
    const std::vector<BOARD_POSE> poses = board_poses();
    const char *tags[2] = {"up", "down"};

    ORN::JsonWriter truth;
    truth.raw("{").key("board").raw("{").key("type").string("chessboard");
    truth.comma().key("columns").number(BOARD_COLUMNS).comma().key("rows").number(BOARD_ROWS);
    truth.comma().key("square_mm").number(BOARD_SQUARE * 1000).comma().key("margin_squares").number(BOARD_MARGIN);
    truth.raw("}").comma().key("lenses").raw("[");
    for (int l = 0; l < 2; ++l) {
        const LENS_TABLE &t = lenses[static_cast<std::size_t>(l)];
        if (l)
            truth.comma();
        truth.raw("{").key("name").string(tags[l]);
        truth.comma().key("width").number(t.mWidth).comma().key("height").number(t.mHeight);
        truth.comma().key("fx").number(t.mFx).comma().key("fy").number(t.mFy);
        truth.comma().key("cx").number(t.mCx).comma().key("cy").number(t.mCy);
        truth.comma().key("k");
        numbers(truth, t.mK, 4);
        truth.comma().key("R");
        numbers(truth, t.mRotation, 9);
        truth.comma().key("max_angle").number(t.mMaxAngle).raw("}");
    }
    // X_down = R X_up + T between the lens frames; the lenses share a centre.
    std::array<double, 9> relative{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k)
                relative[static_cast<std::size_t>(3 * i + j)] += lenses[1].mRotation[3 * k + i] * lenses[0].mRotation[3 * k + j];
    const double zero[3] = {0, 0, 0};
    truth.raw("]").comma().key("relative").raw("{").key("R");
    numbers(truth, relative.data(), 9);
    truth.comma().key("T_mm");
    numbers(truth, zero, 3);
    truth.raw("}").comma().key("views").raw("[");

    const std::vector<double> walls[2] = {render_wall(lenses[0]), render_wall(lenses[1])};
    for (std::size_t v = 0; v < poses.size(); ++v) {
        char name[16];
        std::snprintf(name, sizeof(name), "%02d", static_cast<int>(v));
        if (v)
            truth.comma();
        truth.raw("{").key("name").string(name);
        for (int l = 0; l < 2; ++l) {
            const LENS_TABLE &t = lenses[static_cast<std::size_t>(l)];
            ORN::Image::write(at(std::string("caches/calibration/") + tags[l] + "_" + name + ".png"),
                              render_board(t, walls[l], poses[v]));
            truth.comma().key(tags[l]).boolean(lens_sees_board(t, poses[v]));
        }
        truth.comma().key("centre");
        numbers(truth, poses[v].mCentre, 3);
        truth.comma().key("u");
        numbers(truth, poses[v].mU, 3);
        truth.comma().key("v");
        numbers(truth, poses[v].mV, 3);
        truth.raw("}");
    }

    truth.raw("]").comma().key("chart").raw("{").key("captures").raw("[");
    for (int i = 0; i < CHART_CAPTURES; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "captures/chart_%02d.jpg", i);
        write_jpeg(at(name), render_chart(i));
        if (i)
            truth.comma();
        truth.string(name);
    }
    truth.raw("]").comma().key("cast");
    numbers(truth, CHART_CAST, 9);
    truth.comma().key("exposure").number(CHART_EXPOSURE).raw("}");

    truth.comma().key("flat").raw("{").key("captures").raw("[");
    for (int i = 0; i < FLAT_CAPTURES; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "captures/flat_%02d.jpg", i);
        write_jpeg(at(name), render_flat(lenses[0], i));
        if (i)
            truth.comma();
        truth.string(name);
    }
    const double centre[2] = {lenses[0].mCx, lenses[0].mCy};
    truth.raw("]").comma().key("level").number(FLAT_LEVEL).comma().key("centre");
    numbers(truth, centre, 2);
    truth.comma().key("radius").number(lenses[0].mWidth / 2.0).comma().key("coefficients");
    numbers(truth, FLAT_VIGNETTING, 2);
    truth.comma().key("gamma").number(ImageProc::capture_gamma()).raw("}}");
    FileSystemProc::save_file(at("truth/calibration.json"), std::string_view(truth.text()));
}

// ---------------------------------------------------------------------------
// The stereo camera's job (--stereo) and the region file (--regions).

// The room as capture_stereo.h renders it, with the features the region
// file hides: the picture and the light switch on the south wall, the
// door's upper panel on the north wall (wall_colour ()).
zarn_capture::SCENE room_scene() {
    zarn_capture::SCENE scene;
    scene.mRadiance = [](int point, int frame, const double d[3]) { return look(view_of(point, frame), d); };
    scene.mEye = [](int point) {
        const VIEW v = view_of(point);
        return zarn_capture::POINT3{v.mEye[0], v.mEye[1], v.mEye[2]};
    };
    // A rectangle on the wall at z, from s0 to s1 along x and h0 to h1 above
    // the floor.
    const auto on_wall = [](double z, double s0, double s1, double h0, double h1) {
        return std::array<zarn_capture::POINT3, 4>{
            zarn_capture::POINT3{s0, -h0, z}, zarn_capture::POINT3{s1, -h0, z}, zarn_capture::POINT3{s1, -h1, z},
            zarn_capture::POINT3{s0, -h1, z}};
    };
    scene.mFeatures = {on_wall(ROOM_SOUTH, -0.55, 0.95, 1.15, 1.95), on_wall(ROOM_SOUTH, 1.6, 1.68, 1.05, 1.17),
                       on_wall(ROOM_NORTH, -1.8, -1.1, 1.1, 1.9)};
    return scene;
}

void make_stereo(const OPTIONS &o) {
    zarn_capture::STEREO_JOB job;
    job.mJob = o.mJob;
    job.mWidth = o.mWidth;
    job.mPoints = o.mPoints;
    job.mVideos = o.mVideos;
    job.mFrames = o.mFrames;
    zarn_capture::make_stereo_job(job, room_scene());
}

// One record per panorama of the job: the two-lens job's or the stereo one's.
void make_regions(const OPTIONS &o) {
    std::vector<std::string> names;
    for (int p = 0; p < o.mPoints; ++p)
        names.push_back(numbered(o.mStereo ? "stereo" : "point", p));
    zarn_capture::write_regions(o.mJob, names, o.mWidth, room_scene());
}

// ---------------------------------------------------------------------------
// The split data (--dense).

// The JSON text of a parsed value, with members and elements in their order.
void copy_json(ORN::JsonWriter &out, const ORN::JsonParser &value) {
    if (value.object_type() || value.array_type()) {
        const bool object = value.object_type();
        out.raw(object ? "{" : "[");
        bool first = true;
        for (const ORN::JsonParser &child : value.children()) {
            if (!first)
                out.comma();
            first = false;
            if (object)
                out.key(child.name());
            copy_json(out, child);
        }
        out.raw(object ? "}" : "]");
    } else if (value.null_type()) {
        out.null();
    } else if (value.quoted()) {
        out.string(value.view());
    } else {
        out.raw(value.view());
    }
}

// The reconstruction's member with "dense_points" set in its "Common".
void velda_member(ORN::JsonWriter &out, const ORN::JsonParser &velda, int dense) {
    if (!velda.object_type()) {
        out.raw("{").key("Common").raw("{").key("velda_type").string("indoor");
        out.comma().key("dense_points").number(dense).raw("}}");
        return;
    }
    out.raw("{");
    bool first = true, common = false;
    for (const ORN::JsonParser &member : velda.children()) {
        if (!first)
            out.comma();
        first = false;
        out.key(member.name());
        if (member.name() != "Common" || !member.object_type()) {
            copy_json(out, member);
            continue;
        }
        common = true;
        out.raw("{");
        bool inner_first = true;
        for (const ORN::JsonParser &setting : member.children()) {
            if (setting.name() == "dense_points")
                continue;
            if (!inner_first)
                out.comma();
            inner_first = false;
            out.key(setting.name());
            copy_json(out, setting);
        }
        if (!inner_first)
            out.comma();
        out.key("dense_points").number(dense).raw("}");
    }
    if (!common) {
        if (!first)
            out.comma();
        out.key("Common").raw("{").key("dense_points").number(dense).raw("}");
    }
    out.raw("}");
}

// Dense clouds smaller than SMALL_CLOUD get their own least floor size; the
// mesh process is switched on from MESH_CLOUD points.
constexpr int SMALL_CLOUD = 8000, MESH_CLOUD = 1000;

// The member of each process the job holds work for, as the generator
// writes it when the split data has none: name and JSON text.
std::vector<std::pair<std::string, std::string>> job_members(const OPTIONS &o, const std::string &repairs) {
    std::vector<std::pair<std::string, std::string>> members;
    if (o.mCalibration) {
        std::string calib = R"({"enable_calib_main_calib":true,"enable_calib_main_analysis":true,)"
                            R"("enable_calib_main_shading":true)";
        for (const auto &[key, stem, count] :
             {std::tuple{"analysis_raw", "chart", CHART_CAPTURES}, std::tuple{"shading_raw", "flat", 1}}) {
            calib += std::string(",\"") + key + "\":{";
            for (int i = 0; i < count; ++i) {
                char source[64];
                std::snprintf(source, sizeof(source), "%s\"src%d\":\"captures/%s_%02d.jpg\"", i ? "," : "", i + 1, stem, i);
                calib += source;
            }
            calib += "}";
        }
        members.emplace_back("CalibMainProcess", calib + "}");
    }
    members.emplace_back(o.mStereo ? "StereoRotStitchMainProcess" : "StitchMainProcess", "{}");
    if (o.mRepairs)
        members.emplace_back("ImageROIProcess", repairs);
    if (o.mRegions && o.mPoints > 0)
        members.emplace_back("ImageFilterProcess", "{}");
    // A small cloud puts fewer points on a floor than the mesh process asks
    // for by default (1000): it is told to take an eighth of them. Below
    // MESH_CLOUD points there is no surface to mesh.
    if (o.mDense >= MESH_CLOUD)
        members.emplace_back("VeldaMeshProcess", o.mDense >= SMALL_CLOUD
                                                     ? std::string("{}")
                                                     : "{\"minimum_floor_points\":" + std::to_string(o.mDense / 8) + "}");
    return members;
}

// The split data: the members of an existing file are kept as they are
// ("dense_points" set with --dense), and every process the job holds work
// for gets its member when it has none.
void write_split_data(const OPTIONS &o, const std::string &repairs) {
    const ORN::String<char> caches = FileSystemProc::join_path(o.mJob, "caches");
    const ORN::String<char> path = FileSystemProc::join_path(caches, "split_data.json");
    ORN::JsonParser old;
    if (FileSystemProc::find_file(path)) {
        old = ORN::JsonParser(FileSystemProc::load_file(path));
        if (old.exist() && !old.object_type())
            throw std::runtime_error(path + " is not a JSON object");
    }
    ORN::JsonWriter out;
    out.raw("{");
    bool first = true, velda = false;
    const auto member = [&](std::string_view name) {
        if (!first)
            out.comma();
        first = false;
        out.key(name);
    };
    for (const ORN::JsonParser &m : old.children()) {
        member(m.name());
        if (m.name() == "VeldaMainProcess" && o.mDense >= 0) {
            velda_member(out, m, o.mDense);
            velda = true;
        } else {
            copy_json(out, m);
        }
    }
    if (o.mDense >= 0 && !velda) {
        member("VeldaMainProcess");
        velda_member(out, ORN::JsonParser(), o.mDense);
    }
    for (const auto &[name, text] : job_members(o, repairs))
        if (!old.child(name).exist()) {
            member(name);
            out.raw(text);
        }
    out.raw("}\n");
    FileSystemProc::build_directory(caches);
    FileSystemProc::save_file(path, std::string_view(out.text()));
}

// The reconstruction's input images (--dense): per capture point, the two
// lenses' captures at the normal exposure ("images/point_NNN_up.jpg",
// "_down.jpg"), or for the stereo camera its panorama
// ("images/stereo_NNN_pano.png"); the reconstruction places the images of
// one point (the text before the last '_') together.
void write_images(const OPTIONS &o) {
    const auto at = [&](std::string_view relative) { return FileSystemProc::join_path(o.mJob, relative); };
    FileSystemProc::build_directory(at("images"));
    for (int p = 0; p < o.mPoints; ++p) {
        const std::string name = numbered(o.mStereo ? "stereo" : "point", p);
        if (o.mStereo) {
            FileSystemProc::save_file(at("images/" + name + "_pano.png"), FileSystemProc::load_file(at("truth/" + name + ".png")));
            continue;
        }
        for (const char *lens : {"_up.jpg", "_down.jpg"})
            FileSystemProc::save_file(at("images/" + name + lens), FileSystemProc::load_file(at("captures/" + name + lens)));
    }
}

bool number_option(const char *text, int low, int high, int &out) {
    char *end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < low || v > high)
        return false;
    out = static_cast<int>(v);
    return true;
}

// A distance in metres, 0..high.
bool metres_option(const char *text, double high, double &out) {
    char *end = nullptr;
    const double v = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(v >= 0 && v <= high))
        return false;
    out = v;
    return true;
}

constexpr const char *USAGE =
    "usage: zarn_capture JOBDIR [--width W] [--points N] [--videos N] [--frames N] [--calibration]\n"
    "                    [--stereo] [--regions] [--dense N] [--parallax] [--baseline M] [--repairs]\n"
    "  --width W    panorama width of the ground truth, even, 64..8192 (512; 1024 with\n"
    "               --calibration, whose boards at the horizon need that much)\n"
    "  --points N   capture points, 0..999 (2)\n"
    "  --videos N   videos, 0..999 (1)\n"
    "  --frames N   frames per video, 1..1000 (4)\n"
    "  --calibration  also the calibration captures and their truth\n"
    "  --stereo     the stereo rotating camera's job instead of the two-lens one\n"
    "  --regions    also the region file extras/image-ROI.json of the panoramas\n"
    "  --dense N    also the reconstruction's images/ and N dense points asked of it,\n"
    "               0..100000000: \"dense_points\" in the split data's VeldaMainProcess.Common\n"
    "               (and \"VeldaMeshProcess\" from 1000 points on); needs a capture point\n"
    "  --parallax   the lenses M metres apart on the rig's vertical axis, seeing the\n"
    "               furnished interior with near objects; the truth from the rig centre\n"
    "               and the lens positions in truth/rig.json (not with --stereo, --regions)\n"
    "  --baseline M the distance between the lenses, 0..0.5 metres (0.03); implies --parallax\n"
    "  --repairs    also regions around the near objects where they cross the lenses'\n"
    "               overlap: \"ImageROIProcess\" in the split data and truth/repairs.json;\n"
    "               implies --parallax, needs a capture point\n"
    "The split data caches/split_data.json switches on every process the job holds\n"
    "work for; members already there are kept.\n";

} // namespace

int main(int argc, char **argv) {
    OPTIONS o;
    bool width_given = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool has_value = i + 1 < argc;
        bool ok = true;
        if (a == "--help" || a == "-h") {
            std::fputs(USAGE, stdout);
            return 0;
        } else if (a == "--width")
            ok = width_given = has_value && number_option(argv[++i], 64, 8192, o.mWidth) && o.mWidth % 2 == 0;
        else if (a == "--points")
            ok = has_value && number_option(argv[++i], 0, 999, o.mPoints);
        else if (a == "--videos")
            ok = has_value && number_option(argv[++i], 0, 999, o.mVideos);
        else if (a == "--frames")
            ok = has_value && number_option(argv[++i], 1, 1000, o.mFrames);
        else if (a == "--calibration")
            o.mCalibration = true;
        else if (a == "--stereo")
            o.mStereo = true;
        else if (a == "--regions")
            o.mRegions = true;
        else if (a == "--dense")
            ok = has_value && number_option(argv[++i], 0, 100000000, o.mDense);
        else if (a == "--parallax")
            o.mParallax = true;
        else if (a == "--baseline")
            ok = o.mParallax = has_value && metres_option(argv[++i], zarn_capture::MAX_BASELINE, o.mBaseline);
        else if (a == "--repairs")
            o.mParallax = o.mRepairs = true;
        else if (!a.empty() && a[0] != '-' && o.mJob.empty())
            o.mJob = a;
        else
            ok = false;
        if (!ok) {
            std::fprintf(stderr, "zarn_capture: bad argument %s\n%s", a.c_str(), USAGE);
            return 2;
        }
    }
    if (o.mCalibration && !width_given)
        o.mWidth = 1024;
    if (o.mDense >= 0 && o.mPoints == 0) {
        std::fprintf(stderr, "zarn_capture: --dense needs a capture point to reconstruct\n%s", USAGE);
        return 2;
    }
    if (o.mParallax && (o.mStereo || o.mRegions)) {
        std::fprintf(stderr, "zarn_capture: --parallax does not go with --stereo or --regions\n%s", USAGE);
        return 2;
    }
    if (o.mRepairs && o.mPoints == 0) {
        std::fprintf(stderr, "zarn_capture: --repairs needs a capture point to repair\n%s", USAGE);
        return 2;
    }
    if (o.mJob.empty()) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    try {
        if (o.mStereo)
            make_stereo(o);
        else
            make_job(o);
        if (o.mCalibration)
            make_calibration(o);
        if (o.mRegions)
            make_regions(o);
        if (o.mDense >= 0)
            write_images(o);
        write_split_data(o, o.mRepairs ? make_repairs(o) : std::string());
    } catch (const std::exception &e) {
        std::fprintf(stderr, "zarn_capture: %s\n", e.what());
        return 1;
    }
    std::printf("%s: %d points, %d videos, panorama %dx%d\n", o.mJob.c_str(), o.mPoints, o.mVideos, o.mWidth,
                o.mWidth / 2);
    return 0;
}
