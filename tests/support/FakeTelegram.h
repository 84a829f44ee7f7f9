#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/ConfigCoding.h"
#include "support/FakeHttpServer.h"

namespace tavra::testing {

// The Bot API as the channel meets it, on loopback: the token checked, an
// update queue confirmed by `offset`, long polls held up to `timeout` and
// ended by a second poller with 409, sent and edited messages validated as
// the service does (HTML tags and entities, length, callback_data bytes,
// identical edits), callback answers, the command menu, injected failures.
// The test plays the phone through userSends/userTaps and reads the chat.
class FakeTelegram {
public:
    static constexpr const char* kToken = "4242:secret-token";
    struct Message {
        std::int64_t id;
        std::string text;  // as sent, HTML
        Json markup;       // null when the message has no buttons
        bool operator==(const Message&) const = default;
    };

    FakeTelegram();
    ~FakeTelegram();

    std::string apiBase() const { return server_.url(); }
    FakeHttpServer& server() { return server_; }

    std::int64_t userSends(std::int64_t chat, std::int64_t user, const std::string& text,
                           std::int64_t age = 0);
    // Taps a button of a message; returns the callback's id.
    std::string userTaps(std::int64_t chat, std::int64_t user, std::int64_t message, const std::string& data);
    // What the bot put in the chat, in order.
    std::vector<Message> botMessages(std::int64_t chat) const;
    std::optional<std::string> answer(const std::string& callback) const;
    int calls(const std::string& method) const;
    // Keeps confirmed updates, as when the confirming poll never came (a crash).
    void ignoreOffsets(bool ignore);
    Json menu() const;
    // The next call of `method` fails with this status and description.
    void failNext(const std::string& method, int status, const std::string& description, int retryAfter = 0);

private:
    struct Stored {
        std::int64_t chat;
        Message message;
        bool fromBot;
    };
    void handle(const FakeHttpServer::Request& request, FakeHttpServer::Exchange& exchange);
    Json call(const std::string& method, const Json& params, std::unique_lock<std::mutex>& lock);
    void push(Json update);

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;
    std::deque<Json> updates_;
    std::int64_t nextUpdate_ = 1000, nextMessage_ = 1, nextCallback_ = 1;
    int pollers_ = 0;
    bool ignoreOffsets_ = false;
    std::vector<Stored> messages_;
    std::set<std::string> openCallbacks_;
    std::map<std::string, std::string> answers_;
    std::map<std::string, int> calls_;
    std::map<std::string, std::deque<Json>> failures_;
    Json menu_;
    FakeHttpServer server_;  // last: stopped first
};

}  // namespace tavra::testing
