// The node graph evaluator: declaration checks, evaluation order, release of
// values, optional dependencies, failures inside actions, iteration values and
// the two-run pattern of a process.
#include "__ORN__/orn_functional.h"

#include "support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using zarn_test::failure_of;

using ORN::SyntaxTree;

// What happened, in order: actions append their node name, destructors "~name".
std::vector<std::string> gLog;
std::map<std::string, int> gBuilt, gFreed;

void reset_log() {
    gLog.clear();
    gBuilt.clear();
    gFreed.clear();
}

struct Tracked {
    explicit Tracked(const char *name) : mName(name) { ++gBuilt[name]; }
    ~Tracked() {
        ++gFreed[mName];
        gLog.push_back("~" + mName);
    }
    std::string mName;
};

template <class... D>
void stack_all(SyntaxTree &tree) {
    (tree.stack<D>(), ...);
}

// A node that needs the listed nodes and logs its name when it plays.
#define LOGGED_NODE(NAME_, ...)                                                                                        \
    struct NAME_ {                                                                                                     \
        ORN_NODE(NAME_);                                                                                               \
        Tracked mTrack{NAME};                                                                                          \
        explicit NAME_(SyntaxTree &tree) {                                                                             \
            stack_all<__VA_ARGS__>(tree);                                                                              \
            tree.once([] { gLog.push_back(NAME); });                                                                   \
        }                                                                                                              \
    }

// The assertion text of the evaluator for `condition`.
void expect_assertion(const std::string &text, const std::string &condition) {
    EXPECT_EQ(text.rfind("dynamic_assert failed : " + condition + " : at ", 0), 0u) << text;
    EXPECT_NE(text.find(" in __ORN__/orn_functional"), std::string::npos) << text;
}

std::vector<std::string> actions_only() {
    std::vector<std::string> out;
    for (const auto &e : gLog)
        if (e[0] != '~')
            out.push_back(e);
    return out;
}

// ---------------------------------------------------------------------------
// Declaration checks

struct CycleB;
struct CycleA {
    ORN_NODE(CycleA);
    explicit CycleA(SyntaxTree &tree);
};
struct CycleB {
    ORN_NODE(CycleB);
    explicit CycleB(SyntaxTree &tree) { tree.stack<CycleA>(); }
};
CycleA::CycleA(SyntaxTree &tree) { tree.stack<CycleB>(); }

struct TwiceOnce {
    explicit TwiceOnce(SyntaxTree &tree) {
        tree.once([] {});
        tree.once([] {});
    }
};
struct SelfStack {
    explicit SelfStack(SyntaxTree &tree) { tree.stack<SelfStack>(); }
};
struct Plain {
    explicit Plain(SyntaxTree &) {}
};
struct FetchUndeclared {
    explicit FetchUndeclared(SyntaxTree &tree) {
        tree.once([&tree] { tree.stack<Plain>(); });
    }
};
struct CleanInside {
    explicit CleanInside(SyntaxTree &tree) { tree.clean(); }
};
struct MaybeAfterOnce {
    explicit MaybeAfterOnce(SyntaxTree &tree) {
        tree.once([] {});
        tree.maybe<Plain>();
    }
};
struct IterationWithOnce {
    explicit IterationWithOnce(SyntaxTree &tree) {
        tree.mark_as_iteration();
        tree.once([] {});
    }
};
struct IterationReadingNothing {
    explicit IterationReadingNothing(SyntaxTree &tree) {
        tree.mark_as_iteration();
        tree.then([&tree] { tree.later<std::string>(); });
    }
};

TEST(SyntaxTreeDeclaration, MisuseFailsWithItsAssertionText) {
    const auto in_new_tree = [](auto body) { return failure_of([&] { SyntaxTree tree; body(tree); }); };
    const std::string cycle = in_new_tree([](SyntaxTree &t) { t.stack<CycleA>(); });
    expect_assertion(cycle, "i != curr");
    EXPECT_NE(cycle.find("depth_track"), std::string::npos) << cycle;
    expect_assertion(in_new_tree([](SyntaxTree &t) { t.stack<TwiceOnce>(); }), "!(mTree[ix].mOnceActor.exist ())");
    expect_assertion(in_new_tree([](SyntaxTree &t) { t.stack<SelfStack>(); }), "ix != iy");
    expect_assertion(in_new_tree([](SyntaxTree &t) { t.once([] {}); }), "ix != root_node ()");
    expect_assertion(in_new_tree([](SyntaxTree &t) { t.stack<CleanInside>(); }), "ix == root_node ()");
    expect_assertion(in_new_tree([](SyntaxTree &t) { t.stack<MaybeAfterOnce>(); }), "!(mTree[ix].mOnceActor.exist ())");
    expect_assertion(in_new_tree([](SyntaxTree &t) { t.stack<IterationWithOnce>(); }), "!(mTree[ix].mIsIteration)");
    expect_assertion(in_new_tree([](SyntaxTree &t) {
                         t.stack<FetchUndeclared>();
                         t.play();
                     }),
                     "mTree[iy].mParent.find (ix) != VAR_NONE");
    const std::string value = "x";
    expect_assertion(in_new_tree([&](SyntaxTree &t) {
                         t.stack<Plain>();
                         t.redo<Plain>(value);
                     }),
                     "mTree[iy].mIsIteration");
    expect_assertion(in_new_tree([](SyntaxTree &t) {
                         t.stack<IterationReadingNothing>();
                         t.play();
                     }),
                     "mTree[ix].mLater.exist ()");
}

// ---------------------------------------------------------------------------
// Evaluation order

LOGGED_NODE(CON_mShared);
LOGGED_NODE(ACT_mFirst, CON_mShared);
LOGGED_NODE(ACT_mSecond, CON_mShared);

TEST(SyntaxTreeOrder, SharedDependencyRunsOnceBeforeItsFirstDependent) {
    reset_log();
    SyntaxTree tree;
    tree.stack<ACT_mFirst>();
    tree.stack<ACT_mSecond>();
    tree.play();
    EXPECT_EQ(actions_only(), (std::vector<std::string>{"CON_mShared", "ACT_mFirst", "ACT_mSecond"}));
    EXPECT_EQ(gBuilt["CON_mShared"], 1);
    // A second play has nothing left to do.
    tree.play();
    EXPECT_EQ(actions_only().size(), 3u);
}

LOGGED_NODE(CON_mA2);
LOGGED_NODE(CON_mA1, CON_mA2);
LOGGED_NODE(CON_mAx);
LOGGED_NODE(CON_mAy);
LOGGED_NODE(ACT_mA, CON_mA1, CON_mAx, CON_mAy);
LOGGED_NODE(CON_mB3);
LOGGED_NODE(CON_mB2, CON_mB3);
LOGGED_NODE(CON_mB1, CON_mB2);
LOGGED_NODE(ACT_mB, CON_mB1);

TEST(SyntaxTreeOrder, EarlierTopLevelActionRunsWithItsWholeSubgraphFirst) {
    for (const bool a_first : {true, false}) {
        reset_log();
        SyntaxTree tree;
        if (a_first) {
            tree.stack<ACT_mA>();
            tree.stack<ACT_mB>();
        } else {
            tree.stack<ACT_mB>();
            tree.stack<ACT_mA>();
        }
        tree.play();
        // Deepest first within one action's subgraph; equal depths in the
        // order the nodes were first mentioned.
        const std::vector<std::string> a = {"CON_mA2", "CON_mA1", "CON_mAx", "CON_mAy", "ACT_mA"};
        const std::vector<std::string> b = {"CON_mB3", "CON_mB2", "CON_mB1", "ACT_mB"};
        std::vector<std::string> expected = a_first ? a : b;
        expected.insert(expected.end(), (a_first ? b : a).begin(), (a_first ? b : a).end());
        EXPECT_EQ(actions_only(), expected) << "a_first=" << a_first;
    }
}

// ---------------------------------------------------------------------------
// Release of values

LOGGED_NODE(CON_mOnlyForA);
LOGGED_NODE(ACT_mUsesConstant, CON_mOnlyForA);

TEST(SyntaxTreeRelease, NothingIsFreedBeforeCleanThenCleanFreesWhatIsNoLongerNeeded) {
    reset_log();
    {
        SyntaxTree tree;
        tree.stack<ACT_mUsesConstant>();
        tree.play();
        EXPECT_EQ(gFreed["CON_mOnlyForA"], 0);
        EXPECT_FALSE(tree.clean_switch().exist());
        tree.clean();
        EXPECT_EQ(gFreed["CON_mOnlyForA"], 1);
        // Top-level nodes stay: the caller may hold their values.
        EXPECT_EQ(gFreed["ACT_mUsesConstant"], 0);
        EXPECT_FALSE(tree.node(tree.find_node<CON_mOnlyForA>()).mValue.exist());
        EXPECT_FALSE(tree.node(tree.find_node<CON_mOnlyForA>()).mOnceActor.exist());
    }
    EXPECT_EQ(gFreed["ACT_mUsesConstant"], 1);
    EXPECT_EQ(gFreed["CON_mOnlyForA"], 1);
}

struct CON_mNumber {
    ORN_NODE(CON_mNumber);
    Tracked mTrack{NAME};
    int mSelf = 0;
    explicit CON_mNumber(SyntaxTree &tree) {
        tree.once([this] { mSelf = 42; });
    }
};
// Reads the number at play time and records whether it was still alive.
template <int N>
struct Reader {
    ORN_NODE(Reader);
    Tracked mTrack{NAME};
    explicit Reader(SyntaxTree &tree) {
        const CON_mNumber &number = tree.stack<CON_mNumber>();
        tree.once([&number] { gLog.push_back("read " + std::to_string(number.mSelf) + " freed=" + std::to_string(gFreed["CON_mNumber"])); });
    }
};

TEST(SyntaxTreeRelease, ValueLivesUntilItsLastDependentHasPlayed) {
    reset_log();
    SyntaxTree tree;
    tree.stack<Reader<1>>();
    tree.stack<Reader<2>>();
    tree.clean();
    tree.play();
    EXPECT_EQ(gLog, (std::vector<std::string>{"read 42 freed=0", "read 42 freed=0", "~CON_mNumber"}));
}

struct SUB_mFormatter {
    ORN_NODE(SUB_mFormatter);
    Tracked mTrack{NAME};
    ORN::Function<std::string()> mSelf;
    explicit SUB_mFormatter(SyntaxTree &tree) {
        const CON_mNumber &number = tree.stack<CON_mNumber>();
        tree.mark_as_function();
        tree.then([this, &number] { mSelf = [&number] { return std::to_string(number.mSelf); }; });
    }
};
struct ACT_mCallsFormatter {
    ORN_NODE(ACT_mCallsFormatter);
    Tracked mTrack{NAME};
    explicit ACT_mCallsFormatter(SyntaxTree &tree) {
        const SUB_mFormatter &f = tree.stack<SUB_mFormatter>();
        tree.once([&f] { gLog.push_back("formatted " + f.mSelf()); });
    }
};

TEST(SyntaxTreeRelease, FunctionNodeKeepsItsDependenciesUntilItIsReleased) {
    reset_log();
    {
        SyntaxTree tree;
        const SUB_mFormatter &f = tree.stack<SUB_mFormatter>();
        tree.clean();
        tree.play();
        // The function node is top-level: it and the number it reads stay.
        EXPECT_EQ(gFreed["CON_mNumber"], 0);
        EXPECT_EQ(f.mSelf(), "42");
    }
    reset_log();
    SyntaxTree tree;
    tree.stack<ACT_mCallsFormatter>();
    tree.clean();
    tree.play();
    // Released with its last user, then its dependency follows.
    EXPECT_EQ(gLog, (std::vector<std::string>{"formatted 42", "~SUB_mFormatter", "~CON_mNumber"}));
}

// ---------------------------------------------------------------------------
// Optional dependencies

LOGGED_NODE(CON_mDeepOptional);
LOGGED_NODE(CON_mOptional, CON_mDeepOptional);

template <bool FETCH>
struct ACT_mChooser {
    ORN_NODE(ACT_mChooser);
    Tracked mTrack{NAME};
    explicit ACT_mChooser(SyntaxTree &tree) {
        tree.maybe<CON_mOptional>();
        tree.once([&tree] {
            gLog.push_back("choose");
            if (!FETCH)
                return;
            const CON_mOptional &optional = tree.stack<CON_mOptional>();
            tree.then([&optional] { gLog.push_back(std::string("use ") + optional.NAME); });
        });
    }
};

TEST(SyntaxTreeMaybe, UnfetchedOptionalNeverRunsAndIsLetGo) {
    reset_log();
    SyntaxTree tree;
    tree.stack<ACT_mChooser<false>>();
    tree.clean();
    tree.play();
    EXPECT_EQ(gLog, (std::vector<std::string>{"choose"}));
    EXPECT_EQ(gBuilt["CON_mOptional"], 0);
    const ORN::INDEX optional = tree.find_node<CON_mOptional>();
    ASSERT_NE(optional, ORN::VAR_NONE);
    EXPECT_EQ(tree.node(optional).mParent.size(), 0);
    EXPECT_FALSE(tree.node(optional).mPlayed);
    EXPECT_TRUE(tree.node(tree.find_node<ACT_mChooser<false>>()).mMaybe.empty());
}

TEST(SyntaxTreeMaybe, FetchedOptionalPlaysBeforeTheSecondPhase) {
    reset_log();
    SyntaxTree tree;
    tree.stack<ACT_mChooser<true>>();
    tree.clean();
    tree.play();
    EXPECT_EQ(gLog, (std::vector<std::string>{"choose", "CON_mDeepOptional", "CON_mOptional", "~CON_mDeepOptional",
                                              "use CON_mOptional", "~CON_mOptional"}));
}

// A node scheduled for a later top-level action is needed earlier when an
// optional dependency fetched during play turns out to use it.
LOGGED_NODE(CON_mRightShared);
LOGGED_NODE(CON_mLate, CON_mRightShared);
struct ACT_mLeft {
    ORN_NODE(ACT_mLeft);
    explicit ACT_mLeft(SyntaxTree &tree) {
        tree.maybe<CON_mLate>();
        tree.once([&tree] {
            gLog.push_back("ACT_mLeft first");
            tree.stack<CON_mLate>();
            tree.then([] { gLog.push_back("ACT_mLeft second"); });
        });
    }
};
LOGGED_NODE(ACT_mRight, CON_mRightShared);

TEST(SyntaxTreeMaybe, FetchedOptionalPullsAPendingNodeForward) {
    reset_log();
    SyntaxTree tree;
    tree.stack<ACT_mLeft>();
    tree.stack<ACT_mRight>();
    tree.clean();
    tree.play();
    EXPECT_EQ(actions_only(), (std::vector<std::string>{"ACT_mLeft first", "CON_mRightShared", "CON_mLate",
                                                        "ACT_mLeft second", "ACT_mRight"}));
    EXPECT_EQ(gFreed["CON_mRightShared"], 1);
}

// Many optional dependencies (past the size where node sets switch to a hash
// index): only the fetched ones run, in key order, and all are let go.
struct NDS_mItem {
    ORN_NODE(NDS_mItem);
    Tracked mTrack{NAME};
    NDS_mItem(SyntaxTree &tree, ORN::INDEX key) {
        tree.once([key] { gLog.push_back("item " + std::to_string(key)); });
    }
};
struct ACT_mPicker {
    ORN_NODE(ACT_mPicker);
    explicit ACT_mPicker(SyntaxTree &tree) {
        for (ORN::INDEX k = 0; k < 20; ++k)
            tree.maybe<NDS_mItem>(k);
        tree.once([&tree] {
            for (ORN::INDEX k = 18; k >= 0; k -= 6)
                tree.stack<NDS_mItem>(k);
        });
    }
};

TEST(SyntaxTreeMaybe, ManyOptionalsOnlyFetchedOnesRunAndAllAreLetGo) {
    reset_log();
    SyntaxTree tree;
    tree.stack<ACT_mPicker>();
    tree.clean();
    tree.play();
    EXPECT_EQ(actions_only(), (std::vector<std::string>{"item 0", "item 6", "item 12", "item 18"}));
    EXPECT_EQ(gBuilt["NDS_mItem"], 4);
    EXPECT_EQ(gFreed["NDS_mItem"], 4);
    for (ORN::INDEX k = 0; k < 20; ++k)
        EXPECT_EQ(tree.node(tree.find_node<NDS_mItem>(k)).mParent.size(), k % 6 == 0 ? 1 : 0) << k;
}

// ---------------------------------------------------------------------------
// Failure inside an action

struct ACT_mThrows {
    ORN_NODE(ACT_mThrows);
    Tracked mTrack{NAME};
    explicit ACT_mThrows(SyntaxTree &tree) {
        tree.stack<CON_mNumber>();
        tree.once([] { throw std::runtime_error("boom"); });
    }
};

TEST(SyntaxTreeFailure, ExceptionLeavesPlayWithFlagsAndStackAsTheyWere) {
    reset_log();
    {
        SyntaxTree tree;
        tree.stack<ACT_mThrows>();
        tree.clean();
        EXPECT_THROW(tree.play(), std::runtime_error);
        const ORN::INDEX thrower = tree.find_node<ACT_mThrows>();
        const auto &n = tree.node(thrower);
        EXPECT_TRUE(n.mPlaying);
        EXPECT_FALSE(n.mOncePlayed);
        EXPECT_FALSE(n.mPlayed);
        EXPECT_EQ(tree.current_node(), thrower);
        EXPECT_TRUE(tree.node(tree.find_node<CON_mNumber>()).mPlayed);
        EXPECT_EQ(gFreed["CON_mNumber"], 0);
    }
    // Destroying the graph afterwards still frees every value once.
    EXPECT_EQ(gFreed, gBuilt);
}

// ---------------------------------------------------------------------------
// Iteration values and the two runs of a process

struct VAR_mWorkingPath {
    ORN_NODE(VAR_mWorkingPath);
    Tracked mTrack{NAME};
    std::string mSelf;
    explicit VAR_mWorkingPath(SyntaxTree &tree) {
        tree.mark_as_iteration();
        tree.then([this, &tree] { mSelf = tree.later<std::string>(); });
    }
};
struct CON_mSplitDataJson {
    ORN_NODE(CON_mSplitDataJson);
    Tracked mTrack{NAME};
    std::string mSelf;
    explicit CON_mSplitDataJson(SyntaxTree &tree) {
        const VAR_mWorkingPath &path = tree.stack<VAR_mWorkingPath>();
        tree.once([this, &path] { mSelf = path.mSelf + "/caches/split_data.json"; });
    }
};
struct CON_mEnableProcess {
    ORN_NODE(CON_mEnableProcess);
    Tracked mTrack{NAME};
    bool mSelf = false;
    explicit CON_mEnableProcess(SyntaxTree &tree) {
        const CON_mSplitDataJson &split = tree.stack<CON_mSplitDataJson>();
        tree.once([this, &split] { mSelf = split.mSelf == "/job/caches/split_data.json"; });
    }
};
struct ACT_mWorkingPath {
    ORN_NODE(ACT_mWorkingPath);
    Tracked mTrack{NAME};
    explicit ACT_mWorkingPath(SyntaxTree &tree) {
        const VAR_mWorkingPath &path = tree.stack<VAR_mWorkingPath>();
        tree.once([&path] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            gLog.push_back("ACT_mWorkingPath " + path.mSelf);
        });
    }
};
LOGGED_NODE(ACT_mMain, CON_mShared);

TEST(SyntaxTreeProcess, InitializeThenExecuteRunsEachNodeOnceAndFreesSettings) {
    reset_log();
    SyntaxTree tree;
    const std::string working_path = "/job";
    // initialize
    const CON_mEnableProcess &enable = tree.stack<CON_mEnableProcess>();
    tree.redo<VAR_mWorkingPath>(working_path);
    tree.play();
    EXPECT_TRUE(enable.mSelf);
    EXPECT_TRUE(gFreed.empty());
    expect_assertion(failure_of([&] { tree.redo<VAR_mWorkingPath>(working_path); }), "!(mTree[iy].mPlayed)");
    // execute
    tree.stack<ACT_mWorkingPath>();
    tree.stack<ACT_mMain>();
    tree.clean();
    EXPECT_EQ(gFreed, (std::map<std::string, int>{{"CON_mSplitDataJson", 1}}));
    tree.play();
    EXPECT_EQ(actions_only(), (std::vector<std::string>{"ACT_mWorkingPath /job", "CON_mShared", "ACT_mMain"}));
    EXPECT_TRUE(enable.mSelf);
    EXPECT_EQ(gFreed["VAR_mWorkingPath"], 1);
    EXPECT_EQ(gFreed["CON_mShared"], 1);
    EXPECT_EQ(gFreed["CON_mEnableProcess"], 0);
    // A freed value cannot be asked for again.
    expect_assertion(failure_of([&] { tree.stack<CON_mSplitDataJson>(); }), "!(mTree[iy].mOncePlayed)");

    const auto report = tree.time_report();
    ASSERT_GE(report.size(), 6);
    EXPECT_EQ(report[0].mName, "ACT_mWorkingPath");
    EXPECT_GE(report[0].mActionTime, 20'000'000);
    for (ORN::INDEX i = 1; i < report.size(); ++i)
        EXPECT_GE(report[i - 1].mActionTime + report[i - 1].mReleaseTime, report[i].mActionTime + report[i].mReleaseTime);
    EXPECT_EQ(tree.time_report_text().rfind("ACT_mWorkingPath : action ", 0), 0u);
}

TEST(SyntaxTreeExport, DotShowsNamesKindsAndEdgeStyles) {
    SyntaxTree tree;
    tree.stack<ACT_mChooser<false>>();
    tree.stack<CON_mEnableProcess>();
    const std::string dot = tree.to_dot();
    EXPECT_EQ(dot.rfind("digraph SyntaxTree {\n", 0), 0u);
    const std::string enable = "n" + std::to_string(tree.find_node<CON_mEnableProcess>());
    EXPECT_NE(dot.find(enable + " [label=\"CON_mEnableProcess\", shape=ellipse]"), std::string::npos) << dot;
    EXPECT_NE(dot.find("[label=\"VAR_mWorkingPath\", shape=diamond, peripheries=2]"), std::string::npos) << dot;
    EXPECT_NE(dot.find("[label=\"ACT_mChooser\", shape=box]"), std::string::npos) << dot;
    EXPECT_NE(dot.find("n0 -> " + enable + ";"), std::string::npos) << dot;
    EXPECT_NE(dot.find(" -> n" + std::to_string(tree.find_node<CON_mOptional>()) + " [style=dashed];"), std::string::npos) << dot;
}

// Nodes told apart by an integer key: a chain Link[0] -> Link[1] -> ... -> Link[4].
struct Link {
    ORN_NODE(Link);
    ORN::INDEX mSelf = 0;
    Link(SyntaxTree &tree, ORN::INDEX key) {
        if (key == 4) {
            tree.once([this] { mSelf = 1; });
            return;
        }
        const Link &next = tree.stack<Link>(key + 1);
        tree.once([this, &next] { mSelf = next.mSelf * 2; });
    }
};

TEST(SyntaxTreeKeyed, KeyedNodesAreDistinctAndNamedWithTheirKey) {
    SyntaxTree tree;
    const Link &head = tree.stack<Link>(0);
    EXPECT_EQ(&tree.stack<Link>(0), &head);
    tree.play();
    EXPECT_EQ(head.mSelf, 16);
    EXPECT_EQ(tree.size(), 6);
    EXPECT_EQ(tree.node_name(tree.find_node<Link>(3)), "Link[3]");
    EXPECT_EQ(tree.node(tree.find_node<Link>(4)).mDepth, 5);
}

// ---------------------------------------------------------------------------
// Edge sets and wide graphs

TEST(SyntaxTreeEdges, EdgeSetKeepsPositionsThroughGrowthAndErase) {
    // Inline, on the heap, then hashed: positions follow insertion, erase
    // moves the last item into the freed position, and find agrees with a
    // plain model after every step.
    SyntaxTree::EDGE_SET set;
    std::vector<ORN::INDEX> model;
    const auto agrees = [&] {
        if (set.size() != ORN::INDEX(model.size()))
            return false;
        for (std::size_t i = 0; i < model.size(); ++i)
            if (set[ORN::INDEX(i)] != model[i] || set.find(model[i]) != ORN::INDEX(i))
                return false;
        return set.find(-7) == ORN::VAR_NONE;
    };
    for (ORN::INDEX k = 0; k < 200; ++k) {
        const ORN::INDEX item = (k * 7919) % 1000; // distinct, scattered
        EXPECT_EQ(set.insert(item), k);
        model.push_back(item);
        EXPECT_EQ(set.insert(item), k); // present already: same position
        ASSERT_TRUE(agrees()) << k;
    }
    for (ORN::INDEX k = 0; k < 150; ++k) {
        const std::size_t pos = std::size_t(k * 31) % model.size();
        EXPECT_TRUE(set.erase(model[pos]));
        model[pos] = model.back();
        model.pop_back();
        ASSERT_TRUE(agrees()) << k;
    }
    EXPECT_FALSE(set.erase(-7));
    set.clear();
    EXPECT_TRUE(set.empty());
    EXPECT_EQ(set.insert(5), 0);
    EXPECT_EQ(set.find(5), 0);
}

constexpr ORN::INDEX kWide = 300;

// A slow destructor, a value too large for the graph's small blocks, and
// plain values side by side.
struct NDS_mWide {
    ORN_NODE(NDS_mWide);
    Tracked mTrack{NAME};
    ORN::INDEX mKey;
    char mPadding[96] = {};
    NDS_mWide(SyntaxTree &tree, ORN::INDEX key) : mKey(key) {
        tree.once([key] { gLog.push_back("wide " + std::to_string(key)); });
    }
    ~NDS_mWide() {
        if (mKey == 7)
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
};
struct ACT_mWideHub {
    ORN_NODE(ACT_mWideHub);
    explicit ACT_mWideHub(SyntaxTree &tree) {
        for (ORN::INDEX k = kWide; k-- > 0;)
            tree.stack<NDS_mWide>(k);
        for (ORN::INDEX k = 0; k < kWide; ++k)
            tree.maybe<NDS_mItem>(k);
        tree.once([&tree] {
            for (ORN::INDEX k = kWide; k-- > 0;)
                if (k % 3 == 0)
                    tree.stack<NDS_mItem>(k);
        });
    }
};

TEST(SyntaxTreeEdges, WideLevelsPlayInDeclarationOrderAndAreReleasedAndTimed) {
    reset_log();
    SyntaxTree tree;
    tree.stack<ACT_mWideHub>();
    tree.clean();
    tree.play();
    // Same stamp and depth: the node mentioned first plays first, whether a
    // level is scheduled at once or fetched later from the first action.
    std::vector<std::string> expected;
    for (ORN::INDEX k = kWide; k-- > 0;)
        expected.push_back("wide " + std::to_string(k));
    for (ORN::INDEX k = 0; k < kWide; k += 3)
        expected.push_back("item " + std::to_string(k));
    EXPECT_EQ(actions_only(), expected);
    EXPECT_EQ(gFreed["NDS_mWide"], kWide);
    EXPECT_EQ(gFreed["NDS_mItem"], kWide / 3);
    EXPECT_EQ(gBuilt["NDS_mItem"], kWide / 3);
    EXPECT_GE(tree.node(tree.find_node<NDS_mWide>(7)).mReleaseTime, 3'000'000);
    EXPECT_EQ(tree.node(tree.find_node<ACT_mWideHub>()).mChild.size(), kWide + kWide / 3);
}

} // namespace
