#include "remote/NtfyChannel.h"

#include <map>
#include <mutex>
#include <set>

#include "core/ConfigCoding.h"
#include "remote/ChannelWorker.h"
#include "remote/NtfyProtocol.h"

namespace tavra {

namespace {

constexpr std::size_t kQueueCapacity = 200;
constexpr std::size_t kMaxActions = 3;       // the server refuses a fourth
constexpr std::size_t kMessageBytes = 4096;  // longer bodies would turn into attachments
constexpr int kSendAttempts = 8;

// One notification to publish.
struct Notice {
    std::string title;
    std::string message;
    int priority = 3;
    std::vector<std::string> tags;
    std::vector<AlertAction> actions;
    std::string key;          // what its nonces are filed under
    bool answerCode = false;  // takes typed text as the answer
};

// What a nonce stands for.
struct Ticket {
    std::string command;  // empty: the answer code of a forced reply
    std::string key;
    Date expires;
};

}  // namespace

struct NtfyChannel::State {
    NtfyChannelOptions o;
    std::string server;  // without a trailing slash
    ChannelWorker worker;
    Sink sink;

    std::mutex mutex;  // guards the nonces and the shown keys
    std::map<std::string, Ticket> nonces;
    std::set<std::string> shown;  // keys with a notification that may be stamped

    explicit State(NtfyChannelOptions options)
        : o(std::move(options)),
          server(o.settings.server),
          worker(kQueueCapacity, [this] { say("ntfy: too much waiting to go out, dropped the oldest"); }) {
        while (!server.empty() && server.back() == '/') server.pop_back();
    }

    void say(const std::string& line) const {
        if (o.log) o.log(line);
    }

    HttpHeaders headers() const {
        HttpHeaders list{{"Content-Type", "application/json"}};
        if (o.settings.token) list.emplace_back("Authorization", "Bearer " + *o.settings.token);
        return list;
    }

    std::string title(const std::string& text) const {
        if (o.machine.empty()) return text;
        return text.empty() ? o.machine : o.machine + " · " + text;
    }

    // ---- Nonces -------------------------------------------------------------

    std::string issue(std::string command, const std::string& key, std::size_t bytes) {
        std::lock_guard lock(mutex);
        auto now = o.now();
        std::erase_if(nonces, [now](const auto& entry) { return entry.second.expires <= now; });
        auto nonce = randomBase32(bytes);
        auto expires =
            now + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(o.nonceSeconds));
        nonces[nonce] = {std::move(command), key, expires};
        return nonce;
    }

    void revoke(const std::string& key) {
        std::lock_guard lock(mutex);
        std::erase_if(nonces, [&key](const auto& entry) { return entry.second.key == key; });
    }

    // The command a control message stands for, its nonce spent; nothing for
    // anything but a live nonce in its proper form.
    std::optional<IncomingCommand> redeem(const std::string& message) {
        auto control = parseNtfyControl(message);
        if (!control) return std::nullopt;
        std::lock_guard lock(mutex);
        auto it = nonces.find(control->nonce);
        if (it == nonces.end() || it->second.expires <= o.now()) return std::nullopt;
        bool typed = it->second.command.empty();
        // A button's nonce comes alone, an answer code with its text.
        if (typed == control->text.empty()) return std::nullopt;
        // A tap carries its nonce as the callback, so it is told apart from
        // typed text; typed text, as on any chat, has no message behind it.
        IncomingCommand command{it->second.command, {"ntfy", it->second.key, control->nonce}};
        if (typed) command = {control->text, {"ntfy", std::nullopt, std::nullopt}};
        nonces.erase(it);
        return command;
    }

    // ---- Publishing ---------------------------------------------------------

    void publish(Notice notice, std::stop_token stop) {
        std::vector<std::string> issued;
        Json actions = Json::array();
        for (const auto& action : notice.actions) {
            if (actions.size() == kMaxActions) {
                say("ntfy: left out the button \"" + action.label + "\": a notification holds three");
                continue;
            }
            Json button{{"action", "http"},
                        {"label", action.label},
                        {"url", server + "/" + o.settings.controlTopic()},
                        {"method", "POST"},
                        {"body", issued.emplace_back(issue(action.command, notice.key, 16))},
                        {"clear", true}};
            if (o.settings.actionToken)
                button["headers"] = {{"Authorization", "Bearer " + *o.settings.actionToken}};
            actions.push_back(std::move(button));
        }
        if (notice.answerCode)
            notice.message += "\n\n↩️ " + issued.emplace_back(issue({}, notice.key, 5)) + " …";
        Json body{{"topic", o.settings.topic},
                  {"title", notice.title},
                  {"message", cutUtf8(notice.message, kMessageBytes)},
                  {"priority", notice.priority}};
        if (!notice.tags.empty()) body["tags"] = notice.tags;
        if (!actions.empty()) body["actions"] = std::move(actions);
        HttpRequest request{"POST", server + "/", headers(), TavraJSON::encode(body), 30.0, 0};

        Backoff backoff(o.backoffCap, 5.0);  // the server's bucket refills one request per 5 s
        for (int attempt = 1; attempt <= kSendAttempts && !stop.stop_requested(); ++attempt) {
            std::string why;
            try {
                auto response = o.http->send(request, stop);
                if (response.status == 200) {
                    std::lock_guard lock(mutex);
                    shown.insert(notice.key);
                    return;
                }
                why = "HTTP " + std::to_string(response.status) + " " + cutUtf8(response.body, 200);
                if (response.status != 429 && response.status < 500) {
                    say("ntfy: publishing refused: " + why);
                    break;
                }
            } catch (const HttpError& error) {
                why = error.description();
            }
            if (stop.stop_requested()) break;
            say("ntfy: publishing failed: " + why);
            if (!sleepUnlessStopped(stop, backoff.next())) break;
        }
        // Buttons that never reached the phone must not work later.
        std::lock_guard lock(mutex);
        for (const auto& nonce : issued) nonces.erase(nonce);
    }

    Notice noticeOf(const RemoteReply& reply, std::string key) const {
        Notice notice{title({}), reply.plain(), 3, {}, {}, std::move(key), reply.forceReply};
        for (const auto& row : reply.buttons)
            notice.actions.insert(notice.actions.end(), row.begin(), row.end());
        return notice;
    }

    // A short notification after the fact; it cannot buzz like an alert.
    void followUp(const std::string& key, const std::string& text, std::stop_token stop) {
        revoke(key);
        {
            std::lock_guard lock(mutex);
            if (shown.erase(key) == 0) return;
        }
        publish({title({}), text, 2, {}, {}, key, false}, stop);
        std::lock_guard lock(mutex);
        shown.erase(key);
    }

    // ---- The control topic --------------------------------------------------

    void listen(std::stop_token stop) {
        const std::string control = o.settings.controlTopic();
        std::optional<std::string> since;
        Backoff backoff(o.backoffCap);
        std::string trouble;
        while (!stop.stop_requested()) {
            std::string url = server + "/" + control + "/json";
            if (since) url += "?since=" + *since;
            HttpRequest request{"GET", url, headers(), {}, 0, o.idleSeconds};
            auto began = std::chrono::steady_clock::now();
            std::string why;
            try {
                auto response = o.http->stream(
                    request,
                    [&](std::string_view line) {
                        auto event = parseNtfyEvent(line);
                        if (!event || event->event != "message" || event->topic != control) return;
                        since = event->id;  // a reconnection goes on after it
                        if (auto command = redeem(event->message)) {
                            try {
                                sink(std::move(*command));
                            } catch (...) {
                            }
                        }
                    },
                    stop);
                why = response.status == 200 ? "the stream ended"
                                             : "subscribing refused: HTTP " + std::to_string(response.status);
            } catch (const HttpError& error) {
                why = "cannot reach the server: " + error.description();
            }
            if (stop.stop_requested()) break;
            // A stream that lived a while was fine; one that ends at once must not spin.
            if (std::chrono::steady_clock::now() - began > std::chrono::seconds(10)) backoff.reset();
            if (why != trouble) say("ntfy: " + why);
            trouble = why;
            sleepUnlessStopped(stop, backoff.next());
        }
    }
};

NtfyChannel::NtfyChannel(NtfyChannelOptions options) : state_(std::make_unique<State>(std::move(options))) {}

NtfyChannel::~NtfyChannel() {
    stop();
}

void NtfyChannel::start(Sink sink) {
    if (state_->worker.running()) return;
    state_->sink = std::move(sink);
    state_->worker.start([state = state_.get()](std::stop_token stop) { state->listen(stop); });
}

void NtfyChannel::stop() {
    state_->worker.stop();
}

void NtfyChannel::deliverAlert(const Alert& alert) {
    Notice notice{state_->title(alert.title),
                  alert.body.empty() ? alert.title : alert.body,
                  3,
                  {},
                  alert.actions,
                  alert.id,
                  false};
    switch (alert.level) {
        case Alert::Level::info:
            break;
        case Alert::Level::warning:
            notice.priority = 4;
            notice.tags = {"warning"};
            break;
        case Alert::Level::critical:
            notice.priority = 5;
            notice.tags = {"rotating_light"};
            break;
    }
    state_->worker.push(
        [state = state_.get(), notice](std::stop_token stop) { state->publish(notice, stop); });
}

void NtfyChannel::deliver(const RemoteReply& reply, const std::string& key) {
    state_->worker.push([state = state_.get(), notice = state_->noticeOf(reply, key)](std::stop_token stop) {
        state->publish(notice, stop);
    });
}

void NtfyChannel::reply(const RemoteReply& reply, const ChannelOrigin& origin) {
    state_->worker.push([state = state_.get(), reply, origin](std::stop_token stop) {
        // The tapped notification's other buttons are done with.
        auto key = origin.message.value_or(randomBase32(10));
        if (auto* stamp = std::get_if<RemoteReply::Placement::Stamp>(&reply.placement.value);
            stamp && origin.message && !reply.forceReply) {
            state->followUp(key, stamp->text, stop);
            return;
        }
        if (std::holds_alternative<RemoteReply::Placement::Replace>(reply.placement.value))
            state->revoke(key);
        state->publish(state->noticeOf(reply, key), stop);
    });
}

void NtfyChannel::stamp(const std::string& key, const std::string& text) {
    state_->worker.push(
        [state = state_.get(), key, text](std::stop_token stop) { state->followUp(key, text, stop); });
}

bool NtfyChannel::flush(double seconds) {
    return state_->worker.flush(seconds);
}

}  // namespace tavra
