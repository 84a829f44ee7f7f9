// The logind-backed sensors against a fake logind on a private bus, and
// against no bus at all. The machine's own system bus is never used: every
// test points DBUS_SYSTEM_BUS_ADDRESS elsewhere.
#include <algorithm>
#include <ctime>

#include <gtest/gtest.h>

#include "platform/LinuxSystemFiles.h"
#include "platform/Sensors.h"
#include "support/ScopedEnv.h"
#include "support/linux/FakeLogind.h"

namespace tavra {
namespace {

std::uint64_t microsAgo(clockid_t clock, std::uint64_t seconds) {
    timespec ts{};
    ::clock_gettime(clock, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000u +
           static_cast<std::uint64_t>(ts.tv_nsec) / 1'000u - seconds * 1'000'000u;
}

bool lidFallback() {
    return LinuxSystemFiles::lidClosed("/").value_or(false);
}

class LogindSensors : public ::testing::Test {
protected:
    testing::FakeLogind logind;
    testing::ScopedEnv systemBus{"DBUS_SYSTEM_BUS_ADDRESS", logind.address()};
};

TEST_F(LogindSensors, LidAndLockStateOfTheDisplaySessionElseOfTheProcesssOwn) {
    EXPECT_FALSE(LidSensor::isClosed());
    logind.lidClosed = true;
    EXPECT_TRUE(LidSensor::isClosed());
    EXPECT_FALSE(LockSensor::isLocked());
    logind.display.locked = true;
    logind.inSession = true;  // the display session still wins
    EXPECT_TRUE(LockSensor::isLocked());
    logind.display.locked = false;
    logind.own.locked = true;
    EXPECT_FALSE(LockSensor::isLocked());

    logind.hasDisplaySession = false;
    EXPECT_TRUE(LockSensor::isLocked());
    logind.inSession = false;  // no session at all: the harmless value
    EXPECT_FALSE(LockSensor::isLocked());
}

TEST_F(LogindSensors, IdleSecondsCountFromTheSessionsHintElseTheMachineWideOne) {
    EXPECT_EQ(IdleSensor::seconds(), 0.0);  // active session
    // A freshly booted machine (as CI's may be) has a small monotonic clock:
    // stay well inside it.
    timespec up{};
    ::clock_gettime(CLOCK_MONOTONIC, &up);
    const auto ago = std::clamp<std::uint64_t>(static_cast<std::uint64_t>(up.tv_sec) / 2, 1, 300);
    logind.display.idle = true;
    logind.display.idleSinceMonotonic = microsAgo(CLOCK_MONOTONIC, ago);
    logind.display.idleSince = microsAgo(CLOCK_REALTIME, 0);  // the monotonic time is preferred
    EXPECT_GE(IdleSensor::seconds(), static_cast<double>(ago));
    EXPECT_LT(IdleSensor::seconds(), static_cast<double>(ago) + 100.0);

    logind.hasDisplaySession = false;
    logind.manager.idle = true;
    logind.manager.idleSince = microsAgo(CLOCK_REALTIME, 120);
    EXPECT_GE(IdleSensor::seconds(), 120.0);
    EXPECT_LT(IdleSensor::seconds(), 220.0);
}

TEST_F(LogindSensors, ABusThatStopsAnsweringGivesTheFallbacks) {
    logind.lidClosed = true;
    logind.display.locked = true;
    logind.display.idle = true;
    logind.display.idleSinceMonotonic = 1;
    logind.answering = false;
    EXPECT_FALSE(LockSensor::isLocked());
    EXPECT_EQ(IdleSensor::seconds(), 0.0);
    EXPECT_EQ(LidSensor::isClosed(), lidFallback());
}

}  // namespace
}  // namespace tavra
