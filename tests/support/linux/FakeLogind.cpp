#include "support/linux/FakeLogind.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <string_view>

#include <gtest/gtest.h>

namespace tavra::testing {

namespace {

constexpr const char* kRoot = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
constexpr const char* kDisplayPath = "/org/freedesktop/login1/session/c1";
constexpr const char* kOwnPath = "/org/freedesktop/login1/session/_34";
constexpr const char* kUserPath = "/org/freedesktop/login1/user/_1000";
constexpr const char* kPortalRequests = "/org/freedesktop/portal/desktop/request";

#define FAKE_METHOD(name, in, out) SD_BUS_METHOD(name, in, out, onCall, SD_BUS_VTABLE_UNPRIVILEGED)
#define FAKE_PROPERTY(name, type) SD_BUS_PROPERTY(name, type, onProperty, 0, 0)
#define FAKE_HINTS                                                       \
    FAKE_PROPERTY("IdleHint", "b"), FAKE_PROPERTY("IdleSinceHint", "t"), \
        FAKE_PROPERTY("IdleSinceHintMonotonic", "t")

}  // namespace

FakeLogind::FakeLogind() : FakeLogind(Options{}) {}

FakeLogind::FakeLogind(Options options) {
    static const sd_bus_vtable managerTable[] = {
        SD_BUS_VTABLE_START(0),
        FAKE_METHOD("Inhibit", "ssss", "h"),
        FAKE_METHOD("Suspend", "b", ""),
        FAKE_METHOD("GetUser", "u", "o"),
        FAKE_METHOD("GetSessionByPID", "u", "o"),
        FAKE_PROPERTY("LidClosed", "b"),
        FAKE_HINTS,
        SD_BUS_VTABLE_END,
    };
    static const sd_bus_vtable user[] = {SD_BUS_VTABLE_START(0), FAKE_PROPERTY("Display", "(so)"),
                                         SD_BUS_VTABLE_END};
    static const sd_bus_vtable session[] = {SD_BUS_VTABLE_START(0), FAKE_PROPERTY("LockedHint", "b"),
                                            FAKE_HINTS, SD_BUS_VTABLE_END};
    static const sd_bus_vtable portal[] = {SD_BUS_VTABLE_START(0), FAKE_METHOD("Inhibit", "sua{sv}", "o"),
                                           SD_BUS_VTABLE_END};
    static const sd_bus_vtable request[] = {SD_BUS_VTABLE_START(0), FAKE_METHOD("Close", "", ""),
                                            SD_BUS_VTABLE_END};
    static const sd_bus_vtable notifications[] = {
        SD_BUS_VTABLE_START(0), FAKE_METHOD("Notify", "susssasa{sv}i", "u"), SD_BUS_VTABLE_END};
    static const sd_bus_vtable gnome[] = {SD_BUS_VTABLE_START(0), FAKE_METHOD("Inhibit", "susu", "u"),
                                          FAKE_METHOD("Uninhibit", "u", ""), SD_BUS_VTABLE_END};

    bool ok = sd_bus_new(&connection_) >= 0 && sd_bus_set_address(connection_, address().c_str()) >= 0 &&
              sd_bus_set_bus_client(connection_, 1) >= 0 && sd_bus_start(connection_) >= 0;
    auto serve = [&](const char* path, const char* interface, const sd_bus_vtable* table) {
        ok = ok && sd_bus_add_object_vtable(connection_, nullptr, path, interface, table, this) >= 0;
    };
    if (options.logind) {
        serve(kRoot, kManager, managerTable);
        serve(kUserPath, "org.freedesktop.login1.User", user);
        serve(kDisplayPath, "org.freedesktop.login1.Session", session);
        serve(kOwnPath, "org.freedesktop.login1.Session", session);
        ok = ok && sd_bus_request_name(connection_, "org.freedesktop.login1", 0) >= 0;
    }
    if (options.gnomeSession) {
        serve("/org/gnome/SessionManager", "org.gnome.SessionManager", gnome);
        ok = ok && sd_bus_request_name(connection_, "org.gnome.SessionManager", 0) >= 0;
    }
    if (options.portal) {
        serve("/org/freedesktop/portal/desktop", "org.freedesktop.portal.Inhibit", portal);
        ok = ok && sd_bus_add_fallback_vtable(connection_, nullptr, kPortalRequests,
                                              "org.freedesktop.portal.Request", request, nullptr, this) >= 0;
        ok = ok && sd_bus_request_name(connection_, "org.freedesktop.portal.Desktop", 0) >= 0;
    }
    if (options.notifications) {
        serve("/org/freedesktop/Notifications", "org.freedesktop.Notifications", notifications);
        ok = ok && sd_bus_request_name(connection_, "org.freedesktop.Notifications", 0) >= 0;
    }
    if (!ok) {
        ADD_FAILURE() << "the fake logind could not start on " << address();
        return;
    }
    thread_ = std::thread([this] {
        while (!stop_) {
            const int result = answering ? sd_bus_process(connection_, nullptr) : 0;
            if (result < 0) return;
            if (result == 0) sd_bus_wait(connection_, 20'000);
        }
    });
}

FakeLogind::~FakeLogind() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (connection_) sd_bus_flush_close_unref(connection_);
    for (int fd : lockReadEnds_) ::close(fd);
}

std::vector<std::string> FakeLogind::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

bool FakeLogind::released(std::size_t index, std::chrono::milliseconds wait) const {
    int fd = -1;
    {
        std::lock_guard lock(mutex_);
        if (index >= lockReadEnds_.size()) return false;
        fd = lockReadEnds_[index];
    }
    pollfd pfd{fd, POLLIN, 0};
    if (::poll(&pfd, 1, static_cast<int>(wait.count())) <= 0) return false;
    char byte = 0;
    return ::read(fd, &byte, 1) == 0;
}

void FakeLogind::record(std::string call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
}

int FakeLogind::onCall(sd_bus_message* message, void* userdata, sd_bus_error* error) {
    auto& self = *static_cast<FakeLogind*>(userdata);
    const std::string_view interface = sd_bus_message_get_interface(message);
    const std::string_view member = sd_bus_message_get_member(message);
    const auto count = static_cast<std::uint32_t>(self.calls().size());  // only this thread adds calls
    int result = 0;
    if (interface == kManager && member == "GetUser")
        return sd_bus_reply_method_return(message, "o", kUserPath);
    if (interface == kManager && member == "GetSessionByPID")
        return self.inSession ? sd_bus_reply_method_return(message, "o", kOwnPath)
                              : sd_bus_error_set(error, "org.freedesktop.login1.NoSessionForPID",
                                                 "PID does not belong to any session");
    if (interface == kManager && self.refuse)
        return sd_bus_error_set(error, "org.freedesktop.DBus.Error.AccessDenied", "Permission denied");
    if (interface == kManager && member == "Suspend") {
        int interactive = 0;
        if ((result = sd_bus_message_read(message, "b", &interactive)) < 0) return result;
        self.record("Suspend " + std::to_string(interactive));
        return sd_bus_reply_method_return(message, "");
    }
    if (interface == kManager) {  // Inhibit
        const char *what = nullptr, *who = nullptr, *why = nullptr, *mode = nullptr;
        if ((result = sd_bus_message_read(message, "ssss", &what, &who, &why, &mode)) < 0) return result;
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return -errno;
        self.record(std::string("Inhibit ") + what + "|" + who + "|" + why + "|" + mode);
        {
            std::lock_guard lock(self.mutex_);
            self.lockReadEnds_.push_back(ends[0]);
        }
        // sd-bus sends a duplicate; only the caller's copy may keep the pipe open.
        result = sd_bus_reply_method_return(message, "h", ends[1]);
        ::close(ends[1]);
        return result;
    }
    if (member == "Notify") {
        // Exact counts: any other number of actions or hints fails the call.
        const char *app = nullptr, *icon = nullptr, *summary = nullptr, *body = nullptr, *hint = nullptr;
        std::uint32_t replaces = 0;
        std::uint8_t urgency = 0;
        std::int32_t timeout = 0;
        if ((result = sd_bus_message_read(message, "susssasa{sv}i", &app, &replaces, &icon, &summary, &body,
                                          0u, 1u, &hint, "y", &urgency, &timeout)) < 0)
            return result;
        self.record("Notify " + std::string(app) + "|" + std::to_string(replaces) + "|" + icon + "|" +
                    summary + "|" + body + "|" + hint + "=" + std::to_string(urgency) + "|" +
                    std::to_string(timeout));
        return sd_bus_reply_method_return(message, "u", count);
    }
    if (interface == "org.freedesktop.portal.Inhibit") {
        const char *window = nullptr, *key = nullptr, *reason = nullptr;
        std::uint32_t flags = 0;
        if ((result = sd_bus_message_read(message, "sua{sv}", &window, &flags, 1, &key, "s", &reason)) < 0)
            return result;
        const std::string handle = std::string(kPortalRequests) + "/fake/" + std::to_string(count);
        self.record("portal.Inhibit " + std::to_string(flags) + "|" + key + "=" + reason + " = " + handle);
        return sd_bus_reply_method_return(message, "o", handle.c_str());
    }
    if (member == "Close") {
        self.record(std::string("portal.Close ") + sd_bus_message_get_path(message));
        return sd_bus_reply_method_return(message, "");
    }
    if (member == "Uninhibit") {
        std::uint32_t cookie = 0;
        if ((result = sd_bus_message_read(message, "u", &cookie)) < 0) return result;
        self.record("gnome.Uninhibit " + std::to_string(cookie));
        return sd_bus_reply_method_return(message, "");
    }
    // The GNOME session manager's Inhibit.
    const char *app = nullptr, *reason = nullptr;
    std::uint32_t xid = 0, flags = 0;
    if ((result = sd_bus_message_read(message, "susu", &app, &xid, &reason, &flags)) < 0) return result;
    const std::uint32_t cookie = 700 + count;
    self.record("gnome.Inhibit " + std::string(app) + "|" + reason + "|" + std::to_string(flags) + " = " +
                std::to_string(cookie));
    return sd_bus_reply_method_return(message, "u", cookie);
}

int FakeLogind::onProperty(sd_bus*, const char* path, const char*, const char* name, sd_bus_message* reply,
                           void* userdata, sd_bus_error*) {
    auto& self = *static_cast<FakeLogind*>(userdata);
    const std::string_view property = name;
    if (property == "LidClosed") return sd_bus_message_append(reply, "b", int{self.lidClosed});
    if (property == "Display")
        return self.hasDisplaySession ? sd_bus_message_append(reply, "(so)", "c1", kDisplayPath)
                                      : sd_bus_message_append(reply, "(so)", "", "/");
    const std::string_view object = path;
    const Session& session = object == kDisplayPath ? self.display
                             : object == kOwnPath   ? self.own
                                                    : self.manager;
    if (property == "LockedHint") return sd_bus_message_append(reply, "b", int{session.locked});
    if (property == "IdleHint") return sd_bus_message_append(reply, "b", int{session.idle});
    if (property == "IdleSinceHint")
        return sd_bus_message_append(reply, "t", std::uint64_t{session.idleSince});
    return sd_bus_message_append(reply, "t", std::uint64_t{session.idleSinceMonotonic});
}

}  // namespace tavra::testing
