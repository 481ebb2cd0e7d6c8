#include "ZARN_Common/MeshRender.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace ZARN::MeshRender {

using ORN::INDEX;

namespace {

struct P3 {
    double x, y, z;
};

// A triangle that is drawn: its corners below the cut (three, or four when
// the cut crossed it) and its unit normal.
struct PIECE {
    P3 mCorner[4];
    int mCorners = 0;
    P3 mNormal;
};

// Triangles whose normal is this close to horizontal are walls.
constexpr double WALL_NZ = 0.3;

// The light comes from above, a little from the south-west, so that slopes
// facing different ways differ; |n.l| lights both sides alike. It is steep
// enough that the roughness of a captured floor does not turn to grain.
constexpr double LIGHT[3] = {0.25 / 0.997497, 0.35 / 0.997497, 0.9 / 0.997497};
constexpr double AMBIENT = 0.45;

// Sub-pixel precision of the rasterizer: coordinates are snapped to 1/256
// of a pixel, and edge functions are exact integers, so triangles sharing
// an edge cover each pixel centre on it exactly once.
constexpr int SUB_BITS = 8;
constexpr std::int64_t SUB_ONE = std::int64_t(1) << SUB_BITS;
constexpr std::int64_t SUB_HALF = SUB_ONE / 2;

// What a pixel shows: the highest z drawn there and its tone, 0 for a wall
// and 1 to 255 for a surface's light (ambient plus diffuse, scaled).
struct TARGET {
    int mWidth = 0, mHeight = 0;
    std::vector<float> mDepth;
    std::vector<unsigned char> mTone;

    void plot(int x, int y, float z, unsigned char tone) {
        const std::size_t at = static_cast<std::size_t>(y) * static_cast<std::size_t>(mWidth) + static_cast<std::size_t>(x);
        if (z > mDepth[at]) {
            mDepth[at] = z;
            mTone[at] = tone;
        }
    }
};

// Asks for the vertices of a triangle met a little later: in a mesh whose
// triangles are not stored in order of place, fetching vertices is most of
// the work, and fetches asked for ahead overlap.
constexpr INDEX LOOK_AHEAD = 16;

void prefetch(const float *vertex, INDEX vertex_count, const std::uint32_t *corner) {
    for (int i = 0; i < 3; ++i)
        if (INDEX(corner[i]) < vertex_count)
            __builtin_prefetch(vertex + 3 * static_cast<std::size_t>(corner[i]));
}

// The triangle's corners below the cut, or false when nothing of it is
// drawn (above the cut, not finite, or without area).
bool make_piece(const float *vertex, INDEX vertex_count, const std::uint32_t *corner, double cut, PIECE &piece) {
    P3 p[3];
    for (int i = 0; i < 3; ++i) {
        const bool known_vertex = INDEX(corner[i]) < vertex_count;
        _DYNAMIC_ASSERT_(known_vertex);
        const float *v = vertex + 3 * static_cast<std::size_t>(corner[i]);
        p[i] = {v[0], v[1], v[2]};
    }
    const double lowest = std::min({p[0].z, p[1].z, p[2].z});
    if (!(lowest <= cut))
        return false; // above the cut, or a NaN height
    const double ax = p[1].x - p[0].x, ay = p[1].y - p[0].y, az = p[1].z - p[0].z;
    const double bx = p[2].x - p[0].x, by = p[2].y - p[0].y, bz = p[2].z - p[0].z;
    const P3 n{ay * bz - az * by, az * bx - ax * bz, ax * by - ay * bx};
    const double length = std::sqrt(n.x * n.x + n.y * n.y + n.z * n.z);
    if (!(length > 0) || !std::isfinite(length))
        return false; // no area, or a coordinate that is not finite
    piece.mNormal = {n.x / length, n.y / length, n.z / length};

    if (std::max({p[0].z, p[1].z, p[2].z}) <= cut) {
        std::copy(p, p + 3, piece.mCorner);
        piece.mCorners = 3;
        return true;
    }
    // Clipped to z <= cut: one corner below gives a triangle, two a quad.
    piece.mCorners = 0;
    for (int i = 0; i < 3; ++i) {
        const P3 &a = p[i], &b = p[(i + 1) % 3];
        const bool a_below = a.z <= cut, b_below = b.z <= cut;
        if (a_below)
            piece.mCorner[piece.mCorners++] = a;
        if (a_below != b_below) {
            const double s = (cut - a.z) / (b.z - a.z);
            piece.mCorner[piece.mCorners++] = {a.x + s * (b.x - a.x), a.y + s * (b.y - a.y), cut};
        }
    }
    return true;
}

// Fills the pixels whose centre the triangle covers (x, y in pixels).
void fill(TARGET &target, const double *x, const double *y, const float *z, float bias, unsigned char tone) {
    std::int64_t X[3], Y[3];
    for (int i = 0; i < 3; ++i) {
        // Coordinates are never below zero but for rounding, so truncation
        // rounds to the nearest step.
        X[i] = static_cast<std::int64_t>(x[i] * SUB_ONE + 0.5);
        Y[i] = static_cast<std::int64_t>(y[i] * SUB_ONE + 0.5);
    }
    std::int64_t area = (X[1] - X[0]) * (Y[2] - Y[0]) - (Y[1] - Y[0]) * (X[2] - X[0]);
    int order[3] = {0, 1, 2};
    if (area == 0)
        return;
    if (area < 0) {
        std::swap(order[1], order[2]);
        area = -area;
    }
    const std::int64_t left = std::min({X[0], X[1], X[2]}), right = std::max({X[0], X[1], X[2]});
    const std::int64_t top = std::min({Y[0], Y[1], Y[2]}), bottom = std::max({Y[0], Y[1], Y[2]});
    // Pixels whose centre (i + 1/2) lies within the bounds.
    const int x0 = static_cast<int>(std::max<std::int64_t>(0, (left - SUB_HALF + SUB_ONE - 1) >> SUB_BITS));
    const int x1 = static_cast<int>(std::min<std::int64_t>(target.mWidth - 1, (right - SUB_HALF) >> SUB_BITS));
    const int y0 = static_cast<int>(std::max<std::int64_t>(0, (top - SUB_HALF + SUB_ONE - 1) >> SUB_BITS));
    const int y1 = static_cast<int>(std::min<std::int64_t>(target.mHeight - 1, (bottom - SUB_HALF) >> SUB_BITS));
    if (x0 > x1 || y0 > y1)
        return;

    // Edge k runs from corner k + 1 to corner k + 2 and weighs corner k. A
    // pixel centre on an edge belongs to one side only: to the triangle
    // that runs the edge upwards (or rightwards when it is level).
    std::int64_t ex[3], ey[3], ox[3], oy[3], own[3];
    float zk[3];
    for (int k = 0; k < 3; ++k) {
        const int a = order[(k + 1) % 3], b = order[(k + 2) % 3];
        ox[k] = X[a];
        oy[k] = Y[a];
        ex[k] = X[b] - X[a];
        ey[k] = Y[b] - Y[a];
        own[k] = (ey[k] < 0 || (ey[k] == 0 && ex[k] > 0)) ? 0 : 1;
        zk[k] = z[order[k]];
    }
    const double inverse = 1.0 / static_cast<double>(area);
    for (int j = y0; j <= y1; ++j) {
        const std::int64_t py = std::int64_t(j) * SUB_ONE + SUB_HALF;
        const std::int64_t px = std::int64_t(x0) * SUB_ONE + SUB_HALF;
        std::int64_t w[3];
        for (int k = 0; k < 3; ++k)
            w[k] = ex[k] * (py - oy[k]) - ey[k] * (px - ox[k]);
        for (int i = x0; i <= x1; ++i) {
            if (w[0] >= own[0] && w[1] >= own[1] && w[2] >= own[2]) {
                const double depth = (static_cast<double>(w[0]) * zk[0] + static_cast<double>(w[1]) * zk[1] +
                                      static_cast<double>(w[2]) * zk[2]) *
                                     inverse;
                target.plot(i, j, static_cast<float>(depth) + bias, tone);
            }
            for (int k = 0; k < 3; ++k)
                w[k] -= ey[k] * SUB_ONE;
        }
    }
}

// A line of pixels no more than one pixel apart from (xa, ya) to (xb, yb).
void line(TARGET &target, double xa, double ya, float za, double xb, double yb, float zb, float bias,
          unsigned char tone) {
    const double dx = xb - xa, dy = yb - ya;
    const int steps = static_cast<int>(std::ceil(std::max(std::abs(dx), std::abs(dy))));
    for (int s = 0; s <= steps; ++s) {
        const double t = steps == 0 ? 0.0 : double(s) / steps;
        const double x = xa + t * dx, y = ya + t * dy;
        if (!(x >= 0 && y >= 0 && x < target.mWidth && y < target.mHeight))
            continue;
        target.plot(static_cast<int>(x), static_cast<int>(y), za + static_cast<float>(t) * (zb - za) + bias, tone);
    }
}

// The tint of a height, 0 at the bottom of the drawn range and 1 at its
// top: warm sand, coral, lavender, steel blue (red, green, blue).
std::array<double, 3> ramp(double t) {
    static constexpr double STOP[][4] = {
        {0.00, 240, 212, 168}, {0.30, 234, 166, 128}, {0.65, 172, 158, 204}, {1.00, 104, 146, 200}};
    t = std::clamp(t, 0.0, 1.0);
    int k = 0;
    while (k < 2 && t > STOP[k + 1][0])
        ++k;
    const double s = (t - STOP[k][0]) / (STOP[k + 1][0] - STOP[k][0]);
    return {STOP[k][1] + s * (STOP[k + 1][1] - STOP[k][1]), STOP[k][2] + s * (STOP[k + 1][2] - STOP[k][2]),
            STOP[k][3] + s * (STOP[k + 1][3] - STOP[k][3])};
}

constexpr double BACKGROUND[3] = {247, 245, 241};
constexpr double WALL[3] = {46, 50, 60};

unsigned char byte(double v) { return static_cast<unsigned char>(std::clamp(v + 0.5, 0.0, 255.0)); }

// Colours the pixels: tint by height times light, walls dark with a hint of
// their tint, and the lower side of every step in height darkened the more
// the higher the step (the mesh's border counts as a step too).
ORN::Image resolve(const TARGET &target, double low, double high) {
    const int W = target.mWidth, H = target.mHeight;
    const float none = -std::numeric_limits<float>::infinity();
    const double span = high > low ? high - low : 1.0;
    // Steps below this are the roughness of a captured floor, not edges.
    const double least_step = 0.03 * span, full_step = 0.15 * span;
    ORN::Image image(W, H, 3, ORN::ImageDepth::U8);
    for (int j = 0; j < H; ++j) {
        unsigned char *out = image.row<unsigned char>(j);
        const float *depth = target.mDepth.data() + std::size_t(j) * std::size_t(W);
        const unsigned char *tone = target.mTone.data() + std::size_t(j) * std::size_t(W);
        for (int i = 0; i < W; ++i, out += 3) {
            const float z = depth[i];
            if (z == none) {
                out[0] = byte(BACKGROUND[2]), out[1] = byte(BACKGROUND[1]), out[2] = byte(BACKGROUND[0]);
                continue;
            }
            const std::array<double, 3> tint = ramp((z - low) / span);
            double rgb[3];
            if (tone[i] == 0) {
                for (int c = 0; c < 3; ++c)
                    rgb[c] = 0.8 * WALL[c] + 0.2 * tint[c];
            } else {
                const double light = (tone[i] - 1) / 254.0;
                // The highest neighbour above this pixel; the border of the
                // mesh is a step of its own.
                double step = 0;
                bool border = false;
                const float around[4] = {i > 0 ? depth[i - 1] : none, i + 1 < W ? depth[i + 1] : none,
                                         j > 0 ? depth[i - W] : none, j + 1 < H ? depth[i + W] : none};
                for (const float n : around) {
                    if (n == none)
                        border = true;
                    else
                        step = std::max(step, double(n) - z);
                }
                double shade = light;
                if (step > least_step)
                    shade *= 1.0 - 0.45 * std::min(1.0, (step - least_step) / (full_step - least_step));
                if (border)
                    shade *= 0.8;
                for (int c = 0; c < 3; ++c)
                    rgb[c] = tint[c] * shade;
            }
            out[0] = byte(rgb[2]), out[1] = byte(rgb[1]), out[2] = byte(rgb[0]);
        }
    }
    return image;
}

} // namespace

ORN::Image render_top_image(const float *vertex, INDEX vertex_count, const std::uint32_t *triangle,
                            INDEX triangle_count, const VIEW &view) {
    _DYNAMIC_ASSERT_(vertex_count >= 0 && triangle_count >= 0);
    _DYNAMIC_ASSERT_(view.mWidth >= 1 && view.mWidth <= ORN::Image::max_side ());
    _DYNAMIC_ASSERT_(view.mMargin >= 0 && view.mMargin <= 1);
    _DYNAMIC_ASSERT_(!std::isnan (view.mCutHeight));
    const double cut = view.mCutHeight;

    // The bounds of what is drawn.
    constexpr double inf = std::numeric_limits<double>::infinity();
    double lo[3] = {inf, inf, inf}, hi[3] = {-inf, -inf, -inf};
    auto extend = [&](const P3 &p) {
        lo[0] = std::min(lo[0], p.x), hi[0] = std::max(hi[0], p.x);
        lo[1] = std::min(lo[1], p.y), hi[1] = std::max(hi[1], p.y);
        lo[2] = std::min(lo[2], p.z), hi[2] = std::max(hi[2], p.z);
    };
    std::vector<INDEX> drawn;
    PIECE piece;
    for (INDEX t = 0; t < triangle_count; ++t) {
        if (t + LOOK_AHEAD < triangle_count)
            prefetch(vertex, vertex_count, triangle + 3 * (t + LOOK_AHEAD));
        if (!make_piece(vertex, vertex_count, triangle + 3 * t, cut, piece))
            continue;
        for (int c = 0; c < piece.mCorners; ++c)
            extend(piece.mCorner[c]);
        drawn.push_back(t);
    }
    if (drawn.empty()) {
        for (INDEX v = 0; v < vertex_count; ++v) {
            const P3 p{vertex[3 * v], vertex[3 * v + 1], vertex[3 * v + 2]};
            if (std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z))
                extend(p);
        }
    }

    // The frame: the bounds with the margin around, W pixels across.
    const int W = view.mWidth;
    TARGET target;
    target.mWidth = W;
    target.mHeight = W;
    double scale = 1, left = 0, top = 0;
    if (lo[0] <= hi[0]) {
        double longer = std::max(hi[0] - lo[0], hi[1] - lo[1]);
        if (!(longer > 0))
            longer = 1; // a single point
        const double pad = view.mMargin * longer;
        // No side shorter than a thousandth of the other, so that a mesh
        // that is all one line still makes a picture.
        const double fx = std::max(hi[0] - lo[0] + 2 * pad, 1e-3 * longer);
        const double fy = std::max(hi[1] - lo[1] + 2 * pad, 1e-3 * longer);
        scale = W / fx;
        double height = fy * scale;
        if (height > double(ORN::Image::max_side())) {
            height = double(ORN::Image::max_side());
            scale = height / fy;
        }
        target.mHeight = std::max(1, static_cast<int>(std::lround(height)));
        // Centred in the pixels (the rounding of the height, or a width
        // that a capped height left wider than the mesh).
        left = (lo[0] + hi[0]) / 2 - W / scale / 2;
        top = (lo[1] + hi[1]) / 2 + target.mHeight / scale / 2;
    }
    const std::size_t pixels = std::size_t(target.mWidth) * std::size_t(target.mHeight);
    target.mDepth.assign(pixels, -std::numeric_limits<float>::infinity());
    target.mTone.assign(pixels, 0);

    // The drawn range of heights runs from the floor, the height below which
    // lies 1 % of the drawn area seen from above (so that stray points of a
    // capture below it do not wash the tints out), up to the highest point.
    const double z_span = hi[2] > lo[2] ? hi[2] - lo[2] : 0.0;
    constexpr int BINS = 512;
    std::vector<double> seen(BINS, 0.0);
    // A wall's top is drawn over the edge of the surface it meets.
    const float wall_bias = static_cast<float>(1e-3 * z_span);

    double x[4], y[4];
    float z[4];
    for (std::size_t d = 0; d < drawn.size(); ++d) {
        const INDEX t = drawn[d];
        if (d + LOOK_AHEAD < drawn.size())
            prefetch(vertex, vertex_count, triangle + 3 * drawn[d + LOOK_AHEAD]);
        (void)make_piece(vertex, vertex_count, triangle + 3 * t, cut, piece);
        for (int c = 0; c < piece.mCorners; ++c) {
            x[c] = (piece.mCorner[c].x - left) * scale;
            y[c] = (top - piece.mCorner[c].y) * scale;
            z[c] = static_cast<float>(piece.mCorner[c].z);
        }
        const P3 &n = piece.mNormal;
        const bool wall = std::abs(n.z) < WALL_NZ;
        const double light = AMBIENT + (1 - AMBIENT) * std::abs(n.x * LIGHT[0] + n.y * LIGHT[1] + n.z * LIGHT[2]);
        const unsigned char tone = wall ? 0 : static_cast<unsigned char>(1 + std::lround(254 * std::min(light, 1.0)));
        const float bias = wall ? wall_bias : 0.0f;
        fill(target, x, y, z, bias, tone);
        if (piece.mCorners == 4) {
            const double x2[3] = {x[0], x[2], x[3]}, y2[3] = {y[0], y[2], y[3]};
            const float z2[3] = {z[0], z[2], z[3]};
            fill(target, x2, y2, z2, bias, tone);
        }
        if (wall) {
            for (int c = 0; c < piece.mCorners; ++c) {
                const int d = (c + 1) % piece.mCorners;
                line(target, x[c], y[c], z[c], x[d], y[d], z[d], bias, tone);
            }
        } else if (z_span > 0) {
            double area = 0;
            for (int c = 0; c < piece.mCorners; ++c) {
                const int d = (c + 1) % piece.mCorners;
                area += x[c] * y[d] - x[d] * y[c];
            }
            double mean = 0;
            for (int c = 0; c < piece.mCorners; ++c)
                mean += z[c];
            mean /= piece.mCorners;
            const int bin = std::clamp(static_cast<int>((mean - lo[2]) / z_span * BINS), 0, BINS - 1);
            seen[bin] += std::abs(area);
        }
    }

    double low = lo[2];
    double total = 0;
    for (const double a : seen)
        total += a;
    if (total > 0) {
        double below = 0;
        for (int b = 0; b < BINS; ++b) {
            below += seen[b];
            if (below >= 0.01 * total) {
                low = lo[2] + z_span * b / BINS;
                break;
            }
        }
    }
    return resolve(target, low, hi[2]);
}

ORN::Buffer<unsigned char> render_top_view(const float *vertex, INDEX vertex_count, const std::uint32_t *triangle,
                                           INDEX triangle_count, const VIEW &view) {
    return ORN::Image::encode(".png", render_top_image(vertex, vertex_count, triangle, triangle_count, view));
}

} // namespace ZARN::MeshRender
