// Speed of reading, freezing and thawing a tree of a few hundred real
// processes. The tree is forked once, in its own process group, and killed
// and reaped when the program ends; its members die with their parents should
// the benchmark itself be killed.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/Processes.h"

namespace {

using tavra::Pid;

constexpr int kFanout = 17;
constexpr int kDepth = 2;  // 17 children with 17 children each: 306 below the root

[[noreturn]] void idleForever() {
    for (;;) ::pause();
}

void report(int fd) {
    char byte = 1;
    (void)!::write(fd, &byte, 1);
}

void grow(int fd, int depth) {
    if (depth == 0) return;
    for (int i = 0; i < kFanout; ++i) {
        const Pid parent = ::getpid();
        Pid pid = ::fork();
        if (pid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) ::_exit(1);
            grow(fd, depth - 1);
            report(fd);
            idleForever();
        }
    }
}

class Tree {
public:
    Tree() {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) std::abort();
        const Pid parent = ::getpid();
        root_ = ::fork();
        if (root_ == 0) {
            ::setpgid(0, 0);
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) ::_exit(1);
            ::close(fds[0]);
            grow(fds[1], kDepth);
            idleForever();
        }
        if (root_ < 0) std::abort();
        ::setpgid(root_, root_);
        ::close(fds[1]);
        int expected = 0;
        for (int level = 1, width = 1; level <= kDepth; ++level) expected += (width *= kFanout);
        for (int got = 0; got < expected;) {
            pollfd pfd{fds[0], POLLIN, 0};
            if (::poll(&pfd, 1, 60000) <= 0) break;
            char buffer[64];
            ssize_t n = ::read(fds[0], buffer, sizeof(buffer));
            if (n <= 0) break;
            got += static_cast<int>(n);
        }
        ::close(fds[0]);
        size_ = static_cast<int>(tavra::ProcessInfoReader::descendants(root_).size());
    }

    ~Tree() {
        ::killpg(root_, SIGKILL);
        // As subreaper we inherit every orphan of the group, so waiting on
        // the group until none is left reaps all of them.
        for (;;) {
            Pid pid = ::waitpid(-root_, nullptr, 0);
            if (pid > 0 || (pid < 0 && errno == EINTR)) continue;
            break;
        }
    }

    Pid root() const { return root_; }
    int size() const { return size_; }

private:
    Pid root_ = -1;
    int size_ = 0;
};

Tree& tree() {
    static Tree instance;
    return instance;
}

void BM_Descendants(benchmark::State& state) {
    const Pid root = tree().root();
    for (auto _ : state) benchmark::DoNotOptimize(tavra::ProcessInfoReader::descendants(root));
    state.counters["processes"] = tree().size();
}
BENCHMARK(BM_Descendants)->Unit(benchmark::kMillisecond);

void BM_Freeze(benchmark::State& state) {
    const Pid root = tree().root();
    std::size_t stopped = 0;
    for (auto _ : state) {
        auto frozen = tavra::ProcessFreezer::freeze(root);
        stopped = frozen.size();
        state.PauseTiming();
        tavra::ProcessFreezer::thaw(root, frozen);
        state.ResumeTiming();
    }
    state.counters["stopped"] = static_cast<double>(stopped);
}
BENCHMARK(BM_Freeze)->Unit(benchmark::kMillisecond);

void BM_Thaw(benchmark::State& state) {
    const Pid root = tree().root();
    for (auto _ : state) {
        state.PauseTiming();
        auto frozen = tavra::ProcessFreezer::freeze(root);
        state.ResumeTiming();
        tavra::ProcessFreezer::thaw(root, frozen);
    }
    state.counters["processes"] = tree().size() + 1;
}
BENCHMARK(BM_Thaw)->Unit(benchmark::kMillisecond);

void BM_FindAgentAncestor(benchmark::State& state) {
    const Pid self = ::getpid();
    for (auto _ : state) {
        benchmark::DoNotOptimize(tavra::ProcessInfoReader::findAgentAncestor(self, {"claude", "codex"}));
    }
}
BENCHMARK(BM_FindAgentAncestor)->Unit(benchmark::kMicrosecond);

}  // namespace
