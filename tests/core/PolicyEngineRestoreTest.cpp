#include "EngineTesting.h"

namespace tavra {
namespace {

using namespace testing_engine;

// The next input sees restored runs, stay-awake and holds as if they had
// never left; a second restore replaces rather than adds.
TEST(PolicyEngineRestoreTest, RestoredStateDrivesTheNextPlanAndReplacesWhatWasThere) {
    PolicyEngine engine(PolicySettings::defaults, machine());
    Run working(kCodex, at(0));
    working.cwd = "/w/b";
    working.setStatus(RunStatus::working, at(0));
    engine.restore({working, Run(kClaude, at(0))}, at(600), {{"build", at(300)}});
    auto decision = engine.handle(PolicyInput::tick(), at(100));
    EXPECT_EQ(decision.plan.reasons,
              (std::vector<std::string>{"Codex (b) working", "stay-awake requested", "build"}));
    EXPECT_EQ(engine.runs().at(kCodex).workingSeconds, 100);

    engine.restore({}, std::nullopt, {});
    EXPECT_EQ(engine.handle(PolicyInput::tick(), at(101)).plan, PowerPlan::released);
}

}  // namespace
}  // namespace tavra
