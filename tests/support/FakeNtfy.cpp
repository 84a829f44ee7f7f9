#include "support/FakeNtfy.h"

#include <chrono>
#include <regex>

namespace tavra::testing {

namespace {

Json error(int code, const std::string& text) {
    return {{"code", code}, {"http", code / 100}, {"error", text}};
}

}  // namespace

FakeNtfy::FakeNtfy(std::set<std::string> tokens, double keepaliveSeconds)
    : keepalive_(keepaliveSeconds),
      server_([this](const auto& request, auto& exchange) { handle(request, exchange); }) {
    for (const auto& token : tokens) tokens_.insert("Bearer " + token);
}

FakeNtfy::~FakeNtfy() {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
}

FakeNtfy::Reply FakeNtfy::publishLocked(const std::string& authorization, Json message) {
    static const std::regex topicName("[-_A-Za-z0-9]{1,64}");
    auto topic = message.value("topic", std::string());
    if (!tokens_.empty() && !tokens_.count(authorization)) return {401, error(40101, "unauthorized")};
    if (!std::regex_match(topic, topicName)) return {404, error(40401, "page not found")};
    if (message.value("actions", Json::array()).size() > 3)
        return {400, error(40018, "invalid request: actions invalid")};
    if (message.value("message", "").size() > 4096)
        return {400, error(40000, "message too long: would be an attachment")};
    if (message.contains("priority") &&
        (!message["priority"].is_number_integer() || message["priority"] < 1 || message["priority"] > 5))
        return {400, error(40007, "invalid priority")};
    char id[13];
    std::snprintf(id, sizeof id, "m%011d", ++nextID_);
    message.update({{"id", id}, {"time", unixNow()}, {"expires", unixNow() + 43200}, {"event", "message"}});
    messages_.push_back(message);
    changed_.notify_all();
    return {200, message};
}

void FakeNtfy::handle(const FakeHttpServer::Request& request, FakeHttpServer::Exchange& exchange) {
    std::unique_lock lock(mutex_);
    Reply reply{200, nullptr};
    auto authorization = request.headers.count("authorization") ? request.headers.at("authorization") : "";
    if (request.method == "GET" && request.path.ends_with("/json")) {
        if (!tokens_.empty() && !tokens_.count(authorization)) {
            reply = {401, error(40101, "unauthorized")};
        } else {
            lock.unlock();
            stream(request.path.substr(1, request.path.size() - 6), request, exchange);
            return;
        }
    } else if (request.path == "/") {
        Json message = Json::parse(request.body, nullptr, false);
        reply = message.is_object() ? publishLocked(authorization, message)
                                    : Reply{400, error(40024, "invalid request: JSON")};
    } else {
        reply = publishLocked(authorization, {{"topic", request.path.substr(1)}, {"message", request.body}});
    }
    lock.unlock();
    exchange.respond(reply.status, reply.body.dump() + "\n");
}

void FakeNtfy::stream(const std::string& topic, const FakeHttpServer::Request& request,
                      FakeHttpServer::Exchange& exchange) {
    std::unique_lock lock(mutex_);
    ++subscriptions_;
    auto since = request.query.count("since") ? request.query.at("since") : "none";
    std::size_t next = since == "all" ? 0 : messages_.size();
    for (std::size_t i = 0; i < messages_.size(); ++i)
        if (messages_[i]["id"] == since) next = i + 1;
    auto event = [&](const char* kind) {
        return Json{{"id", "k" + std::to_string(unixNow())},
                    {"time", unixNow()},
                    {"event", kind},
                    {"topic", topic}}
                   .dump() +
               "\n";
    };
    std::string out = event("open");
    for (int generation = generation_; !stopping_ && generation == generation_;) {
        for (; next < messages_.size(); ++next)
            if (messages_[next]["topic"] == topic) out += messages_[next].dump() + "\n";
        lock.unlock();
        if (!exchange.write(out) || request.query.count("poll")) return;
        lock.lock();
        out = event("keepalive");
        changed_.wait_for(lock, std::chrono::duration<double>(keepalive_),
                          [&] { return stopping_ || generation != generation_ || next < messages_.size(); });
        if (next < messages_.size()) out.clear();
    }
}

std::vector<Json> FakeNtfy::messages(const std::string& topic) const {
    std::lock_guard lock(mutex_);
    std::vector<Json> out;
    for (const auto& message : messages_)
        if (message["topic"] == topic) out.push_back(message);
    return out;
}

int FakeNtfy::tap(const Json& message, std::size_t action) {
    const Json& button = message.at("actions").at(action);
    auto url = button.at("url").get<std::string>();
    if (button.value("action", "") != "http" || !url.starts_with(server_.url() + "/")) return 0;
    std::string authorization =
        button.contains("headers") ? button["headers"].value("Authorization", "") : "";
    std::lock_guard lock(mutex_);
    return publishLocked(authorization, {{"topic", url.substr(server_.url().size() + 1)},
                                         {"message", button.value("body", "")}})
        .status;
}

void FakeNtfy::publish(const std::string& topic, const std::string& text) {
    underLock(mutex_, [&] {
        publishLocked(tokens_.empty() ? "" : *tokens_.begin(), {{"topic", topic}, {"message", text}});
    });
}

void FakeNtfy::dropStreams() {
    underLock(mutex_, [&] {
        ++generation_;
        changed_.notify_all();
    });
}

int FakeNtfy::subscriptions() const {
    return underLock(mutex_, [&] { return subscriptions_; });
}

}  // namespace tavra::testing
