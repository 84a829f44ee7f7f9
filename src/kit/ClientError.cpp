#include "kit/ClientError.h"

namespace tavra {

ClientError::ClientError(std::string description, Case value)
    : tavra::Error(std::move(description)), value_(std::move(value)) {}

ClientError ClientError::remote(std::string message) {
    std::string description = message;
    return ClientError(std::move(description), Remote{std::move(message)});
}

ClientError ClientError::unexpectedReply() {
    return ClientError("unexpected reply", UnexpectedReply{});
}

}  // namespace tavra
