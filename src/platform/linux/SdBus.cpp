#include "platform/linux/SdBus.h"

#include <cstring>

namespace tavra::SdBus {

namespace {

Bus withTimeout(sd_bus* raw, Timeout timeout) noexcept {
    Bus bus(raw);
    if (bus) sd_bus_set_method_call_timeout(bus.get(), static_cast<std::uint64_t>(timeout));
    return bus;
}

}  // namespace

std::string CallError::text(int code) const {
    if (value_.message && *value_.message) return value_.message;
    if (value_.name && *value_.name) return value_.name;
    return std::strerror(code < 0 ? -code : code);
}

int open(Bus& out, const std::string& address, Timeout timeout) noexcept {
    sd_bus* raw = nullptr;
    if (address.empty()) {
        if (int result = sd_bus_open_system(&raw); result < 0) return result;
        out = withTimeout(raw, timeout);
        return 0;
    }
    if (int result = sd_bus_new(&raw); result < 0) return result;
    Bus bus(raw);
    int result = sd_bus_set_address(bus.get(), address.c_str());
    if (result >= 0) result = sd_bus_set_bus_client(bus.get(), 1);
    if (result >= 0) result = sd_bus_start(bus.get());
    if (result < 0) return result;
    out = withTimeout(bus.release(), timeout);
    return 0;
}

Bus connect(const std::string& address, Timeout timeout) noexcept {
    Bus bus;
    if (address.empty()) return bus;  // an empty address names no bus here
    open(bus, address, timeout);
    return bus;
}

Bus connectSystem(Timeout timeout) noexcept {
    Bus bus;
    open(bus, {}, timeout);
    return bus;
}

Bus connectUser(Timeout timeout) noexcept {
    sd_bus* raw = nullptr;
    if (sd_bus_open_user(&raw) < 0) return {};
    return withTimeout(raw, timeout);
}

}  // namespace tavra::SdBus
