// Table-driven tests of the engine's rules that the timelines reach only in
// part: plan rules and the frame's own inputs.

#include <gtest/gtest.h>

#include "EngineTesting.h"

namespace tavra {
namespace {

using namespace testing_engine;
using K = AgentEvent::Kind;

TEST(EnginePlan, HoldsAndStayAwakeCountOnlyUntilTheirDateAndSortById) {
    Timeline tl;
    tl.command(0, UserCommand::hold("b", at(50)));
    tl.command(0, UserCommand::hold("a", at(100)));
    auto d = tl.command(0, UserCommand::stayAwake(at(50)));
    EXPECT_EQ(d.plan, holding({"stay-awake requested", "a", "b"}));
    d = tl.tick(50);  // expired entries go in the pass that reaches them
    EXPECT_FALSE(tl.engine.stayAwakeUntil());
    EXPECT_EQ(d, (Decision{holding({"a"}), {}}));
    EXPECT_EQ(tl.command(60, UserCommand::hold("a", std::nullopt)).effects,
              (std::vector<Effect>{releaseEntry(60, "agents finished")}));
}

TEST(EnginePlan, RunsStartedTogetherSortByKeyAndANetworkPauseHoldsOnlyUntilItsLimit) {
    PolicySettings settings = PolicySettings::defaults;
    settings.networkPauseAfter = 0;
    SystemSnapshot sys = machine();
    Timeline tl(sys, settings);
    const RunKey b{AgentKind::claude, "b"}, a{AgentKind::claude, "a"};
    tl.agent(0, event(b, K::promptSubmitted, std::nullopt, 1));
    tl.agent(0, event(a, K::promptSubmitted, std::nullopt, 2));
    EXPECT_EQ(tl.engine.sortedRuns().front().key, a);  // the phone numbers runs in this order
    sys.networkReachable = false;
    tl.system(10, sys);
    EXPECT_EQ(tl.engine.computePlan(at(1809)).reasons.size(), 2u);
    EXPECT_EQ(tl.engine.computePlan(at(1810)), PowerPlan::released);  // exactly networkWaitMax
}

TEST(EngineFrame, ProgressAndProcessExitReachOnlyTheirOwnRunAndUnknownEndsAreIgnored) {
    PolicySettings settings = PolicySettings::defaults;
    settings.stuckAfter = 0, settings.stuckRepeatThreshold = 2;
    Timeline tl(machine(), settings);
    EXPECT_TRUE(tl.agent(0, event(kCodex, K::sessionEnded)).effects.empty());
    EXPECT_TRUE(tl.engine.runs().empty());
    // The first alert of a run does not yet know the folder its event brings.
    EXPECT_EQ(tl.agent(0, event(kClaude, K::permissionRequested, "/w/p")).alerts().at(0).title,
              "Claude needs you");
    tl.agent(1, toolEvent(kClaude, K::toolStarted, "Bash", "ls"));
    // Without a pid the stuck run cannot be paused: it stays flagged and working.
    EXPECT_EQ(shapeOf(tl.agent(2, toolEvent(kClaude, K::toolStarted, "Bash", "ls")).effects), "alert:stuck");
    for (const auto& input : {PolicyInput::progress(kCodex), PolicyInput::processExited(kCodex)})
        EXPECT_EQ(tl.engine.handle(input, at(3)), (Decision{holding({"Claude (p) working"}), {}}));
    EXPECT_TRUE(tl.run(kClaude).stuckFlagged);
    EXPECT_TRUE(tl.engine.handle(PolicyInput::progress(kClaude), at(4)).effects.empty());
    EXPECT_FALSE(tl.run(kClaude).stuckFlagged);
}

}  // namespace
}  // namespace tavra
