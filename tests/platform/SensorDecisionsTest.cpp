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

}  // namespace
}  // namespace tavra
