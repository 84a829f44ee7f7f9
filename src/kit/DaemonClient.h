#pragma once

// The client side of the daemon protocol. Each exchange is one connection.

#include <string>

#include "kit/ClientError.h"
#include "kit/DaemonProtocol.h"
#include "kit/Paths.h"

namespace tavra {

// Talks to the resident daemon at `socketPath`, normally
// TavraPaths::daemonSocket(). Every operation blocks its caller and is safe
// from any thread.
struct DaemonClient {
    std::string socketPath;

    // Sends one request and returns the daemon's reply. A reply of the case
    // `error` is returned as a value, not thrown. Throws SocketError (no
    // daemon, or it died or stayed silent past the time-out) and
    // DecodingError (a reply that does not decode). No default time-out.
    DaemonResponse send(const DaemonRequest& request, double timeoutSeconds) const;

    // Asks for the status with a time-out of 5 seconds. Any reply other than
    // `status`, `error` included, throws ClientError::unexpectedReply; the
    // errors of `send` pass through.
    DaemonStatus status() const;

    // Whether a daemon answers a ping with `ok` within one second. Never
    // throws: every failure is false.
    bool isRunning() const noexcept;

    bool operator==(const DaemonClient&) const = default;
};

}  // namespace tavra
