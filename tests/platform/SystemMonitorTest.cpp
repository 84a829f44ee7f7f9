#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/Sensors.h"

namespace tavra {
namespace {

const Date kStart = dateFromEpochSeconds(1'740'000'000);

TEST(SystemMonitor, UpdateFileIsReadAtMostOnceIn900Seconds) {
    bool fileSays = false;
    int reads = 0;
    SensorSet sensors;
    sensors.osUpdatePending = [&] {
        ++reads;
        return fileSays;
    };
    SystemMonitor monitor(sensors, nullptr);

    EXPECT_FALSE(monitor.sample(false, kStart).osUpdatePending);
    EXPECT_EQ(reads, 1);

    // The file changes, but the cached answer holds up to and including 900 s
    // after the last read.
    // Seconds after the start, what the file says, the answer, reads so far.
    const std::tuple<double, bool, bool, int> steps[] = {
        {900, true, false, 1},  // exactly 900 seconds is not enough
        {901, true, true, 2},   // read again; the interval restarts here
        {1801, false, true, 2},  {1801.5, false, false, 3},
        {-5000, true, false, 3},  // a clock that went back keeps the cached answer
    };
    for (const auto& [after, says, expected, readsSoFar] : steps) {
        fileSays = says;
        EXPECT_EQ(monitor.sample(false, addSeconds(kStart, after)).osUpdatePending, expected) << after;
        EXPECT_EQ(reads, readsSoFar) << after;
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

}  // namespace
}  // namespace tavra
