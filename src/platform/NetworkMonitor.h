#pragma once

// The seam between NetworkSensor and the system watcher of each backend.
// Internal to TavraPlatform.

#include <memory>

#include "platform/Sensors.h"

namespace tavra {

// A running watcher. Destroying it stops the watcher: once the destructor has
// returned, it calls the sensor no more.
class NetworkSensor::Monitor {
public:
    virtual ~Monitor() = default;
};

namespace NetworkMonitorBackend {
// Starts watching on the thread or queue "tavra.network". The first update
// comes soon after the start; each later one follows a change of the
// system's interfaces or routes. Never throws: a watcher that cannot start
// returns null and the sensor keeps its value.
std::unique_ptr<NetworkSensor::Monitor> start(NetworkSensor& sensor) noexcept;
}  // namespace NetworkMonitorBackend

}  // namespace tavra
