#include "EngineTesting.h"

namespace tavra {
namespace {

using namespace testing_engine;

// A restarted owner hands back runs, a stay-awake and holds: the next input
// sees them exactly as if they had never left, in the usual order.
TEST(PolicyEngineRestoreTest, RestoredStateDrivesTheNextPlanAndKeepsRunsInOrder) {
    PolicyEngine engine(PolicySettings::defaults, machine());
    Run working(kCodex, at(0));
    working.cwd = "/w/b";
    working.setStatus(RunStatus::working, at(0));
    Run idle(kClaude, at(0));
    idle.workingSeconds = 90;
    engine.restore({working, idle}, at(600), {{"build", at(300)}});

    auto decision = engine.handle(PolicyInput::tick(), at(100));
    EXPECT_EQ(decision.plan.reasons,
              (std::vector<std::string>{"Codex (b) working", "stay-awake requested", "build"}));
    auto runs = engine.sortedRuns();
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[0].key, kClaude);  // equal start: by key
    EXPECT_EQ(runs[0].workingSeconds, 90);
    EXPECT_EQ(runs[1].workingSeconds, 100);  // working time runs on from where it was

    // A second restore replaces, it does not add.
    engine.restore({}, std::nullopt, {});
    EXPECT_EQ(engine.handle(PolicyInput::tick(), at(101)).plan, PowerPlan::released);
    EXPECT_TRUE(engine.runs().empty());
}

}  // namespace
}  // namespace tavra
