// The idle-sleep assertion: its take/drop rules over a recording backend, and
// the Linux hold against logind and a GNOME session played on a private bus.
#include <gtest/gtest.h>

#include "platform/PowerController.h"
#include "platform/linux/LogindInhibitor.h"
#include "support/FakeIdleSleepBackend.h"
#include "support/FakeInhibitorServices.h"
#include "support/PrivateDBus.h"

namespace tavra {
namespace {

using testing::FakeInhibitorServices;
using testing::IdleSleepLog;
using testing::RecordingIdleSleepBackend;

using Events = std::vector<std::string>;

struct Recorded {
    std::shared_ptr<IdleSleepLog> log = std::make_shared<IdleSleepLog>();
    IdleSleepAssertion assertion{std::make_unique<RecordingIdleSleepBackend>(log)};
};

TEST(IdleSleepAssertion, StartsReleasedAndTakesAndDropsIdempotently) {
    Recorded r;
    EXPECT_FALSE(r.assertion.isHeld());
    EXPECT_EQ(r.assertion.assertionID(), 0U);

    r.assertion.set(false, "nothing");
    r.assertion.set(true, "claude working");
    EXPECT_TRUE(r.assertion.isHeld());
    EXPECT_EQ(r.assertion.assertionID(), 100U);
    r.assertion.set(true, "codex working");  // held: not renamed, not taken twice
    r.assertion.set(false, "");
    EXPECT_FALSE(r.assertion.isHeld());
    EXPECT_EQ(r.assertion.assertionID(), 0U);
    r.assertion.set(false, "");
    r.assertion.set(true, "codex working");

    EXPECT_EQ(r.log->events, (Events{"take Tavra: claude working", "drop 100", "take Tavra: codex working"}));
}

TEST(IdleSleepAssertion, ARefusalIsSilentAndRetriedByTheNextSet) {
    Recorded r;
    r.log->refuse = true;
    r.assertion.set(true, "a");
    EXPECT_FALSE(r.assertion.isHeld());
    EXPECT_EQ(r.assertion.assertionID(), 0U);
    r.log->refuse = false;
    r.assertion.set(true, "b");
    EXPECT_TRUE(r.assertion.isHeld());
    EXPECT_EQ(r.log->events, (Events{"refuse Tavra: a", "take Tavra: b"}));
}

TEST(IdleSleepAssertion, ReleasesWhatItHoldsWhenDestroyed) {
    auto log = std::make_shared<IdleSleepLog>();
    {
        IdleSleepAssertion assertion(std::make_unique<RecordingIdleSleepBackend>(log));
        assertion.set(true, "x");
    }
    { IdleSleepAssertion idle(std::make_unique<RecordingIdleSleepBackend>(log)); }
    EXPECT_EQ(log->events, (Events{"take Tavra: x", "drop 100"}));
    EXPECT_TRUE(log->held.empty());
}

InhibitorBuses logindOnly(const std::string& address) {
    return {address, std::nullopt, false};
}

TEST(LogindIdleSleep, HoldsTheInhibitorDescriptorUntilDropped) {
    testing::PrivateDBus bus;
    ASSERT_FALSE(bus.address().empty());
    FakeInhibitorServices logind(bus.address(), {});
    ASSERT_TRUE(logind.ready());
    IdleSleepAssertion assertion(makeLogindIdleSleepBackend(logindOnly(bus.address())));

    assertion.set(true, "agent running");

    ASSERT_TRUE(assertion.isHeld());
    EXPECT_NE(assertion.assertionID(), 0U);
    EXPECT_EQ(logind.inhibitors(), (std::vector<FakeInhibitorServices::Inhibitor>{
                                       {"idle:sleep", "Tavra", "Tavra: agent running", "block"}}));
    EXPECT_FALSE(logind.released(0));

    assertion.set(false, "");
    EXPECT_TRUE(logind.waitForRelease(0));
    EXPECT_FALSE(assertion.isHeld());

    // Taken again, and let go when the assertion goes away.
    {
        IdleSleepAssertion second(makeLogindIdleSleepBackend(logindOnly(bus.address())));
        second.set(true, "again");
        ASSERT_EQ(logind.inhibitors().size(), 2U);
        EXPECT_FALSE(logind.released(1));
    }
    EXPECT_TRUE(logind.waitForRelease(1));
}

TEST(LogindIdleSleep, IsNotHeldWhenLogindRefusesOrIsAbsent) {
    testing::PrivateDBus bus;
    ASSERT_FALSE(bus.address().empty());
    {
        IdleSleepAssertion nobody(makeLogindIdleSleepBackend(logindOnly(bus.address())));
        nobody.set(true, "x");
        EXPECT_FALSE(nobody.isHeld());
    }
    {
        IdleSleepAssertion noBus(makeLogindIdleSleepBackend(logindOnly("unix:path=/tmp/tavra-no-such-bus")));
        noBus.set(true, "x");
        EXPECT_FALSE(noBus.isHeld());
    }
    FakeInhibitorServices refusing(bus.address(), {.refuseInhibit = true});
    ASSERT_TRUE(refusing.ready());
    IdleSleepAssertion refused(makeLogindIdleSleepBackend(logindOnly(bus.address())));
    refused.set(true, "x");
    EXPECT_FALSE(refused.isHeld());
}

TEST(LogindIdleSleep, AlsoHoldsASessionInhibitorForSuspendAndReturnsIt) {
    testing::PrivateDBus system;
    testing::PrivateDBus session;
    ASSERT_FALSE(system.address().empty());
    ASSERT_FALSE(session.address().empty());
    FakeInhibitorServices logind(system.address(), {});
    // The session offers no portal, so the GNOME session manager is asked.
    FakeInhibitorServices desktop(session.address(), {.logind = false, .gnomeSession = true});
    ASSERT_TRUE(logind.ready());
    ASSERT_TRUE(desktop.ready());
    IdleSleepAssertion assertion(makeLogindIdleSleepBackend({system.address(), session.address(), true}));

    assertion.set(true, "claude working");
    ASSERT_TRUE(assertion.isHeld());
    EXPECT_EQ(desktop.gnomeReasons(), (std::vector<std::string>{"Tavra|Tavra: claude working|4"}));
    EXPECT_EQ(logind.inhibitors().size(), 1U);

    assertion.set(false, "");
    EXPECT_EQ(desktop.gnomeCookiesReturned(), desktop.gnomeCookiesGiven());
    EXPECT_TRUE(logind.waitForRelease(0));
}

TEST(LogindIdleSleep, PrefersTheDesktopPortalAndClosesItsRequest) {
    testing::PrivateDBus system;
    testing::PrivateDBus session;
    FakeInhibitorServices logind(system.address(), {});
    FakeInhibitorServices desktop(session.address(), {.logind = false, .gnomeSession = true, .portal = true});
    ASSERT_TRUE(logind.ready());
    ASSERT_TRUE(desktop.ready());
    IdleSleepAssertion assertion(makeLogindIdleSleepBackend({system.address(), session.address(), true}));

    assertion.set(true, "codex working");
    ASSERT_TRUE(assertion.isHeld());
    EXPECT_EQ(desktop.portalRequests(), (std::vector<std::string>{"4|Tavra: codex working"}));
    EXPECT_TRUE(desktop.gnomeReasons().empty());
    EXPECT_TRUE(desktop.portalHandlesClosed().empty());

    assertion.set(false, "");
    EXPECT_EQ(desktop.portalHandlesClosed(), desktop.portalHandlesGiven());
    EXPECT_TRUE(logind.waitForRelease(0));
}

TEST(LogindIdleSleep, HoldsWithTheSessionLayerAloneWhenLogindIsMissing) {
    testing::PrivateDBus empty;
    testing::PrivateDBus session;
    FakeInhibitorServices desktop(session.address(), {.logind = false, .gnomeSession = true});
    ASSERT_TRUE(desktop.ready());
    IdleSleepAssertion assertion(makeLogindIdleSleepBackend({empty.address(), session.address(), true}));
    assertion.set(true, "x");
    EXPECT_TRUE(assertion.isHeld());
    assertion.set(false, "");
    EXPECT_EQ(desktop.gnomeCookiesReturned().size(), 1U);
}

TEST(LogindSuspend, AsksLogindWithoutInteraction) {
    testing::PrivateDBus bus;
    FakeInhibitorServices logind(bus.address(), {});
    ASSERT_TRUE(logind.ready());
    EXPECT_TRUE(logindSuspend(bus.address()));
    EXPECT_EQ(logind.suspendCalls(), (std::vector<bool>{false}));
    EXPECT_FALSE(logindSuspend("unix:path=/tmp/tavra-no-such-bus"));
}

}  // namespace
}  // namespace tavra
