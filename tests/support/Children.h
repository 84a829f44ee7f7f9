#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kit/AtomicFile.h"
#include "platform/Shell.h"

namespace tavra::testing {

// The build tree holding the executables: TAVRA_BUILD_DIR, or else the tree
// this test executable was built in (build/tests/tavra_integration_tests).
inline std::filesystem::path buildTree() {
    std::error_code error;
    const char* given = std::getenv("TAVRA_BUILD_DIR");
    return given ? std::filesystem::path(given)
                 : std::filesystem::read_symlink("/proc/self/exe", error).parent_path().parent_path();
}

// Executables started by a test, each with `env` applied (an empty value
// unsets) and its output appended to `log`; all killed and reaped however
// the test ends, stopped ones included.
struct Children {
    Children(std::filesystem::path logFile, Shell::Environment environment = {})
        : log(std::move(logFile)), env(std::move(environment)) {}
    Children(const Children&) = delete;
    Children& operator=(const Children&) = delete;

    std::filesystem::path log;
    Shell::Environment env;
    std::vector<pid_t> live;

    pid_t start(std::vector<std::string> argv) {
        std::vector<char*> raw;  // built before the fork: the child only calls what is safe there
        for (auto& word : argv) raw.push_back(word.data());
        raw.push_back(nullptr);
        pid_t pid = ::fork();
        if (pid == 0) {
            int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            ::dup2(fd, 1);
            ::dup2(fd, 2);
            for (const auto& [key, value] : env)
                value.empty() ? ::unsetenv(key.c_str()) : ::setenv(key.c_str(), value.c_str(), 1);
            ::execv(raw[0], raw.data());
            ::_exit(127);
        }
        live.push_back(pid);
        return pid;
    }
    // Waits for the child; its exit status, or -1 when a signal ended it.
    int exitCode(pid_t pid) {
        int status = 0;
        std::erase(live, pid);
        return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string output() const { return readWholeFile(log).value_or(""); }
    ~Children() {
        for (pid_t pid : live) ::kill(pid, SIGKILL);
        for (pid_t pid : live) ::waitpid(pid, nullptr, 0);
    }
};

// Asks `predicate` every 50 ms for up to 20 seconds; an exception counts as a no.
inline bool eventually(const std::function<bool()>& predicate) {
    for (int i = 0; i < 400; ++i) {
        try {
            if (predicate()) return true;
        } catch (const std::exception&) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

}  // namespace tavra::testing
