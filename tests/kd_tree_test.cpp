// Point KD-tree: answers against brute force, edge sizes, failures and
// concurrent queries.
#include "ZARN_Common/KD_Tree.h"

#include "support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using zarn_test::failure_of;

using ORN::INDEX;
using ORN::Vector;
using ZARN::KD_Tree;
using RESULT = ORN::Array<ORN::PACK<INDEX, double>>;

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

double distance(const Vector<double> &a, const Vector<double> &b) {
    return std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) + (a[2] - b[2]) * (a[2] - b[2]));
}

// Every point ordered by distance to q (then by index).
std::vector<ORN::PACK<INDEX, double>> brute_force(const std::vector<Vector<double>> &points, const Vector<double> &q) {
    std::vector<ORN::PACK<INDEX, double>> all;
    for (INDEX i = 0; i < static_cast<INDEX>(points.size()); ++i)
        all.push_back({i, distance(points[i], q)});
    std::sort(all.begin(), all.end(), [](auto a, auto b) { return a.mP2 != b.mP2 ? a.mP2 < b.mP2 : a.mP1 < b.mP1; });
    return all;
}

TEST(KD_Tree, NearestAndKNearestMatchBruteForce) {
    const auto points = random_points(4000, 7);
    const KD_Tree tree = tree_of(points);
    const auto queries = random_points(300, 11);
    RESULT out;
    for (const auto &q : queries) {
        const auto expected = brute_force(points, q);
        const auto nn = tree.find_nn(q);
        EXPECT_EQ(nn.mP1, expected[0].mP1);
        EXPECT_NEAR(nn.mP2, expected[0].mP2, 1e-9);
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

TEST(KD_Tree, PointFunctionIsCalledOncePerPointInOrderAndExtraComponentsAreIgnored) {
    std::vector<INDEX> calls;
    const KD_Tree tree(5, [&](INDEX i) {
        calls.push_back(i);
        return Vector<double>{double(i), 0.0, 0.0, 1000.0, -1000.0};
    });
    EXPECT_EQ(calls, (std::vector<INDEX>{0, 1, 2, 3, 4}));
    const auto nn = tree.find_nn({2.9, 0.0, 0.0, 55.0});
    EXPECT_EQ(nn.mP1, 3);
    EXPECT_NEAR(nn.mP2, 0.1, 1e-12);
}

TEST(KD_Tree, EdgeSizes) {
    const KD_Tree one(1, [](INDEX) { return Vector<double>{1.0, 2.0, 3.0}; });
    const auto nn = one.find_nn({4.0, 6.0, 3.0});
    EXPECT_EQ(nn.mP1, 0);
    EXPECT_DOUBLE_EQ(nn.mP2, 5.0);

    const auto points = random_points(257, 3);
    const KD_Tree tree = tree_of(points);
    RESULT out;
    tree.find_nns({0.0, 0.0, 0.0}, 257, out);
    ASSERT_EQ(out.size(), 257);
    std::vector<INDEX> seen;
    for (INDEX k = 0; k < out.size(); ++k) {
        seen.push_back(out[k].mP1);
        if (k > 0) {
            EXPECT_LE(out[k - 1].mP2, out[k].mP2);
        }
    }
    std::sort(seen.begin(), seen.end());
    for (INDEX k = 0; k < 257; ++k)
        ASSERT_EQ(seen[k], k);

    for (INDEX i : {0, 100, 256}) {
        const auto at = tree.find_nn(points[i]);
        EXPECT_EQ(at.mP1, i);
        EXPECT_EQ(at.mP2, 0.0);
        tree.find_nns(points[i], 3, out);
        EXPECT_EQ(out[0].mP1, i);
        EXPECT_EQ(out[0].mP2, 0.0);
    }

    tree.find_nns(points[0], 0, out);
    EXPECT_EQ(out.size(), 0);
}

TEST(KD_Tree, FailuresAssert) {
    const auto points = random_points(10, 5);
    const KD_Tree tree = tree_of(points);
    RESULT out;
    const std::string more = failure_of([&] { tree.find_nns({0.0, 0.0, 0.0}, 11, out); });
    EXPECT_EQ(more.rfind("dynamic_assert failed : r1x == int(n) : at ", 0), 0u) << more;
    EXPECT_NE(more.find("KD_Tree::Private::Implement::find_nns("), std::string::npos) << more;
    EXPECT_NE(more.find(" in ZARN_Common/KD_Tree.cpp ,"), std::string::npos) << more;
    EXPECT_EQ(failure_of([&] { tree.find_nns({0.0, 0.0, 0.0}, INDEX(1) << 32, out); })
                  .rfind("dynamic_assert failed : n >= 0 && n <= std::numeric_limits<int>::max () : at ", 0),
              0u);
    EXPECT_EQ(failure_of([&] { tree.find_nn({0.0, 0.0}); }).rfind("dynamic_assert failed : point.size () >= 3 : at ", 0), 0u);

    for (const INDEX len : {INDEX(0), INDEX(-4)}) {
        bool called = false;
        const std::string text = failure_of([&] { const KD_Tree t(len, [&](INDEX) { called = true; return Vector<double>{0, 0, 0}; }); });
        EXPECT_EQ(text.rfind("dynamic_assert failed : len > 0 : at ", 0), 0u) << text;
        EXPECT_NE(text.find(" : at ZARN::KD_Tree::Private::Implement::Implement("), std::string::npos) << text;
        EXPECT_NE(text.find(" in ZARN_Common/KD_Tree.cpp ,"), std::string::npos) << text;
        EXPECT_FALSE(called);
    }
    const KD_Tree none;
    EXPECT_EQ(failure_of([&] { none.find_nn({0.0, 0.0, 0.0}); }).rfind("dynamic_assert failed : exist () : at ", 0), 0u);
}

TEST(KD_Tree, ConcurrentQueriesEqualSingleThreadedAnswers) {
    const auto points = random_points(20000, 21);
    const KD_Tree tree = tree_of(points);
    const auto queries = random_points(2000, 22);
    std::vector<std::vector<ORN::PACK<INDEX, double>>> expected(queries.size());
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
            for (int round = 0; round < 3; ++round)
                for (std::size_t q = 0; q < queries.size(); ++q) {
                    const std::size_t at = (q * 7 + t * 500) % queries.size();
                    tree.find_nns(queries[at], 8, mine);
                    const auto nn = tree.find_nn(queries[at]);
                    if (!std::equal(mine.begin(), mine.end(), expected[at].begin(), expected[at].end()) || !(nn == expected[at][0]))
                        ++mismatches[t];
                }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

} // namespace
