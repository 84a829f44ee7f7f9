#include "support/linux/ProcessTree.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include <gtest/gtest.h>

#include "kit/AtomicFile.h"
#include "platform/linux/ProcStat.h"

namespace tavra::testing {

namespace {

// Sleeps until killed, whatever signals come in between.
[[noreturn]] void idleForever() {
    for (;;) ::pause();
}

}  // namespace

ProcessTree::ProcessTree(std::function<void(int reportFd)> rootBody) {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    // Each report is one packet, so reports never interleave.
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
        ADD_FAILURE() << "socketpair failed";
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
    if (reportRead_ >= 0) ::close(reportRead_);
    if (root_ <= 0) return;
    ::killpg(root_, SIGKILL);
    // Orphans of the group come to us as their subreaper while their parents
    // exit, so waiting on the group until nothing is left reaps everyone.
    while (::waitpid(-root_, nullptr, 0) > 0 || errno == EINTR) {
    }
}

std::vector<Pid> ProcessTree::reported(std::size_t count) {
    const timeval limit{20, 0};
    ::setsockopt(reportRead_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    std::vector<Pid> pids;
    Pid pid = 0;
    while (pids.size() < count && ::read(reportRead_, &pid, sizeof(pid)) == static_cast<ssize_t>(sizeof(pid)))
        pids.push_back(pid);
    EXPECT_EQ(pids.size(), count) << "processes of the tree did not report in time";
    return pids;
}

void reportSelf(int fd) {
    Pid pid = ::getpid();
    (void)!::write(fd, &pid, sizeof(pid));
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

bool waitForState(Pid pid, const std::function<bool(char)>& predicate, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto text = readWholeFile("/proc/" + std::to_string(pid) + "/stat").value_or("");
        if (auto stat = ProcStat::parseProcStat(text); stat && predicate(stat->state)) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace tavra::testing
