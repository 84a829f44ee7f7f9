#pragma once

// What `tavra doctor` asks of the operating system itself: the services the
// daemon and the helper lean on, each with the words to fix it.

#include <string>
#include <vector>

namespace tavra {

struct SystemCheck {
    std::string name;  // "logind reachable"
    bool ok = false;
    std::string fix;  // what to do about a failure, one sentence

    bool operator==(const SystemCheck&) const = default;
};

namespace SystemChecks {
// The platform's service checks, in a fixed order. Never throws; each check
// gives up after a few seconds.
std::vector<SystemCheck> services() noexcept;
}  // namespace SystemChecks

}  // namespace tavra
