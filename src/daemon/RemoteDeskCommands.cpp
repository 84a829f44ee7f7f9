// The remote command language carried out: the same for a chat channel and
// for the command line, which is a channel without messages. Tickets move
// through their question flow here; every reply comes from RemoteReplies.

#include <algorithm>

#include "daemon/RemoteDesk.h"
#include "daemon/RemoteDeskState.h"

namespace tavra {

namespace {

std::string trimmed(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n\f\v";
    auto first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) return {};
    auto last = text.find_last_not_of(kBlank);
    return std::string(text.substr(first, last - first + 1));
}

std::int64_t countWorking(const DaemonStatus& status) {
    return std::count_if(status.runs.begin(), status.runs.end(),
                         [](const DaemonStatus::RunView& v) { return v.run.status == RunStatus::working; });
}

}  // namespace

RemoteDesk::State::Outcome RemoteDesk::State::run(const IncomingCommand& command, Date now) {
    // Text typed after an "other" tap answers that question; a tap is always
    // a command, so the user can still choose a button instead.
    if (!command.origin.callback) {
        auto it = awaiting.find(command.origin.channel);
        if (it != awaiting.end()) {
            AwaitedText awaited = it->second;
            Held* h = find(awaited.ticketID);
            if (h && h->index == awaited.index) return typedAnswer(*h, trimmed(command.text), command.origin);
            awaiting.erase(it);
        }
    }
    auto parsed = RemoteCommand::parse(command.text);
    if (!parsed) return State::reply(RemoteReplies::unknown(command.text));
    return runParsed(*parsed, command, now);
}

RemoteDesk::State::Outcome RemoteDesk::State::runParsed(const RemoteCommand& command,
                                                        const IncomingCommand& incoming, Date now) {
    auto order = [&](UserCommand user) {
        if (owner.command) owner.command(std::move(user), now);
    };
    auto currentStatus = [&] { return owner.status ? owner.status(now) : DaemonStatus{}; };

    if (command.is<RemoteCommand::Status>())
        return State::reply(RemoteReplies::status(currentStatus(), std::nullopt, now));
    if (const auto* report = command.as<RemoteCommand::ReportHours>()) {
        Date since = addSeconds(now, -3600.0 * static_cast<double>(report->hours));
        return State::reply(
            RemoteReplies::report(owner.report ? owner.report(since, now) : Report{}, report->hours));
    }
    if (command.is<RemoteCommand::Pause>() || command.is<RemoteCommand::Resume>()) {
        const auto* pause = command.as<RemoteCommand::Pause>();
        const std::optional<std::string>& target =
            pause ? pause->target : command.as<RemoteCommand::Resume>()->target;
        auto resolved = currentStatus().resolve(target);
        if (std::holds_alternative<RemoteCommand::NoRun>(resolved))
            return State::reply(RemoteReplies::noMatch(target.value_or("")));
        std::optional<RunKey> key;
        if (const auto* one = std::get_if<RunKey>(&resolved)) key = *one;
        order(pause ? UserCommand::pause(key) : UserCommand::resume(key));
        return State::reply(RemoteReplies::status(currentStatus(), std::nullopt, now));
    }
    if (const auto* awake = command.as<RemoteCommand::StayAwake>()) {
        Date until = addSeconds(now, 60.0 * static_cast<double>(awake->minutes));
        order(UserCommand::stayAwake(until));
        return State::reply(RemoteReplies::stayAwake(awake->minutes, until));
    }
    if (command.is<RemoteCommand::Release>()) {
        order(UserCommand::stayAwake(std::nullopt));
        return State::reply(RemoteReplies::released(countWorking(currentStatus())));
    }
    if (const auto* sleep = command.as<RemoteCommand::Sleep>()) {
        // The Mac cannot be reached while it sleeps: ask first, always.
        if (!sleep->confirmed)
            return State::reply(RemoteReplies::confirmSleep(countWorking(currentStatus())));
        // Runs after this call has returned: nothing by reference.
        auto sleepNow = [this, now] {
            if (owner.command) owner.command(UserCommand::sleepNow(), now);
        };
        return {RemoteReplies::sleeping(), std::nullopt, sleepNow};
    }
    if (command.is<RemoteCommand::Cancel>()) return State::reply(RemoteReplies::cancelled());
    if (const auto* enable = command.as<RemoteCommand::Enable>()) {
        order(UserCommand::setEnabled(enable->on));
        return State::reply(RemoteReplies::enabled(enable->on));
    }
    if (const auto* approve = command.as<RemoteCommand::Approve>())
        return decideTicket(approve->requestID, true, incoming.origin);
    if (const auto* deny = command.as<RemoteCommand::Deny>())
        return decideTicket(deny->requestID, false, incoming.origin);
    if (const auto* answerCommand = command.as<RemoteCommand::Answer>())
        return answer(*answerCommand, incoming.origin);
    return State::reply(RemoteReplies::help());
}

RemoteDesk::State::Outcome RemoteDesk::State::decideTicket(const std::string& id, bool approved,
                                                           const ChannelOrigin& origin) {
    Held* h = find(id);
    if (!h) return State::reply(RemoteReplies::approvalGone());
    RemoteReply reply = RemoteReplies::approval(approved, h->ticket.toolName);
    finish(id, DaemonResponse::approval(approved ? ApprovalDecision::allow : ApprovalDecision::deny),
           stampOf(reply), &origin);
    return State::reply(std::move(reply));
}

RemoteDesk::State::Outcome RemoteDesk::State::answer(const RemoteCommand::Answer& command,
                                                     const ChannelOrigin& origin) {
    Held* h = find(command.requestID);
    if (!h || !h->ticket.isQuestion()) return State::reply(RemoteReplies::approvalGone());
    const ApprovalTicket& ticket = h->ticket;
    const AgentQuestion& question = (*ticket.questions)[static_cast<std::size_t>(h->index)];
    // A button tapped after "other" means the user chose it instead of typing.
    auto awaited = awaiting.find(origin.channel);
    if (awaited != awaiting.end() && awaited->second.ticketID == ticket.id) awaiting.erase(awaited);

    auto showCurrent = [&] {
        return Outcome{RemoteReplies::question(ticket, h->index, h->selected), ticket.id, nullptr};
    };
    // A stale message (an earlier question, still shown on another channel)
    // is brought up to the question that is asked now.
    if (command.question != h->index) return showCurrent();

    if (command.choice == "mac") {
        finish(ticket.id, DaemonResponse::approval(ApprovalDecision::noDecision), atTheMachine(), &origin);
        return State::reply(RemoteReplies::answerAtMachine());
    }
    if (command.choice == "other") {
        awaiting[origin.channel] = AwaitedText{ticket.id, h->index};
        return State::reply(RemoteReplies::askForText(ticket, h->index));
    }
    if (command.choice == "done") {
        if (!question.multiSelect || h->selected.empty()) return showCurrent();
        return advance(*h, "", origin);
    }
    auto option = RemoteCommand::readInteger(command.choice);
    if (!option || *option < 0 || *option >= static_cast<std::int64_t>(question.options.size()))
        return showCurrent();
    if (question.multiSelect) {
        if (!h->selected.erase(*option)) h->selected.insert(*option);
        return showCurrent();
    }
    return advance(*h, question.options[static_cast<std::size_t>(*option)].label, origin);
}

RemoteDesk::State::Outcome RemoteDesk::State::typedAnswer(Held& h, std::string text,
                                                          const ChannelOrigin& origin) {
    // An empty text answers nothing: ask again, still waiting.
    if (text.empty()) return State::reply(RemoteReplies::askForText(h.ticket, h.index));
    awaiting.erase(origin.channel);
    return advance(h, std::move(text), origin);
}

RemoteDesk::State::Outcome RemoteDesk::State::advance(Held& h, std::string answerText,
                                                      const ChannelOrigin& origin) {
    const auto& questions = *h.ticket.questions;
    const AgentQuestion& question = questions[static_cast<std::size_t>(h.index)];
    if (question.multiSelect) {
        // The ticked options in their order, then what was typed, as one
        // answer: ticking two and typing a third means all three.
        std::string joined;
        for (auto index : h.selected) {
            if (index >= static_cast<std::int64_t>(question.options.size())) continue;
            if (!joined.empty()) joined += ", ";
            joined += question.options[static_cast<std::size_t>(index)].label;
        }
        if (!answerText.empty()) joined += (joined.empty() ? "" : ", ") + answerText;
        answerText = std::move(joined);
    }
    h.answers[question.question] = std::move(answerText);
    h.selected.clear();
    ++h.index;
    if (h.index < static_cast<std::int64_t>(questions.size()))
        return {RemoteReplies::question(h.ticket, h.index, {}), h.ticket.id, nullptr};

    ApprovalTicket ticket = h.ticket;
    auto answers = h.answers;
    RemoteReply reply = RemoteReplies::answered(ticket, answers);
    finish(ticket.id, DaemonResponse::answers(std::move(answers)), stampOf(reply), &origin);
    return State::reply(std::move(reply));
}

// ---- RemoteDesk ----

RemoteReply RemoteDesk::execute(const IncomingCommand& command, Date now) {
    State::Outcome outcome = state_->run(command, now);
    if (outcome.afterReply) outcome.afterReply();
    return std::move(outcome.reply);
}

void RemoteDesk::incoming(const IncomingCommand& command, Date now) {
    State& s = *state_;
    State::Outcome outcome;
    try {
        outcome = s.run(command, now);
    } catch (...) {
        return;
    }
    if (auto channel = s.channelNamed(command.origin.channel)) {
        State::Held* h = outcome.continues ? s.find(*outcome.continues) : nullptr;
        if (h && !command.origin.message) {
            // A question that follows typed text stands in a new message; it
            // is remembered under the ticket so that its end stamps it too.
            channel->deliver(outcome.reply, h->ticket.id);
            ++h->shownOn[command.origin.channel];
        } else {
            channel->reply(outcome.reply, command.origin);
        }
    }
    if (outcome.afterReply) {
        try {
            outcome.afterReply();
        } catch (...) {
        }
    }
}

}  // namespace tavra
