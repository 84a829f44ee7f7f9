#pragma once

// The one seam between the chat channels and the network. Channels speak to
// an HttpClient; the daemon gives them the libcurl one, tests a client aimed
// at a loopback fake. Both channels' requests are small and textual.

#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/Error.h"

namespace tavra {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
    std::string method = "GET";
    std::string url;
    HttpHeaders headers;
    std::string body;
    double timeout = 30.0;  // seconds for the whole exchange; 0: none (streams)
    // Streams only: give up when nothing at all arrived for this long.
    double idleTimeout = 0.0;
};

struct HttpResponse {
    long status = 0;
    HttpHeaders headers;  // names lower-cased
    std::string body;

    // The first header of that (lower-case) name.
    std::optional<std::string> header(std::string_view name) const;
};

// The exchange did not happen or broke off: no connection, a time-out, a
// cancellation. An HTTP error status is no HttpError; it is a response.
class HttpError : public Error {
public:
    using Error::Error;
};

// Thread-safe: both channels call one client from several threads.
class HttpClient {
public:
    virtual ~HttpClient() = default;

    // One request, the whole response in memory. A stop request on `stop`
    // ends a pending exchange at once with HttpError. Throws HttpError.
    virtual HttpResponse send(const HttpRequest& request, std::stop_token stop = {}) = 0;

    // A GET whose body is a stream of lines: `line` gets each one (without the
    // newline) as it arrives, until the server closes, the idle time-out
    // passes or `stop` is requested. Returns the status and headers (the body
    // is empty unless the status is not 2xx, when it holds the error body).
    // Throws HttpError when no response began or the connection broke.
    virtual HttpResponse stream(const HttpRequest& request, const std::function<void(std::string_view)>& line,
                                std::stop_token stop) = 0;
};

// HTTPS with the system's certificate store, the proxy variables users set
// (https_proxy, no_proxy, ...), no signals, and a 10 s connect time-out.
std::shared_ptr<HttpClient> makeCurlHttpClient();

// `text` with every bot token of a Telegram URL ("/bot<token>/") replaced by
// "/bot<redacted>/", so no log line ever carries the credential.
std::string redactSecrets(std::string_view text);

}  // namespace tavra
