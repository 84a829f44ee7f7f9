#pragma once

// Undoing what a daemon did to the machine, also on behalf of one that is
// gone: `tavrad --recover` runs this after any stop, a crash included.

#include <filesystem>
#include <functional>
#include <string>

#include "core/Date.h"
#include "daemon/DaemonState.h"
#include "platform/PowerController.h"
#include "platform/Processes.h"

namespace tavra {

// Continues every process of `record` that is still the one that was stopped
// (same pid and start time), the stopped descendants first and the root last;
// while the root is still itself, its present descendants too. Never throws.
void thawRecord(const ProcessTable& table, const FreezeRecord& record) noexcept;

// Thaws every frozen run of the state file, forgets them there, and asks the
// power controller to release everything. Returns the number of runs thawed.
int recover(const std::filesystem::path& stateFile, const ProcessTable& table, PowerController& power,
            Date now, const std::function<void(const std::string&)>& log);

}  // namespace tavra
