#pragma once

// Sensors turn one operating-system interface each into one plain value, and
// SystemMonitor folds them into one SystemSnapshot whenever the daemon asks.
//
// No sensor reports an error: on any failure of its interface each returns a
// fixed harmless value (stated with each operation). The stateless sensors
// are callable from any thread. NetworkSensor keeps watching on its own
// thread "tavra.network"; its `reachable` value is the only state of this
// layer shared between threads.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/Date.h"
#include "core/Models.h"

namespace tavra {

// What powers the machine, and the charge of its battery when it has one.
namespace PowerSourceSensor {
struct Reading {
    PowerSource source = PowerSource::unknown;
    std::optional<int> percent;
    bool operator==(const Reading&) const = default;
};
// Fallback: `unknown`, no percent. Never throws.
Reading read() noexcept;
}  // namespace PowerSourceSensor

namespace LidSensor {
// Whether the lid is closed. Fallback: false. Never throws.
bool isClosed() noexcept;
}  // namespace LidSensor

namespace IdleSensor {
// Seconds since the user's last input. Fallback: 0.0. Never throws.
double seconds() noexcept;
}  // namespace IdleSensor

namespace LockSensor {
// Whether the user's screen is locked. Fallback: false. Never throws.
bool isLocked() noexcept;
}  // namespace LockSensor

namespace ThermalSensor {
// Thermal pressure of the machine. Nothing readable reads `nominal`. Never throws.
ThermalLevel level() noexcept;
}  // namespace ThermalSensor

namespace OSUpdateSensor {
// Whether an operating-system update waits to be installed. Fallback: false.
// Reads a file: SystemMonitor calls it at most once in 900 seconds.
bool pending() noexcept;
}  // namespace OSUpdateSensor

// Watches whether the network is reachable and says when that changes.
//
// `reachable` starts true and stays so until the first path update. The
// watcher thread delivers updates through pathUpdated(); onChange runs on that
// thread, once per real change, with the new value, and never under the lock.
// The watcher starts with the sensor, so its first update may come before a
// callback is set: read isReachable() after setOnChange() to start in step.
// Destruction stops the watcher and joins its thread: no callback runs after
// the destructor has returned.
class NetworkSensor {
public:
    enum class Mode {
        watching,  // start the system watcher on "tavra.network"
        manual,    // no watcher: updates come only through pathUpdated() (tests, fakes)
    };

    explicit NetworkSensor(Mode mode = Mode::watching);
    ~NetworkSensor();
    NetworkSensor(const NetworkSensor&) = delete;
    NetworkSensor& operator=(const NetworkSensor&) = delete;

    // Thread-safe.
    bool isReachable() const;

    // Sets or clears (empty function) the change callback. Thread-safe; the
    // callback in force when a change is seen is the one called. It should
    // not throw: an exception from it is dropped.
    void setOnChange(std::function<void(bool)> onChange);

    // One path update: `satisfied` is whether the system has a usable path
    // out. Stores it and calls onChange when the value changed. Thread-safe;
    // called by the watcher, or directly in manual mode.
    void pathUpdated(bool satisfied);

    // The system watcher, defined by each backend.
    class Monitor;

private:
    mutable std::mutex lock_;
    bool reachable_ = true;
    std::function<void(bool)> onChange_;
    std::unique_ptr<Monitor> monitor_;  // last: stopped before the rest goes away
};

// The stateless sensors as one replaceable set, so that SystemMonitor and its
// owners run in tests against fakes. system() gives the real ones; a member
// left empty reads the sensor's harmless value.
struct SensorSet {
    std::function<PowerSourceSensor::Reading()> powerSource;
    std::function<bool()> lidClosed;
    std::function<double()> idleSeconds;
    std::function<bool()> screenLocked;
    std::function<ThermalLevel()> thermal;
    std::function<bool()> osUpdatePending;

    static SensorSet system();
};

// Takes one SystemSnapshot whenever asked. Belongs to one serial context of
// its owner: sample() must not be called from two threads at once.
class SystemMonitor {
public:
    // The seconds that must pass (strictly more) before the update file is read again.
    static constexpr double kUpdateCheckInterval = 900.0;

    // The real sensors and a watching NetworkSensor.
    SystemMonitor();
    // `network` null: a manual NetworkSensor that stays reachable until told otherwise.
    SystemMonitor(SensorSet sensors, std::unique_ptr<NetworkSensor> network);
    SystemMonitor(const SystemMonitor&) = delete;
    SystemMonitor& operator=(const SystemMonitor&) = delete;

    // One sample. `helperAvailable` is passed through; `now` is the caller's
    // clock and only paces the update check.
    SystemSnapshot sample(bool helperAvailable, Date now);

    // Readable so that onChange can be set from outside.
    NetworkSensor& network() noexcept { return *network_; }

private:
    SensorSet sensors_;
    std::unique_ptr<NetworkSensor> network_;
    Date lastUpdateCheck_ = Date::min();
    bool updatePending_ = false;
};

}  // namespace tavra
