// The idle-sleep hold of Linux: inhibitors of logind and of the desktop
// session, asked for over sd-bus.
#include "platform/linux/LogindInhibitor.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <utility>

#include "kit/UniqueFd.h"
#include "platform/linux/SdBus.h"

namespace tavra {

namespace {

constexpr char kTag[] = "Tavra";
// Suspend, in the flags of both the portal and the GNOME session manager.
constexpr std::uint32_t kInhibitSuspend = 4;

// A session inhibitor: alive as long as its connection and its handle are.
struct SessionInhibitor {
    SdBus::Bus bus;
    std::string portalHandle;  // the portal's request object, or empty
    std::optional<std::uint32_t> gnomeCookie;

    SessionInhibitor() = default;
    SessionInhibitor(SessionInhibitor&&) noexcept = default;
    SessionInhibitor& operator=(SessionInhibitor&&) noexcept = default;
    ~SessionInhibitor() { release(); }

    void release() noexcept {
        if (!bus) return;
        if (!portalHandle.empty()) {
            SdBus::call(bus.get(), "org.freedesktop.portal.Desktop", portalHandle.c_str(),
                        "org.freedesktop.portal.Request", "Close", "");
        }
        if (gnomeCookie) {
            SdBus::call(bus.get(), "org.gnome.SessionManager", "/org/gnome/SessionManager",
                        "org.gnome.SessionManager", "Uninhibit", "u", *gnomeCookie);
        }
        // Closing the connection also ends whatever it still holds.
        bus.reset();
        portalHandle.clear();
        gnomeCookie.reset();
    }
};

struct Hold {
    UniqueFd logind;
    std::optional<SessionInhibitor> session;

    bool holdsAnything() const { return logind.valid() || session.has_value(); }
};

UniqueFd takeLogind(const std::optional<std::string>& address, const std::string& why) {
    SdBus::Bus bus = address ? SdBus::connect(*address, SdBus::Timeout::session)
                             : SdBus::connectSystem(SdBus::Timeout::session);
    if (!bus) return {};
    SdBus::Message reply =
        SdBus::call(bus.get(), SdBus::Logind::kService, SdBus::Logind::kObject, SdBus::Logind::kManager,
                    "Inhibit", "ssss", "idle:sleep", kTag, why.c_str(), "block");
    if (!reply) return {};
    int fd = -1;
    if (sd_bus_message_read(reply.get(), "h", &fd) < 0 || fd < 0) return {};
    // The descriptor belongs to the message; ours must outlive it and the
    // connection. The inhibitor lasts exactly as long as this copy is open.
    return UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
}

std::optional<SessionInhibitor> takeSession(const InhibitorBuses& buses, const std::string& why) {
    if (!buses.useSessionBus) return std::nullopt;
    SessionInhibitor inhibitor;
    inhibitor.bus = buses.sessionBus ? SdBus::connect(*buses.sessionBus, SdBus::Timeout::session)
                                     : SdBus::connectUser(SdBus::Timeout::session);
    if (!inhibitor.bus) return std::nullopt;

    if (SdBus::Message reply =
            SdBus::call(inhibitor.bus.get(), "org.freedesktop.portal.Desktop",
                        "/org/freedesktop/portal/desktop", "org.freedesktop.portal.Inhibit", "Inhibit",
                        "sua{sv}", "", kInhibitSuspend, 1, "reason", "s", why.c_str())) {
        const char* handle = nullptr;
        if (sd_bus_message_read(reply.get(), "o", &handle) >= 0 && handle != nullptr) {
            inhibitor.portalHandle = handle;
            return inhibitor;
        }
    }
    if (SdBus::Message reply = SdBus::call(inhibitor.bus.get(), "org.gnome.SessionManager",
                                           "/org/gnome/SessionManager", "org.gnome.SessionManager", "Inhibit",
                                           "susu", kTag, 0U, why.c_str(), kInhibitSuspend)) {
        std::uint32_t cookie = 0;
        if (sd_bus_message_read(reply.get(), "u", &cookie) >= 0) {
            inhibitor.gnomeCookie = cookie;
            return inhibitor;
        }
    }
    return std::nullopt;
}

class LogindIdleSleepBackend final : public IdleSleepBackend {
public:
    explicit LogindIdleSleepBackend(InhibitorBuses buses) : buses_(std::move(buses)) {}

    std::optional<std::uint32_t> take(const std::string& name) override {
        Hold hold;
        hold.logind = takeLogind(buses_.systemBus, name);
        hold.session = takeSession(buses_, name);
        if (!hold.holdsAnything()) return std::nullopt;
        // 0 stands for "none" to the assertion's readers.
        if (++lastID_ == 0) ++lastID_;
        holds_.insert_or_assign(lastID_, std::move(hold));
        return lastID_;
    }

    void drop(std::uint32_t assertionID) override { holds_.erase(assertionID); }

private:
    InhibitorBuses buses_;
    std::uint32_t lastID_ = 0;
    std::map<std::uint32_t, Hold> holds_;
};

}  // namespace

std::unique_ptr<IdleSleepBackend> makeLogindIdleSleepBackend(InhibitorBuses buses) {
    return std::make_unique<LogindIdleSleepBackend>(std::move(buses));
}

std::unique_ptr<IdleSleepBackend> makeIdleSleepBackend() {
    return makeLogindIdleSleepBackend({});
}

bool logindSuspend(const std::optional<std::string>& systemBus) noexcept {
    SdBus::Bus bus = systemBus ? SdBus::connect(*systemBus, SdBus::Timeout::session)
                               : SdBus::connectSystem(SdBus::Timeout::session);
    if (!bus) return false;
    return static_cast<bool>(SdBus::call(bus.get(), SdBus::Logind::kService, SdBus::Logind::kObject,
                                         SdBus::Logind::kManager, "Suspend", "b", 0));
}

void systemSleepNow() noexcept {
    logindSuspend(std::nullopt);
}

}  // namespace tavra
