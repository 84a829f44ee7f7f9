#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/Sensors.h"

namespace tavra {
namespace {

const Date kStart = dateFromEpochSeconds(1'740'000'000);

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
