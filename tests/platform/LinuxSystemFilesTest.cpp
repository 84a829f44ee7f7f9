#include <filesystem>
#include <fstream>
#include <map>

#include <gtest/gtest.h>

#include "platform/LinuxSystemFiles.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;
using Reading = PowerSourceSensor::Reading;
using Attributes = std::map<std::string, std::string>;

// A fake root with just the files a machine would show.
class FakeRoot {
public:
    const fs::path& path() const { return dir_.path(); }

    void write(const fs::path& relative, const std::string& content) {
        const auto file = dir_.path() / relative;
        fs::create_directories(file.parent_path());
        std::ofstream(file) << content;
    }
    // One device under sys/class/`kind`, an attribute a file.
    void device(const std::string& kind, const std::string& name, const Attributes& attributes) {
        for (const auto& [key, value] : attributes)
            write(fs::path("sys/class") / kind / name / key, value + "\n");
    }
    void mkdir(const fs::path& relative) { fs::create_directories(dir_.path() / relative); }

private:
    testing::TempDir dir_;
};

TEST(LinuxPowerSupplies, MachinesUsersHave) {
    const Attributes mouse = {{"type", "Battery"}, {"scope", "Device"}, {"status", "Discharging"},
                              {"capacity", "15"},  {"present", "1"},    {"model_name", "Wireless Mouse"}};
    const Attributes acOffline = {{"type", "Mains"}, {"online", "0"}};
    struct Case {
        const char* name;
        std::map<std::string, Attributes> supplies;
        Reading expected;
    };
    const std::vector<Case> cases = {
        {"laptop on battery",
         {{"AC", acOffline},
          {"BAT0",
           {{"type", "Battery"},
            {"scope", "System"},
            {"present", "1"},
            {"status", "Discharging"},
            {"capacity", "57"},
            {"energy_now", "28500000"},
            {"energy_full", "50000000"}}},
          {"hidpp_battery_0", mouse}},
         {PowerSource::battery, 57}},
        {"desktop with a wireless mouse", {{"hidpp_battery_0", mouse}}, {PowerSource::ac, std::nullopt}},
        {"an empty slot does not count",
         {{"BAT1", {{"type", "Battery"}, {"present", "0"}, {"status", "Unknown"}}}},
         {PowerSource::ac, std::nullopt}},
    };
    for (const auto& c : cases) {
        FakeRoot root;
        root.mkdir("sys/class/power_supply");
        for (const auto& [name, attributes] : c.supplies) root.device("power_supply", name, attributes);
        EXPECT_EQ(LinuxSystemFiles::powerSource(root.path()), c.expected) << c.name;
    }
    FakeRoot none;  // no sysfs at all
    EXPECT_EQ(LinuxSystemFiles::powerSupplies(none.path()), std::nullopt);
    EXPECT_EQ(LinuxSystemFiles::powerSource(none.path()), (Reading{PowerSource::unknown, std::nullopt}));
    none.mkdir("sys/class/thermal");  // sysfs, but a kernel without the power-supply class
    EXPECT_EQ(LinuxSystemFiles::powerSource(none.path()), (Reading{PowerSource::ac, std::nullopt}));
}

TEST(LinuxThermalZones, HottestEnabledZoneDecidesAndBrokenTripsAreIgnored) {
    FakeRoot root;
    // An ACPI zone with unset trips (0 and -273.2 °C) must not read as hot.
    root.device("thermal", "thermal_zone0",
                {{"temp", "45000"},
                 {"trip_point_0_type", "critical"},
                 {"trip_point_0_temp", "0"},
                 {"trip_point_1_type", "hot"},
                 {"trip_point_1_temp", "-273200"}});
    // 88 °C against a passive trip at 95 °C.
    root.device("thermal", "thermal_zone1",
                {{"temp", "88000"}, {"trip_point_0_type", "passive"}, {"trip_point_0_temp", "95000"}});
    root.device("thermal", "thermal_zone2",
                {{"mode", "disabled"},
                 {"temp", "120000"},
                 {"trip_point_0_type", "hot"},
                 {"trip_point_0_temp", "90000"}});
    // A critical trip whose temperature cannot be read yet.
    root.device("thermal", "thermal_zone3", {{"temp", "96000"}, {"trip_point_0_type", "critical"}});
    root.write("sys/class/thermal/cooling_device0/type", "Processor\n");
    EXPECT_EQ(LinuxSystemFiles::thermalLevel(root.path()), ThermalLevel::fair);
    root.device("thermal", "thermal_zone3", {{"trip_point_0_temp", "100000"}});
    EXPECT_EQ(LinuxSystemFiles::thermalLevel(root.path()), ThermalLevel::critical);
}

TEST(LinuxLid, ReadsTheAcpiButtonState) {
    FakeRoot root;
    EXPECT_EQ(LinuxSystemFiles::lidClosed(root.path()), std::nullopt);
    root.write("proc/acpi/button/lid/LID0/state", "state:      open\n");
    EXPECT_EQ(LinuxSystemFiles::lidClosed(root.path()), false);
    root.write("proc/acpi/button/lid/LID1/state", "state:      closed\n");
    EXPECT_EQ(LinuxSystemFiles::lidClosed(root.path()), true);
}

TEST(LinuxUpdates, PendingWhenARestartIsRequiredOrAnOfflineUpdateIsStaged) {
    {
        FakeRoot root;
        root.mkdir("run");
        EXPECT_FALSE(LinuxSystemFiles::updatePending(root.path()));
        root.write("run/reboot-required", "*** System restart required ***\n");
        EXPECT_TRUE(LinuxSystemFiles::updatePending(root.path()));
    }
    FakeRoot staged;  // a dangling link is enough
    fs::create_symlink("/var/cache/nonexistent-update-cache", staged.path() / "system-update");
    EXPECT_TRUE(LinuxSystemFiles::updatePending(staged.path()));
}

}  // namespace
}  // namespace tavra
