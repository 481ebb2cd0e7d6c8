#pragma once

// The mesh steps of the mesh process: a surface per floor from its points
// (screened Poisson reconstruction, Open3D's), trimmed to where the points
// are; a mesh split by floor; simplified sizes of a mesh (meshoptimizer).

#include "ZARN_Common/KD_Tree.h"
#include "ZARN_Common/PointCloudProc.h"
#include "__ORN__/orn_array.h"
#include "__ORN__/orn_basic.h"

#include <cstdint>

namespace ZARN::SurfaceProc {

using ORN::INDEX;

struct MESH {
    ORN::Array<float> mVertex;          // x, y, z of each vertex
    ORN::Array<std::uint8_t> mColour;   // red, green, blue per vertex, or empty
    ORN::Array<std::uint32_t> mTriangle; // three vertex indices per triangle

    INDEX vertex_count() const noexcept { return mVertex.size() / 3; }
    INDEX triangle_count() const noexcept { return mTriangle.size() / 3; }
};

// Some points of a cloud: those whose `mGroup` entry is `mMember`, or all
// of them when `mGroup` is empty. The surface steps read the points where
// they are, so that no copy of a floor's points is made.
struct SELECTION {
    const ORN::Array<std::uint8_t> *mGroup = nullptr;
    std::uint8_t mMember = 0;

    bool has(INDEX i) const noexcept { return mGroup == nullptr || mGroup->empty() || (*mGroup)[i] == mMember; }
};

// The largest side of the selected points' bounding box (0 without points).
double extent(const PointCloudProc::CLOUD &points, SELECTION selection = {});

// Octree depth of the reconstruction: cells about twice the point spacing
// over the selected points' extent, from 5 to 10.
int surface_depth(const PointCloudProc::CLOUD &points, double spacing, SELECTION selection = {});

// The watertight Poisson surface of the selected points with their normals,
// which must span some extent (points at one place fail "extent (points,
// selection) > 0": the solver cannot scale them into its grid). The
// solver's parallel reductions sum in an order that varies from run to
// run: with one thread the surface is the same on every run, with more it
// may differ in the last bits of its vertices and, through them, in its
// triangles.
MESH reconstruct(const PointCloudProc::CLOUD &points, int depth, int threads, SELECTION selection = {});

// The surface without what the points do not support: a triangle stays
// when each of its vertices lies within `distance` of a point of the tree
// that `skip` does not mark, and inside the height range [low, high).
// Vertices no triangle uses are dropped.
MESH trim(const MESH &mesh, const KD_Tree &tree, const ORN::Array<std::uint8_t> &skip, double distance, double low,
          double high, ORN::WorkThread &workers);

// The triangles of a mesh whose centroid lies on floor `floor` of `floors`
// (the floor rule of the points), with the vertices they use.
MESH floor_part(const MESH &mesh, const ORN::Array<PointCloudProc::FLOOR> &floors, std::uint8_t floor);

// The mesh simplified to about `triangles` triangles (never more than it
// has); the positions of kept vertices are unchanged. `error` receives the
// simplification's deviation, relative to the mesh's extent.
MESH simplify(const MESH &mesh, INDEX triangles, float *error = nullptr);

// The mesh's own size in bytes.
INDEX mesh_bytes(const MESH &mesh);

} // namespace ZARN::SurfaceProc
