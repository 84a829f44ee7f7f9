// Freezing and inspecting trees of real processes forked by the test.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "platform/Processes.h"
#include "support/FakeProcessTable.h"
#include "support/TempDir.h"
#include "support/linux/ProcessTree.h"

namespace tavra {
namespace {

using testing::isStoppedState;
using testing::ProcessTree;
using testing::RecordingProcessTable;
using testing::waitForState;

bool isRunningState(char state) {
    return !isStoppedState(state) && state != 'Z';
}

// Polls `done` for up to 20 seconds; true once it holds.
template <class Done>
bool eventually(Done done) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20); !done();
         std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

TEST(ProcessFreezerLive, ReturnsAndReadsNothingForADeadZombieOrMissingProcess) {
    Pid dead = ::fork();
    if (dead == 0) ::_exit(0);
    ASSERT_GT(dead, 0);
    ASSERT_TRUE(waitForState(dead, [](char state) { return state == 'Z'; }));
    EXPECT_TRUE(ProcessFreezer::freeze(dead).empty()) << "a zombie";
    ASSERT_EQ(::waitpid(dead, nullptr, 0), dead);
    EXPECT_FALSE(ProcessInfoReader::isAlive(dead));
    EXPECT_TRUE(ProcessFreezer::freeze(dead).empty()) << "reaped";
}

TEST(ProcessFreezerLive, NeverSignalsInitOurselvesOurParentOrANeverFreezeName) {
    ProcessTree tmux([](int fd) {
        ::prctl(PR_SET_NAME, "tmux");
        testing::reportSelf(fd);
    });
    ProcessTree terminal([](int fd) {
        // The kernel keeps 15 characters: "gnome-terminal-".
        ::prctl(PR_SET_NAME, "gnome-terminal-server");
        testing::reportSelf(fd);
    });
    tmux.reported(1);
    terminal.reported(1);
    RecordingProcessTable table;

    for (Pid pid : {Pid{1}, ::getpid(), ::getppid(), tmux.root(), terminal.root()})
        EXPECT_TRUE(ProcessFreezer::freeze(table, pid).empty()) << pid;
    EXPECT_TRUE(table.sent().empty());
}

TEST(ProcessInfoReaderLive, ReadsNamePathAndDirectoryOfARunningExecutableThatWasDeleted) {
    testing::TempDir dir;
    const std::string sleeper = (dir / "agent (beta) v2").string();
    std::filesystem::copy_file("/bin/sleep", sleeper);
    std::filesystem::permissions(sleeper, std::filesystem::perms::owner_all);
    const std::string cwd = dir.path().string();
    ProcessTree tree([&](int) {
        if (::chdir(cwd.c_str()) != 0) ::_exit(126);
        const char* argv[] = {sleeper.c_str(), "300", nullptr};
        ::execv(sleeper.c_str(), const_cast<char* const*>(argv));
        ::_exit(127);
    });
    const Pid pid = tree.root();
    eventually([&] { return ProcessInfoReader::path(pid) == sleeper; });
    std::filesystem::remove(sleeper);

    EXPECT_EQ(ProcessInfoReader::name(pid), "agent (beta) v2");
    EXPECT_EQ(ProcessInfoReader::path(pid), sleeper);
    EXPECT_EQ(ProcessInfoReader::cwd(pid), cwd);
    EXPECT_EQ(ProcessInfoReader::parent(pid), ::getpid());
}

TEST(ProcessInfoReaderLive, FindsTheAgentAboveARealChainOfShellWrappers) {
    // agent -> node -> sh -c "env sh -c 'sleep ...'" : the sleep's ancestors
    // are two shells (env has exec'd into the second), then node, then the
    // agent. Its name is made up so that a real agent running these tests
    // further up cannot answer instead.
    ProcessTree tree([](int fd) {
        ::prctl(PR_SET_NAME, "fake-agent");
        testing::forkChild([fd] {
            ::prctl(PR_SET_NAME, "node");
            testing::reportSelf(fd);
            testing::forkChild([] {
                ::execl("/bin/sh", "sh", "-c", "env sh -c 'sleep 300; :'; :", nullptr);
                ::_exit(127);
            });
        });
    });
    const Pid node = tree.reported(1).at(0);
    std::optional<Pid> sleeper;
    ASSERT_TRUE(eventually([&] {
        for (Pid pid : ProcessInfoReader::descendants(tree.root()))
            if (ProcessInfoReader::name(pid) == "sleep") sleeper = pid;
        return sleeper.has_value();
    }));
    EXPECT_EQ(ProcessInfoReader::findAgentAncestor(*sleeper, {"no-such-agent", "fake-agent"}), tree.root());
    EXPECT_EQ(ProcessInfoReader::findAgentAncestor(*sleeper, {"no-such-agent"}), node);
}

TEST(SystemProcessTable, RefusesASignalForAProcessThatIsNoLongerTheOneSeen) {
    ProcessTree tree([](int) {});
    const Pid pid = tree.root();
    auto row = systemProcessTable().row(pid);
    ASSERT_TRUE(row);
    // A start time that is not this process's stands for a recycled pid.
    EXPECT_FALSE(systemProcessTable().sendSignal(pid, SIGSTOP, row->startToken + 1));
    EXPECT_TRUE(waitForState(pid, isRunningState));
    EXPECT_TRUE(systemProcessTable().sendSignal(pid, SIGSTOP, row->startToken));
    EXPECT_TRUE(waitForState(pid, isStoppedState));
}

}  // namespace
}  // namespace tavra
