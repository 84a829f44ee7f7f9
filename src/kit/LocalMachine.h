#pragma once

#include "core/MachineWord.h"

namespace tavra::LocalMachine {

// The word for this machine in the texts people read: "Mac" on macOS,
// "computer" on Linux. Never throws.
MachineWord word() noexcept;

}  // namespace tavra::LocalMachine
