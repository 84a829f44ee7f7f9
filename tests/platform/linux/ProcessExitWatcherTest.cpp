#include "platform/ProcessExitWatcher.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <chrono>
#include <utility>

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
        if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(std::exchange(pid, -1), nullptr, 0);
    }
};

class ProcessExitWatcherTest : public ::testing::Test {
protected:
    asio::io_context context;
    std::vector<Pid> exits;
    std::unique_ptr<ProcessExitWatcher> watcher = std::make_unique<ProcessExitWatcher>(context);

    ProcessExitWatcher::Handler record = [this](Pid pid) { exits.push_back(pid); };
    void runFor(std::chrono::milliseconds duration, std::size_t count = SIZE_MAX) {
        for (auto end = std::chrono::steady_clock::now() + duration;
             exits.size() < count && std::chrono::steady_clock::now() < end;) {
            context.restart();
            context.run_for(10ms);
        }
    }
};

TEST_F(ProcessExitWatcherTest, ReportsEachEndOnceAndOnlyForWatchedPids) {
    Child ending, unwatched, replaced, living, gone;
    const std::vector<Pid> expected{gone.pid, 0, ending.pid, replaced.pid};
    gone.end();
    watcher->watch(expected[0], record);  // already gone: reported, but not from within watch()
    watcher->watch(0, record);            // no process has it
    EXPECT_TRUE(exits.empty());
    watcher->watch(ending.pid, record);
    watcher->watch(unwatched.pid, record);
    watcher->unwatch(unwatched.pid);
    watcher->watch(replaced.pid, [](Pid) { ADD_FAILURE() << "the replaced handler ran"; });
    watcher->watch(replaced.pid, record);
    watcher->watch(living.pid, record);
    runFor(200ms);
    ::kill(ending.pid, SIGKILL);  // a zombie has ended, reaped or not
    unwatched.end();
    replaced.end();
    runFor(5s, 4);
    runFor(100ms);
    EXPECT_EQ(exits, expected);
    EXPECT_EQ(watcher->watching(), 1u);
    watcher.reset();
    living.end();
    runFor(100ms);
    EXPECT_EQ(exits.size(), 4u);
}

}  // namespace
}  // namespace tavra
