// macOS: launchd property lists, and osascript's administrator prompt for the
// helper's one script.

#include <unistd.h>

#include "kit/Paths.h"
#include "platform/Installers.h"

namespace tavra {

InstallerSystem InstallerSystem::current() {
    InstallerSystem system;
    system.uid = static_cast<std::uint32_t>(::getuid());
    system.run = [](const std::string& path, const std::vector<std::string>& args, double timeout) {
        return Shell::run(path, args, timeout);
    };
    system.runInteractive = runInteractively;
    system.daemonServiceFile = TavraPaths::daemonServiceFile();
    system.logsDir = TavraPaths::logsDir();
    system.supportDir = TavraPaths::supportDir();
    system.helperBinary = TavraPaths::helperBinary();
    system.helperServiceFile = TavraPaths::helperServiceFile();
    system.helperSocket = TavraPaths::helperSocket();
    system.helperStateDir = TavraPaths::helperStateDir();
    return system;
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
bool DaemonInstaller::isInstalled(const InstallerSystem& system) {
    std::error_code ignored;
    return std::filesystem::exists(system.daemonServiceFile, ignored);
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
bool HelperInstaller::isInstalled(const InstallerSystem& system) {
    std::error_code ignored;
    return std::filesystem::exists(system.underRoot(system.helperServiceFile), ignored);
}

}  // namespace tavra
