// Freezing and inspecting trees of real processes forked by the test.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "platform/Processes.h"
#include "support/TempDir.h"
#include "support/linux/ProcessTree.h"

namespace tavra {
namespace {

using testing::isStoppedState;
using testing::ProcessTree;
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
