#pragma once

// The one way the system talks sd-bus: owners for connections, messages and
// error records, logind's names, and how long a call may wait. Linux only.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <string>

namespace tavra::SdBus {

// Every call waits for its reply, so a connection never has anything left to
// flush; flushing one whose peer stopped reading could block for good.
struct BusCloser {
    void operator()(sd_bus* bus) const noexcept { sd_bus_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;

struct MessageUnref {
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

// An sd_bus_error that frees its text when it goes.
class CallError {
public:
    CallError() = default;
    CallError(const CallError&) = delete;
    CallError& operator=(const CallError&) = delete;
    ~CallError() { sd_bus_error_free(&value_); }

    sd_bus_error* ptr() noexcept { return &value_; }
    // The error's message, else its name, else strerror of `code` (negative
    // errno as sd-bus returns it).
    std::string text(int code) const;

private:
    sd_bus_error value_{nullptr, nullptr, 0};  // SD_BUS_ERROR_NULL, without a C compound literal
};

// logind's well-known names.
namespace Logind {
inline constexpr const char* kService = "org.freedesktop.login1";
inline constexpr const char* kObject = "/org/freedesktop/login1";
inline constexpr const char* kManager = "org.freedesktop.login1.Manager";
inline constexpr const char* kUser = "org.freedesktop.login1.User";
inline constexpr const char* kSession = "org.freedesktop.login1.Session";
}  // namespace Logind

// How long one call may wait for its reply, in microseconds. Never sd-bus's
// default of 25 seconds; each bound follows from what waits behind it:
enum class Timeout : std::uint64_t {
    // A sensor read sits in a sampling loop and has a harmless fallback.
    sensor = 1'000'000,
    // An idle-sleep hold is asked for on the user's behalf; a stuck desktop
    // service must not stall the daemon's power controller for long.
    session = 5'000'000,
    // The helper's machine changes: the same bound as one of its tools, so a
    // stuck logind holds the helper no longer than a stuck pmset would.
    machine = 15'000'000,
};

// Opens a client connection to `address`, or to the system bus when the
// address is empty. Returns 0 or a negative errno; `out` is set on success.
int open(Bus& out, const std::string& address, Timeout timeout) noexcept;

// A started connection, or null.
Bus connect(const std::string& address, Timeout timeout) noexcept;
Bus connectSystem(Timeout timeout) noexcept;
Bus connectUser(Timeout timeout) noexcept;

// Calls a method and returns its reply, or null on any error.
template <typename... Args>
Message call(sd_bus* bus, const char* destination, const char* path, const char* interface,
             const char* member, const char* types, Args... args) noexcept {
    if (bus == nullptr) return {};
    CallError error;
    sd_bus_message* reply = nullptr;
    int result =
        sd_bus_call_method(bus, destination, path, interface, member, error.ptr(), &reply, types, args...);
    if (result < 0) {
        sd_bus_message_unref(reply);
        return {};
    }
    return Message(reply);
}

}  // namespace tavra::SdBus
