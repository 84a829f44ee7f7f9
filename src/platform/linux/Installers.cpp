// Linux: systemd units, and pkexec or sudo for the helper's one script.

#include <unistd.h>

#include <cstdlib>

#include "kit/Paths.h"
#include "platform/Installers.h"

namespace tavra {

namespace {

bool executable(const char* path) {
    return ::access(path, X_OK) == 0;
}

bool hasVariable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && value[0] != '\0';
}

// A desktop session has a polkit agent for pkexec's dialog; on a bare
// terminal sudo asks where the user is looking.
std::string choosePrivilegeToolHere() {
    if (::getuid() == 0) return {};
    const bool desktop = hasVariable("DISPLAY") || hasVariable("WAYLAND_DISPLAY");
    if (desktop && executable("/usr/bin/pkexec")) return "/usr/bin/pkexec";
    if (executable("/usr/bin/sudo")) return "/usr/bin/sudo";
    return "/usr/bin/pkexec";
}

}  // namespace

std::string InstallerSystem::defaultPrivilegeTool() {
    return choosePrivilegeToolHere();
}

void DaemonInstaller::install(const std::filesystem::path& daemonBinary, const InstallerSystem& system) {
    SystemdInstall::installDaemon(daemonBinary, system);
}
void DaemonInstaller::uninstall(const InstallerSystem& system) noexcept {
    SystemdInstall::uninstallDaemon(system);
}
void DaemonInstaller::restart(const InstallerSystem& system) {
    SystemdInstall::restartDaemon(system);
}
std::string DaemonInstaller::startCommand() {
    return "systemctl --user start " + std::string(TavraPaths::daemonLabel);
}

void HelperInstaller::install(const std::filesystem::path& helperBinary, const InstallerSystem& system) {
    SystemdInstall::installHelper(helperBinary, system);
}
void HelperInstaller::uninstall(const InstallerSystem& system) {
    SystemdInstall::uninstallHelper(system);
}

}  // namespace tavra
