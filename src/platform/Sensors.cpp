// The parts of the sensors that every system shares: NetworkSensor's value
// and callback, and SystemMonitor's sampling with its throttled update check.

#include "platform/Sensors.h"

#include <chrono>

#include "platform/NetworkMonitor.h"

namespace tavra {

NetworkSensor::NetworkSensor(Mode mode) {
    if (mode == Mode::watching) monitor_ = NetworkMonitorBackend::start(*this);
}

NetworkSensor::~NetworkSensor() {
    // Stop the watcher before the value and the callback go away.
    monitor_.reset();
}

bool NetworkSensor::isReachable() const {
    std::lock_guard guard(lock_);
    return reachable_;
}

void NetworkSensor::setOnChange(std::function<void(bool)> onChange) {
    std::lock_guard guard(lock_);
    onChange_ = std::move(onChange);
}

void NetworkSensor::pathUpdated(bool satisfied) {
    std::function<void(bool)> callback;
    {
        std::lock_guard guard(lock_);
        if (reachable_ == satisfied) return;
        reachable_ = satisfied;
        callback = onChange_;
    }
    // Outside the lock: the callback may read isReachable() or even replace
    // itself. Nothing of this object is touched after it. An exception has
    // nowhere to go on the watcher's thread but std::terminate, so it ends here.
    if (!callback) return;
    try {
        callback(satisfied);
    } catch (...) {
    }
}

SensorSet SensorSet::system() {
    return SensorSet{
        .powerSource = [] { return PowerSourceSensor::read(); },
        .lidClosed = [] { return LidSensor::isClosed(); },
        .idleSeconds = [] { return IdleSensor::seconds(); },
        .screenLocked = [] { return LockSensor::isLocked(); },
        .thermal = [] { return ThermalSensor::level(); },
        .osUpdatePending = [] { return OSUpdateSensor::pending(); },
    };
}

SystemMonitor::SystemMonitor()
    : SystemMonitor(SensorSet::system(), std::make_unique<NetworkSensor>(NetworkSensor::Mode::watching)) {}

SystemMonitor::SystemMonitor(SensorSet sensors, std::unique_ptr<NetworkSensor> network)
    : sensors_(std::move(sensors)), network_(std::move(network)) {
    if (!network_) network_ = std::make_unique<NetworkSensor>(NetworkSensor::Mode::manual);
    // A sensor left out of the set reads its harmless value.
    if (!sensors_.powerSource) {
        sensors_.powerSource = [] { return PowerSourceSensor::Reading{PowerSource::unknown, std::nullopt}; };
    }
    if (!sensors_.lidClosed) sensors_.lidClosed = [] { return false; };
    if (!sensors_.idleSeconds) sensors_.idleSeconds = [] { return 0.0; };
    if (!sensors_.screenLocked) sensors_.screenLocked = [] { return false; };
    if (!sensors_.thermal) sensors_.thermal = [] { return ThermalLevel::nominal; };
    if (!sensors_.osUpdatePending) sensors_.osUpdatePending = [] { return false; };
}

SystemSnapshot SystemMonitor::sample(bool helperAvailable, Date now) {
    const auto power = sensors_.powerSource();

    // Written as a sum, not a difference, so that the distant past in which
    // lastUpdateCheck_ starts cannot overflow.
    const auto interval =
        std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(kUpdateCheckInterval));
    if (now > lastUpdateCheck_ + interval) {
        lastUpdateCheck_ = now;
        updatePending_ = sensors_.osUpdatePending();
    }

    const ThermalLevel thermal = sensors_.thermal();
    const bool lidClosed = sensors_.lidClosed();
    const bool screenLocked = sensors_.screenLocked();
    const double idleSeconds = sensors_.idleSeconds();
    const bool networkReachable = network_->isReachable();

    return SystemSnapshot{
        .powerSource = power.source,
        .batteryPercent = power.percent,
        .thermal = thermal,
        .lidClosed = lidClosed,
        .screenLocked = screenLocked,
        .userIdleSeconds = idleSeconds,
        .networkReachable = networkReachable,
        .helperAvailable = helperAvailable,
        .osUpdatePending = updatePending_,
    };
}

}  // namespace tavra
