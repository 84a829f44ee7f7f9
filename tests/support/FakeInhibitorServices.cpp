#include "support/FakeInhibitorServices.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <future>

#include <gtest/gtest.h>

namespace tavra::testing {

FakeInhibitorServices::FakeInhibitorServices(const std::string& address, Options options)
    : options_(options) {
    std::promise<void> started;
    auto startedFuture = started.get_future();
    thread_ = std::thread([this, address, &started] { run(address, started); });
    if (startedFuture.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        ADD_FAILURE() << "the fake inhibitor services did not come up";
    }
}

FakeInhibitorServices::~FakeInhibitorServices() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    for (int fd : readEnds_) ::close(fd);
}

void FakeInhibitorServices::run(const std::string& address, std::promise<void>& started) {
    static const sd_bus_vtable manager[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Inhibit", "ssss", "h", &FakeInhibitorServices::onInhibit, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Suspend", "b", "", &FakeInhibitorServices::onSuspend, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    static const sd_bus_vtable session[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Inhibit", "susu", "u", &FakeInhibitorServices::onGnomeInhibit,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Uninhibit", "u", "", &FakeInhibitorServices::onGnomeUninhibit,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };

    static const sd_bus_vtable portal[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Inhibit", "sua{sv}", "o", &FakeInhibitorServices::onPortalInhibit,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    static const sd_bus_vtable request[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Close", "", "", &FakeInhibitorServices::onPortalClose, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };

    sd_bus* bus = nullptr;
    bool ok = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
              sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0;
    if (ok && options_.logind) {
        ok = sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/login1",
                                      "org.freedesktop.login1.Manager", manager, this) >= 0 &&
             sd_bus_request_name(bus, "org.freedesktop.login1", 0) >= 0;
    }
    if (ok && options_.gnomeSession) {
        ok = sd_bus_add_object_vtable(bus, nullptr, "/org/gnome/SessionManager", "org.gnome.SessionManager",
                                      session, this) >= 0 &&
             sd_bus_request_name(bus, "org.gnome.SessionManager", 0) >= 0;
    }
    if (ok && options_.portal) {
        ok = sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/portal/desktop",
                                      "org.freedesktop.portal.Inhibit", portal, this) >= 0 &&
             sd_bus_add_fallback_vtable(bus, nullptr, "/org/freedesktop/portal/desktop/request",
                                        "org.freedesktop.portal.Request", request, nullptr, this) >= 0 &&
             sd_bus_request_name(bus, "org.freedesktop.portal.Desktop", 0) >= 0;
    }
    ready_ = ok;
    started.set_value();
    while (ok && !stop_) {
        int result = sd_bus_process(bus, nullptr);
        if (result > 0) continue;
        if (result < 0) break;
        sd_bus_wait(bus, 50'000);
    }
    sd_bus_flush_close_unref(bus);
}

int FakeInhibitorServices::onInhibit(sd_bus_message* message, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<FakeInhibitorServices*>(userdata);
    const char *what = nullptr, *who = nullptr, *why = nullptr, *mode = nullptr;
    int result = sd_bus_message_read(message, "ssss", &what, &who, &why, &mode);
    if (result < 0) return result;
    if (self->options_.refuseInhibit) {
        return sd_bus_error_set(error, "org.freedesktop.DBus.Error.AccessDenied", "not today");
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return -errno;
    {
        std::lock_guard lock(self->mutex_);
        self->inhibitors_.push_back({what, who, why, mode});
        self->readEnds_.push_back(ends[0]);
    }
    // sd-bus sends a duplicate; only the caller's copy may keep the pipe open.
    result = sd_bus_reply_method_return(message, "h", ends[1]);
    ::close(ends[1]);
    return result;
}

int FakeInhibitorServices::onSuspend(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<FakeInhibitorServices*>(userdata);
    int interactive = 0;
    int result = sd_bus_message_read(message, "b", &interactive);
    if (result < 0) return result;
    {
        std::lock_guard lock(self->mutex_);
        self->suspendCalls_.push_back(interactive != 0);
    }
    return sd_bus_reply_method_return(message, "");
}

int FakeInhibitorServices::onGnomeInhibit(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<FakeInhibitorServices*>(userdata);
    const char *app = nullptr, *reason = nullptr;
    std::uint32_t xid = 0, flags = 0;
    int result = sd_bus_message_read(message, "susu", &app, &xid, &reason, &flags);
    if (result < 0) return result;
    std::uint32_t cookie = 0;
    {
        std::lock_guard lock(self->mutex_);
        cookie = 700 + static_cast<std::uint32_t>(self->cookiesGiven_.size());
        self->cookiesGiven_.push_back(cookie);
        self->gnomeReasons_.push_back(std::string(app) + "|" + reason + "|" + std::to_string(flags));
    }
    return sd_bus_reply_method_return(message, "u", cookie);
}

int FakeInhibitorServices::onGnomeUninhibit(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<FakeInhibitorServices*>(userdata);
    std::uint32_t cookie = 0;
    int result = sd_bus_message_read(message, "u", &cookie);
    if (result < 0) return result;
    {
        std::lock_guard lock(self->mutex_);
        self->cookiesReturned_.push_back(cookie);
    }
    return sd_bus_reply_method_return(message, "");
}

int FakeInhibitorServices::onPortalInhibit(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<FakeInhibitorServices*>(userdata);
    const char* window = nullptr;
    std::uint32_t flags = 0;
    int result = sd_bus_message_read(message, "su", &window, &flags);
    if (result < 0) return result;
    std::string reason;
    if ((result = sd_bus_message_enter_container(message, 'a', "{sv}")) < 0) return result;
    while ((result = sd_bus_message_enter_container(message, 'e', "sv")) > 0) {
        const char* key = nullptr;
        if ((result = sd_bus_message_read(message, "s", &key)) < 0) return result;
        if (std::string(key) == "reason") {
            const char* text = nullptr;
            if ((result = sd_bus_message_read(message, "v", "s", &text)) < 0) return result;
            reason = text;
        } else if ((result = sd_bus_message_skip(message, "v")) < 0) {
            return result;
        }
        if ((result = sd_bus_message_exit_container(message)) < 0) return result;
    }
    if (result < 0) return result;
    if ((result = sd_bus_message_exit_container(message)) < 0) return result;
    std::string handle;
    {
        std::lock_guard lock(self->mutex_);
        handle =
            "/org/freedesktop/portal/desktop/request/t/" + std::to_string(self->portalHandlesGiven_.size());
        self->portalHandlesGiven_.push_back(handle);
        self->portalRequests_.push_back(std::to_string(flags) + "|" + reason);
    }
    return sd_bus_reply_method_return(message, "o", handle.c_str());
}

int FakeInhibitorServices::onPortalClose(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<FakeInhibitorServices*>(userdata);
    {
        std::lock_guard lock(self->mutex_);
        self->portalHandlesClosed_.push_back(sd_bus_message_get_path(message));
    }
    return sd_bus_reply_method_return(message, "");
}

std::vector<std::string> FakeInhibitorServices::portalRequests() const {
    std::lock_guard lock(mutex_);
    return portalRequests_;
}

std::vector<std::string> FakeInhibitorServices::portalHandlesGiven() const {
    std::lock_guard lock(mutex_);
    return portalHandlesGiven_;
}

std::vector<std::string> FakeInhibitorServices::portalHandlesClosed() const {
    std::lock_guard lock(mutex_);
    return portalHandlesClosed_;
}

std::vector<FakeInhibitorServices::Inhibitor> FakeInhibitorServices::inhibitors() const {
    std::lock_guard lock(mutex_);
    return inhibitors_;
}

bool FakeInhibitorServices::released(std::size_t index) const {
    int fd = -1;
    {
        std::lock_guard lock(mutex_);
        if (index >= readEnds_.size()) return false;
        fd = readEnds_[index];
    }
    pollfd pfd{fd, POLLIN, 0};
    if (::poll(&pfd, 1, 0) <= 0) return false;
    char byte = 0;
    return ::read(fd, &byte, 1) == 0;
}

bool FakeInhibitorServices::waitForRelease(std::size_t index, std::chrono::milliseconds timeout) const {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!released(index)) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::vector<bool> FakeInhibitorServices::suspendCalls() const {
    std::lock_guard lock(mutex_);
    return suspendCalls_;
}

std::vector<std::uint32_t> FakeInhibitorServices::gnomeCookiesGiven() const {
    std::lock_guard lock(mutex_);
    return cookiesGiven_;
}

std::vector<std::uint32_t> FakeInhibitorServices::gnomeCookiesReturned() const {
    std::lock_guard lock(mutex_);
    return cookiesReturned_;
}

std::vector<std::string> FakeInhibitorServices::gnomeReasons() const {
    std::lock_guard lock(mutex_);
    return gnomeReasons_;
}

}  // namespace tavra::testing
