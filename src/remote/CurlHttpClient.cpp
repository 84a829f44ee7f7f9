// The libcurl client. One easy handle per exchange, driven through a multi
// handle so that a stop request wakes the transfer at once instead of at
// libcurl's next progress tick.

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <mutex>

#include "remote/HttpClient.h"

namespace tavra {

std::optional<std::string> HttpResponse::header(std::string_view name) const {
    for (const auto& [key, value] : headers)
        if (key == name) return value;
    return std::nullopt;
}

std::string redactSecrets(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t at = 0;
    while (true) {
        auto hit = text.find("/bot", at);
        if (hit == std::string_view::npos) break;
        auto end = text.find_first_of("/? \"'", hit + 4);
        if (end == std::string_view::npos) end = text.size();
        out.append(text.substr(at, hit + 4 - at));
        if (end > hit + 4) out.append("<redacted>");
        at = end;
    }
    out.append(text.substr(at));
    return out;
}

namespace {

constexpr std::size_t kLongestLine = 1 << 20;  // a stream line longer than this is no ntfy event

struct EasyDeleter {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct MultiDeleter {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct Transfer {
    HttpResponse response;
    const std::function<void(std::string_view)>* line = nullptr;
    std::string pending;  // a stream's unfinished line
    bool tooLong = false;
    CURL* easy = nullptr;
};

bool isSuccess(long status) {
    return status >= 200 && status < 300;
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    std::string_view line(data, size * count);
    // A new status line (a proxy's CONNECT answer, a 100 Continue) starts over.
    if (line.starts_with("HTTP/")) transfer->response.headers.clear();
    auto colon = line.find(':');
    if (colon != std::string_view::npos) {
        std::string name(line.substr(0, colon));
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        auto value = line.substr(colon + 1);
        while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
        while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' '))
            value.remove_suffix(1);
        transfer->response.headers.emplace_back(std::move(name), std::string(value));
    }
    return size * count;
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    std::string_view chunk(data, size * count);
    long status = 0;
    curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status);
    if (!transfer->line || !isSuccess(status)) {
        if (transfer->response.body.size() + chunk.size() > kLongestLine) return 0;  // aborts
        transfer->response.body.append(chunk);
        return chunk.size();
    }
    while (!chunk.empty()) {
        auto newline = chunk.find('\n');
        if (newline == std::string_view::npos) {
            transfer->pending.append(chunk);
            if (transfer->pending.size() > kLongestLine) {
                transfer->tooLong = true;
                return 0;
            }
            break;
        }
        transfer->pending.append(chunk.substr(0, newline));
        chunk.remove_prefix(newline + 1);
        std::string current = std::move(transfer->pending);
        transfer->pending.clear();
        if (!current.empty() && current.back() == '\r') current.pop_back();
        (*transfer->line)(current);
    }
    return size * count;
}

class CurlHttpClient final : public HttpClient {
public:
    CurlHttpClient() {
        static std::once_flag once;
        std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    }

    HttpResponse send(const HttpRequest& request, std::stop_token stop) override {
        return perform(request, nullptr, stop);
    }

    HttpResponse stream(const HttpRequest& request, const std::function<void(std::string_view)>& line,
                        std::stop_token stop) override {
        return perform(request, &line, stop);
    }

private:
    static HttpResponse perform(const HttpRequest& request, const std::function<void(std::string_view)>* line,
                                std::stop_token stop) {
        std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
        std::unique_ptr<CURLM, MultiDeleter> multi(curl_multi_init());
        if (!easy || !multi) throw HttpError("cannot start an HTTP request");
        Transfer transfer;
        transfer.line = line;
        transfer.easy = easy.get();
        char errorText[CURL_ERROR_SIZE] = {};

        std::unique_ptr<curl_slist, ListDeleter> headers;
        // No "Expect: 100-continue": a server or proxy that ignores it would
        // cost every larger message a second of waiting.
        auto lines = request.headers;
        lines.emplace_back("Expect", "");
        for (const auto& [name, value] : lines) {
            std::string entry = value.empty() ? name + ":" : name + ": " + value;
            curl_slist* grown = curl_slist_append(headers.get(), entry.c_str());
            if (!grown) throw HttpError("out of memory");
            (void)headers.release();
            headers.reset(grown);
        }
        // Leaving CURLOPT_PROXY and CURLOPT_CAINFO alone is deliberate: libcurl
        // then reads the proxy variables and uses the system's certificates.
        CURL* e = easy.get();
        curl_easy_setopt(e, CURLOPT_URL, request.url.c_str());
        curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, 10000L);
        curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout * 1000));
        if (request.idleTimeout > 0) {
            curl_easy_setopt(e, CURLOPT_LOW_SPEED_LIMIT, 1L);
            curl_easy_setopt(e, CURLOPT_LOW_SPEED_TIME,
                             static_cast<long>(std::max(1.0, request.idleTimeout)));
        }
        curl_easy_setopt(e, CURLOPT_ERRORBUFFER, errorText);
        curl_easy_setopt(e, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, onHeader);
        curl_easy_setopt(e, CURLOPT_HEADERDATA, &transfer);
        curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onBody);
        curl_easy_setopt(e, CURLOPT_WRITEDATA, &transfer);
        curl_easy_setopt(e, CURLOPT_USERAGENT, "tavra");
        if (request.method == "GET") {
            curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
        } else {
            curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, request.method.c_str());
            curl_easy_setopt(e, CURLOPT_POSTFIELDS, request.body.c_str());
            curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
        }

        curl_multi_add_handle(multi.get(), e);
        CURLcode result = CURLE_OK;
        {
            std::stop_callback wake(stop, [m = multi.get()] { curl_multi_wakeup(m); });
            int running = 1;
            while (running > 0) {
                if (stop.stop_requested()) {
                    curl_multi_remove_handle(multi.get(), e);
                    throw HttpError("cancelled");
                }
                if (curl_multi_perform(multi.get(), &running) != CURLM_OK) break;
                if (running > 0) curl_multi_poll(multi.get(), nullptr, 0, 1000, nullptr);
            }
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi.get(), &queued))
                if (message->msg == CURLMSG_DONE) result = message->data.result;
        }
        curl_multi_remove_handle(multi.get(), e);
        curl_easy_getinfo(e, CURLINFO_RESPONSE_CODE, &transfer.response.status);
        if (result != CURLE_OK) {
            // A stream ends in a time-out or an abort by design; what came before counted.
            if (transfer.tooLong) throw HttpError("a stream line longer than 1 MiB");
            std::string why = errorText[0] ? errorText : curl_easy_strerror(result);
            throw HttpError(redactSecrets(why));
        }
        if (line && isSuccess(transfer.response.status) && !transfer.pending.empty())
            (*line)(transfer.pending);
        return std::move(transfer.response);
    }
};

}  // namespace

std::shared_ptr<HttpClient> makeCurlHttpClient() {
    return std::make_shared<CurlHttpClient>();
}

}  // namespace tavra
