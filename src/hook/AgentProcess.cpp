#include "hook/AgentProcess.h"

#include <array>

namespace tavra::AgentProcess {

namespace {

// Enough for any real chain of wrappers; a loop in a broken table ends here.
constexpr int kMaxSteps = 16;

std::string_view baseName(std::string_view path) {
    auto slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// "claude", "claude-2.1.330", "claude.exe", "codex.js", but not "claudette".
bool isNameOf(std::string_view base, std::string_view agent) {
    if (agent.empty() || !base.starts_with(agent)) return false;
    return base.size() == agent.size() || base[agent.size()] == '-' || base[agent.size()] == '.';
}

bool isScriptRunner(std::string_view base) {
    return base == "node" || base == "nodejs" || base == "bun" || base == "deno";
}

// npm packages whose entry script has a name of its own ("cli.js").
std::string_view packageOf(const AgentKind& agent) {
    if (agent == AgentKind::claude) return "/@anthropic-ai/claude-code";
    if (agent == AgentKind::codex) return "/@openai/codex";
    return {};
}

}  // namespace

bool isWrapper(std::string_view name) noexcept {
    static constexpr std::array<std::string_view, 9> kWrappers{"sh",  "bash",  "zsh",     "dash", "fish",
                                                               "env", "nohup", "timeout", "login"};
    for (auto wrapper : kWrappers) {
        if (name == wrapper) return true;
    }
    return false;
}

bool isAgent(const ProcessTable& table, Pid pid, const AgentKind& agent) {
    const std::string& name = agent.rawValue;
    if (name.empty()) return false;
    if (ProcessInfoReader::matches(table, pid, {name})) return true;

    auto argv = table.arguments(pid);
    if (!argv || argv->empty()) return false;
    // Node-based installs set the process title or run the agent's script.
    if (isNameOf(baseName(argv->front()), name)) return true;
    const std::string exe = table.path(pid).value_or("");
    if (argv->size() < 2 || !(isScriptRunner(baseName(argv->front())) || isScriptRunner(baseName(exe)))) {
        return false;
    }
    const std::string& script = (*argv)[1];
    if (isNameOf(baseName(script), name)) return true;
    auto package = packageOf(agent);
    return !package.empty() && script.find(package) != std::string::npos;
}

std::optional<Pid> findAgentPid(const ProcessTable& table, const AgentKind& agent, Pid hookParent) {
    Pid current = hookParent;
    for (int step = 0; step < kMaxSteps; ++step) {
        if (current < 2) return std::nullopt;
        auto row = table.row(current);
        if (!row) return std::nullopt;
        const bool wrapper = isWrapper(table.name(current).value_or("")) ||
                             isWrapper(baseName(table.path(current).value_or("")));
        if (!wrapper) return isAgent(table, current, agent) ? std::optional<Pid>(current) : std::nullopt;
        current = row->parent;
    }
    return std::nullopt;
}

}  // namespace tavra::AgentProcess
