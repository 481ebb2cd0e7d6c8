#include "KD_Tree.h"

#include <flann/flann.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

namespace ZARN {

using ORN::INDEX;

class KD_Tree::Private::Implement : public KD_Tree::Abstract {
public:
    Implement(INDEX len, const ORN::Function<ORN::Vector<double>(INDEX)> &point);
    ~Implement() override = default;

    ORN::PACK<INDEX, double> find_nn(const ORN::Vector<double> &point) const override;
    void find_nns(const ORN::Vector<double> &point, INDEX n, ORN::Array<ORN::PACK<INDEX, double>> &out) const override;

private:
    // Row i holds x, y, z of point i. FLANN keeps pointers into it, so it
    // is declared before the index and outlives it.
    ORN::Array<double> mMatrix;
    INDEX mSize;
    std::unique_ptr<flann::KDTreeSingleIndex<flann::L2<double>>> mIndex;
    // Exact search: a single kd-tree ignores `checks` (stated unlimited)
    // and prunes only by eps, which is 0; results come nearest first. Each
    // query walks the tree on the calling thread with its own result set,
    // so concurrent callers share nothing mutable.
    flann::SearchParams mSearchParams;
};

KD_Tree::Private::Implement::Implement(INDEX len, const ORN::Function<ORN::Vector<double>(INDEX)> &point)
    : mSize(len), mSearchParams(flann::FLANN_CHECKS_UNLIMITED, 0.0f, true) {
    _DYNAMIC_ASSERT_(len > 0);
    mSearchParams.cores = 1;
    mSearchParams.use_heap = flann::FLANN_Undefined;

    mMatrix = ORN::Array<double>(len * 3);
    double *row = mMatrix.data();
    for (INDEX i = 0; i < len; ++i, row += 3) {
        const ORN::Vector<double> value = point(i);
        _DYNAMIC_ASSERT_(value.size () >= 3);
        row[0] = value.data()[0];
        row[1] = value.data()[1];
        row[2] = value.data()[2];
    }
    // FLANN's defaults for this index: leaves of at most 10 points, data
    // reordered into the tree's own copy for locality.
    mIndex = std::make_unique<flann::KDTreeSingleIndex<flann::L2<double>>>(
        flann::Matrix<double>(mMatrix.data(), static_cast<std::size_t>(len), 3), flann::KDTreeSingleIndexParams());
    mIndex->buildIndex();
}

namespace {

// FLANN's own k-nearest search keeps its results in one of two sets,
// chosen by k: up to this many, a sorted array; beyond it, a heap. The two
// treat equal distances differently, and the answers follow FLANN's.
constexpr std::size_t HEAP_THRESHOLD = KNN_HEAP_THRESHOLD;

// The bound the tree's walk prunes with, for a set whose worst held
// distance is `worst`. FLANN enters a branch whose distance equals the
// bound, although no point there could be taken: with many points at one
// place the worst distance is 0 and every query would walk the whole tree.
// Once the set holds k points at distance 0, nothing can be taken, and a
// negative bound says so.
inline double searched(double worst) noexcept { return worst > 0 ? worst : -1.0; }

// The k nearest points seen so far, nearest first, in caller-provided
// storage. Same policy as FLANN's own simple k-nearest set (a point at the
// current worst distance is not taken; equal distances keep arrival order),
// without its per-query allocation.
class NEAREST final : public flann::ResultSet<double> {
public:
    NEAREST(std::size_t capacity, std::size_t *index, double *distance) noexcept
        : mCapacity(capacity), mIndex(index), mDistance(distance) {}

    std::size_t size() const noexcept { return mCount; }
    bool full() const override { return mCount == mCapacity; }
    double worstDist() const override { return searched(mWorst); }
    void addPoint(double dist, std::size_t index) override {
        if (dist >= mWorst)
            return;
        if (mCount < mCapacity)
            ++mCount;
        std::size_t i = mCount - 1;
        for (; i > 0 && mDistance[i - 1] > dist; --i) {
            mDistance[i] = mDistance[i - 1];
            mIndex[i] = mIndex[i - 1];
        }
        mDistance[i] = dist;
        mIndex[i] = index;
        if (mCount == mCapacity)
            mWorst = mDistance[mCapacity - 1];
    }

private:
    std::size_t mCapacity;
    std::size_t *mIndex;
    double *mDistance;
    std::size_t mCount = 0;
    double mWorst = std::numeric_limits<double>::max();
};

// The k nearest points for k above HEAP_THRESHOLD, with the policy of
// FLANN's heap set: every point is taken until k are held; from then on a
// point nearer than the worst held one replaces the last of them by
// (distance, index), so that among equal distances the largest index leaves
// first; at the end they are sorted by distance, then index.
class FARTHEST_HEAP final : public flann::ResultSet<double> {
public:
    struct ENTRY {
        double mDistance;
        std::size_t mIndex;
        bool operator<(const ENTRY &other) const noexcept {
            return mDistance < other.mDistance || (mDistance == other.mDistance && mIndex < other.mIndex);
        }
    };

    FARTHEST_HEAP(std::size_t capacity, ENTRY *entry) noexcept : mCapacity(capacity), mEntry(entry) {}

    std::size_t size() const noexcept { return mCount; }
    bool full() const override { return mFull; }
    double worstDist() const override { return searched(mWorst); }
    void addPoint(double dist, std::size_t index) override {
        if (dist >= mWorst)
            return;
        if (mCount == mCapacity)
            std::pop_heap(mEntry, mEntry + mCount--);
        mEntry[mCount++] = ENTRY{dist, index};
        if (mFull)
            std::push_heap(mEntry, mEntry + mCount);
        if (mCount == mCapacity) {
            if (!mFull) {
                std::make_heap(mEntry, mEntry + mCount);
                mFull = true;
            }
            mWorst = mEntry[0].mDistance;
        }
    }
    void sort() noexcept { std::sort(mEntry, mEntry + mCount); }

private:
    std::size_t mCapacity;
    ENTRY *mEntry;
    std::size_t mCount = 0;
    bool mFull = false;
    double mWorst = std::numeric_limits<double>::max();
};

} // namespace

ORN::PACK<INDEX, double> KD_Tree::Private::Implement::find_nn(const ORN::Vector<double> &point) const {
    _DYNAMIC_ASSERT_(point.size () >= 3);
    const double query[3] = {point.data()[0], point.data()[1], point.data()[2]};
    std::size_t index = 0;
    double distance = 0;
    NEAREST nearest(1, &index, &distance);
    mIndex->findNeighbors(nearest, query, mSearchParams);
    const int r1x = static_cast<int>(nearest.size());
    _DYNAMIC_ASSERT_(r1x == 1);
    return {static_cast<INDEX>(index), std::sqrt(distance)};
}

void KD_Tree::Private::Implement::find_nns(const ORN::Vector<double> &point, INDEX n, ORN::Array<ORN::PACK<INDEX, double>> &out) const {
    _DYNAMIC_ASSERT_(point.size () >= 3);
    _DYNAMIC_ASSERT_(n >= 0 && n <= std::numeric_limits<int>::max ());
    if (n == 0) {
        out.clear();
        return;
    }
    const double query[3] = {point.data()[0], point.data()[1], point.data()[2]};
    // Never ask for more than the tree holds: the shortfall shows in the
    // count without sizing the result by an arbitrary n.
    const std::size_t knn = static_cast<std::size_t>(n < mSize ? n : mSize);
    if (knn > HEAP_THRESHOLD) {
        std::vector<FARTHEST_HEAP::ENTRY> entry(knn);
        FARTHEST_HEAP nearest(knn, entry.data());
        mIndex->findNeighbors(nearest, query, mSearchParams);
        const int r1x = static_cast<int>(nearest.size());
        _DYNAMIC_ASSERT_(r1x == int(n));
        nearest.sort();
        out.resize(n);
        ORN::PACK<INDEX, double> *target = out.data();
        for (INDEX k = 0; k < n; ++k)
            target[k] = {static_cast<INDEX>(entry[k].mIndex), std::sqrt(entry[k].mDistance)};
        return;
    }
    constexpr std::size_t SMALL = 32;
    std::size_t small_index[SMALL];
    double small_distance[SMALL];
    std::vector<std::size_t> large_index;
    std::vector<double> large_distance;
    std::size_t *index = small_index;
    double *distance = small_distance;
    if (knn > SMALL) {
        large_index.resize(knn);
        large_distance.resize(knn);
        index = large_index.data();
        distance = large_distance.data();
    }
    NEAREST nearest(knn, index, distance);
    mIndex->findNeighbors(nearest, query, mSearchParams);
    const int r1x = static_cast<int>(nearest.size());
    _DYNAMIC_ASSERT_(r1x == int(n));
    out.resize(n);
    ORN::PACK<INDEX, double> *target = out.data();
    for (INDEX k = 0; k < n; ++k)
        target[k] = {static_cast<INDEX>(index[k]), std::sqrt(distance[k])};
}

// ---------------------------------------------------------------------------

KD_Tree::KD_Tree(INDEX len, const ORN::Function<ORN::Vector<double>(INDEX)> &point)
    : mThis(ORN::StrongRef<Private::Implement>::make(len, point)) {}

ORN::PACK<INDEX, double> KD_Tree::find_nn(const ORN::Vector<double> &point) const { return mThis->find_nn(point); }

void KD_Tree::find_nns(const ORN::Vector<double> &point, INDEX n, ORN::Array<ORN::PACK<INDEX, double>> &out) const {
    mThis->find_nns(point, n, out);
}

} // namespace ZARN
