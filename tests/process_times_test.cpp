// The time report a process gives at its end: every node, costliest first;
// the heavy ones (50 ms and more) at info level, the others at verbose level.

#include "ZARN_Velda/ProcessFrame.h"

#include "support.h"

#include <chrono>
#include <thread>
#include <utility>

namespace {

using namespace zarn_test;

struct ACT_mSlowStep {
    ORN_NODE(ACT_mSlowStep);
    explicit ACT_mSlowStep(ORN::SyntaxTree &tree) {
        tree.once([] { std::this_thread::sleep_for(std::chrono::milliseconds(120)); });
    }
};

struct ACT_mQuickStep {
    ORN_NODE(ACT_mQuickStep);
    explicit ACT_mQuickStep(ORN::SyntaxTree &tree) {
        tree.stack<ACT_mSlowStep>();
        tree.once([] {});
    }
};

TEST(ProcessTimes, HeavyNodesAtInfoLevelTheRestAtVerbose) {
    ORN::SyntaxTree tree;
    tree.stack<ACT_mQuickStep>();
    tree.clean();
    tree.play();
    std::vector<std::pair<ORN::ConsoleLevel, std::string>> lines;
    auto &console = ORN::console();
    console.listen([&](ORN::ConsoleLevel level, std::string_view text) { lines.emplace_back(level, std::string(text)); });
    capture_stdout([&] { ZARN::Frame::report_times(tree, console); });
    console.listen(nullptr);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].first, ORN::ConsoleLevel::Info);
    EXPECT_TRUE(starts_with(lines[0].second, "ACT_mSlowStep : action ")) << lines[0].second;
    EXPECT_TRUE(contains(lines[0].second, " ms, release ")) << lines[0].second;
    EXPECT_EQ(lines[1].first, ORN::ConsoleLevel::Verbose);
    EXPECT_TRUE(starts_with(lines[1].second, "ACT_mQuickStep : action ")) << lines[1].second;
}

} // namespace
