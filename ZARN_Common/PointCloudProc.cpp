#include "PointCloudProc.h"

#include "ZARN_Common/PlyReader.h"
#include "__ORN__/orn_debugger.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>

namespace ZARN::PointCloudProc {

namespace {

// Points handed to one worker task at a time.
constexpr INDEX BLOCK = 8192;

INDEX block_count(INDEX n) { return (n + BLOCK - 1) / BLOCK; }

struct BOX {
    double mMin[3] = {std::numeric_limits<double>::max(), std::numeric_limits<double>::max(),
                      std::numeric_limits<double>::max()};
    double mMax[3] = {std::numeric_limits<double>::lowest(), std::numeric_limits<double>::lowest(),
                      std::numeric_limits<double>::lowest()};

    void add(const float *p) {
        for (int a = 0; a < 3; ++a) {
            mMin[a] = std::min<double>(mMin[a], p[a]);
            mMax[a] = std::max<double>(mMax[a], p[a]);
        }
    }
    bool contains(const float *p, double margin) const {
        for (int a = 0; a < 3; ++a)
            if (p[a] < mMin[a] - margin || p[a] > mMax[a] + margin)
                return false;
        return true;
    }
    bool meets(const BOX &other, double margin) const {
        for (int a = 0; a < 3; ++a)
            if (other.mMax[a] < mMin[a] - margin || other.mMin[a] > mMax[a] + margin)
                return false;
        return true;
    }
};

// Which points of the chunks can be copies, or have copies: chunk c's
// points near the box of an earlier chunk whose box meets c's, and chunk
// a's points near the box of a later chunk whose box meets a's. Where a
// chunk meets more than SHORT_LIST others, its points are all taken, so
// that the test costs a few box checks per point whatever the chunks.
class MERGE_BOXES {
public:
    static constexpr INDEX SHORT_LIST = 16;

    MERGE_BOXES(const ORN::Array<CLOUD> &chunks, double radius, ORN::WorkThread &workers)
        : mRadius(radius), mBox(chunks.size()), mEarlier(chunks.size()), mLater(chunks.size()) {
        workers.parallel_for(chunks.size(), [&](INDEX c) {
            for (INDEX i = 0; i < chunks[c].size(); ++i)
                mBox[c].add(&chunks[c].mPosition[3 * i]);
        });
        for (INDEX c = 0; c < chunks.size(); ++c)
            for (INDEX a = 0; a < c; ++a)
                if (chunks[a].size() > 0 && chunks[c].size() > 0 && mBox[a].meets(mBox[c], radius)) {
                    mEarlier[c].append(a);
                    mLater[a].append(c);
                }
    }
    // Point p of chunk c may be a copy of a point of an earlier chunk.
    bool may_be_copy(INDEX c, const float *p) const { return near_any(mEarlier[c], p); }
    // Point p of chunk a may have a copy in a later chunk.
    bool may_have_copy(INDEX a, const float *p) const { return near_any(mLater[a], p); }

private:
    bool near_any(const ORN::Array<INDEX> &list, const float *p) const {
        if (list.size() > SHORT_LIST)
            return true;
        return std::any_of(list.begin(), list.end(), [&](INDEX b) { return mBox[b].contains(p, mRadius); });
    }

    double mRadius;
    ORN::Array<BOX> mBox;
    ORN::Array<ORN::Array<INDEX>> mEarlier, mLater;
};

// The merge's grid over the points that may have copies: cubic cells two
// radii wide, so that every point within `radius` of a query lies in at
// most two cells along each axis (8 in all). A cell is named by its
// integer coordinates, kept as doubles (exact at any distance from the
// origin, so a far point never widens the cells of the others), and found
// through a 64-bit hash of them: the entries are sorted by hash, and a
// directory indexed by the hash's top bits points at each cell's run.
// Points at one same position keep one entry, that of the earliest chunk,
// and the entries of a cell run in chunk order: a query scans only what
// earlier chunks hold there, and coinciding points cost one entry however
// many they are.
class MERGE_GRID {
public:
    MERGE_GRID(const ORN::Array<CLOUD> &chunks, const MERGE_BOXES &boxes, double radius, ORN::WorkThread &workers)
        : mChunks(chunks), mRadius(radius), mCell(2 * radius) {
        ORN::Array<ORN::Array<ENTRY>> part(chunks.size());
        workers.parallel_for(chunks.size(), [&](INDEX c) {
            const CLOUD &cloud = chunks[c];
            for (INDEX i = 0; i < cloud.size(); ++i) {
                const float *p = &cloud.mPosition[3 * i];
                if (!boxes.may_have_copy(c, p))
                    continue;
                double cell[3];
                cell_of(p, cell);
                part[c].append(ENTRY{hash(cell), static_cast<std::uint32_t>(i), static_cast<std::uint16_t>(c)});
            }
        });
        for (ORN::Array<ENTRY> &entries : part) {
            for (const ENTRY &e : entries)
                mEntry.append(e);
            entries = ORN::Array<ENTRY>();
        }
        // By cell, then position, then chunk: one entry per position, the
        // earliest chunk's; then each cell's entries in chunk order.
        std::sort(mEntry.begin(), mEntry.end(), [this](const ENTRY &a, const ENTRY &b) {
            if (a.mKey != b.mKey)
                return a.mKey < b.mKey;
            const int order = compare_position(a, b);
            if (order != 0)
                return order < 0;
            return a.mChunk != b.mChunk ? a.mChunk < b.mChunk : a.mIndex < b.mIndex;
        });
        const auto last = std::unique(mEntry.begin(), mEntry.end(), [this](const ENTRY &a, const ENTRY &b) {
            return a.mKey == b.mKey && compare_position(a, b) == 0;
        });
        mEntry.resize(static_cast<INDEX>(last - mEntry.begin()));
        for (auto run = mEntry.begin(); run != mEntry.end();) {
            const auto end = std::find_if(run, mEntry.end(), [&](const ENTRY &e) { return e.mKey != run->mKey; });
            std::sort(run, end, [](const ENTRY &a, const ENTRY &b) {
                return a.mChunk != b.mChunk ? a.mChunk < b.mChunk : a.mIndex < b.mIndex;
            });
            run = end;
        }
        // The directory: about one slot per entry; slot b starts at the
        // first entry whose hash has the top bits b.
        mBits = 1;
        while (mBits < 30 && (INDEX(1) << mBits) < mEntry.size())
            ++mBits;
        mDirectory = ORN::Array<INDEX>((INDEX(1) << mBits) + 1);
        INDEX e = 0;
        for (INDEX b = 0; b < mDirectory.size(); ++b) {
            while (e < mEntry.size() && INDEX(mEntry[e].mKey >> (64 - mBits)) < b)
                ++e;
            mDirectory[b] = e;
        }
    }

    // True when a point of a chunk before `chunk` lies within the radius of p.
    bool near(const float *p, std::uint16_t chunk) const {
        const double r2 = mRadius * mRadius;
        double cell[3];
        cell_of(p, cell);
        // Along each axis the point's own cell, and the neighbour on the
        // side the point is within the radius of (far from the origin the
        // neighbour may be the cell itself: each cell once).
        double around[3][2];
        int count[3];
        for (int a = 0; a < 3; ++a) {
            around[a][0] = cell[a];
            count[a] = 1;
            const double offset = double(p[a]) - cell[a] * mCell;
            const double side = offset < mRadius ? cell[a] - 1 : (offset > mCell - mRadius ? cell[a] + 1 : cell[a]);
            if (side != cell[a])
                around[a][count[a]++] = side;
        }
        for (int z = 0; z < count[2]; ++z)
            for (int y = 0; y < count[1]; ++y)
                for (int x = 0; x < count[0]; ++x) {
                    const double at[3] = {around[0][x], around[1][y], around[2][z]};
                    const std::uint64_t k = hash(at);
                    const INDEX slot = INDEX(k >> (64 - mBits));
                    for (INDEX e = mDirectory[slot]; e < mDirectory[slot + 1]; ++e) {
                        const ENTRY &it = mEntry[e];
                        if (it.mKey != k || it.mChunk >= chunk)
                            continue;
                        const float *q = position(it);
                        const double d0 = double(p[0]) - q[0], d1 = double(p[1]) - q[1], d2 = double(p[2]) - q[2];
                        if (d0 * d0 + d1 * d1 + d2 * d2 <= r2)
                            return true;
                    }
                }
        return false;
    }

private:
    struct ENTRY {
        std::uint64_t mKey;
        std::uint32_t mIndex;
        std::uint16_t mChunk;
    };

    void cell_of(const float *p, double cell[3]) const {
        for (int a = 0; a < 3; ++a)
            cell[a] = std::floor(double(p[a]) / mCell) + 0.0; // + 0.0: no negative zero
    }
    // A 64-bit mix of the three coordinates (splitmix64's finaliser).
    static std::uint64_t hash(const double cell[3]) {
        std::uint64_t h = 0x9e3779b97f4a7c15ull;
        for (int a = 0; a < 3; ++a) {
            std::uint64_t bits;
            std::memcpy(&bits, &cell[a], sizeof(bits));
            h ^= bits + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
            h = (h ^ (h >> 30)) * 0xbf58476d1ce4e5b9ull;
            h = (h ^ (h >> 27)) * 0x94d049bb133111ebull;
            h ^= h >> 31;
        }
        return h;
    }
    const float *position(const ENTRY &e) const { return &mChunks[e.mChunk].mPosition[3 * INDEX(e.mIndex)]; }
    int compare_position(const ENTRY &a, const ENTRY &b) const {
        const float *p = position(a), *q = position(b);
        for (int k = 0; k < 3; ++k)
            if (p[k] != q[k])
                return p[k] < q[k] ? -1 : 1;
        return 0;
    }

    const ORN::Array<CLOUD> &mChunks;
    double mRadius;
    double mCell;
    ORN::Array<ENTRY> mEntry;
    int mBits = 1;
    ORN::Array<INDEX> mDirectory;
};

// Eigenvector of the smallest eigenvalue of a symmetric 3 x 3 matrix
// (a00 a01 a02 a11 a12 a22), unit length; 0 when the matrix is 0.
std::array<double, 3> least_direction(const double m[6]) {
    const double scale = std::max({std::abs(m[0]), std::abs(m[1]), std::abs(m[2]), std::abs(m[3]), std::abs(m[4]),
                                   std::abs(m[5])});
    if (scale <= 0)
        return {0, 0, 0};
    const double a00 = m[0] / scale, a01 = m[1] / scale, a02 = m[2] / scale, a11 = m[3] / scale,
                 a12 = m[4] / scale, a22 = m[5] / scale;
    // Eigenvalues in closed form (trigonometric solution of the cubic).
    const double q = (a00 + a11 + a22) / 3;
    const double p1 = a01 * a01 + a02 * a02 + a12 * a12;
    const double b00 = a00 - q, b11 = a11 - q, b22 = a22 - q;
    const double p2 = b00 * b00 + b11 * b11 + b22 * b22 + 2 * p1;
    double lambda = q;
    if (p2 > 0) {
        const double p = std::sqrt(p2 / 6);
        const double det = b00 * (b11 * b22 - a12 * a12) - a01 * (a01 * b22 - a12 * a02) + a02 * (a01 * a12 - b11 * a02);
        const double r = std::clamp(det / (2 * p * p * p), -1.0, 1.0);
        const double phi = std::acos(r) / 3;
        // The smallest of the three roots.
        lambda = q + 2 * p * std::cos(phi + 2 * 3.14159265358979323846 / 3);
    }
    // The eigenvector is orthogonal to the rows of A - lambda I: the
    // largest cross product of two rows is the best conditioned.
    const double r0[3] = {a00 - lambda, a01, a02};
    const double r1[3] = {a01, a11 - lambda, a12};
    const double r2[3] = {a02, a12, a22 - lambda};
    const auto cross = [](const double *u, const double *v) {
        return std::array<double, 3>{u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    };
    const std::array<double, 3> c[3] = {cross(r0, r1), cross(r0, r2), cross(r1, r2)};
    int best = 0;
    double best_norm = -1;
    for (int i = 0; i < 3; ++i) {
        const double n = c[i][0] * c[i][0] + c[i][1] * c[i][1] + c[i][2] * c[i][2];
        if (n > best_norm) {
            best_norm = n;
            best = i;
        }
    }
    if (best_norm <= 1e-30) {
        // Two or three equal smallest eigenvalues: any direction orthogonal
        // to a non-zero row serves; with a zero matrix, none does.
        const double *rows[3] = {r0, r1, r2};
        for (const double *row : rows) {
            const double n = std::sqrt(row[0] * row[0] + row[1] * row[1] + row[2] * row[2]);
            if (n > 1e-15) {
                const double other[3] = {std::abs(row[0]) < 0.9 * n ? 1.0 : 0.0, std::abs(row[0]) < 0.9 * n ? 0.0 : 1.0,
                                         0.0};
                std::array<double, 3> v = cross(row, other);
                const double vn = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
                return {v[0] / vn, v[1] / vn, v[2] / vn};
            }
        }
        return {0, 0, 1};
    }
    const double n = std::sqrt(best_norm);
    return {c[best][0] / n, c[best][1] / n, c[best][2] / n};
}

} // namespace

void CLOUD::resize(INDEX n) {
    mPosition.resize(3 * n);
    mNormal.resize(3 * n);
    mColour.resize(3 * n);
    mChunk.resize(n);
}

CLOUD read_chunk(const ORN::String<char> &path, std::uint16_t chunk, const ORN::String<char> &name) {
    // Positions, normals and colours (x y z, nx ny nz, red green blue) go
    // from the file straight into the cloud's interleaved arrays while the
    // reader decodes the vertex element: one pass, no widened copy. A
    // property the reader cannot deliver (a list, another storage class) is
    // kept by it, and its getter below refuses it; the file's own errors
    // come first, as the whole file is read before anything is checked.
    static const char *const FIELD[9] = {"x", "y", "z", "nx", "ny", "nz", "red", "green", "blue"};
    CLOUD cloud;
    bool delivered[9] = {};
    const PlyReader ply(path, [&](PlyReader::DELIVERY &element) {
        if (element.element_index() != element.find_element("vertex"))
            return;
        cloud.resize(element.element_size());
        for (int group = 0; group < 3; ++group) {
            const INDEX property[3] = {element.find_property(FIELD[3 * group]), element.find_property(FIELD[3 * group + 1]),
                                       element.find_property(FIELD[3 * group + 2])};
            if (property[0] == ORN::VAR_NONE || property[1] == ORN::VAR_NONE || property[2] == ORN::VAR_NONE)
                continue;
            for (int a = 0; a < 3; ++a)
                delivered[3 * group + a] = group == 2 ? element.deliver(property[a], cloud.mColour.data() + a, 3)
                                                      : element.deliver(property[a], (group == 0 ? cloud.mPosition : cloud.mNormal).data() + a, 3);
        }
    });
    const INDEX vertex = ply.find_element("vertex");
    if (vertex == ORN::VAR_NONE)
        ORN::console().error("PLY without positions : ", name);
    _DYNAMIC_ASSERT_(vertex != ORN::VAR_NONE);
    const INDEX x = ply.find_property(vertex, "x");
    const INDEX y = ply.find_property(vertex, "y");
    const INDEX z = ply.find_property(vertex, "z");
    if (x == ORN::VAR_NONE || y == ORN::VAR_NONE || z == ORN::VAR_NONE)
        ORN::console().error("PLY without positions : ", name);
    _DYNAMIC_ASSERT_(x != ORN::VAR_NONE && y != ORN::VAR_NONE && z != ORN::VAR_NONE);
    const INDEX normal[3] = {ply.find_property(vertex, "nx"), ply.find_property(vertex, "ny"),
                             ply.find_property(vertex, "nz")};
    const bool has_normal = normal[0] != ORN::VAR_NONE && normal[1] != ORN::VAR_NONE && normal[2] != ORN::VAR_NONE;
    const INDEX colour[3] = {ply.find_property(vertex, "red"), ply.find_property(vertex, "green"),
                             ply.find_property(vertex, "blue")};
    const bool has_colour = colour[0] != ORN::VAR_NONE && colour[1] != ORN::VAR_NONE && colour[2] != ORN::VAR_NONE;

    const INDEX n = ply.element_size(vertex);
    cloud.resize(n);
    // A value the reader kept rather than delivered: its getter checks the
    // storage class (with items, a kept property is one of another class).
    const auto take_values = [&](INDEX property, float *out) {
        const double *v = ply.get_values(vertex, property).data();
        for (INDEX i = 0; i < n; ++i)
            out[3 * i] = static_cast<float>(v[i]);
    };
    const INDEX position[3] = {x, y, z};
    for (int a = 0; a < 3; ++a)
        if (!delivered[a])
            take_values(position[a], cloud.mPosition.data() + a);
    {
        const float *p = cloud.mPosition.data();
        for (INDEX i = 0; i < n; ++i, p += 3) {
            // Positions are finite single-precision numbers: everything after
            // (merging, searches, surfaces) measures distances between them.
            const bool r1x = std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
            if (!r1x)
                ORN::console().error("PLY position not finite : ", name, " : vertex ", i);
            _DYNAMIC_ASSERT_(r1x);
        }
    }
    float *nn = cloud.mNormal.data();
    if (has_normal) {
        for (int a = 0; a < 3; ++a)
            if (!delivered[3 + a])
                take_values(normal[a], nn + a);
        for (INDEX i = 0; i < n; ++i, nn += 3) {
            const double v[3] = {nn[0], nn[1], nn[2]};
            const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
            for (int a = 0; a < 3; ++a)
                nn[a] = length > 0 ? static_cast<float>(v[a] / length) : 0.0f;
        }
    }
    // The fresh cloud holds zeros: normals stay 0 where the file has none,
    // and the chunk number is written only when it is not 0.
    if (has_colour) {
        for (int a = 0; a < 3; ++a) {
            if (delivered[6 + a])
                continue;
            const ORN::uint64 *channel = ply.get_bytes(vertex, colour[a]).data();
            for (INDEX i = 0; i < n; ++i)
                cloud.mColour[3 * i + a] = static_cast<std::uint8_t>(std::min<ORN::uint64>(channel[i], 255));
        }
    } else {
        std::fill(cloud.mColour.begin(), cloud.mColour.end(), std::uint8_t(160));
    }
    if (chunk != 0)
        std::fill(cloud.mChunk.begin(), cloud.mChunk.end(), chunk);
    return cloud;
}

MERGED merge_chunks(ORN::Array<CLOUD> &chunks, double radius, ORN::WorkThread &workers) {
    _DYNAMIC_ASSERT_(radius > 0);
    _DYNAMIC_ASSERT_(chunks.size () <= 65536);
    const INDEX count = chunks.size();
    // keep[c][i]: point i of chunk c is no copy of a point of an earlier chunk.
    ORN::Array<ORN::Array<std::uint8_t>> keep(count);
    {
        const MERGE_BOXES boxes(chunks, radius, workers);
        const MERGE_GRID grid(chunks, boxes, radius, workers);
        workers.parallel_for(count, [&](INDEX c) {
            const CLOUD &later = chunks[c];
            ORN::Array<std::uint8_t> &mask = keep[c];
            mask = ORN::Array<std::uint8_t>(later.size());
            for (INDEX i = 0; i < later.size(); ++i) {
                const float *p = &later.mPosition[3 * i];
                mask[i] = !(boxes.may_be_copy(c, p) && grid.near(p, static_cast<std::uint16_t>(c)));
            }
        });
    }

    MERGED merged;
    INDEX total = 0;
    ORN::Array<INDEX> offset(count);
    for (INDEX c = 0; c < count; ++c) {
        offset[c] = total;
        total += std::count(keep[c].begin(), keep[c].end(), std::uint8_t(1));
    }
    merged.mCloud.resize(total);
    ORN::Array<ORN::Array<float>> dropped(count);
    workers.parallel_for(count, [&](INDEX c) {
        const CLOUD &from = chunks[c];
        CLOUD &to = merged.mCloud;
        INDEX j = offset[c];
        for (INDEX i = 0; i < from.size(); ++i) {
            if (!keep[c][i]) {
                dropped[c].append(from.mPosition[3 * i + 2]);
                continue;
            }
            std::copy_n(&from.mPosition[3 * i], 3, &to.mPosition[3 * j]);
            std::copy_n(&from.mNormal[3 * i], 3, &to.mNormal[3 * j]);
            std::copy_n(&from.mColour[3 * i], 3, &to.mColour[3 * j]);
            to.mChunk[j] = from.mChunk[i];
            ++j;
        }
        // The chunk's own arrays are no longer needed.
        chunks[c] = CLOUD();
    });
    for (const auto &heights : dropped)
        for (float z : heights)
            merged.mDuplicateHeight.append(z);
    return merged;
}

KD_Tree build_tree(const CLOUD &cloud) {
    const float *p = cloud.mPosition.data();
    return KD_Tree(cloud.size(), [p](INDEX i) {
        return ORN::Vector<double>{double(p[3 * i]), double(p[3 * i + 1]), double(p[3 * i + 2])};
    });
}

ORN::Array<float> neighbour_distance(const KD_Tree &tree, const CLOUD &cloud, INDEX k, ORN::WorkThread &workers,
                                     NEAREST_ROWS *unoriented) {
    _DYNAMIC_ASSERT_(k > 0 && k < cloud.size ());
    const auto has_normal = [&cloud](INDEX i) {
        const float *n = &cloud.mNormal[3 * i];
        return n[0] != 0 || n[1] != 0 || n[2] != 0;
    };
    // Where each block's points without normals start in the table.
    ORN::Array<INDEX> first(block_count(cloud.size()) + 1);
    if (unoriented != nullptr) {
        _DYNAMIC_ASSERT_(cloud.size () <= INDEX (std::numeric_limits<std::uint32_t>::max ()));
        workers.parallel_for(block_count(cloud.size()), [&](INDEX b) {
            for (INDEX i = b * BLOCK; i < std::min(cloud.size(), (b + 1) * BLOCK); ++i)
                first[b + 1] += !has_normal(i);
        });
        for (INDEX b = 1; b < first.size(); ++b)
            first[b] += first[b - 1];
        unoriented->mWidth = k + 1;
        unoriented->mPoint = ORN::Array<std::uint32_t>(first.back());
        unoriented->mRow = ORN::Array<std::uint32_t>(first.back() * (k + 1));
    }
    ORN::Array<float> distance(cloud.size());
    workers.parallel_for(block_count(cloud.size()), [&](INDEX b) {
        ORN::Array<ORN::PACK<INDEX, double>> near;
        ORN::Vector<double> query(3);
        INDEX slot = first[b];
        const INDEX last = std::min(cloud.size(), (b + 1) * BLOCK);
        for (INDEX i = b * BLOCK; i < last; ++i) {
            for (int a = 0; a < 3; ++a)
                query.data()[a] = cloud.mPosition[3 * i + a];
            tree.find_nns(query, k + 1, near);
            double sum = 0;
            INDEX used = 0;
            for (const auto &r : near)
                if (r.mP1 != i && used < k) {
                    sum += r.mP2;
                    ++used;
                }
            distance[i] = static_cast<float>(sum / double(used));
            if (unoriented != nullptr && !has_normal(i)) {
                unoriented->mPoint[slot] = static_cast<std::uint32_t>(i);
                for (INDEX j = 0; j <= k; ++j)
                    unoriented->mRow[slot * (k + 1) + j] = static_cast<std::uint32_t>(near[j].mP1);
                ++slot;
            }
        }
    });
    return distance;
}

OUTLIERS find_outliers(const ORN::Array<float> &distance, double ratio) {
    OUTLIERS result;
    const INDEX n = distance.size();
    result.mOutlier = ORN::Array<std::uint8_t>(n);
    if (n == 0)
        return result;
    double sum = 0, square = 0;
    for (float d : distance) {
        sum += d;
        square += double(d) * d;
    }
    const double mean = sum / double(n);
    const double deviation = std::sqrt(std::max(0.0, square / double(n) - mean * mean));
    const double limit = mean + ratio * deviation;
    double inlier_sum = 0;
    for (INDEX i = 0; i < n; ++i) {
        const bool outlier = distance[i] > limit;
        result.mOutlier[i] = outlier;
        result.mCount += outlier;
        if (!outlier)
            inlier_sum += distance[i];
    }
    result.mSpacing = n > result.mCount ? inlier_sum / double(n - result.mCount) : mean;
    return result;
}

CLOUD remove_points(const CLOUD &cloud, const ORN::Array<std::uint8_t> &remove, ORN::Array<INDEX> *kept) {
    _DYNAMIC_ASSERT_(remove.size () == cloud.size ());
    const INDEX n = cloud.size() - std::count(remove.begin(), remove.end(), std::uint8_t(1));
    CLOUD out;
    out.resize(n);
    if (kept != nullptr)
        *kept = ORN::Array<INDEX>(n);
    INDEX j = 0;
    for (INDEX i = 0; i < cloud.size(); ++i) {
        if (remove[i])
            continue;
        std::copy_n(&cloud.mPosition[3 * i], 3, &out.mPosition[3 * j]);
        std::copy_n(&cloud.mNormal[3 * i], 3, &out.mNormal[3 * j]);
        std::copy_n(&cloud.mColour[3 * i], 3, &out.mColour[3 * j]);
        out.mChunk[j] = cloud.mChunk[i];
        if (kept != nullptr)
            (*kept)[j] = i;
        ++j;
    }
    return out;
}

namespace {

// The normals of the cloud points that have none, each fitted to the tree
// rows `rows (i, near)` gives for point i (at most k + 1, nearest first).
template <class ROWS>
INDEX fit_normals(const CLOUD &tree_cloud, const ORN::Array<std::uint8_t> &skip, CLOUD &cloud,
                  const ORN::Array<INDEX> &index, INDEX k, const ORN::Array<ORN::Vector<double>> &viewpoint,
                  ORN::WorkThread &workers, ROWS &&rows) {
    _DYNAMIC_ASSERT_(k >= 2);
    _DYNAMIC_ASSERT_(index.size () == cloud.size ());
    ORN::Array<INDEX> estimated(block_count(cloud.size()));
    workers.parallel_for(block_count(cloud.size()), [&](INDEX b) {
        ORN::Array<INDEX> near;
        const INDEX last = std::min(cloud.size(), (b + 1) * BLOCK);
        for (INDEX i = b * BLOCK; i < last; ++i) {
            float *normal = &cloud.mNormal[3 * i];
            if (normal[0] != 0 || normal[1] != 0 || normal[2] != 0)
                continue;
            const float *p = &cloud.mPosition[3 * i];
            rows(i, near);
            // Covariance about the neighbourhood's centroid; the neighbours
            // are at most k + 1 points, the point itself among them.
            double sum[3] = {0, 0, 0}, product[6] = {0, 0, 0, 0, 0, 0};
            INDEX used = 0;
            for (const INDEX row : near) {
                if (used == k + 1 || (skip.size() > 0 && skip[row] && row != index[i]))
                    continue;
                const float *q = &tree_cloud.mPosition[3 * row];
                const double v[3] = {double(q[0]) - p[0], double(q[1]) - p[1], double(q[2]) - p[2]};
                sum[0] += v[0], sum[1] += v[1], sum[2] += v[2];
                product[0] += v[0] * v[0], product[1] += v[0] * v[1], product[2] += v[0] * v[2];
                product[3] += v[1] * v[1], product[4] += v[1] * v[2], product[5] += v[2] * v[2];
                ++used;
            }
            const double m[3] = {sum[0] / double(used), sum[1] / double(used), sum[2] / double(used)};
            const double covariance[6] = {product[0] / double(used) - m[0] * m[0], product[1] / double(used) - m[0] * m[1],
                                          product[2] / double(used) - m[0] * m[2], product[3] / double(used) - m[1] * m[1],
                                          product[4] / double(used) - m[1] * m[2], product[5] / double(used) - m[2] * m[2]};
            std::array<double, 3> n = used >= 3 ? least_direction(covariance) : std::array<double, 3>{0, 0, 0};
            // Turned towards the chunk's viewpoint; with too few neighbours
            // the direction of the viewpoint itself stands in.
            const ORN::Vector<double> &eye = viewpoint[cloud.mChunk[i]];
            const double to_eye[3] = {eye.data()[0] - p[0], eye.data()[1] - p[1], eye.data()[2] - p[2]};
            if (n[0] == 0 && n[1] == 0 && n[2] == 0) {
                const double length = std::sqrt(to_eye[0] * to_eye[0] + to_eye[1] * to_eye[1] + to_eye[2] * to_eye[2]);
                n = length > 0 ? std::array<double, 3>{to_eye[0] / length, to_eye[1] / length, to_eye[2] / length}
                               : std::array<double, 3>{0, 0, 1};
            } else if (n[0] * to_eye[0] + n[1] * to_eye[1] + n[2] * to_eye[2] < 0) {
                n = {-n[0], -n[1], -n[2]};
            }
            for (int a = 0; a < 3; ++a)
                normal[a] = static_cast<float>(n[a]);
            ++estimated[b];
        }
    });
    INDEX total = 0;
    for (INDEX e : estimated)
        total += e;
    return total;
}

} // namespace

INDEX estimate_normals(const KD_Tree &tree, const CLOUD &tree_cloud, const ORN::Array<std::uint8_t> &skip, CLOUD &cloud,
                       const ORN::Array<INDEX> &index, INDEX k, const ORN::Array<ORN::Vector<double>> &viewpoint,
                       ORN::WorkThread &workers) {
    const INDEX ask = std::min(k + 1, tree_cloud.size());
    return fit_normals(tree_cloud, skip, cloud, index, k, viewpoint, workers, [&](INDEX i, ORN::Array<INDEX> &near) {
        thread_local ORN::Array<ORN::PACK<INDEX, double>> found;
        ORN::Vector<double> query(3);
        for (int a = 0; a < 3; ++a)
            query.data()[a] = cloud.mPosition[3 * i + a];
        tree.find_nns(query, ask, found);
        near.resize(found.size());
        for (INDEX j = 0; j < found.size(); ++j)
            near[j] = found[j].mP1;
    });
}

INDEX estimate_normals(const NEAREST_ROWS &near, const CLOUD &tree_cloud, const ORN::Array<std::uint8_t> &skip,
                       CLOUD &cloud, const ORN::Array<INDEX> &index, INDEX k,
                       const ORN::Array<ORN::Vector<double>> &viewpoint, ORN::WorkThread &workers) {
    _DYNAMIC_ASSERT_(near.mWidth == std::min (k + 1, tree_cloud.size ()));
    return fit_normals(tree_cloud, skip, cloud, index, k, viewpoint, workers, [&](INDEX i, ORN::Array<INDEX> &rows) {
        const auto at = std::lower_bound(near.mPoint.begin(), near.mPoint.end(), static_cast<std::uint32_t>(index[i]));
        const bool r1x = at != near.mPoint.end() && INDEX(*at) == index[i];
        _DYNAMIC_ASSERT_(r1x);
        const INDEX slot = INDEX(at - near.mPoint.begin());
        rows.resize(near.mWidth);
        for (INDEX j = 0; j < near.mWidth; ++j)
            rows[j] = near.mRow[slot * near.mWidth + j];
    });
}

std::uint8_t floor_of(const ORN::Array<FLOOR> &floors, double z) {
    std::uint8_t best = 0;
    double best_gap = std::numeric_limits<double>::max();
    for (INDEX f = 0; f < floors.size(); ++f) {
        const double gap = z < floors[f].mMin ? floors[f].mMin - z : (z >= floors[f].mMax ? z - floors[f].mMax : 0.0);
        if (gap < best_gap) {
            best_gap = gap;
            best = static_cast<std::uint8_t>(f);
        }
    }
    return best;
}

ORN::Array<std::uint8_t> assign_floors(const CLOUD &cloud, const ORN::Array<FLOOR> &floors) {
    _DYNAMIC_ASSERT_(!floors.empty () && floors.size () <= 256);
    ORN::Array<std::uint8_t> floor(cloud.size());
    for (INDEX i = 0; i < cloud.size(); ++i)
        floor[i] = floor_of(floors, cloud.mPosition[3 * i + 2]);
    return floor;
}

ORN::Array<FLOOR> find_floors(const CLOUD &cloud) {
    ORN::Array<FLOOR> floors;
    if (cloud.size() == 0)
        return floors;
    double low = std::numeric_limits<double>::max(), high = std::numeric_limits<double>::lowest();
    for (INDEX i = 0; i < cloud.size(); ++i) {
        low = std::min<double>(low, cloud.mPosition[3 * i + 2]);
        high = std::max<double>(high, cloud.mPosition[3 * i + 2]);
    }
    // Histograms of the heights of points on horizontal surfaces, 5 cm bins
    // counted from the lowest point. Only the bins that hold points are
    // kept (a point far above the others adds one bin, not the bins of the
    // whole range); a bin is named by its index, kept as a double so that
    // no height range overflows it.
    constexpr double BIN = 0.05;
    struct BIN_COUNT {
        INDEX mCount = 0;
        double mSum = 0;
    };
    using HISTOGRAM = std::map<double, BIN_COUNT>;
    HISTOGRAM up, down;
    for (INDEX i = 0; i < cloud.size(); ++i) {
        const float nz = cloud.mNormal[3 * i + 2];
        const double z = cloud.mPosition[3 * i + 2];
        const double b = std::floor((z - low) / BIN);
        if (nz > 0.9f) {
            ++up[b].mCount;
            up[b].mSum += z;
        } else if (nz < -0.9f) {
            ++down[b].mCount;
            down[b].mSum += z;
        }
    }
    // Slabs: bins holding at least a third of the fullest bin of their
    // kind and more than either neighbour (ties go to the lower bin); each
    // at the mean height of its bin's points.
    const auto peaks = [](const HISTOGRAM &h) {
        INDEX top = 0;
        for (const auto &[b, count] : h)
            top = std::max(top, count.mCount);
        const auto count_at = [&h](double b) {
            const auto it = h.find(b);
            return it == h.end() ? INDEX(0) : it->second.mCount;
        };
        ORN::Array<double> found;
        for (const auto &[b, count] : h) {
            const INDEX before = b - 1 != b ? count_at(b - 1) : 0;
            const INDEX after = b + 1 != b ? count_at(b + 1) : 0;
            if (3 * count.mCount >= top && count.mCount > before && count.mCount >= after)
                found.append(count.mSum / double(count.mCount));
        }
        return found;
    };
    const ORN::Array<double> slab = peaks(up);
    const ORN::Array<double> ceiling = peaks(down);
    for (INDEX s = 0; s < slab.size(); ++s) {
        const double next = s + 1 < slab.size() ? slab[s + 1] : std::numeric_limits<double>::max();
        // The highest ceiling between this floor slab and the next.
        bool covered = false;
        double top = 0;
        for (double c : ceiling)
            if (c > slab[s] && c < next) {
                top = c;
                covered = true;
            }
        if (!covered)
            continue;
        FLOOR f;
        f.mName = "floor_" + std::to_string(floors.size());
        f.mMin = floors.empty() ? low : floors.back().mMax;
        f.mMax = next == std::numeric_limits<double>::max() ? high + BIN : (top + next) / 2;
        floors.append(std::move(f));
    }
    return floors;
}

} // namespace ZARN::PointCloudProc
