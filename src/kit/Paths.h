#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tavra::TavraPaths {

// Launch labels, the same on every platform.
inline constexpr std::string_view helperLabel = "com.tavra.helper";
inline constexpr std::string_view daemonLabel = "com.tavra.daemon";

// The helper's fixed places. They never depend on a user, have no override,
// and differ per platform (Linux: /run, /usr/local/libexec, systemd, /var/lib).
// helperServiceFile is the file the service manager starts the helper from: a
// systemd system unit on Linux, a LaunchDaemon property list on macOS.
std::string helperSocket();
std::filesystem::path helperBinary();
std::filesystem::path helperServiceFile();
std::filesystem::path helperStateDir();

// ---- The current user's places ---------------------------------------------
//
// Computed at each call from the current user's home directory, so they follow
// a change of $HOME (and, on Linux, of the XDG base directories).
//
// Linux:  supportDir   $XDG_DATA_HOME/tavra     (~/.local/share/tavra)
//         logsDir      $XDG_STATE_HOME/tavra    (~/.local/state/tavra)
//         daemonServiceFile  $XDG_CONFIG_HOME/systemd/user/com.tavra.daemon.service
//         installDir   ~/.local/bin
// macOS:  ~/Library/Application Support/Tavra, ~/Library/Logs/Tavra,
//         ~/Library/LaunchAgents/com.tavra.daemon.plist, ~/.tavra/bin

// $HOME when set and not empty, otherwise the password database's entry for
// the real user ID; "/" if neither is known.
std::filesystem::path home();

// All per-user data. Each call creates the directory (with its parents) with
// mode 0700 if it is missing, ignoring any failure; an existing directory's
// mode is left as it is.
std::filesystem::path supportDir();
std::filesystem::path config();         // supportDir / "config.json"
std::filesystem::path journal();        // supportDir / "journal.jsonl"
std::filesystem::path state();          // supportDir / "state.json"
std::filesystem::path resumeScripts();  // supportDir / "resume"

// supportDir / "tavrad.sock" as a plain string. Throws
// SocketError::pathTooLong ("socket path too long: {path}") when the path is
// longer than the transport takes (UnixSocketLimits::kLongestPath).
std::string daemonSocket();

// Logs. Created like supportDir, but with the default permissions (0777 less
// the umask).
std::filesystem::path logsDir();
// The daemon's service file: a systemd user unit on Linux, a LaunchAgent
// property list on macOS.
std::filesystem::path daemonServiceFile();
std::filesystem::path installDir();

// The directory of the running program, symbolic links resolved. Never
// throws; falls back to the current directory if the program's path is
// unknown.
std::filesystem::path executableDir();

// The directory of a program started as `invokedAs` (its argv[0]): a relative
// path is taken from the current directory, symbolic links are resolved and
// the last component is dropped.
std::filesystem::path executableDirFrom(const std::filesystem::path& invokedAs);

// Another executable of the system, looked up beside the running program
// first. The first of these that is an executable regular file wins:
//   1. executableDir / name
//   2. installDir / name
//   3. executableDir / "../Resources/bin" / name
//   4. executableDir / "../Helpers" / name
// With none, candidate 1. Never throws.
std::filesystem::path sibling(std::string_view name);

// The same lookup from a given program directory (for tests and for callers
// that know their argv[0]).
std::filesystem::path sibling(std::string_view name, const std::filesystem::path& fromDir);

}  // namespace tavra::TavraPaths
