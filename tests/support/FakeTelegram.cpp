#include "support/FakeTelegram.h"

#include <chrono>

namespace tavra::testing {

namespace {

struct ApiError {
    int status;
    std::string description;
    int retryAfter = 0;
};

[[noreturn]] void refuse(const std::string& description) {
    throw ApiError{400, "Bad Request: " + description};
}

// The visible length in UTF-16 units, as the service counts it; refuses what
// its HTML parser refuses.
std::size_t checkHtml(const std::string& html) {
    static const std::set<std::string> tags{"b",        "strong", "i",   "em",        "u",          "ins",
                                            "s",        "strike", "del", "span",      "tg-spoiler", "a",
                                            "tg-emoji", "code",   "pre", "blockquote"};
    std::vector<std::string> open;
    std::size_t length = 0;
    for (std::size_t i = 0; i < html.size();) {
        if (html[i] == '<') {
            auto end = html.find('>', i);
            if (end == std::string::npos)
                refuse("can't parse entities: Unclosed start tag at byte offset " + std::to_string(i));
            bool closing = html[i + 1] == '/';
            auto name = html.substr(i + 1 + closing, end - i - 1 - closing);
            name = name.substr(0, name.find(' '));
            if (!tags.count(name)) refuse("can't parse entities: Unsupported start tag \"" + name + "\"");
            if (closing && (open.empty() || open.back() != name))
                refuse("can't parse entities: Unmatched end tag");
            closing ? open.pop_back() : open.push_back(name);
            i = end + 1;
        } else if (html[i] == '&') {
            auto end = html.find(';', i);
            auto entity = end == std::string::npos ? "" : html.substr(i + 1, end - i - 1);
            bool numeric = entity.size() > 1 && entity[0] == '#' &&
                           entity.find_first_not_of("0123456789", 1) == std::string::npos;
            if (!numeric && entity != "lt" && entity != "gt" && entity != "amp" && entity != "quot")
                refuse("can't parse entities: Character entity expected");
            ++length;
            i = end + 1;
        } else {
            auto lead = static_cast<unsigned char>(html[i]);
            std::size_t bytes = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc0 ? 2 : 1;
            length += bytes == 4 ? 2 : 1;
            i += bytes;
        }
    }
    if (!open.empty())
        refuse("can't parse entities: Can't find end tag corresponding to start tag \"" + open.back() + "\"");
    if (length == 0) refuse("message text is empty");
    if (length > 4096) refuse("message is too long");
    return length;
}

Json checkMarkup(const Json& params) {
    if (!params.contains("reply_markup")) return nullptr;
    const Json& markup = params["reply_markup"];
    for (const auto& row : markup.value("inline_keyboard", Json::array()))
        for (const auto& button : row) {
            auto data = button.value("callback_data", std::string());
            if (button.value("text", std::string()).empty() || data.empty() || data.size() > 64)
                refuse("BUTTON_DATA_INVALID");
        }
    return markup;
}

Json user(std::int64_t id) {
    return {{"id", id}, {"is_bot", false}, {"first_name", "Ann"}};
}

}  // namespace

FakeTelegram::FakeTelegram()
    : server_([this](const auto& request, auto& exchange) { handle(request, exchange); }) {}

FakeTelegram::~FakeTelegram() {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
}

void FakeTelegram::handle(const FakeHttpServer::Request& request, FakeHttpServer::Exchange& exchange) {
    Json reply;
    int status = 200;
    std::string headers;
    try {
        const std::string prefix = std::string("/bot") + kToken + "/";
        if (!request.path.starts_with("/bot")) throw ApiError{404, "Not Found"};
        if (!request.path.starts_with(prefix)) throw ApiError{401, "Unauthorized"};
        Json params = request.body.empty() ? Json::object() : Json::parse(request.body);
        std::unique_lock lock(mutex_);
        auto method = request.path.substr(prefix.size());
        ++calls_[method];
        if (auto& queue = failures_[method]; !queue.empty()) {
            Json failure = queue.front();
            queue.pop_front();
            throw ApiError{failure[0], failure[1], failure[2]};
        }
        reply = {{"ok", true}, {"result", call(method, params, lock)}};
    } catch (const ApiError& error) {
        status = error.status;
        reply = {{"ok", false}, {"error_code", status}, {"description", error.description}};
        if (status == 429) {
            reply["parameters"] = {{"retry_after", error.retryAfter}};
            headers = "Retry-After: " + std::to_string(error.retryAfter) + "\r\n";
        }
    } catch (const Json::exception&) {
        status = 400;
        reply = {{"ok", false}, {"error_code", 400}, {"description", "Bad Request: invalid parameters"}};
    }
    exchange.respond(status, reply.dump(), headers);
}

Json FakeTelegram::call(const std::string& method, const Json& params, std::unique_lock<std::mutex>& lock) {
    if (method == "getMe")
        return {{"id", 4242}, {"is_bot", true}, {"first_name", "Tavra"}, {"username", "tavra_bot"}};
    if (method == "getUpdates") {
        if (params.contains("offset") && !ignoreOffsets_) {
            auto offset = params["offset"].get<std::int64_t>();
            if (offset < 0) {
                while (static_cast<std::int64_t>(updates_.size()) > -offset) updates_.pop_front();
            } else {
                while (!updates_.empty() && updates_.front()["update_id"].get<std::int64_t>() < offset)
                    updates_.pop_front();
            }
        }
        auto timeout = std::clamp<std::int64_t>(params.value("timeout", 0), 0, 50);
        int mine = ++pollers_;
        changed_.notify_all();
        changed_.wait_for(lock, std::chrono::seconds(timeout),
                          [&] { return stopping_ || pollers_ != mine || !updates_.empty(); });
        if (pollers_ != mine)
            throw ApiError{409,
                           "Conflict: terminated by other getUpdates request; make sure that only one bot "
                           "instance is running"};
        return Json(std::vector<Json>(
            updates_.begin(), updates_.begin() + std::min<std::ptrdiff_t>(100, std::ssize(updates_))));
    }
    if (method == "sendMessage" || method == "editMessageText") {
        auto chat = params.at("chat_id").get<std::int64_t>();
        auto text = params.at("text").get<std::string>();
        if (params.value("parse_mode", "") == "HTML") checkHtml(text);
        Json markup = checkMarkup(params);
        Message* target = nullptr;
        if (method == "sendMessage") {
            target = &messages_.emplace_back(Stored{chat, {nextMessage_++, text, markup}, true}).message;
        } else {
            auto id = params.at("message_id").get<std::int64_t>();
            for (auto& stored : messages_)
                if (stored.fromBot && stored.chat == chat && stored.message.id == id)
                    target = &stored.message;
            if (!target) refuse("message to edit not found");
            if (target->text == text && target->markup == markup)
                refuse(
                    "message is not modified: specified new message content and reply markup are exactly the "
                    "same as a current content and reply markup of the message");
            *target = {id, text, markup};
        }
        changed_.notify_all();
        return {{"message_id", target->id},
                {"chat", {{"id", chat}, {"type", "private"}}},
                {"date", unixNow()},
                {"text", text}};
    }
    if (method == "answerCallbackQuery") {
        auto id = params.at("callback_query_id").get<std::string>();
        if (!openCallbacks_.erase(id))
            refuse("query is too old and response timeout expired or query ID is invalid");
        answers_[id] = params.value("text", "");
        changed_.notify_all();
        return true;
    }
    if (method == "setMyCommands") {
        for (const auto& command : params.at("commands")) {
            auto name = command.at("command").get<std::string>();
            auto description = command.at("description").get<std::string>();
            if (name.empty() || name.size() > 32 ||
                name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_") != std::string::npos ||
                description.empty() || description.size() > 256)
                refuse("BOT_COMMAND_INVALID");
        }
        menu_ = params["commands"];
        return true;
    }
    throw ApiError{404, "Not Found: method not found"};
}

void FakeTelegram::push(Json update) {
    update["update_id"] = nextUpdate_++;
    updates_.push_back(std::move(update));
    changed_.notify_all();
}

std::int64_t FakeTelegram::userSends(std::int64_t chat, std::int64_t from, const std::string& text,
                                     std::int64_t age) {
    std::lock_guard lock(mutex_);
    auto id = nextMessage_++;
    messages_.push_back({chat, {id, text, nullptr}, false});
    push({{"message",
           {{"message_id", id},
            {"from", user(from)},
            {"chat", {{"id", chat}, {"type", "private"}}},
            {"date", unixNow() - age},
            {"text", text}}}});
    return id;
}

std::string FakeTelegram::userTaps(std::int64_t chat, std::int64_t from, std::int64_t message,
                                   const std::string& data) {
    std::lock_guard lock(mutex_);
    auto id = "cb" + std::to_string(nextCallback_++);
    openCallbacks_.insert(id);
    push({{"callback_query",
           {{"id", id},
            {"from", user(from)},
            {"chat_instance", "1"},
            {"data", data},
            {"message",
             {{"message_id", message},
              {"chat", {{"id", chat}, {"type", "private"}}},
              {"date", unixNow()},
              {"text", "shown"}}}}}});
    return id;
}

std::vector<FakeTelegram::Message> FakeTelegram::botMessages(std::int64_t chat) const {
    std::lock_guard lock(mutex_);
    std::vector<Message> out;
    for (const auto& stored : messages_)
        if (stored.fromBot && stored.chat == chat) out.push_back(stored.message);
    return out;
}

std::optional<std::string> FakeTelegram::answer(const std::string& callback) const {
    return underLock(mutex_, [&] {
        auto it = answers_.find(callback);
        return it == answers_.end() ? std::nullopt : std::optional(it->second);
    });
}

int FakeTelegram::calls(const std::string& method) const {
    return underLock(mutex_, [&] { return calls_.contains(method) ? calls_.at(method) : 0; });
}

void FakeTelegram::ignoreOffsets(bool ignore) {
    underLock(mutex_, [&] { ignoreOffsets_ = ignore; });
}

Json FakeTelegram::menu() const {
    return underLock(mutex_, [&] { return menu_; });
}

void FakeTelegram::failNext(const std::string& method, int status, const std::string& description,
                            int retryAfter) {
    underLock(mutex_, [&] { failures_[method].push_back({status, description, retryAfter}); });
}

}  // namespace tavra::testing
