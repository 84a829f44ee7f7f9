// Tickets and alerts on the phone. A ticket is held only while someone could
// answer it from elsewhere; whatever ends it (an answer from any channel or the
// command line, expiry, the hook going away, the agent moving on) answers the
// hook once and marks the ticket's message on every channel that showed it,
// so nothing waits forever on the phone and no hook waits forever.

#include "daemon/RemoteDesk.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "core/EngineText.h"
#include "core/Text.h"
#include "daemon/RemoteDeskState.h"

namespace tavra {

namespace {

// The buttons of a permission request; the faces are the ones the help text
// announces.
constexpr std::string_view kApproveFace = "\u2705 Approve";
constexpr std::string_view kDenyFace = "\u26D4\uFE0F Deny";

// Events after which an agent no longer waits for what it asked: the tool
// ran or failed, it went on to another tool, its turn ended, the session
// ended, or the user typed a new prompt at the keyboard.
bool movesOn(const AgentEvent& event, const ApprovalTicket& ticket) {
    switch (event.kind) {
        case AgentEvent::Kind::toolFinished:
        case AgentEvent::Kind::toolFailed:
            // Parallel calls of other tools end while this one still waits.
            return !event.tool || event.tool->name == ticket.toolName;
        case AgentEvent::Kind::toolStarted:
        case AgentEvent::Kind::promptSubmitted:
        case AgentEvent::Kind::turnStopped:
        case AgentEvent::Kind::sessionEnded:
            return true;
        case AgentEvent::Kind::sessionStarted:
        case AgentEvent::Kind::permissionRequested:
        case AgentEvent::Kind::needsAttention:
        case AgentEvent::Kind::activity:
            return false;
    }
    return false;
}

// A permission request as the message with the two buttons. Its id is the
// ticket's, so the channels remember it under the key that stamps it later.
Alert requestAlert(const ApprovalTicket& ticket) {
    std::string title;
    Text::appendCapitalizedWords(title, ticket.run.agent.rawValue);
    if (ticket.cwd) {
        title += " (";
        title += Text::lastPathComponentView(*ticket.cwd);
        title += ')';
    }
    title += " needs you";
    std::string body = "Waiting for permission";
    if (!ticket.toolName.empty()) body += " to use " + ticket.toolName;
    body += ".";
    if (!ticket.summary.empty()) body += "\n" + ticket.summary;
    return Alert{ticket.id,
                 std::move(title),
                 std::move(body),
                 Alert::Level::warning,
                 Alert::Category::approval,
                 ticket.run,
                 {AlertAction{std::string(kApproveFace), "approve:" + ticket.id},
                  AlertAction{std::string(kDenyFace), "deny:" + ticket.id}},
                 std::nullopt};
}

}  // namespace

// ---- State: tickets ----

void RemoteDesk::State::show(Channel& channel, Held& h) {
    if (h.ticket.isQuestion())
        channel.deliver(RemoteReplies::question(h.ticket, h.index, h.selected), h.ticket.id);
    else
        channel.deliverAlert(requestAlert(h.ticket));
    ++h.shownOn[std::string(channel.name())];
}

std::string RemoteDesk::State::stampOf(const RemoteReply& reply) {
    if (const auto* stamp = std::get_if<RemoteReply::Placement::Stamp>(&reply.placement.value))
        return stamp->text;
    std::string plain = reply.plain();
    return plain.substr(0, plain.find('\n'));
}

std::string RemoteDesk::State::expiredStamp() {
    return stampOf(RemoteReplies::approvalGone());
}

std::shared_ptr<Channel> RemoteDesk::State::channelNamed(std::string_view name) const {
    for (const auto& channel : channels)
        if (channel && channel->name() == name) return channel;
    return nullptr;
}

bool RemoteDesk::State::sendsNow(Date now) const {
    switch (settings.notifyWhen) {
        case RemoteSettings::NotifyWhen::always:
            return true;
        case RemoteSettings::NotifyWhen::away:
            return owner.ownerAway && owner.ownerAway(now);
        case RemoteSettings::NotifyWhen::never:
            return false;
    }
    return false;
}

bool RemoteDesk::State::mayHold(Date now) const {
    return settings.remoteApprovals && settings.anyConfigured() && !channels.empty() && sendsNow(now);
}

RemoteDesk::State::Held* RemoteDesk::State::find(std::string_view id) {
    auto it = std::find_if(held.begin(), held.end(), [&](const Held& h) { return h.ticket.id == id; });
    return it == held.end() ? nullptr : &*it;
}

void RemoteDesk::State::finish(std::string id, DaemonResponse response, const std::string& stamp,
                               const ChannelOrigin* origin) {
    auto it = std::find_if(held.begin(), held.end(), [&](const Held& h) { return h.ticket.id == id; });
    if (it == held.end()) return;
    // Out of the list before anything is called, so that a decide that calls
    // back into the desk (a withdraw on the closing connection) finds nothing
    // left to end twice.
    Held ending = std::move(*it);
    held.erase(it);
    std::erase_if(awaiting, [&](const auto& entry) { return entry.second.ticketID == ending.ticket.id; });

    try {
        if (ending.decide) ending.decide(std::move(response));
    } catch (...) {
        // The hook's connection is the daemon's concern; the phone still
        // learns that the request ended.
    }

    for (const auto& [name, messages] : ending.shownOn) {
        // A tapped message is answered by the reply in its place; stamping it
        // too would only edit it twice.
        bool answeredInPlace =
            origin && origin->channel == name && origin->message.has_value() && messages == 1;
        if (answeredInPlace) continue;
        if (auto channel = channelNamed(name)) channel->stamp(ending.ticket.id, stamp);
    }
}

void RemoteDesk::State::finishAll(DaemonResponse response, const std::string& stamp) {
    while (!held.empty()) finish(held.front().ticket.id, response, stamp, nullptr);
}

// ---- RemoteDesk ----

RemoteDesk::RemoteDesk(Owner owner) : state_(std::make_unique<State>()) {
    state_->owner = std::move(owner);
}

RemoteDesk::~RemoteDesk() = default;

void RemoteDesk::setChannels(std::vector<std::shared_ptr<Channel>> channels) {
    State& s = *state_;
    std::erase(channels, nullptr);
    // A channel that joins while tickets wait (paired just now, or restarted
    // with new settings and so without its old messages) is shown them as
    // they stand, so that no request waits unseen there.
    for (const auto& channel : channels) {
        if (std::find(s.channels.begin(), s.channels.end(), channel) != s.channels.end()) continue;
        for (auto& h : s.held) {
            h.shownOn[std::string(channel->name())] = 0;
            State::show(*channel, h);
        }
    }
    s.channels = std::move(channels);
}

void RemoteDesk::configure(const RemoteSettings& settings) {
    state_->settings = settings;
}

void RemoteDesk::open(const ApprovalTicket& ticket, Decide decide, Date now) {
    State& s = *state_;
    // An id with a blank cannot travel in a button's command, so nobody could
    // answer it from a phone either.
    bool fitsButtons = !ticket.id.empty() && ticket.id.find(' ') == std::string::npos;
    if (!fitsButtons || !s.mayHold(now)) {
        // Nobody could answer it from elsewhere: the agent's own prompt takes
        // over at once.
        try {
            if (decide) decide(DaemonResponse::approval(ApprovalDecision::noDecision));
        } catch (...) {
        }
        return;
    }
    if (s.find(ticket.id))
        s.finish(ticket.id, DaemonResponse::approval(ApprovalDecision::noDecision), State::expiredStamp(),
                 nullptr);

    State::Held h;
    h.ticket = ticket;
    h.decide = std::move(decide);
    h.openedAt = now;
    // A timeout that is no length at all (NaN, negative) expires at the next tick.
    double timeout = s.settings.approvalTimeout;
    h.expires = addSeconds(now, std::isfinite(timeout) ? std::max(timeout, 0.0) : 0.0);
    for (const auto& channel : s.channels) State::show(*channel, h);
    s.held.push_back(std::move(h));
}

void RemoteDesk::withdraw(const std::string& ticketID, Date) {
    state_->finish(ticketID, DaemonResponse::approval(ApprovalDecision::noDecision), State::expiredStamp(),
                   nullptr);
}

void RemoteDesk::observe(const AgentEvent& event, Date now) {
    State& s = *state_;
    RunKey key = event.runKey();
    std::vector<std::string> retired;
    for (const auto& h : s.held)
        if (h.ticket.run == key && h.openedAt != now && movesOn(event, h.ticket))
            retired.push_back(h.ticket.id);
    for (const auto& id : retired)
        s.finish(id, DaemonResponse::approval(ApprovalDecision::noDecision), std::string(State::kAtTheMac),
                 nullptr);
}

void RemoteDesk::closeAll(Date) {
    state_->finishAll(DaemonResponse::approval(ApprovalDecision::noDecision), State::expiredStamp());
}

void RemoteDesk::tick(Date now) {
    State& s = *state_;
    if (s.held.empty()) return;
    if (!s.mayHold(now)) {
        s.finishAll(DaemonResponse::approval(ApprovalDecision::noDecision), std::string(State::kAtTheMac));
        return;
    }
    std::vector<std::string> due;
    for (const auto& h : s.held)
        if (h.expires <= now) due.push_back(h.ticket.id);
    for (const auto& id : due)
        s.finish(id, DaemonResponse::approval(ApprovalDecision::noDecision), State::expiredStamp(), nullptr);
}

std::optional<Date> RemoteDesk::nextDeadline() const {
    std::optional<Date> earliest;
    for (const auto& h : state_->held)
        if (!earliest || h.expires < *earliest) earliest = h.expires;
    return earliest;
}

std::vector<ApprovalTicket> RemoteDesk::pending() const {
    std::vector<ApprovalTicket> tickets;
    tickets.reserve(state_->held.size());
    for (const auto& h : state_->held) tickets.push_back(h.ticket);
    return tickets;
}

// ---- Alerts ----

void RemoteDesk::alert(const Alert& alert, Date now) {
    State& s = *state_;
    if (!s.sendsNow(now)) return;
    if (alert.category == Alert::Category::finished) {
        // A turn of unknown length is not known to be worth a message.
        if (!s.settings.notifyOnFinish) return;
        if (!alert.workSeconds || *alert.workSeconds < s.settings.finishMinSeconds) return;
    }
    if (alert.category == Alert::Category::permission && alert.run) {
        bool held = std::any_of(s.held.begin(), s.held.end(),
                                [&](const State::Held& h) { return h.ticket.run == *alert.run; });
        if (held) return;
    }
    for (const auto& channel : s.channels) channel->deliverAlert(alert);
}

void RemoteDesk::testNotification(Date now) {
    State& s = *state_;
    if (s.channels.empty() || !s.owner.status) return;
    RemoteReply reply = RemoteReplies::status(s.owner.status(now), std::nullopt, now);
    std::string key = "test-" + EngineText::epoch(now);
    for (const auto& channel : s.channels) channel->deliver(reply, key);
}

bool RemoteDesk::flush(double seconds) {
    // One deadline for all: the machine goes to sleep after `seconds`,
    // however many channels there are.
    using Clock = std::chrono::steady_clock;
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(std::max(seconds, 0.0)));
    bool all = true;
    for (const auto& channel : state_->channels) {
        double left = std::chrono::duration<double>(deadline - Clock::now()).count();
        all = channel->flush(std::max(left, 0.0)) && all;
    }
    return all;
}

}  // namespace tavra
