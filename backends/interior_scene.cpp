#include "interior_scene.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <random>

namespace zarn_interior {

namespace {

constexpr double MIN_WIDTH = 8.0; // building, x
constexpr double MIN_DEPTH = 6.0; // building, y
constexpr double WALL = 0.1;      // interior wall thickness
constexpr double HALF_WALL = WALL / 2;
constexpr double DOOR_WIDTH = 0.9;
constexpr double DOOR_HEIGHT = 2.0;
constexpr double STOREY_FLOOR[2] = {0.0, 2.9};
constexpr double STOREY_CEILING[2] = {2.6, 5.5};
// Height ranges of the storeys: the split lies half-way through the slab;
// below the ground floor and above the top ceiling they reach a little
// further than any noisy point does.
constexpr double STOREY_RANGE[3] = {-0.15, 2.75, 5.75};
constexpr double GRID_CELL = 0.5;
constexpr double EDGE = 1e-9;

using RGB = std::array<std::uint8_t, 3>;

// Colours: per room the walls, then per storey floor coverings, and the
// furniture.
constexpr RGB WALL_COLOUR[5] = {{232, 226, 214}, {220, 229, 231}, {236, 222, 212}, {226, 232, 219}, {238, 235, 228}};
constexpr RGB FLOOR_COLOUR[5] = {{176, 132, 88}, {198, 198, 192}, {168, 126, 84}, {150, 141, 126}, {143, 134, 121}};
constexpr RGB CEILING_COLOUR = {245, 245, 242};
constexpr RGB TABLE_COLOUR = {122, 86, 54};
constexpr RGB CABINET_COLOUR = {206, 204, 198};
constexpr RGB SOFA_COLOUR[2] = {{72, 96, 140}, {138, 62, 56}};

// ---------------------------------------------------------------------------
// Random numbers: the engine's raw output turned into numbers by hand.

std::uint64_t splitmix(std::uint64_t x) {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

class Random {
public:
    // Stream `stream` of the seed: independent of the other streams.
    Random(std::uint64_t seed, std::uint64_t stream) : mEngine(splitmix(seed ^ splitmix(stream + 1))) {}

    std::uint64_t bits() { return mEngine(); }
    // [0, 1), 53 bits.
    double uniform() { return static_cast<double>(mEngine() >> 11) * 0x1.0p-53; }
    // Standard normal, by Box-Muller: two values per pair of uniforms.
    double gaussian() {
        if (mHaveSpare) {
            mHaveSpare = false;
            return mSpare;
        }
        const double radius = std::sqrt(-2 * std::log(1 - uniform())); // 1 - u lies in (0, 1]
        const double angle = 2 * std::numbers::pi * uniform();
        mSpare = radius * std::sin(angle);
        mHaveSpare = true;
        return radius * std::cos(angle);
    }
    // A direction uniform over the sphere.
    void unit(double out[3]) {
        const double z = 2 * uniform() - 1;
        const double angle = 2 * std::numbers::pi * uniform();
        const double r = std::sqrt(std::max(0.0, 1 - z * z));
        out[0] = r * std::cos(angle);
        out[1] = r * std::sin(angle);
        out[2] = z;
    }

private:
    std::mt19937_64 mEngine;
    double mSpare = 0;
    bool mHaveSpare = false;
};

// Splits `total` into whole parts proportional to the weights, by largest
// remainder (ties to the lower index).
std::vector<std::int64_t> apportion(const std::vector<double> &weights, std::int64_t total) {
    std::vector<std::int64_t> parts(weights.size(), 0);
    double sum = 0;
    for (double w : weights)
        sum += w;
    if (total <= 0 || sum <= 0)
        return parts;
    std::vector<std::pair<double, std::size_t>> remainder;
    std::int64_t given = 0;
    for (std::size_t i = 0; i < weights.size(); ++i) {
        const double quota = static_cast<double>(total) * (weights[i] / sum);
        parts[i] = static_cast<std::int64_t>(std::floor(quota));
        given += parts[i];
        remainder.emplace_back(quota - static_cast<double>(parts[i]), i);
    }
    std::sort(remainder.begin(), remainder.end(),
              [](const auto &a, const auto &b) { return a.first != b.first ? a.first > b.first : a.second < b.second; });
    for (std::size_t k = 0; given < total; k = (k + 1) % remainder.size(), ++given)
        ++parts[remainder[k].second];
    return parts;
}

// ---------------------------------------------------------------------------
// Layout.

// A rectangle in a plane's own two coordinates.
struct RECT {
    double mS0, mS1, mT0, mT1;
};

// The rectangle less the holes, as few rectangles as a grid of the holes'
// edges gives after merging along rows and then down columns.
std::vector<RECT> subtract(const RECT &whole, const std::vector<RECT> &holes) {
    std::vector<double> s = {whole.mS0, whole.mS1}, t = {whole.mT0, whole.mT1};
    for (const RECT &h : holes) {
        for (double v : {h.mS0, h.mS1})
            if (v > whole.mS0 && v < whole.mS1)
                s.push_back(v);
        for (double v : {h.mT0, h.mT1})
            if (v > whole.mT0 && v < whole.mT1)
                t.push_back(v);
    }
    std::sort(s.begin(), s.end());
    s.erase(std::unique(s.begin(), s.end()), s.end());
    std::sort(t.begin(), t.end());
    t.erase(std::unique(t.begin(), t.end()), t.end());
    const auto covered = [&](std::size_t i, std::size_t j) {
        const double cs = (s[i] + s[i + 1]) / 2, ct = (t[j] + t[j + 1]) / 2;
        return std::any_of(holes.begin(), holes.end(),
                           [&](const RECT &h) { return cs > h.mS0 && cs < h.mS1 && ct > h.mT0 && ct < h.mT1; });
    };
    // Runs of free cells per row, then runs with equal ends joined upwards.
    std::vector<RECT> done, open;
    for (std::size_t j = 0; j + 1 < t.size(); ++j) {
        std::vector<RECT> row;
        for (std::size_t i = 0; i + 1 < s.size(); ++i) {
            if (covered(i, j))
                continue;
            if (!row.empty() && row.back().mS1 == s[i])
                row.back().mS1 = s[i + 1];
            else
                row.push_back(RECT{s[i], s[i + 1], t[j], t[j + 1]});
        }
        std::vector<RECT> next;
        for (RECT &r : row) {
            const auto above = std::find_if(open.begin(), open.end(),
                                            [&](const RECT &o) { return o.mS0 == r.mS0 && o.mS1 == r.mS1; });
            if (above != open.end()) {
                r.mT0 = above->mT0;
                open.erase(above);
            }
            next.push_back(r);
        }
        done.insert(done.end(), open.begin(), open.end());
        open = std::move(next);
    }
    done.insert(done.end(), open.begin(), open.end());
    return done;
}

// The two in-plane axes of a plane across `axis`.
constexpr int PLANE_S[3] = {1, 0, 0};
constexpr int PLANE_T[3] = {2, 2, 1};

struct DOOR {
    int mLow, mHigh; // rooms on the wall's lower and higher side
    int mAxis;       // the wall lies across this axis (0: x = mAt)
    double mAt;      // the wall's middle
    double mFrom, mTo; // the opening along the other horizontal axis
};

class Builder {
public:
    explicit Builder(Scene &scene) : mScene(scene) {}

    int room(int floor, double x0, double y0, double x1, double y1) {
        mScene.mRooms.push_back(
            Room{floor, {x0, y0, STOREY_FLOOR[floor]}, {x1, y1, STOREY_CEILING[floor]}});
        mHoles.emplace_back();
        return static_cast<int>(mScene.mRooms.size()) - 1;
    }
    void door(int low, int high, int axis, double at, double from, double to) {
        mDoors.push_back(DOOR{low, high, axis, at, from, to});
    }
    void block(int room, double x0, double y0, double x1, double y1, double height, RGB colour) {
        const double z = mScene.mRooms[static_cast<std::size_t>(room)].mMin[2];
        mScene.mFurniture.push_back(Block{room, {x0, y0, z}, {x1, y1, z + height}});
        mBlockColour.push_back(colour);
    }

    // Every surface, room by room: walls, floor, ceiling, furniture, then
    // the openings of the doors.
    void finish() {
        for (const DOOR &d : mDoors) {
            const double z = mScene.mRooms[static_cast<std::size_t>(d.mLow)].mMin[2];
            hole(d.mLow, d.mAxis, +1, RECT{d.mFrom, d.mTo, z, z + DOOR_HEIGHT});
            hole(d.mHigh, d.mAxis, -1, RECT{d.mFrom, d.mTo, z, z + DOOR_HEIGHT});
        }
        for (std::size_t b = 0; b < mScene.mFurniture.size(); ++b) {
            const Block &k = mScene.mFurniture[b];
            const Room &r = mScene.mRooms[static_cast<std::size_t>(k.mRoom)];
            for (int axis = 0; axis < 2; ++axis) {
                const int o = 1 - axis;
                const RECT back{k.mMin[o], k.mMax[o], k.mMin[2], k.mMax[2]};
                if (std::abs(k.mMin[axis] - r.mMin[axis]) < EDGE)
                    hole(k.mRoom, axis, -1, back);
                if (std::abs(k.mMax[axis] - r.mMax[axis]) < EDGE)
                    hole(k.mRoom, axis, +1, back);
            }
            mHoles[static_cast<std::size_t>(k.mRoom)][4].push_back(RECT{k.mMin[0], k.mMax[0], k.mMin[1], k.mMax[1]});
        }
        for (std::size_t i = 0; i < mScene.mRooms.size(); ++i) {
            const Room &r = mScene.mRooms[i];
            const int room = static_cast<int>(i);
            for (int axis = 0; axis < 2; ++axis)
                for (int side = 0; side < 2; ++side) {
                    const int o = 1 - axis;
                    const RECT whole{r.mMin[o], r.mMax[o], r.mMin[2], r.mMax[2]};
                    // The wall at the room's low end faces up the axis.
                    for (const RECT &piece : subtract(whole, mHoles[i][2 * axis + side]))
                        add(room, axis, side ? r.mMax[axis] : r.mMin[axis], side ? -1 : +1, piece, WALL_COLOUR[i % 5],
                            Part::WALL);
                }
            const RECT plan{r.mMin[0], r.mMax[0], r.mMin[1], r.mMax[1]};
            for (const RECT &piece : subtract(plan, mHoles[i][4]))
                add(room, 2, r.mMin[2], +1, piece, FLOOR_COLOUR[i % 5], Part::FLOOR);
            add(room, 2, r.mMax[2], -1, plan, CEILING_COLOUR, Part::CEILING);
        }
        for (std::size_t b = 0; b < mScene.mFurniture.size(); ++b) {
            const Block &k = mScene.mFurniture[b];
            const Room &r = mScene.mRooms[static_cast<std::size_t>(k.mRoom)];
            const RGB c = mBlockColour[b];
            const int block = static_cast<int>(b);
            add(k.mRoom, 2, k.mMax[2], +1, RECT{k.mMin[0], k.mMax[0], k.mMin[1], k.mMax[1]}, c, Part::FURNITURE, block);
            for (int axis = 0; axis < 2; ++axis) {
                const int o = 1 - axis;
                const RECT side{k.mMin[o], k.mMax[o], k.mMin[2], k.mMax[2]};
                if (std::abs(k.mMin[axis] - r.mMin[axis]) >= EDGE)
                    add(k.mRoom, axis, k.mMin[axis], -1, side, c, Part::FURNITURE, block);
                if (std::abs(k.mMax[axis] - r.mMax[axis]) >= EDGE)
                    add(k.mRoom, axis, k.mMax[axis], +1, side, c, Part::FURNITURE, block);
            }
        }
        // The opening through the wall: two jambs, the head and the floor
        // strip. Each belongs to the room whose viewpoint sees its face
        // (the lower room when both do).
        for (const DOOR &d : mDoors) {
            const int a = d.mAxis, h = 1 - a;
            const Room &low = mScene.mRooms[static_cast<std::size_t>(d.mLow)];
            const double z = low.mMin[2];
            const double w0 = d.mAt - HALF_WALL, w1 = d.mAt + HALF_WALL;
            // In the plane across h the coordinates are (axis a, z) when
            // a < h, and likewise when a > h: s is always the lower axis.
            const RECT jamb{w0, w1, z, z + DOOR_HEIGHT};
            const RGB wall = WALL_COLOUR[static_cast<std::size_t>(d.mLow) % 5];
            add(facing(d, h, d.mFrom, +1), h, d.mFrom, +1, jamb, wall, Part::OPENING);
            add(facing(d, h, d.mTo, -1), h, d.mTo, -1, jamb, wall, Part::OPENING);
            const RECT strip = a == 0 ? RECT{w0, w1, d.mFrom, d.mTo} : RECT{d.mFrom, d.mTo, w0, w1};
            add(d.mLow, 2, z + DOOR_HEIGHT, -1, strip, wall, Part::OPENING);
            add(d.mLow, 2, z, +1, strip, FLOOR_COLOUR[static_cast<std::size_t>(d.mLow) % 5], Part::FLOOR);
        }
    }

private:
    // A hole in room `room`'s wall across `axis` at its low (-1) or high
    // (+1) end, or (axis 2) in its floor.
    void hole(int room, int axis, int end, const RECT &r) {
        mHoles[static_cast<std::size_t>(room)][axis == 2 ? 4 : 2 * axis + (end > 0 ? 1 : 0)].push_back(r);
    }

    // The room of a door jamb across `axis` at `at` facing `sign`.
    int facing(const DOOR &d, int axis, double at, int sign) const {
        for (const int room : {d.mLow, d.mHigh}) {
            double eye[3];
            mScene.mRooms[static_cast<std::size_t>(room)].viewpoint(eye);
            if ((eye[axis] - at) * sign > 0)
                return room;
        }
        return d.mLow;
    }

    // The rectangle `r` in the plane across `axis` at `at`, its normal along
    // `sign`, part of `part` (of furniture `block`).
    void add(int room, int axis, double at, int sign, const RECT &r, RGB colour, Part part, int block = -1) {
        if (r.mS1 - r.mS0 < EDGE || r.mT1 - r.mT0 < EDGE)
            return;
        Surface s{};
        const int si = PLANE_S[axis], ti = PLANE_T[axis];
        s.mOrigin[axis] = at;
        s.mOrigin[si] = r.mS0;
        s.mOrigin[ti] = r.mT0;
        double *u = s.mU, *v = s.mV;
        // u x v along the normal: the plane's own (s, t) order gives +axis
        // for x and z, -axis for y.
        const int handed = axis == 1 ? -1 : +1;
        if (handed != sign)
            std::swap(u, v);
        u[si] = r.mS1 - r.mS0;
        v[ti] = r.mT1 - r.mT0;
        s.mNormal[axis] = sign;
        s.mRoom = room;
        s.mFloor = mScene.mRooms[static_cast<std::size_t>(room)].mFloor;
        std::copy(colour.begin(), colour.end(), s.mColour);
        s.mPart = part;
        s.mBlock = block;
        mScene.mSurfaces.push_back(s);
    }

    Scene &mScene;
    std::vector<DOOR> mDoors;
    std::vector<RGB> mBlockColour;
    // Per room: holes in the walls across x (low, high end), across y (low,
    // high end), and in the floor.
    std::vector<std::array<std::vector<RECT>, 5>> mHoles;
};

void build_grid(Scene &scene) {
    Scene::Grid &g = scene.mGrid;
    const std::size_t n = scene.mSurfaces.size();
    std::vector<double> box(6 * n);
    double lo[3], hi[3];
    std::fill(lo, lo + 3, std::numeric_limits<double>::max());
    std::fill(hi, hi + 3, std::numeric_limits<double>::lowest());
    for (std::size_t i = 0; i < n; ++i) {
        const Surface &s = scene.mSurfaces[i];
        for (int k = 0; k < 3; ++k) {
            const double a = s.mOrigin[k], b = s.mOrigin[k] + s.mU[k] + s.mV[k];
            box[6 * i + k] = std::min(a, b);
            box[6 * i + 3 + k] = std::max(a, b);
            lo[k] = std::min(lo[k], box[6 * i + k]);
            hi[k] = std::max(hi[k], box[6 * i + 3 + k]);
        }
    }
    // Half-metre cells, coarser for a building so large that they would
    // run into millions.
    g.mCell = GRID_CELL;
    while ((hi[0] - lo[0]) * (hi[1] - lo[1]) * (hi[2] - lo[2]) / (g.mCell * g.mCell * g.mCell) > 1e6)
        g.mCell *= 2;
    for (int k = 0; k < 3; ++k) {
        g.mOrigin[k] = lo[k] - EDGE;
        g.mSize[k] = std::max(1, static_cast<int>(std::ceil((hi[k] - lo[k] + 2 * EDGE) / g.mCell)));
    }
    const auto cell_range = [&](std::size_t i, int k, int &first, int &last) {
        first = std::clamp(static_cast<int>(std::floor((box[6 * i + k] - EDGE - g.mOrigin[k]) / g.mCell)), 0, g.mSize[k] - 1);
        last = std::clamp(static_cast<int>(std::floor((box[6 * i + 3 + k] + EDGE - g.mOrigin[k]) / g.mCell)), 0, g.mSize[k] - 1);
    };
    const std::size_t cells = static_cast<std::size_t>(g.mSize[0]) * g.mSize[1] * g.mSize[2];
    g.mStart.assign(cells + 1, 0);
    // Two passes: count, then place.
    for (int pass = 0; pass < 2; ++pass) {
        std::vector<std::uint32_t> fill;
        if (pass == 1) {
            for (std::size_t c = 0; c < cells; ++c)
                g.mStart[c + 1] += g.mStart[c];
            g.mItems.resize(g.mStart[cells]);
            fill.assign(g.mStart.begin(), g.mStart.end() - 1);
        }
        for (std::size_t i = 0; i < n; ++i) {
            int f[3], l[3];
            for (int k = 0; k < 3; ++k)
                cell_range(i, k, f[k], l[k]);
            for (int z = f[2]; z <= l[2]; ++z)
                for (int y = f[1]; y <= l[1]; ++y)
                    for (int x = f[0]; x <= l[0]; ++x) {
                        const std::size_t c = (static_cast<std::size_t>(z) * g.mSize[1] + y) * g.mSize[0] + x;
                        if (pass == 0)
                            ++g.mStart[c + 1];
                        else
                            g.mItems[fill[c]++] = static_cast<std::uint32_t>(i);
                    }
        }
    }
    g.mBox = std::move(box);
}

} // namespace

double Surface::area() const {
    return std::sqrt(mU[0] * mU[0] + mU[1] * mU[1] + mU[2] * mU[2]) *
           std::sqrt(mV[0] * mV[0] + mV[1] * mV[1] + mV[2] * mV[2]);
}

void Room::viewpoint(double out[3]) const {
    out[0] = (mMin[0] + mMax[0]) / 2;
    out[1] = (mMin[1] + mMax[1]) / 2;
    out[2] = mMin[2] + VIEWPOINT_HEIGHT;
}

Scene make_scene(const double footprint_min[2], const double footprint_max[2]) {
    Scene scene;
    const double minimum[2] = {MIN_WIDTH, MIN_DEPTH};
    for (int k = 0; k < 2; ++k) {
        const double centre = (footprint_min[k] + footprint_max[k]) / 2;
        const double half = std::max(footprint_max[k] - footprint_min[k], minimum[k]) / 2;
        scene.mMin[k] = centre - half;
        scene.mMax[k] = centre + half;
    }
    for (int f = 0; f < 2; ++f)
        scene.mFloors.push_back(Storey{STOREY_FLOOR[f], STOREY_CEILING[f], STOREY_RANGE[f], STOREY_RANGE[f + 1]});

    const double X0 = scene.mMin[0], X1 = scene.mMax[0], Y0 = scene.mMin[1], Y1 = scene.mMax[1];
    const double W = X1 - X0, D = Y1 - Y0, ym = (Y0 + Y1) / 2;
    Builder b(scene);

    // Ground floor: a living room along the west side; a kitchen and a
    // bedroom east of it, one behind the other. No wall runs along the
    // middle of the building, where a single row of cameras stands.
    const double cx = X0 + 0.45 * W, cy = Y0 + 0.42 * D;
    const int living = b.room(0, X0, Y0, cx - HALF_WALL, Y1);
    const int kitchen = b.room(0, cx + HALF_WALL, Y0, X1, cy - HALF_WALL);
    const int bedroom = b.room(0, cx + HALF_WALL, cy + HALF_WALL, X1, Y1);
    b.door(living, kitchen, 0, cx, Y0 + 1.0, Y0 + 1.0 + DOOR_WIDTH);
    b.door(living, bedroom, 0, cx, Y1 - 1.0 - DOOR_WIDTH, Y1 - 1.0);
    b.door(kitchen, bedroom, 1, cy, X1 - 0.7 - DOOR_WIDTH, X1 - 0.7);
    b.block(living, X0, ym - 1.0, X0 + 0.9, ym + 1.0, 0.45, SOFA_COLOUR[0]);
    b.block(living, X0 + 1.6, ym - 0.6, X0 + 2.4, ym + 0.6, 0.75, TABLE_COLOUR);
    b.block(living, X0 + 0.3, Y0, X0 + 1.3, Y0 + 0.5, 1.8, CABINET_COLOUR);
    {
        double eye[3];
        scene.mRooms[static_cast<std::size_t>(kitchen)].viewpoint(eye);
        b.block(kitchen, X1 - 1.2, Y0, X1 - 0.2, Y0 + 0.5, 1.8, CABINET_COLOUR);
        b.block(kitchen, eye[0] - 0.3, eye[1] - 0.4, eye[0] + 0.9, eye[1] + 0.4, 0.75, TABLE_COLOUR);
    }
    b.block(bedroom, X1 - 0.5, Y1 - 1.3, X1, Y1 - 0.3, 1.8, CABINET_COLOUR);
    b.block(bedroom, cx + HALF_WALL + 0.4, Y1 - 0.9, cx + HALF_WALL + 2.4, Y1, 0.45, SOFA_COLOUR[0]);

    // Upper floor: a large room to the west, a smaller one to the east.
    const double cx1 = X0 + 0.6 * W;
    const int hall = b.room(1, X0, Y0, cx1 - HALF_WALL, Y1);
    const int study = b.room(1, cx1 + HALF_WALL, Y0, X1, Y1);
    b.door(hall, study, 0, cx1, ym - DOOR_WIDTH / 2, ym + DOOR_WIDTH / 2);
    {
        double eye[3];
        scene.mRooms[static_cast<std::size_t>(hall)].viewpoint(eye);
        b.block(hall, eye[0] - 0.8, ym + 0.4, eye[0] + 0.8, ym + 1.3, 0.75, TABLE_COLOUR);
    }
    b.block(hall, X0 + 0.5, Y1 - 0.5, X0 + 1.5, Y1, 1.8, CABINET_COLOUR);
    b.block(hall, X0, Y0 + 0.8, X0 + 0.5, Y0 + 1.8, 1.8, CABINET_COLOUR);
    b.block(hall, X0 + 1.5, Y0, X0 + 3.5, Y0 + 0.9, 0.45, SOFA_COLOUR[1]);
    {
        double eye[3];
        scene.mRooms[static_cast<std::size_t>(study)].viewpoint(eye);
        b.block(study, eye[0] - 0.4, Y0 + 1.8, eye[0] + 0.4, Y0 + 2.6, 0.75, TABLE_COLOUR);
    }
    b.block(study, X1 - 0.5, Y0 + 0.4, X1, Y0 + 1.4, 1.8, CABINET_COLOUR);
    b.block(study, cx1 + HALF_WALL + 0.3, Y1 - 0.9, cx1 + HALF_WALL + 2.3, Y1, 0.45, SOFA_COLOUR[1]);

    b.finish();
    build_grid(scene);
    return scene;
}

double distance_to_surfaces(const Scene &scene, const double p[3]) {
    const Scene::Grid &g = scene.mGrid;
    if (scene.mSurfaces.empty())
        return std::numeric_limits<double>::infinity();
    int c[3];
    for (int k = 0; k < 3; ++k)
        c[k] = std::clamp(static_cast<int>(std::floor((p[k] - g.mOrigin[k]) / g.mCell)), 0, g.mSize[k] - 1);
    const double *box = g.mBox.data();
    double best = std::numeric_limits<double>::infinity(); // squared
    // Shells of cells around p's cell, until nothing beyond the searched
    // block can be nearer than the best so far.
    for (int r = 0;; ++r) {
        int lo[3], hi[3];
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::max(0, c[k] - r);
            hi[k] = std::min(g.mSize[k] - 1, c[k] + r);
        }
        for (int z = lo[2]; z <= hi[2]; ++z)
            for (int y = lo[1]; y <= hi[1]; ++y)
                for (int x = lo[0]; x <= hi[0]; ++x) {
                    if (std::max({std::abs(x - c[0]), std::abs(y - c[1]), std::abs(z - c[2])}) != r)
                        continue;
                    const std::size_t cell = (static_cast<std::size_t>(z) * g.mSize[1] + y) * g.mSize[0] + x;
                    for (std::uint32_t n = g.mStart[cell]; n < g.mStart[cell + 1]; ++n) {
                        const double *b = box + 6 * std::size_t(g.mItems[n]);
                        double d2 = 0;
                        for (int k = 0; k < 3; ++k) {
                            const double d = p[k] - std::clamp(p[k], b[k], b[3 + k]);
                            d2 += d * d;
                        }
                        best = std::min(best, d2);
                    }
                }
        double reach = std::numeric_limits<double>::infinity();
        for (int k = 0; k < 3; ++k) {
            if (c[k] - r > 0)
                reach = std::min(reach, p[k] - (g.mOrigin[k] + (c[k] - r) * g.mCell));
            if (c[k] + r < g.mSize[k] - 1)
                reach = std::min(reach, g.mOrigin[k] + (c[k] + r + 1) * g.mCell - p[k]);
        }
        if (reach == std::numeric_limits<double>::infinity() || (reach > 0 && best <= reach * reach))
            return std::sqrt(best);
    }
}

RayCaster::RayCaster(const Scene &scene, const double eye[3]) : mScene(&scene), mEye{eye[0], eye[1], eye[2]} {
    int storey = -1;
    for (std::size_t f = 0; f < scene.mFloors.size(); ++f)
        if (eye[2] >= scene.mFloors[f].mMin && eye[2] < scene.mFloors[f].mMax)
            storey = static_cast<int>(f);
    std::vector<std::pair<double, std::uint32_t>> order;
    for (std::size_t i = 0; i < scene.mSurfaces.size(); ++i) {
        const Surface &s = scene.mSurfaces[i];
        const double facing = (eye[0] - s.mOrigin[0]) * s.mNormal[0] + (eye[1] - s.mOrigin[1]) * s.mNormal[1] +
                              (eye[2] - s.mOrigin[2]) * s.mNormal[2];
        if (s.mFloor != storey || facing <= 0)
            continue;
        const double *b = scene.mGrid.mBox.data() + 6 * i;
        double d2 = 0;
        for (int k = 0; k < 3; ++k) {
            const double d = eye[k] - std::clamp(eye[k], b[k], b[3 + k]);
            d2 += d * d;
        }
        order.emplace_back(std::sqrt(d2), static_cast<std::uint32_t>(i));
    }
    std::sort(order.begin(), order.end());
    for (const auto &[reach, i] : order) {
        mReach.push_back(reach);
        mOrder.push_back(i);
    }
}

bool RayCaster::cast(const double d[3], Hit &hit, double limit) const {
    double best = limit;
    int found = -1;
    for (std::size_t n = 0; n < mOrder.size() && mReach[n] < best; ++n) {
        const std::uint32_t i = mOrder[n];
        const Surface &s = mScene->mSurfaces[i];
        const int axis = s.mNormal[0] != 0 ? 0 : s.mNormal[1] != 0 ? 1 : 2;
        if (d[axis] * s.mNormal[axis] >= 0) // seen from behind, or edge on
            continue;
        const double *b = mScene->mGrid.mBox.data() + 6 * std::size_t(i);
        const double t = (b[axis] - mEye[axis]) / d[axis];
        if (t <= 0 || t >= best)
            continue;
        bool inside = true;
        for (int k = 0; k < 3 && inside; ++k) {
            if (k == axis)
                continue;
            const double p = mEye[k] + t * d[k];
            inside = p >= b[k] - EDGE && p <= b[3 + k] + EDGE;
        }
        if (inside) {
            best = t;
            found = static_cast<int>(i);
        }
    }
    if (found < 0)
        return false;
    hit.mSurface = found;
    hit.mDistance = best;
    for (int k = 0; k < 3; ++k)
        hit.mPoint[k] = mEye[k] + best * d[k];
    return true;
}

std::int64_t outlier_count(std::int64_t points) {
    return points <= 0 ? 0 : static_cast<std::int64_t>(std::llround(static_cast<double>(points) * OUTLIER_SHARE));
}

namespace {

// Where a room's points go: below the middle plus half the band to the
// first chunk, from the middle less half the band to the second.
struct SPLIT {
    int mAxis;
    double mMiddle;
};

SPLIT split_of(const Room &r) {
    const int axis = r.long_axis();
    return SPLIT{axis, (r.mMin[axis] + r.mMax[axis]) / 2};
}

// Appends a point; `n` is null for a chunk without normals.
void push(Chunk &chunk, const float p[3], const float *n, const std::uint8_t c[3], std::uint8_t flags) {
    chunk.mPosition.insert(chunk.mPosition.end(), p, p + 3);
    if (n != nullptr)
        chunk.mNormal.insert(chunk.mNormal.end(), n, n + 3);
    chunk.mColour.insert(chunk.mColour.end(), c, c + 3);
    chunk.mFlags.push_back(flags);
}

void place(std::vector<Chunk> &chunks, std::size_t room, const SPLIT &split, const float p[3], const float n[3],
           const std::uint8_t c[3], std::uint8_t flags) {
    const double s = p[split.mAxis];
    const bool first = s < split.mMiddle + OVERLAP_BAND / 2;
    const bool second = s >= split.mMiddle - OVERLAP_BAND / 2;
    if (first)
        push(chunks[2 * room], p, n, c, flags);
    if (second)
        push(chunks[2 * room + 1], p, nullptr, c, first ? std::uint8_t(flags | OVERLAP_COPY) : flags);
}

// The surface's colour, a little brighter or darker, each channel a little
// off.
void vary(const std::uint8_t base[3], std::uint64_t bits, std::uint8_t out[3]) {
    const double shade = 0.96 + 0.08 * static_cast<double>(bits >> 48) / 65536.0;
    for (int k = 0; k < 3; ++k) {
        const int jitter = static_cast<int>((bits >> (8 * k)) % 7) - 3;
        out[k] = static_cast<std::uint8_t>(std::clamp(static_cast<int>(std::lround(base[k] * shade)) + jitter, 0, 255));
    }
}

// Expected share of a surface's points in each chunk of its room, for
// reserving the columns.
void shares(const Surface &s, const SPLIT &split, double &first, double &second) {
    const double a = s.mOrigin[split.mAxis], b = a + s.mU[split.mAxis] + s.mV[split.mAxis];
    const double lo = std::min(a, b), hi = std::max(a, b);
    const auto below = [&](double at) { return hi - lo < EDGE ? (lo < at ? 1.0 : 0.0) : std::clamp((at - lo) / (hi - lo), 0.0, 1.0); };
    first = below(split.mMiddle + OVERLAP_BAND / 2);
    second = 1 - below(split.mMiddle - OVERLAP_BAND / 2);
}

} // namespace

std::vector<Chunk> sample_chunks(const Scene &scene, std::int64_t points, std::uint64_t seed) {
    const std::size_t rooms = scene.mRooms.size();
    std::vector<Chunk> chunks(2 * rooms);
    std::vector<SPLIT> split;
    for (std::size_t r = 0; r < rooms; ++r) {
        const Room &room = scene.mRooms[r];
        split.push_back(split_of(room));
        for (int half = 0; half < 2; ++half) {
            Chunk &c = chunks[2 * r + half];
            c.mRoom = static_cast<int>(r);
            c.mFloor = room.mFloor;
            room.viewpoint(c.mViewpoint);
        }
    }

    // A chunk holds what its viewpoint sees: a face turned away from its
    // room's viewpoint (the far side of a cupboard) gets no points.
    std::vector<double> areas;
    for (const Surface &s : scene.mSurfaces) {
        double eye[3];
        scene.mRooms[static_cast<std::size_t>(s.mRoom)].viewpoint(eye);
        const double facing = (eye[0] - s.mOrigin[0]) * s.mNormal[0] + (eye[1] - s.mOrigin[1]) * s.mNormal[1] +
                              (eye[2] - s.mOrigin[2]) * s.mNormal[2];
        areas.push_back(facing > 0 ? s.area() : 0.0);
    }
    const std::vector<std::int64_t> count = apportion(areas, std::max<std::int64_t>(points, 0));
    std::vector<double> volumes;
    for (const Room &r : scene.mRooms)
        volumes.push_back((r.mMax[0] - r.mMin[0]) * (r.mMax[1] - r.mMin[1]) * (r.mMax[2] - r.mMin[2]));
    const std::vector<std::int64_t> flying = apportion(volumes, outlier_count(points));

    // Room for what each chunk is expected to get, with a margin, so that
    // the columns are allocated once.
    std::vector<double> expected(chunks.size(), 0);
    for (std::size_t i = 0; i < scene.mSurfaces.size(); ++i) {
        const std::size_t r = static_cast<std::size_t>(scene.mSurfaces[i].mRoom);
        double first, second;
        shares(scene.mSurfaces[i], split[r], first, second);
        expected[2 * r] += first * static_cast<double>(count[i]);
        expected[2 * r + 1] += second * static_cast<double>(count[i]);
    }
    for (std::size_t c = 0; c < chunks.size(); ++c) {
        const double e = expected[c] + static_cast<double>(flying[c / 2]) * 0.6;
        const auto n = static_cast<std::size_t>(e + 6 * std::sqrt(e) + 64);
        chunks[c].mPosition.reserve(3 * n);
        chunks[c].mColour.reserve(3 * n);
        chunks[c].mFlags.reserve(n);
        if (c % 2 == 0)
            chunks[c].mNormal.reserve(3 * n);
    }

    for (std::size_t i = 0; i < scene.mSurfaces.size(); ++i) {
        const Surface &s = scene.mSurfaces[i];
        const std::size_t room = static_cast<std::size_t>(s.mRoom);
        Random random(seed, i);
        const float n[3] = {static_cast<float>(s.mNormal[0]), static_cast<float>(s.mNormal[1]),
                            static_cast<float>(s.mNormal[2])};
        for (std::int64_t j = 0; j < count[i]; ++j) {
            const double a = random.uniform(), b = random.uniform();
            const double off = NOISE * random.gaussian();
            float p[3];
            for (int k = 0; k < 3; ++k)
                p[k] = static_cast<float>(s.mOrigin[k] + a * s.mU[k] + b * s.mV[k] + off * s.mNormal[k]);
            std::uint8_t c[3];
            vary(s.mColour, random.bits(), c);
            place(chunks, room, split[room], p, n, c, 0);
        }
    }

    // Flying pixels anywhere in a room's air but inside its furniture.
    for (std::size_t r = 0; r < rooms; ++r) {
        const Room &room = scene.mRooms[r];
        Random random(seed, scene.mSurfaces.size() + r);
        for (std::int64_t j = 0; j < flying[r]; ++j) {
            double q[3];
            bool inside;
            do {
                for (int k = 0; k < 3; ++k)
                    q[k] = room.mMin[k] + random.uniform() * (room.mMax[k] - room.mMin[k]);
                inside = std::any_of(scene.mFurniture.begin(), scene.mFurniture.end(), [&](const Block &b) {
                    return b.mRoom == static_cast<int>(r) && q[0] > b.mMin[0] && q[0] < b.mMax[0] && q[1] > b.mMin[1] &&
                           q[1] < b.mMax[1] && q[2] < b.mMax[2];
                });
            } while (inside);
            double d[3];
            random.unit(d);
            const std::uint64_t bits = random.bits();
            const std::uint8_t grey = static_cast<std::uint8_t>(40 + (bits >> 56) % 181);
            const std::uint8_t base[3] = {grey, grey, grey};
            std::uint8_t c[3];
            vary(base, bits, c);
            const float p[3] = {static_cast<float>(q[0]), static_cast<float>(q[1]), static_cast<float>(q[2])};
            const float n[3] = {static_cast<float>(d[0]), static_cast<float>(d[1]), static_cast<float>(d[2])};
            place(chunks, r, split[r], p, n, c, OUTLIER);
        }
    }
    return chunks;
}

} // namespace zarn_interior
