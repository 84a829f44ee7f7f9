#include "support/ProcessTree.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "platform/linux/ProcStat.h"

namespace tavra::testing {

namespace {

void becomeSubreaper() {
    static const bool done = [] {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        return true;
    }();
    (void)done;
}

}  // namespace

ProcessTree::ProcessTree(std::function<void(int reportFd)> rootBody) {
    becomeSubreaper();
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2 failed";
        return;
    }
    const Pid parent = ::getpid();
    Pid pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        // Its own group, so that one killpg reaches the whole tree, and death
        // with the test process should the test crash.
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(1);
        rootBody(fds[1]);
        idleForever();
    }
    ::close(fds[1]);
    reportRead_ = fds[0];
    if (pid < 0) {
        ADD_FAILURE() << "fork failed";
        return;
    }
    ::setpgid(pid, pid);  // also from here, so it holds before we use it
    root_ = pid;
}

ProcessTree::~ProcessTree() {
    destroy();
    if (reportRead_ >= 0) ::close(reportRead_);
}

void ProcessTree::destroy() {
    if (root_ <= 0) return;
    ::killpg(root_, SIGKILL);
    // Orphans of the group come to us as their subreaper while their parents
    // exit, so waiting on the group until nothing is left reaps everyone.
    for (;;) {
        int status = 0;
        Pid pid = ::waitpid(-root_, &status, 0);
        if (pid > 0) continue;
        if (pid < 0 && errno == EINTR) continue;
        break;
    }
    root_ = -1;
}

std::vector<Pid> ProcessTree::reported(std::size_t count, std::chrono::milliseconds timeout) {
    std::vector<Pid> pids;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (pids.size() < count) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                          std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd pfd{reportRead_, POLLIN, 0};
        int ready = ::poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;
        Pid pid = 0;
        ssize_t n = ::read(reportRead_, &pid, sizeof(pid));
        if (n == static_cast<ssize_t>(sizeof(pid))) {
            pids.push_back(pid);
        } else if (n <= 0 && errno != EINTR) {
            break;
        }
    }
    EXPECT_EQ(pids.size(), count) << "processes of the tree did not report in time";
    return pids;
}

void reportSelf(int fd) {
    Pid pid = ::getpid();
    // Writes of this size to a pipe are atomic, so reports never interleave.
    (void)!::write(fd, &pid, sizeof(pid));
}

void idleForever() {
    for (;;) ::pause();
}

Pid forkChild(const std::function<void()>& body) {
    const Pid parent = ::getpid();
    Pid pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(1);
        body();
        idleForever();
    }
    return pid;
}

void growTree(int fd, int depth, int fanout) {
    if (depth <= 0) return;
    for (int i = 0; i < fanout; ++i) {
        forkChild([&] {
            reportSelf(fd);
            growTree(fd, depth - 1, fanout);
        });
    }
}

std::optional<char> processState(Pid pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    auto stat = linux_proc::parseProcStat(text.str());
    if (!stat) return std::nullopt;
    return stat->state;
}

bool waitForState(Pid pid, const std::function<bool(char)>& predicate, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto state = processState(pid);
        if (state && predicate(*state)) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace tavra::testing
