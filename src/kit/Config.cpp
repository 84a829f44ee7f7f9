#include "kit/Config.h"

#include "core/EnumTable.h"
#include "kit/AtomicFile.h"

namespace tavra {

namespace {
constexpr EnumTable::Table<RemoteSettings::NotifyWhen, 3> kNotifyWhenNames{{
    {RemoteSettings::NotifyWhen::always, "always"},
    {RemoteSettings::NotifyWhen::away, "away"},
    {RemoteSettings::NotifyWhen::never, "never"},
}};
}  // namespace

std::string_view toString(RemoteSettings::NotifyWhen value) noexcept {
    return EnumTable::nameOf(kNotifyWhenNames, value);
}

std::optional<RemoteSettings::NotifyWhen> parseNotifyWhen(std::string_view text) noexcept {
    return EnumTable::lookup(kNotifyWhenNames, text);
}

void to_json(Json& j, const TelegramSettings& value) {
    j = Json::object();
    j["enabled"] = value.enabled;
    j["botToken"] = value.botToken;
    TavraJSON::setOptional(j, "chatID", value.chatID);
    TavraJSON::setOptional(j, "botUsername", value.botUsername);
    TavraJSON::setOptional(j, "userID", value.userID);
    j["apiBase"] = value.apiBase;
}

void from_json(const Json& j, TelegramSettings& value) {
    TavraJSON::requireObject(j, "TelegramSettings");
    value.enabled = TavraJSON::required<bool>(j, "enabled");
    value.botToken = TavraJSON::required<std::string>(j, "botToken");
    value.chatID = TavraJSON::optional<std::int64_t>(j, "chatID");
    value.botUsername = TavraJSON::optional<std::string>(j, "botUsername");
    value.userID = TavraJSON::optional<std::int64_t>(j, "userID");
    value.apiBase = TavraJSON::required<std::string>(j, "apiBase");
}

void to_json(Json& j, const NtfySettings& value) {
    j = Json::object();
    j["enabled"] = value.enabled;
    j["server"] = value.server;
    j["topic"] = value.topic;
    TavraJSON::setOptional(j, "token", value.token);
    TavraJSON::setOptional(j, "actionToken", value.actionToken);
}

void from_json(const Json& j, NtfySettings& value) {
    TavraJSON::requireObject(j, "NtfySettings");
    value.enabled = TavraJSON::required<bool>(j, "enabled");
    value.server = TavraJSON::required<std::string>(j, "server");
    value.topic = TavraJSON::required<std::string>(j, "topic");
    value.token = TavraJSON::optional<std::string>(j, "token");
    value.actionToken = TavraJSON::optional<std::string>(j, "actionToken");
}

void to_json(Json& j, const RemoteSettings& value) {
    j = Json::object();
    j["telegram"] = value.telegram;
    j["ntfy"] = value.ntfy;
    j["notifyWhen"] = std::string(toString(value.notifyWhen));
    j["deliverBeforeSleep"] = value.deliverBeforeSleep;
    j["notifyOnFinish"] = value.notifyOnFinish;
    j["finishMinSeconds"] = value.finishMinSeconds;
    j["remoteApprovals"] = value.remoteApprovals;
    j["approvalTimeout"] = value.approvalTimeout;
}

void from_json(const Json& j, RemoteSettings& value) {
    TavraJSON::requireObject(j, "RemoteSettings");
    value.telegram = TavraJSON::required<TelegramSettings>(j, "telegram");
    value.ntfy = TavraJSON::required<NtfySettings>(j, "ntfy");
    auto it = j.find("notifyWhen");
    if (it == j.end()) throw DecodingError("key \"notifyWhen\" not found");
    value.notifyWhen = TavraJSON::readEnum<RemoteSettings::NotifyWhen>(*it, parseNotifyWhen, "NotifyWhen");
    value.deliverBeforeSleep = TavraJSON::required<double>(j, "deliverBeforeSleep");
    value.notifyOnFinish = TavraJSON::required<bool>(j, "notifyOnFinish");
    value.finishMinSeconds = TavraJSON::required<double>(j, "finishMinSeconds");
    value.remoteApprovals = TavraJSON::required<bool>(j, "remoteApprovals");
    value.approvalTimeout = TavraJSON::required<double>(j, "approvalTimeout");
}

void to_json(Json& j, const TavraConfig& value) {
    j = Json::object();
    j["policy"] = value.policy;
    j["remote"] = value.remote;
    j["localNotifications"] = value.localNotifications;
}

void from_json(const Json& j, TavraConfig& value) {
    TavraJSON::requireObject(j, "TavraConfig");
    value.policy = TavraJSON::required<PolicySettings>(j, "policy");
    value.remote = TavraJSON::required<RemoteSettings>(j, "remote");
    value.localNotifications = TavraJSON::required<bool>(j, "localNotifications");
}

namespace ConfigStore {

TavraConfig load(const std::filesystem::path& file) noexcept {
    // One bad value costs the whole file: a half-read configuration could
    // switch a channel on with another setting's value missing.
    try {
        auto bytes = readWholeFile(file);
        if (!bytes) return TavraConfig{};
        return TavraJSON::decode(*bytes, TavraConfig{});
    } catch (...) {
        return TavraConfig{};
    }
}

void save(const TavraConfig& config, const std::filesystem::path& file) {
    writeFileAtomically(file, TavraJSON::encode(Json(config), /*pretty=*/true), 0600);
}

}  // namespace ConfigStore

}  // namespace tavra
