#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

#include "platform/Processes.h"

namespace tavra::testing {

// A tree of real processes forked by a test, torn down however the test ends:
// the destructor kills the tree's whole process group with SIGKILL (which
// also ends stopped processes) and reaps every member, grandchildren included,
// since the test process makes itself their subreaper.
//
// `rootBody` runs in the forked root and must only make async-signal-safe
// calls (fork, write, read, prctl, execv, pause, _exit, the helpers below).
// Processes report themselves on the report socket with reportSelf().
class ProcessTree {
public:
    explicit ProcessTree(std::function<void(int reportFd)> rootBody);
    ~ProcessTree();
    ProcessTree(const ProcessTree&) = delete;
    ProcessTree& operator=(const ProcessTree&) = delete;

    Pid root() const { return root_; }

    // The next `count` pids reported by the tree; fails the test (and returns
    // what came) if they do not arrive within 20 seconds.
    std::vector<Pid> reported(std::size_t count);

private:
    Pid root_ = -1;
    int reportRead_ = -1;
};

// In a child: write our pid to `fd`.
void reportSelf(int fd);
// In a child: fork a process running `body`, dying with its parent. Returns the
// new pid (in the parent) or -1.
Pid forkChild(const std::function<void()>& body);
// A complete tree beneath the calling process: `fanout` children per level
// down to `depth` levels, each reporting itself on `fd` and then idling.
void growTree(int fd, int depth, int fanout);

// Waits until the state letter of /proc/PID/stat ('T' when stopped) satisfies
// `predicate`; false on time-out.
bool waitForState(Pid pid, const std::function<bool(char)>& predicate,
                  std::chrono::milliseconds timeout = std::chrono::seconds(20));
inline bool isStoppedState(char state) {
    return state == 'T' || state == 't';
}

}  // namespace tavra::testing
