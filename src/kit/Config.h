#pragma once

// The user's settings file: everything that is not engine policy, its
// defaults, and loading that never fails.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "core/ConfigCoding.h"
#include "core/Settings.h"

namespace tavra {

struct TelegramSettings {
    bool enabled = false;
    std::string botToken;
    std::optional<std::int64_t> chatID;
    std::optional<std::string> botUsername;  // for display only
    // The paired user: only their messages and taps count. Absent in files
    // written before it existed, where the chat (a private one) is the user.
    std::optional<std::int64_t> userID;
    // Where the Bot API answers; another base serves a local Bot API server.
    std::string apiBase{kDefaultAPIBase};

    static constexpr std::string_view kDefaultAPIBase = "https://api.telegram.org";

    // Switched on, with a token and a chat to talk to.
    bool isConfigured() const noexcept { return enabled && !botToken.empty() && chatID.has_value(); }

    bool operator==(const TelegramSettings&) const = default;
};

struct NtfySettings {
    static constexpr std::string_view kDefaultServer = "https://ntfy.sh";

    bool enabled = false;
    std::string server{kDefaultServer};  // base URL, no trailing slash
    std::string topic;                   // where the system publishes
    // An access token for a server with access control, sent by the system
    // when it publishes and subscribes.
    std::optional<std::string> token;
    // The token the phone's buttons send with their command: one allowed
    // only to write the control topic, since every reader of the alert topic
    // sees it. Absent: the buttons send none.
    std::optional<std::string> actionToken;

    // Switched on with a topic; the server plays no part.
    bool isConfigured() const noexcept { return enabled && !topic.empty(); }
    // The topic on which the phone's commands come in.
    std::string controlTopic() const { return topic + "-ctl"; }

    bool operator==(const NtfySettings&) const = default;
};

struct RemoteSettings {
    // When alerts go to the phone.
    enum class NotifyWhen { always, away, never };

    TelegramSettings telegram;
    NtfySettings ntfy;
    NotifyWhen notifyWhen = NotifyWhen::away;
    double deliverBeforeSleep = 15.0;  // seconds given to delivery before a sleep
    bool notifyOnFinish = true;
    double finishMinSeconds = 60.0;  // shortest work worth a finish message
    bool remoteApprovals = true;
    double approvalTimeout = 600.0;  // seconds a remote approval stays open

    bool anyConfigured() const noexcept { return telegram.isConfigured() || ntfy.isConfigured(); }

    bool operator==(const RemoteSettings&) const = default;
};

std::string_view toString(RemoteSettings::NotifyWhen value) noexcept;
std::optional<RemoteSettings::NotifyWhen> parseNotifyWhen(std::string_view text) noexcept;

// The whole file, config.json.
struct TavraConfig {
    PolicySettings policy = PolicySettings::defaults;
    RemoteSettings remote;
    bool localNotifications = true;

    bool operator==(const TavraConfig&) const = default;
};

void to_json(Json& j, const TelegramSettings& value);
void from_json(const Json& j, TelegramSettings& value);
void to_json(Json& j, const NtfySettings& value);
void from_json(const Json& j, NtfySettings& value);
void to_json(Json& j, const RemoteSettings& value);
void from_json(const Json& j, RemoteSettings& value);
void to_json(Json& j, const TavraConfig& value);
void from_json(const Json& j, TavraConfig& value);

namespace ConfigStore {

// The settings in `file` laid over the defaults. Never throws: a missing or
// unreadable file, or any damage in it (bad JSON, a wrong type, an unknown
// enumeration value, a null for a required key) gives all defaults, and the
// file is left as it is. Missing keys at any depth take their defaults.
TavraConfig load(const std::filesystem::path& file) noexcept;

// Writes pretty JSON atomically with mode 0600. The directory must exist.
// Throws FileError (kit/AtomicFile.h).
void save(const TavraConfig& config, const std::filesystem::path& file);

}  // namespace ConfigStore

}  // namespace tavra
