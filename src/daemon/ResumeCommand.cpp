#include "daemon/ResumeCommand.h"

namespace tavra {

namespace {

// In single quotes, each single quote closed, escaped and reopened.
std::string singleQuoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// Plain words (session ids are) stay as they are.
std::string shellQuoted(const std::string& text) {
    const bool plain = !text.empty() && text.find_first_not_of(
                                            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                            "0123456789-_.:@%+=,") == std::string::npos;
    return plain ? text : singleQuoted(text);
}

}  // namespace

std::optional<std::string> resumeCommand(const Run& run) {
    const std::string session = shellQuoted(run.key.session);
    std::string command;
    if (run.key.agent == AgentKind::claude) {
        command = "claude --resume " + session;
    } else if (run.key.agent == AgentKind::codex) {
        command = "codex resume " + session;
    } else if (run.key.agent == AgentKind::grok) {
        command = "grok --resume " + session;
    } else {
        return std::nullopt;
    }
    if (run.cwd) command = "cd " + singleQuoted(*run.cwd) + " && " + command;
    return command;
}

}  // namespace tavra
