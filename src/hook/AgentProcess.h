#pragma once

// Which process is the agent that ran this hook. No agent says so in its
// payload, so the hook walks up its own parent chain through the platform's
// process table.

#include <optional>
#include <string_view>

#include "core/Models.h"
#include "platform/Processes.h"

namespace tavra::AgentProcess {

// Whether `name` is a shell or launcher that agents put between themselves
// and a hook: sh, bash, zsh, dash, fish, env, nohup, timeout, login.
bool isWrapper(std::string_view name) noexcept;

// Whether `pid` is the agent `agent` by its executable path, its short name or
// its argument vector: a base name equal to the agent's name or to it plus a
// version or extension ("claude", "claude-2.1", "codex.js"), a directory of
// that name in the path, or a script of that name or of the agent's npm
// package run by node, bun or deno.
bool isAgent(const ProcessTable& table, Pid pid, const AgentKind& agent);

// The agent's pid: starting at the hook's parent `hookParent`, wrappers are
// skipped and the first other ancestor is taken when it is `agent`. Absent
// when that ancestor is someone else (a wrapper script, another agent), when
// the chain reaches pid 1 (an orphaned hook) or cannot be read.
std::optional<Pid> findAgentPid(const ProcessTable& table, const AgentKind& agent, Pid hookParent);

}  // namespace tavra::AgentProcess
