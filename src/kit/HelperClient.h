#pragma once

// Clients of the local protocols. Each exchange is one connection.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "kit/ClientError.h"
#include "kit/HelperProtocol.h"
#include "kit/Paths.h"

namespace tavra {

// Talks to the root helper.
struct HelperClient {
    std::string socketPath = TavraPaths::helperSocket();

    // Sends one request and returns the helper's status. Throws SocketError
    // (helper down, died mid-way), DecodingError (an empty or cut-off reply)
    // and ClientError::remote (the helper refused). There is no default
    // time-out; callers normally pass 3 seconds. Blocks; safe from any thread.
    HelperStatus send(const HelperRequest& request, double timeoutSeconds) const;

    // Whether the helper is installed, without any traffic: false when the
    // environment holds TAVRA_NO_HELPER=1 exactly, else whether the helper's
    // service file exists. Says nothing of the helper running.
    static bool isInstalled();

    // The same decision from given inputs: `noHelper` is the value of
    // TAVRA_NO_HELPER (absent when unset), `serviceFile` the file to look for.
    static bool isInstalled(std::optional<std::string_view> noHelper,
                            const std::filesystem::path& serviceFile);

    bool operator==(const HelperClient&) const = default;
};

}  // namespace tavra
