#include "helper/linux/LogindMachine.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace tavra {

namespace {

constexpr const char* kService = "org.freedesktop.login1";
constexpr const char* kObject = "/org/freedesktop/login1";
constexpr const char* kInterface = "org.freedesktop.login1.Manager";
constexpr std::uint64_t kCallTimeoutMicros = 15'000'000;

std::string errorText(const sd_bus_error& error, int code) {
    if (error.message && *error.message) return error.message;
    if (error.name && *error.name) return error.name;
    return std::strerror(code < 0 ? -code : code);
}

}  // namespace

LogindMachine::LogindMachine(std::filesystem::path leaseDir, std::string busAddress)
    : leaseDir_(std::move(leaseDir)), busAddress_(std::move(busAddress)) {}

LogindMachine::~LogindMachine() {
    dropBus();
}

// Every call waits for its reply, so nothing is left to flush; flushing a
// connection whose peer stopped reading could block the helper for good.
void LogindMachine::dropBus() {
    if (bus_) sd_bus_close_unref(bus_);
    bus_ = nullptr;
}

// After a failed call: a connection that is no longer open (the bus daemon
// restarted, logind went away) is dropped so that the next call opens a new
// one. An error reply or a time-out leaves it open and in use.
void LogindMachine::keepBusIfOpen() {
    if (bus_ && sd_bus_is_open(bus_) <= 0) dropBus();
}

void LogindMachine::report(const std::string& failure) {
    if (retrying_ && failure == lastFailure_) return;
    lastFailure_ = failure;
    log(failure);
}

sd_bus* LogindMachine::bus(const char* method) {
    if (bus_) return bus_;
    sd_bus* opened = nullptr;
    int result = 0;
    if (busAddress_.empty()) {
        result = sd_bus_open_system(&opened);
    } else {
        result = sd_bus_new(&opened);
        if (result >= 0) result = sd_bus_set_address(opened, busAddress_.c_str());
        if (result >= 0) result = sd_bus_set_bus_client(opened, 1);
        if (result >= 0) result = sd_bus_start(opened);
    }
    if (result < 0) {
        if (opened) sd_bus_unref(opened);
        report(std::string(kInterface) + "." + method + " failed: " + std::strerror(-result));
        return nullptr;
    }
    // The same bound as a machine command: a stuck logind may hold the
    // helper's queue no longer than a stuck pmset would.
    sd_bus_set_method_call_timeout(opened, kCallTimeoutMicros);
    bus_ = opened;
    return bus_;
}

void LogindMachine::setLidSleepDisabled(bool disabled) {
    if (!disabled) {
        inhibitor_.reset();  // closing the descriptor is what releases the lock
        return;
    }
    if (inhibitor_) return;
    sd_bus* connection = bus("Inhibit");
    if (!connection) return;
    sd_bus_error error{};  // SD_BUS_ERROR_NULL without its C99 compound literal
    sd_bus_message* reply = nullptr;
    int result = sd_bus_call_method(connection, kService, kObject, kInterface, "Inhibit", &error, &reply,
                                    "ssss", "handle-lid-switch:sleep", "Tavra",
                                    "Agents are working; the lid may be closed", "block");
    int fd = -1;
    if (result >= 0) result = sd_bus_message_read(reply, "h", &fd);
    if (result >= 0) {
        // The message owns its descriptor; keep a close-on-exec copy.
        int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
        if (copy < 0) result = -errno;
        inhibitor_.reset(copy);
    }
    if (result >= 0) lastFailure_.clear();
    if (result < 0) {
        report(std::string(kInterface) + ".Inhibit failed: " + errorText(error, result));
        keepBusIfOpen();
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
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
    sd_bus_error error{};  // SD_BUS_ERROR_NULL without its C99 compound literal
    int result =
        sd_bus_call_method(connection, kService, kObject, kInterface, "Suspend", &error, nullptr, "b", 0);
    if (result < 0) {
        report(std::string(kInterface) + ".Suspend failed: " + errorText(error, result));
        keepBusIfOpen();
    }
    sd_bus_error_free(&error);
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
    auto target = leaseFile();
    auto temporary = target;
    temporary += ".tmp";
    static constexpr std::string_view kContent = "{\"holder\":\"com.tavra.helper\"}\n";
    UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd || ::write(fd.get(), kContent.data(), kContent.size()) != static_cast<ssize_t>(kContent.size())) {
        log(target.string() + " failed: " + std::strerror(errno));
        ::unlink(temporary.c_str());
        return false;
    }
    fd.reset();
    std::filesystem::rename(temporary, target, error);
    if (error) {
        log(target.string() + " failed: " + error.message());
        std::filesystem::remove(temporary, error);
        return false;
    }
    return true;
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
