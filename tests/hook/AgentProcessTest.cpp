// Which ancestor of a hook is its agent, over made-up and recorded chains.

#include "hook/AgentProcess.h"

#include <gtest/gtest.h>

#include "hook/Recordings.h"

namespace tavra {
namespace {

using testing::FakeProcessTable;

TEST(AgentProcess, RecordedChainsFindTheAgentBehindItsShell) {
    // Claude: hook <- sh (dash) <- claude. Codex: hook <- codex <- node.
    auto claude = testing::recording("claude-2.1.330.jsonl").front().table();
    EXPECT_EQ(AgentProcess::findAgentPid(claude, AgentKind::claude), 17636);
    EXPECT_EQ(AgentProcess::findAgentPid(claude, AgentKind::grok), std::nullopt);
    auto codex = testing::recording("codex-0.169.0.jsonl").front().table();
    EXPECT_EQ(AgentProcess::findAgentPid(codex, AgentKind::codex), 11689);
    EXPECT_EQ(AgentProcess::findAgentPid(codex, AgentKind::claude), std::nullopt);
}

TEST(AgentProcess, FirstAncestorThatIsNoWrapperDecides) {
    struct Process {
        std::string name;
        std::string path;
        std::vector<std::string> argv;
    };
    struct Case {
        std::string what;
        AgentKind agent;
        std::vector<Process> chain;  // the hook's parent first
        std::optional<std::size_t> agentAt;
    };
    const std::vector<Case> cases{
        {"wrappers of every kind",
         AgentKind::claude,
         {{"timeout", "/usr/bin/timeout", {}},
          {"env", "/usr/bin/env", {}},
          {"bash", "/usr/bin/bash", {"-bash"}},
          {"sh", "/usr/bin/dash", {}},
          {"claude", "/home/u/.local/share/claude/versions/2.1.330", {"claude"}}},
         4},
        {"versioned binary named by its version",
         AgentKind::claude,
         {{"2.1.330", "/home/u/.local/share/claude/versions/2.1.330", {"claude"}}},
         0},
        {"node running the npm package",
         AgentKind::claude,
         {{"sh", "/bin/sh", {}},
          {"node", "/usr/bin/node", {"node", "/usr/lib/node_modules/@anthropic-ai/claude-code/cli.js"}}},
         1},
        {"node with the process title",
         AgentKind::claude,
         {{"MainThread", "/usr/bin/node", {"claude", "--resume"}}},
         0},
        {"node wrapper of codex",
         AgentKind::codex,
         {{"node", "/usr/bin/node", {"node", "/home/u/.npm/lib/node_modules/.bin/codex", "exec"}}},
         0},
        // Someone else stands between: guessing further up could freeze a
        // process that is not the agent.
        {"a script in between",
         AgentKind::claude,
         {{"python3", "/usr/bin/python3.11", {"python3", "hook.py"}}, {"claude", "/opt/claude", {}}},
         {}},
        {"node running something else",
         AgentKind::claude,
         {{"node", "/usr/bin/node", {"node", "/srv/claude-notes/server.js"}}},
         {}},
        {"only wrappers up to init", AgentKind::codex, {{"fish", "/usr/bin/fish", {}}}, {}},
        {"grok under claude's hooks",
         AgentKind::grok,
         {{"sh", "/bin/sh", {}}, {"claude", "/opt/claude", {}}},
         {}},
        {"orphaned hook", AgentKind::claude, {}, {}},
    };
    for (const auto& c : cases) {
        const Pid first = 100;
        FakeProcessTable table(99, c.chain.empty() ? 1 : first);
        for (std::size_t i = 0; i < c.chain.size(); ++i) {
            const Pid pid = first + static_cast<Pid>(i);
            const Pid parent = i + 1 < c.chain.size() ? pid + 1 : 1;
            auto& p = table.add(pid, parent, c.chain[i].name, c.chain[i].path);
            if (!c.chain[i].argv.empty()) p.arguments = c.chain[i].argv;
        }
        std::optional<Pid> expected;
        if (c.agentAt) expected = first + static_cast<Pid>(*c.agentAt);
        EXPECT_EQ(AgentProcess::findAgentPid(table, c.agent), expected) << c.what;
    }
}

}  // namespace
}  // namespace tavra
