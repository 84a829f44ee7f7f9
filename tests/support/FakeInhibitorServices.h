#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tavra::testing {

// Plays logind (org.freedesktop.login1) and, if asked, the desktop portal and the GNOME session
// manager on a private bus, on a thread of its own. Inhibit hands out the
// write end of a pipe and keeps the read end, so the test can see whether the
// caller still holds the inhibitor (no end of file) or let it go (EOF).
class FakeInhibitorServices {
public:
    struct Options {
        bool logind = true;
        bool gnomeSession = false;
        bool portal = false;  // org.freedesktop.portal.Inhibit
        bool refuseInhibit = false;
    };

    struct Inhibitor {
        std::string what, who, why, mode;
        bool operator==(const Inhibitor&) const = default;
    };

    FakeInhibitorServices(const std::string& address, Options options);
    ~FakeInhibitorServices();
    FakeInhibitorServices(const FakeInhibitorServices&) = delete;
    FakeInhibitorServices& operator=(const FakeInhibitorServices&) = delete;

    // Whether the service got its names on the bus.
    bool ready() const { return ready_; }

    std::vector<Inhibitor> inhibitors() const;
    // Whether the holder of logind inhibitor `index` has closed its end.
    bool released(std::size_t index) const;
    // Waits until it has; false on time-out.
    bool waitForRelease(std::size_t index,
                        std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
    std::vector<bool> suspendCalls() const;  // the `interactive` argument of each

    std::vector<std::uint32_t> gnomeCookiesGiven() const;
    std::vector<std::uint32_t> gnomeCookiesReturned() const;
    std::vector<std::string> gnomeReasons() const;

    // Portal inhibitors as "{flags}|{reason}", and the request handles closed.
    std::vector<std::string> portalRequests() const;
    std::vector<std::string> portalHandlesGiven() const;
    std::vector<std::string> portalHandlesClosed() const;

private:
    static int onInhibit(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onSuspend(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onGnomeInhibit(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onGnomeUninhibit(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onPortalInhibit(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onPortalClose(sd_bus_message* message, void* self, sd_bus_error* error);
    void run(const std::string& address, std::promise<void>& started);

    Options options_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> ready_{false};
    mutable std::mutex mutex_;
    std::vector<Inhibitor> inhibitors_;
    std::vector<int> readEnds_;
    std::vector<bool> suspendCalls_;
    std::vector<std::uint32_t> cookiesGiven_;
    std::vector<std::uint32_t> cookiesReturned_;
    std::vector<std::string> gnomeReasons_;
    std::vector<std::string> portalRequests_;
    std::vector<std::string> portalHandlesGiven_;
    std::vector<std::string> portalHandlesClosed_;
    std::thread thread_;
};

}  // namespace tavra::testing
