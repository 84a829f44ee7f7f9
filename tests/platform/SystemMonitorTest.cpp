#include <atomic>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "platform/Sensors.h"
#include "support/FakeSensors.h"

namespace tavra {
namespace {

using testing::FakeSensors;

const Date kStart = dateFromEpochSeconds(1'740'000'000);

TEST(SystemMonitor, SampleCarriesEverySensorAndTheCallersHelperFlag) {
    FakeSensors fake;
    fake.set([](auto& v) {
        v.power = {PowerSource::battery, 42};
        v.lidClosed = true;
        v.idleSeconds = 12.5;
        v.screenLocked = true;
        v.thermal = ThermalLevel::serious;
        v.osUpdatePending = true;
    });
    auto network = std::make_unique<NetworkSensor>(NetworkSensor::Mode::manual);
    SystemMonitor monitor(fake.sensors(), std::move(network));
    EXPECT_TRUE(monitor.sample(true, kStart).networkReachable);  // before the first path update
    monitor.network().pathUpdated(false);

    const auto snapshot = monitor.sample(true, kStart);
    EXPECT_EQ(snapshot, (SystemSnapshot{
                            .powerSource = PowerSource::battery,
                            .batteryPercent = 42,
                            .thermal = ThermalLevel::serious,
                            .lidClosed = true,
                            .screenLocked = true,
                            .userIdleSeconds = 12.5,
                            .networkReachable = false,
                            .helperAvailable = true,
                            .osUpdatePending = true,
                        }));
    EXPECT_FALSE(monitor.sample(false, kStart).helperAvailable);
}

TEST(SystemMonitor, SensorsLeftOutReadTheirHarmlessValues) {
    SystemMonitor monitor(SensorSet{}, nullptr);
    auto expected = SystemSnapshot::unknown;
    expected.helperAvailable = true;
    EXPECT_EQ(monitor.sample(true, kStart), expected);
}

TEST(SystemMonitor, UpdateFileIsReadAtMostOnceIn900Seconds) {
    FakeSensors fake;
    SystemMonitor monitor(fake.sensors(), nullptr);

    // The first sample always reads, whatever `now` is.
    EXPECT_FALSE(monitor.sample(false, kStart).osUpdatePending);
    EXPECT_EQ(fake.updateChecks(), 1);

    // The file changes, but the cached answer holds up to and including 900 s
    // after the last read.
    struct Step {
        double secondsAfterStart;
        bool fileSays;
        bool expected;
        int reads;
    };
    const std::vector<Step> steps = {
        {1, true, false, 1},     {899, true, false, 1},
        {900, true, false, 1},  // exactly 900 seconds is not enough
        {901, true, true, 2},   // read again; the interval restarts here
        {1801, false, true, 2},  {1801.5, false, false, 3},
        {-5000, true, false, 3},  // a clock that went back keeps the cached answer
    };
    for (const auto& step : steps) {
        fake.set([&](auto& v) { v.osUpdatePending = step.fileSays; });
        EXPECT_EQ(monitor.sample(false, addSeconds(kStart, step.secondsAfterStart)).osUpdatePending,
                  step.expected)
            << step.secondsAfterStart;
        EXPECT_EQ(fake.updateChecks(), step.reads) << step.secondsAfterStart;
    }
}

// ---- NetworkSensor's value and callback ---------------------------------------

TEST(NetworkSensorUpdates, CallbackFiresOncePerRealChangeOutsideTheLock) {
    NetworkSensor sensor(NetworkSensor::Mode::manual);
    sensor.pathUpdated(true);   // confirms the starting value: nothing to say
    sensor.pathUpdated(false);  // stored without a callback
    std::vector<bool> calls;
    sensor.setOnChange([&](bool reachable) {
        calls.push_back(reachable);
        calls.push_back(sensor.isReachable());  // would deadlock under the lock
    });
    for (bool value : {false, true, true, false}) sensor.pathUpdated(value);
    sensor.setOnChange([](bool) { throw std::runtime_error("callback failed"); });
    EXPECT_NO_THROW(sensor.pathUpdated(true));
    sensor.setOnChange({});
    sensor.pathUpdated(false);
    EXPECT_EQ(calls, (std::vector<bool>{true, true, false, false}));
    EXPECT_FALSE(sensor.isReachable());
}

TEST(NetworkSensorUpdates, ConcurrentUpdatesReportEveryChangeOnce) {
    NetworkSensor sensor(NetworkSensor::Mode::manual);
    std::atomic<int> changes = 0;
    sensor.setOnChange([&](bool) { ++changes; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&sensor, t] {
            for (int i = 0; i < 1000; ++i) sensor.pathUpdated((i + t) % 2 == 0);
        });
    }
    for (auto& thread : threads) thread.join();
    // Every call to the callback is a real flip, so the final value follows
    // from how many there were.
    EXPECT_EQ(sensor.isReachable(), changes % 2 == 0);
}

}  // namespace
}  // namespace tavra
