#pragma once

// The Telegram channel: long polling of the Bot API on one thread, deliveries
// in call order on another. Only the paired chat and user are obeyed; the
// update offset survives restarts in a small state file, so an update is
// handed on at most once.

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "core/Date.h"
#include "kit/Config.h"
#include "remote/Channel.h"
#include "remote/HttpClient.h"

namespace tavra {

struct TelegramChannelOptions {
    TelegramSettings settings;        // must be isConfigured()
    std::filesystem::path stateFile;  // the update offset; its directory must exist
    // The machine's short name, the first line of every message, and the
    // address "@name" that typed commands may carry. Empty: no label.
    std::string machine;
    std::shared_ptr<HttpClient> http;
    // Called from the channel's threads; must be thread-safe. Never sees the token.
    std::function<void(std::string)> log;
    double pollSeconds = 30.0;    // how long the service holds a getUpdates
    double backoffCap = 60.0;     // the longest wait after failures
    double staleSeconds = 600.0;  // typed commands older than this are dropped
    std::function<Date()> now = [] { return std::chrono::system_clock::now(); };
};

class TelegramChannel final : public Channel {
public:
    explicit TelegramChannel(TelegramChannelOptions options);
    ~TelegramChannel() override;

    std::string_view name() const noexcept override { return "telegram"; }
    void start(Sink sink) override;
    void stop() override;
    void deliverAlert(const Alert& alert) override;
    void deliver(const RemoteReply& reply, const std::string& key) override;
    void reply(const RemoteReply& reply, const ChannelOrigin& origin) override;
    void stamp(const std::string& key, const std::string& text) override;
    bool flush(double seconds) override;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tavra
