#include <gtest/gtest.h>

#include "platform/SensorDecisions.h"

namespace tavra {
namespace {

using namespace SensorDecisions;
using Reading = PowerSourceSensor::Reading;

PowerSupply linuxBattery(std::string status, std::optional<long long> capacity, std::string name = "BAT0",
                         std::optional<long long> energyNow = {}, std::optional<long long> energyFull = {}) {
    PowerSupply s;
    s.name = std::move(name), s.type = "Battery", s.scope = "System", s.present = true;
    s.status = std::move(status), s.capacity = capacity, s.energyNow = energyNow, s.energyFull = energyFull;
    return s;
}

TEST(PowerSupplies, MapEachMachineToSourceAndPercent) {
    PowerSupply usbC;
    usbC.name = "AC", usbC.type = "USB", usbC.online = true;
    using Supplies = std::vector<PowerSupply>;
    const std::tuple<const char*, std::optional<Supplies>, Reading> cases[] = {
        {"USB-C supply online", Supplies{usbC, linuxBattery("Charging", 12)}, {PowerSource::ac, 12}},
        {"unknown capacity", Supplies{linuxBattery("Discharging", -1)}, {PowerSource::battery, std::nullopt}},
        {"energy ratio when no capacity",
         Supplies{linuxBattery("Charging", std::nullopt, "BAT0", 45, 89)},
         {PowerSource::ac, 51}},
        {"two batteries count together",
         Supplies{linuxBattery("Discharging", 90, "BAT0", 20'000'000, 24'000'000),
                  linuxBattery("Idle", 10, "BAT1", 2'000'000, 24'000'000)},
         {PowerSource::battery, 46}},
    };
    for (const auto& [name, supplies, expected] : cases)
        EXPECT_EQ(fromPowerSupplies(supplies), expected) << name;
}

TEST(ThermalZones, ClassifyByTripPoints) {
    const std::vector<TripPoint> laptop = {{"critical", 105'000},
                                           {"hot", 100'000},
                                           {"passive", 95'000},
                                           {"passive", 85'000},
                                           {"active", 60'000}};
    const std::tuple<std::optional<long long>, std::vector<TripPoint>, ThermalLevel> cases[] = {
        {85'000, laptop, ThermalLevel::serious},
        // Only a critical trip, as ACPI zones often have: near it is critical.
        {94'999, {{"critical", 100'000}}, ThermalLevel::nominal},
        {95'000, {{"critical", 100'000}}, ThermalLevel::critical},
        {30'000, {{"passive", 20'000'000}, {"passive", -1}}, ThermalLevel::nominal},  // absurd trips
        // Unreadable or absurd temperatures say nothing.
        {std::nullopt, laptop, ThermalLevel::nominal},
        {2'147'483'647, laptop, ThermalLevel::nominal},
    };
    for (const auto& [temperature, trips, expected] : cases)
        EXPECT_EQ(classifyZone({temperature, trips}), expected) << temperature.value_or(-1);
}

}  // namespace
}  // namespace tavra
