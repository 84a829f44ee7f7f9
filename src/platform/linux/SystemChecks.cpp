// Linux: logind on the system bus (lid sleep, sleep now, idle hints) and a
// notification service on the session bus (local alerts).

#include "platform/SystemChecks.h"

#include "platform/linux/SdBus.h"

namespace tavra {

namespace {

bool nameHasOwner(sd_bus* bus, const char* name) noexcept {
    auto reply = SdBus::call(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "NameHasOwner", "s", name);
    int owned = 0;
    if (!reply || sd_bus_message_read(reply.get(), "b", &owned) < 0) return false;
    return owned != 0;
}

// A name that is not owned yet but can be started on demand counts too.
bool reachable(sd_bus* bus, const char* name) noexcept {
    if (nameHasOwner(bus, name)) return true;
    auto reply = SdBus::call(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "ListActivatableNames", "");
    if (!reply) return false;
    char** names = nullptr;
    if (sd_bus_message_read_strv(reply.get(), &names) < 0) return false;
    bool found = false;
    for (char** item = names; item != nullptr && *item != nullptr; ++item) {
        if (std::string_view(*item) == name) found = true;
        free(*item);
    }
    free(names);
    return found;
}

}  // namespace

std::vector<SystemCheck> SystemChecks::services() noexcept {
    std::vector<SystemCheck> checks;
    try {
        auto system = SdBus::connectSystem(SdBus::Timeout::sensor);
        checks.push_back({"logind reachable", reachable(system.get(), "org.freedesktop.login1"),
                          "Tavra needs systemd-logind on the system bus to hold lid sleep; "
                          "start it with `sudo systemctl start systemd-logind`."});
        auto session = SdBus::connectUser(SdBus::Timeout::sensor);
        checks.push_back({"notification service reachable",
                          reachable(session.get(), "org.freedesktop.Notifications"),
                          "Local alerts need a desktop notification service on the session bus "
                          "(org.freedesktop.Notifications); phone alerts work without it."});
    } catch (...) {
        // Only allocation can throw here; a shorter list is still an answer.
    }
    return checks;
}

}  // namespace tavra
