#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/ConfigCoding.h"
#include "support/FakeHttpServer.h"

namespace tavra::testing {

// An ntfy server as the channel meets it, on loopback: JSON publishing to
// the root (topic names, three actions at most, 4096-byte bodies, whole
// priorities 1-5 checked), plain publishing to a topic, the JSON stream with
// an open event, keepalives and `since`, Bearer tokens when `tokens` is not
// empty. The test plays the phone with tap().
class FakeNtfy {
public:
    explicit FakeNtfy(std::set<std::string> tokens = {}, double keepaliveSeconds = 0.2);
    ~FakeNtfy();

    std::string url() const { return server_.url(); }
    FakeHttpServer& server() { return server_; }
    std::vector<Json> messages(const std::string& topic) const;
    // Performs a message's http action as the phone does; the HTTP status.
    int tap(const Json& message, std::size_t action);
    void publish(const std::string& topic, const std::string& text);
    int subscriptions() const;
    // Ends every open stream, as a lost connection does.
    void dropStreams();

private:
    struct Reply {
        int status;
        Json body;
    };
    void handle(const FakeHttpServer::Request& request, FakeHttpServer::Exchange& exchange);
    Reply publishLocked(const std::string& authorization, Json message);
    void stream(const std::string& topic, const FakeHttpServer::Request& request,
                FakeHttpServer::Exchange& exchange);

    std::set<std::string> tokens_;
    double keepalive_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;
    std::vector<Json> messages_;
    int subscriptions_ = 0, nextID_ = 0, generation_ = 0;
    FakeHttpServer server_;  // last: stopped first
};

}  // namespace tavra::testing
