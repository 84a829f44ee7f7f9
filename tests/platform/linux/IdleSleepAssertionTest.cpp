// The Linux idle-sleep hold against logind and a desktop session played on
// private buses.
#include <gtest/gtest.h>

#include "platform/PowerController.h"
#include "platform/linux/LogindInhibitor.h"
#include "support/linux/FakeLogind.h"

namespace tavra {
namespace {

using namespace std::chrono_literals;
using testing::FakeLogind;
using Events = std::vector<std::string>;

IdleSleepAssertion onLogind(const std::string& system, std::optional<std::string> session = std::nullopt) {
    return IdleSleepAssertion(makeLogindIdleSleepBackend({system, session, session.has_value()}));
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
    // Without logind (its bus here is the desktop's, where login1 is absent)
    // the session layer alone holds the assertion.
    const std::string request = "/org/freedesktop/portal/desktop/request/fake/0";
    // The desktop's services, whether logind is there too, the desktop's calls.
    const std::tuple<FakeLogind::Options, bool, Events> cases[] = {
        {{.logind = false, .gnomeSession = true, .portal = true},
         true,
         {"portal.Inhibit 4|reason=Tavra: claude working = " + request, "portal.Close " + request}},
        {{.logind = false, .gnomeSession = true},
         false,
         {"gnome.Inhibit Tavra|Tavra: claude working|4 = 700", "gnome.Uninhibit 700"}},
    };
    for (const auto& [services, withLogind, calls] : cases) {
        FakeLogind logind;
        FakeLogind desktop(services);
        auto assertion = onLogind(withLogind ? logind.address() : desktop.address(), desktop.address());
        assertion.set(true, "claude working");
        ASSERT_TRUE(assertion.isHeld());
        assertion.set(false, "");
        EXPECT_EQ(desktop.calls(), calls);
        EXPECT_EQ(logind.released(0, 30s), withLogind);
    }
}

TEST(LogindSuspend, AsksLogindWithoutInteraction) {
    FakeLogind logind;
    EXPECT_TRUE(logindSuspend(logind.address()));
    EXPECT_EQ(logind.calls(), (Events{"Suspend 0"}));
    EXPECT_FALSE(logindSuspend("unix:path=/tmp/tavra-no-such-bus"));
}

}  // namespace
}  // namespace tavra
