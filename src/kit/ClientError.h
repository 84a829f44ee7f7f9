#pragma once

// The error the clients of the local protocols (helper and daemon) share.

#include <string>
#include <variant>

#include "core/Error.h"

namespace tavra {

// Thrown by the protocol clients. description(): the remote text itself, or
// "unexpected reply".
class ClientError : public tavra::Error {
public:
    struct Remote {
        std::string message;
        bool operator==(const Remote&) const = default;
    };
    struct UnexpectedReply {
        bool operator==(const UnexpectedReply&) const = default;
    };
    using Case = std::variant<Remote, UnexpectedReply>;

    static ClientError remote(std::string message);
    static ClientError unexpectedReply();

    const Case& value() const noexcept { return value_; }

private:
    ClientError(std::string description, Case value);
    Case value_;
};

}  // namespace tavra
