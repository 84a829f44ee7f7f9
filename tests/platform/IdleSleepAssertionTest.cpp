// The idle-sleep assertion: its take/drop rules over a recording backend, and
// the Linux hold against logind and a desktop session played on private buses.
#include <gtest/gtest.h>

#include "platform/PowerController.h"
#include "platform/linux/LogindInhibitor.h"
#include "support/FakeIdleSleepBackend.h"
#include "support/FakeLogind.h"

namespace tavra {
namespace {

using namespace std::chrono_literals;
using testing::FakeLogind;
using Events = std::vector<std::string>;

TEST(IdleSleepAssertion, TakesOnceDropsOnceRetriesARefusalAndReleasesWhenDestroyed) {
    auto log = std::make_shared<testing::IdleSleepLog>();
    {
        IdleSleepAssertion assertion(std::make_unique<testing::RecordingIdleSleepBackend>(log));
        EXPECT_FALSE(assertion.isHeld());
        assertion.set(false, "nothing");
        log->refuse = true;
        assertion.set(true, "refused");  // silent, and retried by the next set
        EXPECT_FALSE(assertion.isHeld());
        log->refuse = false;
        assertion.set(true, "claude working");
        EXPECT_TRUE(assertion.isHeld());
        EXPECT_EQ(assertion.assertionID(), 100U);
        assertion.set(true, "codex working");  // held: not renamed, not taken twice
        assertion.set(false, "");
        assertion.set(false, "");
        EXPECT_EQ(assertion.assertionID(), 0U);
        assertion.set(true, "codex working");
    }
    EXPECT_EQ(log->events, (Events{"refuse Tavra: refused", "take Tavra: claude working", "drop 100",
                                   "take Tavra: codex working", "drop 101"}));
    EXPECT_TRUE(log->held.empty());
}

IdleSleepAssertion onLogind(const std::string& system, std::optional<std::string> session = std::nullopt) {
    return IdleSleepAssertion(makeLogindIdleSleepBackend({system, session, session.has_value()}));
}

TEST(LogindIdleSleep, HoldsTheInhibitorDescriptorUntilDropped) {
    FakeLogind logind;
    auto assertion = onLogind(logind.address());
    assertion.set(true, "agent running");
    ASSERT_TRUE(assertion.isHeld());
    EXPECT_NE(assertion.assertionID(), 0U);
    EXPECT_EQ(logind.calls(), (Events{"Inhibit idle:sleep|Tavra|Tavra: agent running|block"}));
    EXPECT_FALSE(logind.released(0));

    assertion.set(false, "");
    EXPECT_TRUE(logind.released(0, 30s));
    EXPECT_FALSE(assertion.isHeld());

    // Taken again, and let go when the assertion goes away.
    {
        auto second = onLogind(logind.address());
        second.set(true, "again");
        EXPECT_FALSE(logind.released(1));
    }
    EXPECT_TRUE(logind.released(1, 30s));
}

TEST(LogindIdleSleep, IsNotHeldWhenLogindRefusesOrIsAbsent) {
    testing::PrivateDBus empty;
    FakeLogind refusing;
    refusing.refuse = true;
    for (const auto& address :
         {empty.address(), std::string("unix:path=/tmp/tavra-no-such-bus"), refusing.address()}) {
        auto assertion = onLogind(address);
        assertion.set(true, "x");
        EXPECT_FALSE(assertion.isHeld()) << address;
    }
}

TEST(LogindIdleSleep, AlsoHoldsASessionInhibitorForSuspendPreferringThePortal) {
    FakeLogind logind;
    // Without a portal the GNOME session manager is asked.
    FakeLogind gnome({.logind = false, .gnomeSession = true});
    FakeLogind portal({.logind = false, .gnomeSession = true, .portal = true});
    for (auto* desktop : {&gnome, &portal}) {
        auto assertion = onLogind(logind.address(), desktop->address());
        assertion.set(true, "claude working");
        ASSERT_TRUE(assertion.isHeld());
        assertion.set(false, "");
    }
    EXPECT_EQ(gnome.calls(),
              (Events{"gnome.Inhibit Tavra|Tavra: claude working|4 = 700", "gnome.Uninhibit 700"}));
    const std::string handle = "/org/freedesktop/portal/desktop/request/t/0";
    EXPECT_EQ(portal.calls(), (Events{"portal.Inhibit 4|reason=Tavra: claude working = " + handle,
                                      "portal.Close " + handle}));
    EXPECT_EQ(logind.calls().size(), 2U);
    EXPECT_TRUE(logind.released(0, 30s));
    EXPECT_TRUE(logind.released(1, 30s));
}

TEST(LogindIdleSleep, HoldsWithTheSessionLayerAloneWhenLogindIsMissing) {
    testing::PrivateDBus empty;
    FakeLogind desktop({.logind = false, .gnomeSession = true});
    auto assertion = onLogind(empty.address(), desktop.address());
    assertion.set(true, "x");
    EXPECT_TRUE(assertion.isHeld());
    assertion.set(false, "");
    EXPECT_EQ(desktop.calls(), (Events{"gnome.Inhibit Tavra|Tavra: x|4 = 700", "gnome.Uninhibit 700"}));
}

TEST(LogindSuspend, AsksLogindWithoutInteraction) {
    FakeLogind logind;
    EXPECT_TRUE(logindSuspend(logind.address()));
    EXPECT_EQ(logind.calls(), (Events{"Suspend 0"}));
    EXPECT_FALSE(logindSuspend("unix:path=/tmp/tavra-no-such-bus"));
}

}  // namespace
}  // namespace tavra
