#include "kit/DaemonClient.h"

#include "kit/UnixSocket.h"

namespace tavra {

DaemonResponse DaemonClient::send(const DaemonRequest& request, double timeoutSeconds) const {
    std::string line = TavraJSON::encodeValue(request);
    std::string reply = UnixSocketClient::send(line, socketPath, timeoutSeconds);
    return TavraJSON::decode<DaemonResponse>(reply);
}

DaemonStatus DaemonClient::status() const {
    auto response = send(DaemonRequest::status(), 5.0);
    if (auto* s = std::get_if<DaemonResponse::Status>(&response.value)) return std::move(s->status);
    throw ClientError::unexpectedReply();
}

bool DaemonClient::isRunning() const noexcept {
    try {
        return std::holds_alternative<DaemonResponse::Ok>(send(DaemonRequest::ping(), 1.0).value);
    } catch (...) {
        return false;
    }
}

}  // namespace tavra
