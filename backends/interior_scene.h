#pragma once

// A synthetic two-storey interior whose geometry is known exactly, and the
// dense point cloud a reconstruction of it would give.
//
// The building is a box in x/y (z up, metres) around the cameras' footprint,
// at least 8 m x 6 m. Floor 0 has its floor surface at z = 0 and its ceiling
// at 2.6; a 0.3 m slab follows; floor 1 runs from 2.9 to 5.5. Interior walls
// 0.1 m thick with door openings 0.9 m wide and 2.0 m high split floor 0 into
// three rooms and floor 1 into two. Each room holds a few pieces of furniture
// standing on its floor (tables, cabinets, low sofas), different upstairs.
//
// Every true surface is an axis-aligned rectangle seen from inside a room:
// inner faces of walls, floors, ceilings, the sides of the door openings and
// the faces of the furniture that are not against a wall or the floor. Its
// normal points into the air it is seen from.
//
// The cloud: `points` samples spread uniformly by area over those surfaces,
// each moved along its surface's normal by Gaussian noise (NOISE), with the
// surface's colour varied a little; plus outlier_count(points) "flying
// pixels" spread uniformly through the rooms' air. Each room's points form
// two chunks, split across the middle of the room's longer side; points
// within OVERLAP_BAND of that middle belong to both chunks, with identical
// values, the second chunk's copy flagged as such. Everything follows from
// the footprint, the count and the seed, whatever the standard library.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zarn_interior {

constexpr double NOISE = 0.01;            // standard deviation along the normal, metres
constexpr double OUTLIER_SHARE = 0.005;   // outliers per surface point
constexpr double OVERLAP_BAND = 0.3;      // width of the band two chunks share, metres
constexpr double VIEWPOINT_HEIGHT = 1.5;  // of a chunk's viewpoint above its floor
constexpr std::uint64_t DEFAULT_SEED = 0x1d0c5ea7e5ULL;

// What a surface is part of.
enum class Part : std::uint8_t { WALL, FLOOR, CEILING, FURNITURE, OPENING };

// One rectangle: the points origin + a * u + b * v for a, b in [0, 1]; u and
// v are perpendicular, axis-aligned, and u x v points along the normal.
struct Surface {
    double mOrigin[3];
    double mU[3];
    double mV[3];
    double mNormal[3]; // unit
    int mFloor;
    int mRoom;          // the room whose air it faces
    std::uint8_t mColour[3];
    Part mPart = Part::WALL;
    int mBlock = -1;    // the piece of furniture (index in mFurniture) it belongs to

    double area() const;
};

// One storey: its floor surface and ceiling heights, and the height range
// [mMin, mMax) that counts as this storey (split half-way through a slab).
struct Storey {
    double mFloor;
    double mCeiling;
    double mMin;
    double mMax;
};

// A room's air: mMin[2] is its floor height, mMax[2] its ceiling height.
struct Room {
    int mFloor;
    double mMin[3];
    double mMax[3];

    // The centre of the room, VIEWPOINT_HEIGHT above its floor.
    void viewpoint(double out[3]) const;
    // 0 or 1: the horizontal axis along which the room is longer (x on a tie).
    int long_axis() const { return mMax[1] - mMin[1] > mMax[0] - mMin[0] ? 1 : 0; }
};

// A piece of furniture: a solid box standing on its room's floor.
struct Block {
    int mRoom;
    double mMin[3];
    double mMax[3];
};

struct Scene {
    double mMin[2]; // the building's inside in x/y
    double mMax[2];
    std::vector<Storey> mFloors;
    std::vector<Room> mRooms;
    std::vector<Block> mFurniture;
    std::vector<Surface> mSurfaces;

    // Uniform grid of cubic cells over the surfaces, for distance queries:
    // cell (i, j, k) lists the surfaces whose bounding boxes touch it, at
    // mItems[mStart[c] .. mStart[c + 1]) with c = (k * mSize[1] + j) *
    // mSize[0] + i. mBox holds each surface's bounds (low x, y, z, high x,
    // y, z), flat along its normal.
    struct Grid {
        double mOrigin[3] = {};
        double mCell = 1;
        int mSize[3] = {};
        std::vector<std::uint32_t> mStart;
        std::vector<std::uint32_t> mItems;
        std::vector<double> mBox;
    } mGrid;
};

// The interior around the footprint box of the cameras (x/y minimum and
// maximum): the building is the box, grown to at least 8 m x 6 m about the
// box's centre.
Scene make_scene(const double footprint_min[2], const double footprint_max[2]);

// Exact distance from p to the nearest surface of the scene.
double distance_to_surfaces(const Scene &scene, const double p[3]);

// Where a ray first meets a surface: the surface's index, the distance along
// the ray's unit direction, and the point.
struct Hit {
    int mSurface = -1;
    double mDistance = 0;
    double mPoint[3] = {};
};

// Casts rays from one eye inside a room. Only the surfaces that can be seen
// from there are tried: those of the eye's storey (the slab between storeys
// has no opening) whose front faces the eye, nearest bounds first, so that a
// ray stops trying as soon as the remaining surfaces lie beyond its hit.
class RayCaster {
public:
    RayCaster(const Scene &scene, const double eye[3]);

    // The first surface the ray eye + t d (t > 0, d a unit vector) meets
    // from its front, nearer than `limit`; false when there is none.
    bool cast(const double d[3], Hit &hit, double limit = 1e30) const;
    // How many surfaces it tries at most.
    std::size_t candidates() const { return mOrder.size(); }

private:
    const Scene *mScene;
    double mEye[3];
    std::vector<std::uint32_t> mOrder; // surfaces, nearest bounds first
    std::vector<double> mReach;        // their bounds' distance from the eye
};

// Point flags of a chunk.
enum POINT_FLAG : std::uint8_t {
    OUTLIER = 1,      // a flying pixel, on no surface
    OVERLAP_COPY = 2, // the second chunk's copy of a point in the shared band
};

// The points of one chunk, column by column. Chunk 2r and 2r + 1 are room
// r's; the even one carries normals (the surface's; a random unit vector for
// an outlier), the odd one none.
struct Chunk {
    int mRoom = 0;
    int mFloor = 0;
    double mViewpoint[3] = {};
    std::vector<float> mPosition;      // x, y, z per point
    std::vector<float> mNormal;        // x, y, z per point, or empty
    std::vector<std::uint8_t> mColour; // red, green, blue per point
    std::vector<std::uint8_t> mFlags;  // POINT_FLAG bits per point

    std::size_t size() const { return mFlags.size(); }
};

// Number of outliers that come with `points` surface points.
std::int64_t outlier_count(std::int64_t points);

// The chunks of the cloud: `points` surface points and their outliers, plus
// the copies of the shared bands.
std::vector<Chunk> sample_chunks(const Scene &scene, std::int64_t points, std::uint64_t seed = DEFAULT_SEED);

} // namespace zarn_interior
