// Approvals and an agent's questions on the phone: the question with its
// buttons (single- and multi-select), the typed answer, and the short
// replies that close a request. The selection state lives with the caller.

#include <cassert>
#include <cstdlib>

#include "core/Text.h"
#include "kit/RemoteReplies.h"
#include "kit/RemoteReplyWords.h"

namespace tavra {

using namespace RemoteReplyWords;

namespace {

const std::vector<AgentQuestion>& questionsOf(const ApprovalTicket& ticket) {
    static const std::vector<AgentQuestion> kNone;
    return ticket.questions ? *ticket.questions : kNone;
}

// A button face: the label as it is, cut to 39 characters and "…" from 41 on.
std::string optionFace(const std::string& label) {
    constexpr std::size_t kLongest = 40;
    if (Text::characterCount(label) <= kLongest) return label;
    return Text::prefixCharacters(label, kLongest - 1) + "\u2026";
}

}  // namespace

RemoteReply RemoteReplies::approval(bool approved, std::string_view tool) {
    std::string text =
        (approved ? "\u2705 Approved " : std::string(kNoEntry) + " Denied ") + std::string(tool);
    return RemoteReply{RemoteReply::escape(text),
                       {},
                       RemoteReply::Placement::stamp(text),
                       approved ? "Approved" : "Denied",
                       false};
}

RemoteReply RemoteReplies::question(const ApprovalTicket& ticket, std::int64_t index,
                                    const std::set<std::int64_t>& selected) {
    // A negative index is a fault of the caller, never of the user's input.
    if (index < 0) std::abort();
    const auto& questions = questionsOf(ticket);
    if (static_cast<std::uint64_t>(index) >= questions.size()) return approvalGone();
    const AgentQuestion& q = questions[static_cast<std::size_t>(index)];
    const std::string prefix = "answer " + ticket.id + " " + std::to_string(index);

    std::vector<std::string> lines;
    std::string heading = "\u2753 " + name(ticket.run.agent, ticket.cwd) + " is asking";
    if (questions.size() >= 2)
        heading.append(kDot).append(std::to_string(index + 1) + " of " + std::to_string(questions.size()));
    lines.push_back(std::move(heading));
    lines.emplace_back();
    if (q.header && !q.header->empty()) lines.push_back("<b>" + RemoteReply::escape(*q.header) + "</b>");
    lines.push_back(RemoteReply::escape(q.question));
    lines.emplace_back();
    for (std::size_t o = 0; o < q.options.size(); ++o) {
        const auto& option = q.options[o];
        std::string entry = std::to_string(o + 1) + ". <b>" + RemoteReply::escape(option.label) + "</b>";
        if (option.description && !option.description->empty())
            entry.append("\n").append(kIndent).append(RemoteReply::escape(*option.description));
        lines.push_back(std::move(entry));
    }
    lines.emplace_back();
    lines.emplace_back(q.multiSelect ? "<i>Pick any, then tap Done.</i>" : "<i>Tap an answer.</i>");

    std::vector<std::vector<AlertAction>> rows;
    for (std::size_t o = 0; o < q.options.size(); ++o) {
        std::string text = optionFace(q.options[o].label);
        std::string face;
        if (q.multiSelect)
            face = std::string(selected.count(static_cast<std::int64_t>(o)) ? kChecked : kUnchecked) + " " +
                   text;
        else
            face = std::to_string(o + 1) + ". " + text;
        rows.push_back({button(std::move(face), prefix + " " + std::to_string(o))});
    }
    if (q.multiSelect) rows.push_back({button("\u2705 Done", prefix + " done")});
    rows.push_back({button(std::string(kWriting) + " Other", prefix + " other"),
                    button("\U0001F4BB At " + theMachine(), prefix + " mac")});

    return RemoteReply{joinLines(lines), std::move(rows), RemoteReply::Placement::replace(), std::nullopt,
                       false};
}

RemoteReply RemoteReplies::askForText(const ApprovalTicket& ticket, std::int64_t index) {
    const auto& questions = questionsOf(ticket);
    std::string html = std::string(kWriting) + " <b>Type your answer</b>\n";
    if (index >= 0 && static_cast<std::uint64_t>(index) < questions.size())
        html += RemoteReply::escape(questions[static_cast<std::size_t>(index)].question);
    return RemoteReply{std::move(html), {}, RemoteReply::Placement::newMessage(), std::nullopt, true};
}

RemoteReply RemoteReplies::answered(const ApprovalTicket& ticket,
                                    const std::map<std::string, std::string>& answers) {
    std::vector<std::string> lines;
    lines.push_back("\u2705 <b>Sent to " + agentName(ticket.run.agent) + "</b>");
    lines.emplace_back();
    for (const auto& q : questionsOf(ticket)) {
        const std::string& title = q.header ? *q.header : q.question;
        auto found = answers.find(q.question);
        std::string answer = found != answers.end() ? found->second : std::string("\u2013");
        lines.push_back("<b>" + RemoteReply::escape(title) + "</b>: " + RemoteReply::escape(answer));
    }
    return RemoteReply{joinLines(lines), {}, RemoteReply::Placement::replace(), "Sent", false};
}

RemoteReply RemoteReplies::approvalGone() {
    return RemoteReply{std::string(kHourglass) + " That request was already answered or timed out.",
                       {},
                       RemoteReply::Placement::stamp(std::string(kHourglass) + " Expired"),
                       "Already answered or expired",
                       false};
}

RemoteReply RemoteReplies::answerAtMachine() {
    return RemoteReply{"\U0001F4BB Okay, the question is waiting at " + theMachine() + ".",
                       {},
                       RemoteReply::Placement::replace(),
                       "Left for " + theMachine(),
                       false};
}

}  // namespace tavra
