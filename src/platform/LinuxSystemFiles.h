#pragma once

// Readers of the files through which Linux describes the machine (sysfs,
// procfs, /run). Each takes the root of the tree to read, so that tests point
// them at a fake tree; the Linux sensors pass "/". They read raw values and
// leave every decision to SensorDecisions. None throws.

#include <filesystem>
#include <optional>
#include <vector>

#include "platform/SensorDecisions.h"

namespace tavra::LinuxSystemFiles {

// Every entry of sys/class/power_supply, in name order. Absent when sysfs
// cannot be read; empty on a machine without any supply (or without the
// power-supply class at all).
std::optional<std::vector<SensorDecisions::PowerSupply>> powerSupplies(const std::filesystem::path& root);

// Every enabled zone of sys/class/thermal with its trip points, in name order.
std::vector<SensorDecisions::ThermalZone> thermalZones(const std::filesystem::path& root);

// proc/acpi/button/lid/*/state: true when any lid says closed, false when the
// lids say open, absent when there is nothing to read.
std::optional<bool> lidClosed(const std::filesystem::path& root);

// Whether the system waits for a restart to finish an update
// (run/reboot-required) or has staged an offline update (system-update,
// etc/system-update).
bool updatePending(const std::filesystem::path& root);

// The decisions over the files above.
PowerSourceSensor::Reading powerSource(const std::filesystem::path& root);
ThermalLevel thermalLevel(const std::filesystem::path& root);

}  // namespace tavra::LinuxSystemFiles
