// zarn_capture: makes a capture job whose right answer is known.
//
//   zarn_capture JOBDIR [--width W] [--points N] [--videos N] [--frames N]
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
// The panorama width W (default 512) sets the lenses' resolution: the
// captures are about 0.6 W square. Everything is computed from fixed
// numbers, so a job made twice is the same byte for byte.

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
#include <numbers>
#include <string>
#include <vector>

namespace {

using ORN::FileSystemProc;
using ORN::INDEX;
using ZARN::ImageProc;
using LENS_TABLE = ImageProc::LENS_TABLE;
using RGB = std::array<double, 3>; // linear radiance, red green blue

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

std::uint32_t hash(std::int64_t x, std::int64_t y, std::uint32_t seed) {
    std::uint64_t h = static_cast<std::uint64_t>(x) * 0x9E3779B97F4A7C15ull ^ static_cast<std::uint64_t>(y) * 0xC2B2AE3D27D4EB4Full ^
                      (std::uint64_t(seed) << 32);
    h ^= h >> 31;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 29;
    h *= 0x94D049BB133111EBull;
    h ^= h >> 32;
    return static_cast<std::uint32_t>(h);
}

double random01(std::int64_t x, std::int64_t y, std::uint32_t seed) { return hash(x, y, seed) / 4294967296.0; }

// Smooth value noise in [0, 1).
double noise(double x, double y, std::uint32_t seed) {
    const double fx = std::floor(x), fy = std::floor(y);
    const auto ix = static_cast<std::int64_t>(fx), iy = static_cast<std::int64_t>(fy);
    double tx = x - fx, ty = y - fy;
    tx = tx * tx * (3 - 2 * tx);
    ty = ty * ty * (3 - 2 * ty);
    const double a = random01(ix, iy, seed), b = random01(ix + 1, iy, seed);
    const double c = random01(ix, iy + 1, seed), d = random01(ix + 1, iy + 1, seed);
    return (a + (b - a) * tx) + ((c + (d - c) * tx) - (a + (b - a) * tx)) * ty;
}

double smoothstep(double e0, double e1, double x) {
    const double t = std::clamp((x - e0) / (e1 - e0), 0.0, 1.0);
    return t * t * (3 - 2 * t);
}

RGB mix(const RGB &a, const RGB &b, double t) {
    return {a[0] + (b[0] - a[0]) * t, a[1] + (b[1] - a[1]) * t, a[2] + (b[2] - a[2]) * t};
}
RGB scaled(const RGB &a, double s) { return {a[0] * s, a[1] * s, a[2] * s}; }

// 1 inside the rectangle, 0 outside, with edges eased over `soft` metres.
double inside(double s, double h, double s0, double s1, double h0, double h1, double soft = 0.006) {
    return smoothstep(s0 - soft, s0 + soft, s) * (1 - smoothstep(s1 - soft, s1 + soft, s)) *
           smoothstep(h0 - soft, h0 + soft, h) * (1 - smoothstep(h1 - soft, h1 + soft, h));
}

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

RADIANCE render_lens(const LENS_TABLE &lens, const VIEW &view, int samples) {
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
                    const RGB r = look(view, d);
                    for (int c = 0; c < 3; ++c)
                        sum[static_cast<std::size_t>(c)] += r[static_cast<std::size_t>(c)];
                }
            out[static_cast<std::size_t>(y) * static_cast<std::size_t>(lens.mWidth) + static_cast<std::size_t>(x)] =
                scaled(sum, 1.0 / (samples * samples));
        }
    return out;
}

RADIANCE render_panorama(int width, int height, const VIEW &view, int samples) {
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
                    const RGB r = look(view, d);
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

    ORN::JsonWriter plan;
    plan.raw("{").key("stitch_main_param").raw("{").key("image_file").raw("[");
    for (int p = 0; p < o.mPoints; ++p) {
        const std::string name = numbered("point", p);
        const VIEW view = view_of(p);
        for (int lens = 0; lens < 2; ++lens) {
            const RADIANCE light = render_lens(lenses[static_cast<std::size_t>(lens)], view, samples);
            const std::string stem = "captures/" + name + "_" + tags[lens];
            write_jpeg(at(stem + ".jpg"), expose(light, side, side, sensitivity[lens]));
            for (int b = 0; b < 4; ++b)
                write_jpeg(at(stem + "_" + std::to_string(b) + ".jpg"),
                           expose(light, side, side, sensitivity[lens] * BRACKETS[b]));
        }
        const int height = o.mWidth / 2;
        ORN::Image::write(at("truth/" + name + ".png"),
                          expose(render_panorama(o.mWidth, height, view, samples), o.mWidth, height, 1.0));

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
            const VIEW view = view_of(v, f);
            for (int lens = 0; lens < 2; ++lens) {
                const RADIANCE light = render_lens(lenses[static_cast<std::size_t>(lens)], view, samples);
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
}

bool number_option(const char *text, int low, int high, int &out) {
    char *end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < low || v > high)
        return false;
    out = static_cast<int>(v);
    return true;
}

constexpr const char *USAGE =
    "usage: zarn_capture JOBDIR [--width W] [--points N] [--videos N] [--frames N]\n"
    "  --width W    panorama width of the ground truth, even, 64..8192 (512)\n"
    "  --points N   capture points, 0..999 (2)\n"
    "  --videos N   videos, 0..999 (1)\n"
    "  --frames N   frames per video, 1..1000 (4)\n";

} // namespace

int main(int argc, char **argv) {
    OPTIONS o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool has_value = i + 1 < argc;
        bool ok = true;
        if (a == "--help" || a == "-h") {
            std::fputs(USAGE, stdout);
            return 0;
        } else if (a == "--width")
            ok = has_value && number_option(argv[++i], 64, 8192, o.mWidth) && o.mWidth % 2 == 0;
        else if (a == "--points")
            ok = has_value && number_option(argv[++i], 0, 999, o.mPoints);
        else if (a == "--videos")
            ok = has_value && number_option(argv[++i], 0, 999, o.mVideos);
        else if (a == "--frames")
            ok = has_value && number_option(argv[++i], 1, 1000, o.mFrames);
        else if (!a.empty() && a[0] != '-' && o.mJob.empty())
            o.mJob = a;
        else
            ok = false;
        if (!ok) {
            std::fprintf(stderr, "zarn_capture: bad argument %s\n%s", a.c_str(), USAGE);
            return 2;
        }
    }
    if (o.mJob.empty()) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    try {
        make_job(o);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "zarn_capture: %s\n", e.what());
        return 1;
    }
    std::printf("%s: %d points, %d videos, panorama %dx%d\n", o.mJob.c_str(), o.mPoints, o.mVideos, o.mWidth,
                o.mWidth / 2);
    return 0;
}
