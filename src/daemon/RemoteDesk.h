#pragma once

// The daemon's side of the phone: which alerts go out, the tickets that wait
// for a decision (permission requests and an agent's questions), the question
// flows, and the remote command language carried out, for the chat channels
// and for the command line alike.
//
// Contract: belongs to the daemon's serial context; no lock, no clock (every
// call takes `now`), no I/O but through the channels and the owner's
// callbacks. Never throws to its caller.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Date.h"
#include "core/Effects.h"
#include "core/Models.h"
#include "core/Report.h"
#include "kit/Config.h"
#include "kit/DaemonProtocol.h"
#include "kit/RemoteReplies.h"
#include "remote/Channel.h"

namespace tavra {

class RemoteDesk {
public:
    // What the desk needs of the daemon.
    struct Owner {
        std::function<DaemonStatus(Date now)> status;          // runs in display order, plan, ...
        std::function<Report(Date since, Date now)> report;    // journal plus live runs
        std::function<void(UserCommand, Date now)> command;    // carried out on the engine
        std::function<bool(Date now)> ownerAway;               // the engine's notion of an absent user
    };
    // The waiting hook's reply: approval(allow|deny|noDecision) or answers.
    // Called exactly once per opened ticket.
    using Decide = std::function<void(DaemonResponse)>;

    explicit RemoteDesk(Owner owner);

    // The channels to talk through (the daemon owns and starts them) and the
    // settings in force; both may change at any time.
    void setChannels(std::vector<std::shared_ptr<Channel>> channels);
    void configure(const RemoteSettings& settings);

    // ---- Tickets ----
    // A hook's ticket. Held only where someone can answer it from elsewhere
    // (remoteApprovals on, a channel configured, notifyWhen sends it now);
    // otherwise `decide` gets noDecision at once. A held ticket shows on every
    // channel and ends with approve/deny/answers, noDecision at
    // approvalTimeout, withdrawal, or the run moving on; every way it ends is
    // stamped on the messages that showed it.
    void open(const ApprovalTicket& ticket, Decide decide, Date now);
    // The hook's connection closed before a decision.
    void withdraw(const std::string& ticketID, Date now);
    // A later event of a run: the end of the waiting tool, a next tool's
    // start, the turn's stop or the session's end retire the run's tickets
    // (the user answered at the keyboard).
    void observe(const AgentEvent& event, Date now);
    // Expires what is due.
    void tick(Date now);
    // The earliest expiry, for the daemon's timer.
    std::optional<Date> nextDeadline() const;
    std::vector<ApprovalTicket> pending() const;

    // ---- Commands ----
    // Parses, resolves, carries out and answers one command.
    RemoteReply execute(const IncomingCommand& command, Date now);
    // A command from a channel: execute() and the reply sent back on it.
    void incoming(const IncomingCommand& command, Date now);

    // ---- Alerts ----
    // An engine alert, by notifyWhen, notifyOnFinish and finishMinSeconds.
    void alert(const Alert& alert, Date now);
    void testNotification(Date now);
    // Gives queued deliveries up to `seconds` (before a sleep).
    void flush(double seconds);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tavra
