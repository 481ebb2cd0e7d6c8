#include "capture_parallax.h"

#include "capture_texture.h"
#include "interior_scene.h"

#include "ZARN_Common/ImageProc.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace zarn_capture {

namespace {

using zarn_interior::Part;
using zarn_interior::Surface;
using LENS_TABLE = ZARN::StitchLibrary::LENS_TABLE;

constexpr double PI = std::numbers::pi;
constexpr double FOOTPRINT_MIN[2] = {0, 0}, FOOTPRINT_MAX[2] = {8, 6}; // the building, exactly
constexpr double LIGHT_RADIUS = 0.17;
constexpr double LIGHT_POWER = 1.7;
constexpr double LIGHT_RADIANCE = 7.0;
constexpr double AMBIENT = 0.32;
constexpr double POLE_DISTANCE = 0.7, POLE_HALF = 0.05;
constexpr double LAMP_DISTANCE = 0.95, SHADE_HALF = 0.17, STEM_HALF = 0.015;
constexpr double SHADE_BOTTOM = 1.45, SHADE_TOP = 1.80; // above the floor

// Where the rigs stand (interior frame: x east, y north) and which way
// (degrees from north towards east) their pole and lamp stand: on open
// floor of the living room and the bedroom, clear of the furniture, away
// from south, where the panorama's left and right edges meet.
struct PLACE {
    double mX, mY, mPole, mLamp;
};
constexpr PLACE PLACES[4] = {{2.5, 1.6, 30, -60}, {2.2, 4.6, 120, -120}, {5.6, 4.0, 60, -45}, {1.2, 1.5, 90, 0}};
constexpr double DRIFT = 0.05; // per round of the four places, along x and y, for four rounds

double linear(std::uint8_t c) { return std::pow(c / 255.0, 2.2); }

// Interior frame (x east, y north, z up) from the panorama's (x east, y
// down, z north), and back.
POINT3 to_interior(const double p[3]) { return {p[0], p[2], -p[1]}; }
POINT3 to_panorama(const POINT3 &p) { return {p[0], -p[2], p[1]}; }

// Where the ray o + t d enters the box (t > 0), and across which axis;
// negative when it misses (or starts inside).
double box_entry(const double o[3], const double d[3], const double lo[3], const double hi[3], int &axis) {
    double near = -std::numeric_limits<double>::infinity(), far = std::numeric_limits<double>::infinity();
    axis = -1;
    for (int k = 0; k < 3; ++k) {
        if (d[k] == 0) {
            if (o[k] < lo[k] || o[k] > hi[k])
                return -1;
            continue;
        }
        double a = (lo[k] - o[k]) / d[k], b = (hi[k] - o[k]) / d[k];
        if (a > b)
            std::swap(a, b);
        if (a > near) {
            near = a;
            axis = k;
        }
        far = std::min(far, b);
    }
    return near > 0 && near <= far && axis >= 0 ? near : -1;
}

// A near object in the interior frame, where it stands.
struct PROP {
    int mKind; // 0 pole, 1 lamp stem, 2 lamp shade
    double mMin[3], mMax[3];
};

// The near objects of capture point `point` for a rig centre at `rig`
// (interior frame) in a room from height `floor` to `ceiling`: the pole
// from floor to ceiling, the lamp's stem and its shade.
std::vector<PROP> props_of(int point, const double rig[3], double floor, double ceiling) {
    const PLACE &p = PLACES[point % 4];
    std::vector<PROP> props;
    const auto add = [&](int kind, double azimuth, double distance, double half, double z0, double z1) {
        const double a = azimuth * PI / 180;
        const double x = rig[0] + distance * std::sin(a), y = rig[1] + distance * std::cos(a);
        props.push_back(PROP{kind, {x - half, y - half, z0}, {x + half, y + half, z1}});
    };
    add(0, p.mPole, POLE_DISTANCE, POLE_HALF, floor, ceiling);
    add(1, p.mLamp, LAMP_DISTANCE, STEM_HALF, floor, floor + SHADE_BOTTOM);
    add(2, p.mLamp, LAMP_DISTANCE, SHADE_HALF, floor + SHADE_BOTTOM, floor + SHADE_TOP);
    return props;
}

} // namespace

struct ParallaxRoom::SCENE {
    zarn_interior::Scene mInterior;
    std::vector<std::vector<std::array<double, 2>>> mLights; // per room, x y on its ceiling

    SCENE() : mInterior(zarn_interior::make_scene(FOOTPRINT_MIN, FOOTPRINT_MAX)) {
        // One light in the middle of a room, two along a room longer than 4 m.
        for (const zarn_interior::Room &r : mInterior.mRooms) {
            const double cx = (r.mMin[0] + r.mMax[0]) / 2, cy = (r.mMin[1] + r.mMax[1]) / 2;
            const int axis = r.long_axis();
            const double length = r.mMax[axis] - r.mMin[axis];
            std::vector<std::array<double, 2>> lights;
            if (length > 4) {
                for (const double f : {0.25, 0.75}) {
                    std::array<double, 2> l = {cx, cy};
                    l[static_cast<std::size_t>(axis)] = r.mMin[axis] + f * length;
                    lights.push_back(l);
                }
            } else {
                lights.push_back({cx, cy});
            }
            mLights.push_back(std::move(lights));
        }
    }

    int room_of(const double p[3]) const {
        for (std::size_t i = 0; i < mInterior.mRooms.size(); ++i) {
            const zarn_interior::Room &r = mInterior.mRooms[i];
            if (p[0] > r.mMin[0] && p[0] < r.mMax[0] && p[1] > r.mMin[1] && p[1] < r.mMax[1] && p[2] > r.mMin[2] &&
                p[2] < r.mMax[2])
                return static_cast<int>(i);
        }
        return 0;
    }

    // Light falling on a point of room `room` with normal n: the room's
    // ceiling lights (shining down) and the room at large, a little less
    // in its corners.
    double irradiance(int room, const double p[3], const double n[3]) const {
        const zarn_interior::Room &r = mInterior.mRooms[static_cast<std::size_t>(room)];
        double e = AMBIENT;
        for (const auto &l : mLights[static_cast<std::size_t>(room)]) {
            const double d[3] = {l[0] - p[0], l[1] - p[1], r.mMax[2] - p[2]};
            const double dist2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
            const double dist = std::sqrt(dist2);
            const double facing = std::max(0.0, (n[0] * d[0] + n[1] * d[1] + n[2] * d[2]) / dist);
            const double downward = std::max(0.0, d[2] / dist);
            e += LIGHT_POWER * facing * downward / (0.6 + dist2);
        }
        double corner = std::numeric_limits<double>::infinity();
        for (int k = 0; k < 3; ++k)
            corner = std::min({corner, p[k] - r.mMin[k], r.mMax[k] - p[k]});
        return e * (0.75 + 0.25 * smoothstep(0.0, 0.35, corner));
    }

    // Planks 0.18 m wide running north, of staggered lengths.
    static RGB floor_albedo(const RGB &base, double x, double y) {
        const double across = x / 0.18;
        const auto plank = static_cast<std::int64_t>(std::floor(across));
        const double along = (y + random01(plank, 0, 111) * 1.2) / 1.2;
        const auto piece = static_cast<std::int64_t>(std::floor(along));
        const double fa = across - std::floor(across), fl = along - std::floor(along);
        const double seam = smoothstep(0.0, 0.06, std::min(fa, 1 - fa)) * smoothstep(0.0, 0.01, std::min(fl, 1 - fl));
        const double tone = 0.8 + 0.4 * random01(plank, piece, 112);
        const double grain = 0.9 + 0.2 * noise(x * 30, y * 2.5, 113);
        return scaled(base, 0.9 * tone * grain * (0.55 + 0.45 * seam));
    }

    // A wall: wallpaper with stripes above a dado rail, panelling below,
    // a skirting board, and framed pictures about eye height; s runs along
    // the wall, h is the height above the floor, `wall` tells the walls
    // apart.
    static RGB wall_albedo(const RGB &base, double s, double h, std::int64_t wall) {
        RGB c = scaled(base, 0.95 + 0.1 * noise(s * 5, h * 5, 121));
        if (h > 0.93)
            c = scaled(c, 0.9 + 0.1 * smoothstep(0.3, 0.7, 0.5 + 0.5 * std::sin(2 * PI * s / 0.12)));
        else
            c = scaled(c, 0.8 - 0.15 * (1 - smoothstep(0.004, 0.008, std::abs(std::remainder(s, 0.3)))));
        c = mix(c, RGB{0.30, 0.19, 0.10}, inside(0, h, -1, 1, 0.88, 0.93, 0.004));
        c = mix(c, RGB{0.80, 0.80, 0.77}, 1 - smoothstep(0.095, 0.105, h));
        // Pictures: one in most 1.3 m stretches of a wall.
        const auto cell = static_cast<std::int64_t>(std::floor(s / 1.3));
        if (random01(wall, cell, 130) < 0.75) {
            const double w = 0.45 + 0.35 * random01(wall, cell, 131), ht = 0.35 + 0.25 * random01(wall, cell, 132);
            const double mid = 1.3 * static_cast<double>(cell) + 0.65 + 0.2 * (random01(wall, cell, 133) - 0.5);
            const double centre = 1.42 + 0.25 * random01(wall, cell, 134);
            const double s0 = mid - w / 2, s1 = mid + w / 2, h0 = centre - ht / 2, h1 = centre + ht / 2;
            const double frame = inside(s, h, s0, s1, h0, h1, 0.003);
            if (frame > 0) {
                const double canvas = inside(s, h, s0 + 0.03, s1 - 0.03, h0 + 0.03, h1 - 0.03, 0.003);
                const RGB a = {0.15 + 0.7 * random01(wall, cell, 135), 0.15 + 0.6 * random01(wall, cell, 136),
                               0.1 + 0.6 * random01(wall, cell, 137)};
                const RGB b = {0.8 - 0.6 * random01(wall, cell, 138), 0.75 - 0.5 * random01(wall, cell, 139), 0.3};
                const double angle = PI * random01(wall, cell, 140);
                const double along = (s - mid) * std::cos(angle) + (h - centre) * std::sin(angle);
                RGB art = mix(a, b, smoothstep(-0.3, 0.3, std::sin(along * 40)));
                art = mix(art, RGB{0.9, 0.88, 0.8}, 1 - smoothstep(0.05, 0.06, std::hypot(s - mid - w / 5, h - centre)));
                c = mix(c, mix(RGB{0.12, 0.08, 0.05}, art, canvas), frame);
            }
        }
        return c;
    }

    // Furniture by its height: cabinets (doors with grooves and knobs),
    // tables (wood) and sofas (fabric with cushion seams).
    RGB furniture_albedo(const Surface &surface, const RGB &base, const double p[3]) const {
        const zarn_interior::Block &b = mInterior.mFurniture[static_cast<std::size_t>(surface.mBlock)];
        const double height = b.mMax[2] - b.mMin[2], h = p[2] - b.mMin[2];
        const bool top = surface.mNormal[2] != 0;
        const int along = surface.mNormal[0] != 0 ? 1 : 0;
        const double s = p[along] - b.mMin[along];
        if (height > 1.2) {
            if (top)
                return scaled(base, 0.9);
            const double door = std::remainder(s, 0.45);
            const double groove = std::max({1 - smoothstep(0.004, 0.008, std::abs(door)),
                                            1 - smoothstep(0.004, 0.008, std::abs(h - 0.95)),
                                            1 - smoothstep(0.004, 0.008, std::abs(h - 0.08))});
            RGB c = scaled(base, (0.92 + 0.08 * noise(s * 8, h * 8, 151)) * (1 - 0.6 * groove));
            const double knob = 1 - smoothstep(0.012, 0.018, std::hypot(std::abs(door) - 0.05, std::abs(h - 0.95) - 0.06));
            return mix(c, RGB{0.75, 0.62, 0.3}, knob);
        }
        if (height > 0.6) {
            const double u = top ? p[0] : s, v = top ? p[1] : h;
            RGB wood = scaled(base, 0.85 + 0.3 * noise(u * 3, v * 40, 152));
            return top ? wood : scaled(wood, 0.7);
        }
        const double seam = 1 - smoothstep(0.005, 0.01, std::abs(std::remainder(s, 0.6)));
        const double roll = top ? 0 : 1 - smoothstep(0.005, 0.01, std::abs(h - 0.3));
        return scaled(base, (0.85 + 0.15 * noise(s * 60, h * 60, 153)) * (1 - 0.45 * std::max(seam, roll)));
    }

    // What a ray that met `surface` at p sees.
    RGB shade(const Surface &surface, const double p[3]) const {
        const RGB base = {linear(surface.mColour[0]), linear(surface.mColour[1]), linear(surface.mColour[2])};
        const zarn_interior::Room &r = mInterior.mRooms[static_cast<std::size_t>(surface.mRoom)];
        const double h = p[2] - r.mMin[2];
        RGB albedo;
        switch (surface.mPart) {
        case Part::FLOOR:
            albedo = floor_albedo(base, p[0], p[1]);
            break;
        case Part::CEILING:
            for (const auto &l : mLights[static_cast<std::size_t>(surface.mRoom)]) {
                const double d = std::hypot(p[0] - l[0], p[1] - l[1]);
                if (d < LIGHT_RADIUS + 0.05)
                    return mix(RGB{0.35, 0.35, 0.36}, RGB{LIGHT_RADIANCE, LIGHT_RADIANCE * 0.95, LIGHT_RADIANCE * 0.85},
                               1 - smoothstep(LIGHT_RADIUS - 0.01, LIGHT_RADIUS + 0.01, d));
            }
            albedo = scaled(base, 0.95 + 0.05 * noise(p[0] * 3, p[1] * 3, 122));
            break;
        case Part::FURNITURE:
            albedo = furniture_albedo(surface, base, p);
            break;
        case Part::OPENING:
            albedo = scaled(RGB{0.82, 0.81, 0.78}, 0.95 + 0.05 * noise(p[0] * 9, p[1] * 9 + h * 9, 123));
            break;
        default: {
            const int axis = surface.mNormal[0] != 0 ? 0 : 1;
            const auto wall = static_cast<std::int64_t>(std::lround(p[axis] * 100)) * 2 + axis;
            albedo = wall_albedo(base, p[1 - axis], h, wall);
            break;
        }
        }
        return scaled(albedo, irradiance(surface.mRoom, p, surface.mNormal));
    }

    // What a ray along d that met a near object at p, across `axis`, sees.
    RGB shade_prop(int room, const PROP &prop, const double p[3], int axis, const double d[3]) const {
        double n[3] = {0, 0, 0};
        n[axis] = d[axis] > 0 ? -1 : 1;
        const double floor = mInterior.mRooms[static_cast<std::size_t>(room)].mMin[2];
        const double h = p[2] - floor;
        const double s = axis == 0 ? p[1] : p[0];
        RGB albedo;
        if (prop.mKind == 0) {
            const double above = h - RIG_HEIGHT;
            albedo = scaled(RGB{0.35, 0.36, 0.38}, 0.9 + 0.2 * noise(s * 40, h * 2, 161));
            if (std::abs(above) < SLEEVE) {
                const double f = above / STRIPE - std::floor(above / STRIPE);
                const bool red = static_cast<std::int64_t>(std::floor(above / STRIPE)) % 2 == 0;
                const double edge = smoothstep(0.0, 0.05, std::min(f, 1 - f));
                const RGB stripe = red ? RGB{0.55, 0.05, 0.04} : RGB{0.80, 0.80, 0.78};
                albedo = mix(RGB{0.6, 0.35, 0.3}, stripe, 0.5 + 0.5 * edge);
            }
        } else if (prop.mKind == 1) {
            albedo = RGB{0.06, 0.06, 0.07};
        } else {
            const double check = (static_cast<std::int64_t>(std::floor(s / 0.03)) + static_cast<std::int64_t>(std::floor(h / 0.03))) & 1;
            albedo = mix(RGB{0.78, 0.70, 0.50}, RGB{0.12, 0.20, 0.45}, 0.85 * check);
            const double trim = std::max(1 - smoothstep(SHADE_BOTTOM + 0.03, SHADE_BOTTOM + 0.033, h),
                                         smoothstep(SHADE_TOP - 0.033, SHADE_TOP - 0.03, h));
            albedo = mix(albedo, RGB{0.05, 0.08, 0.22}, trim);
        }
        return scaled(albedo, irradiance(room, p, n));
    }
};

struct ParallaxRoom::View::STATE {
    const SCENE *mScene;
    zarn_interior::RayCaster mCaster;
    double mEye[3];
    int mRoom;
    std::vector<PROP> mProps;
    double mCos, mSin; // of the room's turn
};

ParallaxRoom::ParallaxRoom(double baseline) : mScene(std::make_unique<SCENE>()), mBaseline(baseline) {}

ParallaxRoom::~ParallaxRoom() = default;

POINT3 ParallaxRoom::eye_offset(EYE eye) const {
    // The upper lens above the centre: up is -y. 0.0 - b / 2 keeps a zero
    // baseline's offsets +0.
    if (eye == UPPER_LENS)
        return {0, 0.0 - mBaseline / 2, 0};
    if (eye == LOWER_LENS)
        return {0, 0.0 + mBaseline / 2, 0};
    return {0, 0, 0};
}

POINT3 ParallaxRoom::rig_centre(int point) const {
    const PLACE &p = PLACES[point % 4];
    const double drift = DRIFT * ((point / 4) % 4);
    return to_panorama({p.mX + drift, p.mY + drift, RIG_HEIGHT});
}

std::vector<NEAR_OBJECT> ParallaxRoom::near_objects(int point) const {
    // Around a rig centre at the origin of the interior frame, in a room
    // whose floor lies RIG_HEIGHT below it.
    const zarn_interior::Room &room = mScene->mInterior.mRooms[0];
    const double origin[3] = {0, 0, 0};
    std::vector<NEAR_OBJECT> out;
    for (const PROP &p : props_of(point, origin, -RIG_HEIGHT, room.mMax[2] - room.mMin[2] - RIG_HEIGHT)) {
        if (p.mKind == 1)
            continue; // the stem: below the band but for its top, which the shade covers
        const POINT3 lo = to_panorama({p.mMin[0], p.mMin[1], p.mMin[2]});
        const POINT3 hi = to_panorama({p.mMax[0], p.mMax[1], p.mMax[2]});
        NEAR_OBJECT o{p.mKind == 0 ? "pole" : "lamp", {}, {}};
        for (std::size_t k = 0; k < 3; ++k) {
            o.mMin[k] = std::min(lo[k], hi[k]);
            o.mMax[k] = std::max(lo[k], hi[k]);
        }
        out.push_back(o);
    }
    return out;
}

ParallaxRoom::View ParallaxRoom::view(int point, EYE eye, double turn) const {
    const POINT3 centre = rig_centre(point), offset = eye_offset(eye);
    const double at[3] = {centre[0] + offset[0], centre[1] + offset[1], centre[2] + offset[2]};
    const POINT3 e = to_interior(at);
    const double c[3] = {centre[0], centre[1], centre[2]};
    const POINT3 rig = to_interior(c);
    auto state = std::make_shared<View::STATE>(View::STATE{mScene.get(), zarn_interior::RayCaster(mScene->mInterior, e.data()),
                                                           {e[0], e[1], e[2]}, mScene->room_of(rig.data()), {}, 1, 0});
    const double a = turn * PI / 180;
    state->mCos = std::cos(a);
    state->mSin = std::sin(a);
    const zarn_interior::Room &room = mScene->mInterior.mRooms[static_cast<std::size_t>(state->mRoom)];
    state->mProps = props_of(point, rig.data(), room.mMin[2], room.mMax[2]);
    View v;
    v.mState = std::move(state);
    return v;
}

RGB ParallaxRoom::View::operator()(const double d[3]) const {
    const STATE &s = *mState;
    // The room turned as the single-centre room turns, then the interior's
    // frame.
    const double turned[3] = {s.mCos * d[0] + s.mSin * d[2], d[1], -s.mSin * d[0] + s.mCos * d[2]};
    const double ray[3] = {turned[0], turned[2], -turned[1]};
    double nearest = 1e30;
    int prop = -1, prop_axis = -1;
    for (std::size_t i = 0; i < s.mProps.size(); ++i) {
        int axis;
        const double t = box_entry(s.mEye, ray, s.mProps[i].mMin, s.mProps[i].mMax, axis);
        if (t > 0 && t < nearest) {
            nearest = t;
            prop = static_cast<int>(i);
            prop_axis = axis;
        }
    }
    zarn_interior::Hit hit;
    if (s.mCaster.cast(ray, hit, nearest))
        return s.mScene->shade(s.mScene->mInterior.mSurfaces[static_cast<std::size_t>(hit.mSurface)], hit.mPoint);
    if (prop < 0)
        return RGB{0, 0, 0};
    const double p[3] = {s.mEye[0] + nearest * ray[0], s.mEye[1] + nearest * ray[1], s.mEye[2] + nearest * ray[2]};
    return s.mScene->shade_prop(s.mRoom, s.mProps[static_cast<std::size_t>(prop)], p, prop_axis, ray);
}

std::vector<std::pair<std::string, PANORAMA_RECT>> ParallaxRoom::repairs(int point, const std::array<LENS_TABLE, 2> &lenses,
                                                                         int width) const {
    const int height = width / 2;
    const int grow = std::max(2, width / 256);
    // The band lies within some 12 degrees of the horizon for these
    // lenses; rows within 30 degrees are searched.
    const int v0 = std::max(0, static_cast<int>(std::floor(height * (60.0 / 180))) - 1);
    const int v1 = std::min(height - 1, static_cast<int>(std::ceil(height * (120.0 / 180))) + 1);
    const POINT3 eyes[3] = {eye_offset(RIG_CENTRE), eye_offset(UPPER_LENS), eye_offset(LOWER_LENS)};
    std::vector<std::pair<std::string, PANORAMA_RECT>> out;
    for (const NEAR_OBJECT &o : near_objects(point)) {
        int x0 = width, y0 = height, x1 = -1, y1 = -1;
        for (int v = v0; v <= v1; ++v)
            for (int u = 0; u < width; ++u) {
                double d[3];
                ZARN::ImageProc::panorama_direction(u, v, width, height, d);
                bool meets = false;
                for (const POINT3 &e : eyes) {
                    int axis;
                    meets = meets || box_entry(e.data(), d, o.mMin.data(), o.mMax.data(), axis) > 0;
                }
                if (!meets || ZARN::ImageProc::lens_margin(lenses[0], d) <= 0 ||
                    ZARN::ImageProc::lens_margin(lenses[1], d) <= 0)
                    continue;
                x0 = std::min(x0, u), x1 = std::max(x1, u);
                y0 = std::min(y0, v), y1 = std::max(y1, v);
            }
        if (x1 < 0)
            continue;
        x0 = std::max(0, x0 - grow), y0 = std::max(0, y0 - grow);
        x1 = std::min(width - 1, x1 + grow), y1 = std::min(height - 1, y1 + grow);
        out.emplace_back(o.mName, PANORAMA_RECT{x0, y0, x1 - x0 + 1, y1 - y0 + 1});
    }
    return out;
}

} // namespace zarn_capture
