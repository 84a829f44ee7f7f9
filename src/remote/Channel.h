#pragma once

// A chat service that carries the system's words to the owner's phone and
// the owner's commands back. The daemon talks to every channel through this
// interface only; Telegram and ntfy implement it.

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "core/Effects.h"
#include "kit/RemoteReplies.h"

namespace tavra {

// Where an incoming command came from, so that its reply lands in the right
// place: the tapped message (replace, stamp), the tap itself (toast), the
// channel as a whole (new). The ids are the channel's own, opaque elsewhere.
struct ChannelOrigin {
    std::string channel;                 // the channel's name(), or "cli" for the command line
    std::optional<std::string> message;  // the message whose button was tapped
    std::optional<std::string> callback; // the tap, to be answered with the toast

    bool operator==(const ChannelOrigin&) const = default;
};

// One command from the paired owner: text of the remote command language, a
// button's command, or a typed answer to a forced reply.
struct IncomingCommand {
    std::string text;
    ChannelOrigin origin;

    bool operator==(const IncomingCommand&) const = default;
};

// Contract: every call comes from the daemon's serial context, queues its
// work and returns at once; nothing blocks on the network and nothing throws.
// Delivery happens on the channel's own thread, in call order. Messages the
// daemon may later stamp are delivered under a key (an alert's id, a
// ticket's id); the channel remembers which of its messages showed each key.
class Channel {
public:
    // Called on the channel's thread; the daemon posts to its own context.
    using Sink = std::function<void(IncomingCommand)>;

    virtual ~Channel() = default;

    // "telegram", "ntfy": the name in status lists and in ChannelOrigin.
    virtual std::string_view name() const noexcept = 0;

    // Starts the channel's thread. Only commands from the paired owner reach
    // `sink`; anything else is dropped without a reply.
    virtual void start(Sink sink) = 0;
    // Stops polling and sending and joins the thread. Idempotent.
    virtual void stop() = 0;

    // An alert as a new message, its actions as buttons, remembered under
    // alert.id.
    virtual void deliverAlert(const Alert& alert) = 0;
    // A message the daemon starts itself (a question, a test message),
    // remembered under `key`.
    virtual void deliver(const RemoteReply& reply, const std::string& key) = 0;
    // The answer to a command that came from this channel, placed as
    // reply.placement says relative to `origin`; the toast answers the tap,
    // and forceReply opens the reply box (or, where the service has none,
    // takes the next plain text as the answer).
    virtual void reply(const RemoteReply& reply, const ChannelOrigin& origin) = 0;
    // Edits every message shown under `key` to `text` (unescaped) and drops
    // its buttons: a request answered elsewhere, expired or withdrawn.
    virtual void stamp(const std::string& key, const std::string& text) = 0;

    // Waits up to `seconds` for what is queued to go out (before the machine
    // sleeps). True if everything went out.
    virtual bool flush(double seconds) = 0;
};

}  // namespace tavra
