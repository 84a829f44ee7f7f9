#pragma once

// Every decision the sensors make, as pure functions over raw values. The
// backends only fetch those values (from IOKit, sysfs, logind, ...) and call
// these, so the rules are written, and tested, once for every system.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Models.h"
#include "platform/Sensors.h"

namespace tavra::SensorDecisions {

// current / max * 100, rounded to the nearest whole number with halves away
// from zero, in double precision. A max of 0 or less gives 0. Not clamped to
// 100: a battery that reports more than its maximum says so.
int roundedPercent(double current, double max) noexcept;

// ---- Power sources as IOKit describes them ----------------------------------

// One entry of the power-source list: the keys that matter, each absent when
// missing or of another type.
struct PowerSourceDescription {
    std::optional<std::string> type;              // "Type", e.g. "InternalBattery"
    std::optional<long long> currentCapacity;     // "Current Capacity"
    std::optional<long long> maxCapacity;         // "Max Capacity"
    std::optional<std::string> powerSourceState;  // "Power Source State", e.g. "Battery Power"
    bool operator==(const PowerSourceDescription&) const = default;
};

// `sources` is absent when the power-source info or its list could not be
// had; an entry is absent when the source has no description.
// `providingType` is the type of the source that powers the machine.
PowerSourceSensor::Reading fromPowerSources(
    const std::optional<std::vector<std::optional<PowerSourceDescription>>>& sources,
    const std::optional<std::string>& providingType);

// ---- Power supplies as Linux describes them (/sys/class/power_supply) --------

struct PowerSupply {
    std::string name;                  // directory name, e.g. "BAT0", "AC"
    std::string type;                  // "Battery", "Mains", "USB", "UPS", ...
    std::optional<std::string> scope;  // "System", "Device", "Unknown"
    std::optional<bool> present;
    std::optional<bool> online;
    std::optional<std::string> status;  // "Charging", "Discharging", "Full", "Not charging", ...
    std::optional<long long> capacity;  // percent as the firmware reports it
    std::optional<long long> energyNow, energyFull;
    std::optional<long long> chargeNow, chargeFull;
    bool operator==(const PowerSupply&) const = default;
};

// Devices' own batteries (scope "Device": mice, headsets) and absent supplies
// do not count. No supply left means a machine on mains without a battery:
// `ac`. An external supply that is online means `ac`; a discharging battery,
// or a battery beside an offline external supply, means `battery`; anything
// else `ac`. The percent is that of the one battery (its capacity, else its
// energy or charge ratio), or of all batteries together. `supplies` absent
// (nothing readable) gives `unknown` without a percent.
PowerSourceSensor::Reading fromPowerSupplies(const std::optional<std::vector<PowerSupply>>& supplies);

// ---- Thermal pressure ---------------------------------------------------------

// The process-wide thermal state as the system numbers it: 0 nominal,
// 1 fair, 2 serious, 3 critical; any other value reads as serious on purpose.
ThermalLevel fromThermalState(long long raw) noexcept;

struct TripPoint {
    std::string type;  // "critical", "hot", "passive", "active"
    long long milliCelsius = 0;
    bool operator==(const TripPoint&) const = default;
};

struct ThermalZone {
    std::optional<long long> milliCelsius;  // absent when unreadable
    std::vector<TripPoint> trips;
    bool operator==(const ThermalZone&) const = default;
};

// One zone: `critical` at or above a hot trip or within 5 °C of a critical
// one; `serious` at or above its lowest passive trip; `fair` within 10 °C
// below it; otherwise `nominal`. Temperatures and trips outside what a
// sensor can mean (unset, negative or absurdly high values) are ignored; a
// zone without a valid temperature is `nominal`.
ThermalLevel classifyZone(const ThermalZone& zone) noexcept;

// The machine: its hottest zone's level; no zone at all is `nominal`.
ThermalLevel thermalLevel(const std::vector<ThermalZone>& zones) noexcept;

// ---- Idle time ------------------------------------------------------------------

// logind's idle hint of a session: whether it is idle, and since when (in
// microseconds of CLOCK_MONOTONIC, and of CLOCK_REALTIME; 0 when unknown).
struct IdleHint {
    bool idle = false;
    std::uint64_t sinceMonotonicMicros = 0;
    std::uint64_t sinceRealtimeMicros = 0;
};

// Seconds the session has been idle: 0 while it is active or when no usable
// time is known; never negative. The monotonic time is preferred because it
// does not jump with the wall clock.
double idleSeconds(const IdleHint& hint, std::uint64_t nowMonotonicMicros,
                   std::uint64_t nowRealtimeMicros) noexcept;

// ---- Lid -------------------------------------------------------------------------

// The text of /proc/acpi/button/lid/*/state ("state:      closed"): true for
// closed, false for open, absent for anything else.
std::optional<bool> lidClosedFromStateText(std::string_view text) noexcept;

}  // namespace tavra::SensorDecisions
