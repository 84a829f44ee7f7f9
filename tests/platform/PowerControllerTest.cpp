// The idle-sleep assertion over a recording backend, and PowerController
// against it and a fake helper on a real socket that answers, refuses or
// stays silent.
#include <gtest/gtest.h>

#include <memory>

#include "platform/PowerController.h"
#include "support/FakeHelperServer.h"
#include "support/FakeIdleSleepBackend.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

using testing::FakeHelperServer;
using Mode = FakeHelperServer::Mode;
using Events = std::vector<std::string>;
using Requests = std::vector<HelperRequest>;

using testing::IdleSleepLog;
using testing::RecordingIdleSleepBackend;

// A controller wired to a fake helper in a temporary directory, a recording
// assertion and a counted sleep fallback.
struct Rig {
    testing::TempDir dir;
    std::unique_ptr<FakeHelperServer> helper =
        std::make_unique<FakeHelperServer>((dir / "helper.sock").string());
    std::shared_ptr<IdleSleepLog> assertion = std::make_shared<IdleSleepLog>();
    bool installed = true;
    int fallbacks = 0;
    PowerController controller{HelperClient{(dir / "helper.sock").string()}, seams()};

    PowerController::Seams seams() {
        PowerController::Seams s;
        s.assertion = std::make_unique<RecordingIdleSleepBackend>(assertion);
        s.helperInstalled = [this] { return installed; };
        s.sleepFallback = [this] { ++fallbacks; };
        return s;
    }
};

TEST(IdleSleepAssertion, RetriesARefusalAndReleasesWhenDestroyed) {
    auto log = std::make_shared<IdleSleepLog>();
    {
        IdleSleepAssertion assertion(std::make_unique<RecordingIdleSleepBackend>(log));
        log->refuse = true;
        assertion.set(true, "refused");  // silent, and retried by the next set
        EXPECT_FALSE(assertion.isHeld());
        log->refuse = false;
        assertion.set(true, "claude working");
        EXPECT_TRUE(assertion.isHeld());
        EXPECT_EQ(assertion.assertionID(), 100U);
    }
    EXPECT_EQ(log->events, (Events{"refuse Tavra: refused", "take Tavra: claude working", "drop 100"}));
}

TEST(PowerController, ApplyTakesTheAssertionFirstThenSendsTheHelperHalves) {
    Rig rig;
    EXPECT_FALSE(rig.controller.helperReachable());
    rig.controller.apply(PowerPlan{true, true, false, {}});
    EXPECT_TRUE(rig.controller.helperReachable());

    // A new first reason does not rename the held assertion; a plan without
    // idle-sleep prevention drops it; the next take is named after the first reason.
    rig.controller.apply(PowerPlan{true, false, true, {"codex working", "claude working"}});
    rig.controller.apply(PowerPlan{false, false, false, {"ignored"}});
    rig.controller.apply(PowerPlan{true, false, false, {"claude working", "codex working"}});
    EXPECT_EQ(rig.assertion->events,
              (Events{"take Tavra: agent running", "drop 100", "take Tavra: claude working"}));
    EXPECT_EQ(
        rig.helper->requests(),
        (Requests{HelperRequest::apply({true, false}), HelperRequest::apply({false, true}),
                  HelperRequest::apply(HelperPlan::released), HelperRequest::apply(HelperPlan::released)}));
}

TEST(PowerController, HelperErrorsAreKeptUntilAPlanSucceedsAndRestoreDropsEverything) {
    Rig rig;
    rig.helper->setMode(Mode::refuse);
    rig.controller.apply(PowerPlan{true, true, false, {}});
    EXPECT_FALSE(rig.controller.helperReachable());
    EXPECT_EQ(rig.controller.lastHelperError(), "forbidden");
    EXPECT_TRUE(rig.controller.holdsIdleAssertion());  // the local half does not depend on the helper
    rig.helper->setMode(Mode::ok);
    rig.controller.restoreDefaults();
    EXPECT_TRUE(rig.controller.helperReachable());
    EXPECT_EQ(rig.controller.lastHelperError(), "forbidden");  // only a plan's success clears it
    EXPECT_FALSE(rig.controller.holdsIdleAssertion());
    EXPECT_EQ(rig.assertion->events, (Events{"take Tavra: agent running", "drop 100"}));
    EXPECT_EQ(rig.helper->requests(),
              (Requests{HelperRequest::apply({true, false}), HelperRequest::restoreDefaults()}));
    rig.controller.apply(PowerPlan{true, true, false, {}});
    EXPECT_EQ(rig.controller.lastHelperError(), std::nullopt);

    // A helper that goes away: restoring still drops the local half and
    // leaves reachability as it was; the next plan marks it unreachable.
    rig.installed = false;
    rig.controller.restoreDefaults();
    EXPECT_FALSE(rig.controller.holdsIdleAssertion());
    EXPECT_TRUE(rig.controller.helperReachable());
    rig.controller.apply(PowerPlan{false, true, false, {}});
    EXPECT_FALSE(rig.controller.helperReachable());
    EXPECT_EQ(rig.controller.lastHelperError(), std::nullopt);
    EXPECT_EQ(rig.helper->requests().size(), 3U);
}

}  // namespace
}  // namespace tavra
