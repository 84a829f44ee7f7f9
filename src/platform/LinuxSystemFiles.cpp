#include "platform/LinuxSystemFiles.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <string>

namespace tavra::LinuxSystemFiles {

namespace fs = std::filesystem;

namespace {

// The first line of a sysfs attribute without surrounding blanks. Absent
// when the file is missing or the driver refuses the read (ENODEV, EIO).
std::optional<std::string> attribute(const fs::path& file) {
    std::ifstream in(file);
    if (!in) return std::nullopt;
    std::string line;
    if (!std::getline(in, line) && !in.eof()) return std::nullopt;
    if (in.bad()) return std::nullopt;
    const auto begin = line.find_first_not_of(" \t\r");
    if (begin == std::string::npos) return std::string();
    const auto end = line.find_last_not_of(" \t\r");
    return line.substr(begin, end - begin + 1);
}

std::optional<long long> number(const fs::path& file) {
    const auto text = attribute(file);
    if (!text || text->empty()) return std::nullopt;
    long long value = 0;
    const char* first = text->data();
    const char* last = first + text->size();
    const auto [end, error] = std::from_chars(first, last, value);
    if (error != std::errc() || end != last) return std::nullopt;
    return value;
}

std::optional<bool> flag(const fs::path& file) {
    const auto value = number(file);
    if (!value) return std::nullopt;
    return *value != 0;
}

// The entries of a directory, sorted by name; empty when it cannot be read.
std::vector<fs::path> entries(const fs::path& directory) {
    std::vector<fs::path> result;
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        result.push_back(it->path());
    }
    std::sort(result.begin(), result.end());
    return result;
}

// "trip_point_3_type" -> 3
std::optional<int> tripIndex(const std::string& name) {
    constexpr std::string_view kPrefix = "trip_point_";
    constexpr std::string_view kSuffix = "_type";
    if (!name.starts_with(kPrefix) || !name.ends_with(kSuffix)) return std::nullopt;
    const char* first = name.data() + kPrefix.size();
    const char* last = name.data() + name.size() - kSuffix.size();
    int index = 0;
    const auto [end, error] = std::from_chars(first, last, index);
    if (error != std::errc() || end != last || first == last) return std::nullopt;
    return index;
}

}  // namespace

std::optional<std::vector<SensorDecisions::PowerSupply>> powerSupplies(const fs::path& root) {
    const fs::path directory = root / "sys/class/power_supply";
    std::error_code error;
    std::vector<SensorDecisions::PowerSupply> supplies;
    // A kernel built without the power-supply class has no such directory:
    // with sysfs there, that is a machine without supplies, not a failure.
    if (!fs::is_directory(directory, error)) {
        if (fs::is_directory(root / "sys/class", error)) return supplies;
        return std::nullopt;
    }
    for (const auto& path : entries(directory)) {
        auto type = attribute(path / "type");
        if (!type) continue;
        SensorDecisions::PowerSupply supply;
        supply.name = path.filename().string();
        supply.type = std::move(*type);
        supply.scope = attribute(path / "scope");
        supply.present = flag(path / "present");
        supply.online = flag(path / "online");
        supply.status = attribute(path / "status");
        supply.capacity = number(path / "capacity");
        supply.energyNow = number(path / "energy_now");
        supply.energyFull = number(path / "energy_full");
        supply.chargeNow = number(path / "charge_now");
        supply.chargeFull = number(path / "charge_full");
        supplies.push_back(std::move(supply));
    }
    return supplies;
}

std::vector<SensorDecisions::ThermalZone> thermalZones(const fs::path& root) {
    std::vector<SensorDecisions::ThermalZone> zones;
    for (const auto& path : entries(root / "sys/class/thermal")) {
        if (!path.filename().string().starts_with("thermal_zone")) continue;
        if (attribute(path / "mode") == "disabled") continue;
        SensorDecisions::ThermalZone zone;
        zone.milliCelsius = number(path / "temp");
        for (const auto& file : entries(path)) {
            const auto index = tripIndex(file.filename().string());
            if (!index) continue;
            const auto type = attribute(file);
            const auto temperature = number(path / ("trip_point_" + std::to_string(*index) + "_temp"));
            if (type && temperature) zone.trips.push_back({*type, *temperature});
        }
        zones.push_back(std::move(zone));
    }
    return zones;
}

std::optional<bool> lidClosed(const fs::path& root) {
    std::optional<bool> closed;
    for (const auto& lid : entries(root / "proc/acpi/button/lid")) {
        const auto text = attribute(lid / "state");
        if (!text) continue;
        const auto state = SensorDecisions::lidClosedFromStateText(*text);
        if (state) closed = closed.value_or(false) || *state;
    }
    return closed;
}

bool updatePending(const fs::path& root) {
    std::error_code error;
    if (fs::exists(root / "run/reboot-required", error)) return true;
    for (const char* marker : {"system-update", "etc/system-update"}) {
        // A dangling link still announces the update: the target is a cache
        // directory the update tool may have cleared already.
        if (fs::exists(fs::symlink_status(root / marker, error))) return true;
    }
    return false;
}

PowerSourceSensor::Reading powerSource(const fs::path& root) {
    return SensorDecisions::fromPowerSupplies(powerSupplies(root));
}

ThermalLevel thermalLevel(const fs::path& root) {
    return SensorDecisions::thermalLevel(thermalZones(root));
}

}  // namespace tavra::LinuxSystemFiles
