#include "remote/TelegramChannel.h"

#include <algorithm>
#include <cctype>
#include <deque>
#include <map>
#include <mutex>

#include "core/RemoteCommand.h"
#include "kit/AtomicFile.h"
#include "kit/LocalMachine.h"
#include "remote/ChannelWorker.h"
#include "remote/TelegramProtocol.h"

namespace tavra {

namespace {

constexpr std::size_t kQueueCapacity = 200;
constexpr std::size_t kRemembered = 500;  // messages and keys kept for later edits
constexpr int kSendAttempts = 8;          // about four minutes of back-off, then a delivery is given up

struct ApiAnswer {
    bool ok = false;
    long status = 0;
    Json result;
    std::string description;
    double retryAfter = 0;
};

std::optional<std::int64_t> readID(const std::optional<std::string>& text) {
    if (!text) return std::nullopt;
    return RemoteCommand::readInteger(*text);
}

bool sameName(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
    });
}

}  // namespace

struct TelegramChannel::State {
    TelegramChannelOptions o;
    std::int64_t chat;
    std::int64_t user;
    std::string botID;  // the token's public half, to tell a state file of another bot
    ChannelWorker worker;
    Sink sink;

    std::mutex mutex;  // guards what both threads remember below
    std::map<std::string, std::vector<std::int64_t>> keys;
    std::deque<std::string> keyOrder;
    std::map<std::int64_t, std::string> shown;  // the html we put in a message
    std::deque<std::int64_t> shownOrder;

    explicit State(TelegramChannelOptions options)
        : o(std::move(options)),
          chat(o.settings.chatID.value_or(0)),
          // In a private chat the chat is the user; older settings knew only the chat.
          user(o.settings.userID.value_or(chat)),
          botID(o.settings.botToken.substr(0, o.settings.botToken.find(':'))),
          worker(kQueueCapacity,
                 [this] { say("telegram: too much waiting to go out, dropped the oldest"); }) {}

    void say(const std::string& line) const {
        if (o.log) o.log(redactSecrets(line));
    }

    // ---- The Bot API ---------------------------------------------------------

    ApiAnswer call(const std::string& method, const Json& params, double timeout,
                   std::stop_token stop) const {
        HttpRequest request{"POST",
                            o.settings.apiBase + "/bot" + o.settings.botToken + "/" + method,
                            {{"Content-Type", "application/json"}},
                            TavraJSON::encode(params),
                            timeout,
                            0};
        auto response = o.http->send(request, stop);
        ApiAnswer answer;
        answer.status = response.status;
        Json document = Json::parse(response.body, nullptr, false);
        if (!document.is_object()) {
            answer.description = "HTTP " + std::to_string(response.status);
            return answer;
        }
        auto ok = document.find("ok");
        answer.ok = ok != document.end() && *ok == true && response.status == 200;
        if (auto it = document.find("result"); it != document.end()) answer.result = *it;
        if (auto it = document.find("description"); it != document.end() && it->is_string())
            answer.description = it->get<std::string>();
        auto parameters = document.find("parameters");
        if (parameters != document.end() && parameters->is_object() && parameters->contains("retry_after") &&
            (*parameters)["retry_after"].is_number())
            answer.retryAfter = (*parameters)["retry_after"].get<double>();
        else if (auto header = response.header("retry-after"))
            answer.retryAfter = static_cast<double>(RemoteCommand::readInteger(*header).value_or(0));
        return answer;
    }

    // A delivery: retried after a rate limit, a server error or a lost
    // connection; a refusal is logged and dropped. An edit to the same
    // content counts as done.
    std::optional<Json> request(const std::string& method, const Json& params, std::stop_token stop) const {
        Backoff backoff(o.backoffCap);
        for (int attempt = 1; !stop.stop_requested(); ++attempt) {
            ApiAnswer answer;
            try {
                answer = call(method, params, 30.0, stop);
            } catch (const HttpError& error) {
                if (stop.stop_requested()) break;
                say("telegram: " + method + " failed: " + error.description());
                if (attempt >= kSendAttempts || !sleepUnlessStopped(stop, backoff.next())) break;
                continue;
            }
            if (answer.ok) return answer.result;
            if (answer.description.find("message is not modified") != std::string::npos) return Json(true);
            if (answer.status == 429) {
                if (!sleepUnlessStopped(stop, std::max(1.0, answer.retryAfter))) break;
                continue;
            }
            say("telegram: " + method + " refused: " + answer.description);
            if (answer.status < 500 || attempt >= kSendAttempts || !sleepUnlessStopped(stop, backoff.next()))
                break;
        }
        return std::nullopt;
    }

    // ---- Memory of what was shown -------------------------------------------

    void remember(std::int64_t message, const std::string& html) {
        std::lock_guard lock(mutex);
        if (shown.insert_or_assign(message, html).second) shownOrder.push_back(message);
        while (shownOrder.size() > kRemembered) {
            shown.erase(shownOrder.front());
            shownOrder.pop_front();
        }
    }

    void rememberKey(const std::string& key, std::int64_t message) {
        std::lock_guard lock(mutex);
        auto [it, fresh] = keys.try_emplace(key);
        it->second.push_back(message);
        if (fresh) keyOrder.push_back(key);
        while (keyOrder.size() > kRemembered) {
            keys.erase(keyOrder.front());
            keyOrder.pop_front();
        }
    }

    std::string shownHtml(std::int64_t message) {
        std::lock_guard lock(mutex);
        auto it = shown.find(message);
        return it == shown.end() ? std::string() : it->second;
    }

    // ---- Sending ------------------------------------------------------------

    std::string labelled(const std::string& html) const {
        if (o.machine.empty()) return html;
        return "<i>" + RemoteReply::escape(o.machine) + "</i>\n" + html;
    }

    Json keyboardOf(const RemoteReply& reply) const {
        if (reply.forceReply) return {{"force_reply", true}};
        return telegramKeyboard(reply.buttons, [this](const AlertAction& action) {
            say("telegram: left out the button \"" + action.label + "\": its command must be 1 to 64 bytes");
        });
    }

    // The reply as new messages; the buttons go on the last one, whose id is
    // returned.
    std::optional<std::int64_t> sendNew(const RemoteReply& reply, std::stop_token stop) {
        auto parts = splitTelegramHtml(labelled(reply.html));
        Json keyboard = keyboardOf(reply);
        std::optional<std::int64_t> last;
        for (std::size_t i = 0; i < parts.size(); ++i) {
            Json params{{"chat_id", chat}, {"text", parts[i]}, {"parse_mode", "HTML"}};
            if (i + 1 == parts.size() && !keyboard.is_null()) params["reply_markup"] = keyboard;
            auto sent = request("sendMessage", params, stop);
            last.reset();
            if (!sent || !sent->is_object() || !(*sent)["message_id"].is_number_integer()) continue;
            last = (*sent)["message_id"].get<std::int64_t>();
            remember(*last, parts[i]);
        }
        return last;
    }

    bool edit(std::int64_t message, const std::string& html, const Json& keyboard, std::stop_token stop) {
        Json params{{"chat_id", chat}, {"message_id", message}, {"text", html}, {"parse_mode", "HTML"}};
        // Leaving reply_markup out is what removes a message's buttons.
        if (!keyboard.is_null()) params["reply_markup"] = keyboard;
        if (!request("editMessageText", params, stop)) return false;
        remember(message, html);
        return true;
    }

    void stampMessage(std::int64_t message, const std::string& text, std::stop_token stop) {
        std::string before = shownHtml(message), mark = RemoteReply::escape(text);
        std::string html = before.empty() ? mark : before + "\n\n" + mark;
        // A second stamp of the same message (the tap, then the desk) changes nothing.
        if (before.ends_with(mark) || telegramTextLength(html) > kTelegramTextLimit) html = before;
        edit(message, html, nullptr, stop);
    }

    void answer(const RemoteReply& reply, const ChannelOrigin& origin, std::stop_token stop) {
        if (origin.callback) {
            // The phone shows a spinner on the button until the tap is answered.
            Json params{{"callback_query_id", *origin.callback}};
            if (reply.toast) params["text"] = cutCodePoints(*reply.toast, 200);
            request("answerCallbackQuery", params, stop);
        }
        auto tapped = readID(origin.message);
        if (!reply.forceReply && tapped) {
            if (auto* stamp = std::get_if<RemoteReply::Placement::Stamp>(&reply.placement.value)) {
                stampMessage(*tapped, stamp->text, stop);
                return;
            }
            if (std::holds_alternative<RemoteReply::Placement::Replace>(reply.placement.value)) {
                auto parts = splitTelegramHtml(labelled(reply.html));
                if (parts.size() == 1 && edit(*tapped, parts[0], keyboardOf(reply), stop)) return;
            }
        }
        sendNew(reply, stop);
    }

    // ---- Polling ------------------------------------------------------------

    std::optional<std::int64_t> loadOffset() const {
        auto bytes = readWholeFile(o.stateFile);
        if (!bytes) return std::nullopt;
        Json document = Json::parse(*bytes, nullptr, false);
        if (!document.is_object() || !document.contains("bot") || document["bot"] != botID)
            return std::nullopt;
        auto offset = document.find("offset");
        if (offset == document.end() || !offset->is_number_integer()) return std::nullopt;
        return offset->get<std::int64_t>();
    }

    void saveOffset(std::int64_t offset) const {
        try {
            writeFileAtomically(o.stateFile, TavraJSON::encode(Json{{"bot", botID}, {"offset", offset}}),
                                0600);
        } catch (const FileError& error) {
            say("telegram: cannot keep the update offset: " + error.description());
        }
    }

    void dispatch(const TelegramUpdate& update) {
        // Anyone can write to a bot: only the paired chat and user count, and
        // everyone else gets silence.
        if (update.chat != chat || update.user != user || update.text.empty()) return;
        IncomingCommand command{update.text, {"telegram", std::nullopt, std::nullopt}};
        if (update.callback) {
            command.origin.message = std::to_string(*update.message);
            command.origin.callback = update.callback;
            if (update.messageText && shownHtml(*update.message).empty())
                remember(*update.message, RemoteReply::escape(*update.messageText));
        } else {
            // Updates wait on the server for a day; an old order is no order.
            auto age =
                std::chrono::duration<double>(o.now() - std::chrono::system_clock::from_time_t(update.date));
            if (age.count() > o.staleSeconds) return;
            if (command.text.starts_with('@')) {
                // "@studio status" is meant for one machine of several.
                auto blank = command.text.find(' ');
                auto address = std::string_view(command.text).substr(1, blank - 1);
                if (blank == std::string::npos || !sameName(address, o.machine)) return;
                command.text.erase(0, blank + 1);
            }
        }
        try {
            sink(std::move(command));
        } catch (...) {
        }
    }

    // One attempt per round until the service has answered either way.
    bool setMenu(std::stop_token stop) const {
        Json commands = Json::array();
        for (const auto& entry : RemoteCommand::menu(LocalMachine::word()))
            commands.push_back({{"command", entry.command}, {"description", entry.description}});
        try {
            auto answer = call("setMyCommands", {{"commands", commands}}, 30.0, stop);
            if (!answer.ok) say("telegram: setMyCommands refused: " + answer.description);
            return answer.ok || (answer.status >= 400 && answer.status < 500 && answer.status != 429);
        } catch (const HttpError&) {
            return false;
        }
    }

    void listen(std::stop_token stop) {
        bool menuSet = setMenu(stop);
        auto offset = loadOffset();
        Backoff backoff(o.backoffCap);
        std::string trouble;  // the failure being lived through, logged once
        auto failed = [&](const std::string& why, double wait) {
            if (why != trouble) say("telegram: " + why);
            trouble = why;
            sleepUnlessStopped(stop, wait);
        };
        while (!stop.stop_requested()) {
            Json params{{"timeout", static_cast<std::int64_t>(o.pollSeconds)},
                        {"allowed_updates", {"message", "callback_query"}}};
            if (offset) params["offset"] = *offset;
            auto began = std::chrono::steady_clock::now();
            ApiAnswer answer;
            try {
                answer = call("getUpdates", params, o.pollSeconds + 15, stop);
            } catch (const HttpError& error) {
                if (!stop.stop_requested())
                    failed("cannot reach the service: " + error.description(), backoff.next());
                continue;
            }
            if (!answer.ok) {
                if (answer.status == 429)
                    failed("rate limited", std::max(1.0, answer.retryAfter));
                else if (answer.status == 409)
                    failed("another program reads this bot's updates: " + answer.description, backoff.next());
                else
                    failed("getUpdates refused: " + answer.description, backoff.next());
                continue;
            }
            if (!trouble.empty()) say("telegram: polling again");
            trouble.clear();
            backoff.reset();
            // Only once the service answers, so a lost network costs one request per round.
            if (!menuSet) menuSet = setMenu(stop);
            auto updates = parseTelegramUpdates(answer.result);
            // An update already confirmed is never handed on twice.
            std::erase_if(updates, [&](const auto& update) { return offset && update.id < *offset; });
            if (updates.empty()) {
                // A server that does not hold the poll must not turn this into a busy loop.
                if (std::chrono::steady_clock::now() - began < std::chrono::seconds(1))
                    sleepUnlessStopped(stop, 1.0);
                continue;
            }
            std::int64_t next = 0;
            for (const auto& update : updates) next = std::max(next, update.id + 1);
            // Saved before the commands are carried out: after a crash a
            // command is lost rather than carried out twice.
            if (!offset || next > *offset) {
                offset = next;
                saveOffset(next);
            }
            for (const auto& update : updates) dispatch(update);
        }
    }
};

TelegramChannel::TelegramChannel(TelegramChannelOptions options)
    : state_(std::make_unique<State>(std::move(options))) {}

TelegramChannel::~TelegramChannel() {
    stop();
}

void TelegramChannel::start(Sink sink) {
    if (state_->worker.running()) return;
    state_->sink = std::move(sink);
    state_->worker.start([state = state_.get()](std::stop_token stop) { state->listen(stop); });
}

void TelegramChannel::stop() {
    state_->worker.stop();
}

void TelegramChannel::deliverAlert(const Alert& alert) {
    RemoteReply reply;
    // Appended piece by piece: GCC 12 misreads `"literal" + std::string&&`
    // at -O3 as an overlapping copy.
    reply.html.append("<b>").append(RemoteReply::escape(alert.title)).append("</b>");
    if (!alert.body.empty()) reply.html.append("\n").append(RemoteReply::escape(alert.body));
    for (std::size_t i = 0; i < alert.actions.size(); ++i) {
        if (i % 3 == 0) reply.buttons.emplace_back();
        reply.buttons.back().push_back(alert.actions[i]);
    }
    deliver(reply, alert.id);
}

void TelegramChannel::deliver(const RemoteReply& reply, const std::string& key) {
    state_->worker.push([state = state_.get(), reply, key](std::stop_token stop) {
        if (auto last = state->sendNew(reply, stop)) state->rememberKey(key, *last);
    });
}

void TelegramChannel::reply(const RemoteReply& reply, const ChannelOrigin& origin) {
    state_->worker.push(
        [state = state_.get(), reply, origin](std::stop_token stop) { state->answer(reply, origin, stop); });
}

void TelegramChannel::stamp(const std::string& key, const std::string& text) {
    state_->worker.push([state = state_.get(), key, text](std::stop_token stop) {
        std::vector<std::int64_t> messages;
        {
            std::lock_guard lock(state->mutex);
            if (auto it = state->keys.find(key); it != state->keys.end()) messages = std::move(it->second);
            state->keys.erase(key);
            std::erase(state->keyOrder, key);
        }
        for (auto message : messages) state->stampMessage(message, text, stop);
    });
}

bool TelegramChannel::flush(double seconds) {
    return state_->worker.flush(seconds);
}

}  // namespace tavra
