#pragma once

// The inside of RemoteDesk, shared by its two source files. Private to the
// daemon library.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/RemoteCommand.h"
#include "daemon/RemoteDesk.h"

namespace tavra {

struct RemoteDesk::State {
    // A ticket held open, with where its question flow stands.
    struct Held {
        ApprovalTicket ticket;
        Decide decide;
        Date openedAt{};
        Date expires{};
        std::int64_t index = 0;                      // the question being asked
        std::set<std::int64_t> selected;             // of a multi-select question
        std::map<std::string, std::string> answers;  // by full question text
        std::map<std::string, int> shownOn;          // channel name -> messages under the ticket's id
    };
    // The question whose answer the next typed text of a channel is.
    struct AwaitedText {
        std::string ticketID;
        std::int64_t index = 0;
    };
    // What one command comes to: the reply, where a new message continues a
    // ticket (so that it is remembered under the ticket's id), and what must
    // wait until the reply is on its way.
    struct Outcome {
        RemoteReply reply;
        std::optional<std::string> continues;
        std::function<void()> afterReply;
    };

    static Outcome reply(RemoteReply reply) { return {std::move(reply), std::nullopt, nullptr}; }

    // The stamp of a ticket handed back to the keyboard.
    static constexpr std::string_view kAtTheMac = "\U0001F4BB At the Mac";

    Owner owner;
    RemoteSettings settings;
    std::vector<std::shared_ptr<Channel>> channels;
    std::vector<Held> held;                       // in the order they were opened
    std::map<std::string, AwaitedText> awaiting;  // by channel name

    static std::string stampOf(const RemoteReply& reply);
    static std::string expiredStamp();

    // Puts a held ticket, as far as its questions have come, on one channel.
    static void show(Channel& channel, Held& h);
    std::shared_ptr<Channel> channelNamed(std::string_view name) const;
    bool sendsNow(Date now) const;
    bool mayHold(Date now) const;
    Held* find(std::string_view id);
    // Ends a held ticket: the hook gets `response`, every channel that showed
    // it the stamp, except a tapped message that the reply to `origin`
    // replaces anyway. Nothing happens for an id no longer held.
    void finish(std::string id, DaemonResponse response, const std::string& stamp,
                const ChannelOrigin* origin);
    void finishAll(DaemonResponse response, const std::string& stamp);

    // Commands (RemoteDeskCommands.cpp).
    Outcome run(const IncomingCommand& command, Date now);
    Outcome runParsed(const RemoteCommand& command, const IncomingCommand& incoming, Date now);
    Outcome decideTicket(const std::string& id, bool approved, const ChannelOrigin& origin);
    Outcome answer(const RemoteCommand::Answer& answer, const ChannelOrigin& origin);
    Outcome typedAnswer(Held& h, std::string text, const ChannelOrigin& origin);
    // Records the answer to the current question and moves on: the next
    // question, or the answers to the hook after the last.
    Outcome advance(Held& h, std::string answerText, const ChannelOrigin& origin);
};

}  // namespace tavra
