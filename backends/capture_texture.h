#pragma once

// Procedural texture helpers shared by the capture generator's scenes:
// hashing of lattice points, value noise, easing and colour mixing. Pure
// functions of their arguments, so that a scene rendered twice is the same
// byte for byte.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

namespace zarn_capture {

using RGB = std::array<double, 3>; // linear radiance, red green blue

// A well mixed 32-bit hash of a lattice point and a seed.
inline std::uint32_t hash(std::int64_t x, std::int64_t y, std::uint32_t seed) {
    std::uint64_t h = static_cast<std::uint64_t>(x) * 0x9E3779B97F4A7C15ull ^ static_cast<std::uint64_t>(y) * 0xC2B2AE3D27D4EB4Full ^
                      (std::uint64_t(seed) << 32);
    h ^= h >> 31;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 29;
    h *= 0x94D049BB133111EBull;
    h ^= h >> 32;
    return static_cast<std::uint32_t>(h);
}

inline double random01(std::int64_t x, std::int64_t y, std::uint32_t seed) { return hash(x, y, seed) / 4294967296.0; }

// Smooth value noise in [0, 1).
inline double noise(double x, double y, std::uint32_t seed) {
    const double fx = std::floor(x), fy = std::floor(y);
    const auto ix = static_cast<std::int64_t>(fx), iy = static_cast<std::int64_t>(fy);
    double tx = x - fx, ty = y - fy;
    tx = tx * tx * (3 - 2 * tx);
    ty = ty * ty * (3 - 2 * ty);
    const double a = random01(ix, iy, seed), b = random01(ix + 1, iy, seed);
    const double c = random01(ix, iy + 1, seed), d = random01(ix + 1, iy + 1, seed);
    return (a + (b - a) * tx) + ((c + (d - c) * tx) - (a + (b - a) * tx)) * ty;
}

inline double smoothstep(double e0, double e1, double x) {
    const double t = std::clamp((x - e0) / (e1 - e0), 0.0, 1.0);
    return t * t * (3 - 2 * t);
}

inline RGB mix(const RGB &a, const RGB &b, double t) {
    return {a[0] + (b[0] - a[0]) * t, a[1] + (b[1] - a[1]) * t, a[2] + (b[2] - a[2]) * t};
}
inline RGB scaled(const RGB &a, double s) { return {a[0] * s, a[1] * s, a[2] * s}; }

// 1 inside the rectangle, 0 outside, with edges eased over `soft` metres.
inline double inside(double s, double h, double s0, double s1, double h0, double h1, double soft = 0.006) {
    return smoothstep(s0 - soft, s0 + soft, s) * (1 - smoothstep(s1 - soft, s1 + soft, s)) *
           smoothstep(h0 - soft, h0 + soft, h) * (1 - smoothstep(h1 - soft, h1 + soft, h));
}

} // namespace zarn_capture
