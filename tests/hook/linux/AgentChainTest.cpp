// The parent walk over real processes: an "agent" (a copy of dash named after
// the agent, so that neither its name nor its executable is a shell's) runs
// its hooks through real sh -c and bash -c wrappers.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "hook/AgentProcess.h"
#include "support/ProcessTree.h"
#include "support/TempDir.h"

namespace tavra {
namespace {

TEST(AgentChain, RealShellWrappersAreSkippedAndOrphansHaveNoAgent) {
    testing::TempDir dir;
    std::filesystem::copy_file("/usr/bin/dash", dir / "claude");
    const std::string pidFile = (dir / "pid").string(), write = "echo $$ > " + pidFile + "; sleep 30; true";
    // Each script writes the pid of the hook's parent, then the hook idles.
    for (const auto& [script, found] :
         std::vector<std::pair<std::string, bool>>{{"sh -c '" + write + "'; true", true},
                                                   {"bash -c '" + write + "'; true", true},
                                                   // The agent exits and leaves the wrapper to a reaper.
                                                   {"sh -c 'sleep 0.3; " + write + "' & exit 0", false}}) {
        std::filesystem::remove(pidFile);
        std::string path = (dir / "claude").string(), arg0 = "claude", dashC = "-c", text = script;
        char* argv[] = {arg0.data(), dashC.data(), text.data(), nullptr};
        testing::ProcessTree tree([&](int) { ::execv(path.c_str(), argv); });
        Pid parent = 0;
        for (int i = 0; i < 2000 && !(std::ifstream(pidFile) >> parent); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ASSERT_GT(parent, 0) << script;
        EXPECT_EQ(AgentProcess::findAgentPid(systemProcessTable(), AgentKind::claude, parent),
                  found ? std::optional<Pid>(tree.root()) : std::nullopt)
            << script;
    }
}

}  // namespace
}  // namespace tavra
