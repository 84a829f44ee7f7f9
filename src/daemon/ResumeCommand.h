#pragma once

#include <optional>
#include <string>

#include "core/Run.h"

namespace tavra {

// The command line that picks a run up again in a terminal: the agent's own
// resume command in the run's directory, as in
// "cd '/home/me/proj' && claude --resume 0d5c...". Absent for an agent
// whose resume command is unknown. Every argument is quoted for a POSIX shell.
std::optional<std::string> resumeCommand(const Run& run);

}  // namespace tavra
