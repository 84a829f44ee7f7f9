// The sensors logind answers, over the system bus: the lid, the user's idle
// time and whether the user's screen is locked.
//
// Each read opens its own short connection (sd-bus objects are not shared
// between threads) and limits every call to a sensor's time-out, so a missing or
// stuck bus costs at most that and gives the sensor's fallback.

#include <cerrno>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include <systemd/sd-bus.h>
#include <unistd.h>

#include "platform/LinuxSystemFiles.h"
#include "platform/SensorDecisions.h"
#include "platform/Sensors.h"
#include "platform/linux/SdBus.h"

namespace tavra {

namespace {

using SdBus::Logind::kManager;
using SdBus::Logind::kService;
using SdBus::Logind::kSession;
using SdBus::Logind::kUser;
constexpr const char* kManagerPath = SdBus::Logind::kObject;
using SdBus::CallError;
using SdBus::Message;

// One short conversation with logind. After a call that timed out or lost
// the connection it asks nothing more: a stuck bus costs one time-out per
// read, not one per call.
class Logind {
public:
    Logind() : bus_(SdBus::connectSystem(SdBus::Timeout::sensor)) {}

    explicit operator bool() const { return bus_ != nullptr; }

    std::optional<bool> boolProperty(const char* path, const char* interface, const char* name) {
        int value = 0;
        if (!usable() || !settle(sd_bus_get_property_trivial(bus_.get(), kService, path, interface, name,
                                                             CallError().ptr(), 'b', &value))) {
            return std::nullopt;
        }
        return value != 0;
    }

    std::optional<std::uint64_t> uint64Property(const char* path, const char* interface, const char* name) {
        std::uint64_t value = 0;
        if (!usable() || !settle(sd_bus_get_property_trivial(bus_.get(), kService, path, interface, name,
                                                             CallError().ptr(), 't', &value))) {
            return std::nullopt;
        }
        return value;
    }

    // The object path a Manager method returns for one numeric argument.
    std::optional<std::string> objectFor(const char* method, std::uint32_t argument) {
        if (!usable()) return std::nullopt;
        sd_bus_message* raw = nullptr;
        if (!settle(sd_bus_call_method(bus_.get(), kService, kManagerPath, kManager, method,
                                       CallError().ptr(), &raw, "u", argument))) {
            return std::nullopt;
        }
        Message reply(raw);
        const char* path = nullptr;
        if (sd_bus_message_read(reply.get(), "o", &path) < 0 || path == nullptr) return std::nullopt;
        return std::string(path);
    }

    // The user's graphical ("display") session, where screens lock; else
    // the session this process runs in.
    std::optional<std::string> userSession() {
        if (const auto user = objectFor("GetUser", static_cast<std::uint32_t>(::getuid()))) {
            sd_bus_message* raw = nullptr;
            if (usable() && settle(sd_bus_get_property(bus_.get(), kService, user->c_str(), kUser, "Display",
                                                       CallError().ptr(), &raw, "(so)"))) {
                Message reply(raw);
                const char* id = nullptr;
                const char* path = nullptr;
                if (sd_bus_message_read(reply.get(), "(so)", &id, &path) >= 0 && path != nullptr &&
                    std::string_view(path) != "/") {
                    return std::string(path);
                }
            }
        }
        return objectFor("GetSessionByPID", static_cast<std::uint32_t>(::getpid()));
    }

private:
    bool usable() const { return bus_ && !broken_; }

    // True for a successful call. An error reply (no such session, no such
    // property) leaves the connection usable; silence or a lost connection
    // does not.
    bool settle(int result) {
        if (result >= 0) return true;
        if (result == -ETIMEDOUT || result == -ECONNRESET || result == -ENOTCONN || result == -ECONNREFUSED ||
            result == -ENOENT || result == -EPIPE) {
            broken_ = true;
        }
        return false;
    }

    SdBus::Bus bus_;
    bool broken_ = false;
};

std::uint64_t nowMicros(clockid_t clock) {
    timespec ts{};
    ::clock_gettime(clock, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000u +
           static_cast<std::uint64_t>(ts.tv_nsec) / 1'000u;
}

}  // namespace

bool LidSensor::isClosed() noexcept {
    try {
        if (Logind logind; logind) {
            if (const auto closed = logind.boolProperty(kManagerPath, kManager, "LidClosed")) return *closed;
        }
        // Without logind the ACPI button driver may still say.
        return LinuxSystemFiles::lidClosed("/").value_or(false);
    } catch (...) {
        return false;
    }
}

double IdleSensor::seconds() noexcept {
    try {
        Logind logind;
        if (!logind) return 0.0;
        // The user's session when there is one; else the machine-wide hint,
        // which logind folds from all sessions.
        const auto session = logind.userSession();
        const char* path = session ? session->c_str() : kManagerPath;
        const char* interface = session ? kSession : kManager;
        const auto idle = logind.boolProperty(path, interface, "IdleHint");
        if (!idle) return 0.0;
        SensorDecisions::IdleHint hint;
        hint.idle = *idle;
        if (hint.idle) {
            hint.sinceMonotonicMicros =
                logind.uint64Property(path, interface, "IdleSinceHintMonotonic").value_or(0);
            hint.sinceRealtimeMicros = logind.uint64Property(path, interface, "IdleSinceHint").value_or(0);
        }
        return SensorDecisions::idleSeconds(hint, nowMicros(CLOCK_MONOTONIC), nowMicros(CLOCK_REALTIME));
    } catch (...) {
        return 0.0;
    }
}

bool LockSensor::isLocked() noexcept {
    try {
        Logind logind;
        if (!logind) return false;
        const auto session = logind.userSession();
        if (!session) return false;
        return logind.boolProperty(session->c_str(), kSession, "LockedHint").value_or(false);
    } catch (...) {
        return false;
    }
}

}  // namespace tavra
