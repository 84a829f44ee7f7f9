// Notifications through the desktop's notification service on the session
// bus, and terminal windows through whichever terminal emulator is installed.

#include "platform/Desktop.h"

#include <cstdlib>

#include "kit/Paths.h"
#include "platform/Shell.h"
#include "platform/linux/SdBus.h"

namespace tavra {

namespace {

// A notification that cannot be shown within this long is not worth waiting
// for: the daemon has other things to do.
constexpr std::uint64_t kNotifyTimeoutMicroseconds = 2'000'000;

// Starts the terminal in the background, in a session of its own (so that a
// Ctrl-C meant for the daemon does not close the user's window) and with no
// pipe back to us, so the call returns while the window stays open.
constexpr const char* kDetached =
    "if command -v setsid >/dev/null 2>&1; then setsid \"$@\"; else \"$@\"; fi </dev/null >/dev/null 2>&1 &";

std::optional<std::string> environment(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr) return std::nullopt;
    return std::string(value);
}

}  // namespace

namespace LocalNotifier {

void show(const Alert& alert) noexcept {
    try {
        auto bus = sdbus::connectUser();
        if (!bus) return;
        sd_bus_set_method_call_timeout(bus.get(), kNotifyTimeoutMicroseconds);
        // Notify(app_name, replaces_id, app_icon, summary, body, actions, hints, expire_timeout)
        sdbus::call(bus.get(), "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                    "org.freedesktop.Notifications", "Notify", "susssasa{sv}i", "Tavra", std::uint32_t{0}, "",
                    alert.title.c_str(), alert.body.c_str(), 0u, 1u, "urgency", "y",
                    unsigned{DesktopRules::urgency(alert.level)}, std::int32_t{-1});
    } catch (...) {
    }
}

}  // namespace LocalNotifier

namespace TerminalLauncher {

void open(const std::string& command, const std::string& name) {
    auto script = DesktopRules::writeScript(TavraPaths::resumeScripts(), name, ".sh",
                                            DesktopRules::linuxScript(command));
    auto terminal =
        DesktopRules::terminalCommand(script.string(), environment("TERMINAL"),
                                      environment("PATH").value_or("/usr/local/bin:/usr/bin:/bin"));
    std::vector<std::string> args{"-c", kDetached, "sh"};
    args.insert(args.end(), terminal.begin(), terminal.end());
    Shell::check("/bin/sh", args, 30.0);
}

}  // namespace TerminalLauncher

}  // namespace tavra
