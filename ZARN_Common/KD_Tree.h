#pragma once

// Nearest-neighbour index over a fixed set of 3-D points: FLANN's single
// kd-tree over a row-major N x 3 matrix of doubles, searched exactly.
// Queries are const and may run from several threads at once.

#include "__ORN__/orn_array.h"
#include "__ORN__/orn_basic.h"
#include "__ORN__/orn_math.h"

namespace ZARN {

class KD_Tree {
public:
    class Abstract;
    class Private {
    public:
        class Implement;
    };

    KD_Tree() = default;
    // Builds the index over `len` points; `point (i)` yields point i and is
    // called once per point, for i = 0 .. len - 1 in order. Only the first
    // three components of a point are used.
    KD_Tree(ORN::INDEX len, const ORN::Function<ORN::Vector<double>(ORN::INDEX)> &point);

    bool exist() const noexcept { return mThis.exist(); }

    // The nearest point: its index and its Euclidean distance to `point`.
    ORN::PACK<ORN::INDEX, double> find_nn(const ORN::Vector<double> &point) const;
    // The n nearest points, nearest first, into `out` (resized to n). Fewer
    // than n points in the tree fails an assertion; n = 0 gives no result.
    void find_nns(const ORN::Vector<double> &point, ORN::INDEX n, ORN::Array<ORN::PACK<ORN::INDEX, double>> &out) const;

private:
    ORN::StrongRef<Abstract> mThis;
};

class KD_Tree::Abstract : public ORN::Interface {
public:
    ~Abstract() override = default;
    virtual ORN::PACK<ORN::INDEX, double> find_nn(const ORN::Vector<double> &point) const = 0;
    virtual void find_nns(const ORN::Vector<double> &point, ORN::INDEX n, ORN::Array<ORN::PACK<ORN::INDEX, double>> &out) const = 0;
};

} // namespace ZARN
