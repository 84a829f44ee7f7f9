#pragma once

// The machine on Linux. Lid-closed operation is a logind inhibitor lock
// ("handle-lid-switch:sleep", mode "block") held for as long as the plan
// holds; sleeping now is logind's Suspend. Update deferral is a lease file
// that update tooling checks before installing: it exists while a deferral
// holds and is rewritten on every watchdog tick, so a lease that has not
// been renewed for a while is stale.

#include <filesystem>
#include <optional>
#include <string>

#include "helper/Machine.h"
#include "kit/UniqueFd.h"
#include "platform/linux/SdBus.h"

namespace tavra {

class LogindMachine : public Machine {
public:
    static constexpr const char* kLeaseDir = "/run/tavra";
    static constexpr const char* kLeaseName = "update-deferral.lease";

    // `busAddress` empty: the system bus. `leaseDir` holds the lease file.
    explicit LogindMachine(std::filesystem::path leaseDir = kLeaseDir, std::string busAddress = {});

    void setLidSleepDisabled(bool disabled) override;
    void sleepNow() override;
    std::optional<std::string> readUpdateSetting() override;
    void writeUpdateSetting(bool automatic) override;
    void deleteUpdateSetting() override;
    void keepUpdatesDeferred() override;
    // A lid lock that logind refused, or could not be asked for, is asked
    // for again on each tick; the same failure is logged once, not every
    // five seconds.
    void keepLidSleepDisabled() override;

    bool holdsInhibitor() const noexcept { return inhibitor_.valid(); }
    std::filesystem::path leaseFile() const { return leaseDir_ / kLeaseName; }

private:
    // The bus, opened on first use and again after a failure. Logs and
    // returns null when it cannot be reached.
    sd_bus* bus(const char* method);
    void dropBus();
    void keepBusIfOpen();
    void report(const std::string& failure);
    bool writeLease();
    void removeLease();

    std::filesystem::path leaseDir_;
    std::string busAddress_;
    SdBus::Bus bus_;
    UniqueFd inhibitor_;
    bool retrying_ = false;
    std::string lastFailure_;
};

}  // namespace tavra
