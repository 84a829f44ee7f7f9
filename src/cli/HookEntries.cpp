#include "cli/HookEntries.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <system_error>

#include "kit/AtomicFile.h"

namespace tavra::cli {

namespace {

namespace fs = std::filesystem;
// Ordered, so that the user's keys keep their places in the file.
using Document = nlohmann::ordered_json;

constexpr std::string_view kProgram = "tavra-hook";

fs::path fromVariable(const char* name, const fs::path& fallback) {
    const char* value = std::getenv(name);
    if (value != nullptr && value[0] != '\0') return fs::path(value);
    return fallback;
}

bool plainShellWord(std::string_view word) {
    for (char c : word) {
        bool safe = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                    c == '.' || c == '_' || c == '-' || c == '+' || c == ',' || c == '@';
        if (!safe) return false;
    }
    return !word.empty();
}

// The first word of a shell command as sh would read it, for the common
// quoting forms; good enough to recognise our own program.
std::string firstWord(std::string_view command) {
    std::string word;
    std::size_t i = 0;
    while (i < command.size() && (command[i] == ' ' || command[i] == '\t')) ++i;
    for (; i < command.size(); ++i) {
        char c = command[i];
        if (c == ' ' || c == '\t') break;
        if (c == '\'') {
            while (++i < command.size() && command[i] != '\'') word += command[i];
        } else if (c == '"') {
            while (++i < command.size() && command[i] != '"') {
                if (command[i] == '\\' && i + 1 < command.size()) ++i;
                word += command[i];
            }
        } else if (c == '\\' && i + 1 < command.size()) {
            word += command[++i];
        } else {
            word += c;
        }
    }
    return word;
}

bool isOurs(const Document& handler) {
    if (!handler.is_object()) return false;
    auto command = handler.find("command");
    if (command == handler.end() || !command->is_string()) return false;
    return fs::path(firstWord(command->get_ref<const std::string&>())).filename() == kProgram;
}

Document parse(std::string_view text) {
    if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) return Document::object();
    Document document = Document::parse(text, nullptr, false);
    if (document.is_discarded() || !document.is_object()) throw HookFileError("not a JSON object");
    auto hooks = document.find("hooks");
    if (hooks != document.end() && !hooks->is_object()) throw HookFileError("\"hooks\" is not an object");
    if (hooks != document.end()) {
        for (const auto& [event, groups] : hooks->items()) {
            if (!groups.is_array()) throw HookFileError("\"hooks\"." + event + " is not a list");
        }
    }
    return document;
}

std::string serialize(const Document& document) {
    return document.dump(2) + "\n";
}

Document handlerFor(const std::string& command, int timeout) {
    Document handler = Document::object();
    handler["type"] = "command";
    handler["command"] = command;
    handler["timeout"] = timeout;
    return handler;
}

// Calls `visit(groupIndex, handlers)` for every group's "hooks" list.
template <class Visit>
void eachHandlerList(Document& groups, Visit visit) {
    for (auto& group : groups) {
        if (!group.is_object()) continue;
        auto handlers = group.find("hooks");
        if (handlers == group.end() || !handlers->is_array()) continue;
        visit(*handlers);
    }
}

// Removes Tavra's handlers from one event's list, and the groups that held
// nothing else. Returns whether anything went.
bool dropOurs(Document& groups, bool keepFirst) {
    bool removed = false;
    bool kept = !keepFirst;
    eachHandlerList(groups, [&](Document& handlers) {
        for (std::size_t i = 0; i < handlers.size();) {
            if (isOurs(handlers[i]) && kept) {
                handlers.erase(i);
                removed = true;
            } else {
                if (isOurs(handlers[i])) kept = true;
                ++i;
            }
        }
    });
    if (!removed) return false;
    for (std::size_t i = 0; i < groups.size();) {
        const auto& group = groups[i];
        auto handlers = group.is_object() ? group.find("hooks") : group.end();
        if (group.is_object() && handlers != group.end() && handlers->is_array() && handlers->empty())
            groups.erase(i);
        else
            ++i;
    }
    return true;
}

}  // namespace

std::vector<AgentHookFile> agentHookFiles(const fs::path& home) {
    fs::path claude = fromVariable("CLAUDE_CONFIG_DIR", home / ".claude");
    fs::path codex = fromVariable("CODEX_HOME", home / ".codex");
    fs::path grok = home / ".grok";
    return {
        {"claude", "Claude Code", claude, claude / "settings.json"},
        {"codex", "Codex", codex, codex / "hooks.json"},
        {"grok", "Grok", grok, grok / "hooks" / "tavra.json"},
    };
}

namespace HookEntries {

std::vector<Entry> entriesFor(std::string_view agent, int wait) {
    if (agent == "claude") {
        // Claude asks its questions through PreToolUse, and its permission
        // dialog through PermissionRequest: both wait for the phone.
        return {{"SessionStart"}, {"UserPromptSubmit"},   {"PreToolUse", wait}, {"PermissionRequest", wait},
                {"PostToolUse"},  {"PostToolUseFailure"}, {"PermissionDenied"}, {"Notification"},
                {"Stop"},         {"StopFailure"},        {"SubagentStart"},    {"SubagentStop"},
                {"PreCompact"},   {"PostCompact"},        {"SessionEnd"}};
    }
    if (agent == "codex") {
        return {{"SessionStart"},
                {"UserPromptSubmit"},
                {"PreModelRequest"},
                {"PreToolUse"},
                {"PermissionRequest", wait},
                {"PostToolUse"},
                {"Stop"},
                {"Interrupt", kCodexEndTimeout},
                {"SubagentStart"},
                {"SubagentStop"},
                {"PreCompact"},
                {"PostCompact"},
                {"SessionEnd", kCodexEndTimeout}};
    }
    if (agent == "grok") {
        // Grok has no permission event: its PreToolUse is the gate, and a
        // handler that times out lets the tool run.
        return {{"SessionStart"},       {"UserPromptSubmit"}, {"PreToolUse", wait}, {"PostToolUse"},
                {"PostToolUseFailure"}, {"PermissionDenied"}, {"Notification"},     {"Stop"},
                {"StopFailure"},        {"SubagentStart"},    {"SubagentStop"},     {"PreCompact"},
                {"PostCompact"},        {"SessionEnd"}};
    }
    return {};
}

int waitTimeout(double approvalTimeout) {
    if (!std::isfinite(approvalTimeout) || approvalTimeout < 0) approvalTimeout = 0;
    return static_cast<int>(std::ceil(std::min(approvalTimeout, 86400.0))) + 30;
}

std::string hookCommand(const fs::path& program, std::string_view agent) {
    std::string path = program.string();
    if (!plainShellWord(path)) {
        std::string quoted = "'";
        for (char c : path) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        path = quoted + "'";
    }
    return path + " " + std::string(agent);
}

std::string merge(std::string_view existing, const std::string& command, const std::vector<Entry>& entries) {
    Document document = parse(existing);
    if (!document.contains("hooks")) document["hooks"] = Document::object();
    Document& hooks = document["hooks"];

    // Ours under events we no longer register (an older install) go.
    for (auto& [event, groups] : hooks.items()) {
        bool wanted = false;
        for (const auto& entry : entries) wanted = wanted || entry.event == event;
        if (!wanted) dropOurs(groups, false);
    }
    for (auto it = hooks.begin(); it != hooks.end();) {
        if (it->is_array() && it->empty())
            it = hooks.erase(it);
        else
            ++it;
    }

    for (const auto& entry : entries) {
        if (!hooks.contains(entry.event)) hooks[entry.event] = Document::array();
        Document& groups = hooks[entry.event];
        dropOurs(groups, true);
        bool updated = false;
        eachHandlerList(groups, [&](Document& handlers) {
            for (auto& handler : handlers) {
                if (!isOurs(handler)) continue;
                handler["command"] = command;
                handler["timeout"] = entry.timeout;
                if (!handler.contains("type")) handler["type"] = "command";
                updated = true;
            }
        });
        if (!updated) {
            Document group = Document::object();
            group["hooks"] = Document::array({handlerFor(command, entry.timeout)});
            groups.push_back(std::move(group));
        }
    }
    return serialize(document);
}

std::optional<std::string> remove(std::string_view existing) {
    Document document = parse(existing);
    auto hooks = document.find("hooks");
    if (hooks == document.end()) return std::string(existing);
    bool removedAny = false;
    for (auto it = hooks->begin(); it != hooks->end();) {
        if (dropOurs(*it, false)) {
            removedAny = true;
            if (it->empty()) {
                it = hooks->erase(it);
                continue;
            }
        }
        ++it;
    }
    if (!removedAny) return std::string(existing);
    if (hooks->empty()) document.erase("hooks");
    if (document.empty()) return std::nullopt;
    return serialize(document);
}

bool present(std::string_view existing, const std::vector<Entry>& entries) {
    Document document;
    try {
        document = parse(existing);
    } catch (const HookFileError&) {
        return false;
    }
    auto hooks = document.find("hooks");
    if (hooks == document.end()) return entries.empty();
    for (const auto& entry : entries) {
        auto groups = hooks->find(entry.event);
        if (groups == hooks->end()) return false;
        bool found = false;
        eachHandlerList(*groups, [&](Document& handlers) {
            for (const auto& handler : handlers) found = found || isOurs(handler);
        });
        if (!found) return false;
    }
    return true;
}

}  // namespace HookEntries

fs::path backupOf(const fs::path& file) {
    fs::path backup = file;
    backup += ".tavra-backup";
    return backup;
}

namespace {

mode_t modeOf(const fs::path& file, mode_t fallback) {
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) return fallback;
    return info.st_mode & 07777;
}

void writeBackup(const fs::path& file, const std::string& text) {
    writeFileAtomically(backupOf(file), text, modeOf(file, 0600));
}

}  // namespace

bool installHooks(const AgentHookFile& target, const std::string& command,
                  const std::vector<HookEntries::Entry>& entries) {
    std::optional<std::string> existing = readWholeFile(target.file);
    std::string before = existing.value_or("");
    std::string after;
    try {
        after = HookEntries::merge(before, command, entries);
    } catch (const HookFileError& error) {
        throw HookFileError(target.file.string() + ": " + error.description() + "; left as it is");
    }
    if (existing && after == before) return false;
    std::error_code ignored;
    fs::create_directories(target.file.parent_path(), ignored);
    if (existing) writeBackup(target.file, before);
    writeFileAtomically(target.file, after, modeOf(target.file, 0600));
    return true;
}

bool uninstallHooks(const AgentHookFile& target) {
    std::optional<std::string> existing = readWholeFile(target.file);
    if (!existing) return false;
    std::optional<std::string> after;
    try {
        after = HookEntries::remove(*existing);
    } catch (const HookFileError& error) {
        throw HookFileError(target.file.string() + ": " + error.description() + "; left as it is");
    }
    std::error_code ignored;
    if (after && *after == *existing) return false;
    if (after) {
        writeFileAtomically(target.file, *after, modeOf(target.file, 0600));
    } else {
        fs::remove(target.file, ignored);
        // A folder of ours inside the agent's (Grok's hooks folder) goes too
        // once it is empty.
        if (target.file.parent_path() != target.configDir) fs::remove(target.file.parent_path(), ignored);
    }
    fs::remove(backupOf(target.file), ignored);
    return true;
}

}  // namespace tavra::cli
