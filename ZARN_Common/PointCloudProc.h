#pragma once

// The point cloud steps of the mesh process: reading the reconstruction's
// chunks, merging them without the copies their overlaps hold, finding
// statistical outliers from neighbour distances, estimating and orienting
// normals, and grouping the points by floor.
//
// Clouds are kept as parallel arrays of single-precision values: positions
// and normals (0, 0, 0 where unknown), 8-bit colours and the chunk each
// point came from.

#include "ZARN_Common/KD_Tree.h"
#include "__ORN__/orn_array.h"
#include "__ORN__/orn_basic.h"
#include "__ORN__/orn_thread.h"

#include <cstdint>

namespace ZARN::PointCloudProc {

using ORN::INDEX;

struct CLOUD {
    ORN::Array<float> mPosition;       // x, y, z of each point
    ORN::Array<float> mNormal;         // nx, ny, nz; all 0 where unknown
    ORN::Array<std::uint8_t> mColour;  // red, green, blue
    ORN::Array<std::uint16_t> mChunk;  // the chunk the point came from

    INDEX size() const noexcept { return mChunk.size(); }
    void resize(INDEX n);
    // Bytes held per point.
    static constexpr INDEX POINT_BYTES = 3 * 4 + 3 * 4 + 3 + 2;
};

// One chunk of the reconstruction: element "vertex" with "x", "y", "z"
// (float or double), and where present "nx", "ny", "nz" and "red", "green",
// "blue" (uchar). Points without colours are grey. A file without the
// vertex element or its positions is refused ("PLY without positions").
// `name` tells the file in messages when `path` is not its name in the job
// (an open file handed on as "/proc/self/fd/N").
CLOUD read_chunk(const ORN::String<char> &path, std::uint16_t chunk, const ORN::String<char> &name);
inline CLOUD read_chunk(const ORN::String<char> &path, std::uint16_t chunk) { return read_chunk(path, chunk, path); }

// The chunks concatenated in order, where a point lying within `radius` of
// a point of an earlier chunk is a copy of it and is left out. Points of
// one chunk are never compared with each other.
struct MERGED {
    CLOUD mCloud;
    ORN::Array<float> mDuplicateHeight; // z of every point left out
};
MERGED merge_chunks(ORN::Array<CLOUD> &chunks, double radius, ORN::WorkThread &workers);

// The kd-tree over a cloud's positions.
KD_Tree build_tree(const CLOUD &cloud);

// The nearest rows of a tree (the point's own row among them) of the cloud
// points that have no normal, as a search found them: the normals of those
// points are then fitted without searching again.
struct NEAREST_ROWS {
    INDEX mWidth = 0;                 // rows per point
    ORN::Array<std::uint32_t> mPoint; // the points listed (their rows), ascending
    ORN::Array<std::uint32_t> mRow;   // mWidth rows per point listed, nearest first
};

// Mean distance of every point to its k nearest other points, `cloud`
// being the tree's own points. With `unoriented`, the k + 1 rows found for
// each point without a normal are kept there.
ORN::Array<float> neighbour_distance(const KD_Tree &tree, const CLOUD &cloud, INDEX k, ORN::WorkThread &workers,
                                     NEAREST_ROWS *unoriented = nullptr);

// Statistical outliers: points whose mean neighbour distance exceeds the
// average over the cloud by more than `ratio` standard deviations.
struct OUTLIERS {
    ORN::Array<std::uint8_t> mOutlier; // 1 for an outlier
    INDEX mCount = 0;
    double mSpacing = 0; // average mean neighbour distance of the inliers
};
OUTLIERS find_outliers(const ORN::Array<float> &distance, double ratio);

// The cloud without the marked points.
CLOUD remove_points(const CLOUD &cloud, const ORN::Array<std::uint8_t> &remove, ORN::Array<INDEX> *kept = nullptr);

// Normals for the points that have none: the direction of least spread of
// the point and its k nearest neighbours in the tree (neighbours marked in
// `skip` are not used), turned towards `viewpoint (chunk)`. `index (i)` is
// the tree row of cloud point i. Returns the number of normals estimated.
INDEX estimate_normals(const KD_Tree &tree, const CLOUD &tree_cloud, const ORN::Array<std::uint8_t> &skip,
                       CLOUD &cloud, const ORN::Array<INDEX> &index, INDEX k,
                       const ORN::Array<ORN::Vector<double>> &viewpoint, ORN::WorkThread &workers);
// The same from the rows a search kept (`neighbour_distance` with the
// same k over the tree's cloud): every point of `cloud` without a normal
// must be listed there; the normals are those the tree would give.
INDEX estimate_normals(const NEAREST_ROWS &near, const CLOUD &tree_cloud, const ORN::Array<std::uint8_t> &skip,
                       CLOUD &cloud, const ORN::Array<INDEX> &index, INDEX k,
                       const ORN::Array<ORN::Vector<double>> &viewpoint, ORN::WorkThread &workers);

// A floor: its height range [mMin, mMax).
struct FLOOR {
    ORN::String<char> mName;
    double mMin = 0;
    double mMax = 0;
};

// The floor of a height: the range that holds it, else the nearest one.
std::uint8_t floor_of(const ORN::Array<FLOOR> &floors, double z);
ORN::Array<std::uint8_t> assign_floors(const CLOUD &cloud, const ORN::Array<FLOOR> &floors);

// Floors found from the height distribution of the horizontal surfaces:
// each floor runs from a floor slab (points facing up) to the ceiling above
// it (points facing down); neighbouring floors meet half-way between a
// ceiling and the next floor slab. Empty when no floor slab shows.
ORN::Array<FLOOR> find_floors(const CLOUD &cloud);

} // namespace ZARN::PointCloudProc
