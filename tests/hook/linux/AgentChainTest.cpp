// The parent walk over real processes: an "agent" (a copy of dash named
// after the agent, so that neither its name nor its executable is a shell's)
// starts its hooks through real sh -c and bash -c wrappers.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "hook/AgentProcess.h"
#include "support/ProcessTree.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

namespace fs = std::filesystem;

// The machine's process table as a hook whose parent is `parent` sees it.
class HookView final : public ProcessTable {
public:
    explicit HookView(Pid parent) : parent_(parent) {}
    std::vector<Pid> allPIDs() const override { return real().allPIDs(); }
    std::optional<ProcessRow> row(Pid pid) const override { return real().row(pid); }
    std::optional<std::string> name(Pid pid) const override { return real().name(pid); }
    std::optional<std::string> path(Pid pid) const override { return real().path(pid); }
    std::optional<std::string> cwd(Pid pid) const override { return real().cwd(pid); }
    std::optional<std::vector<std::string>> arguments(Pid pid) const override {
        return real().arguments(pid);
    }
    bool isAlive(Pid pid) const override { return real().isAlive(pid); }
    std::size_t nameLimit() const override { return real().nameLimit(); }
    Pid ownPID() const override { return real().ownPID(); }
    Pid ownParent() const override { return parent_; }
    bool sendSignal(Pid, int, std::uint64_t) const override { return false; }

private:
    static const ProcessTable& real() { return systemProcessTable(); }
    Pid parent_;
};

// The pid a script wrote to `file`, once it is there.
std::optional<Pid> awaitPid(const fs::path& file) {
    for (int i = 0; i < 2000; ++i) {
        std::ifstream in(file);
        Pid pid = 0;
        if (in >> pid && pid > 0) return pid;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return std::nullopt;
}

TEST(AgentChain, RealShellWrappersAreSkippedAndOrphansHaveNoAgent) {
    testing::TempDir dir;
    const fs::path agent = dir / "claude";
    fs::copy_file("/usr/bin/dash", agent);
    const std::string pidFile = (dir / "pid").string();
    // Each script writes the pid of the hook's parent, then the hook idles.
    struct Case {
        std::string what;
        std::string script;
        AgentKind asked;
        bool found;
    };
    const std::vector<Case> cases{
        {"hook run by sh -c", "sh -c 'echo $$ > " + pidFile + "; sleep 30; true'; true", AgentKind::claude,
         true},
        {"hook run by bash -c", "bash -c 'echo $$ > " + pidFile + "; sleep 30; true'; true",
         AgentKind::claude, true},
        {"hook as a direct child", "echo $$ > " + pidFile + "; sleep 30; true", AgentKind::claude, true},
        {"another agent's hook", "sh -c 'echo $$ > " + pidFile + "; sleep 30; true'; true", AgentKind::grok,
         false},
        // The agent exits and leaves the wrapper to a reaper, not an agent.
        {"orphaned hook", "sh -c 'sleep 0.3; echo $$ > " + pidFile + "; sleep 30; true' & exit 0",
         AgentKind::claude, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove(pidFile);
        std::string path = agent.string(), arg0 = "claude", dashC = "-c", script = c.script;
        char* argv[] = {arg0.data(), dashC.data(), script.data(), nullptr};
        testing::ProcessTree tree([&](int) { ::execv(path.c_str(), argv); });
        auto parent = awaitPid(pidFile);
        ASSERT_TRUE(parent.has_value());
        auto found = AgentProcess::findAgentPid(HookView(*parent), c.asked);
        EXPECT_EQ(found, c.found ? std::optional<Pid>(tree.root()) : std::nullopt);
    }
}

}  // namespace
}  // namespace tavra
