// Point KD-tree: answers against brute force, edge sizes, failures and
// concurrent queries.
#include "ZARN_Common/KD_Tree.h"

#include "support.h"

#include <flann/flann.hpp>

#include <algorithm>
#include <cmath>
#include <random>
#include <thread>

namespace {

using namespace zarn_test;
using ORN::INDEX, ORN::Vector;
using ZARN::KD_Tree;
using HIT = ORN::PACK<INDEX, double>;
using RESULT = ORN::Array<HIT>;

std::vector<Vector<double>> random_points(INDEX n, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-10.0, 10.0);
    std::vector<Vector<double>> points;
    for (INDEX i = 0; i < n; ++i)
        points.push_back({u(rng), u(rng), u(rng)});
    return points;
}

KD_Tree tree_of(const std::vector<Vector<double>> &points) {
    return KD_Tree(static_cast<INDEX>(points.size()), [&](INDEX i) { return points[i]; });
}

// Every point ordered by distance to q (then by index).
std::vector<HIT> brute_force(const std::vector<Vector<double>> &points, const Vector<double> &q) {
    std::vector<HIT> all;
    for (INDEX i = 0; i < static_cast<INDEX>(points.size()); ++i)
        all.push_back({i, std::hypot(points[i][0] - q[0], points[i][1] - q[1], points[i][2] - q[2])});
    std::sort(all.begin(), all.end(), [](auto a, auto b) { return a.mP2 != b.mP2 ? a.mP2 < b.mP2 : a.mP1 < b.mP1; });
    return all;
}

TEST(KD_Tree, NearestAndKNearestMatchBruteForce) {
    const auto points = random_points(4000, 7);
    const KD_Tree tree = tree_of(points);
    RESULT out;
    for (const auto &q : random_points(300, 11)) {
        const auto expected = brute_force(points, q);
        EXPECT_EQ(tree.find_nn(q).mP1, expected[0].mP1);
        EXPECT_NEAR(tree.find_nn(q).mP2, expected[0].mP2, 1e-9);
        for (const INDEX n : {1, 8, 40}) {
            tree.find_nns(q, n, out);
            ASSERT_EQ(out.size(), n);
            for (INDEX k = 0; k < n; ++k) {
                EXPECT_EQ(out[k].mP1, expected[k].mP1) << "rank " << k;
                EXPECT_NEAR(out[k].mP2, expected[k].mP2, 1e-9);
            }
        }
    }
}

TEST(KD_Tree, KNearestEqualFlannsOwnSearchWithTiedDistances) {
    // A 12 x 12 x 12 grid: most distances are shared by many points, so the
    // order of ties and which of them make the cut both show.
    std::vector<Vector<double>> points;
    for (int i = 0; i < 12 * 12 * 12; ++i)
        points.push_back({double(i % 12), double(i / 12 % 12), double(i / 144)});
    std::vector<double> matrix;
    for (const auto &p : points)
        matrix.insert(matrix.end(), {p[0], p[1], p[2]});
    flann::KDTreeSingleIndex<flann::L2<double>> flann_index(flann::Matrix<double>(matrix.data(), points.size(), 3));
    flann_index.buildIndex();
    const KD_Tree tree = tree_of(points);

    const std::vector<Vector<double>> queries = {{5, 5, 5}, {5.5, 5.5, 5.5}, {0, 0, 0}, {11, 3.5, 6}, {2.5, 7, 9.5}, {-3, 14, 5}};
    RESULT out;
    for (const int n : {1, 7, 100, 250, 251, 252, 300, 437, 600, 1728})
        for (const auto &q : queries) {
            std::vector<std::vector<std::size_t>> indices;
            std::vector<std::vector<double>> distances;
            double query[3] = {q[0], q[1], q[2]};
            flann_index.knnSearch(flann::Matrix<double>(query, 1, 3), indices, distances, n, flann::SearchParams());
            tree.find_nns(q, n, out);
            ASSERT_EQ(out.size(), n);
            int differ = 0;
            for (int k = 0; k < n; ++k)
                differ += out[k].mP1 != INDEX(indices[0][k]) || out[k].mP2 != std::sqrt(distances[0][k]);
            EXPECT_EQ(differ, 0) << "n " << n << " query " << q[0] << " " << q[1] << " " << q[2];
        }
}

TEST(KD_Tree, EdgeSizesAndQueriesAtIndexedPoints) {
    // One point, read once, with components past the third ignored.
    INDEX calls = 0;
    const KD_Tree one(1, [&](INDEX) { ++calls; return Vector<double>{1.0, 2.0, 3.0, 1000.0}; });
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(one.find_nn({4.0, 6.0, 3.0, -55.0}) == (HIT{0, 5.0}));

    // Asking for every point returns each once, in distance order.
    const auto points = random_points(257, 3);
    const KD_Tree tree = tree_of(points);
    RESULT out;
    tree.find_nns({0.0, 0.0, 0.0}, 257, out);
    const auto expected = brute_force(points, {0.0, 0.0, 0.0});
    EXPECT_TRUE(std::equal(out.begin(), out.end(), expected.begin(), expected.end(), [](HIT a, HIT b) { return a.mP1 == b.mP1; }));

    for (INDEX i : {0, 100, 256}) {
        EXPECT_TRUE(tree.find_nn(points[i]) == (HIT{i, 0.0}));
        tree.find_nns(points[i], 3, out);
        EXPECT_TRUE(out[0] == (HIT{i, 0.0}));
    }
    tree.find_nns(points[0], 0, out);
    EXPECT_EQ(out.size(), 0);
}

TEST(KD_Tree, FailuresAssert) {
    const KD_Tree tree = tree_of(random_points(10, 5));
    RESULT out;
    const std::string more = failure_of([&] { tree.find_nns({0.0, 0.0, 0.0}, 11, out); });
    EXPECT_TRUE(starts_with(more, "dynamic_assert failed : r1x == int(n) : at ")) << more;
    EXPECT_TRUE(contains(more, "KD_Tree::Private::Implement::find_nns(") && contains(more, " in ZARN_Common/KD_Tree.cpp ,")) << more;
    EXPECT_TRUE(starts_with(failure_of([&] { tree.find_nns({0.0, 0.0, 0.0}, INDEX(1) << 32, out); }),
                            "dynamic_assert failed : n >= 0 && n <= std::numeric_limits<int>::max () : at "));
    EXPECT_TRUE(starts_with(failure_of([&] { tree.find_nn({0.0, 0.0}); }), "dynamic_assert failed : point.size () >= 3 : at "));
    EXPECT_TRUE(starts_with(failure_of([&] { KD_Tree().find_nn({0.0, 0.0, 0.0}); }), "dynamic_assert failed : exist () : at "));

    for (const INDEX len : {INDEX(0), INDEX(-4)}) {
        bool called = false;
        const std::string text = failure_of([&] { KD_Tree(len, [&](INDEX) { called = true; return Vector<double>{0, 0, 0}; }); });
        EXPECT_TRUE(starts_with(text, "dynamic_assert failed : len > 0 : at ZARN::KD_Tree::Private::Implement::Implement(")) << text;
        EXPECT_FALSE(called);
    }
}

TEST(KD_Tree, ConcurrentQueriesEqualSingleThreadedAnswers) {
    const KD_Tree tree = tree_of(random_points(20000, 21));
    const auto queries = random_points(2000, 22);
    std::vector<std::vector<HIT>> expected(queries.size());
    RESULT out;
    for (std::size_t q = 0; q < queries.size(); ++q) {
        tree.find_nns(queries[q], 8, out);
        expected[q].assign(out.begin(), out.end());
    }
    std::vector<int> mismatches(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            RESULT mine;
            for (std::size_t q = 0; q < 3 * queries.size(); ++q) {
                const std::size_t at = (q * 7 + t * 500) % queries.size();
                tree.find_nns(queries[at], 8, mine);
                if (!std::equal(mine.begin(), mine.end(), expected[at].begin(), expected[at].end()) || !(tree.find_nn(queries[at]) == expected[at][0]))
                    ++mismatches[t];
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

} // namespace
