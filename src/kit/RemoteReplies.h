#pragma once

// Everything the system says on the phone. A chat channel only renders a
// RemoteReply; it writes no text of its own. Buttons carry commands of the
// remote command language (core/RemoteCommand.h), so a tap comes back through
// RemoteCommand::parse like typed text.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/Date.h"
#include "core/Effects.h"
#include "core/Models.h"
#include "core/Report.h"
#include "kit/DaemonProtocol.h"

namespace tavra {

// One answer to the phone.
struct RemoteReply {
    // Where the reply goes; a tagged union.
    struct Placement {
        // The tapped message stays, marked with this short unescaped text;
        // its buttons go.
        struct Stamp {
            std::string text;
            bool operator==(const Stamp&) const = default;
        };
        // A new message.
        struct New {
            bool operator==(const New&) const = default;
        };
        // Takes the place of the tapped message (a new one if there was none).
        struct Replace {
            bool operator==(const Replace&) const = default;
        };
        using Case = std::variant<Stamp, New, Replace>;

        Case value;

        static Placement stamp(std::string text) { return {Stamp{std::move(text)}}; }
        static Placement newMessage() { return {New{}}; }
        static Placement replace() { return {Replace{}}; }

        bool operator==(const Placement&) const = default;
    };

    // The message: text with <b> and <i> only, lines joined by "\n"; every
    // outside piece inside it is escaped.
    std::string html;
    // Inline buttons, row by row: the face and the command a tap sends.
    std::vector<std::vector<AlertAction>> buttons;
    Placement placement;
    // Short unescaped confirmation of the tap.
    std::optional<std::string> toast;
    // Ask the chat client to open a reply box.
    bool forceReply = false;

    // `html` for a channel without formatting: tags removed, then the
    // entities &lt; &gt; &quot; and, last, &amp; turned back into text.
    std::string plain() const;

    // "&" -> "&amp;", "<" -> "&lt;", ">" -> "&gt;"; double quotes stay.
    static std::string escape(std::string_view text);

    bool operator==(const RemoteReply&) const = default;
};

// Pure builders of every reply. They take the time as an argument, read no
// clock and do no input or output; times of day come out in ICU's default
// zone and locale. None of them throws for any value.
namespace RemoteReplies {

// The periods a report offers as buttons, in hours.
inline constexpr std::int64_t reportPeriods[] = {12, 24, 72, 168};

// ---- Status, report and the fixed replies ----

// The status message. `note` goes in front as it comes, unescaped.
RemoteReply status(const DaemonStatus& status, const std::optional<std::string>& note, Date now);
// The report over the last `hours`.
RemoteReply report(const Report& report, std::int64_t hours);
RemoteReply help();
// Unknown text, cut to 40 characters.
RemoteReply unknown(std::string_view text);
// A pause or resume target that matched no run.
RemoteReply noMatch(std::string_view target);
RemoteReply stayAwake(std::int64_t minutes, Date until);
RemoteReply released(std::int64_t agentsWorking);
RemoteReply confirmSleep(std::int64_t working);
RemoteReply sleeping();
RemoteReply cancelled();
RemoteReply enabled(bool on);

// ---- Approvals and questions ----

// Acknowledges an approve or deny tap; stamps the request's message.
RemoteReply approval(bool approved, std::string_view tool);
// Question `index` of the ticket with its buttons; `selected` holds the
// option indices chosen so far in a multi-select question. An index past the
// end gives approvalGone(). Precondition: index >= 0.
RemoteReply question(const ApprovalTicket& ticket, std::int64_t index,
                     const std::set<std::int64_t>& selected);
// Asks for a typed answer to question `index` (any index is tolerated).
RemoteReply askForText(const ApprovalTicket& ticket, std::int64_t index);
// What was sent back, one line per question; `answers` is keyed by the full
// question text.
RemoteReply answered(const ApprovalTicket& ticket, const std::map<std::string, std::string>& answers);
RemoteReply approvalGone();
RemoteReply answerAtMachine();

}  // namespace RemoteReplies

}  // namespace tavra
