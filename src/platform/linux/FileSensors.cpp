// The sensors Linux answers through files: sysfs for power and heat, /run
// and / for pending updates.

#include "platform/LinuxSystemFiles.h"
#include "platform/Sensors.h"

namespace tavra {

namespace {
const std::filesystem::path kRoot = "/";
}

PowerSourceSensor::Reading PowerSourceSensor::read() noexcept {
    try {
        return LinuxSystemFiles::powerSource(kRoot);
    } catch (...) {
        return {PowerSource::unknown, std::nullopt};
    }
}

ThermalLevel ThermalSensor::level() noexcept {
    try {
        return LinuxSystemFiles::thermalLevel(kRoot);
    } catch (...) {
        return ThermalLevel::nominal;
    }
}

bool OSUpdateSensor::pending() noexcept {
    try {
        return LinuxSystemFiles::updatePending(kRoot);
    } catch (...) {
        return false;
    }
}

}  // namespace tavra
