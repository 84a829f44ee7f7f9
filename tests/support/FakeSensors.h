#pragma once

#include <functional>
#include <mutex>

#include "platform/Sensors.h"

namespace tavra::testing {

// Sensors whose readings a test sets, for SystemMonitor and anything else
// that takes a SensorSet. Thread-safe: the code under test may read from its
// own thread while the test changes the values. Must outlive the SensorSet
// it hands out.
class FakeSensors {
public:
    struct Values {
        PowerSourceSensor::Reading power{PowerSource::ac, std::nullopt};
        bool lidClosed = false;
        double idleSeconds = 0;
        bool screenLocked = false;
        ThermalLevel thermal = ThermalLevel::nominal;
        bool osUpdatePending = false;
    };

    // Changes the readings under the lock: fake.set([](auto& v) { v.lidClosed = true; });
    void set(const std::function<void(Values&)>& change) {
        std::lock_guard guard(mutex_);
        change(values_);
    }
    Values values() const {
        std::lock_guard guard(mutex_);
        return values_;
    }
    // How often the update file was "read".
    int updateChecks() const {
        std::lock_guard guard(mutex_);
        return updateChecks_;
    }

    SensorSet sensors() {
        return SensorSet{
            .powerSource = [this] { return values().power; },
            .lidClosed = [this] { return values().lidClosed; },
            .idleSeconds = [this] { return values().idleSeconds; },
            .screenLocked = [this] { return values().screenLocked; },
            .thermal = [this] { return values().thermal; },
            .osUpdatePending =
                [this] {
                    std::lock_guard guard(mutex_);
                    ++updateChecks_;
                    return values_.osUpdatePending;
                },
        };
    }

private:
    mutable std::mutex mutex_;
    Values values_;
    int updateChecks_ = 0;
};

}  // namespace tavra::testing
