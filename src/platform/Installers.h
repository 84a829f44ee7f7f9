#pragma once

// Puts the two background processes under the system's service manager and
// takes them out again: the per-user daemon `tavrad` as the user, the root
// helper `tavra-helper` through one administrator prompt.
//
// macOS: a LaunchAgent and a LaunchDaemon property list driven by launchctl;
// the helper is installed by a small shell script run as root through
// osascript's administrator prompt.
// Linux: a systemd user unit for the daemon, and a system unit for the helper
// installed (with the drop-ins that make the distribution's automatic
// upgrades wait while the helper defers them) by one shell script run through
// pkexec or sudo.
//
// Every decision (file contents, quoting, the order of commands) lives in the
// shared code and is tested on Linux for both systems; the per-OS files only
// choose the flow. All calls block; none is meant to run concurrently with
// another install.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Shell.h"

namespace tavra {

// Everything an installer touches, so that tests run it in a private root
// with a recording command runner.
struct InstallerSystem {
    // Runs a tool to its end as Shell::run does.
    using Runner = std::function<ShellResult(const std::string& path, const std::vector<std::string>& args,
                                             double timeout)>;
    // Runs a tool that may talk to the user on the terminal (sudo's password
    // question), with standard input and output inherited; returns its exit
    // status. Throws SpawnError when the tool cannot be started.
    using InteractiveRunner =
        std::function<int(const std::string& path, const std::vector<std::string>& args)>;

    // Machine-wide places are read and written below this directory ("/" on a
    // real machine); files keep naming the places as the machine sees them.
    std::filesystem::path root = "/";
    // The installing user; the helper obeys this user alone.
    std::uint32_t uid = 0;
    Runner run;
    InteractiveRunner runInteractive;
    // Linux: how to become root for the helper's script ("/usr/bin/pkexec",
    // "/usr/bin/sudo", or empty when already root).
    std::string privilegeTool;

    // The user's places (TavraPaths by default).
    std::filesystem::path daemonServiceFile;
    std::filesystem::path logsDir;
    std::filesystem::path supportDir;

    // The helper's machine-wide places, unprefixed (TavraPaths by default).
    std::filesystem::path helperBinary;
    std::filesystem::path helperServiceFile;
    std::string helperSocket;
    std::filesystem::path helperStateDir;

    // `absolute` as found below `root`.
    std::filesystem::path underRoot(const std::filesystem::path& absolute) const;

    // The running machine: "/", getuid(), Shell::run, TavraPaths, and on
    // Linux the privilege tool that suits the session.
    static InstallerSystem current();
    // The tool that raises the helper's one script on this system: pkexec or
    // sudo on Linux, none on macOS, whose osascript prompts by itself.
    static std::string defaultPrivilegeTool();
};

// The system's own service manager, per platform.
namespace DaemonInstaller {
// Writes the daemon's service definition for `daemonBinary` and (re)starts
// it. Throws FileError, ShellError or SpawnError; a failure is not rolled
// back, and installing again is the recovery.
void install(const std::filesystem::path& daemonBinary, const InstallerSystem& system);
// Stops the daemon and removes its definition. Never fails in effect: every
// failure is swallowed.
void uninstall(const InstallerSystem& system) noexcept;
// Restarts a daemon that is installed. Throws ShellError or SpawnError.
void restart(const InstallerSystem& system);
// A service definition exists.
bool isInstalled(const InstallerSystem& system);
// One sentence's worth: the command that starts an installed daemon by hand.
std::string startCommand();
}  // namespace DaemonInstaller

namespace HelperInstaller {
// Installs `helperBinary` as the root helper for `system.uid`, through one
// administrator prompt. Throws FileError, ShellError (a refused or cancelled
// prompt among them) or SpawnError.
void install(const std::filesystem::path& helperBinary, const InstallerSystem& system);
// Removes the helper and restores normal sleep and updates, through one
// administrator prompt. Throws ShellError or SpawnError.
void uninstall(const InstallerSystem& system);
// The helper's service definition exists (whether or not it runs).
bool isInstalled(const InstallerSystem& system);
}  // namespace HelperInstaller

// ---- The shared pieces, the same on every platform ---------------------------

// Runs a tool with the terminal inherited and waits for it; the exit status,
// or 128 + the signal that ended it. Throws SpawnError.
int runInteractively(const std::string& path, const std::vector<std::string>& args);

namespace InstallerText {

// A word for /bin/sh: wrapped in single quotes, each single quote inside
// written as '\'' .
std::string shellQuote(std::string_view word);
// A text for the inside of an AppleScript string: backslashes doubled first,
// then each double quote preceded by a backslash.
std::string appleScriptEscape(std::string_view text);
// do shell script "{escaped}" with prompt "{prompt}" with administrator privileges
std::string administratorScript(std::string_view script, std::string_view prompt);

// launchd's property lists, in the XML form the system itself writes: keys
// sorted, one tab per level, a line feed after </plist>.
std::string daemonPropertyList(const std::filesystem::path& daemonBinary,
                               const std::filesystem::path& logFile);
std::string helperPropertyList(const std::filesystem::path& helperBinary, std::uint32_t uid);
std::string launchdHelperInstallScript(const std::filesystem::path& stagedBinary,
                                       const std::filesystem::path& stagedPlist,
                                       const std::filesystem::path& helperBinary,
                                       const std::filesystem::path& helperServiceFile);
std::string launchdHelperUninstallScript(const std::filesystem::path& helperBinary,
                                         const std::filesystem::path& helperServiceFile,
                                         std::string_view helperSocket);

// One word of a systemd Exec line: as it is when nothing needs quoting,
// otherwise in double quotes with backslashes and double quotes escaped;
// "%" and "$" are always doubled so that systemd expands neither.
std::string systemdWord(std::string_view word);
std::string daemonUnit(const std::filesystem::path& daemonBinary, const std::filesystem::path& logFile);
std::string helperUnit(const std::filesystem::path& helperBinary, std::uint32_t uid);

// The update services that Tavra's helper may hold off, and the drop-in
// added to each one present.
inline constexpr std::string_view kUpdateDeferralLease = "/run/tavra/update-deferral.lease";
inline constexpr std::string_view kDropInName = "com.tavra.update-deferral.conf";
extern const std::vector<std::string_view> kUpdateServices;
std::string updateDeferralDropIn();

// What the Linux helper's privileged script does, as data for the script.
struct SystemdHelperFiles {
    std::filesystem::path stagedBinary, stagedUnit, stagedDropIn;
    std::filesystem::path helperBinary, helperUnit;  // below the root
    std::vector<std::filesystem::path> dropInDirs;   // below the root, one per update service present
    std::filesystem::path leaseFile, stateDir;       // below the root
    std::string helperSocket;                        // below the root
};
std::string systemdHelperInstallScript(const SystemdHelperFiles& files);
std::string systemdHelperUninstallScript(const SystemdHelperFiles& files);

}  // namespace InstallerText

// The two flows, both compiled everywhere so that each is tested on Linux;
// DaemonInstaller and HelperInstaller pick the platform's.
namespace LaunchdInstall {
inline constexpr std::string_view kLaunchctl = "/bin/launchctl";
inline constexpr std::string_view kOsascript = "/usr/bin/osascript";
inline constexpr std::string_view kInstallPrompt =
    "Tavra needs to install a small helper so agents can keep running with the lid closed.";
inline constexpr std::string_view kUninstallPrompt = "Tavra will remove its helper and restore normal sleep.";

void installDaemon(const std::filesystem::path& daemonBinary, const InstallerSystem& system);
void uninstallDaemon(const InstallerSystem& system) noexcept;
void restartDaemon(const InstallerSystem& system);
void installHelper(const std::filesystem::path& helperBinary, const InstallerSystem& system);
void uninstallHelper(const InstallerSystem& system);
}  // namespace LaunchdInstall

namespace SystemdInstall {
inline constexpr std::string_view kSystemctl = "/usr/bin/systemctl";
inline constexpr std::string_view kInstallPrompt = "Tavra needs administrator rights to install its helper.";
inline constexpr std::string_view kUninstallPrompt =
    "Tavra needs administrator rights to remove its helper and restore normal sleep and updates.";

void installDaemon(const std::filesystem::path& daemonBinary, const InstallerSystem& system);
void uninstallDaemon(const InstallerSystem& system) noexcept;
void restartDaemon(const InstallerSystem& system);
void installHelper(const std::filesystem::path& helperBinary, const InstallerSystem& system);
void uninstallHelper(const InstallerSystem& system);
// The update services of InstallerText::kUpdateServices that this machine
// has, in that order.
std::vector<std::string> presentUpdateServices(const InstallerSystem& system);
}  // namespace SystemdInstall

}  // namespace tavra
