#pragma once

// Every threshold of the engine. Lives in the configuration and always
// passes through sanitized() before the engine sees it.

#include "core/ConfigCoding.h"
#include "core/Models.h"

namespace tavra {

struct PolicySettings {
    bool enabled = true;           // off releases the plan; guards go on
    int batteryFloorPercent = 25;  // percent
    bool lidClosedOnBattery = false;
    ThermalLevel maxThermal = ThermalLevel::serious;    // pause agents from this level
    ThermalLevel thermalResumeAt = ThermalLevel::fair;  // thermal pauses lift at or below
    double thermalSleepAfter = 600;                     // seconds hot with the lid closed
    double permissionGrace = 300;                       // seconds a wait keeps the machine awake
    double networkPauseAfter = 20;                      // seconds of outage before pausing
    double networkWaitMax = 1800;                       // seconds a network pause holds the machine
    double stuckAfter = 1200;                           // seconds without progress
    int stuckRepeatThreshold = 5;                       // repeats of one signature
    double staleAfter = 1200;                           // seconds of silence
    double staleAfterInFlight = 7200;                   // the same with a tool call in flight
    bool deferOSUpdates = true;
    double awayAfterIdle = 120;  // seconds idle until the user is away

    // The compiled defaults (the member initializers above).
    static const PolicySettings defaults;

    // A copy within bounds: maxThermal at least fair, thermalResumeAt strictly
    // below it, battery floor 5...90, thermalSleepAfter 60...3600,
    // permissionGrace not negative, stuckRepeatThreshold at least 2. Other
    // fields are copied as they are. Never fails.
    PolicySettings sanitized() const noexcept;

    bool operator==(const PolicySettings&) const = default;
};

inline const PolicySettings PolicySettings::defaults{};

// All fifteen keys are required; partial documents are completed by the
// defaults merge before they reach this decoder.
void to_json(Json& j, const PolicySettings& settings);
void from_json(const Json& j, PolicySettings& settings);

}  // namespace tavra
