#include "helper/linux/LogindMachine.h"

#include "kit/AtomicFile.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace tavra {

namespace {

using SdBus::Logind::kObject;
using SdBus::Logind::kService;
constexpr const char* kInterface = SdBus::Logind::kManager;

}  // namespace

LogindMachine::LogindMachine(std::filesystem::path leaseDir, std::string busAddress)
    : leaseDir_(std::move(leaseDir)), busAddress_(std::move(busAddress)) {}

void LogindMachine::dropBus() {
    bus_.reset();
}

// After a failed call: a connection that is no longer open (the bus daemon
// restarted, logind went away) is dropped so that the next call opens a new
// one. An error reply or a time-out leaves it open and in use.
void LogindMachine::keepBusIfOpen() {
    if (bus_ && sd_bus_is_open(bus_.get()) <= 0) dropBus();
}

void LogindMachine::report(const std::string& failure) {
    if (retrying_ && failure == lastFailure_) return;
    lastFailure_ = failure;
    log(failure);
}

sd_bus* LogindMachine::bus(const char* method) {
    if (bus_) return bus_.get();
    if (int result = SdBus::open(bus_, busAddress_, SdBus::Timeout::machine); result < 0) {
        report(std::string(kInterface) + "." + method + " failed: " + std::strerror(-result));
        return nullptr;
    }
    return bus_.get();
}

void LogindMachine::setLidSleepDisabled(bool disabled) {
    if (!disabled) {
        inhibitor_.reset();  // closing the descriptor is what releases the lock
        return;
    }
    if (inhibitor_) return;
    sd_bus* connection = bus("Inhibit");
    if (!connection) return;
    SdBus::CallError error;
    sd_bus_message* raw = nullptr;
    int result = sd_bus_call_method(connection, kService, kObject, kInterface, "Inhibit", error.ptr(), &raw,
                                    "ssss", "handle-lid-switch:sleep", "Tavra",
                                    "Agents are working; the lid may be closed", "block");
    SdBus::Message reply(raw);
    int fd = -1;
    if (result >= 0) result = sd_bus_message_read(reply.get(), "h", &fd);
    if (result >= 0) {
        // The message owns its descriptor; keep a close-on-exec copy.
        int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
        if (copy < 0) result = -errno;
        inhibitor_.reset(copy);
    }
    if (result >= 0) lastFailure_.clear();
    if (result < 0) {
        report(std::string(kInterface) + ".Inhibit failed: " + error.text(result));
        keepBusIfOpen();
    }
}

void LogindMachine::keepLidSleepDisabled() {
    if (inhibitor_) return;
    retrying_ = true;
    setLidSleepDisabled(true);
    retrying_ = false;
}

void LogindMachine::sleepNow() {
    sd_bus* connection = bus("Suspend");
    if (!connection) return;
    SdBus::CallError error;
    int result = sd_bus_call_method(connection, kService, kObject, kInterface, "Suspend", error.ptr(),
                                    nullptr, "b", 0);
    if (result < 0) {
        report(std::string(kInterface) + ".Suspend failed: " + error.text(result));
        keepBusIfOpen();
    }
}

// The lease is only ever the helper's own, so before a deferral there is no
// setting to bring back: "absent", whose restore removes the lease, also
// clears one that a crash left behind with its state file lost.
std::optional<std::string> LogindMachine::readUpdateSetting() {
    return std::nullopt;
}

void LogindMachine::writeUpdateSetting(bool automatic) {
    if (automatic)
        removeLease();
    else
        writeLease();
}

void LogindMachine::deleteUpdateSetting() {
    removeLease();
}

void LogindMachine::keepUpdatesDeferred() {
    writeLease();
}

// Rewritten in place through a temporary file, so a reader never sees half a
// lease; the modification time is the renewal time.
bool LogindMachine::writeLease() {
    std::error_code error;
    std::filesystem::create_directories(leaseDir_, error);
    static constexpr std::string_view kContent = "{\"holder\":\"com.tavra.helper\"}\n";
    try {
        writeFileAtomically(leaseFile(), kContent, 0644);
        return true;
    } catch (const FileError& e) {
        log(leaseFile().string() + " failed: " + e.cause());
        return false;
    }
}

void LogindMachine::removeLease() {
    std::error_code error;
    std::filesystem::remove(leaseFile(), error);
    if (error) log(leaseFile().string() + " failed: " + error.message());
}

std::unique_ptr<Machine> makeSystemMachine() {
    return std::make_unique<LogindMachine>();
}

}  // namespace tavra
