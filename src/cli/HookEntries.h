#pragma once

// Tavra's entries in the agents' own hook configuration: Claude Code's
// settings.json, Codex's hooks.json and a file of Tavra's own in Grok's hook
// folder. All three use one shape, event -> list of groups -> "hooks" list
// of handlers, so one merge serves them. Tavra's handlers are recognised by
// the program their command runs (a file named tavra-hook), so an entry from
// an older install, wherever it was put, is found and replaced.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"

namespace tavra::cli {

// A configuration file that is not JSON of the expected shape; it is left
// as it is.
class HookFileError : public Error {
public:
    using Error::Error;
};

struct AgentHookFile {
    std::string agent;                // "claude", "codex", "grok": also tavra-hook's argument
    std::string displayName;          // "Claude Code"
    std::filesystem::path configDir;  // the agent's folder; absent means the agent is not installed
    std::filesystem::path file;       // where the entries go
};

// The three agents' files for a home directory, honouring CLAUDE_CONFIG_DIR
// and CODEX_HOME from the environment.
std::vector<AgentHookFile> agentHookFiles(const std::filesystem::path& home);

namespace HookEntries {

// Seconds a plain event's handler may take; the hook tool itself gives up
// on the daemon after about one.
inline constexpr int kPlainTimeout = 5;
// Codex caps its session-end and interrupt handlers at three seconds.
inline constexpr int kCodexEndTimeout = 3;

struct Entry {
    std::string event;
    int timeout = kPlainTimeout;
    bool operator==(const Entry&) const = default;
};

// The events tavra-hook handles for `agent`, each with its handler's
// time-out: the ones where the agent waits for an approval or an answer
// get `waitTimeout`, the rest a short one.
std::vector<Entry> entriesFor(std::string_view agent, int waitTimeout);

// A little above the approval time-out, so that the daemon's "no decision"
// reaches the agent before the agent gives up on the handler.
int waitTimeout(double approvalTimeout);

// `<program> <agent>`, the program quoted for a shell when it has to be.
std::string hookCommand(const std::filesystem::path& program, std::string_view agent);

// The document with Tavra's entries for `entries` and no others of Tavra's;
// every other key and handler stays where it was. `existing` empty means a
// new file. Throws HookFileError for text that is not a JSON object or has
// "hooks" of another shape.
std::string merge(std::string_view existing, const std::string& command, const std::vector<Entry>& entries);

// The document without Tavra's handlers, and without the groups, event lists
// and "hooks" object that only they filled. Nullopt: nothing is left, the
// file can go. Throws HookFileError as merge does.
std::optional<std::string> remove(std::string_view existing);

// Whether the document holds a handler of Tavra's for every one of `entries`.
bool present(std::string_view existing, const std::vector<Entry>& entries);

}  // namespace HookEntries

// File-level steps: atomic writes that keep the file's mode, a backup beside
// the file before each change (removed again by uninstall), and no write at
// all when nothing changes. Both return whether the file changed. Throw
// HookFileError or FileError.
bool installHooks(const AgentHookFile& target, const std::string& command,
                  const std::vector<HookEntries::Entry>& entries);
bool uninstallHooks(const AgentHookFile& target);

std::filesystem::path backupOf(const std::filesystem::path& file);

}  // namespace tavra::cli
