#include "kit/HelperClient.h"

#include <cstdlib>
#include <system_error>

#include "kit/UnixSocket.h"

namespace tavra {

HelperStatus HelperClient::send(const HelperRequest& request, double timeoutSeconds) const {
    std::string line = TavraJSON::encodeValue(request);
    std::string reply = UnixSocketClient::send(line, socketPath, timeoutSeconds);
    auto response = TavraJSON::decode<HelperResponse>(reply);
    if (auto* ok = std::get_if<HelperResponse::Ok>(&response.value)) return std::move(ok->status);
    throw ClientError::remote(std::get<HelperResponse::Failure>(response.value).message);
}

bool HelperClient::isInstalled() {
    const char* value = std::getenv("TAVRA_NO_HELPER");
    std::optional<std::string_view> noHelper;
    if (value) noHelper = value;
    return isInstalled(noHelper, TavraPaths::helperServiceFile());
}

bool HelperClient::isInstalled(std::optional<std::string_view> noHelper,
                               const std::filesystem::path& serviceFile) {
    if (noHelper && *noHelper == "1") return false;
    std::error_code error;
    return std::filesystem::exists(serviceFile, error);
}

}  // namespace tavra
