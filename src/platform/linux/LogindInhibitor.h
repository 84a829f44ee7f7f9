#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/PowerController.h"

namespace tavra {

// Where the Linux idle-sleep hold asks for its inhibitors. Each address is an
// sd-bus address ("unix:path=..."); absent means the usual bus.
struct InhibitorBuses {
    std::optional<std::string> systemBus;   // logind's bus; absent: the system bus
    std::optional<std::string> sessionBus;  // the desktop's bus; absent: the user's session bus
    bool useSessionBus = true;              // false: logind only
};

// The Linux hold, in two layers, each best-effort and silent on failure:
// logind's Inhibit("idle:sleep", "Tavra", name, "block"), kept as the file
// descriptor that logind hands out, and, where a desktop session bus offers
// one, a session inhibitor for suspend (the desktop portal, else the GNOME
// session manager), kept with its bus connection. A take succeeds when at
// least one layer holds.
std::unique_ptr<IdleSleepBackend> makeLogindIdleSleepBackend(InhibitorBuses buses);

// Asks logind to suspend now, without interaction. False when it could not
// be asked or refused.
bool logindSuspend(const std::optional<std::string>& systemBus) noexcept;

}  // namespace tavra
