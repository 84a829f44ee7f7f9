#pragma once

// The machine as the macOS tools change it: lid sleep through pmset, the
// automatic update setting through defaults. Shared code so that every
// command line is checked on any platform with a recording runner.

#include <memory>
#include <string>
#include <vector>

#include "helper/Machine.h"

namespace tavra {

class CommandMachine : public Machine {
public:
    static constexpr const char* kPmset = "/usr/bin/pmset";
    static constexpr const char* kDefaults = "/usr/bin/defaults";
    static constexpr const char* kUpdateDomain = "/Library/Preferences/com.apple.SoftwareUpdate";
    static constexpr const char* kUpdateKey = "AutomaticallyInstallMacOSUpdates";
    static constexpr double kCommandTimeout = 15.0;
    static constexpr double kReadTimeout = 30.0;

    explicit CommandMachine(std::shared_ptr<CommandRunner> runner);

    void setLidSleepDisabled(bool disabled) override;
    void sleepNow() override;
    std::optional<std::string> readUpdateSetting() override;
    void writeUpdateSetting(bool automatic) override;
    void deleteUpdateSetting() override;
    std::string_view updatesName() const override { return "macOS updates"; }

    // Runs a tool; a failure to start or a non-zero status is logged as
    // "{path} failed: {error}" or "{path} {args} failed: {stderr}".
    void run(const std::string& path, const std::vector<std::string>& args);

private:
    std::shared_ptr<CommandRunner> runner_;
};

}  // namespace tavra
