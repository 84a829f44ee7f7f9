#include "remote/TelegramProtocol.h"

#include <cctype>

namespace tavra {

namespace {

template <class T>
std::optional<T> field(const Json& object, std::string_view key) {
    if (!object.is_object()) return std::nullopt;
    auto it = object.find(key);
    if (it == object.end()) return std::nullopt;
    if constexpr (std::is_same_v<T, std::string>) {
        if (it->is_string()) return it->template get<std::string>();
    } else {
        if (it->is_number_integer()) return it->template get<std::int64_t>();
    }
    return std::nullopt;
}

const Json& member(const Json& object, std::string_view key) {
    static const Json none;
    if (!object.is_object()) return none;
    auto it = object.find(key);
    return it == object.end() ? none : *it;
}

}  // namespace

std::vector<TelegramUpdate> parseTelegramUpdates(const Json& result) noexcept {
    std::vector<TelegramUpdate> updates;
    if (!result.is_array()) return updates;
    for (const auto& element : result) {
        auto id = field<std::int64_t>(element, "update_id");
        if (!id) continue;
        TelegramUpdate update;
        update.id = *id;
        if (const auto& message = member(element, "message"); message.is_object()) {
            update.chat = field<std::int64_t>(member(message, "chat"), "id");
            update.user = field<std::int64_t>(member(message, "from"), "id");
            update.text = field<std::string>(message, "text").value_or("");
            update.date = field<std::int64_t>(message, "date").value_or(0);
        } else if (const auto& tap = member(element, "callback_query"); tap.is_object()) {
            const auto& shown = member(tap, "message");
            update.chat = field<std::int64_t>(member(shown, "chat"), "id");
            update.user = field<std::int64_t>(member(tap, "from"), "id");
            update.message = field<std::int64_t>(shown, "message_id");
            update.messageText = field<std::string>(shown, "text");
            update.callback = field<std::string>(tap, "id");
            update.text = field<std::string>(tap, "data").value_or("");
            if (!update.callback || !update.message) update.text.clear();
        }
        updates.push_back(std::move(update));
    }
    return updates;
}

namespace {

struct Token {
    std::string_view text;
    std::size_t width;  // UTF-16 units of visible text
    bool tag;
};

std::size_t sequenceLength(unsigned char lead) {
    if (lead >= 0xf0) return 4;
    if (lead >= 0xe0) return 3;
    if (lead >= 0xc0) return 2;
    return 1;
}

bool isWordChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-';
}

// The length of the tag or entity at the start of `text`, or 0 when it is
// plain text. Only a well-formed name counts: a stray "<" or "&" must read
// the same after a cut, when a closing tag follows it.
std::size_t markupLength(std::string_view text) {
    std::size_t at = 1;
    if (text[0] == '<') {
        if (at < text.size() && text[at] == '/') ++at;
        std::size_t name = at;
        while (at < text.size() && isWordChar(text[at])) ++at;
        if (at == name || at == text.size() || (text[at] != '>' && text[at] != ' ')) return 0;
        auto end = text.find('>', at);
        return end == std::string_view::npos ? 0 : end + 1;
    }
    if (at < text.size() && text[at] == '#') ++at;
    std::size_t name = at;
    while (at < text.size() && at < 12 && std::isalnum(static_cast<unsigned char>(text[at]))) ++at;
    return at > name && at < text.size() && text[at] == ';' ? at + 1 : 0;
}

std::vector<Token> tokenize(std::string_view html) {
    std::vector<Token> tokens;
    std::size_t at = 0;
    while (at < html.size()) {
        char c = html[at];
        if (c == '<' || c == '&') {
            if (auto length = markupLength(html.substr(at))) {
                tokens.push_back({html.substr(at, length), c == '&' ? 1u : 0u, c == '<'});
                at += length;
                continue;
            }
        }
        // A broken sequence ends where its continuation bytes end, so a cut
        // and the tags around it never change how the rest reads.
        std::size_t length = 1,
                    most = std::min(sequenceLength(static_cast<unsigned char>(c)), html.size() - at);
        while (length < most && (static_cast<unsigned char>(html[at + length]) & 0xc0) == 0x80) ++length;
        tokens.push_back({html.substr(at, length), length == 4 ? 2u : 1u, false});
        at += length;
    }
    return tokens;
}

std::string tagName(std::string_view tag) {
    auto name = tag.substr(tag.starts_with("</") ? 2 : 1);
    return std::string(name.substr(0, name.find_first_of(" >")));
}

}  // namespace

std::size_t telegramTextLength(std::string_view html) {
    std::size_t length = 0;
    for (const auto& token : tokenize(html)) length += token.width;
    return length;
}

std::vector<std::string> splitTelegramHtml(std::string_view html, std::size_t limit) {
    const auto tokens = tokenize(html);
    std::vector<std::string> parts;
    std::vector<std::string_view> open;  // opening tags in force, outermost first
    std::size_t at = 0;
    while (at < tokens.size()) {
        std::size_t width = 0, end = at, lastBreak = 0;
        while (end < tokens.size() && width + tokens[end].width <= limit) {
            if (tokens[end].text == "\n") lastBreak = end;
            width += tokens[end].width;
            ++end;
        }
        if (end == at) ++end;  // a limit below one character still moves on
        // Cut after the last line end when the text does not fit whole.
        if (end < tokens.size() && lastBreak > at) end = lastBreak + 1;
        std::string part;
        for (auto tag : open) part.append(tag);
        bool visible = false;
        std::size_t last = end;
        if (last > at && tokens[last - 1].text == "\n") --last;  // the cut's line end goes
        for (std::size_t i = at; i < end; ++i) {
            const auto& token = tokens[i];
            if (token.tag) {
                if (token.text.starts_with("</")) {
                    auto name = tagName(token.text);
                    for (auto it = open.rbegin(); it != open.rend(); ++it)
                        if (tagName(*it) == name) {
                            open.erase(std::next(it).base());
                            break;
                        }
                } else {
                    open.push_back(token.text);
                }
            } else if (i < last && token.text != " " && token.text != "\n") {
                visible = true;
            }
            if (i < last || token.tag) part.append(token.text);
        }
        for (auto it = open.rbegin(); it != open.rend(); ++it) part += "</" + tagName(*it) + ">";
        if (visible) parts.push_back(std::move(part));
        at = end;
    }
    return parts;
}

Json telegramKeyboard(const std::vector<std::vector<AlertAction>>& rows,
                      const std::function<void(const AlertAction&)>& dropped) {
    Json keyboard = Json::array();
    for (const auto& row : rows) {
        Json buttons = Json::array();
        for (const auto& action : row) {
            if (action.command.empty() || action.command.size() > 64 || action.label.empty()) {
                if (dropped) dropped(action);
                continue;
            }
            buttons.push_back({{"text", action.label}, {"callback_data", action.command}});
        }
        if (!buttons.empty()) keyboard.push_back(std::move(buttons));
    }
    if (keyboard.empty()) return nullptr;
    return {{"inline_keyboard", std::move(keyboard)}};
}

std::string cutCodePoints(std::string_view text, std::size_t count) {
    std::size_t at = 0;
    for (std::size_t n = 0; n < count && at < text.size(); ++n)
        at += std::min(sequenceLength(static_cast<unsigned char>(text[at])), text.size() - at);
    return std::string(text.substr(0, at));
}

}  // namespace tavra
