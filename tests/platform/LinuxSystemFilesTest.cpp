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
struct FakeRoot : testing::TempDir {
    void write(const fs::path& relative, const std::string& content) {
        fs::create_directories((path() / relative).parent_path());
        std::ofstream(path() / relative) << content;
    }
    // One device under sys/class/`kind`, an attribute a file.
    void device(const std::string& kind, const std::string& name, const Attributes& attributes) {
        for (const auto& [key, value] : attributes)
            write(fs::path("sys/class") / kind / name / key, value + "\n");
    }
};

TEST(LinuxPowerSupplies, OnlyPresentSystemBatteriesCountAndAKernelWithoutTheClassIsOnMains) {
    FakeRoot root;
    root.device("power_supply", "hidpp_battery_0",
                {{"type", "Battery"}, {"scope", "Device"}, {"present", "1"}, {"capacity", "15"}});
    root.device("power_supply", "BAT1", {{"type", "Battery"}, {"present", "0"}, {"status", "Unknown"}});
    EXPECT_EQ(LinuxSystemFiles::powerSource(root.path()), (Reading{PowerSource::ac, std::nullopt}));
    root.device("power_supply", "AC", {{"type", "Mains"}, {"online", "0"}});
    root.device("power_supply", "BAT0",
                {{"type", "Battery"}, {"present", "1"}, {"status", "Discharging"}, {"capacity", "57"}});
    EXPECT_EQ(LinuxSystemFiles::powerSource(root.path()), (Reading{PowerSource::battery, 57}));

    FakeRoot none;  // no sysfs at all
    EXPECT_EQ(LinuxSystemFiles::powerSource(none.path()), (Reading{PowerSource::unknown, std::nullopt}));
    fs::create_directories(none / "sys/class/thermal");  // sysfs, but a kernel without the power-supply class
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

TEST(LinuxLidAndUpdates, ReadTheAcpiButtonAndTheRestartAndOfflineUpdateMarks) {
    FakeRoot root;
    EXPECT_EQ(LinuxSystemFiles::lidClosed(root.path()), std::nullopt);
    EXPECT_FALSE(LinuxSystemFiles::updatePending(root.path()));
    root.write("proc/acpi/button/lid/LID0/state", "state:      open\n");
    root.write("proc/acpi/button/lid/LID1/state", "state:      closed\n");
    EXPECT_EQ(LinuxSystemFiles::lidClosed(root.path()), true);
    root.write("run/reboot-required", "*** System restart required ***\n");
    EXPECT_TRUE(LinuxSystemFiles::updatePending(root.path()));
    FakeRoot staged;  // a dangling link is enough
    fs::create_symlink("/var/cache/nonexistent-update-cache", staged.path() / "system-update");
    EXPECT_TRUE(LinuxSystemFiles::updatePending(staged.path()));
}

}  // namespace
}  // namespace tavra
