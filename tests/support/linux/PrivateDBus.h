#pragma once

#include <sys/types.h>

#include <string>

#include "support/TempDir.h"

namespace tavra::testing {

// A dbus-daemon of our own on a socket in a temporary directory, so tests can
// play logind or a desktop session without touching the machine's buses.
// Killed and reaped on destruction.
class PrivateDBus {
public:
    PrivateDBus();
    ~PrivateDBus();
    PrivateDBus(const PrivateDBus&) = delete;
    PrivateDBus& operator=(const PrivateDBus&) = delete;

    // The sd-bus address, "unix:path=...". Empty when the daemon did not start.
    const std::string& address() const { return address_; }

private:
    TempDir dir_;
    pid_t pid_ = -1;
    std::string address_;
};

}  // namespace tavra::testing
