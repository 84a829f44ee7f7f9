#pragma once

// Reaching the user on the machine itself: an alert as a system notification,
// and a new terminal window that runs a command (to resume an agent's session
// by hand).

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Effects.h"
#include "core/Error.h"

namespace tavra {

// No terminal program was found. description():
// "no terminal found: set TERMINAL or install x-terminal-emulator, gnome-terminal, konsole or xterm"
class TerminalError : public Error {
public:
    TerminalError();
};

namespace LocalNotifier {

// Shows `alert` as a system notification: on Linux through the session bus's
// notification service (app "Tavra", the title as summary, the body as text,
// urgency from the level), on macOS through AppleScript with a sound by level.
// Never fails visibly: a missing bus, service or tool is silent. Blocks its
// caller for up to a few seconds; any thread may call it.
void show(const Alert& alert) noexcept;

}  // namespace LocalNotifier

namespace TerminalLauncher {

// Writes a script that runs `command` and then leaves the user in a login
// shell, into TavraPaths::resumeScripts() (created if missing), owner-only
// (0700), named after `name` (see DesktopRules::scriptFileName) so that no
// name can escape the directory; an earlier script of the same name is
// replaced. Then opens it in a new terminal window, without waiting for the
// window to close. Throws FileError when the script cannot be written,
// TerminalError when no terminal is found (Linux), and what Shell reports when
// the opening fails. The script stays behind. Blocks up to 30 seconds.
void open(const std::string& command, const std::string& name);

}  // namespace TerminalLauncher

// The pure pieces behind both, shared by every system.
namespace DesktopRules {

// A text as an AppleScript string literal: backslashes doubled first, then
// double quotes escaped, all inside double quotes.
std::string appleScriptQuoted(std::string_view text);
// "Glass" for info, "Sosumi" for warning and critical.
std::string_view soundName(Alert::Level level) noexcept;
// display notification "{body}" with title "Tavra" subtitle "{title}" sound name "{sound}"
std::string notificationScript(const Alert& alert);
// The freedesktop urgency: 0 low (info), 1 normal (warning), 2 critical.
std::uint8_t urgency(Alert::Level level) noexcept;

// `name` with every character outside [A-Za-z0-9._-] (each byte of a UTF-8
// sequence too) replaced by "_", then `extension`: "claude:abc/def" and
// ".command" give "claude_abc_def.command".
std::string scriptFileName(std::string_view name, std::string_view extension);
// The script run in Terminal on macOS (a ".command" file).
std::string macScript(std::string_view command);
// The script run in a terminal emulator on Linux (a ".sh" file).
std::string linuxScript(std::string_view command);
// Writes `contents` to the file named after `name` and `extension` in
// `directory`, creating the directory: atomically and with mode 0700. Returns
// the file's path. Throws FileError.
std::filesystem::path writeScript(const std::filesystem::path& directory, std::string_view name,
                                  std::string_view extension, std::string_view contents);

// The program and arguments that open a terminal running `script`. The
// program is `terminalVariable` ($TERMINAL: a path, or a name looked up on
// `searchPath`) when set and found, else the first of x-terminal-emulator,
// gnome-terminal, konsole and xterm found on `searchPath` (a PATH value).
// Throws TerminalError when there is none.
std::vector<std::string> terminalCommand(const std::string& script,
                                         const std::optional<std::string>& terminalVariable,
                                         std::string_view searchPath);

}  // namespace DesktopRules

}  // namespace tavra
