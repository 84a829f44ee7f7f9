#include "remote/Pairing.h"

#include "core/ConfigCoding.h"
#include "remote/ChannelWorker.h"
#include "remote/TelegramProtocol.h"

namespace tavra {

namespace {

struct Answer {
    long status = 0;
    Json document;
};

Answer callTelegram(HttpClient& http, const TelegramSettings& settings, const std::string& method,
                    const Json& params, double timeout, std::stop_token stop) {
    HttpRequest request{"POST",
                        settings.apiBase + "/bot" + settings.botToken + "/" + method,
                        {{"Content-Type", "application/json"}},
                        TavraJSON::encode(params),
                        timeout,
                        0};
    try {
        auto response = http.send(request, stop);
        return {response.status, Json::parse(response.body, nullptr, false)};
    } catch (const HttpError& error) {
        throw PairingError("Cannot reach Telegram: " + error.description());
    }
}

bool isStart(const std::string& text, const std::string& code) {
    auto blank = text.find(' ');
    if (blank == std::string::npos) return false;
    auto command = std::string_view(text).substr(0, blank);
    return (command == "/start" || command.starts_with("/start@")) && text.substr(blank + 1) == code;
}

}  // namespace

std::string makePairingCode() {
    return randomBase32(5);
}

TelegramSettings pairTelegram(HttpClient& http, TelegramSettings settings, const std::string& code,
                              std::ostream& out, const std::function<Date()>& now, Date deadline,
                              std::stop_token stop) {
    auto me = callTelegram(http, settings, "getMe", Json::object(), 30, stop);
    if (me.status == 401 || me.status == 404) throw PairingError("Telegram refused the bot token");
    if (me.status != 200 || !me.document.is_object() || !me.document["result"].is_object())
        throw PairingError("Telegram did not answer getMe (HTTP " + std::to_string(me.status) + ")");
    const Json& username = me.document["result"]["username"];
    std::string bot = username.is_string() ? username.get<std::string>() : "";
    out << "Send this message to @" << bot << " in Telegram:\n\n    /start " << code
        << "\n\nor open https://t.me/" << bot << "?start=" << code << "\n"
        << std::flush;

    std::optional<std::int64_t> offset;
    while (now() < deadline && !stop.stop_requested()) {
        double left = std::chrono::duration<double>(deadline - now()).count();
        Json params{{"timeout", static_cast<std::int64_t>(std::clamp(left, 0.0, 25.0))},
                    {"allowed_updates", {"message"}}};
        if (offset) params["offset"] = *offset;
        auto answer = callTelegram(http, settings, "getUpdates", params, 40, stop);
        if (answer.status == 409)
            throw PairingError(
                "Another program is reading this bot's updates. If another machine uses this bot, "
                "create a bot for each machine.");
        if (answer.status != 200 || !answer.document.is_object()) {
            sleepUnlessStopped(stop, 1.0);
            continue;
        }
        auto updates = parseTelegramUpdates(answer.document["result"]);
        for (const auto& update : updates) {
            offset = std::max(offset.value_or(0), update.id + 1);
            if (update.callback || !update.chat || !update.user || !isStart(update.text, code)) continue;
            // Confirm what was read, so the channel starts after it.
            callTelegram(http, settings, "getUpdates", {{"offset", *offset}, {"timeout", 0}}, 30, stop);
            settings.enabled = true;
            settings.chatID = update.chat;
            settings.userID = update.user;
            settings.botUsername = bot;
            out << "Paired with @" << bot << ".\n" << std::flush;
            return settings;
        }
    }
    throw PairingError("No \"/start " + code + "\" reached @" + bot + " in time");
}

std::string makeNtfyTopic() {
    return "tavra-" + randomBase32(17).substr(0, 26);
}

NtfySettings pairNtfy(HttpClient& http, NtfySettings settings, std::ostream& out) {
    settings.topic = makeNtfyTopic();
    while (!settings.server.empty() && settings.server.back() == '/') settings.server.pop_back();
    HttpHeaders headers{{"Content-Type", "application/json"}};
    if (settings.token) headers.emplace_back("Authorization", "Bearer " + *settings.token);
    Json body{{"topic", settings.topic}, {"title", "Tavra"}, {"message", "This topic is paired with Tavra."}};
    HttpResponse response;
    try {
        response = http.send({"POST", settings.server + "/", headers, TavraJSON::encode(body), 30, 0});
    } catch (const HttpError& error) {
        throw PairingError("Cannot reach " + settings.server + ": " + error.description());
    }
    if (response.status == 401 || response.status == 403)
        throw PairingError(settings.server + " refused the access token");
    if (response.status != 200)
        throw PairingError(settings.server + " refused to publish (HTTP " + std::to_string(response.status) +
                           ")");
    settings.enabled = true;
    out << "Subscribe to this topic in the ntfy app:\n\n    " << settings.server << "/" << settings.topic
        << "\n\nKeep the name secret: whoever knows it can read your alerts.\n"
        << std::flush;
    return settings;
}

}  // namespace tavra
