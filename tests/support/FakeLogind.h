#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/PrivateDBus.h"

namespace tavra::testing {

// A private bus with logind (org.freedesktop.login1) on it and, if asked, the
// GNOME session manager, the desktop portal and the notification service, served on a thread of its
// own. Every call is recorded in calls(). Inhibit hands out the write end of a
// pipe and keeps the read end, so a test can see whether the caller still
// holds the lock (no end of file) or let every copy go (end of file).
// The lid, the user's display session, this process's own session and their
// hints are plain values the test sets.
class FakeLogind {
public:
    struct Options {
        bool logind = true;
        bool gnomeSession = false;   // org.gnome.SessionManager
        bool portal = false;         // org.freedesktop.portal.Desktop's Inhibit
        bool notifications = false;  // org.freedesktop.Notifications
    };
    struct Session {
        std::atomic<bool> locked = false;
        std::atomic<bool> idle = false;
        std::atomic<std::uint64_t> idleSince = 0;  // realtime µs
        std::atomic<std::uint64_t> idleSinceMonotonic = 0;
    };

    FakeLogind();
    explicit FakeLogind(Options options);
    ~FakeLogind();
    FakeLogind(const FakeLogind&) = delete;
    FakeLogind& operator=(const FakeLogind&) = delete;

    const std::string& address() const { return bus_.address(); }

    // "Inhibit what|who|why|mode", "Suspend 0", "gnome.Inhibit app|reason|flags = cookie",
    // "gnome.Uninhibit cookie", "portal.Inhibit flags|reason = handle", "portal.Close handle",
    // "Notify app|replaces|icon|summary|body|urgency=N|timeout" (one urgency hint, no actions).
    std::vector<std::string> calls() const;
    // Whether the holder of the `index`th logind lock let it go, waiting up to `wait`.
    bool released(std::size_t index, std::chrono::milliseconds wait = {}) const;

    std::atomic<bool> refuse = false;    // Inhibit and Suspend answer AccessDenied
    std::atomic<bool> answering = true;  // false: keeps its names but stops answering
    std::atomic<bool> lidClosed = false;
    std::atomic<bool> hasDisplaySession = true;  // the user's graphical session
    std::atomic<bool> inSession = false;         // this process runs in a session of its own
    Session manager;                             // the machine-wide idle hint
    Session display;
    Session own;

private:
    static int onCall(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onProperty(sd_bus*, const char* path, const char*, const char* name, sd_bus_message* reply,
                          void* self, sd_bus_error*);
    void record(std::string call);

    PrivateDBus bus_;
    sd_bus* connection_ = nullptr;
    std::atomic<bool> stop_ = false;
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
    std::vector<int> lockReadEnds_;
    std::thread thread_;
};

}  // namespace tavra::testing
