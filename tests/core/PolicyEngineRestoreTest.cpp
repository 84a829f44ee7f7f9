#include "EngineTesting.h"

namespace tavra {
namespace {

using namespace testing_engine;

// The next input sees restored runs, stay-awake and holds as if they had
// never left; a second restore replaces rather than adds.
TEST(PolicyEngineRestoreTest, RestoredStateDrivesTheNextPlanAndReplacesWhatWasThere) {
    PolicyEngine engine(PolicySettings::defaults, machine());
    tavra::Run working(kCodex, at(0));
    working.setStatus(RunStatus::working, at(0));
    engine.restore({working}, at(600), {{"build", at(300)}});
    EXPECT_EQ(engine.handle(PolicyInput::tick(), at(100)).plan.reasons,
              (std::vector<std::string>{"Codex working", "stay-awake requested", "build"}));
    EXPECT_EQ(engine.runs().at(kCodex).workingSeconds, 100);
    engine.restore({}, std::nullopt, {});
    EXPECT_EQ(engine.handle(PolicyInput::tick(), at(101)).plan, PowerPlan::released);
}

}  // namespace
}  // namespace tavra
