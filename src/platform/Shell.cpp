// Shell::run on POSIX: posix_spawn with an argument vector, both pipes drained
// by one poll loop in the calling thread, SIGTERM at the deadline.

#include "platform/Shell.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kit/Pipe.h"
#include "kit/UniqueFd.h"
#include "platform/SpawnSupport.h"

extern char** environ;

namespace tavra {

namespace {

using Clock = std::chrono::steady_clock;

Pipe makePipe(const std::string& path) {
    Pipe pipe;
    if (const int error = openPipe(pipe); error != 0) throw SpawnError(path, error);
    return pipe;
}

// posix_spawn's attribute and file-action objects, destroyed on every path.
struct SpawnAttributes {
    posix_spawnattr_t value;
    SpawnAttributes() {
        if (const int error = posix_spawnattr_init(&value); error != 0)
            throw SpawnError("posix_spawn", error);
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&value); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
};

struct FileActions {
    posix_spawn_file_actions_t value;
    FileActions() {
        if (const int error = posix_spawn_file_actions_init(&value); error != 0) {
            throw SpawnError("posix_spawn", error);
        }
    }
    ~FileActions() { posix_spawn_file_actions_destroy(&value); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;
};

void require(int error, const std::string& what) {
    if (error != 0) throw SpawnError(what, error);
}

// The status as the tool's caller expects to see it: the exit code, or the
// signal that ended the tool.
std::int32_t terminationStatus(int waitStatus) {
    if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus)) return WTERMSIG(waitStatus);
    return -1;
}

// A child that has been started and must be waited for, whatever happens.
class Child {
public:
    explicit Child(pid_t pid) : pid_(pid) {}
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    // Only reached when the caller's loop failed half-way: do not leave a
    // running tool or a zombie behind.
    ~Child() {
        if (!reaped_) {
            ::kill(pid_, SIGKILL);
            int status = 0;
            while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
            }
        }
    }

    bool reaped() const { return reaped_; }
    std::int32_t status() const { return status_; }

    // Collects the child if it has ended; true once it is collected.
    bool poll() { return wait(WNOHANG); }
    void waitForEnd() { wait(0); }

    // SIGTERM, once, and only to a child not yet collected (its pid cannot
    // have been reused before that).
    void terminate() {
        if (!reaped_ && !terminated_) {
            ::kill(pid_, SIGTERM);
            terminated_ = true;
        }
    }
    bool terminated() const { return terminated_; }

private:
    bool wait(int options) {
        if (reaped_) return true;
        int status = 0;
        pid_t result;
        do {
            result = ::waitpid(pid_, &status, options);
        } while (result < 0 && errno == EINTR);
        if (result == pid_) {
            status_ = terminationStatus(status);
            reaped_ = true;
        } else if (result < 0) {
            // ECHILD: someone else collected it (SIGCHLD ignored by the host
            // program); its status is lost.
            status_ = -1;
            reaped_ = true;
        }
        return reaped_;
    }

    pid_t pid_;
    bool reaped_ = false;
    bool terminated_ = false;
    std::int32_t status_ = -1;
};

// Milliseconds until `deadline` for poll(), rounded up, or -1 without one.
int pollTimeout(const std::optional<Clock::time_point>& deadline, Clock::time_point now) {
    if (!deadline) return -1;
    if (*deadline <= now) return 0;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - now).count();
    return static_cast<int>(std::min<long long>(left, INT_MAX));
}

// Sends the SIGTERM once the deadline has passed, unless the tool is gone.
void terminateAfter(Child& child, const std::optional<Clock::time_point>& deadline, Clock::time_point now) {
    if (deadline && now >= *deadline && !child.terminated() && !child.poll()) child.terminate();
}

std::vector<std::string> currentEnvironment() {
    std::vector<std::string> entries;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) entries.emplace_back(*entry);
    return entries;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    result.reserve(strings.size() + 1);
    for (auto& s : strings) result.push_back(s.data());
    result.push_back(nullptr);
    return result;
}

}  // namespace

namespace Shell {

namespace {

// Not every C library reports a failed exec from posix_spawn (some only show
// it as exit status 127), so the obvious failures are found first and
// reported by name.
void requireStartable(const std::string& path, const std::optional<std::string>& cwd) {
    if (path.empty()) throw SpawnError(path, ENOENT);
    if (path.front() == '/' && ::access(path.c_str(), X_OK) != 0) {
        throw SpawnError(path, errno);
    }
    if (cwd) {
        struct stat info {};
        if (::stat(cwd->c_str(), &info) != 0) throw SpawnError(*cwd, errno);
        if (!S_ISDIR(info.st_mode)) throw SpawnError(*cwd, ENOTDIR);
    }
}

// Starts the tool with standard input from /dev/null and its output into the
// pipes' write ends.
pid_t spawnTool(const std::string& path, const std::vector<std::string>& args,
                const std::optional<Environment>& environment, const std::optional<std::string>& cwd,
                const Pipe& out, const Pipe& err) {
    FileActions actions;
    require(posix_spawn_file_actions_addopen(&actions.value, STDIN_FILENO, "/dev/null", O_RDONLY, 0), path);
    require(posix_spawn_file_actions_adddup2(&actions.value, out.write.get(), STDOUT_FILENO), path);
    require(posix_spawn_file_actions_adddup2(&actions.value, err.write.get(), STDERR_FILENO), path);
    if (cwd) require(posix_spawn_file_actions_addchdir_np(&actions.value, cwd->c_str()), *cwd);

    // The tool starts with no blocked signals and default dispositions, even
    // if this process ignores SIGPIPE or blocks signals on its threads.
    SpawnAttributes attributes;
    sigset_t noSignals;
    sigemptyset(&noSignals);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int signal = 1; signal < NSIG; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP) sigaddset(&defaults, signal);
    }
    require(posix_spawnattr_setsigmask(&attributes.value, &noSignals), path);
    require(posix_spawnattr_setsigdefault(&attributes.value, &defaults), path);
    require(posix_spawnattr_setflags(&attributes.value,
                                     static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                        SpawnSupport::extraSpawnFlags())),
            path);

    std::vector<std::string> argvStrings;
    argvStrings.reserve(args.size() + 1);
    argvStrings.push_back(path);
    argvStrings.insert(argvStrings.end(), args.begin(), args.end());
    std::vector<char*> argv = pointers(argvStrings);

    std::vector<std::string> envStrings =
        environment ? mergedEnvironment(currentEnvironment(), *environment) : std::vector<std::string>{};
    std::vector<char*> envp = pointers(envStrings);

    pid_t pid = -1;
    const int spawnError = ::posix_spawn(&pid, path.c_str(), &actions.value, &attributes.value, argv.data(),
                                         environment ? envp.data() : environ);
    if (spawnError != 0) throw SpawnError(path, spawnError);
    return pid;
}

// When the tool gets its SIGTERM: never for an infinite time-out, at once
// for none at all.
std::optional<Clock::time_point> deadlineFor(double timeout) {
    std::optional<Clock::time_point> deadline;
    const auto started = Clock::now();
    if (!std::isfinite(timeout) && timeout > 0) {
        deadline.reset();
    } else if (!(timeout > 0)) {
        deadline = started;
    } else {
        const auto limit = std::chrono::duration<double>(std::min(timeout, 1e9));
        deadline = started + std::chrono::duration_cast<Clock::duration>(limit);
    }
    return deadline;
}

// Reads both pipes to their end, sending the SIGTERM when the deadline passes
// on the way. Returns standard output and standard error as read.
std::pair<std::string, std::string> drain(const std::string& path, Child& child, Pipe& out, Pipe& err,
                                          const std::optional<Clock::time_point>& deadline) {
    std::string outBytes;
    std::string errBytes;
    UniqueFd* sources[2] = {&out.read, &err.read};
    std::string* sinks[2] = {&outBytes, &errBytes};
    char buffer[65536];

    while (out.read || err.read) {
        pollfd fds[2];
        nfds_t count = 0;
        int index[2] = {-1, -1};
        for (int k = 0; k < 2; ++k) {
            if (*sources[k]) {
                fds[count] = pollfd{sources[k]->get(), POLLIN, 0};
                index[count] = k;
                ++count;
            }
        }
        const auto now = Clock::now();
        terminateAfter(child, deadline, now);
        // After the SIGTERM (or once the tool is gone) the loop has no more
        // deadline: it waits for end of file on both pipes.
        const bool waiting = deadline && !child.terminated() && !child.reaped();
        const int ready = ::poll(fds, count, waiting ? pollTimeout(deadline, now) : -1);
        if (ready < 0) {
            if (errno == EINTR) continue;
            throw SpawnError(path, errno);
        }
        for (nfds_t slot = 0; slot < count; ++slot) {
            if (fds[slot].revents == 0) continue;
            const int k = index[slot];
            const ssize_t got = ::read(sources[k]->get(), buffer, sizeof buffer);
            if (got > 0) {
                sinks[k]->append(buffer, static_cast<std::size_t>(got));
            } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
                sources[k]->reset();
            }
        }
    }
    return {std::move(outBytes), std::move(errBytes)};
}

// Both pipes are closed. Usually the tool is exiting this very moment, so
// the first checks come quickly; one that lives on after closing its output
// is checked less and less often, up to the deadline.
void awaitEnd(Child& child, const std::optional<Clock::time_point>& deadline) {
    auto pause = std::chrono::microseconds(50);
    while (!child.poll()) {
        if (child.terminated() || !deadline) {
            child.waitForEnd();
            break;
        }
        const auto now = Clock::now();
        terminateAfter(child, deadline, now);
        if (child.terminated()) continue;
        std::this_thread::sleep_for(std::min<Clock::duration>(pause, *deadline - now));
        pause = std::min(pause * 2, std::chrono::microseconds(20'000));
    }
}

}  // namespace

ShellResult run(const std::string& path, const std::vector<std::string>& args,
                const std::optional<Environment>& environment, const std::optional<std::string>& cwd,
                double timeout) {
    requireStartable(path, cwd);
    Pipe out = makePipe(path);
    Pipe err = makePipe(path);
    Child child(spawnTool(path, args, environment, cwd, out, err));

    // Only the child may hold the write ends now, so end of file on both
    // read ends means it (and anything it handed them to) is done writing.
    out.write.reset();
    err.write.reset();

    const auto deadline = deadlineFor(timeout);
    auto [outBytes, errBytes] = drain(path, child, out, err, deadline);
    awaitEnd(child, deadline);
    return ShellResult{child.status(), decodeUTF8(outBytes), decodeUTF8(errBytes)};
}

ShellResult check(const std::string& path, const std::vector<std::string>& args,
                  const std::optional<Environment>& environment, const std::optional<std::string>& cwd,
                  double timeout) {
    ShellResult result = run(path, args, environment, cwd, timeout);
    if (!result.ok()) throw ShellError::failed(commandLine(path, args), std::move(result));
    return result;
}

}  // namespace Shell
}  // namespace tavra
