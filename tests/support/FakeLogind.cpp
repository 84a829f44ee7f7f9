#include "support/FakeLogind.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>

namespace tavra::testing {

namespace {
constexpr const char* kInterface = "org.freedesktop.login1.Manager";
}

bool FakeLogind::available() {
    return ::access("/usr/bin/dbus-daemon", X_OK) == 0;
}

FakeLogind::FakeLogind(const std::filesystem::path& dir) {
    auto socket = dir / "bus";
    address_ = "unix:path=" + socket.string();
    auto config = dir / "bus.conf";
    std::ofstream(config)
        << R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>)"
        << address_ << R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
)";
    daemon_ = ::fork();
    if (daemon_ < 0) throw std::runtime_error("fork failed");
    if (daemon_ == 0) {
        int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(null, 2);
        std::string option = "--config-file=" + config.string();
        ::execl("/usr/bin/dbus-daemon", "dbus-daemon", option.c_str(), "--nofork", "--nopidfile",
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    for (int i = 0; i < 1000 && !std::filesystem::exists(socket); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));

    int result = sd_bus_new(&bus_);
    if (result >= 0) result = sd_bus_set_address(bus_, address_.c_str());
    if (result >= 0) result = sd_bus_set_bus_client(bus_, 1);
    if (result >= 0) result = sd_bus_negotiate_fds(bus_, 1);
    if (result >= 0) result = sd_bus_start(bus_);
    if (result >= 0) result = sd_bus_request_name(bus_, "org.freedesktop.login1", 0);
    if (result >= 0) result = sd_bus_add_object(bus_, nullptr, "/org/freedesktop/login1", onMessage, this);
    if (result < 0) {
        this->~FakeLogind();
        throw std::runtime_error("fake logind could not start");
    }
    thread_ = std::thread([this] { serve(); });
}

FakeLogind::~FakeLogind() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (bus_) sd_bus_flush_close_unref(bus_);
    bus_ = nullptr;
    if (daemon_ > 0) {
        ::kill(daemon_, SIGTERM);
        ::waitpid(daemon_, nullptr, 0);
        daemon_ = -1;
    }
}

void FakeLogind::serve() {
    while (!stop_) {
        int result = sd_bus_process(bus_, nullptr);
        if (result > 0) continue;
        if (result < 0) return;
        sd_bus_wait(bus_, 50000);
    }
}

int FakeLogind::onMessage(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<FakeLogind*>(userdata);
    if (self->refuse_ && (sd_bus_message_is_method_call(message, kInterface, "Inhibit") > 0 ||
                          sd_bus_message_is_method_call(message, kInterface, "Suspend") > 0))
        return sd_bus_reply_method_errorf(message, "org.freedesktop.DBus.Error.AccessDenied",
                                          "Permission denied");

    if (sd_bus_message_is_method_call(message, kInterface, "Inhibit") > 0) {
        const char *what = nullptr, *who = nullptr, *why = nullptr, *mode = nullptr;
        if (sd_bus_message_read(message, "ssss", &what, &who, &why, &mode) < 0) return -EINVAL;
        int pipe[2];
        if (::pipe2(pipe, O_CLOEXEC) != 0) return -errno;
        {
            std::lock_guard lock(self->mutex_);
            self->inhibitions_.push_back({what, who, why, mode});
            self->lockWriter_.reset(pipe[1]);
        }
        int result = sd_bus_reply_method_return(message, "h", pipe[0]);  // sends a copy
        ::close(pipe[0]);
        return result;
    }
    if (sd_bus_message_is_method_call(message, kInterface, "Suspend") > 0) {
        int interactive = 0;
        if (sd_bus_message_read(message, "b", &interactive) < 0) return -EINVAL;
        {
            std::lock_guard lock(self->mutex_);
            self->suspends_.push_back(interactive != 0);
        }
        return sd_bus_reply_method_return(message, "");
    }
    return 0;
}

std::vector<FakeLogind::Inhibition> FakeLogind::inhibitions() const {
    std::lock_guard lock(mutex_);
    return inhibitions_;
}

std::vector<bool> FakeLogind::suspends() const {
    std::lock_guard lock(mutex_);
    return suspends_;
}

bool FakeLogind::lockReleased(double seconds) const {
    int fd = -1;
    {
        std::lock_guard lock(mutex_);
        fd = lockWriter_.get();
    }
    if (fd < 0) return false;
    pollfd entry{fd, 0, 0};
    // The write end of a pipe reports POLLERR once no reader is left.
    if (::poll(&entry, 1, static_cast<int>(seconds * 1000)) < 0) return false;
    return (entry.revents & POLLERR) != 0;
}

}  // namespace tavra::testing
