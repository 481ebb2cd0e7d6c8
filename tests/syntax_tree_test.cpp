// The node graph evaluator: declaration checks, evaluation order, release of
// values, optional dependencies, failures inside actions, iteration values,
// the two-run pattern of a process, reports, and the optimised edge sets.
#include "__ORN__/orn_functional.h"

#include "support.h"

#include <chrono>
#include <map>
#include <stdexcept>
#include <thread>

namespace {

using namespace zarn_test;
using ORN::SyntaxTree;
using Names = std::vector<std::string>;

// The value handed to iteration nodes.
const std::string kJobPath = "/job";

// What happened, in order: actions append their node name, destructors "~name".
Names gLog;
std::map<std::string, int> gBuilt, gFreed;

void reset_log() {
    gLog.clear();
    gBuilt.clear();
    gFreed.clear();
}

Names actions_only() {
    Names out;
    for (const auto &e : gLog)
        if (e[0] != '~')
            out.push_back(e);
    return out;
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

// A fresh log, then `Top` stacked at the top level in this order, clean, play.
template <class... Top>
void clean_and_play(SyntaxTree &tree) {
    reset_log();
    (tree.stack<Top>(), ...);
    tree.clean();
    tree.play();
}

// The name of a node, counted when its value is built and freed.
#define TRACKED_NODE(NAME_)                                                                                            \
    ORN_NODE(NAME_);                                                                                                   \
    Tracked mTrack { NAME }

// A node that needs the listed nodes and logs its name when it plays.
#define LOGGED_NODE(NAME_, ...)                                                                                        \
    struct NAME_ {                                                                                                     \
        TRACKED_NODE(NAME_);                                                                                           \
        explicit NAME_(SyntaxTree &tree) {                                                                             \
            stack_all<__VA_ARGS__>(tree);                                                                              \
            tree.once([] { gLog.push_back(NAME); });                                                                   \
        }                                                                                                              \
    }

// A node whose declaration is `Body`; `N` tells apart nodes with the same body.
template <auto Body, int N = 0>
struct Declares {
    explicit Declares(SyntaxTree &tree) { Body(tree); }
};

// The assertion text of the evaluator for `condition`.
void expect_assertion(const std::string &text, const std::string &condition) {
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : " + condition + " : at ")) << text;
    EXPECT_TRUE(contains(text, " in __ORN__/orn_functional")) << text;
}

// ---------------------------------------------------------------------------
// Declaration checks

// Loop[k] needs Loop[-k]: Loop[1] -> Loop[-1] -> Loop[1] is a cycle, Loop[0] needs itself.
struct Loop {
    Loop(SyntaxTree &tree, ORN::INDEX key) { tree.stack<Loop>(-key); }
};
using Plain = Declares<[](SyntaxTree &) {}>;

// Stacks at the top a node whose declaration is `Body`.
template <auto Body>
void stack_node(SyntaxTree &tree) {
    tree.stack<Declares<Body>>();
}

TEST(SyntaxTreeDeclaration, MisuseFailsWithItsAssertionText) {
    // Each misuse, then a play, in a fresh graph.
    const std::pair<void (*)(SyntaxTree &), const char *> cases[] = {
        {[](SyntaxTree &t) { t.stack<Loop>(1); }, "i != curr"},
        {[](SyntaxTree &t) { t.stack<Loop>(0); }, "ix != iy"},
        {[](SyntaxTree &t) { t.once([] {}); }, "ix != root_node ()"},
        {stack_node<[](SyntaxTree &n) { n.clean(); }>, "ix == root_node ()"},
        {stack_node<[](SyntaxTree &n) { n.once([] {}); n.once([] {}); }>, "!(mTree[ix].mOnceActor.exist ())"},
        {stack_node<[](SyntaxTree &n) { n.once([] {}); n.maybe<Plain>(); }>, "!(mTree[ix].mOnceActor.exist ())"},
        {stack_node<[](SyntaxTree &n) { n.mark_as_iteration(); n.once([] {}); }>, "!(mTree[ix].mIsIteration)"},
        {stack_node<[](SyntaxTree &n) { n.once([&n] { n.stack<Plain>(); }); }>, "mTree[iy].mParent.find (ix) != VAR_NONE"},
        {[](SyntaxTree &t) { t.stack<Plain>(); t.redo<Plain>(kJobPath); }, "mTree[iy].mIsIteration"},
        {stack_node<[](SyntaxTree &n) { n.mark_as_iteration(); n.then([&n] { n.later<std::string>(); }); }>,
         "mTree[ix].mLater.exist ()"},
    };
    for (const auto &[misuse, condition] : cases)
        expect_assertion(failure_of([&] { SyntaxTree tree; misuse(tree); tree.play(); }), condition);
}

// ---------------------------------------------------------------------------
// Evaluation order

LOGGED_NODE(CON_mShared);
LOGGED_NODE(ACT_mFirst, CON_mShared);
LOGGED_NODE(ACT_mSecond, CON_mShared);

TEST(SyntaxTreeOrder, SharedDependencyRunsOnceBeforeItsFirstDependent) {
    SyntaxTree tree;
    clean_and_play<ACT_mFirst, ACT_mSecond>(tree);
    EXPECT_EQ(actions_only(), (Names{"CON_mShared", "ACT_mFirst", "ACT_mSecond"}));
    EXPECT_EQ(gBuilt["CON_mShared"], 1);
    // A second play has nothing left to do.
    tree.play();
    EXPECT_EQ(actions_only().size(), 3u);
}

LOGGED_NODE(CON_mA2);
LOGGED_NODE(CON_mA1, CON_mA2);
LOGGED_NODE(CON_mAx);
LOGGED_NODE(ACT_mA, CON_mA1, CON_mAx);
LOGGED_NODE(CON_mB3);
LOGGED_NODE(CON_mB2, CON_mB3);
LOGGED_NODE(CON_mB1, CON_mB2);
LOGGED_NODE(ACT_mB, CON_mB1);

TEST(SyntaxTreeOrder, EarlierTopLevelActionRunsWithItsWholeSubgraphFirst) {
    // Deepest first within one action's subgraph; equal depths in the order
    // the nodes were first mentioned.
    SyntaxTree ab, ba;
    clean_and_play<ACT_mA, ACT_mB>(ab);
    EXPECT_EQ(actions_only(), (Names{"CON_mA2", "CON_mA1", "CON_mAx", "ACT_mA", "CON_mB3", "CON_mB2", "CON_mB1", "ACT_mB"}));
    clean_and_play<ACT_mB, ACT_mA>(ba);
    EXPECT_EQ(actions_only(), (Names{"CON_mB3", "CON_mB2", "CON_mB1", "ACT_mB", "CON_mA2", "CON_mA1", "CON_mAx", "ACT_mA"}));
}

// ---------------------------------------------------------------------------
// Release of values

struct CON_mNumber {
    TRACKED_NODE(CON_mNumber);
    int mSelf = 0;
    explicit CON_mNumber(SyntaxTree &tree) {
        tree.once([this] { mSelf = 42; });
    }
};
// Reads the number at play time and records whether it was still alive.
void read_number(SyntaxTree &tree) {
    const CON_mNumber &number = tree.stack<CON_mNumber>();
    tree.once([&number] {
        gLog.push_back("read " + std::to_string(number.mSelf) + " freed=" + std::to_string(gFreed.count("CON_mNumber")));
    });
}
using ACT_mRead1 = Declares<read_number, 1>;
using ACT_mRead2 = Declares<read_number, 2>;

TEST(SyntaxTreeRelease, NothingIsFreedBeforeCleanThenCleanFreesWhatPlayedActionsNoLongerNeed) {
    reset_log();
    {
        SyntaxTree tree;
        tree.stack<ACT_mRead1>();
        tree.play();
        EXPECT_TRUE(gFreed.empty());
        tree.clean();
        EXPECT_EQ(gFreed, (std::map<std::string, int>{{"CON_mNumber", 1}}));
        EXPECT_FALSE(tree.node(tree.find_node<CON_mNumber>()).mValue.exist());
    }
    EXPECT_EQ(gFreed, gBuilt);
}

struct SUB_mFormatter {
    TRACKED_NODE(SUB_mFormatter);
    ORN::Function<std::string()> mSelf;
    explicit SUB_mFormatter(SyntaxTree &tree) {
        const CON_mNumber &number = tree.stack<CON_mNumber>();
        tree.mark_as_function();
        tree.then([this, &number] { mSelf = [&number] { return std::to_string(number.mSelf); }; });
    }
};
using ACT_mCallsFormatter = Declares<[](SyntaxTree &tree) {
    const SUB_mFormatter &f = tree.stack<SUB_mFormatter>();
    tree.once([&f] { gLog.push_back("formatted " + f.mSelf()); });
}>;

TEST(SyntaxTreeRelease, ValueLivesUntilItsLastDependentHasPlayedFunctionNodesIncluded) {
    SyntaxTree tree;
    clean_and_play<ACT_mRead1, ACT_mCallsFormatter, ACT_mRead2>(tree);
    EXPECT_EQ(gLog, (Names{"read 42 freed=0", "formatted 42", "~SUB_mFormatter", "read 42 freed=0", "~CON_mNumber"}));
}

// ---------------------------------------------------------------------------
// Optional dependencies

LOGGED_NODE(CON_mDeepOptional);
LOGGED_NODE(CON_mOptional, CON_mDeepOptional);

template <bool FETCH>
struct ACT_mChooser {
    ORN_NODE(ACT_mChooser);
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

TEST(SyntaxTreeMaybe, OptionalRunsOnlyWhenFetchedAndThenBeforeTheSecondPhase) {
    SyntaxTree unfetched;
    clean_and_play<ACT_mChooser<false>>(unfetched);
    EXPECT_EQ(gLog, (Names{"choose"}));
    EXPECT_EQ(gBuilt["CON_mOptional"], 0);
    EXPECT_EQ(unfetched.node(unfetched.find_node<CON_mOptional>()).mParent.size(), 0);

    SyntaxTree fetched;
    clean_and_play<ACT_mChooser<true>>(fetched);
    EXPECT_EQ(gLog, (Names{"choose", "CON_mDeepOptional", "CON_mOptional", "~CON_mDeepOptional", "use CON_mOptional",
                           "~CON_mOptional"}));
}

// Declared for inspection, an optional node names its own dependencies, so
// the export shows all a run can play; no action runs, and only what the
// optional edges alone lead to is drawn dashed.
LOGGED_NODE(CON_mRequired);
using ACT_mBoth = Declares<[](SyntaxTree &tree) {
    tree.stack<CON_mRequired>();
    tree.maybe<CON_mOptional>();
    tree.once([] { gLog.push_back("both"); });
}>;

TEST(SyntaxTreeMaybe, DeclaringOptionalNodesShowsTheirWholeSubgraphWithoutPlaying) {
    reset_log();
    SyntaxTree plain;
    plain.stack<ACT_mBoth>();
    EXPECT_FALSE(contains(plain.to_dot(), "CON_mDeepOptional"));

    SyntaxTree tree;
    tree.declare_optional(true);
    tree.stack<ACT_mBoth>();
    EXPECT_TRUE(gLog.empty());
    EXPECT_EQ(gBuilt["CON_mOptional"], 1);
    EXPECT_EQ(gBuilt["CON_mDeepOptional"], 1);
    const std::string dot = tree.to_dot();
    const auto line = [&](const char *name) {
        const auto at = dot.find(std::string("[label=\"") + name + "\"");
        return at == std::string::npos ? std::string() : dot.substr(at, dot.find('\n', at) - at);
    };
    EXPECT_EQ(line("CON_mOptional"), "[label=\"CON_mOptional\", shape=ellipse, style=dashed];");
    EXPECT_EQ(line("CON_mDeepOptional"), "[label=\"CON_mDeepOptional\", shape=ellipse, style=dashed];");
    EXPECT_EQ(line("CON_mRequired"), "[label=\"CON_mRequired\", shape=ellipse];");
    const auto id = [&](ORN::INDEX ix) { return "n" + std::to_string(ix); };
    EXPECT_TRUE(contains(dot, id(tree.find_node<CON_mOptional>()) + " -> " + id(tree.find_node<CON_mDeepOptional>()) + ";"))
        << dot;
    EXPECT_TRUE(contains(dot, id(tree.find_node<ACT_mBoth>()) + " -> " + id(tree.find_node<CON_mOptional>()) +
                                  " [style=dashed];"))
        << dot;
}

// A node scheduled for a later top-level action is needed earlier when an
// optional dependency fetched during play turns out to use it.
LOGGED_NODE(CON_mRightShared);
LOGGED_NODE(CON_mLate, CON_mRightShared);
LOGGED_NODE(ACT_mRight, CON_mRightShared);
using ACT_mLeft = Declares<[](SyntaxTree &tree) {
    tree.maybe<CON_mLate>();
    tree.once([&tree] {
        gLog.push_back("left first");
        tree.stack<CON_mLate>();
        tree.then([] { gLog.push_back("left second"); });
    });
}>;

TEST(SyntaxTreeMaybe, FetchedOptionalPullsAPendingNodeForward) {
    SyntaxTree tree;
    clean_and_play<ACT_mLeft, ACT_mRight>(tree);
    EXPECT_EQ(actions_only(), (Names{"left first", "CON_mRightShared", "CON_mLate", "left second", "ACT_mRight"}));
    EXPECT_EQ(gFreed["CON_mRightShared"], 1);
}

// ---------------------------------------------------------------------------
// Failure inside an action

using ACT_mThrows = Declares<[](SyntaxTree &tree) {
    tree.stack<CON_mNumber>();
    tree.once([] { throw std::runtime_error("boom"); });
}>;

TEST(SyntaxTreeFailure, ExceptionLeavesPlayWithFlagsAndStackAsTheyWere) {
    {
        SyntaxTree tree;
        EXPECT_THROW(clean_and_play<ACT_mThrows>(tree), std::runtime_error);
        const ORN::INDEX thrower = tree.find_node<ACT_mThrows>();
        const auto &n = tree.node(thrower);
        EXPECT_EQ((std::vector<bool>{n.mPlaying, n.mOncePlayed, n.mPlayed}), (std::vector<bool>{true, false, false}));
        EXPECT_EQ(tree.current_node(), thrower);
        EXPECT_TRUE(tree.node(tree.find_node<CON_mNumber>()).mPlayed);
        EXPECT_TRUE(gFreed.empty());
    }
    // Destroying the graph afterwards still frees every value once.
    EXPECT_EQ(gFreed, gBuilt);
}

// ---------------------------------------------------------------------------
// Iteration values and the two runs of a process

struct VAR_mWorkingPath {
    TRACKED_NODE(VAR_mWorkingPath);
    std::string mSelf;
    explicit VAR_mWorkingPath(SyntaxTree &tree) {
        tree.mark_as_iteration();
        tree.then([this, &tree] { mSelf = tree.later<std::string>(); });
    }
};
struct CON_mSplitDataJson {
    TRACKED_NODE(CON_mSplitDataJson);
    std::string mSelf;
    explicit CON_mSplitDataJson(SyntaxTree &tree) {
        const VAR_mWorkingPath &path = tree.stack<VAR_mWorkingPath>();
        tree.once([this, &path] { mSelf = path.mSelf + "/caches/split_data.json"; });
    }
};
struct CON_mEnableProcess {
    TRACKED_NODE(CON_mEnableProcess);
    bool mSelf = false;
    explicit CON_mEnableProcess(SyntaxTree &tree) {
        const CON_mSplitDataJson &split = tree.stack<CON_mSplitDataJson>();
        tree.once([this, &split] { mSelf = split.mSelf == "/job/caches/split_data.json"; });
    }
};
struct ACT_mWorkingPath {
    ORN_NODE(ACT_mWorkingPath);
    explicit ACT_mWorkingPath(SyntaxTree &tree) {
        const VAR_mWorkingPath &path = tree.stack<VAR_mWorkingPath>();
        tree.once([&path] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            gLog.push_back("ACT_mWorkingPath " + path.mSelf);
        });
    }
};

TEST(SyntaxTreeProcess, InitializeThenExecuteRunsEachNodeOnceFreesSettingsAndReports) {
    reset_log();
    SyntaxTree tree;
    // initialize
    const CON_mEnableProcess &enable = tree.stack<CON_mEnableProcess>();
    tree.redo<VAR_mWorkingPath>(kJobPath);
    tree.play();
    EXPECT_TRUE(enable.mSelf);
    EXPECT_TRUE(gFreed.empty());
    expect_assertion(failure_of([&] { tree.redo<VAR_mWorkingPath>(kJobPath); }), "!(mTree[iy].mPlayed)");
    // execute
    tree.stack<ACT_mWorkingPath>();
    tree.stack<ACT_mChooser<false>>();
    tree.clean();
    EXPECT_EQ(gFreed, (std::map<std::string, int>{{"CON_mSplitDataJson", 1}}));
    // The graph as DOT: kinds by shape, optional edges dashed.
    const std::string dot = tree.to_dot();
    const auto id = [](ORN::INDEX ix) { return "n" + std::to_string(ix); };
    EXPECT_TRUE(starts_with(dot, "digraph SyntaxTree {\n"));
    for (const std::string &part : {id(tree.find_node<CON_mOptional>()) + " [label=\"CON_mOptional\", shape=ellipse, style=dashed]",
                                    std::string("[label=\"VAR_mWorkingPath\", shape=diamond, peripheries=2]"),
                                    std::string("[label=\"ACT_mChooser\", shape=box]"),
                                    "n0 -> " + id(tree.find_node<ACT_mWorkingPath>()) + ";",
                                    " -> " + id(tree.find_node<CON_mOptional>()) + " [style=dashed];"})
        EXPECT_TRUE(contains(dot, part)) << part << "\n" << dot;
    tree.play();
    EXPECT_EQ(actions_only(), (Names{"ACT_mWorkingPath /job", "choose"}));
    EXPECT_EQ(gFreed, (std::map<std::string, int>{{"CON_mSplitDataJson", 1}, {"VAR_mWorkingPath", 1}}));
    // A freed value cannot be asked for again.
    expect_assertion(failure_of([&] { tree.stack<CON_mSplitDataJson>(); }), "!(mTree[iy].mOncePlayed)");
    // Time report: slowest first.
    const auto report = tree.time_report();
    ASSERT_GE(report.size(), 3);
    EXPECT_EQ(report[0].mName, "ACT_mWorkingPath");
    EXPECT_GE(report[0].mActionTime, 20'000'000);
    for (ORN::INDEX i = 1; i < report.size(); ++i)
        EXPECT_GE(report[i - 1].mActionTime + report[i - 1].mReleaseTime, report[i].mActionTime + report[i].mReleaseTime);
    EXPECT_TRUE(starts_with(tree.time_report_text(), "ACT_mWorkingPath : action "));
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
        bool same = set.size() == ORN::INDEX(model.size()) && set.find(-7) == ORN::VAR_NONE;
        for (std::size_t i = 0; i < model.size(); ++i)
            same = same && set[ORN::INDEX(i)] == model[i] && set.find(model[i]) == ORN::INDEX(i);
        return same;
    };
    for (ORN::INDEX k = 0; k < 200; ++k) {
        const ORN::INDEX item = (k * 7919) % 1000; // distinct, scattered
        EXPECT_EQ(set.insert(item), k);
        EXPECT_EQ(set.insert(item), k); // present already: same position
        model.push_back(item);
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
}

constexpr ORN::INDEX kWide = 300;

// A slow destructor, a value too large for the graph's small blocks, and
// plain values side by side.
struct NDS_mWide {
    TRACKED_NODE(NDS_mWide);
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
struct NDS_mItem {
    TRACKED_NODE(NDS_mItem);
    NDS_mItem(SyntaxTree &tree, ORN::INDEX key) {
        tree.once([key] { gLog.push_back("item " + std::to_string(key)); });
    }
};
// Many optional dependencies (past the size where node sets switch to a hash
// index), of which every third is fetched.
using ACT_mWideHub = Declares<[](SyntaxTree &tree) {
    for (ORN::INDEX k = kWide; 0 < k--;)
        tree.stack<NDS_mWide>(k);
    for (ORN::INDEX k = 0; k < kWide; ++k)
        tree.maybe<NDS_mItem>(k);
    tree.once([&tree] {
        for (ORN::INDEX k = kWide; 0 < k--;)
            if (k % 3 == 0)
                tree.stack<NDS_mItem>(k);
    });
}>;

TEST(SyntaxTreeEdges, WideLevelsPlayInDeclarationOrderAndAreReleasedAndTimed) {
    SyntaxTree tree;
    clean_and_play<ACT_mWideHub>(tree);
    // Same stamp and depth: the node mentioned first plays first, whether a
    // level is scheduled at once or fetched later from the first action.
    Names expected;
    for (ORN::INDEX k = kWide; k-- > 0;)
        expected.push_back("wide " + std::to_string(k));
    for (ORN::INDEX k = 0; k < kWide; k += 3)
        expected.push_back("item " + std::to_string(k));
    EXPECT_EQ(actions_only(), expected);
    EXPECT_EQ(gFreed, (std::map<std::string, int>{{"NDS_mWide", kWide}, {"NDS_mItem", kWide / 3}}));
    EXPECT_EQ(gBuilt["NDS_mItem"], kWide / 3);
    EXPECT_EQ(tree.node_name(tree.find_node<NDS_mItem>(3)), "NDS_mItem[3]");
    EXPECT_EQ(tree.node(tree.find_node<NDS_mItem>(4)).mParent.size(), 0);
    EXPECT_GE(tree.node(tree.find_node<NDS_mWide>(7)).mReleaseTime, 3'000'000);
    EXPECT_EQ(tree.node(tree.find_node<ACT_mWideHub>()).mChild.size(), kWide + kWide / 3);
}

} // namespace
