#include "remote/NtfyProtocol.h"

#include <algorithm>
#include <cctype>

#include "core/ConfigCoding.h"

namespace tavra {

namespace {

bool isNonce(std::string_view word) {
    return (word.size() == kNtfyButtonNonce || word.size() == kNtfyAnswerCode) &&
           std::all_of(word.begin(), word.end(),
                       [](char c) { return (c >= 'a' && c <= 'z') || (c >= '2' && c <= '7'); });
}

std::optional<std::string> text(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

}  // namespace

std::optional<NtfyEvent> parseNtfyEvent(std::string_view line) noexcept {
    try {
        Json document = Json::parse(line, nullptr, false);
        if (!document.is_object()) return std::nullopt;
        auto id = text(document, "id"), event = text(document, "event"), topic = text(document, "topic");
        if (!id || !event || !topic || id->empty() || id->size() > 64) return std::nullopt;
        if (!std::all_of(id->begin(), id->end(), [](unsigned char c) { return std::isalnum(c); }))
            return std::nullopt;
        NtfyEvent result{*id, *event, *topic, {}};
        if (*event == "message") {
            auto message = text(document, "message");
            if (!message) return std::nullopt;
            result.message = *message;
        }
        return result;
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<NtfyControl> parseNtfyControl(std::string_view message) noexcept {
    auto blank = message.find(' ');
    auto nonce = message.substr(0, blank);
    if (!isNonce(nonce)) return std::nullopt;
    if (blank == std::string_view::npos) return NtfyControl{std::string(nonce), {}};
    auto rest = message.substr(blank + 1);
    while (!rest.empty() && (rest.back() == '\n' || rest.back() == '\r' || rest.back() == ' '))
        rest.remove_suffix(1);
    if (rest.empty() || nonce.size() != kNtfyAnswerCode) return std::nullopt;
    return NtfyControl{std::string(nonce), std::string(rest)};
}

std::string cutUtf8(std::string_view text, std::size_t bytes) {
    if (text.size() <= bytes) return std::string(text);
    std::size_t end = bytes;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) --end;
    return std::string(text.substr(0, end));
}

}  // namespace tavra
