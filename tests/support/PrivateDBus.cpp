#include "support/PrivateDBus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

namespace tavra::testing {

namespace {

void writeConfig(const std::filesystem::path& file, const std::filesystem::path& socket) {
    std::ofstream out(file);
    out << R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=)"
        << socket.string() << R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
}

}  // namespace

PrivateDBus::PrivateDBus() {
    const auto config = dir_ / "bus.conf";
    writeConfig(config, dir_ / "bus");
    const std::string configArg = "--config-file=" + config.string();

    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2 failed";
        return;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(out[1], STDOUT_FILENO);
        const char* argv[] = {"/usr/bin/dbus-daemon", configArg.c_str(), "--print-address", "--nofork",
                              nullptr};
        ::execv(argv[0], const_cast<char* const*>(argv));
        ::_exit(127);
    }
    ::close(out[1]);
    if (pid_ < 0) {
        ::close(out[0]);
        ADD_FAILURE() << "fork failed";
        return;
    }

    // The daemon prints its address once it listens.
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        pollfd pfd{out[0], POLLIN, 0};
        if (::poll(&pfd, 1, 200) <= 0) continue;
        char buffer[512];
        ssize_t n = ::read(out[0], buffer, sizeof(buffer));
        if (n <= 0) break;
        line.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(out[0]);
    auto end = line.find('\n');
    if (end == std::string::npos) {
        ADD_FAILURE() << "dbus-daemon did not print its address";
        return;
    }
    line.resize(end);
    // The daemon appends a GUID; clients need only the path.
    address_ = line.substr(0, line.find(','));
}

PrivateDBus::~PrivateDBus() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        pid_t done = ::waitpid(pid_, nullptr, WNOHANG);
        if (done == pid_ || (done < 0 && errno != EINTR)) break;
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace tavra::testing
