// macOS: the system tools that power management and local alerts run.

#include "platform/SystemChecks.h"

#include <unistd.h>

namespace tavra {

std::vector<SystemCheck> SystemChecks::services() noexcept {
    std::vector<SystemCheck> checks;
    try {
        checks.push_back({"pmset available", ::access("/usr/bin/pmset", X_OK) == 0,
                          "/usr/bin/pmset is missing; Tavra cannot change lid sleep without it."});
        checks.push_back({"notifications available", ::access("/usr/bin/osascript", X_OK) == 0,
                          "/usr/bin/osascript is missing; local alerts cannot be shown."});
    } catch (...) {
        // Only allocation can throw here; a shorter list is still an answer.
    }
    return checks;
}

}  // namespace tavra
