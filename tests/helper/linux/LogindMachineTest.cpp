#include "helper/linux/LogindMachine.h"

#include <gtest/gtest.h>

#include "helper/HelperFixture.h"
#include "support/ScopedEnv.h"
#include "support/linux/FakeLogind.h"

namespace tavra {
namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

constexpr const char* kLidInhibit =
    "Inhibit handle-lid-switch:sleep|Tavra|Agents are working; the lid may be closed|block";

class LogindMachineTest : public ::testing::Test {
protected:
    testing::TempDir dir;
    Strings logged;

    void attach(LogindMachine& machine) {
        machine.attachLog([this](const std::string& message) { logged.push_back(message); });
    }
};

TEST_F(LogindMachineTest, ABusThatWentAwayIsOpenedAgainOnTheNextCall) {
    std::optional<testing::FakeLogind> logind(std::in_place);
    std::optional<testing::ScopedEnv> systemBus(std::in_place, "DBUS_SYSTEM_BUS_ADDRESS", logind->address());
    LogindMachine machine(dir / "lease");  // the system bus, as the helper uses it
    attach(machine);
    machine.sleepNow();

    logind.reset();  // the bus daemon restarts: the connection is dead
    machine.sleepNow();
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].rfind("org.freedesktop.login1.Manager.Suspend failed: ", 0), 0u) << logged[0];

    logind.emplace();
    systemBus.emplace("DBUS_SYSTEM_BUS_ADDRESS", logind->address());
    machine.setLidSleepDisabled(true);
    EXPECT_TRUE(machine.holdsInhibitor());
    EXPECT_EQ(logged.size(), 1u);
}

// Taking and dropping the lease show in the helper test below.
TEST_F(LogindMachineTest, DeferralIsALeaseFileRenewedByTheTick) {
    LogindMachine machine(dir / "run/tavra", "unix:path=/nonexistent");
    attach(machine);
    machine.writeUpdateSetting(false);
    EXPECT_EQ(machine.readUpdateSetting(), std::nullopt);  // a standing lease is never taken for the user's

    auto anHourAgo = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
    std::filesystem::last_write_time(machine.leaseFile(), anHourAgo);
    machine.keepUpdatesDeferred();  // renewal shows as a fresh modification time
    EXPECT_GT(std::filesystem::last_write_time(machine.leaseFile()), anHourAgo + std::chrono::minutes(30));
    EXPECT_TRUE(logged.empty());
}

class LogindHelperTest : public HelperFixture {};

TEST_F(LogindHelperTest, HelperHoldsTheLockAndLeaseOnlyWhileItsClientLives) {
    testing::FakeLogind logind;
    auto machine = std::make_shared<LogindMachine>(dir / "lease", logind.address());
    sensors->closed = true;
    auto env = environment();
    env.machine = machine;
    helper = Helper::create(context, {}, std::move(env));
    helper->start();

    logind.refuse = true;  // logind says no at first: the next tick asks again
    helper->respond(R"({"apply":{"_0":{"disableLidSleep":true,"deferOSUpdates":true}}})", 0);
    EXPECT_FALSE(machine->holdsInhibitor());
    logind.refuse = false;
    clock.advance(5);
    helper->tick();
    EXPECT_TRUE(machine->holdsInhibitor());
    EXPECT_TRUE(std::filesystem::exists(machine->leaseFile()));
    EXPECT_EQ(logind.calls(), (Strings{kLidInhibit}));

    clock.advance(31);
    helper->tick();
    EXPECT_EQ(helper->plan(), HelperPlan::released);
    EXPECT_FALSE(machine->holdsInhibitor());
    EXPECT_TRUE(logind.released(0, 30s));
    EXPECT_FALSE(std::filesystem::exists(machine->leaseFile()));
    EXPECT_EQ(logind.calls(), (Strings{kLidInhibit, "Suspend 0"}));

    // A helper that ends, however it ends, takes its lock with it.
    request(HelperRequest::apply({true, false}), 0);
    EXPECT_FALSE(logind.released(1));
    helper.reset();
    machine.reset();
    EXPECT_TRUE(logind.released(1, 30s));
}

}  // namespace
}  // namespace tavra
