#pragma once

// The seams between the helper's rules and the machine: what it changes
// (Machine), what it asks (HelperSensors) and how it runs a tool
// (CommandRunner). Production backends live in the OS folders; tests give
// recording fakes.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Date.h"
#include "platform/Shell.h"

namespace tavra {

// Runs one tool to its end. Throws a tavra::Error whose description says why
// when the tool could not be started at all.
class CommandRunner {
public:
    virtual ~CommandRunner() = default;
    virtual ShellResult run(const std::string& path, const std::vector<std::string>& args,
                            double timeoutSeconds) = 0;
};

// The charge as the hard limits need it.
struct PowerReading {
    bool onBattery = false;
    std::optional<int> percent;  // absent when unknown

    bool operator==(const PowerReading&) const = default;
};

// The three facts behind the helper's hard limits. Never throws: each answer
// falls back to a harmless value (not critical, on mains, lid open).
class HelperSensors {
public:
    virtual ~HelperSensors() = default;
    virtual bool thermalCritical() = 0;
    virtual PowerReading power() = 0;
    virtual bool lidClosed() = 0;
};

// What the helper changes on the machine. Every operation carries on after a
// failure: it writes one line through the log it was given and returns.
// Called only from the helper's serial context.
class Machine {
public:
    using Log = std::function<void(const std::string& message)>;

    virtual ~Machine() = default;

    // The helper attaches its log before the first call.
    void attachLog(Log log) { log_ = std::move(log); }

    // Keep the machine awake with the lid closed (true), or give that up.
    virtual void setLidSleepDisabled(bool disabled) = 0;
    // Put the machine to sleep at once.
    virtual void sleepNow() = 0;

    // The automatic update setting as it stands: its value trimmed, or absent
    // when it does not exist or cannot be read. Logs nothing.
    virtual std::optional<std::string> readUpdateSetting() = 0;
    // Sets automatic update installation on (true) or off (false).
    virtual void writeUpdateSetting(bool automatic) = 0;
    // Removes the setting, so the system default applies again.
    virtual void deleteUpdateSetting() = 0;
    // Called on every watchdog tick while a deferral holds; a backend whose
    // deferral is a lease renews it here.
    virtual void keepUpdatesDeferred() {}
    // How log lines name what the deferral holds off: "macOS updates" on
    // macOS; the default suits Linux, where no single updater exists.
    static constexpr std::string_view kDefaultUpdatesName = "system updates";
    virtual std::string_view updatesName() const { return kDefaultUpdatesName; }
    // Called on every watchdog tick while lid sleep is disabled; a backend
    // whose hold can be refused or lost takes it again here.
    virtual void keepLidSleepDisabled() {}

protected:
    void log(const std::string& message) const {
        if (log_) log_(message);
    }

private:
    Log log_;
};

// This platform's machine: logind and a lease file on Linux, pmset and
// defaults on macOS.
std::unique_ptr<Machine> makeSystemMachine();

// This platform's sensors for the hard limits.
std::unique_ptr<HelperSensors> makeSystemSensors();

}  // namespace tavra
