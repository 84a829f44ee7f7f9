#pragma once

// Small owners for sd-bus objects and a call that never throws. Linux only.

#include <systemd/sd-bus.h>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "kit/UniqueFd.h"

namespace tavra::sdbus {

struct BusCloser {
    void operator()(sd_bus* bus) const noexcept { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;

struct MessageUnref {
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

// Every call on our connections gives up after this long, so that a bus or a
// service that hangs cannot hold the caller for sd-bus's default 25 seconds.
constexpr std::uint64_t kCallTimeoutMicroseconds = 5'000'000;

// A started client connection, or null.
Bus connect(const std::string& address) noexcept;
Bus connectSystem() noexcept;
Bus connectUser() noexcept;

// Calls a method and returns its reply, or null on any error.
template <typename... Args>
Message call(sd_bus* bus, const char* destination, const char* path, const char* interface,
             const char* member, const char* types, Args... args) noexcept {
    if (bus == nullptr) return {};
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int result =
        sd_bus_call_method(bus, destination, path, interface, member, &error, &reply, types, args...);
    sd_bus_error_free(&error);
    if (result < 0) {
        sd_bus_message_unref(reply);
        return {};
    }
    return Message(reply);
}

}  // namespace tavra::sdbus
