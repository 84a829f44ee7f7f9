#include <gtest/gtest.h>

#include "platform/SensorDecisions.h"

namespace tavra {
namespace {

using namespace SensorDecisions;
using Reading = PowerSourceSensor::Reading;

PowerSourceDescription battery(std::optional<long long> current, std::optional<long long> max,
                               std::optional<std::string> state) {
    return {"InternalBattery", current, max, std::move(state)};
}

TEST(PowerSources, MapEachMachineToSourceAndPercent) {
    using List = std::vector<std::optional<PowerSourceDescription>>;
    struct Case {
        const char* name;
        std::optional<List> sources;
        std::optional<std::string> providing;
        Reading expected;
    };
    const std::vector<Case> cases = {
        {"no power-source info", std::nullopt, std::nullopt, {PowerSource::unknown, std::nullopt}},
        {"laptop on battery",
         List{battery(45, 89, "Battery Power")},
         "Battery Power",
         {PowerSource::battery, 51}},
        {"first internal battery wins, others skipped",
         List{std::nullopt, PowerSourceDescription{"UPS", 1, 100, "Battery Power"},
              battery(60, 100, "AC Power"), battery(10, 100, "Battery Power")},
         "Battery Power",
         {PowerSource::ac, 60}},
    };
    for (const auto& c : cases) EXPECT_EQ(fromPowerSources(c.sources, c.providing), c.expected) << c.name;
}

PowerSupply linuxBattery(std::string status, std::optional<long long> capacity) {
    PowerSupply s;
    s.name = "BAT0";
    s.type = "Battery";
    s.scope = "System";
    s.present = true;
    s.status = std::move(status);
    s.capacity = capacity;
    return s;
}

TEST(PowerSupplies, MapEachMachineToSourceAndPercent) {
    PowerSupply usbC;
    usbC.name = "AC", usbC.type = "USB", usbC.online = true;
    auto unknownCapacity = linuxBattery("Discharging", -1);
    auto energyOnly = linuxBattery("Charging", std::nullopt);
    energyOnly.energyNow = 45;
    energyOnly.energyFull = 89;
    auto first = linuxBattery("Discharging", 90);
    first.energyNow = 20'000'000;
    first.energyFull = 24'000'000;
    auto second = linuxBattery("Idle", 10);
    second.name = "BAT1";
    second.energyNow = 2'000'000;
    second.energyFull = 24'000'000;

    struct Case {
        const char* name;
        std::optional<std::vector<PowerSupply>> supplies;
        Reading expected;
    };
    const std::vector<Case> cases = {
        {"USB-C supply online", std::vector{usbC, linuxBattery("Charging", 12)}, {PowerSource::ac, 12}},
        {"unknown capacity", std::vector{unknownCapacity}, {PowerSource::battery, std::nullopt}},
        {"energy ratio when no capacity", std::vector{energyOnly}, {PowerSource::ac, 51}},
        {"two batteries count together", std::vector{first, second}, {PowerSource::battery, 46}},
    };
    for (const auto& c : cases) EXPECT_EQ(fromPowerSupplies(c.supplies), c.expected) << c.name;
}

TEST(ThermalState, UnknownRawValuesReadSerious) {
    for (int raw : {-1, 4}) EXPECT_EQ(fromThermalState(raw), ThermalLevel::serious) << raw;
    EXPECT_EQ(fromThermalState(3), ThermalLevel::critical);
}

TEST(ThermalZones, ClassifyByTripPoints) {
    const std::vector<TripPoint> laptop = {{"critical", 105'000},
                                           {"hot", 100'000},
                                           {"passive", 95'000},
                                           {"passive", 85'000},
                                           {"active", 60'000}};
    struct Case {
        std::optional<long long> temperature;
        std::vector<TripPoint> trips;
        ThermalLevel expected;
    };
    const std::vector<Case> cases = {
        {85'000, laptop, ThermalLevel::serious},
        // Only a critical trip, as ACPI zones often have: near it is critical.
        {94'999, {{"critical", 100'000}}, ThermalLevel::nominal},
        {95'000, {{"critical", 100'000}}, ThermalLevel::critical},
        {30'000, {{"passive", 20'000'000}, {"passive", -1}}, ThermalLevel::nominal},  // absurd trips
        // Unreadable or absurd temperatures say nothing.
        {std::nullopt, laptop, ThermalLevel::nominal},
        {2'147'483'647, laptop, ThermalLevel::nominal},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(classifyZone({c.temperature, c.trips}), c.expected) << c.temperature.value_or(-1);
    }
}

TEST(IdleHints, GiveSecondsSinceTheSessionWentIdle) {
    struct Case {
        IdleHint hint;
        std::uint64_t monotonic, realtime;
        double expected;
    };
    const std::vector<Case> cases = {
        {{false, 1'000'000, 5'000'000}, 9'000'000, 9'000'000, 0.0},
        {{true, 1'000'000, 5'000'000}, 121'500'000, 0, 120.5},  // monotonic preferred
        {{true, 50'000'000, 0}, 10'000'000, 0, 0.0},            // never negative
    };
    for (const auto& c : cases) EXPECT_DOUBLE_EQ(idleSeconds(c.hint, c.monotonic, c.realtime), c.expected);
}

}  // namespace
}  // namespace tavra
