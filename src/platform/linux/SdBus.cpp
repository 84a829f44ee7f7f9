#include "platform/linux/SdBus.h"

namespace tavra::sdbus {

namespace {

Bus withTimeout(sd_bus* raw) noexcept {
    Bus bus(raw);
    if (bus) sd_bus_set_method_call_timeout(bus.get(), kCallTimeoutMicroseconds);
    return bus;
}

}  // namespace

Bus connect(const std::string& address) noexcept {
    sd_bus* raw = nullptr;
    if (sd_bus_new(&raw) < 0) return {};
    Bus bus(raw);
    if (sd_bus_set_address(bus.get(), address.c_str()) < 0 || sd_bus_set_bus_client(bus.get(), 1) < 0 ||
        sd_bus_start(bus.get()) < 0) {
        return {};
    }
    return withTimeout(bus.release());
}

Bus connectSystem() noexcept {
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) < 0) return {};
    return withTimeout(raw);
}

Bus connectUser() noexcept {
    sd_bus* raw = nullptr;
    if (sd_bus_open_user(&raw) < 0) return {};
    return withTimeout(raw);
}

}  // namespace tavra::sdbus
