#include "platform/SensorDecisions.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace tavra::SensorDecisions {

namespace {

bool isExternalSupply(const std::string& type) {
    return type == "Mains" || type.starts_with("USB") || type == "BrickID" || type == "Wireless";
}

bool counts(const PowerSupply& supply) {
    if (supply.scope && *supply.scope == "Device") return false;
    return supply.present.value_or(true);
}

// Sum of now / sum of full over all batteries, when every one reports both.
std::optional<int> ratioPercent(const std::vector<const PowerSupply*>& batteries,
                                std::optional<long long> PowerSupply::*now,
                                std::optional<long long> PowerSupply::*full) {
    double sumNow = 0, sumFull = 0;
    for (const auto* battery : batteries) {
        const auto& n = battery->*now;
        const auto& f = battery->*full;
        if (!n || !f || *f <= 0 || *n < 0) return std::nullopt;
        sumNow += static_cast<double>(*n);
        sumFull += static_cast<double>(*f);
    }
    if (batteries.empty()) return std::nullopt;
    return roundedPercent(sumNow, sumFull);
}

// Values a thermal sensor reports when it has nothing real to say: unset
// trips (0, -273.2 °C), error codes, "disabled" markers far above any
// silicon's limit.
constexpr long long kLowestPlausible = -50'000;
constexpr long long kHighestPlausible = 200'000;

bool plausibleTemperature(long long milliCelsius) {
    return milliCelsius > kLowestPlausible && milliCelsius <= kHighestPlausible;
}
bool plausibleTrip(long long milliCelsius) {
    return milliCelsius > 0 && milliCelsius <= kHighestPlausible;
}

constexpr long long kCriticalMargin = 5'000;
constexpr long long kFairMargin = 10'000;

}  // namespace

int roundedPercent(double current, double max) noexcept {
    if (!(max > 0)) return 0;
    const double percent = std::round(current / max * 100.0);
    if (!std::isfinite(percent)) return 0;
    constexpr double kLimit = static_cast<double>(std::numeric_limits<int>::max());
    return static_cast<int>(std::clamp(percent, -kLimit, kLimit));
}

PowerSourceSensor::Reading fromPowerSources(
    const std::optional<std::vector<std::optional<PowerSourceDescription>>>& sources,
    const std::optional<std::string>& providingType) {
    if (!sources) return {PowerSource::unknown, std::nullopt};
    for (const auto& description : *sources) {
        if (!description || description->type != "InternalBattery") continue;
        const auto current = description->currentCapacity.value_or(0);
        const auto max = description->maxCapacity.value_or(100);
        const int percent = roundedPercent(static_cast<double>(current), static_cast<double>(max));
        const auto source =
            description->powerSourceState == "Battery Power" ? PowerSource::battery : PowerSource::ac;
        return {source, percent};
    }
    return {providingType == "Battery Power" ? PowerSource::battery : PowerSource::ac, std::nullopt};
}

PowerSourceSensor::Reading fromPowerSupplies(const std::optional<std::vector<PowerSupply>>& supplies) {
    if (!supplies) return {PowerSource::unknown, std::nullopt};

    std::vector<const PowerSupply*> batteries;
    bool externalOnline = false;
    bool externalOffline = false;
    for (const auto& supply : *supplies) {
        if (!counts(supply)) continue;
        if (supply.type == "Battery") {
            batteries.push_back(&supply);
        } else if (isExternalSupply(supply.type) && supply.online) {
            (*supply.online ? externalOnline : externalOffline) = true;
        }
    }

    // A negative capacity is a firmware's way of saying it does not know.
    auto capacityOf = [](const PowerSupply* battery) -> std::optional<int> {
        if (!battery->capacity || *battery->capacity < 0) return std::nullopt;
        return static_cast<int>(std::min<long long>(*battery->capacity, std::numeric_limits<int>::max()));
    };
    std::optional<int> percent;
    if (batteries.size() == 1 && capacityOf(batteries.front())) {
        percent = capacityOf(batteries.front());
    } else if (auto energy = ratioPercent(batteries, &PowerSupply::energyNow, &PowerSupply::energyFull)) {
        percent = energy;
    } else if (auto charge = ratioPercent(batteries, &PowerSupply::chargeNow, &PowerSupply::chargeFull)) {
        percent = charge;
    } else if (!batteries.empty()) {
        percent = capacityOf(batteries.front());
    }

    if (externalOnline) return {PowerSource::ac, percent};
    const bool discharging = std::any_of(batteries.begin(), batteries.end(),
                                         [](const PowerSupply* b) { return b->status == "Discharging"; });
    if (discharging || (externalOffline && !batteries.empty())) return {PowerSource::battery, percent};
    return {PowerSource::ac, percent};
}

ThermalLevel fromThermalState(long long raw) noexcept {
    switch (raw) {
        case 0:
            return ThermalLevel::nominal;
        case 1:
            return ThermalLevel::fair;
        case 2:
            return ThermalLevel::serious;
        case 3:
            return ThermalLevel::critical;
        default:
            return ThermalLevel::serious;
    }
}

ThermalLevel classifyZone(const ThermalZone& zone) noexcept {
    if (!zone.milliCelsius || !plausibleTemperature(*zone.milliCelsius)) return ThermalLevel::nominal;
    const long long t = *zone.milliCelsius;
    std::optional<long long> lowestPassive;
    for (const auto& trip : zone.trips) {
        if (!plausibleTrip(trip.milliCelsius)) continue;
        if (trip.type == "hot" && t >= trip.milliCelsius) return ThermalLevel::critical;
        if (trip.type == "critical" && t >= trip.milliCelsius - kCriticalMargin)
            return ThermalLevel::critical;
        if (trip.type == "passive") {
            lowestPassive = lowestPassive ? std::min(*lowestPassive, trip.milliCelsius) : trip.milliCelsius;
        }
    }
    if (lowestPassive) {
        if (t >= *lowestPassive) return ThermalLevel::serious;
        if (t >= *lowestPassive - kFairMargin) return ThermalLevel::fair;
    }
    return ThermalLevel::nominal;
}

ThermalLevel thermalLevel(const std::vector<ThermalZone>& zones) noexcept {
    ThermalLevel level = ThermalLevel::nominal;
    for (const auto& zone : zones) level = std::max(level, classifyZone(zone));
    return level;
}

double idleSeconds(const IdleHint& hint, std::uint64_t nowMonotonicMicros,
                   std::uint64_t nowRealtimeMicros) noexcept {
    if (!hint.idle) return 0.0;
    auto elapsed = [](std::uint64_t since, std::uint64_t now) {
        return now > since ? static_cast<double>(now - since) / 1e6 : 0.0;
    };
    if (hint.sinceMonotonicMicros != 0) return elapsed(hint.sinceMonotonicMicros, nowMonotonicMicros);
    if (hint.sinceRealtimeMicros != 0) return elapsed(hint.sinceRealtimeMicros, nowRealtimeMicros);
    return 0.0;
}

std::optional<bool> lidClosedFromStateText(std::string_view text) noexcept {
    const auto colon = text.find(':');
    if (colon == std::string_view::npos || text.substr(0, colon) != "state") return std::nullopt;
    auto value = text.substr(colon + 1);
    const auto begin = value.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return std::nullopt;
    value = value.substr(begin);
    const auto end = value.find_last_not_of(" \t\r\n");
    value = value.substr(0, end + 1);
    if (value == "closed") return true;
    if (value == "open") return false;
    return std::nullopt;
}

}  // namespace tavra::SensorDecisions
