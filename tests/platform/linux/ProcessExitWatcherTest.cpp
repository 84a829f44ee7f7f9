#include "platform/ProcessExitWatcher.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <chrono>

namespace tavra {
namespace {

using namespace std::chrono_literals;

// A child that waits to be killed; killed and reaped at the latest on destruction.
struct Child {
    Pid pid = ::fork();
    Child() {
        if (pid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives a test that crashed
            ::pause();
            ::_exit(0);
        }
    }
    ~Child() { end(); }
    void end() {
        if (pid <= 0) return;
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        pid = -1;
    }
};

class ProcessExitWatcherTest : public ::testing::Test {
protected:
    asio::io_context context;
    std::vector<Pid> exits;
    std::unique_ptr<ProcessExitWatcher> watcher = std::make_unique<ProcessExitWatcher>(context);

    ProcessExitWatcher::Handler record() {
        return [this](Pid pid) { exits.push_back(pid); };
    }
    void runFor(std::chrono::milliseconds duration, std::size_t count = SIZE_MAX) {
        for (auto end = std::chrono::steady_clock::now() + duration;
             exits.size() < count && std::chrono::steady_clock::now() < end;) {
            context.restart();
            context.run_for(10ms);
        }
    }
};

TEST_F(ProcessExitWatcherTest, ReportsEachEndOnceAndOnlyForWatchedPids) {
    Child ending, unwatched, replaced, living;
    const std::vector<Pid> expected{ending.pid, replaced.pid};
    watcher->watch(ending.pid, record());
    watcher->watch(unwatched.pid, record());
    watcher->unwatch(unwatched.pid);
    watcher->watch(replaced.pid, [](Pid) { ADD_FAILURE() << "the replaced handler ran"; });
    watcher->watch(replaced.pid, record());
    watcher->watch(living.pid, record());
    ::kill(ending.pid, SIGKILL);  // a zombie has ended, reaped or not
    unwatched.end();
    replaced.end();
    runFor(5s, 2);
    runFor(100ms);
    EXPECT_EQ(exits, expected);
    EXPECT_EQ(watcher->watching(), 1u);
    watcher.reset();
    living.end();
    runFor(100ms);
    EXPECT_EQ(exits.size(), 2u);
}

TEST_F(ProcessExitWatcherTest, APidAlreadyGoneIsReportedAtOnceButNotFromWithinWatch) {
    Child gone;
    Pid pid = gone.pid;
    gone.end();
    for (Pid each : {pid, Pid{0}, Pid{-1}}) watcher->watch(each, record());
    EXPECT_TRUE(exits.empty());
    runFor(1s, 3);
    EXPECT_EQ(exits, (std::vector<Pid>{pid, 0, -1}));
    EXPECT_EQ(watcher->watching(), 0u);
}

}  // namespace
}  // namespace tavra
