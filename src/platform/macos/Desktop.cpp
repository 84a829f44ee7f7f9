// Notifications through AppleScript and terminal windows through Terminal's
// own ".command" files; the texts are the shared rules'.

#include "platform/Desktop.h"

#include "kit/Paths.h"
#include "platform/Shell.h"

namespace tavra {

namespace LocalNotifier {

void show(const Alert& alert) noexcept {
    try {
        Shell::run("/usr/bin/osascript", {"-e", DesktopRules::notificationScript(alert)}, 5.0);
    } catch (...) {
    }
}

}  // namespace LocalNotifier

namespace TerminalLauncher {

void open(const std::string& command, const std::string& name) {
    auto script = DesktopRules::writeScript(TavraPaths::resumeScripts(), name, ".command",
                                            DesktopRules::macScript(command));
    Shell::check("/usr/bin/open", {script.string()}, 30.0);
}

}  // namespace TerminalLauncher

}  // namespace tavra
