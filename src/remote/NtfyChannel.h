#pragma once

// The ntfy channel: notifications published to the alert topic, commands read
// from the control topic's JSON stream. ntfy's buttons can only send a fixed
// body, and anyone who knows a topic on an open server may write to it, so a
// button sends a single-use nonce and the command stays here: a control
// message without a live nonce does nothing. The service cannot edit a
// notification; a stamp is a short follow-up notification.

#include <functional>
#include <memory>
#include <string>

#include "core/Date.h"
#include "kit/Config.h"
#include "remote/Channel.h"
#include "remote/HttpClient.h"

namespace tavra {

struct NtfyChannelOptions {
    NtfySettings settings;  // must be isConfigured()
    // The machine's short name, in front of every title. Empty: none.
    std::string machine;
    std::shared_ptr<HttpClient> http;
    // Called from the channel's threads; must be thread-safe.
    std::function<void(std::string)> log;
    double idleSeconds = 100.0;  // a silent stream is dead (the server sends keepalives every 45 s)
    double backoffCap = 60.0;
    // How long a button works: as long as the server keeps the notification.
    double nonceSeconds = 12 * 3600.0;
    std::function<Date()> now = [] { return std::chrono::system_clock::now(); };
};

class NtfyChannel final : public Channel {
public:
    explicit NtfyChannel(NtfyChannelOptions options);
    ~NtfyChannel() override;

    std::string_view name() const noexcept override { return "ntfy"; }
    void start(Sink sink) override;
    void stop() override;
    void deliverAlert(const Alert& alert) override;
    void deliver(const RemoteReply& reply, const std::string& key) override;
    // The toast has no place on ntfy: the reply itself is the acknowledgement.
    // A tap's origin holds the key its notification was delivered under as
    // the message and the spent nonce as the callback. A forced reply carries
    // an answer code; text sent to the control topic as "<code> <answer>"
    // comes back as typed text, with no message or callback.
    void reply(const RemoteReply& reply, const ChannelOrigin& origin) override;
    void stamp(const std::string& key, const std::string& text) override;
    bool flush(double seconds) override;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tavra
