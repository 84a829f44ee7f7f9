// `tavra config`: the settings seen and changed through the daemon, or in
// the file while the daemon is not running.

#include <cmath>
#include <cstdlib>

#include "cli/Commands.h"
#include "core/RemoteCommand.h"
#include "kit/Config.h"
#include "kit/UnixSocket.h"

namespace tavra::cli {

namespace {

constexpr double kTimeout = 10.0;

}  // namespace

LoadedConfig loadConfig(Services& services) {
    try {
        DaemonResponse response = services.send(DaemonRequest::getConfig(), kTimeout);
        if (auto* config = std::get_if<DaemonResponse::Config>(&response.value))
            return {config->config, true};
        if (auto* error = std::get_if<DaemonResponse::Failure>(&response.value))
            throw Failure(error->message);
        throw Failure("The daemon gave an unexpected reply.");
    } catch (const SocketError&) {
        return {ConfigStore::load(services.configFile), false};
    }
}

namespace {

// Settings that may be absent from the file and so from its JSON form.
Json optionalKind(const std::string& key) {
    if (key == "remote.telegram.chatID") return Json(std::int64_t{0});
    if (key == "remote.telegram.botUsername") return Json("");
    return Json();
}

Json::json_pointer pointerFor(const std::string& key) {
    std::string pointer;
    std::size_t start = 0;
    while (true) {
        std::size_t dot = key.find('.', start);
        std::string part = key.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
        if (part.empty()) throw Failure("Not a setting: \"" + key + "\". See `tavra config show`.", 2);
        pointer += "/" + part;
        if (dot == std::string::npos) break;
        start = dot + 1;
    }
    return Json::json_pointer(pointer);
}

void flatten(const Json& node, const std::string& prefix, std::vector<std::pair<std::string, Json>>& out) {
    if (node.is_object()) {
        for (const auto& [key, value] : node.items())
            flatten(value, prefix.empty() ? key : prefix + "." + key, out);
    } else {
        out.emplace_back(prefix, node);
    }
}

// Whole numbers without a decimal part, as the settings file writes them.
std::string shown(const Json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number_float()) {
        double number = value.get<double>();
        if (std::trunc(number) == number && std::fabs(number) < 1e15)
            return std::to_string(static_cast<std::int64_t>(number));
    }
    return value.dump();
}

Json readValue(const std::string& key, const Json& like, const std::string& text) {
    auto bad = [&](const std::string& expected) {
        return Failure(key + " takes " + expected + ", not \"" + text + "\".", 2);
    };
    if (like.is_boolean()) {
        if (text == "true" || text == "on" || text == "yes") return true;
        if (text == "false" || text == "off" || text == "no") return false;
        throw bad("true or false");
    }
    if (like.is_number_integer()) {
        auto number = RemoteCommand::readInteger(text);
        if (!number) throw bad("a whole number");
        return *number;
    }
    if (like.is_number()) {
        char* end = nullptr;
        double number = std::strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0' || !std::isfinite(number)) throw bad("a number");
        return number;
    }
    if (like.is_string()) return text;
    throw Failure(key + " is a group of settings; name one of its keys.", 2);
}

void checkBounds(const std::string& key, const Json& value, const TavraConfig& config) {
    // Every number of the settings is a count, a percentage or seconds, but
    // for Telegram's chat id, negative for groups.
    if (value.is_number() && value.get<double>() < 0 && key != "remote.telegram.chatID")
        throw Failure(key + " must not be negative.", 2);
    if (key == "remote.approvalTimeout" && value.get<double>() <= 0)
        throw Failure(key + " must be above 0 seconds.", 2);
    PolicySettings sanitized = config.policy.sanitized();
    if (sanitized != config.policy) {
        Json allowed = sanitized;
        std::string field = key.rfind("policy.", 0) == 0 ? key.substr(7) : "";
        std::string nearest =
            allowed.contains(field) ? " The nearest allowed value is " + allowed[field].dump() + "." : "";
        throw Failure(key + " = " + value.dump() + " is out of bounds." + nearest, 2);
    }
}

}  // namespace

int configShow(const Request& request, Services& services) {
    LoadedConfig loaded = loadConfig(services);
    Json json = loaded.config;
    if (request.json) {
        *services.out << json.dump(2) << "\n";
        return 0;
    }
    std::vector<std::pair<std::string, Json>> settings;
    flatten(json, "", settings);
    for (const auto& [key, value] : settings) {
        // A secret stays off the screen; `config get` shows it on purpose.
        bool secret = key == "remote.telegram.botToken" && value != "";
        *services.out << key << " = " << (secret ? "(set)" : shown(value)) << "\n";
    }
    if (!loaded.fromDaemon)
        *services.out << "(from " << services.configFile.string() << "; the daemon is not running)\n";
    return 0;
}

int configGet(const Request& request, Services& services) {
    Json json = loadConfig(services).config;
    auto pointer = pointerFor(*request.target);
    if (json.contains(pointer)) {
        *services.out << shown(json[pointer]) << "\n";
    } else if (!optionalKind(*request.target).is_null()) {
        *services.out << "(not set)\n";
    } else {
        throw Failure("Not a setting: \"" + *request.target + "\". See `tavra config show`.", 2);
    }
    return 0;
}

int configSet(const Request& request, Services& services) {
    const std::string& key = *request.target;
    LoadedConfig loaded = loadConfig(services);
    Json json = loaded.config;
    auto pointer = pointerFor(key);
    Json like = json.contains(pointer) ? json[pointer] : optionalKind(key);
    if (like.is_null()) throw Failure("Not a setting: \"" + key + "\". See `tavra config show`.", 2);
    Json value = readValue(key, like, *request.value);
    json[pointer] = value;
    TavraConfig updated;
    try {
        updated = json.get<TavraConfig>();
    } catch (const std::exception&) {
        throw Failure(key + " cannot be \"" + *request.value + "\".", 2);
    }
    checkBounds(key, value, updated);
    *services.out << key << " = " << shown(value);
    saveConfig(updated, services);
    return 0;
}

void saveConfig(const TavraConfig& config, Services& services) {
    try {
        DaemonResponse response = services.send(DaemonRequest::setConfig(config), kTimeout);
        if (auto* error = std::get_if<DaemonResponse::Failure>(&response.value))
            throw Failure(error->message);
        *services.out << "\n";
    } catch (const SocketError&) {
        ConfigStore::save(config, services.configFile);
        *services.out << " (saved to " << services.configFile.string()
                      << "; the daemon reads it when it starts)\n";
    }
}

}  // namespace tavra::cli
