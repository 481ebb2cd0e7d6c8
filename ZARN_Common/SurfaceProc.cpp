#include "SurfaceProc.h"

#include <meshoptimizer.h>
#ifdef _WIN32
#include "__ORN__/orn_debugger.h"
#else
#include <open3d/geometry/PointCloud.h>
#include <open3d/geometry/TriangleMesh.h>
#endif

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace ZARN::SurfaceProc {

namespace {

// Keeps the triangles marked in `keep` and the vertices they use, in their
// order.
MESH compact(const MESH &mesh, const ORN::Array<std::uint8_t> &keep) {
    MESH out;
    ORN::Array<std::uint32_t> remap(mesh.vertex_count());
    std::fill(remap.begin(), remap.end(), std::numeric_limits<std::uint32_t>::max());
    const bool colour = !mesh.mColour.empty();
    for (INDEX t = 0; t < mesh.triangle_count(); ++t) {
        if (!keep[t])
            continue;
        for (int c = 0; c < 3; ++c) {
            const std::uint32_t v = mesh.mTriangle[3 * t + c];
            if (remap[v] == std::numeric_limits<std::uint32_t>::max()) {
                remap[v] = static_cast<std::uint32_t>(out.vertex_count());
                for (int a = 0; a < 3; ++a)
                    out.mVertex.append(mesh.mVertex[3 * INDEX(v) + a]);
                if (colour)
                    for (int a = 0; a < 3; ++a)
                        out.mColour.append(mesh.mColour[3 * INDEX(v) + a]);
            }
            out.mTriangle.append(remap[v]);
        }
    }
    return out;
}

} // namespace

double extent(const PointCloudProc::CLOUD &points, SELECTION selection) {
    float low[3] = {std::numeric_limits<float>::max(), std::numeric_limits<float>::max(),
                    std::numeric_limits<float>::max()};
    float high[3] = {std::numeric_limits<float>::lowest(), std::numeric_limits<float>::lowest(),
                     std::numeric_limits<float>::lowest()};
    bool any = false;
    for (INDEX i = 0; i < points.size(); ++i) {
        if (!selection.has(i))
            continue;
        any = true;
        for (int a = 0; a < 3; ++a) {
            low[a] = std::min(low[a], points.mPosition[3 * i + a]);
            high[a] = std::max(high[a], points.mPosition[3 * i + a]);
        }
    }
    double out = 0;
    for (int a = 0; a < 3 && any; ++a)
        out = std::max(out, double(high[a]) - low[a]);
    return out;
}

int surface_depth(const PointCloudProc::CLOUD &points, double spacing, SELECTION selection) {
    const double extent = SurfaceProc::extent(points, selection);
    // Open3D's Poisson grid spans 1.1 times the extent.
    const double cells = 1.1 * extent / std::max(2 * spacing, 1e-6);
    const int depth = static_cast<int>(std::ceil(std::log2(std::max(cells, 1.0))));
    return std::clamp(depth, 5, 10);
}

#ifdef _WIN32
// The Windows build has no Open3D: the surface step fails, saying so.
MESH reconstruct(const PointCloudProc::CLOUD &points, int, int, SELECTION) {
    ORN::console().error("reconstruct_surface : ", points.size(),
                         " points : the Windows build has no surface reconstruction library (Open3D)");
    constexpr bool surface_library = false;
    _DYNAMIC_ASSERT_(surface_library);
    throw ORN::Exception("unreachable");
}
#else
MESH reconstruct(const PointCloudProc::CLOUD &points, int depth, int threads, SELECTION selection) {
    _DYNAMIC_ASSERT_(extent (points, selection) > 0);
    INDEX n = 0;
    for (INDEX i = 0; i < points.size(); ++i)
        n += selection.has(i);
    // The solver's own input: double precision, colours from 0 to 1.
    open3d::geometry::PointCloud cloud;
    cloud.points_.resize(static_cast<std::size_t>(n));
    cloud.normals_.resize(static_cast<std::size_t>(n));
    cloud.colors_.resize(static_cast<std::size_t>(n));
    std::size_t k = 0;
    for (INDEX i = 0; i < points.size(); ++i) {
        if (!selection.has(i))
            continue;
        const float *p = &points.mPosition[3 * i];
        const float *q = &points.mNormal[3 * i];
        const std::uint8_t *c = &points.mColour[3 * i];
        cloud.points_[k] = Eigen::Vector3d(p[0], p[1], p[2]);
        cloud.normals_[k] = Eigen::Vector3d(q[0], q[1], q[2]);
        cloud.colors_[k] = Eigen::Vector3d(c[0] / 255.0, c[1] / 255.0, c[2] / 255.0);
        ++k;
    }
    // Open3D sizes its per-thread allocators by OpenMP's thread count: more
    // solver threads than that write past them.
    const int solvers = std::clamp(threads, 1, std::max(1, omp_get_max_threads()));
    auto [surface, density] = open3d::geometry::TriangleMesh::CreateFromPointCloudPoisson(
        cloud, static_cast<std::size_t>(depth), 0.0f, 1.1f, false, solvers);
    // The input and the densities are done with: their memory goes before
    // the surface is copied out.
    cloud.Clear();
    std::vector<Eigen::Vector3d>().swap(cloud.points_);
    std::vector<Eigen::Vector3d>().swap(cloud.normals_);
    std::vector<Eigen::Vector3d>().swap(cloud.colors_);
    std::vector<double>().swap(density);
    MESH mesh;
    mesh.mVertex = ORN::Array<float>(static_cast<INDEX>(surface->vertices_.size()) * 3);
    mesh.mColour = ORN::Array<std::uint8_t>(static_cast<INDEX>(surface->vertices_.size()) * 3);
    const bool colour = surface->HasVertexColors();
    for (std::size_t v = 0; v < surface->vertices_.size(); ++v)
        for (int a = 0; a < 3; ++a) {
            mesh.mVertex[INDEX(3 * v) + a] = static_cast<float>(surface->vertices_[v][a]);
            mesh.mColour[INDEX(3 * v) + a] =
                colour ? static_cast<std::uint8_t>(std::lround(std::clamp(surface->vertex_colors_[v][a], 0.0, 1.0) * 255))
                       : std::uint8_t(160);
        }
    mesh.mTriangle = ORN::Array<std::uint32_t>(static_cast<INDEX>(surface->triangles_.size()) * 3);
    for (std::size_t t = 0; t < surface->triangles_.size(); ++t)
        for (int a = 0; a < 3; ++a)
            mesh.mTriangle[INDEX(3 * t) + a] = static_cast<std::uint32_t>(surface->triangles_[t][a]);
    return mesh;
}
#endif

MESH trim(const MESH &mesh, const KD_Tree &tree, const ORN::Array<std::uint8_t> &skip, double distance, double low,
          double high, ORN::WorkThread &workers) {
    // Whether each vertex is supported: near a kept point, within the range.
    constexpr INDEX BLOCK = 8192;
    constexpr INDEX ASK = 4;
    const INDEX n = mesh.vertex_count();
    ORN::Array<std::uint8_t> supported(n);
    workers.parallel_for((n + BLOCK - 1) / BLOCK, [&](INDEX b) {
        ORN::Array<ORN::PACK<INDEX, double>> near;
        ORN::Vector<double> query(3);
        for (INDEX v = b * BLOCK; v < std::min(n, (b + 1) * BLOCK); ++v) {
            const float *p = &mesh.mVertex[3 * v];
            if (p[2] < low || p[2] >= high)
                continue;
            for (int a = 0; a < 3; ++a)
                query.data()[a] = p[a];
            if (skip.empty()) {
                supported[v] = tree.find_nn(query).mP2 <= distance;
                continue;
            }
            tree.find_nns(query, ASK, near);
            for (const auto &r : near)
                if (!skip[r.mP1]) {
                    supported[v] = r.mP2 <= distance;
                    break;
                }
        }
    });
    ORN::Array<std::uint8_t> keep(mesh.triangle_count());
    for (INDEX t = 0; t < mesh.triangle_count(); ++t) {
        const std::uint32_t *v = &mesh.mTriangle[3 * t];
        keep[t] = supported[v[0]] && supported[v[1]] && supported[v[2]] && v[0] != v[1] && v[1] != v[2] && v[0] != v[2];
    }
    return compact(mesh, keep);
}

MESH floor_part(const MESH &mesh, const ORN::Array<PointCloudProc::FLOOR> &floors, std::uint8_t floor) {
    ORN::Array<std::uint8_t> keep(mesh.triangle_count());
    for (INDEX t = 0; t < mesh.triangle_count(); ++t) {
        double z = 0;
        for (int c = 0; c < 3; ++c)
            z += mesh.mVertex[3 * INDEX(mesh.mTriangle[3 * t + c]) + 2];
        keep[t] = PointCloudProc::floor_of(floors, z / 3) == floor;
    }
    return compact(mesh, keep);
}

MESH simplify(const MESH &mesh, INDEX triangles, float *error) {
    if (error != nullptr)
        *error = 0;
    if (triangles >= mesh.triangle_count())
        return mesh;
    const std::size_t target = static_cast<std::size_t>(std::max<INDEX>(triangles, 1)) * 3;
    std::vector<std::uint32_t> index(mesh.mTriangle.size());
    float deviation = 0;
    // Edge collapses with no bound on the error, so that the count is met
    // wherever the mesh's topology allows.
    std::size_t count = meshopt_simplify(index.data(), mesh.mTriangle.data(), mesh.mTriangle.size(),
                                         mesh.mVertex.data(), static_cast<std::size_t>(mesh.vertex_count()),
                                         3 * sizeof(float), target, 1.0f, 0, &deviation);
    if (count > target + target / 20) {
        // Collapses stalled (thin parts, borders): the sloppy simplifier
        // clusters vertices on a grid until the count fits.
        count = meshopt_simplifySloppy(index.data(), mesh.mTriangle.data(), mesh.mTriangle.size(), mesh.mVertex.data(),
                                       static_cast<std::size_t>(mesh.vertex_count()), 3 * sizeof(float), target, 1.0f,
                                       &deviation);
    }
    if (error != nullptr)
        *error = deviation;
    MESH reduced;
    reduced.mVertex = mesh.mVertex;
    reduced.mColour = mesh.mColour;
    reduced.mTriangle = ORN::Array<std::uint32_t>(static_cast<INDEX>(count));
    std::copy_n(index.begin(), count, reduced.mTriangle.begin());
    ORN::Array<std::uint8_t> keep(reduced.triangle_count());
    std::fill(keep.begin(), keep.end(), std::uint8_t(1));
    return compact(reduced, keep);
}

INDEX mesh_bytes(const MESH &mesh) {
    return mesh.mVertex.size() * INDEX(sizeof(float)) + mesh.mColour.size() + mesh.mTriangle.size() * INDEX(sizeof(std::uint32_t));
}

} // namespace ZARN::SurfaceProc
