#pragma once

// The daemon's side of the phone: which alerts go out, the tickets that wait
// for a decision (permission requests and an agent's questions), the question
// flows, and the remote command language carried out, for the chat channels
// and for the command line alike.
//
// Contract: belongs to the daemon's serial context; no lock, no clock (every
// call takes `now`; flush() alone waits in real time), no I/O but through the
// channels and the owner's callbacks. Never throws to its caller, save what
// the owner's own callbacks throw out of execute(): a throwing `decide` is
// contained, and incoming() drops a command whose owner callback threw.

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
        std::function<DaemonStatus(Date now)> status;        // runs in display order, plan, ...
        std::function<Report(Date since, Date now)> report;  // journal plus live runs
        std::function<void(UserCommand, Date now)> command;  // carried out on the engine
        std::function<bool(Date now)> ownerAway;             // the engine's notion of an absent user
    };
    // The waiting hook's reply: approval(allow|deny|noDecision) or answers.
    // Called exactly once per opened ticket.
    using Decide = std::function<void(DaemonResponse)>;

    explicit RemoteDesk(Owner owner);
    ~RemoteDesk();
    RemoteDesk(const RemoteDesk&) = delete;
    RemoteDesk& operator=(const RemoteDesk&) = delete;

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
    //
    // Order within one hook request: open the ticket before carrying out the
    // alerts of the request's events, because a permission alert of a run
    // whose ticket is held is not sent (the ticket's own message, with its
    // buttons, stands for it). Events observed at the very `now` of the open
    // count as the request's own and never retire its ticket, so observe()
    // may come before or after open(). A second open() under a held id ends
    // the earlier ticket with noDecision.
    void open(const ApprovalTicket& ticket, Decide decide, Date now);
    // The hook's connection closed before a decision.
    void withdraw(const std::string& ticketID, Date now);
    // A later event of a run: the end of the waiting tool, a next tool's
    // start, the turn's stop or the session's end retire the run's tickets
    // (the user answered at the keyboard).
    void observe(const AgentEvent& event, Date now);
    // The daemon stops: every held ticket goes back to the keyboard
    // (noDecision) and its messages are stamped expired.
    void closeAll(Date now);
    // Expires what is due, and hands every held ticket back to the keyboard
    // (noDecision) once nobody could answer it from elsewhere any more: the
    // owner came back while notifyWhen is `away`, remote approvals were
    // switched off, or no channel is left.
    void tick(Date now);
    // The earliest expiry, for the daemon's timer.
    std::optional<Date> nextDeadline() const;
    std::vector<ApprovalTicket> pending() const;

    // ---- Commands ----
    // Parses, resolves, carries out and answers one command. While a
    // question waits for a typed answer from origin.channel (after its
    // "other" button), the next text without a button tap from there is
    // that answer. The command line uses origin.channel "cli".
    RemoteReply execute(const IncomingCommand& command, Date now);
    // A command from a channel: execute() and the reply sent back on it. The
    // reply to "sleep now" is queued before the sleep is ordered, so that the
    // flush before the sleep carries it.
    void incoming(const IncomingCommand& command, Date now);

    // ---- Alerts ----
    // An engine alert, by notifyWhen, notifyOnFinish and finishMinSeconds.
    void alert(const Alert& alert, Date now);
    // The status message, once to every channel.
    void testNotification(Date now);
    // Gives queued deliveries up to `seconds` in all (before a sleep). True if
    // every channel got everything out.
    bool flush(double seconds);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tavra
