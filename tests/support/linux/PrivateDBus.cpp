#include "support/linux/PrivateDBus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

namespace tavra::testing {

PrivateDBus::PrivateDBus() {
    const auto config = dir_ / "bus.conf";
    std::ofstream(config)
        << R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=)"
        << (dir_ / "bus").string() << R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
)";
    const std::string configArg = "--config-file=" + config.string();  // no malloc after the fork
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2 failed";
        return;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(out[1], STDOUT_FILENO);
        // Its complaints (it cannot raise its descriptor limit here) are noise.
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(null, STDERR_FILENO);
        const char* argv[] = {"/usr/bin/dbus-daemon", configArg.c_str(), "--print-address", "--nofork",
                              nullptr};
        ::execv(argv[0], const_cast<char* const*>(argv));
        ::_exit(127);
    }
    ::close(out[1]);
    // The daemon prints its address once it listens; it closes the pipe if it fails.
    std::string line;
    char buffer[512];
    for (ssize_t n; pid_ > 0 && line.find('\n') == std::string::npos &&
                    (n = ::read(out[0], buffer, sizeof(buffer))) > 0;)
        line.append(buffer, static_cast<std::size_t>(n));
    ::close(out[0]);
    if (line.find('\n') == std::string::npos) {
        ADD_FAILURE() << "dbus-daemon did not start";
        return;
    }
    // The daemon appends a GUID; clients need only the path.
    address_ = line.substr(0, std::min(line.find(','), line.find('\n')));
}

// Nothing of the bus outlives the test, so there is no clean shutdown to wait for.
PrivateDBus::~PrivateDBus() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

}  // namespace tavra::testing
