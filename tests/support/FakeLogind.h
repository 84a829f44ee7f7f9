#pragma once

// A private D-Bus daemon with a fake logind on it, so that the helper's
// logind backend runs against a real bus without touching the machine.
// Inhibit hands out the read end of a pipe and keeps the write end, so a test
// can tell when every copy of the lock has been closed.

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kit/UniqueFd.h"

namespace tavra::testing {

class FakeLogind {
public:
    struct Inhibition {
        std::string what, who, why, mode;
        bool operator==(const Inhibition&) const = default;
    };

    // Starts dbus-daemon on a socket in `dir` and the fake service. Throws
    // std::runtime_error when either cannot start.
    explicit FakeLogind(const std::filesystem::path& dir);
    ~FakeLogind();
    FakeLogind(const FakeLogind&) = delete;
    FakeLogind& operator=(const FakeLogind&) = delete;

    // "unix:path=..." of the private bus.
    const std::string& address() const { return address_; }

    std::vector<Inhibition> inhibitions() const;
    std::vector<bool> suspends() const;
    // Makes the next calls fail with org.freedesktop.DBus.Error.AccessDenied.
    void refuse(bool on) { refuse_ = on; }
    // Whether every copy of the most recent lock has been closed; waits up to
    // `seconds` for it.
    bool lockReleased(double seconds) const;

    // Whether dbus-daemon can be found on this machine.
    static bool available();

private:
    static int onMessage(::sd_bus_message* message, void* self, ::sd_bus_error* error);
    void serve();

    std::string address_;
    pid_t daemon_ = -1;
    sd_bus* bus_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> refuse_{false};
    mutable std::mutex mutex_;
    std::vector<Inhibition> inhibitions_;
    std::vector<bool> suspends_;
    UniqueFd lockWriter_;
};

}  // namespace tavra::testing
