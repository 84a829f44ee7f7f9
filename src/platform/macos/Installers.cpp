// macOS: launchd property lists, and osascript's administrator prompt for the
// helper's one script.

#include <unistd.h>

#include "kit/Paths.h"
#include "platform/Installers.h"

namespace tavra {

// The administrator prompt comes from osascript itself.
std::string InstallerSystem::defaultPrivilegeTool() {
    return {};
}

void DaemonInstaller::install(const std::filesystem::path& daemonBinary, const InstallerSystem& system) {
    LaunchdInstall::installDaemon(daemonBinary, system);
}
void DaemonInstaller::uninstall(const InstallerSystem& system) noexcept {
    LaunchdInstall::uninstallDaemon(system);
}
void DaemonInstaller::restart(const InstallerSystem& system) {
    LaunchdInstall::restartDaemon(system);
}
std::string DaemonInstaller::startCommand() {
    return "launchctl kickstart gui/" + std::to_string(::getuid()) + "/" +
           std::string(TavraPaths::daemonLabel);
}

void HelperInstaller::install(const std::filesystem::path& helperBinary, const InstallerSystem& system) {
    LaunchdInstall::installHelper(helperBinary, system);
}
void HelperInstaller::uninstall(const InstallerSystem& system) {
    LaunchdInstall::uninstallHelper(system);
}

}  // namespace tavra
