#pragma once

// The pure half of the Telegram channel: reading getUpdates answers and
// shaping messages the Bot API accepts (HTML split under the length limit,
// inline keyboards whose data fits). No I/O; safe from any thread.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ConfigCoding.h"
#include "core/Effects.h"

namespace tavra {

// One update as the channel needs it. Fields the update lacks stay empty;
// an update that is neither a text message nor a button tap has no text.
struct TelegramUpdate {
    std::int64_t id = 0;
    std::optional<std::int64_t> chat;
    std::optional<std::int64_t> user;
    std::string text;                        // typed text or the button's data
    std::optional<std::int64_t> message;     // the tapped message
    std::optional<std::string> callback;     // the tap's id
    std::optional<std::string> messageText;  // the tapped message's plain text
    std::int64_t date = 0;                   // a typed message's Unix time

    bool operator==(const TelegramUpdate&) const = default;
};

// The updates of a getUpdates `result`. Never throws: an element without a
// whole update_id is skipped, any other damage leaves the update without
// text (it still moves the offset on).
std::vector<TelegramUpdate> parseTelegramUpdates(const Json& result) noexcept;

// The service's own limit on a message's text after entity parsing.
inline constexpr std::size_t kTelegramTextLimit = 4096;
// The length the service counts in `html`: the visible text in UTF-16 units,
// tags not counted and an entity as one.
std::size_t telegramTextLength(std::string_view html);
// `html` (tags <b> and <i>, entities escaped) cut into messages of at most
// `limit`, preferably at line ends. A tag open at a cut is closed at the end
// of one part and opened again at the start of the next; no tag or entity is
// ever cut. Parts that would hold only blanks are left out.
std::vector<std::string> splitTelegramHtml(std::string_view html, std::size_t limit = kTelegramTextLimit);

// The inline keyboard for `rows`, or null when no button remains. A button
// whose command is not 1 to 64 bytes, or whose face is empty, is left out
// and `dropped` hears of it: the service would refuse the whole message.
Json telegramKeyboard(const std::vector<std::vector<AlertAction>>& rows,
                      const std::function<void(const AlertAction&)>& dropped);

// The first `count` characters (code points) of `text`.
std::string cutCodePoints(std::string_view text, std::size_t count);

}  // namespace tavra
