#include "core/Settings.h"

#include <algorithm>
#include <cmath>

namespace tavra {

using TavraJSON::required;

PolicySettings PolicySettings::sanitized() const noexcept {
    PolicySettings s = *this;
    if (s.maxThermal == ThermalLevel::nominal) s.maxThermal = ThermalLevel::fair;
    if (s.thermalResumeAt >= s.maxThermal)
        s.thermalResumeAt = static_cast<ThermalLevel>(static_cast<int>(s.maxThermal) - 1);
    s.batteryFloorPercent = std::clamp(s.batteryFloorPercent, 5, 90);
    // NaN would slip through clamp and leave the guards comparing against it.
    s.thermalSleepAfter =
        std::isnan(s.thermalSleepAfter) ? 60.0 : std::clamp(s.thermalSleepAfter, 60.0, 3600.0);
    if (!(s.permissionGrace >= 0)) s.permissionGrace = 0;
    s.stuckRepeatThreshold = std::max(s.stuckRepeatThreshold, 2);
    return s;
}

void to_json(Json& j, const PolicySettings& s) {
    j = Json{{"enabled", s.enabled},
             {"batteryFloorPercent", s.batteryFloorPercent},
             {"lidClosedOnBattery", s.lidClosedOnBattery},
             {"maxThermal", s.maxThermal},
             {"thermalResumeAt", s.thermalResumeAt},
             {"thermalSleepAfter", s.thermalSleepAfter},
             {"permissionGrace", s.permissionGrace},
             {"networkPauseAfter", s.networkPauseAfter},
             {"networkWaitMax", s.networkWaitMax},
             {"stuckAfter", s.stuckAfter},
             {"stuckRepeatThreshold", s.stuckRepeatThreshold},
             {"staleAfter", s.staleAfter},
             {"staleAfterInFlight", s.staleAfterInFlight},
             {"deferOSUpdates", s.deferOSUpdates},
             {"awayAfterIdle", s.awayAfterIdle}};
}

void from_json(const Json& j, PolicySettings& s) {
    TavraJSON::requireObject(j, "PolicySettings");
    s.enabled = required<bool>(j, "enabled");
    s.batteryFloorPercent = required<int>(j, "batteryFloorPercent");
    s.lidClosedOnBattery = required<bool>(j, "lidClosedOnBattery");
    s.maxThermal = required<ThermalLevel>(j, "maxThermal");
    s.thermalResumeAt = required<ThermalLevel>(j, "thermalResumeAt");
    s.thermalSleepAfter = required<double>(j, "thermalSleepAfter");
    s.permissionGrace = required<double>(j, "permissionGrace");
    s.networkPauseAfter = required<double>(j, "networkPauseAfter");
    s.networkWaitMax = required<double>(j, "networkWaitMax");
    s.stuckAfter = required<double>(j, "stuckAfter");
    s.stuckRepeatThreshold = required<int>(j, "stuckRepeatThreshold");
    s.staleAfter = required<double>(j, "staleAfter");
    s.staleAfterInFlight = required<double>(j, "staleAfterInFlight");
    s.deferOSUpdates = required<bool>(j, "deferOSUpdates");
    s.awayAfterIdle = required<double>(j, "awayAfterIdle");
}

}  // namespace tavra
